"""Reports of VDisks: what each may change, what it heals, and how members and VDisks go."""
import re

from old_harness import Daemon, kinds
from records import (DS_PING, PING, SINGLE_VDISK_PING, datastore_record, ds_ping, edit, message, node_record, plain,
                     report, snapshot, vdisk_deleted, vdisk_record)

FILL = "0123456789abcd"  # as long as a name may be
NODES = node_record(7, "ds1") | node_record(8) | datastore_record("ds1", 7)
V1 = NODES | vdisk_record(plain("v1"), dsuuid="ds1")
NO_OPENAT, NO_OPEN = "error: fd_openat(): openat(", "error: fd_open(): open(@"


def single(uid, body, version=(2, 1)):
    return message(SINGLE_VDISK_PING, uid, body, version)


def other(uid, gen, members, frontends=("10.0.0.1",), transaction=0):
    """A report that differs in every field from what `plain` makes: what is not to change would show."""
    vdisk = plain("v1", gen, transaction_id=transaction, digits="98", name="other", sector_size=1, numkeys=402,
                  sectors=400, seqno=401, description=b"other", status=44, port=403, replicas=1, st_mem=45, st_mems=1,
                  st_size=1)
    return single(uid, report(vdisk, members, frontends))


def numbers(uid):  # of such a report, as they stand in its sender's record
    return f"M{uid}/seqno=401 M{uid}/numkeys=402 M{uid}/port=403 M{uid}/status=44 M{uid}/st_mem=45 "


def whole(uid):  # all that the first one of a member leaves
    return numbers(uid) + (f"M{uid}/ M{uid}/frontend=10.0.0.1 M{uid}/snap_limit=10 M{uid}/membership_gen_count=5 "
                           f"M{uid}/nodestatus>../../../../Node/{uid}/status V/sectors=400 "
                           f"Node/{uid}/vdisks/v1>../../../VDisk/v1 ")


