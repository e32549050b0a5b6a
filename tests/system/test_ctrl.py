"""The control channel: which line is which command, and what connections may take."""
import re
import resource
import socket

import pytest

from harness import Case
from messages import DS_PING, aux_ping, ds_ping, message, plain, report, single_vdisk_ping, snapshot, vdisk_deleted
from trees import datastore_record, node_record, vdisk_record

TREE = (node_record(7, "ds1") | datastore_record("ds1") | vdisk_record(plain("v1")) |
        vdisk_record(snapshot("s1", "v1")) | node_record(8))
DS_PING_7, DS_PING_8 = ds_ping(7, "ds1"), message(DS_PING, 8)
SINGLE_VDISK_PING = single_vdisk_ping(7, report(plain("v1")))
LONGEST_NAME = "0123456789abcd"


class Client:
    """A program that is connected to the control port."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.socket = daemon.host.tcp_connection()
        self.heard("accept_ctrl_conn(): ")

    def heard(self, last):
        """What the daemon logs above info until a line with this text; CLIENT is this one's address."""
        self.daemon.wait_for(last)
        return [re.sub(r"127.0.0.1:\d+", "CLIENT", line) for line in self.daemon.settle()]

    def say(self, text, last="handle_ctrl_cmd(): "):
        self.socket.sendall(text.encode())
        return self.heard(last)


@pytest.fixture
def daemon(host):
    """Has the local nodes 7, with a VDisk and a Snapshot, and 8."""
    host.plant(TREE)
    host.write("/mnt/local_nodes", "7\n8\n")
    daemon = host.daemon()
    daemon.sent()
    return daemon


def obeyed(command):
    return f"notice: handle_ctrl_cmd(): MSG from CTRL client CLIENT: {command}"


def ignored(line):
    return f"notice: handle_ctrl_cmd(): MSG (ignored) from CTRL client CLIENT: {line}"


def refused(reason):
    return f"error: handle_ctrl_cmd(): {reason}"


def test_commands_are_told_apart_by_their_beginning_and_their_blanks(daemon):
    client = Client(daemon)
    for text, line, sent in [
            ("ds_ping 7\n", obeyed("DS_PING Node=7"), [DS_PING_7]),
            ("DS_PinG 7\r\n", obeyed("DS_PING Node=7"), [DS_PING_7]),
            ("ds_ping 7\nds_ping 8\n", obeyed("DS_PING Node=7"), [DS_PING_7]),  # one line is taken from each read
            ("ds_pingpong 8\n", obeyed("DS_PING Node=8"), [DS_PING_8]),
            ("ds_ping  7\n", obeyed("DS_PING Node= 7"), []),
            ("ds_ping 7 \n", obeyed("DS_PING Node=7 "), []),
            ("ds_ping 9\n", obeyed("DS_PING Node=9"), []),
            ("ds_ping\n", refused("Missing Node UUID for CTRL ds_ping"), []),
            ("ds_ping\t7\n", refused("Missing Node UUID for CTRL ds_ping"), []),
            ("single_vdisk_ping 7 v1\n", obeyed("SINGLE_VDISK_PING Node=7 VDisk=v1"), [SINGLE_VDISK_PING, aux_ping(7)]),
            ("single_vdisk_ping 7 v1\rx\n", obeyed("SINGLE_VDISK_PING Node=7 VDisk=v1\rx"), []),
            ("single_vdisk_ping  7 v1\n", obeyed("SINGLE_VDISK_PING Node= VDisk=7 v1"), []),
            ("single_vdisk_ping 8 v1\n", obeyed("SINGLE_VDISK_PING Node=8 VDisk=v1"), []),
            ("single_vdisk_ping 9 v1\n", obeyed("SINGLE_VDISK_PING Node=9 VDisk=v1"), []),
            ("single_vdisk_ping\n", refused("Missing Node UUID for CTRL single_vdisk_ping"), []),
            ("SINGLE_VDISK_PING 7\n", refused("Missing VDisk UUID for CTRL single_vdisk_ping"), []),
            ("vdisk_deleted 8 a b \n", obeyed("VDISK_DELETED Node=8 VDisk=a b "),
             [vdisk_deleted(8, "a b "), aux_ping(8)]),
            (f"vdisk_deleted 7 {LONGEST_NAME}\n", obeyed(f"VDISK_DELETED Node=7 VDisk={LONGEST_NAME}"),
             [vdisk_deleted(7, LONGEST_NAME), aux_ping(7)]),
            ("vdisk_deleted 9 v1\n", obeyed("VDISK_DELETED Node=9 VDisk=v1"), []),
            ("vdisk_deleted\n", refused("Missing Node UUID for CTRL vdisk_deleted"), []),
            ("vdisk_deleted 7\n", refused("Missing VDisk UUID for CTRL vdisk_deleted"), []),
            ("ds_pin 7\n", ignored("ds_pin 7"), []),
            (" ds_ping 7\n", ignored(" ds_ping 7"), []),
            ("\r\n", ignored(""), []),
            ("ds_pi", refused("Malformed CTRL MSG ds_pi"), []),
            ("ds_ping 7\0\n", refused("Malformed CTRL MSG ds_ping 7"), [])]:
        assert (text, client.say(text), daemon.sent()) == (text, [line], sent)
    assert client.say(f"vdisk_deleted 7 {LONGEST_NAME}e\n")[1:] == [
        f"error: send_vdisk_deleted(): Oversized VDISK_DELETED from Node 7 VDisk {LONGEST_NAME}e"]
    assert (daemon.sent(), daemon.sent(client.socket)) == ([], []), "nothing is ever answered"
    client.socket.close()
    client.heard("Closing")


