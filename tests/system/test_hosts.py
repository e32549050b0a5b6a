"""Two hosts on a cable, a daemon on each, and what one tells arriving in the tree of the other."""
import pytest

from messages import plain, snapshot
from trees import Link, changed, datastore_record, difference, node_record, vdisk_record


def differences(first, second):
    """Between the trees of two hosts, apart from where they heard of nodes."""
    return difference(*({path: value for path, value in host.tree().items() if not path.endswith("/ipaddr")}
                        for host in (first, second)))


@pytest.mark.parametrize("unicast_mode", [0, 2])
def test_hosts_keep_in_step(make_host, unicast_mode):
    """One has node 7 with two VDisks and a Snapshot, the other node 8, which takes a share of one of them."""
    first, second = make_host(1), make_host(2)
    first.connect(second)
    for host, node, other in (first, 7, "10.0.0.2"), (second, 8, "10.0.0.1"):
        host.write("/mnt/local_nodes", f"{node}\n")
        host.write("/mnt/unicast_hosts", f"{other}\n")
    of_node_7 = changed(
        node_record(7, "ds1") | datastore_record("ds1", [7]) | vdisk_record(plain("v1"), datastore="ds1") |
        vdisk_record(snapshot("s1", "v1"), datastore="ds1"), {"VDisk/v1/snapshots/s1": Link("../../../VDisk/s1")})
    first.plant(of_node_7 | vdisk_record(plain("v2"), datastore="ds1"))
    config = f"""bind_interface = eth0
unicast_mode = {unicast_mode}
multicast_address = "224.1.1.1, 224.1.1.2"
"""
    second_daemon = second.daemon(config)
    first_daemon = first.daemon(config)
    second_daemon.settle()
    assert differences(first, second) == []
    # The node drops a VDisk while its daemon is down.
    first_daemon.end()
    first.plant(of_node_7)
    first_daemon = first.daemon(config)
    second_daemon.settle()
    assert second_daemon.told("notice: handle_ping(): ") == ["Stale VDisk v2 of member 7"]
    assert differences(first, second) == []
    # The other host's node joins another datastore and v1.
    of_node_8 = node_record(8, "ds2") | datastore_record("ds2", [8]) | vdisk_record(plain("v1"), [8])
    second.plant(changed(second.tree() | of_node_8, {"VDisk/v1/membership": [7, 8]}))
    second_daemon.publish()
    assert first_daemon.settle() == []
    assert differences(second, first) == []