def test_report_changes_what_its_generation_and_transaction_allow(host):
    d = Daemon(host)
    equal, busy, lower = other(7, 5, [7]), other(7, 6, [7], transaction=5), other(7, 4, [7])
    seqno, n7, r, joined = "M7/seqno=401", numbers(7), numbers(7) + "V/sectors=400 ", whole(8) + "V/membership=7|8 "
    gone7, gone8 = "-M7/ -Node/7/vdisks/v1 ", "-M8/ -Node/8/vdisks/v1 "
    two, rise = "V/membership=7|8 M8/ M8/seqno=1 Node/8/vdisks/v1>x ", "M7/membership_gen_count=6 V/highest_gen_count=6"
    ds_link, in_ds, to_v1 = "V/datastore>../../Datastore/ds1 ", "Datastore/ds1/vdisks/v1", "vdisks/v1>../../../VDisk/v1"
    no_v1, fence = f"-V/ -Node/7/vdisks/v1 -{in_ds} ", "error: FenceCheck(): execve(/mnt/fence): ENOENT"
    malformed = "error: MembershipLoad(): Malformed file @VDisk/v1/membership"
    failed = "error: VDiskUpdate(): Failed to load @VDisk/v1/highest_gen_count"
    d.check_each(V1, [
        # In a transaction nothing but seqno.
        (no_v1 + "-VDisk/", busy, "VDisk/", []), ("", busy, seqno, []), ("", other(8, 6, [7], transaction=5), "", []),
        # Stale, equal and higher generations, with and without a record of the sender's.
        ("", lower, seqno, []), ("", other(8, 4, [7, 8]), "", []), ("", equal, r, []),
        ("", other(8, 5, [7, 8]), joined, []), ("", other(7, 6, [7]), r + rise, [fence]),
        ("", other(8, 65535, [7, 8]), joined + "M8/membership_gen_count=65535 V/highest_gen_count=65535", [fence]),
        ("V/highest_gen_count=65536", other(7, 65535, [7]), seqno, []),
        # The list is replaced; whom it drops loses record and link, whom it adds gets none yet.
        ("", other(8, 5, [8]), whole(8) + "V/membership=8 " + gone7, []),
        ("", other(8, 5, [7]), whole(8), []),  # a sender that its own list does not name, unlike in a create
        ("", other(7, 5, [9, 7]), r + "V/membership=9|7", []), (two, equal, f"{r} V/membership=7 {gone8}", []),
        (two, other(7, 5, []), "V/sectors=400 " + gone7 + gone8, []), ("/tmp/VDISK-v1:", equal, "", []),
        (two + "/tmp/NODE-8:", other(7, 6, [7]), f"{r} V/membership=7 -M8/ {rise}", [fence]),
        # What a create that was cut short has left, or another's hand.
        *((no_v1 + "VDisk/v1:", datagram, "", [NO_OPEN + "VDisk/v1): Not a directory"])
          for datagram in (equal, busy, lower)),
        ("-V/memberinfo/", equal, "", [NO_OPENAT + "memberinfo): ENOENT"]), ("-V/name", equal, r, []),
        ("-M7/ VDisk/v1/memberinfo/7:", equal, "", [NO_OPENAT + "7): Not a directory"]),
        ("-V/highest", equal, seqno, [NO_OPENAT + "highest_gen_count): ENOENT", failed + ": -1"]),
        ("V/highest_gen_count=x", equal, seqno, [failed + ": 0"]), ("-M7/ -Node/7/vdisks/v1", equal, whole(7), []),
        ("-V/membership", equal, r + "V/membership=7", [NO_OPENAT + "membership): ENOENT"]),
        *((f"V/membership{broken} M8/", equal, r + "V/membership=7", [malformed]) for broken in ("=8|0", ":7|8")),
        (f"-M7/s -M7/n -M7/f -V/datastore -{in_ds}", equal, f"{whole(7)} {ds_link} Datastore/ds1/{to_v1}", []),
        # Links: none without frontends, the first datastore stands, one is needed while the link is missing.
        ("-M7/f -M7/nodestatus -Node/7/vdisks/v1", other(7, 5, [7], []), r, []),
        ("", other(7, 5, [7], ["255.255.255.255", "0.0.0.1"]), r + "M7/frontend=255.255.255.255|0.0.0.1", []),
        ("V/datastore>x M7/nodestatus>y Node/7/vdisks/v1=z", equal, r, []), (f"-{in_ds}", equal, r, []),
        ("-V/datastore -Node/7/vdisks/v1 -Node/7/datastoremember", equal, f"{n7} Node/7/{to_v1}", []),
        ("-V/datastore /tmp/DS-ds1:", equal, n7 + ds_link, []),
        ("-V/datastore -Datastore/ds1/vdisks/", equal, n7 + ds_link, [NO_OPEN + "Datastore/ds1/vdisks): ENOENT"])])


