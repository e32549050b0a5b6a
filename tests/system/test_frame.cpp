/* The process around the loop: configuration, start, background, tables, timers, signals and end. */
#include "tests/system/harness.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;
using Pairs = std::vector<std::pair<std::string, std::string>>;

/* By starts that end at the interface, behind the dump of all values. */
TEST(Frame, reads_every_form_of_line_and_every_bound_of_a_number)
{
    Host host;
    const std::string deep(203, 'd'), longest(1009, 'i'), bad = "Incorrect ";
    // clang-format off
    Pairs cases = {
        {"# a\n; b\n \t", "syslog_ident=mwd syslog_facility=daemon syslog_priority=info pid_file=/mnt/mwd.pid "
            "work_directory=/mnt/DB local_nodes=/marblewell/local_nodes unicast_mode=0 unicast_hosts=/marblewell/"
            "unicast_hosts bind_interface=none0 bind_port=8000 ctrl_address=127.0.0.1 ctrl_port=31337 multicast_address="
            "224.123.123.123 node_lock_timeout_ms=750 datastore_lock_timeout_ms=750 vdisk_lock_timeout_ms=750 "
            "fence_check=/usr/tidewatcher/fencecheck ping_interval=90 heartbeat_interval=30 stats_interval=60\n"},
        {" # a", "Broken config line ` # a'"}, {"ident", "Broken config line `ident'"},
        {"syslog_ident=a # b", "Broken config line `syslog_ident=a # b'"},
        {"syslog_ident=\"a # b\" ", "ident=a # b syslog"}, {"\tsyslog_ident =\"\"", "ident= syslog"},
        {"syslog_ident= \"a", "ident=\"a syslog"}, {"PID_FILE=a", "Unknown config option `PID_FILE'"},
        {"bind_port=5\nbind_port=6", " bind_port=6 "}, {"syslog_priority=DEBUG", "priority=debug "},
        {"syslog_priority=error", "priority=err "}, {"syslog_priority=panic", "priority=emerg "},
        {"syslog_priority=none", "priority=none "}, {"syslog_priority=loud", bad + "syslog_priority value: `loud'"},
        {"syslog_facility=security", "facility=auth "}, {"syslog_facility=Local7", "facility=local7 "},
        {"ping_interval=\"\"", " ping_interval=0 "}, {"ping_interval=\" +12x\"", " ping_interval=12 "},
        {"ping_interval=4294967297", " ping_interval=1 "}, {"bind_port=word", bad + "bind_port value: 0"},
        {"bind_interface=123456789012345", "=123456789012345 "},
        {"bind_interface=1234567890123456", bad + "bind_interface value: `1234567890123456'"},
        {"work_directory=/mnt/" + deep, "=/mnt/" + deep + " "},
        {"work_directory=/mnt/d" + deep, bad + "work_directory value: `/mnt/d" + deep + "'"},
        {"syslog_ident=" + longest, longest + " "}, {"syslog_ident=" + longest + "i", "Config line too long"}};
    for (const auto &[key, max] : std::map<std::string, long>{{"unicast_mode", 2147483647}, {"bind_port", 65535},
            {"ctrl_port", 65535}, {"node_lock_timeout_ms", 60000}, {"datastore_lock_timeout_ms", 60000},
            {"vdisk_lock_timeout_ms", 60000}, {"ping_interval", 3600}, {"heartbeat_interval", 3600},
            {"stats_interval", 86400}}) {
        // clang-format on
        const long min = max == 65535;
        for (long value : {min - 1, min, max, max + 1}) {
            const std::string held = std::to_string(static_cast<int>(value)), good = " " + key + "=" + held;
            cases.emplace_back(key + "=" + std::to_string(value),
                               value < min || value > max ? bad + key + " value: " + held : good);
        }
    }
    for (const auto &[line, result] : cases) {
        auto [status, err] =
            run(host, "bind_interface=none0\nwork_directory=/mnt/DB\npid_file=/mnt/mwd.pid\n" + line + "\n");
        EXPECT_EQ(status, 1);
        const std::string whole = isupper(result[0]) ? "error: config_load(): " + result + "\n" : err;
        EXPECT_TRUE(err == whole && err.find(result) != err.npos) << line << err;
    }
    EXPECT_EQ(run(host, "bind_port=5").second, "error: config_load(): Config line too long\n") << "has no newline";
}

