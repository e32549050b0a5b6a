"""What mwctl writes, with real daemons: new, set, drop, lock, publish and reload."""
import signal

import pytest

from harness import BASE_CONFIG, DEADLINE, explain, wait_until
from messages import AUX_PING, DS_PING, PING, SINGLE_VDISK_PING, VDISK_DELETED, plain, snapshot
from trees import GONE, Link, changed, datastore_record, difference, node_record, vdisk_record

MWCTL = ["/mnt/mwctl", "-C", "/mnt/mwd.conf"]
FULL = 4294967295


@pytest.fixture
def make_host(make_host):
    def make(number=1):
        host = make_host(number)
        host.install("mwctl")
        host.write("/mnt/mwd.conf", BASE_CONFIG)
        return host
    return make


def mwctl(host, *words):
    return host.run(*MWCTL, *words)


def well(host, *words):
    """A command that must succeed. Returns what it printed."""
    result = mwctl(host, *words)
    assert (result.returncode, result.stderr) == (0, ""), f"{words}: {result.returncode}, {result.stderr}"
    return result.stdout


# Node 7 is as other programs of the host write it: no message of it was heard.
OWN = changed(node_record(7, "ds1") | datastore_record("ds1", [7]) | vdisk_record(plain("v1"), datastore="ds1"),
              {"Node/7/lastping": GONE, "Node/7/ipaddr": GONE})
PEERS = node_record(8, "ds2") | datastore_record("ds2", [8]) | vdisk_record(plain("w1"), [8], datastore="ds2")
TABLES = {"/mnt/local_nodes": "7\n", "/mnt/unicast_hosts": "127.0.0.2\n"}


def published_values(host):
    """Each value of the host's own records as `get` says it, under the path of its file."""
    values = {}
    for path, content in host.tree().items():
        if isinstance(content, str):
            *record, key = path.replace("/memberinfo/", "/").split("/")
            value = well(host, "get", "/".join([record[0].lower(), *record[1:]]), key)
            values[path] = value.replace(",", "\n") if key in ("membership", "frontend") else value
    return values


def test_records_made_by_new_arrive_and_leave(make_host):
    """Each step is one that an operator takes on one of two hosts, with node 7 and node 8; the other's tree follows."""
    one, two = make_host(1), make_host(2)
    one.connect(two)
    for host, other in (one, two), (two, one):
        host.write("/mnt/local_nodes", f"{host.number + 6}\n")
        host.write("/mnt/unicast_hosts", f"10.0.0.{other.number}\n")
    daemon_one, daemon_two = (host.daemon("bind_interface = eth0\n") for host in (one, two))
    well(one, "new", "node", "7", "--datastore", "ds1", "vendor=Example Storage", "freespace=900", "hostid=65535")
    well(one, "set", "datastore/ds1", "name=First floor", "replicas=2")
    well(one, "new", "vdisk", "v1", "--node", "7", "membership=7,8", "frontend=10.0.0.1,10.0.0.11", "generation=3",
         "sectors=18446744073709551615", "name=A name of 28 bytes, no more")
    well(one, "new", "vdisk", "v2", "--node", "7", "frontend=10.0.0.1")
    well(one, "new", "vdisk", "s1", "--node", "7", "--snapshot-of", "v1", "frontend=10.0.0.1")
    well(one, "publish", "all")
    wait_until(lambda: "VDisk/v1/snapshots/s1" in two.tree(), "the Snapshot on the second host")

    made, arrived = published_values(one), two.tree()
    made |= {path: content for path, content in one.tree().items() if isinstance(content, Link)}
    differs = difference(made, {path: arrived.get(path, GONE) for path in made})
    assert differs == [], explain("what get says on the first host arrives on the second", differs=differs)
    assert one.read("/mnt/DB/VDisk/s1/sectors") == "18446744073709551615\n", "a Snapshot is as large as its parent"
    well(two, "new", "node", "8", "--datastore", "ds2")
    well(two, "new", "vdisk", "v1", "--node", "8", "membership=7,8", "frontend=10.0.0.2")
    well(two, "publish", "vdisk", "8", "v1")
    wait_until(lambda: "Node/8/vdisks/v1" in one.tree(), "the second host's share on the first")
    assert one.read("/mnt/DB/VDisk/v1/memberinfo/8/membership_gen_count") == "3\n"
    for host in one, two:
        well(host, "check")  # what new has made has no trouble
    well(one, "drop", "vdisk", "v1", "--node", "7")
    wait_until(lambda: "Node/7/vdisks/v1" not in two.tree(), "a second host without node 7 in v1")
    for host in one, two:
        left = {path for path in host.tree() if "VDisk/v1/memberinfo/" in path and path.count("/") == 3}
        assert left == {"VDisk/v1/memberinfo/8"}, "only the other node's share of v1 is left"
    assert one.read("/mnt/DB/VDisk/v1/membership") == "8\n"
    for vdisk in "v2", "s1":
        well(one, "drop", "vdisk", vdisk, "--node", "7")
        wait_until(lambda: not two.path(f"/mnt/DB/VDisk/{vdisk}").exists(), f"a second host without {vdisk}")
        for host in one, two:
            assert [path for path in host.tree() if vdisk in path.split("/")] == [], f"nothing names {vdisk} any more"
    assert [line for line in daemon_one.publish() + daemon_two.settle() if line.startswith("error")] == []
    assert one.locks() == two.locks() == []


