"""What is published of a local node, and what is held back when something of its records cannot be read."""
import dataclasses

import pytest

from harness import STOPPED_CLOCK, TREE, explain, no_such_file, nothing_in_record
from messages import DS_PING, aux_ping, heartbeat, message, ping, plain, report, snapshot
from trees import DEVICE, DIRECTORY, FIFO, GONE, SOCKET, Link, changed, datastore_record, node_record, vdisk_record


@dataclasses.dataclass
class Sent:
    """The kinds of messages that go out of node 7: when all timers are due, and on each command of the control port."""
    due: str = "DS_PING AUX_PING PING HEARTBEAT"
    single_vdisk_ping: str = "SINGLE_VDISK_PING AUX_PING"
    ds_ping: str = "DS_PING"
    vdisk_deleted: str = "VDISK_DELETED AUX_PING"


ALL = Sent()
NOTHING = Sent("", "", "", "")
WITHOUT_LINKS = Sent(due="HEARTBEAT", single_vdisk_ping="")
WITHOUT_DATASTORE = Sent(due="AUX_PING PING HEARTBEAT", ds_ping="")
WITHOUT_DATASTORES_NAME = Sent(single_vdisk_ping="")
WITHOUT_S1 = Sent(due="DS_PING AUX_PING HEARTBEAT")
WITHOUT_V1 = Sent(due="DS_PING AUX_PING HEARTBEAT", single_vdisk_ping="")
TOO_LARGE_FOR_THE_WAY = Sent(due="DS_PING AUX_PING HEARTBEAT", single_vdisk_ping="AUX_PING")
TOO_LARGE_FOR_THE_BUFFER = WITHOUT_V1


@dataclasses.dataclass(kw_only=True)
class Publication:
    rule: str = dataclasses.field(kw_only=False)
    planted: dict
    sent: Sent
    log: list = dataclasses.field(default_factory=list)  # all lines above info when all timers are due


NODES = node_record(7, "ds1") | datastore_record("ds1") | node_record(8)
PLANTED = NODES | vdisk_record(plain("v1")) | vdisk_record(snapshot("s1", "v1"))
NO_S1 = {"VDisk/s1": GONE, "Node/7/vdisks/s1": GONE}
LINKS = f"{TREE}/Node/7/vdisks"
NO_DATASTORE = "error: send_pings(): Local node 7 not part of any data store but references vdisks!?"


def error(function, text):
    return f"error: {function}(): {text}"


def held_back(uuid):
    return error("send_pings", f"PING from Node 7 not sent due to VDisk {uuid} error")


def many(count):
    """A member list that makes a PING of 65536 bytes with 16300 members."""
    return NO_S1 | {"VDisk/v1/membership": [7] * count}


