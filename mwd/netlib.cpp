#include "mwd/netlib.h"

#include "mwd/io.h"
#include "mwd/syslog.h"

#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

/* Precision and text of a field for "%.*s": it is read up to its width. */
#define FIELD(field) static_cast<int>(sizeof(field)), (field)

static const char *const Msg_Types[] = {
    "READ_REQ",
    "WRITE_REQ",
    "READ_RSP",
    "WRITE_RSP",
    "PING",
    "INFO_REQ",
    "INFO_RSP",
    "HASH_BROADCAST",
    "CREATE_REQ",
    "ACTIVATE_REQ",
    "DEACTIVATE_REQ",
    "DELETE_REQ",
    "SNAPSHOT_REQ",
    "SESSION_PING",
    "ACTIVATE_HEAD_REQ",
    "DEACTIVATE_HEAD_REQ",
    "DS_PING",
    "DSCREATE_REQ",
    "DSDELETE_REQ",
    "UPDATE_REQ",
    "START_VDISK_TXN_REQ",
    "END_VDISK_TXN_REQ",
    "FAIL_VDISK_TXN_REQ",
    "GET_VDISK_INFO_REQ",
    "ENABLE_VDISK_SYNC_MASTER",
    "ENABLE_VDISK_SYNC_SLAVE",
    "DISABLE_VDISK_SYNC",
    "PAUSE_VDISK_HEAD_REQ",
    "UNPAUSE_VDISK_HEAD_REQ",
    "SET_SEQNO",
    "SET_NODEMEMS",
    "SET_VDISK_SIZE",
    "HEARTBEAT",
    "SINGLE_VDISK_PING",
    "VDISK_DELETED",
    "UNKNOWN", /* AUX_PING has no name of its own */
};
static constexpr size_t MSG_TYPES = sizeof(Msg_Types) / sizeof(Msg_Types[0]);
static_assert(MSG_TYPES == 36);

const char *msg_type(const struct Hdr *hdr)
{
    return Msg_Types[hdr->type < MSG_TYPES ? hdr->type : MSG_TYPES - 1];
}

void hdr_dump(const struct Hdr *hdr)
{
    if (!log_debug_enabled())
        return;
    log_debug("major=%u", hdr->major);
    log_debug("minor=%u", hdr->minor);
    log_debug("type=%u [%s]", hdr->type, msg_type(hdr));
    log_debug("nodestatus=%u", hdr->nodestatus);
    log_debug("uid=%u", hdr->uid);
    log_debug("vendor=%.*s", FIELD(hdr->vendor));
    log_debug("model=%.*s", FIELD(hdr->model));
    log_debug("revision.freespace=%u", hdr->revision.freespace);
    log_debug("revision.utilization=%u", hdr->revision.utilization);
    log_debug("revision.rev=%.*s", FIELD(hdr->revision.rev));
    log_debug("serial=%.*s", FIELD(hdr->serial));
    log_debug("hbtl=%.*s", FIELD(hdr->hbtl));
    log_debug("size=%u", hdr->size);
    log_debug("performance=%u", hdr->performance);
    log_debug("hostid=%u", hdr->hostid);
}

static unsigned long long ull(uint64_t number)
{
    return number;
}

void vde_dump(const struct VDiskEntry *vde)
{
    if (!log_debug_enabled())
        return;
    log_debug("transaction_id=%u", vde->transaction_id);
    log_debug("uuid=%.*s", FIELD(vde->uuid));
    log_debug("membership_gen_count=%u", ntohs(vde->name.mshipgencnt));
    log_debug("name=%.*s", FIELD(vde->name.name));
    log_debug("sector_size=%u", vde->sector_size);
    log_debug("numkeys=%llu", ull(vde->numkeys));
    log_debug("sectors=%llu", ull(vde->sectors));
    log_debug("seqno=%llu", ull(vde->seqno));
    log_debug("snapshot=%u", vde->snapshot);
    if (vde->snapshot != 0) {
        const auto &snap = vde->description.snap;
        log_debug("parent=%.*s", FIELD(snap.parent));
        log_debug("snaptime=%02d-%02d-%02d_%02d.%02d.%02d", snap.y, snap.m, snap.d, snap.H, snap.M, snap.S);
    } else {
        log_debug("description=%.*s", FIELD(vde->description.descr));
    }
    log_debug("status=%u", vde->status);
    log_debug("port=%u", vde->port);
    log_debug("replicas=%u", vde->replicas);
    log_debug("st_mem=%u", vde->st_mem);
    log_debug("st_mems=%u", vde->st_mems);
    log_debug("st_size=%u", vde->st_size);
    log_debug("members=%u", vde->members);
    log_debug("frontends=%u", vde->frontends);
}

void dse_dump(const struct DatastoreEntry *dse)
{
    if (!log_debug_enabled())
        return;
    log_debug("uuid=%.*s", FIELD(dse->uuid));
    log_debug("name=%.*s", FIELD(dse->name));
    log_debug("description=%.*s", FIELD(dse->description));
    log_debug("sector_size=%d", static_cast<int32_t>(dse->sector_size));
    log_debug("replicas=%u", dse->replicas);
    log_debug("stripes=%u", dse->stripes);
    log_debug("overcommit=%u", dse->overcommit);
}

