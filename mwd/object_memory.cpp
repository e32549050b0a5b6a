/* The in-memory objects: making, filling, finding and freeing them. */
#include "mwd/object_internal.h"

#include "mwd/syslog.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

template <typename Object> static int object_calloc(const char *op, Object **pp)
{
    auto *object = static_cast<Object *>(calloc(1, sizeof(Object)));
    if (!object) {
        log_error_as(op, "calloc(1, %zu): %s", sizeof(Object), strerror(errno));
        return -1;
    }
    *pp = object;
    return 0;
}

template <typename Head> static int head_malloc(const char *op, Head **pp)
{
    auto *head = static_cast<Head *>(malloc(sizeof(Head)));
    if (!head) {
        log_error_as(op, "malloc(%zu): %s", sizeof(Head), strerror(errno));
        return -1;
    }
    *pp = head;
    return 0;
}

int HostAlloc(struct Host **hpp)
{
    return object_calloc(__func__, hpp);
}

int MemberAlloc(struct Member **mbpp)
{
    return object_calloc(__func__, mbpp);
}

int FrontendAlloc(struct Frontend **fepp)
{
    return object_calloc(__func__, fepp);
}

int VDiskAlloc(struct VDisk **vdiskpp)
{
    if (object_calloc(__func__, vdiskpp) < 0)
        return -1;
    TAILQ_INIT(&(*vdiskpp)->members);
    TAILQ_INIT(&(*vdiskpp)->frontends);
    return 0;
}

int NodeAlloc(struct Node **npp)
{
    return object_calloc(__func__, npp);
}

int HostListAlloc(struct HostList **hlpp)
{
    if (head_malloc(__func__, hlpp) < 0)
        return -1;
    TAILQ_INIT(*hlpp);
    return 0;
}

int NodeListAlloc(struct NodeList **nlpp)
{
    if (head_malloc(__func__, nlpp) < 0)
        return -1;
    TAILQ_INIT(*nlpp);
    return 0;
}

int VDiskTreeAlloc(struct VDiskTree **vdtpp)
{
    if (head_malloc(__func__, vdtpp) < 0)
        return -1;
    (*vdtpp)->rbh_root = nullptr;
    return 0;
}

void HostFree(struct Host *hp)
{
    free(hp);
}

void MemberFree(struct Member *mbp)
{
    free(mbp);
}

void FrontendFree(struct Frontend *fep)
{
    free(fep);
}

void VDiskFree(struct VDisk *vdiskp)
{
    FrontendListFlush(&vdiskp->frontends);
    MemberListFlush(&vdiskp->members);
    free(vdiskp);
}

void NodeFree(struct Node *np)
{
    VDiskTreeFlush(&np->vdisks);
    free(np);
}

void HostListFlush(struct HostList *hlp)
{
    while (struct Host *hp = TAILQ_FIRST(hlp)) {
        TAILQ_REMOVE(hlp, hp, entries);
        HostFree(hp);
    }
}

void MemberListFlush(struct MemberList *mblp)
{
    while (struct Member *mbp = TAILQ_FIRST(mblp)) {
        TAILQ_REMOVE(mblp, mbp, entries);
        MemberFree(mbp);
    }
}

void FrontendListFlush(struct FrontendList *felp)
{
    while (struct Frontend *fep = TAILQ_FIRST(felp)) {
        TAILQ_REMOVE(felp, fep, entries);
        FrontendFree(fep);
    }
}

void NodeListFlush(struct NodeList *nlp)
{
    while (struct Node *np = TAILQ_FIRST(nlp)) {
        TAILQ_REMOVE(nlp, np, entries);
        NodeFree(np);
    }
}

void VDiskTreeFlush(struct VDiskTree *vdtp)
{
    while (struct VDisk *vdiskp = vdtp->rbh_root)
        VDiskFree(VDiskTree_RB_REMOVE(vdtp, vdiskp));
}

void HostListFree(struct HostList *hlp)
{
    HostListFlush(hlp);
    free(hlp);
}

void NodeListFree(struct NodeList *nlp)
{
    NodeListFlush(nlp);
    free(nlp);
}

void VDiskTreeFree(struct VDiskTree *vdtp)
{
    VDiskTreeFlush(vdtp);
    free(vdtp);
}

void MemberInit(struct Member *member, const struct MemberEntry *mbe)
{
    if (mbe)
        member->mbe.node = mbe->node;
    text_join(member->uuid, {Decimal(member->mbe.node)});
}

void VDiskInit(struct VDisk *vdisk, const struct VDiskEntry *vde)
{
    if (vde)
        memcpy(&vdisk->vde, vde, sizeof(*vde));
    uuid_text(vdisk->vdiskuuid, vdisk->vde.uuid);
    if (vdisk->vde.snapshot != 0)
        uuid_text(vdisk->parentuuid, vdisk->vde.description.snap.parent);
}

struct Member *MemberLookup(struct MemberList *mblp, unsigned int nodeid)
{
    struct Member *member;
    TAILQ_FOREACH(member, mblp, entries)
        if (member->mbe.node == nodeid)
            return member;
    return nullptr;
}

void uuid_text(char (&text)[NAME_LEN], const char (&field)[UUID_WIDTH])
{
    size_t length = strnlen(field, UUID_WIDTH);
    memcpy(text, field, length);
    text[length] = '\0';
}

bool name_usable(const char *name)
{
    return name[0] != '\0' && strcmp(name, ".") != 0 && strcmp(name, "..") != 0 && !strchr(name, '/');
}
