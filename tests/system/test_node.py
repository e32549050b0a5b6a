"""Nodes and datastores: every message byte for byte, what peers' messages leave in the tree, and the locks."""
import re
import signal

import pytest

from harness import STOPPED_CLOCK, Case, strace, wait_until
from messages import (AUX_PING, CAPACITY, HEADER, Datagram, aux_ping, ds_ping, heartbeat, message, ping, plain,
                      report, single_vdisk_ping, snapshot, vdisk_deleted)
from trees import DIRECTORY, FIFO, GONE, SOCKET, Link, changed, datastore_record, difference, node_record, vdisk_record

LONGEST_NAME = "0123456789abcd"
# A node that was only heard of by messages other than an AUX_PING.
WITHOUT_CAPACITY = changed(node_record(7), {f"Node/7/{figure}": GONE for figure in (
    "allocatedspace", "curvdisks", "curvdisksforctrl", "maxvdisksforctrl", "memtotal", "memavail")})


def test_publication_is_laid_out_byte_for_byte(host):
    uid = 0x01020304
    vdisk, snap = plain("vb", 300, transaction_id=77), snapshot("sa", "vb")
    tree = node_record(uid, "ds1") | datastore_record("ds1") | vdisk_record(vdisk, [uid, 8]) | vdisk_record(snap, [uid])
    host.plant(changed(tree, {"VDisk/vb/transaction_id": 77, f"VDisk/sa/memberinfo/{uid}/frontend": ""}))
    host.write("/mnt/local_nodes", f"{uid}\n")
    host.set_clock(1000)
    daemon = host.daemon("heartbeat_interval = 1\n", STOPPED_CLOCK)
    host.set_clock(1004)
    daemon.settle()
    with host.tcp_connection() as control:
        for line in f"single_vdisk_ping {uid} sa\n", f"vdisk_deleted {uid} {LONGEST_NAME}\n":
            control.send(line.encode())
            daemon.wait_for("Send AUX_PING")
            daemon.settle()
    daemon.wait_for("Closing")
    snap_report = report(snap, [uid], [])
    assert daemon.sent() == [ds_ping(uid, "ds1"), aux_ping(uid), ping(uid, report(vdisk, [uid, 8]), snap_report),
                             heartbeat(uid), single_vdisk_ping(uid, snap_report), aux_ping(uid),
                             vdisk_deleted(uid, LONGEST_NAME), aux_ping(uid)]


def test_every_value_of_a_header_is_kept(host):
    """Every text fills its field and every number its width, or is empty and 0; what was heard is published again. With
    the status 1 the size is an address."""
    host.write("/mnt/local_nodes", "7\n")
    daemon = host.daemon()
    for status, letter, byte, size_field, size, backupchannel in (
            (1, "x", 0xff, bytes([1, 2, 254, 255]), "0\n", "255.254.2.1\n"),
            (255, "x", 0xff, 4 * b"\xff", "4294967295\n", "0.0.0.0\n"),
            (0, "\0", 0, 4 * b"\0", "0\n", "0.0.0.0\n")):
        def filled(layout, **fields):
            """Every field of the record full of the letter or the byte, but for these."""
            full = {name: int(code[1:-1]) * letter if code[-1] == "s" else int.from_bytes(
                {"B": 1, "H": 2, "I": 4}[code[-1]] * bytes([byte]), "little") for name, code in layout.fields.items()}
            return layout.pack(full | fields)
        header = filled(HEADER, major=99, minor=100, type=AUX_PING, nodestatus=status, uid=7,
                        size=int.from_bytes(size_field, "little"))
        heard = Datagram(header + filled(CAPACITY, byte_207=0, length=28))
        assert daemon.deliver(heard) == []
        stored = host.read("/mnt/DB/Node/7/size"), host.read("/mnt/DB/Node/7/backupchannel")
        assert (heard, stored) == (heard, (size, backupchannel))
        daemon.publish()
        assert daemon.sent()[1] == heard


