"""The process around the loop: configuration, start, background, tables, timers, signals and end."""
import ctypes
import os
import signal
import socket

from old_harness import BASE_CONFIG, DEADLINE, STOPPED_CLOCK, Daemon, kinds, strace
from records import (AUX_PING, DS_PING, HEARTBEAT, PING, SINGLE_VDISK_PING, VDISK_DELETED, ds_ping, message,
                     node_record, plain, report, snapshot)

DEFAULTS = ("syslog_ident=mwd syslog_facility=daemon syslog_priority=info pid_file=/mnt/mwd.pid work_directory=/mnt/DB "
            "local_nodes=/marblewell/local_nodes unicast_mode=0 unicast_hosts=/marblewell/unicast_hosts "
            "bind_interface=none0 bind_port=8000 ctrl_address=127.0.0.1 ctrl_port=31337 multicast_address="
            "224.123.123.123 node_lock_timeout_ms=750 datastore_lock_timeout_ms=750 vdisk_lock_timeout_ms=750 "
            "fence_check=/usr/tidewatcher/fencecheck ping_interval=90 heartbeat_interval=30 stats_interval=60\n")


def test_every_form_of_line_and_every_bound_of_a_number(host):
    """By starts that end at the interface, behind the dump of all values."""
    deep, longest, wrong = "d" * 203, "i" * 1009, "Incorrect {} value: {}".format
    cases = [
        ("# a\n; b\n \t", DEFAULTS), ('syslog_ident="a # b" ', "ident=a # b sys"), ('syslog_ident= "a', 'ident="a sys'),
        *[(line, f"Broken config line `{line}'") for line in (" # a", "ident", "syslog_ident=a # b")],
        ('\tsyslog_ident =""', "ident= syslog"), ("PID_FILE=a", "Unknown config option `PID_FILE'"),
        *[(f"syslog_priority={name}", f"priority={shown} ") for name, shown in (
            ("DEBUG", "debug"), ("error", "err"), ("panic", "emerg"), ("none", "none"))],
        ("syslog_priority=loud", wrong("syslog_priority", "`loud'")), ("syslog_facility=Local7", "facility=local7 "),
        ("syslog_facility=security", "facility=auth "), ('ping_interval=""', " ping_interval=0 "),
        ('ping_interval=" +12x"', " ping_interval=12 "), ("ping_interval=4294967297", " ping_interval=1 "),
        ("bind_port=5\nbind_port=6", " bind_port=6 "), ("bind_port=word", wrong("bind_port", 0)),
        ("bind_interface=123456789012345", "=123456789012345 "), ("syslog_ident=" + longest, longest + " "),
        ("bind_interface=1234567890123456", wrong("bind_interface", "`1234567890123456'")),
        ("work_directory=/mnt/d" + deep, wrong("work_directory", f"`/mnt/d{deep}'")),
        ("work_directory=/mnt/" + deep, f"=/mnt/{deep} "), (f"syslog_ident={longest}i", "Config line too long")]
    for key, least, most in [
            ("unicast_mode", 0, 2147483647), ("bind_port", 1, 65535), ("ctrl_port", 1, 65535),
            ("node_lock_timeout_ms", 0, 60000), ("vdisk_lock_timeout_ms", 0, 60000), ("ping_interval", 0, 3600),
            ("datastore_lock_timeout_ms", 0, 60000), ("heartbeat_interval", 0, 3600), ("stats_interval", 0, 86400)]:
        cases += [(f"{key}={value}", f" {key}={value}") for value in (least, most)]
        cases += [(f"{key}={value}", wrong(key, ctypes.c_int(value).value)) for value in (least - 1, most + 1)]
    for line, result in cases:
        status, err = host.run(f"bind_interface=none0\nwork_directory=/mnt/DB\npid_file=/mnt/mwd.pid\n{line}\n")
        whole = f"error: config_load(): {result}\n" if result[0].isupper() else err
        assert (line, status, err, result in err) == (line, 1, whole, True)
    assert host.run("bind_port=5") == (1, "error: config_load(): Config line too long\n"), "has no newline"


