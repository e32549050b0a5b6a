#include "tests/system/harness.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
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

const char base_config[] = "pid_file = /mnt/mwd.pid\nwork_directory = /mnt/DB\nlocal_nodes = /mnt/local_nodes\n"
                           "unicast_mode = 1\nunicast_hosts = /mnt/unicast_hosts\nbind_interface = lo\n"
                           "node_lock_timeout_ms = 0\ndatastore_lock_timeout_ms = 0\nvdisk_lock_timeout_ms = 0\n"
                           "fence_check = /mnt/fence\nping_interval = 3600\nheartbeat_interval = 3600\n"
                           "stats_interval = 86400\n";

static void must(bool ok, const std::string &what)
{
    if (!ok)
        throw std::system_error(errno, std::generic_category(), what);
}

/* /dev holds null and whatever a test binds there, /tmp the locks, /mnt all the rest. */
static bool become_host()
{
    struct ifreq lo = {};
    strcpy(lo.ifr_name, "lo");
    lo.ifr_flags = IFF_UP;
    return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 &&
           ioctl(socket(AF_INET, SOCK_DGRAM, 0), SIOCSIFFLAGS, &lo) == 0 &&
           mount("mnt", "/mnt", "tmpfs", 0, nullptr) == 0 && mkdir("/mnt/dev", 0755) == 0 &&
           mknod("/mnt/dev/null", S_IFREG | 0666, 0) == 0 &&
           mount("/dev/null", "/mnt/dev/null", nullptr, MS_BIND, nullptr) == 0 &&
           mount("/mnt/dev", "/dev", nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
           mount("tmp", "/tmp", "tmpfs", 0, nullptr) == 0;
}

Host::Host(int number_) : number(number_)
{
    int ready[2];
    must(pipe2(ready, O_CLOEXEC) == 0, "pipe");
    must((holder = fork()) >= 0, "fork");
    if (holder == 0) {
        bool ok = become_host();
        must(::write(ready[1], &ok, 1) == 1, "write");
        for (;;)
            pause();
    }
    bool ok = false;
    must(::read(ready[0], &ok, 1) == 1 && ok, "namespaces of a host");
    close(ready[0]);
    close(ready[1]);
    fs::copy_file(MWD_BINARY, path("/mnt/mwd"));
    fs::copy_file(MWD_CLOCK, path("/mnt/clock.so"));
    write("/mnt/local_nodes", "");
    write("/mnt/unicast_hosts", "127.0.0.2\n");
    peer = udp("127.0.0.2", 8000);
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
    file << content;
    must(file.flush().good(), inside);
}

void Host::put(const Tree &tree)
{
    fs::create_directory(path("/mnt/DB"));
    for (const auto &[name, value] : tree) {
        std::string inside = "/mnt/DB/" + name;
        if (value == "/")
            fs::create_directories(path(inside));
        else if (value.starts_with("-> "))
            fs::create_symlink(value.substr(3), path(inside));
        else
            write(inside, value == "now\n" ? std::to_string(time(nullptr)) + "\n" : value);
    }
}

Tree Host::tree() const
{
    Tree tree;
    const std::string root = path("/mnt/DB");
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        std::string name = entry.path().string().substr(root.size() + 1);
        if (entry.is_symlink())
            tree[name] = "-> " + fs::read_symlink(entry).string();
        else if (entry.is_directory())
            tree[name + "/"] = "/";
        else
            tree[name] = read("/mnt/DB/" + name);
        if (name.ends_with("/lastping") && labs(strtol(tree[name].c_str(), nullptr, 10) - time(nullptr)) < 300)
            tree[name] = "now\n";
    }
    return tree;
}

Lines Host::locks() const
{
    Lines names;
    for (const auto &entry : fs::directory_iterator(path("/tmp")))
        names.push_back(entry.path().filename());
    return names;
}

void Host::lock(const std::string &name)
{
    write("/tmp/" + name, "1\n");
}

void Host::unlock(const std::string &name)
{
    fs::remove(path("/tmp/" + name));
}

void Host::set_clock(int64_t seconds)
{
    std::fstream file(path("/mnt/clock"), std::ios::binary | std::ios::in | std::ios::out);
    if (!file.is_open())
        file.open(path("/mnt/clock"), std::ios::binary | std::ios::out);
    file.write(reinterpret_cast<const char *>(&seconds), sizeof(seconds));
}