def test_locks_operations_and_stores_come_in_order(host):
    """All of them in one list: finds a lock (+) held too long, nested wrongly or dropped (-) too early."""
    d = Daemon(host)
    d.apply(ds_ping(7, "ds1"), message(PING, 7, report(plain("v1"), [7, 8]) + report(snapshot("s1", "v1"))),
            single(7, report(plain("v1", 6))), vdisk_deleted(7, "s1"), message(DS_PING, 7))
    node = """+NODE-7 NodeCreate Node 7 vdisks version uuid status nodestatus vendor model freespace utilization
        revision serial hbtl performance hostid size backupchannel ipaddr lastping -NODE-7"""
    create_v1, create_s1 = (
        f"""+VDISK-{uuid} VDisk {uuid} {uuid} memberinfo VDiskCreate uuid name sector_size sectors replicas st_mems
        st_size snapshot {own} highest_gen_count membership 7 MemberinfoCreate membership_gen_count numkeys seqno status
        port st_mem {limit} frontend nodestatus +NODE-7 NodeUpdate_RefVDisk {uuid} NodeLoad_DSMember -NODE-7 datastore
        +DS-ds1 DatastoreUpdate_RefVDisk {uuid} -DS-ds1 -VDISK-{uuid}"""
        for uuid, own, limit in (("v1", "snapshots description", "snap_limit"), ("s1", "parent snaptime", "")))
    log = "\n".join(d.step("")).replace("PathLock(): Lock /tmp/", "+").replace("PathUnlock(): Unlock /tmp/", "-")
    assert re.findall(r"(?:info: |debug: (?!\w*Load)\w+\(\): /mnt/DB/(?:\S*/)?)([^\s(=]+)", log) == f"""
        {node} +DS-ds1 DatastoreCreate Datastore ds1 uuid name description sector_size replicas stripes overcommit
        vdisks members DatastoreCreate 7 -DS-ds1 +NODE-7 NodeUpdate_RefDatastore datastoremember -NODE-7
        {node} {create_v1} {create_s1} +VDISK-v1 v1 ParentUpdate_RefSnapshot s1 -VDISK-v1
        +NODE-7 NodeLoad_VDisks NodeLoad_VDisks -NODE-7
        {node} +VDISK-v1 VDisk v1 VDiskUpdate seqno highest_gen_count MemberinfoCreate membership_gen_count numkeys
        seqno status port st_mem snap_limit frontend +NODE-7 NodeUpdate_RefVDisk -NODE-7 sectors membership
        MemberinfoDelete NodeUpdate_UnrefVDisk +NODE-8 -NODE-8 highest_gen_count FenceCheck FenceCheck -VDISK-v1
        {node} +VDISK-s1 VDiskLoad MemberinfoDelete NodeUpdate_UnrefVDisk +NODE-7 s1 -NODE-7 +VDISK-v1
        ParentUpdate_UnrefSnapshot -VDISK-v1 +DS-ds1 DatastoreUpdate_UnrefVDisk -DS-ds1 VDiskGone -VDISK-s1
        {node} +NODE-7 NodeLoad_DSMember -NODE-7 +DS-ds1 DatastoreUpdate_UnrefNode DatastoreUpdate_UnrefNode -DS-ds1
        +NODE-7 NodeUpdate_UnrefDatastore datastoremember -NODE-7""".split()


def test_first_report_creates_the_vdisk_whole(host):
    d = Daemon(host)
    v, s = plain(FILL, 65535), snapshot("s", FILL)
    for datagram, record in ((single(7, report(v)), vdisk_record(v, dsuuid="ds1")),
                             (single(7, report(s)), vdisk_record(s, dsuuid="ds1")),
                             (single(8, report(v)), edit(vdisk_record(v, []), f"VDisk/{FILL}/membership=7"))):
        host.put(NODES)
        d.check(datagram, NODES | record)
        assert d.step("info: FenceCheck(): ") == [], "whatever the generation"
    # Senders below 1.8 give the generation as two digits.
    for version, digits, gen in ((1, 8), "12", 65535), ((1, 7), "12", 12), ((0, 9), "99", 99), ((1, 7), "A1", 171):
        host.put(NODES)
        d.apply(single(7, report(plain("v1", 65535, digits=digits)), version))
        assert host.read("/mnt/DB/VDisk/v1/highest_gen_count") == f"{gen}\n"


def test_fence_check_runs_once_for_each_raise(host):
    """With no environment, the lock held and all stored by then; neither its failure nor a signal stops the daemon."""
    host.put(edit(V1, "V/membership=7|8 M8/ M8/membership_gen_count=1"))
    host.write("/mnt/fence", "#!/bin/sh\ncd /mnt/DB/VDisk/v1\n(echo $*; cat /proc/$$/environ /tmp/VDISK-v1 "
               "highest_gen_count membership memberinfo/*/m* sectors) >>/mnt/calls\nexit 1\n")
    host.shell("chmod 755 /mnt/fence")
    d = Daemon(host)
    for gen in 6, 6, 5, 8:
        assert d.apply(single(7, report(plain("v1", gen, sectors=gen)))) == []
    assert d.step("info: FenceCheck(): ") == [f"{word} /mnt/fence uuid=v1 member=7" for word in ("Call", "Return")]
    assert host.read("/mnt/calls") == "".join(f"uuid=v1 member=7\n{d.pid}\n{gen}\n7\n{gen}\n{gen}\n" for gen in (6, 8))
    # A program that signals the daemon until it drops the lock: the first signal in the wait ends that.
    host.write("/mnt/fence", "#!/bin/sh\necho -n $$ >/mnt/pid\nwhile kill -USR1 $PPID && [ -e /tmp/V* ]; do :; done")
    lines = d.apply(single(7, report(plain("v1", 9))))
    assert lines == [f"error: FenceCheck(): waitpid({host.read('/mnt/pid')}): Interrupted system call"]
    d.check(single(7, report(plain("v1", 9))), NODES | vdisk_record(plain("v1", 9), dsuuid="ds1"))


