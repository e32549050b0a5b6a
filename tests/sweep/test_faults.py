"""The story told again and again: each time one system call or allocation fails, or the daemon is killed at a call, or
a file system is full. Told once more, the story must lead to the same tree as without that. MWD_SWEEP_STEP is the
distance from one fault to the next, 1 for all."""
import contextlib
import itertools
import mmap
import os
import re
import shutil
import signal

import pytest

from harness import BASE_CONFIG, strace, wait_until
from story import LOCAL, STORY
from trees import difference

STEP = int(os.environ.get("MWD_SWEEP_STEP", 19))
FAULTS = """openat:error=EACCES openat:error=EINTR mkdir:error=ENOSPC mkdirat:error=ENOSPC symlinkat:error=ENOSPC
write:error=ENOSPC write:error=EINTR fsync:error=EIO unlink:error=EIO rmdir:error=EIO newfstatat:error=EIO
readlink:error=EIO lseek:error=EIO read:error=EIO read:error=EINTR getdents64:error=EIO clone:error=EAGAIN
wait4:error=EINTR sendto:error=EPERM sendto:error=EINTR sendto:retval=5 recvfrom:error=EINTR accept:error=ECONNABORTED
accept:error=EINTR fcntl:error=EBADF setsockopt:error=EPERM"""
# Nothing else changes what is on the disk, so these are all crashes that can be told apart.
CRASHES = """openat:signal=KILL mkdir:signal=KILL mkdirat:signal=KILL symlinkat:signal=KILL write:signal=KILL
unlink:signal=KILL rmdir:signal=KILL"""
SILENT = re.compile("EINTR$|^(newfstatat|lseek|getdents64):")  # is repeated, or the daemon only looks
START_FAULTS = """socket:error=EMFILE setsockopt:error=EPERM getsockopt:error=EPERM bind:error=EADDRINUSE
listen:error=EADDRINUSE ioctl:error=ENODEV fcntl:error=EBADF fsync:error=EIO"""
STOP = "inject=pselect6:signal=TERM"  # when the daemon waits for the first time
COUNTDOWN, ALIVE, OWN, OWN_ONLY = range(4)  # what the allocation shim shares


def start(host, before=()):
    return host.daemon("syslog_priority = notice\n", before, "-d")


def play(daemon):
    """The story, a publication and a control command. Returns the lines above notice."""
    daemon.sent()
    lines = daemon.deliver(*STORY) + daemon.publish()
    with daemon.host.tcp_connection() as control:
        control.send(b"ds_ping 9\n")
    wait_until(daemon.sleeps, "the end of the command")
    return [line for line in lines + daemon.settle() if not line.startswith("notice: ")]


def states_that_stay(tree):
    """Two do, by design. Returns which part of a path each belongs to.
    - A VDisk without memberinfo/ or highest_gen_count: a creation that was cut short is not run again, nor is a removal
      once the node no longer links the VDisk, and a generation lost while it was rewritten is nowhere else.
    - A VDisk with a datastore that does not link it back: the first of the two links says that both were made."""
    stay = []
    for vdisk in "v1", "v2", "s1":
        record, link = f"VDisk/{vdisk}", f"Datastore/ds1/vdisks/{vdisk}"
        whole = f"{record}/memberinfo" in tree and len(tree.get(f"{record}/highest_gen_count", "")) > 1
        if record in tree and not whole:
            stay.append(f"/{vdisk}/")
        elif f"{record}/datastore" in tree and link not in tree:
            stay.append(link)
    return stay


