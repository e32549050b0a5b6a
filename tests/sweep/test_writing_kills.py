"""mwctl new and mwctl drop, killed at each system call that changes something: no half of a record is ever published,
and the same command again ends in the same tree. MWD_SWEEP_STEP is the distance of kills, 1 for all."""
import contextlib
import os
import re

import pytest

from harness import BASE_CONFIG, Host, explain, strace, wait_until
from messages import AUX_PING, plain
from trees import DIRECTORY, GONE, Link, changed, datastore_record, difference, node_record, vdisk_record

STEP = int(os.environ.get("MWD_SWEEP_STEP", 19))
MWCTL = ["/mnt/mwctl", "-C", "/mnt/mwd.conf"]
CHANGES = ["openat", "mkdir", "symlink", "write", "rename", "unlink", "unlinkat", "rmdir"]
OWN = changed(node_record(7, "ds1"), {"Node/7/lastping": GONE, "Node/7/ipaddr": GONE}) | datastore_record("ds1", [7])
V1 = vdisk_record(plain("v1"), datastore="ds1")
SHARED = changed(V1, {"VDisk/v1/membership": [7, 8], "Node/8/vdisks/v1": Link("../../../VDisk/v1"),
                      "VDisk/v1/memberinfo/8/seqno": 1})
# What is typed, and the tree before.
COMMANDS = {"new node": ("new node 7 --datastore ds1 size=5", {"Node": DIRECTORY}),
            "new vdisk": ("new vdisk v1 --node 7 frontend=10.0.0.1,10.0.0.2 sectors=5", OWN),
            "new snapshot": ("new vdisk s1 --node 7 --snapshot-of v1 frontend=10.0.0.1 snaptime=11-03-07_09.05.02",
                             OWN | V1),
            "drop the last share": ("drop vdisk v1 --node 7", OWN | V1),
            "drop one share of two": ("drop vdisk v1 --node 7", OWN | SHARED)}


@pytest.fixture
def host():
    with contextlib.closing(Host()) as host:
        host.install("mwctl")
        host.write("/mnt/mwd.conf", BASE_CONFIG)
        host.write("/mnt/local_nodes", "7\n")
        yield host


def published(daemon):
    daemon.sent()
    daemon.publish()
    return {datagram.kind: datagram for datagram in daemon.sent()}


def wait_for_daemon(typed, daemon):  # it has told the peers of a drop, and holds no lock for it any more
    if typed.startswith("drop"):
        wait_until(lambda: AUX_PING in [datagram[2] for datagram in daemon.sent()], "the peers are told")


def without_leftovers(tree):
    """A value that was being written is a file of its own, which the daemon passes over, and the next run takes."""
    return {path: tree[path] for path in tree if not re.search(r"/\.\w+\.new$", path)}


@pytest.mark.parametrize("name", COMMANDS)
def test_a_killed_command_is_finished_by_the_same_again(host, name):
    typed, before = COMMANDS[name]
    daemon = host.daemon()
    host.plant(before)
    messages = [published(daemon)]
    traced = host.run(*strace("-e", f"trace={','.join(CHANGES)}"), *MWCTL, *typed.split())
    assert traced.returncode == 0, traced.stderr
    calls = re.findall(r"^(\w+)\(", host.read("/mnt/strace"), re.M)
    wait_for_daemon(typed, daemon)
    expected = host.tree()
    messages.append(published(daemon))
    assert messages[0] != messages[1] and "PING" in messages[1] and len(calls) > 20, "what was done is published"
    for call in CHANGES:
        for number in range(1, calls.count(call) + 1, STEP if call in ("openat", "write") else max(1, STEP // 6)):
            host.plant(before)
            kill = strace("-e", f"trace={call}", "-e", f"inject={call}:signal=KILL:when={number}")
            killed = host.run(*kill, *MWCTL, *typed.split())
            story = dict(typed=typed, killed_at=host.read("/mnt/strace").splitlines()[-2:], status=killed.returncode)
            assert killed.returncode in (137, -9), explain("strace kills it", **story)
            host.run(*MWCTL, "locks", "--break")
            for lock in host.locks():
                assert host.read("/tmp/" + lock) == "", explain("an empty lock alone is left to the operator", **story)
                host.remove("/tmp/" + lock)
            now = published(daemon)
            half = [now[kind] for kind in now if now[kind] not in [sent.get(kind) for sent in messages]]
            assert half == [], explain("what is published is that of before or that of after", half=half, **story)
            again = host.run(*MWCTL, *typed.split())
            done = again.returncode == 0 or "exists already" in again.stderr or "has no share" in again.stderr
            wait_for_daemon(typed, daemon)
            story |= dict(again=again.stderr, differs=difference(expected, without_leftovers(host.tree())))
            assert done and story["differs"] == [], explain("the same command again finishes", **story)
            assert published(daemon) == messages[1], explain("the finished work is published", **story)
