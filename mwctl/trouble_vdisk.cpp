/* Rules about VDisk records: values, member records, transactions. */
#include "mwctl/text.h"
#include "mwctl/trouble_rules.h"

#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

static std::string path_of(const VDisk &vdisk)
{
    return "VDisk/" + vdisk.uuid;
}

static std::string record_of(const VDisk &vdisk)
{
    return record_name("vdisk", vdisk.uuid);
}

static void involve_nodes(Trouble &trouble, const std::vector<const Node *> &nodes)
{
    for (const Node *node : nodes)
        trouble.involved.insert(record_name("node", std::to_string(node->uid)));
}

/* What a faulty record does to the nodes of this host that have the VDisk: ", and every PING of node 7 is kept back".
 */
static std::string kept_back(const std::vector<uint32_t> &publishers)
{
    return publishers.empty() ? "" : fmt::format(", and every PING of {} is kept back", nodes_text(publishers));
}

/* Whether the record has the value, by its kind. Of a record whose kind cannot be read, what both kinds have. */
static bool applies(const Attribute &attribute, const VDisk &vdisk)
{
    if (attribute.applies == Applies::always)
        return true;
    return vdisk.value("snapshot").good() && vdisk.snapshot() == (attribute.applies == Applies::snapshot);
}

static const Attribute &attribute_of(Kind kind, std::string_view key)
{
    return attributes(kind)[static_cast<size_t>(attribute_index(kind, key))];
}

/* What only a creation writes, and without which nobody can remove the VDisk. */
static Flaws base_flaws(const VDisk &vdisk)
{
    Flaws flaws;
    for (size_t i = 0; i < vdisk.values.size(); i++) {
        const Attribute &attribute = attributes(Kind::vdisk)[i];
        if (attribute.need != Need::removal || attribute.key == "sectors" || !applies(attribute, vdisk))
            continue;
        if (!vdisk.values[i].good())
            flaws.add(path_of(vdisk), attribute, vdisk.values[i]);
        else if (attribute.key == "parent" && !uuid_usable(vdisk.values[i].text))
            flaws.add(path_of(vdisk) + "/parent", "names no VDisk");
    }
    return flaws;
}

/* What a PING of the node needs besides. */
static void add_publication_flaws(Flaws &flaws, const VDisk &vdisk, uint32_t uid)
{
    for (const char *key : {"sectors", "membership"})
        if (!vdisk.value(key).good())
            flaws.add(path_of(vdisk), attribute_of(Kind::vdisk, key), vdisk.value(key));
    std::string path = fmt::format("{}/memberinfo/{}", path_of(vdisk), uid);
    const Member *member = vdisk.member(uid);
    if (!member || member->access.fault != Fault::none) {
        flaws.add(path, member ? fmt::format("cannot be read: {}", member->access.reason) : "is missing");
        return;
    }
    for (size_t i = 0; i < member->values.size(); i++)
        if (attributes(Kind::member)[i].need == Need::published && !member->values[i].good())
            flaws.add(path, attributes(Kind::member)[i], member->values[i]);
}

/* How a program of this host writes the file again. */
static std::string write_action(const VDisk &vdisk, const std::string &file, uint32_t uid)
{
    std::string key = file.substr(file.rfind('/') + 1);
    std::string member = fmt::format("{}/memberinfo/{}", path_of(vdisk), uid);
    if (file == member || key == "memberinfo" || key == "snapshots" || key == "uuid")
        return fmt::format("mwctl new vdisk {} --node {}", shell_word(vdisk.uuid), uid);
    if (file.starts_with(member))
        return fmt::format("mwctl set {}/{} {}=VALUE", shell_word(record_of(vdisk)), uid, key);
    return fmt::format("mwctl set {} {}=VALUE", shell_word(record_of(vdisk)), key);
}

/* The action for a record that is lost: peers bring it back, or whoever is this host's own writes it. */
static void decide(Trouble &trouble, const Judge &judge, const VDisk &vdisk, const Flaws &flaws,
                   const std::vector<uint32_t> &publishers)
{
    trouble.repairable = !flaws.refused && judge.peers_only(vdisk);
    if (trouble.repairable)
        trouble.action = "mwctl check --repair";
    else if (flaws.refused)
        trouble.action = fmt::format("make it readable: ls -l {}", shell_path(judge.cluster, flaws.files[0]));
    else if (!publishers.empty())
        trouble.action =
            fmt::format("{}; or give it up: mwctl drop vdisk {} --node {}",
                        write_action(vdisk, flaws.files[0], publishers[0]), shell_word(vdisk.uuid), publishers[0]);
    else
        trouble.action =
            fmt::format("write {} again, or decide that the record may go: mwctl show {}",
                        flaws.files[0].substr(flaws.files[0].rfind('/') + 1), "vdisk " + shell_word(vdisk.uuid));
    trouble.witnesses.insert(flaws.files.begin(), flaws.files.end());
    involve_nodes(trouble, judge.linked(vdisk.uuid));
}

