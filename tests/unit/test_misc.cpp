#include "tests/unit/fixture.h"

namespace fs = std::filesystem;

TEST_F(Unit, RemovesATreeButNothingBehindItsLinksAndMounts)
{
    fs::create_directories("tree/mount");
    mount("", "tree/mount", "tmpfs", 0, nullptr);
    for (const char *file : {"tree/file", "tree/mount/kept", "kept"})
        std::ofstream(file).flush();
    fs::create_symlink("/tmp/kept", "tree/link");
    fs::create_directory_symlink("/tmp/tree", "tree/up");
    EXPECT_TRUE(rm_fr("kept") == -2 && rm_fr("tree/up") == -2 && fs::exists("tree/file"));
    EXPECT_TRUE(rm_fr("tree") != 0 && fs::exists("tree/mount/kept"));
    umount("tree/mount");
    EXPECT_TRUE(rm_fr("tree") == 0 && !fs::exists("tree") && rm_fr("tree") == 0 && fs::exists("kept"));
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
