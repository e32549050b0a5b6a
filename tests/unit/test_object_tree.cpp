#include "tests/unit/fixture.h"

/* A tree with a VDisk of each name, put in one after the other. */
static struct VDiskTree *tree_of(const std::vector<std::string> &names)
{
    struct VDiskTree *tree = nullptr;
    EXPECT_EQ(0, VDiskTreeAlloc(&tree));
    for (const std::string &name : names) {
        struct VDisk *vdisk = nullptr;
        EXPECT_EQ(0, VDiskAlloc(&vdisk));
        name.copy(vdisk->vdiskuuid, NAME_LEN - 1);
        EXPECT_EQ(nullptr, VDiskTree_RB_INSERT(tree, vdisk)) << name;
    }
    return tree;
}

static struct VDisk named(const std::string &name)
{
    struct VDisk vdisk = {};
    name.copy(vdisk.vdiskuuid, NAME_LEN - 1);
    return vdisk;
}

/* The names of a walk from the smallest element on. */
static std::vector<std::string> walk(struct VDiskTree *tree)
{
    std::vector<std::string> names;
    for (struct VDisk *vdisk = VDiskTree_RB_MINMAX(tree, -1); vdisk; vdisk = VDiskTree_RB_NEXT(vdisk))
        names.emplace_back(vdisk->vdiskuuid);
    return names;
}

/* Catches an order by letters, by signed bytes or by length: peers' VDisks are published and compared in this one. */
TEST(Tree, OrdersNamesByUnsignedBytes)
{
    struct VDiskTree *tree = tree_of({"\xc4", "disk-b", "B", "a", "disk", "disk-10", "disk-9"});
    EXPECT_EQ((std::vector<std::string>{"B", "a", "disk", "disk-10", "disk-9", "disk-b", "\xc4"}), walk(tree));
    VDiskTreeFree(tree);
}

/* Catches a second VDisk of a name that takes the first one's place, or is lost in the tree: its caller frees it. */
TEST(Tree, KeepsTheFirstOfTwoEqualNames)
{
    struct VDiskTree *tree = tree_of({"disk-a", "disk-b", "disk-c"});
    struct VDisk second = named("disk-b");
    struct VDisk *first = VDiskTree_RB_FIND(tree, &second);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, VDiskTree_RB_INSERT(tree, &second));
    EXPECT_EQ(first, VDiskTree_RB_FIND(tree, &second));
    EXPECT_EQ((std::vector<std::string>{"disk-a", "disk-b", "disk-c"}), walk(tree));
    VDiskTreeFree(tree);
}

/* Catches a flush that leaves an element, which the sanitizers tell, or a head that is of no use afterwards. */
TEST(Tree, TakesNewElementsAfterAFlush)
{
    struct VDiskTree *tree = tree_of({"disk-a", "disk-b", "disk-c"});
    VDiskTreeFlush(tree);
    EXPECT_EQ(std::vector<std::string>{}, walk(tree));
    struct VDisk again = named("disk-b");
    EXPECT_EQ(nullptr, VDiskTree_RB_INSERT(tree, &again));
    EXPECT_EQ(std::vector<std::string>{"disk-b"}, walk(tree));
    VDiskTree_RB_REMOVE(tree, &again);
    VDiskTreeFree(tree);
}
