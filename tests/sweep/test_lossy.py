"""Two hosts that hear each other over a link which loses, doubles and reorders datagrams, while programs of both hosts
change their records and ask for publications. Once the link is sound, one publication of each makes the trees equal."""
import os
import random
import shutil

from messages import plain
from trees import GONE, datastore_record, difference, node_record, vdisk_record

CHANGES = int(os.environ.get("MWD_LOSSY_CHANGES", 400))
SEED = int(os.environ.get("MWD_LOSSY_SEED", random.randrange(1 << 32)))


class End:
    """A host with the node of its own number, and what the link still holds of what it sent."""

    def __init__(self, host, dice):
        self.host, self.dice = host, dice
        self.uid, self.datastore = host.number, f"ds{host.number}"
        self.generations = {}  # of every VDisk there ever was: they never fall
        self.held = []
        shutil.copy("/bin/true", host.path("/mnt/fence"))
        host.write("/mnt/local_nodes", f"{self.uid}\n")
        host.plant(node_record(self.uid, self.datastore) | datastore_record(self.datastore, [self.uid]))
        self.daemon = host.daemon("syslog_priority = notice\n", options="-d")

    def store(self, changes, command):
        """As another program of the host: writes into the tree, then tells the daemon."""
        self.host.change(changes)
        with self.host.tcp_connection() as control:
            control.send(command.encode())
        self.daemon.wait_for("Closing CTRL")
        self.daemon.settle()

    def change(self):
        """The node or its datastore changes, or a VDisk goes or comes anew, with the generation it had or the next."""
        uuid, roll = f"v{self.uid}{self.dice.randrange(20)}", self.dice.randrange(1, 251)
        if self.dice.randrange(8) == 0:
            changes = {f"Node/{self.uid}/freespace": roll, f"Datastore/{self.datastore}/description": roll}
            return self.store(changes, f"ds_ping {self.uid}\n")
        gone = {f"{place}/{uuid}": GONE
                for place in ("VDisk", f"Node/{self.uid}/vdisks", f"Datastore/{self.datastore}/vdisks")}
        if self.dice.randrange(4) == 0:
            return self.store(gone, f"vdisk_deleted {self.uid} {uuid}\n")
        generation = self.generations.get(uuid, 0)
        self.generations[uuid] = generation = generation + (generation == 0 or self.dice.randrange(2))
        record = vdisk_record(plain(uuid, generation, sectors=roll, seqno=roll), [self.uid], self.datastore)
        lists = {f"VDisk/{uuid}/membership": [self.uid, roll],
                 f"VDisk/{uuid}/memberinfo/{self.uid}/frontend": [f"10.0.0.{roll}"]}
        self.host.change(gone)
        self.store(record | lists, f"single_vdisk_ping {self.uid} {uuid}\n")

    def carry(self, to, sound=False):
        """What the host sent goes to the other one: a fifth never, a fifth twice, some of it later."""
        for datagram in self.daemon.sent():
            self.held += [datagram] * (1 if sound else self.dice.choice([0, 1, 1, 1, 2]))
        if not sound:
            self.dice.shuffle(self.held)
        now = len(self.held) - (0 if sound else min(self.dice.randrange(6), len(self.held)))
        to.daemon.send(*self.held[:now])
        del self.held[:now]
        to.daemon.settle()

    def tree(self):
        return {path: value for path, value in self.host.tree().items() if not path.endswith(("/ipaddr", "/lastping"))}


def test_trees_end_equal(make_host):
    print(f"{CHANGES} changes, seed {SEED}")
    dice = random.Random(SEED)
    first, second = ends = End(make_host(1), dice), End(make_host(2), dice)
    for number in range(CHANGES):
        here, there = dice.sample(ends, 2)
        here.change()
        if number % 10 == 0:
            here.daemon.publish()
        here.carry(there)
    for publish in False, True:
        for here, there in (first, second), (second, first):
            if publish:
                here.daemon.publish()
            here.carry(there, sound=True)
    assert "Node/2/vdisks" in first.tree() and "Node/1/vdisks" in second.tree()
    assert difference(first.tree(), second.tree()) == []
