"""What a PING says by what it names and by what it omits; how members, VDisks and Snapshots go; the order of it all."""
import re

from harness import Case, no_such_file, nothing_in_record, strace
from messages import ds_ping, ping, plain, report, single_vdisk_ping, snapshot, vdisk_deleted
from trees import DIRECTORY, FIFO, GONE, Link, changed, datastore_record, difference, node_record, vdisk_record

LONGEST_NAME = "0123456789abcd"
NODES = node_record(7, "ds1") | node_record(8) | datastore_record("ds1", [7])
V1 = NODES | vdisk_record(plain("v1"), datastore="ds1")
S1 = V1 | vdisk_record(snapshot("s1", "v1"), datastore="ds1")
SNAPSHOT_LINK = {"VDisk/v1/snapshots/s1": Link("../../../VDisk/s1")}
MEMBER_8 = {"VDisk/v1/memberinfo/8": DIRECTORY}
# What goes when node 7 leaves v1 or s1: only its own share; that and the VDisk in part; all.
LEFT = {"VDisk/v1/memberinfo/7": GONE, "Node/7/vdisks/v1": GONE}
HALF = {"VDisk/v1/memberinfo": GONE, "Node/7/vdisks/v1": GONE}
HALF_S1 = {"VDisk/s1/memberinfo": GONE, "Node/7/vdisks/s1": GONE}
V1_GONE, S1_GONE = ({f"VDisk/{uuid}": GONE, f"Node/7/vdisks/{uuid}": GONE, f"Datastore/ds1/vdisks/{uuid}": GONE}
                    for uuid in ("v1", "s1"))


def stale(uuid):
    return f"notice: handle_ping(): Stale VDisk {uuid} of member 7"


def records(*uuids):
    """The tree's growth by these VDisks."""
    return {path: value for uuid in uuids for path, value in vdisk_record(plain(uuid), datastore="ds1").items()}


def test_ping_is_applied_entry_by_entry_and_then_speaks_of_what_it_omits(host):
    """The node's VDisk z is not named: it goes, but only if every entry went well."""
    a, b, c = (report(plain(uuid)) for uuid in "abc")
    z_gone = {"VDisk/z": GONE, "Node/7/vdisks/z": GONE, "Datastore/ds1/vdisks/z": GONE}
    malformed = "error: handle_ping(): Malformed packet? #"
    b_cut = Link("../../../VDisk/b")
    host.daemon().check(
        NODES | vdisk_record(plain("z"), datastore="ds1"),
        Case("z goes with a PING that went well, whose last bytes are no entry", sent=ping(7, a, 124 * b"x"),
             expected=z_gone | {"VDisk": DIRECTORY} | records("a"), log=[stale("z")]),
        Case("without the node's lock nothing is applied", planted={"/tmp/NODE-7": ""}, sent=ping(7, a), expected={}),
        Case("an entry that fails is passed over", planted={"/tmp/VDISK-b": ""}, sent=ping(7, a, b, c),
             expected=records("a", "c")),
        Case("a VDisk without memberinfo is an entry that fails",
             planted={"VDisk/b": DIRECTORY, "Node/7/vdisks/b": b_cut}, sent=ping(7, a, b, c),
             expected=records("a", "c"), log=[nothing_in_record("memberinfo")]),
        Case("a VDisk with a file for memberinfo is an entry that fails",
             planted={"VDisk/b/memberinfo": "", "Node/7/vdisks/b": b_cut}, sent=ping(7, b), expected={},
             log=["error: fd_openat(): openat(memberinfo): Not a directory"]),
        Case("a member list that is cut short ends the message", sent=ping(7, a, report(plain("b"), [7, 8], [])[:132]),
             expected=records("a"), log=[malformed + "2"]),
        Case("a frontend list that is cut short ends the message", sent=ping(7, a, b[:132]), expected=records("a"),
             log=[malformed + "3"]),
        Case("a VDisk without a name ends the message", sent=ping(7, a, report(plain("")), c), expected=records("a"),
             log=[malformed + "5"]),
        Case("a VDisk that would lie elsewhere ends the message", sent=ping(7, a, report(plain("../a")), c),
             expected=records("a"), log=[malformed + "5"]),
        Case("a parent without a name ends the message", sent=ping(7, a, report(snapshot("b", "")), c),
             expected=records("a"), log=[malformed + "5"]),
        Case("a parent that would lie elsewhere ends the message", sent=ping(7, a, report(snapshot("b", ".")), c),
             expected=records("a"), log=[malformed + "5"]),
        Case("names sort by their bytes and fill their field",
             sent=ping(7, b, report(plain(LONGEST_NAME)), report(plain("B"))),
             expected=z_gone | {"VDisk": DIRECTORY} | records("b", LONGEST_NAME, "B"), log=[stale("z")]),
        Case("a VDisk that comes twice is an entry that fails", sent=ping(7, a, a), expected=records("a"),
             log=["error: handle_ping(): Duplicate VDisk Entry a"]))


