#include "tests/unit/fixture.h"

/* The loader's result, the count (9 if it was left alone), the list and the error lines. */
static std::string load(const char *key, const std::string &content)
{
    struct VDisk *vdisk = nullptr;
    VDiskAlloc(&vdisk);
    int count = 9;
    std::ofstream(key) << content;
    const int result = *key == 'm' ? MembershipLoad(&vdisk->members, &count, "V", AT_FDCWD)
                                   : FrontendsLoad(&vdisk->frontends, &count, "V", "3", AT_FDCWD);
    std::string seen = to_string(result) + "/" + to_string(count);
    for (struct Member *member = TAILQ_FIRST(&vdisk->members); member; member = TAILQ_NEXT(member, entries))
        seen += " "s + member->uuid;
    for (struct Frontend *frontend = TAILQ_FIRST(&vdisk->frontends); frontend; frontend = TAILQ_NEXT(frontend, entries))
        seen += " " + to_string(frontend->fee.node);
    VDiskFree(vdisk);
    return seen + "\n" + std::exchange(Unit::log, "");
}

TEST_F(Unit, ListsAndLinksAreReadWholeOrNotAtAll)
{
    EXPECT_EQ("0/9\n0/9\n", load("membership", "") + load("frontend", ""));
    EXPECT_EQ("0/4 7 12 1 8\n", load("membership", "7\n 12x\n4294967297\n8\0000\n"s));
    for (const std::string &bad : {"5\n0\n"s, "5\n\n6\n"s, "5\n\0\n6\n"s, "5\nx\n"s, "5\n4294967296\n"s, "5\n6"s})
        EXPECT_EQ("-1/9\nerror: MembershipLoad(): Malformed file V/membership\n", load("membership", bad)) << bad;
    EXPECT_EQ("0/3 167772161 1 4294967295\n", load("frontend", "10.0.0.1\n0.0.0.1\0x\n255.255.255.255\n"s));
    EXPECT_EQ("-1/9\nerror: FrontendsLoad(): Malformed file V/memberinfo/3/frontend\n", load("frontend", "10.0.0.1"));
    for (const std::string ip : {"", "10.0.0.02", "10.0.0.2 ", "10.0.0", "10.0.0.256"})
        EXPECT_EQ("-1/9\nerror: FrontendsLoad(): inet_pton(" + ip + "): 0\n",
                  load("frontend", "1.2.3.4\n" + ip + "\n"));

    cfg_work_directory = const_cast<char *>(".");
    fs::create_directories("VDisk/v");
    for (const std::string target : {"ds1", "../../Datastore/", "../.."}) {
        fs::create_symlink(target, "VDisk/v/datastore");
        EXPECT_EQ(-1, DatastoreUpdate_UnrefVDisk("v"));
        EXPECT_NE(log.npos, log.find("(): Malformed symlink ./VDisk/v/datastore: " + target + "\n")) << log;
        fs::remove("VDisk/v/datastore");
    }
}
