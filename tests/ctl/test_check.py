"""mwctl check: what is damaged is found as what it is and nothing else, and a tree that is sound gives no alarm.

Each damaged tree was made by a real daemon from real messages, and then damaged in exactly one way."""
import json
import os
import re
import threading
import time

import pytest

from messages import aux_ping, ds_ping, heartbeat, ping, plain, report, snapshot, vdisk_deleted
from trees import DIRECTORY, FIFO, GONE, Link, datastore_record, member_record, node_record

MWCTL = ["/mnt/mwctl", "-C", "/mnt/mwd.conf"]
TROUBLE_KEYS = ["code", "severity", "record", "file", "text", "action", "repairable"]
# What a colleague of the daemon has written for node 7, this host's own, before its peers 8 and 9 speak.
OWN = node_record(7, "ds1") | {"Node/7/lastping": GONE, "Node/7/ipaddr": GONE}
OWN_DISK = plain("own")


@pytest.fixture
def host(host):
    host.install("mwctl")
    host.write("/mnt/local_nodes", "7\n")
    return host


def check(host, *options, before=()):
    done = host.run(*before, *MWCTL, "--json", "check", *options)
    assert done.returncode in (0, 1) and done.stderr == "", done.stderr
    document = json.loads(done.stdout)
    assert list(document) == ["format", "troubles", "repaired"] and document["format"] == 1
    for trouble in document["troubles"]:
        assert list(trouble) == TROUBLE_KEYS and trouble["text"] and trouble["action"], trouble
    assert done.returncode == bool(document["troubles"]), "a status that does not tell whether there is trouble"
    return document["troubles"]


def found(troubles):
    return [f"{trouble['code']} {trouble['record']} {trouble['file']}" for trouble in troubles]


def own_records():
    """Node 7 with the VDisk that it alone has; the datastore links it."""
    vdisk = "VDisk/own"
    values = {key: OWN_DISK[key] for key in ("sector_size", "sectors", "replicas", "st_mems", "st_size", "snapshot")}
    record = {f"{vdisk}/{key}": f"{value}\n" for key, value in values.items()}
    record |= {f"{vdisk}/uuid": "own\n", f"{vdisk}/name": "name\n", f"{vdisk}/description": "text\n",
               f"{vdisk}/membership": [7], f"{vdisk}/datastore": Link("../../Datastore/ds1"),
               "Node/7/vdisks/own": Link("../../../VDisk/own"), "Datastore/ds1/vdisks/own": Link("../../../VDisk/own")}
    node = {path: value for path, value in OWN.items() if value is not GONE}
    return node | datastore_record("ds1", [7]) | member_record(OWN_DISK, 7) | record


LAST = [ping(9, report(plain("v1", 6), (9,)), report(plain("v2"), (9, 7))), ping(8, report(snapshot("s1", "v1"), (8,)))]


def tell_the_story(daemon, each_phase=lambda: None):
    """Peers 8 and 9 appear, share VDisks with each other and one with node 7, snapshot one, and go on."""
    for messages in (
            [aux_ping(8), ds_ping(8, "ds1")],
            [aux_ping(9), ds_ping(9, "ds2"), heartbeat(9)],
            [ping(8, report(plain("v1"), (8, 9))), ping(9, report(plain("v1"), (8, 9)))],
            [ping(8, report(plain("v1"), (8, 9)), report(snapshot("s1", "v1"), (8,)))],
            [ping(9, report(plain("v1"), (8, 9)), report(plain("v2"), (9, 7)))],
            [ping(9, report(plain("v1", 6), (9,)), report(plain("v2"), (9, 7)))],
            [ping(9, report(plain("v1", 6), (9,)), report(plain("v2"), (9, 7)), report(plain("v3"), (9,))),
             ping(8, report(snapshot("s1", "v1"), (8,)))],
            [vdisk_deleted(9, "v3")], LAST):
        assert [line for line in daemon.deliver(*messages)
                if line.startswith("error") and "execve(/mnt/fence)" not in line] == []
        each_phase()


def test_a_sound_tree_gives_no_alarm_in_any_phase(host):
    """A rule that takes for trouble what the daemon itself leaves between two messages."""
    host.plant(own_records())
    daemon = host.daemon()
    tell_the_story(daemon, lambda: check(host) == [] or pytest.fail(str(check(host))))
    assert daemon.publish() == []
    text = host.run(*MWCTL, "check")
    assert text.returncode == 0 and re.fullmatch(r"no trouble in 3 nodes, 2 datastores, 4 VDisks, 0 locks\n",
                                                 text.stdout), text.stdout


