#include "mwctl/new_vdisk.h"

#include "mwctl/failure.h"
#include "mwctl/ownership.h"
#include "mwctl/render.h"
#include "mwd/netlib.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>

namespace mwctl
{

/* What the request comes to, once the tree around it has been looked at under the VDisk's lock. */
struct VDiskPlan {
    bool snapshot = false;
    std::string parent, datastore; /* empty: none */
    std::vector<Change> values, member_values;
};

/* The node that is to have the VDisk; this host's own, and able to publish. */
static const Node &require_node(const Cluster &cluster, const RecordName &name)
{
    const Node *node = cluster.node(name.uid);
    if (!node)
        give_up(fmt::format("{} is not in the tree: mwctl new node {}", name.text(), name.uid));
    if (!own_node(cluster, name.uid))
        refuse(fmt::format("{} is a peer's: make its VDisks on its own host", name.text()));
    if (node->vdisks.fault != Fault::none)
        give_up(
            fmt::format("{}/vdisks cannot be used: mwctl new node {} makes what is missing", name.path(), name.uid));
    return *node;
}

static std::string require_datastore(const Cluster &cluster, const Node &node)
{
    const Value &value = node.value("datastoremember");
    if (!value.good() || value.text.empty())
        return "";
    if (!cluster.datastore(value.text))
        give_up(fmt::format("datastore/{}, which node {} names, is not in the tree: mwctl new datastore {}", value.text,
                            node.uid, value.text));
    return value.text;
}

/* A Plain VDisk of the tree. */
static VDisk require_parent(const Settings &settings, const RecordName &vdisk, const RecordName &parent)
{
    if (vdisk.name == parent.name)
        refuse(fmt::format("{} cannot be a Snapshot of itself", vdisk.text()));
    Cluster cluster = read_around(settings, parent);
    require_record(cluster, parent);
    const VDisk &record = *cluster.vdisk(parent.name);
    if (!record.value("snapshot").good())
        give_up(fmt::format("{} cannot be read: mwctl show vdisk {}", parent.text(), parent.name));
    if (record.snapshot())
        refuse(fmt::format("{} is a Snapshot itself; only a Plain VDisk has Snapshots", parent.text()));
    return record;
}

static std::string now_as_snaptime()
{
    time_t now = time(nullptr);
    struct tm t;
    gmtime_r(&now, &t);
    return fmt::format("{:02}-{:02}-{:02}_{:02}.{:02}.{:02}", t.tm_year % 100, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                       t.tm_min, t.tm_sec);
}

/*
 * A record that is there in part may only be finished if it is the node's: the membership is written first of all, and
 * by a report last. Returns the record, or null if nothing of it is there.
 */
static const VDisk *require_own(const Cluster &cluster, const HeldRecord &held, const VDiskRequest &request)
{
    const VDisk *existing = cluster.vdisk(request.vdisk.name);
    std::vector<std::string> entries = held.list(".");
    std::erase(entries, ".membership.new");
    if (!existing || entries.empty())
        return nullptr;
    const Value &membership = existing->value("membership");
    std::vector<uint32_t> uids = existing->membership();
    bool named = std::find(uids.begin(), uids.end(), request.node.uid) != uids.end();
    if (membership.good() && !named)
        refuse(fmt::format("{} exists, and its membership does not name {}: its members have to take the node in",
                           request.vdisk.text(), request.node.text()));
    if (!membership.good() && !(request.given.contains("membership") && own_record(cluster, request.vdisk)))
        give_up(fmt::format("{} exists in part, and nothing says that {} has a share of it: mwctl check",
                            request.vdisk.text(), request.node.text()));
    return existing;
}

/* "generation" stands for both counts. */
static void spread_generation(Texts &given)
{
    auto generation = given.find("generation");
    if (generation == given.end())
        return;
    for (const char *key : {"highest_gen_count", "membership_gen_count"})
        if (!given.emplace(key, generation->second).second)
            refuse(fmt::format("generation and {} are both given", key));
    given.erase("generation");
}

static void settle_kind(VDiskPlan &plan, const VDiskRequest &request, const VDisk *existing)
{
    plan.parent = request.parent ? request.parent->name : "";
    plan.snapshot = request.parent.has_value();
    if (existing && existing->value("snapshot").good()) {
        if (request.parent && !existing->snapshot())
            refuse(fmt::format("{} exists and is no Snapshot", request.vdisk.text()));
        plan.snapshot = existing->snapshot();
        if (plan.snapshot && !request.parent && existing->value("parent").good())
            plan.parent = existing->value("parent").text;
    }
    auto kind = request.given.find("snapshot");
    if (kind != request.given.end() && check_value(Kind::vdisk, "snapshot", kind->second).text == "0" && plan.snapshot)
        refuse("a Snapshot's snapshot is not 0");
    if (kind != request.given.end() && !plan.snapshot && check_value(Kind::vdisk, "snapshot", kind->second).text != "0")
        refuse("a Snapshot needs its parent: --snapshot-of PARENT");
    if (plan.snapshot && plan.parent.empty())
        refuse(fmt::format("{} is a Snapshot: name its parent with --snapshot-of", request.vdisk.text()));
}

/* What is usual for this VDisk. A Snapshot is as large as its parent, and made now. */
static Texts usual_values(const VDiskPlan &plan, const VDiskRequest &request)
{
    return {{"uuid", request.vdisk.name},      {"name", request.vdisk.name},
            {"membership", request.node.name}, {"snapshot", plan.snapshot ? "1" : "0"},
            {"parent", plan.parent},           {"snaptime", now_as_snaptime()}};
}

static void add_parent_values(Texts &usual, const VDisk &parent)
{
    for (const char *key : {"sector_size", "sectors", "replicas", "st_mems", "st_size"})
        if (parent.value(key).good())
            usual[key] = value_text(attribute_of(Kind::vdisk, key), parent.value(key));
}

static const Change &planned(const std::vector<Change> &changes, std::string_view key)
{
    return *std::find_if(changes.begin(), changes.end(),
                         [&](const Change &change) { return change.attribute->key == key; });
}

static VDiskPlan make_vdisk_plan(const Settings &settings, VDiskRequest request, const VDisk *existing)
{
    VDiskPlan plan;
    settle_kind(plan, request, existing);
    Texts usual = usual_values(plan, request);
    if (request.parent)
        add_parent_values(usual, require_parent(settings, request.vdisk, *request.parent));
    Texts &given = request.given;
    if (request.parent && !given.emplace("parent", plan.parent).second && given["parent"] != plan.parent)
        refuse("--snapshot-of and parent name two VDisks");
    plan.values = make_plan(Kind::vdisk, plan.snapshot, given, usual);
    /* A report below the highest generation changes nothing. */
    std::string generation = planned(plan.values, "highest_gen_count").text;
    if (existing && existing->value("highest_gen_count").good())
        generation = std::to_string(existing->number("highest_gen_count"));
    plan.member_values = make_plan(Kind::member, plan.snapshot, given, {{"membership_gen_count", generation}});
    require_all_taken(given, "VDisk");

    const Attribute &membership = attribute_of(Kind::vdisk, "membership");
    Value uids = parse_value(membership, *planned(plan.values, "membership").bytes);
    auto lines = value_lines(uids);
    if (std::find(lines.begin(), lines.end(), request.node.name) == lines.end())
        refuse(fmt::format("membership has to name {}, or no peer keeps what the node reports", request.node.text()));
    return plan;
}

/* One PING carries all VDisks of the node, and one that does not fit is not sent at all. */
static void require_room(const Cluster &cluster, const Node &node, const VDiskPlan &plan)
{
    constexpr size_t datagram = 65507;
    auto lines = [](const Change &change) {
        return static_cast<size_t>(std::count(change.bytes->begin(), change.bytes->end(), '\n'));
    };
    size_t bytes = ping_bytes(cluster, node).value_or(sizeof(Hdr)) + sizeof(VDiskEntry) +
                   lines(planned(plan.values, "membership")) * sizeof(MemberEntry) +
                   lines(planned(plan.member_values, "frontend")) * sizeof(FrontendEntry);
    if (bytes > datagram)
        give_up(fmt::format("the PING of node {} would take {} bytes, and a datagram carries {}: choose another node",
                            node.uid, bytes, datagram));
}

/* Each writes what is missing and returns whether anything was. */

static bool write_values(HeldRecord &held, const VDiskPlan &plan, std::vector<Change> missing)
{
    bool snapshots = plan.snapshot || held.has("snapshots");
    if (missing.empty() && held.has("memberinfo") && snapshots)
        return false;
    held.make_directory();
    /* Where the highest generation stands, everything else of the VDisk's own was written. */
    std::stable_partition(missing.begin(), missing.end(),
                          [](const Change &change) { return change.attribute->key != "highest_gen_count"; });
    size_t next = 0;
    if (!missing.empty() && missing[0].attribute->key == "membership")
        held.write(missing[next++]);
    held.make_directory("memberinfo");
    if (!plan.snapshot)
        held.make_directory("snapshots");
    for (; next < missing.size(); next++)
        held.write(missing[next]);
    held.sync();
    return true;
}

static bool write_member(HeldRecord &held, const std::string &directory, const RecordName &node,
                         const std::vector<Change> &missing)
{
    held.make_directory(directory);
    for (const Change &change : missing)
        held.write(change, directory);
    bool linked = held.link(directory + "/nodestatus", fmt::format("../../../../Node/{}/status", node.name));
    if (missing.empty() && !linked)
        return false;
    held.sync(directory);
    return true;
}

/* Makes a link in another record, under that one's lock. */
static bool link_in(const Settings &settings, const RecordName &record, const std::string &directory,
                    const RecordName &vdisk)
{
    HeldRecord held(settings, record);
    held.make_directory(directory);
    if (!held.link(fmt::format("{}/{}", directory, vdisk.name), "../../../VDisk/" + vdisk.name))
        return false;
    held.sync(directory);
    return true;
}

/* The first member whose node names a datastore decides where the VDisk belongs. */
static bool link_datastore(const Settings &settings, HeldRecord &held, const RecordName &vdisk, const VDisk *existing,
                           const std::string &name)
{
    if (name.empty() || (existing && existing->has_datastore && existing->datastore_name() != name))
        return false;
    bool forth = held.link("datastore", "../../Datastore/" + name);
    return link_in(settings, datastore_record(name), "vdisks", vdisk) || forth;
}

std::vector<std::string> make_vdisk(const Settings &settings, VDiskRequest request)
{
    spread_generation(request.given);
    Cluster cluster = read_around(settings, request.node);
    const Node &node = require_node(cluster, request.node);
    std::string datastore = require_datastore(cluster, node);
    HeldRecord held(settings, request.vdisk);
    Cluster around = read_around(settings, request.vdisk);
    const VDisk *existing = require_own(around, held, request);
    VDiskPlan plan = make_vdisk_plan(settings, request, existing);
    std::string directory = "memberinfo/" + request.node.name;
    RecordName member = member_record(request.vdisk, request.node.uid);
    std::vector<Change> missing = missing_values(held, ".", request.vdisk, plan.values);
    std::vector<Change> member_missing = missing_values(held, directory, member, plan.member_values);
    require_room(cluster, node, plan);

    std::vector<std::string> steps;
    auto note = [&](bool done, const std::string &text) {
        if (done)
            steps.push_back(text);
    };
    if (!datastore.empty())
        steps = make_datastore(settings, datastore_record(datastore), {}, request.node.uid);
    note(write_values(held, plan, missing), fmt::format("made {}", request.vdisk.text()));
    note(write_member(held, directory, request.node, member_missing),
         fmt::format("{} is a member of it", request.node.text()));
    if (plan.snapshot && read_around(settings, vdisk_record(plan.parent)).vdisk(plan.parent))
        note(link_in(settings, vdisk_record(plan.parent), "snapshots", request.vdisk),
             fmt::format("it is a Snapshot of vdisk/{}", plan.parent));
    note(link_datastore(settings, held, request.vdisk, existing, datastore), "it belongs to datastore/" + datastore);
    note(link_in(settings, request.node, "vdisks", request.vdisk),
         fmt::format("{} publishes it from now on", request.node.text()));
    return steps;
}

} // namespace mwctl
