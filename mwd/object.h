/*
 * The object store, as the controller uses it: the in-memory objects, the path locks, and the operations that carry
 * records between messages and the database tree. The tree is the truth; an object is a working image of a record.
 *
 * Every operation on a record runs under that record's path lock, which the caller holds unless its comment says
 * otherwise. Operations return 0 on success and a negative number on failure, log their own failures, and undo nothing:
 * what a failed one wrote stays, and running it again does no harm.
 */
#ifndef MWD_OBJECT_H
#define MWD_OBJECT_H

#include "mwd/netlib.h"

#include <bsd/sys/tree.h>
#include <sys/queue.h>

/* An IPv4 peer or multicast group. */
struct Host {
    char ipaddr[NAME_LEN]; /* dotted text */
    struct sockaddr_in sa; /* the same address, port cfg_bind_port */
    TAILQ_ENTRY(Host) entries;
};
TAILQ_HEAD(HostList, Host);

/* One member of a VDisk. */
struct Member {
    struct MemberEntry mbe;
    char uuid[NAME_LEN]; /* the node's number in decimal */
    TAILQ_ENTRY(Member) entries;
};
TAILQ_HEAD(MemberList, Member);

/* One frontend of a VDisk. */
struct Frontend {
    struct FrontendEntry fee;
    char ipaddr[NAME_LEN]; /* dotted text */
    TAILQ_ENTRY(Frontend) entries;
};
TAILQ_HEAD(FrontendList, Frontend);

/* One virtual disk as one node sees it. Owns its two lists. */
struct VDisk {
    struct VDiskEntry vde;
    char vdiskuuid[NAME_LEN];  /* key of VDiskTree */
    char parentuuid[NAME_LEN]; /* empty unless vde.snapshot is set */
    struct MemberList members;
    int members_count; /* set by VDiskLoad only, like frontends_count */
    struct FrontendList frontends;
    int frontends_count;
    RB_ENTRY(VDisk) entries;
};

/* VDisks in ascending bytewise order of vdiskuuid. Owns its elements. */
RB_HEAD(VDiskTree, VDisk);

/* One local node. Only nodeid, nodeuuid and entries last; the rest is scratch space of one publication. */
struct Node {
    struct Hdr hdr;
    struct DatastoreEntry dse;
    struct AuxPingData aux;
    char nodeuuid[NAME_LEN]; /* nodeid in decimal */
    char dsuuid[NAME_LEN];   /* empty when the node is in no datastore */
    unsigned int nodeid;
    TAILQ_ENTRY(Node) entries;
    struct VDiskTree vdisks;
};
TAILQ_HEAD(NodeList, Node);

/*
 * Each puts a fresh zeroed object with empty lists into *pp, the caller's to free. Returns 0; or -1 after an error
 * line, with *pp as it was.
 */
int HostAlloc(struct Host **hpp);
int MemberAlloc(struct Member **mbpp);
int FrontendAlloc(struct Frontend **fepp);
int VDiskAlloc(struct VDisk **vdiskpp);
int NodeAlloc(struct Node **npp);
int HostListAlloc(struct HostList **hlpp);
int NodeListAlloc(struct NodeList **nlpp);
int VDiskTreeAlloc(struct VDiskTree **vdtpp);

/* Free one object with all that it owns. It must be in no list and no tree. */
void HostFree(struct Host *hp);
void MemberFree(struct Member *mbp);
void FrontendFree(struct Frontend *fep);
void VDiskFree(struct VDisk *vdiskp);
void NodeFree(struct Node *np);

/* Free all elements; the head stays usable. */
void HostListFlush(struct HostList *hlp);
void MemberListFlush(struct MemberList *mblp);
void FrontendListFlush(struct FrontendList *felp);
void NodeListFlush(struct NodeList *nlp);
void VDiskTreeFlush(struct VDiskTree *vdtp);

/* Flush, then free the head. */
void HostListFree(struct HostList *hlp);
void NodeListFree(struct NodeList *nlp);
void VDiskTreeFree(struct VDiskTree *vdtp);

/* Takes the node's number from `mbe`, unless that is null, and prints the member's number into its uuid. */
void MemberInit(struct Member *member, const struct MemberEntry *mbe);

/*
 * Takes over the whole record `vde`, unless that is null, and derives vdiskuuid and, on a Snapshot, parentuuid from the
 * record in the VDisk. The names may come out unusable: see name_usable.
 */
void VDiskInit(struct VDisk *vdisk, const struct VDiskEntry *vde);

/* The first member whose node is `nodeid`, or null. */
struct Member *MemberLookup(struct MemberList *mblp, unsigned int nodeid);

/* The text of a wire field of UUID_WIDTH bytes: up to its first zero byte, terminated. */
void uuid_text(char (&text)[NAME_LEN], const char (&field)[UUID_WIDTH]);

/*
 * Whether a name from a message or a file may become a path component: not empty, not "." or "..", and without "/".
 * Nothing but this test stands between a datagram and the rest of the file system.
 */
bool name_usable(const char *name);

/* By vdiskuuid, as strcmp. */
int VDiskCompare(struct VDisk *vda, struct VDisk *vdb);

