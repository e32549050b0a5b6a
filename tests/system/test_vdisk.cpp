/* Reports of VDisks: what each may change, what it heals, and how members and VDisks go. */
#include "tests/system/harness.h"

#include <regex>

/* "V/" stands for VDisk/v1/, "M7/" for VDisk/v1/memberinfo/7/, "@" for /mnt/DB/. */
static std::vector<Case> spelled_out(std::vector<Case> cases)
{
    for (auto &[before, datagram, after, lines] : cases) {
        for (std::string *text : {&before, &after}) {
            *text = std::regex_replace(*text, std::regex("(^|[ -])M(\\d)/"), "$1VDisk/v1/memberinfo/$2/");
            *text = std::regex_replace(*text, std::regex("(^|[ -])V/"), "$1VDisk/v1/");
        }
        lines = std::regex_replace(lines, std::regex("@"), "/mnt/DB/");
    }
    return cases;
}

static std::string single(uint32_t uid, const std::string &body)
{
    return message(MSG_SINGLE_VDISK_PING, uid, body);
}

/* Differs in every field from what `plain` makes, so that what is not to change would show. */
static VDiskEntry other(const char *uuid, unsigned gen)
{
    VDiskEntry vde = plain(uuid, gen);
    set(vde.name.name, "other");
    set(vde.description.descr, "other");
    vde.sector_size = vde.replicas = vde.st_size = vde.st_mems = 1;
    vde.sectors = 400, vde.seqno = 401, vde.numkeys = 402, vde.port = 403, vde.status = 44, vde.st_mem = 45;
    return vde;
}

static const std::string no_file = "No such file or directory\n", to_v1 = ">../../../VDisk/v1";
static const std::string m7 = "M7/seqno=401 M7/numkeys=402 M7/port=403 M7/status=44 M7/st_mem=45 ";
static const std::string m8 = std::regex_replace(m7, std::regex("M7"), "M8") +
                              "M8/ M8/frontend=10.0.0.1 M8/snap_limit=10 M8/nodestatus>../../../../Node/8/status "
                              "Node/8/vdisks/v1>../../../VDisk/v1 ";
static const std::string m7_whole = m7 + "M7/ M7/frontend=10.0.0.1 M7/snap_limit=10 M7/membership_gen_count=5 "
                                         "M7/nodestatus>../../../../Node/7/status Node/7/vdisks/v1>../../../VDisk/v1 ";
static const Tree nodes = node_record("7", "ds1") + node_record("8") + datastore_record("ds1", "7");

