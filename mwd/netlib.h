/*
 * The wire: packed records, message types and their names, debug dumps; and the UDP socket. One message is one
 * datagram: a Hdr and what its type prescribes. Integers travel little-endian as the host holds them, apart from
 * VDiskEntry.name.mshipgencnt, which is big-endian. Text fields are not terminated when the text fills them and are
 * read with their width as the limit. Bytes that no field fills travel as 0.
 */
#ifndef MWD_NETLIB_H
#define MWD_NETLIB_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <type_traits>

static_assert(std::endian::native == std::endian::little, "records are copied to the wire as they stand");

/* Hdr.type of the messages that are built and understood. */
constexpr uint8_t MSG_PING = 4;
constexpr uint8_t MSG_DS_PING = 16;
constexpr uint8_t MSG_HEARTBEAT = 32;
constexpr uint8_t MSG_SINGLE_VDISK_PING = 33;
constexpr uint8_t MSG_VDISK_DELETED = 34;
constexpr uint8_t MSG_AUX_PING = 35;

/* Hdr.nodestatus of a node whose Hdr.size holds an address. */
constexpr uint8_t NODESTATUS_BACKUP = 1;

/* Widths of the text fields that name a record, and the terminated text made from them. */
constexpr size_t UUID_WIDTH = 14;
constexpr size_t NAME_LEN = 16;

/* Sizes of whole messages and offsets in them. */
constexpr size_t MSG_LEN_MAX = 65536;   /* the one message buffer */
constexpr size_t AUX_PING_OFFSET = 208; /* one byte of 0 lies between header and block */

struct [[gnu::packed]] Hdr {
    uint8_t major; /* version of the sending node */
    uint8_t minor;
    uint8_t type;
    uint8_t nodestatus;
    uint32_t uid; /* number of the sending node */
    char vendor[32];
    char model[32];
    struct [[gnu::packed]] {
        uint32_t freespace;
        uint32_t utilization;
        char rev[24];
    } revision;
    char serial[64];
    char hbtl[32];
    uint32_t size; /* an IPv4 address in host order with NODESTATUS_BACKUP, else the node's size */
    uint8_t performance;
    uint16_t hostid;
};

struct [[gnu::packed]] AuxPingData {
    uint32_t length; /* always 28, never read */
    uint32_t allocatedspace;
    uint32_t curvdisks;
    uint32_t curvdisksforctrl;
    uint32_t maxvdisksforctrl;
    uint32_t memtotal;
    uint32_t memavail;
};

struct [[gnu::packed]] DatastoreEntry {
    char uuid[UUID_WIDTH];
    char name[32];
    char description[32];
    uint32_t sector_size;
    uint16_t replicas;
    uint16_t stripes;
    uint8_t overcommit;
};

struct [[gnu::packed]] VDiskEntry {
    uint32_t transaction_id;
    char uuid[UUID_WIDTH];
    struct [[gnu::packed]] {
        char old_mshipgencnt[2]; /* two decimal digits; what counts from senders below 1.8 */
        char name[28];
        uint16_t mshipgencnt; /* big-endian; what counts from version 1.8 on */
    } name;
    uint32_t sector_size;
    uint64_t numkeys;
    uint64_t sectors;
    uint64_t seqno;
    union {
        char descr[32]; /* snapshot is 0 */
        struct [[gnu::packed]] {
            uint8_t y;
            uint8_t m;
            uint16_t d;
            uint8_t H;
            uint8_t M;
            uint8_t S;
            char parent[UUID_WIDTH];
            char unused[11];
        } snap; /* snapshot is not 0 */
    } description;
    uint8_t status;
    uint16_t port;
    uint16_t replicas;
    uint8_t st_mem;
    uint8_t st_mems;
    uint16_t st_size;
    uint16_t snapshot;
    uint16_t members;   /* MemberEntry records behind this entry */
    uint16_t frontends; /* FrontendEntry records behind those */
};

