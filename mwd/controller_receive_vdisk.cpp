/*
 * Received messages that speak of VDisks. A PING is its sender's complete statement of the VDisks that it serves: every
 * entry is applied as a report, and if all went well, the sender leaves the VDisks that it no longer names.
 */
#include "mwd/controller_internal.h"

#include "mwd/syslog.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>

/* A datagram being read: `idx` is the offset of what comes next. */
struct Reader {
    const char *op; /* the handler, for the log */
    const char *buf;
    size_t r;
    size_t idx;
};

/* The next record, or null if it does not lie inside the datagram whole. */
template <typename Record> static const Record *next_record(Reader *reader)
{
    if (reader->r - reader->idx < sizeof(Record))
        return nullptr;
    const auto *record = reinterpret_cast<const Record *>(reader->buf + reader->idx);
    reader->idx += sizeof(Record);
    return record;
}

static int read_member(Reader *reader, struct VDisk *vdisk)
{
    const auto *mbe = next_record<MemberEntry>(reader);
    if (!mbe)
        return -1;
    mbe_dump(mbe);
    struct Member *member = nullptr;
    if (MemberAlloc(&member) < 0)
        return -1;
    MemberInit(member, mbe);
    TAILQ_INSERT_TAIL(&vdisk->members, member, entries);
    return 0;
}

static int read_frontend(Reader *reader, struct VDisk *vdisk)
{
    const auto *fee = next_record<FrontendEntry>(reader);
    if (!fee)
        return -1;
    fee_dump(fee);
    struct Frontend *frontend = nullptr;
    if (FrontendAlloc(&frontend) < 0)
        return -1;
    frontend->fee = *fee;
    uint32_t ip = htonl(frontend->fee.node);
    if (!inet_ntop(AF_INET, &ip, frontend->ipaddr, sizeof(frontend->ipaddr))) {
        log_error_as(reader->op, "inet_ntop(): %s", strerror(errno));
        FrontendFree(frontend);
        return -1;
    }
    TAILQ_INSERT_TAIL(&vdisk->frontends, frontend, entries);
    return 0;
}

/* Reads the lists behind the entry, as long as it says. Returns 0, or -1 after an error line if they are malformed. */
static int read_lists(Reader *reader, struct VDisk *vdisk)
{
    for (int i = 0; i < vdisk->vde.members; i++) {
        if (read_member(reader, vdisk) < 0) {
            log_error_as(reader->op, "Malformed packet? #2");
            return -1;
        }
    }
    for (int i = 0; i < vdisk->vde.frontends; i++) {
        if (read_frontend(reader, vdisk) < 0) {
            log_error_as(reader->op, "Malformed packet? #3");
            return -1;
        }
    }
    return 0;
}

/* Names become path components: one that cannot makes the message malformed. */
static int check_names(const char *op, const struct VDisk *vdisk)
{
    if (name_usable(vdisk->vdiskuuid) && (vdisk->vde.snapshot == 0 || name_usable(vdisk->parentuuid)))
        return 0;
    log_error_as(op, "Malformed packet? #5");
    return -1;
}

/* Reads the report of the entry `vde`. Returns it, the caller's to free, or null if the datagram is to be given up. */
static struct VDisk *read_report(Reader *reader, const struct VDiskEntry *vde)
{
    vde_dump(vde);
    struct VDisk *vdisk = nullptr;
    if (VDiskAlloc(&vdisk) < 0)
        return nullptr;
    VDiskInit(vdisk, vde);
    if (check_names(reader->op, vdisk) < 0 || read_lists(reader, vdisk) < 0) {
        VDiskFree(vdisk);
        return nullptr;
    }
    return vdisk;
}

/* Applies one report, and links a Snapshot to its parent after its own lock is given up. Returns 0 or -1. */
static int apply_report(const struct Hdr *hdr, struct VDisk *vdisk)
{
    if (VDiskLock(vdisk) < 0)
        return -1;
    int result = VDiskCreate(hdr, vdisk);
    VDiskUnlock(vdisk);
    if (result < 0)
        return -1;

    if (vdisk->vde.snapshot == 0 || vdisk->vde.transaction_id != 0)
        return 0;
    if (ParentLock(vdisk) < 0)
        return -1;
    result = ParentUpdate_RefSnapshot(vdisk);
    ParentUnlock(vdisk);
    return result;
}

/*
 * Applies every report of the datagram and leaves those that went through in `vdt`. A malformed one gives up the rest
 * of the datagram, any other failure that report alone. Returns how many failed.
 */
