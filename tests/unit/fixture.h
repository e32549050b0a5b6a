#ifndef MWD_TESTS_UNIT_FIXTURE_H
#define MWD_TESTS_UNIT_FIXTURE_H

#include "mwd/config.h"
#include "mwd/controller_internal.h"
#include "mwd/io.h"
#include "mwd/misc.h"
#include "mwd/object_internal.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sys/mount.h>
#include <syslog.h>

namespace fs = std::filesystem;
using namespace std::literals;
using std::to_string;

/* A test in an empty /tmp of its own, which takes root. */
struct Unit : testing::Test {
    static inline std::string log;               /* the lines down to notice, and "[ms]" for a sleep */
    static inline std::function<int()> on_sleep; /* gives the errno of a sleep, which takes no time */

    void SetUp() override
    {
        static const int own = unshare(CLONE_NEWNS) + mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
        ASSERT_EQ(0, own + mount("", "/tmp", "tmpfs", 0, "size=64k") + chdir("/tmp")) << strerror(errno);
        setlogmask(LOG_UPTO(LOG_NOTICE));
        log = "", on_sleep = nullptr;
    }
    void TearDown() override
    {
        umount2("/tmp", MNT_DETACH);
    }
};

#endif