def test_memberinfo_that_cannot_be_made_is_an_entry_that_fails(host):
    """A disk that is full when a VDisk is to be created takes no other VDisk away."""
    daemon = host.daemon(before=strace("-etrace=mkdirat", "-einject=mkdirat:error=ENOSPC:when=2"))  # 1: Node/7/vdisks
    daemon.check(
        NODES | vdisk_record(plain("z"), datastore="ds1"),
        Case("z stays, and a is an empty record", sent=ping(7, report(plain("a"))), expected={"VDisk/a": DIRECTORY},
             log=["error: VDiskCreate(): mkdir(/mnt/DB/VDisk/a/memberinfo): No space left on device"]))


def test_member_leaves_and_takes_the_vdisk_along(host):
    """By what a PING omits or by VDISK_DELETED; the VDisk goes with the last member."""
    empty, deleted = ping(7), vdisk_deleted(7, "v1")
    no_directory = ["error: rm_fr(): /mnt/DB/VDisk/v1/memberinfo/7 not a directory!",
                    "error: MemberinfoDelete(): Could not remove /mnt/DB/VDisk/v1/memberinfo/7"]
    no_datastore = "error: DatastoreUpdate_UnrefVDisk(): Malformed symlink /mnt/DB/VDisk/v1/datastore: "
    no_description = [nothing_in_record("description"),
                      "error: VDiskLoad(): Failed to load /mnt/DB/VDisk/v1/description: -1"]
    host.daemon().check(
        V1,
        Case("an empty PING leaves all", sent=empty, expected=V1_GONE, log=[stale("v1")]),
        Case("an empty SINGLE_VDISK_PING leaves nothing", sent=single_vdisk_ping(7), expected={}),
        Case("a VDisk stays with another member", planted=MEMBER_8, sent=empty, expected=LEFT, log=[stale("v1")]),
        Case("without the VDisk's lock it stays", planted={"/tmp/VDISK-v1": ""}, sent=empty, expected={},
             log=[stale("v1")]),
        Case("without the node's lock all stays", planted={"/tmp/NODE-7": ""}, sent=empty, expected={}),
        Case("without the datastore's lock the record stays in part", planted={"/tmp/DS-ds1": ""}, sent=empty,
             expected=HALF, log=[stale("v1")]),
        Case("a datastore link without a slash is refused", planted={"VDisk/v1/datastore": Link("ds1")}, sent=empty,
             expected=HALF, log=[stale("v1"), no_datastore + "ds1"]),
        Case("a datastore link without a name is refused", planted={"VDisk/v1/datastore": Link("x/")}, sent=empty,
             expected=HALF, log=[stale("v1"), no_datastore + "x/"]),
        Case("a datastore link that leads upwards is refused", planted={"VDisk/v1/datastore": Link("x/..")}, sent=empty,
             expected=HALF, log=[stale("v1"), no_datastore + "x/.."]),
        Case("a VDisk that cannot be read stays", planted={"VDisk/v1/description": GONE}, sent=empty, expected={},
             log=[stale("v1"), *no_description]),
        Case("a link to nothing stays and does not keep back the next", planted={"Node/7/vdisks/v0": Link("x")},
             sent=empty, expected=V1_GONE, log=[stale("v0"), no_such_file("VDisk/v0"), stale("v1")]),
        Case("a file in place of the member record stays", planted={"VDisk/v1/memberinfo/7": ""}, sent=empty,
             expected={}, log=[stale("v1"), *no_directory]),
        Case("VDISK_DELETED leaves the VDisk", sent=deleted, expected=V1_GONE),
        Case("with another member it stays", planted=MEMBER_8, sent=deleted, expected=LEFT),
        Case("a member without a record loses its link", planted={"VDisk/v1/memberinfo/7": GONE} | MEMBER_8,
             sent=deleted, expected={"Node/7/vdisks/v1": GONE}),
        Case("the header says who leaves, and more bytes nothing", sent=vdisk_deleted(7, "v1", node=9) + b"more",
             expected=V1_GONE, log=["error: handle_vdisk_deleted(): HASHREQ_VDISK_DELETED 7 != 9, using 7"]),
        Case("who is no member loses its link alone", planted={"Node/8/vdisks/v1": Link("x")},
             sent=vdisk_deleted(8, "v1"), expected={"Node/8/vdisks/v1": GONE}),
        Case("anybody ends a removal that was cut short, a transaction or not",
             planted=HALF | {"VDisk/v1/transaction_id": 1}, sent=vdisk_deleted(8, "v1"), expected=V1_GONE),
        Case("a VDisk of no datastore goes", planted={"VDisk/v1/datastore": GONE, "Datastore/ds1/vdisks/v1": GONE},
             sent=deleted, expected=V1_GONE),
        Case("a VDisk that its datastore does not link goes", planted={"Datastore/ds1/vdisks/v1": GONE}, sent=deleted,
             expected=V1_GONE),
        # What is of another kind than it should be stays, and a line says so.
        Case("a file for a node's links", planted={"Node/7/vdisks": ""}, sent=deleted,
             expected={"VDisk/v1/memberinfo/7": GONE},
             log=["error: NodeUpdate_UnrefVDisk(): lstat(/mnt/DB/Node/7/vdisks/v1): Not a directory"]),
        Case("a directory for a node's link", planted={"Node/7/vdisks/v1": DIRECTORY}, sent=deleted,
             expected={"VDisk/v1/memberinfo/7": GONE},
             log=["error: NodeUpdate_UnrefVDisk(): unlink(/mnt/DB/Node/7/vdisks/v1): Is a directory"]),
        Case("a file for the link to the datastore", planted={"VDisk/v1/datastore": ""}, sent=deleted, expected=HALF,
             log=["error: DatastoreUpdate_UnrefVDisk(): readlink(/mnt/DB/VDisk/v1/datastore): Invalid argument"]),
        Case("a directory for the datastore's link", planted={"Datastore/ds1/vdisks/v1": DIRECTORY}, sent=deleted,
             expected=HALF,
             log=["error: DatastoreUpdate_UnrefVDisk(): unlink(/mnt/DB/Datastore/ds1/vdisks/v1): Is a directory"]),
        Case("a file for memberinfo", planted={"VDisk/v1/memberinfo": ""}, sent=deleted, expected={},
             log=["error: rm_fr(): lstat(/mnt/DB/VDisk/v1/memberinfo/7): Not a directory", no_directory[1]]),
        Case("a VDisk that is not there is an error", sent=vdisk_deleted(7, "none"), expected={},
             log=[no_such_file("VDisk/none")]),
        Case("a name that leads elsewhere is refused", sent=vdisk_deleted(7, "../VDisk/v1"), expected={},
             log=["error: handle_vdisk_deleted(): Malformed packet? #5"]))


