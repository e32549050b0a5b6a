"""Reports of VDisks: what each may change, by its generation and transaction, and what it heals."""
from harness import Case, no_such_file, nothing_in_record
from messages import plain, report, single_vdisk_ping, snapshot
from trees import (DIRECTORY, GONE, Link, attributes, changed, datastore_record, difference, member_record, node_record,
                   vdisk_record)

LONGEST_NAME = "0123456789abcd"
NODES = node_record(7, "ds1") | node_record(8) | datastore_record("ds1", [7])
V1 = NODES | vdisk_record(plain("v1"), datastore="ds1")
NO_FENCE_CHECK = ["error: FenceCheck(): execve(/mnt/fence): No such file or directory"]

# A report of v1 that differs from the tree in every field, so that what must not change would show.
OTHER = dict(old_mshipgencnt="98", name="other", sector_size=1, numkeys=402, sectors=400, seqno=401, status=44,
             description="other", port=403, replicas=1, st_mem=45, st_mems=1, st_size=1)


def other(uid, generation=5, members=(7,), frontends=("10.0.0.1",), transaction_id=0):
    vdisk = plain("v1", generation, transaction_id=transaction_id, **OTHER)
    return single_vdisk_ping(uid, report(vdisk, members, frontends))


# What it changes in the tree, from the least to the most.
SEQNO = attributes("VDisk/v1/memberinfo/7", seqno=401)
SHARE = attributes("VDisk/v1/memberinfo/7", seqno=401, numkeys=402, port=403, status=44, st_mem=45)
APPLIED = SHARE | {"VDisk/v1/sectors": 400}
RAISED = APPLIED | {"VDisk/v1/memberinfo/7/membership_gen_count": 6, "VDisk/v1/highest_gen_count": 6}
LINK = Link("../../../VDisk/v1")
MADE_7, MADE_8 = (member_record(plain("v1", **OTHER), uid) | {f"Node/{uid}/vdisks/v1": LINK, "VDisk/v1/sectors": 400}
                  for uid in (7, 8))
GONE_7 = {"VDisk/v1/memberinfo/7": GONE, "Node/7/vdisks/v1": GONE}
GONE_8 = {"VDisk/v1/memberinfo/8": GONE, "Node/8/vdisks/v1": GONE}
# What stands in the tree before it.
NO_V1 = {"VDisk/v1": GONE, "Node/7/vdisks/v1": GONE, "Datastore/ds1/vdisks/v1": GONE}
MEMBER_8 = {"VDisk/v1/membership": [7, 8], "VDisk/v1/memberinfo/8/seqno": 1, "Node/8/vdisks/v1": Link("x")}
NO_DATASTORE = {"VDisk/v1/datastore": GONE, "Datastore/ds1/vdisks/v1": GONE}


def test_generation_and_transaction_allow_what_changes(host):
    host.daemon().check(
        V1,
        # In a transaction nothing but seqno.
        Case("no VDisk is created in a transaction", planted=NO_V1 | {"VDisk": GONE},
             sent=other(7, 6, transaction_id=5), expected={"VDisk": DIRECTORY}),
        Case("in a transaction nothing changes but seqno", sent=other(7, 6, transaction_id=5), expected=SEQNO),
        Case("no member record is made in a transaction", sent=other(8, 6, transaction_id=5), expected={}),
        # Stale, equal and higher generations, with and without a record of the sender's.
        Case("a lower generation changes nothing but seqno", sent=other(7, 4), expected=SEQNO),
        Case("a lower generation makes no member record", sent=other(8, 4, [7, 8]), expected={}),
        Case("an equal generation changes the sender's share and the size", sent=other(7, 5), expected=APPLIED),
        Case("a new member is taken in by an equal generation", sent=other(8, 5, [7, 8]),
             expected=MADE_8 | {"VDisk/v1/membership": [7, 8]}),
        Case("a higher generation is stored, and the fence check called", sent=other(7, 6), expected=RAISED,
             log=NO_FENCE_CHECK),
        Case("the highest generation of the wire is stored whole", sent=other(8, 65535, [7, 8]),
             expected=MADE_8 |
             {"VDisk/v1/membership": [7, 8], "VDisk/v1/memberinfo/8/membership_gen_count": 65535,
              "VDisk/v1/highest_gen_count": 65535}, log=NO_FENCE_CHECK),
        Case("a stored generation beyond 16 bits is compared whole", planted={"VDisk/v1/highest_gen_count": 65536},
             sent=other(7, 65535), expected=SEQNO),
        # The list is replaced; whom it drops loses record and link, whom it adds gets none yet.
        Case("a member that the list drops loses record and link", sent=other(8, 5, [8]),
             expected=MADE_8 | {"VDisk/v1/membership": [8]} | GONE_7),
        Case("a sender that its own list does not name gets a record, unlike in a create", sent=other(8, 5, [7]),
             expected=MADE_8),
        Case("a member that the list adds gets no record before it reports", sent=other(7, 5, [9, 7]),
             expected=APPLIED | {"VDisk/v1/membership": [9, 7]}),
        Case("of two members the second is dropped", planted=MEMBER_8, sent=other(7, 5, [7]),
             expected=APPLIED | {"VDisk/v1/membership": [7]} | GONE_8),
        Case("an empty list drops everybody and is not stored", planted=MEMBER_8, sent=other(7, 5, []),
             expected={"VDisk/v1/sectors": 400} | GONE_7 | GONE_8),
        Case("a node that is locked keeps its link, and the report goes on", planted=MEMBER_8 | {"/tmp/NODE-8": ""},
             sent=other(7, 6), expected=RAISED | {"VDisk/v1/membership": [7], "VDisk/v1/memberinfo/8": GONE},
             log=NO_FENCE_CHECK),
        Case("without the VDisk's lock nothing changes", planted={"/tmp/VDISK-v1": ""}, sent=other(7, 5), expected={}))


