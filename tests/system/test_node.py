"""Nodes and datastores: every message byte for byte, what peers' messages leave in the tree, and the locks."""
import re
import signal
import socket

from old_harness import STOPPED_CLOCK, Daemon, strace
from records import (AUX_PING, DS_PING, HEARTBEAT, PING, SINGLE_VDISK_PING, aux_ping, datastore_record, diff, ds_ping,
                     edit, message, node_record, plain, report, snapshot, vdisk_deleted, vdisk_record)

FILL = "0123456789abcd"  # as long as a name may be


def test_publication_is_laid_out_byte_for_byte(host):
    uid = 0x01020304
    v, s = plain("vb", 300, transaction_id=77), snapshot("sa", "vb")
    host.put(edit(node_record(uid, "ds1") | datastore_record("ds1") | vdisk_record(v, [uid, 8]) |
                  vdisk_record(s, [uid]), f"-Node/8/ VDisk/sa/memberinfo/{uid}/frontend: VDisk/vb/transaction_id=77"))
    host.write("/mnt/local_nodes", f"{uid}\n")
    host.set_clock(1000)
    d = Daemon(host, "heartbeat_interval = 1\n", STOPPED_CLOCK)
    host.set_clock(1004)
    d.sync()
    with host.socket(socket.SOCK_STREAM, "127.0.0.1", 31337) as ctrl:
        for line in f"single_vdisk_ping {uid} sa\n", f"vdisk_deleted {uid} {FILL}\n":
            ctrl.send(line.encode())
            d.wait_for("Send AUX_PING")
            d.sync()
    d.wait_for("Closing")
    single = report(s, [uid], [])
    assert d.sent() == [
        ds_ping(uid, "ds1"), aux_ping(uid), message(PING, uid, report(v, [uid, 8]) + single), message(HEARTBEAT, uid),
        message(SINGLE_VDISK_PING, uid, single), aux_ping(uid), vdisk_deleted(uid, FILL), aux_ping(uid)]


def test_every_value_of_a_header_is_kept(host):
    """Every text fills its field and every number its width, or is empty and 0; what was heard is published again."""
    host.write("/mnt/local_nodes", "7\n")
    d = Daemon(host)
    d.check(aux_ping(7), node_record(7))
    for status, letter, number, size, stored in ((1, b"x", b"\xff", b"\1\2\xfe\xff", ["0", "255.254.2.1"]),
                                                 (255, b"x", b"\xff", 4 * b"\xff", [str(2 ** 32 - 1), "0.0.0.0"]),
                                                 (0, b"\0", b"\0", 4 * b"\0", ["0", "0.0.0.0"])):
        heard = (bytes([99, 100, AUX_PING, status, 7, 0, 0, 0]) + 64 * letter + 8 * number + 120 * letter + size +
                 3 * number + bytes([0, 28, 0, 0, 0]) + 24 * number)
        d.apply(heard)
        assert [host.read(f"/mnt/DB/Node/7/{name}").strip() for name in ("size", "backupchannel")] == stored
        d.publish()
        assert d.sent()[1] == heard


