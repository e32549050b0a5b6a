"""Datagrams as peers send them, written from their format and not from the daemon's headers.

    ping(7, report(plain("v1")), report(snapshot("s1", "v1")))      what node 7 says of its two VDisks
    single_vdisk_ping(8, report(plain("v1", generation=6), members=[7, 8], frontends=[]))

Fields have the names that mwd-protocol(7) gives them, and each has a usual value of its own, so that one which ends in
the wrong place shows. A datagram prints as its fields, of which those with their usual values are left out."""
import socket
import struct

PING, DS_PING, HEARTBEAT, SINGLE_VDISK_PING, VDISK_DELETED, AUX_PING = 4, 16, 32, 33, 34, 35
NAMES = {PING: "PING", DS_PING: "DS_PING", HEARTBEAT: "HEARTBEAT", SINGLE_VDISK_PING: "SINGLE_VDISK_PING",
         VDISK_DELETED: "VDISK_DELETED", AUX_PING: "AUX_PING"}


class Layout:
    """The fields of a wire record in their order: a name and a format of the module struct, little-endian unless it
    says otherwise. A text may be given as str or bytes; what is read of it loses the zeros at its end."""

    def __init__(self, **fields):
        self.fields = {name: code if code[0] in "<>" else "<" + code for name, code in fields.items()}
        self.size = sum(map(struct.calcsize, self.fields.values()))

    def pack(self, values):
        assert values.keys() == self.fields.keys(), f"not a value for each field: {values.keys() ^ self.fields.keys()}"
        return b"".join(struct.pack(code, value.encode() if isinstance(value, str) else value)
                        for code, value in ((code, values[name]) for name, code in self.fields.items()))

    def unpack(self, content):
        values, offset = {}, 0
        for name, code in self.fields.items():
            value, = struct.unpack_from(code, content, offset)
            values[name] = value.rstrip(b"\0").decode(errors="backslashreplace") if code[-1] == "s" else value
            offset += struct.calcsize(code)
        return values


HEADER = Layout(major="B", minor="B", type="B", nodestatus="B", uid="I", vendor="32s", model="32s", freespace="I",
                utilization="I", rev="24s", serial="64s", hbtl="32s", size="I", performance="B", hostid="H")
CAPACITY = Layout(byte_207="B", length="I", allocatedspace="I", curvdisks="I", curvdisksforctrl="I",
                  maxvdisksforctrl="I", memtotal="I", memavail="I")
DATASTORE = Layout(uuid="14s", name="32s", description="32s", sector_size="I", replicas="H", stripes="H",
                   overcommit="B")
VDISK = Layout(transaction_id="I", uuid="14s", old_mshipgencnt="2s", name="28s", mshipgencnt=">H", sector_size="I",
               numkeys="Q", sectors="Q", seqno="Q", description="32s", status="B", port="H", replicas="H", st_mem="B",
               st_mems="B", st_size="H", snapshot="H", members="H", frontends="H")
TIME_AND_PARENT = Layout(y="B", m="B", d="H", H="B", M="B", S="B", parent="14s")  # a Snapshot's description
DELETION = Layout(node="I", uuid="14s")

USUAL_HEADER = dict(major=2, minor=1, nodestatus=2, vendor="vendor", model="model", freespace=1001, utilization=1002,
                    rev="rev", serial="serial", hbtl="hbtl", size=1003, performance=104, hostid=1005)
USUAL_CAPACITY = dict(byte_207=0, length=28, allocatedspace=201, curvdisks=202, curvdisksforctrl=203,
                      maxvdisksforctrl=204, memtotal=205, memavail=206)
USUAL_DATASTORE = dict(name="dsname", description="dsdescr", sector_size=512, replicas=2, stripes=3, overcommit=4)
USUAL_VDISK = dict(transaction_id=0, name="name", sector_size=301, numkeys=302, sectors=303, seqno=304,
                   description="descr", status=5, port=306, replicas=307, st_mem=8, st_mems=9, st_size=310, snapshot=0)
USUAL_TIME = dict(y=11, m=3, d=7, H=9, M=5, S=2)


