/*
 * The story told again and again: each time one system call or allocation fails, or the daemon is killed at a call, or
 * a file system is full. Told once more, the story must lead to the same tree as without that. MWD_SWEEP_STEP is the
 * distance from one fault to the next, 1 for all.
 */
#include "tests/sweep/story.h"
#include "tests/system/harness.h"

#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sstream>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

static const char quiet[] = "syslog_priority = notice\n";

static long step()
{
    const char *text = getenv("MWD_SWEEP_STEP");
    return text ? atol(text) : 19;
}

/* The story, a publication and a control command. Returns the lines above notice. */
static std::string play(Daemon &daemon)
{
    daemon.sent();
    for (const std::string &datagram : story())
        daemon.send(datagram);
    std::stringstream lines;
    lines << daemon.sync();
    lines << daemon.publish();
    int control = daemon.host.socket(SOCK_STREAM, "127.0.0.1", 31337);
    EXPECT_EQ(write(control, "ds_ping 9\n", 10), 10);
    close(control);
    daemon.descriptors(); /* waits until the daemon sleeps again */
    lines << daemon.sync();
    std::string told;
    for (std::string line; std::getline(lines, line);)
        told += line.starts_with("notice: ") ? "" : line + "\n";
    return told;
}

/*
 * Two states stay, by design; what belongs to them is taken out of both trees.
 * - A VDisk without memberinfo/ or highest_gen_count: a creation that was cut short is not run again, nor is a removal
 *   once the node no longer links the VDisk, and a generation lost while it was rewritten is nowhere else.
 * - A VDisk with a datastore that does not link it back: the first of the two links says that both were made.
 */
static int forgive(Tree &tree, Tree &expected)
{
    int forgiven = 0;
    for (const std::string vdisk : {"v1", "v2", "s1"}) {
        std::string dir = "VDisk/" + vdisk + "/", link = "Datastore/ds1/vdisks/" + vdisk;
        if (tree.contains(dir) && (!tree.contains(dir + "memberinfo/") || tree[dir + "highest_gen_count"].size() < 2)) {
            forgiven++;
            for (Tree *either : {&tree, &expected})
                std::erase_if(*either, [&](auto &entry) {
                    return (entry.first + "/").find("/" + vdisk + "/") != entry.first.npos;
                });
        } else if (tree.contains(dir + "datastore") && !tree.contains(link)) {
            forgiven += static_cast<int>(expected.erase(link));
        }
    }
    return forgiven;
}

class Sweep : public testing::Test
{
  protected:
    Sweep()
    {
        std::filesystem::copy_file("/bin/true", host.path("/mnt/fence"));
        host.write("/mnt/local_nodes", "9\n");
        host.put(story_local());
        Daemon daemon(host, quiet, {}, "-d");
        EXPECT_EQ(play(daemon), "");
        EXPECT_EQ(play(daemon), "");
        expected = host.tree();
        published = daemon.sent();
        EXPECT_EQ(published.size(), 4U);
    }

    ~Sweep()
    {
        const auto *test = testing::UnitTest::GetInstance()->current_test_info();
        printf("%s: %d cases, %d states that stay\n", test->value_param() ? test->value_param() : test->name(), cases,
               forgiven);
    }

    void expect_mended(Daemon &daemon)
    {
        cases++;
        host.shell("rm -f /tmp/*"); /* the locks, as an operator does */
        play(daemon);
        EXPECT_EQ(daemon.sent(), published);
        Tree tree = host.tree(), wanted = expected;
        forgiven += forgive(tree, wanted);
        EXPECT_EQ(diff(wanted, tree), "");
    }

    /* Which of the calls of that name the daemon makes for the story, and not to write its log. */
    std::vector<int> calls_of_story(const std::string &call)
    {
        host.put(story_local());
        Daemon daemon(host, quiet, strace({"-e", "trace=recvfrom," + call}), "-d");
        play(daemon);
        std::istringstream trace(host.read("/mnt/strace"));
        std::vector<int> calls;
        bool begun = false;
        int number = 0;
        for (std::string line; std::getline(trace, line);) {
            begun = begun || line.starts_with("recvfrom(");
            if (line.starts_with(call + "(") && number++ >= 0 && begun && !line.starts_with(call + "(2,"))
                calls.push_back(number);
        }
        EXPECT_FALSE(calls.empty());
        return calls;
    }

