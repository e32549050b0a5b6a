/* Rules about the links between records. */
#include "mwctl/trouble_rules.h"

#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

/* A directory of links to VDisks: whose it is, and whether a repair may change it. */
struct LinkPlace {
    std::string record, path; /* "node/7", "Node/7/vdisks" */
    std::string effect;       /* of a link with no record behind it */
    bool repairs_dangling, repairs_wrong;
    std::set<uint32_t> held_back = {}; /* nodes whose messages such a link holds back */
};

static void add_link_trouble(Judge &judge, const char *code, const LinkPlace &place, const Link &link,
                             const std::string &text, bool repairable)
{
    std::string file = fmt::format("{}/{}", place.path, link.name);
    Trouble &trouble = judge.add(code, place.record, file, text, "mwctl check --repair");
    trouble.repairable = repairable;
    if (!repairable)
        trouble.action =
            fmt::format("mwctl lock {} -- rm {}", shell_word(place.record), shell_path(judge.cluster, file));
}

/* The action for a wrong target that no repair corrects: what the link should be. */
static std::string relink_action(const Judge &judge, const std::string &record, const std::string &file,
                                 const std::string &target)
{
    return fmt::format("mwctl lock {} -- ln -sfn {} {}", shell_word(record), shell_word(target),
                       shell_path(judge.cluster, file));
}

static void judge_target(Judge &judge, const LinkPlace &place, const Link &link, const std::string &expected)
{
    if (link.target == expected)
        return;
    add_link_trouble(judge, "VDISK_LINK_WRONG", place, link,
                     fmt::format("{}/{} points at {}, not at {}: who follows it finds something else", place.path,
                                 link.name, link.target, expected),
                     place.repairs_wrong);
    if (!place.repairs_wrong)
        judge.troubles.back().action = relink_action(judge, place.record, judge.troubles.back().file, expected);
}

static void judge_vdisk_links(Judge &judge, const LinkPlace &place, const LinkDirectory &directory)
{
    for (const Link &link : directory.links) {
        if (!uuid_usable(link.name))
            continue;
        if (judge.cluster.vdisk(link.name)) {
            judge_target(judge, place, link, "../../../VDisk/" + link.name);
            continue;
        }
        add_link_trouble(judge, "VDISK_LINK_DANGLING", place, link,
                         fmt::format("{}/{} has no record behind it: {}", place.path, link.name, place.effect),
                         place.repairs_dangling);
        judge.troubles.back().involved.insert(record_name("vdisk", link.name));
        judge.troubles.back().holds_back = place.held_back;
    }
}

static void judge_links_of(Judge &judge, const Node &node)
{
    bool repairs = judge.cluster.settings.local_nodes_whole && !judge.cluster.local(node);
    LinkPlace place = {record_name("node", std::to_string(node.uid)), fmt::format("Node/{}/vdisks", node.uid),
                       judge.published(node) ? "every PING of the node is kept back"
                                             : "each PING of the node takes it for stale, in vain",
                       repairs, repairs};
    if (judge.published(node))
        place.held_back = {node.uid};
    judge_vdisk_links(judge, place, node.vdisks);
}

static void judge_links_of(Judge &judge, const Datastore &datastore)
{
    bool repairs = judge.cluster.settings.local_nodes_whole;
    std::string record = record_name("datastore", datastore.uuid);
    judge_vdisk_links(judge,
                      {record, fmt::format("Datastore/{}/vdisks", datastore.uuid),
                       "the datastore shows a VDisk that is gone, and no message removes the link", repairs, repairs},
                      datastore.vdisks);
    LinkPlace members = {record, fmt::format("Datastore/{}/members", datastore.uuid), "", repairs, repairs};
    for (const Link &link : datastore.members.links)
        if (uid_from(link.name))
            judge_target(judge, members, link, "../../../Node/" + link.name);
}

/* The links are ascending. */
static bool has_link(const LinkDirectory &directory, const std::string &name)
{
    auto found = std::lower_bound(directory.links.begin(), directory.links.end(), name,
                                  [](const Link &link, const std::string &wanted) { return link.name < wanted; });
    return found != directory.links.end() && found->name == name;
}

/* The link `datastore` of a VDisk: it has the one form, and the datastore links back. */
static void judge_datastore_link(Judge &judge, const VDisk &vdisk, bool repairs)
{
    if (!vdisk.has_datastore)
        return;
    std::string record = record_name("vdisk", vdisk.uuid), path = "VDisk/" + vdisk.uuid;
    std::string name = vdisk.datastore_name(), expected = "../../Datastore/" + name;
    if (!uuid_usable(name)) {
        judge.add("VDISK_LINK_WRONG", record, path + "/datastore",
                  fmt::format("{}/datastore {}: the removal of the VDisk fails half way", path,
                              vdisk.datastore.empty() ? "is no link" : "names no datastore"),
                  fmt::format("put the right link in its place: mwctl lock {} -- ln -sfn ../../Datastore/NAME {}",
                              shell_word(record), shell_path(judge.cluster, path + "/datastore")));
        return;
    }
    judge_target(judge, {record, path, "", repairs, repairs}, {"datastore", vdisk.datastore}, expected);
    const Datastore *datastore = judge.cluster.datastore(name);
    if (datastore && (has_link(datastore->vdisks, vdisk.uuid) || datastore->vdisks.fault == Fault::unreadable))
        return;
    std::string link = fmt::format("Datastore/{}/vdisks/{}", name, vdisk.uuid);
    std::string action = "mwctl check --repair";
    if (!repairs && datastore)
        action = fmt::format("mwctl lock {} -- ln -s ../../../VDisk/{} {}", shell_word(record_name("datastore", name)),
                             shell_word(vdisk.uuid), shell_path(judge.cluster, link));
    else if (!repairs)
        action =
            fmt::format("mwctl lock {} -- rm {}", shell_word(record), shell_path(judge.cluster, path + "/datastore"));
    Trouble &trouble = judge.add("VDISK_DATASTORE_ONE_SIDED", record, path + "/datastore",
                                 fmt::format("it links to datastore {}, which {}: no message makes the other half",
                                             name, datastore ? "does not link back" : "has no record"),
                                 action);
    trouble.repairable = repairs;
    trouble.involved.insert(record_name("datastore", name));
    trouble.witnesses.insert(link);
}

static void judge_links_of(Judge &judge, const VDisk &vdisk)
{
    std::string record = record_name("vdisk", vdisk.uuid), path = "VDisk/" + vdisk.uuid;
    bool repairs = judge.peers_only(vdisk);
    judge_vdisk_links(judge,
                      {record, path + "/snapshots",
                       "the VDisk shows a Snapshot that is gone, and no message removes the "
                       "link",
                       judge.cluster.settings.local_nodes_whole, repairs},
                      vdisk.snapshots);
    for (const Member &member : vdisk.members)
        if (!member.nodestatus.empty())
            judge_target(judge, {record, fmt::format("{}/memberinfo/{}", path, member.uid), "", repairs, repairs},
                         {"nodestatus", member.nodestatus}, fmt::format("../../../../Node/{}/status", member.uid));
    judge_datastore_link(judge, vdisk, repairs);
}

void judge_links(Judge &judge)
{
    for (const auto &[uid, node] : judge.cluster.nodes)
        judge_links_of(judge, node);
    for (const auto &[uuid, datastore] : judge.cluster.datastores)
        judge_links_of(judge, datastore);
    for (const auto &[uuid, vdisk] : judge.cluster.vdisks)
        if (vdisk.depth == Depth::whole && vdisk.access.fault == Fault::none)
            judge_links_of(judge, vdisk);
}

} // namespace mwctl
