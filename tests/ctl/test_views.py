"""What mwctl shows: status, nodes, datastores, vdisks, show and config, as text and as JSON."""
import json
import os
import signal
import subprocess
import time

import pytest

from harness import BASE_CONFIG, DEADLINE, explain, wait_until
from messages import aux_ping, ds_ping, ping, plain, report, snapshot
from trees import GONE, changed, datastore_record, node_record, vdisk_record

MWCTL = ["/mnt/mwctl", "-C", "/mnt/mwd.conf"]
LARGEST = 2**64 - 1
# A node of this host, as other programs write it, with a VDisk that is its own.
OWN = changed(node_record(7, "ds1") | datastore_record("ds1", [7]) | vdisk_record(plain("own"), datastore="ds1"),
              {"Node/7/lastping": GONE, "Node/7/ipaddr": GONE})
# What peer 8 says, and under which keys all of it is to be found.
SAID = [ds_ping(8, "ds1"), aux_ping(8), ping(8, report(plain("v1", sectors=LARGEST, seqno=LARGEST - 1), [8]),
                                             report(snapshot("s1", "v1"), [8], ["10.0.0.1", "10.0.0.2"]))]
MEMBER = dict(uid=8, frontends=["10.0.0.1"], membership_gen_count=5, numkeys=302, seqno=LARGEST - 1, status=5, port=306,
              st_mem=8, snap_limit=10)
VDISK = dict(uuid="v1", kind="plain", parent=None, datastore="ds1", membership=[8], transaction_id=0, members=[MEMBER],
             name="name", sector_size=301, sectors=LARGEST, replicas=307, st_mems=9, st_size=310, snapshot=0,
             description="descr", highest_gen_count=5)
OF_SNAPSHOT = MEMBER | dict(frontends=["10.0.0.1", "10.0.0.2"], seqno=304)
SNAPSHOT = VDISK | dict(uuid="s1", kind="snapshot", parent="v1", snaptime="11-03-07_09.05.02", sectors=303, snapshot=1,
                        members=[{key: value for key, value in OF_SNAPSHOT.items() if key != "snap_limit"}])
del SNAPSHOT["description"]
NODE = dict(uid=8, local=False, ipaddr="127.0.0.2", version="v2.1", datastore="ds1", vdisks=2, uuid=8, status=1,
            nodestatus=2, vendor="vendor", model="model", freespace=1001, utilization=1002, revision="rev",
            serial="serial", hbtl="hbtl", performance=104, hostid=1005, size=1003, backupchannel="0.0.0.0",
            allocatedspace=201, curvdisks=202, curvdisksforctrl=203, maxvdisksforctrl=204, memtotal=205, memavail=206,
            datastoremember="ds1")
DATASTORE = dict(uuid="ds1", members=[7, 8], vdisks=["own", "s1", "v1"], name="dsname", description="dsdescr",
                 sector_size=512, replicas=2, stripes=3, overcommit=4)


@pytest.fixture
def host(host):
    host.install("mwctl")
    host.write("/mnt/local_nodes", "7\n")
    host.write("/mnt/mwd.conf", BASE_CONFIG)
    host.plant(OWN)
    return host


@pytest.fixture
def cluster(host):
    """The host with its daemon, to which peer 8 has spoken."""
    assert host.daemon().deliver(*SAID) == []
    return host


def mwctl(host, *words, **options):
    return host.run(*MWCTL, *words, **options)


def document(host, *words, status=0):
    done = mwctl(host, "--json", *words)
    assert (done.returncode, done.stderr) == (status, ""), explain(
        "the status of a document", typed=words, expected=status, found=done.returncode, stderr=done.stderr)
    content = json.loads(done.stdout)
    assert content.pop("format") == 1
    return content


def rows(host, *words):
    """The words of each line of a table, its headings first."""
    return [line.split() for line in mwctl(host, *words).stdout.splitlines()]


def timeless(node):
    """A node without what depends on the moment, which is sane."""
    assert 0 <= node.pop("age_seconds") < DEADLINE and abs(node.pop("lastping") - time.time()) < DEADLINE
    return node


