/* Publications: a local node is read afresh from the tree, built into messages, and sent to every destination. */
#include "mwd/controller_internal.h"

#include "mwd/config.h"
#include "mwd/syslog.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

static ssize_t send_to_host(const char *buf, size_t msglen, int so, const struct Host *host)
{
    ssize_t sent;
    do {
        struct sockaddr_in sa = host->sa;
        sent = sendto(so, buf, msglen, 0, reinterpret_cast<struct sockaddr *>(&sa), sizeof(sa));
    } while (sent < 0 && errno == EINTR);
    return sent;
}

int xmit_msg(const char *buf, size_t msglen, int so, int idx)
{
    struct HostList *hosts = cfg_unicast_mode != 0 ? unicast_hosts : multicast_groups;
    int result = 0;
    struct Host *host;
    TAILQ_FOREACH(host, hosts, entries) {
        ssize_t sent = send_to_host(buf, msglen, so, host);
        unsigned int port = ntohs(host->sa.sin_port);
        if (sent < 0) {
            log_error("sendto(%s:%u, %zu): %s", host->ipaddr, port, msglen, strerror(errno));
            result = -1;
        } else if (static_cast<size_t>(sent) != msglen) {
            log_error("sendto(%s:%u, %zu): %zd", host->ipaddr, port, msglen, sent);
            result = -1;
        } else {
            log_debug("sendto(%s:%u, %zu): %zd", host->ipaddr, port, msglen, sent);
            count_tx(STATS_ALL);
            if (idx > STATS_ALL && idx < STATS_TX_KINDS)
                count_tx(idx);
        }
    }
    return result;
}

/* Appends a record at *idx. Returns 0, or -1 if it would end above `buflen`. */
static int append(char *buf, size_t buflen, size_t *idx, const void *record, size_t size)
{
    if (*idx + size > buflen)
        return -1;
    memcpy(buf + *idx, record, size);
    *idx += size;
    return 0;
}

/* Clears the buffer and puts the node's header with `type` at its start. Returns 0, or -1 if even that does not fit. */
static int start_message(const struct Node *node, uint8_t type, char *buf, size_t buflen, size_t *idx)
{
    memset(buf, 0, buflen);
    *idx = 0;
    if (append(buf, buflen, idx, &node->hdr, sizeof(node->hdr)) < 0)
        return -1;
    reinterpret_cast<struct Hdr *>(buf)->type = type;
    return 0;
}

int build_ds_ping(struct Node *node, char *buf, size_t buflen, size_t *msglen)
{
    size_t idx;
    if (start_message(node, MSG_DS_PING, buf, buflen, &idx) < 0)
        return -1;
    log_debug("APPEND Datastore Ping header %zu bytes", idx);
    if (node->dsuuid[0] != '\0') {
        if (append(buf, buflen, &idx, &node->dse, sizeof(node->dse)) < 0)
            return -1;
        log_debug("APPEND Datastore Ping entry %zu bytes", sizeof(node->dse));
    }
    *msglen = idx;
    return 0;
}

int build_aux_ping(struct Node *node, char *buf, size_t buflen, size_t *msglen)
{
    size_t idx;
    if (start_message(node, MSG_AUX_PING, buf, buflen, &idx) < 0)
        return -1;
    idx = AUX_PING_OFFSET; /* past one byte of 0 */
    log_debug("APPEND Node Ping header %zu bytes", idx);
    struct AuxPingData aux = node->aux;
    aux.length = sizeof(aux);
    if (append(buf, buflen, &idx, &aux, sizeof(aux)) < 0)
        return -1;
    log_debug("APPEND Node Ping data %zu bytes", sizeof(aux));
    *msglen = idx;
    return 0;
}

static const char *kind_of(const struct VDisk *vdisk)
{
    return vdisk->vde.snapshot != 0 ? "Snapshot" : "Plain";
}

static int append_lists(const char *op, const struct VDisk *vdisk, char *buf, size_t buflen, size_t *idx)
{
    const char *kind = kind_of(vdisk);
    struct Member *member;
    TAILQ_FOREACH(member, &vdisk->members, entries) {
        if (append(buf, buflen, idx, &member->mbe, sizeof(member->mbe)) < 0)
            return -1;
        log_debug_as(op, "APPEND %s Member entry %zu bytes", kind, sizeof(member->mbe));
    }
    struct Frontend *frontend;
    TAILQ_FOREACH(frontend, &vdisk->frontends, entries) {
        if (append(buf, buflen, idx, &frontend->fee, sizeof(frontend->fee)) < 0)
            return -1;
        log_debug_as(op, "APPEND %s Frontend entry %zu bytes", kind, sizeof(frontend->fee));
    }
    return 0;
}

