"""How the daemon starts: its configuration line by line, what keeps it from starting, and the background."""
import ctypes
import os
import signal
import socket

from harness import BASE_CONFIG, DEADLINE, strace

DEFAULTS = ("syslog_ident=mwd syslog_facility=daemon syslog_priority=info pid_file=/mnt/mwd.pid work_directory=/mnt/DB "
            "local_nodes=/marblewell/local_nodes unicast_mode=0 unicast_hosts=/marblewell/unicast_hosts "
            "bind_interface=none0 bind_port=8000 ctrl_address=127.0.0.1 ctrl_port=31337 multicast_address="
            "224.123.123.123 node_lock_timeout_ms=750 datastore_lock_timeout_ms=750 vdisk_lock_timeout_ms=750 "
            "fence_check=/usr/tidewatcher/fencecheck ping_interval=90 heartbeat_interval=30 stats_interval=60\n")
# An interface that is not there ends each start behind the line that tells all values.
ENDS_AT_ITS_INTERFACE = "bind_interface=none0\nwork_directory=/mnt/DB\npid_file=/mnt/mwd.pid\n"


def test_lines_of_the_configuration(host):
    """What each makes of the values: a part of the line that tells them."""
    longest, longest_interface, longest_directory = "i" * 1009, "123456789012345", "/mnt/" + "d" * 202
    for line, values in [
            ("# a comment\n; another\n \t", DEFAULTS),
            ('syslog_ident="a # b" ', "syslog_ident=a # b syslog_facility"),
            ('syslog_ident= "a', 'syslog_ident="a syslog_facility'),
            ('\tsyslog_ident =""', "syslog_ident= syslog_facility"),
            ("syslog_ident=" + longest, f"syslog_ident={longest} "),
            ("syslog_priority=DEBUG", "syslog_priority=debug "),
            ("syslog_priority=error", "syslog_priority=err "),
            ("syslog_priority=panic", "syslog_priority=emerg "),
            ("syslog_priority=none", "syslog_priority=none "),
            ("syslog_facility=Local7", "syslog_facility=local7 "),
            ("syslog_facility=security", "syslog_facility=auth "),
            ('ping_interval=""', " ping_interval=0 "),
            ('ping_interval=" +12x"', " ping_interval=12 "),
            ("ping_interval=4294967297", " ping_interval=1 "),
            ("bind_port=5\nbind_port=6", " bind_port=6 "),
            ("bind_interface=" + longest_interface, f"bind_interface={longest_interface} "),
            ("work_directory=" + longest_directory, f"work_directory={longest_directory} ")]:
        status, log = host.run_daemon(f"{ENDS_AT_ITS_INTERFACE}{line}\n")
        assert values in log and status == 1, (line, log)


def test_lines_that_are_refused(host):
    too_long = "/mnt/" + "d" * 203
    for line, reason in [
            (" # a", "Broken config line ` # a'"),
            ("syslog_ident", "Broken config line `syslog_ident'"),
            ("syslog_ident=a # b", "Broken config line `syslog_ident=a # b'"),
            ("PID_FILE=a", "Unknown config option `PID_FILE'"),
            ("syslog_priority=loud", "Incorrect syslog_priority value: `loud'"),
            ("syslog_facility=loud", "Incorrect syslog_facility value: `loud'"),
            ("bind_port=word", "Incorrect bind_port value: 0"),
            ("bind_interface=1234567890123456", "Incorrect bind_interface value: `1234567890123456'"),
            ("work_directory=DB", "Incorrect work_directory value: `DB'"),  # would work until it is entered
            ("work_directory=" + too_long, f"Incorrect work_directory value: `{too_long}'"),
            ("syslog_ident=" + "i" * 1010, "Config line too long")]:
        found = host.run_daemon(f"{ENDS_AT_ITS_INTERFACE}{line}\n")
        assert (line, *found) == (line, 1, f"error: config_load(): {reason}\n")
    assert host.run_daemon("bind_port=5") == (1, "error: config_load(): Config line too long\n"), "has no newline"


