/* VDisk records: a report creates the VDisk, updates it, or is ignored. */
#include "mwd/object_internal.h"

#include "mwd/config.h"
#include "mwd/io.h"
#include "mwd/syslog.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

/* What two decimal digits come to beyond their value: the ASCII offset of both, the first weighted by 10. */
constexpr int DIGITS_OFFSET = '0' * 10 + '0';

/* Senders below version 1.8 give the generation as two digits only. */
static void rewrite_old_generation(const struct Hdr *hdr, struct VDiskEntry *vde)
{
    if (hdr->major > 1 || (hdr->major == 1 && hdr->minor >= 8))
        return;
    auto tens = static_cast<signed char>(vde->name.old_mshipgencnt[0]);
    auto ones = static_cast<signed char>(vde->name.old_mshipgencnt[1]);
    vde->name.mshipgencnt = htons(static_cast<uint16_t>(tens * 10 + ones - DIGITS_OFFSET));
}

static unsigned int generation_of(const struct VDisk *vdisk)
{
    return ntohs(vdisk->vde.name.mshipgencnt);
}

static int store_snaptime(const Record &record, const struct VDiskEntry *vde)
{
    const auto &snap = vde->description.snap;
    log_debug_as(record.op, RECORD_PATH "/snaptime=%02d-%02d-%02d_%02d.%02d.%02d", RECORD_ARGS(record), snap.y, snap.m,
                 snap.d, snap.H, snap.M, snap.S);
    int result = AttrStore(record.dirfd, "snaptime", "%02d-%02d-%02d_%02d.%02d.%02d\n", snap.y, snap.m, snap.d, snap.H,
                           snap.M, snap.S);
    return result < 0 ? -1 : 0;
}

static int store_kind(const Record &record, const struct VDiskEntry *vde)
{
    const auto &description = vde->description;
    if (vde->snapshot != 0) {
        if (record_store_text(record, "parent", description.snap.parent, sizeof(description.snap.parent)) < 0)
            return -1;
        return store_snaptime(record, vde);
    }
    if (record_mkdir_new(record, "snapshots") < 0)
        return -1;
    return record_store_text(record, "description", description.descr, sizeof(description.descr));
}

static int store_base(const Record &record, const struct VDisk *vdisk)
{
    const struct VDiskEntry &vde = vdisk->vde;
    if (record_store_text(record, "uuid", vde.uuid, sizeof(vde.uuid)) < 0 ||
        record_store_text(record, "name", vde.name.name, sizeof(vde.name.name)) < 0 ||
        record_store_u32(record, "sector_size", vde.sector_size) < 0 ||
        record_store_u64(record, "sectors", vde.sectors) < 0 ||
        record_store_u32(record, "replicas", vde.replicas) < 0 ||
        record_store_u32(record, "st_mems", vde.st_mems) < 0 || record_store_u32(record, "st_size", vde.st_size) < 0 ||
        record_store_u32(record, "snapshot", vde.snapshot) < 0 || store_kind(record, &vde) < 0)
        return -1;
    return record_store_u32(record, "highest_gen_count", generation_of(vdisk));
}

/* Makes the sender's member record and opens it. Returns the descriptor or -1. */
static int make_member_record(const Record &memberinfo, const char *nodeuuid)
{
    if (record_mkdir_new(memberinfo, nodeuuid) < 0)
        return -1;
    return dir_openat(memberinfo.dirfd, nodeuuid);
}

/* The create path: fills the directory just made. What a failure leaves undone, no later report makes up. */
static int create_vdisk(const struct Hdr *hdr, struct VDisk *vdisk, const Record &record, const Record &memberinfo,
                        const char *nodeuuid)
{
    log_info_as(record.op, "Create VDisk %s by Node %s", vdisk->vdiskuuid, nodeuuid);
    if (store_base(record, vdisk) < 0 || MembershipStore(vdisk, record.path, record.dirfd) < 0)
        return -1;
    if (!MemberLookup(&vdisk->members, hdr->uid))
        return 0;
    FdGuard mbfd(make_member_record(memberinfo, nodeuuid));
    if (mbfd.fd < 0)
        return -1;
    return MemberinfoCreate(vdisk, record.path, record.dirfd, nodeuuid, mbfd.fd);
}

static int apply_report(const struct Hdr *hdr, struct VDisk *vdisk, const Record &record, bool exists)
{
    if (!exists && record_mkdir_new(record, "memberinfo") < 0)
        return -1;
    FdGuard mbtopfd(dir_openat(record.dirfd, "memberinfo"));
    if (mbtopfd.fd < 0)
        return -1;
    char nodeuuid[NAME_LEN];
    snprintf(nodeuuid, sizeof(nodeuuid), "%u", hdr->uid);
    if (exists)
        return VDiskUpdate(hdr, vdisk, record.path, nodeuuid, record.dirfd, mbtopfd.fd);
    const Record memberinfo = {record.op, record.path, "/memberinfo", "", mbtopfd.fd};
    return create_vdisk(hdr, vdisk, record, memberinfo, nodeuuid);
}

