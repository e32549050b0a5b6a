"""`mwctl sniff` and the dissector for Wireshark, held against each other, field by field, and both against what daemons
send, what a daemon's log says of damaged datagrams, and what mwd-protocol(7) says of its own dumps."""
import json
import pathlib
import random
import re
import signal
import socket
import struct

import pytest

from harness import BASE_CONFIG, DEADLINE, wait_until
from messages import (HEARTBEAT, NAMES, Datagram, aux_ping, ds_ping, heartbeat, message, ping, plain, report,
                      single_vdisk_ping, snapshot, vdisk_deleted)
from trees import datastore_record, node_record, vdisk_record

TOOL = ["env", "ASAN_OPTIONS=detect_leaks=0", "/mnt/mwctl", "-C", "/mnt/mwd.conf"]  # nobody may not look for leaks
AS_NOBODY = ["env", "HOME=/mnt", "setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]
REPOSITORY = pathlib.Path(__file__).parents[2]
PAGE = (REPOSITORY / "man/mwd-protocol.7").read_text()
TWICE = ping(7, report(plain("v1")), report(plain("v1")), report(plain("v2"), [7] * 3)).cut(610)
USUAL = [aux_ping(7), ds_ping(7, "ds1"), ds_ping(7), heartbeat(7), vdisk_deleted(7, "s1"), message(9, 7), TWICE,
         aux_ping(7, nodestatus=1, size=0x0a000001), single_vdisk_ping(8, report(plain("v1", 300)), major=1, minor=7),
         ping(7, report(plain("v1"), [7, 8]), report(snapshot("s1", "v1"), frontends=[])),
         ping(9, *[report(plain(f"v{i}"), range(i), ["10.0.0.1"] * (5 - i)) for i in range(6)])]


@pytest.fixture
def equipped(make_host):
    """Makes a host with mwctl, and with the dissector where Wireshark looks for plugins."""
    def make(number=1):
        host = make_host(number)
        host.install("mwctl")
        host.write("/mnt/mwd.conf", BASE_CONFIG)
        host.path("/mnt/plugins").mkdir()
        host.write("/mnt/plugins/mwd.lua", (REPOSITORY / "dist/mwd.lua").read_bytes())
        place = re.search(r"Global Lua Plugins:\s+(\S+)", host.run("tshark", "-G", "folders").stdout)[1]
        host.shell(f"mkdir -p {place} && mount --bind /mnt/plugins {place}")
        return host
    return make


class Sniff:
    """A running sniff, which hears already."""

    def __init__(self, host, *options, as_json=True):
        self.host, self.json = host, as_json
        with open(host.path("/mnt/heard"), "wb") as out, open(host.path("/mnt/complaints"), "wb") as err:
            self.program = host.start(*TOOL, *["--json"] * as_json, "sniff", *options, stdout=out, stderr=err)
        wait_until(lambda: "hearing" in host.read("/mnt/complaints") or self.program.poll(), "a sniff that hears")

    def end(self, number=None):
        """Returns the lines, or the documents: one a datagram and the summary, numbers as text, nulls left out."""
        if number:
            self.program.send_signal(number)
        assert self.program.wait(DEADLINE) == 0, self.host.read("/mnt/complaints")
        return [json.loads(line, parse_int=str, object_hook=lambda o: {k: o[k] for k in o if o[k] is not None})
                if self.json else line for line in self.host.read("/mnt/heard").splitlines()]


def sniffed(host, datagrams):
    sniff = Sniff(host, "--count", str(len(datagrams)))
    for datagram in datagrams:
        host.peer.sendto(datagram, ("127.0.0.1", 8000))
    return sniff.end()[:-1]


def capture_of(datagrams):
    """A capture file with a packet for each."""
    content = struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, 101)
    for datagram in datagrams:
        addresses = socket.inet_aton("127.0.0.2") + socket.inet_aton("127.0.0.1")
        udp = struct.pack(">HHHH", 8000, 8000, 8 + len(datagram), 0) + datagram
        packet = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(udp), 1, 0, 64, 17, 0) + addresses + udp
        content += struct.pack("<IIII", 0, 0, len(packet), len(packet)) + packet
    return content


