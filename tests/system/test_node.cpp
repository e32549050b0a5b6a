/* Nodes and datastores: what is published byte for byte, what peers' messages leave in the tree, and their locks. */
#include "tests/system/harness.h"

#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

/* A number as it travels. */
static std::string le(uint64_t value, int width)
{
    std::string text;
    for (; width > 0; width--, value >>= 8)
        text += static_cast<char>(value);
    return text;
}

using Fields = std::map<size_t, std::string>;

/* A message of `size` bytes, 0 but for these. */
static std::string image(size_t size, const std::vector<Fields> &parts)
{
    std::string text(size, '\0');
    for (const Fields &fields : parts)
        for (const auto &[offset, value] : fields)
            text.replace(offset, value.size(), value);
    return text;
}

TEST(Publish, lays_out_every_message_byte_for_byte)
{
    Host host;
    const VDiskEntry vb = plain("vb", 300), sa = snapshot("sa", "vb", 5);
    host.put(edit(node_record("16909060", "ds1") + datastore_record("ds1") + vdisk_record(vb, {"16909060", "8"}) +
                      vdisk_record(sa, {"16909060"}),
                  "-Node/8/ VDisk/sa/memberinfo/16909060/frontend: VDisk/vb/transaction_id=77"));
    host.write("/mnt/local_nodes", "16909060\n");
    host.set_clock(1000);
    Daemon d(host, "heartbeat_interval = 1\n", stopped_clock());
    host.set_clock(1004);
    d.sync();
    int ctrl = host.socket(SOCK_STREAM, "127.0.0.1", 31337);
    for (const char *line : {"single_vdisk_ping 16909060 sa\n", "vdisk_deleted 16909060 0123456789abcd\n"}) {
        send(ctrl, line, strlen(line), 0);
        d.wait_for("Send AUX_PING");
        d.sync();
    }
    close(ctrl);
    d.wait_for("Closing");
    const Fields hdr = {{0, "\2\1"},
                        {3, "\2\4\3\2\1vendor"},
                        {40, "model"},
                        {72, le(1001, 4) + le(1002, 4) + "rev"},
                        {104, "serial"},
                        {168, "hbtl"},
                        {200, le(1003, 4) + le(104, 1) + le(1005, 2)}};
    const Fields aux = {{2, "\x23"},
                        {208, le(28, 4)},
                        {212, le(201, 4) + le(202, 4) + le(203, 4)},
                        {224, le(204, 4) + le(205, 4) + le(206, 4)}};
    auto vdisk = [](size_t at) {
        return Fields{{at + 20, "name"},
                      {at + 50, le(301, 4) + le(302, 8) + le(303, 8) + le(304, 8)},
                      {at + 110, le(5, 1) + le(306, 2) + le(307, 2) + le(8, 1) + le(9, 1) + le(310, 2)}};
    };
    auto snap = [&](size_t at) {
        return Fields{{at + 4, "sa"},         {at + 18, "05"},  {at + 49, "\5"},  {at + 78, "\13\3\7"},
                      {at + 82, "\11\5\2vb"}, {at + 119, "\1"}, {at + 121, "\1"}, {at + 125, "\4\3\2\1"}};
    };
    const Fields dse = {{2, "\20"},  {207, "ds1"}, {221, "dsname"}, {253, "dsdescr"}, {285, le(512, 4) + "\2"},
                        {291, "\3"}, {293, "\4"}};
    const Fields ping = {{2, "\4"},   {207, "\115"}, {211, "vb"},          {225, "00"}, {255, "\1\54"}, {285, "descr"},
                         {328, "\2"}, {330, "\1"},   {332, "\4\3\2\1\10"}, {340, "\1"}, {343, "\12"}};
    EXPECT_EQ(
        d.sent(),
        (Lines{image(294, {hdr, dse}), image(236, {hdr, aux}),
               image(473, {hdr, ping, vdisk(207), vdisk(344), snap(344)}), image(207, {hdr, {{2, " "}}}),
               image(336, {hdr, {{2, "!"}}, vdisk(207), snap(207)}), image(236, {hdr, aux}),
               image(225, {hdr, {{2, "\""}, {207, "\4\3\2\1"}, {211, "0123456789abcd"}}}), image(236, {hdr, aux})}));
}

