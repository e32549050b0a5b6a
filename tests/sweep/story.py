"""One fixed life of a small cluster, as a host hears it from the nodes 6, 7 and 8: datastores, Plain VDisks and a
Snapshot, a generation that rises and drops a member, a deletion, a stale VDisk, datastores left. To hear it twice
leaves the same tree as once. And what the host's own programs wrote of its node 9, which the daemon publishes.

As a program: writes seeds of the fuzz targets into a directory: each message behind its length in two bytes, the same
with every text up to its width, and the whole story in one."""
import pathlib
import struct
import sys

from messages import aux_ping, ds_ping, heartbeat, ping, plain, report, single_vdisk_ping, snapshot, vdisk_deleted
from trees import datastore_record, node_record, vdisk_record

STORY = [
    aux_ping(7),
    ds_ping(7, "ds1"),
    ds_ping(8, "ds1"),
    ds_ping(6, "ds2"),
    ping(7, report(plain("v1"), [7, 8]), report(plain("v2")), report(snapshot("s1", "v1"))),
    single_vdisk_ping(8, report(plain("v1"), [7, 8])),
    single_vdisk_ping(8, report(plain("v1", 6), [8])),
    vdisk_deleted(7, "s1"),
    ping(7),
    ds_ping(8),
    ds_ping(6),
    heartbeat(7)]
LOCAL = node_record(9, "ds9") | datastore_record("ds9", [9]) | vdisk_record(plain("w1"), [9], "ds9")


def write_seeds(directory):
    pieces = [struct.pack("<H", len(datagram)) + datagram for datagram in STORY]
    filled = [piece[:10] + piece[10:].replace(b"\0", b"x") for piece in pieces]
    for name, seed in {**dict(enumerate(pieces + filled)), "whole": b"".join(pieces)}.items():
        (directory / str(name)).write_bytes(seed)


if __name__ == "__main__":
    write_seeds(pathlib.Path(sys.argv[1]))
