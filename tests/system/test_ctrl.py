"""The control channel, and what is published when something cannot be read."""
import re
import resource
import socket

from old_harness import STOPPED_CLOCK, Daemon, kinds
from records import (DS_PING, HEARTBEAT, PING, SINGLE_VDISK_PING, aux_ping, datastore_record, ds_ping, edit, message,
                     node_record, plain, report, snapshot, vdisk_deleted, vdisk_record)

TREE = (node_record(7, "ds1") | datastore_record("ds1") | vdisk_record(plain("v1")) |
        vdisk_record(snapshot("s1", "v1")) | node_record(8))
DS_7, SINGLE = ds_ping(7, "ds1"), message(SINGLE_VDISK_PING, 7, report(plain("v1")))
SENT_8 = [message(DS_PING, 8), aux_ping(8), message(PING, 8), message(HEARTBEAT, 8)]


class Client:
    """Tells what the daemon logs above info until it has read all that is said, P for the client's address."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.socket = daemon.host.socket(socket.SOCK_STREAM, "127.0.0.1", 31337)
        self.heard("accept_ctrl_conn(): ")

    def heard(self, last):
        self.daemon.wait_for(last)
        return [re.sub(r"127.0.0.1:\d+", "P", line) for line in self.daemon.sync()]

    def say(self, text, last="handle_ctrl_cmd(): "):
        self.socket.sendall(text.encode())
        return self.heard(last)


def test_one_line_is_taken_from_each_read(host):
    host.put(TREE)
    host.write("/mnt/local_nodes", "7\n8\n")
    d = Daemon(host)
    client, resets = Client(d), Client(d)
    d.sent()
    op, uuid, noise = "handle_ctrl_cmd(): ", "u" * 14, "n" * 1023
    for text, line, *sent in [
            ("ds_ping 7\n", "DS_PING Node=7", DS_7), ("DS_PinG 7\r\n", "DS_PING Node=7", DS_7),
            ("ds_ping 7\nds_ping 8\n", "DS_PING Node=7", DS_7), ("ds_pingpong 8\n", "DS_PING Node=8", SENT_8[0]),
            ("ds_ping  7\n", "DS_PING Node= 7"), ("ds_ping 7 \n", "DS_PING Node=7 "), ("ds_ping 9\n", "DS_PING Node=9"),
            ("single_vdisk_ping 7 v1\n", "SINGLE_VDISK_PING Node=7 VDisk=v1", SINGLE, aux_ping(7)),
            ("single_vdisk_ping 7 v1\rx\n", "SINGLE_VDISK_PING Node=7 VDisk=v1\rx"),
            ("single_vdisk_ping  7 v1\n", "SINGLE_VDISK_PING Node= VDisk=7 v1"),
            ("single_vdisk_ping 8 v1\n", "SINGLE_VDISK_PING Node=8 VDisk=v1"),
            ("vdisk_deleted 8 a b \n", "VDISK_DELETED Node=8 VDisk=a b ", vdisk_deleted(8, "a b "), aux_ping(8)),
            (f"vdisk_deleted 7 {uuid}\n", f"VDISK_DELETED Node=7 VDisk={uuid}", vdisk_deleted(7, uuid), aux_ping(7))]:
        assert (text, client.say(text), d.sent()) == (text, [f"notice: {op}MSG from CTRL client P: {line}"], sent)
    for text, line in [
            ("ds_pin 7\n", "ds_pin 7"), (" ds_ping 7\n", " ds_ping 7"), ("\r\n", ""), ("ds_ping\t7\n", "Node ds_ping"),
            ("single_vdisk_ping\n", "Node single_vdisk_ping"), ("SINGLE_VDISK_PING 7\n", "VDisk single_vdisk_ping"),
            ("vdisk_deleted\n", "Node vdisk_deleted"), ("vdisk_deleted 7\n", "VDisk vdisk_deleted"),
            ("ds_pi", "Malformed CTRL MSG ds_pi"), ("ds_ping 7\0\n", "Malformed CTRL MSG ds_ping 7")]:
        line = re.sub("^(Node|VDisk) ", r"Missing \1 UUID for CTRL ", line)
        word = f"error: {op}" if line[:1] == "M" else f"notice: {op}MSG (ignored) from CTRL client P: "
        assert (text, client.say(text), d.sent()) == (text, [word + line], [])
    assert client.say(f"vdisk_deleted 7 {uuid}e\n")[1:] == [
        f"error: send_vdisk_deleted(): Oversized VDISK_DELETED from Node 7 VDisk {uuid}e"]
    assert client.say(noise + "ds_ping 8\n", "MSG from") == [  # one read takes 1023 bytes, the next one the rest
        f"error: {op}Malformed CTRL MSG {noise}", f"notice: {op}MSG from CTRL client P: DS_PING Node=8"]
    assert (d.sent(), d.sent(client.socket)) == (SENT_8[:1], []), "nothing is ever answered"
    resets.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, (1).to_bytes(8, "little"))  # on, 0 s
    for closes, line in ((client, "notice: serve_ctrl_conn(): EOF from CTRL client P"),
                         (resets, "error: serve_ctrl_conn(): read(P): Connection reset by peer")):
        closes.socket.close()
        assert closes.heard("Closing") == [line, "notice: CtrlConnFree(): Closing CTRL connection from P"]


def test_connections_do_not_starve_the_daemon(make_host):
    """They take what select can hold, or what the limit on open files leaves, and the tree still has its share."""
    resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
    for limit, most in ("-n 4096", 1024), ("-Sn 256", 1024), ("-n 256", 192), ("-n 100", 50):
        d = Daemon(make_host(), prefix=["/bin/sh", "-c", f'ulimit {limit}; exec "$0" "$@"'])
        clients = [Client(d) for _ in range(most - d.descriptors() + 20)]  # one is accepted in a turn
        assert sum(f"Too many CTRL connections: descriptor {most} of " in line for line in d.log) == 20
        assert d.descriptors() == most
        d.check(aux_ping(7), node_record(7))
        for client in clients:
            client.socket.close()


def test_what_can_be_read_is_published(host):
    """What cannot stops the messages that need it, and those of this node alone."""
    host.write("/mnt/local_nodes", "7\n8\n")
    d = Daemon(host, "heartbeat_interval=30\n", STOPPED_CLOCK)
    client = Client(d)
    # When all timers are due, and on each of three commands, by what there is not.
    sent = {"none": "DS AUX PING BEAT/SINGLE AUX/DS/GONE AUX", "Node": "///", "links": "BEAT//DS/GONE AUX",
            "Datastore": "AUX PING BEAT/SINGLE AUX//GONE AUX", "membership": "DS AUX PING BEAT//DS/GONE AUX",
            "v0": "DS AUX BEAT/SINGLE AUX/DS/GONE AUX", "s1": "DS AUX BEAT/SINGLE AUX/DS/GONE AUX",
            "v1": "DS AUX BEAT//DS/GONE AUX", "space": "DS AUX BEAT//DS/GONE AUX", "way": "DS AUX BEAT/AUX/DS/GONE AUX"}
    load, fits, long = "NodeLoad_VDisks(): ", "f" * 233, "f" * 234  # in a path of 255 bytes, and in one of 256
    full = "-VDisk/s1/ -Node/7/vdisks/s1 V/membership=7" + "|7" * 16299  # a PING of 65536 bytes
    stray = "send_pings(): Local node 7 not part of any data store but references vdisks!?"
    rows = [
        ("none", ""), ("none", f"Node/7/vdisks/{fits}=x"), ("Node", "/tmp/NODE-7:"), ("v1", "/tmp/VDISK-v1:"),
        ("v1", "V/transaction_id=x", "VDiskLoad(): Failed to load @VDisk/v1/transaction_id: 0"),
        ("none", "Datastore/ds1/name: Node/7/vendor: Node/7/backupchannel=x Node/7/freespace=12x V/description:"),
        ("none", "Node/7/vdisks/0123456789abcde>x", load + "Malformed symlink @Node/7/vdisks/0123456789abcde"),
        *[("links", f"Node/7/vdisks/{long}{mark}x", f"{load}Path @Node/7/vdisks/{long} too long!!!") for mark in "=>"],
        ("links", "-Node/7/vdisks/", load + "opendir(@Node/7/vdisks): ENOENT"),
        ("membership", "-Node/7/datastoremember", stray), ("none", "Node/7/datastoremember=", stray),
        ("Node", "Node/7/version=v9", "NodeLoad(): Malformed @Node/7/version: v9"),
        ("Node", "Node/7/nodestatus=1 Node/7/backupchannel=x", "NodeLoad(): inet_pton(x): 0"),
        ("Datastore", "/tmp/DS-ds1:"), ("Datastore", "-Datastore/ds1/", "fd_open(): open(@Datastore/ds1): ENOENT"),
        ("v0", "Node/7/vdisks/v0>x", "fd_open(): open(@VDisk/v0): ENOENT"),
        *[("v1", f"V/membership{text}", "MembershipLoad(): Malformed file @VDisk/v1/membership")
          for text in (":7", "=5|0", "=7||8", "=7|x8")],
        *[("v1", f"M7/frontend=10.0.0.1|{ip}", f"FrontendsLoad(): inet_pton({ip}): 0") for ip in ("", "010.0.0.1")],
        ("v1", "M7/frontend:10.0.0.1", "FrontendsLoad(): Malformed file @VDisk/v1/memberinfo/7/frontend"),
        ("v1", "-M7/", "fd_openat(): openat(7): ENOENT"),
        ("s1", "VDisk/s1/snaptime=1-2-3_4.5", "VDiskLoad(): Malformed @VDisk/s1/snaptime: 1-2-3_4.5"),
        ("s1", "VDisk/s1/parent=", "VDiskLoad(): Malformed @VDisk/s1/parent: "),
        ("way", full, "xmit_msg(): sendto(127.0.0.2:8000, 65536): Message too long"),
        ("space", full + "|7", "send_pings(): Oversized PING from Node 7")]
    unread = "Node/7/uuid", "Node/7/status", "lastping", "ipaddr", "datastoremember", "highest_gen_count", "snap_limit"
    for path in (path for path in TREE if "/" not in TREE[path] and "Node/8" not in path and not path.endswith(unread)):
        kind, uuid, *_, name = path.split("/")
        failed = [] if name in ("membership", "frontend") else [f"{kind}Load(): Failed to load @{path}: -1"]
        rows.append((uuid if kind == "VDisk" else kind, f"-{path}", f"fd_openat(): openat({name}): ENOENT", *failed))
    for clock, (lacks, edits, *lines) in enumerate(rows, 2):
        stop = [f"send_pings(): PING from Node 7 not sent due to VDisk {lacks} error"] if lacks in "v0 v1 s1" else []
        host.put(edit(TREE, edits))
        host.set_clock(30 * clock)
        told, published = d.publish(), sorted(d.sent(), key=lambda datagram: datagram[4])  # by node
        datagrams = [published[:-4]]
        for command in "single_vdisk_ping 7 v1\n", "ds_ping 7\n", "vdisk_deleted 7 v1\n":
            client.say(command, "MSG from")
            datagrams.append(d.sent())
        seen = "/".join(re.sub(r":\d+", "", kinds(part)) for part in datagrams)
        lines = ["error: " + line for line in (lines * 2 if lacks == "Node" else lines + stop)]
        assert (edits, told, seen, published[-4:]) == (edits, lines, sent[lacks], SENT_8)
        assert host.locks() == re.findall("/tmp/(.*):", edits)
    assert "error: send_single_vdisk_ping(): Oversized SINGLE_VDISK_PING from Node 7 VDisk v1" in d.log
    # Plain VDisks come first, and the full generation from version 1.8 on.
    s1 = report(snapshot("s1", "v1"))
    for edits, version, vdisks in [
            ("V/membership=4294967303|8x M7/frontend=10.0.0.1|1.2.3.4|1.1.1.1", (2, 1),
             report(plain("v1"), [7, 8], ["10.0.0.1", "1.2.3.4", "1.1.1.1"]) + s1),
            ("Node/7/version=v1.8 M7/membership_gen_count=65535", (1, 8), report(plain("v1", 65535)) + s1),
            ("Node/7/version=v1.7 V/membership: M7/frontend: -VDisk/s1/ -Node/7/vdisks/s1", (1, 7),
             report(plain("v1", 0, digits="05"), [], []))]:
        host.put(edit(TREE, edits))
        d.publish()
        assert (edits, d.sent()[2:]) == (edits, [message(PING, 7, vdisks, version), *SENT_8[:3]])
    client.socket.close()
