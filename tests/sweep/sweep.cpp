/*
 * The story told again and again: each time one system call or allocation fails, or the daemon is killed at a call, or
 * a file system is full. Told once more, the story must lead to the same tree as without that. MWD_SWEEP_STEP is the
 * distance from one fault to the next, 1 for all.
 */
#include "tests/sweep/story.h"
#include "tests/system/harness.h"

#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

static const char quiet[] = "syslog_priority = notice\n";

static size_t step()
{
    const char *text = getenv("MWD_SWEEP_STEP");
    return text ? strtoul(text, nullptr, 10) : 19;
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

    /* As an operator does. */
    void unlock()
    {
        for (const std::string &lock : host.locks())
            host.remove("/tmp/" + lock);
    }

    void expect_mended(Daemon &daemon)
    {
        cases++;
        unlock();
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
            number += line.starts_with(call + "(");
            if (begun && line.starts_with(call + "(") && !line.starts_with(call + "(2,"))
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

/* What strace does to a call, as "call:what". */
static std::string call_of(const std::string &fault)
{
    return fault.substr(0, fault.find(':'));
}

static Lines inject(const std::string &fault, int number)
{
    return strace({"-y", "-e", "trace=" + call_of(fault), "-e", "inject=" + fault + ":when=" + std::to_string(number)});
}

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
    const std::string fault = GetParam(), call = call_of(fault);
    /* Calls that are repeated, and where the daemon only looks, fail without a word. */
    const bool silent = fault.ends_with("EINTR") || call == "newfstatat" || call == "lseek" || call == "getdents64";
    std::vector<int> calls = calls_of_story(call);
    for (size_t i = 0; i < calls.size(); i += step()) {
        host.put(story_local());
        Daemon daemon(host, quiet, inject(fault, calls[i]), "-d");
        std::string lines = play(daemon), trace = host.read("/mnt/strace");
        size_t end = trace.find(" (INJECTED"), start = trace.rfind('\n', end) + 1;
        ASSERT_NE(end, trace.npos);
        SCOPED_TRACE(trace.substr(start, end - start));
        EXPECT_EQ(host.locks(), lock_that_stays(trace.substr(start, end - start)));
        EXPECT_TRUE(silent || !lines.empty()) << "nothing was logged";
        expect_mended(daemon);
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

class Crashes : public Sweep, public testing::WithParamInterface<const char *>
{
};

TEST_P(Crashes, are_mended)
{
    std::vector<int> calls = calls_of_story(GetParam());
    for (size_t i = 0; i < calls.size(); i += step()) {
        SCOPED_TRACE(calls[i]);
        host.put(story_local());
        {
            Daemon daemon(host, quiet, inject(std::string(GetParam()) + ":signal=KILL", calls[i]), "-d");
            EXPECT_THROW(play(daemon), std::system_error);
            ASSERT_EQ(daemon.stop(0), 128 + SIGKILL);
        }
        EXPECT_LE(host.locks().size(), 2U);
        unlock();
        Daemon daemon(host, quiet, {}, "-d");
        expect_mended(daemon);
    }
}

/* Nothing else changes what is on the disk, so these are all crashes that can be told apart. */
INSTANTIATE_TEST_SUITE_P(Each, Crashes,
                         testing::Values("openat", "mkdir", "mkdirat", "symlinkat", "write", "unlink", "rmdir"));

/* The file system of the tree, then that of the locks, has room for so many pages more. */
TEST_F(Sweep, full_file_systems_are_mended)
{
    for (const auto &[where, most] : {std::pair<std::string, size_t>{"/mnt", 120}, {"/tmp", 1}}) {
        auto limit = [&, at = where](size_t size) {
            host.shell("mount -o remount,size=" + std::to_string(size) + " " + at);
        };
        for (size_t pages = 0; pages <= most; pages += step()) {
            SCOPED_TRACE(where + " " + std::to_string(pages));
            host.put(story_local());
            Daemon daemon(host, quiet, {}, "-d");
            host.write(where + "/filler", "x");
            auto space = std::filesystem::space(host.path(where));
            limit(space.capacity - space.free + pages * 4096);
            EXPECT_NE(play(daemon), "");
            limit(64 << 20);
            expect_mended(daemon);
        }
    }
}

/*
 * The daemon comes up all the same and can be stopped, or it says why not and ends with status 1. No allocation fails
 * once it is up; returns how many were left to make then.
 */
static long start(Host &host, Lines argv, volatile Allocations *shared)
{
    host.write("/mnt/mwd.conf", std::string(base_config) + "unicast_mode = 0\n");
    argv.insert(argv.end(), {"/mnt/mwd", "-dC/mnt/mwd.conf"});
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    pid_t pid = host.spawn(argv, ends[1]);
    close(ends[1]);
    std::string told;
    bool up = false;
    char buf[4096];
    for (ssize_t n; !up && (n = read(ends[0], buf, sizeof(buf))) > 0;) {
        told.append(buf, static_cast<size_t>(n));
        up = told.find("load_unicast_hosts(): Loading") != told.npos;
    }
    const long left = shared->countdown;
    shared->countdown = 0;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) /* a signal that comes before select does not cut it short */
        kill(pid, up ? SIGTERM : 0);
    EXPECT_EQ(status, up ? 0 : 1 << 8) << told;
    EXPECT_TRUE(up || told.find("error: ") != told.npos || told.find("regcomp(") != told.npos) << told;
    close(ends[0]);
    return left;
}

TEST(Start, failures_are_told)
{
    Host host;
    Allocations unshared = {};
    for (const char *fault :
         {"socket:error=EMFILE", "setsockopt:error=EPERM", "getsockopt:error=EPERM", "bind:error=EADDRINUSE",
          "listen:error=EADDRINUSE", "ioctl:error=ENODEV", "fcntl:error=EBADF", "fsync:error=EIO"}) {
        int n = 1;
        do
            start(host, inject(fault, n++), &unshared);
        while (host.read("/mnt/strace").find("(INJECTED)") != std::string::npos);
        EXPECT_GT(n, 2) << fault;
    }
    for (auto [path, fault] : {std::pair{"/mnt/mwd.pid", "write:error=ENOSPC"},
                               {"/mnt/mwd.pid", "close:error=EIO"},
                               {"/mnt/mwd.pid", "close:error=EINTR:when=1"},
                               {"/mnt/local_nodes", "read:error=EIO"}}) {
        start(host, strace({"-P", path, "-e", std::string("inject=") + fault}), &unshared);
        EXPECT_NE(host.read("/mnt/strace").find("(INJECTED)"), std::string::npos) << fault;
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

static const Lines failing_allocations = {"env", "LD_PRELOAD=/mnt/alloc.so"};

TEST(Start, failed_allocations_are_told)
{
    Host host;
    host.write("/mnt/local_nodes", "9\n");
    auto *shared = share_allocations(host);
    long left = 0;
    for (long n = 1; left == 0; n += static_cast<long>(step())) {
        SCOPED_TRACE(n);
        shared->countdown = n;
        left = start(host, failing_allocations, shared);
    }
}

TEST_F(Sweep, failed_allocations_are_mended)
{
    auto *shared = share_allocations(host);
    host.put(story_local());
    Daemon daemon(host, quiet, failing_allocations, "-d");
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
    for (long n = 1; n <= all; n += static_cast<long>(step())) {
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
