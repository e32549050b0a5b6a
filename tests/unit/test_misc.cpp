#include "tests/unit/fixture.h"

TEST_F(Unit, RemovesATreeButNothingBehindItsLinksAndMounts)
{
    fs::create_directories("tree/mount");
    mount("", "tree/mount", "tmpfs", 0, nullptr);
    std::ofstream("tree/mount/kept").flush();
    std::ofstream("kept").flush();
    fs::create_symlink("/tmp/kept", "tree/link");
    fs::create_directory_symlink("/tmp/tree", "tree/up");
    EXPECT_EQ(-2, rm_fr("kept"));
    EXPECT_EQ(-2, rm_fr("tree/up"));
    EXPECT_TRUE(rm_fr("tree") != 0 && fs::exists("tree/mount/kept"));
    umount("tree/mount");
    EXPECT_TRUE(rm_fr("tree") == 0 && !fs::exists("tree") && rm_fr("tree") == 0 && fs::exists("kept"));
    EXPECT_EQ(log, "error: rm_fr(): kept not a directory!\nerror: rm_fr(): tree/up not a directory!\n");
}

TEST_F(Unit, SleepHoldsBackTheSignalsThatStopOrReload)
{
    static int handled;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
        signal(sig, [](int number) { handled = number; });
        on_sleep = std::function([=] { return raise(sig) + (handled == sig ? EINTR : 0); });
        EXPECT_EQ(sig == SIGUSR1 ? -EINTR : 0, msleep(1500));
        EXPECT_EQ(sig, handled); /* at the latest when the mask came back */
    }
    EXPECT_EQ("[1500]\n[1500]\n[1500]\n[1500]\n", log);
}
