/* Rules about datastore records and their members. */
#include "mwctl/trouble_rules.h"

#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

/* The datastore that the node names; empty for none and for one that cannot be read. */
static std::string named_by(const Node &node)
{
    const Value &value = node.value("datastoremember");
    return value.good() ? value.text : "";
}

static const Link *member_link(const Datastore &datastore, uint32_t uid)
{
    const auto &links = datastore.members.links;
    auto found = std::find_if(links.begin(), links.end(),
                              [name = std::to_string(uid)](const Link &link) { return link.name == name; });
    return found == links.end() ? nullptr : &*found;
}

/* Of each datastore the nodes of this host that name it. */
static std::map<std::string, std::vector<uint32_t>> local_members(const Judge &judge)
{
    std::map<std::string, std::vector<uint32_t>> members;
    for (const auto &[uid, node] : judge.cluster.nodes)
        if (judge.published(node) && uuid_usable(named_by(node)))
            members[named_by(node)].push_back(uid);
    return members;
}

static void judge_values(Judge &judge, const std::string &uuid, const std::vector<uint32_t> &uids)
{
    const Datastore *datastore = judge.cluster.datastore(uuid);
    std::string record = record_name("datastore", uuid), path = "Datastore/" + uuid;
    Flaws flaws;
    std::string action = fmt::format("mwctl new datastore {}", shell_word(uuid));
    if (!datastore) {
        flaws.add(path, "is missing");
    } else if (datastore->access.fault != Fault::none) {
        flaws.add(path, fmt::format("cannot be read: {}", datastore->access.reason));
        action = fmt::format("make it readable: ls -ld {}", shell_path(judge.cluster, path));
    } else {
        for (size_t i = 0; i < datastore->values.size(); i++)
            if (!datastore->values[i].good())
                flaws.add(path, attributes(Kind::datastore)[i], datastore->values[i]);
        if (!flaws.empty())
            action = fmt::format("mwctl set {} {}=VALUE", shell_word(record),
                                 flaws.files[0].substr(flaws.files[0].rfind('/') + 1));
    }
    if (flaws.empty())
        return;
    Trouble &trouble = judge.add("DATASTORE_UNREADABLE", record, flaws.files[0],
                                 fmt::format("{}: no DS_PING of {} is sent, and peers do not learn who belongs to it",
                                             flaws.text(), nodes_text(uids)),
                                 action);
    trouble.holds_back.insert(uids.begin(), uids.end());
    for (uint32_t uid : uids)
        trouble.involved.insert(record_name("node", std::to_string(uid)));
}

static void judge_membership(Judge &judge, const Datastore &datastore, uint32_t uid)
{
    if (member_link(datastore, uid))
        return;
    std::string link = fmt::format("Datastore/{}/members/{}", datastore.uuid, uid);
    std::string record = record_name("datastore", datastore.uuid);
    Trouble &trouble = judge.add(
        "DATASTORE_NOT_MEMBER", record, link,
        fmt::format("node {} names the datastore, which does not link it: the record goes with its last other member",
                    uid),
        fmt::format("mwctl lock {} -- ln -s ../../../Node/{} {}", shell_word(record), uid,
                    shell_path(judge.cluster, link)));
    trouble.involved.insert(record_name("node", std::to_string(uid)));
    trouble.witnesses.insert(fmt::format("Node/{}/datastoremember", uid));
}

/* Whether a repair may take the member out: it is a peer, and the record does not go from under a node of this host. */
static bool removable(const Judge &judge, const Datastore &datastore, uint32_t uid, bool named_here)
{
    return judge.cluster.settings.local_nodes_whole && !judge.local(uid) &&
           !(named_here && datastore.members.links.size() <= 1);
}

static void judge_left_behind(Judge &judge, const Datastore &datastore, bool named_here)
{
    for (const Link &link : datastore.members.links) {
        std::optional<uint32_t> uid = uid_from(link.name);
        if (!uid)
            continue;
        const Node *node = judge.cluster.node(*uid);
        const Value *named = node ? &node->value("datastoremember") : nullptr;
        bool unreadable =
            named && !named->missing() && (!named->good() || (!named->text.empty() && !uuid_usable(named->text)));
        if (unreadable || (node && named_by(*node) == datastore.uuid))
            continue;
        std::string file = fmt::format("Datastore/{}/members/{}", datastore.uuid, link.name);
        std::string record = record_name("datastore", datastore.uuid);
        std::string other = !node ? "which has no record" : "which names no datastore";
        if (node && !named_by(*node).empty())
            other = fmt::format("which names datastore {}", named_by(*node));
        bool repairable = removable(judge, datastore, *uid, named_here);
        Trouble &trouble = judge.add(
            "DATASTORE_MEMBER_LEFT_BEHIND", record, file,
            fmt::format("it links node {}, {}: the record stays even when nobody belongs to it any more", *uid, other),
            repairable ? "mwctl check --repair"
                       : fmt::format("if node {} left it: mwctl lock {} -- rm {}", *uid, shell_word(record),
                                     shell_path(judge.cluster, file)));
        trouble.repairable = repairable;
        trouble.involved.insert(record_name("node", link.name));
        trouble.witnesses.insert(fmt::format("Node/{}/datastoremember", *uid));
    }
}

void judge_datastores(Judge &judge)
{
    std::map<std::string, std::vector<uint32_t>> members = local_members(judge);
    for (const auto &[uuid, uids] : members)
        judge_values(judge, uuid, uids);
    for (const auto &[uuid, datastore] : judge.cluster.datastores) {
        auto named = members.find(uuid);
        bool named_here = named != members.end();
        if (named_here && datastore.access.fault == Fault::none)
            for (uint32_t uid : named->second)
                judge_membership(judge, datastore, uid);
        judge_left_behind(judge, datastore, named_here);
    }
}

} // namespace mwctl
