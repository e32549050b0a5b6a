/* The process around the loop: configuration, start, background, tables, timers, signals and end. */
#include "tests/system/harness.h"

#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

/* Starts that end at the interface, which is looked for after the configuration has been logged. */
static const char no_interface[] = "bind_interface = none0\nwork_directory = /mnt/DB\npid_file = /mnt/mwd.pid\n";

TEST(Frame, reads_every_form_of_configuration_line)
{
    Host host;
    const std::string ident = "syslog_ident = ", deep(203, 'd'), long_word(1022 - ident.size(), 'i');
    const struct {
        std::string line, result; /* a part of the dump of all values, or the whole refusal */
    } cases[] = {
        {"# a\n; b\n \t\n", "syslog_ident=mwd syslog_facility=daemon syslog_priority=info pid_file=/mnt/mwd.pid "},
        {"\n", "work_directory=/mnt/DB local_nodes=/marblewell/local_nodes unicast_mode=0 unicast_hosts=/marblewell/"
               "unicast_hosts bind_interface=none0 bind_port=8000 ctrl_address=127.0.0.1 ctrl_port=31337 "
               "multicast_address=224.123.123.123 node_lock_timeout_ms=750 datastore_lock_timeout_ms=750 "
               "vdisk_lock_timeout_ms=750 fence_check=/usr/tidewatcher/fencecheck ping_interval=90 "
               "heartbeat_interval=30 stats_interval=60\n"},
        {" # a\n", "Broken config line ` # a'"},
        {"ident\n", "Broken config line `ident'"},
        {ident + "a # b\n", "Broken config line `syslog_ident = a # b'"},
        {ident + "\"a # b\" \n", "syslog_ident=a # b syslog_facility="},
        {"\tsyslog_ident=\"\"\n", "syslog_ident= syslog_facility="},
        {ident + "\"a\n", "syslog_ident=\"a syslog_facility="},
        {"PID_FILE = a\n", "Unknown config option `PID_FILE'"},
        {"bind_port = 5\nbind_port = 6\n", " bind_port=6 "},
        {"syslog_priority = DEBUG\n", " syslog_priority=debug "},
        {"syslog_priority = error\n", " syslog_priority=err "},
        {"syslog_priority = panic\n", " syslog_priority=emerg "},
        {"syslog_priority = warning\n", " syslog_priority=warn "},
        {"syslog_priority = none\n", " syslog_priority=none "},
        {"syslog_priority = loud\n", "Incorrect syslog_priority value: `loud'"},
        {"syslog_facility = security\n", " syslog_facility=auth "},
        {"syslog_facility = Local7\n", " syslog_facility=local7 "},
        {"syslog_facility = local8\n", "Incorrect syslog_facility value: `local8'"},
        {"ping_interval = \"\"\n", " ping_interval=0 "},
        {"ping_interval = \" +12x\"\n", " ping_interval=12 "},
        {"ping_interval = 4294967297\n", " ping_interval=1 "},
        {"bind_port = word\n", "Incorrect bind_port value: 0"},
        {"bind_interface = 123456789012345\n", " bind_interface=123456789012345 "},
        {"bind_interface = 1234567890123456\n", "Incorrect bind_interface value: `1234567890123456'"},
        {"work_directory = /mnt/" + deep + "\n", "work_directory=/mnt/" + deep + " "},
        {"work_directory = /mnt/d" + deep + "\n", "Incorrect work_directory value: `/mnt/d" + deep + "'"},
        {ident + long_word + "\n", "syslog_ident=" + long_word + " "},
        {ident + long_word + "i\n", "Config line too long"},
        {"bind_port = 5", "Config line too long"},
    };
    for (const auto &[line, result] : cases) {
        auto [status, err] = run(host, no_interface + line);
        EXPECT_EQ(status, 1);
        if (isupper(result[0]))
            EXPECT_EQ(err, "error: config_load(): " + result + "\n");
        else
            EXPECT_NE(err.find(result), err.npos) << line << err;
    }
}