/* Returns whether the record was created or removed only in part, in which case nothing else of it is looked at. */
static bool judge_cut_short(Judge &judge, const VDisk &vdisk, const std::vector<uint32_t> &publishers)
{
    Flaws flaws;
    std::string effect;
    const Value &generation = vdisk.value("highest_gen_count");
    if (vdisk.memberinfo == Fault::missing || vdisk.memberinfo == Fault::no_file) {
        flaws.add(path_of(vdisk) + "/memberinfo",
                  vdisk.memberinfo == Fault::missing ? "is missing" : "is no directory");
        effect = "its creation or its removal was cut short, and every report of it fails";
    } else if (!generation.good() && (!generation.missing() || judge.reported_by_peers(vdisk))) {
        flaws.add(path_of(vdisk), attribute_of(Kind::vdisk, "highest_gen_count"), generation);
        effect = "its creation was cut short, and every report that would change it fails";
    } else {
        return false;
    }
    bool removable = base_flaws(vdisk).empty() && vdisk.value("sectors").good();
    std::vector<uint32_t> held_back;
    if (vdisk.memberinfo != Fault::none || !removable)
        held_back = publishers;
    std::string text =
        fmt::format("{}: {}{}{}", flaws.text(), effect, removable ? "" : ", its removal too", kept_back(held_back));
    Trouble &trouble = judge.add("VDISK_CUT_SHORT", record_of(vdisk), flaws.files[0], std::move(text), "");
    trouble.holds_back.insert(held_back.begin(), held_back.end());
    decide(trouble, judge, vdisk, flaws, publishers);
    return true;
}

static void judge_values(Judge &judge, const VDisk &vdisk, const std::vector<uint32_t> &publishers)
{
    Flaws flaws = base_flaws(vdisk);
    bool keeps_removal = !flaws.empty();
    if (vdisk.memberinfo == Fault::unreadable) {
        flaws.add(path_of(vdisk) + "/memberinfo", fmt::format("cannot be read: {}", vdisk.memberinfo_reason));
        flaws.refused = true;
    }
    for (uint32_t uid : publishers)
        if (vdisk.memberinfo == Fault::none)
            add_publication_flaws(flaws, vdisk, uid);
    std::string effect = keeps_removal ? "the VDisk cannot be removed" : "";
    std::set<uint32_t> held_back;
    if (!flaws.empty())
        held_back.insert(publishers.begin(), publishers.end());
    bool snapshots_lost = vdisk.value("snapshot").good() && !vdisk.snapshot() && vdisk.snapshots.fault != Fault::none &&
                          judge.reported_by_peers(vdisk);
    if (snapshots_lost && flaws.empty()) {
        flaws.add(path_of(vdisk) + "/snapshots", vdisk.snapshots.fault == Fault::missing ? "is missing"
                                                 : vdisk.snapshots.fault == Fault::no_file
                                                     ? "is no directory"
                                                     : fmt::format("cannot be read: {}", vdisk.snapshots.reason));
        effect = "the reports of its Snapshots fail";
    } else if (!flaws.empty() && !publishers.empty()) {
        effect += fmt::format("{}every PING of {} is kept back", keeps_removal ? ", and " : "", nodes_text(publishers));
    }
    if (flaws.empty())
        return;
    Trouble &trouble = judge.add("VDISK_UNREADABLE", record_of(vdisk), flaws.files[0],
                                 fmt::format("{}: {}", flaws.text(), effect), "");
    trouble.holds_back = held_back;
    decide(trouble, judge, vdisk, flaws, publishers);
}

