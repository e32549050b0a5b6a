/*
 * VDiskTree: an intrusive red-black tree. The root is black, a red element has no red child, and every way from an
 * element down to a null passes the same number of black elements; null counts as black.
 */
#include "mwd/object.h"

#include <cassert>
#include <cstring>

enum { BLACK = 0, RED = 1 };

static bool is_red(const struct VDisk *elm)
{
    return elm && elm->entries.rbe_color == RED;
}

int VDiskCompare(struct VDisk *vda, struct VDisk *vdb)
{
    return strcmp(vda->vdiskuuid, vdb->vdiskuuid);
}

/* Has the parent of `elm`, or the head if it is the root, point at `child` instead. */
static void replace_in_parent(struct VDiskTree *head, struct VDisk *elm, struct VDisk *child)
{
    struct VDisk *parent = elm->entries.rbe_parent;
    if (!parent)
        head->rbh_root = child;
    else if (parent->entries.rbe_left == elm)
        parent->entries.rbe_left = child;
    else
        parent->entries.rbe_right = child;
    if (child)
        child->entries.rbe_parent = parent;
}

/* The right child of `elm` takes its place, and `elm` becomes its left child. */
static void rotate_left(struct VDiskTree *head, struct VDisk *elm)
{
    struct VDisk *child = elm->entries.rbe_right;
    replace_in_parent(head, elm, child);
    elm->entries.rbe_right = child->entries.rbe_left;
    if (elm->entries.rbe_right)
        elm->entries.rbe_right->entries.rbe_parent = elm;
    child->entries.rbe_left = elm;
    elm->entries.rbe_parent = child;
}

static void rotate_right(struct VDiskTree *head, struct VDisk *elm)
{
    struct VDisk *child = elm->entries.rbe_left;
    replace_in_parent(head, elm, child);
    elm->entries.rbe_left = child->entries.rbe_right;
    if (elm->entries.rbe_left)
        elm->entries.rbe_left->entries.rbe_parent = elm;
    child->entries.rbe_right = elm;
    elm->entries.rbe_parent = child;
}

/* Restores the colours above the fresh red element `elm`. */
static void VDiskTree_RB_INSERT_COLOR(struct VDiskTree *head, struct VDisk *elm)
{
    while (is_red(elm->entries.rbe_parent)) {
        struct VDisk *parent = elm->entries.rbe_parent;
        struct VDisk *grand = parent->entries.rbe_parent;
        bool left = parent == grand->entries.rbe_left;
        struct VDisk *uncle = left ? grand->entries.rbe_right : grand->entries.rbe_left;
        if (is_red(uncle)) {
            uncle->entries.rbe_color = BLACK;
            parent->entries.rbe_color = BLACK;
            grand->entries.rbe_color = RED;
            elm = grand;
            continue;
        }
        if (elm == (left ? parent->entries.rbe_right : parent->entries.rbe_left)) {
            left ? rotate_left(head, parent) : rotate_right(head, parent);
            parent = elm;
        }
        parent->entries.rbe_color = BLACK;
        grand->entries.rbe_color = RED;
        left ? rotate_right(head, grand) : rotate_left(head, grand);
        break;
    }
    head->rbh_root->entries.rbe_color = BLACK;
}

struct VDisk *VDiskTree_RB_INSERT(struct VDiskTree *head, struct VDisk *elm)
{
    struct VDisk *parent = nullptr;
    struct VDisk **link = &head->rbh_root;
    while (*link) {
        parent = *link;
        int order = VDiskCompare(elm, parent);
        if (order == 0)
            return parent;
        link = order < 0 ? &parent->entries.rbe_left : &parent->entries.rbe_right;
    }
    elm->entries = {nullptr, nullptr, parent, RED};
    *link = elm;
    VDiskTree_RB_INSERT_COLOR(head, elm);
    return nullptr;
}

