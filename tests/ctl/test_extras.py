"""What mwctl says to other programs: metrics to Prometheus, graph to Graphviz, wait and watch to scripts, and what it
offers to a shell that completes."""
import collections
import json
import pathlib
import re
import signal
import subprocess

import pytest

from harness import BASE_CONFIG, DEADLINE, wait_until
from messages import aux_ping, ds_ping, heartbeat, ping, plain, report, snapshot, vdisk_deleted
from trees import FIFO, GONE, changed, datastore_record, node_record, vdisk_record

REPOSITORY = pathlib.Path(__file__).parents[2]
TOOL = ["/mnt/mwctl", "-C", "/mnt/mwd.conf"]
HOSTILE = 'a"\\N<b>&\n\x1b\udcff\uffff'  # quotes, markup, a record's name to dot, a terminal's escape, no UTF-8
TREE = (node_record(7, "ds1") | node_record(8, "ds1") | datastore_record("ds1", [7, 8]) |
        vdisk_record(plain("v1"), [7, 8], "ds1") | vdisk_record(snapshot("s1", "v1"), [7], "ds1") |
        {"VDisk/v1/snapshots/s1": vdisk_record(plain("s1"))["Node/7/vdisks/s1"]})


@pytest.fixture
def equipped(host):
    host.install("mwctl")
    host.write("/mnt/mwd.conf", BASE_CONFIG)
    host.plant({})
    return host


def mwctl(host, *arguments, status=0):
    done = host.run(*TOOL, *arguments)
    assert done.returncode == status, f"{arguments}: {done.stdout}{done.stderr}"
    return done.stdout


def samples(text):
    """Each sample's value by its name and labels, as they are written."""
    lines = [line.rsplit(" ", 1) for line in text.splitlines() if not line.startswith("#")]
    assert len({name for name, _ in lines}) == len(lines), "a sample stands twice"
    return {name: float(value) for name, value in lines}


@pytest.mark.parametrize("damage", [
    {},
    {"Node/8/lastping": 5, "/tmp/NODE-7": "99999\n",
     "VDisk/v1/transaction_id": 3, "Node/7/model": HOSTILE.replace("\n", "") + "\n", "Node/8/freespace": "",
     "VDisk/s1/snapshot": FIFO}], ids=["healthy", "damaged"])
def test_metrics_agree_with_json(equipped, damage):
    daemon = equipped.daemon()
    equipped.write("/mnt/local_nodes", "7\n")
    equipped.plant(changed(TREE, damage))
    text = mwctl(equipped, "metrics")
    checked = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
    assert (checked.returncode, checked.stdout + checked.stderr) == (0, "")
    found, codes = samples(text), collections.Counter()
    status = json.loads(mwctl(equipped, "--json", "status", status=1 if damage else 0))
    for trouble in status["troubles"]:
        codes[f'mwd_troubles{{code="{trouble["code"]}",severity="{trouble["severity"]}"}}'] += 1
    troubles = {name: value for name, value in found.items() if name.startswith("mwd_troubles")}
    assert {name: value for name, value in troubles.items() if value} == codes and len(codes) == (4 if damage else 0)
    assert len(troubles) == 30, "a code is missing, with which its alert would go"
    for node in status["peers"] + status["local_nodes"]:
        for key in "freespace", "size", "utilization", "memtotal", "vdisks":
            assert found.get(f'mwd_node_{key}{{node="{node["uid"]}"}}') == node[key], f"{key} of node {node['uid']}"
    assert found['mwd_vdisks{kind="plain"}'] == 1 and found["mwd_daemon_up"] == 1
    assert found['mwd_vdisks{kind="snapshot"}'] == (0 if damage else 1)
    assert found['mwd_locks{state="stale"}'] == (1 if damage else 0)
    assert found["mwd_daemon_start_time_seconds"] > 0 and status["daemon"]["pid"] == daemon.pid
    equipped.remove("/tmp/NODE-7")