static void judge_transaction(Judge &judge, const VDisk &vdisk, const std::vector<uint32_t> &publishers)
{
    const Value &transaction = vdisk.value("transaction_id");
    if (transaction.missing())
        return;
    std::string file = path_of(vdisk) + "/transaction_id";
    std::string end = fmt::format("mwctl set {} transaction_id=0", shell_word(record_of(vdisk)));
    double age = std::max(0.0, judge.cluster.now_exact - static_cast<double>(vdisk.transaction_time));
    if (!transaction.good())
        judge
            .add("TRANSACTION_UNREADABLE", record_of(vdisk), file,
                 fmt::format("{} {}: the VDisk cannot be removed{}", file,
                             fault_text(attribute_of(Kind::vdisk, "transaction_id"), transaction),
                             kept_back(publishers)),
                 "write the transaction's number again, or end it: " + end)
            .holds_back.insert(publishers.begin(), publishers.end());
    else if (vdisk.number("transaction_id") != 0)
        judge.add("TRANSACTION_OPEN", record_of(vdisk), file,
                  fmt::format("transaction {} is open for {}: {}", vdisk.number("transaction_id"), human_age(age),
                              publishers.empty() ? "no node of this host publishes the VDisk, so it holds back nothing"
                                                 : fmt::format("what {} reports of the VDisk changes nothing on other "
                                                               "hosts",
                                                               nodes_text(publishers))),
                  "if its program is gone, end it: " + end);
}

static void judge_parent(Judge &judge, const VDisk &vdisk)
{
    const Value &parent = vdisk.value("parent");
    if (!vdisk.snapshot() || !parent.good() || !uuid_usable(parent.text) || judge.cluster.vdisk(parent.text))
        return;
    judge
        .add("SNAPSHOT_ORPHAN", record_of(vdisk), path_of(vdisk) + "/parent",
             fmt::format("its parent {} is not in the tree: it was removed, or nobody has reported it here yet",
                         parent.text),
             fmt::format("see on the other hosts whether {} still exists; if not, the Snapshot stands alone",
                         shell_word(parent.text)))
        .involved.insert(record_name("vdisk", parent.text));
}

/* Member records that nothing ties to their node any more. An empty list names nobody only because none was stored. */
static void judge_members(Judge &judge, const VDisk &vdisk)
{
    const Value &membership = vdisk.value("membership");
    if (!membership.good() || membership.text.empty())
        return;
    std::vector<uint32_t> named = vdisk.membership();
    const std::vector<const Node *> &nodes = judge.linked(vdisk.uuid);
    for (const Member &member : vdisk.members) {
        bool linked =
            std::any_of(nodes.begin(), nodes.end(), [&](const Node *node) { return node->uid == member.uid; });
        if (linked || std::find(named.begin(), named.end(), member.uid) != named.end())
            continue;
        std::string file = fmt::format("{}/memberinfo/{}", path_of(vdisk), member.uid);
        bool repairable = judge.peers_only(vdisk);
        Trouble &trouble = judge.add(
            "VDISK_MEMBER_LEFT_BEHIND", record_of(vdisk), file,
            fmt::format("node {} has a member record, and neither membership nor a link names it: the VDisk outlives "
                        "its last member",
                        member.uid),
            repairable ? "mwctl check --repair"
                       : fmt::format("if node {} has no share of it: mwctl lock {} -- rm -r {}", member.uid,
                                     shell_word(record_of(vdisk)), shell_path(judge.cluster, file)));
        trouble.repairable = repairable;
        trouble.involved.insert(record_name("node", std::to_string(member.uid)));
        trouble.witnesses.insert(path_of(vdisk) + "/membership");
        trouble.witnesses.insert(fmt::format("Node/{}/vdisks/{}", member.uid, vdisk.uuid));
    }
}

void judge_vdisks(Judge &judge)
{
    for (const auto &[uuid, vdisk] : judge.cluster.vdisks) {
        if (vdisk.depth != Depth::whole)
            continue;
        std::vector<uint32_t> publishers = judge.publishers(uuid);
        if (vdisk.access.fault != Fault::none) {
            judge
                .add("VDISK_UNREADABLE", record_of(vdisk), path_of(vdisk),
                     fmt::format("{} cannot be read: {}{}", path_of(vdisk), vdisk.access.reason, kept_back(publishers)),
                     fmt::format("make it readable: ls -ld {}", shell_path(judge.cluster, path_of(vdisk))))
                .holds_back.insert(publishers.begin(), publishers.end());
            continue;
        }
        judge_transaction(judge, vdisk, publishers);
        if (judge_cut_short(judge, vdisk, publishers))
            continue;
        judge_values(judge, vdisk, publishers);
        judge_parent(judge, vdisk);
        judge_members(judge, vdisk);
    }
}

} // namespace mwctl