TEST(Frame, holds_every_number_to_its_range)
{
    Host host;
    const struct {
        std::string key;
        long min, max;
    } ranges[] = {{"unicast_mode", 0, 2147483647},
                  {"bind_port", 1, 65535},
                  {"ctrl_port", 1, 65535},
                  {"node_lock_timeout_ms", 0, 60000},
                  {"datastore_lock_timeout_ms", 0, 60000},
                  {"vdisk_lock_timeout_ms", 0, 60000},
                  {"ping_interval", 0, 3600},
                  {"heartbeat_interval", 0, 3600},
                  {"stats_interval", 0, 86400}};
    for (const auto &[key, min, max] : ranges) {
        for (long value : {min - 1, min, max, max + 1}) {
            std::string held = std::to_string(static_cast<int>(value));
            auto [status, err] = run(host, no_interface + key + " = " + std::to_string(value) + "\n");
            EXPECT_EQ(status, 1);
            if (value == min || value == max)
                EXPECT_NE(err.find(" " + key + "=" + held), err.npos) << err;
            else
                EXPECT_EQ(err, "error: config_load(): Incorrect " + key + " value: " + held + "\n");
        }
    }
}

TEST(Frame, tells_why_it_does_not_start)
{
    Host host;
    Daemon running(host); /* its control port is taken */
    host.write("/mnt/file", "");
    const struct {
        const char *line, *last;
    } cases[] = {
        {"work_directory = /none/DB", "error: mkdir(/none/DB): No such file or directory"},
        {"work_directory = /mnt/file", "error: chdir(/mnt/file): Not a directory"},
        {"pid_file = /none/pid", "error: fd_open(): open(/none/pid): No such file or directory"},
        {"pid_file = /dev/null", "error: main(): fsync(/dev/null): Invalid argument"},
        {"bind_interface = none0", "error: get_interface_addr(): ioctl(SIOCGIFADDR): No such device"},
        {"ctrl_address = here", "error: tcp_listen(): inet_aton(here): failed"},
        {"pid_file = /mnt/second.pid", "error: tcp_listen(): bind(127.0.0.1:31337): Address already in use"},
        {"unicast_mode = 0\nctrl_port = 1\nmulticast_address = \" ,, \"",
         "error: controller_thread_loop(): Multicast groups missing"},
        {"unicast_mode = 0\nctrl_port = 1\nmulticast_address = 224.1.1.1,1234567890123456",
         "error: parse_mcast_groups(): Malformed multicast address: 1234567890123456"},
        {"unicast_mode = 0\nctrl_port = 1\nmulticast_address = 224.1.1.x",
         "error: parse_mcast_groups(): Malformed multicast address: 224.1.1.x"},
        {"unicast_mode = 0\nctrl_port = 1\nmulticast_address = 10.1.1.1",
         "error: add_mcast_membership(): setsockopt(IP_ADD_MEMBERSHIP): Invalid argument"},
    };
    for (const auto &[line, last] : cases) {
        auto [status, err] = run(host, std::string(base_config) + line + "\n");
        EXPECT_EQ(status, 1);
        EXPECT_TRUE(err.ends_with(last + std::string("\n"))) << err;
    }
    EXPECT_NE(host.read("/mnt/second.pid"), "") << "written before the port is found to be taken";
    const std::pair<Lines, const char *> options[] = {
        {{"-C", "/none", "-x"}, "Usage: /mnt/mwd [-dh] [-C config]\n"},
        {{"-h"}, "Usage: /mnt/mwd [-dh] [-C config]\n"},
        {{"-C"}, "Usage: /mnt/mwd [-dh] [-C config]\n"},
        {{"word"}, "error: config_load(): fopen(/marblewell/etc/mwd.conf): No such file or directory\n"},
        {{"-C", "/mnt"}, "error: config_load(): Error reading config\n"}};
    for (const auto &[argv, text] : options)
        EXPECT_EQ(run(host, "", argv).err, text);
}

