#include "tests/unit/fixture.h"

#include <map>

/* The black height of a subtree, after a check of its links and colours. */
static int black_height(const struct VDisk *elm, const struct VDisk *parent)
{
    if (!elm)
        return 0;
    const auto &[left, right, up, color] = elm->entries;
    EXPECT_TRUE(up == parent && (color == 0 || (parent && parent->entries.rbe_color == 0)));
    const int height = black_height(left, elm);
    EXPECT_EQ(height, black_height(right, elm));
    return height + 1 - color;
}

TEST(Tree, HoldsWhatAMapHoldsAfterEveryStep)
{
    std::mt19937 random(20);
    std::map<std::string, struct VDisk> map;
    struct VDiskTree tree = {};
    for (int step = 0; step < 8000 && !HasFailure(); step++) {
        /* A name on either side of a char's sign goes in, and out when it comes again. */
        const std::string key = {"Aa\xc4"[random() % 3], static_cast<char>('0' + random() % 12)};
        struct VDisk probe = {};
        key.copy(probe.vdiskuuid, NAME_LEN);
        const auto bound = map.lower_bound(key);
        auto *above = bound == map.end() ? nullptr : &bound->second, *found = map.contains(key) ? above : nullptr;
        EXPECT_TRUE(found == VDiskTree_RB_FIND(&tree, &probe) && above == VDiskTree_RB_NFIND(&tree, &probe));
        EXPECT_EQ(found, VDiskTree_RB_INSERT(&tree, found ? &probe : &(map[key] = probe)));
        EXPECT_TRUE(!found || (VDiskTree_RB_REMOVE(&tree, found) == found && map.erase(key)));
        struct VDisk *at = VDiskTree_RB_MINMAX(&tree, -1), *before = nullptr;
        for (auto &[name, elm] : map) {
            ASSERT_TRUE(at == &elm && VDiskTree_RB_PREV(at) == before);
            before = std::exchange(at, VDiskTree_RB_NEXT(at));
        }
        EXPECT_TRUE(!at && before == VDiskTree_RB_MINMAX(&tree, 0));
        black_height(tree.rbh_root, nullptr);
    }
}

TEST(Tree, FreesAllThatItHolds)
{
    struct VDiskTree *tree = nullptr;
    ASSERT_EQ(0, VDiskTreeAlloc(&tree));
    for (const char *name : {"b", "a", "c"}) {
        struct VDisk *vdisk = nullptr;
        ASSERT_EQ(0, VDiskAlloc(&vdisk));
        strcpy(vdisk->vdiskuuid, name);
        EXPECT_EQ(nullptr, VDiskTree_RB_INSERT(tree, vdisk));
    }
    VDiskTreeFree(tree); /* what it leaves, the sanitizers tell */
}
