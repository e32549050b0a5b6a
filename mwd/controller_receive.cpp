/* Received messages that speak of a node, and the dispatch of all. */
#include "mwd/controller_internal.h"

#include "mwd/syslog.h"

#include <cstdio>

/* The record that begins `offset` bytes into the datagram; the caller knows that it lies inside. */
template <typename Record> static const Record *record_at(const struct Hdr *hdr, size_t offset)
{
    return reinterpret_cast<const Record *>(reinterpret_cast<const char *>(hdr) + offset);
}

/* A heartbeat renews a node's time and makes no node. */
static void handle_heartbeat(const struct Hdr *hdr)
{
    count_rx(STATS_HEARTBEAT);
    if (NodeLock(hdr->uid) < 0)
        return;
    NodeUpdate_HEARTBEAT(hdr);
    NodeUnlock(hdr->uid);
}

static void handle_aux_ping(const struct Hdr *hdr, size_t r, const char *ipaddr)
{
    count_rx(STATS_AUX_PING);
    if (r < AUX_PING_LEN) {
        log_error("Malformed Node Ping?");
        return;
    }
    if (NodeLock(hdr->uid) < 0)
        return;
    if (NodeCreate(hdr, ipaddr) == 0)
        NodeUpdate_AuxPing(hdr, record_at<AuxPingData>(hdr, AUX_PING_OFFSET));
    NodeUnlock(hdr->uid);
}

/* The node is a member of the datastore `dse`: the datastore's half of the membership first, then the node's. */
static void join_datastore(const struct Hdr *hdr, const struct DatastoreEntry *dse)
{
    if (DatastoreLock(dse) < 0)
        return;
    int result = DatastoreCreate(hdr, dse);
    DatastoreUnlock(dse);
    if (result < 0 || NodeLock(hdr->uid) < 0)
        return;
    NodeUpdate_RefDatastore(hdr, dse);
    NodeUnlock(hdr->uid);
}

/*
 * The node belongs to no datastore: takes it out of the one that its record still names. The node's half goes last, so
 * that a leave that was cut short finds the datastore again with the next message.
 */
static void leave_datastore(const struct Hdr *hdr)
{
    char nodeuuid[NAME_LEN], dsuuid[NAME_LEN];
    snprintf(nodeuuid, sizeof(nodeuuid), "%u", hdr->uid);
    if (NodeLock(hdr->uid) < 0)
        return;
    int result = NodeLoad_DSMember(nodeuuid, dsuuid, sizeof(dsuuid));
    NodeUnlock(hdr->uid);
    if (result < 0)
        return;
    if (dsuuid[0] != '\0') {
        if (DatastoreLockStr(dsuuid) < 0)
            return;
        result = DatastoreUpdate_UnrefNode(dsuuid, nodeuuid);
        DatastoreUnlockStr(dsuuid);
    }
    if (result < 0 || NodeLock(hdr->uid) < 0)
        return;
    NodeUpdate_UnrefDatastore(hdr);
    NodeUnlock(hdr->uid);
}

static void handle_ds_ping(const struct Hdr *hdr, size_t r, const char *ipaddr)
{
    count_rx(STATS_DS_PING);
    if (refresh_node(hdr, ipaddr) < 0)
        return;
    if (r < DS_PING_LEN) {
        leave_datastore(hdr);
        return;
    }
    const auto *dse = record_at<DatastoreEntry>(hdr, sizeof(*hdr));
    dse_dump(dse);
    char dsuuid[NAME_LEN];
    uuid_text(dsuuid, dse->uuid);
    if (!name_usable(dsuuid)) {
        log_error("Malformed Datastore UUID from Node %u: %s", hdr->uid, dsuuid);
        return;
    }
    join_datastore(hdr, dse);
}

static void handle_unknown(const struct Hdr *hdr)
{
    count_rx(STATS_UNKNOWN);
    log_error("Received unknown header type %u", hdr->type);
    hdr_dump(hdr);
}

void dispatch_datagram(const struct Hdr *hdr, size_t r, const char *ipaddr)
{
    switch (hdr->type) {
    case MSG_PING:
        return handle_ping(hdr, r, ipaddr);
    case MSG_DS_PING:
        return handle_ds_ping(hdr, r, ipaddr);
    case MSG_HEARTBEAT:
        return handle_heartbeat(hdr);
    case MSG_SINGLE_VDISK_PING:
        return handle_single_vdisk_ping(hdr, r, ipaddr);
    case MSG_VDISK_DELETED:
        return handle_vdisk_deleted(hdr, r, ipaddr);
    case MSG_AUX_PING:
        return handle_aux_ping(hdr, r, ipaddr);
    default:
        return handle_unknown(hdr);
    }
}