# For each width the largest value, and the smallest that is too large.
BOUNDARIES = [
    ("node/7 nodestatus", "255", "256"), ("node/7 hostid", "65535", "65536"), ("node/7 size", "0", "-0"),
    ("node/7 freespace", str(FULL), str(FULL + 1)), ("node/7 size", "7", "7 "), ("node/7 size", "8", ""),
    ("node/7 revision", "x" * 24, "x" * 25), ("node/7 serial", "x" * 64, "x" * 65), ("node/7 model", "", "two\nlines"),
    ("node/7 version", "v255.25", "v255.255"), ("node/7 version", "v0.255", "v0.256"),
    ("node/7 backupchannel", "255.255.255.255", "255.255.255.256"), ("datastore/ds1 name", "x" * 32, "x" * 33),
    ("vdisk/v1 sectors", str(2 ** 64 - 1), str(2 ** 64)), ("vdisk/v1 name", "x" * 28, "x" * 29),
    ("vdisk/v1 st_mems", "255", "256"), ("vdisk/v1 highest_gen_count", "65535", "65536"),
    ("vdisk/v1 transaction_id", str(FULL), str(FULL + 1)), ("vdisk/v1 membership", f"7,{FULL}", f"7,{FULL + 1}"),
    ("vdisk/v1 membership", "7,1", "7,0"), ("vdisk/v1/7 seqno", str(2 ** 64 - 1), str(2 ** 64)),
    ("vdisk/v1/7 frontend", "10.0.0.1,10.0.0.2", "10.0.0.1,"), ("vdisk/v1/7 frontend", "", "010.0.0.1"),
    ("vdisk/s1 snaptime", "255-255-65535_255.255.255", "256-01-01_00.00.00"),
    ("vdisk/s1 snaptime", "26-11-25_01.02.03", "26-11-25_01.02.03x")]


def test_set_holds_each_width(make_host):
    """One byte or one bit too many would be cut on the wire, or keep the node's PING back."""
    host = make_host()
    host.plant(OWN | vdisk_record(snapshot("s1", "v1")))
    failures = []
    for place, good, bad in BOUNDARIES:
        record, key = place.split()
        before = host.tree()
        refused = mwctl(host, "set", record, f"{key}={bad}")
        if refused.returncode != 2 or refused.stderr.count("\n") != 1 or host.tree() != before:
            failures.append(f"{place}={bad!r}: status {refused.returncode}, {refused.stderr!r}")
        accepted, found = mwctl(host, "set", record, f"{key}={good}"), mwctl(host, "get", record, key).stdout
        if accepted.returncode != 0 or found != good + "\n":
            failures.append(f"{place}={good!r}: status {accepted.returncode}, {accepted.stderr!r}, read as {found!r}")
    assert failures == []


