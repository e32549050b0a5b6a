/* What the sources of the controller share. */
#ifndef MWD_CONTROLLER_INTERNAL_H
#define MWD_CONTROLLER_INTERNAL_H

#include "mwd/object.h"

#include <sys/select.h>
#include <sys/types.h>

/* Message kinds, as the counters number them. RX counts datagrams, TX counts hosts that a message went to. */
enum {
    STATS_ALL,
    STATS_PING,
    STATS_DS_PING,
    STATS_AUX_PING,
    STATS_SV_PING,
    STATS_VDISK_DEL,
    STATS_HEARTBEAT,
    STATS_TX_KINDS,
    STATS_UNKNOWN = STATS_TX_KINDS, /* received only */
    STATS_RX_KINDS
};

/* Adds one to both counters of a kind: from the start of the process, and from the last statistics lines. */
void count_rx(int idx);
void count_tx(int idx);
/* Logs all counters in two lines, and begins anew with those from the last lines. */
void stats();

/* The tables: never null between set-up and teardown, empty at first. */
extern struct NodeList *local_nodes;      /* this host's nodes, which it publishes */
extern struct HostList *unicast_hosts;    /* destinations in unicast mode */
extern struct HostList *multicast_groups; /* destinations in multicast mode */

/* Fills multicast_groups from cfg_multicast_address. Returns 0, an empty table included, or -1. */
int parse_mcast_groups();
/* Joins every group on the interface of `if_addr`. Returns 0, or -1 at the first that fails. */
int join_mcast_groups(int so, const struct sockaddr_in *if_addr);
/* Read a table file anew. A file with any fault is logged and leaves the whole old table in force. */
void load_local_nodes();
void load_unicast_hosts();
/* Log the table in force. */
void dump_local_nodes();
void dump_unicast_hosts();

/*
 * Building messages. Each clears all `buflen` bytes of `buf`, needs the node to be loaded and returns 0 with the length
 * in *msglen, or -1 if the message does not fit.
 */
int build_ds_ping(struct Node *node, char *buf, size_t buflen, size_t *msglen);
int build_aux_ping(struct Node *node, char *buf, size_t buflen, size_t *msglen);
int build_vdisk_ping(struct Node *node, char *buf, size_t buflen, size_t *msglen);
int build_heartbeat(struct Node *node, char *buf, size_t buflen, size_t *msglen);
int build_single_vdisk_ping(struct Node *node, struct VDisk *vdisk, char *buf, size_t buflen, size_t *msglen);
int build_vdisk_deleted(struct Node *node, const char *vdiskuuid, char *buf, size_t buflen, size_t *msglen);

/*
 * Sends a message to every destination and counts those that took it, under `idx`. Returns 0 if all did, or -1; a
 * failure at one does not keep it from the others.
 */
int xmit_msg(const char *buf, size_t msglen, int so, int idx);

/* Publications of all local nodes, each read afresh from the tree. */
void send_pings(char *buf, size_t buflen, int so);
void send_heartbeats(char *buf, size_t buflen, int so);

/*
 * Steps that publications share, logged as `op`. node_clear leaves only what the table says of the node.
 * load_node_datastore and load_node_vdisk take the lock and return 0 or -1; a node without a datastore loads. The
 * transmit functions build one message and send it; -1 if it does not fit.
 */
void node_clear(struct Node *node);
int load_node_datastore(struct Node *node);
int load_node_vdisk(struct Node *node, struct VDisk *vdisk);
int transmit_ds_ping(const char *op, struct Node *node, char *buf, size_t buflen, int so);
int transmit_aux_ping(const char *op, struct Node *node, char *buf, size_t buflen, int so);

/*
 * Handlers of received messages: `hdr` is the start of a datagram of `r` bytes, at least a whole Hdr, and `ipaddr` its
 * source. Nothing is answered, and a failure ends the handling of this one datagram.
 */
void dispatch_datagram(const struct Hdr *hdr, size_t r, const char *ipaddr);
void handle_ping(const struct Hdr *hdr, size_t r, const char *ipaddr);
void handle_single_vdisk_ping(const struct Hdr *hdr, size_t r, const char *ipaddr);
void handle_vdisk_deleted(const struct Hdr *hdr, size_t r, const char *ipaddr);
/* Creates or refreshes the sender's record under its lock. Returns 0, or -1 to end the handling. */
int refresh_node(const struct Hdr *hdr, const char *ipaddr);

/* One open control connection. */
struct CtrlConn {
    TAILQ_ENTRY(CtrlConn) entries;
    int so; /* -1 until accepted */
    int port;
    char addr[NAME_LEN];
    char buf[1024]; /* what the last read delivered, terminated */
};
TAILQ_HEAD(CtrlConnList, CtrlConn);

/* The largest control descriptor plus one: select can hold it, and the tree keeps descriptors of its own. */
extern int ctrl_fd_limit;

/* A zeroed connection with no socket. Returns 0 or -1. */
int CtrlConnAlloc(struct CtrlConn **ccpp);
/* Closes the connection, with a notice, and frees it. It must be in no list. */
void CtrlConnFree(struct CtrlConn *ccp);
void CtrlConnListFlush(struct CtrlConnList *cclp);

/* Accepts one connection and appends it. Returns 1 if there is a new one, else 0. */
int accept_ctrl_conn(int ctrlso, struct CtrlConnList *cclp);
/* Reads one command from every connection in `rfds`. Returns 1 if any connection was closed, else 0. */
int serve_ctrl_conns(struct CtrlConnList *cclp, const fd_set *rfds, char *buf, size_t buflen, int so);
/* Runs the command in ccp->buf. Returns -1 for a line that it cannot parse, else 0. */
int handle_ctrl_cmd(struct CtrlConn *ccp, char *buf, size_t buflen, int so);

/* Publications on demand; silent if the node is not a local one or the VDisk not linked to it. */
void send_single_vdisk_ping(const char *nodeuuid, const char *vdiskuuid, char *buf, size_t buflen, int so);
void send_ds_ping(const char *nodeuuid, char *buf, size_t buflen, int so);
void send_vdisk_deleted(const char *nodeuuid, const char *vdiskuuid, char *buf, size_t buflen, int so);

#endif
