/* Figures that stand in no file: sums over members, sizes, counts. */
#ifndef MWCTL_FIGURES_H
#define MWCTL_FIGURES_H

#include "mwctl/cluster.h"

#include <map>
#include <optional>
#include <string>

namespace mwctl
{

/*
 * A sum over nodes of one of their capacity figures. Their unit is that of the programs that fill them in: the daemon
 * gives them none, so they are added up and shown, never scaled.
 */
struct Sum {
    uint64_t total = 0;
    size_t known = 0, unknown = 0; /* nodes that gave the figure, and that did not */

    void add(std::optional<uint64_t> figure);
    /* "1800"; "1800+" if not every node gave its figure; "-" if none did. */
    std::string text() const;
};

struct Capacity {
    Sum size, free, allocated;
};

/* What the nodes that name a datastore say of their space, by its uuid. */
std::map<std::string, Capacity> capacities(const Cluster &cluster);

/* A figure of the node; nothing if it is missing or faulty, or if a backup channel stands in the place of the size. */
std::optional<uint64_t> figure_of(const Node &node, std::string_view key);

/* Bytes that the VDisk shows to its users; nothing if its values do not tell. */
std::optional<uint64_t> vdisk_bytes(const VDisk &vdisk);

struct VDiskCounts {
    size_t plain = 0, snapshots = 0, unknown = 0; /* unknown: the file that tells the kind cannot be read */
    size_t here = 0;                              /* with a link from a node of this host */
    size_t in_transaction = 0;                    /* of those that were read whole */
    size_t total() const
    {
        return plain + snapshots + unknown;
    }
};

VDiskCounts count_vdisks(const Cluster &cluster);

/* The nodes of this host, ascending, and all others, the longest silent first. */
std::vector<const Node *> local_nodes(const Cluster &cluster);
std::vector<const Node *> peers(const Cluster &cluster);

} // namespace mwctl

#endif
