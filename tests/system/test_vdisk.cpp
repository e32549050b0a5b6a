/* Reports of VDisks: what each may change, what it heals, and how members and VDisks go. */
#include "tests/system/harness.h"

#include <array>
#include <cstring>

static std::string single(uint32_t uid, const std::string &body)
{
    return message(MSG_SINGLE_VDISK_PING, uid, body);
}

/* Differs in every field from what `plain` makes, so that what is not to change would show. */
static VDiskEntry other(unsigned gen, uint32_t transaction = 0)
{
    return {transaction, "v1", {"", "other", htons(gen & 0xffff)}, 1, 402, 400, 401, {"other"}, 44, 403, 1, 45, 1, 1, 0,
            0,           0};
}

/* What such a report writes into its sender's record, and all that a first one leaves of the sender. */
static std::string numbers(const std::string &uid)
{
    const std::string m = " M" + uid + "/";
    return m + "seqno=401" + m + "numkeys=402" + m + "port=403" + m + "status=44" + m + "st_mem=45 ";
}
static std::string whole(const std::string &uid)
{
    const std::string m = " M" + uid + "/", link = m + "nodestatus>../../../../Node/" + uid + "/status";
    return numbers(uid) + m + m + "frontend=10.0.0.1" + m + "snap_limit=10" + m + "membership_gen_count=5" + link +
           " V/sectors=400 Node/" + uid + "/vdisks/v1>../../../VDisk/v1 ";
}

static const Tree nodes = node_record("7", "ds1") + node_record("8") + datastore_record("ds1", "7");
static const std::string no_openat = "error: fd_openat(): openat(", no_open = "error: fd_open(): open(@";

TEST(Report, changes_what_its_generation_and_transaction_allow)
{
    Host host;
    Daemon d(host);
    auto from = [](uint32_t uid, unsigned gen, const Uids &members) {
        return single(uid, report(other(gen), members));
    };
    const std::string equal = from(7, 5, {7}), busy = single(7, report(other(6, 5))),
                      ds_link = "V/datastore>../../Datastore/ds1 ", seqno = "M7/seqno=401";
    const std::string n7 = numbers("7"), r = n7 + "V/sectors=400 ", new7 = whole("7"), new8 = whole("8"),
                      gone7 = "-M7/ -Node/7/vdisks/v1 ";
    const std::string two = "V/membership=7|8 M8/ M8/seqno=1 Node/8/vdisks/v1>x", gone8 = "-M8/ -Node/8/vdisks/v1 ";
    const std::string fence = "error: FenceCheck(): execve(/mnt/fence): ENOENT\n",
                      v1_link = "/vdisks/v1>../../../VDisk/v1";
    const std::string failed = "error: VDiskUpdate(): Failed to load @VDisk/v1/highest_gen_count";
    // clang-format off
    d.check(nodes + vdisk_record(plain("v1"), {"7"}, "ds1"), {
        /* In a transaction nothing but seqno. */
        {"-V/ -Node/7/vdisks/v1 -Datastore/ds1/vdisks/v1 -VDisk/", busy, "VDisk/", ""},
        {"", busy, seqno, ""}, {"", single(8, report(other(6, 5))), "", ""},
        /* Stale, equal and higher generations, with and without a record of the sender's. */
        {"", from(7, 4, {7}), seqno, ""}, {"", from(8, 4, {7, 8}), "", ""}, {"", equal, r, ""},
        {"", from(8, 5, {7, 8}), new8 + "V/membership=7|8", ""},
        {"", from(7, 6, {7}), r + "M7/membership_gen_count=6 V/highest_gen_count=6", fence},
        {"", from(8, 65535, {7, 8}), new8 + "V/membership=7|8 M8/membership_gen_count=65535 V/highest_gen_count=65535",
            fence},
        {"V/highest_gen_count=65536", from(7, 65535, {7}), seqno, ""},
        /* The list is replaced; whom it drops loses record and link, whom it adds gets none yet. */
        {"", from(8, 5, {8}), new8 + "V/membership=8 " + gone7, ""},
        {"", from(8, 5, {7}), new8, ""}, /* a sender that its own list does not name, unlike in a create */
        {"", from(7, 5, {9, 7}), r + "V/membership=9|7", ""}, {two, equal, r + "V/membership=7 " + gone8, ""},
        {two, from(7, 5, {}), "V/sectors=400 " + gone7 + gone8, ""},
        {two + " /tmp/NODE-8:", equal, r + "V/membership=7 -M8/", ""}, {"/tmp/VDISK-v1:", equal, "", ""},
        /* What a create that was cut short has left. */
        {"-V/memberinfo/", equal, "", no_openat + "memberinfo): ENOENT\n"},
        {"-V/highest", equal, seqno, no_openat + "highest_gen_count): ENOENT\n" + failed + ": -1\n"},
        {"V/highest_gen_count=x", equal, seqno, failed + ": 0\n"},
        {"-V/membership", equal, r + "V/membership=7", no_openat + "membership): ENOENT\n"},
        {"V/membership=8|0 M8/", equal, r + "V/membership=7",
            "error: MembershipLoad(): Malformed file @VDisk/v1/membership\n"},
        {"-M7/ -Node/7/vdisks/v1", equal, new7, ""}, {"-V/name", equal, r, ""},
        {"-M7/s -M7/n -M7/f -V/datastore -Datastore/ds1/vdisks/v1", equal, new7 + ds_link + "Datastore/ds1" + v1_link, ""},
        /* Links: none without frontends, the first datastore stands, one is needed while the link is missing. */
        {"-M7/f -M7/nodestatus -Node/7/vdisks/v1", single(7, report(other(5), {7}, {})), r, ""},
        {"", single(7, report(other(5), {7}, {0xffffffff, 1})), r + "M7/frontend=255.255.255.255|0.0.0.1", ""},
        {"V/datastore>x M7/nodestatus>y Node/7/vdisks/v1=z", equal, r, ""}, {"-Datastore/ds1/vdisks/v1", equal, r, ""},
        {"-V/datastore -Node/7/vdisks/v1 -Node/7/datastoremember", equal, n7 + "Node/7" + v1_link, ""},
        {"-V/datastore /tmp/DS-ds1:", equal, n7 + ds_link, ""},
        {"-V/datastore -Datastore/ds1/vdisks/", equal, n7 + ds_link, no_open + "Datastore/ds1/vdisks): ENOENT\n"}});
    // clang-format on
}