LONG_AGO, AHEAD = "1000000000\n", "9000000000\n"
MANY = {"VDisk/own/memberinfo/7/frontend": [f"10.0.{n >> 8}.{n & 255}" for n in range(15000)]}
# The one trouble that must be found, with its record and file below the tree; the damage; whether --repair mends it.
DAMAGES = [
    ("NODE_UNREADABLE", "node/7", "Node/7/vendor", {"Node/7/vendor": GONE}, False),
    ("NODE_UNREADABLE", "node/7", "Node/7/size", {"Node/7/size": "12"}, False),
    ("NODE_UNREADABLE", "node/7", "Node/7/backupchannel", {"Node/7/nodestatus": 1, "Node/7/backupchannel": "x\n"},
     False),
    ("NODE_UNREADABLE", "node/7", "Node/7/datastoremember", {"Node/7/datastoremember": "../x\n"}, False),
    ("NODE_NOT_LISTED", "node/5", "Node/5/lastping", {"Node/5/vdisks": DIRECTORY}, False),
    ("NODE_NUMBER_TAKEN", "node/7", "Node/7/ipaddr", {"Node/7/ipaddr": "10.9.9.9\n"}, False),
    ("NODE_SILENT", "node/8", "Node/8/lastping", {"Node/8/lastping": LONG_AGO}, False),
    ("NODE_AHEAD", "node/8", "Node/8/lastping", {"Node/8/lastping": AHEAD}, False),
    ("NODE_WITHOUT_DATASTORE", "node/7", "Node/7/datastoremember",
     {"Node/7/datastoremember": GONE, "Datastore/ds1/members/7": GONE}, False),
    ("DATASTORE_UNREADABLE", "datastore/ds1", "Datastore/ds1/replicas", {"Datastore/ds1/replicas": ""}, False),
    ("DATASTORE_NOT_MEMBER", "datastore/ds1", "Datastore/ds1/members/7", {"Datastore/ds1/members/7": GONE}, False),
    ("DATASTORE_MEMBER_LEFT_BEHIND", "datastore/ds1", "Datastore/ds1/members/9",
     {"Datastore/ds1/members/9": Link("../../../Node/9")}, True),
    ("VDISK_UNREADABLE", "vdisk/v1", "VDisk/v1/name", {"VDisk/v1/name": "torn"}, True),
    ("VDISK_UNREADABLE", "vdisk/s1", "VDisk/s1/parent", {"VDisk/s1/parent": ""}, True),
    ("VDISK_UNREADABLE", "vdisk/own", "VDisk/own/sectors", {"VDisk/own/sectors": ""}, False),
    ("VDISK_UNREADABLE", "vdisk/own", "VDisk/own/memberinfo/7", {"VDisk/own/memberinfo/7": GONE}, False),
    ("VDISK_CUT_SHORT", "vdisk/v1", "VDisk/v1/memberinfo", {"VDisk/v1/memberinfo": GONE}, True),
    ("VDISK_CUT_SHORT", "vdisk/v2", "VDisk/v2/highest_gen_count", {"VDisk/v2/highest_gen_count": ""}, False),
    ("VDISK_LINK_DANGLING", "node/8", "Node/8/vdisks/gone", {"Node/8/vdisks/gone": Link("../../../VDisk/gone")}, True),
    ("VDISK_LINK_DANGLING", "node/7", "Node/7/vdisks/gone", {"Node/7/vdisks/gone": Link("../../../VDisk/gone")}, False),
    ("VDISK_LINK_DANGLING", "vdisk/v1", "VDisk/v1/snapshots/gone",
     {"VDisk/v1/snapshots/gone": Link("../../../VDisk/gone")}, True),
    ("VDISK_LINK_WRONG", "node/9", "Node/9/vdisks/v1", {"Node/9/vdisks/v1": Link("../../../VDisk/v2")}, True),
    ("VDISK_LINK_WRONG", "vdisk/v1", "VDisk/v1/datastore", {"VDisk/v1/datastore": Link("/x/ds1")}, True),
    ("VDISK_DATASTORE_ONE_SIDED", "vdisk/v1", "VDisk/v1/datastore", {"Datastore/ds1/vdisks/v1": GONE}, True),
    ("VDISK_MEMBER_LEFT_BEHIND", "vdisk/v1", "VDisk/v1/memberinfo/8", member_record(plain("v1"), 8), True),
    ("SNAPSHOT_ORPHAN", "vdisk/s1", "VDisk/s1/parent", {"VDisk/s1/parent": "elsewhere\n"}, False),
    ("TRANSACTION_OPEN", "vdisk/v1", "VDisk/v1/transaction_id", {"VDisk/v1/transaction_id": 5}, False),
    ("TRANSACTION_UNREADABLE", "vdisk/own", "VDisk/own/transaction_id", {"VDisk/own/transaction_id": ""}, False),
    ("PING_NEARLY_FULL", "node/7", "Node/7/vdisks", MANY, False),
    ("PING_TOO_LARGE", "node/7", "Node/7/vdisks",
     {"VDisk/own/memberinfo/7/frontend": MANY["VDisk/own/memberinfo/7/frontend"] + ["10.1.0.1"] * 1293}, False),
    ("NAME_UNUSABLE", "vdisk/fifteen-letters", "VDisk/fifteen-letters", {"VDisk/fifteen-letters": DIRECTORY}, False),
    ("NAME_UNUSABLE", "node/8", "Node/8/vdisks/fifteen-letters", {"Node/8/vdisks/fifteen-letters": Link("x")}, False),
    ("ENTRY_UNKNOWN", "vdisk/v1", "VDisk/v1/memberinfo/note", {"VDisk/v1/memberinfo/note": "\n"}, False),
    ("ENTRY_UNKNOWN", "config", "note", {"note": "\n"}, False),
    ("ENTRY_UNKNOWN", "node/8", "Node/8/vendor", {"Node/8/vendor": FIFO}, False),
    ("ENTRY_UNKNOWN", "node/8", "Node/8/model", {"Node/8/model": Link("model")}, False),
]
# What the next message writes again, or what a program may put into a record: no trouble.
HEALED = [{"Node/8/vendor": "torn"}, {"Datastore/ds2/replicas": GONE}, {"VDisk/v1/sectors": ""},
          {"VDisk/v1/membership": "8"}, {"VDisk/v1/memberinfo/9/port": GONE}, {"VDisk/s1/note": "\n"},
          {"VDisk/v1/snapshots/s1": GONE}, {"VDisk/own/snapshots": GONE}, {"VDisk/v1/transaction_id": 0}]