/* Restores the colours after a black element went: the ways through `elm`, a child of `parent`, lack one. */
static void VDiskTree_RB_REMOVE_COLOR(struct VDiskTree *head, struct VDisk *parent, struct VDisk *elm)
{
    while (!is_red(elm) && elm != head->rbh_root) {
        bool left = elm == parent->entries.rbe_left;
        struct VDisk *sibling = left ? parent->entries.rbe_right : parent->entries.rbe_left;
        if (is_red(sibling)) {
            sibling->entries.rbe_color = BLACK;
            parent->entries.rbe_color = RED;
            left ? rotate_left(head, parent) : rotate_right(head, parent);
            sibling = left ? parent->entries.rbe_right : parent->entries.rbe_left;
        }
        assert(sibling); /* the ways through it have at least the black that the others lack */
        struct VDisk *near = left ? sibling->entries.rbe_left : sibling->entries.rbe_right;
        struct VDisk *far = left ? sibling->entries.rbe_right : sibling->entries.rbe_left;
        if (!is_red(near) && !is_red(far)) {
            sibling->entries.rbe_color = RED;
            elm = parent;
            parent = elm->entries.rbe_parent;
            continue;
        }
        if (!is_red(far)) {
            near->entries.rbe_color = BLACK;
            sibling->entries.rbe_color = RED;
            left ? rotate_right(head, sibling) : rotate_left(head, sibling);
            far = sibling;
            sibling = near;
        }
        sibling->entries.rbe_color = parent->entries.rbe_color;
        parent->entries.rbe_color = BLACK;
        far->entries.rbe_color = BLACK;
        left ? rotate_left(head, parent) : rotate_right(head, parent);
        elm = head->rbh_root;
        break;
    }
    if (elm)
        elm->entries.rbe_color = BLACK;
}

static struct VDisk *leftmost(struct VDisk *elm)
{
    while (elm->entries.rbe_left)
        elm = elm->entries.rbe_left;
    return elm;
}

static struct VDisk *rightmost(struct VDisk *elm)
{
    while (elm->entries.rbe_right)
        elm = elm->entries.rbe_right;
    return elm;
}

/* Puts `next` in the place of `elm`, with its children and colour. */
static void take_place(struct VDiskTree *head, struct VDisk *elm, struct VDisk *next)
{
    replace_in_parent(head, elm, next);
    next->entries = elm->entries;
    if (next->entries.rbe_left)
        next->entries.rbe_left->entries.rbe_parent = next;
    if (next->entries.rbe_right)
        next->entries.rbe_right->entries.rbe_parent = next;
}

struct VDisk *VDiskTree_RB_REMOVE(struct VDiskTree *head, struct VDisk *elm)
{
    /* An element with two children swaps places with its successor, which has no left child. */
    struct VDisk *out = elm;
    if (elm->entries.rbe_left && elm->entries.rbe_right)
        out = leftmost(elm->entries.rbe_right);

    struct VDisk *child = out->entries.rbe_left ? out->entries.rbe_left : out->entries.rbe_right;
    struct VDisk *parent = out->entries.rbe_parent;
    int color = out->entries.rbe_color;
    replace_in_parent(head, out, child);
    if (out != elm) {
        if (parent == elm)
            parent = out;
        take_place(head, elm, out);
    }
    if (color == BLACK)
        VDiskTree_RB_REMOVE_COLOR(head, parent, child);
    return elm;
}

struct VDisk *VDiskTree_RB_FIND(struct VDiskTree *head, struct VDisk *elm)
{
    struct VDisk *found = VDiskTree_RB_NFIND(head, elm);
    return found && VDiskCompare(elm, found) == 0 ? found : nullptr;
}

struct VDisk *VDiskTree_RB_NFIND(struct VDiskTree *head, struct VDisk *elm)
{
    struct VDisk *above = nullptr;
    for (struct VDisk *at = head->rbh_root; at;) {
        int order = VDiskCompare(elm, at);
        if (order == 0)
            return at;
        if (order < 0)
            above = at;
        at = order < 0 ? at->entries.rbe_left : at->entries.rbe_right;
    }
    return above;
}

struct VDisk *VDiskTree_RB_NEXT(struct VDisk *elm)
{
    if (elm->entries.rbe_right)
        return leftmost(elm->entries.rbe_right);
    struct VDisk *parent = elm->entries.rbe_parent;
    while (parent && elm == parent->entries.rbe_right) {
        elm = parent;
        parent = elm->entries.rbe_parent;
    }
    return parent;
}

struct VDisk *VDiskTree_RB_PREV(struct VDisk *elm)
{
    if (elm->entries.rbe_left)
        return rightmost(elm->entries.rbe_left);
    struct VDisk *parent = elm->entries.rbe_parent;
    while (parent && elm == parent->entries.rbe_left) {
        elm = parent;
        parent = elm->entries.rbe_parent;
    }
    return parent;
}

struct VDisk *VDiskTree_RB_MINMAX(struct VDiskTree *head, int val)
{
    if (!head->rbh_root)
        return nullptr;
    return val < 0 ? leftmost(head->rbh_root) : rightmost(head->rbh_root);
}