def test_snapshot_is_linked_in_its_parent(host):
    """The link comes when both are there, and goes with the Snapshot."""
    s1, busy = (single_vdisk_ping(7, report(snapshot("s1", "v1", transaction_id=number))) for number in (0, 5))
    ping_s1, deleted_s1 = ping(7, report(snapshot("s1", "v1"))), vdisk_deleted(7, "s1")
    host.daemon().check(
        S1,
        Case("a report of the Snapshot makes the link", sent=s1, expected=SNAPSHOT_LINK),
        Case("what has the link's name stays", planted={"VDisk/v1/snapshots/s1": Link("x")}, sent=s1, expected={}),
        Case("in a transaction no link is made", sent=busy, expected={}),
        Case("without the parent's lock the report fails, and v1 is not stale", planted={"/tmp/VDISK-v1": ""},
             sent=ping_s1, expected={}),
        Case("no parent is no failure, and v1 is stale", planted={"VDisk/v1": GONE}, sent=ping_s1, expected={},
             log=[stale("v1"), no_such_file("VDisk/v1")]),
        Case("a file for a parent is a failure", planted={"VDisk/v1": ""}, sent=ping_s1, expected={},
             log=["error: ParentUpdate_RefSnapshot(): /mnt/DB/VDisk/v1 not a directory!"]),
        Case("a parent without snapshots is a failure", planted={"VDisk/v1/snapshots": GONE}, sent=ping_s1, expected={},
             log=[nothing_in_record("snapshots")]),
        Case("a Snapshot is no parent", sent=single_vdisk_ping(7, report(snapshot("s1", "s1"))), expected={},
             log=[nothing_in_record("snapshots")]),
        Case("the link goes with the Snapshot", planted=SNAPSHOT_LINK, sent=deleted_s1,
             expected=S1_GONE | {"VDisk/v1/snapshots/s1": GONE}),
        Case("a Snapshot without a parent goes", planted={"VDisk/v1": GONE}, sent=deleted_s1, expected=S1_GONE),
        Case("a parent may go before its Snapshots", planted=SNAPSHOT_LINK, sent=vdisk_deleted(7, "v1"),
             expected=V1_GONE),
        Case("without the parent's lock the Snapshot stays in part", planted=SNAPSHOT_LINK | {"/tmp/VDISK-v1": ""},
             sent=deleted_s1, expected=HALF_S1),
        Case("a Snapshot of itself, which is locked already, stays in part", planted={"VDisk/s1/parent": "s1\n"},
             sent=deleted_s1, expected=HALF_S1),
        Case("a parent that would lie elsewhere is refused", planted={"VDisk/s1/parent": "..\n"}, sent=deleted_s1,
             expected={}, log=["error: VDiskLoad(): Malformed /mnt/DB/VDisk/s1/parent: .."]),
        Case("a PING that omits both takes both", planted=SNAPSHOT_LINK, sent=ping(7), expected=V1_GONE | S1_GONE,
             log=[stale("s1"), stale("v1")]))


