/* The cluster that the benchmarks play: what its nodes say, and where the programs find each other. */
#ifndef BENCH_MESSAGES_H
#define BENCH_MESSAGES_H

#include "mwd/netlib.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>

constexpr uint16_t PORT = 8000, CTRL_PORT = 31337;
constexpr size_t UDP_MAX = 65507, VDISK_NAME_LEN = 11;

/* Nodes 1 to `nodes` in groups of `copies` neighbours, which are the members of the same `vdisks` VDisks. */
struct Cluster {
    unsigned int nodes, vdisks, copies;
};

inline std::string vdisk_name(const Cluster &cluster, uint32_t uid, unsigned int index)
{
    char name[NAME_LEN];
    snprintf(name, sizeof(name), "v%05u-%04u", (uid - 1) / cluster.copies % 100000, index % 10000);
    return name;
}

/* Every report names a frontend, unless the datagram would get too long: then the first ones do. */
inline unsigned int reports_with_frontend(const Cluster &cluster)
{
    size_t plain = sizeof(Hdr) + cluster.vdisks * (sizeof(VDiskEntry) + cluster.copies * sizeof(MemberEntry));
    if (plain > UDP_MAX)
        abort();
    return static_cast<unsigned int>(std::min<size_t>(cluster.vdisks, (UDP_MAX - plain) / sizeof(FrontendEntry)));
}

template <typename Record> void put(char *buf, size_t *idx, const Record &record)
{
    memcpy(buf + *idx, &record, sizeof(record));
    *idx += sizeof(record);
}

inline void put_reports(char *buf, size_t *idx, const Cluster &cluster, uint32_t uid)
{
    uint32_t first = (uid - 1) / cluster.copies * cluster.copies + 1;
    uint32_t last = std::min(first + cluster.copies - 1, cluster.nodes);
    for (unsigned int i = 0; i < cluster.vdisks; i++) {
        VDiskEntry vde = {.transaction_id = 0,
                          .uuid = "",
                          .name = {{'0', '5'}, "volume", htons(5)},
                          .sector_size = 512,
                          .numkeys = 123456,
                          .sectors = 20971520,
                          .seqno = 987654321,
                          .description = {"A-volume-of-the-benchmark"},
                          .status = 1,
                          .port = 7001,
                          .replicas = 3,
                          .st_mem = 2,
                          .st_mems = 4,
                          .st_size = 64,
                          .snapshot = 0,
                          .members = static_cast<uint16_t>(last - first + 1),
                          .frontends = i < reports_with_frontend(cluster)};
        memcpy(vde.uuid, vdisk_name(cluster, uid, i).data(), VDISK_NAME_LEN);
        put(buf, idx, vde);
        for (uint32_t member = first; member <= last; member++)
            put(buf, idx, MemberEntry{member});
        if (vde.frontends)
            put(buf, idx, FrontendEntry{0x0a000007});
    }
}

/* Builds a message of node `uid` in `buf`, MSG_LEN_MAX bytes. Returns its length. */
inline size_t put_message(char *buf, uint8_t type, const Cluster &cluster, uint32_t uid)
{
    size_t idx = 0;
    put(buf, &idx,
        Hdr{1,
            8,
            type,
            2,
            uid,
            "Bench",
            "Storage-node",
            {1000000, 42, "1.8.0-1"},
            "SN-0000000001",
            "10.0.0.7",
            2000000,
            5,
            77});
    if (type == MSG_AUX_PING) {
        buf[idx++] = 0;
        put(buf, &idx, AuxPingData{sizeof(AuxPingData), 500000, 12, 6, 64, 16384, 8192});
    } else if (type == MSG_DS_PING) {
        put(buf, &idx, DatastoreEntry{"store-1", "Store", "Benchmark-store", 512, 3, 4, 1});
    } else if (type == MSG_PING) {
        put_reports(buf, &idx, cluster, uid);
    }
    return idx;
}

inline struct sockaddr_in address_of(in_addr_t address, uint16_t port)
{
    return {AF_INET, htons(port), {htonl(address)}, {}};
}

/* A socket of `type` bound to the address. */
inline int bound_socket(int type, in_addr_t address, uint16_t port)
{
    int so = socket(AF_INET, type, 0), on = 1;
    setsockopt(so, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    struct sockaddr_in sa = address_of(address, port);
    if (bind(so, reinterpret_cast<struct sockaddr *>(&sa), sizeof(sa)) < 0) {
        perror("bind");
        exit(1);
    }
    return so;
}

#endif