def test_documents_say_what_a_peer_sent(cluster):
    nodes = document(cluster, "nodes")["nodes"]
    assert [node["uid"] for node in nodes] == [7, 8] and timeless(nodes[1]) == NODE
    assert nodes[0]["local"] and nodes[0]["age_seconds"] is None
    assert nodes[0]["ping_bytes"] == len(ping(7, report(plain("own"))))
    assert [v for v in document(cluster, "vdisks")["vdisks"] if v["uuid"] != "own"] == [SNAPSHOT, VDISK]
    assert document(cluster, "datastores")["datastores"] == [DATASTORE]
    cluster.write("/tmp/VDISK-v1", f"{os.getpid()}\n")
    shown = document(cluster, "show", "vdisk", "v1")
    assert list(shown) == ["vdisk", "links", "linked_from", "lock", "troubles"] and shown["vdisk"] == VDISK
    assert shown["lock"]["pid"] == os.getpid() and shown["lock"]["alive"] and shown["lock"]["record"] == "vdisk/v1"
    assert shown["linked_from"] == ["Datastore/ds1/vdisks/v1", "Node/8/vdisks/v1"]
    assert {"path": "VDisk/v1/snapshots/s1", "target": "../../../VDisk/s1"} in shown["links"]
    cluster.remove("/tmp/VDISK-v1")
    assert timeless(document(cluster, "show", "node", "8")["node"]) == NODE
    assert document(cluster, "show", "datastore", "ds1")["datastore"] == DATASTORE


def test_status_document(cluster):
    status = document(cluster, "status")
    assert list(status) == ["host", "healthy", "daemon", "local_nodes", "peers", "datastores", "vdisks", "troubles"]
    assert [node["uid"] for node in status["local_nodes"]] == [7] and timeless(status["peers"][0]) == NODE
    assert status["vdisks"] == {"plain": 2, "snapshots": 1, "unknown": 0, "total": 3} and status["healthy"] is True
    assert status["daemon"]["pid"] == cluster.daemons[0].pid and status["daemon"]["rss_bytes"] > 2**19
    cluster.daemons[0].stop()
    status = document(cluster, "status", status=1)
    assert not status["healthy"] and status["daemon"]["running"] is False and status["daemon"]["pid"] is None
    trouble, = status["troubles"]
    assert list(trouble) == ["code", "severity", "record", "file", "text", "action", "repairable"]
    assert trouble["code"] == "DAEMON_DOWN" and trouble["record"] == "daemon"


def test_tables(cluster):
    table = rows(cluster, "vdisks", "--exact")
    assert [row[:4] for row in table[1:]] == [["own", "name", "91203", "ds1"], ["s1", "name", "91203", "ds1"],
                                              ["v1", "name", "-", "ds1"]], "a size that 64 bits do not hold is shown"
    assert rows(cluster, "datastores")[1] == ["ds1", "dsname", "2", "3", "2", "2006", "2002", "402"]
    for words, first_cells in ((["nodes", "--sort=-node"], ["8", "7"]), (["nodes", "--sort", "age"], ["8", "7"]),
                               (["nodes", "--node", "8"], ["8"]), (["vdisks", "--node", "8"], ["s1", "v1"]),
                               (["vdisks", "--node", "7", "--datastore", "ds1"], ["own"]),
                               (["vdisks", "--sort", "PARENT"], ["own", "v1", "s1"]),
                               (["datastores", "--node", "8"], ["ds1"])):
        found = [row[0] for row in rows(cluster, *words)[1:]]
        assert found == first_cells, explain("a table's lines", typed=words, expected=first_cells, found=found)


def test_exit_statuses(cluster):
    for words, status, told in (([], 0, ""), (["config"], 0, ""), (["show", "node", "7"], 0, ""),
                                (["show", "vdisk", "v2"], 3, "near: v1"), (["show", "node", "9"], 3, "no node 9"),
                                (["show", "node", "x"], 2, "'x' is no node number"), (["shows"], 2, "shows"),
                                (["vdisks", "--node", "9"], 3, "no node 9"),
                                (["nodes", "--sort", "colour"], 2, "the columns are NODE"),
                                (["status", "--watch=x"], 2, "--watch"), (["show", "vdisk"], 2, "required"),
                                (["-C", "/mnt/none", "status"], 3, "/mnt/none")):
        done = mwctl(cluster, *words)
        assert done.returncode == status and told in done.stderr and (status == 0) == (done.stderr == ""), explain(
            "how a command ends", typed=words, expected=[status, told], found=[done.returncode, done.stderr])


def test_what_holds_a_node_back(cluster):
    for damage, told in (({"Node/7/vendor": GONE}, "held back: NODE_UNREADABLE"),
                         ({"VDisk/own/sectors": "30"}, "held back: VDISK_UNREADABLE vdisk/own"),
                         ({"Datastore/ds1/name": GONE}, "held back: DATASTORE_UNREADABLE datastore/ds1"),
                         ({"VDisk/own": GONE}, "held back: VDISK_LINK_DANGLING"),
                         ({"/tmp/NODE-7": "999999999\n"}, "held back: LOCK_STALE lock/NODE-7"), ({}, "every 3600 s")):
        cluster.plant(changed(OWN, damage))
        done = mwctl(cluster, "status")
        assert told in done.stdout and done.returncode == bool(damage), explain(
            "the page names what holds a node back", planted=damage, expected=told, found=done.stdout.splitlines())