struct [[gnu::packed]] VDiskDeleteEntry {
    uint32_t node;
    char uuid[UUID_WIDTH];
};

struct [[gnu::packed]] MemberEntry {
    uint32_t node;
};

struct [[gnu::packed]] FrontendEntry {
    uint32_t node; /* an IPv4 address in host order, in spite of the name */
};

constexpr size_t AUX_PING_LEN = AUX_PING_OFFSET + sizeof(AuxPingData);
constexpr size_t DS_PING_LEN = sizeof(Hdr) + sizeof(DatastoreEntry);
constexpr size_t VDISK_DELETED_LEN = sizeof(Hdr) + sizeof(VDiskDeleteEntry);

#define NETLIB_ASSERT_RECORD(record, size)                                                                             \
    static_assert(sizeof(record) == (size) && alignof(record) == 1 && std::is_trivially_copyable_v<record>)
#define NETLIB_ASSERT_FIELD(record, field, offset) static_assert(offsetof(record, field) == (offset))

NETLIB_ASSERT_RECORD(Hdr, 207);
NETLIB_ASSERT_FIELD(Hdr, major, 0);
NETLIB_ASSERT_FIELD(Hdr, minor, 1);
NETLIB_ASSERT_FIELD(Hdr, type, 2);
NETLIB_ASSERT_FIELD(Hdr, nodestatus, 3);
NETLIB_ASSERT_FIELD(Hdr, uid, 4);
NETLIB_ASSERT_FIELD(Hdr, vendor, 8);
NETLIB_ASSERT_FIELD(Hdr, model, 40);
NETLIB_ASSERT_FIELD(Hdr, revision.freespace, 72);
NETLIB_ASSERT_FIELD(Hdr, revision.utilization, 76);
NETLIB_ASSERT_FIELD(Hdr, revision.rev, 80);
NETLIB_ASSERT_FIELD(Hdr, serial, 104);
NETLIB_ASSERT_FIELD(Hdr, hbtl, 168);
NETLIB_ASSERT_FIELD(Hdr, size, 200);
NETLIB_ASSERT_FIELD(Hdr, performance, 204);
NETLIB_ASSERT_FIELD(Hdr, hostid, 205);

NETLIB_ASSERT_RECORD(AuxPingData, 28);
NETLIB_ASSERT_FIELD(AuxPingData, length, 0);
NETLIB_ASSERT_FIELD(AuxPingData, allocatedspace, 4);
NETLIB_ASSERT_FIELD(AuxPingData, curvdisks, 8);
NETLIB_ASSERT_FIELD(AuxPingData, curvdisksforctrl, 12);
NETLIB_ASSERT_FIELD(AuxPingData, maxvdisksforctrl, 16);
NETLIB_ASSERT_FIELD(AuxPingData, memtotal, 20);
NETLIB_ASSERT_FIELD(AuxPingData, memavail, 24);

NETLIB_ASSERT_RECORD(DatastoreEntry, 87);
NETLIB_ASSERT_FIELD(DatastoreEntry, uuid, 0);
NETLIB_ASSERT_FIELD(DatastoreEntry, name, 14);
NETLIB_ASSERT_FIELD(DatastoreEntry, description, 46);
NETLIB_ASSERT_FIELD(DatastoreEntry, sector_size, 78);
NETLIB_ASSERT_FIELD(DatastoreEntry, replicas, 82);
NETLIB_ASSERT_FIELD(DatastoreEntry, stripes, 84);
NETLIB_ASSERT_FIELD(DatastoreEntry, overcommit, 86);

