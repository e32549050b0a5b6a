"""Hosts made of namespaces, and real programs in them.

    def test_a_peer_appears(host):                           # the fixtures host and make_host are in conftest.py
        host.plant(node_record(7, "ds1"))                    # the tree, as another program of the host leaves it
        host.write("/mnt/local_nodes", "7\\n")
        daemon = host.daemon("ping_interval = 90\\n")         # runs; its end is checked when the test ends
        loud = daemon.deliver(aux_ping(8))                   # as a peer; returns all lines above info
        assert "Node/8" in host.tree() and loud == []
        listing = host.run("/bin/ls", "/mnt/DB/Node")        # any other program of the host

A host has a network, a /tmp and a /mnt of its own. Below /mnt are the programs, mwd.conf, both tables, the tree in DB,
and what a test puts there; /tmp has the path locks; /dev has null and what a test binds there. Hosts share nothing, so
tests may run side by side. The programs that are tested come from the build directory $MWD_BUILD.

Nothing here sleeps for a time: each wait is for a condition and has a deadline."""
import contextlib
import ctypes
import dataclasses
import fcntl
import os
import pathlib
import pty
import re
import select
import shutil
import signal
import socket
import stat
import subprocess
import termios
import time

import pytest

from messages import HEADER, Datagram
from trees import DEVICE, DIRECTORY, FIFO, GONE, SOCKET, Link, changed, difference

BUILD = pathlib.Path(os.environ["MWD_BUILD"])
os.environ.setdefault("ASAN_OPTIONS", "verify_asan_link_order=0")  # of daemons with a library preloaded
DEADLINE = 60  # seconds that a daemon may be silent, or a wait may last
TREE = "/mnt/DB"
MAKE_HOST = ("ip link set lo up && mount -t tmpfs mnt /mnt && mkdir /mnt/dev && mknod /mnt/dev/null c 1 3 && "
             "mount --bind /mnt/dev /dev && mount -t tmpfs tmp /tmp && echo && exec cat")
STOPPED_CLOCK = ["env", "LD_PRELOAD=/mnt/stopped_clock.so"]  # before a daemon: its time is what Host.set_clock said
# Unicast mode on loopback, no timer due, no waiting for locks.
BASE_CONFIG = """pid_file = /mnt/mwd.pid
work_directory = /mnt/DB
local_nodes = /mnt/local_nodes
unicast_mode = 1
unicast_hosts = /mnt/unicast_hosts
bind_interface = lo
fence_check = /mnt/fence
stats_interval = 86400
ping_interval = 3600
heartbeat_interval = 3600
node_lock_timeout_ms = 0
datastore_lock_timeout_ms = 0
vdisk_lock_timeout_ms = 0
"""
# A datagram too short for a header changes nothing and brings this line: a test then knows that all before is handled.
MARK, MARK_LINE = b"?", "error: controller_thread_loop(): Malformed packet? #1"


def wait_until(condition, what):
    """Looks again and again, until the condition holds. Returns its value."""
    deadline = time.monotonic() + DEADLINE
    while not (value := condition()):
        assert time.monotonic() < deadline, f"did not come: {what}"
        time.sleep(0.005)
    return value


def strace(*options):
    """What may stand before a daemon; its trace is /mnt/strace."""
    return ["strace", "-D", "-qq", "-E", "ASAN_OPTIONS=detect_leaks=0", "-o", "/mnt/strace", *options]


def no_such_file(path):
    """The line of the daemon that could not open this path below the work directory."""
    return f"error: fd_open(): open({TREE}/{path}): No such file or directory"


def nothing_in_record(name):
    """The line of the daemon that could not open a record's entry of this name."""
    return f"error: fd_openat(): openat({name}): No such file or directory"


