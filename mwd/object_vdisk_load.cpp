/* Reading VDisks back out of the tree. */
#include "mwd/object_internal.h"

#include "mwd/config.h"
#include "mwd/io.h"
#include "mwd/syslog.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

/* The one attribute that a VDisk need not have: it is there during a transaction of the host's other programs. */
static int load_transaction_id(const Record &record, struct VDiskEntry *vde)
{
    struct stat st;
    if (fstatat(record.dirfd, "transaction_id", &st, AT_SYMLINK_NOFOLLOW) < 0) {
        if (errno == ENOENT)
            return 0;
        log_error_as(record.op, "lstat(" RECORD_PATH "/transaction_id): %s", RECORD_ARGS(record), strerror(errno));
        return -1;
    }
    uint32_t transaction_id;
    if (record_load_u32(record, "transaction_id", &transaction_id) < 0)
        return -1;
    vde->transaction_id = transaction_id;
    return 0;
}

static int load_common(const Record &record, struct VDiskEntry *vde)
{
    uint32_t number;
    uint64_t sectors;
    if (record_load_text(record, "uuid", vde->uuid, sizeof(vde->uuid)) < 0 ||
        record_load_text(record, "name", vde->name.name, sizeof(vde->name.name)) < 0 ||
        record_load_u32(record, "sector_size", &number) < 0)
        return -1;
    vde->sector_size = number;
    if (record_load_u64(record, "sectors", &sectors) < 0)
        return -1;
    vde->sectors = sectors;
    if (record_load_u32(record, "replicas", &number) < 0)
        return -1;
    vde->replicas = static_cast<uint16_t>(number);
    if (record_load_u32(record, "st_mems", &number) < 0)
        return -1;
    vde->st_mems = static_cast<uint8_t>(number);
    if (record_load_u32(record, "st_size", &number) < 0)
        return -1;
    vde->st_size = static_cast<uint16_t>(number);
    if (record_load_u32(record, "snapshot", &number) < 0)
        return -1;
    vde->snapshot = static_cast<uint16_t>(number);
    return 0;
}

static int load_snaptime(const Record &record, struct VDiskEntry *vde)
{
    char text[32] = "";
    if (record_load_string(record, "snaptime", text, sizeof(text) - 1) < 0)
        return -1;
    int y, m, d, H, M, S;
    if (sscanf(text, "%d-%d-%d_%d.%d.%d", &y, &m, &d, &H, &M, &S) != 6) {
        log_error_as(record.op, "Malformed " RECORD_PATH "/snaptime: %s", RECORD_ARGS(record), text);
        return -1;
    }
    auto &snap = vde->description.snap;
    snap.y = static_cast<uint8_t>(y);
    snap.m = static_cast<uint8_t>(m);
    snap.d = static_cast<uint16_t>(d);
    snap.H = static_cast<uint8_t>(H);
    snap.M = static_cast<uint8_t>(M);
    snap.S = static_cast<uint8_t>(S);
    log_debug_as(record.op, RECORD_PATH "/snaptime=%02d-%02d-%02d_%02d.%02d.%02d", RECORD_ARGS(record), y, m, d, H, M,
                 S);
    return 0;
}

static int load_parent(const Record &record, struct VDisk *vdisk)
{
    auto &parent = vdisk->vde.description.snap.parent;
    if (record_load_string(record, "parent", parent, sizeof(parent)) < 0)
        return -1;
    log_debug_as(record.op, RECORD_PATH "/parent=%.*s", RECORD_ARGS(record), static_cast<int>(sizeof(parent)), parent);
    uuid_text(vdisk->parentuuid, parent);
    if (!name_usable(vdisk->parentuuid)) {
        log_error_as(record.op, "Malformed " RECORD_PATH "/parent: %s", RECORD_ARGS(record), vdisk->parentuuid);
        return -1;
    }
    return 0;
}

static int load_base(const Record &record, struct VDisk *vdisk)
{
    struct VDiskEntry *vde = &vdisk->vde;
    if (load_transaction_id(record, vde) < 0 || load_common(record, vde) < 0)
        return -1;
    if (vde->snapshot == 0)
        return record_load_text(record, "description", vde->description.descr, sizeof(vde->description.descr));
    if (load_snaptime(record, vde) < 0 || load_parent(record, vdisk) < 0)
        return -1;
    return 0;
}

/* Both codings of the generation; the full one only from a node that is new enough to know it. */
static void set_generation(const struct Hdr *hdr, struct VDiskEntry *vde, uint32_t mshipgencnt)
{
    vde->name.old_mshipgencnt[0] = static_cast<char>('0' + mshipgencnt / 10 % 10);
    vde->name.old_mshipgencnt[1] = static_cast<char>('0' + mshipgencnt % 10);
    if (hdr->major > 1 || (hdr->major == 1 && hdr->minor >= 8))
        vde->name.mshipgencnt = htons(static_cast<uint16_t>(mshipgencnt));
}

