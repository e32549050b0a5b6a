/* Member records: what one node reports of its share of a VDisk, the lists, and the links between records. */
#include "mwd/object_internal.h"

#include "mwd/config.h"
#include "mwd/io.h"
#include "mwd/syslog.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

/* The most that one line of a list takes: a dotted address and its newline, 16 bytes. */
constexpr size_t LIST_LINE_LEN = 16;

constexpr uint32_t SNAP_LIMIT = 10;

/* A buffer for `count` lines and a terminator, the caller's to free; null after an error line. */
static char *list_alloc(const char *op, size_t count)
{
    size_t size = LIST_LINE_LEN * count + 1;
    auto *text = static_cast<char *>(malloc(size));
    if (!text)
        log_error_as(op, "malloc(%zu): %s", size, strerror(errno));
    return text;
}

static int store_attributes(const Record &record, const struct VDiskEntry *vde)
{
    if (record_store_u32(record, "membership_gen_count", ntohs(vde->name.mshipgencnt)) < 0 ||
        record_store_u64(record, "numkeys", vde->numkeys) < 0 || record_store_u64(record, "seqno", vde->seqno) < 0 ||
        record_store_u32(record, "status", vde->status) < 0 || record_store_u32(record, "port", vde->port) < 0 ||
        record_store_u32(record, "st_mem", vde->st_mem) < 0)
        return -1;
    return vde->snapshot == 0 ? record_store_u32(record, "snap_limit", SNAP_LIMIT) : 0;
}

static int store_frontends(const Record &record, struct FrontendList *frontends)
{
    size_t count = 0;
    struct Frontend *frontend;
    TAILQ_FOREACH(frontend, frontends, entries)
        count++;
    BufGuard text(list_alloc(record.op, count));
    if (!text.buf)
        return -1;
    char *end = text.buf;
    TAILQ_FOREACH(frontend, frontends, entries)
        end += snprintf(end, LIST_LINE_LEN + 1, "%s\n", frontend->ipaddr);

    log_debug_as(record.op, RECORD_PATH "/frontend", RECORD_ARGS(record));
    return AttrStore(record.dirfd, "frontend", "%s", text.buf) < 0 ? -1 : 0;
}

static int link_nodestatus(const Record &record, const char *nodeuuid)
{
    int missing = entry_missing(record.dirfd, "nodestatus");
    if (missing <= 0)
        return missing;
    char target[TARGET_LEN];
    if (text_join(target, {"../../../../Node/", nodeuuid, "/status"}) < 0)
        return -1;
    return record_symlink(record, "nodestatus", target);
}

/*
 * Links the VDisk in the node, under the node's lock, and reads there which datastore it belongs to if the VDisk has
 * none yet. Returns 0 with `dsuuid` empty if there is nothing more to link, or -1.
 */
static int link_in_node(const char *nodeuuid, const char *vdiskuuid, bool load_ds, char (&dsuuid)[NAME_LEN])
{
    dsuuid[0] = '\0';
    if (NodeLockStr(nodeuuid) < 0)
        return -1;
    int result = NodeUpdate_RefVDisk(nodeuuid, vdiskuuid);
    if (result == 0 && load_ds)
        result = NodeLoad_DSMember(nodeuuid, dsuuid, sizeof(dsuuid));
    NodeUnlockStr(nodeuuid);
    return result;
}

static int link_datastore(const Record &vdisk_record, const char *vdiskuuid, const char *dsuuid)
{
    char target[TARGET_LEN];
    if (text_join(target, {"../../Datastore/", dsuuid}) < 0 || record_symlink(vdisk_record, "datastore", target) < 0 ||
        DatastoreLockStr(dsuuid) < 0)
        return -1;
    int result = DatastoreUpdate_RefVDisk(dsuuid, vdiskuuid);
    DatastoreUnlockStr(dsuuid);
    return result;
}

int MemberinfoCreate(struct VDisk *vdisk, const char *vdiskpath, int vdiskfd, const char *nodeuuid, int mbfd)
{
    log_info("Update VDisk %s add Member %s", vdisk->vdiskuuid, nodeuuid);

    const Record record = {__func__, vdiskpath, "/memberinfo/", nodeuuid, mbfd};
    if (store_attributes(record, &vdisk->vde) < 0)
        return -1;
    if (TAILQ_EMPTY(&vdisk->frontends))
        return 0;
    if (store_frontends(record, &vdisk->frontends) < 0 || link_nodestatus(record, nodeuuid) < 0)
        return -1;

    bool load_ds = entry_missing(vdiskfd, "datastore") == 1;
    char dsuuid[NAME_LEN];
    if (link_in_node(nodeuuid, vdisk->vdiskuuid, load_ds, dsuuid) < 0)
        return -1;
    if (dsuuid[0] == '\0')
        return 0;
    const Record vdisk_record = {__func__, vdiskpath, "", "", vdiskfd};
    return link_datastore(vdisk_record, vdisk->vdiskuuid, dsuuid);
}

