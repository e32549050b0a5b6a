/* VDisks leaving, and the links by which a Plain VDisk knows its Snapshots. */
#include "mwd/object_internal.h"

#include "mwd/config.h"
#include "mwd/io.h"
#include "mwd/syslog.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

static int unref_in_parent(struct VDisk *vdisk)
{
    if (ParentLock(vdisk) < 0)
        return -1;
    int result = ParentUpdate_UnrefSnapshot(vdisk);
    ParentUnlock(vdisk);
    return result;
}

int VDiskGone(const struct Hdr *hdr, struct VDisk *vdisk)
{
    char nodeuuid[NAME_LEN];
    snprintf(nodeuuid, sizeof(nodeuuid), "%u", hdr->uid);
    if (MemberinfoDelete(vdisk, nodeuuid) < 0)
        return -1;

    /* The last member is gone when the directory of the records goes: the file system decides. */
    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/VDisk/", vdisk->vdiskuuid, "/memberinfo"}) < 0)
        return -1;
    int others_left = path_rmdir(__func__, path);
    if (others_left != 0)
        return others_left < 0 ? -1 : 0;

    if (vdisk->vde.snapshot != 0 && unref_in_parent(vdisk) < 0)
        return -1;
    if (DatastoreUpdate_UnrefVDisk(vdisk->vdiskuuid) < 0)
        return -1;
    log_info("Delete VDisk %s", vdisk->vdiskuuid);
    if (text_join(path, {cfg_work_directory, "/VDisk/", vdisk->vdiskuuid}) < 0)
        return -1;
    return path_remove_tree(__func__, path);
}

static int link_snapshot(const Record &snapshots, const struct VDisk *vdisk)
{
    int missing = entry_missing(snapshots.dirfd, vdisk->vdiskuuid);
    if (missing <= 0)
        return missing;
    char target[TARGET_LEN];
    if (text_join(target, {"../../../VDisk/", vdisk->vdiskuuid}) < 0)
        return -1;
    log_info_as(snapshots.op, "Update VDisk %s ref Snapshot %s", vdisk->parentuuid, vdisk->vdiskuuid);
    return record_symlink(snapshots, vdisk->vdiskuuid, target);
}

int ParentUpdate_RefSnapshot(struct VDisk *vdisk)
{
    assert(vdisk->vde.snapshot != 0);
    log_debug("%s/VDisk/%s [STAT]", cfg_work_directory, vdisk->parentuuid);

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/VDisk/", vdisk->parentuuid}) < 0)
        return -1;
    struct stat st;
    if (lstat(path, &st) < 0) {
        if (errno == ENOENT)
            return 0;
        log_error("lstat(%s): %s", path, strerror(errno));
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        log_error("%s not a directory!", path);
        return -1;
    }
    FdGuard parentfd(dir_open(path));
    if (parentfd.fd < 0)
        return -1;
    FdGuard snapshotsfd(dir_openat(parentfd.fd, "snapshots"));
    if (snapshotsfd.fd < 0)
        return -1;
    return link_snapshot({__func__, path, "/snapshots", "", snapshotsfd.fd}, vdisk);
}

int ParentUpdate_UnrefSnapshot(struct VDisk *vdisk)
{
    assert(vdisk->vde.snapshot != 0);
    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/VDisk/", vdisk->parentuuid, "/snapshots/", vdisk->vdiskuuid}) < 0)
        return -1;
    log_info("Update VDisk %s unref Snapshot %s", vdisk->parentuuid, vdisk->vdiskuuid);
    return path_unlink(__func__, path);
}