def malformed_values():
    v1, s1 = f"{TREE}/VDisk/v1", f"{TREE}/VDisk/s1"
    member, frontend = "VDisk/v1/memberinfo/7", "VDisk/v1/memberinfo/7/frontend"
    fits, too_long = "f" * 233, "f" * 234  # in a path of 255 bytes, and in one of 256
    return [
        Publication("all is well", planted={}, sent=ALL),
        Publication("texts may be empty, numbers may have more behind them, no backup channel needs no address",
                    planted={"Datastore/ds1/name": "", "Node/7/vendor": "", "Node/7/backupchannel": "x\n",
                             "Node/7/freespace": "12x\n", "VDisk/v1/description": ""}, sent=ALL),
        # The node.
        Publication("without the node's lock nothing of it", planted={"/tmp/NODE-7": ""}, sent=NOTHING),
        Publication("a version that is none", planted={"Node/7/version": "v9\n"}, sent=NOTHING,
                    log=2 * [error("NodeLoad", f"Malformed {TREE}/Node/7/version: v9")]),
        Publication("a backup channel needs its address",
                    planted={"Node/7/nodestatus": 1, "Node/7/backupchannel": "x\n"}, sent=NOTHING,
                    log=2 * [error("NodeLoad", "inet_pton(x): 0")]),
        # Its links.
        Publication("what is no link is passed over", planted={f"Node/7/vdisks/{fits}": "x\n"}, sent=ALL),
        Publication("a link with a name too long for a VDisk is passed over",
                    planted={"Node/7/vdisks/0123456789abcde": Link("x")}, sent=ALL,
                    log=[error("NodeLoad_VDisks", f"Malformed symlink {LINKS}/0123456789abcde")]),
        Publication("a file with a name too long for a path", planted={f"Node/7/vdisks/{too_long}": "x\n"},
                    sent=WITHOUT_LINKS, log=[error("NodeLoad_VDisks", f"Path {LINKS}/{too_long} too long!!!")]),
        Publication("a link with a name too long for a path", planted={f"Node/7/vdisks/{too_long}": Link("x")},
                    sent=WITHOUT_LINKS, log=[error("NodeLoad_VDisks", f"Path {LINKS}/{too_long} too long!!!")]),
        Publication("without vdisks it is not known what to send", planted={"Node/7/vdisks": GONE}, sent=WITHOUT_LINKS,
                    log=[error("NodeLoad_VDisks", f"opendir({LINKS}): No such file or directory")]),
        # Its datastore.
        Publication("a node of no datastore sends VDisks in PINGs alone", planted={"Node/7/datastoremember": GONE},
                    sent=WITHOUT_DATASTORES_NAME, log=[NO_DATASTORE]),
        Publication("an empty name is no datastore", planted={"Node/7/datastoremember": "\n"}, sent=ALL,
                    log=[NO_DATASTORE]),
        Publication("without the datastore's lock no DS_PING", planted={"/tmp/DS-ds1": ""}, sent=WITHOUT_DATASTORE),
        Publication("without the datastore no DS_PING", planted={"Datastore/ds1": GONE}, sent=WITHOUT_DATASTORE,
                    log=[no_such_file("Datastore/ds1")]),
        # Its VDisks.
        Publication("without a VDisk's lock no PING", planted={"/tmp/VDISK-v1": ""}, sent=WITHOUT_V1,
                    log=[held_back("v1")]),
        Publication("a link to nothing", planted={"Node/7/vdisks/v0": Link("x")}, sent=WITHOUT_S1,
                    log=[no_such_file("VDisk/v0"), held_back("v0")]),
        Publication("a transaction number that is none", planted={"VDisk/v1/transaction_id": "x\n"}, sent=WITHOUT_V1,
                    log=[error("VDiskLoad", f"Failed to load {v1}/transaction_id: 0"), held_back("v1")]),
        Publication("without memberinfo a VDisk has no report", planted={"VDisk/v1/memberinfo": GONE}, sent=WITHOUT_V1,
                    log=[nothing_in_record("memberinfo"), held_back("v1")]),
        Publication("without the node's member record it has none", planted={member: GONE}, sent=WITHOUT_V1,
                    log=[nothing_in_record("7"), held_back("v1")]),
        *[Publication("a list of members without its last newline, with a 0, an empty line or a word",
                      planted={"VDisk/v1/membership": content}, sent=WITHOUT_V1,
                      log=[error("MembershipLoad", f"Malformed file {v1}/membership"), held_back("v1")])
          for content in ("7", "5\n0\n", "7\n\n8\n", "7\nx8\n")],
        *[Publication("a frontend that is empty or not as it would be written",
                      planted={frontend: ["10.0.0.1", address]}, sent=WITHOUT_V1,
                      log=[error("FrontendsLoad", f"inet_pton({address}): 0"), held_back("v1")])
          for address in ("", "010.0.0.1")],
        Publication("a list of frontends without its last newline", planted={frontend: "10.0.0.1"}, sent=WITHOUT_V1,
                    log=[error("FrontendsLoad", f"Malformed file {TREE}/{frontend}"), held_back("v1")]),
        Publication("a snapshot's time that is none", planted={"VDisk/s1/snaptime": "1-2-3_4.5\n"}, sent=WITHOUT_S1,
                    log=[error("VDiskLoad", f"Malformed {s1}/snaptime: 1-2-3_4.5"), held_back("s1")]),
        Publication("a snapshot's parent without a name", planted={"VDisk/s1/parent": "\n"}, sent=WITHOUT_S1,
                    log=[error("VDiskLoad", f"Malformed {s1}/parent: "), held_back("s1")]),
        # What is no file fails as one that cannot be read, and nobody waits for its other end.
        Publication("a FIFO for a text", planted={"Node/7/vendor": FIFO}, sent=NOTHING,
                    log=2 * [error("StringLoad", "lseek(vendor): Illegal seek"),
                             error("NodeLoad", f"Failed to load {TREE}/Node/7/vendor: -1")]),
        Publication("a FIFO for a number", planted={"VDisk/v1/sectors": FIFO}, sent=WITHOUT_V1,
                    log=[error("AttrLoad", "lseek(sectors): Illegal seek"),
                         error("VDiskLoad", f"Failed to load {v1}/sectors: -1"), held_back("v1")]),
        Publication("a FIFO for a list of members", planted={"VDisk/v1/membership": FIFO}, sent=WITHOUT_V1,
                    log=[held_back("v1")]),
        Publication("a FIFO for a list of frontends", planted={frontend: FIFO}, sent=WITHOUT_V1, log=[held_back("v1")]),
        Publication("a socket", planted={"VDisk/v1/sectors": SOCKET}, sent=WITHOUT_V1,
                    log=[error("fd_openat", "openat(sectors): No such device or address"),
                         error("VDiskLoad", f"Failed to load {v1}/sectors: -1"), held_back("v1")]),
        Publication("a directory", planted={"VDisk/v1/sectors": DIRECTORY}, sent=WITHOUT_V1,
                    log=[error("AttrLoad", "lseek(sectors): Invalid argument"),
                         error("VDiskLoad", f"Failed to load {v1}/sectors: -1"), held_back("v1")]),
        Publication("a device that is empty, for a number", planted={"VDisk/v1/sectors": DEVICE}, sent=WITHOUT_V1,
                    log=[error("AttrLoad", "Empty file sectors"),
                         error("VDiskLoad", f"Failed to load {v1}/sectors: -1"), held_back("v1")]),
        # What is too large.
        Publication("a message too large for the way stops nothing but itself", planted=many(16300),
                    sent=TOO_LARGE_FOR_THE_WAY,
                    log=[error("xmit_msg", "sendto(127.0.0.2:8000, 65536): Message too long")]),
        Publication("a message too large for the buffer too", planted=many(16301), sent=TOO_LARGE_FOR_THE_BUFFER,
                    log=[error("send_pings", "Oversized PING from Node 7")])]