TEST(Report, changes_what_its_generation_and_transaction_allow)
{
    Host host;
    Daemon d(host);
    auto in_transaction = [](VDiskEntry vde) {
        vde.transaction_id = 5;
        return vde;
    };
    const std::string absent = "-V/ -Node/7/vdisks/v1 -Datastore/ds1/vdisks/v1";
    const std::string r = m7 + "V/sectors=400 ", seqno = "M7/seqno=401", two = "V/membership=7|8 " + m8;
    const std::string two_before = "V/membership=7|8 M8/ M8/seqno=1 Node/8/vdisks/v1>x";
    auto from7 = [&](unsigned gen) {
        return single(7, report(other("v1", gen)));
    };
    auto from8 = [&](unsigned gen, const Uids &members) {
        return single(8, report(other("v1", gen), members));
    };
    const std::string gone8 = "-M8/ -Node/8/vdisks/v1", execve = "error: FenceCheck(): execve(/mnt/fence): " + no_file;
    d.check(
        nodes + vdisk_record(plain("v1", 5), {"7"}, "ds1"),
        spelled_out({
            /* In a transaction nothing but seqno. */
            {absent, single(7, report(in_transaction(plain("v1")))), "", ""},
            {"-VDisk/ -Node/7/vdisks/v1", single(7, report(in_transaction(plain("v1")))), "VDisk/", ""},
            {"", single(7, report(in_transaction(other("v1", 6)))), seqno, ""},
            {"", single(7, report(in_transaction(other("v1", 4)))), seqno, ""},
            {"", single(8, report(in_transaction(other("v1", 6)))), "", ""},
            /* Stale, equal and higher generations, with and without a record of the sender's. */
            {"", from7(4), seqno, ""},
            {"", from8(4, {7, 8}), "", ""},
            {"", from7(5), r, ""},
            {"", from8(5, {7, 8}), "V/sectors=400 M8/membership_gen_count=5 " + two, ""},
            {"", from7(6), r + "M7/membership_gen_count=6 V/highest_gen_count=6", execve},
            {"", from8(65535, {7, 8}), "V/sectors=400 V/highest_gen_count=65535 M8/membership_gen_count=65535 " + two,
             execve},
            {"V/highest_gen_count=65536", from7(65535), seqno, ""},
            /* The list is replaced, and whom it drops loses record and link; whom it adds gets none yet. */
            {"", from8(5, {8}),
             "V/sectors=400 M8/membership_gen_count=5 V/membership=8 " + m8 + "-M7/ -Node/7/vdisks/v1", ""},
            {"", single(7, report(other("v1", 5), {9, 7})), r + "V/membership=9|7", ""},
            {two_before, from7(5), r + "V/membership=7 " + gone8, ""},
            {two_before, single(7, report(other("v1", 5), {})), "V/sectors=400 -M7/ -Node/7/vdisks/v1 " + gone8, ""},
            {two_before, single(7, report(other("v1", 5), {8})), "V/sectors=400 V/membership=8 -M7/ -Node/7/vdisks/v1",
             ""},
            {"", from8(5, {7}), "V/sectors=400 M8/membership_gen_count=5 " + m8, ""}, /* unlike a create */
            {two_before + " /tmp/NODE-8:", from7(5), r + "V/membership=7 -M8/", ""},
            /* What a create that was cut short has left. */
            {"-V/memberinfo/", from7(5), "", "error: fd_openat(): openat(memberinfo): " + no_file},
            {"-V/memberinfo/", single(7, report(in_transaction(plain("v1")))), "",
             "error: fd_openat(): openat(memberinfo): " + no_file},
            {"-V/highest", from7(5), seqno,
             "error: fd_openat(): openat(highest_gen_count): " + no_file +
                 "error: VDiskUpdate(): Failed to load @VDisk/v1/highest_gen_count: -1\n"},
            {"V/highest_gen_count=x", from7(5), seqno,
             "error: VDiskUpdate(): Failed to load @VDisk/v1/highest_gen_count: 0\n"},
            {"-V/membership", from7(5), r + "V/membership=7", "error: fd_openat(): openat(membership): " + no_file},
            {"V/membership=8|0 M8/", from7(5), r + "V/membership=7",
             "error: MembershipLoad(): Malformed file @VDisk/v1/membership\n"},
            {"-M7/ -Node/7/vdisks/v1", from7(5), r + m7_whole, ""},
            {"-M7/s -M7/n -M7/f -Node/7/vdisks/v1 -V/datastore -Datastore/ds1/vdisks/v1", from7(5),
             r + m7_whole + "V/datastore>../../Datastore/ds1 Datastore/ds1/vdisks/v1" + to_v1, ""},
            {"-V/name", from7(5), r, ""},
            {"-V/ VDisk/v1:", from7(5), "", "error: fd_open(): open(@VDisk/v1): Not a directory\n"},
            {"-M7/ VDisk/v1/memberinfo/7:", from7(5), "", "error: fd_openat(): openat(7): Not a directory\n"},
            /* Links: none without frontends, the first datastore stands, one is needed while the link is missing. */
            {"-M7/f -M7/nodestatus -Node/7/vdisks/v1", single(7, report(other("v1", 5), {7}, {})), r, ""},
            {"M7/frontend=x", single(7, report(other("v1", 5), {7}, {0xffffffff, 1})),
             r + "M7/frontend=255.255.255.255|0.0.0.1", ""},
            {"-Datastore/ds1/vdisks/v1", from7(5), r, ""},
            {"V/datastore>x M7/nodestatus>y Node/7/vdisks/v1=z", from7(5), r, ""},
            {"-V/datastore -Node/7/vdisks/v1", from7(5), r + "V/datastore>../../Datastore/ds1 Node/7/vdisks/v1" + to_v1,
             ""},
            {"-V/datastore -Node/7/vdisks/v1 -Node/7/datastoremember", from7(5), m7 + "Node/7/vdisks/v1" + to_v1, ""},
            {"-V/datastore -Node/7/vdisks/v1 Node/7/datastoremember=", from7(5), r + "Node/7/vdisks/v1" + to_v1, ""},
            {"-V/datastore -Datastore/ds1/vdisks/v1 /tmp/DS-ds1:", from7(5), m7 + "V/datastore>../../Datastore/ds1",
             ""},
            {"-V/datastore -Datastore/ds1/vdisks/", from7(5), m7 + "V/datastore>../../Datastore/ds1",
             "error: fd_open(): open(@Datastore/ds1/vdisks): " + no_file},
            {"/tmp/VDISK-v1:", from7(5), "", ""},
        }));
}