@pytest.fixture
def case(host, request):
    """A case begins with the tree of the host's own programs. After the fault that happens in it the story is told once
    more, which leads to the same tree and messages as without the fault."""
    shutil.copy("/bin/true", host.path("/mnt/fence"))
    host.write("/mnt/local_nodes", "9\n")
    host.plant(LOCAL)
    daemon = start(host)
    assert play(daemon) + play(daemon) == []
    expected, published = host.tree(), daemon.sent()
    assert len(published) == 4
    daemon.end()
    cases = {}

    @contextlib.contextmanager
    def case(fault):
        cases[fault] = 0
        host.plant(LOCAL)
        own = len(host.daemons)
        yield expected, published
        links = [path for path in host.tree() if "/vdisks/" in path]
        assert all(host.path(f"/mnt/DB/{link}").exists() for link in links), "a VDisk that went before a link to it"
        for lock in host.locks():  # as an operator does
            host.remove("/tmp/" + lock)
        daemon = host.daemons[-1] if host.daemons[-1].runs() else start(host)
        play(daemon)
        assert daemon.sent() == published
        tree = host.tree()
        stay = states_that_stay(tree)
        cases[fault] = len(stay)
        wrong = [line for line in difference(expected, tree)
                 if not any(part in line.split(":")[0] + "/" for part in stay)]
        assert (fault, wrong) == (fault, [])
        while len(host.daemons) > own:
            host.daemons.pop().end()
    yield case
    print(f"\n{request.node.name}: {len(cases)} cases, {sum(cases.values())} states that stay; last", *list(cases)[-1:])


def calls_of_story(host, call):
    """Which of the calls of that name the daemon makes for the story, and not to write its log."""
    host.plant(LOCAL)
    daemon = start(host, strace("-e", f"trace={call}"))
    first = len(re.findall(rf"^{call}\(", host.read("/mnt/strace"), re.M)) + 1
    play(daemon)
    to_log = dict(enumerate(re.findall(rf"^{call}\((2,)?", host.read("/mnt/strace"), re.M), 1))
    daemon.end()
    assert first in to_log
    return [number for number in to_log if number >= first and not to_log[number]][::STEP]


@pytest.mark.parametrize("fault", (FAULTS + " " + CRASHES).split())
def test_faults_are_mended(host, case, fault):
    call = fault.partition(":")[0]
    for number in calls_of_story(host, call):
        injection = f"inject={fault}:when={number}"
        with case(injection) as (expected, published):
            daemon = start(host, strace("-ye", f"trace={call}", "-e", injection))
            if fault.endswith("KILL"):
                with pytest.raises((AssertionError, OSError)):
                    play(daemon)
                assert daemon.stop(0) == -signal.SIGKILL
                assert len(host.locks()) <= 2
            else:
                lines = play(daemon)
                failed, = re.findall(r"^(.*) \(INJECTED", host.read("/mnt/strace"), re.M)
                # A lock that could not be written, synced or removed stays: nobody counts it as held.
                stays = [] if re.search("^openat|EINTR", failed) else re.findall('/tmp/([^>"]*)', failed)
                assert host.locks() == stays, failed
                assert lines or SILENT.search(fault), f"nothing was logged of {failed}"
                if "EINTR" in fault and "O_NONBLOCK" not in failed:  # tried again at once, but for those of opendir
                    assert (difference(expected, host.tree()), daemon.sent()) == ([], published), failed


@pytest.mark.parametrize("where, most", [("/mnt", 120), ("/tmp", 1)])
def test_full_file_systems_are_mended(host, case, where, most):
    """The file system of the tree, or that of the locks, has room for so many pages more."""
    for pages in range(0, most + 1, STEP):
        with case(f"{pages} pages"):
            daemon = start(host)
            host.write(where + "/filler", "x")
            space = os.statvfs(host.path(where))
            size = (space.f_blocks - space.f_bfree + pages) * space.f_bsize
            host.shell(f"mount {where} -o remount,size={size}")
            assert play(daemon) != []
            host.shell(f"mount {where} -o remount,size=64m")


def run_to_first_wait(host, *disturbance):
    """A daemon in multicast mode with one local node and one peer, ended when it waits for the first time."""
    host.write("/mnt/local_nodes", "9\n")
    return host.run_daemon(BASE_CONFIG + "unicast_mode = 0\n", "-dC/mnt/mwd.conf", before=strace(*disturbance))