def test_each_message_is_applied_by_its_length_and_type(host):
    d = Daemon(host)
    bare = edit(node_record(7), "-Node/7/allocatedspace -Node/7/cur -Node/7/max -Node/7/mem")  # no AUX_PING yet
    now, member, leave = "Node/7/lastping=now", "Node/7/datastoremember", message(DS_PING, 7)
    left = f"{now} -{member}"
    bad_name = "error: handle_ds_ping(): Malformed Datastore UUID from Node 7: "
    d.check_each(edit(node_record(7, "ds1") | datastore_record("ds1", 7) | datastore_record("ds2", 8),
                      "Node/7/lastping=1 Node/7/allocatedspace=1"), [
        ("", message(PING, 9)[:206], "", ["error: controller_thread_loop(): Malformed packet? #1"]),
        ("", message(HEARTBEAT, 9), "", []), ("Node/7/nodestatus=4", message(HEARTBEAT, 7, b"more"), now, []),
        ("", aux_ping(9)[:235], "", ["error: handle_aux_ping(): Malformed Node Ping?"]),
        ("", aux_ping(7) + b"more", f"{now} Node/7/allocatedspace=201", []),
        ("-Node/7/vendor Node/7/vendor/", aux_ping(7), "", ["error: fd_openat(): openat(vendor): Is a directory"]),
        ("", message(5, 9), "", ["error: handle_unknown(): Received unknown header type 5"]),
        ("", ds_ping(7, "ds1") + b"more", now, []),
        ("", ds_ping(7, "ds2"), f"{now} {member}=ds2 Datastore/ds2/members/7>../../../Node/7", []),
        ("-Datastore/ds2/name Datastore/ds2/name/", ds_ping(7, "ds2"), now,
         ["error: fd_openat(): openat(name): Is a directory"]),
        ("", ds_ping(7, ""), now, [bad_name]), ("", ds_ping(7, ".."), now, [bad_name + ".."]),
        ("", ds_ping(7, "../ds2"), now, [bad_name + "../ds2"]),
        ("/tmp/DS-ds2:", ds_ping(7, "ds2"), now, []), ("/tmp/NODE-7:", ds_ping(7, "ds2"), "", []),
        # Leaving a datastore.
        ("", leave, f"{left} -Datastore/ds1/", []), ("-Datastore/ds1/", leave, left, []),
        ("", ds_ping(7, "ds2")[:293], f"{left} -Datastore/ds1/", []),
        ("Datastore/ds1/members/8>x", leave, f"{left} -Datastore/ds1/members/7", []),
        ("-Datastore/ds1/members/", leave, f"{left} -Datastore/ds1/", []),
        (f"-{member}", leave, now, []), (f"{member}=", leave, left, []),
        (f"{member}=..", leave, now, ["error: NodeLoad_DSMember(): Malformed @Node/7/datastoremember: .."]),
        ("-Datastore/ds1/members/ Datastore/ds1/members:", leave, now,
         ["error: DatastoreUpdate_UnrefNode(): unlink(@Datastore/ds1/members/7): Not a directory"]),
        ("/tmp/DS-ds1:", leave, now, []), ("/tmp/NODE-7:", leave, "", [])])
    # Of a node that is new.
    for datagram in message(PING, 7), ds_ping(7, "ds1")[:293], message(SINGLE_VDISK_PING, 7):
        host.put({})
        d.check(datagram, bare)
    d.check(vdisk_deleted(7, "v")[:224], bare, ["error: handle_vdisk_deleted(): Malformed packet? #4"])
    d.check(ds_ping(7, FILL), edit(bare, f"{member}={FILL}") | datastore_record(FILL, 7))


def test_each_lock_waits_its_own_time_and_holds_back_signals(host):
    d = Daemon(host, "node_lock_timeout_ms=750\ndatastore_lock_timeout_ms=49\nvdisk_lock_timeout_ms=50\n",
               strace("-etrace=clock_nanosleep", "-esignal=none"))
    v, s = (message(SINGLE_VDISK_PING, 7, report(vdisk)) for vdisk in (plain("v1"), snapshot("s1", "v1")))
    base = edit(node_record(7, "ds1") | datastore_record("ds1", 7) | vdisk_record(plain("v1"), dsuuid="ds1") |
                vdisk_record(snapshot("s1", "v1")), "V/membership=7|8 Node/8/ Node/8/vdisks/ Node/8/vdisks/v1>x")
    waits, gives_up = "notice: PathLock(): Contention on /tmp/", "notice: PathLock(): Timed out locking /tmp/"
    for lock, datagram, is_vdisk in (("VDISK-v1", v, 1), ("VDISK-v1", s, 1), ("VDISK-v1", vdisk_deleted(7, "s1"), 1),
                                     ("DS-ds1", ds_ping(7, "ds1"), 0), ("DS-ds1", vdisk_deleted(7, "v1"), 0),
                                     ("DS-ds1", message(SINGLE_VDISK_PING, 7, report(plain("new"))), 0)):
        host.put(base | {f"/tmp/{lock}": ""})
        assert d.apply(datagram) == is_vdisk * [f"{waits}{lock}, sleep 50ms"] + [gives_up + lock]

    def signal_while_waiting(lock, datagram, number):
        host.put(base | {f"/tmp/{lock}": ""})
        d.send(datagram)
        d.wait_for("sleep 200ms")
        d.descriptors()  # asleep by then
        d.process.send_signal(number)
    signal_while_waiting("NODE-8", v, signal.SIGHUP)  # dropped by this report
    host.remove("/tmp/NODE-8")
    d.sync()
    assert diff(edit(base, "V/membership=7 -Node/8/vdisks/v1"), host.tree()) == []
    signal_while_waiting("NODE-7", aux_ping(7), signal.SIGUSR1)
    d.wait_for("sleep 400ms")
    d.descriptors()
    assert d.stop() == 0
    assert d.log.index(gives_up + "NODE-7") < d.log.index("notice: controller_thread_loop(): Exit...")
    slept = re.findall(r"nsec=(\d+)000000\}.* = (.)", host.read("/mnt/strace"))
    assert [result for _, result in slept].count("?") == 1, "only SIGUSR1 ends a sleep"
    assert [ms for ms, _ in slept[:6] + slept[-4:]] == ["50", "50", "50", "50", "100", "200", "50", "100", "200", "400"]