def test_report_heals_what_it_can(host):
    """What a creation or an update that was cut short has left, or another's hand."""
    not_a_directory = ["error: fd_open(): open(/mnt/DB/VDisk/v1): Not a directory"]
    no_generation = "error: VDiskUpdate(): Failed to load /mnt/DB/VDisk/v1/highest_gen_count: "
    malformed = ["error: MembershipLoad(): Malformed file /mnt/DB/VDisk/v1/membership"]
    healed_list = APPLIED | {"VDisk/v1/membership": [7]}
    to_datastore = {"VDisk/v1/datastore": Link("../../Datastore/ds1")}
    from_datastore = {"Datastore/ds1/vdisks/v1": LINK}
    host.daemon().check(
        V1,
        Case("a file in place of the record stays, whatever the report", planted=NO_V1 | {"VDisk/v1": ""},
             sent=other(7, 5), expected={}, log=not_a_directory),
        Case("it stays in a transaction", planted=NO_V1 | {"VDisk/v1": ""}, sent=other(7, 6, transaction_id=5),
             expected={}, log=not_a_directory),
        Case("it stays at a lower generation", planted=NO_V1 | {"VDisk/v1": ""}, sent=other(7, 4), expected={},
             log=not_a_directory),
        Case("a file in place of all VDisks stays", planted={"VDisk": ""}, sent=other(7, 5), expected={},
             log=["error: VDiskCreate(): lstat(/mnt/DB/VDisk/v1): Not a directory"]),
        Case("a file in place of a node's links stays", planted={"Node/7/vdisks": ""}, sent=other(7, 5), expected=SHARE,
             log=["error: fd_open(): open(/mnt/DB/Node/7/vdisks): Not a directory"]),
        Case("without memberinfo a VDisk was created in part, and stays so", planted={"VDisk/v1/memberinfo": GONE},
             sent=other(7, 5), expected={}, log=[nothing_in_record("memberinfo")]),
        Case("an attribute that only a creation writes stays lost", planted={"VDisk/v1/name": GONE}, sent=other(7, 5),
             expected=APPLIED),
        Case("a file in place of the member record stays", planted={"VDisk/v1/memberinfo/7": ""}, sent=other(7, 5),
             expected={}, log=["error: fd_openat(): openat(7): Not a directory"]),
        Case("without a generation nothing changes but seqno", planted={"VDisk/v1/highest_gen_count": GONE},
             sent=other(7, 5), expected=SEQNO, log=[nothing_in_record("highest_gen_count"), no_generation + "-1"]),
        Case("with a torn generation nothing changes but seqno", planted={"VDisk/v1/highest_gen_count": "x\n"},
             sent=other(7, 5), expected=SEQNO, log=[no_generation + "0"]),
        Case("a lost member record is made again", planted=GONE_7, sent=other(7, 5), expected=MADE_7),
        Case("a lost list is made again", planted={"VDisk/v1/membership": GONE}, sent=other(7, 5), expected=healed_list,
             log=[nothing_in_record("membership")]),
        Case("a list with a 0 is replaced, and nobody dropped",
             planted={"VDisk/v1/membership": [8, 0], "VDisk/v1/memberinfo/8": DIRECTORY}, sent=other(7, 5),
             expected=healed_list, log=malformed),
        Case("a torn list is replaced, and nobody dropped",
             planted={"VDisk/v1/membership": "7\n8", "VDisk/v1/memberinfo/8": DIRECTORY}, sent=other(7, 5),
             expected=healed_list, log=malformed),
        Case("a member's attributes and the datastore's links are made again",
             planted=NO_DATASTORE |
             {f"VDisk/v1/memberinfo/7/{key}": GONE for key in ("seqno", "status", "numkeys", "frontend")},
             sent=other(7, 5), expected=MADE_7 | to_datastore | from_datastore),
        # Links: none without frontends, the first datastore stands, one is needed while the link is missing.
        Case("without frontends no link is made, and no list",
             planted={"VDisk/v1/memberinfo/7/frontend": GONE, "VDisk/v1/memberinfo/7/nodestatus": GONE,
                      "Node/7/vdisks/v1": GONE}, sent=other(7, 5, frontends=[]), expected=APPLIED),
        Case("the addresses of frontends are stored in their order",
             sent=other(7, 5, frontends=["255.255.255.255", "0.0.0.1"]),
             expected=APPLIED | {"VDisk/v1/memberinfo/7/frontend": ["255.255.255.255", "0.0.0.1"]}),
        Case("what has a link's name stays",
             planted={"VDisk/v1/datastore": Link("x"), "Node/7/vdisks/v1": "z\n",
                      "VDisk/v1/memberinfo/7/nodestatus": Link("y")}, sent=other(7, 5), expected=APPLIED),
        Case("a VDisk that names its datastore is not linked there again", planted={"Datastore/ds1/vdisks/v1": GONE},
             sent=other(7, 5), expected=APPLIED),
        Case("a node without a datastore gets its link",
             planted={"VDisk/v1/datastore": GONE, "Node/7/vdisks/v1": GONE, "Node/7/datastoremember": GONE},
             sent=other(7, 5), expected=SHARE | {"Node/7/vdisks/v1": LINK}),
        Case("without the datastore's lock the report ends there",
             planted={"VDisk/v1/datastore": GONE, "/tmp/DS-ds1": ""}, sent=other(7, 5), expected=SHARE | to_datastore),
        Case("a datastore without vdisks ends the report",
             planted={"VDisk/v1/datastore": GONE, "Datastore/ds1/vdisks": GONE}, sent=other(7, 5),
             expected=SHARE | to_datastore, log=[no_such_file("Datastore/ds1/vdisks")]))