static int load_member(const Record &member, const struct Hdr *hdr, struct VDiskEntry *vde)
{
    uint32_t number;
    uint64_t wide;
    if (record_load_u64(member, "numkeys", &wide) < 0)
        return -1;
    vde->numkeys = wide;
    if (record_load_u64(member, "seqno", &wide) < 0)
        return -1;
    vde->seqno = wide;
    if (record_load_u32(member, "status", &number) < 0)
        return -1;
    vde->status = static_cast<uint8_t>(number);
    if (record_load_u32(member, "port", &number) < 0)
        return -1;
    vde->port = static_cast<uint16_t>(number);
    if (record_load_u32(member, "st_mem", &number) < 0)
        return -1;
    vde->st_mem = static_cast<uint8_t>(number);
    if (record_load_u32(member, "membership_gen_count", &number) < 0)
        return -1;
    set_generation(hdr, vde, number);
    return 0;
}

/* What the node itself reports of the VDisk: its member record and both lists. */
static int load_report(const Record &record, const struct Node *node, struct VDisk *vdisk)
{
    log_debug_as(record.op, "%s/memberinfo [OPEN]", record.path);
    FdGuard mbtopfd(dir_openat(record.dirfd, "memberinfo"));
    if (mbtopfd.fd < 0)
        return -1;
    log_debug_as(record.op, "%s/memberinfo/%s [OPEN]", record.path, node->nodeuuid);
    FdGuard mbfd(dir_openat(mbtopfd.fd, node->nodeuuid));
    if (mbfd.fd < 0)
        return -1;

    const Record member = {record.op, record.path, "/memberinfo/", node->nodeuuid, mbfd.fd};
    if (load_member(member, &node->hdr, &vdisk->vde) < 0 ||
        MembershipLoad(&vdisk->members, &vdisk->members_count, record.path, record.dirfd) < 0)
        return -1;
    vdisk->vde.members = static_cast<uint16_t>(vdisk->members_count);
    if (FrontendsLoad(&vdisk->frontends, &vdisk->frontends_count, record.path, node->nodeuuid, mbfd.fd) < 0)
        return -1;
    vdisk->vde.frontends = static_cast<uint16_t>(vdisk->frontends_count);
    return 0;
}

int VDiskLoad(const struct Node *node, struct VDisk *vdisk)
{
    log_info("Load VDisk %s by Node %s", vdisk->vdiskuuid, node ? node->nodeuuid : "NONE");
    memset(&vdisk->vde, 0, sizeof(vdisk->vde));

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/VDisk/", vdisk->vdiskuuid}) < 0)
        return -1;
    log_debug("%s [OPEN]", path);
    FdGuard vdiskfd(dir_open(path));
    if (vdiskfd.fd < 0)
        return -1;
    const Record record = {__func__, path, "", "", vdiskfd.fd};
    if (load_base(record, vdisk) < 0)
        return -1;
    return node ? load_report(record, node, vdisk) : 0;
}

/* readdir_r keeps the entry in the caller's hands; the platform deprecates it in favour of readdir. */
static int read_entry(DIR *dir, struct dirent *entry, struct dirent **result)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return readdir_r(dir, entry, result);
#pragma GCC diagnostic pop
}

/* Puts the VDisk that the link `name` of the directory stands for into the tree; anything but a link is passed over. */
static int attach_vdisk(const char *op, const char *dirpath, const char *name, unsigned int nodeid,
                        struct VDiskTree *vdtp)
{
    char path[PATH_LEN];
    if (text_join(path, {dirpath, "/", name}) < 0) {
        log_error_as(op, "Path %s/%s too long!!!", dirpath, name);
        return -1;
    }
    struct stat st;
    if (lstat(path, &st) < 0) {
        log_error_as(op, "lstat(%s): %s", path, strerror(errno));
        return -1;
    }
    if (!S_ISLNK(st.st_mode))
        return 0;
    size_t length = strlen(name);
    if (length > UUID_WIDTH) {
        log_error_as(op, "Malformed symlink %s", path);
        return 0;
    }
    struct VDisk *vdisk = nullptr;
    if (VDiskAlloc(&vdisk) < 0)
        return -1;
    memcpy(vdisk->vdiskuuid, name, length + 1);
    if (VDiskTree_RB_INSERT(vdtp, vdisk)) {
        log_error_as(op, "Duplicate VDisk Link %s", path);
        VDiskFree(vdisk);
        return 0;
    }
    log_info_as(op, "Load Node %u attach VDisk %s", nodeid, vdisk->vdiskuuid);
    return 0;
}

static int attach_vdisks(const char *op, const char *path, unsigned int nodeid, struct VDiskTree *vdtp)
{
    DirGuard dir(opendir(path));
    if (!dir.dir) {
        log_error_as(op, "opendir(%s): %s", path, strerror(errno));
        return -1;
    }
    for (;;) {
        struct dirent entry, *next;
        int result = read_entry(dir.dir, &entry, &next);
        if (result != 0) {
            log_error_as(op, "readdir_r(%s): %d", path, result);
            return -1;
        }
        if (!next)
            return 0;
        if (attach_vdisk(op, path, entry.d_name, nodeid, vdtp) < 0)
            return -1;
    }
}

int NodeLoad_VDisks(unsigned int nodeid, struct VDiskTree *vdtp)
{
    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Node/", Decimal(nodeid), "/vdisks"}) < 0 ||
        attach_vdisks(__func__, path, nodeid, vdtp) < 0) {
        VDiskTreeFlush(vdtp);
        return -1;
    }
    return 0;
}
