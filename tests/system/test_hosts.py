"""Two hosts on a wire, a daemon on each, and what one tells arriving in the tree of the other."""
import pytest

from old_harness import Daemon
from records import datastore_record, diff, edit, node_record, plain, snapshot, vdisk_record


def apart(a, b):
    """What b has and a has not, or the reverse, apart from where they heard of nodes."""
    return diff(*({path: value for path, value in host.tree().items() if not path.endswith("/ipaddr")}
                  for host in (a, b)))


@pytest.mark.parametrize("unicast_mode", [0, 2])
def test_hosts_keep_in_step(make_host, unicast_mode):
    """One has node 7 with two VDisks and a Snapshot, the other node 8 with a share of one of them."""
    a, b = make_host(1), make_host(2)
    a.shell(f"ip link add eth0 type veth peer eth0 netns {b.holder.pid}")
    for host in a, b:
        host.shell(f"ip addr add 10.0.0.{host.number}/24 dev eth0 && ip link set eth0 up")
        host.write("/mnt/local_nodes", f"{6 + host.number}\n")
        host.write("/mnt/unicast_hosts", f"10.0.0.{3 - host.number}\n")
    mine = edit(node_record(7, "ds1") | datastore_record("ds1", 7) | vdisk_record(plain("v1"), dsuuid="ds1") |
                vdisk_record(snapshot("s1", "v1"), dsuuid="ds1"), "V/snapshots/s1>../../../VDisk/s1")
    a.put(mine | vdisk_record(plain("v2"), dsuuid="ds1"))
    config = f"""bind_interface = eth0
unicast_mode = {unicast_mode}
multicast_address = "224.1.1.1, 224.1.1.2"
"""
    db = Daemon(b, config)
    da = Daemon(a, config)
    db.sync()
    assert apart(a, b) == []
    # The node drops a VDisk while its daemon is down.
    da.end()
    a.put(mine)
    da = Daemon(a, config)
    db.sync()
    assert db.step("notice: handle_ping(): ") == ["Stale VDisk v2 of member 7"]
    assert apart(a, b) == []
    # The other host's node joins another datastore and v1.
    b.put(edit(b.tree() | node_record(8, "ds2") | datastore_record("ds2", 8) | vdisk_record(plain("v1"), [8]),
               "V/membership=7|8"))
    db.publish()
    assert da.sync() == []
    assert apart(b, a) == []