TEST(Frame, tells_why_it_does_not_start)
{
    Host host;
    Daemon running(host); /* has the control port */
    const std::string groups = "unicast_mode=0\nctrl_port=1\nmulticast_address=", malformed = "Malformed multicast ";
    // clang-format off
    for (const auto &[line, last] : Pairs{
             {"work_directory=/none/DB", "mkdir(/none/DB): No such file or directory"},
             {"work_directory=/mnt/mwd", "chdir(/mnt/mwd): Not a directory"},
             {"pid_file=/none/pid", "fd_open(): open(/none/pid): No such file or directory"},
             {"ctrl_address=here", "tcp_listen(): inet_aton(here): failed"},
             {"pid_file=/mnt/second", "tcp_listen(): bind(127.0.0.1:31337): Address already in use"},
             {groups + "\" ,, \"", "controller_thread_loop(): Multicast groups missing"},
             {groups + "224.1.1.1,1234567890123456", "parse_mcast_groups(): " + malformed + "address: 1234567890123456"},
             {groups + "10.1.1.1", "add_mcast_membership(): setsockopt(IP_ADD_MEMBERSHIP): Invalid argument"}}) {
        // clang-format on
        auto [status, err] = run(host, base_config + line + "\n");
        EXPECT_TRUE(status == 1 && err.ends_with("error: " + last + "\n")) << err;
    }
    EXPECT_NE(host.read("/mnt/second"), "") << "written before the port is found to be taken";
    for (const Lines &options : {Lines{"-C", "/none", "-x"}, {"-h"}, {"-C"}})
        EXPECT_EQ(run(host, "", options).second, "Usage: /mnt/mwd [-dh] [-C config]\n");
    EXPECT_EQ(run(host, "", {"-C", "/mnt"}).second, "error: config_load(): Error reading config\n");
}

TEST(Frame, goes_to_the_background_and_logs_to_syslog)
{
    prctl(PR_SET_CHILD_SUBREAPER, 1); /* so that it can be waited for */
    Host host;
    struct sockaddr_un sa = {AF_UNIX, ""};
    strcpy(sa.sun_path, host.path("/dev/log").c_str());
    int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(log, reinterpret_cast<struct sockaddr *>(&sa), sizeof(sa)), 0);
    const std::string config = "pid_file=pid\nsyslog_ident=name\nsyslog_facility=local0\n";
    umask(0);
    EXPECT_EQ(run(host, base_config + config, {"-C/mnt/mwd.conf"}), std::make_pair(0, std::string()));
    umask(022);
    std::string lines;
    for (char buf[4096]; lines.find("Loading /mnt/unicast_hosts") == lines.npos;)
        lines += "\n" + std::string(buf, static_cast<size_t>(recv(log, buf, sizeof(buf), 0)));
    close(log);
    const int pid = std::stoi(host.read("/mnt/DB/pid")); /* the path is relative to the work directory */
    const std::string text = std::to_string(pid), proc = "/proc/" + text;
    EXPECT_NE(lines.find(" name[" + text + "]: syslog_ident=name syslog_facility=local0 "), lines.npos) << lines;
    EXPECT_TRUE(lines.starts_with("\n<134>") && lines.find("debug") == lines.npos) << "local0.info: " << lines;
    EXPECT_EQ(fs::read_symlink(proc + "/cwd"), "/mnt/DB");
    for (const char *fd : {"/fd/0", "/fd/1", "/fd/2"})
        EXPECT_EQ(fs::read_symlink(proc + fd), "/dev/null");
    EXPECT_EQ(getsid(pid), pid);
    EXPECT_EQ(fs::status(host.path("/mnt/DB/pid")).permissions(), fs::perms(0644));
    EXPECT_EQ(fs::status(host.path("/mnt/DB")).permissions(), fs::perms(0755));
    kill(pid, SIGINT);
    EXPECT_EQ(wait_for_exit(pid), 0);
    EXPECT_EQ(host.read("/mnt/DB/pid"), text + "\n") << "stays";
}