def test_bounds_of_numbers(host):
    for key, least, most in [
            ("unicast_mode", 0, 2147483647),
            ("bind_port", 1, 65535),
            ("ctrl_port", 1, 65535),
            ("node_lock_timeout_ms", 0, 60000),
            ("datastore_lock_timeout_ms", 0, 60000),
            ("vdisk_lock_timeout_ms", 0, 60000),
            ("ping_interval", 0, 3600),
            ("heartbeat_interval", 0, 3600),
            ("stats_interval", 0, 86400)]:
        for value in least, most:
            status, log = host.run_daemon(f"{ENDS_AT_ITS_INTERFACE}{key}={value}\n")
            assert f" {key}={value}" in log, (key, value, log)
        for value in least - 1, most + 1:
            found = host.run_daemon(f"{ENDS_AT_ITS_INTERFACE}{key}={value}\n")
            told = ctypes.c_int(value).value  # 2 to the power of 31 wraps around
            assert (key, value, *found) == (key, value, 1, f"error: config_load(): Incorrect {key} value: {told}\n")


def test_why_it_does_not_start(host):
    running = host.daemon()  # has the control port
    groups = "unicast_mode=0\nctrl_port=1\nmulticast_address="
    for line, reason in [
            ("work_directory=/none/DB", "mkdir(/none/DB): No such file or directory"),
            ("work_directory=/mnt/mwd", "chdir(/mnt/mwd): Not a directory"),
            ("pid_file=/none/pid", "fd_open(): open(/none/pid): No such file or directory"),
            ("ctrl_address=here", "tcp_listen(): inet_aton(here): failed"),
            ("pid_file=/mnt/second", "tcp_listen(): bind(127.0.0.1:31337): Address already in use"),
            (groups + '" ,, "', "controller_thread_loop(): Multicast groups missing"),
            (groups + '"224.1.1.x, 224.1.1.1"', "parse_mcast_groups(): Malformed multicast address: 224.1.1.x"),
            (groups + "10.1.1.1", "add_mcast_membership(): setsockopt(IP_ADD_MEMBERSHIP): Invalid argument")]:
        status, log = host.run_daemon(f"{BASE_CONFIG}{line}\n")
        assert (line, status, log.splitlines()[-1]) == (line, 1, f"error: {reason}")
    assert int(host.read("/mnt/second")) != running.pid, "written before the port is found to be taken"


def test_options_and_their_failures(host):
    usage = "Usage: /mnt/mwd [-dh] [-C config]"
    no_device = "error: get_interface_addr(): ioctl(SIOCGIFADDR): No such device"
    for options, told, *faults in [
            ("-C /none -x", usage),
            ("-h", usage),
            ("-C", usage),
            ("-C /mnt", "error: config_load(): Error reading config"),
            ("-dC/mnt/mwd.conf", no_device),
            ("-C/mnt/mwd.conf", "error: daemon(): Resource temporarily unavailable", "-einject=clone:error=EAGAIN",
             "-einject=fsync:signal=KILL"),  # it does not come to its PID file
            ("-d", "error: config_load(): fopen(/marblewell/etc/mwd.conf): Permission denied",
             "-P/marblewell/etc/mwd.conf", "-einject=openat:error=EACCES")]:
        config = BASE_CONFIG + "bind_interface=none0\nsyslog_priority=err\n"
        found = host.run_daemon(config, *options.split(), before=strace(*faults))
        assert (options, *found) == (options, 1, told + "\n")


def test_background_and_syslog(host):
    ctypes.CDLL(None).prctl(36, 1)  # PR_SET_CHILD_SUBREAPER: it can be waited for
    config = BASE_CONFIG + "pid_file=pid\nsyslog_ident=name\nsyslog_facility=local0\n"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        log.settimeout(DEADLINE)
        log.bind(str(host.path("/dev/log")))
        started = host.run_daemon(config, "-C/mnt/mwd.conf", before=["/bin/sh", "-c", 'umask 0; exec "$0" "$@"'])
        assert started == (0, "")
        lines = [log.recv(4096).decode()]
        while "Loading /mnt/unicast_hosts" not in lines[-1]:
            lines.append(log.recv(4096).decode())
    pid = int(host.read("/mnt/DB/pid"))  # the path is relative to the work directory
    links = [os.readlink(f"/proc/{pid}/{name}") for name in ("cwd", "fd/0", "fd/1", "fd/2")]
    session, modes = os.getsid(pid), [oct(host.path(path).stat().st_mode) for path in ("/mnt/DB", "/mnt/DB/pid")]
    os.kill(pid, signal.SIGINT)
    assert os.waitpid(pid, 0) == (pid, 0)
    assert host.read("/mnt/DB/pid") == f"{pid}\n", "its file stays"
    assert (links, session, modes) == (["/mnt/DB"] + ["/dev/null"] * 3, pid, ["0o40755", "0o100644"])
    notice, info = "<133>", "<134>"  # of local0
    assert f" name[{pid}]: syslog_ident=name " in lines[0] and {line[:5] for line in lines} == {notice, info}