/* Appends all Plain VDisks of the node, or all Snapshots, in the order of their names. */
static int append_vdisks(const char *op, struct Node *node, bool snapshots, char *buf, size_t buflen, size_t *idx)
{
    for (struct VDisk *vdisk = VDiskTree_RB_MINMAX(&node->vdisks, -1); vdisk; vdisk = VDiskTree_RB_NEXT(vdisk)) {
        if ((vdisk->vde.snapshot != 0) != snapshots)
            continue;
        if (append(buf, buflen, idx, &vdisk->vde, sizeof(vdisk->vde)) < 0)
            return -1;
        log_debug_as(op, "APPEND %s VDisk entry %zu bytes", kind_of(vdisk), sizeof(vdisk->vde));
        if (append_lists(op, vdisk, buf, buflen, idx) < 0)
            return -1;
    }
    return 0;
}

int build_vdisk_ping(struct Node *node, char *buf, size_t buflen, size_t *msglen)
{
    size_t idx;
    if (start_message(node, MSG_PING, buf, buflen, &idx) < 0)
        return -1;
    log_debug("APPEND VDisk Ping header %zu bytes", idx);
    /* Plain VDisks first, so that a parent is in a peer's tree when its snapshot comes. */
    if (append_vdisks(__func__, node, false, buf, buflen, &idx) < 0 ||
        append_vdisks(__func__, node, true, buf, buflen, &idx) < 0)
        return -1;
    *msglen = idx;
    return 0;
}

int build_heartbeat(struct Node *node, char *buf, size_t buflen, size_t *msglen)
{
    size_t idx;
    if (start_message(node, MSG_HEARTBEAT, buf, buflen, &idx) < 0)
        return -1;
    log_debug("APPEND Node Heartbeat header %zu bytes", idx);
    *msglen = idx;
    return 0;
}

int build_single_vdisk_ping(struct Node *node, struct VDisk *vdisk, char *buf, size_t buflen, size_t *msglen)
{
    size_t idx;
    if (start_message(node, MSG_SINGLE_VDISK_PING, buf, buflen, &idx) < 0)
        return -1;
    log_debug("APPEND Single VDisk Ping header %zu bytes", idx);
    if (append(buf, buflen, &idx, &vdisk->vde, sizeof(vdisk->vde)) < 0)
        return -1;
    log_debug("APPEND Single %s VDisk entry %zu bytes", kind_of(vdisk), sizeof(vdisk->vde));
    if (append_lists(__func__, vdisk, buf, buflen, &idx) < 0)
        return -1;
    *msglen = idx;
    return 0;
}

int build_vdisk_deleted(struct Node *node, const char *vdiskuuid, char *buf, size_t buflen, size_t *msglen)
{
    size_t idx;
    if (start_message(node, MSG_VDISK_DELETED, buf, buflen, &idx) < 0)
        return -1;
    log_debug("APPEND VDisk Deleted header %zu bytes", idx);
    struct VDiskDeleteEntry vdde = {};
    vdde.node = node->hdr.uid;
    size_t length = strlen(vdiskuuid);
    if (length > sizeof(vdde.uuid))
        return -1;
    memcpy(vdde.uuid, vdiskuuid, length);
    if (append(buf, buflen, &idx, &vdde, sizeof(vdde)) < 0)
        return -1;
    log_debug("APPEND VDisk Deleted entry %zu bytes", sizeof(vdde));
    *msglen = idx;
    return 0;
}

void node_clear(struct Node *node)
{
    memset(&node->hdr, 0, sizeof(node->hdr));
    memset(&node->dse, 0, sizeof(node->dse));
    memset(&node->aux, 0, sizeof(node->aux));
    memset(node->dsuuid, 0, sizeof(node->dsuuid));
    VDiskTreeFlush(&node->vdisks);
}

int load_node_datastore(struct Node *node)
{
    if (node->dsuuid[0] == '\0')
        return 0;
    if (DatastoreLockStr(node->dsuuid) < 0)
        return -1;
    int result = DatastoreLoad(node->dsuuid, &node->dse);
    DatastoreUnlockStr(node->dsuuid);
    return result;
}