    Host host;
    Tree expected;
    Lines published;
    int cases = 0, forgiven = 0;
};

class Faults : public Sweep, public testing::WithParamInterface<const char *>
{
};

/* A lock that could not be written, synced or removed stays: nobody counts it as held. */
static Lines lock_that_stays(const std::string &line)
{
    size_t path = line.find("/tmp/");
    if (path == line.npos || line.starts_with("openat") || line.find("EINTR") != line.npos)
        return {};
    return {line.substr(path + 5, line.find_first_of(">\"", path) - path - 5)};
}

TEST_P(Faults, are_mended)
{
    const std::string fault = GetParam(), call = fault.substr(0, fault.find(':'));
    /* Calls that are repeated, and where the daemon only looks, fail without a word. */
    const bool silent = fault.ends_with("EINTR") || call == "newfstatat" || call == "lseek" || call == "getdents64";
    std::vector<int> calls = calls_of_story(call);
    for (size_t i = 0; i < calls.size(); i += static_cast<size_t>(step())) {
        host.put(story_local());
        const std::string injection = "inject=" + fault + ":when=" + std::to_string(calls[i]);
        SCOPED_TRACE(injection);
        std::optional<Daemon> daemon(std::in_place, host, quiet, strace({"-ye", "trace=" + call, "-e", injection}),
                                     "-d");
        if (fault.ends_with("KILL")) {
            EXPECT_THROW(play(*daemon), std::system_error);
            ASSERT_EQ(daemon->stop(0), 128 + SIGKILL);
            EXPECT_LE(host.locks().size(), 2U);
            host.shell("rm -f /tmp/*");
            daemon.emplace(host, quiet, Lines(), "-d");
        } else {
            std::string lines = play(*daemon), trace = host.read("/mnt/strace");
            size_t end = trace.find(" (INJECTED"), start = trace.rfind('\n', end) + 1;
            ASSERT_NE(end, trace.npos);
            EXPECT_EQ(host.locks(), lock_that_stays(trace.substr(start, end - start))) << trace.substr(start, 99);
            EXPECT_TRUE(silent || !lines.empty()) << "nothing was logged of " << trace.substr(start, 99);
        }
        expect_mended(*daemon);
    }
}

INSTANTIATE_TEST_SUITE_P(Each, Faults,
                         testing::Values("openat:error=EACCES", "openat:error=EINTR", "mkdir:error=ENOSPC",
                                         "mkdirat:error=ENOSPC", "symlinkat:error=ENOSPC", "write:error=ENOSPC",
                                         "write:error=EINTR", "fsync:error=EIO", "unlink:error=EIO", "rmdir:error=EIO",
                                         "newfstatat:error=EIO", "readlink:error=EIO", "lseek:error=EIO",
                                         "read:error=EIO", "read:error=EINTR", "getdents64:error=EIO",
                                         "clone:error=EAGAIN", "wait4:error=EINTR", "sendto:error=EPERM",
                                         "sendto:error=EINTR", "sendto:retval=5", "recvfrom:error=EINTR",
                                         "accept:error=ECONNABORTED", "accept:error=EINTR", "fcntl:error=EBADF",
                                         "setsockopt:error=EPERM"));

/* Nothing else changes what is on the disk, so these are all crashes that can be told apart. */
INSTANTIATE_TEST_SUITE_P(Crash, Faults,
                         testing::Values("openat:signal=KILL", "mkdir:signal=KILL", "mkdirat:signal=KILL",
                                         "symlinkat:signal=KILL", "write:signal=KILL", "unlink:signal=KILL",
                                         "rmdir:signal=KILL"));

/* The file system of the tree, then that of the locks, has room for so many pages more. */
TEST_F(Sweep, full_file_systems_are_mended)
{
    for (const auto &[where, most] : {std::pair<std::string, long>{"/mnt", 120}, {"/tmp", 1}}) {
        const std::string remount = "mount " + where + " -o remount,size=";
        for (long pages = 0; pages <= most; pages += step()) {
            SCOPED_TRACE(where + " " + std::to_string(pages));
            host.put(story_local());
            Daemon daemon(host, quiet, {}, "-d");
            host.write(where + "/filler", "x");
            auto space = std::filesystem::space(host.path(where));
            host.shell(remount + std::to_string(space.capacity - space.free + static_cast<size_t>(pages) * 4096));
            EXPECT_NE(play(daemon), "");
            host.shell(remount + "64m");
            expect_mended(daemon);
        }
    }
}