def explain(rule, **rows):
    """A text for a failure: the rule that is broken, and each row under its title, a line for each of its elements."""
    text = rule
    for title, row in rows.items():
        if isinstance(row, dict):
            row = [f"{path}: {value!r}" for path, value in row.items()]
        lines = [str(line) for line in row] if isinstance(row, list) else [str(row)]
        for line in lines or ["none"]:
            text += f"\n  {title.replace('_', ' ') + ':':14} {line if len(line) < 1000 else line[:1000] + '...'}"
    return text


@dataclasses.dataclass(kw_only=True)
class Case:
    """A message that arrives at a host with a known tree."""
    rule: str = dataclasses.field(kw_only=False)  # what must be so, and is not if the case fails
    planted: dict = dataclasses.field(default_factory=dict)  # changes of the base tree that stand before
    sent: Datagram  # what comes
    expected: dict  # changes that it makes in the tree
    log: list = dataclasses.field(default_factory=list)  # lines above info that it brings, all of them

    def failure(self, log, differences):
        """All that a reader needs to know of a case that went wrong, or nothing if it did not."""
        if not differences and log == self.log:
            return ""
        return explain(self.rule, planted=self.planted, sent=self.sent, expected=self.expected, differs=differences,
                       log_expected=self.log, log_found=log)


