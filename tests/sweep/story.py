"""One fixed life of a small cluster, as a host hears it from the nodes 6, 7 and 8: datastores, Plain VDisks and a
Snapshot, a generation that rises and drops a member, a deletion, a stale VDisk, datastores left. To hear it twice
leaves the same tree as once. And what the host's own programs wrote of its node 9, which the daemon publishes.

As a program: writes seeds of the fuzz targets into a directory: each message behind its length in two bytes, the same
with every text up to its width, and the whole story in one."""
import pathlib
import struct
import sys

from records import (DS_PING, HEARTBEAT, PING, SINGLE_VDISK_PING, aux_ping, datastore_record, ds_ping, message,
                     node_record, plain, report, snapshot, vdisk_deleted, vdisk_record)

STORY = [
    aux_ping(7), ds_ping(7, "ds1"), ds_ping(8, "ds1"), ds_ping(6, "ds2"),
    message(PING, 7, report(plain("v1"), [7, 8]) + report(plain("v2")) + report(snapshot("s1", "v1"))),
    message(SINGLE_VDISK_PING, 8, report(plain("v1"), [7, 8])),
    message(SINGLE_VDISK_PING, 8, report(plain("v1", 6), [8])),
    vdisk_deleted(7, "s1"), message(PING, 7), message(DS_PING, 8), message(DS_PING, 6), message(HEARTBEAT, 7)]
LOCAL = node_record(9, "ds9") | datastore_record("ds9", 9) | vdisk_record(plain("w1"), [9], "ds9")


def write_seeds(directory):
    pieces = [struct.pack("<H", len(datagram)) + datagram for datagram in STORY]
    filled = [piece[:10] + piece[10:].replace(b"\0", b"x") for piece in pieces]
    for name, seed in {**dict(enumerate(pieces + filled)), "whole": b"".join(pieces)}.items():
        (directory / str(name)).write_bytes(seed)


if __name__ == "__main__":
    write_seeds(pathlib.Path(sys.argv[1]))