static int apply_reports(const char *op, const struct Hdr *hdr, size_t r, struct VDiskTree *vdt)
{
    Reader reader = {op, reinterpret_cast<const char *>(hdr), r, sizeof(*hdr)};
    int failed = 0;
    while (const auto *vde = next_record<VDiskEntry>(&reader)) {
        struct VDisk *vdisk = read_report(&reader, vde);
        if (!vdisk)
            return failed + 1;
        if (apply_report(hdr, vdisk) < 0) {
            VDiskFree(vdisk);
            failed++;
        } else if (VDiskTree_RB_INSERT(vdt, vdisk)) {
            log_error_as(op, "Duplicate VDisk Entry %s", vdisk->vdiskuuid);
            VDiskFree(vdisk);
            failed++;
        }
    }
    return failed;
}

/* Takes the sender out of a VDisk, if the tree still knows that. */
static void leave_vdisk(const struct Hdr *hdr, struct VDisk *vdisk)
{
    if (VDiskLock(vdisk) < 0)
        return;
    if (VDiskLoad(nullptr, vdisk) == 0)
        VDiskGone(hdr, vdisk);
    VDiskUnlock(vdisk);
}

static int load_linked_vdisks(const struct Hdr *hdr, struct VDiskTree *vdt)
{
    if (NodeLock(hdr->uid) < 0)
        return -1;
    int result = NodeLoad_VDisks(hdr->uid, vdt);
    NodeUnlock(hdr->uid);
    return result;
}

/* The sender leaves every VDisk that the tree links to it and that is not in `vdt`. */
static void leave_stale_vdisks(const char *op, const struct Hdr *hdr, struct VDiskTree *vdt)
{
    struct VDiskTree oldvdt = {};
    if (load_linked_vdisks(hdr, &oldvdt) < 0)
        return;
    for (struct VDisk *vdisk = VDiskTree_RB_MINMAX(&oldvdt, -1); vdisk; vdisk = VDiskTree_RB_NEXT(vdisk)) {
        if (VDiskTree_RB_FIND(vdt, vdisk))
            continue;
        log_notice_as(op, "Stale VDisk %s of member %u", vdisk->vdiskuuid, hdr->uid);
        leave_vdisk(hdr, vdisk);
    }
    VDiskTreeFlush(&oldvdt);
}

int refresh_node(const struct Hdr *hdr, const char *ipaddr)
{
    if (NodeLock(hdr->uid) < 0)
        return -1;
    int result = NodeCreate(hdr, ipaddr);
    NodeUnlock(hdr->uid);
    return result;
}

void handle_ping(const struct Hdr *hdr, size_t r, const char *ipaddr)
{
    count_rx(STATS_PING);
    if (refresh_node(hdr, ipaddr) < 0)
        return;
    struct VDiskTree vdt = {};
    if (apply_reports(__func__, hdr, r, &vdt) == 0)
        leave_stale_vdisks(__func__, hdr, &vdt);
    VDiskTreeFlush(&vdt);
}

/* Speaks of one VDisk and says nothing about the others. */
void handle_single_vdisk_ping(const struct Hdr *hdr, size_t r, const char *ipaddr)
{
    count_rx(STATS_SV_PING);
    if (refresh_node(hdr, ipaddr) < 0)
        return;
    struct VDiskTree vdt = {};
    apply_reports(__func__, hdr, r, &vdt);
    VDiskTreeFlush(&vdt);
}

void handle_vdisk_deleted(const struct Hdr *hdr, size_t r, const char *ipaddr)
{
    count_rx(STATS_VDISK_DEL);
    if (refresh_node(hdr, ipaddr) < 0)
        return;
    Reader reader = {__func__, reinterpret_cast<const char *>(hdr), r, sizeof(*hdr)};
    const auto *vdde = next_record<VDiskDeleteEntry>(&reader);
    if (!vdde) {
        log_error("Malformed packet? #4");
        return;
    }
    if (hdr->uid != vdde->node)
        log_error("HASHREQ_VDISK_DELETED %u != %u, using %u", hdr->uid, vdde->node, hdr->uid);

    struct VDisk *vdisk = nullptr;
    if (VDiskAlloc(&vdisk) < 0)
        return;
    memcpy(vdisk->vde.uuid, vdde->uuid, sizeof(vdisk->vde.uuid));
    VDiskInit(vdisk, nullptr);
    if (check_names(__func__, vdisk) == 0)
        leave_vdisk(hdr, vdisk);
    VDiskFree(vdisk);
}