def test_why_it_does_not_start(host):
    running = Daemon(host)  # has the control port
    groups = "unicast_mode=0\nctrl_port=1\nmulticast_address="
    for line, last in [
            ("work_directory=/none/DB", "mkdir(/none/DB): No such file or directory"),
            ("work_directory=/mnt/mwd", "chdir(/mnt/mwd): Not a directory"),
            ("pid_file=/none/pid", "fd_open(): open(/none/pid): No such file or directory"),
            ("ctrl_address=here", "tcp_listen(): inet_aton(here): failed"),
            ("pid_file=/mnt/second", "tcp_listen(): bind(127.0.0.1:31337): Address already in use"),
            (groups + '" ,, "', "controller_thread_loop(): Multicast groups missing"),
            (groups + '"224.1.1.x, 224.1.1.1"', "parse_mcast_groups(): Malformed multicast address: 224.1.1.x"),
            (groups + "10.1.1.1", "add_mcast_membership(): setsockopt(IP_ADD_MEMBERSHIP): Invalid argument")]:
        status, err = host.run(f"{BASE_CONFIG}{line}\n")
        assert (line, status, err.splitlines()[-1]) == (line, 1, "error: " + last)
    assert int(host.read("/mnt/second")) != running.pid, "written before the port is found to be taken"
    usage, load = "Usage: /mnt/mwd [-dh] [-C config]", "error: config_load(): "
    for options, err, *faults in [
            ("-C /none -x", usage), ("-h", usage), ("-C", usage), ("-C /mnt", load + "Error reading config"),
            ("-dC/mnt/mwd.conf", "error: get_interface_addr(): ioctl(SIOCGIFADDR): No such device"),
            ("-C/mnt/mwd.conf", "error: daemon(): Resource temporarily unavailable", "-einject=clone:error=EAGAIN",
             "-einject=fsync:signal=KILL"),  # it does not come to its PID file
            ("-d", load + "fopen(/marblewell/etc/mwd.conf): Permission denied",
             "-P/marblewell/etc/mwd.conf", "-einject=openat:error=EACCES")]:
        config = BASE_CONFIG + "bind_interface=none0\nsyslog_priority=err\n"
        assert host.run(config, *options.split(), prefix=strace(*faults)) == (1, err + "\n")


def test_background_and_syslog(host):
    ctypes.CDLL(None).prctl(36, 1)  # PR_SET_CHILD_SUBREAPER: it can be waited for
    config = BASE_CONFIG + "pid_file=pid\nsyslog_ident=name\nsyslog_facility=local0\n"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        log.settimeout(DEADLINE)
        log.bind(str(host.path("/dev/log")))
        assert host.run(config, "-C/mnt/mwd.conf", prefix=["/bin/sh", "-c", 'umask 0; exec "$0" "$@"']) == (0, "")
        lines = [log.recv(4096).decode()]
        while "Loading /mnt/unicast_hosts" not in lines[-1]:
            lines.append(log.recv(4096).decode())
    pid = int(host.read("/mnt/DB/pid"))  # the path is relative to the work directory
    links = [os.readlink(f"/proc/{pid}/{name}") for name in ("cwd", "fd/0", "fd/1", "fd/2")]
    session, modes = os.getsid(pid), [oct(host.path(path).stat().st_mode) for path in ("/mnt/DB", "/mnt/DB/pid")]
    os.kill(pid, signal.SIGINT)
    assert (os.waitpid(pid, 0), host.read("/mnt/DB/pid")) == ((pid, 0), f"{pid}\n"), "its file stays"
    assert (links, session, modes) == (["/mnt/DB"] + ["/dev/null"] * 3, pid, ["0o40755", "0o100644"])
    assert f" name[{pid}]: syslog_ident=name " in lines[0] and {line[:5] for line in lines} == {"<133>", "<134>"}


def test_timers_run_by_the_clock_and_count_by_kind(host):
    host.put(node_record(7))
    host.write("/mnt/local_nodes", "7\n")
    host.write("/mnt/unicast_hosts", "10.9.9.9\n127.0.0.2\n")  # no way to the first, which then does not count
    host.set_clock(1000)
    d = Daemon(host, "ping_interval=90\nheartbeat_interval=30\nstats_interval=87\n", STOPPED_CLOCK)
    for times, kind in enumerate((PING, DS_PING, AUX_PING, SINGLE_VDISK_PING, VDISK_DELETED, HEARTBEAT, 36), 1):
        d.send(*[message(kind, 9)] * times)
    pings, beat = "DS:207 AUX:236 PING:207", "BEAT:207"
    # Each timer just before it is due and then; a forced pass, which puts off the next; the clock set back.
    for clock, *seen in [
            (1032, pings), (1033, beat), (1062, ""), (1063, beat), (1089, ""), (1090, pings), (1093, beat),
            (1094, "", "RX: ALL=28/28 PING=1/1 DS_PING=2/2 AUX_PING=3/3 SV_PING=4/4 VDISK_DEL=5/5 HEARTBEAT=6/6 "
             "UNKNOWN=7/7", "TX: ALL=9/9 PING=2/2 DS_PING=2/2 AUX_PING=2/2 SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=3/3"),
            (1150, f"{pings} {beat}"), (500, ""), (1180, beat),
            (1181, "", "RX: ALL=0/28 PING=0/1 DS_PING=0/2 AUX_PING=0/3 SV_PING=0/4 VDISK_DEL=0/5 HEARTBEAT=0/6 "
             "UNKNOWN=0/7", "TX: ALL=5/14 PING=1/3 DS_PING=1/3 AUX_PING=1/3 SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=2/5")]:
        host.set_clock(clock)
        d.publish() if clock == 1150 else d.sync()
        assert [clock, kinds(d.sent()), *d.step("notice: stats(): ")] == [clock, *seen]