/* What the tree keeps of a node is what it says when it is read back. */
TEST(Node, keeps_every_value_of_a_header)
{
    Host host;
    Daemon d(host);
    d.check(aux_ping(7), node_record("7"));
    host.write("/mnt/local_nodes", "4294967295\n");
    d.reload();
    for (uint8_t nodestatus : {uint8_t{1}, uint8_t{255}}) {
        std::string full = aux_ping(4294967295);
        full.replace(0, 4, "\x63\x64\x23" + std::string(1, static_cast<char>(nodestatus)));
        full.replace(8, 192, std::string(192, 'x')); /* every text fills its field, every number its width */
        full.replace(200, 7, std::string(7, '\xff'));
        full.replace(72, 8, std::string(8, '\xff')).replace(212, 24, std::string(24, '\xff'));
        d.check(full, edit(edit(d.host.tree(), "Node/4294967295/ "),
                           "vdisks/ version=v99.100 uuid=4294967295 status=1 vendor=" + std::string(32, 'x') +
                               " model=" + std::string(32, 'x') + " revision=" + std::string(24, 'x') +
                               " serial=" + std::string(64, 'x') + " hbtl=" + std::string(32, 'x') +
                               " performance=255 hostid=65535 freespace=4294967295 utilization=4294967295 "
                               "ipaddr=127.0.0.2 lastping=now allocatedspace=4294967295 curvdisks=4294967295 "
                               "curvdisksforctrl=4294967295 maxvdisksforctrl=4294967295 memtotal=4294967295 "
                               "memavail=4294967295 nodestatus=" +
                               (nodestatus == 1 ? "1 size=0 backupchannel=255.255.255.255"
                                                : "255 size=4294967295 backupchannel=0.0.0.0"),
                           "Node/4294967295/"));
        d.publish();
        EXPECT_EQ(d.sent().at(1), full) << "what is published is what was heard";
    }
    std::string empty(207, '\0');
    empty[2] = MSG_SINGLE_VDISK_PING;
    d.check(empty, edit(edit(host.tree(), "Node/0/"),
                        "vdisks/ version=v0.0 uuid=0 status=1 nodestatus=0 vendor= model= freespace=0 utilization=0 "
                        "revision= serial= hbtl= performance=0 hostid=0 size=0 backupchannel=0.0.0.0 ipaddr=127.0.0.2 "
                        "lastping=now",
                        "Node/0/"));
}

