"""Hosts made of namespaces: each with its own network, /tmp, tree on a file system of its own, and clock."""
import os
import pathlib
import signal
import subprocess
import time

CONFIG = """\
syslog_priority = err
pid_file = {directory}/mwd.pid
work_directory = {directory}/disk/DB
local_nodes = {directory}/local_nodes
unicast_mode = {unicast}
unicast_hosts = {directory}/unicast_hosts
bind_interface = eth0
fence_check = {root}/fence_check
ping_interval = {ping}
heartbeat_interval = {heartbeat}
stats_interval = 86400
"""


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, text=True, capture_output=True, **options).stdout


class Host:
    """One host of the cluster, with one local node whose number is the host's."""

    def __init__(self, cluster, number, offset):
        self.cluster, self.number, self.offset = cluster, number, offset
        self.address = "10.77.%d.%d" % (number // 250, number % 250 + 1)
        self.namespace = "%s-%d" % (cluster.name, number)
        self.port = "%s%d" % (cluster.name[:6], number)
        self.directory = cluster.root / ("host%d" % number)
        self.disk = self.directory / "disk"
        self.tree = self.disk / "DB"
        self.holder = self.daemon = None
        self.spent = 0.0  # processor seconds of daemons that are gone

    def set_up(self):
        self.disk.mkdir(parents=True)
        (self.directory / "tmp").mkdir()
        run("mount", "-t", "tmpfs", "-o", "size=2g,nr_inodes=0", "tmpfs", self.disk)
        (self.directory / "mwd.conf").write_text(CONFIG.format(
            directory=self.directory, root=self.cluster.root, unicast=int(self.cluster.unicast), ping=self.cluster.ping,
            heartbeat=self.cluster.heartbeat))
        (self.directory / "local_nodes").write_text("%d\n" % self.number)
        (self.directory / "fences").write_text("")
        self.tree.mkdir()
        self.holder = subprocess.Popen(
            ["ip", "netns", "exec", self.namespace, "sh", "-c",
             "mount --bind %s/tmp /tmp && exec sleep infinity" % self.directory], stdout=subprocess.DEVNULL)

    def wait_ready(self):
        deadline = time.monotonic() + 30
        while os.readlink("/proc/%d/exe" % self.holder.pid).split("/")[-1] != "sleep":
            if self.holder.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("host %d does not come up" % self.number)
            time.sleep(0.01)

    def inside(self, *command):
        preload = str(self.cluster.build / "bench" / "libshifted_clock.so")
        environment = ["env", "LD_PRELOAD=" + preload, "MWD_CLOCK_OFFSET=%d" % self.offset]
        return ["nsenter", "-t", str(self.holder.pid), "-n", "-m"] + environment + [str(word) for word in command]

    def start(self):
        self.daemon = subprocess.Popen(
            self.inside(self.cluster.build / "mwd", "-d", "-C", self.directory / "mwd.conf"),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=open(self.directory / "log", "a"))

    def stop(self, sig=signal.SIGTERM):
        if self.daemon is None:
            return
        self.spent += self.cpu_of_daemon()
        self.daemon.send_signal(sig)
        self.daemon.wait()
        self.daemon = None

    def mwctl(self, *arguments, check=True):
        result = subprocess.run(
            self.inside(self.cluster.build / "mwctl", "-C", self.directory / "mwd.conf", *arguments),
            text=True, capture_output=True, stdin=subprocess.DEVNULL)
        if check and result.returncode != 0:
            raise RuntimeError("host %d: mwctl %s: %d %s%s" % (
                self.number, " ".join(map(str, arguments)), result.returncode, result.stdout, result.stderr))
        return result

    def write(self, record, text):
        """What a storage program of this host does to several values at once, under the record's lock."""
        self.mwctl("lock", record, "--", "sh", "-c", "cd %s && %s" % (self.tree, text))

    def read(self, path):
        """The value of the tree, None if there is none."""
        try:
            return (self.tree / path).read_text().rstrip("\n")
        except OSError:
            return None

    def cpu_of_daemon(self):
        try:
            fields = pathlib.Path("/proc/%d/stat" % self.daemon.pid).read_text().rpartition(")")[2].split()
        except (OSError, AttributeError):
            return 0.0
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def cpu(self):
        return self.spent + self.cpu_of_daemon()

    def memory(self):
        try:
            fields = pathlib.Path("/proc/%d/stat" % self.daemon.pid).read_text().rpartition(")")[2].split()
        except (OSError, AttributeError):
            return 0
        return int(fields[21]) * os.sysconf("SC_PAGE_SIZE")

    def datagrams(self):
        """Sent, received, and lost for want of room in the receive buffer, since the host came up."""
        lines = pathlib.Path("/proc/%d/net/snmp" % self.holder.pid).read_text().splitlines()
        names, numbers = [line.split()[1:] for line in lines if line.startswith("Udp:")]
        counters = dict(zip(names, map(int, numbers)))
        return counters["OutDatagrams"], counters["InDatagrams"], counters["RcvbufErrors"]

    def fences(self):
        return (self.directory / "fences").read_text().splitlines()

    def limit_disk(self, full):
        """A full disk has room for what is there and not a page more."""
        used = int(run("df", "--output=used", "-k", self.disk).split()[-1])
        run("mount", "-o", "remount,size=%s" % ("%dk" % used if full else "2g"), self.disk)

    def tear_down(self):
        for process in (self.daemon, self.holder):
            if process is not None:
                process.kill()
                process.wait()
        subprocess.run(["umount", self.disk], capture_output=True)


class Cluster:
    """All hosts, joined by a bridge; a second bridge takes those that are cut off."""

    def __init__(self, root, build, count, unicast, ping, heartbeat, offsets):
        self.root, self.build, self.unicast, self.ping, self.heartbeat = root, build, unicast, ping, heartbeat
        self.name = "mwr%d" % (os.getpid() % 1000)
        self.hosts = [Host(self, number, offset) for number, offset in zip(range(1, count + 1), offsets)]

    def set_up(self, told=lambda text: None):
        (self.root / "fence_check").write_text(
            "#!/bin/sh\n# Told by the daemon: uuid=VDISK member=NODE. The host is known by its mount of /tmp.\n"
            "echo \"$1 $2\" >> \"$(cat /tmp/host)/fences\"\n")
        (self.root / "fence_check").chmod(0o755)
        for bridge in ("a", "b"):
            run("ip", "link", "add", self.name + bridge, "type", "bridge", "mcast_snooping", "0")
            run("ip", "link", "set", self.name + bridge, "up")
        for host in self.hosts:
            run("ip", "netns", "add", host.namespace)
            run("ip", "link", "add", host.port, "type", "veth", "peer", "name", "eth0", "netns", host.namespace)
            run("ip", "link", "set", host.port, "master", self.name + "a", "up")
            commands = "addr add %s/16 dev eth0\nlink set eth0 up\nlink set lo up\nroute add 224.0.0.0/4 dev eth0\n"
            run("ip", "-n", host.namespace, "-batch", "-", input=commands % host.address)
            host.set_up()
            (host.directory / "tmp" / "host").write_text("%s\n" % host.directory)
            (host.directory / "unicast_hosts").write_text(
                "".join("%s\n" % other.address for other in self.hosts if other is not host))
            told("%d of %d hosts" % (host.number, len(self.hosts)))
        for host in self.hosts:
            host.wait_ready()

    def join(self, hosts, bridge):
        for host in hosts:
            run("ip", "link", "set", host.port, "master", self.name + bridge)

    def tear_down(self):
        for host in self.hosts:
            host.tear_down()
            subprocess.run(["ip", "netns", "del", host.namespace], capture_output=True)
        for bridge in ("a", "b"):
            subprocess.run(["ip", "link", "del", self.name + bridge], capture_output=True)

    def sums(self, hosts):
        trees = [str(host.tree) for host in hosts]
        half = (len(trees) + 1) // 2
        parts = [subprocess.Popen([str(self.build / "bench" / "treesum")] + part, text=True, stdout=subprocess.PIPE)
                 for part in (trees[:half], trees[half:]) if part]
        return [line.split()[0] for part in parts for line in part.communicate()[0].splitlines()]

    def records(self, host):
        """The sum of each record of the host's tree."""
        lines = run(self.build / "bench" / "treesum", "-l", host.tree).splitlines()
        return {line.split(" ", 1)[1]: line.split(" ", 1)[0] for line in lines}
