#include "tests/unit/fixture.h"

static std::string bytes_of(const auto &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof(record)};
}

TEST_F(Unit, MessagesFitToTheByteOrFail)
{
    struct Node node = {};
    std::tuple<VDisk, Member, Frontend> all[3] = {};
    std::string sent[3];
    for (int i : {2, 0, 1}) {
        auto &[vdisk, member, frontend] = all[i];
        memset(&vdisk.vde, 'v' + i, sizeof(vdisk.vde));
        vdisk.vdiskuuid[0] = static_cast<char>('0' + i);
        vdisk.vde.snapshot = i == 2 ? 0 : 0x100; /* the last by name travels first */
        member.mbe.node = frontend.fee.node = 1U << i;
        TAILQ_INIT(&vdisk.members);
        TAILQ_INIT(&vdisk.frontends);
        TAILQ_INSERT_TAIL(&vdisk.members, &member, entries);
        TAILQ_INSERT_TAIL(&vdisk.frontends, &frontend, entries);
        VDiskTree_RB_INSERT(&node.vdisks, &vdisk);
        sent[i] = bytes_of(vdisk.vde) + bytes_of(member.mbe) + bytes_of(frontend.fee);
    }
    memset(&node, 'n', offsetof(struct Node, nodeid)); /* hdr, dse, aux and a datastore */
    const auto header = std::function([&](char type) { return bytes_of(node.hdr).replace(2, 1, 1, type); });
    const std::pair<std::function<int(char *, size_t, size_t *)>, std::string> messages[] = {
        {std::bind_front(build_ds_ping, &node), header(16) + std::string(87, 'n')},
        {std::bind_front(build_aux_ping, &node), header(35) + "\0\x1c\0\0\0"s + std::string(24, 'n')},
        {std::bind_front(build_vdisk_ping, &node), header(4) + sent[2] + sent[0] + sent[1]},
        {std::bind_front(build_heartbeat, &node), header(32)},
        {std::bind_front(build_single_vdisk_ping, &node, &std::get<VDisk>(all[0])), header(33) + sent[0]},
        {std::bind_front(build_vdisk_deleted, &node, "fourteen-chars"), header(34) + "nnnnfourteen-chars"},
    };
    for (const auto &[build, message] : messages)
        for (size_t buflen = 1, length = 0; buflen <= message.size() + 1; buflen++) {
            std::vector<char> buf(buflen, '#');
            ASSERT_EQ(buflen < message.size() ? -1 : 0, build(buf.data(), buflen, &length)) << buflen;
            EXPECT_EQ(length ? message : "", std::string(buf.data(), length));
        }
    EXPECT_EQ(-1, build_vdisk_deleted(&node, "fifteen-letters", std::string(300, ' ').data(), 300, nullptr));
}