def test_first_report_creates_the_vdisk_whole(host):
    daemon = host.daemon()
    vdisk, snap = plain(LONGEST_NAME, 65535), snapshot("s", LONGEST_NAME)
    daemon.check(
        NODES,
        Case("a Plain VDisk is created", sent=single_vdisk_ping(7, report(vdisk)),
             expected=vdisk_record(vdisk, datastore="ds1")),
        Case("a Snapshot is created", sent=single_vdisk_ping(7, report(snap)),
             expected=vdisk_record(snap, datastore="ds1")),
        Case("a sender that its list does not name gets no record", sent=single_vdisk_ping(8, report(vdisk)),
             expected=vdisk_record(vdisk, members=[]) | {f"VDisk/{LONGEST_NAME}/membership": [7]}))
    assert [line for line in daemon.log if "FenceCheck" in line] == [], "whatever the generation"


def test_generation_is_read_as_the_sender_of_that_version_writes_it(host):
    """Below 1.8 it is two digits, from then on 16 bits."""
    daemon = host.daemon()
    for major, minor, digits, stored in ((1, 8, "12", "65535\n"),
                                         (1, 7, "12", "12\n"),
                                         (0, 9, "99", "99\n"),
                                         (1, 7, "A1", "171\n")):
        host.plant(NODES)
        vdisk = plain("v1", 65535, old_mshipgencnt=digits)
        assert daemon.deliver(single_vdisk_ping(7, report(vdisk), major=major, minor=minor)) == []
        assert (major, minor, digits, host.read("/mnt/DB/VDisk/v1/highest_gen_count")) == (major, minor, digits, stored)


def test_fence_check_runs_once_for_each_raise(host):
    """With no environment, the lock held and all stored by then; neither its failure nor a signal stops the daemon."""
    host.plant(changed(V1, {"VDisk/v1/membership": [7, 8], "VDisk/v1/memberinfo/8/membership_gen_count": 1}))
    host.write("/mnt/fence", mode=0o755, content="""#!/bin/sh
        cd /mnt/DB/VDisk/v1
        {
            echo arguments: $*
            echo environment: $(cat /proc/$$/environ)
            echo lock of: $(cat /tmp/VDISK-v1)
            echo generation: $(cat highest_gen_count)
            echo members: $(cat membership)
            echo member records: $(echo memberinfo/*) $(cat memberinfo/*/membership_gen_count)
            echo sectors: $(cat sectors)
        } >>/mnt/calls
        exit 1
        """)
    daemon = host.daemon()
    for generation in 6, 6, 5, 8:
        assert daemon.deliver(single_vdisk_ping(7, report(plain("v1", generation, sectors=generation)))) == []
    assert daemon.told("info: FenceCheck(): ") == [
        "Call /mnt/fence uuid=v1 member=7", "Return /mnt/fence uuid=v1 member=7"]
    assert host.read("/mnt/calls") == "".join(f"""arguments: uuid=v1 member=7
environment:
lock of: {daemon.pid}
generation: {generation}
members: 7
member records: memberinfo/7 {generation}
sectors: {generation}
""" for generation in (6, 8))
    # A program that signals the daemon until it drops the lock: the first signal in the wait ends that.
    host.write("/mnt/fence", """#!/bin/sh
        echo -n $$ >/mnt/pid
        while kill -USR1 $PPID && [ -e /tmp/VDISK-v1 ]; do :; done 2>/dev/null
        """)
    lines = daemon.deliver(single_vdisk_ping(7, report(plain("v1", 9))))
    assert lines == [f"error: FenceCheck(): waitpid({host.read('/mnt/pid')}): Interrupted system call"]
    assert daemon.deliver(single_vdisk_ping(7, report(plain("v1", 9)))) == []
    assert difference(NODES | vdisk_record(plain("v1", 9), datastore="ds1"), host.tree()) == []