def test_metrics_file_is_whole_or_says_that_it_is_not(equipped):
    """A failed run that leaves the numbers of the last one would show a healthy cluster for ever."""
    equipped.shell("mkdir /mnt/prom && mount -t tmpfs -o size=64k prom /mnt/prom")
    write, file = ["metrics", "--output", "/mnt/prom/mwd.prom"], "/mnt/prom/mwd.prom"
    equipped.plant(TREE)
    mwctl(equipped, *write)
    whole = equipped.read(file)
    assert samples(whole).keys() == samples(mwctl(equipped, "metrics")).keys()
    exporter = equipped.start(
        "prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile",
        "--collector.textfile.directory=/mnt/prom", "--web.listen-address=127.0.0.1:9100", stderr=subprocess.DEVNULL)
    wait_until(lambda: equipped.run("curl", "-fs", "http://127.0.0.1:9100/").returncode == 0, "a node exporter")
    shown = equipped.shell("curl -fs http://127.0.0.1:9100/metrics")
    assert 'mwd_node_vdisks{node="7"} 2' in shown and "node_textfile_scrape_error 0" in shown
    exporter.kill()
    equipped.shell("yes > /mnt/prom/full || true")
    mwctl(equipped, *write, status=3)
    assert equipped.read(file) == whole, "a full file system took the old file"
    equipped.remove("/mnt/prom/full")
    equipped.remove("/mnt/DB")
    mwctl(equipped, *write, status=3)
    assert samples(equipped.read(file)) == {"mwd_metrics_success": 0}
    assert [path.name for path in equipped.path("/mnt/prom").iterdir()] == ["mwd.prom"], "a temporary file stayed"


def test_dot_draws_what_is_there_whatever_it_is_called(equipped):
    name = 'x"\\<&\udcff\uffff'
    equipped.plant(changed(TREE | vdisk_record(plain(name), [7, 9], "ds1") | datastore_record(name, [8]) |
                           vdisk_record(snapshot("s2", "s2"), [8]), {
        "Node/7/vendor": HOSTILE.replace("\n", "\\N\\G\x85") + "\n", "Node/8/ipaddr": GONE, "Node/9": GONE,
        "VDisk/v1/name": "-->]]>\n", "VDisk/s1/parent": "s9\n", "/tmp/VDISK-v1": "99999\n"}))
    drawn = subprocess.run(["dot", "-Tsvg"], input=mwctl(equipped, "graph").encode(), capture_output=True)
    assert (drawn.returncode, drawn.stderr) == (0, b"")
    svg = drawn.stdout.decode()
    for text in ("node 7", "127.0.0.2", "v1", "s1", "s2", "10.0.0.1:306", "LOCK_STALE", "SNAPSHOT_ORPHAN",
                 "x&quot;\\&lt;&amp;\\xff\\xef\\xbf\\xbf"):
        assert f">{text}<" in svg or f">&#160;{text}<" in svg, text
    assert "\x1b" not in svg


def test_wait_ends_when_the_tree_says_so_and_not_before(equipped):
    def started(*arguments):
        program = equipped.start(*TOOL, "wait", *arguments, stderr=subprocess.PIPE, text=True)
        wait_until(lambda: "inotify" in equipped.shell(f"ls -l /proc/{program.pid}/fd"), "a wait that has begun")
        return program
    equipped.remove("/mnt/DB")
    created = started("vdisk", "v1", "--generation", "6")
    heard = started("node", "7", "--timeout", "60")
    interrupted = started("vdisk", "v2", "--gone")  # without a tree, nothing is known of it
    equipped.plant(TREE)
    assert heard.wait(DEADLINE) == 0
    equipped.add({"VDisk/v1/highest_gen_count": 6, "VDisk/v1/membership": ""})
    assert created.wait(DEADLINE) == 0 and interrupted.wait(DEADLINE) == 0
    for arguments, changes, why in [
            (["vdisk", "v1", "--generation", "7"], {}, "generation is 6"),
            (["vdisk", "v1", "--gone"], {}, "still there"),
            (["vdisk", "v1"], {"VDisk/v1/name": GONE}, "its name is missing"),
            (["vdisk", "v2"], {}, "not there"),
            (["node", "7"], {"Node/7/lastping": 5}, "last heard"),
            (["node", "8"], {"Node/8/lastping": GONE, "Node/8/hbtl": "torn"}, "its hbtl does not end with a newline")]:
        equipped.change(changes)
        done = equipped.run(*TOOL, "wait", *arguments, "--timeout", "0.1")
        assert (done.returncode, why in done.stderr, done.stdout) == (1, True, ""), f"{arguments}: {done.stderr}"
    equipped.add({"Node/8/hbtl": "whole\n"})
    mwctl(equipped, "wait", "node", "8")
    mwctl(equipped, "wait", "vdisk", "a/b", status=2)
    interrupted = started("vdisk", "v1", "--gone")
    interrupted.send_signal(signal.SIGINT)
    assert interrupted.wait(DEADLINE) == 130


