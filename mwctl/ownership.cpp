#include "mwctl/ownership.h"

#include "mwctl/failure.h"

#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

bool own_node(const Cluster &cluster, uint32_t uid)
{
    const Node *node = cluster.node(uid);
    return node ? cluster.local(*node) : cluster.settings.lists(uid);
}

static bool any_own(const Cluster &cluster, const std::vector<uint32_t> &uids)
{
    return uids.empty() || std::any_of(uids.begin(), uids.end(), [&](uint32_t uid) { return own_node(cluster, uid); });
}

static std::vector<uint32_t> members_of(const Cluster &cluster, const Datastore &datastore)
{
    std::vector<uint32_t> uids;
    for (const Link &link : datastore.members.links)
        if (std::optional<uint32_t> uid = uid_from(link.name))
            uids.push_back(*uid);
    for (const auto &[uid, node] : cluster.nodes)
        if (node.value("datastoremember").text == datastore.uuid)
            uids.push_back(uid);
    return uids;
}

static std::vector<uint32_t> members_of(const Cluster &cluster, const VDisk &vdisk)
{
    std::vector<uint32_t> uids = vdisk.membership();
    for (const Member &member : vdisk.members)
        uids.push_back(member.uid);
    for (const auto &[uid, node] : cluster.nodes)
        if (std::any_of(node.vdisks.links.begin(), node.vdisks.links.end(),
                        [&](const Link &link) { return link.name == vdisk.uuid; }))
            uids.push_back(uid);
    return uids;
}

bool own_record(const Cluster &cluster, const RecordName &record)
{
    if (record.kind == Kind::node || record.kind == Kind::member)
        return own_node(cluster, record.uid);
    if (record.kind == Kind::datastore) {
        const Datastore *datastore = cluster.datastore(record.name);
        return !datastore || any_own(cluster, members_of(cluster, *datastore));
    }
    const VDisk *vdisk = cluster.vdisk(record.name);
    return !vdisk || any_own(cluster, members_of(cluster, *vdisk));
}

bool record_exists(const Cluster &cluster, const RecordName &record)
{
    if (record.kind == Kind::node)
        return cluster.node(record.uid);
    if (record.kind == Kind::datastore)
        return cluster.datastore(record.name);
    const VDisk *vdisk = cluster.vdisk(record.name);
    return vdisk && (record.kind == Kind::vdisk || vdisk->member(record.uid));
}

Cluster read_around(const Settings &settings, const RecordName &record)
{
    return read_cluster(settings, {Scope::one_record, record.locked().text()});
}

void require_record(const Cluster &cluster, const RecordName &record)
{
    if (!record_exists(cluster, record))
        give_up(fmt::format("{} is not in the tree {}", record.text(), cluster.settings.work_directory));
}

} // namespace mwctl