int MemberinfoDelete(struct VDisk *vdisk, const char *nodeuuid)
{
    log_info("Update VDisk %s delete Member %s", vdisk->vdiskuuid, nodeuuid);

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/VDisk/", vdisk->vdiskuuid, "/memberinfo/", nodeuuid}) < 0 ||
        path_remove_tree(__func__, path) != 0)
        return -1;
    return NodeUpdate_UnrefVDisk(nodeuuid, vdisk->vdiskuuid);
}

/* Links the VDisk in the directory `path`, unless anything has its name there. */
static int ref_vdisk(const char *op, const char *path, const char *vdiskuuid)
{
    FdGuard dir(dir_open(path));
    if (dir.fd < 0)
        return -1;
    int missing = entry_missing(dir.fd, vdiskuuid);
    if (missing <= 0)
        return missing;
    char target[TARGET_LEN];
    if (text_join(target, {"../../../VDisk/", vdiskuuid}) < 0)
        return -1;
    const Record links = {op, path, "", "", dir.fd};
    return record_symlink(links, vdiskuuid, target);
}

int NodeUpdate_RefVDisk(const char *nodeuuid, const char *vdiskuuid)
{
    log_info("Update Node %s ref VDisk %s", nodeuuid, vdiskuuid);

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Node/", nodeuuid, "/vdisks"}) < 0)
        return -1;
    return ref_vdisk(__func__, path, vdiskuuid);
}

int DatastoreUpdate_RefVDisk(const char *dsuuid, const char *vdiskuuid)
{
    log_info("Update Datastore %s ref VDisk %s", dsuuid, vdiskuuid);

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Datastore/", dsuuid, "/vdisks"}) < 0)
        return -1;
    return ref_vdisk(__func__, path, vdiskuuid);
}