static const char stop[] = "inject=pselect6:signal=TERM"; /* when the daemon waits for the first time */

/* The daemon comes up and is stopped, or says why not and ends with status 1. */
static void start(Host &host, const Lines &disturbance)
{
    host.write("/mnt/mwd.conf", std::string(base_config) + "unicast_mode = 0\n");
    Lines argv = strace(disturbance);
    argv.insert(argv.end(), {"/mnt/mwd", "-dC/mnt/mwd.conf"});
    host.write("/mnt/stderr", "");
    int err = open(host.path("/mnt/stderr").c_str(), O_RDWR | O_CLOEXEC);
    int status = wait_for_exit(host.spawn(argv, err));
    close(err);
    std::string told = host.read("/mnt/stderr");
    EXPECT_TRUE(told.find("Shutdown sequence finished!") != told.npos ||
                (status == 1 && (told.find("error: ") != told.npos || told.find("regcomp(") != told.npos)))
        << status << " after " << told;
}

TEST(Start, failures_are_told)
{
    Host host;
    host.write("/mnt/local_nodes", "9\n");
    auto injected = [&] {
        return host.read("/mnt/strace").find("(INJECTED)") != std::string::npos;
    };
    for (const char *fault :
         {"socket:error=EMFILE", "setsockopt:error=EPERM", "getsockopt:error=EPERM", "bind:error=EADDRINUSE",
          "listen:error=EADDRINUSE", "ioctl:error=ENODEV", "fcntl:error=EBADF", "fsync:error=EIO"}) {
        int n = 1;
        do
            start(host, {"-e", stop, "-e", std::string("inject=") + fault + ":when=" + std::to_string(n++)});
        while (injected());
        EXPECT_GT(n, 2) << fault;
    }
    for (auto [path, fault] : {std::pair{"/mnt/mwd.pid", "write:error=ENOSPC"},
                               {"/mnt/mwd.pid", "close:error=EIO"},
                               {"/mnt/mwd.pid", "close:error=EINTR:when=1"},
                               {"/mnt/local_nodes", "read:error=EIO"}}) {
        start(host, {"-P", path, "-P", "/mnt/unicast_hosts", "-e", "inject=openat:signal=TERM:when=2", "-e",
                     std::string("inject=") + fault});
        EXPECT_TRUE(injected()) << fault;
    }
}

#ifdef SWEEP_SHIM /* the sanitizers have an allocator of their own */
static volatile Allocations *share_allocations(Host &host)
{
    std::filesystem::copy_file(SWEEP_SHIM, host.path("/mnt/alloc.so"));
    host.write("/mnt/alloc", std::string(sizeof(Allocations), '\0'));
    int fd = open(host.path("/mnt/alloc").c_str(), O_RDWR | O_CLOEXEC);
    void *shared = mmap(nullptr, sizeof(Allocations), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return static_cast<volatile Allocations *>(shared);
}

TEST(Start, failed_allocations_are_told)
{
    Host host;
    host.write("/mnt/local_nodes", "9\n");
    auto *shared = share_allocations(host);
    for (long n = 1; shared->countdown == 0; n += step()) {
        shared->countdown = n;
        start(host, {"-e", stop, "-E", "LD_PRELOAD=/mnt/alloc.so"});
    }
}

TEST_F(Sweep, failed_allocations_are_mended)
{
    auto *shared = share_allocations(host);
    Daemon daemon(host, quiet, {"env", "LD_PRELOAD=/mnt/alloc.so"}, "-d");
    play(daemon);
    host.put(story_local());
    const long many = 1000000;
    shared->countdown = many;
    play(daemon);
    auto alive = [&] {
        daemon.descriptors(); /* waits until the daemon sleeps */
        return shared->alive;
    };
    const long all = many - shared->countdown, before = alive();
    for (long n = 1; n <= all; n += step()) {
        SCOPED_TRACE(n);
        host.put(story_local());
        shared->countdown = n;
        std::string lines = play(daemon);
        ASSERT_EQ(shared->countdown, 0);
        EXPECT_TRUE(!shared->own || lines.find("alloc(") != lines.npos) << lines;
        EXPECT_EQ(host.locks(), Lines());
        expect_mended(daemon);
        EXPECT_EQ(alive(), before) << "memory was not freed";
    }
}
#endif
