"""Two hosts that hear each other over a link which loses, doubles and reorders datagrams, while programs of both hosts
change their records and ask for publications. Once the link is sound, one publication of each makes the trees equal."""
import os
import random
import shutil
import socket

from old_harness import Daemon
from records import datastore_record, diff, edit, node_record, plain, vdisk_record

CHANGES = int(os.environ.get("MWD_LOSSY_CHANGES", 400))
SEED = int(os.environ.get("MWD_LOSSY_SEED", random.randrange(1 << 32)))


class End:
    """A host with the node of its own number, and what the link still holds of what it sent."""

    def __init__(self, host, dice):
        self.host, self.dice = host, dice
        self.uid, self.ds = str(host.number), f"ds{host.number}"
        self.generations = {}  # of every VDisk there ever was: they never fall
        self.held = []
        shutil.copy("/bin/true", host.path("/mnt/fence"))
        host.write("/mnt/local_nodes", f"{self.uid}\n")
        host.put(node_record(self.uid, self.ds) | datastore_record(self.ds, self.uid))
        self.daemon = Daemon(host, "syslog_priority = notice\n", options="-d")

    def store(self, record, command):
        """As another program of the host: writes into the tree, then tells the daemon."""
        self.host.add(record)
        with self.host.socket(socket.SOCK_STREAM, "127.0.0.1", 31337) as control:
            control.send(command.encode())
        self.daemon.wait_for("Closing CTRL")
        self.daemon.sync()

    def change(self):
        """The node or its datastore changes, or a VDisk goes or comes anew, with the generation it had or the next."""
        vdisk, roll = f"v{self.uid}{self.dice.randrange(20)}", self.dice.randrange(1, 251)
        if self.dice.randrange(8) == 0:
            return self.store(edit({}, f"Node/{self.uid}/freespace={roll} Datastore/{self.ds}/description={roll}"),
                              f"ds_ping {self.uid}\n")
        for directory in "VDisk", f"Node/{self.uid}/vdisks", f"Datastore/{self.ds}/vdisks":
            self.host.remove(f"/mnt/DB/{directory}/{vdisk}")
        if self.dice.randrange(4) == 0:
            return self.store({}, f"vdisk_deleted {self.uid} {vdisk}\n")
        generation = self.generations.get(vdisk, 0)
        self.generations[vdisk] = generation = generation + (generation == 0 or self.dice.randrange(2))
        record = edit(vdisk_record(plain(vdisk, generation), [self.uid], self.ds),
                      f"sectors={roll} membership={self.uid}|{roll} memberinfo/{self.uid}/seqno={roll} "
                      f"memberinfo/{self.uid}/frontend=10.0.0.{roll}", f"VDisk/{vdisk}/")
        self.store(record, f"single_vdisk_ping {self.uid} {vdisk}\n")

    def carry(self, to, sound=False):
        """What the host sent goes to the other one: a fifth never, a fifth twice, some of it later."""
        for datagram in self.daemon.sent():
            self.held += [datagram] * (1 if sound else self.dice.choice([0, 1, 1, 1, 2]))
        if not sound:
            self.dice.shuffle(self.held)
        now = len(self.held) - (0 if sound else min(self.dice.randrange(6), len(self.held)))
        to.daemon.send(*self.held[:now])
        del self.held[:now]
        to.daemon.sync()

    def tree(self):
        return {path: value for path, value in self.host.tree().items() if not path.endswith(("/ipaddr", "/lastping"))}


def test_trees_end_equal(make_host):
    print(f"{CHANGES} changes, seed {SEED}")
    dice = random.Random(SEED)
    a, b = ends = End(make_host(1), dice), End(make_host(2), dice)
    for number in range(CHANGES):
        here, there = dice.sample(ends, 2)
        here.change()
        if number % 10 == 0:
            here.daemon.publish()
        here.carry(there)
    for publish in False, True:
        for here, there in (a, b), (b, a):
            if publish:
                here.daemon.publish()
            here.carry(there, sound=True)
    assert "Node/2/vdisks/" in a.tree() and "Node/1/vdisks/" in b.tree()
    assert diff(a.tree(), b.tree()) == []