class Datagram(bytes):
    """A message that prints as what it says."""

    @property
    def kind(self):
        return NAMES.get(self[2], f"type {self[2]}")

    def cut(self, length):
        return Datagram(self[:length])

    def __add__(self, more):
        return Datagram(bytes(self) + more)

    def __repr__(self):
        if len(self) < HEADER.size:
            return f"<{len(self)} bytes>"
        header = HEADER.unpack(self)
        parts, rest = [f"{self.kind}{_unusual(header, USUAL_HEADER, 'type')}"], bytes(self[HEADER.size:])
        if header["type"] in (PING, SINGLE_VDISK_PING):
            while len(rest) >= VDISK.size:
                text, rest = _describe_report(rest)
                parts.append(text)
        for kind, name, layout, usual in ((DS_PING, "datastore", DATASTORE, USUAL_DATASTORE),
                                          (AUX_PING, "capacity", CAPACITY, USUAL_CAPACITY),
                                          (VDISK_DELETED, "deleted", DELETION, {})):
            if header["type"] == kind and len(rest) >= layout.size:
                parts.append(name + _unusual(layout.unpack(rest), usual))
                rest = rest[layout.size:]
        if rest:
            parts.append(f"and {len(rest)} bytes {rest[:40]!r}")
        return f"<{'; '.join(parts)}; {len(self)} bytes>"

    __str__ = __repr__


def _unusual(values, usual, *hidden):
    return "".join(f" {name}={value}" for name, value in values.items()
                   if usual.get(name) != value and name not in hidden)


def _describe_report(content):
    vdisk, offset = VDISK.unpack(content), VDISK.size
    usual, lists = USUAL_VDISK, []
    if vdisk["snapshot"]:
        vdisk |= TIME_AND_PARENT.unpack(content[78:])
        usual = usual | USUAL_TIME | {"snapshot": 1, "description": vdisk["description"]}
    for count in vdisk.pop("members"), vdisk.pop("frontends"):
        whole = min(count, (len(content) - offset) // 4)
        lists.append([f"{number}" for number in struct.unpack_from(f"<{whole}I", content, offset)])
        lists[-1] += ["missing"] * (count - whole)
        offset += 4 * whole
    frontends = [word if word == "missing" else socket.inet_ntoa(struct.pack(">I", int(word))) for word in lists[1]]
    text = f"VDisk{_unusual(vdisk, usual)} members={','.join(lists[0][:20])} frontends={','.join(frontends[:20])}"
    return text, content[offset:]


def message(type, uid, body=b"", **header):
    """A header of this type and node, with other than the usual values as given, and what stands behind it."""
    return Datagram(HEADER.pack(USUAL_HEADER | header | {"type": type, "uid": uid}) + body)


def heartbeat(uid):
    return message(HEARTBEAT, uid)


def ds_ping(uid, datastore=None):
    """The node is a member of this datastore; of none without one."""
    body = DATASTORE.pack(USUAL_DATASTORE | {"uuid": datastore}) if datastore is not None else b""
    return message(DS_PING, uid, body)


def aux_ping(uid, **header):
    return message(AUX_PING, uid, CAPACITY.pack(USUAL_CAPACITY), **header)


def ping(uid, *reports, **header):
    return message(PING, uid, b"".join(reports), **header)


def single_vdisk_ping(uid, *reports, **header):
    return message(SINGLE_VDISK_PING, uid, b"".join(reports), **header)


def vdisk_deleted(uid, uuid, node=None):
    return message(VDISK_DELETED, uid, DELETION.pack({"node": uid if node is None else node, "uuid": uuid}))


def plain(uuid, generation=5, **fields):
    """What a node says of a Plain VDisk: the fields of its entry, but for the lists behind it."""
    digits = f"{generation % 100:02}"
    return USUAL_VDISK | {"uuid": uuid, "mshipgencnt": generation, "old_mshipgencnt": digits} | fields


def snapshot(uuid, parent, generation=5, **fields):
    """What a node says of a Snapshot of the VDisk `parent`."""
    description = TIME_AND_PARENT.pack(USUAL_TIME | {"parent": parent})
    return plain(uuid, generation, snapshot=1, description=description, **fields)


def report(vdisk, members=(7,), frontends=("10.0.0.1",)):
    """The bytes of one VDisk in a PING or SINGLE_VDISK_PING: its entry and both lists."""
    entry = VDISK.pack(vdisk | {"members": len(members), "frontends": len(frontends)})
    addresses = b"".join(socket.inet_aton(address)[::-1] for address in frontends)  # little-endian numbers
    return entry + struct.pack(f"<{len(members)}I", *members) + addresses
