#include "tests/unit/fixture.h"

#include <set>

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

TEST_F(Unit, TreeHoldsWhatASetHoldsAfterEveryStep)
{
    std::mt19937 random(20);
    std::set<std::string> set;
    struct VDiskTree tree = {};
    for (int step = 0; step < 8000 && !HasFailure(); step++) {
        /* A name on either side of a char's sign goes in, and out when it comes again. */
        const std::string key = {"Aa\xc4"[random() % 3], static_cast<char>('0' + random() % 12)};
        struct VDisk *elm = nullptr;
        VDiskAlloc(&elm);
        key.copy(elm->vdiskuuid, NAME_LEN);
        struct VDisk *found = VDiskTree_RB_FIND(&tree, elm), *above = VDiskTree_RB_NFIND(&tree, elm);
        EXPECT_EQ(set.lower_bound(key) == set.end() ? "-" : *set.lower_bound(key), above ? above->vdiskuuid : "-");
        EXPECT_TRUE(found == (set.contains(key) ? above : nullptr) && found == VDiskTree_RB_INSERT(&tree, elm));
        if (!set.insert(key).second) {
            set.erase(key);
            VDiskFree(VDiskTree_RB_REMOVE(&tree, found));
            VDiskFree(elm);
        }
        std::vector<std::string> up, down;
        for (elm = VDiskTree_RB_MINMAX(&tree, -1); elm; elm = VDiskTree_RB_NEXT(elm))
            up.push_back(elm->vdiskuuid);
        for (elm = VDiskTree_RB_MINMAX(&tree, 0); elm; elm = VDiskTree_RB_PREV(elm))
            down.insert(down.begin(), elm->vdiskuuid);
        EXPECT_TRUE(up == down && up == std::vector(set.begin(), set.end()));
        black_height(tree.rbh_root, nullptr);
    }
    VDiskTreeFlush(&tree);
}
