"""Database trees as values: a dict from each path below the work directory to what is there.

A file is its content, as text. Besides there are Link("../target"), DIRECTORY, and what else is no file: FIFO, SOCKET,
DEVICE. A path lock stands in the same dict under its own path: {"/tmp/NODE-7": ""}. Where a test writes, a number n is
short for the attribute file "n\\n", a list for the file with a line for each element, and the directories above a path
come along. GONE takes away a path and all below it.

    tree = node_record(7, "ds1") | datastore_record("ds1", members=[7]) | vdisk_record(plain("v1"), datastore="ds1")
    torn = changed(tree, {"VDisk/v1/sectors": "30", "VDisk/v1/membership": [7, 8], "Node/7/vdisks/v1": GONE})"""
import dataclasses
import enum

from messages import TIME_AND_PARENT


class Special(enum.Enum):
    DIRECTORY, FIFO, SOCKET, DEVICE, GONE = "a directory", "a FIFO", "a socket", "a device", "nothing"

    def __repr__(self):
        return self.value


DIRECTORY, FIFO, SOCKET, DEVICE, GONE = Special


@dataclasses.dataclass(frozen=True)
class Link:
    target: str


def changed(tree, changes):
    """The tree after these changes. What is put in place of a directory takes away all that was below it."""
    tree = dict(tree)
    for path, value in changes.items():
        if path in tree and value is not DIRECTORY:
            tree = {other: content for other, content in tree.items() if not (other + "/").startswith(path + "/")}
        if value is GONE:
            continue
        above = path.split("/")[:-1] if not path.startswith("/") else []
        for depth in range(1, len(above) + 1):
            tree.setdefault("/".join(above[:depth]), DIRECTORY)
        if isinstance(value, (list, tuple)):
            value = "".join(f"{element}\n" for element in value)
        tree[path] = f"{value}\n" if isinstance(value, int) else value
    return tree


def difference(expected, found):
    """A line for each path where two trees differ."""
    return [f"{path}: expected {expected.get(path, GONE)!r}, found {found.get(path, GONE)!r}"
            for path in sorted(expected.keys() | found.keys()) if expected.get(path) != found.get(path)]


def attributes(directory, **values):
    """Attribute files of a record: of each value its text and a newline."""
    return {f"{directory}/{key}": value if isinstance(value, (list, Link)) else f"{value}\n"
            for key, value in values.items()}


def node_record(uid, datastore=None, **values):
    """As an AUX_PING and a DS_PING of a peer leave it, and as the host's other programs write it for a local node."""
    node = f"Node/{uid}"
    usual = dict(version="v2.1", uuid=uid, status=1, nodestatus=2, vendor="vendor", model="model", freespace=1001,
                 utilization=1002, revision="rev", serial="serial", hbtl="hbtl", performance=104, hostid=1005,
                 size=1003, backupchannel="0.0.0.0", ipaddr="127.0.0.2", lastping="now", allocatedspace=201,
                 curvdisks=202, curvdisksforctrl=203, maxvdisksforctrl=204, memtotal=205, memavail=206)
    if datastore:
        usual["datastoremember"] = datastore
    return changed({}, {f"{node}/vdisks": DIRECTORY} | attributes(node, **usual | values))


def datastore_record(uuid, members=(), **values):
    """With the links to its members. Each of them has a record that names it."""
    datastore = f"Datastore/{uuid}"
    usual = dict(uuid=uuid, name="dsname", description="dsdescr", sector_size=512, replicas=2, stripes=3, overcommit=4)
    links = {f"{datastore}/members/{uid}": Link(f"../../../Node/{uid}") for uid in members}
    return changed({}, {f"{datastore}/members": DIRECTORY, f"{datastore}/vdisks": DIRECTORY} | links |
                   attributes(datastore, **usual | values))


def member_record(vdisk, uid, frontends=("10.0.0.1",)):
    """A node's share of a VDisk, as its report leaves it."""
    member = f"VDisk/{vdisk['uuid']}/memberinfo/{uid}"
    values = {key: vdisk[key] for key in ("numkeys", "seqno", "status", "port", "st_mem")}
    if not vdisk["snapshot"]:
        values["snap_limit"] = 10
    return attributes(member, membership_gen_count=vdisk["mshipgencnt"], frontend=list(frontends),
                      nodestatus=Link(f"../../../../Node/{uid}/status"), **values)


def vdisk_record(vdisk, members=(7,), datastore=None):
    """As reports of all its members leave it, each with one frontend; with the links in nodes and datastore."""
    uuid = vdisk["uuid"]
    record = f"VDisk/{uuid}"
    values = {key: vdisk[key]
              for key in ("name", "sector_size", "sectors", "replicas", "st_mems", "st_size", "snapshot")}
    if vdisk["snapshot"]:
        values |= {"parent": TIME_AND_PARENT.unpack(vdisk["description"])["parent"], "snaptime": "11-03-07_09.05.02"}
    else:
        values |= {"description": vdisk["description"]}
    tree = attributes(record, uuid=uuid, highest_gen_count=vdisk["mshipgencnt"], **values)
    tree[f"{record}/memberinfo"] = DIRECTORY
    if not vdisk["snapshot"]:
        tree[f"{record}/snapshots"] = DIRECTORY
    if members:
        tree[f"{record}/membership"] = list(members)
    for uid in members:
        tree |= member_record(vdisk, uid) | {f"Node/{uid}/vdisks/{uuid}": Link(f"../../../{record}")}
    if datastore:
        tree |= {f"{record}/datastore": Link(f"../../Datastore/{datastore}"),
                 f"Datastore/{datastore}/vdisks/{uuid}": Link(f"../../../{record}")}
    return changed({}, tree)