int load_node_vdisk(struct Node *node, struct VDisk *vdisk)
{
    if (VDiskLock(vdisk) < 0)
        return -1;
    int result = VDiskLoad(node, vdisk);
    VDiskUnlock(vdisk);
    return result;
}

int transmit_ds_ping(const char *op, struct Node *node, char *buf, size_t buflen, int so)
{
    size_t msglen;
    if (build_ds_ping(node, buf, buflen, &msglen) < 0) {
        log_error_as(op, "Oversized DS_PING from Node %s Datastore %s", node->nodeuuid, node->dsuuid);
        return -1;
    }
    log_info_as(op, "Send DS_PING %zuB from Node %s Datastore %s", msglen, node->nodeuuid, node->dsuuid);
    xmit_msg(buf, msglen, so, STATS_DS_PING);
    return 0;
}

int transmit_aux_ping(const char *op, struct Node *node, char *buf, size_t buflen, int so)
{
    size_t msglen;
    if (build_aux_ping(node, buf, buflen, &msglen) < 0) {
        log_error_as(op, "Oversized AUX_PING from Node %s", node->nodeuuid);
        return -1;
    }
    log_info_as(op, "Send AUX_PING %zuB from Node %s", msglen, node->nodeuuid);
    xmit_msg(buf, msglen, so, STATS_AUX_PING);
    return 0;
}

/* Reads the node's record and the names of its VDisks. A node may well name no datastore. */
static int load_node(struct Node *node)
{
    if (NodeLoad(node) < 0)
        return -1;
    NodeLoad_DSMember(node->nodeuuid, node->dsuuid, sizeof(node->dsuuid));
    return NodeLoad_VDisks(node->nodeid, &node->vdisks);
}

/* Reads all VDisks of the node: one that cannot be read must not vanish from the list as if it had been dropped. */
static int load_vdisks(const char *op, struct Node *node)
{
    for (struct VDisk *vdisk = VDiskTree_RB_MINMAX(&node->vdisks, -1); vdisk; vdisk = VDiskTree_RB_NEXT(vdisk)) {
        if (load_node_vdisk(node, vdisk) < 0) {
            log_error_as(op, "PING from Node %s not sent due to VDisk %s error", node->nodeuuid, vdisk->vdiskuuid);
            return -1;
        }
    }
    return 0;
}

static void transmit_ping(const char *op, struct Node *node, char *buf, size_t buflen, int so)
{
    size_t msglen;
    if (build_vdisk_ping(node, buf, buflen, &msglen) < 0) {
        log_error_as(op, "Oversized PING from Node %s", node->nodeuuid);
        return;
    }
    log_info_as(op, "Send PING %zuB from Node %s", msglen, node->nodeuuid);
    xmit_msg(buf, msglen, so, STATS_PING);
}

static void ping_node(const char *op, struct Node *node, char *buf, size_t buflen, int so)
{
    node_clear(node);
    if (NodeLock(node->nodeid) < 0)
        return;
    int result = load_node(node);
    NodeUnlock(node->nodeid);
    if (result < 0)
        return;

    if (load_node_datastore(node) == 0) {
        if (node->dsuuid[0] == '\0' && node->vdisks.rbh_root)
            log_error_as(op, "Local node %s not part of any data store but references vdisks!?", node->nodeuuid);
        if (transmit_ds_ping(op, node, buf, buflen, so) < 0)
            return;
    }
    transmit_aux_ping(op, node, buf, buflen, so);
    if (load_vdisks(op, node) == 0)
        transmit_ping(op, node, buf, buflen, so);
}

void send_pings(char *buf, size_t buflen, int so)
{
    struct Node *node;
    TAILQ_FOREACH(node, local_nodes, entries)
        ping_node(__func__, node, buf, buflen, so);
}

static void heartbeat_node(const char *op, struct Node *node, char *buf, size_t buflen, int so)
{
    node_clear(node);
    if (NodeLock(node->nodeid) < 0)
        return;
    int result = NodeLoad(node);
    NodeUnlock(node->nodeid);
    size_t msglen;
    if (result < 0 || build_heartbeat(node, buf, buflen, &msglen) < 0)
        return;
    log_info_as(op, "Send HEARTBEAT %zuB from Node %s", msglen, node->nodeuuid);
    xmit_msg(buf, msglen, so, STATS_HEARTBEAT);
}

void send_heartbeats(char *buf, size_t buflen, int so)
{
    struct Node *node;
    TAILQ_FOREACH(node, local_nodes, entries)
        heartbeat_node(__func__, node, buf, buflen, so);
}