TEST(Report, creates_a_vdisk_whole)
{
    Host host;
    Daemon d(host);
    const Uids both = {7, 8};
    auto made = [&](const VDiskEntry &vde, const std::string &datagram, const Tree &after) {
        SCOPED_TRACE(vde.uuid);
        host.put(nodes);
        d.check(datagram, after);
        EXPECT_EQ(d.step("info: FenceCheck(): "), "") << "no fence check, whatever the generation";
    };
    const VDiskEntry v = plain("0123456789abcd", 65535), s = snapshot("s", "0123456789abcd");
    made(v, single(7, report(v)), nodes + vdisk_record(v, {"7"}, "ds1"));
    made(s, single(7, report(s)), nodes + vdisk_record(s, {"7"}, "ds1"));
    made(v, single(8, report(v)), edit(nodes + vdisk_record(v, {}), "VDisk/0123456789abcd/membership=7"));
    /* Senders below 1.8 give the generation as two digits. */
    const struct {
        uint8_t major, minor;
        const char *digits, *generation;
    } versions[] = {{1, 8, "12", "65535"}, {2, 0, "12", "65535"}, {1, 7, "12", "12"},         {0, 255, "00", "0"},
                    {1, 0, "99", "99"},    {1, 7, "A1", "171"},   {1, 7, "\xff\xff", "64997"}};
    for (const auto &[major, minor, digits, generation] : versions) {
        VDiskEntry vde = plain("v1", 65535);
        set(vde.name.old_mshipgencnt, digits);
        std::string datagram = single(7, report(vde));
        datagram[0] = static_cast<char>(major);
        datagram[1] = static_cast<char>(minor);
        host.put(nodes);
        d.apply(datagram);
        EXPECT_EQ(host.read("/mnt/DB/VDisk/v1/highest_gen_count"), generation + std::string("\n"));
    }
}

TEST(Report, runs_the_fence_check_once_for_each_raise)
{
    Host host;
    host.put(nodes + vdisk_record(plain("v1", 5)));
    host.write("/mnt/fence", "#!/bin/sh\ncat /tmp/VDISK-v1 /mnt/DB/VDisk/v1/highest_gen_count >>/mnt/calls\nexit 1\n");
    host.shell("chmod 755 /mnt/fence");
    Daemon d(host, "", strace({"-f", "-e", "trace=execve", "-e", "signal=none"}));
    for (unsigned gen : {6, 6, 5, 8})
        EXPECT_EQ(d.apply(single(7, report(plain("v1", gen)))), "");
    const std::string held = std::to_string(d.pid) + "\n";
    EXPECT_EQ(host.read("/mnt/calls"), held + "6\n" + held + "8\n") << "the lock is held and all is stored by then";
    EXPECT_EQ(d.step("info: FenceCheck(): "), "Call /mnt/fence uuid=v1 member=7\nReturn /mnt/fence uuid=v1 member=7\n");
    EXPECT_NE(host.read("/mnt/strace")
                  .find("execve(\"/mnt/fence\", [\"/mnt/fence\", \"uuid=v1\", \"member=7\"], NULL) = 0\n"),
              std::string::npos);
}

TEST(Ping, is_applied_entry_by_entry_and_then_speaks_of_what_it_omits)
{
    Host host;
    Daemon d(host);
    auto e = [](const char *uuid) {
        return report(plain(uuid));
    };
    auto ping = [](const std::string &body) {
        return message(MSG_PING, 7, body);
    };
    VDiskEntry short_lists = plain("b");
    short_lists.members = 2;
    const std::string two_members = bytes(short_lists) + "\x07..."
                                                         "\x08..";
    short_lists.members = 0, short_lists.frontends = 1;
    const std::string frontend = bytes(short_lists) + "...", malformed = "error: handle_ping(): Malformed packet? #";
    const std::string stale = "notice: handle_ping(): Stale VDisk z of member 7\n";
    const struct {
        std::string body, lock, lines;
        Lines applied;
    } cases[] = {
        {e("a") + std::string(124, 'x'), "", stale, {"a"}},
        {e("b") + e("0123456789abcd") + e("B"), "", stale, {"b", "0123456789abcd", "B"}},
        {e("a") + two_members, "", malformed + "2\n", {"a"}},
        {e("a") + frontend, "", malformed + "3\n", {"a"}},
        {e("a") + e("") + e("c"), "", malformed + "5\n", {"a"}},
        {e("a") + e(".") + e("c"), "", malformed + "5\n", {"a"}},
        {e("a") + e("..") + e("c"), "", malformed + "5\n", {"a"}},
        {e("a") + e("../a") + e("c"), "", malformed + "5\n", {"a"}},
        {e("a") + report(snapshot("b", "")) + e("c"), "", malformed + "5\n", {"a"}},
        {e("a") + report(snapshot("b", "a/c")) + e("c"), "", malformed + "5\n", {"a"}},
        {e("a") + e("a"), "", "error: handle_ping(): Duplicate VDisk Entry a\n", {"a"}},
        {e("a") + e("b") + e("c"), "/tmp/VDISK-b:", "", {"a", "c"}},
        {e("a"), "/tmp/NODE-7:", "", {}},
    };
    for (const auto &[body, lock, lines, applied] : cases) {
        const Tree before = edit(nodes + vdisk_record(plain("z"), {"7"}, "ds1"), lock);
        host.put(before);
        Tree after = lines == stale ? edit(nodes, "VDisk/") : before;
        for (const std::string &uuid : applied)
            after = after + vdisk_record(plain(uuid.c_str()), {"7"}, "ds1");
        d.check(ping(body), after, lines);
    }
    host.put({});
}

