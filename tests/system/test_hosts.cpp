/* Two hosts on a wire, a daemon on each, and what one tells arriving in the tree of the other. */
#include "tests/system/harness.h"

/* What `b` has and `a` has not, or the reverse, apart from where they heard of nodes. */
static std::string apart(const Host &a, const Host &b)
{
    Tree mine = a.tree(), theirs = b.tree();
    for (Tree *tree : {&mine, &theirs})
        std::erase_if(*tree, [](const auto &entry) { return entry.first.ends_with("/ipaddr"); });
    return diff(mine, theirs);
}

/* One host has node 7 with two VDisks and a Snapshot, the other node 8 with a share of one of them. */
using Hosts = testing::TestWithParam<int>;

TEST_P(Hosts, keep_in_step)
{
    Host a(1), b(2);
    a.shell("ip link add eth0 type veth peer eth0 netns " + std::to_string(b.holder));
    for (Host *host : {&a, &b}) {
        host->shell("ip addr add 10.0.0." + std::to_string(host->number) + "/24 dev eth0 && ip link set eth0 up");
        host->write("/mnt/local_nodes", std::to_string(6 + host->number) + "\n");
        host->write("/mnt/unicast_hosts", "10.0.0." + std::to_string(3 - host->number) + "\n");
    }
    const Tree v2 = vdisk_record(plain("v2"), {"7"}, "ds1"), v1_of_8 = vdisk_record(plain("v1"), {"8"});
    const Tree v1 = vdisk_record(plain("v1"), {"7"}, "ds1"), s1 = vdisk_record(snapshot("s1", "v1"), {"7"}, "ds1");
    const Tree mine =
        edit(node_record("7", "ds1") + datastore_record("ds1", "7") + v1 + s1, "V/snapshots/s1>../../../VDisk/s1");
    a.put(mine + v2);
    const std::string config = "bind_interface = eth0\nmulticast_address = \"224.1.1.1, 224.1.1.2\"\nunicast_mode = " +
                               std::to_string(GetParam()) + "\n";
    Daemon db(b, config);
    {
        Daemon da(a, config);
        db.sync();
        EXPECT_EQ(apart(a, b), "");
    }
    /* The node drops a VDisk while its daemon is down. */
    a.put(mine);
    Daemon da(a, config);
    db.sync();
    EXPECT_EQ(db.step("notice: handle_ping(): "), "Stale VDisk v2 of member 7\n");
    EXPECT_EQ(apart(a, b), "");
    /* The other host's node joins another datastore and v1. */
    b.put(edit(b.tree() + node_record("8", "ds2") + datastore_record("ds2", "8") + v1_of_8, "V/membership=7|8"));
    db.publish();
    EXPECT_EQ(da.sync(), "");
    EXPECT_EQ(apart(b, a), "");
}

INSTANTIATE_TEST_SUITE_P(Mode, Hosts, testing::Values(0, 2)); /* multicast, unicast */