def test_each_damage_is_found_as_what_it_is_and_nothing_else(host):
    """A rule that is blind, or two that speak of one cause. What is said to be repairable is made whole by --repair
    and the peers' next messages."""
    host.plant(own_records())
    daemon = host.daemon()
    tell_the_story(daemon)
    sound, failures = host.tree(), []
    for code, record, file, damage, repairable in DAMAGES:
        host.plant(sound)
        host.change({path: value for path, value in damage.items() if value is GONE})
        host.change(damage)
        troubles = check(host)
        if found(troubles) != [f"{code} {record} {file}"] or [t["repairable"] for t in troubles] != [repairable]:
            failures.append(f"planted {damage}, expected {code} {record} {file} {repairable}: {found(troubles)}")
        elif repairable:
            check(host, "--repair", "--yes")
            daemon.deliver(*LAST)
            if left := check(host):
                failures.append(f"planted {damage}, after --repair and the next messages: {found(left)}")
    for damage in HEALED:
        host.plant(sound)
        host.change(damage)
        if troubles := check(host):
            failures.append(f"planted {damage}, which a message heals: {found(troubles)}")
    host.plant(sound)
    assert not failures, "\n".join(failures)


def test_faults_outside_of_the_tree(host):
    """Processes, files and ports, each with the text that names the culprit."""
    host.plant(own_records())
    daemon = host.daemon()
    sleeper = host.start("/bin/sleep", "600")
    config = host.read("/mnt/mwd.conf")
    for name, content, code, record, text in (
            ("/mnt/mwd.conf", config + "ping_interval = 9999\n", "CONFIG_INVALID", "config", "ping_interval"),
            ("/mnt/mwd.conf", config + "ctrl_address = x\n", "CONFIG_INVALID", "config", "ctrl_address"),
            ("/mnt/mwd.conf", config + "bind_interface = none\n", "INTERFACE_UNUSABLE", "config", "none"),
            ("/mnt/mwd.conf", config + "unicast_mode = 0\n", "INTERFACE_UNUSABLE", "config", "loopback"),
            ("/mnt/local_nodes", "7\nx\n", "TABLE_INVALID", "config", "/mnt/local_nodes:2"),
            ("/mnt/local_nodes", "7\n6\n", "NODE_UNREADABLE", "node/6", "/mnt/local_nodes:2"),
            ("/mnt/mwd.pid", f"{sleeper.pid}\n", "DAEMON_DOWN", "daemon", "sleep"),
            ("/tmp/NODE-7", "999999999\n", "LOCK_STALE", "lock/NODE-7", "999999999"),
            ("/tmp/VDISK-v1", f"{sleeper.pid}\n", "LOCK_HELD_LONG", "lock/VDISK-v1", "sleep 600")):
        before = host.read(name) if name.startswith("/mnt/") else None
        host.write(name, content)
        troubles = [trouble for trouble in check(host) if trouble["code"] != "PORT_TAKEN"]
        assert [(t["code"], t["record"]) for t in troubles] == [(code, record)] and text in troubles[0]["text"], name
        host.remove(name) if before is None else host.write(name, before)
    host.write("/tmp/DS-ds1", "")
    assert check(host) == [], "an empty lock that may get its number yet"
    host.shell("touch -d '2 minutes ago' /tmp/DS-ds1")
    assert found(check(host)) == ["LOCK_STALE lock/DS-ds1 /tmp/DS-ds1"]
    host.remove("/tmp/DS-ds1")
    sleeper.kill()
    daemon.stop()
    other = host.udp_socket("127.0.0.1")
    assert [trouble["code"] for trouble in check(host)] == ["DAEMON_DOWN", "PORT_TAKEN"]
    other.close()


