/* Rules about entries of the tree that belong nowhere, and about what stands where a message should write. */
#include "mwctl/trouble_rules.h"

#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

static const char *type_text(char type)
{
    return type == 'd' ? "a directory" : type == 'f' ? "a file" : type == 'l' ? "a link" : "no file";
}

static void add_entry(Judge &judge, const char *code, const std::string &record, const std::string &path,
                      const std::string &text)
{
    judge.add(code, record, path, fmt::format("{} {}", path, text),
              fmt::format("find out who made it, then remove it: rm -r {}", shell_path(judge.cluster, path)));
}

/* What an entry does to the directory of a record that it stands in. */
static std::string effect_in(std::string_view directory)
{
    if (directory == "members")
        return "the datastore's record never goes while it is there";
    if (directory == "memberinfo")
        return "the VDisk is never removed while it is there";
    return "the daemon passes it over";
}

static void judge_stray(Judge &judge, const Stray &stray)
{
    std::vector<std::string> parts;
    for (size_t begin = 0; begin <= stray.path.size();) {
        size_t end = std::min(stray.path.find('/', begin), stray.path.size());
        parts.push_back(stray.path.substr(begin, end - begin));
        begin = end + 1;
    }
    if (parts.size() == 1) {
        bool of_file_system = parts[0] == "lost+found" && stray.type == 'd';
        if (!of_file_system)
            add_entry(judge, "ENTRY_UNKNOWN", "config", stray.path,
                      fmt::format("is {}: only the directories Node, Datastore and VDisk stand at the top of the tree",
                                  type_text(stray.type)));
        return;
    }
    std::string kind = parts[0] == "Node" ? "node" : parts[0] == "Datastore" ? "datastore" : "vdisk";
    std::string record = record_name(kind, parts[1]);
    if (parts.size() == 2) {
        bool usable = kind == "node" ? uid_from(parts[1]).has_value() : uuid_usable(parts[1]);
        if (usable || stray.type != 'd')
            add_entry(judge, "ENTRY_UNKNOWN", record, stray.path,
                      fmt::format("is {}, no record{}", type_text(stray.type),
                                  usable ? ": every message about one of this name fails" : ""));
        else
            add_entry(judge, "NAME_UNUSABLE", record, stray.path,
                      fmt::format("has a name that no {} can have: the daemon never reads it", kind));
        return;
    }
    bool unusable = parts[2] == "memberinfo" && stray.type == 'd';
    add_entry(judge, unusable ? "NAME_UNUSABLE" : "ENTRY_UNKNOWN", record, stray.path,
              unusable ? "has a name that no node can have: " + effect_in(parts[2])
                       : fmt::format("is {}: {}", type_text(stray.type), effect_in(parts[2])));
}

/* Links whose names are no record's, and a directory of links that is something else. */
static void judge_directory(Judge &judge, const std::string &record, const std::string &path,
                            const LinkDirectory &directory, bool (*usable)(const std::string &))
{
    if (directory.fault == Fault::no_file)
        add_entry(judge, "ENTRY_UNKNOWN", record, path, "is no directory: no message can put a link into it");
    for (const Link &link : directory.links)
        if (!usable(link.name))
            add_entry(judge, "NAME_UNUSABLE", record, fmt::format("{}/{}", path, link.name),
                      "has a name that no record can have: " + effect_in(path.substr(path.rfind('/') + 1)));
}

static bool usable_uuid(const std::string &name)
{
    return uuid_usable(name);
}

static bool usable_uid(const std::string &name)
{
    return uid_from(name).has_value();
}

/* What stands in the place of a value so that no message can write it. What is torn, the next message writes. */
static void judge_blocked(Judge &judge, const std::string &record, const std::string &path, Kind kind,
                          const Access &access, const Values &values)
{
    if (access.fault != Fault::none)
        judge.add("ENTRY_UNKNOWN", record, path, fmt::format("{} cannot be read: {}", path, access.reason),
                  fmt::format("make it readable: ls -ld {}", shell_path(judge.cluster, path)));
    for (size_t i = 0; i < values.size(); i++)
        if (values[i].fault == Fault::no_file || values[i].fault == Fault::unreadable)
            add_entry(judge, "ENTRY_UNKNOWN", record, fmt::format("{}/{}", path, attributes(kind)[i].key),
                      fault_text(attributes(kind)[i], values[i]) + ": no message can write it");
}

static void judge_names_of(Judge &judge, const Node &node)
{
    std::string record = record_name("node", std::to_string(node.uid)), path = fmt::format("Node/{}", node.uid);
    if (judge.published(node)) {
        LinkDirectory links{Fault::none, "", node.vdisks.links};
        judge_directory(judge, record, path + "/vdisks", links, usable_uuid);
        return;
    }
    judge_directory(judge, record, path + "/vdisks", node.vdisks, usable_uuid);
    judge_blocked(judge, record, path, Kind::node, node.access, node.values);
}

static void judge_names_of(Judge &judge, const Datastore &datastore, bool published)
{
    std::string record = record_name("datastore", datastore.uuid), path = "Datastore/" + datastore.uuid;
    judge_directory(judge, record, path + "/members", datastore.members, usable_uid);
    judge_directory(judge, record, path + "/vdisks", datastore.vdisks, usable_uuid);
    if (!published)
        judge_blocked(judge, record, path, Kind::datastore, datastore.access, datastore.values);
}

/* Of a VDisk that no node of this host publishes, the values that reports write again. */
static void judge_names_of(Judge &judge, const VDisk &vdisk)
{
    std::string record = record_name("vdisk", vdisk.uuid), path = "VDisk/" + vdisk.uuid;
    LinkDirectory snapshots{Fault::none, "", vdisk.snapshots.links};
    judge_directory(judge, record, path + "/snapshots", snapshots, usable_uuid);
    std::vector<uint32_t> publishers = judge.publishers(vdisk.uuid);
    if (publishers.empty()) {
        Values reported(vdisk.values.size(), Value{"", Fault::none});
        for (const char *key : {"sectors", "membership"}) {
            auto index = static_cast<size_t>(attribute_index(Kind::vdisk, key));
            if (index < reported.size())
                reported[index] = vdisk.values[index];
        }
        judge_blocked(judge, record, path, Kind::vdisk, {}, reported);
    }
    for (const Member &member : vdisk.members)
        if (std::find(publishers.begin(), publishers.end(), member.uid) == publishers.end())
            judge_blocked(judge, record, fmt::format("{}/memberinfo/{}", path, member.uid), Kind::member, member.access,
                          member.values);
}

void judge_names(Judge &judge)
{
    for (const Stray &stray : judge.cluster.strays)
        judge_stray(judge, stray);
    std::set<std::string> published;
    for (const auto &[uid, node] : judge.cluster.nodes) {
        judge_names_of(judge, node);
        if (judge.published(node) && node.value("datastoremember").good())
            published.insert(node.value("datastoremember").text);
    }
    for (const auto &[uuid, datastore] : judge.cluster.datastores)
        judge_names_of(judge, datastore, published.contains(uuid));
    for (const auto &[uuid, vdisk] : judge.cluster.vdisks)
        if (vdisk.depth == Depth::whole && vdisk.access.fault == Fault::none && vdisk.memberinfo == Fault::none)
            judge_names_of(judge, vdisk);
}

} // namespace mwctl
