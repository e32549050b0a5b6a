/* The control channel: programs of this host ask for a publication at once. Nothing is ever written back. */
#include "mwd/controller_internal.h"

#include "mwd/io.h"
#include "mwd/syslog.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <unistd.h>

int ctrl_fd_limit = FD_SETSIZE;

int CtrlConnAlloc(struct CtrlConn **ccpp)
{
    auto *ccp = static_cast<struct CtrlConn *>(calloc(1, sizeof(struct CtrlConn)));
    if (!ccp) {
        log_error("calloc(1, %zu): %s", sizeof(struct CtrlConn), strerror(errno));
        return -1;
    }
    ccp->so = -1;
    *ccpp = ccp;
    return 0;
}

void CtrlConnFree(struct CtrlConn *ccp)
{
    if (ccp->so >= 0) {
        log_notice("Closing CTRL connection from %s:%d", ccp->addr, ccp->port);
        fd_close(ccp->so);
    }
    free(ccp);
}

void CtrlConnListFlush(struct CtrlConnList *cclp)
{
    while (struct CtrlConn *ccp = TAILQ_FIRST(cclp)) {
        TAILQ_REMOVE(cclp, ccp, entries);
        CtrlConnFree(ccp);
    }
}

/* Accepts into `ccp` what select can hold. Returns 0 or -1; the connection is the caller's to free either way. */
static int accept_into(const char *op, struct CtrlConn *ccp, int ctrlso)
{
    ccp->so = tcp_accept(ctrlso, ccp->addr, &ccp->port);
    if (ccp->so < 0)
        return -1;
    if (ccp->so >= ctrl_fd_limit) {
        log_error_as(op, "Too many CTRL connections: descriptor %d of %s:%d not below %d", ccp->so, ccp->addr,
                     ccp->port, ctrl_fd_limit);
        return -1;
    }
    return fd_blocking(ccp->so, 0);
}

int accept_ctrl_conn(int ctrlso, struct CtrlConnList *cclp)
{
    struct CtrlConn *ccp = nullptr;
    if (CtrlConnAlloc(&ccp) < 0)
        return 0;
    if (accept_into(__func__, ccp, ctrlso) < 0) {
        CtrlConnFree(ccp);
        return 0;
    }
    TAILQ_INSERT_TAIL(cclp, ccp, entries);
    log_notice("Accepted CTRL connection from %s:%d", ccp->addr, ccp->port);
    return 1;
}

/* Reads and runs one command. Returns 0, or -1 if the connection has come to its end. */
static int serve_ctrl_conn(struct CtrlConn *ccp, char *buf, size_t buflen, int so)
{
    ssize_t n;
    do {
        n = read(ccp->so, ccp->buf, sizeof(ccp->buf) - 1);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        log_error("read(%s:%d): %s", ccp->addr, ccp->port, strerror(errno));
        return -1;
    }
    if (n == 0) {
        log_notice("EOF from CTRL client %s:%d", ccp->addr, ccp->port);
        return -1;
    }
    ccp->buf[n] = '\0';
    handle_ctrl_cmd(ccp, buf, buflen, so);
    return 0;
}

int serve_ctrl_conns(struct CtrlConnList *cclp, const fd_set *rfds, char *buf, size_t buflen, int so)
{
    int closed = 0;
    struct CtrlConn *next;
    for (struct CtrlConn *ccp = TAILQ_FIRST(cclp); ccp; ccp = next) {
        next = TAILQ_NEXT(ccp, entries);
        if (!FD_ISSET(ccp->so, rfds) || serve_ctrl_conn(ccp, buf, buflen, so) == 0)
            continue;
        TAILQ_REMOVE(cclp, ccp, entries);
        CtrlConnFree(ccp);
        closed = 1;
    }
    return closed;
}

static bool begins_with(const char *line, const char *command)
{
    return strncasecmp(line, command, strlen(command)) == 0;
}

/* What stands behind the first single blank of `text`, cutting `text` there; null if it has none. */
static char *cut_argument(char *text)
{
    char *blank = strchr(text, ' ');
    if (!blank)
        return nullptr;
    *blank = '\0';
    return blank + 1;
}

/* Cuts both arguments of `command` off the line. Returns 0, or -1 after an error line. */
static int cut_node_and_vdisk(const char *op, const char *command, char *line, char **nodeuuid, char **vdiskuuid)
{
    *nodeuuid = cut_argument(line);
    if (!*nodeuuid) {
        log_error_as(op, "Missing Node UUID for CTRL %s", command);
        return -1;
    }
    *vdiskuuid = cut_argument(*nodeuuid);
    if (!*vdiskuuid) {
        log_error_as(op, "Missing VDisk UUID for CTRL %s", command);
        return -1;
    }
    return 0;
}

