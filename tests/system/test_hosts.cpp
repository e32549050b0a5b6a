/* Two hosts on a wire, a daemon on each. */
#include "tests/system/harness.h"

TEST(Hosts, keep_node_records_in_step_over_multicast)
{
    Host a(1), b(2);
    wire(a, b);
    const char multicast[] = "unicast_mode = 0\nbind_interface = eth0\n";
    a.put(node_record("7"));
    a.write("/mnt/local_nodes", "7\n");
    Daemon da(a, multicast), db(b, multicast);
    EXPECT_EQ(da.publish(), "");
    EXPECT_EQ(db.sync(), "");
    EXPECT_EQ(diff(a.tree(), b.tree()), "~Node/7/ipaddr: 127.0.0.2| => 10.0.0.1|\n");
}