TEST(Report, creates_a_vdisk_whole)
{
    Host host;
    Daemon d(host);
    const VDiskEntry v = plain("0123456789abcd", 65535), s = snapshot("s", "0123456789abcd");
    auto creates = [&](const std::string &datagram, const Tree &record) {
        host.put(nodes);
        d.check(datagram, nodes + record);
        EXPECT_EQ(d.step("info: FenceCheck(): "), "") << "whatever the generation";
    };
    creates(single(7, report(v)), vdisk_record(v, {"7"}, "ds1"));
    creates(single(7, report(s)), vdisk_record(s, {"7"}, "ds1"));
    creates(single(8, report(v)), edit(vdisk_record(v, {}), "VDisk/0123456789abcd/membership=7"));
    /* Senders below 1.8 give the generation as two digits. */
    using Row = std::array<std::string, 3>;
    for (const auto &[version, digits, generation] :
         {Row{"\1\10", "12", "65535"}, Row{"\1\7", "12", "12"}, Row{std::string("\0\t", 2), "99", "99"},
          Row{"\1\7", "A1", "171"}}) {
        VDiskEntry vde = plain("v1", 65535);
        memcpy(vde.name.old_mshipgencnt, digits.data(), 2);
        host.put(nodes);
        d.apply(single(7, report(vde)).replace(0, 2, version));
        EXPECT_EQ(host.read("/mnt/DB/VDisk/v1/highest_gen_count"), generation + "\n");
    }
}

TEST(Report, runs_the_fence_check_once_for_each_raise)
{
    Host host;
    host.put(nodes + vdisk_record(plain("v1")));
    host.write(
        "/mnt/fence",
        "#!/bin/sh\necho $* >>/mnt/calls\ncat /tmp/VDISK-v1 /mnt/DB/VDisk/v1/highest_gen_count >>/mnt/calls\nexit 1\n");
    host.shell("chmod 755 /mnt/fence");
    Daemon d(host);
    for (unsigned gen : {6U, 6U, 5U, 8U})
        EXPECT_EQ(d.apply(single(7, report(plain("v1", gen)))), "");
    const std::string call = "uuid=v1 member=7\n" + std::to_string(d.pid) + "\n";
    EXPECT_EQ(host.read("/mnt/calls"), call + "6\n" + call + "8\n") << "the lock is held and all is stored by then";
    EXPECT_EQ(d.step("info: FenceCheck(): "), "Call /mnt/fence uuid=v1 member=7\nReturn /mnt/fence uuid=v1 member=7\n");
}