TEST(Node, applies_each_message_by_its_length_and_type)
{
    Host host;
    Daemon d(host);
    const Tree known = edit(node_record("7", "ds1") + datastore_record("ds1", "7") + datastore_record("ds2", "8"),
                            "Node/7/lastping=1 Node/7/allocatedspace=1");
    const std::string capacity = "-Node/7/allocatedspace -Node/7/cur -Node/7/max -Node/7/mem";
    const std::string now = "Node/7/lastping=now", left = now + " -Node/7/datastoremember";
    const std::string leave = message(MSG_DS_PING, 7);
    std::string other = message(MSG_HEARTBEAT, 7, std::string(93, 'x'));
    other.replace(3, 1, "\4");
    const std::string bad_name = "error: handle_ds_ping(): Malformed Datastore UUID from Node 7: ",
                      dir = "/mnt/DB/Node/7/";
    d.check(
        known,
        {
            {"", message(MSG_PING, 9).substr(0, 206), "", "error: controller_thread_loop(): Malformed packet? #1\n"},
            {"", message(MSG_HEARTBEAT, 9), "", ""},
            {"", message(MSG_HEARTBEAT, 7), now, ""},
            {"", other, now, ""},
            {"", aux_ping(9).substr(0, 235), "", "error: handle_aux_ping(): Malformed Node Ping?\n"},
            {"", aux_ping(7) + "more", now + " Node/7/allocatedspace=201", ""},
            {"", message(5, 9), "", "error: handle_unknown(): Received unknown header type 5\n"},
            {"", ds_ping(7, "ds1") + "more", now, ""},
            {"", ds_ping(7, "ds2"), now + " Node/7/datastoremember=ds2 Datastore/ds2/members/7>../../../Node/7", ""},
            {"", ds_ping(7, ""), now, bad_name + "\n"},
            {"", ds_ping(7, "."), now, bad_name + ".\n"},
            {"", ds_ping(7, ".."), now, bad_name + "..\n"},
            {"", ds_ping(7, "../ds2"), now, bad_name + "../ds2\n"},
            {"/tmp/DS-ds2:", ds_ping(7, "ds2"), now, ""},
            {"/tmp/NODE-7:", ds_ping(7, "ds2"), "", ""},
            /* Leaving a datastore. */
            {"", leave, left + " -Datastore/ds1/", ""},
            {"Datastore/ds1/members/8>x", leave, left + " -Datastore/ds1/members/7", ""},
            {"-Datastore/ds1/members/", leave, left + " -Datastore/ds1/", ""},
            {"-Datastore/ds1/", leave, left, ""},
            {"-Node/7/datastoremember", leave, now, ""},
            {"Node/7/datastoremember=", leave, left, ""},
            {"Node/7/datastoremember=..", leave, now,
             "error: NodeLoad_DSMember(): Malformed " + dir + "datastoremember: ..\n"},
            {"Node/7/datastoremember=a/b", leave, now,
             "error: NodeLoad_DSMember(): Malformed " + dir + "datastoremember: a/b\n"},
            {"Node/7/datastoremember:ds1", leave, now,
             "error: StringLoad(): Malformed file datastoremember\n"
             "error: NodeLoad_DSMember(): Failed to load " +
                 dir + "datastoremember: -1\n"},
            {"-Datastore/ds1/members/ Datastore/ds1/members:", leave, now,
             "error: DatastoreUpdate_UnrefNode(): unlink(/mnt/DB/Datastore/ds1/members/7): Not a directory\n"},
            {"/tmp/DS-ds1:", leave, now, ""},
            {"/tmp/NODE-7:", leave, "", ""},
        });
    d.check(message(MSG_PING, 7), edit(node_record("7"), capacity));
    host.put({});
    d.check(ds_ping(7, "ds1").substr(0, 293), edit(node_record("7"), capacity));
    host.put({});
    d.check(vdisk_deleted(7, "v").substr(0, 224), edit(node_record("7"), capacity),
            "error: handle_vdisk_deleted(): Malformed packet? #4\n");
    const char *uuid = "0123456789abcd"; /* fills its field */
    d.check(ds_ping(7, uuid), edit(node_record("7", uuid), capacity) + datastore_record(uuid, "7"));
    d.apply(message(200, 4294967295));
    EXPECT_EQ(d.step("debug: hdr_dump(): "),
              "major=2\nminor=1\ntype=200 [UNKNOWN]\nnodestatus=2\nuid=4294967295\nvendor=vendor\nmodel=model\n"
              "revision.freespace=1001\nrevision.utilization=1002\nrevision.rev=rev\nserial=serial\nhbtl=hbtl\n"
              "size=1003\nperformance=104\nhostid=1005\n");
}