def test_each_message_is_applied_by_its_length_and_type(host):
    lastping, member = "Node/7/lastping", "Node/7/datastoremember"
    heard = {lastping: "now\n"}
    left = heard | {member: GONE}
    leave = ds_ping(7)
    refused = "error: handle_ds_ping(): Malformed Datastore UUID from Node 7: "
    host.daemon().check(
        changed(node_record(7, "ds1") | datastore_record("ds1", [7]) | datastore_record("ds2", [8]),
                {lastping: 1, "Node/7/allocatedspace": 1}),
        Case("less than a header is dropped", sent=ping(9).cut(206), expected={},
             log=["error: controller_thread_loop(): Malformed packet? #1"]),
        Case("a HEARTBEAT makes no node", sent=heartbeat(9), expected={}),
        Case("a HEARTBEAT renews the time and nothing else", planted={"Node/7/nodestatus": 4},
             sent=heartbeat(7) + b"more", expected=heard),
        Case("an AUX_PING that is too short changes nothing", sent=aux_ping(9).cut(235), expected={},
             log=["error: handle_aux_ping(): Malformed Node Ping?"]),
        Case("an AUX_PING renews the figures", sent=aux_ping(7) + b"more",
             expected=heard | {"Node/7/allocatedspace": 201}),
        Case("a node that cannot be written keeps its figures and time", planted={"Node/7/vendor": DIRECTORY},
             sent=aux_ping(7), expected={}, log=["error: fd_openat(): openat(vendor): Is a directory"]),
        Case("a FIFO in place of a value takes it, and nobody waits for a reader", planted={"Node/7/vendor": FIFO},
             sent=aux_ping(7), expected=heard | {"Node/7/allocatedspace": 201}),
        Case("a socket in place of a value is an error", planted={"Node/7/vendor": SOCKET}, sent=aux_ping(7),
             expected={}, log=["error: fd_openat(): openat(vendor): No such device or address"]),
        Case("a file in place of the node stays", planted={"Node/7": ""}, sent=aux_ping(7), expected={},
             log=["error: fd_open(): open(/mnt/DB/Node/7): Not a directory"]),
        Case("a file in place of the node has no time", planted={"Node/7": ""}, sent=heartbeat(7), expected={},
             log=["error: NodeUpdate_HEARTBEAT(): open(/mnt/DB/Node/7): Not a directory"]),
        Case("a file in place of all nodes stays", planted={"Node": ""}, sent=aux_ping(7), expected={},
             log=["error: NodeCreate(): mkdir(/mnt/DB/Node/7): Not a directory"]),
        Case("a file in place of the datastore stays", planted={"Datastore/ds2": ""}, sent=ds_ping(7, "ds2"),
             expected=heard, log=["error: fd_open(): open(/mnt/DB/Datastore/ds2): Not a directory"]),
        Case("a message of unknown type changes nothing", sent=message(5, 9), expected={},
             log=["error: handle_unknown(): Received unknown header type 5"]),
        Case("a DS_PING of the same datastore renews the time", sent=ds_ping(7, "ds1") + b"more", expected=heard),
        Case("a node joins another datastore and does not leave the first", sent=ds_ping(7, "ds2"),
             expected=heard | {member: "ds2\n", "Datastore/ds2/members/7": Link("../../../Node/7")}),
        Case("a datastore that cannot be written is not joined", planted={"Datastore/ds2/name": DIRECTORY},
             sent=ds_ping(7, "ds2"), expected=heard, log=["error: fd_openat(): openat(name): Is a directory"]),
        Case("an empty name of a datastore is refused", sent=ds_ping(7, ""), expected=heard, log=[refused]),
        Case("a name that leads upwards is refused", sent=ds_ping(7, ".."), expected=heard, log=[refused + ".."]),
        Case("a name that leads elsewhere is refused", sent=ds_ping(7, "../ds2"), expected=heard,
             log=[refused + "../ds2"]),
        Case("without the datastore's lock it is not joined", planted={"/tmp/DS-ds2": ""}, sent=ds_ping(7, "ds2"),
             expected=heard),
        Case("without the node's lock nothing happens", planted={"/tmp/NODE-7": ""}, sent=ds_ping(7, "ds2"),
             expected={}),
        # Leaving a datastore.
        Case("the datastore goes with its last member", sent=leave, expected=left | {"Datastore/ds1": GONE}),
        Case("a datastore that is gone is left", planted={"Datastore/ds1": GONE}, sent=leave, expected=left),
        Case("a DS_PING that is too short for its entry leaves", sent=ds_ping(7, "ds2").cut(293),
             expected=left | {"Datastore/ds1": GONE}),
        Case("a datastore with another member stays", planted={"Datastore/ds1/members/8": Link("x")}, sent=leave,
             expected=left | {"Datastore/ds1/members/7": GONE}),
        Case("a datastore without members goes", planted={"Datastore/ds1/members": GONE}, sent=leave,
             expected=left | {"Datastore/ds1": GONE}),
        Case("a node of no datastore leaves none", planted={member: GONE}, sent=leave, expected=heard),
        Case("an empty name is no datastore", planted={member: "\n"}, sent=leave, expected=left),
        Case("a stored name that leads upwards is refused", planted={member: "..\n"}, sent=leave, expected=heard,
             log=["error: NodeLoad_DSMember(): Malformed /mnt/DB/Node/7/datastoremember: .."]),
        Case("a datastore that cannot be left stays noted", planted={"Datastore/ds1/members": ""}, sent=leave,
             expected=heard,
             log=["error: DatastoreUpdate_UnrefNode(): unlink(/mnt/DB/Datastore/ds1/members/7): Not a directory"]),
        Case("without the datastore's lock it stays noted", planted={"/tmp/DS-ds1": ""}, sent=leave, expected=heard),
        Case("without the node's lock it is not left", planted={"/tmp/NODE-7": ""}, sent=leave, expected={}))


