"""A cluster of real daemons through a bad day; after each phase the question whether all hosts see the same."""
import argparse
import json
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import hosts as machines

MEMBERS = 3  # of each VDisk
POLL = 0.1


class VDisk:
    """What the storage programs of its members agree on."""

    def __init__(self, name, members, parent=None):
        self.name, self.members, self.parent, self.generation = name, list(members), parent, 1


def say(text):
    sys.stderr.write(text + "\n")


def progress(text):
    if sys.stderr.isatty():
        sys.stderr.write("\r\033[K  " + text)


class Rehearsal:
    def __init__(self, options, root):
        self.options, self.random = options, random.Random(options.seed)
        count = options.hosts
        offsets = [self.random.randrange(-1800, 1801) for _ in range(count)]
        self.cluster = machines.Cluster(root, options.build, count, options.unicast, *self.intervals(), offsets)
        self.hosts = self.cluster.hosts
        self.vdisks, self.freespace, self.serial, self.rows, self.faults = {}, {}, 0, [], []
        self.raises = {}  # VDisk: how many raises the storage programs agreed on

    def intervals(self):
        """A ping interval in which this machine can apply what all hosts say to all hosts, with room to spare."""
        count = self.options.hosts
        work = count * count * (0.0007 + 0.00013 * self.options.vdisks) / os.cpu_count()
        ping = max(4, round(work / 0.5 + 0.5))
        return self.options.ping or ping, max(2, (self.options.ping or ping) // 3)

    # What storage programs do, each on its own host.

    def create(self, vdisk):
        first = self.host(vdisk.members[0])
        for uid in vdisk.members:
            arguments = ["new", "vdisk", vdisk.name, "--node", uid]
            if vdisk.parent:
                arguments += ["--snapshot-of", vdisk.parent]
            arguments += ["membership=" + ",".join(map(str, vdisk.members)), "generation=%d" % vdisk.generation,
                          "sectors=2048", "frontend=" + first.address]
            if vdisk.parent:
                arguments.append("snaptime=31-04-05_06.07.08")
            self.host(uid).mwctl(*arguments)
        self.vdisks[vdisk.name] = vdisk
        return [(("VDisk/%s/memberinfo/%d/membership_gen_count" % (vdisk.name, uid)), str(vdisk.generation))
                for uid in vdisk.members]

    def raise_generation(self, vdisk, members=None):
        """The members that stay write the new list and generation; peers hear of it by their PINGs."""
        vdisk.members = list(members or vdisk.members)
        vdisk.generation += 1
        self.raises[vdisk.name] = self.raises.get(vdisk.name, 0) + 1
        lines = "\\n".join(map(str, vdisk.members)) + "\\n"
        for uid in vdisk.members:
            self.host(uid).write(
                "vdisk/" + vdisk.name,
                "cd VDisk/{0} && printf '{1}' >membership && echo {2} >memberinfo/{3}/membership_gen_count && "
                "echo {2} >highest_gen_count".format(vdisk.name, lines, vdisk.generation, uid))
        return [("VDisk/%s/highest_gen_count" % vdisk.name, str(vdisk.generation)),
                ("VDisk/%s/membership" % vdisk.name, "\n".join(map(str, vdisk.members)))]

    def drop(self, vdisk):
        for uid in vdisk.members:
            self.host(uid).mwctl("drop", "vdisk", vdisk.name, "--node", uid)
        del self.vdisks[vdisk.name]
        return [("VDisk/%s" % vdisk.name, None)]

    def change_freespace(self, host):
        self.serial += 1
        host.mwctl("set", "node/%d" % host.number, "freespace=%d" % self.serial)
        self.freespace[host.number] = self.serial
        return [("Node/%d/freespace" % host.number, str(self.serial))]

    def host(self, uid):
        return self.hosts[uid - 1]

    def new_vdisk(self, among):
        self.serial += 1
        group = [host.number for host in among if host.number % self.datastores == among[0].number % self.datastores]
        return VDisk("v%05d" % self.serial, sorted(self.random.sample(group, min(MEMBERS, len(group)))))

    # Agreement.

    def agree(self, facts, among, limit=None):
        """
        Waits until each host holds all facts; returns the seconds that each took. A fact is a path and its value, or
        None for a path that is to be gone.
        """
        begin = time.monotonic()
        limit = limit or 6 * self.cluster.ping + 60
        pending = {host: list(facts) for host in among}
        taken = {}
        while pending:
            for host in list(pending):
                left = pending[host]
                while left and self.holds(host, *left[-1]):
                    left.pop()
                if not left:
                    taken[host] = time.monotonic() - begin
                    del pending[host]
            progress("%d of %d hosts agree after %.1f s" % (len(taken), len(among), time.monotonic() - begin))
            if pending and time.monotonic() - begin > limit:
                host, left = next(iter(pending.items()))
                self.fault("%d hosts do not agree after %d s; host %d: %s is %r, not %r" % (
                    len(pending), limit, host.number, left[-1][0], host.read(left[-1][0]), left[-1][1]))
                break
            time.sleep(POLL)
        return [taken.get(host, limit) for host in among]

    @staticmethod
    def holds(host, path, value):
        if value is None:
            return not os.path.lexists(host.tree / path)
        return host.read(path) == value

    def fault(self, text):
        progress("")
        say("  FAULT: " + text)
        self.faults.append(text)

    def compare(self, phase):
        """All trees equal? Differences are counted by record; a round more is allowed for reports under way."""
        deadline = time.monotonic() + 2 * self.cluster.ping + 10
        while True:
            sums = self.cluster.sums(self.hosts)
            if len(set(sums)) == 1:
                return
            if time.monotonic() > deadline:
                break
            time.sleep(1)
        common = max(set(sums), key=sums.count)
        model = self.cluster.records(self.hosts[sums.index(common)])
        for host, own in zip(self.hosts, sums):
            if own == common:
                continue
            records = self.cluster.records(host)
            differing = sorted(name for name in model.keys() | records.keys() if model.get(name) != records.get(name))
            self.fault("%s: host %d differs in %s" % (phase, host.number, ", ".join(differing[:6])))

    def check_all(self, phase, allowed=()):
        """mwctl check on every host names what never heals, and nothing else. Returns the hosts that name something."""
        named = []
        for host in self.hosts:
            answer = json.loads(host.mwctl("--json", "check", check=False).stdout)
            codes = {trouble["code"] for trouble in answer["troubles"]}
            if codes:
                named.append(host)
            for trouble in answer["troubles"]:
                if trouble["code"] not in allowed:
                    self.fault("%s: host %d: %s %s: %s" % (
                        phase, host.number, trouble["code"], trouble["record"], trouble["text"]))
        return named

    # Measuring.

    def counters(self):
        datagrams = [host.datagrams() for host in self.hosts]
        return {"cpu": [host.cpu() for host in self.hosts], "sent": sum(d[0] for d in datagrams),
                "lost": sum(d[2] for d in datagrams), "fences": [len(host.fences()) for host in self.hosts],
                "wall": time.monotonic()}

    def phase(self, name, act):
        say("%s" % name)
        before = self.counters()
        taken = sorted(act())
        after = self.counters()
        self.compare(name)
        cpu = [b - a for a, b in zip(before["cpu"], after["cpu"])]
        row = {"phase": name, "median": taken[len(taken) // 2],
               "p99": taken[min(len(taken) - 1, len(taken) * 99 // 100)],
               "worst": taken[-1], "sent": after["sent"] - before["sent"], "lost": after["lost"] - before["lost"],
               "cpu_host": max(cpu), "cpu_all": sum(cpu), "wall": after["wall"] - before["wall"],
               "memory": sum(host.memory() for host in self.hosts),
               "fences": sum(after["fences"]) - sum(before["fences"])}
        self.rows.append(row)
        progress("")
        say("  agreement: median %.1f s, 99th %.1f s, worst %.1f s; %d datagrams sent, %d lost; "
            "CPU %.2f s the busiest host, %.1f s all; memory %.0f MiB; %d fence checks" % (
                row["median"], row["p99"], row["worst"], row["sent"], row["lost"], row["cpu_host"], row["cpu_all"],
                row["memory"] / 2 ** 20, row["fences"]))

    def check_fences(self):
        """Each raise at most once a host: for no VDisk has a host run more checks than there were raises."""
        for host in self.hosts:
            ran = {}
            for line in host.fences():
                uuid = line.split()[0].partition("=")[2]
                ran[uuid] = ran.get(uuid, 0) + 1
            for uuid, count in ran.items():
                if count > self.raises.get(uuid, 0):
                    self.fault("host %d ran %d fence checks for %d raises of %s" % (
                        host.number, count, self.raises.get(uuid, 0), uuid))

    # The day.

    def first_records(self):
        self.datastores = max(1, len(self.hosts) // 20)
        for host in self.hosts:
            progress("records of host %d" % host.number)
            host.mwctl("new", "node", host.number, "--datastore", "ds%d" % (host.number % self.datastores))
        wanted = max(2, len(self.hosts) * self.options.vdisks // MEMBERS)
        facts = []
        for number in range(wanted):
            progress("%d of %d VDisks" % (number, wanted))
            among = self.hosts[number % self.datastores::self.datastores]
            vdisk = self.new_vdisk(among)
            parents = [other for other in self.vdisks.values() if not other.parent and other.members == vdisk.members]
            if number % 4 == 3 and self.vdisks:
                vdisk.parent = self.random.choice(
                    parents or [other for other in self.vdisks.values() if not other.parent]).name
                vdisk.members = list(self.vdisks[vdisk.parent].members)
            facts += self.create(vdisk)
        return facts

    def cold_start(self):
        facts = self.first_facts + [("Node/%d/status" % host.number, "1") for host in self.hosts]
        for host in self.hosts:
            host.start()
        return self.agree(facts, self.hosts)

    def change_one(self):
        return self.agree(self.change_freespace(self.random.choice(self.hosts)), self.hosts)

    def change_everywhere(self):
        facts = []
        for vdisk in self.sample_vdisks(len(self.hosts)):
            facts += self.raise_generation(vdisk)
        for host in self.hosts:
            facts += self.change_freespace(host)
        return self.agree(facts, self.hosts)

    def sample_vdisks(self, most):
        everything = sorted(self.vdisks.values(), key=lambda vdisk: vdisk.name)
        return self.random.sample(everything, min(most, len(everything)))

    def rolling_restart(self):
        facts = []
        for host in self.hosts:
            host.stop()
            facts += self.change_freespace(host)
            host.start()
        return self.agree(facts, self.hosts)

    def cut_and_heal(self):
        lost = self.random.sample(self.hosts, max(1, len(self.hosts) // 3))
        kept = [host for host in self.hosts if host not in lost]
        self.cluster.join(lost, "b")
        facts = {side: [] for side in ("lost", "kept")}
        for side, among in (("lost", lost), ("kept", kept)):
            numbers = {host.number for host in among}
            for host in among:
                facts[side] += self.change_freespace(host)
            whole = [vdisk for vdisk in self.vdisks.values() if set(vdisk.members) <= numbers and not vdisk.parent and
                     not any(other.parent == vdisk.name for other in self.vdisks.values())]
            if whole:
                facts[side] += self.drop(self.random.choice(sorted(whole, key=lambda vdisk: vdisk.name)))
            if len(among) >= MEMBERS * self.datastores:
                facts[side] += self.create(self.new_vdisk(among))
            for vdisk in self.sample_vdisks(len(among)):
                staying = [uid for uid in vdisk.members if uid in numbers]
                if MEMBERS > len(staying) > MEMBERS // 2:
                    facts[side] += self.raise_generation(vdisk, staying)
            self.agree(facts[side], among)
        self.cluster.join(lost, "a")
        return self.agree(facts["lost"] + facts["kept"], self.hosts)

    def kill_and_mend(self):
        victims = self.random.sample(self.hosts, max(1, len(self.hosts) // 10))
        facts = []
        for host in self.hosts:
            facts += self.change_freespace(host)
            host.mwctl("publish", "all")
        for host in victims:
            time.sleep(self.random.random() * 0.05)
            host.stop(signal.SIGKILL)
        for host in victims:
            host.mwctl("locks", "--break")
            host.mwctl("check", "--repair", "--yes", check=False)
            host.start()
        return self.agree(facts, self.hosts)

    def full_disks(self):
        victims = self.random.sample(self.hosts, max(1, len(self.hosts) // 10))
        for host in victims:
            host.limit_disk(True)
        facts = []
        among = [host for host in self.hosts if host not in victims]
        for _ in range(max(1, len(self.hosts) // 10)):
            if len(among) >= MEMBERS:
                facts += self.create(self.new_vdisk(among))
        for host in among:
            facts += self.change_freespace(host)
        self.agree(facts, among)
        for host in victims:
            host.limit_disk(False)
        self.named = []
        time.sleep(1.2 * self.cluster.ping)
        for host in victims:
            answer = host.mwctl("--json", "check", "--repair", "--yes", check=False)
            self.named += json.loads(answer.stdout)["repaired"]
        return self.agree(facts, self.hosts)

    def clocks_apart(self):
        facts = []
        for host in self.random.sample(self.hosts, max(1, len(self.hosts) // 3)):
            host.stop()
            host.offset += 3600 if host.offset < 0 else -3600
            host.start()
        for host in self.hosts:
            facts += self.change_freespace(host)
        return self.agree(facts, self.hosts)

    def day(self):
        say("%d hosts, %d VDisks a host with %d members each, %s, seed %d" % (
            len(self.hosts), self.options.vdisks, MEMBERS, "unicast" if self.options.unicast else "multicast",
            self.options.seed))
        say("compressed: a PING every %d s instead of 90 s, a HEARTBEAT every %d s instead of 30 s" % (
            self.cluster.ping, self.cluster.heartbeat))
        self.cluster.set_up(progress)
        self.first_facts = self.first_records()
        for name, act in (("cold start", self.cold_start), ("a change on one host", self.change_one),
                          ("changes everywhere at once", self.change_everywhere),
                          ("rolling restart", self.rolling_restart),
                          ("a third cut off, changed on both sides, healed", self.cut_and_heal),
                          ("a tenth killed in mid-write, locks broken, started", self.kill_and_mend),
                          ("disks full for a while", self.full_disks), ("clocks an hour apart", self.clocks_apart)):
            self.phase(name, act)
        self.steady()
        self.check_fences()
        # A clock that was set back leaves times that lie ahead until the node is heard again, which it has been.
        self.check_all("at the end")

    def steady(self):
        """Two intervals with nothing to do but what the clock asks for: what a host costs."""
        before = self.counters()
        time.sleep(2 * self.cluster.ping)
        after = self.counters()
        seconds = after["wall"] - before["wall"]
        cpu = [b - a for a, b in zip(before["cpu"], after["cpu"])]
        share = sum(cpu) / seconds * self.cluster.ping / 90
        self.steady_row = {"cpu_all": sum(cpu) / seconds, "cpu_host": sum(cpu) / seconds / len(cpu),
                           "share_at_default": share, "lost": after["lost"] - before["lost"],
                           "sent": after["sent"] - before["sent"],
                           "memory": sum(host.memory() for host in self.hosts)}
        say("steady: all hosts together take %.1f %% of a core, %.1f %% at the default intervals; "
            "%d of %d datagrams lost" % (
                100 * self.steady_row["cpu_all"], 100 * share, self.steady_row["lost"], self.steady_row["sent"]))


def main():
    parser = argparse.ArgumentParser(prog="scripts/rehearse")
    parser.add_argument("hosts", type=int, nargs="?", default=100)
    parser.add_argument("vdisks", type=int, nargs="?", default=20)
    parser.add_argument("--unicast", action="store_true", help="unicast instead of multicast")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(10 ** 6))
    parser.add_argument("--ping", type=int, help="seconds between PINGs")
    parser.add_argument("--build", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--json", type=pathlib.Path, help="write the figures to this file")
    parser.add_argument("--keep-logs", type=pathlib.Path, help="copy the daemons' logs there")
    options = parser.parse_args()
    options.build = options.build.resolve()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    root = pathlib.Path(tempfile.mkdtemp(prefix="mwd-rehearse-", dir="/run"))
    rehearsal = Rehearsal(options, root)
    try:
        rehearsal.day()
    except KeyboardInterrupt:
        say("\ninterrupted; taking everything down")
        return 130
    finally:
        if options.keep_logs:
            options.keep_logs.mkdir(parents=True, exist_ok=True)
            for host in rehearsal.hosts:
                if (host.directory / "log").exists():
                    shutil.copy(host.directory / "log", options.keep_logs / ("host%d.log" % host.number))
        rehearsal.cluster.tear_down()
        subprocess.run(["rm", "-rf", "--one-file-system", root])
    if options.json:
        options.json.write_text(json.dumps({
            "hosts": options.hosts, "vdisks": options.vdisks, "unicast": options.unicast, "seed": options.seed,
            "ping": rehearsal.cluster.ping, "phases": rehearsal.rows, "steady": rehearsal.steady_row,
            "faults": rehearsal.faults}, indent=1) + "\n")
    say("all hosts agree after every phase" if not rehearsal.faults else "%d faults; replay with --seed %d" % (
        len(rehearsal.faults), options.seed))
    return 1 if rehearsal.faults else 0


if __name__ == "__main__":
    sys.exit(main())
