#include "tests/system/harness.h"

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;
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

/* A program that dies with this one and inherits no more than stderr. */
static pid_t start(const Lines &argv, int err)
{
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = must(fork(), "fork");
    if (pid > 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(err, STDERR_FILENO);
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
    execvp(args[0], args.data());
    _exit(127);
}

/* /dev holds null and what a test binds there, /tmp the locks, /mnt all the rest. The shell stops once that is made. */
static const char make_host[] = "ip link set lo up && mount -t tmpfs mnt /mnt && mkdir /mnt/dev && "
                                "mknod /mnt/dev/null c 1 3 && mount --bind /mnt/dev /dev && mount -t tmpfs tmp /tmp && "
                                "kill -STOP $$";

Host::Host(int number_) : number(number_), holder(start({"unshare", "-nm", "/bin/sh", "-c", make_host}, STDERR_FILENO))
{
    int status;
    waitpid(holder, &status, WUNTRACED);
    must(WIFSTOPPED(status) - 1, "a host that cannot be made");
    fs::copy_file(MWD_BINARY, path("/mnt/mwd"));
    fs::copy_file(MWD_CLOCK, path("/mnt/clock.so"));
    write("/mnt/local_nodes", "");
    write("/mnt/clock", std::string(sizeof(time_t), 0));
    write("/mnt/unicast_hosts", "127.0.0.2\n");
    peer = socket(SOCK_DGRAM, "127.0.0.2", 8000);
}

Host::~Host()
{
    close(peer);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
}

std::string Host::read(const std::string &inside) const
{
    std::ifstream file(path(inside), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Host::write(const std::string &inside, const std::string &content)
{
    std::ofstream file(path(inside), std::ios::binary);
    must(file << content << std::flush ? 0 : -1, inside);
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
        if (entry.is_symlink())
            tree[name] = "-> " + fs::read_symlink(entry).string();
        else if (entry.is_directory())
            tree[name + "/"] = "/";
        else if (std::string &value = tree[name] = read("/mnt/DB/" + name);
                 name.ends_with("/lastping") && labs(atol(value.c_str()) - time(nullptr)) < 3600)
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

void Host::set_clock(time_t seconds)
{
    std::fstream clock(path("/mnt/clock"), std::ios::in | std::ios::out); /* in place: daemons have the file mapped */
    clock.write(reinterpret_cast<const char *>(&seconds), sizeof(seconds));
}

pid_t Host::spawn(const Lines &argv, int stderr_fd)
{
    return start(Lines{"nsenter", "-t", std::to_string(holder), "-m", "-n"} + argv, stderr_fd);
}

void Host::shell(const std::string &command)
{
    ASSERT_EQ(wait_for_exit(spawn({"/bin/sh", "-c", command}, STDERR_FILENO)), 0) << command;
}

/* The other network is entered for the call that makes the socket. */
int Host::socket(int type, const char *address, int port)
{
    static const int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    int net = open(("/proc/" + std::to_string(holder) + "/ns/net").c_str(), O_RDONLY), on = 1, size = 8 << 20;
    must(setns(net, CLONE_NEWNET), "setns");
    int so = must(::socket(AF_INET, type | SOCK_CLOEXEC, 0), "socket");
    must(setns(own, CLONE_NEWNET), "setns");
    close(net);
    setsockopt(so, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(so, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
    struct sockaddr_in sa = {AF_INET, htons(static_cast<uint16_t>(port)), {inet_addr(address)}, {}};
    must((type == SOCK_DGRAM ? bind : connect)(so, reinterpret_cast<sockaddr *>(&sa), sizeof(sa)), address);
    return so;
}

std::string kinds(const Lines &datagrams)
{
    std::map<char, std::string> names = {{4, "PING"}, {16, "DS"}, {32, "BEAT"}, {33, "SINGLE"}, {34, "GONE"}};
    std::string text;
    for (const std::string &datagram : datagrams)
        text += names.try_emplace(datagram[2], "AUX").first->second + ":" + std::to_string(datagram.size()) + " ";
    return text;
}

int wait_for_exit(pid_t pid)
{
    int status;
    must(waitpid(pid, &status, 0), "waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Lines strace(const Lines &options)
{
    return Lines{"strace", "-D", "-qq", "-E", "ASAN_OPTIONS=detect_leaks=0", "-o", "/mnt/strace"} + options;
}

Daemon::Daemon(Host &on, const std::string &config, const Lines &prefix, const char *options) : host(on)
{
    host.write("/mnt/mwd.conf", base_config + config);
    int ends[2], size = 8 << 20;
    const struct timeval deadline = {60, 0};
    must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
    setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size));
    pid = host.spawn(prefix + Lines{"/mnt/mwd", "-C", "/mnt/mwd.conf", options}, ends[1]);
    close(ends[1]);
    err = fdopen(ends[0], "r");
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
    fclose(err);
}

bool Daemon::pump()
{
    char line[8192];
    if (!fgets(line, sizeof(line), err))
        return false;
    const char *ident = strstr(line, "]: ");
    log.push_back(ident ? ident + 3 : line);
    log.back().pop_back();
    shorts_seen += log.back() == too_short;
    return true;
}

void Daemon::send(const std::string &datagram)
{
    struct sockaddr_in to = {AF_INET, htons(8000), {htonl(INADDR_LOOPBACK)}, {}};
    shorts += datagram.size() < sizeof(Hdr);
    must(sendto(host.peer, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)), "send");
}

/* Datagrams are handled in order, and one that is too short shows in the log and nowhere else. */
std::string Daemon::sync()
{
    send("?");
    while (shorts_seen < shorts)
        must(pump() - 1, "a daemon that ended, or is silent, after " + log.back());
    first = next;
    next = static_cast<size_t>(std::find(log.rbegin(), log.rend(), too_short).base() - log.begin());
    std::string lines;
    for (size_t i = first; i < next - 1; i++)
        if (!log[i].starts_with("debug: ") && !log[i].starts_with("info: "))
            lines += log[i] + "\n";
    for (const auto &[text, sign] : Tree{{"/mnt/DB/", "@"}, {"No such file or directory", "ENOENT"}})
        for (size_t at; (at = lines.find(text)) != lines.npos;)
            lines.replace(at, text.size(), sign);
    return lines;
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

Lines Daemon::sent(int so)
{
    Lines datagrams;
    static char buf[65536];
    for (ssize_t n; (n = recv(so < 0 ? host.peer : so, buf, sizeof(buf), MSG_DONTWAIT)) >= 0;)
        datagrams.emplace_back(buf, n);
    return datagrams;
}

void Daemon::wait_for(const std::string &text)
{
    for (size_t i = next;; i++) {
        while (i == log.size())
            must(pump() - 1, "a daemon that ended, or is silent, after " + log.back());
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
    const Lines shell = {"/bin/sh", "-c", "exec /mnt/mwd \"$@\" 2>/mnt/stderr", "sh"};
    int status = wait_for_exit(host.spawn(shell + options, STDERR_FILENO));
    return {status, host.read("/mnt/stderr")};
}
