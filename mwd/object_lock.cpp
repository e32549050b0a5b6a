/* Path locks: a lock is held as long as its file exists. */
#include "mwd/object_internal.h"

#include "mwd/config.h"
#include "mwd/io.h"
#include "mwd/misc.h"
#include "mwd/syslog.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

/* What a lock file holds: the daemon's process number, which is final before the first lock is taken. */
static const char *owner_text()
{
    static char owner[16];
    if (owner[0] == '\0')
        snprintf(owner, sizeof(owner), "%d\n", getpid());
    return owner;
}

/* Writes the owner into the lock file just made and closes it. After a failure the file stays: nobody unlocks it. */
static int lock_take(const char *op, int fd, const char *path)
{
    FdGuard guard(fd);
    const char *owner = owner_text();
    if (buf_tx(fd, owner, strlen(owner), 1) < 0)
        return -3;
    if (fsync(fd) < 0) {
        log_warn_as(op, "fsync(%s): %s", path, strerror(errno));
        return -4;
    }
    return 0;
}

int PathLock(const char *path, int timeout_ms)
{
    log_info("Lock %s", path);
    int next_ms = 50, slept_ms = 0;
    for (;;) {
        int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_TRUNC, 0666);
        if (fd >= 0)
            return lock_take(__func__, fd, path);
        if (errno == EINTR)
            continue;
        if (errno != EEXIST) {
            log_error("open(%s): %s", path, strerror(errno));
            return -2;
        }
        if (timeout_ms <= 0)
            return -1;
        if (next_ms > timeout_ms || slept_ms >= timeout_ms) {
            log_notice("Timed out locking %s", path);
            return -1;
        }
        slept_ms += next_ms;
        log_notice("Contention on %s, sleep %dms", path, next_ms);
        msleep(next_ms);
        next_ms *= 2;
    }
}

void PathUnlock(const char *path)
{
    log_info("Unlock %s", path);
    if (unlink(path) < 0)
        log_warn("unlink(%s): %s", path, strerror(errno));
}

/* A lock by its name, which comes in pieces. */
static int lock_named(std::initializer_list<std::string_view> name, int timeout_ms)
{
    char path[PATH_LEN];
    return text_join(path, name) < 0 ? -1 : PathLock(path, timeout_ms);
}

static void unlock_named(std::initializer_list<std::string_view> name)
{
    char path[PATH_LEN];
    if (text_join(path, name) == 0)
        PathUnlock(path);
}

/* What each record's lock is called. The number and the text of a node come to the same name. */
static constexpr std::string_view node_lock = "/tmp/NODE-", datastore_lock = "/tmp/DS-", vdisk_lock = "/tmp/VDISK-";

int NodeLock(unsigned int nodeid)
{
    return lock_named({node_lock, Decimal(nodeid)}, cfg_node_lock_timeout_ms);
}

void NodeUnlock(unsigned int nodeid)
{
    unlock_named({node_lock, Decimal(nodeid)});
}

int NodeLockStr(const char *nodeuuid)
{
    return lock_named({node_lock, nodeuuid}, cfg_node_lock_timeout_ms);
}

void NodeUnlockStr(const char *nodeuuid)
{
    unlock_named({node_lock, nodeuuid});
}

int DatastoreLock(const struct DatastoreEntry *dse)
{
    return lock_named({datastore_lock, uuid_view(dse->uuid)}, cfg_datastore_lock_timeout_ms);
}

void DatastoreUnlock(const struct DatastoreEntry *dse)
{
    unlock_named({datastore_lock, uuid_view(dse->uuid)});
}

int DatastoreLockStr(const char *dsuuid)
{
    return lock_named({datastore_lock, dsuuid}, cfg_datastore_lock_timeout_ms);
}

void DatastoreUnlockStr(const char *dsuuid)
{
    unlock_named({datastore_lock, dsuuid});
}

int VDiskLock(const struct VDisk *vdisk)
{
    return lock_named({vdisk_lock, vdisk->vdiskuuid}, cfg_vdisk_lock_timeout_ms);
}

void VDiskUnlock(const struct VDisk *vdisk)
{
    unlock_named({vdisk_lock, vdisk->vdiskuuid});
}

int ParentLock(const struct VDisk *vdisk)
{
    return lock_named({vdisk_lock, vdisk->parentuuid}, cfg_vdisk_lock_timeout_ms);
}

void ParentUnlock(const struct VDisk *vdisk)
{
    unlock_named({vdisk_lock, vdisk->parentuuid});
}