def start_and_stop(host, *disturbance):
    """The daemon comes up and is stopped, or says why not and ends with status 1. Whether a call failed."""
    status, log = run_to_first_wait(host, *disturbance)
    assert "Shutdown sequence finished!" in log or status == 1 and re.search(r"error: |regcomp\(", log), disturbance
    return "(INJECTED)" in host.read("/mnt/strace")


def test_failures_at_start_are_told(host):
    for fault in START_FAULTS.split():
        numbers = itertools.count(1)
        while start_and_stop(host, "-e", STOP, "-e", f"inject={fault}:when={next(numbers)}"):
            pass
        assert next(numbers) > 2, fault
    for path, fault in (("/mnt/mwd.pid", "write:error=ENOSPC"), ("/mnt/mwd.pid", "close:error=EIO"),
                        ("/mnt/mwd.pid", "close:error=EINTR:when=1"), ("/mnt/local_nodes", "read:error=EIO")):
        assert start_and_stop(host, "-P", path, "-P", "/mnt/unicast_hosts", "-e", "inject=openat:signal=TERM:when=2",
                              "-e", f"inject={fault}"), fault


def share_allocations(host):
    host.install("tests/alloc_shim.so")
    host.write("/mnt/alloc", bytes(32))
    with open(host.path("/mnt/alloc"), "r+b") as file:
        return memoryview(mmap.mmap(file.fileno(), 32)).cast("q")


def test_own_failed_allocations_at_start_are_told(host):
    """In their order. Behind each of the first the daemon ends; a table that could not be loaded stays as it was."""
    shared = share_allocations(host)
    shared[OWN_ONLY] = 1
    for number, (failed, status, node, peer) in enumerate([
            ("NodeListAlloc", 1, 0, 0),
            ("HostListAlloc", 1, 0, 0),  # of peers
            ("HostListAlloc", 1, 0, 0),  # of groups
            ("controller_thread_loop", 1, 0, 0),
            ("HostAlloc", 1, 0, 0),  # a group
            ("NodeListAlloc", 0, 0, 1),
            ("NodeAlloc", 0, 0, 1),
            ("HostListAlloc", 0, 1, 0),
            ("HostAlloc", 0, 1, 0)], 1):
        shared[COUNTDOWN] = number
        ended, log = run_to_first_wait(host, "-e", STOP, "-E", "LD_PRELOAD=/mnt/alloc_shim.so")
        told = re.findall(r"error: (\w+)\(\): [mc]alloc\(.*Cannot allocate memory", log)
        tables = log.count(" [1/1] 9"), log.count(" [1/1] 127.0.0.2")
        assert (number, told, ended, *tables) == (number, [failed], status, node, peer)


def test_failed_allocations_at_start_are_told(host):
    shared = share_allocations(host)
    for number in itertools.takewhile(lambda _: shared[COUNTDOWN] == 0, itertools.count(1, STEP)):
        shared[COUNTDOWN] = number
        start_and_stop(host, "-e", STOP, "-E", "LD_PRELOAD=/mnt/alloc_shim.so")
    assert number > 1


def test_failed_allocations_are_mended(host, case):
    shared = share_allocations(host)
    daemon = start(host, ["env", "LD_PRELOAD=/mnt/alloc_shim.so"])
    play(daemon)
    host.plant(LOCAL)
    shared[COUNTDOWN] = many = 1000000
    play(daemon)
    allocations = many - shared[COUNTDOWN]
    wait_until(daemon.sleeps, "sleep")
    before = shared[ALIVE]
    for number in range(1, allocations + 1, STEP):
        with case(f"allocation {number}"):
            shared[COUNTDOWN] = number
            lines = play(daemon)
            assert shared[COUNTDOWN] == 0
            assert not shared[OWN] or any("alloc(" in line for line in lines), lines
            assert host.locks() == []
        wait_until(daemon.sleeps, "sleep")
        assert shared[ALIVE] == before, f"memory was not freed after allocation {number}"
