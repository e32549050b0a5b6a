"""Hosts (a network and a mount namespace each) and real daemons in them.

A host's files are below /mnt: the daemon mwd, mwd.conf, the tree in DB, both tables, and what a test puts there; /dev
holds null and what a test binds there, /tmp the locks. The program that is tested is $MWD_BUILD/mwd."""
import ctypes
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import time

from records import diff, edit

BUILD = pathlib.Path(os.environ["MWD_BUILD"])
os.environ.setdefault("ASAN_OPTIONS", "verify_asan_link_order=0")  # of daemons with a library preloaded
DEADLINE = 60  # seconds that a daemon may be silent, or a wait may last
TOO_SHORT = "error: controller_thread_loop(): Malformed packet? #1"
MAKE_HOST = ("ip link set lo up && mount -t tmpfs mnt /mnt && mkdir /mnt/dev && mknod /mnt/dev/null c 1 3 && "
             "mount --bind /mnt/dev /dev && mount -t tmpfs tmp /tmp && echo && exec cat")
STOPPED_CLOCK = ["env", "LD_PRELOAD=/mnt/clock.so"]  # the time is what Host.set_clock said
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


def strace(*options):
    """What may stand in front of the daemon's command line; its trace is /mnt/strace."""
    return ["strace", "-D", "-qq", "-E", "ASAN_OPTIONS=detect_leaks=0", "-o", "/mnt/strace", *options]


def kinds(datagrams):
    names = {4: "PING", 16: "DS", 32: "BEAT", 33: "SINGLE", 34: "GONE", 35: "AUX"}
    return " ".join(f"{names[datagram[2]]}:{len(datagram)}" for datagram in datagrams)


class Host:
    def __init__(self, number=1):
        self.number = number  # the last part of its address on a wire
        self.daemons = []
        self.holder = subprocess.Popen(["unshare", "-nm", "/bin/sh", "-c", MAKE_HOST],
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE)  # keeps the namespaces
        assert self.holder.stdout.readline(), "a host that cannot be made"
        shutil.copy(BUILD / "mwd", self.path("/mnt/mwd"))
        shutil.copy(BUILD / "tests/stopped_clock.so", self.path("/mnt/clock.so"))
        self.write("/mnt/local_nodes", "")
        self.write("/mnt/unicast_hosts", "127.0.0.2\n")
        self.set_clock(0)
        self.peer = self.socket(socket.SOCK_DGRAM, "127.0.0.2", 8000)

    def close(self):
        try:
            for daemon in self.daemons:
                daemon.end()
        finally:
            self.peer.close()
            self.holder.communicate()

    def path(self, inside):
        return pathlib.Path(f"/proc/{self.holder.pid}/root{inside}")

    def read(self, inside):
        return self.path(inside).read_text(errors="surrogateescape")

    def write(self, inside, content):
        if isinstance(content, str):
            content = content.encode(errors="surrogateescape")
        self.path(inside).write_bytes(content)

    def remove(self, inside):
        path = self.path(inside)
        assert inside.startswith(("/mnt/", "/tmp/"))
        shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink(missing_ok=True)

    def put(self, tree):
        """As all of the tree and the locks."""
        self.remove("/mnt/DB")
        self.path("/mnt/DB").mkdir()
        for lock in self.locks():
            self.remove("/tmp/" + lock)
        self.add(tree)

    def add(self, tree):
        for name, value in tree.items():
            inside = name if name.startswith("/") else "/mnt/DB/" + name
            if value == "/":
                self.path(inside).mkdir(parents=True, exist_ok=True)
            elif value.startswith("-> "):
                self.path(inside).parent.mkdir(parents=True, exist_ok=True)
                self.path(inside).symlink_to(value[3:])
            else:
                self.write(inside, value)

    def tree(self):
        """The tree and the locks; a "lastping" of this hour reads "now"."""
        tree = {"/tmp/" + lock: self.read("/tmp/" + lock) for lock in self.locks()}
        root = str(self.path("/mnt/DB"))
        for directory, subdirectories, files in os.walk(root):
            for entry in subdirectories + files:
                path = os.path.join(directory, entry)
                name = path[len(root) + 1:]
                if os.path.islink(path):
                    tree[name] = "-> " + os.readlink(path)
                elif os.path.isdir(path):
                    tree[name + "/"] = "/"
                else:
                    tree[name] = value = self.read("/mnt/DB/" + name)
                    if entry == "lastping" and value.strip().isdigit() and abs(int(value) - time.time()) < 3600:
                        tree[name] = "now\n"
        return tree

    def locks(self):
        return sorted(os.listdir(self.path("/tmp")))

    def set_clock(self, seconds):
        with open(os.open(self.path("/mnt/clock"), os.O_WRONLY | os.O_CREAT), "wb") as clock:  # daemons have it mapped
            clock.write(seconds.to_bytes(8, "little"))

    def spawn(self, *argv, **options):
        """A program in the host, which ends when this one does."""
        return subprocess.Popen(["nsenter", "-t", str(self.holder.pid), "-m", "-n", "setpriv", "--pdeathsig", "KILL",
                                 *argv], **options)

    def shell(self, command):
        assert self.spawn("/bin/sh", "-c", command).wait() == 0, command

    def run(self, config, *options, prefix=()):
        """Runs the daemon to its end with this configuration and nothing more. Returns its status and stderr."""
        self.write("/mnt/mwd.conf", config)
        daemon = self.spawn(*prefix, "/mnt/mwd", *(options or ["-ddC/mnt/mwd.conf"]), stderr=subprocess.PIPE)
        err = daemon.communicate(timeout=DEADLINE)[1].decode(errors="surrogateescape")
        return daemon.returncode, re.sub(r"^.*?\[\d+\]: ", "", err, flags=re.M)

    def socket(self, kind, address, port):
        """A socket in the host's network: UDP bound to the address, or TCP connected to it."""
        setns = ctypes.CDLL(None).setns
        with open("/proc/self/ns/net") as own, open(f"/proc/{self.holder.pid}/ns/net") as net:
            assert setns(net.fileno(), 0) == 0
            try:
                so = socket.socket(socket.AF_INET, kind)
            finally:
                assert setns(own.fileno(), 0) == 0
        so.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        so.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)  # SO_RCVBUFFORCE
        (so.bind if kind == socket.SOCK_DGRAM else so.connect)((address, port))
        return so