def test_a_read_takes_1023_bytes(daemon):
    """The next one takes the rest."""
    client, noise = Client(daemon), "n" * 1023
    assert client.say(noise + "ds_ping 8\n", "MSG from") == [refused(f"Malformed CTRL MSG {noise}"),
                                                             obeyed("DS_PING Node=8")]
    assert daemon.sent() == [DS_PING_8]
    client.socket.close()
    client.heard("Closing")


def test_connections_end_in_their_own_ways(daemon):
    """And the others are served on."""
    closes, resets, stays = Client(daemon), Client(daemon), Client(daemon)
    closing = "notice: CtrlConnFree(): Closing CTRL connection from CLIENT"
    closes.socket.close()
    assert closes.heard("Closing") == ["notice: serve_ctrl_conn(): EOF from CTRL client CLIENT", closing]
    resets.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, (1).to_bytes(8, "little"))  # on, 0 s
    resets.socket.close()
    assert resets.heard("Closing") == ["error: serve_ctrl_conn(): read(CLIENT): Connection reset by peer", closing]
    assert (stays.say("ds_ping 8\n"), daemon.sent()) == ([obeyed("DS_PING Node=8")], [DS_PING_8])
    stays.socket.close()
    stays.heard("Closing")


def test_connections_do_not_starve_the_daemon(make_host):
    """They take what the limit on open files leaves, and the tree still has its share."""
    resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
    for limit, most in (("-n 4096", 1024),  # what select can hold
                        ("-Sn 256", 1024),  # the soft limit is raised
                        ("-n 256", 192),
                        ("-n 100", 50),
                        ("-n 24", 12),
                        ("-n 15", 9),  # a few are always possible
                        ("-n 24; exec 3<&0 4<&0 5<&0 6<&0 7<&0 8<&0 9<&0", 16)):  # whatever the starter left open
        daemon = make_host().daemon(before=["/bin/sh", "-c", f'ulimit {limit}; exec "$0" "$@"'])
        clients = [Client(daemon) for _ in range(most - daemon.descriptors() + 20)]  # one is accepted in a turn
        refused = [line for line in daemon.log if f"Too many CTRL connections: descriptor {most} of " in line]
        assert (limit, daemon.descriptors(), len(refused)) == (limit, most, 20)
        daemon.check({}, Case("a peer is stored all the same", sent=aux_ping(7), expected=node_record(7)))
        for client in clients:
            client.socket.close()