TEST(Frame, runs_timers_by_the_clock_and_counts_by_kind)
{
    Host host;
    host.put(node_record("7"));
    host.write("/mnt/local_nodes", "7\n");
    host.write("/mnt/unicast_hosts", "10.9.9.9\n127.0.0.2\n"); /* no way to the first, which then does not count */
    host.set_clock(1000);
    Daemon d(host, "ping_interval=90\nheartbeat_interval=30\nstats_interval=60\n", stopped_clock);
    const std::string types = "\4\20\43\41\42\40\44", pings = "DS:207 AUX:236 PING:207 ", beat = "BEAT:207 ";
    for (size_t kind = 0; kind < 7; kind++)
        for (size_t i = 0; i <= kind; i++)
            d.send(message(static_cast<uint8_t>(types[kind]), 9));
    std::string seen;
    /* Each timer just before it is due and then; a forced pass; the clock set back. */
    for (time_t clock : {1032, 1033, 1062, 1063, 1066, 1067, 1089, 1090, 1127, 1150, 1156, 500, 1185, 1186}) {
        host.set_clock(clock);
        clock == 1150 ? d.publish() : d.sync();
        seen += std::to_string(clock) + " " + kinds(d.sent()) + d.step("notice: stats(): ");
    }
    // clang-format off
    EXPECT_EQ(seen, "1032 " + pings + "1033 " + beat + "1062 1063 " + beat + "1066 1067 "
        "RX: ALL=28/28 PING=1/1 DS_PING=2/2 AUX_PING=3/3 SV_PING=4/4 VDISK_DEL=5/5 HEARTBEAT=6/6 UNKNOWN=7/7\n"
        "TX: ALL=5/5 PING=1/1 DS_PING=1/1 AUX_PING=1/1 SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=2/2\n"
        "1089 1090 " + pings + "1127 " + beat +
        "RX: ALL=0/28 PING=0/1 DS_PING=0/2 AUX_PING=0/3 SV_PING=0/4 VDISK_DEL=0/5 HEARTBEAT=0/6 UNKNOWN=0/7\n"
        "TX: ALL=3/8 PING=1/2 DS_PING=1/2 AUX_PING=1/2 SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=0/2\n"
        "1150 " + pings + "1156 500 1185 " + beat + "1186 ");
    // clang-format on
}

TEST(Frame, keeps_or_replaces_each_table_whole)
{
    Host host;
    Daemon d(host);
    const std::string pad(253, ' '), hosts = "[1/2] 127.1\n[2/2] 127.0.0.2\n", bad = "Malformed unicast address: ";
    const std::string nodes = "[1/3] 7\n[2/3] 8\n[3/3] 4294967295\n",
                      kept = nodes + "Malformed file /mnt/local_nodes\n";
    // clang-format off
    for (const auto &[table, cases] : std::map<std::string, Pairs>{
        {"local_nodes", {{"7\n8 text\n# c\n\n4294967295\n", nodes}, {"9\n0\n", kept}, {"9\nx\n", kept}, {" \n", kept},
            {"9", kept}, {"9" + pad + " \n", kept}, {"", ""}, {"9" + pad + "\n4294967303\n9\n",
            "[1/3] 9\n[2/3] 7\n[3/3] 9\n"}, {"# c\n\n", ""}}},
        {"unicast_hosts", {{"127.1\n#\n127.0.0.2\n", hosts}, {"10.0.0.1\nhere\n", hosts + bad + "here\n"},
            {"10.0.0.1\n123.123.123.1234\n", hosts + bad + "123.123.123.1234\n"},
            {"10.0.0.1", hosts + "Malformed file /mnt/unicast_hosts\n"}, {"1.2.3.4\n", "[1/1] 1.2.3.4\n"}}}}) {
        // clang-format on
        for (const auto &[content, result] : cases) {
            host.write("/mnt/" + table, content);
            d.reload();
            EXPECT_EQ(d.step("notice: dump_" + table + "(): ") + d.step("error: load_" + table + "(): "), result);
        }
    }
    host.remove("/mnt/unicast_hosts");
    EXPECT_EQ(d.reload(), "notice: load_local_nodes(): Loading /mnt/local_nodes\n"
                          "notice: load_unicast_hosts(): Loading /mnt/unicast_hosts\n"
                          "error: load_unicast_hosts(): fopen(/mnt/unicast_hosts): ENOENT\n"
                          "notice: dump_unicast_hosts(): [1/1] 1.2.3.4\n");
}

/* A wait that fails is no end; a socket that fails is one, and a clean one. Nothing is said to peers. */
TEST(Frame, ends_with_status_0)
{
    Host host;
    Daemon d(host, "",
             strace({"-etrace=recvfrom,pselect6", "-einject=recvfrom:error=EIO:when=2",
                     "-einject=pselect6:error=ENOMEM:when=1"}));
    EXPECT_EQ(d.step("error: controller_thread_loop(): select(): "), "Cannot allocate memory\n");
    int so = host.socket(SOCK_STREAM, "127.0.0.1", 31337);
    d.wait_for("Accepted CTRL connection");
    d.send("?");
    EXPECT_EQ(d.stop(0), 0);
    const Lines end(d.log.end() - 4, d.log.end());
    EXPECT_EQ(end[0], "error: controller_thread_loop(): recvfrom(): Input/output error");
    EXPECT_TRUE(end[1].starts_with("notice: CtrlConnFree(): Closing CTRL connection from 127.0.0.1:"));
    EXPECT_EQ(end[2], "notice: controller_module_teardown(): Starting shutdown sequence...");
    EXPECT_EQ(d.sent(), Lines());
    close(so);
}
