/* Nodes and datastores: every message byte for byte, what peers' messages leave in the tree, and the locks. */
#include "tests/system/harness.h"

#include <algorithm>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

TEST(Publish, lays_out_every_message_byte_for_byte)
{
    Host host;
    const uint32_t uid = 0x01020304;
    const VDiskEntry s = snapshot("sa", "vb");
    VDiskEntry v = plain("vb", 300);
    v.transaction_id = 77;
    host.put(edit(node_record("16909060", "ds1") + datastore_record("ds1") + vdisk_record(v, {"16909060", "8"}) +
                      vdisk_record(s, {"16909060"}),
                  "-Node/8/ VDisk/sa/memberinfo/16909060/frontend: VDisk/vb/transaction_id=77"));
    host.write("/mnt/local_nodes", "16909060\n");
    host.set_clock(1000);
    Daemon d(host, "heartbeat_interval = 1\n", stopped_clock);
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
    const std::string ping = report(v, {uid, 8}) + report(s, {uid}, {}), aux = aux_ping(uid);
    EXPECT_EQ(d.sent(), (Lines{ds_ping(uid, "ds1"), aux, message(MSG_PING, uid, ping), message(MSG_HEARTBEAT, uid),
                               message(MSG_SINGLE_VDISK_PING, uid, report(s, {uid}, {})), aux,
                               vdisk_deleted(uid, "0123456789abcd"), aux}));
}

/* Every text fills its field and every number its width, or is empty and 0; what was heard is published again. */
TEST(Node, keeps_every_value_of_a_header)
{
    Host host;
    host.write("/mnt/local_nodes", "7\n");
    Daemon d(host);
    d.check(aux_ping(7), node_record("7"));
    for (const char status : {'\1', '\xff', '\0'}) {
        const char fill = status == 0 ? '\0' : '\xff', letter = status == 0 ? '\0' : 'x';
        std::string heard = aux_ping(7).replace(0, 4, {status == 0 ? '\0' : 'c', 100, MSG_AUX_PING, status});
        heard.replace(8, 192, 192, letter).replace(72, 8, 8, fill);
        heard.replace(200, 7, 7, fill).replace(212, 24, 24, fill);
        d.apply(status == 1 ? heard.replace(200, 4, "\1\2\xfe\xff") : heard);
        EXPECT_EQ(host.read("/mnt/DB/Node/7/backupchannel"), status == 1 ? "255.254.2.1\n" : "0.0.0.0\n");
        d.publish();
        EXPECT_EQ(d.sent().at(1), heard);
    }
}

