#include "mwctl/figures.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>

namespace mwctl
{

void Sum::add(std::optional<uint64_t> figure)
{
    (figure ? known : unknown)++;
    total += figure.value_or(0);
}

std::string Sum::text() const
{
    return known == 0 ? "-" : fmt::format("{}{}", total, unknown > 0 ? "+" : "");
}

std::optional<uint64_t> figure_of(const Node &node, std::string_view key)
{
    constexpr uint64_t address_in_size = 1; /* the nodestatus with which peers send an address instead of the size */
    if (!node.value(key).good() || (key == "size" && node.number("nodestatus") == address_in_size))
        return std::nullopt;
    return node.number(key);
}

std::map<std::string, Capacity> capacities(const Cluster &cluster)
{
    std::map<std::string, Capacity> result;
    for (const auto &[uid, node] : cluster.nodes) {
        const Value &datastore = node.value("datastoremember");
        if (!datastore.good() || datastore.text.empty())
            continue;
        Capacity &capacity = result[datastore.text];
        capacity.size.add(figure_of(node, "size"));
        capacity.free.add(figure_of(node, "freespace"));
        capacity.allocated.add(figure_of(node, "allocatedspace"));
    }
    return result;
}

std::optional<uint64_t> vdisk_bytes(const VDisk &vdisk)
{
    uint64_t bytes;
    if (!vdisk.value("sectors").good() || !vdisk.value("sector_size").good() ||
        __builtin_mul_overflow(vdisk.number("sectors"), vdisk.number("sector_size"), &bytes))
        return std::nullopt;
    return bytes;
}

VDiskCounts count_vdisks(const Cluster &cluster)
{
    VDiskCounts counts;
    for (const auto &[uuid, vdisk] : cluster.vdisks) {
        bool known = vdisk.value("snapshot").good();
        (!known ? counts.unknown : vdisk.snapshot() ? counts.snapshots : counts.plain)++;
        if (vdisk.number("transaction_id") != 0)
            counts.in_transaction++;
    }
    std::set<std::string_view> here;
    for (const Node *node : local_nodes(cluster))
        for (const Link &link : node->vdisks.links)
            if (cluster.vdisk(link.name))
                here.insert(link.name);
    counts.here = here.size();
    return counts;
}

static std::vector<const Node *> nodes_where(const Cluster &cluster, bool local)
{
    std::vector<const Node *> nodes;
    for (const auto &[uid, node] : cluster.nodes)
        if (cluster.local(node) == local)
            nodes.push_back(&node);
    return nodes;
}

std::vector<const Node *> local_nodes(const Cluster &cluster)
{
    return nodes_where(cluster, true);
}

std::vector<const Node *> peers(const Cluster &cluster)
{
    constexpr double never = std::numeric_limits<double>::infinity();
    std::vector<const Node *> nodes = nodes_where(cluster, false);
    std::stable_sort(nodes.begin(), nodes.end(), [&](const Node *a, const Node *b) {
        return cluster.age(*a).value_or(never) > cluster.age(*b).value_or(never);
    });
    return nodes;
}

} // namespace mwctl