def test_a_node_is_known_by_its_first_message(host):
    """Whatever becomes of the rest of the message."""
    host.daemon().check(
        {},
        Case("a PING", sent=ping(7), expected=WITHOUT_CAPACITY),
        Case("a SINGLE_VDISK_PING", sent=single_vdisk_ping(7), expected=WITHOUT_CAPACITY),
        Case("a DS_PING too short for its entry", sent=ds_ping(7, "ds1").cut(293), expected=WITHOUT_CAPACITY),
        Case("a VDISK_DELETED too short for its entry", sent=vdisk_deleted(7, "v").cut(224), expected=WITHOUT_CAPACITY,
             log=["error: handle_vdisk_deleted(): Malformed packet? #4"]),
        Case("an AUX_PING", sent=aux_ping(7), expected=node_record(7)),
        Case("a DS_PING, and the datastore with it", sent=ds_ping(7, LONGEST_NAME),
             expected=WITHOUT_CAPACITY | {"Node/7/datastoremember": f"{LONGEST_NAME}\n"} |
             datastore_record(LONGEST_NAME, [7])))


LOCKING = changed(node_record(7, "ds1") | datastore_record("ds1", [7]) | vdisk_record(plain("v1"), datastore="ds1") |
                  vdisk_record(snapshot("s1", "v1"), datastore="ds1"),
                  {"VDisk/v1/membership": [7, 8], "Node/8/vdisks/v1": Link("x")})