def test_a_writer_at_full_speed_raises_no_alarm(host):
    """A finding that counts although the daemon was only in the middle of writing the record."""
    host.plant(own_records())
    daemon = host.daemon("vdisk_lock_timeout_ms = 750\nnode_lock_timeout_ms = 750\ndatastore_lock_timeout_ms = 750\n",
                         options="-d")  # a log of debug lines would slow it down
    daemon.deliver(ds_ping(8, "ds1"), ds_ping(9, "ds1"))
    stop, rounds = threading.Event(), []

    def talk():
        while not stop.is_set():
            rounds.append(generation := len(rounds) % 60000 + 1)
            every = [report(plain(f"v{n}", generation), (8, 9)) for n in range(8)]
            snapshots = [report(snapshot(f"s{n}", f"v{n}", generation), (8, 9)) for n in range(4)]
            for uid in 8, 9:
                daemon.deliver(ping(uid, *every, *snapshots), aux_ping(uid), ds_ping(uid, "ds1"))
            for uid in 8, 9:  # half of them go, and are made anew in the next turn
                daemon.deliver(ping(uid, *every[:4], *snapshots[:2]))

    talker = threading.Thread(target=talk)
    talker.start()
    try:
        deadline, runs = time.monotonic() + int(os.environ.get("MWCTL_STRESS_SECONDS", "6")), 0
        while time.monotonic() < deadline:
            status, runs = json.loads(host.run(*MWCTL, "--json", "status").stdout), runs + 1
            assert (check(host), status["troubles"]) == ([], []), f"in run {runs}"
    finally:
        stop.set()
        talker.join()
    print(f"{runs} runs while {len(rounds)} rounds of messages were written")
    assert runs > 1 and len(rounds) > 1


def test_hostile_trees_end_in_a_trouble_or_a_clear_refusal(host):
    """A crash, a hang, or a name that reaches the operator's terminal as it is."""
    host.plant(own_records())
    host.daemon()
    escape = "\x1b]0;owned\x07"
    host.change({f"VDisk/{escape}": DIRECTORY, f"Node/7/{escape}": "\n", "VDisk/" + "n" * 255: DIRECTORY,
                 "Node/8/vdisks/\x9b31m": Link(escape), "Node/7/serial": FIFO, "Node/7/hbtl": DIRECTORY,
                 "VDisk/many/membership": list(range(1, 16001)), "VDisk/many/name": Link("../many/name"),
                 "Node/7/model": Link("/dev/null"), "VDisk/loop": Link("loop")})
    host.shell("truncate -s 1G /mnt/DB/VDisk/many/uuid; mkdir /mnt/DB/VDisk/many/memberinfo")
    text = host.run(*MWCTL, "--color=never", "check", timeout=20)
    assert text.returncode == 1
    assert not re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f\udc80-\udcff]", text.stdout), repr(text.stdout)
    assert r"\x1b]0;owned\x07" in text.stdout
    assert {t["record"] for t in check(host)} >= {"node/7", "vdisk/many", "vdisk/loop", f"vdisk/{escape}"}
    host.shell("chmod 700 /mnt/DB/Node")
    for before, path in ((["setpriv", "--reuid", "65534"], "mwd.conf"), ([], "elsewhere.conf")):
        host.write("/mnt/elsewhere.conf", "work_directory = /mnt/nowhere\n")
        refused = host.run(*before, "/mnt/mwctl", "-C", f"/mnt/{path}", "check")
        assert (refused.returncode, refused.stdout, refused.stderr.count("\n")) == (3, "", 1), refused
    host.plant({})
