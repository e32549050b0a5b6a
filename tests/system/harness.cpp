#include "tests/system/harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/prctl.h>
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

static int open_file(const std::string &path, int flags = O_RDONLY)
{
    return must(open(path.c_str(), flags | O_CLOEXEC, 0600), path);
}

/* A program that dies with this one and inherits nothing but these. */
static pid_t start(const Lines &argv, int out, int err)
{
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = must(fork(), "fork");
    if (pid > 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
    execvp(args[0], args.data());
    _exit(127);
}

/* /dev holds null and what a test binds there, /tmp the locks, /mnt all the rest. */
static const char make_host[] =
    "ip link set lo up && mount -t tmpfs mnt /mnt && mkdir /mnt/dev && touch /mnt/dev/null && "
    "mount --bind /dev/null /mnt/dev/null && mount --rbind /mnt/dev /dev && "
    "mount -t tmpfs tmp /tmp && echo && exec sleep infinity >/dev/null";

Host::Host(int number_) : number(number_)
{
    int ready[2];
    must(pipe2(ready, O_CLOEXEC), "pipe");
    holder = start({"unshare", "-nm", "/bin/sh", "-c", make_host}, ready[1], STDERR_FILENO);
    close(ready[1]);
    must(::read(ready[0], &number_, 1) - 1, "a host that cannot be made");
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

void Host::put(const Tree &tree)
{
    remove("/mnt/DB");
    fs::create_directory(path("/mnt/DB"));
    for (const std::string &lock : locks())
        remove("/tmp/" + lock);
    for (const auto &[name, value] : tree) {
        std::string inside = fs::path("/mnt/DB") / name; /* a lock's is absolute */
        if (value == "/")
            fs::create_directories(path(inside));
        else if (value.starts_with("-> "))
            fs::create_symlink(value.substr(3), path(inside));
        else
            write(inside, value);
    }
}

Tree Host::tree() const
{
    Tree tree;
    const std::string root = path("/mnt/DB/");
    for (const std::string &lock : locks())
        tree["/tmp/" + lock] = read("/tmp/" + lock);
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        std::string name = entry.path().string().substr(root.size());
        std::string &value = tree[name + (entry.is_directory() && !entry.is_symlink() ? "/" : "")];
        value = entry.is_symlink()     ? "-> " + fs::read_symlink(entry).string()
                : entry.is_directory() ? "/"
                                       : read("/mnt/DB/" + name);
        if (name.ends_with("/lastping") && labs(strtol(value.c_str(), nullptr, 10) - time(nullptr)) < 3600)
            value = "now\n";
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

/* In place, since daemons have the file mapped. */
void Host::set_clock(int64_t seconds)
{
    int fd = open_file(path("/mnt/clock"), O_RDWR | O_CREAT);
    must(pwrite(fd, &seconds, sizeof(seconds), 0), "clock");
    close(fd);
}

pid_t Host::spawn(const Lines &argv, int stderr_fd)
{
    Lines entered = {"nsenter", "-t", std::to_string(holder), "-m", "-n"};
    entered.insert(entered.end(), argv.begin(), argv.end());
    return start(entered, STDOUT_FILENO, stderr_fd);
}

void Host::shell(const std::string &command)
{
    ASSERT_EQ(wait_for_exit(spawn({"/bin/sh", "-c", command}, STDERR_FILENO)), 0) << command;
}

/* The other network is entered for the call that makes the socket. */
int Host::socket(int type, const char *address, int port)
{
    int own = open_file("/proc/self/ns/net"), net = open_file("/proc/" + std::to_string(holder) + "/ns/net");
    must(setns(net, CLONE_NEWNET), "setns");
    int so = must(::socket(AF_INET, type | SOCK_CLOEXEC, 0), "socket"), on = 1, size = 8 << 20;
    must(setns(own, CLONE_NEWNET), "setns");
    close(own);
    close(net);
    setsockopt(so, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(so, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
    struct sockaddr_in sa = {AF_INET, htons(static_cast<uint16_t>(port)), {inet_addr(address)}, {}};
    must((type == SOCK_DGRAM ? bind : connect)(so, reinterpret_cast<sockaddr *>(&sa), sizeof(sa)), address);
    return so;
}

void wire(Host &a, Host &b)
{
    ASSERT_EQ(system(("ip link add eth0 netns " + std::to_string(a.holder) + " type veth peer eth0 netns " +
                      std::to_string(b.holder))
                         .c_str()),
              0);
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
    std::map<char, std::string> names = {{4, "PING:"},    {16, "DS:"},   {32, "BEAT:"},
                                         {33, "SINGLE:"}, {34, "GONE:"}, {35, "AUX:"}};
    std::string text;
    for (const std::string &datagram : datagrams)
        text += names[datagram[2]] + std::to_string(datagram.size()) + " ";
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
    try {
        if (pid > 0) {
            sync();
            EXPECT_EQ(descriptors(), descriptors_at_start) << "a descriptor was not closed";
            EXPECT_EQ(host.locks(), Lines()) << "a lock was not released";
            EXPECT_EQ(stop(), 0);
            EXPECT_EQ(log.back(), "notice: controller_module_teardown(): Shutdown sequence finished!");
        }
    } catch (const std::exception &failure) {
        ADD_FAILURE() << failure.what();
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    close(err);
}

bool Daemon::pump()
{
    struct pollfd ready = {err, POLLIN, 0};
    must(poll(&ready, 1, DEADLINE_MS) - 1, "a daemon that is silent after " + (log.empty() ? "" : log.back()));
    char buf[65536];
    ssize_t n = read(err, buf, sizeof(buf));
    rest.append(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    size_t begin = 0;
    for (size_t newline; (newline = rest.find('\n', begin)) != rest.npos; begin = newline + 1) {
        size_t ident = rest.find("]: ", begin), start = ident < newline ? ident + 3 : begin;
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
    must(sendto(host.peer, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)),
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
    for (const auto &[text, sign] :
         {std::pair<std::string, const char *>{"/mnt/DB/", "@"}, {"No such file or directory", "ENOENT"}})
        for (size_t at; (at = lines.find(text)) != lines.npos;)
            lines.replace(at, text.size(), sign);
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

void Daemon::wait_for(const std::string &text)
{
    for (size_t i = next;; i++) {
        while (i == log.size())
            must(pump() - 1, "a daemon that ended after " + (log.empty() ? "" : log.back()));
        if (log[i].find(text) != std::string::npos)
            return;
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

/* Counted while the daemon waits: every log line opens a socket for a moment. */
int Daemon::descriptors() const
{
    const std::string proc = "/proc/" + std::to_string(pid);
    for (std::string stat; stat.find(") S ") == stat.npos;) {
        std::getline(std::ifstream(proc + "/stat"), stat);
        must(stat.empty() || stat.find(") Z ") != stat.npos ? -1 : 0, "a daemon that ended after " + log.back());
    }
    return static_cast<int>(std::distance(fs::directory_iterator(proc + "/fd"), {}));
}

std::pair<int, std::string> run(Host &host, const std::string &config, const Lines &options)
{
    host.write("/mnt/mwd.conf", config);
    int err = open_file(host.path("/mnt/stderr"), O_RDWR | O_CREAT | O_TRUNC);
    Lines argv = {"/mnt/mwd"};
    argv.insert(argv.end(), options.begin(), options.end());
    int status = wait_for_exit(host.spawn(argv, err));
    close(err);
    return {status, host.read("/mnt/stderr")};
}

/* The tests run as the first process of a process namespace: all that they start dies with it. */
int main(int argc, char **argv)
{
    std::vector<const char *> self = {"unshare", geteuid() == 0 ? "-npf" : "-rnpf", "--kill-child", "--mount-proc"};
    self.insert(self.end(), argv, argv + argc + 1);
    if (getpid() != 1 && std::string(argv[argc - 1]) != "--gtest_list_tests")
        must(execvp(self[0], const_cast<char **>(self.data())), self[0]);
    for (int number : {SIGINT, SIGTERM})
        signal(number, _exit); /* which a first process would not do by itself */
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