# What is typed, the status, and what the one line on stderr says.
REFUSED = [
    ("set vdisk/v1 speed=1", 2, "no key 'speed'"), ("set vdisk/v1 uuid=v2", 2, "uuid is the record's name"),
    ("set vdisk/v1 snapshot=1", 2, "stays one"), ("set vdisk/v1 parent=v2", 2, "has no parent"),
    ("set node/8 freespace=1", 2, "peer's"), ("set datastore/ds2 name=x", 2, "peer's"),
    ("set vdisk/w1 sectors=1", 2, "peer's"), ("set vdisk/w1/8 port=1", 2, "peer's"),
    ("set node/7 size=1 hostid=65536", 2, "65535"), ("set node/7 size", 2, "no KEY=VALUE"),
    ("set node/7 datastoremember=a/b", 2, "cannot name"), ("set node/7 datastoremember=ds2", 2, "leaves ds1 before"),
    ("set vdisk/v1/9 port=1", 3, "not in the tree"), ("get vdisk/v1 transaction_id", 3, "is missing"),
    ("get node/9 size", 3, "not in the tree"), ("get volume/v1 name", 2, "names no record"),
    ("new node 7", 2, "exists already"), ("new node 7 size=5", 2, "size is '1003', not '5'"),
    ("new node 8", 2, "peer's"), ("new node 4294967296", 2, "no node's number"), ("new datastore ds2", 2, "peer's"),
    ("new node 9 --datastore fifteen-letters", 2, "cannot name"), ("new datastore ds1", 2, "exists already"),
    ("new vdisk v1 --node 7", 2, "exists already"), ("new vdisk w1 --node 7", 2, "does not name node/7"),
    ("new vdisk v2 --node 8", 2, "peer's"), ("new vdisk v2 --node 9", 3, "node/9 is not in the tree"),
    ("new vdisk v2 --node 7 snapshot=1", 2, "--snapshot-of"), ("new vdisk a/b --node 7", 2, "cannot name"),
    ("new vdisk v2 --node 7 --snapshot-of v9", 3, "not in the tree"),
    ("new vdisk v2 --node 7 membership=8", 2, "has to name node/7"),
    ("drop vdisk v1 --node 7", 3, "mwd does not run"), ("drop vdisk w1 --node 8", 2, "peer's"),
    ("publish vdisk 7 v1", 3, "mwd does not run"), ("reload", 3, "mwd does not run")]


def test_what_cannot_be_done_is_refused_in_one_line(make_host):
    """With no daemon and nothing locked: one line says why, the status is the documented one, nothing is written."""
    host = make_host()
    host.plant(OWN | PEERS | TABLES)
    before, failures = host.tree(), []
    for typed, status, reason in REFUSED:
        result = mwctl(host, *typed.split())
        one_line = result.stderr.startswith("mwctl: ") and result.stderr.count("\n") == 1
        differs = difference(before, host.tree())
        if (result.returncode, result.stdout) != (status, "") or reason not in result.stderr or not one_line or differs:
            failures.append(explain(typed, expected=f"{status}, {reason}", status=result.returncode,
                                    stderr=result.stderr, stdout=result.stdout, written=differs))
    assert failures == [], "\n".join(failures)


def test_a_torn_or_missing_part_is_written_by_the_command_that_check_names(make_host):
    """What other programs left behind in part: new finishes a node's share, and set a value, but invents none."""
    host = make_host()
    host.plant(changed(OWN, {"VDisk/v1/memberinfo": GONE, "VDisk/v1/snapshots": GONE, "VDisk/v1/uuid": "v"}))
    well(host, "new", "vdisk", "v1", "--node", "7", "frontend=10.0.0.1", "numkeys=302", "seqno=304", "status=5",
         "port=306", "st_mem=8")
    assert difference(changed({}, OWN), host.tree()) == []
    host.plant(changed(OWN, {"VDisk/v1/sectors": "30", "Node/7/vdisks/v1": GONE}))
    assert "sectors=VALUE" in mwctl(host, "new", "vdisk", "v1", "--node", "7").stderr, "a size that nobody gave"
    well(host, "set", "vdisk/v1", "sectors=303")
    well(host, "set", "node/7", "datastoremember=")
    lost = {"Node/7/vdisks/v1": GONE, "Node/7/datastoremember": GONE, "Datastore/ds1/members/7": GONE}
    assert difference(changed(OWN, lost), host.tree()) == [], "the link in the datastore goes with the value"
    well(host, "set", "node/7", "datastoremember=ds1")
    host.plant(changed(OWN | PEERS, {"VDisk/w1/transaction_id": 5}))
    well(host, "set", "vdisk/w1", "transaction_id=")
    assert difference(OWN | PEERS, host.tree()) == [], "a transaction is this host's own on a peer's VDisk too"
    host.add({"VDisk/w2/uuid": ["w2"]})
    assert mwctl(host, "new", "vdisk", "w2", "--node", "7").returncode == 3, "a peer's record that was cut short"


def locked_command(host, *command):
    program = host.start(*MWCTL, "lock", "vdisk/v1", "--", *command)
    return wait_until(lambda: host.locks() == ["VDISK-v1"] and program, "a locked record")


