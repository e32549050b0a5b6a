"""The loop: timers and statistics, the tables, the dumps of what is received, and its end."""
from harness import MARK, STOPPED_CLOCK, strace
from messages import (AUX_PING, DS_PING, HEARTBEAT, PING, SINGLE_VDISK_PING, VDISK_DELETED, ds_ping, message, ping,
                      plain, report, snapshot)
from trees import node_record


def test_timers_run_by_the_clock_and_count_by_kind(host):
    host.plant(node_record(7))
    host.write("/mnt/local_nodes", "7\n")
    host.write("/mnt/unicast_hosts", "10.9.9.9\n127.0.0.2\n")  # no way to the first, which then does not count
    host.set_clock(1000)
    daemon = host.daemon("ping_interval=90\nheartbeat_interval=30\nstats_interval=87\n", STOPPED_CLOCK)
    for number, kind in enumerate((PING, DS_PING, AUX_PING, SINGLE_VDISK_PING, VDISK_DELETED, HEARTBEAT, 36), 1):
        daemon.send(*[message(kind, 9)] * number)
    pings = ["DS_PING", "AUX_PING", "PING"]
    for clock, what, sent, statistics in [
            (1032, "the first publication is at the start", pings, []),
            (1033, "the first heartbeat comes 3 s late", ["HEARTBEAT"], []),
            (1062, "just before the next", [], []),
            (1063, "30 s after the last", ["HEARTBEAT"], []),
            (1089, "just before a publication", [], []),
            (1090, "90 s after the start", pings, []),
            (1093, "30 s after the last", ["HEARTBEAT"], []),
            (1094, "statistics come 7 s late", [], [
                "RX: ALL=28/28 PING=1/1 DS_PING=2/2 AUX_PING=3/3 SV_PING=4/4 VDISK_DEL=5/5 HEARTBEAT=6/6 UNKNOWN=7/7",
                "TX: ALL=9/9 PING=2/2 DS_PING=2/2 AUX_PING=2/2 SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=3/3"]),
            (1150, "a publication that is asked for", pings + ["HEARTBEAT"], []),
            (500, "the clock is set back", [], []),
            (1180, "the forced publication puts off the next, but no heartbeat", ["HEARTBEAT"], []),
            (1181, "the first count begins anew, the second goes on", [], [
                "RX: ALL=0/28 PING=0/1 DS_PING=0/2 AUX_PING=0/3 SV_PING=0/4 VDISK_DEL=0/5 HEARTBEAT=0/6 UNKNOWN=0/7",
                "TX: ALL=5/14 PING=1/3 DS_PING=1/3 AUX_PING=1/3 SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=2/5"])]:
        host.set_clock(clock)
        daemon.publish() if clock == 1150 else daemon.settle()
        found = [datagram.kind for datagram in daemon.sent()], daemon.told("notice: stats(): ")
        assert (clock, what, *found) == (clock, what, sent, statistics)


def test_each_table_is_kept_or_replaced_whole(host):
    daemon = host.daemon()
    filler = " " * 253  # with a digit and the newline a line of 255 bytes
    kept = ["[1/3] 7", "[2/3] 8", "[3/3] 4294967295", "Malformed file /mnt/local_nodes"]
    for content, told in [
            ("7\n8 text\n# comment\n\n4294967295\n", kept[:3]),
            ("9\n0\n", kept),
            ("9\nx\n", kept),
            (" \n", kept),
            ("9", kept),
            (f"9{filler} \n", kept),
            ("", []),
            (f"9{filler}\n4294967303\n9\n", ["[1/3] 9", "[2/3] 7", "[3/3] 9"]),  # 7 and 2 to the power of 32
            ("# comment\n\n", [])]:
        host.write("/mnt/local_nodes", content)
        daemon.reload()
        found = daemon.told("notice: dump_local_nodes(): ") + daemon.told("error: load_local_nodes(): ")
        assert (content, found) == (content, told)
    kept = ["[1/2] 127.1", "[2/2] 127.0.0.2"]
    for content, told in [
            ("127.1\n#\n127.0.0.2\n", kept),
            ("10.0.0.1\nhere\n", kept + ["Malformed unicast address: here"]),
            ("10.0.0.1\n001.002.003.0004\n", kept + ["Malformed unicast address: 001.002.003.0004"]),
            ("10.0.0.1", kept + ["Malformed file /mnt/unicast_hosts"]),
            ("001.002.003.004\n", ["[1/1] 001.002.003.004"])]:
        host.write("/mnt/unicast_hosts", content)
        daemon.reload()
        found = daemon.told("notice: dump_unicast_hosts(): ") + daemon.told("error: load_unicast_hosts(): ")
        assert (content, found) == (content, told)
    host.remove("/mnt/unicast_hosts")
    assert daemon.reload()[1:] == [
        "notice: load_unicast_hosts(): Loading /mnt/unicast_hosts",
        "error: load_unicast_hosts(): fopen(/mnt/unicast_hosts): No such file or directory",
        "notice: dump_unicast_hosts(): [1/1] 001.002.003.004"]