def fields(name, pairs):
    """The fields of a record as sniff has them."""
    values = {key.removeprefix(name + "."): value for key, value in pairs if not key.endswith("_tree")}
    if name == "mwd.vdisk":
        values["frontend_count"] = values.pop("frontends")
        values["membership"] = [uid for _, uid in values.get("membership", [])]
        values["frontends"] = [address for _, address in values.pop("frontend_list", [])]
    return values


def dissected(host, capture=None):
    """What the dissector says of each datagram in a capture, in the form of comparable()."""
    host.write("/mnt/capture", capture or host.path("/mnt/capture").read_bytes(), 0o644)
    done = host.run(*AS_NOBODY, "tshark", "-r", "/mnt/capture", "-Y", "mwd", "-T", "json", "-J", "mwd", timeout=200)
    assert "Lua" not in done.stderr + done.stdout, "an error of the dissector"
    result, packets = [], json.loads(done.stdout, object_pairs_hook=list)
    for pairs in (dict(dict(dict(packet)["_source"])["layers"])["mwd"] for packet in packets):
        document = {"malformed": "; ".join(value for name, value in pairs if name == "mwd.malformed"),
                    "notes": [value for name, value in pairs if name == "mwd.note"],
                    "vdisks": [fields(name, value) for name, value in pairs if name == "mwd.vdisk"]}
        document |= {name[4:]: fields(name, value) for name, value in pairs
                     if name[4:] in ("header", "datastore", "aux", "deleted")}
        kind = int(document.get("header", {"type": 0})["type"])
        result.append(document | {"kind": NAMES.get(kind, "UNKNOWN")})
    return result


def comparable(documents):
    """Documents of sniff without what a dissector does not tell."""
    return [{"vdisks": [], "malformed": ""} | {key: document[key] for key in document.keys() -
                                               {"format", "at", "from", "bytes"}} for document in documents]


def damaged(count):
    """Messages with bytes changed, inserted, taken out and cut off, the same ones in every run."""
    chance, result = random.Random(20261125), []
    while len(result) < count:
        datagram = bytearray(chance.choice(USUAL))
        for _ in range(chance.choice([0, 1, 1, 2, 5, 40])):
            at = chance.randrange(len(datagram) + 1)
            new = [chance.choice(b"\0\1\4\20 !\"#./\xff").to_bytes(), chance.randbytes(chance.randrange(140))]
            old, new = chance.choice([(1, new[0]), (1, new[1][:1]), (0, new[1]), (len(new[1]), b""), (999, b"")])
            datagram[at:at + old] = new
        if datagram:  # of an empty one Wireshark shows no message
            result.append(Datagram(datagram))
    return result


