/* From the tree to plain values. VDisks, which are most of it, are read by one thread a core. */
#include "mwctl/tree.h"

#include "mwctl/failure.h"
#include "mwctl/text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace mwctl
{

/* The open tree, and the strays found in it. */
struct Reader {
    Descriptor root;
    std::vector<Stray> strays;
};

static Descriptor open_tree(const Settings &settings)
{
    Descriptor root(open(settings.work_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root || faccessat(root.get(), ".", R_OK | X_OK, AT_EACCESS) < 0)
        give_up(fmt::format("cannot read the tree {}: {}; is work_directory of {} right, and may you read it?",
                            printable(settings.work_directory), strerror(errno), printable(settings.file)));
    return root;
}

static std::optional<Node> read_node(Reader &reader, uint32_t uid, bool with_vdisks = true)
{
    std::string path = fmt::format("Node/{}", uid);
    Directory directory = read_directory(reader.root.get(), path);
    if (directory.fault == Fault::missing || directory.fault == Fault::no_file)
        return std::nullopt;
    Node node;
    node.uid = uid;
    node.access = {directory.fault, directory.reason};
    node.values = read_values(directory, Kind::node);
    if (with_vdisks)
        node.vdisks = read_links(directory.fd.get(), "vdisks", path, reader.strays);
    return node;
}

static std::optional<Datastore> read_datastore(Reader &reader, const std::string &uuid)
{
    std::string path = "Datastore/" + uuid;
    Directory directory = read_directory(reader.root.get(), path);
    if (directory.fault == Fault::missing || directory.fault == Fault::no_file)
        return std::nullopt;
    Datastore datastore;
    datastore.uuid = uuid;
    datastore.access = {directory.fault, directory.reason};
    datastore.values = read_values(directory, Kind::datastore);
    datastore.members = read_links(directory.fd.get(), "members", path, reader.strays);
    datastore.vdisks = read_links(directory.fd.get(), "vdisks", path, reader.strays);
    return datastore;
}

static void read_members(VDisk &vdisk, int vdisk_fd, const std::string &path, std::vector<Stray> &strays)
{
    Directory memberinfo = read_directory(vdisk_fd, "memberinfo");
    vdisk.memberinfo = memberinfo.fault;
    vdisk.memberinfo_reason = memberinfo.reason;
    for (const Entry &entry : memberinfo.entries) {
        std::optional<uint32_t> uid = uid_from(entry.name);
        if (!uid || entry.type != 'd') {
            strays.push_back({fmt::format("{}/memberinfo/{}", path, entry.name), entry.type});
            continue;
        }
        Directory directory = read_directory(memberinfo.fd.get(), entry.name);
        if (directory.fault == Fault::missing)
            continue;
        Member member;
        member.uid = *uid;
        member.access = {directory.fault, directory.reason};
        member.values = read_values(directory, Kind::member);
        if (const Entry *link = directory.find("nodestatus"); link && link->type == 'l')
            member.nodestatus = read_link(directory.fd.get(), "nodestatus").value_or("");
        vdisk.members.push_back(std::move(member));
    }
    std::sort(vdisk.members.begin(), vdisk.members.end(),
              [](const Member &a, const Member &b) { return a.uid < b.uid; });
}

static std::optional<VDisk> read_whole_vdisk(int root, const std::string &uuid, std::vector<Stray> &strays)
{
    std::string path = "VDisk/" + uuid;
    Directory directory = read_directory(root, path);
    if (directory.fault == Fault::missing || directory.fault == Fault::no_file)
        return std::nullopt;
    VDisk vdisk;
    vdisk.uuid = uuid;
    vdisk.depth = Depth::whole;
    vdisk.access = {directory.fault, directory.reason};
    vdisk.values = read_values(directory, Kind::vdisk);
    struct stat st;
    if (!vdisk.value("transaction_id").missing() && fstatat(directory.fd.get(), "transaction_id", &st, 0) == 0)
        vdisk.transaction_time = st.st_mtime;
    if (const Entry *entry = directory.find("datastore")) {
        vdisk.has_datastore = true;
        if (entry->type == 'l')
            vdisk.datastore = read_link(directory.fd.get(), "datastore").value_or("");
    }
    if (directory.find("snapshots"))
        vdisk.snapshots = read_links(directory.fd.get(), "snapshots", path, strays);
    if (directory.find("memberinfo"))
        read_members(vdisk, directory.fd.get(), path, strays);
    return vdisk;
}

static VDisk read_kind(int root, const std::string &uuid)
{
    static const auto index = static_cast<size_t>(attribute_index(Kind::vdisk, "snapshot"));
    VDisk vdisk;
    vdisk.uuid = uuid;
    vdisk.depth = Depth::kind;
    vdisk.values.resize(attributes(Kind::vdisk).size());
    vdisk.values[index] = read_value_at(root, fmt::format("VDisk/{}/snapshot", uuid), attributes(Kind::vdisk)[index]);
    return vdisk;
}

/* Reads the VDisks of `names`, ascending, each as deep as `depth_of` says, and puts them into the cluster. */
template <typename DepthOf>
static void read_vdisks(Cluster &cluster, Reader &reader, const std::vector<std::string> &names, DepthOf depth_of)
{
    std::vector<std::optional<VDisk>> found(names.size());
    std::atomic<size_t> next = 0;
    auto work = [&](std::vector<Stray> &strays) {
        constexpr size_t batch = 16;
        for (size_t begin; (begin = next.fetch_add(batch)) < names.size();)
            for (size_t i = begin; i < std::min(begin + batch, names.size()); i++)
                found[i] = depth_of(names[i]) == Depth::whole ? read_whole_vdisk(reader.root.get(), names[i], strays)
                                                              : std::optional(read_kind(reader.root.get(), names[i]));
    };
    size_t threads = names.size() < 64 ? 1 : std::clamp(std::thread::hardware_concurrency(), 1U, 4U);
    std::vector<std::vector<Stray>> strays(threads);
    {
        std::vector<std::jthread> workers;
        for (size_t i = 1; i < threads; i++)
            workers.emplace_back([&, i] { work(strays[i]); });
        work(strays[0]);
    }
    for (auto &vdisk : found)
        if (vdisk) {
            std::string uuid = vdisk->uuid;
            cluster.vdisks.insert_or_assign(cluster.vdisks.end(), std::move(uuid), std::move(*vdisk));
        }
    for (auto &list : strays)
        reader.strays.insert(reader.strays.end(), list.begin(), list.end());
}

/* The records of one kind: the names of its directories that can be a record's; all else is stray. */
static std::vector<std::string> list_records(Reader &reader, const std::string &top,
                                             bool (*usable)(const std::string &))
{
    std::vector<std::string> names;
    Directory directory = read_directory(reader.root.get(), top);
    if (directory.fault == Fault::unreadable)
        give_up(fmt::format("cannot read {} in the tree: {}; run this as the daemon's user or as root", top,
                            directory.reason));
    for (const Entry &entry : directory.entries) {
        if (entry.type == 'd' && usable(entry.name))
            names.push_back(entry.name);
        else
            reader.strays.push_back({fmt::format("{}/{}", top, entry.name), entry.type});
    }
    std::sort(names.begin(), names.end());
    return names;
}

static bool usable_uid(const std::string &name)
{
    return uid_from(name).has_value();
}

static bool usable_uuid(const std::string &name)
{
    return uuid_usable(name);
}

static void list_top(Reader &reader)
{
    for (const Entry &entry : read_directory(reader.root.get(), ".").entries)
        if (entry.type != 'd' || (entry.name != "Node" && entry.name != "Datastore" && entry.name != "VDisk"))
            reader.strays.push_back({entry.name, entry.type});
}

static void read_all(Cluster &cluster, Reader &reader, bool whole)
{
    list_top(reader);
    std::set<std::string> local_vdisks;
    for (const std::string &name : list_records(reader, "Node", usable_uid)) {
        std::optional<Node> node = read_node(reader, *uid_from(name));
        if (!node)
            continue;
        if (!whole && cluster.local(*node))
            for (const Link &link : node->vdisks.links)
                local_vdisks.insert(link.name);
        cluster.nodes.emplace(node->uid, std::move(*node));
    }
    for (const std::string &name : list_records(reader, "Datastore", usable_uuid))
        if (std::optional<Datastore> datastore = read_datastore(reader, name))
            cluster.datastores.emplace(name, std::move(*datastore));
    read_vdisks(cluster, reader, list_records(reader, "VDisk", usable_uuid), [&](const std::string &name) {
        return whole || local_vdisks.contains(name) ? Depth::whole : Depth::kind;
    });
}

/* Puts a record as it is now into the cluster, or takes it out. A VDisk is read whole or, if it exists, by name alone.
 */
static void take_in_node(Cluster &cluster, Reader &reader, uint32_t uid, bool with_vdisks = true)
{
    if (std::optional<Node> node = read_node(reader, uid, with_vdisks))
        cluster.nodes.insert_or_assign(uid, std::move(*node));
    else
        cluster.nodes.erase(uid);
}

static void take_in_datastore(Cluster &cluster, Reader &reader, const std::string &uuid)
{
    std::optional<Datastore> datastore;
    if (uuid_usable(uuid))
        datastore = read_datastore(reader, uuid);
    if (datastore)
        cluster.datastores.insert_or_assign(uuid, std::move(*datastore));
    else
        cluster.datastores.erase(uuid);
}

static void take_in_vdisk(Cluster &cluster, Reader &reader, const std::string &uuid, Depth depth)
{
    std::optional<VDisk> vdisk;
    struct stat st;
    if (!uuid_usable(uuid))
        return;
    if (depth == Depth::whole) {
        vdisk = read_whole_vdisk(reader.root.get(), uuid, reader.strays);
    } else if (fstatat(reader.root.get(), ("VDisk/" + uuid).c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
               S_ISDIR(st.st_mode)) {
        vdisk.emplace();
        vdisk->uuid = uuid;
        if (depth == Depth::kind)
            vdisk = read_kind(reader.root.get(), uuid);
    }
    if (vdisk)
        cluster.vdisks.insert_or_assign(uuid, std::move(*vdisk));
    else
        cluster.vdisks.erase(uuid);
}

/* The records of `top` in which `entry`, such as "vdisks/v1", exists. */
static std::vector<std::string> records_with(Reader &reader, const std::string &top, const std::string &entry)
{
    std::vector<std::string> names;
    struct stat st;
    for (const Entry &record : read_directory(reader.root.get(), top).entries)
        if (record.type == 'd' && fstatat(reader.root.get(), fmt::format("{}/{}/{}", top, record.name, entry).c_str(),
                                          &st, AT_SYMLINK_NOFOLLOW) == 0)
            names.push_back(record.name);
    return names;
}

static void read_around_node(Cluster &cluster, Reader &reader, uint32_t uid)
{
    take_in_node(cluster, reader, uid);
    const Node *node = cluster.node(uid);
    if (!node)
        return;
    Depth depth = cluster.local(*node) ? Depth::whole : Depth::kind;
    for (const Link &link : node->vdisks.links)
        take_in_vdisk(cluster, reader, link.name, depth);
    if (node->value("datastoremember").good())
        take_in_datastore(cluster, reader, node->value("datastoremember").text);
    for (const std::string &name : records_with(reader, "Datastore", fmt::format("members/{}", uid)))
        take_in_datastore(cluster, reader, name);
}

static void read_around_datastore(Cluster &cluster, Reader &reader, const std::string &uuid)
{
    static const auto &attribute =
        attributes(Kind::node)[static_cast<size_t>(attribute_index(Kind::node, "datastoremember"))];
    take_in_datastore(cluster, reader, uuid);
    const Datastore *datastore = cluster.datastore(uuid);
    if (!datastore)
        return;
    std::set<uint32_t> members;
    for (const Link &link : datastore->members.links)
        if (std::optional<uint32_t> uid = uid_from(link.name))
            members.insert(*uid);
    for (const Entry &entry : read_directory(reader.root.get(), "Node").entries)
        if (std::optional<uint32_t> uid = uid_from(entry.name);
            uid &&
            read_value_at(reader.root.get(), fmt::format("Node/{}/datastoremember", *uid), attribute).text == uuid)
            members.insert(*uid);
    for (uint32_t uid : members)
        take_in_node(cluster, reader, uid, false); /* which VDisks a member has is none of the datastore's */
    for (const Link &link : datastore->vdisks.links) {
        take_in_vdisk(cluster, reader, link.name, Depth::named);
        if (auto vdisk = cluster.vdisks.find(link.name); vdisk != cluster.vdisks.end())
            vdisk->second.datastore =
                read_link(reader.root.get(), fmt::format("VDisk/{}/datastore", link.name)).value_or("");
    }
}

static void read_around_vdisk(Cluster &cluster, Reader &reader, const std::string &uuid)
{
    take_in_vdisk(cluster, reader, uuid, Depth::whole);
    const VDisk *vdisk = cluster.vdisk(uuid);
    if (!vdisk)
        return;
    std::set<uint32_t> nodes;
    for (uint32_t uid : vdisk->membership())
        nodes.insert(uid);
    for (const Member &member : vdisk->members)
        nodes.insert(member.uid);
    for (const std::string &name : records_with(reader, "Node", "vdisks/" + uuid))
        if (std::optional<uint32_t> uid = uid_from(name))
            nodes.insert(*uid);
    for (uint32_t uid : nodes)
        take_in_node(cluster, reader, uid);
    take_in_datastore(cluster, reader, vdisk->datastore_name());
    for (const std::string &name : records_with(reader, "Datastore", "vdisks/" + uuid))
        take_in_datastore(cluster, reader, name);
    for (const Link &link : vdisk->snapshots.links)
        take_in_vdisk(cluster, reader, link.name, Depth::kind);
    if (vdisk->value("parent").good() && vdisk->value("parent").text != uuid)
        take_in_vdisk(cluster, reader, vdisk->value("parent").text, Depth::whole);
}

static void read_clock(Cluster &cluster)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    cluster.now = ts.tv_sec;
    cluster.now_exact = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

Cluster read_cluster(Settings settings, const Scope &scope)
{
    Cluster cluster;
    Reader reader{open_tree(settings), {}};
    char host[256] = "";
    gethostname(host, sizeof(host) - 1);
    cluster.host = host;
    cluster.daemon = read_daemon(settings);
    cluster.network = read_network(settings, cluster.daemon.running);
    cluster.settings = std::move(settings);
    cluster.scope = scope;
    auto [kind, name] = split_record(scope.record);
    if (scope.extent != Scope::one_record)
        read_all(cluster, reader, scope.extent == Scope::whole);
    else if (kind == "node" && uid_from(name))
        read_around_node(cluster, reader, *uid_from(name));
    else if (kind == "datastore" && uuid_usable(name))
        read_around_datastore(cluster, reader, name);
    else if (kind == "vdisk" && uuid_usable(name))
        read_around_vdisk(cluster, reader, name);
    cluster.locks = read_locks();
    cluster.strays = std::move(reader.strays);
    read_clock(cluster); /* behind the reading, so that nothing that was heard meanwhile lies in the future */
    return cluster;
}

/* The directory of a record, relative to the tree. */
static std::string record_path(const std::string &kind, const std::string &name)
{
    return fmt::format("{}/{}", kind == "node" ? "Node" : kind == "datastore" ? "Datastore" : "VDisk", name);
}

static void take_in_records(Cluster &cluster, Reader &reader, const std::set<std::string> &records)
{
    for (const std::string &record : records) {
        auto [kind, name] = split_record(record);
        if (kind == "node" && uid_from(name))
            take_in_node(cluster, reader, *uid_from(name));
        else if (kind == "datastore")
            take_in_datastore(cluster, reader, name);
        else if (kind == "vdisk")
            take_in_vdisk(cluster, reader, name, cluster.vdisk(name) ? cluster.vdisk(name)->depth : Depth::whole);
    }
}

void reread_records(Cluster &cluster, const std::set<std::string> &records)
{
    Reader reader{open_tree(cluster.settings), {}};
    take_in_records(cluster, reader, records);
}

void reread(Cluster &cluster, const std::set<std::string> &records)
{
    Reader reader{open_tree(cluster.settings), {}};
    for (const std::string &record : records) {
        auto [kind, name] = split_record(record);
        std::string path = record_path(kind, name) + "/";
        std::erase_if(cluster.strays, [&](const Stray &stray) { return stray.path.starts_with(path); });
    }
    take_in_records(cluster, reader, records);
    /* What stands outside of records tells none, and is listed again if there is any. */
    auto outside = [](const Stray &stray) {
        return std::count(stray.path.begin(), stray.path.end(), '/') < 2;
    };
    if (std::erase_if(cluster.strays, outside) > 0) {
        list_top(reader);
        for (const char *top : {"Node", "Datastore", "VDisk"})
            list_records(reader, top, strcmp(top, "Node") == 0 ? usable_uid : usable_uuid);
    }
    cluster.strays.insert(cluster.strays.end(), reader.strays.begin(), reader.strays.end());
    cluster.locks = read_locks();
    read_clock(cluster);
}

} // namespace mwctl