/* How long a lock is waited for, as the log tells and as the process really slept. */
TEST(Lock, is_waited_for_in_doubling_sleeps)
{
    const struct {
        const char *timeout, *lines, *sleeps;
    } cases[] = {{"0", "", ""},
                 {"49", "Timed out locking /tmp/NODE-7\n", ""},
                 {"50", "Contention on /tmp/NODE-7, sleep 50ms\nTimed out locking /tmp/NODE-7\n", "50 "},
                 {"750",
                  "Contention on /tmp/NODE-7, sleep 50ms\nContention on /tmp/NODE-7, sleep 100ms\n"
                  "Contention on /tmp/NODE-7, sleep 200ms\nContention on /tmp/NODE-7, sleep 400ms\n"
                  "Timed out locking /tmp/NODE-7\n",
                  "50 100 200 400 "}};
    for (const auto &[timeout, lines, sleeps] : cases) {
        Host host;
        Daemon d(host, std::string("node_lock_timeout_ms = ") + timeout + "\n",
                 strace({"-e", "trace=nanosleep,clock_nanosleep", "-e", "signal=none"}));
        host.put({{"/tmp/NODE-7", ""}});
        d.apply(aux_ping(7));
        EXPECT_EQ(d.step("notice: PathLock(): "), lines);
        EXPECT_EQ(diff({{"/tmp/NODE-7", ""}}, host.tree()), "");
        std::string slept, trace = host.read("/mnt/strace");
        for (size_t at = 0; (at = trace.find("tv_nsec=", at)) != trace.npos; at++)
            slept += std::to_string(std::stol(trace.substr(at + 8)) / 1000000) + " ";
        EXPECT_EQ(slept, sleeps);
        host.remove("/tmp/NODE-7");
        d.check(aux_ping(7), node_record("7"));
    }
}

TEST(Lock, holds_back_signals_and_is_taken_when_it_is_free)
{
    Host host;
    Daemon d(host, "node_lock_timeout_ms = 750\n", strace({"-e", "trace=nanosleep,clock_nanosleep"}));
    host.write("/tmp/NODE-7", "1\n");
    d.send(aux_ping(7));
    d.wait_for("sleep 200ms");
    d.wait_until_asleep();
    kill(d.pid, SIGHUP); /* waits, and so does the reload */
    host.remove("/tmp/NODE-7");
    d.sync();
    EXPECT_EQ(diff(node_record("7"), host.tree()), "");
    host.write("/tmp/NODE-7", "1\n");
    d.send(aux_ping(7));
    d.wait_for("sleep 200ms");
    d.wait_until_asleep();
    kill(d.pid, SIGUSR1); /* cuts this sleep short */
    d.wait_for("sleep 400ms");
    d.wait_until_asleep();
    EXPECT_EQ(d.stop(), 0);
    host.remove("/tmp/NODE-7");
    auto line = [&](const char *text) {
        return std::find(d.log.begin(), d.log.end(), text);
    };
    EXPECT_LT(line("notice: PathLock(): Timed out locking /tmp/NODE-7"),
              line("notice: controller_thread_loop(): Exit..."));
    std::string trace = host.read("/mnt/strace"), ends;
    for (size_t at = 0; (at = trace.find(" = ", at)) != trace.npos; at++)
        ends += trace[at + 3];
    EXPECT_EQ(ends, "00000?0") << "only SIGUSR1 ends a sleep: " << trace;
}

/* A lock that cannot be synced is not held, and nobody takes its file away. */
TEST(Lock, that_fails_to_sync_stays_behind)
{
    Host host;
    Daemon d(host, "", strace({"-e", "trace=fsync", "-e", "inject=fsync:error=EIO:when=1", "-P", "/tmp/NODE-7"}));
    const Tree left = {{"/tmp/NODE-7", std::to_string(d.pid) + "\n"}};
    d.check(aux_ping(7), left, "warn: PathLock(): fsync(/tmp/NODE-7): Input/output error\n");
    d.check(aux_ping(7), left);
    host.remove("/tmp/NODE-7");
    d.check(aux_ping(7), node_record("7"));
}