def test_ping_is_applied_entry_by_entry_and_then_speaks_of_what_it_omits(host):
    d = Daemon(host)
    a, b, c = (report(plain(uuid)) for uuid in "abc")
    bad, stale = "error: handle_ping(): Malformed packet? #", "notice: handle_ping(): Stale VDisk z of member 7"
    for body, lock, line, applied in (
            (a, "/tmp/NODE-7:", None, ""), (a + b + c, "/tmp/VDISK-b:", None, "ac"), (a + 124 * b"x", "", stale, "a"),
            (b + report(plain(FILL)) + report(plain("B")), "", stale, ["b", FILL, "B"]),
            (a + report(plain("b"), [7, 8], [])[:132], "", bad + "2", "a"), (a + b[:132], "", bad + "3", "a"),
            *((a + report(unnamed) + c, "", bad + "5", "a")
              for unnamed in (plain(""), plain("../a"), snapshot("b", ""), snapshot("b", "."))),
            (a + a, "", "error: handle_ping(): Duplicate VDisk Entry a", "a")):
        before = edit(NODES | vdisk_record(plain("z"), dsuuid="ds1"), lock)
        host.put(before)
        after = edit(NODES, "VDisk/") if line == stale else before
        for uuid in applied:
            after = after | vdisk_record(plain(uuid), dsuuid="ds1")
        d.check(message(PING, 7, body), after, [line] if line else [])


