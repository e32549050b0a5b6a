/* drop: a node's share of a VDisk goes, and with the last share the VDisk; then the peers are told. */
#include "mwctl/command.h"
#include "mwctl/control.h"
#include "mwctl/failure.h"
#include "mwctl/ownership.h"
#include "mwctl/publishable.h"
#include "mwctl/steps.h"
#include "mwctl/writer.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

struct Drop {
    const Settings &settings;
    RecordName vdisk, node;
    std::vector<std::string> steps;

    std::string member() const
    {
        return "memberinfo/" + node.name;
    }
    std::string link() const
    {
        return "vdisks/" + vdisk.name;
    }
    void note(bool done, const std::string &text)
    {
        if (done)
            steps.push_back(text);
    }
};

/* Removes the entry of another record, under that one's lock. */
static bool remove_in(const Settings &settings, const RecordName &record, const std::string &entry)
{
    HeldRecord held(settings, record);
    if (!held.remove(entry))
        return false;
    held.sync(entry.substr(0, entry.rfind('/')));
    return true;
}

static bool linked_in_node(const Cluster &cluster, const Drop &drop)
{
    const Node *node = cluster.node(drop.node.uid);
    return node && std::any_of(node->vdisks.links.begin(), node->vdisks.links.end(),
                               [&](const Link &link) { return link.name == drop.vdisk.name; });
}

/* The membership without the node, or nothing if it does not name it. */
static std::optional<Change> reduced_membership(const VDisk &record, const Drop &drop)
{
    const Value &value = record.value("membership");
    if (!value.good() && !value.missing())
        give_up(fmt::format("VDisk/{}/membership {}, and other members are left: mwctl set {} membership=... first",
                            record.uuid, fault_text(attribute_of(Kind::vdisk, "membership"), value),
                            drop.vdisk.text()));
    std::string left;
    bool named = false;
    for (uint32_t uid : record.membership()) {
        named = named || uid == drop.node.uid;
        if (uid != drop.node.uid)
            left += fmt::format("{}{}", left.empty() ? "" : ",", uid);
    }
    if (!named)
        return std::nullopt;
    return check_value(Kind::vdisk, "membership", left);
}

static void leave_others(HeldRecord &held, Drop &drop, const std::optional<Change> &membership)
{
    if (membership) {
        held.write(*membership);
        drop.steps.push_back(fmt::format("{} is out of the membership of {}", drop.node.text(), drop.vdisk.text()));
    }
    drop.note(held.remove(drop.member()), "its member record is removed");
    held.sync("memberinfo");
    held.sync();
}

/*
 * The references go first. The membership, which still names the node, is the last value to go: by it a removal that
 * was cut short is known, and finished.
 */
static void remove_whole(HeldRecord &held, Drop &drop, const Cluster &cluster, const VDisk &record)
{
    const Value &parent = record.value("parent");
    held.remove(drop.member());
    held.remove("memberinfo");
    if (parent.good() && uuid_usable(parent.text) && cluster.vdisk(parent.text))
        drop.note(remove_in(drop.settings, vdisk_record(parent.text), "snapshots/" + drop.vdisk.name),
                  fmt::format("vdisk/{} has this Snapshot no more", parent.text));
    for (const auto &[uuid, datastore] : cluster.datastores)
        if (std::any_of(datastore.vdisks.links.begin(), datastore.vdisks.links.end(),
                        [&](const Link &link) { return link.name == drop.vdisk.name; }))
            drop.note(remove_in(drop.settings, datastore_record(uuid), drop.link()),
                      fmt::format("datastore/{} has it no more", uuid));
    held.remove_record("membership");
    drop.steps.push_back(drop.vdisk.text() + " is removed: it has no other member");
    if (!record.snapshots.links.empty())
        drop.steps.push_back(fmt::format("its {} Snapshots stay, without a parent", record.snapshots.links.size()));
}

/* Whether others have member records, by whatever else stands in their directory. */
static bool others_left(const HeldRecord &held, const Drop &drop)
{
    std::vector<std::string> records = held.list("memberinfo");
    return std::any_of(records.begin(), records.end(), [&](const std::string &name) { return name != drop.node.name; });
}

/* Whether the record is the node's to remove or to leave: something names the node, or nothing is in it at all. */
static bool has_share(const HeldRecord &held, const VDisk &record, const Drop &drop)
{
    std::vector<uint32_t> uids = record.membership();
    return held.list(".").empty() || held.has(drop.member()) ||
           std::find(uids.begin(), uids.end(), drop.node.uid) != uids.end();
}

/* Takes the node out of the VDisk. Returns false if it has nothing to do with it. */
static bool take_out(Drop &drop)
{
    HeldRecord held(drop.settings, drop.vdisk);
    Cluster cluster = read_around(drop.settings, drop.vdisk);
    const VDisk *record = cluster.vdisk(drop.vdisk.name);
    bool linked =
        linked_in_node(cluster, drop) || (!record && linked_in_node(read_around(drop.settings, drop.node), drop));
    bool share = record && (linked || has_share(held, *record, drop));
    bool others = share && others_left(held, drop);
    std::optional<Change> membership;
    if (others)
        membership = reduced_membership(*record, drop);
    if (linked)
        drop.note(remove_in(drop.settings, drop.node, drop.link()),
                  fmt::format("{} does not publish {} any more", drop.node.text(), drop.vdisk.text()));
    if (others)
        leave_others(held, drop, membership);
    else if (share)
        remove_whole(held, drop, cluster, *record);
    return linked || share;
}

static int run_drop(const Options &options, const std::string &uuid, const std::string &uid)
{
    RecordName vdisk = vdisk_record(uuid), node = node_record(uid);
    Settings settings = options.settings();
    Cluster cluster = read_around(settings, node);
    if (record_exists(cluster, node) && !own_record(cluster, node))
        refuse(fmt::format("{} is a peer's: drop its VDisks on its own host", node.text()));
    std::string reason = keeps_back_node(settings, node.uid);
    if (!reason.empty())
        give_up(fmt::format("nothing changed, as mwd could not tell the peers: {}", reason));
    ControlPort port(settings);
    Drop drop{settings, vdisk, node, {}};
    bool had_share = take_out(drop);
    port.send(fmt::format("vdisk_deleted {} {}", node.name, vdisk.name));
    if (!had_share) /* a run that was cut short at its very end leaves this to do */
        give_up(
            fmt::format("{} has no share of {} here; mwd has told the peers so once more", node.text(), vdisk.text()));
    drop.steps.push_back("mwd has told the peers");
    return print_steps(options, vdisk.text(), drop.steps);
}

void add_drop(CLI::App &app, Options &options, int &status)
{
    auto uuid = std::make_shared<std::string>(), uid = std::make_shared<std::string>();
    CLI::App *command = app.add_subcommand("drop", "Give something up, here and on the peers");
    command->require_subcommand(1);
    command->footer("Example:\n  mwctl drop vdisk v1 --node 7");
    CLI::App *vdisk = command->add_subcommand("vdisk", "A node's share of a VDisk; with the last share, the VDisk");
    vdisk->add_option("VDISK", *uuid, "The VDisk's name")->required();
    vdisk->add_option("--node", *uid, "The local node that gives it up")->type_name("NODE")->required();
    vdisk->footer("Example:\n  mwctl drop vdisk v1 --node 7");
    vdisk->callback([&options, &status, uuid, uid] { status = run_drop(options, *uuid, *uid); });
}

} // namespace mwctl