/* Members go by what a PING omits or by VDISK_DELETED, and the VDisk with the last of them. */
TEST(Member, leaves_and_takes_the_vdisk_along)
{
    Host host;
    Daemon d(host);
    const std::string left = "-M7/ -Node/7/vdisks/v1 ", gone = "-V/ -Node/7/vdisks/v1 -Datastore/ds1/vdisks/v1 ";
    const std::string stale1 = "notice: handle_ping(): Stale VDisk v1 of member 7\n", half = left + "-V/memberinfo/ ";
    const std::string stale2 = std::regex_replace(stale1, std::regex("v1"), "v2"), drop = vdisk_deleted(7, "v1");
    const std::string gone2 = "-VDisk/v2/ -Node/7/vdisks/v2 -Datastore/ds1/vdisks/v2",
                      s = "-VDisk/s1/ -Node/7/vdisks/s1 -Datastore/ds1/vdisks/s1";
    const std::string ping = message(MSG_PING, 7), drop_s = vdisk_deleted(7, "s1"),
                      linked = "V/snapshots/s1>../../../VDisk/s1 ";
    std::string mismatch = drop + "more";
    mismatch[207] = 9;
    d.check(nodes + vdisk_record(plain("v1"), {"7"}, "ds1"),
            spelled_out({
                {"", ping, gone, stale1},
                {"", ping + std::string(124, 'x'), gone, stale1},
                {"", single(7, ""), "", ""},
                {"M8/", ping, left, stale1},
                {"/tmp/VDISK-v1:", ping, "", stale1},
                {"/tmp/NODE-7:", ping, "", ""},
                {"/tmp/DS-ds1:", ping, half, stale1},
                {"V/datastore>ds1", ping, half,
                 stale1 + "error: DatastoreUpdate_UnrefVDisk(): Malformed symlink @VDisk/v1/datastore: ds1\n"},
                {"V/datastore>x/", ping, half,
                 stale1 + "error: DatastoreUpdate_UnrefVDisk(): Malformed symlink @VDisk/v1/datastore: x/\n"},
                {"V/datastore>x/..", ping, half,
                 stale1 + "error: DatastoreUpdate_UnrefVDisk(): Malformed symlink @VDisk/v1/datastore: x/..\n"},
                {"V/description:d", ping, "",
                 stale1 + "error: StringLoad(): Malformed file description\n"
                          "error: VDiskLoad(): Failed to load @VDisk/v1/description: -1\n"},
                {"Node/7/vdisks/v2>x", ping, gone, stale1 + stale2 + "error: fd_open(): open(@VDisk/v2): " + no_file},
                {"-M7/ VDisk/v1/memberinfo/7:", ping, "",
                 stale1 + "error: rm_fr(): @VDisk/v1/memberinfo/7 not a directory!\n"
                          "error: MemberinfoDelete(): Could not remove @VDisk/v1/memberinfo/7\n"},
                {"", drop, gone, ""},
                {"", mismatch, gone, "error: handle_vdisk_deleted(): HASHREQ_VDISK_DELETED 7 != 9, using 7\n"},
                {"M8/", drop, left, ""},
                {"Node/8/vdisks/v1>x", vdisk_deleted(8, "v1"), "-Node/8/vdisks/v1", ""},
                {"-M7/ M8/", drop, "-Node/7/vdisks/v1", ""},
                {"-V/memberinfo/ V/transaction_id=1", vdisk_deleted(8, "v1"), gone + "Node/7/vdisks/v1" + to_v1, ""},
                {"-V/datastore", drop, gone + "Datastore/ds1/vdisks/v1" + to_v1, ""},
                {"-Datastore/ds1/vdisks/v1", drop, gone, ""},
                {"-V/snapshot", drop, "",
                 "error: fd_openat(): openat(snapshot): " + no_file +
                     "error: VDiskLoad(): Failed to load @VDisk/v1/snapshot: -1\n"},
                {"", vdisk_deleted(7, "none"), "", "error: fd_open(): open(@VDisk/none): " + no_file},
                {"", vdisk_deleted(7, "../VDisk/v1"), "", "error: handle_vdisk_deleted(): Malformed packet? #5\n"},
                {"", vdisk_deleted(7, ""), "", "error: handle_vdisk_deleted(): Malformed packet? #5\n"},
            }));
    /* A Snapshot and its parent: the link comes when both are there, and goes with the Snapshot. */
    VDiskEntry in_transaction = snapshot("s1", "v1");
    in_transaction.transaction_id = 5;
    const std::string s1 = single(7, report(snapshot("s1", "v1")));
    const std::string parents = "error: ParentUpdate_RefSnapshot(): ",
                      half_s = "-VDisk/s1/memberinfo/ -Node/7/vdisks/s1";
    d.check(nodes + vdisk_record(plain("v1"), {"7"}, "ds1") + vdisk_record(snapshot("s1", "v1"), {"7"}, "ds1"),
            spelled_out({
                {"", s1, linked, ""},
                {"V/snapshots/s1>x", s1, "", ""},
                {"-V/", s1, "", ""},
                {"", single(7, report(in_transaction)), "", ""},
                {"/tmp/VDISK-v1:", s1, "", ""},
                {"-V/ VDisk/v1:", s1, "", parents + "@VDisk/v1 not a directory!\n"},
                {"-V/snapshots/", s1, "", "error: fd_openat(): openat(snapshots): " + no_file},
                {"", single(7, report(snapshot("s1", "s1"))), "", "error: fd_openat(): openat(snapshots): " + no_file},
                {linked, drop_s, s + " -V/snapshots/s1", ""},
                {"", drop_s, s, ""},
                {"-V/", drop_s, s, ""},
                {linked, drop, gone, ""},
                {linked + "/tmp/VDISK-v1:", drop_s, half_s, ""},
                {"VDisk/s1/parent=s1", drop_s, half_s, ""}, /* its own lock is in its way */
                {"VDisk/s1/parent=..", drop_s, "", "error: VDiskLoad(): Malformed @VDisk/s1/parent: ..\n"},
                {linked, ping, gone + s, "notice: handle_ping(): Stale VDisk s1 of member 7\n" + stale1},
            }));
}

