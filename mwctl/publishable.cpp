#include "mwctl/publishable.h"

#include "mwctl/failure.h"
#include "mwctl/ownership.h"
#include "mwctl/render.h"
#include "mwctl/tree.h"
#include "mwctl/trouble.h"
#include "mwctl/writer.h"
#include "mwd/misc.h"
#include "mwd/object.h"

#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>

namespace mwctl
{

struct NodeDeleter {
    void operator()(struct ::Node *node) const
    {
        VDiskTreeFlush(&node->vdisks);
        NodeFree(node);
    }
};
using LoadedNode = std::unique_ptr<struct ::Node, NodeDeleter>;

/* A node as the daemon reads it, or null if it cannot. */
static LoadedNode load_node(uint32_t uid)
{
    struct ::Node *node = nullptr;
    if (NodeAlloc(&node) < 0)
        give_up("out of memory");
    LoadedNode loaded(node);
    node->nodeid = uid;
    snprintf(node->nodeuuid, sizeof(node->nodeuuid), "%u", uid);
    return NodeLoad(node) < 0 ? nullptr : std::move(loaded);
}

static bool load_vdisk(const struct ::Node *node, const std::string &uuid)
{
    struct ::VDisk *vdisk = nullptr;
    if (VDiskAlloc(&vdisk) < 0)
        give_up("out of memory");
    memcpy(vdisk->vdiskuuid, uuid.c_str(), uuid.size() + 1);
    bool good = VDiskLoad(node, vdisk) == 0;
    VDiskFree(vdisk);
    return good;
}

/* Whether it stays so: a writer may have been at work. */
template <typename Look> static bool keeps_failing(Look good)
{
    constexpr int looks = 4, pause_ms = 60;
    for (int i = 0; i < looks; i++) {
        if (good())
            return false;
        msleep(pause_ms);
    }
    return true;
}

/* What the rules say of a record that the daemon cannot use. */
static std::string reason_of(const Settings &settings, const RecordName &record)
{
    Cluster cluster = read_around(settings, record);
    if (!record_exists(cluster, record))
        return record.text() + " is not in the tree";
    for (const Trouble &trouble : confirmed_troubles(cluster))
        if (trouble.severity == Severity::error)
            return fmt::format("{}; {}", trouble.text, trouble.action);
    return fmt::format("mwd could not read {}: mwctl check", record.text());
}

static std::string stale_lock(const RecordName &record)
{
    for (const Lock &lock : read_locks())
        if (lock.record == record.text() && lock.pid && !lock.alive)
            return fmt::format("the dead process {} holds the lock of {}: mwctl locks --break", lock.pid, lock.record);
    return "";
}

std::string keeps_back_node(const Settings &settings, uint32_t uid)
{
    RecordName record = node_record(std::to_string(uid));
    if (!settings.lists(uid))
        return fmt::format("{} does not list node {}: add the line {}, then: mwctl reload", settings.local_nodes_file,
                           uid, uid);
    if (std::string lock = stale_lock(record); !lock.empty())
        return lock;
    return keeps_failing([&] { return load_node(uid) != nullptr; }) ? reason_of(settings, record) : "";
}

std::string keeps_back_datastore(const Settings &settings, uint32_t uid)
{
    std::string reason = keeps_back_node(settings, uid);
    if (!reason.empty())
        return reason;
    RecordName node_name = node_record(std::to_string(uid));
    const Attribute &attribute = attribute_of(Kind::node, "datastoremember");
    std::string file = fmt::format("{}/{}/{}", settings.work_directory, node_name.path(), attribute.key);
    auto named = [&] {
        Value value = read_value_at(AT_FDCWD, file, attribute);
        return value.missing() || (value.good() && (value.text.empty() || uuid_usable(value.text)));
    };
    if (keeps_failing(named)) /* the daemon would tell the peers that the node has none */
        return reason_of(settings, node_name);
    char name[NAME_LEN] = "";
    bool torn = keeps_failing([&] {
        name[0] = '\0';
        LoadedNode node = load_node(uid);
        struct DatastoreEntry entry;
        if (!node)
            return false;
        NodeLoad_DSMember(node->nodeuuid, name, sizeof(name));
        return name[0] == '\0' || DatastoreLoad(name, &entry) == 0;
    });
    if (name[0] == '\0')
        return "";
    RecordName record = datastore_record(name);
    return torn ? reason_of(settings, record) : stale_lock(record);
}

std::string keeps_back_vdisk(const Settings &settings, uint32_t uid, const std::string &vdisk)
{
    std::string reason = keeps_back_node(settings, uid);
    if (!reason.empty())
        return reason;
    RecordName record = vdisk_record(vdisk);
    Cluster cluster = read_around(settings, node_record(std::to_string(uid)));
    const Node *node = cluster.node(uid);
    if (node && node->value("datastoremember").missing())
        return fmt::format("node {} has no datastore, and without one no single VDisk is published: mwctl set node/{} "
                           "datastoremember=DATASTORE",
                           uid, uid);
    bool linked = false;
    if (node)
        for (const Link &link : node->vdisks.links)
            linked = linked || link.name == vdisk;
    if (!linked)
        return fmt::format("vdisk/{} is not linked to node {}: mwctl new vdisk makes one, with its links", vdisk, uid);
    if (std::string lock = stale_lock(record); !lock.empty())
        return lock;
    bool torn = keeps_failing([&] {
        LoadedNode loaded = load_node(uid);
        char name[NAME_LEN];
        return loaded && NodeLoad_DSMember(loaded->nodeuuid, name, sizeof(name)) == 0 &&
               load_vdisk(loaded.get(), vdisk);
    });
    return torn ? reason_of(settings, record) : "";
}

std::string keeps_back_ping(const Settings &settings, uint32_t uid)
{
    std::string reason = keeps_back_datastore(settings, uid);
    if (!reason.empty())
        return reason;
    std::string faulty;
    bool torn = keeps_failing([&] {
        LoadedNode node = load_node(uid);
        faulty.clear();
        if (!node || NodeLoad_VDisks(uid, &node->vdisks) < 0)
            return false;
        for (struct ::VDisk *vdisk = VDiskTree_RB_MINMAX(&node->vdisks, -1); vdisk; vdisk = VDiskTree_RB_NEXT(vdisk))
            if (!load_vdisk(node.get(), vdisk->vdiskuuid)) {
                faulty = vdisk->vdiskuuid;
                return false;
            }
        return true;
    });
    if (!torn)
        return "";
    return reason_of(settings, faulty.empty() ? node_record(std::to_string(uid)) : vdisk_record(faulty));
}

} // namespace mwctl