def test_full_fifo_does_not_hold_up_the_daemon(host):
    """A list too long for the buffer of a FIFO in its place fails, and the daemon goes on."""
    members = list(range(1, 16001))
    daemon = host.daemon(options="-d")
    daemon.check(
        V1,
        Case("the report ends there", planted={"VDisk/v1/membership": FIFO},
             sent=single_vdisk_ping(7, report(plain("v1", sectors=400), members)), expected={"VDisk/v1/sectors": 400},
             log=["error: buf_tx(): write(19358): Resource temporarily unavailable"]),
        Case("the next one is applied", sent=single_vdisk_ping(7, report(plain("v1", sectors=400))),
             expected={"VDisk/v1/sectors": 400}))


def test_longest_paths(host):
    """Below the longest work directory, with the longest names, records come and go whole. Catches a limit that leaves
    no room for the longest path of all, the link of a VDisk in a datastore whose name another program made too long."""
    work_directory, node, datastore = "/mnt/" + "d" * 202, 4294967295, "D" * 15
    host.path(work_directory).mkdir()
    host.path("/mnt/DB").symlink_to("d" * 202)
    daemon = host.daemon(f"work_directory = {work_directory}\n")
    before = changed(node_record(node, datastore) | datastore_record(datastore, [node]), {"VDisk": DIRECTORY})
    host.add(before)
    vdisk, snap = plain(LONGEST_NAME), snapshot("S" * 14, LONGEST_NAME)
    assert daemon.deliver(ping(node, report(vdisk, [node]), report(snap, [node]))) == []
    both = vdisk_record(vdisk, [node], datastore) | vdisk_record(snap, [node], datastore)
    link = {f"VDisk/{LONGEST_NAME}/snapshots/{'S' * 14}": Link(f"../../../VDisk/{'S' * 14}")}
    assert difference(changed(before | both, link), host.tree()) == []
    assert daemon.deliver(vdisk_deleted(node, "S" * 14), vdisk_deleted(node, LONGEST_NAME)) == []
    assert difference(before, host.tree()) == []
    assert daemon.deliver(ds_ping(node)) == []
    assert difference(changed(before, {f"Datastore/{datastore}": GONE, f"Node/{node}/datastoremember": GONE}),
                      host.tree()) == []


def steps(daemon):
    """What the last step of the log says of locks (+ taken, - dropped), operations, and the entries stored in a
    record, in their order."""
    log = "\n".join(daemon.told("")).replace("PathLock(): Lock /tmp/", "+").replace("PathUnlock(): Unlock /tmp/", "-")
    return re.findall(r"(?:info: |debug: (?!\w*Load)\w+\(\): /mnt/DB/(?:\S*/)?)([^\s(=]+)", log)