int VDiskCreate(const struct Hdr *hdr, struct VDisk *vdisk)
{
    rewrite_old_generation(hdr, &vdisk->vde);

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/VDisk"}) < 0 || path_mkdir(__func__, path) < 0 ||
        text_join(path, {cfg_work_directory, "/VDisk/", vdisk->vdiskuuid}) < 0)
        return -1;

    log_debug("%s [STAT]", path);
    struct stat st;
    bool exists = lstat(path, &st) == 0;
    if (!exists && errno != ENOENT) {
        log_error("lstat(%s): %s", path, strerror(errno));
        return -1;
    }
    if (!exists && vdisk->vde.transaction_id != 0)
        return 0;
    if (!exists && path_mkdir_new(__func__, path) < 0)
        return -1;

    int vdiskfd = dir_open(path);
    if (vdiskfd < 0)
        return -1;
    const Record record = {__func__, path, "", "", vdiskfd};
    int result = apply_report(hdr, vdisk, record, exists);
    record_sync_close(record);
    return result;
}

/* Opens the sender's record and stores `seqno`, which every report renews. *mbfd is -1 if it has none. */
static int renew_seqno(const Record &memberinfo, const struct VDisk *vdisk, const char *nodeuuid, FdGuard *mbfd)
{
    int missing = entry_missing(memberinfo.dirfd, nodeuuid);
    if (missing != 0)
        return missing < 0 ? -1 : 0;
    mbfd->fd = dir_openat(memberinfo.dirfd, nodeuuid);
    if (mbfd->fd < 0)
        return -1;
    const Record member = {memberinfo.op, memberinfo.path, "/memberinfo/", nodeuuid, mbfd->fd};
    return record_store_u64(member, "seqno", vdisk->vde.seqno);
}

/*
 * The sender's own share of an update. Returns 1 if its record is written and the VDisk's attributes are to follow,
 * with the highest generation so far in *highest; 0 if the report is one to ignore; or -1.
 */
static int update_member_record(const Record &record, const Record &memberinfo, struct VDisk *vdisk,
                                const char *nodeuuid, unsigned int *highest)
{
    FdGuard mbfd(-1);
    if (renew_seqno(memberinfo, vdisk, nodeuuid, &mbfd) < 0)
        return -1;
    if (vdisk->vde.transaction_id != 0)
        return 0;
    if (record_load_u32(record, "highest_gen_count", highest) < 0)
        return -1;
    if (generation_of(vdisk) < *highest)
        return 0;
    if (mbfd.fd < 0)
        mbfd.fd = make_member_record(memberinfo, nodeuuid);
    if (mbfd.fd < 0 || MemberinfoCreate(vdisk, record.path, record.dirfd, nodeuuid, mbfd.fd) < 0)
        return -1;
    return 1;
}

/* Replaces the member list by the report's, and removes the records of those that it drops. */
static int replace_membership(const Record &record, struct VDisk *vdisk)
{
    struct MemberList members;
    TAILQ_INIT(&members);
    MembershipLoad(&members, nullptr, record.path, record.dirfd); /* unreadable: nobody is dropped */
    int result = MembershipStore(vdisk, record.path, record.dirfd);
    struct Member *member;
    if (result == 0)
        TAILQ_FOREACH(member, &members, entries)
            if (!MemberLookup(&vdisk->members, member->mbe.node))
                MemberinfoDelete(vdisk, member->uuid);
    MemberListFlush(&members);
    return result;
}

int VDiskUpdate(const struct Hdr *, struct VDisk *vdisk, const char *vdiskpath, const char *nodeuuid, int vdiskfd,
                int mbtopfd)
{
    log_info("Update VDisk %s by Node %s", vdisk->vdiskuuid, nodeuuid);

    const Record record = {__func__, vdiskpath, "", "", vdiskfd};
    const Record memberinfo = {__func__, vdiskpath, "/memberinfo", "", mbtopfd};
    unsigned int highest;
    int applied = update_member_record(record, memberinfo, vdisk, nodeuuid, &highest);
    if (applied <= 0)
        return applied;
    if (record_store_u64(record, "sectors", vdisk->vde.sectors) < 0 || replace_membership(record, vdisk) < 0)
        return -1;
    if (generation_of(vdisk) <= highest)
        return 0;
    if (record_store_u32(record, "highest_gen_count", generation_of(vdisk)) < 0)
        return -1;
    return FenceCheck(vdisk, nodeuuid);
}

int FenceCheck(struct VDisk *vdisk, const char *nodeuuid)
{
    char uuid[32], member[32];
    snprintf(uuid, sizeof(uuid), "uuid=%s", vdisk->vdiskuuid);
    snprintf(member, sizeof(member), "member=%s", nodeuuid);
    char *const fence_check_argv[] = {cfg_fence_check, uuid, member, nullptr};

    log_info("Call %s %s %s", cfg_fence_check, uuid, member);
    pid_t pid = fork();
    if (pid < 0) {
        log_error("fork(): %s", strerror(errno));
        return -1;
    }
    if (pid == 0) {
        execve(cfg_fence_check, fence_check_argv, nullptr);
        log_error("execve(%s): %s", cfg_fence_check, strerror(errno));
        _exit(1);
    }
    if (waitpid(pid, nullptr, 0) < 0) {
        log_error("waitpid(%d): %s", pid, strerror(errno));
        return -1;
    }
    log_info("Return %s %s %s", cfg_fence_check, uuid, member);
    return 0;
}