int handle_ctrl_cmd(struct CtrlConn *ccp, char *buf, size_t buflen, int so)
{
    char *line = ccp->buf;
    char *end = strchr(line, '\n');
    if (!end) {
        log_error("Malformed CTRL MSG %s", line);
        return -1;
    }
    if (end > line && end[-1] == '\r')
        end--;
    *end = '\0';

    char *nodeuuid, *vdiskuuid;
    if (begins_with(line, "single_vdisk_ping")) {
        if (cut_node_and_vdisk(__func__, "single_vdisk_ping", line, &nodeuuid, &vdiskuuid) < 0)
            return -1;
        log_notice("MSG from CTRL client %s:%d: SINGLE_VDISK_PING Node=%s VDisk=%s", ccp->addr, ccp->port, nodeuuid,
                   vdiskuuid);
        send_single_vdisk_ping(nodeuuid, vdiskuuid, buf, buflen, so);
    } else if (begins_with(line, "ds_ping")) {
        nodeuuid = cut_argument(line);
        if (!nodeuuid) {
            log_error("Missing Node UUID for CTRL ds_ping");
            return -1;
        }
        log_notice("MSG from CTRL client %s:%d: DS_PING Node=%s", ccp->addr, ccp->port, nodeuuid);
        send_ds_ping(nodeuuid, buf, buflen, so);
    } else if (begins_with(line, "vdisk_deleted")) {
        if (cut_node_and_vdisk(__func__, "vdisk_deleted", line, &nodeuuid, &vdiskuuid) < 0)
            return -1;
        log_notice("MSG from CTRL client %s:%d: VDISK_DELETED Node=%s VDisk=%s", ccp->addr, ccp->port, nodeuuid,
                   vdiskuuid);
        send_vdisk_deleted(nodeuuid, vdiskuuid, buf, buflen, so);
    } else {
        log_notice("MSG (ignored) from CTRL client %s:%d: %s", ccp->addr, ccp->port, line);
    }
    return 0;
}

/* The local node of that name, cleared for a publication; null if this host has none. */
static struct Node *take_local_node(const char *nodeuuid)
{
    struct Node *node;
    TAILQ_FOREACH(node, local_nodes, entries) {
        if (strcmp(node->nodeuuid, nodeuuid) == 0) {
            node_clear(node);
            return node;
        }
    }
    return nullptr;
}

/* All that a SINGLE_VDISK_PING needs of the node: one without a datastore publishes no VDisk on demand. */
static int load_member_node(struct Node *node)
{
    if (NodeLoad(node) < 0 || NodeLoad_DSMember(node->nodeuuid, node->dsuuid, sizeof(node->dsuuid)) < 0)
        return -1;
    return NodeLoad_VDisks(node->nodeid, &node->vdisks);
}

static struct VDisk *find_vdisk(struct Node *node, const char *vdiskuuid)
{
    struct VDisk *vdisk = VDiskTree_RB_MINMAX(&node->vdisks, -1);
    while (vdisk && strcmp(vdisk->vdiskuuid, vdiskuuid) != 0)
        vdisk = VDiskTree_RB_NEXT(vdisk);
    return vdisk;
}

void send_single_vdisk_ping(const char *nodeuuid, const char *vdiskuuid, char *buf, size_t buflen, int so)
{
    struct Node *node = take_local_node(nodeuuid);
    if (!node || NodeLock(node->nodeid) < 0)
        return;
    int result = load_member_node(node);
    NodeUnlock(node->nodeid);
    if (result < 0)
        return;
    struct VDisk *vdisk = find_vdisk(node, vdiskuuid);
    if (!vdisk || load_node_vdisk(node, vdisk) < 0)
        return;

    size_t msglen;
    if (build_single_vdisk_ping(node, vdisk, buf, buflen, &msglen) < 0) {
        log_error("Oversized SINGLE_VDISK_PING from Node %s VDisk %s", node->nodeuuid, vdisk->vdiskuuid);
        return;
    }
    log_info("Send SINGLE_VDISK_PING %zuB from Node %s VDisk %s", msglen, node->nodeuuid, vdisk->vdiskuuid);
    xmit_msg(buf, msglen, so, STATS_SV_PING);
    transmit_aux_ping(__func__, node, buf, buflen, so);
}

/* Reads the node's record and the name of its datastore, if it has one. */
static int load_node_header(struct Node *node)
{
    if (NodeLoad(node) < 0)
        return -1;
    NodeLoad_DSMember(node->nodeuuid, node->dsuuid, sizeof(node->dsuuid));
    return 0;
}

void send_ds_ping(const char *nodeuuid, char *buf, size_t buflen, int so)
{
    struct Node *node = take_local_node(nodeuuid);
    if (!node || NodeLock(node->nodeid) < 0)
        return;
    int result = load_node_header(node);
    NodeUnlock(node->nodeid);
    if (result < 0 || load_node_datastore(node) < 0)
        return;
    transmit_ds_ping(__func__, node, buf, buflen, so);
}

/* Only announces: the host's own tree is the business of whoever gave the command. */
void send_vdisk_deleted(const char *nodeuuid, const char *vdiskuuid, char *buf, size_t buflen, int so)
{
    struct Node *node = take_local_node(nodeuuid);
    if (!node || NodeLock(node->nodeid) < 0)
        return;
    int result = NodeLoad(node);
    NodeUnlock(node->nodeid);
    if (result < 0)
        return;

    size_t msglen;
    if (build_vdisk_deleted(node, vdiskuuid, buf, buflen, &msglen) < 0) {
        log_error("Oversized VDISK_DELETED from Node %s VDisk %s", node->nodeuuid, vdiskuuid);
        return;
    }
    log_info("Send VDISK_DELETED %zuB from Node %s VDisk %s", msglen, node->nodeuuid, vdiskuuid);
    xmit_msg(buf, msglen, so, STATS_VDISK_DEL);
    transmit_aux_ping(__func__, node, buf, buflen, so);
}