def missing_values():
    """Each file that a publication reads, missing."""
    sent = {"Node": NOTHING, "Datastore": WITHOUT_DATASTORE, "v1": WITHOUT_V1, "s1": WITHOUT_S1}
    never_read = ("Node/7/uuid", "Node/7/status", "lastping", "ipaddr", "highest_gen_count", "snap_limit",
                  "datastoremember")  # is read if it is there
    for path, value in PLANTED.items():
        if not isinstance(value, str) or path.startswith("Node/8") or path.endswith(never_read):
            continue
        kind, uuid, *_, name = path.split("/")
        log = [nothing_in_record(name)]
        if name not in ("membership", "frontend"):
            log += [error(f"{kind}Load", f"Failed to load {TREE}/{path}: -1")]
        if kind == "VDisk":
            log += [held_back(uuid)]
        yield Publication(f"without {path}", planted={path: GONE}, sent=sent[uuid if kind == "VDisk" else kind],
                          log=log * 2 if kind == "Node" else log)


def test_what_cannot_be_read_stops_the_messages_that_need_it(host):
    """And those of this node alone: node 8 has no datastore and no VDisks, and sends all that it has."""
    node_8 = [message(DS_PING, 8), aux_ping(8), ping(8), heartbeat(8)]
    host.plant(PLANTED)
    host.write("/mnt/local_nodes", "7\n8\n")
    daemon = host.daemon("heartbeat_interval = 30\n", STOPPED_CLOCK, "-d")
    control = host.tcp_connection()
    daemon.wait_for("Accepted")
    daemon.settle()

    def command(line):
        control.sendall(line.encode())
        daemon.wait_for("MSG from")
        daemon.settle()
        return " ".join(datagram.kind for datagram in daemon.sent())
    for number, case in enumerate([*malformed_values(), *missing_values()], 2):
        host.plant(changed(PLANTED, case.planted))
        host.set_clock(30 * number)  # heartbeats are due
        daemon.sent()
        log = daemon.publish()
        datagrams = daemon.sent()
        of_7 = " ".join(datagram.kind for datagram in datagrams if datagram[4] == 7)
        found = Sent(of_7, command("single_vdisk_ping 7 v1\n"), command("ds_ping 7\n"), command("vdisk_deleted 7 v1\n"))
        if (found, log) != (case.sent, case.log):
            pytest.fail(explain(case.rule, planted=case.planted, sent_expected=case.sent, sent_found=found,
                                log_expected=case.log, log_found=log))
        assert [datagram for datagram in datagrams if datagram[4] == 8] == node_8, case
        assert [f"/tmp/{lock}" for lock in host.locks()] == [path for path in case.planted if path[0] == "/"], case
    assert "error: send_single_vdisk_ping(): Oversized SINGLE_VDISK_PING from Node 7 VDisk v1" in daemon.log
    control.close()


def test_numbers_and_lists_are_cut_and_ordered_as_the_wire_wants_it(host):
    """Plain VDisks come first, and the full generation from version 1.8 on."""
    host.plant(PLANTED)
    host.write("/mnt/local_nodes", "7\n")
    daemon = host.daemon()
    snap = report(snapshot("s1", "v1"))
    for planted, expected in [
            ({"VDisk/v1/membership": "4294967303\n8x\n",  # 7 and 2 to the power of 32
              "VDisk/v1/memberinfo/7/frontend": ["10.0.0.1", "1.2.3.4", "1.1.1.1"]},
             ping(7, report(plain("v1"), [7, 8], ["10.0.0.1", "1.2.3.4", "1.1.1.1"]), snap)),
            ({"Node/7/version": "v1.8\n", "VDisk/v1/memberinfo/7/membership_gen_count": 65535},
             ping(7, report(plain("v1", 65535)), snap, major=1, minor=8)),
            (NO_S1 | {"Node/7/version": "v1.7\n", "VDisk/v1/membership": "", "VDisk/v1/memberinfo/7/frontend": ""},
             ping(7, report(plain("v1", 0, old_mshipgencnt="05"), [], []), major=1, minor=7))]:
        host.plant(changed(PLANTED, planted))
        daemon.sent()
        assert (planted, daemon.publish(), daemon.sent()[2:]) == (planted, [], [expected])