/* The largest PING that a datagram can carry goes out and comes in; a larger one stops nothing but itself. */
TEST(Ping, fills_a_datagram_and_no_more)
{
    Host host;
    host.write("/mnt/local_nodes", "7\n");
    Daemon d(host);
    d.sent();
    const struct {
        unsigned vdisks;
        size_t members;
        std::string sent, lines;
    } cases[] = {{4, 16200, "DS:294 AUX:236 PING:65507 ", ""},
                 {1, 16294, "DS:294 AUX:236 ", "error: xmit_msg(): sendto(127.0.0.2:8000, 65508): Message too long\n"},
                 {1, 16301, "DS:294 AUX:236 ", "error: xmit_msg(): sendto(127.0.0.2:8000, 65536): Message too long\n"},
                 {1, 16302, "DS:294 AUX:236 ", "error: send_pings(): Oversized PING from Node 7\n"}};
    for (const auto &[vdisks, members, sent, lines] : cases) {
        Tree tree = node_record("7", "ds1") + datastore_record("ds1");
        std::string membership;
        for (size_t i = 1; i <= members; i++)
            membership += std::to_string(i) + "|";
        membership.pop_back();
        for (const std::string uuid : {"v1", "v2", "v3", "v4"})
            if (uuid[1] - '0' <= static_cast<int>(vdisks))
                tree = edit(tree + vdisk_record(plain(uuid.c_str())),
                            "VDisk/" + uuid + "/memberinfo/7/frontend: VDisk/" + uuid + "/membership:");
        host.put(edit(tree, "VDisk/v1/membership=" + membership));
        EXPECT_EQ(d.publish(), lines);
        Lines datagrams = d.sent();
        EXPECT_EQ(kinds(datagrams), sent);
        if (lines.empty()) {
            std::string ping = datagrams.at(2);
            ping[4] = 8;
            std::replace(membership.begin(), membership.end(), '|', '\n');
            d.apply(ping);
            EXPECT_EQ(host.read("/mnt/DB/VDisk/v1/membership"), membership + "\n");
        }
    }
}