def dump(record, text):
    """The debug lines of a record: a line for each field."""
    return [f"{record}_dump(): {field}" for field in text.split()]


def header_dump(kind):
    return dump("hdr", f"""major=2 minor=1 type={kind.replace(' ', '_')} nodestatus=2 uid=9 vendor=vendor model=model
        revision.freespace=1001 revision.utilization=1002 revision.rev=rev serial=serial hbtl=hbtl size=1003
        performance=104 hostid=1005""")


def vdisk_dump(uuid, generation, kind):
    return dump("vde", f"""transaction_id=0 uuid={uuid} membership_gen_count={generation} name=name sector_size=301
        numkeys=302 sectors=303 seqno=304 {kind} status=5 port=306 replicas=307 st_mem=8 st_mems=9 st_size=310
        members=2 frontends=1""") + dump("mbe", "node=7 node=9") + dump("fee", "node=10.0.0.1")


def test_every_received_record_is_dumped(host):
    daemon = host.daemon()
    full = "d" * 32  # as long as a description may be
    for datagram, expected in [
            (message(5, 9), header_dump("5 [INFO_REQ]")),
            (message(31, 9), header_dump("31 [SET_VDISK_SIZE]")),
            (message(36, 9), header_dump("36 [UNKNOWN]")),
            (message(200, 9), header_dump("200 [UNKNOWN]")),
            (ds_ping(9, "ds1"), dump("dse", """uuid=ds1 name=dsname description=dsdescr sector_size=512 replicas=2
                stripes=3 overcommit=4""")),
            (ping(9, report(plain("v1", 300, description=full), [7, 9]), report(snapshot("s1", "v1"), [7, 9])),
             vdisk_dump("v1", 300, f"snapshot=0 description={full}") +
             vdisk_dump("s1", 5, "snapshot=1 parent=v1 snaptime=11-03-07_09.05.02"))]:
        daemon.deliver(datagram)
        found = [line.replace(" [", "_[") for line in daemon.told("debug: ") if "_dump(): " in line]
        assert (datagram, found) == (datagram, expected)


def test_it_ends_with_status_0(host):
    """A wait that fails is no end; a socket that fails is one, and a clean one. Nothing is said to peers."""
    daemon = host.daemon(before=strace("-etrace=recvfrom,pselect6", "-einject=recvfrom:error=EIO:when=2",
                                       "-einject=pselect6:error=ENOMEM:when=1"))
    assert daemon.told("error: controller_thread_loop(): select(): ") == ["Cannot allocate memory"]
    with host.tcp_connection():
        daemon.wait_for("Accepted CTRL connection")
        daemon.send(MARK)
        assert (daemon.stop(0), daemon.sent()) == (0, [])
    assert [line.rstrip("0123456789") for line in daemon.log[-4:-1]] == [
        "error: controller_thread_loop(): recvfrom(): Input/output error",
        "notice: CtrlConnFree(): Closing CTRL connection from 127.0.0.1:",
        "notice: controller_module_teardown(): Starting shutdown sequence..."]