def test_each_table_is_kept_or_replaced_whole(host):
    d = Daemon(host)
    nodes, hosts, pad = ["[1/3] 7", "[2/3] 8", "[3/3] 4294967295"], ["[1/2] 127.1", "[2/2] 127.0.0.2"], " " * 253
    for table, content, result in [
            ("local_nodes", "7\n8 text\n# c\n\n4294967295\n", nodes),
            *[("local_nodes", content, nodes + ["Malformed file /mnt/local_nodes"])
              for content in ("9\n0\n", "9\nx\n", " \n", "9", f"9{pad} \n")],
            ("local_nodes", "", []), ("local_nodes", f"9{pad}\n4294967303\n9\n", ["[1/3] 9", "[2/3] 7", "[3/3] 9"]),
            ("local_nodes", "# c\n\n", []), ("unicast_hosts", "127.1\n#\n127.0.0.2\n", hosts),
            *[("unicast_hosts", f"10.0.0.1\n{text}\n", hosts + ["Malformed unicast address: " + text])
              for text in ("here", "001.002.003.0004")],
            ("unicast_hosts", "10.0.0.1", hosts + ["Malformed file /mnt/unicast_hosts"]),
            ("unicast_hosts", "001.002.003.004\n", ["[1/1] 001.002.003.004"])]:
        host.write("/mnt/" + table, content)
        d.reload()
        told = d.step(f"notice: dump_{table}(): ") + d.step(f"error: load_{table}(): ")
        assert (table, content, told) == (table, content, result)
    host.remove("/mnt/unicast_hosts")
    assert d.reload()[1:] == ["notice: load_unicast_hosts(): Loading /mnt/unicast_hosts",
                              "error: load_unicast_hosts(): fopen(/mnt/unicast_hosts): ENOENT",
                              "notice: dump_unicast_hosts(): [1/1] 001.002.003.004"]


def test_every_received_record_is_dumped(host):
    d = Daemon(host)
    hdr = ("hdr major=2,minor=1,type={},nodestatus=2,uid=9,vendor=vendor,model=model,revision.freespace=1001,revision."
           "utilization=1002,revision.rev=rev,serial=serial,hbtl=hbtl,size=1003,performance=104,hostid=1005").format
    vde = ("vde transaction_id=0,uuid={},membership_gen_count={},name=name,sector_size=301,numkeys=302,sectors=303,"
           "seqno=304,{},status=5,port=306,replicas=307,st_mem=8,st_mems=9,st_size=310,members=2,frontends=1").format
    reports = report(plain("v1", 300, description=b"d" * 32), [7, 9]) + report(snapshot("s1", "v1"), [7, 9])
    lists = "mbe node=7", "mbe node=9", "fee node=10.0.0.1"
    for datagram, *dumps in [
            (message(5, 9), hdr("5 [INFO_REQ]")), (message(36, 9), hdr("36 [UNKNOWN]")),
            (message(31, 9), hdr("31 [SET_VDISK_SIZE]")), (message(200, 9), hdr("200 [UNKNOWN]")),
            (ds_ping(9, "ds1"),
             "dse uuid=ds1,name=dsname,description=dsdescr,sector_size=512,replicas=2,stripes=3,overcommit=4"),
            (message(PING, 9, reports), vde("v1", 300, "snapshot=0,description=" + "d" * 32), *lists,
             vde("s1", 5, "snapshot=1,parent=v1,snaptime=11-03-07_09.05.02"), *lists)]:
        d.apply(datagram)
        told = [line for line in d.step("debug: ") if "_dump(): " in line]
        assert told == [f"{dump[:3]}_dump(): {field}" for dump in dumps for field in dump[4:].split(",")]


def test_it_ends_with_status_0(host):
    """A wait that fails is no end; a socket that fails is one, and a clean one. Nothing is said to peers."""
    d = Daemon(host, prefix=strace("-etrace=recvfrom,pselect6", "-einject=recvfrom:error=EIO:when=2",
                                   "-einject=pselect6:error=ENOMEM:when=1"))
    assert d.step("error: controller_thread_loop(): select(): ") == ["Cannot allocate memory"]
    with host.socket(socket.SOCK_STREAM, "127.0.0.1", 31337):
        d.wait_for("Accepted CTRL connection")
        d.send(b"?")
        assert (d.stop(0), d.sent()) == (0, [])
    assert [line.rstrip("0123456789") for line in d.log[-4:-1]] == [
        "error: controller_thread_loop(): recvfrom(): Input/output error",
        "notice: CtrlConnFree(): Closing CTRL connection from 127.0.0.1:",
        "notice: controller_module_teardown(): Starting shutdown sequence..."]