def test_daemons_at_work(equipped):
    """Multicast in fragments, heard by a host without a daemon; the sender's host does not hear itself."""
    a, b = equipped(1), equipped(2)
    a.connect(b)
    config = "bind_interface = eth0\nunicast_mode = 0\nmulticast_address = \"224.1.1.1, 224.1.1.2\"\n"
    for host in a, b:
        host.write("/mnt/mwd.conf", BASE_CONFIG + config)
    a.write("/mnt/local_nodes", "7\n")
    a.plant(node_record(7, "ds1") | datastore_record("ds1", members=[7]))
    for uuid in (f"v{number}" for number in range(300)):
        a.add(vdisk_record(plain(uuid), datastore="ds1"))
    with open(b.path("/mnt/began"), "w") as began:
        b.start("dumpcap", "-qPi", "eth0", "-f", "ip proto 17", "-w", "/mnt/capture", stderr=began)
    wait_until(lambda: "File:" in b.read("/mnt/began"), "a capture that runs")
    sniff, own = Sniff(b, "-i", "eth0", "--count", "6"), Sniff(a, as_json=False)
    a.daemon(config)
    *documents, summary = sniff.end()
    assert "10.0.0.1" not in " ".join(own.end(signal.SIGINT))
    assert {(row["kind"], row["count"], row["bytes"]) for row in summary["summary"]} == {
        ("DS_PING", "2", str(2 * 294)), ("AUX_PING", "2", str(2 * 236)), ("PING", "2", str(2 * (207 + 300 * 133)))}
    assert (documents[0]["from"], summary["dropped"], summary["troubles"]) == ("10.0.0.1:8000", "0", [])
    lengths = [int(document["bytes"]) + 8 for document in documents]
    size = 24 + sum(lengths) + sum((length + 1479) // 1480 for length in lengths) * (16 + 14 + 20)  # headers of each
    wait_until(lambda: b.path("/mnt/capture").stat().st_size == size, f"a whole capture of {size} bytes")
    assert dissected(b) == comparable(documents)


def test_damaged_datagrams(equipped):
    """Neither stumbles, and they agree on every field and on every word of what is malformed."""
    host = equipped()
    datagrams = USUAL + damaged(10000)
    ours, theirs = comparable(sniffed(host, datagrams)), dissected(host, capture_of(datagrams))
    differing = [case for case in zip(datagrams, ours, theirs, strict=True) if case[1] != case[2]]
    assert differing[:1] == []
    words = " ".join(document["malformed"] for document in ours)
    reasons = "packet? #1", "#2", "#3", "#4", "#5", "Node Ping", "Datastore UUID", "Duplicate VDisk"
    assert min((words.count(reason), reason) for reason in reasons) > (10,), "too little damage of a kind to tell"


def test_a_daemon_says_the_same(equipped):
    """What the log calls malformed is malformed here, in the same words, and nothing else is."""
    host = equipped()
    daemon = host.daemon()
    daemon.deliver(ds_ping(7, "ds1"), ds_ping(8, "ds1"), ds_ping(9, "ds1"))
    cases, failures, logs = [TWICE] + damaged(400), [], []
    sniff = Sniff(host, "--count", str(2 * len(cases)))
    for case in cases:
        lines = daemon.deliver(case)
        logs.append([re.sub(r"^\w+: \w+\(\): ", "", line) for line in lines
                     if re.search(r"(Malformed (packet|Node|Datastore)|Duplicate VDisk)", line)])
    for case, log, document in zip(cases, logs, sniff.end()[:-1:2], strict=True):  # each before its mark
        told = list(filter(None, document.get("malformed", "").split("; ")))
        if case is not TWICE:  # a second report is a duplicate to a daemon only if it could apply both
            told, log = ([line for line in lines if "Duplicate" not in line] for lines in (told, log))
        if len(told) != len(log) or any(not own.startswith(line.split(" from ")[0]) for own, line in zip(told, log)):
            failures.append(f"sent: {case!r}\n  log: {log}\n  sniff: {told}")
    assert not failures, "\n".join(failures[:3])
    assert sum(map(len, logs)) > 100 and len(logs[0]) == 2


def record_of_page(title, content, begin, nth=0):
    """The fields of a record by the nth table of the page's section: name to value as text."""
    section = PAGE.split(f".Ss {title}, ")[1].split("\n.Ss ")[0].split('.Bl -column "offset"')[nth + 1]
    values = {}
    for offset, width, name, kind, rest in re.findall(r"^\.It (\d+) Ta (\d+) Ta Va (\S+) Ta (\w+)(.*)", section, re.M):
        field = content[begin + int(offset):][:int(width)]
        number = str(int.from_bytes(field, "big" if "big-endian" in rest else "little"))
        values[name] = field.split(b"\0")[0].decode(errors="replace") if kind in ("text", "digits", "union") else number
    return values


def test_the_page_the_tool_and_the_dissector(equipped):
    """The page's dumps, read by the page's own tables, are what both say of these bytes."""
    host, sent = equipped(), {}
    for kind, length, dump in re.findall(r"^\.Ss Dump of (\w+), (\d+) bytes\n.*?\.Bd.*?\n(.*?)\.Ed", PAGE, re.M | re.S):
        sent[kind] = bytes.fromhex("".join(re.findall(r"^\d+ ([0-9a-f ]+)$", dump, re.M)))
        assert len(sent[kind]) == int(length), kind
    assert sorted(sent) == sorted(NAMES.values())
    tool = comparable(sniffed(host, list(sent.values())))
    assert tool == dissected(host, capture_of(sent.values()))
    for (kind, content), document in zip(sent.items(), tool):
        assert (document["kind"], document["malformed"], document["notes"]) == (kind, "", [])
        assert document["header"] == record_of_page("Header", content, 0), kind
        begin = 207
        for key, title in ("datastore", "Datastore entry"), ("aux", "Capacity record"), ("deleted", "Deletion entry"):
            if key in document:
                assert document[key] == record_of_page(title, content, begin + (key == "aux"))
        for vdisk in document["vdisks"]:
            expected = record_of_page("VDisk entry", content, begin)
            if expected["snapshot"] != "0":
                del expected["description"]
                expected |= record_of_page("VDisk entry", content, begin, 1)
            expected["frontend_count"] = expected.pop("frontends")
            assert {name: vdisk[name] for name in expected} == expected
            begin += 125 + 4 * int(vdisk["members"]) + 4 * int(vdisk["frontend_count"])
    a1, _ = tool[list(sent).index("PING")]["vdisks"]
    assert (a1["generation"], a1["membership"], a1["frontends"]) == ("300", ["7", "12"], ["10.0.0.1"])


def test_summary_and_troubles(equipped):
    """One number from two addresses, an old version, a PING near its limit; and names that attack a terminal."""
    host, full, results = equipped(), ping(8, *[report(plain(f"v{i}")) for i in range(442)]), []
    old, hostile = message(HEARTBEAT, 6, major=1, minor=7), ds_ping(5, "\33[2J\n")
    sent = [(host.peer, datagram) for datagram in (heartbeat(7), old, full, full.cut(207), hostile)]
    sent.append((host.udp_socket("127.0.0.3"), heartbeat(7)))
    for as_json in True, False:
        sniff = Sniff(host, "-v", "--count", "6", as_json=as_json)
        with open(f"/proc/{sniff.program.pid}/status") as status:
            state = dict(line.split(":\t", 1) for line in status)
        assert (state["Uid"].split(), int(state["CapPrm"], 16), state["NoNewPrivs"]) == (["65534"] * 4, 0, "1\n")
        for so, datagram in sent:
            so.sendto(datagram, ("127.0.0.1", 8000))
        results.append(sniff.end())
    summary, text = results[0][-1], "\n".join(results[1])
    troubles = [(trouble["code"], trouble["record"]) for trouble in summary["troubles"]]
    assert troubles == [("NODE_VERSION_OLD", "node/6"), ("NODE_NUMBER_TAKEN", "node/7"), ("PING_NEARLY_FULL", "node/8")]
    assert summary["summary"][-1] == {
        "from": "127.0.0.3:8000", "kind": "HEARTBEAT", "count": "1", "bytes": "207", "malformed": "0"}
    assert not set(text) - {"\n"} & {chr(code) for code in range(32)} and r'uuid="\x1b[2J\x0a"' in text
    assert re.search(r"127\.0\.0\.2:8000 +PING +2 +%d" % (len(full) + 207), text) and "NODE_NUMBER_TAKEN" in text


def test_refusals_drops_and_ends(equipped):
    host = equipped()
    for before, after, status, told in (AS_NOBODY, "-v", 3, "root"), ([], "-ieth9", 3, "eth9"), ([], "-x", 2, "-x"):
        done = host.run(*before, *TOOL, "sniff", after)
        assert (done.returncode, done.stdout) == (status, "") and told in done.stderr
    assert host.run(*TOOL, "sniff", "--seconds", "0.1").returncode == 0
    assert host.run("/bin/sh", "-c", " ".join(TOOL) + " sniff | true").returncode == 0  # nobody reads it, nobody sends
    # More than its buffer holds comes while it stands still.
    sniff = Sniff(host)
    sniff.program.send_signal(signal.SIGSTOP)
    for _ in range(3000):
        host.peer.sendto(ping(7, b"x" * 60000), ("127.0.0.1", 8000))
    sniff.program.send_signal(signal.SIGCONT)
    wait_until(lambda: "lost here" in host.read("/mnt/complaints"), "a word on the drops")
    assert int(sniff.end(signal.SIGTERM)[-1]["dropped"]) > 0
