#include "tests/unit/fixture.h"

TEST(Build, FitsToTheByteOrFails)
{
    struct Node node = {};
    struct VDisk vdisk = {};
    struct Frontend frontend = {};
    TAILQ_INIT(&vdisk.frontends);
    TAILQ_INSERT_TAIL(&vdisk.frontends, &frontend, entries);
    VDiskTree_RB_INSERT(&node.vdisks, &vdisk);
    node.dsuuid[0] = 'd';
    const std::pair<std::function<int(char *, size_t, size_t *)>, size_t> messages[] = {
        {std::bind_front(build_ds_ping, &node), 294},    {std::bind_front(build_aux_ping, &node), 236},
        {std::bind_front(build_vdisk_ping, &node), 336}, {std::bind_front(build_single_vdisk_ping, &node, &vdisk), 336},
        {std::bind_front(build_heartbeat, &node), 207},  {std::bind_front(build_vdisk_deleted, &node, "v"), 225},
    };
    for (const auto &[build, size] : messages)
        for (size_t buflen = 1; buflen <= size + 1; buflen++) {
            size_t length = 0;
            EXPECT_EQ(buflen < size ? -1 : 0, build(std::vector<char>(buflen).data(), buflen, &length)) << buflen;
            EXPECT_EQ(buflen < size ? 0 : size, length);
        }
}