pid_t Host::spawn(const Lines &argv, int stderr_fd)
{
    pid_t pid = fork();
    must(pid >= 0, "fork");
    if (pid > 0)
        return pid;
    const std::string ns = "/proc/" + std::to_string(holder) + "/ns/";
    int net = open((ns + "net").c_str(), O_RDONLY | O_CLOEXEC), mnt = open((ns + "mnt").c_str(), O_RDONLY | O_CLOEXEC);
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(stderr_fd, STDERR_FILENO);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    if (setns(net, CLONE_NEWNET) == 0 && setns(mnt, CLONE_NEWNS) == 0 && chdir("/") == 0)
        execvp(args[0], args.data());
    _exit(127);
}

void Host::shell(const std::string &command)
{
    ASSERT_EQ(wait_for_exit(spawn({"/bin/sh", "-c", command}, STDERR_FILENO)), 0) << command;
}

/* Another network namespace is entered for the one call that makes the socket. */
int Host::open_socket(int type, const char *address, int port)
{
    int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    int net = open(("/proc/" + std::to_string(holder) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    must(setns(net, CLONE_NEWNET) == 0, "setns");
    int so = socket(AF_INET, type | SOCK_CLOEXEC, 0), on = 1, size = 8 << 20;
    must(setns(own, CLONE_NEWNET) == 0, "setns");
    close(own);
    close(net);
    setsockopt(so, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(so, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    inet_aton(address, &sa.sin_addr);
    auto call = type == SOCK_DGRAM ? ::bind : ::connect;
    must(call(so, reinterpret_cast<struct sockaddr *>(&sa), sizeof(sa)) == 0, address);
    return so;
}

int Host::udp(const char *address, int port)
{
    return open_socket(SOCK_DGRAM, address, port);
}

int Host::tcp(const char *address, int port)
{
    return open_socket(SOCK_STREAM, address, port);
}

void wire(Host &a, Host &b)
{
    auto name = [](Host &host) {
        return "eth0 netns " + host.path("").substr(6, host.path("").find("/root") - 6);
    };
    ASSERT_EQ(system(("ip link add " + name(a) + " type veth peer " + name(b)).c_str()), 0);
    for (Host *host : {&a, &b})
        host->shell("ip addr add 10.0.0." + std::to_string(host->number) + "/24 dev eth0 && ip link set eth0 up");
}

Lines drain(int so)
{
    Lines datagrams;
    std::string buf(65536, '\0');
    for (ssize_t n; (n = recv(so, buf.data(), buf.size(), MSG_DONTWAIT)) >= 0;)
        datagrams.push_back(buf.substr(0, static_cast<size_t>(n)));
    return datagrams;
}

int wait_for_exit(pid_t pid)
{
    struct pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    must(poll(&ended, 1, DEADLINE_MS) == 1, "a process that does not end");
    close(ended.fd);
    int status;
    must(waitpid(pid, &status, 0) == pid, "waitpid");
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

Daemon::Daemon(Host &on, const std::string &config, const Lines &prefix, const Lines &options) : host(on)
{
    host.write("/mnt/mwd.conf", base_config + config);
    Lines argv = prefix;
    argv.insert(argv.end(), {"/mnt/mwd", "-C", "/mnt/mwd.conf"});
    argv.insert(argv.end(), options.begin(), options.end());
    int ends[2];
    must(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
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
        EXPECT_EQ(host.locks(), Lines()) << "a lock was not released";
        EXPECT_EQ(stop(), 0);
        EXPECT_EQ(log.back(), "notice: controller_module_teardown(): Shutdown sequence finished!");
    }
    close(err);
}

/* Takes what the daemon has written by then. Returns false at its end, or when nothing came in time. */
bool Daemon::pump(int timeout_ms)
{
    struct pollfd ready = {err, POLLIN, 0};
    if (poll(&ready, 1, timeout_ms) != 1)
        return false;
    static std::string rest; /* of a line that is not yet whole */
    if (log.empty())
        rest.clear();
    char buf[65536];
    ssize_t n = read(err, buf, sizeof(buf));
    if (n > 0)
        rest.append(buf, static_cast<size_t>(n));
    for (size_t newline; (newline = rest.find('\n')) != std::string::npos; rest.erase(0, newline + 1)) {
        std::string line = rest.substr(0, newline);
        size_t text = line.find("]: ");
        log.push_back(text == std::string::npos ? line : line.substr(text + 3));
    }
    return n > 0;
}

void Daemon::send(const std::string &datagram)
{
    struct sockaddr_in to = {AF_INET, htons(8000), {htonl(INADDR_LOOPBACK)}, {}};
    if (datagram.size() < sizeof(Hdr))
        shorts++;
    must(sendto(host.peer, datagram.data(), datagram.size(), 0, reinterpret_cast<struct sockaddr *>(&to), sizeof(to)) ==
             static_cast<ssize_t>(datagram.size()),
         "sendto");
}

/* Datagrams are handled in order, and one that is too short shows in the log and nowhere else. */
std::string Daemon::sync()
{
    static const char too_short[] = "error: controller_thread_loop(): Malformed packet? #1";
    send("?");
    auto seen = [&] {
        return std::count(log.begin(), log.end(), too_short);
    };
    while (seen() < shorts)
        must(pump(DEADLINE_MS), "a daemon that is silent: " + (log.empty() ? "" : log.back()));
    begin = end;
    end = static_cast<size_t>(std::find(log.rbegin(), log.rend(), too_short).base() - log.begin());
    std::string lines;
    for (size_t i = begin; i < end - 1; i++)
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
    signal(SIGUSR1);
    return sync();
}

std::string Daemon::change(const std::string &datagram, std::string *lines)
{
    Tree before = host.tree();
    std::string above_info = apply(datagram);
    if (lines)
        *lines = above_info;
    else
        EXPECT_EQ(above_info, "");
    return diff(before, host.tree());
}

Lines Daemon::sent()
{
    return drain(host.peer);
}

std::string Daemon::wait_for(const std::string &text)
{
    for (size_t i = end;; i++) {
        while (i == log.size())
            must(pump(DEADLINE_MS), "no line with " + text);
        if (log[i].find(text) != std::string::npos)
            return log[i];
    }
}

bool Daemon::logged(const std::string &text) const
{
    for (size_t i = begin; i < end; i++)
        if (log[i].find(text) != std::string::npos)
            return true;
    return false;
}

std::string Daemon::step(const std::string &prefix) const
{
    std::string lines;
    for (size_t i = begin; i < end; i++)
        if (log[i].starts_with(prefix))
            lines += log[i].substr(prefix.size()) + "\n";
    return lines;
}

void Daemon::signal(int number)
{
    must(kill(pid, number) == 0, "kill");
}

int Daemon::stop(int number)
{
    signal(number);
    int status = wait_for_exit(pid);
    while (pump(DEADLINE_MS))
        continue;
    pid = -1;
    return status;
}

/* Counted while the daemon sleeps in its loop: every log line opens a socket for a moment. */
int Daemon::descriptors() const
{
    std::string stat;
    do {
        std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
        std::getline(file, stat);
    } while (stat.find(") S ") == std::string::npos);
    auto open = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<int>(std::distance(fs::begin(open), fs::end(open)));
}

Ended run(Host &host, const std::string &config, const Lines &options)
{
    host.write("/mnt/mwd.conf", config);
    int err = open(host.path("/mnt/stderr").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Lines argv = {"/mnt/mwd"};
    argv.insert(argv.end(), options.begin(), options.end());
    int status = wait_for_exit(host.spawn(argv, err));
    close(err);
    return {status, host.read("/mnt/stderr")};
}

/* All that the tests start dies with this process, which is the first of a process namespace of its own. */
static int isolated(int (*tests)())
{
    std::string map = "0 " + std::to_string(geteuid()) + " 1";
    if (geteuid() != 0) {
        must(unshare(CLONE_NEWUSER) == 0, "user namespace");
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << map;
        std::ofstream("/proc/self/gid_map") << "0 " << getegid() << " 1";
    }
    must(unshare(CLONE_NEWPID | CLONE_NEWNS) == 0, "unshare");
    pid_t pid = fork();
    if (pid > 0)
        return wait_for_exit(pid);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount(/)");
    must(mount("proc", "/proc", "proc", 0, nullptr) == 0, "mount(/proc)");
    return tests();
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    auto tests = [] {
        return RUN_ALL_TESTS();
    };
    return testing::GTEST_FLAG(list_tests) ? tests() : isolated(tests);
}
