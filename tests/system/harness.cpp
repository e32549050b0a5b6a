#include "tests/system/harness.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/close_range.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;
constexpr int DEADLINE_MS = 60000;
static const char too_short[] = "error: controller_thread_loop(): Malformed packet? #1";
const char base_config[] =
    "pid_file = /mnt/mwd.pid\nwork_directory = /mnt/DB\nlocal_nodes = /mnt/local_nodes\nunicast_mode = 1\n"
    "unicast_hosts = /mnt/unicast_hosts\nbind_interface = lo\nfence_check = /mnt/fence\nstats_interval = 86400\n"
    "ping_interval = 3600\nheartbeat_interval = 3600\nnode_lock_timeout_ms = 0\ndatastore_lock_timeout_ms = 0\n"
    "vdisk_lock_timeout_ms = 0\n";

static int must(long result, const std::string &what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return static_cast<int>(result);
}

/* What the test's side opens: nothing of it is left open in a daemon. */
static int open_file(const std::string &path, int flags = O_RDONLY)
{
    return must(open(path.c_str(), flags | O_CLOEXEC, 0600), path);
}

/* In a new process: /dev holds null and what a test binds there, /tmp the locks, /mnt all the rest. */
static void become_host()
{
    struct ifreq lo = {{"lo"}, {}};
    lo.ifr_flags = IFF_UP;
    must(prctl(PR_SET_PDEATHSIG, SIGKILL), "prctl");
    must(unshare(CLONE_NEWNET | CLONE_NEWNS), "unshare");
    must(ioctl(socket(AF_INET, SOCK_DGRAM, 0), SIOCSIFFLAGS, &lo), "lo");
    must(mount("mnt", "/mnt", "tmpfs", 0, nullptr), "/mnt");
    must(mkdir("/mnt/dev", 0755), "/mnt/dev");
    open_file("/mnt/dev/null", O_CREAT);
    must(mount("/dev/null", "/mnt/dev/null", nullptr, MS_BIND, nullptr), "/dev/null");
    must(mount("/mnt/dev", "/dev", nullptr, MS_BIND | MS_REC, nullptr), "/dev");
    must(mount("tmp", "/tmp", "tmpfs", 0, nullptr), "/tmp");
}

Host::Host(int number_) : number(number_)
{
    int ready[2];
    must(pipe2(ready, O_CLOEXEC), "pipe");
    holder = must(fork(), "fork");
    if (holder == 0) {
        become_host();
        close(ready[1]);
        for (;;)
            pause();
    }
    close(ready[1]);
    must(::read(ready[0], &number_, 1), "read"); /* ends when the host is made, or its process died */
    close(ready[0]);
    fs::copy_file(MWD_BINARY, path("/mnt/mwd"));
    fs::copy_file(MWD_CLOCK, path("/mnt/clock.so"));
    write("/mnt/local_nodes", "");
    write("/mnt/unicast_hosts", "127.0.0.2\n");
    peer = socket(SOCK_DGRAM, "127.0.0.2", 8000);
}

Host::~Host()
{
    close(peer);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
}

std::string Host::path(const std::string &inside) const
{
    return "/proc/" + std::to_string(holder) + "/root" + inside;
}

