#ifndef MWD_TESTS_UNIT_FIXTURE_H
#define MWD_TESTS_UNIT_FIXTURE_H

#include "mwd/controller_internal.h"
#include "mwd/io.h"
#include "mwd/misc.h"
#include "mwd/object_internal.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sys/mount.h>

using std::to_string;

/* A test in an empty /tmp of its own, which takes root. */
struct Unit : testing::Test {
    void SetUp() override
    {
        static const int own = unshare(CLONE_NEWNS) + mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
        ASSERT_EQ(0, own + mount("", "/tmp", "tmpfs", 0, nullptr) + chdir("/tmp")) << strerror(errno);
    }
};

#endif
