"""Messages as peers send them, and the records that say the same in a database tree.

Every field has a value of its own. A VDisk is a dict of its entry's fields; a report is its bytes and its lists.
A tree maps a path below the root, or "/tmp/..." for a lock, to a file's content, "-> target" of a link, or "/" of a
directory."""
import socket
import struct

PING, DS_PING, HEARTBEAT, SINGLE_VDISK_PING, VDISK_DELETED, AUX_PING = 4, 16, 32, 33, 34, 35


def message(kind, uid, body=b"", version=(2, 1)):
    return struct.pack("<BBBBI32s32sII24s64s32sIBH", *version, kind, 2, uid, b"vendor", b"model", 1001, 1002, b"rev",
                       b"serial", b"hbtl", 1003, 104, 1005) + body


def ds_ping(uid, dsuuid):
    return message(DS_PING, uid, struct.pack("<14s32s32sIHHB", dsuuid.encode(), b"dsname", b"dsdescr", 512, 2, 3, 4))


def aux_ping(uid):
    return message(AUX_PING, uid, struct.pack("<x7I", 28, 201, 202, 203, 204, 205, 206))


def vdisk_deleted(uid, uuid):
    return message(VDISK_DELETED, uid, struct.pack("<I14s", uid, uuid.encode()))


def plain(uuid, gen=5, **fields):
    vdisk = dict(transaction_id=0, uuid=uuid, digits="%02d" % (gen % 100), name="name", gen=gen, sector_size=301,
                 numkeys=302, sectors=303, seqno=304, description=b"descr", status=5, port=306, replicas=307, st_mem=8,
                 st_mems=9, st_size=310, snapshot=0, parent=None)
    return vdisk | fields


def snapshot(uuid, parent, gen=5, **fields):
    description = struct.pack("<BBHBBB14s", 11, 3, 7, 9, 5, 2, parent.encode())
    return plain(uuid, gen, snapshot=1, parent=parent, description=description, **fields)


def report(vdisk, members=(7,), frontends=("10.0.0.1",)):
    v = vdisk
    entry = struct.pack("<I14s2s28s", v["transaction_id"], v["uuid"].encode(), v["digits"].encode(), v["name"].encode())
    entry += struct.pack(">H", v["gen"])
    entry += struct.pack("<IQQQ32sBHHBBHHHH", *(v[field] for field in (
        "sector_size", "numkeys", "sectors", "seqno", "description", "status", "port", "replicas", "st_mem", "st_mems",
        "st_size", "snapshot")), len(members), len(frontends))
    lists = struct.pack("<%dI" % len(members), *members)
    return entry + lists + b"".join(socket.inet_aton(address)[::-1] for address in frontends)


def edit(tree, edits, directory=""):
    """The tree after edits of paths below the directory, separated by blanks: "path=a|b" is a file of the lines a and
    b, "path:a" one that holds "a" without a newline, "path>target" a link, "path/" a directory; "-path" is gone with
    all that begins so. "V/" at the start stands for VDisk/v1/, "M7/" and "M8/" for its memberinfo/7/ and 8/."""
    tree = dict(tree)
    for word in edits.split(" "):
        at = next((i for i, char in enumerate(word) if char in "=:>"), len(word))
        path, mark, value = directory + word[:at].removeprefix("-"), word[at:at + 1], word[at + 1:].replace("|", "\n")
        for sign, place in ("V/", "VDisk/v1/"), ("M7/", "VDisk/v1/memberinfo/7/"), ("M8/", "VDisk/v1/memberinfo/8/"):
            if path.startswith(sign):
                path = place + path.removeprefix(sign)
        if word.startswith("-"):
            tree = {name: content for name, content in tree.items() if not name.startswith(path)}
        elif word:
            tree[path] = {"=": value + "\n", ":": value, ">": "-> " + value, "": "/"}[mark]
    return tree


def diff(before, after):
    """What differs, a line each: "+path: now", "-path: before", "~path: before => now"."""
    lines = []
    for path in sorted(before.keys() | after.keys()):
        old, now = before.get(path), after.get(path)
        if old != now:
            sign = "+" if old is None else "-" if now is None else "~"
            lines.append("%s%s: %s" % (sign, path, " => ".join(repr(x) for x in (old, now) if x is not None)))
    return lines


def node_record(uid, dsuuid=""):
    """As a peer's AUX_PING leaves it, and as the host's other programs write it for a local node."""
    return edit({"Node/": "/", f"Node/{uid}/": "/"},
                "vdisks/ version=v2.1 status=1 nodestatus=2 vendor=vendor model=model freespace=1001 utilization=1002 "
                "revision=rev serial=serial hbtl=hbtl size=1003 performance=104 hostid=1005 backupchannel=0.0.0.0 "
                "ipaddr=127.0.0.2 lastping=now allocatedspace=201 curvdisks=202 curvdisksforctrl=203 "
                f"maxvdisksforctrl=204 memtotal=205 memavail=206 uuid={uid}" +
                (f" datastoremember={dsuuid}" if dsuuid else ""), f"Node/{uid}/")


def datastore_record(uuid, *members):
    links = "".join(f" members/{uid}>../../../Node/{uid}" for uid in members)
    return edit({"Datastore/": "/", f"Datastore/{uuid}/": "/"}, "members/ vdisks/ name=dsname description=dsdescr "
                f"sector_size=512 replicas=2 stripes=3 overcommit=4 uuid={uuid}" + links, f"Datastore/{uuid}/")


def vdisk_record(vdisk, members=(7,), dsuuid=""):
    """As reports of all its members leave it, each with one frontend, with the links in nodes and datastore."""
    v, uuid = vdisk, vdisk["uuid"]
    kind = f"snaptime=11-03-07_09.05.02 parent={v['parent']}" if v["snapshot"] else "snapshots/ description=descr"
    tree = edit({"VDisk/": "/", f"VDisk/{uuid}/": "/"}, f"memberinfo/ uuid={uuid} name={v['name']} "
                f"sector_size={v['sector_size']} sectors={v['sectors']} replicas={v['replicas']} "
                f"st_mems={v['st_mems']} st_size={v['st_size']} snapshot={v['snapshot']} "
                f"highest_gen_count={v['gen']} {kind}", f"VDisk/{uuid}/")
    if members:
        tree[f"VDisk/{uuid}/membership"] = "".join(f"{uid}\n" for uid in members)
    for uid in members:
        tree = edit(tree | {f"VDisk/{uuid}/memberinfo/{uid}/": "/"},
                    f"numkeys={v['numkeys']} seqno={v['seqno']} status={v['status']} port={v['port']} "
                    f"st_mem={v['st_mem']} frontend=10.0.0.1 membership_gen_count={v['gen']} "
                    f"nodestatus>../../../../Node/{uid}/status" + ("" if v["snapshot"] else " snap_limit=10"),
                    f"VDisk/{uuid}/memberinfo/{uid}/")
    holders = [f"Node/{uid}" for uid in members] + ([f"Datastore/{dsuuid}"] if dsuuid else [])
    tree |= {f"{holder}/vdisks/{uuid}": f"-> ../../../VDisk/{uuid}" for holder in holders}
    return tree | ({f"VDisk/{uuid}/datastore": f"-> ../../Datastore/{dsuuid}"} if dsuuid else {})