NETLIB_ASSERT_RECORD(VDiskEntry, 125);
NETLIB_ASSERT_FIELD(VDiskEntry, transaction_id, 0);
NETLIB_ASSERT_FIELD(VDiskEntry, uuid, 4);
NETLIB_ASSERT_FIELD(VDiskEntry, name.old_mshipgencnt, 18);
NETLIB_ASSERT_FIELD(VDiskEntry, name.name, 20);
NETLIB_ASSERT_FIELD(VDiskEntry, name.mshipgencnt, 48);
NETLIB_ASSERT_FIELD(VDiskEntry, sector_size, 50);
NETLIB_ASSERT_FIELD(VDiskEntry, numkeys, 54);
NETLIB_ASSERT_FIELD(VDiskEntry, sectors, 62);
NETLIB_ASSERT_FIELD(VDiskEntry, seqno, 70);
NETLIB_ASSERT_FIELD(VDiskEntry, description.descr, 78);
NETLIB_ASSERT_FIELD(VDiskEntry, description.snap.y, 78);
NETLIB_ASSERT_FIELD(VDiskEntry, description.snap.m, 79);
NETLIB_ASSERT_FIELD(VDiskEntry, description.snap.d, 80);
NETLIB_ASSERT_FIELD(VDiskEntry, description.snap.H, 82);
NETLIB_ASSERT_FIELD(VDiskEntry, description.snap.M, 83);
NETLIB_ASSERT_FIELD(VDiskEntry, description.snap.S, 84);
NETLIB_ASSERT_FIELD(VDiskEntry, description.snap.parent, 85);
NETLIB_ASSERT_FIELD(VDiskEntry, description.snap.unused, 99);
NETLIB_ASSERT_FIELD(VDiskEntry, status, 110);
NETLIB_ASSERT_FIELD(VDiskEntry, port, 111);
NETLIB_ASSERT_FIELD(VDiskEntry, replicas, 113);
NETLIB_ASSERT_FIELD(VDiskEntry, st_mem, 115);
NETLIB_ASSERT_FIELD(VDiskEntry, st_mems, 116);
NETLIB_ASSERT_FIELD(VDiskEntry, st_size, 117);
NETLIB_ASSERT_FIELD(VDiskEntry, snapshot, 119);
NETLIB_ASSERT_FIELD(VDiskEntry, members, 121);
NETLIB_ASSERT_FIELD(VDiskEntry, frontends, 123);

NETLIB_ASSERT_RECORD(VDiskDeleteEntry, 18);
NETLIB_ASSERT_FIELD(VDiskDeleteEntry, node, 0);
NETLIB_ASSERT_FIELD(VDiskDeleteEntry, uuid, 4);
NETLIB_ASSERT_RECORD(MemberEntry, 4);
NETLIB_ASSERT_FIELD(MemberEntry, node, 0);
NETLIB_ASSERT_RECORD(FrontendEntry, 4);
NETLIB_ASSERT_FIELD(FrontendEntry, node, 0);

/* The name of the header's type; "UNKNOWN" for every number from 35 on. */
const char *msg_type(const struct Hdr *hdr);

/* Each logs a record field by field at debug level, and does nothing when debug lines are masked. */
void hdr_dump(const struct Hdr *hdr);
void vde_dump(const struct VDiskEntry *vde);
void dse_dump(const struct DatastoreEntry *dse);
void mbe_dump(const struct MemberEntry *mbe);
void fee_dump(const struct FrontendEntry *fee);

/*
 * A UDP socket bound to `bind_addr`, of family AF_INET: blocking, with the platform's buffer sizes, which it logs.
 * Returns the socket, the caller's to close, or -1 after an error line.
 */
int open_socket(const struct sockaddr_in *bind_addr);

/* Puts the IPv4 address of the network interface into *if_addr. Returns 0, or -1 after an error line. */
int get_interface_addr(const char *interface, struct sockaddr_in *if_addr);

/* Has `so` send multicast from the interface of `if_addr`, unheard by this host. 0, or -1 after an error line. */
int set_mcast_socket(int so, const struct sockaddr_in *if_addr);

/* Joins the group `mcast_addr`, dotted text, on the interface of `if_addr`. Returns 0, or -1 after an error line. */
int add_mcast_membership(int so, const char *mcast_addr, const struct sockaddr_in *if_addr);

#endif
