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
#include <system_error>

static const char quiet[] = "syslog_priority = notice\n";

static size_t step()
{
    const char *text = getenv("MWD_SWEEP_STEP");
    return text ? strtoul(text, nullptr, 10) : 13;
}

static std::string play(Daemon &daemon)
{
    daemon.sent();
    for (const std::string &datagram : story())
        daemon.send(datagram);
    std::string lines = daemon.sync();
    return lines + daemon.publish();
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
        undisturbed = play(daemon);
        EXPECT_EQ(play(daemon), undisturbed);
        expected = host.tree();
        published = daemon.sent();
        EXPECT_EQ(published.size(), 3U);
    }

    ~Sweep()
    {
        const auto *test = testing::UnitTest::GetInstance()->current_test_info();
        printf("%s.%s: %d cases, %d states that stay\n", test->test_suite_name(), test->name(), cases, forgiven);
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
    std::string undisturbed;
    int cases = 0, forgiven = 0;
};

/* The daemon under strace, which does that to one call. */
static Lines inject(const std::string &call, const std::string &what, int number)
{
    return strace(
        {"-y", "-e", "trace=" + call, "-e", "inject=" + call + ":" + what + ":when=" + std::to_string(number)});
}

struct Call {
    const char *name, *error;
    bool silent = false; /* not every failure of it is told */

    friend void PrintTo(const Call &call, std::ostream *out)
    {
        *out << call.name;
    }
};

class Faults : public Sweep, public testing::WithParamInterface<Call>
{
};

/* A lock that could not be written, synced or removed stays: nobody counts it as held. */
static Lines lock_that_stays(const std::string &line)
{
    size_t path = line.find("/tmp/");
    if (path == line.npos || line.starts_with("openat"))
        return {};
    return {line.substr(path + 5, line.find_first_of(">\"", path) - path - 5)};
}

TEST_P(Faults, are_mended)
{
    const auto &[call, error, silent] = GetParam();
    std::vector<int> calls = calls_of_story(call);
    for (size_t i = 0; i < calls.size(); i += step()) {
        host.put(story_local());
        Daemon daemon(host, quiet, inject(call, std::string("error=") + error, calls[i]), "-d");
        std::string lines = play(daemon), trace = host.read("/mnt/strace");
        size_t end = trace.find(" (INJECTED)"), start = trace.rfind('\n', end) + 1;
        ASSERT_NE(end, trace.npos);
        SCOPED_TRACE(trace.substr(start, end - start));
        EXPECT_EQ(host.locks(), lock_that_stays(trace.substr(start, end - start)));
        EXPECT_TRUE(silent || lines != undisturbed) << "nothing was logged";
        expect_mended(daemon);
    }
}

INSTANTIATE_TEST_SUITE_P(Each, Faults,
                         testing::Values(Call{"openat", "EIO"}, Call{"mkdir", "ENOSPC"}, Call{"mkdirat", "ENOSPC"},
                                         Call{"symlinkat", "ENOSPC"}, Call{"write", "ENOSPC"}, Call{"fsync", "EIO"},
                                         Call{"unlink", "EIO"}, Call{"rmdir", "EIO"}, Call{"newfstatat", "EIO", true},
                                         Call{"readlink", "EIO"}, Call{"lseek", "EIO", true}, Call{"read", "EIO"},
                                         Call{"getdents64", "EIO", true}, Call{"clone", "EAGAIN"}, Call{"wait4", "EIO"},
                                         Call{"sendto", "EPERM"}),
                         [](const auto &call) { return std::string(call.param.name); });

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
            Daemon daemon(host, quiet, inject(GetParam(), "signal=KILL", calls[i]), "-d");
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
                         testing::Values("openat", "mkdir", "mkdirat", "symlinkat", "write", "unlink", "rmdir"),
                         [](const auto &call) { return std::string(call.param); });

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
            EXPECT_NE(play(daemon), undisturbed);
            limit(64 << 20);
            expect_mended(daemon);
        }
    }
}

#ifdef SWEEP_SHIM /* the sanitizers have an allocator of their own */
TEST_F(Sweep, failed_allocations_are_mended)
{
    std::filesystem::copy_file(SWEEP_SHIM, host.path("/mnt/alloc.so"));
    host.write("/mnt/alloc", std::string(sizeof(Allocations), '\0'));
    int fd = open(host.path("/mnt/alloc").c_str(), O_RDWR | O_CLOEXEC);
    auto *shared = static_cast<volatile Allocations *>(
        mmap(nullptr, sizeof(Allocations), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    host.put(story_local());
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