class Host:
    def __init__(self, number=1):
        self.number = number  # the last part of its address on a cable
        self.daemons = []
        self.holder = subprocess.Popen(["unshare", "-nm", "/bin/sh", "-c", MAKE_HOST],
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE)  # keeps the namespaces
        assert self.holder.stdout.readline(), "a host that cannot be made"
        self.install("mwd")
        self.install("tests/stopped_clock.so")
        self.write("/mnt/local_nodes", "")
        self.write("/mnt/unicast_hosts", "127.0.0.2\n")
        self.set_clock(0)
        self.peer = self.udp_socket("127.0.0.2")  # the peer that a test plays: sends, and hears what is published

    def close(self):
        try:
            for daemon in self.daemons:
                daemon.end()
        finally:
            self.peer.close()
            self.holder.communicate()

    # ---- Files -----------------------------------------------------------------------------------------------------

    def path(self, inside):
        """Where the test finds what the host calls so."""
        return pathlib.Path(f"/proc/{self.holder.pid}/root{inside}")

    def read(self, inside):
        return self.path(inside).read_text(errors="surrogateescape")

    def write(self, inside, content, mode=None):
        if isinstance(content, str):
            content = content.encode(errors="surrogateescape")
        self.path(inside).write_bytes(content)
        if mode is not None:
            self.path(inside).chmod(mode)

    def remove(self, inside):
        path = self.path(inside)
        assert inside.startswith(("/mnt/", "/tmp/"))
        shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink(missing_ok=True)

    def install(self, program):
        """Copies a file of the build to /mnt, under the last part of its name."""
        shutil.copy(BUILD / program, self.path("/mnt/" + os.path.basename(program)))

    def set_clock(self, seconds):
        """What time it is for daemons that were started with STOPPED_CLOCK, running ones too."""
        with open(os.open(self.path("/mnt/clock"), os.O_WRONLY | os.O_CREAT), "wb") as clock:  # daemons have it mapped
            clock.write(seconds.to_bytes(8, "little"))

    # ---- The tree, in the form of trees.py -------------------------------------------------------------------------

    def plant(self, tree):
        """Makes this all of the tree and the locks."""
        self.remove(TREE)
        self.path(TREE).mkdir()
        for lock in self.locks():
            self.remove("/tmp/" + lock)
        self.add(tree)

    def add(self, changes):
        """Writes these changes into the tree as it stands, as another program of the host does."""
        for name, value in changed({}, changes).items():
            inside = name if name.startswith("/") else f"{TREE}/{name}"
            path = self.path(inside)
            if value in (FIFO, DEVICE, SOCKET) or (value is DIRECTORY and not path.is_dir()):
                self.remove(inside)
            if value is DIRECTORY:
                path.mkdir(exist_ok=True)
            elif value is FIFO:
                os.mkfifo(path)
            elif value is DEVICE:
                os.mknod(path, stat.S_IFCHR | 0o600, os.makedev(1, 3))
            elif value is SOCKET:
                with contextlib.chdir(path.parent), socket.socket(socket.AF_UNIX) as listener:
                    listener.bind(path.name)
            elif isinstance(value, Link):
                path.unlink(missing_ok=True)
                path.symlink_to(value.target)
            else:
                now = name.endswith("/lastping") and value == "now\n"
                self.write(inside, f"{int(time.time())}\n" if now else value)

    def change(self, changes):
        """As add, where GONE takes away what is there."""
        for name, value in changes.items():
            if value is GONE:
                self.remove(f"{TREE}/{name}")
        self.add({name: value for name, value in changes.items() if value is not GONE})

    def tree(self):
        """The tree and the locks. A lastping of this hour reads "now"."""
        tree = {"/tmp/" + lock: self.read("/tmp/" + lock) for lock in self.locks()}
        root = str(self.path(TREE))
        for directory, subdirectories, files in os.walk(root):
            for entry in subdirectories + files:
                path = os.path.join(directory, entry)
                tree[path[len(root) + 1:]] = self._content(path)
        return tree

    @staticmethod
    def _content(path):
        mode = os.lstat(path).st_mode
        if stat.S_ISLNK(mode):
            return Link(os.readlink(path))
        if not stat.S_ISREG(mode):
            return {stat.S_IFDIR: DIRECTORY, stat.S_IFIFO: FIFO, stat.S_IFSOCK: SOCKET}.get(stat.S_IFMT(mode), DEVICE)
        with open(path, errors="surrogateescape") as file:
            value = file.read()
        now = path.endswith("/lastping") and value.strip().isdigit() and abs(int(value) - time.time()) < 3600
        return "now\n" if now else value

    def locks(self):
        """The names of all path locks, and of whatever else lies in /tmp."""
        return sorted(os.listdir(self.path("/tmp")))

    # ---- Programs --------------------------------------------------------------------------------------------------

    def start(self, *argv, environment=None, **options):
        """Starts a program in the host's namespaces; it ends when this one does. Options are those of Popen, which is
        returned: stdin, stdout, stderr, cwd and so on. `environment` is added to the test's own."""
        enter = ["nsenter", "-t", str(self.holder.pid), "-m", "-n", "setpriv", "--pdeathsig", "KILL"]
        return subprocess.Popen([*enter, *argv], env=os.environ | (environment or {}), **options)

    def run(self, *argv, typed="", environment=None, timeout=DEADLINE):
        """Runs a program to its end. Returns its returncode, stdout and stderr; `typed` is its standard input."""
        program = self.start(*argv, environment=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True, errors="surrogateescape")
        try:
            stdout, stderr = program.communicate(typed, timeout=timeout)
        finally:
            program.kill()
        return subprocess.CompletedProcess(argv, program.returncode, stdout, stderr)

    def shell(self, command):
        """Runs a command of the shell, which must go well."""
        done = self.run("/bin/sh", "-c", command)
        assert done.returncode == 0, f"{command}: {done.stderr}"
        return done.stdout

    def terminal(self, *argv, environment=None):
        """Starts a program on a terminal of its own, where the test types and reads."""
        return Terminal(self, argv, environment)

    def daemon(self, config="", before=(), options="-dd"):
        """Starts a daemon with BASE_CONFIG and these lines, behind the words of `before` on its command line."""
        self.daemons.append(Daemon(self, config, before, options))
        return self.daemons[-1]

    def run_daemon(self, config, *options, before=()):
        """Runs a daemon to its end with this configuration and nothing more. Returns its status and its log, without
        idents and process numbers."""
        self.write("/mnt/mwd.conf", config)
        done = self.run(*before, "/mnt/mwd", *(options or ["-ddC/mnt/mwd.conf"]))
        return done.returncode, re.sub(r"^.*?\[\d+\]: ", "", done.stderr, flags=re.M)

    # ---- Network ---------------------------------------------------------------------------------------------------

    def _socket(self, kind):
        """A socket in the host's network."""
        setns = ctypes.CDLL(None).setns
        with open("/proc/self/ns/net") as own, open(f"/proc/{self.holder.pid}/ns/net") as net:
            assert setns(net.fileno(), 0) == 0
            try:
                return socket.socket(socket.AF_INET, kind)
            finally:
                assert setns(own.fileno(), 0) == 0

    def udp_socket(self, address, port=8000):
        """Bound to the address, with room for all that a daemon sends at once."""
        so = self._socket(socket.SOCK_DGRAM)
        so.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        so.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)  # SO_RCVBUFFORCE
        so.bind((address, port))
        return so

    def tcp_connection(self, address="127.0.0.1", port=31337):
        """Connected; to the daemon's control port if nothing else is said."""
        so = self._socket(socket.SOCK_STREAM)
        so.connect((address, port))
        return so

    def connect(self, other):
        """Lays a cable: each host has the address 10.0.0.NUMBER on its eth0."""
        self.shell(f"ip link add eth0 type veth peer eth0 netns {other.holder.pid}")
        for host in self, other:
            host.shell(f"ip addr add 10.0.0.{host.number}/24 dev eth0 && ip link set eth0 up")