void mbe_dump(const struct MemberEntry *mbe)
{
    log_debug("node=%u", mbe->node);
}

void fee_dump(const struct FrontendEntry *fee)
{
    if (!log_debug_enabled())
        return;
    uint32_t ip = htonl(fee->node);
    char text[INET_ADDRSTRLEN];
    if (!inet_ntop(AF_INET, &ip, text, sizeof(text))) {
        log_error("inet_ntop(): %s", strerror(errno));
        return;
    }
    log_debug("node=%s", text);
}

/* The size of one of the socket's buffers, -1 if it cannot be had: it serves the log alone. */
static int buffer_size(const char *op, int so, int option, const char *option_name)
{
    int size = -1;
    socklen_t len = sizeof(size);
    if (getsockopt(so, SOL_SOCKET, option, &size, &len) < 0) {
        log_error_as(op, "getsockopt(%s): %s", option_name, strerror(errno));
        return -1;
    }
    return size;
}

/* Binds the fresh socket `so`. Returns 0 or -1; the caller closes the socket. */
static int bind_udp(const char *op, int so, const struct sockaddr_in *bind_addr)
{
    int on = 1;
    if (setsockopt(so, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
        log_error_as(op, "setsockopt(SO_REUSEADDR): %s", strerror(errno));
        return -1;
    }
    int rcvbuf = buffer_size(op, so, SO_RCVBUF, "SO_RCVBUF");
    int sndbuf = buffer_size(op, so, SO_SNDBUF, "SO_SNDBUF");

    assert(bind_addr->sin_family == AF_INET);
    char text[INET_ADDRSTRLEN];
    if (!inet_ntop(AF_INET, &bind_addr->sin_addr, text, sizeof(text))) {
        log_error_as(op, "inet_ntop(): %s", strerror(errno));
        return -1;
    }
    int port = ntohs(bind_addr->sin_port);
    if (bind(so, reinterpret_cast<const struct sockaddr *>(bind_addr), sizeof(*bind_addr)) < 0) {
        log_error_as(op, "bind(%s:%d): %s", text, port, strerror(errno));
        return -1;
    }
    log_notice_as(op, "BIND UDP %s:%d RCVBUF=%d SNDBUF=%d", text, port, rcvbuf, sndbuf);
    return 0;
}

int open_socket(const struct sockaddr_in *bind_addr)
{
    int so = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (so < 0) {
        log_error("socket(): %s", strerror(errno));
        return -1;
    }
    if (bind_udp(__func__, so, bind_addr) < 0) {
        fd_close(so);
        return -1;
    }
    return so;
}

int get_interface_addr(const char *interface, struct sockaddr_in *if_addr)
{
    FdGuard so(socket(AF_INET, SOCK_DGRAM, 0));
    if (so.fd < 0) {
        log_error("socket(): %s", strerror(errno));
        return -1;
    }
    struct ifreq request = {};
    request.ifr_addr.sa_family = AF_INET;
    memcpy(request.ifr_name, interface, strnlen(interface, sizeof(request.ifr_name) - 1));
    if (ioctl(so.fd, SIOCGIFADDR, &request) < 0) {
        log_error("ioctl(SIOCGIFADDR): %s", strerror(errno));
        return -1;
    }
    memcpy(if_addr, &request.ifr_addr, sizeof(*if_addr));
    return 0;
}

int set_mcast_socket(int so, const struct sockaddr_in *if_addr)
{
    unsigned char loop = 0;
    if (setsockopt(so, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof(loop)) < 0) {
        log_error("setsockopt(IP_MULTICAST_LOOP): %s", strerror(errno));
        return -1;
    }
    if (setsockopt(so, IPPROTO_IP, IP_MULTICAST_IF, &if_addr->sin_addr, sizeof(if_addr->sin_addr)) < 0) {
        log_error("setsockopt(IP_MULTICAST_IF): %s", strerror(errno));
        return -1;
    }
    return 0;
}

int add_mcast_membership(int so, const char *mcast_addr, const struct sockaddr_in *if_addr)
{
    struct ip_mreq request = {};
    request.imr_multiaddr.s_addr = inet_addr(mcast_addr);
    request.imr_interface = if_addr->sin_addr;
    if (setsockopt(so, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) < 0) {
        log_error("setsockopt(IP_ADD_MEMBERSHIP): %s", strerror(errno));
        return -1;
    }
    char group[INET_ADDRSTRLEN], local[INET_ADDRSTRLEN];
    if (!inet_ntop(AF_INET, &request.imr_multiaddr, group, sizeof(group)) ||
        !inet_ntop(AF_INET, &request.imr_interface, local, sizeof(local))) {
        log_error("inet_ntop(): %s", strerror(errno));
        return -1;
    }
    log_notice("JOIN MULTICAST %s@%s", group, local);
    return 0;
}
