/* The control channel, and what is published when something cannot be read, on a timer or on demand. */
#include "tests/system/harness.h"

#include <algorithm>
#include <regex>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

/* A client. Sends text and tells what the daemon logs above info until it has read all of that, "P" for the port. */
struct Client {
    Client(Daemon &to) : d(to), so(to.host.socket(SOCK_STREAM, "127.0.0.1", 31337))
    {
        d.wait_for("Accepted CTRL connection");
        d.sync();
    }
    std::string say(const std::string &text, const char *last = "handle_ctrl_cmd(): ")
    {
        EXPECT_EQ(::send(so, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        return heard(last);
    }
    std::string heard(const char *last)
    {
        d.wait_for(last);
        return std::regex_replace(d.sync(), std::regex("127.0.0.1:[0-9]+"), "P");
    }
    Daemon &d;
    int so;
};

TEST(Ctrl, takes_one_line_from_each_read)
{
    Host host;
    host.put(edit(node_record("7", "ds1") + datastore_record("ds1") + vdisk_record(plain("v1")) + node_record("8"),
                  "Node/7/vdisks/0123456789abcd>x"));
    host.write("/mnt/local_nodes", "7\n8\n");
    Daemon d(host);
    Client client(d);
    d.sent();
    const std::string msg = "notice: handle_ctrl_cmd(): MSG from CTRL client P: ",
                      missing = "error: handle_ctrl_cmd(): Missing ";
    const std::string ignored = "notice: handle_ctrl_cmd(): MSG (ignored) from CTRL client P: ",
                      malformed = "error: handle_ctrl_cmd(): Malformed CTRL MSG ";
    const std::string noise(1023, 'n'), uuid15 = "0123456789abcde";
    const struct {
        std::string text, lines, sent;
    } cases[] = {
        {"ds_ping 7\n", msg + "DS_PING Node=7\n", "DS:294 "},
        {"DS_PinG 7\r\n", msg + "DS_PING Node=7\n", "DS:294 "},
        {"ds_pingpong 8\n", msg + "DS_PING Node=8\n", "DS:207 "},
        {"ds_ping  7\n", msg + "DS_PING Node= 7\n", ""},
        {"ds_ping 7 \n", msg + "DS_PING Node=7 \n", ""},
        {"ds_ping 07\n", msg + "DS_PING Node=07\n", ""},
        {"ds_ping 9\n", msg + "DS_PING Node=9\n", ""},
        {"ds_ping\t7\n", missing + "Node UUID for CTRL ds_ping\n", ""},
        {"ds_pin 7\n", ignored + "ds_pin 7\n", ""},
        {" ds_ping 7\n", ignored + " ds_ping 7\n", ""},
        {"single_vdisk_ping 7 v1\n", msg + "SINGLE_VDISK_PING Node=7 VDisk=v1\n", "SINGLE:340 AUX:236 "},
        {"single_vdisk_ping 7 v1\rx\n", msg + "SINGLE_VDISK_PING Node=7 VDisk=v1\rx\n", ""},
        {"single_vdisk_ping 7 v2\n", msg + "SINGLE_VDISK_PING Node=7 VDisk=v2\n", ""},
        {"single_vdisk_ping 8 v1\n", msg + "SINGLE_VDISK_PING Node=8 VDisk=v1\n", ""},
        {"single_vdisk_ping 7 \n", msg + "SINGLE_VDISK_PING Node=7 VDisk=\n", ""},
        {"single_vdisk_ping  7 v1\n", msg + "SINGLE_VDISK_PING Node= VDisk=7 v1\n", ""},
        {"single_vdisk_ping\n", missing + "Node UUID for CTRL single_vdisk_ping\n", ""},
        {"SINGLE_VDISK_PING 7\n", missing + "VDisk UUID for CTRL single_vdisk_ping\n", ""},
        {"vdisk_deleted 7 none\n", msg + "VDISK_DELETED Node=7 VDisk=none\n", "GONE:225 AUX:236 "},
        {"vdisk_deleted 8 a b \n", msg + "VDISK_DELETED Node=8 VDisk=a b \n", "GONE:225 AUX:236 "},
        {"vdisk_deleted 7 0123456789abcd\n", msg + "VDISK_DELETED Node=7 VDisk=0123456789abcd\n", "GONE:225 AUX:236 "},
        {"vdisk_deleted 7 " + uuid15 + "\n",
         msg + "VDISK_DELETED Node=7 VDisk=" + uuid15 +
             "\nerror: send_vdisk_deleted(): Oversized VDISK_DELETED from Node 7 VDisk " + uuid15 + "\n",
         ""},
        {"vdisk_deleted\n", missing + "Node UUID for CTRL vdisk_deleted\n", ""},
        {"vdisk_deleted 7\n", missing + "VDisk UUID for CTRL vdisk_deleted\n", ""},
        {"\n", ignored + "\n", ""},
        {"\r\n", ignored + "\n", ""},
        {"ds_ping 7\nds_ping 8\n", msg + "DS_PING Node=7\n", "DS:294 "},
        {"ds_ping 7\nrest", msg + "DS_PING Node=7\n", "DS:294 "},
        {"ds_pi", malformed + "ds_pi\n", ""},
        {"ng 7\n", ignored + "ng 7\n", ""},
        {std::string("ds_ping 7\0\n", 11), malformed + "ds_ping 7\n", ""},
        {noise.substr(1) + "\n", ignored + noise.substr(1) + "\n", ""},
    };
    for (const auto &[text, lines, sent] : cases) {
        EXPECT_EQ(client.say(text), lines);
        EXPECT_EQ(kinds(d.sent()), sent) << text;
    }
    /* One read takes 1023 bytes and leaves the rest to the next. */
    EXPECT_EQ(client.say(noise + "ds_ping 8\n", "MSG from"), malformed + noise + "\n" + msg + "DS_PING Node=8\n");
    char answer;
    EXPECT_EQ(recv(client.so, &answer, 1, MSG_DONTWAIT), -1) << "nothing is ever answered";
    close(client.so);
    EXPECT_EQ(client.heard("Closing"), "notice: serve_ctrl_conn(): EOF from CTRL client P\n"
                                       "notice: CtrlConnFree(): Closing CTRL connection from P\n");
    Client resets(d);
    struct linger now = {1, 0};
    setsockopt(resets.so, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    close(resets.so);
    EXPECT_EQ(resets.heard("Closing"), "error: serve_ctrl_conn(): read(P): Connection reset by peer\n"
                                       "notice: CtrlConnFree(): Closing CTRL connection from P\n");
}

/* Connections take what select can hold, or what the limit on open files leaves, and the tree still has its share. */
TEST(Ctrl, refuses_connections_that_would_starve_the_daemon)
{
    struct rlimit limit = {4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (const auto &[hard, most] : {std::pair<const char *, int>{"4096", 1024}, {"256", 192}}) {
        Host host;
        Daemon d(host, "", {"/bin/sh", "-c", std::string("ulimit -n ") + hard + "; exec \"$0\" \"$@\""});
        const std::string full = "Too many CTRL connections: descriptor " + std::to_string(most) + " of ";
        std::vector<int> sockets;
        auto lines = [&](const std::string &text) {
            auto holds = [&](const std::string &line) {
                return line.find(text) != line.npos;
            };
            return static_cast<size_t>(std::count_if(d.log.begin(), d.log.end(), holds));
        };
        for (int left = most - d.descriptors() + 20; left > 0; left -= 100) { /* no more than wait in the queue */
            for (int so : host.sockets(std::min(left, 100), SOCK_STREAM, "127.0.0.1", 31337))
                sockets.push_back(so);
            while (lines("accept_ctrl_conn(): ") < sockets.size()) /* one is accepted in a turn */
                d.sync();
        }
        EXPECT_EQ(lines(full), 20u);
        EXPECT_EQ(d.descriptors(), most);
        d.sync();
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
    const std::string no_file = "No such file or directory\n", node = "Node/7/", v = "VDisk/v1/", s = "VDisk/s1/",
                      m = "VDisk/v1/memberinfo/7/";
    const std::string ds = "Datastore/ds1/", root = "/mnt/DB/",
                      stopped = "error: send_pings(): PING from Node 7 not sent due to VDisk v1 error\n";
    const std::string stopped_s = std::regex_replace(stopped, std::regex("v1"), "s1"),
                      failed = "Failed to load /mnt/DB/";
    const std::string all = "DS AUX PING / SINGLE AUX / DS / GONE AUX ", none = "/ / / ";
    const std::string no_ds = "AUX PING / SINGLE AUX / / GONE AUX ", no_ping = "DS AUX / / DS / GONE AUX ";
    const std::string no_s1 = "DS AUX / SINGLE AUX / DS / GONE AUX ", no_member = "DS AUX PING / / DS / GONE AUX ";
    struct Row {
        std::string edits, lines, sent; /* of a publication, and on each of the three commands */
    };
    std::vector<Row> rows = {
        {"", "", all},
        {"/tmp/NODE-7:", "", none},
        {"/tmp/DS-ds1:", "", no_ds},
        {"/tmp/VDISK-v1:", stopped, no_ping},
        {"/tmp/VDISK-s1:", stopped_s, no_s1},
        {"-Node/7/vdisks/", "error: NodeLoad_VDisks(): opendir(/mnt/DB/Node/7/vdisks): " + no_file,
         "/ / DS / GONE AUX "},
        {"Node/7/vdisks/0123456789abcde>x Node/7/vdisks/file=x",
         "error: NodeLoad_VDisks(): Malformed symlink /mnt/DB/Node/7/vdisks/0123456789abcde\n", all},
        {"Node/7/vdisks/v0>x",
         "error: fd_open(): open(/mnt/DB/VDisk/v0): " + no_file + std::regex_replace(stopped, std::regex("v1"), "v0"),
         no_s1},
        {"-Node/7/datastoremember",
         "error: send_pings(): Local node 7 not part of any data store but references vdisks!?\n", no_member},
        {"Node/7/datastoremember=",
         "error: send_pings(): Local node 7 not part of any data store but references vdisks!?\n", all},
        {"-" + ds, "error: fd_open(): open(/mnt/DB/Datastore/ds1): " + no_file, no_ds},
        {ds + "name: " + node + "vendor: " + node + "model= " + node + "freespace=12x " + node + "version=v9.9abc", "",
         all},
        {node + "size=" + std::string(253, '0') + "7 " + node + "backupchannel=here " + v + "transaction_id=9 " + v +
             "description:",
         "", all},
        {node + "size=" + std::string(254, '0') + "7",
         "error: AttrLoad(): Oversized file size\nerror: NodeLoad(): " + failed + node + "size: -1\n", none},
        {node + "hbtl=" + std::string(33, 'x'),
         "error: StringLoad(): String too long in hbtl: " + std::string(33, 'x') + "\nerror: NodeLoad(): " + failed +
             node + "hbtl: -1\n",
         none},
        {node + "version=v100.100",
         "error: StringLoad(): String too long in version: v100.100\nerror: NodeLoad(): " + failed + node +
             "version: -1\n",
         none},
        {node + "version=v9", "error: NodeLoad(): Malformed " + root + node + "version: v9\n", none},
        {node + "hostid:", "error: AttrLoad(): Empty file hostid\nerror: NodeLoad(): " + failed + node + "hostid: -1\n",
         none},
        {node + "hostid:1",
         "error: AttrLoad(): Malformed file hostid\nerror: NodeLoad(): " + failed + node + "hostid: -1\n", none},
        {node + "hostid=", "error: NodeLoad(): " + failed + node + "hostid: -1\n", none},
        {node + "hostid=x", "error: NodeLoad(): " + failed + node + "hostid: 0\n", none},
        {node + "nodestatus=1 " + node + "backupchannel=here", "error: NodeLoad(): inet_pton(here): 0\n", none},
        {node + "nodestatus=1", "", all},
        {v + "transaction_id:",
         "error: AttrLoad(): Empty file transaction_id\nerror: VDiskLoad(): " + failed + v + "transaction_id: -1\n" +
             stopped,
         no_ping},
        {s + "snaptime=1-2-3_4.5", "error: VDiskLoad(): Malformed " + root + s + "snaptime: 1-2-3_4.5\n" + stopped_s,
         no_s1},
        {s + "snaptime=1-2-3_4.5.6.7", "", all},
        {s + "parent=", "error: VDiskLoad(): Malformed " + root + s + "parent: \n" + stopped_s, no_s1},
        {"-" + m, "error: fd_openat(): openat(7): " + no_file + stopped, no_ping},
        {"-" + v + "memberinfo/", "error: fd_openat(): openat(memberinfo): " + no_file + stopped, no_ping},
        {"-" + v + "membership", "error: fd_openat(): openat(membership): " + no_file + stopped, no_ping},
        {"-" + m + "frontend", "error: fd_openat(): openat(frontend): " + no_file + stopped, no_ping},
        {v + "membership=5|0", "error: MembershipLoad(): Malformed file " + root + v + "membership\n" + stopped,
         no_ping},
        {v + "membership:5", "error: MembershipLoad(): Malformed file " + root + v + "membership\n" + stopped, no_ping},
        {m + "frontend=10.0.0.1|010.0.0.1", "error: FrontendsLoad(): inet_pton(010.0.0.1): 0\n" + stopped, no_ping},
        {m + "frontend:10.0.0.1", "error: FrontendsLoad(): Malformed file " + root + m + "frontend\n" + stopped,
         no_ping},
    };
    const struct {
        std::string dir, op, keys, stop, sent;
    } required[] = {
        {node, "NodeLoad",
         "version nodestatus vendor model freespace utilization revision serial hbtl size backupchannel "
         "performance hostid allocatedspace curvdisks curvdisksforctrl maxvdisksforctrl memtotal memavail",
         "", none},
        {ds, "DatastoreLoad", "uuid name description sector_size replicas stripes overcommit", "", no_ds},
        {v, "VDiskLoad", "uuid name sector_size sectors replicas st_mems st_size snapshot description", stopped,
         no_ping},
        {m, "VDiskLoad", "numkeys seqno status port st_mem membership_gen_count", stopped, no_ping},
        {s, "VDiskLoad", "snaptime parent", stopped_s, no_s1},
    };
    for (const auto &[dir, op, keys, stop, sent] : required) {
        std::istringstream words(keys);
        for (std::string key; words >> key;)
            rows.push_back({"-" + dir + key,
                            "error: fd_openat(): openat(" + key + "): " + no_file + "error: " + op + "(): " + failed +
                                dir + key + ": -1\n" + stop,
                            sent});
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
        EXPECT_EQ(std::regex_replace(seen, std::regex(":[0-9]+"), ""), sent) << edits;
    }
    close(client.so);
    d.wait_for("Closing");
    host.put({});
}

TEST(Publish, counts_the_hosts_that_a_message_reached)
{
    Host host;
    host.put(node_record("7", "ds1") + datastore_record("ds1") + vdisk_record(plain("v1")));
    host.write("/mnt/local_nodes", "7\n");
    host.write("/mnt/unicast_hosts", "127.0.0.2\n10.9.9.9\n127.0.0.3\n"); /* no way there */
    host.set_clock(1000);
    int third = host.socket(SOCK_DGRAM, "127.0.0.3", 8000);
    Daemon d(host, "heartbeat_interval = 1\n", stopped_clock());
    Client client(d);
    client.say("single_vdisk_ping 7 v1\n");
    for (int i = 0; i < 2; i++)
        client.say("vdisk_deleted 7 v1\n");
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(client.say("ds_ping 7\n"), "notice: handle_ctrl_cmd(): MSG from CTRL client P: DS_PING Node=7\n"
                                             "error: xmit_msg(): sendto(10.9.9.9:8000, 294): Network is unreachable\n");
    host.set_clock(1004);
    d.sync();
    EXPECT_EQ(d.sent(), drain(third));
    host.set_clock(1007 + 86400);
    d.sync();
    EXPECT_EQ(d.step("notice: stats(): TX: "),
              "ALL=26/26 PING=2/2 DS_PING=8/8 AUX_PING=8/8 SV_PING=2/2 VDISK_DEL=4/4 HEARTBEAT=2/2\n");
    close(client.so);
    d.wait_for("Closing");
    close(third);
}