TEST(Ping, is_applied_entry_by_entry_and_then_speaks_of_what_it_omits)
{
    Host host;
    Daemon d(host);
    const std::string fill = "0123456789abcd", a = report(plain("a")), b = report(plain("b")), c = report(plain("c"));
    const std::string malformed = "error: handle_ping(): Malformed packet? #", five = malformed + "5\n",
                      stale = "notice: handle_ping(): Stale VDisk z of member 7\n";
    // clang-format off
    const struct {
        std::string body, lock, lines;
        Lines applied;
    } cases[] = {
        {a + std::string(124, 'x'), "", stale, {"a"}},
        {b + report(plain(fill.c_str())) + report(plain("B")), "", stale, {"b", fill, "B"}},
        {a + report(plain("b"), {7, 8}, {}).substr(0, 132), "", malformed + "2\n", {"a"}},
        {a + b.substr(0, 132), "", malformed + "3\n", {"a"}},
        {a + report(plain("")) + c, "", five, {"a"}}, {a + report(plain("../a")) + c, "", five, {"a"}},
        {a + report(snapshot("b", "")) + c, "", five, {"a"}}, {a + report(snapshot("b", ".")) + c, "", five, {"a"}},
        {a + a, "", "error: handle_ping(): Duplicate VDisk Entry a\n", {"a"}},
        {a + b + c, "/tmp/VDISK-b:", "", {"a", "c"}}, {a, "/tmp/NODE-7:", "", {}}};
    // clang-format on
    for (const auto &[body, lock, lines, applied] : cases) {
        const Tree before = edit(nodes + vdisk_record(plain("z"), {"7"}, "ds1"), lock);
        host.put(before);
        Tree after = lines == stale ? edit(nodes, "VDisk/") : before;
        for (const std::string &uuid : applied)
            after = after + vdisk_record(plain(uuid.c_str()), {"7"}, "ds1");
        d.check(message(MSG_PING, 7, body), after, lines);
    }
    host.put({});
}