/* Returns null when `elm` went in; else the element with an equal key, and `elm` stays the caller's. */
struct VDisk *VDiskTree_RB_INSERT(struct VDiskTree *head, struct VDisk *elm);
/* Takes `elm` out and returns it. */
struct VDisk *VDiskTree_RB_REMOVE(struct VDiskTree *head, struct VDisk *elm);
/* The element with the key of `elm`, or null. */
struct VDisk *VDiskTree_RB_FIND(struct VDiskTree *head, struct VDisk *elm);
/* The element with the key of `elm`, else the smallest one above it, or null. */
struct VDisk *VDiskTree_RB_NFIND(struct VDiskTree *head, struct VDisk *elm);
/* The neighbours in order, or null at the ends. */
struct VDisk *VDiskTree_RB_NEXT(struct VDisk *elm);
struct VDisk *VDiskTree_RB_PREV(struct VDisk *elm);
/* The smallest element if `val` is below 0, else the largest; null on an empty tree. */
struct VDisk *VDiskTree_RB_MINMAX(struct VDiskTree *head, int val);

/*
 * Path locks: files under /tmp that keep this host's programs off one record at a time. Each lock waits while another
 * program holds the record, for less than twice the record's configured time-out. Returns 0 with the lock held; any
 * negative number means that it is not held and must not be unlocked. Locks are not re-entrant.
 */
int NodeLock(unsigned int nodeid);
void NodeUnlock(unsigned int nodeid);
int DatastoreLock(const struct DatastoreEntry *dse);
void DatastoreUnlock(const struct DatastoreEntry *dse);
int DatastoreLockStr(const char *dsuuid);
void DatastoreUnlockStr(const char *dsuuid);
int VDiskLock(const struct VDisk *vdisk);
void VDiskUnlock(const struct VDisk *vdisk);
/* The lock of the Snapshot's parent. */
int ParentLock(const struct VDisk *vdisk);
void ParentUnlock(const struct VDisk *vdisk);

/*
 * Creates or refreshes the record of node hdr->uid from the header, `ipaddr` (the datagram's source, dotted text) and
 * the clock. For every message but HEARTBEAT.
 */
int NodeCreate(const struct Hdr *hdr, const char *ipaddr);

/* Fills np->hdr and np->aux from the record of np->nodeid. On failure both may be filled in part. */
int NodeLoad(struct Node *np);

/*
 * Reads the name of the node's datastore into `dsuuid`, `ds_len` bytes. Returns 0 with a terminated text, which may be
 * empty. Returns -1 silently with `dsuuid` as it was if the node names none, and after an error line with `dsuuid`
 * empty or as it was if the name cannot be read or used.
 */
int NodeLoad_DSMember(const char *nodeuuid, char *dsuuid, size_t ds_len);

/* Stores the capacity figures of an AUX_PING. -1 without a line if the node has no record. */
int NodeUpdate_AuxPing(const struct Hdr *hdr, const struct AuxPingData *aux);

/* Stores the time of a HEARTBEAT. -1 without a line if the node has no record: a heartbeat makes none. */
int NodeUpdate_HEARTBEAT(const struct Hdr *hdr);

/* Names, or no longer names, the node's datastore in its record. */
int NodeUpdate_RefDatastore(const struct Hdr *hdr, const struct DatastoreEntry *dse);
int NodeUpdate_UnrefDatastore(const struct Hdr *hdr);

/*
 * Fills `vdtp`, empty before, with a VDisk for each VDisk linked to the node, with vdiskuuid alone set. On failure the
 * tree is empty: a listing is whole or not there. Under the node's lock.
 */
int NodeLoad_VDisks(unsigned int nodeid, struct VDiskTree *vdtp);

/* Creates or refreshes the datastore of `dse` and makes node hdr->uid a member of it. */
int DatastoreCreate(const struct Hdr *hdr, const struct DatastoreEntry *dse);

/* Fills `dse` from the record `dsuuid`. On failure it may be filled in part. */
int DatastoreLoad(const char *dsuuid, struct DatastoreEntry *dse);

/* Takes the node out of the datastore, and removes the datastore with its last member. */
int DatastoreUpdate_UnrefNode(const char *dsuuid, const char *nodeuuid);

/*
 * Applies the report `vdisk` of node hdr->uid: creates the VDisk, updates it, or rightly ignores the report. May take
 * node and datastore locks one at a time, and run the fence check. `vdisk` stays the caller's; its mshipgencnt is
 * rewritten for senders below version 1.8.
 */
int VDiskCreate(const struct Hdr *hdr, struct VDisk *vdisk);

/*
 * Fills `vdisk`, fresh but for its vdiskuuid, from the tree: with a loaded `node`, all that this node publishes; with
 * null, the VDisk's own attributes alone. After a failure it is good only for freeing.
 */
int VDiskLoad(const struct Node *node, struct VDisk *vdisk);

/*
 * Takes node hdr->uid out of the VDisk, loaded with a null node, and removes the VDisk with its last member. May take
 * the locks of the node, of the parent and of the datastore, one at a time.
 */
int VDiskGone(const struct Hdr *hdr, struct VDisk *vdisk);

/* Links the Snapshot in its parent; 0 too if the parent is not in the tree. Under the parent's lock, like the below. */
int ParentUpdate_RefSnapshot(struct VDisk *vdisk);
/* Removes that link; 0 too if there is none. */
int ParentUpdate_UnrefSnapshot(struct VDisk *vdisk);

#endif
