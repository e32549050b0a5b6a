/* Node records: Node/<uid>. */
#include "mwd/object_internal.h"

#include "mwd/config.h"
#include "mwd/io.h"
#include "mwd/syslog.h"

#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>

static int node_path(char (&path)[PATH_LEN], unsigned int nodeid)
{
    return text_join(path, {cfg_work_directory, "/Node/", Decimal(nodeid)});
}

static int store_version(const Record &record, const struct Hdr *hdr)
{
    log_debug_as(record.op, RECORD_PATH "/version=v%u.%u", RECORD_ARGS(record), hdr->major, hdr->minor);
    return AttrStore(record.dirfd, "version", "v%u.%u\n", hdr->major, hdr->minor) < 0 ? -1 : 0;
}

static int store_identity(const Record &record, const struct Hdr *hdr)
{
    if (store_version(record, hdr) < 0 || record_store_u32(record, "uuid", hdr->uid) < 0 ||
        record_store_u32(record, "status", 1) < 0 || record_store_u32(record, "nodestatus", hdr->nodestatus) < 0 ||
        record_store_text(record, "vendor", hdr->vendor, sizeof(hdr->vendor)) < 0 ||
        record_store_text(record, "model", hdr->model, sizeof(hdr->model)) < 0 ||
        record_store_u32(record, "freespace", hdr->revision.freespace) < 0 ||
        record_store_u32(record, "utilization", hdr->revision.utilization) < 0 ||
        record_store_text(record, "revision", hdr->revision.rev, sizeof(hdr->revision.rev)) < 0 ||
        record_store_text(record, "serial", hdr->serial, sizeof(hdr->serial)) < 0 ||
        record_store_text(record, "hbtl", hdr->hbtl, sizeof(hdr->hbtl)) < 0 ||
        record_store_u32(record, "performance", hdr->performance) < 0 ||
        record_store_u32(record, "hostid", hdr->hostid) < 0)
        return -1;
    return 0;
}

/* One wire field, two attributes: a node with a backup channel sends that address in place of its size. */
static int store_size(const Record &record, const struct Hdr *hdr)
{
    uint32_t size = hdr->size;
    char backupchannel[INET_ADDRSTRLEN] = "0.0.0.0";
    if (hdr->nodestatus == NODESTATUS_BACKUP) {
        uint32_t ip = htonl(size);
        if (!inet_ntop(AF_INET, &ip, backupchannel, sizeof(backupchannel))) {
            log_error_as(record.op, "inet_ntop(): %s", strerror(errno));
            return -1;
        }
        size = 0;
    }
    if (record_store_u32(record, "size", size) < 0 || record_store_string(record, "backupchannel", backupchannel) < 0)
        return -1;
    return 0;
}

static int store_lastping(const Record &record, time_t now)
{
    return record_store_u64(record, "lastping", static_cast<uint64_t>(now));
}

static int store_node(const Record &record, const struct Hdr *hdr, const char *ipaddr)
{
    if (record_mkdir(record, "vdisks") < 0 || store_identity(record, hdr) < 0 || store_size(record, hdr) < 0 ||
        record_store_string(record, "ipaddr", ipaddr) < 0 || store_lastping(record, time(nullptr)) < 0)
        return -1;
    return 0;
}

int NodeCreate(const struct Hdr *hdr, const char *ipaddr)
{
    assert(hdr->type == MSG_PING || hdr->type == MSG_DS_PING || hdr->type == MSG_SINGLE_VDISK_PING ||
           hdr->type == MSG_VDISK_DELETED || hdr->type == MSG_AUX_PING);
    log_info("Create Node %u", hdr->uid);

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Node"}) < 0 || path_mkdir(__func__, path) < 0 ||
        node_path(path, hdr->uid) < 0 || path_mkdir(__func__, path) < 0)
        return -1;
    int dirfd = dir_open(path);
    if (dirfd < 0)
        return -1;
    const Record record = {__func__, path, "", "", dirfd};
    int result = store_node(record, hdr, ipaddr);
    record_sync_close(record);
    return result;
}