static int unlink_in_node(const char *op, const char *nodeuuid, const char *vdiskuuid)
{
    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Node/", nodeuuid, "/vdisks/", vdiskuuid}) < 0)
        return -1;
    struct stat st;
    if (lstat(path, &st) < 0) {
        if (errno == ENOENT)
            return 0;
        log_error_as(op, "lstat(%s): %s", path, strerror(errno));
        return -1;
    }
    log_debug_as(op, "%s [UNLINK]", path);
    if (unlink(path) < 0) {
        log_error_as(op, "unlink(%s): %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

int NodeUpdate_UnrefVDisk(const char *nodeuuid, const char *vdiskuuid)
{
    log_info("Update Node %s unref VDisk %s", nodeuuid, vdiskuuid);

    if (NodeLockStr(nodeuuid) < 0)
        return -1;
    int result = unlink_in_node(__func__, nodeuuid, vdiskuuid);
    NodeUnlockStr(nodeuuid);
    return result;
}

int DatastoreUpdate_UnrefVDisk(const char *vdiskuuid)
{
    char path[PATH_LEN], target[TARGET_LEN] = "";
    if (text_join(path, {cfg_work_directory, "/VDisk/", vdiskuuid, "/datastore"}) < 0)
        return -1;
    if (readlink(path, target, sizeof(target) - 1) < 0) {
        if (errno == ENOENT)
            return 0;
        log_error("readlink(%s): %s", path, strerror(errno));
        return -1;
    }
    const char *slash = strrchr(target, '/');
    if (!slash || !name_usable(slash + 1)) {
        log_error("Malformed symlink %s: %s", path, target);
        return -1;
    }
    const char *dsuuid = slash + 1;
    if (text_join(path, {cfg_work_directory, "/Datastore/", dsuuid, "/vdisks/", vdiskuuid}) < 0 ||
        DatastoreLockStr(dsuuid) < 0)
        return -1;
    log_info("Update Datastore %s unref VDisk %s", dsuuid, vdiskuuid);
    int result = path_unlink(__func__, path);
    DatastoreUnlockStr(dsuuid);
    return result;
}

int MembershipStore(struct VDisk *vdisk, const char *vdiskpath, int vdiskfd)
{
    size_t count = 0;
    struct Member *member;
    TAILQ_FOREACH(member, &vdisk->members, entries)
        count++;
    if (count == 0)
        return 0;
    BufGuard text(list_alloc(__func__, count));
    if (!text.buf)
        return -1;
    char *end = text.buf;
    TAILQ_FOREACH(member, &vdisk->members, entries)
        end += snprintf(end, LIST_LINE_LEN + 1, "%u\n", member->mbe.node);

    log_debug("%s/membership", vdiskpath);
    return AttrStore(vdiskfd, "membership", "%s", text.buf) < 0 ? -1 : 0;
}

/* Terminates the line that starts at *next and moves *next behind it. Null at `end`; a newline stands before it. */
static char *next_line(char **next, const char *end)
{
    char *line = *next;
    if (line == end)
        return nullptr;
    auto *newline = static_cast<char *>(memchr(line, '\n', static_cast<size_t>(end - line)));
    *newline = '\0';
    *next = newline + 1;
    return line;
}

static int add_member(const char *vdiskpath, struct MemberList *members, const char *line, int count)
{
    struct Member *member = nullptr;
    if (MemberAlloc(&member) < 0)
        return -1;
    TAILQ_INSERT_TAIL(members, member, entries);
    member->mbe.node = static_cast<uint32_t>(strtoul(line, nullptr, 10));
    if (member->mbe.node == 0) {
        log_error_as("MembershipLoad", "Malformed file %s/membership", vdiskpath);
        return -1;
    }
    MemberInit(member, nullptr);
    log_debug_as("MembershipLoad", "%s/membership=%s [%d]", vdiskpath, member->uuid, count);
    return 0;
}

int MembershipLoad(struct MemberList *members, int *members_count, const char *vdiskpath, int vdiskfd)
{
    FdGuard file(value_open(vdiskfd, "membership"));
    if (file.fd < 0)
        return -1;
    BufGuard text(nullptr);
    ssize_t size = FileLoad(file.fd, &text.buf);
    if (size <= 0)
        return size < 0 ? -1 : 0;
    if (text.buf[size - 1] != '\n') {
        log_error("Malformed file %s/membership", vdiskpath);
        return -1;
    }
    int count = 0;
    char *next = text.buf;
    while (char *line = next_line(&next, text.buf + size)) {
        if (add_member(vdiskpath, members, line, ++count) < 0) {
            MemberListFlush(members);
            return -1;
        }
    }
    if (members_count)
        *members_count = count;
    return 0;
}

static int parse_frontend(const char *line, struct Frontend *frontend)
{
    static const char op[] = "FrontendsLoad";
    uint32_t ip;
    int result = inet_pton(AF_INET, line, &ip);
    if (result != 1) {
        log_error_as(op, "inet_pton(%s): %d", line, result);
        return -1;
    }
    frontend->fee.node = ntohl(ip);
    if (!inet_ntop(AF_INET, &ip, frontend->ipaddr, sizeof(frontend->ipaddr))) {
        log_error_as(op, "inet_ntop(): %s", strerror(errno));
        return -1;
    }
    if (strcmp(line, frontend->ipaddr) != 0) {
        log_error_as(op, "IP Conversion failure: %s vs %s", line, frontend->ipaddr);
        return -1;
    }
    return 0;
}

static int add_frontend(const Record &record, struct FrontendList *frontends, const char *line, int count)
{
    struct Frontend *frontend = nullptr;
    if (FrontendAlloc(&frontend) < 0)
        return -1;
    TAILQ_INSERT_TAIL(frontends, frontend, entries);
    if (parse_frontend(line, frontend) < 0)
        return -1;
    log_debug_as(record.op, RECORD_PATH "/frontend=%s [%d]", RECORD_ARGS(record), frontend->ipaddr, count);
    return 0;
}

int FrontendsLoad(struct FrontendList *frontends, int *frontends_count, const char *vdiskpath, const char *nodeuuid,
                  int mbfd)
{
    FdGuard file(value_open(mbfd, "frontend"));
    if (file.fd < 0)
        return -1;
    BufGuard text(nullptr);
    ssize_t size = FileLoad(file.fd, &text.buf);
    if (size <= 0)
        return size < 0 ? -1 : 0;
    const Record record = {__func__, vdiskpath, "/memberinfo/", nodeuuid, mbfd};
    if (text.buf[size - 1] != '\n') {
        log_error("Malformed file " RECORD_PATH "/frontend", RECORD_ARGS(record));
        return -1;
    }
    int count = 0;
    char *next = text.buf;
    while (char *line = next_line(&next, text.buf + size)) {
        if (add_frontend(record, frontends, line, ++count) < 0) {
            FrontendListFlush(frontends);
            return -1;
        }
    }
    *frontends_count = count;
    return 0;
}