TEST(Frame, goes_to_the_background_and_logs_to_syslog)
{
    Host host;
    struct sockaddr_un sa = {AF_UNIX, ""};
    strcpy(sa.sun_path, host.path("/dev/log").c_str());
    int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(log, reinterpret_cast<struct sockaddr *>(&sa), sizeof(sa)), 0);
    umask(0);
    auto [status, err] = run(host,
                             base_config + std::string("pid_file = pid\nsyslog_ident = name\nsyslog_facility = "
                                                       "local0\n"),
                             {"-C", "/mnt/mwd.conf"});
    umask(022);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(err, "");
    std::string lines, pid;
    char buf[4096];
    while (lines.find("Loading /mnt/unicast_hosts") == lines.npos)
        lines += "\n" + std::string(buf, static_cast<size_t>(recv(log, buf, sizeof(buf), 0)));
    pid = host.read("/mnt/DB/pid"); /* a relative path is taken from the work directory */
    pid.pop_back();
    EXPECT_NE(lines.find(" name[" + pid + "]: syslog_ident=name syslog_facility=local0 "), lines.npos) << lines;
    EXPECT_EQ(lines.find("\n<134>"), 0u) << "local0.info: " << lines;
    EXPECT_EQ(lines.find("debug"), lines.npos) << "masked";
    namespace fs = std::filesystem;
    EXPECT_EQ(fs::read_symlink("/proc/" + pid + "/cwd"), "/mnt/DB");
    for (const char *fd : {"0", "1", "2"})
        EXPECT_EQ(fs::read_symlink("/proc/" + pid + "/fd/" + fd), "/dev/null");
    EXPECT_EQ(getsid(std::stoi(pid)), std::stoi(pid));
    EXPECT_EQ(fs::status(host.path("/mnt/DB/pid")).permissions(), fs::perms(0644));
    EXPECT_EQ(fs::status(host.path("/mnt/DB")).permissions(), fs::perms(0755));
    kill(std::stoi(pid), SIGINT);
    EXPECT_EQ(wait_for_exit(std::stoi(pid)), 0);
    EXPECT_EQ(host.read("/mnt/DB/pid"), pid + "\n") << "stays";
    close(log);
}

TEST(Frame, runs_timers_by_the_clock_and_counts_by_kind)
{
    Host host;
    host.put(node_record("7"));
    host.write("/mnt/local_nodes", "7\n");
    host.set_clock(1000);
    Daemon d(host, "ping_interval = 90\nheartbeat_interval = 30\nstats_interval = 60\n", stopped_clock());
    int times = 0;
    for (uint8_t type :
         {MSG_PING, MSG_DS_PING, MSG_AUX_PING, MSG_SINGLE_VDISK_PING, MSG_VDISK_DELETED, MSG_HEARTBEAT, uint8_t{36}})
        for (int i = ++times; i > 0; i--)
            d.send(message(type, 9));
    d.sync();
    const char pings[] = "DS:207 AUX:236 PING:207 ", beat[] = "BEAT:207 ";
    const struct {
        int64_t clock;
        bool force;
        std::string sent, stats;
    } cases[] = {
        {1032, false, pings, ""}, /* forced by the start */
        {1033, false, beat, ""},
        {1062, false, "", ""},
        {1063, false, beat, ""},
        {1066, false, "", ""},
        {1067, false, "",
         "RX: ALL=28/28 PING=1/1 DS_PING=2/2 AUX_PING=3/3 SV_PING=4/4 VDISK_DEL=5/5 HEARTBEAT=6/6 UNKNOWN=7/7\n"
         "TX: ALL=5/5 PING=1/1 DS_PING=1/1 AUX_PING=1/1 SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=2/2\n"},
        {1089, false, "", ""},
        {1090, false, pings, ""},
        {1096, false, beat, ""},
        {1125, false, "", ""},
        {1126, false, beat, ""},
        {1127, false, "",
         "RX: ALL=0/28 PING=0/1 DS_PING=0/2 AUX_PING=0/3 SV_PING=0/4 VDISK_DEL=0/5 HEARTBEAT=0/6 UNKNOWN=0/7\n"
         "TX: ALL=5/10 PING=1/2 DS_PING=1/2 AUX_PING=1/2 SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=2/4\n"},
        {1150, true, pings, ""},
        {1155, false, "", ""},
        {1156, false, beat, ""},
        {500, false, "", ""},
        {1185, false, "", ""}, /* a pass that was forced starts the interval anew */
        {1186, false, beat, ""},
        {1240, true, std::string(pings) + beat, "RX"}};
    for (const auto &[clock, force, sent, stats] : cases) {
        host.set_clock(clock);
        force ? d.publish() : d.sync();
        EXPECT_EQ(kinds(d.sent()), sent) << clock;
        EXPECT_EQ(d.step("notice: stats(): ").substr(0, stats == "RX" ? 2 : std::string::npos), stats) << clock;
    }
}