def test_member_leaves_and_takes_the_vdisk_along(host):
    """By what a PING omits or by VDISK_DELETED; the VDisk goes with the last member."""
    d = Daemon(host)
    ping, drop, drop_s = message(PING, 7), vdisk_deleted(7, "v1"), vdisk_deleted(7, "s1")
    left, gone = "-M7/ -Node/7/vdisks/v1 ", "-V/ -Node/7/vdisks/v1 -Datastore/ds1/vdisks/v1 "
    half = left + "-V/memberinfo/ "
    stale1, loading = "notice: handle_ping(): Stale VDisk v1 of member 7", "error: VDiskLoad(): "
    bad_link = "error: DatastoreUpdate_UnrefVDisk(): Malformed symlink @VDisk/v1/datastore: "
    d.check_each(V1, [
        ("", ping, gone, [stale1]), ("", single(7, b""), "", []), ("M8/", ping, left, [stale1]),
        ("/tmp/VDISK-v1:", ping, "", [stale1]), ("/tmp/NODE-7:", ping, "", []), ("/tmp/DS-ds1:", ping, half, [stale1]),
        *((f"V/datastore>{target}", ping, half, [stale1, bad_link + target]) for target in ("ds1", "x/", "x/..")),
        ("-V/description", ping, "", [stale1, NO_OPENAT + "description): ENOENT",
                                      loading + "Failed to load @VDisk/v1/description: -1"]),
        ("Node/7/vdisks/v0>x", ping, gone, [stale1.replace("v1", "v0"), NO_OPEN + "VDisk/v0): ENOENT", stale1]),
        ("-M7/ VDisk/v1/memberinfo/7:", ping, "", [
            stale1, "error: rm_fr(): @VDisk/v1/memberinfo/7 not a directory!",
            "error: MemberinfoDelete(): Could not remove @VDisk/v1/memberinfo/7"]),
        ("", drop, gone, []), ("M8/", drop, left, []), ("-M7/ M8/", drop, "-Node/7/vdisks/v1", []),
        ("", drop[:207] + b"\t" + drop[208:] + b"more", gone,
         ["error: handle_vdisk_deleted(): HASHREQ_VDISK_DELETED 7 != 9, using 7"]),
        ("Node/8/vdisks/v1>x", vdisk_deleted(8, "v1"), "-Node/8/vdisks/v1", []),
        ("-Node/7/vdisks/v1 -V/memberinfo/ V/transaction_id=1", vdisk_deleted(8, "v1"), gone, []),  # heals `half`
        ("-V/datastore -Datastore/ds1/vdisks/v1", drop, gone, []), ("-Datastore/ds1/vdisks/v1", drop, gone, []),
        ("", vdisk_deleted(7, "none"), "", [NO_OPEN + "VDisk/none): ENOENT"]),
        ("", vdisk_deleted(7, "../VDisk/v1"), "", ["error: handle_vdisk_deleted(): Malformed packet? #5"])])
    # The link of a Snapshot in its parent comes when both are there, and goes with the Snapshot.
    s1, busy = (single(7, report(snapshot("s1", "v1", transaction_id=number))) for number in (0, 5))
    linked, half_s = "V/snapshots/s1>../../../VDisk/s1 ", "-VDisk/s1/memberinfo/ -Node/7/vdisks/s1 "
    s, ping_s = half_s + "-VDisk/s1/ -Datastore/ds1/vdisks/s1 ", message(PING, 7, report(snapshot("s1", "v1")))
    d.check_each(V1 | vdisk_record(snapshot("s1", "v1"), dsuuid="ds1"), [
        ("", s1, linked, []), ("V/snapshots/s1>x", s1, "", []), ("", busy, "", []), ("/tmp/VDISK-v1:", ping_s, "", []),
        ("-V/", ping_s, "", [stale1, NO_OPEN + "VDisk/v1): ENOENT"]),  # no parent is no failure
        ("-V/ VDisk/v1:", ping_s, "", ["error: ParentUpdate_RefSnapshot(): @VDisk/v1 not a directory!"]),
        ("", single(7, report(snapshot("s1", "s1"))), "", [NO_OPENAT + "snapshots): ENOENT"]),
        (linked, drop_s, s + "-V/snapshots/s1", []), ("-V/", drop_s, s, []), (linked, drop, gone, []),
        (linked + "/tmp/VDISK-v1:", drop_s, half_s, []), ("VDisk/s1/parent=s1", drop_s, half_s, []),  # locked already
        ("VDisk/s1/parent=..", drop_s, "", [loading + "Malformed @VDisk/s1/parent: .."]),
        (linked, ping, gone + s, [stale1.replace("v1", "s1"), stale1])])


def test_ping_fills_a_datagram_and_no_more(host):
    """The largest that a datagram can carry goes out and comes in; a larger one stops nothing but itself."""
    host.write("/mnt/local_nodes", "7\n")
    d = Daemon(host)
    d.sent()
    too_long = "error: xmit_msg(): sendto(127.0.0.2:8000, %d): Message too long"
    for members, lines in ((16200, []), (16200 + 94, [too_long % 65508]), (16301, [too_long % 65536]),
                           (16302, ["error: send_pings(): Oversized PING from Node 7"])):
        tree = node_record(7, "ds1") | datastore_record("ds1")
        for uuid in ["v1"] if lines else ["v1", "v2", "v3", "v4"]:
            tree |= edit(vdisk_record(plain(uuid)), "memberinfo/7/frontend: membership:", f"VDisk/{uuid}/")
        tree["VDisk/v1/membership"] = "".join(f"{uid}\n" for uid in range(1, members + 1))
        host.put(tree)
        assert d.publish() == lines
        datagrams = d.sent()
        assert kinds(datagrams) == "DS:294 AUX:236" + ("" if lines else " PING:65507")
        d.apply(datagrams[-1][:4] + b"\10" + datagrams[-1][5:])
        assert ("VDisk/v1/memberinfo/8/" in host.tree()) == (not lines)
        assert host.read("/mnt/DB/VDisk/v1/membership") == tree["VDisk/v1/membership"]