TEST(Node, applies_each_message_by_its_length_and_type)
{
    Host host;
    Daemon d(host);
    const Tree bare =
        edit(node_record("7"), "-Node/7/allocatedspace -Node/7/cur -Node/7/max -Node/7/mem"); /* no AUX_PING yet */
    const std::string now = "Node/7/lastping=now", left = now + " -Node/7/datastoremember", leave = message(16, 7);
    const std::string bad_name = "error: handle_ds_ping(): Malformed Datastore UUID from Node 7: ",
                      member = "Node/7/datastoremember", fill = "0123456789abcd";
    // clang-format off
    d.check(edit(node_record("7", "ds1") + datastore_record("ds1", "7") + datastore_record("ds2", "8"),
                 "Node/7/lastping=1 Node/7/allocatedspace=1"), {
        {"", message(MSG_PING, 9).substr(0, 206), "", "error: controller_thread_loop(): Malformed packet? #1\n"},
        {"", message(MSG_HEARTBEAT, 9), "", ""}, {"", message(MSG_HEARTBEAT, 7, "more").replace(3, 1, "\4"), now, ""},
        {"", aux_ping(9).substr(0, 235), "", "error: handle_aux_ping(): Malformed Node Ping?\n"},
        {"", aux_ping(7) + "more", now + " Node/7/allocatedspace=201", ""},
        {"", message(5, 9), "", "error: handle_unknown(): Received unknown header type 5\n"},
        {"", ds_ping(7, "ds1") + "more", now, ""},
        {"", ds_ping(7, "ds2"), now + " Node/7/datastoremember=ds2 Datastore/ds2/members/7>../../../Node/7", ""},
        {"", ds_ping(7, ""), now, bad_name + "\n"}, {"", ds_ping(7, ".."), now, bad_name + "..\n"},
        {"", ds_ping(7, "../ds2"), now, bad_name + "../ds2\n"},
        {"/tmp/DS-ds2:", ds_ping(7, "ds2"), now, ""}, {"/tmp/NODE-7:", ds_ping(7, "ds2"), "", ""},
        /* Leaving a datastore. */
        {"", leave, left + " -Datastore/ds1/", ""}, {"-Datastore/ds1/", leave, left, ""},
        {"", ds_ping(7, "ds2").substr(0, 293), left + " -Datastore/ds1/", ""},
        {"Datastore/ds1/members/8>x", leave, left + " -Datastore/ds1/members/7", ""},
        {"-Datastore/ds1/members/", leave, left + " -Datastore/ds1/", ""},
        {"-" + member, leave, now, ""}, {member + "=", leave, left, ""},
        {member + "=..", leave, now, "error: NodeLoad_DSMember(): Malformed @Node/7/datastoremember: ..\n"},
        {"-Datastore/ds1/members/ Datastore/ds1/members:", leave, now,
            "error: DatastoreUpdate_UnrefNode(): unlink(@Datastore/ds1/members/7): Not a directory\n"},
        {"/tmp/DS-ds1:", leave, now, ""}, {"/tmp/NODE-7:", leave, "", ""}});
    // clang-format on
    /* Of a node that is new. */
    for (const std::string &datagram :
         {message(MSG_PING, 7), ds_ping(7, "ds1").substr(0, 293), message(MSG_SINGLE_VDISK_PING, 7)}) {
        host.put({});
        d.check(datagram, bare);
    }
    d.check(vdisk_deleted(7, "v").substr(0, 224), bare, "error: handle_vdisk_deleted(): Malformed packet? #4\n");
    d.check(ds_ping(7, fill.c_str()), edit(bare, member + "=" + fill) + datastore_record(fill, "7"));
}

TEST(Lock, holds_back_signals_and_is_taken_when_it_is_free)
{
    Host host;
    Daemon d(host, "node_lock_timeout_ms=750\ndatastore_lock_timeout_ms=49\nvdisk_lock_timeout_ms=50\n",
             strace({"-etrace=clock_nanosleep", "-esignal=none"}));
    auto send_and_signal = [&](int signal) {
        host.write("/tmp/NODE-7", "");
        d.send(aux_ping(7));
        d.wait_for("sleep 200ms");
        d.descriptors(); /* asleep by then */
        kill(d.pid, signal);
    };
    send_and_signal(SIGHUP);
    host.remove("/tmp/NODE-7");
    d.sync();
    EXPECT_EQ(diff(node_record("7"), host.tree()), "");
    host.put(Tree{{"/tmp/DS-ds1", ""}, {"/tmp/VDISK-v1", ""}});
    const std::string gives_up = "notice: PathLock(): Timed out locking /tmp/";
    EXPECT_EQ(d.apply(ds_ping(7, "ds1")), gives_up + "DS-ds1\n");
    EXPECT_EQ(d.apply(message(MSG_SINGLE_VDISK_PING, 7, report(plain("v1")))),
              "notice: PathLock(): Contention on /tmp/VDISK-v1, sleep 50ms\n" + gives_up + "VDISK-v1\n");
    host.put({});
    send_and_signal(SIGUSR1);
    d.wait_for("sleep 400ms");
    d.descriptors();
    EXPECT_EQ(d.stop(), 0);
    auto timed_out = std::find(d.log.begin(), d.log.end(), gives_up + "NODE-7");
    EXPECT_NE(std::find(timed_out, d.log.end(), "notice: controller_thread_loop(): Exit..."), d.log.end());
    std::string trace = host.read("/mnt/strace"), slept;
    for (size_t at = 0; (at = trace.find("nsec=", at)) != trace.npos; at++)
        slept += std::to_string(atol(trace.c_str() + at + 5) / 1000000) +
                 (trace[trace.find(" = ", at) + 3] == '?' ? "?" : " ");
    EXPECT_EQ(slept, "50 100 200 50 50 100 200?400 ") << "only SIGUSR1 ends a sleep: " << trace;
}