class Terminal:
    """A program on a terminal. `output` is all that it wrote so far."""

    def __init__(self, host, argv, environment):
        self.output = ""
        self.master, slave = pty.openpty()
        self.program = host.start(
            *argv, environment=environment, stdin=slave, stdout=slave, stderr=slave, start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(slave, termios.TIOCSCTTY, 0))
        os.close(slave)

    def type(self, text):
        """As a person does: \\n is the return key, \\x03 interrupts."""
        os.write(self.master, text.encode())

    def wait_for(self, text):
        """Reads until the text stands in the output."""
        wait_until(lambda: text in self.output or not self._read(), f"{text!r} on the terminal: {self.output!r}")
        assert text in self.output, f"the program ended without {text!r}: {self.output!r}"

    def end(self):
        """Reads to the program's end. Returns its status, that of a signal as a negative number."""
        wait_until(lambda: not self._read(), f"the end of the program: {self.output!r}")
        os.close(self.master)
        return self.program.wait(DEADLINE)

    def _read(self):
        if not select.select([self.master], [], [], 0.1)[0]:
            return True
        try:
            self.output += os.read(self.master, 65536).decode(errors="surrogateescape")
        except OSError:  # the last one that had the terminal is gone
            return False
        return True


class Daemon:
    """A daemon in its foreground. Its end checks its status, its descriptors and the locks. A step of its log is what
    it wrote between two calls of settle."""

    def __init__(self, host, config, before, options):
        self.host = host
        self.log = []  # every line so far, without ident and process number
        self.first = self.next = 0  # bounds of the last step in the log
        self.marks_sent = self.marks_seen = 0
        host.write("/mnt/mwd.conf", BASE_CONFIG + config)
        ours, theirs = socket.socketpair()
        ours.settimeout(DEADLINE)
        theirs.setsockopt(socket.SOL_SOCKET, 32, 8 << 20)  # SO_SNDBUFFORCE: it never waits for the test
        self.process = host.start(*before, "/mnt/mwd", "-C", "/mnt/mwd.conf", options, stderr=theirs)
        self.pid = self.process.pid
        theirs.close()
        self.stderr = ours.makefile("r", errors="surrogateescape", newline="\n")
        self.wait_for("load_unicast_hosts(): Loading")
        self.settle()
        self.descriptors_at_start = self.descriptors()

    # ---- Its end ---------------------------------------------------------------------------------------------------

    def runs(self):
        return self.process.returncode is None

    def end(self):
        """Stops it, if it still runs, and sees that it leaves nothing behind."""
        if self.runs():
            self.settle()
            assert self.descriptors() == self.descriptors_at_start, "a descriptor was not closed"
            assert self.host.locks() == [], "a lock was not released"
            assert self.stop() == 0
            assert self.log[-1] == "notice: controller_module_teardown(): Shutdown sequence finished!"

    def stop(self, number=signal.SIGTERM):
        """Sends the signal and waits for the end. Returns the status."""
        self.process.send_signal(number)
        status = self.process.wait(DEADLINE)
        while self._read_line():
            pass
        return status

    # ---- Its log ---------------------------------------------------------------------------------------------------

    def _read_line(self):
        """Takes the next line; false at the daemon's end."""
        line = self.stderr.readline()
        if not line:
            return False
        self.log.append(re.sub(r"^.*?\[\d+\]: ", "", line.rstrip("\n")))
        self.marks_seen += self.log[-1] == MARK_LINE
        return True

    def _read_until(self, done, what):
        deadline = time.monotonic() + DEADLINE
        while not done():
            assert self._read_line(), f"a daemon that ended after {self.log[-1:]}, waiting for {what}"
            assert time.monotonic() < deadline, f"{what} did not come"

    def wait_for(self, text):
        """Until a line of this step holds the text."""
        seen = self.next

        def done():
            nonlocal seen
            lines, seen = self.log[seen:], len(self.log)
            return any(text in line for line in lines)
        self._read_until(done, text)

    def settle(self):
        """Waits until all that was sent is handled: datagrams are taken in order, and the mark is the last of them.
        Ends the step and returns its lines above info."""
        self.send(MARK)
        self._read_until(lambda: self.marks_seen == self.marks_sent, "the handling of all datagrams")
        self.first, self.next = self.next, len(self.log)
        return [line for line in self.log[self.first:self.next - 1] if not line.startswith(("debug: ", "info: "))]

    def told(self, begin):
        """Of the last step's lines that begin so, the rest."""
        return [line.removeprefix(begin) for line in self.log[self.first:self.next] if line.startswith(begin)]

    # ---- What is done to it ----------------------------------------------------------------------------------------

    def send(self, *datagrams):
        for datagram in datagrams:
            self.marks_sent += len(datagram) < HEADER.size
            self.host.peer.sendto(datagram, ("127.0.0.1", 8000))

    def deliver(self, *datagrams):
        """Sends them and waits until they are handled. Returns the lines above info."""
        self.send(*datagrams)
        return self.settle()

    def check(self, base, *cases):
        """Goes through the cases, each with the base tree planted afresh and changed as it says, and fails with all
        that went wrong."""
        failures = []
        for case in cases:
            planted = changed(base, case.planted)
            self.host.plant(planted)
            log = self.deliver(case.sent)
            failures.append(case.failure(log, difference(changed(planted, case.expected), self.host.tree())))
        self.host.plant({})
        if any(failures):
            pytest.fail("\n" + "\n".join(filter(None, failures)), pytrace=False)

    def publish(self):
        """SIGUSR1 and the publication that it forces. Returns the lines above info."""
        self.process.send_signal(signal.SIGUSR1)
        return self.settle()

    def reload(self):
        """SIGHUP and the tables that it reads; a signal just before the loop waits is seen a turn later. Returns the
        lines above info."""
        self.process.send_signal(signal.SIGHUP)
        self.wait_for("load_unicast_hosts(): Loading")
        return self.settle()

    # ---- What it does ----------------------------------------------------------------------------------------------

    def sent(self, so=None):
        """All datagrams that wait at the host's peer, or at that socket."""
        datagrams = []
        with contextlib.suppress(BlockingIOError):
            while True:
                datagrams.append(Datagram((so or self.host.peer).recv(65536, socket.MSG_DONTWAIT)))
        return datagrams

    def sleeps(self):
        assert self.process.poll() is None, f"a daemon that ended after {self.log[-1:]}"
        return ") S " in pathlib.Path(f"/proc/{self.pid}/stat").read_text()

    def descriptors(self):
        """How many are open while the daemon waits: every log line opens a socket for a moment."""
        wait_until(self.sleeps, f"a daemon that waits: {self.log[-1:]}")
        return len(os.listdir(f"/proc/{self.pid}/fd"))