def test_a_large_cluster_on_one_page(host):
    host.add({path: value for uid in range(100, 200) for path, value in node_record(uid, lastping=uid).items()})
    lines = mwctl(host, "status").stdout.splitlines()
    assert len(lines) < 60 and any("100 peers, 100 silent" in line for line in lines), "\n".join(lines)
    assert any("and 95 more NODE_SILENT" in line for line in lines), "\n".join(lines)


def test_hostile_names(host):
    evil, text = "a\x1b[2J\udcff\x9b", "\x1b]0;owned\x07\nnext\u202e"
    host.plant(OWN | node_record(8, evil, vendor=text) | datastore_record(evil, [8], name=text) |
               vdisk_record(plain(evil, name=text, description=text), [8], datastore=evil))
    for words in (["status"], ["nodes"], ["datastores"], ["vdisks"], ["show", "node", "8"], ["show", "vdisk", evil],
                  ["show", "datastore", evil], ["show", "vdisk", "a\x1b[2K"], ["vdisks", "--datastore", evil + "x"]):
        done = mwctl(host, *words)
        raw = [c for c in done.stdout + done.stderr if (c < " " and c != "\n") or "\x7f" <= c <= "\x9f" or
               c == "\u202e" or "\ud800" <= c <= "\udfff"]
        assert raw == [], explain("a name that reaches the terminal raw", typed=words, characters=raw, out=done.stdout)
    assert "a\x1b[2J\\xff\x9b" in [vdisk["uuid"] for vdisk in document(host, "vdisks")["vdisks"]]


def test_watch_and_closed_pipe(cluster):
    watch = cluster.start(*MWCTL, "status", "--watch=0.1", stdout=subprocess.PIPE, text=True)
    for _ in range(2):
        wait_until(lambda: "state: healthy" in watch.stdout.readline(), "another page")
    watch.send_signal(signal.SIGINT)
    assert watch.wait(DEADLINE) == 0
    terminal = cluster.terminal(*MWCTL, "status", "--watch")
    terminal.wait_for("3 VDisks")
    terminal.type("\x03")
    assert terminal.end() == 0 and terminal.output.endswith("\033[?1049l"), "the terminal is not as it was"
    reading, writing = os.pipe()
    os.close(reading)
    broken = cluster.start(*MWCTL, "vdisks", stdout=writing, stderr=subprocess.PIPE)
    os.close(writing)
    assert broken.communicate(timeout=DEADLINE)[1] == b"" and broken.returncode in (0, -signal.SIGPIPE)


def test_colours(host):
    for words, environment, coloured in (([], {}, True), ([], {"NO_COLOR": "1"}, False), ([], {"TERM": "dumb"}, False),
                                         (["--color=never"], {}, False), (["--color=always"], {"NO_COLOR": "1"}, True)):
        terminal = host.terminal(*MWCTL, *words, "status", environment={"TERM": "xterm"} | environment)
        assert terminal.end() == 1 and ("\033[" in terminal.output) == coloured, explain(
            "colours on a terminal", typed=words, environment=environment, expected=coloured, found=terminal.output)
    assert "\033" not in mwctl(host, "status").stdout and "\033" in mwctl(host, "--color=always", "status").stdout


def test_config_before_the_first_start(host):
    host.remove("/mnt/DB")
    done = mwctl(host, "status")
    assert done.returncode == 3 and "cannot read the tree /mnt/DB" in done.stderr
    config = document(host, "config")
    assert list(config) == ["file", "values", "local_nodes", "unicast_hosts", "network", "troubles"]
    assert config["values"]["bind_port"] == {"value": 8000, "origin": "default"}
    assert config["values"]["ping_interval"] == {"value": 3600, "origin": "/mnt/mwd.conf:9"}
    assert config["local_nodes"] == [{"uid": 7, "line": 1}] and config["network"]["address"] == "127.0.0.1"
    assert config["unicast_hosts"] == [{"address": "127.0.0.2", "line": 1}]
    host.write("/mnt/mwd.conf", BASE_CONFIG + "bind_interface = eth9\nbind_prot = 1\n")
    host.write("/mnt/local_nodes", "7\n# none\nx\n")
    with host.udp_socket("0.0.0.0"):
        troubles = document(host, "config", status=1)["troubles"]
    assert sorted(trouble["code"] for trouble in troubles) == ["CONFIG_INVALID", "INTERFACE_UNUSABLE", "PORT_TAKEN",
                                                               "TABLE_INVALID"]
    told = " ".join(trouble["text"] for trouble in troubles)
    assert "/mnt/mwd.conf:15" in told and "/mnt/local_nodes:3" in told and "bind_port 8000" in told
    assert mwctl(host, "config").returncode == 1
