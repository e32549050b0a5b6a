/* The control channel, and what is published when something cannot be read, on a timer or on demand. */
#include "tests/system/harness.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

/* Tells what the daemon logs above info until it has read all that is said, "P" for the client's address. */
struct Client {
    explicit Client(Daemon &to) : d(to), so(to.host.socket(SOCK_STREAM, "127.0.0.1", 31337))
    {
        heard("Accepted CTRL connection");
    }
    std::string heard(const char *last)
    {
        d.wait_for(last);
        std::string lines = d.sync();
        for (size_t at; (at = lines.find("127.0.0.1:")) != lines.npos;)
            lines.replace(at, lines.find_first_not_of("0123456789", at + 10) - at, "P");
        return lines;
    }
    std::string say(const std::string &text, const char *last = "handle_ctrl_cmd(): ")
    {
        ::send(so, text.data(), text.size(), 0);
        return heard(last);
    }
    std::string end()
    {
        close(so);
        return heard("Closing");
    }
    Daemon &d;
    int so;
};

TEST(Ctrl, takes_one_line_from_each_read)
{
    Host host;
    host.put(node_record("7", "ds1") + datastore_record("ds1") + vdisk_record(plain("v1")) + node_record("8"));
    host.write("/mnt/local_nodes", "7\n8\n");
    Daemon d(host);
    Client client(d), resets(d);
    d.sent();
    const std::string op = "notice: handle_ctrl_cmd(): ", msg = op + "MSG from CTRL client P: ", noise(1023, 'n');
    const std::string ignored = op + "MSG (ignored) from CTRL client P: ", single = msg + "SINGLE_VDISK_PING Node=";
    const std::string ds = msg + "DS_PING Node=", gone = msg + "VDISK_DELETED Node=", uuid = "0123456789abcd";
    const std::string malformed = "error: handle_ctrl_cmd(): Malformed CTRL MSG ";
    const std::string missing = "error: handle_ctrl_cmd(): Missing ";
    // clang-format off
    for (const auto &[text, lines, sent] : std::vector<std::array<std::string, 3>>{
        {"ds_ping 7\n", ds + "7\n", "DS:294 "}, {"DS_PinG 7\r\n", ds + "7\n", "DS:294 "},
        {"ds_pingpong 8\n", ds + "8\n", "DS:207 "}, {"ds_ping  7\n", ds + " 7\n", ""},
        {"ds_ping 7 \n", ds + "7 \n", ""}, {"ds_ping 9\n", ds + "9\n", ""},
        {"ds_ping\t7\n", missing + "Node UUID for CTRL ds_ping\n", ""}, {"ds_pin 7\n", ignored + "ds_pin 7\n", ""},
        {" ds_ping 7\n", ignored + " ds_ping 7\n", ""}, {"\r\n", ignored + "\n", ""},
        {"single_vdisk_ping 7 v1\n", single + "7 VDisk=v1\n", "SINGLE:340 AUX:236 "},
        {"single_vdisk_ping 7 v1\rx\n", single + "7 VDisk=v1\rx\n", ""},
        {"single_vdisk_ping 8 v1\n", single + "8 VDisk=v1\n", ""},
        {"single_vdisk_ping  7 v1\n", single + " VDisk=7 v1\n", ""},
        {"single_vdisk_ping\n", missing + "Node UUID for CTRL single_vdisk_ping\n", ""},
        {"SINGLE_VDISK_PING 7\n", missing + "VDisk UUID for CTRL single_vdisk_ping\n", ""},
        {"vdisk_deleted 8 a b \n", gone + "8 VDisk=a b \n", "GONE:225 AUX:236 "},
        {"vdisk_deleted 7 " + uuid + "\n", gone + "7 VDisk=" + uuid + "\n", "GONE:225 AUX:236 "},
        {"vdisk_deleted 7 " + uuid + "e\n", gone + "7 VDisk=" + uuid +
            "e\nerror: send_vdisk_deleted(): Oversized VDISK_DELETED from Node 7 VDisk " + uuid + "e\n", ""},
        {"vdisk_deleted\n", missing + "Node UUID for CTRL vdisk_deleted\n", ""},
        {"vdisk_deleted 7\n", missing + "VDisk UUID for CTRL vdisk_deleted\n", ""},
        {"ds_ping 7\nds_ping 8\n", ds + "7\n", "DS:294 "}, {"ds_pi", malformed + "ds_pi\n", ""},
        {std::string("ds_ping 7\0\n", 11), malformed + "ds_ping 7\n", ""}}) {
        // clang-format on
        EXPECT_EQ(client.say(text), lines);
        EXPECT_EQ(kinds(d.sent()), sent) << text;
    }
    /* One read takes 1023 bytes and leaves the rest to the next. */
    EXPECT_EQ(client.say(noise + "ds_ping 8\n", "MSG from"), malformed + noise + "\n" + ds + "8\n");
    EXPECT_EQ(d.sent(client.so), Lines()) << "nothing is ever answered";
    const std::string closing = "notice: CtrlConnFree(): Closing CTRL connection from P\n";
    EXPECT_EQ(client.end(), "notice: serve_ctrl_conn(): EOF from CTRL client P\n" + closing);
    struct linger now = {1, 0};
    setsockopt(resets.so, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    EXPECT_EQ(resets.end(), "error: serve_ctrl_conn(): read(P): Connection reset by peer\n" + closing);
}

/* Connections take what select can hold, or what the limit on open files leaves, and the tree still has its share. */
TEST(Ctrl, refuses_connections_that_would_starve_the_daemon)
{
    struct rlimit limit = {4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (const auto &[hard, most] : {std::pair{"4096", 1024}, {"256", 192}}) {
        Host host;
        Daemon d(host, "", {"/bin/sh", "-c", std::string("ulimit -n ") + hard + "; exec \"$0\" \"$@\""});
        const std::string full = "Too many CTRL connections: descriptor " + std::to_string(most) + " of ";
        std::vector<int> sockets;
        for (int left = most - d.descriptors() + 20; left > 0; left--) {
            sockets.push_back(host.socket(SOCK_STREAM, "127.0.0.1", 31337));
            d.wait_for("accept_ctrl_conn(): "); /* one is accepted in a turn */
            d.sync();
        }
        EXPECT_EQ(std::count_if(d.log.begin(), d.log.end(), [&](auto &line) { return line.find(full) != line.npos; }),
                  20);
        EXPECT_EQ(d.descriptors(), most);
        d.check(aux_ping(7), node_record("7"));
        for (int so : sockets)
            close(so);
    }
}

/* What cannot be read stops the messages that need it, and those of this node alone. */
TEST(Publish, sends_what_can_be_read)
{
    Host host;
    host.write("/mnt/local_nodes", "7\n8\n");
    Daemon d(host);
    Client client(d);
    const Tree base = node_record("7", "ds1") + datastore_record("ds1") + vdisk_record(plain("v1")) +
                      vdisk_record(snapshot("s1", "v1")) + node_record("8");
    /* Of a publication and on each of the three commands. */
    const std::string all = "DS AUX PING / SINGLE AUX / DS / GONE AUX ", none = "/ / / ";
    const std::string no_ds = "AUX PING / SINGLE AUX / / GONE AUX ", no_v1 = "DS AUX / / DS / GONE AUX ";
    const std::string no_s1 = "DS AUX / SINGLE AUX / DS / GONE AUX ", no_openat = "error: fd_openat(): openat(";
    const std::string stop = "error: send_pings(): PING from Node 7 not sent due to VDisk ";
    const std::string stop_v1 = stop + "v1 error\n", stop_s1 = stop + "s1 error\n", failed = "Failed to load @";
    const std::string stray = "error: send_pings(): Local node 7 not part of any data store but references vdisks!?\n";
    // clang-format off
    std::vector<std::array<std::string, 3>> rows = {
        {"", "", all}, {"/tmp/NODE-7:", "", none}, {"/tmp/DS-ds1:", "", no_ds}, {"/tmp/VDISK-v1:", stop_v1, no_v1},
        {"-Node/7/vdisks/", "error: NodeLoad_VDisks(): opendir(@Node/7/vdisks): ENOENT\n", "/ / DS / GONE AUX "},
        {"Node/7/vdisks/0123456789abcde>x Node/7/vdisks/file=x",
            "error: NodeLoad_VDisks(): Malformed symlink @Node/7/vdisks/0123456789abcde\n", all},
        {"Node/7/vdisks/v0>x", "error: fd_open(): open(@VDisk/v0): ENOENT\n" + stop + "v0 error\n", no_s1},
        {"-Node/7/datastoremember", stray, "DS AUX PING / / DS / GONE AUX "}, {"Node/7/datastoremember=", stray, all},
        {"-Datastore/ds1/", "error: fd_open(): open(@Datastore/ds1): ENOENT\n", no_ds},
        {"Datastore/ds1/name: Node/7/vendor: Node/7/backupchannel=x Node/7/freespace=12x V/description:", "", all},
        {"Node/7/version=v9", "error: NodeLoad(): Malformed @Node/7/version: v9\n", none},
        {"Node/7/nodestatus=1 Node/7/backupchannel=x", "error: NodeLoad(): inet_pton(x): 0\n", none},
        {"V/transaction_id=x", "error: VDiskLoad(): " + failed + "VDisk/v1/transaction_id: 0\n" + stop_v1, no_v1},
        {"VDisk/s1/snaptime=1-2-3_4.5", "error: VDiskLoad(): Malformed @VDisk/s1/snaptime: 1-2-3_4.5\n" + stop_s1,
            no_s1},
        {"VDisk/s1/parent=", "error: VDiskLoad(): Malformed @VDisk/s1/parent: \n" + stop_s1, no_s1},
        {"V/membership=5|0", "error: MembershipLoad(): Malformed file @VDisk/v1/membership\n" + stop_v1, no_v1},
        {"M7/frontend=10.0.0.1|010.0.0.1", "error: FrontendsLoad(): inet_pton(010.0.0.1): 0\n" + stop_v1, no_v1}};
    for (const auto &[gone, name] : Tree{{"M7/", "7"}, {"V/memberinfo/", "memberinfo"},
                                         {"V/membership", "membership"}, {"M7/frontend", "frontend"}})
        rows.push_back({"-" + gone, no_openat + name + "): ENOENT\n" + stop_v1, no_v1});
    for (const auto &[dir, op, keys, stopped, sent] : std::vector<std::array<std::string, 5>>{
        {"Node/7/", "NodeLoad", "version nodestatus vendor model freespace utilization revision serial hbtl size "
            "performance backupchannel hostid allocatedspace curvdisks curvdisksforctrl maxvdisksforctrl memtotal "
            "memavail", "", none},
        {"Datastore/ds1/", "DatastoreLoad", "uuid name description sector_size replicas stripes overcommit", "", no_ds},
        {"VDisk/v1/", "VDiskLoad", "uuid name sector_size sectors replicas st_mems st_size snapshot description",
            stop_v1, no_v1},
        {"VDisk/v1/memberinfo/7/", "VDiskLoad", "numkeys seqno status port st_mem membership_gen_count", stop_v1,
            no_v1},
        {"VDisk/s1/", "VDiskLoad", "snaptime parent", stop_s1, no_s1}}) {
        // clang-format on
        std::istringstream words(keys);
        for (std::string key; words >> key;)
            rows.push_back(
                {"-" + dir + key,
                 no_openat + key + "): ENOENT\nerror: " + op + "(): " + failed + dir + key + ": -1\n" + stopped, sent});
    }
    for (const auto &[edits, lines, sent] : rows) {
        host.put(edit(base, edits));
        EXPECT_EQ(d.publish(), lines) << edits;
        std::string seen = kinds(d.sent()), others = "DS:207 AUX:236 PING:207 ";
        EXPECT_TRUE(seen.ends_with(others)) << "node 8 after " << edits;
        seen.resize(seen.size() - others.size());
        for (const char *line : {"single_vdisk_ping 7 v1\n", "ds_ping 7\n", "vdisk_deleted 7 v1\n"}) {
            client.say(line, "MSG from");
            seen += "/ " + kinds(d.sent());
        }
        std::erase_if(seen, [](char c) { return isdigit(c) || c == ':'; });
        EXPECT_EQ(seen, sent) << edits;
    }
    client.end();
    host.put({});
}
