/* Datastore records: Datastore/<uuid>. */
#include "mwd/object_internal.h"

#include "mwd/config.h"
#include "mwd/io.h"
#include "mwd/syslog.h"

#include <cstring>

static int store_attributes(const Record &record, const struct DatastoreEntry *dse)
{
    if (record_store_text(record, "uuid", dse->uuid, sizeof(dse->uuid)) < 0 ||
        record_store_text(record, "name", dse->name, sizeof(dse->name)) < 0 ||
        record_store_text(record, "description", dse->description, sizeof(dse->description)) < 0 ||
        record_store_u32(record, "sector_size", dse->sector_size) < 0 ||
        record_store_u32(record, "replicas", dse->replicas) < 0 ||
        record_store_u32(record, "stripes", dse->stripes) < 0 ||
        record_store_u32(record, "overcommit", dse->overcommit) < 0)
        return -1;
    return 0;
}

/* Links the node in `members`, unless anything has its name there. */
static int ref_node(const Record &record, const struct DatastoreEntry *dse, uint32_t uid)
{
    FdGuard dir(dir_openat(record.dirfd, "members"));
    if (dir.fd < 0)
        return -1;
    char nodeuuid[NAME_LEN];
    text_join(nodeuuid, {Decimal(uid)});
    int missing = entry_missing(dir.fd, nodeuuid);
    if (missing <= 0)
        return missing;

    char target[TARGET_LEN];
    if (text_join(target, {"../../../Node/", nodeuuid}) < 0)
        return -1;
    log_info_as(record.op, "Update Datastore %.*s ref Node %s", static_cast<int>(UUID_WIDTH), dse->uuid, nodeuuid);
    const Record members = {record.op, record.path, "/members", "", dir.fd};
    return record_symlink(members, nodeuuid, target);
}

static int store_datastore(const Record &record, const struct DatastoreEntry *dse, uint32_t uid)
{
    if (store_attributes(record, dse) < 0 || record_mkdir(record, "vdisks") < 0 || record_mkdir(record, "members") < 0)
        return -1;
    return ref_node(record, dse, uid);
}

int DatastoreCreate(const struct Hdr *hdr, const struct DatastoreEntry *dse)
{
    log_info("Create Datastore %.*s", static_cast<int>(UUID_WIDTH), dse->uuid);

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Datastore"}) < 0 || path_mkdir(__func__, path) < 0 ||
        text_join(path, {cfg_work_directory, "/Datastore/", uuid_view(dse->uuid)}) < 0 ||
        path_mkdir(__func__, path) < 0)
        return -1;
    int dirfd = dir_open(path);
    if (dirfd < 0)
        return -1;
    const Record record = {__func__, path, "", "", dirfd};
    int result = store_datastore(record, dse, hdr->uid);
    record_sync_close(record);
    return result;
}

int DatastoreLoad(const char *dsuuid, struct DatastoreEntry *dse)
{
    log_info("Load Datastore %s", dsuuid);
    memset(dse, 0, sizeof(*dse));

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Datastore/", dsuuid}) < 0)
        return -1;
    log_debug("%s [OPEN]", path);
    FdGuard dir(dir_open(path));
    if (dir.fd < 0)
        return -1;

    const Record record = {__func__, path, "", "", dir.fd};
    uint32_t number;
    if (record_load_text(record, "uuid", dse->uuid, sizeof(dse->uuid)) < 0 ||
        record_load_text(record, "name", dse->name, sizeof(dse->name)) < 0 ||
        record_load_text(record, "description", dse->description, sizeof(dse->description)) < 0 ||
        record_load_u32(record, "sector_size", &number) < 0)
        return -1;
    dse->sector_size = number;
    if (record_load_u32(record, "replicas", &number) < 0)
        return -1;
    dse->replicas = static_cast<uint16_t>(number);
    if (record_load_u32(record, "stripes", &number) < 0)
        return -1;
    dse->stripes = static_cast<uint16_t>(number);
    if (record_load_u32(record, "overcommit", &number) < 0)
        return -1;
    dse->overcommit = static_cast<uint8_t>(number);
    return 0;
}

int DatastoreUpdate_UnrefNode(const char *dsuuid, const char *nodeuuid)
{
    log_info("Update Datastore %s unref Node %s", dsuuid, nodeuuid);

    char path[PATH_LEN];
    if (text_join(path, {cfg_work_directory, "/Datastore/", dsuuid, "/members/", nodeuuid}) < 0 ||
        path_unlink(__func__, path) < 0 || text_join(path, {cfg_work_directory, "/Datastore/", dsuuid, "/members"}) < 0)
        return -1;
    int others_left = path_rmdir(__func__, path);
    if (others_left != 0)
        return others_left < 0 ? -1 : 0;

    log_info("Delete Datastore %s", dsuuid);
    if (text_join(path, {cfg_work_directory, "/Datastore/", dsuuid}) < 0)
        return -1;
    return path_remove_tree(__func__, path) == 0 ? 0 : -1;
}