def test_each_lock_waits_its_own_time(host):
    """A wait of 50 ms fits into a time-out of 50 ms and not of 49 ms; what could not be locked is not changed."""
    daemon = host.daemon("node_lock_timeout_ms=750\ndatastore_lock_timeout_ms=49\nvdisk_lock_timeout_ms=50\n")
    report_v1, report_s1, report_new = (single_vdisk_ping(7, report(vdisk)) for vdisk in (
        plain("v1", sectors=400), snapshot("s1", "v1"), plain("new")))
    waits, gives_up = "notice: PathLock(): Contention on /tmp/", "notice: PathLock(): Timed out locking /tmp/"
    vdisk_log = [waits + "VDISK-v1, sleep 50ms", gives_up + "VDISK-v1"]
    datastore_log = [gives_up + "DS-ds1"]
    new = changed({}, {path: value for path, value in vdisk_record(plain("new"), datastore="ds1").items()
                       if path != "Datastore/ds1/vdisks/new"})
    daemon.check(
        LOCKING,
        Case("a VDisk that is locked is not changed", planted={"/tmp/VDISK-v1": ""}, sent=report_v1, expected={},
             log=vdisk_log),
        Case("a parent that is locked gets no link", planted={"/tmp/VDISK-v1": ""}, sent=report_s1, expected={},
             log=vdisk_log),
        Case("a Snapshot of a parent that is locked stays in part", planted={"/tmp/VDISK-v1": ""},
             sent=vdisk_deleted(7, "s1"), expected={"VDisk/s1/memberinfo": GONE, "Node/7/vdisks/s1": GONE},
             log=vdisk_log),
        Case("a datastore that is locked is not changed", planted={"/tmp/DS-ds1": "", "Datastore/ds1/name": "other\n"},
             sent=ds_ping(7, "ds1"), expected={}, log=datastore_log),
        Case("a VDisk of a datastore that is locked stays in part", planted={"/tmp/DS-ds1": ""},
             sent=vdisk_deleted(7, "v1"), expected={"VDisk/v1/memberinfo": GONE, "Node/7/vdisks/v1": GONE},
             log=datastore_log),
        Case("a datastore that is locked gets no link", planted={"/tmp/DS-ds1": ""}, sent=report_new, expected=new,
             log=datastore_log))


@pytest.fixture
def waiting(host):
    """A daemon that waits up to 750 ms for a node's lock, and a function that makes it wait for one and sends it a
    signal in the wait of 200 ms."""
    host.plant(LOCKING)
    daemon = host.daemon("node_lock_timeout_ms=750\n", strace("-etrace=clock_nanosleep", "-esignal=none"))

    def signal_while_waiting(lock, datagram, number):
        host.add({f"/tmp/{lock}": ""})
        daemon.send(datagram)
        daemon.wait_for("sleep 200ms")
        wait_until(daemon.sleeps, "sleep")
        daemon.process.send_signal(number)
    return daemon, signal_while_waiting


def sleeps(host):
    """Milliseconds of each, and whether a signal ended it."""
    return [(int(milliseconds), result == "?")
            for milliseconds, result in re.findall(r"nsec=(\d+)000000\}.* = (.)", host.read("/mnt/strace"))]


def test_signals_are_held_back_while_a_lock_is_waited_for(host, waiting):
    """A lock that becomes free in the wait is taken, whatever signal came."""
    daemon, signal_while_waiting = waiting
    signal_while_waiting("NODE-8", single_vdisk_ping(7, report(plain("v1"))), signal.SIGHUP)  # this report drops node 8
    host.remove("/tmp/NODE-8")
    daemon.settle()
    assert difference(changed(LOCKING, {"VDisk/v1/membership": [7], "Node/8/vdisks/v1": GONE}), host.tree()) == []
    assert sleeps(host) == [(50, False), (100, False), (200, False)]


def test_only_a_publication_that_is_asked_for_ends_a_sleep(host, waiting):
    """And the wait goes on all the same, until its time is over or the daemon's end is asked for."""
    daemon, signal_while_waiting = waiting
    signal_while_waiting("NODE-7", aux_ping(7), signal.SIGUSR1)
    daemon.wait_for("sleep 400ms")
    wait_until(daemon.sleeps, "sleep")
    assert daemon.stop() == 0
    timed_out = daemon.log.index("notice: PathLock(): Timed out locking /tmp/NODE-7")
    assert timed_out < daemon.log.index("notice: controller_thread_loop(): Exit...")
    assert sleeps(host) == [(50, False), (100, False), (200, True), (400, False)]