class Daemon:
    """A daemon in its foreground. Its end checks its status, its descriptors and the locks."""

    def __init__(self, host, config="", prefix=(), options="-dd"):
        self.host = host
        self.log = []  # every line so far, without ident and process number
        self.first = self.next = 0  # bounds of the last step in the log
        self.shorts = self.shorts_seen = 0  # datagrams that are too short for a header
        host.write("/mnt/mwd.conf", BASE_CONFIG + config)
        ours, theirs = socket.socketpair()
        ours.settimeout(DEADLINE)
        theirs.setsockopt(socket.SOL_SOCKET, 32, 8 << 20)  # SO_SNDBUFFORCE
        self.process = host.spawn(*prefix, "/mnt/mwd", "-C", "/mnt/mwd.conf", options, stderr=theirs)
        self.pid = self.process.pid
        theirs.close()
        self.err = ours.makefile("r", errors="surrogateescape", newline="\n")
        host.daemons.append(self)
        self.wait_for("load_unicast_hosts(): Loading")
        self.sync()
        self.descriptors_at_start = self.descriptors()

    def end(self):
        """Stops it, if it still runs."""
        if self.process.returncode is None:
            self.sync()
            assert self.descriptors() == self.descriptors_at_start, "a descriptor was not closed"
            assert self.host.locks() == [], "a lock was not released"
            assert self.stop() == 0
            assert self.log[-1] == "notice: controller_module_teardown(): Shutdown sequence finished!"

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        status = self.process.wait(DEADLINE)
        while self.pump():
            pass
        return status

    def pump(self):
        """Takes the next line; false at the daemon's end."""
        line = self.err.readline()
        if not line:
            return False
        self.log.append(re.sub(r"^.*?\[\d+\]: ", "", line.rstrip("\n")))
        self.shorts_seen += self.log[-1] == TOO_SHORT
        return True

    def pump_until(self, done, what):
        deadline = time.monotonic() + DEADLINE
        while not done():
            assert self.pump(), f"a daemon that ended after {self.log[-1:]}, waiting for {what}"
            assert time.monotonic() < deadline, f"{what} did not come"

    def wait_for(self, text):
        """In a line since the last sync."""
        seen = self.next

        def done():
            nonlocal seen
            lines, seen = self.log[seen:], len(self.log)
            return any(text in line for line in lines)
        self.pump_until(done, text)

    def send(self, *datagrams):
        for datagram in datagrams:
            self.shorts += len(datagram) < 207
            self.host.peer.sendto(datagram, ("127.0.0.1", 8000))

    def sync(self):
        """Waits until all that was sent is handled: datagrams are taken in order, and one that is too short shows in
        the log and nowhere else. Returns the lines above info since the last call, @ for "/mnt/DB/"."""
        self.send(b"?")
        self.pump_until(lambda: self.shorts_seen == self.shorts, "all datagrams")
        self.first, self.next = self.next, len(self.log)
        return [line.replace("/mnt/DB/", "@").replace("No such file or directory", "ENOENT")
                for line in self.log[self.first:self.next - 1] if not line.startswith(("debug: ", "info: "))]

    def step(self, begin):
        """The lines of the last sync's step that begin so, without that."""
        return [line.removeprefix(begin) for line in self.log[self.first:self.next] if line.startswith(begin)]

    def apply(self, *datagrams):
        self.send(*datagrams)
        return self.sync()

    def check(self, datagram, after, lines=()):
        assert self.apply(datagram) == list(lines)
        assert diff(after, self.host.tree()) == []

    def check_each(self, base, cases):
        """Edits of a tree, a message that then arrives, the edits that it must make, and the lines above info."""
        for before, datagram, after, lines in cases:
            self.host.put(edit(base, before))
            got, wrong = self.apply(datagram), diff(edit(edit(base, before), after), self.host.tree())
            assert (before, after, got, wrong) == (before, after, lines, [])
        self.host.put({})

    def publish(self):
        """SIGUSR1 and the pass that it forces."""
        self.process.send_signal(signal.SIGUSR1)
        return self.sync()

    def reload(self):
        """SIGHUP and what it reads; a signal just before the loop waits is seen a turn later."""
        self.process.send_signal(signal.SIGHUP)
        self.wait_for("load_unicast_hosts(): Loading")
        return self.sync()

    def sent(self, so=None):
        """All that waits at the host's peer, or that socket."""
        datagrams = []
        try:
            while True:
                datagrams.append((so or self.host.peer).recv(65536, socket.MSG_DONTWAIT))
        except BlockingIOError:
            return datagrams

    def descriptors(self):
        """Counted while the daemon waits: every log line opens a socket for a moment."""
        deadline = time.monotonic() + DEADLINE
        while ") S " not in pathlib.Path(f"/proc/{self.pid}/stat").read_text():
            assert self.process.poll() is None and time.monotonic() < deadline, f"no daemon that waits: {self.log[-1:]}"
        return len(os.listdir(f"/proc/{self.pid}/fd"))