def test_locks_operations_and_stores_come_in_order(host):
    """Finds a lock held too long, nested wrongly or dropped too early, and every store that comes out of turn."""
    daemon = host.daemon()
    node = """+NODE-7 NodeCreate Node 7 vdisks version uuid status nodestatus vendor model freespace utilization
        revision serial hbtl performance hostid size backupchannel ipaddr lastping -NODE-7"""
    create_v1, create_s1 = (
        f"""+VDISK-{uuid} VDisk {uuid} {uuid} memberinfo VDiskCreate uuid name sector_size sectors replicas st_mems
        st_size snapshot {own} highest_gen_count membership 7 MemberinfoCreate membership_gen_count numkeys seqno status
        port st_mem {limit} frontend nodestatus +NODE-7 NodeUpdate_RefVDisk {uuid} NodeLoad_DSMember -NODE-7 datastore
        +DS-ds1 DatastoreUpdate_RefVDisk {uuid} -DS-ds1 -VDISK-{uuid}"""
        for uuid, own, limit in (("v1", "snapshots description", "snap_limit"), ("s1", "parent snaptime", "")))
    story = [
        (ds_ping(7, "ds1"), f"""{node} +DS-ds1 DatastoreCreate Datastore ds1 uuid name description sector_size replicas
            stripes overcommit vdisks members DatastoreCreate 7 -DS-ds1
            +NODE-7 NodeUpdate_RefDatastore datastoremember -NODE-7"""),
        (ping(7, report(plain("v1"), [7, 8]), report(snapshot("s1", "v1"))), f"""{node} {create_v1} {create_s1}
            +VDISK-v1 v1 ParentUpdate_RefSnapshot s1 -VDISK-v1 +NODE-7 NodeLoad_VDisks NodeLoad_VDisks -NODE-7"""),
        (single_vdisk_ping(7, report(plain("v1", 6))), f"""{node} +VDISK-v1 VDisk v1 VDiskUpdate seqno highest_gen_count
            MemberinfoCreate membership_gen_count numkeys seqno status port st_mem snap_limit frontend
            +NODE-7 NodeUpdate_RefVDisk -NODE-7 sectors membership
            MemberinfoDelete NodeUpdate_UnrefVDisk +NODE-8 -NODE-8 highest_gen_count FenceCheck FenceCheck
            -VDISK-v1"""),
        (vdisk_deleted(7, "s1"), f"""{node} +VDISK-s1 VDiskLoad MemberinfoDelete NodeUpdate_UnrefVDisk
            +NODE-7 s1 -NODE-7 +VDISK-v1 ParentUpdate_UnrefSnapshot -VDISK-v1
            +DS-ds1 DatastoreUpdate_UnrefVDisk -DS-ds1 VDiskGone -VDISK-s1"""),
        (ds_ping(7), f"""{node} +NODE-7 NodeLoad_DSMember -NODE-7
            +DS-ds1 DatastoreUpdate_UnrefNode DatastoreUpdate_UnrefNode -DS-ds1
            +NODE-7 NodeUpdate_UnrefDatastore datastoremember -NODE-7""")]
    for datagram, expected in story:
        daemon.deliver(datagram)
        assert (datagram, steps(daemon)) == (datagram, expected.split())


def test_ping_fills_a_datagram_and_no_more(host):
    """The largest that a datagram can carry goes out and comes in; a larger one stops nothing but itself."""
    host.write("/mnt/local_nodes", "7\n")
    daemon = host.daemon(options="-d")  # a line for each member takes its time
    daemon.sent()
    too_long = "error: xmit_msg(): sendto(127.0.0.2:8000, %d): Message too long"
    for vdisks, members, expected in [
            (4, 16200, []),  # 65507 bytes: what UDP carries
            (1, 16294, [too_long % 65508]),
            (1, 16301, [too_long % 65536]),
            (1, 16302, ["error: send_pings(): Oversized PING from Node 7"])]:
        tree = node_record(7, "ds1") | datastore_record("ds1")
        for number in range(1, vdisks + 1):
            tree = changed(tree | vdisk_record(plain(f"v{number}")),
                           {f"VDisk/v{number}/membership": "", f"VDisk/v{number}/memberinfo/7/frontend": ""})
        tree = changed(tree, {"VDisk/v1/membership": list(range(1, members + 1))})
        host.plant(tree)
        assert (members, daemon.publish()) == (members, expected)
        datagrams = daemon.sent()
        sizes = [(datagram.kind, len(datagram)) for datagram in datagrams]
        assert sizes == [("DS_PING", 294), ("AUX_PING", 236)] + ([] if expected else [("PING", 65507)])
        if not expected:  # as if node 8 had sent it
            daemon.deliver(datagrams[-1].cut(4) + b"\10" + datagrams[-1][5:])
            assert "VDisk/v1/memberinfo/8" in host.tree()
            assert host.read("/mnt/DB/VDisk/v1/membership") == tree["VDisk/v1/membership"]