TEST(Frame, keeps_or_replaces_each_table_whole)
{
    Host host;
    Daemon d(host);
    const std::string blanks(253, ' '), nodes = "[1/3] 7\n[2/3] 8\n[3/3] 4294967295\n";
    const std::string bad_nodes = "Malformed file /mnt/local_nodes\n", bad = "Malformed unicast address: ";
    const std::string hosts = "[1/3] 127.1\n[2/3] 255.255.255.255\n[3/3] 127.0.0.2\n";
    const struct {
        std::string table, content, result;
    } cases[] = {
        {"local_nodes", "7\n8 text\n# c\n\n4294967295\n", nodes},
        {"local_nodes", "9\n0\n", nodes + bad_nodes},
        {"local_nodes", "9\nx\n", nodes + bad_nodes},
        {"local_nodes", " \n", nodes + bad_nodes},
        {"local_nodes", "9", nodes + bad_nodes},
        {"local_nodes", "9" + blanks + " \n", nodes + bad_nodes},
        {"local_nodes", "", ""},
        {"local_nodes", "9" + blanks + "\n4294967303\n", "[1/2] 9\n[2/2] 7\n"},
        {"local_nodes", "# c\n\n", ""},
        {"unicast_hosts", "127.1\n255.255.255.255\n#\n127.0.0.2\n", hosts},
        {"unicast_hosts", "10.0.0.1\n123.123.123.1234\n", hosts + bad + "123.123.123.1234\n"},
        {"unicast_hosts", "10.0.0.1\nhere\n", hosts + bad + "here\n"},
        {"unicast_hosts", "10.0.0.1", hosts + "Malformed file /mnt/unicast_hosts\n"},
        {"unicast_hosts", "123.123.123.123\n", "[1/1] 123.123.123.123\n"},
    };
    for (const auto &[table, content, result] : cases) {
        host.write("/mnt/" + table, content);
        d.reload();
        EXPECT_EQ(d.step("notice: dump_" + table + "(): ") + d.step("error: load_" + table + "(): "), result)
            << content;
    }
    host.remove("/mnt/unicast_hosts");
    EXPECT_EQ(d.reload(), "notice: load_local_nodes(): Loading /mnt/local_nodes\n"
                          "notice: load_unicast_hosts(): Loading /mnt/unicast_hosts\n"
                          "error: load_unicast_hosts(): fopen(/mnt/unicast_hosts): No such file or directory\n"
                          "notice: dump_unicast_hosts(): [1/1] 123.123.123.123\n");
}

TEST(Frame, ends_with_status_0_and_without_a_word_to_peers)
{
    Host host;
    host.put(node_record("7"));
    host.write("/mnt/local_nodes", "7\n");
    Daemon d(host);
    int so = host.socket(SOCK_STREAM, "127.0.0.1", 31337);
    const std::string from = d.wait_for("Accepted CTRL connection from").substr(57);
    d.sent();
    EXPECT_EQ(d.stop(SIGINT), 0);
    EXPECT_EQ(Lines(d.log.end() - 4, d.log.end()),
              (Lines{"notice: controller_thread_loop(): Exit...",
                     "notice: CtrlConnFree(): Closing CTRL connection from" + from,
                     "notice: controller_module_teardown(): Starting shutdown sequence...",
                     "notice: controller_module_teardown(): Shutdown sequence finished!"}));
    EXPECT_EQ(d.sent(), Lines());
    close(so);

    /* A wait that fails is no end, a socket that fails is one, and a clean one. */
    Daemon broken(host, "",
                  strace({"-e", "trace=recvfrom,sendto,pselect6", "-e", "inject=sendto:error=EINTR:when=1", "-e",
                          "inject=recvfrom:error=EIO:when=2", "-e", "inject=pselect6:error=ENOMEM:when=1"}));
    broken.send("?");
    EXPECT_EQ(broken.stop(0), 0);
    EXPECT_EQ(std::count(broken.log.begin(), broken.log.end(),
                         "error: controller_thread_loop(): select(): Cannot allocate memory"),
              1);
    EXPECT_EQ(*(broken.log.end() - 3), "error: controller_thread_loop(): recvfrom(): Input/output error");
}