def test_lock_keeps_the_daemon_out_until_the_command_ends(make_host):
    host = make_host()
    host.plant(OWN | TABLES)
    daemon = host.daemon()

    def publishes():
        daemon.sent()
        daemon.publish()
        return PING in [datagram[2] for datagram in daemon.sent()]

    assert publishes()
    for number, status in (signal.SIGTERM, 143), (signal.SIGINT, 130), (signal.SIGHUP, 129), (signal.SIGUSR1, 138):
        program = locked_command(host, "sleep", "600")
        assert not publishes(), "the daemon read a locked record"
        held = mwctl(host, "set", "vdisk/v1", "sectors=1")
        assert held.returncode == 3 and f"process {program.pid} holds it" in held.stderr, held.stderr
        program.send_signal(number)
        assert program.wait(DEADLINE) == status, "the signal is passed on, and its number told"
        assert host.locks() == [] and publishes(), f"the lock is gone with {number!r}"
    assert mwctl(host, "lock", "vdisk/v1", "--", "sh", "-c", "kill -KILL $$").returncode == 137
    program = locked_command(host, "sh", "-c", "trap 'kill $!; exit 7' TERM; sleep 600 & touch /mnt/trapped; wait")
    wait_until(host.path("/mnt/trapped").exists, "a command that is ready for the signal")
    waiting = host.start(*MWCTL, "lock", "vdisk/v1", "--wait", "60", "--", "touch", "/mnt/had")
    program.send_signal(signal.SIGTERM)
    assert program.wait(DEADLINE) == 7 and waiting.wait(DEADLINE) == 0 and host.path("/mnt/had").exists()
    assert mwctl(host, "lock", "node/7", "--", "/mnt/absent").returncode == 127
    echoed = well(host, "lock", "vdisk/v1/7", "--", "printf", "<%s>", "--wait", "", "a b", "[x]", "-x", "--")
    assert (echoed, host.locks()) == ("<--wait><><a b><[x]><-x><-->", []), "the command's words are its own"


# What is typed, what of the tree or a table is changed before, and what is published; or a reason, and nothing is.
ASKED = [
    ("publish all", {}, [DS_PING, AUX_PING, PING]), ("publish datastore 7", {}, [DS_PING]),
    ("publish vdisk 7 v1", {}, [SINGLE_VDISK_PING, AUX_PING]), ("publish vdisk 7 w1", {}, "not linked"),
    ("publish deleted 7 gone", {}, [VDISK_DELETED, AUX_PING]), ("publish datastore 8", {}, "does not list node 8"),
    ("publish all", {"VDisk/v1/membership": "7"}, "VDisk/v1/membership does not end with a newline"),
    ("publish vdisk 7 v1", {"VDisk/v1/name": GONE}, "VDisk/v1/name is missing"),
    ("publish vdisk 7 v1", {"Node/7/datastoremember": GONE}, "has no datastore"),
    ("publish datastore 7", {"Datastore/ds1/stripes": ""}, "Datastore/ds1/stripes is empty"),
    ("publish datastore 7", {"Node/7/datastoremember": "ds1"}, "Node/7/datastoremember does not end"),
    ("publish deleted 7 v1", {"Node/7/memavail": GONE}, "Node/7/memavail is missing"),
    ("publish datastore 7", {"/tmp/NODE-7": "4194304\n"}, "the dead process 4194304 holds the lock"),
    ("drop vdisk v1 --node 7", {"Node/7/vendor": "x"}, "nothing changed"),
    ("reload", {"/mnt/local_nodes": "7\n# comment\nseven\n"}, "local_nodes:3: 'seven' names no node"),
    ("reload", {"/mnt/local_nodes": "7\n8"}, "local_nodes:2: does not end with a newline"),
    ("reload", {"/mnt/unicast_hosts": "10.0.0.1\n300.1.1.1\n"}, "unicast_hosts:2: '300.1.1.1' is no IPv4")]


def test_the_daemon_is_asked_for_what_it_will_do(make_host):
    """Silence is its only answer, so mwctl must know before: what it says is published is, and nothing else."""
    host = make_host()
    host.add(TABLES)
    daemon, failures = host.daemon(), []
    for typed, changes, expected in ASKED:
        host.plant(changed(OWN | PEERS | TABLES, changes))
        before, sent, _ = host.tree(), [], daemon.sent()
        result = mwctl(host, *typed.split())
        if isinstance(expected, list):
            wait_until(lambda: sent.extend(d[2] for d in daemon.sent()) or len(sent) >= len(expected), typed)
        daemon.settle()
        sent += [datagram[2] for datagram in daemon.sent()]
        reason = "" if isinstance(expected, list) else expected
        found = (sent or daemon.told("notice: load_local_nodes(): "), result.returncode, reason in result.stderr)
        if found != ([] if reason else expected, 3 if reason else 0, True) or host.tree() != before:
            failures.append(explain(typed, planted=changes, expected=str(expected), sent=str(sent),
                                    status=result.returncode, stderr=result.stderr))
    host.plant(TABLES | {"/mnt/local_nodes": "9\n"})
    assert "the line 10 to /mnt/local_nodes" in well(host, "new", "node", "10") and well(host, "reload")
    daemon.wait_for("[1/1] 9")
    assert failures == [], "\n".join(failures)