/* Opens the record of a node that may have none, which is no failure to tell. The descriptor, or -1. */
static int open_known_node(const char *op, const char *path)
{
    int dirfd;
    while ((dirfd = open(path, O_RDONLY | O_DIRECTORY)) < 0) {
        if (errno == EINTR)
            continue;
        if (errno != ENOENT)
            log_error_as(op, "open(%s): %s", path, strerror(errno));
        return -1;
    }
    return dirfd;
}

static int store_capacity(const Record &record, const struct AuxPingData *aux)
{
    if (record_store_u32(record, "allocatedspace", aux->allocatedspace) < 0 ||
        record_store_u32(record, "curvdisks", aux->curvdisks) < 0 ||
        record_store_u32(record, "curvdisksforctrl", aux->curvdisksforctrl) < 0 ||
        record_store_u32(record, "maxvdisksforctrl", aux->maxvdisksforctrl) < 0 ||
        record_store_u32(record, "memtotal", aux->memtotal) < 0 ||
        record_store_u32(record, "memavail", aux->memavail) < 0)
        return -1;
    return 0;
}

int NodeUpdate_AuxPing(const struct Hdr *hdr, const struct AuxPingData *aux)
{
    assert(hdr->type == MSG_AUX_PING);
    log_info("Update Node %u", hdr->uid);

    char path[PATH_LEN];
    if (node_path(path, hdr->uid) < 0)
        return -1;
    int dirfd = open_known_node(__func__, path);
    if (dirfd < 0)
        return -1;
    const Record record = {__func__, path, "", "", dirfd};
    int result = store_capacity(record, aux);
    record_sync_close(record);
    return result;
}

int NodeUpdate_HEARTBEAT(const struct Hdr *hdr)
{
    assert(hdr->type == MSG_HEARTBEAT);
    time_t now = time(nullptr);
    log_info("Update Node %u set lastping=%llu", hdr->uid, static_cast<unsigned long long>(now));

    char path[PATH_LEN];
    if (node_path(path, hdr->uid) < 0)
        return -1;
    int dirfd = open_known_node(__func__, path);
    if (dirfd < 0)
        return -1;
    const Record record = {__func__, path, "", "", dirfd};
    int result = store_lastping(record, now);
    record_sync_close(record);
    return result;
}

int NodeUpdate_RefDatastore(const struct Hdr *hdr, const struct DatastoreEntry *dse)
{
    assert(hdr->type == MSG_DS_PING);
    log_info("Update Node %u set datastoremember=%.*s", hdr->uid, static_cast<int>(UUID_WIDTH), dse->uuid);

    char path[PATH_LEN];
    if (node_path(path, hdr->uid) < 0)
        return -1;
    int dirfd = dir_open(path);
    if (dirfd < 0)
        return -1;
    const Record record = {__func__, path, "", "", dirfd};
    int result = record_store_text(record, "datastoremember", dse->uuid, sizeof(dse->uuid));
    record_sync_close(record);
    return result;
}

int NodeUpdate_UnrefDatastore(const struct Hdr *hdr)
{
    assert(hdr->type == MSG_DS_PING);
    log_info("Update Node %u remove datastoremember", hdr->uid);

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Node/", Decimal(hdr->uid), "/datastoremember"}) < 0)
        return -1;
    log_debug("%s [UNLINK]", path);
    return path_unlink(__func__, path);
}

static int load_version(const Record &record, struct Hdr *hdr)
{
    char text[8] = "";
    if (record_load_string(record, "version", text, sizeof(text) - 1) < 0)
        return -1;
    int major, minor;
    if (sscanf(text, "v%d.%d", &major, &minor) != 2) {
        log_error_as(record.op, "Malformed " RECORD_PATH "/version: %s", RECORD_ARGS(record), text);
        return -1;
    }
    log_debug_as(record.op, RECORD_PATH "/version=v%d.%d", RECORD_ARGS(record), major, minor);
    hdr->major = static_cast<uint8_t>(major);
    hdr->minor = static_cast<uint8_t>(minor);
    return 0;
}