std::string Host::read(const std::string &inside) const
{
    std::ifstream file(path(inside), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Host::write(const std::string &inside, const std::string &content)
{
    std::ofstream file(path(inside), std::ios::binary);
    file << content << std::flush;
    must(file ? 0 : -1, inside);
}

void Host::remove(const std::string &inside)
{
    must(inside.starts_with("/mnt/") || inside.starts_with("/tmp/") ? 0 : -1, "not a test's to remove");
    fs::remove_all(path(inside));
}

static std::string place_of(const std::string &name)
{
    return name.starts_with("/tmp/") ? name : "/mnt/DB/" + name;
}

void Host::put(const Tree &tree)
{
    remove("/mnt/DB");
    fs::create_directory(path("/mnt/DB"));
    for (const auto &lock : fs::directory_iterator(path("/tmp")))
        fs::remove(lock);
    for (const auto &[name, value] : tree) {
        if (value == "/")
            fs::create_directories(path(place_of(name)));
        else if (value.starts_with("-> "))
            fs::create_symlink(value.substr(3), path(place_of(name)));
        else
            write(place_of(name), value);
    }
}

Tree Host::tree() const
{
    Tree tree;
    for (const std::string top : {"/mnt/DB/", "/tmp/"}) {
        for (const auto &entry : fs::recursive_directory_iterator(path(top))) {
            std::string name = (top == "/tmp/" ? top : "") + entry.path().string().substr(path(top).size());
            if (entry.is_symlink())
                tree[name] = "-> " + fs::read_symlink(entry).string();
            else if (entry.is_directory())
                tree[name + "/"] = "/";
            else
                tree[name] = read(place_of(name));
            if (name.ends_with("/lastping") && labs(strtol(tree[name].c_str(), nullptr, 10) - time(nullptr)) < 3600)
                tree[name] = "now\n";
        }
    }
    return tree;
}

/* In place, since daemons have the file mapped. */
void Host::set_clock(int64_t seconds)
{
    int fd = open_file(path("/mnt/clock"), O_RDWR | O_CREAT);
    must(::pwrite(fd, &seconds, sizeof(seconds), 0), "clock");
    close(fd);
}

pid_t Host::spawn(const Lines &argv, int stderr_fd)
{
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    const std::string ns = "/proc/" + std::to_string(holder) + "/ns/";
    pid_t pid = must(fork(), "fork");
    if (pid > 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int net = open_file(ns + "net");
    must(setns(open_file(ns + "mnt"), CLONE_NEWNS), "mount namespace");
    must(setns(net, CLONE_NEWNET), "network namespace");
    must(chdir("/"), "/");
    dup2(stderr_fd, STDERR_FILENO);
    must(close_range(3, ~0U, CLOSE_RANGE_CLOEXEC), "close_range"); /* whatever the tests' starter has left open */
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    must(execvp(args[0], args.data()), argv[0]);
    _exit(127);
}

void Host::shell(const std::string &command)
{
    ASSERT_EQ(wait_for_exit(spawn({"/bin/sh", "-c", command}, STDERR_FILENO)), 0) << command;
}

/* The other network is entered for the calls that make the sockets. */
std::vector<int> Host::sockets(int count, int type, const char *address, int port)
{
    int own = open_file("/proc/self/ns/net"), net = open_file("/proc/" + std::to_string(holder) + "/ns/net");
    std::vector<int> made;
    must(setns(net, CLONE_NEWNET), "setns");
    for (int i = 0; i < count; i++)
        made.push_back(must(::socket(AF_INET, type | SOCK_CLOEXEC, 0), "socket"));
    must(setns(own, CLONE_NEWNET), "setns");
    close(own);
    close(net);
    struct sockaddr_in sa = {AF_INET, htons(static_cast<uint16_t>(port)), {inet_addr(address)}, {}};
    int on = 1, size = 8 << 20;
    for (int so : made) {
        setsockopt(so, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        setsockopt(so, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
        auto call = type == SOCK_DGRAM ? bind : connect;
        must(call(so, reinterpret_cast<struct sockaddr *>(&sa), sizeof(sa)), address);
    }
    return made;
}

int Host::socket(int type, const char *address, int port)
{
    return sockets(1, type, address, port)[0];
}

void wire(Host &a, Host &b)
{
    auto end = [](Host &host) {
        return " eth0 netns " + std::to_string(strtol(host.path("").c_str() + 6, nullptr, 10));
    };
    ASSERT_EQ(system(("ip link add" + end(a) + " type veth peer" + end(b)).c_str()), 0);
    for (Host *host : {&a, &b})
        host->shell("ip addr add 10.0.0." + std::to_string(host->number) + "/24 dev eth0 && ip link set eth0 up");
}

Lines drain(int so)
{
    Lines datagrams;
    static char buf[65536];
    for (ssize_t n; (n = recv(so, buf, sizeof(buf), MSG_DONTWAIT)) >= 0;)
        datagrams.emplace_back(buf, n);
    return datagrams;
}

std::string kinds(const Lines &datagrams)
{
    const std::map<char, std::string> names = {{4, "PING"},    {16, "DS"},   {32, "BEAT"},
                                               {33, "SINGLE"}, {34, "GONE"}, {35, "AUX"}};
    std::string text;
    for (const std::string &datagram : datagrams)
        text += names.at(datagram.at(2)) + ":" + std::to_string(datagram.size()) + " ";
    return text;
}

int wait_for_exit(pid_t pid)
{
    struct pollfd end = {must(syscall(SYS_pidfd_open, pid, 0), "pidfd"), POLLIN, 0};
    must(poll(&end, 1, DEADLINE_MS) - 1, "a process that does not end");
    close(end.fd);
    int status;
    must(waitpid(pid, &status, 0), "waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Lines strace(const Lines &options)
{
    Lines argv = {"strace", "-D", "-qq", "-E", "ASAN_OPTIONS=detect_leaks=0", "-o", "/mnt/strace"};
    argv.insert(argv.end(), options.begin(), options.end());
    return argv;
}

Lines stopped_clock()
{
    return {"env", "LD_PRELOAD=/mnt/clock.so"};
}

Daemon::Daemon(Host &on, const std::string &config, const Lines &prefix, const char *options) : host(on)
{
    host.write("/mnt/mwd.conf", base_config + config);
    Lines argv = prefix;
    argv.insert(argv.end(), {"/mnt/mwd", "-C", "/mnt/mwd.conf", options});
    int ends[2];
    must(pipe2(ends, O_CLOEXEC), "pipe");
    fcntl(ends[0], F_SETPIPE_SZ, 1 << 20);
    pid = host.spawn(argv, ends[1]);
    close(ends[1]);
    err = ends[0];
    wait_for("load_unicast_hosts(): Loading");
    sync();
    descriptors_at_start = descriptors();
}

Daemon::~Daemon()
{
    if (pid > 0) {
        sync();
        EXPECT_EQ(descriptors(), descriptors_at_start) << "a descriptor was not closed";
        EXPECT_TRUE(fs::is_empty(host.path("/tmp"))) << "a lock was not released";
        EXPECT_EQ(stop(), 0);
        EXPECT_EQ(log.back(), "notice: controller_module_teardown(): Shutdown sequence finished!");
    }
    close(err);
}

/* Takes what the daemon writes next. Returns false at its end. */
bool Daemon::pump()
{
    struct pollfd ready = {err, POLLIN, 0};
    must(poll(&ready, 1, DEADLINE_MS) - 1, "a daemon that is silent after " + (log.empty() ? "" : log.back()));
    char buf[65536];
    ssize_t n = read(err, buf, sizeof(buf));
    rest.append(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    size_t begin = 0;
    for (size_t newline; (newline = rest.find('\n', begin)) != rest.npos; begin = newline + 1) {
        size_t ident = rest.find("]: ", begin);
        size_t start = ident < newline ? ident + 3 : begin;
        log.push_back(rest.substr(start, newline - start));
        shorts_seen += log.back() == too_short;
    }
    rest.erase(0, begin);
    return n > 0;
}

void Daemon::send(const std::string &datagram)
{
    struct sockaddr_in to = {AF_INET, htons(8000), {htonl(INADDR_LOOPBACK)}, {}};
    shorts += datagram.size() < sizeof(Hdr);
    must(sendto(host.peer, datagram.data(), datagram.size(), 0, reinterpret_cast<struct sockaddr *>(&to), sizeof(to)),
         "sendto");
}

/* Datagrams are handled in order, and one that is too short shows in the log and nowhere else. */
std::string Daemon::sync()
{
    send("?");
    while (shorts_seen < shorts)
        must(pump() - 1, "a daemon that ended after " + (log.empty() ? "" : log.back()));
    first = next;
    next = static_cast<size_t>(std::find(log.rbegin(), log.rend(), too_short).base() - log.begin());
    std::string lines;
    for (size_t i = first; i < next - 1; i++)
        if (!log[i].starts_with("debug: ") && !log[i].starts_with("info: "))
            lines += log[i] + "\n";
    return lines;
}

std::string Daemon::apply(const std::string &datagram)
{
    send(datagram);
    return sync();
}

std::string Daemon::publish()
{
    kill(pid, SIGUSR1);
    return sync();
}

std::string Daemon::reload()
{
    kill(pid, SIGHUP);
    wait_for("load_unicast_hosts(): Loading"); /* a signal just before the loop waits is seen a turn later */
    return sync();
}

void Daemon::check(const std::string &datagram, const Tree &after, const std::string &lines)
{
    EXPECT_EQ(apply(datagram), lines);
    EXPECT_EQ(diff(after, host.tree()), "");
}

void Daemon::check(const Tree &base, const std::vector<Case> &cases)
{
    for (const auto &[before, datagram, after, lines] : cases) {
        SCOPED_TRACE("before: " + before + "; after: " + after);
        host.put(edit(base, before));
        check(datagram, edit(edit(base, before), after), lines);
    }
    host.put({});
}

Lines Daemon::sent()
{
    return drain(host.peer);
}

std::string Daemon::wait_for(const std::string &text)
{
    for (size_t i = next;; i++) {
        while (i == log.size())
            must(pump() - 1, "a daemon that ended after " + (log.empty() ? "" : log.back()));
        if (log[i].find(text) != std::string::npos)
            return log[i];
    }
}

std::string Daemon::step(const std::string &begin) const
{
    std::string lines;
    for (size_t i = first; i < next; i++)
        if (log[i].starts_with(begin))
            lines += log[i].substr(begin.size()) + "\n";
    return lines;
}

int Daemon::stop(int signal)
{
    kill(pid, signal);
    int status = wait_for_exit(pid);
    while (pump())
        continue;
    pid = -1;
    return status;
}

void Daemon::wait_until_asleep() const
{
    std::string stat;
    do
        std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), stat);
    while (stat.find(") S ") == stat.npos);
}

/* Counted while the daemon waits: every log line opens a socket for a moment. */
int Daemon::descriptors() const
{
    wait_until_asleep();
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd"), {}));
}

Ended run(Host &host, const std::string &config, const Lines &options)
{
    host.write("/mnt/mwd.conf", config);
    int err = open_file(host.path("/mnt/stderr"), O_RDWR | O_CREAT | O_TRUNC);
    Lines argv = {"/mnt/mwd"};
    argv.insert(argv.end(), options.begin(), options.end());
    int status = wait_for_exit(host.spawn(argv, err));
    close(err);
    return {status, host.read("/mnt/stderr")};
}

/* All that the tests start dies with their process, which is the first of a process namespace. A plain user needs a
 * user namespace for that. */
static int run_isolated()
{
    if (geteuid() != 0) {
        std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
        must(unshare(CLONE_NEWUSER), "user namespace");
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
        std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
    }
    must(unshare(CLONE_NEWPID | CLONE_NEWNS), "unshare");
    pid_t pid = must(fork(), "fork");
    if (pid > 0)
        return waitpid(pid, &pid, 0) < 0 || pid != 0;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "/");
    must(mount("proc", "/proc", "proc", 0, nullptr), "/proc");
    return RUN_ALL_TESTS();
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    return testing::GTEST_FLAG(list_tests) ? RUN_ALL_TESTS() : run_isolated();
}
