#include "tests/unit/fixture.h"

namespace fs = std::filesystem;

TEST_F(Unit, RemovesATreeButNothingBehindItsLinks)
{
    fs::create_directories("tree/below/deeper");
    for (const char *file : {"tree/file", "tree/below/deeper/file", "kept"})
        std::ofstream(file).flush();
    fs::create_symlink("/tmp/kept", "tree/link");
    fs::create_directory_symlink("/tmp/tree", "up");
    EXPECT_EQ(-2, rm_fr("kept"));
    EXPECT_EQ(-2, rm_fr("up"));
    EXPECT_TRUE(fs::exists("tree/file"));
    EXPECT_EQ(0, rm_fr("tree"));
    EXPECT_FALSE(fs::exists("tree"));
    EXPECT_EQ(0, rm_fr("tree")) << "it is gone already";
    EXPECT_TRUE(fs::exists("kept"));
}

/* Another file system, and a directory of this one, which has the same device number. */
TEST_F(Unit, RemovesNothingThatIsMountedInATree)
{
    fs::create_directories("kept");
    for (const auto &[source, type, flags] :
         {std::tuple("tmpfs", "tmpfs", 0UL), std::tuple("kept", "", 0UL + MS_BIND)}) {
        fs::create_directories("tree/mount");
        ASSERT_EQ(0, mount(source, "tree/mount", type, flags, nullptr)) << strerror(errno);
        for (const char *file : {"tree/file", "tree/mount/file"})
            std::ofstream(file).flush();
        EXPECT_NE(0, rm_fr("tree"));
        EXPECT_NE(0, rm_fr("tree/mount"));
        EXPECT_TRUE(fs::exists("tree/mount/file")) << source;
        EXPECT_EQ(0, umount("tree/mount"));
        EXPECT_EQ(0, rm_fr("tree"));
        EXPECT_FALSE(fs::exists("tree")) << source;
    }
}

/* Where files and directories have different device numbers. */
TEST_F(Unit, RemovesATreeOnAnOverlayOfTwoFileSystems)
{
    fs::create_directories("lower");
    fs::create_directories("upper");
    fs::create_directories("merged");
    ASSERT_EQ(0, mount("", "lower", "tmpfs", 0, nullptr) + mount("", "upper", "tmpfs", 0, nullptr));
    for (const char *directory : {"lower/tree/below", "upper/files", "upper/work"})
        fs::create_directories(directory);
    std::ofstream("lower/tree/below/file").flush();
    if (mount("", "merged", "overlay", 0, "lowerdir=lower,upperdir=upper/files,workdir=upper/work") < 0)
        GTEST_SKIP() << "no overlay here: " << strerror(errno);
    std::ofstream("merged/tree/below/new").flush();
    EXPECT_EQ(0, rm_fr("merged/tree"));
    EXPECT_FALSE(fs::exists("merged/tree"));
}

static int sent, handled; /* a signal that comes in a sleep, which takes no time */

extern "C" int __wrap_nanosleep(const struct timespec *time, struct timespec *)
{
    EXPECT_EQ(1500, time->tv_sec * 1000 + time->tv_nsec / 1000000);
    raise(sent);
    errno = EINTR;
    return handled == sent ? -1 : 0;
}

TEST(Sleep, HoldsBackTheSignalsThatStopOrReload)
{
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
        signal(sent = sig, [](int number) { handled = number; });
        EXPECT_TRUE(msleep(1500) == (sig == SIGUSR1 ? -EINTR : 0) && handled == sig) << sig;
    }
}