@pytest.mark.parametrize("as_json", [True, False], ids=["json", "text"])
def test_watch_tells_each_change_once_and_in_order(equipped, as_json):
    equipped.plant({})
    daemon = equipped.daemon()
    with open(equipped.path("/mnt/told"), "w") as out:
        watch = equipped.start(*TOOL, *["--json"] * as_json, "watch", stdout=out)
    told = []

    def expect(*events):
        """Each of "EVENT RECORD", and nothing else since the last one."""
        told.extend(events)
        wait_until(lambda: len(equipped.read("/mnt/told").splitlines()) >= len(told), f"{events}; {told}")
        lines = equipped.read("/mnt/told").splitlines()
        if as_json:
            lines = ["{event} {record}".format(**json.loads(line)) for line in lines]
        assert [" ".join(re.sub(r"^\d\S+Z", "", line).split()[:2]) for line in lines] == told
    expect("watching daemon")
    both = [report(plain("v1", 6, sectors=9), [7, 8]), report(snapshot("s1", "v1"), [7])]
    for datagrams, events in [
            ([aux_ping(7)], ["node-heard node/7"]),
            ([ds_ping(7, "ds1"), aux_ping(7)], ["datastore-created datastore/ds1"]),
            ([ping(7, report(plain("v1"), [7, 8]))], ["vdisk-created vdisk/v1"]),
            ([aux_ping(8)], ["node-heard node/8"]),
            ([ping(8, report(plain("v1", 6), [7, 8]))], ["member-joined vdisk/v1", "generation-raised vdisk/v1"]),
            ([ping(7, *both)], ["vdisk-changed vdisk/v1", "vdisk-created vdisk/s1"]),
            ([ping(7, *both), ds_ping(7, "ds1"), heartbeat(8)] * 50, []),  # rewritten, and nothing has changed
            ([vdisk_deleted(8, "v1")], ["member-left vdisk/v1"]),
            ([vdisk_deleted(7, "s1"), ping(7)], ["vdisk-gone vdisk/s1", "vdisk-gone vdisk/v1"]),
            ([ds_ping(7)], ["datastore-gone datastore/ds1"])]:
        daemon.deliver(*datagrams)
        expect(*events)
    equipped.add({"/tmp/NODE-7": f"{watch.pid}\n"})
    expect("lock-held lock/NODE-7")
    equipped.remove("/tmp/NODE-7")
    expect("lock-released lock/NODE-7")
    equipped.add({"Node/8/lastping": 5})
    expect("node-silent node/8")
    assert daemon.stop() == 0
    expect("daemon-stopped daemon")
    watch.send_signal(signal.SIGINT)
    assert watch.wait(DEADLINE) == 0


def test_bash_completes_from_the_program_and_the_tree(equipped):
    """What is typed, a tab after it, and the words that the program then gets: names with their quotes taken off."""
    equipped.plant(changed(TREE | vdisk_record(plain("two words")) | vdisk_record(plain("it's $HOME")) |
                           vdisk_record(plain("a:b")) | vdisk_record(plain("\x1b[31m")), {"Node/7/vdisks": GONE}))
    terminal = equipped.terminal("bash", "--norc", "--noprofile", "-i", environment={"TERM": "dumb"})
    terminal.type(f". /usr/share/bash-completion/bash_completion; . {REPOSITORY}/dist/mwctl.bash\n")
    terminal.type("mwctl() { case $1 in complete) /mnt/mwctl \"$@\";; *) printf '<%s>' \"$@\"; echo;; esac; }\n")
    config = "-C /mnt/mwd.conf"
    for typed, words in [
            ("met", "metrics"),
            ("--ver", "--version"),
            ("--color=ne", "--color=never"),
            ("-C /mnt/mwd.co", config),
            (f"{config} sho", f"{config} show"),
            (f"{config} show vdisk v", f"{config} show vdisk v1"),
            (f"{config} show vdisk tw", f"{config} show vdisk two|words"),
            (f"{config} wait vdisk 'two w", f"{config} wait vdisk two|words"),
            (f"{config} wait vdisk it\\'", f"{config} wait vdisk it's|$HOME"),
            (f"{config} wait vdisk a:", f"{config} wait vdisk a:b"),
            (f"{config} vdisks --datastore d", f"{config} vdisks --datastore ds1"),
            (f"{config} vdisks --node=7", f"{config} vdisks --node=7"),
            (f"{config} wait vdisk v1 --gen", f"{config} wait vdisk v1 --generation")]:
        terminal.type(f"mwctl {typed}\t\n")
        expected = "".join(f"<{word}>" for word in words.split(" ")).replace("|", " ")
        terminal.wait_for(expected + "\r\n")
    terminal.type(f"mwctl {config} wait vdisk \t\t")
    terminal.wait_for("two\\ words")
    terminal.type("\x15exit\n")
    terminal.end()
    assert "\x1b[31m" not in terminal.output, "a peer wrote to the terminal"