static int load_size(const Record &record, struct Hdr *hdr)
{
    uint32_t size;
    char backupchannel[INET_ADDRSTRLEN] = "";
    if (record_load_u32(record, "size", &size) < 0 ||
        record_load_text(record, "backupchannel", backupchannel, sizeof(backupchannel) - 1) < 0)
        return -1;
    if (hdr->nodestatus == NODESTATUS_BACKUP) {
        uint32_t ip;
        int result = inet_pton(AF_INET, backupchannel, &ip);
        if (result != 1) {
            log_error_as(record.op, "inet_pton(%s): %d", backupchannel, result);
            return -1;
        }
        size = ntohl(ip);
    }
    hdr->size = size;
    return 0;
}

static int load_header(const Record &record, unsigned int nodeid, struct Hdr *hdr)
{
    uint32_t number;
    if (load_version(record, hdr) < 0 || record_load_u32(record, "nodestatus", &number) < 0)
        return -1;
    hdr->nodestatus = static_cast<uint8_t>(number);
    hdr->uid = nodeid;
    if (record_load_text(record, "vendor", hdr->vendor, sizeof(hdr->vendor)) < 0 ||
        record_load_text(record, "model", hdr->model, sizeof(hdr->model)) < 0 ||
        record_load_u32(record, "freespace", &number) < 0)
        return -1;
    hdr->revision.freespace = number;
    if (record_load_u32(record, "utilization", &number) < 0)
        return -1;
    hdr->revision.utilization = number;
    if (record_load_text(record, "revision", hdr->revision.rev, sizeof(hdr->revision.rev)) < 0 ||
        record_load_text(record, "serial", hdr->serial, sizeof(hdr->serial)) < 0 ||
        record_load_text(record, "hbtl", hdr->hbtl, sizeof(hdr->hbtl)) < 0 || load_size(record, hdr) < 0 ||
        record_load_u32(record, "performance", &number) < 0)
        return -1;
    hdr->performance = static_cast<uint8_t>(number);
    if (record_load_u32(record, "hostid", &number) < 0)
        return -1;
    hdr->hostid = static_cast<uint16_t>(number);
    return 0;
}

static int load_capacity(const Record &record, struct AuxPingData *aux)
{
    uint32_t number;
    if (record_load_u32(record, "allocatedspace", &number) < 0)
        return -1;
    aux->allocatedspace = number;
    if (record_load_u32(record, "curvdisks", &number) < 0)
        return -1;
    aux->curvdisks = number;
    if (record_load_u32(record, "curvdisksforctrl", &number) < 0)
        return -1;
    aux->curvdisksforctrl = number;
    if (record_load_u32(record, "maxvdisksforctrl", &number) < 0)
        return -1;
    aux->maxvdisksforctrl = number;
    if (record_load_u32(record, "memtotal", &number) < 0)
        return -1;
    aux->memtotal = number;
    if (record_load_u32(record, "memavail", &number) < 0)
        return -1;
    aux->memavail = number;
    return 0;
}

int NodeLoad(struct Node *np)
{
    log_info("Load Node %u", np->nodeid);

    char path[PATH_LEN];
    if (node_path(path, np->nodeid) < 0)
        return -1;
    FdGuard dir(dir_open(path));
    if (dir.fd < 0)
        return -1;
    memset(&np->hdr, 0, sizeof(np->hdr));
    const Record record = {__func__, path, "", "", dir.fd};
    if (load_header(record, np->nodeid, &np->hdr) < 0 || load_capacity(record, &np->aux) < 0)
        return -1;
    return 0;
}

int NodeLoad_DSMember(const char *nodeuuid, char *dsuuid, size_t ds_len)
{
    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Node/", nodeuuid}) < 0)
        return -1;
    FdGuard dir(dir_open(path));
    if (dir.fd < 0 || entry_missing(dir.fd, "datastoremember") == 1)
        return -1;

    memset(dsuuid, 0, ds_len);
    const Record record = {__func__, path, "", "", dir.fd};
    if (record_load_string(record, "datastoremember", dsuuid, ds_len - 1) < 0)
        return -1;
    if (dsuuid[0] != '\0' && !name_usable(dsuuid)) {
        log_error("Malformed %s/datastoremember: %s", path, dsuuid);
        memset(dsuuid, 0, ds_len);
        return -1;
    }
    log_debug("%s/datastoremember=%s", path, dsuuid);
    log_info("Load Node %s datastoremember=%s", nodeuuid, dsuuid);
    return 0;
}