/* Members go by what a PING omits or by VDISK_DELETED, and the VDisk with the last of them. */
TEST(Member, leaves_and_takes_the_vdisk_along)
{
    Host host;
    Daemon d(host);
    const std::string ping = message(MSG_PING, 7), drop = vdisk_deleted(7, "v1"), drop_s = vdisk_deleted(7, "s1");
    const std::string left = "-M7/ -Node/7/vdisks/v1 ", half = left + "-V/memberinfo/ ";
    const std::string stale = "notice: handle_ping(): Stale VDisk ", stale1 = stale + "v1 of member 7\n";
    const std::string gone = "-V/ -Node/7/vdisks/v1 -Datastore/ds1/vdisks/v1 ", loading = "error: VDiskLoad(): ";
    const std::string bad_link =
        stale1 + "error: DatastoreUpdate_UnrefVDisk(): Malformed symlink @VDisk/v1/datastore: ";
    // clang-format off
    d.check(nodes + vdisk_record(plain("v1"), {"7"}, "ds1"), {
        {"", ping, gone, stale1}, {"", single(7, ""), "", ""},
        {"M8/", ping, left, stale1}, {"/tmp/VDISK-v1:", ping, "", stale1}, {"/tmp/NODE-7:", ping, "", ""},
        {"/tmp/DS-ds1:", ping, half, stale1}, {"V/datastore>ds1", ping, half, bad_link + "ds1\n"},
        {"V/datastore>x/", ping, half, bad_link + "x/\n"}, {"V/datastore>x/..", ping, half, bad_link + "x/..\n"},
        {"-V/description", ping, "", stale1 + no_openat + "description): ENOENT\n" + loading +
            "Failed to load @VDisk/v1/description: -1\n"},
        {"Node/7/vdisks/v0>x", ping, gone, stale + "v0 of member 7\n" + no_open + "VDisk/v0): ENOENT\n" + stale1},
        {"-M7/ VDisk/v1/memberinfo/7:", ping, "", stale1 + "error: rm_fr(): @VDisk/v1/memberinfo/7 not a directory!\n"
            "error: MemberinfoDelete(): Could not remove @VDisk/v1/memberinfo/7\n"},
        {"", drop, gone, ""}, {"M8/", drop, left, ""}, {"-M7/ M8/", drop, "-Node/7/vdisks/v1", ""},
        {"", std::string(drop).replace(207, 1, "\11") + "more", gone,
            "error: handle_vdisk_deleted(): HASHREQ_VDISK_DELETED 7 != 9, using 7\n"},
        {"Node/8/vdisks/v1>x", vdisk_deleted(8, "v1"), "-Node/8/vdisks/v1", ""},
        {"-Node/7/vdisks/v1 -V/memberinfo/ V/transaction_id=1", vdisk_deleted(8, "v1"), gone, ""}, /* heals `half` */
        {"-V/datastore -Datastore/ds1/vdisks/v1", drop, gone, ""}, {"-Datastore/ds1/vdisks/v1", drop, gone, ""},
        {"", vdisk_deleted(7, "none"), "", no_open + "VDisk/none): ENOENT\n"},
        {"", vdisk_deleted(7, "../VDisk/v1"), "", "error: handle_vdisk_deleted(): Malformed packet? #5\n"}});
    /* The link of a Snapshot in its parent comes when both are there, and goes with the Snapshot. */
    const std::string s1 = single(7, report(snapshot("s1", "v1"))), linked = "V/snapshots/s1>../../../VDisk/s1 ";
    const std::string s = "-VDisk/s1/ -Node/7/vdisks/s1 -Datastore/ds1/vdisks/s1";
    const std::string half_s = "-VDisk/s1/memberinfo/ -Node/7/vdisks/s1";
    d.check(nodes + vdisk_record(plain("v1"), {"7"}, "ds1") + vdisk_record(snapshot("s1", "v1"), {"7"}, "ds1"), {
        {"", s1, linked, ""}, {"V/snapshots/s1>x", s1, "", ""}, {"-V/", s1, "", ""},
        {"/tmp/VDISK-v1:", s1, "", ""},
        {"-V/ VDisk/v1:", s1, "", "error: ParentUpdate_RefSnapshot(): @VDisk/v1 not a directory!\n"},
        {"", single(7, report(snapshot("s1", "s1"))), "", no_openat + "snapshots): ENOENT\n"},
        {linked, drop_s, s + " -V/snapshots/s1", ""}, {"-V/", drop_s, s, ""}, {linked, drop, gone, ""},
        {linked + "/tmp/VDISK-v1:", drop_s, half_s, ""},
        {"VDisk/s1/parent=s1", drop_s, half_s, ""}, /* its own lock is in its way */
        {"VDisk/s1/parent=..", drop_s, "", loading + "Malformed @VDisk/s1/parent: ..\n"},
        {linked, ping, gone + s, stale + "s1 of member 7\n" + stale1}});
    // clang-format on
}

/* The largest PING that a datagram can carry goes out and comes in; a larger one stops nothing but itself. */
TEST(Ping, fills_a_datagram_and_no_more)
{
    Host host;
    host.write("/mnt/local_nodes", "7\n");
    Daemon d(host);
    d.sent();
    const std::string too_long = "error: xmit_msg(): sendto(127.0.0.2:8000, ", longer = "): Message too long\n";
    for (const auto &[members, lines] :
         std::vector<std::pair<int, std::string>>{{16200, ""},
                                                  {16200 + 94, too_long + "65508" + longer},
                                                  {16301, too_long + "65536" + longer},
                                                  {16302, "error: send_pings(): Oversized PING from Node 7\n"}}) {
        Tree tree = node_record("7", "ds1") + datastore_record("ds1");
        for (const std::string uuid : {"v1", "v2", "v3", "v4"})
            if (uuid == "v1" || lines.empty())
                tree = edit(tree + vdisk_record(plain(uuid.c_str())),
                            "memberinfo/7/frontend: membership:", "VDisk/" + uuid + "/");
        std::string &membership = tree["VDisk/v1/membership"];
        for (int i = 1; i <= members; i++)
            membership += std::to_string(i) + "\n";
        host.put(tree);
        EXPECT_EQ(d.publish(), lines);
        Lines datagrams = d.sent();
        EXPECT_EQ(kinds(datagrams), "DS:294 AUX:236 " + std::string(lines.empty() ? "PING:65507 " : ""));
        d.apply(datagrams.back().replace(4, 1, "\10"));
        EXPECT_EQ(host.tree()["VDisk/v1/memberinfo/8/"], lines.empty() ? "/" : "");
        EXPECT_EQ(host.read("/mnt/DB/VDisk/v1/membership"), membership);
    }
}
