/* show: everything of one record. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/figures.h"
#include "mwctl/near_names.h"
#include "mwctl/render.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

/* A record with all that is told of it. */
struct Subject {
    Cluster cluster;
    std::string record;
    const char *kind;
    std::vector<Trouble> troubles;
    std::vector<Link> links;              /* out of the record, under their paths */
    std::vector<std::string> linked_from; /* paths of links to it */
    std::string title;                    /* one line: what it is */
    std::string body;                     /* attributes and members, for people */
    Json document;
};

/* ---- Pieces of text ------------------------------------------------------------------------------------------------
 */

static std::string heading(const char *words, const Style &style)
{
    return fmt::format("\n{}{}{}\n", style.bold, words, style.reset);
}

/* Whether the record should have the value. */
static bool expected(const Attribute &attribute, bool snapshot, Kind kind)
{
    bool applies = kind != Kind::vdisk || attribute.applies == Applies::always ||
                   (attribute.applies == Applies::snapshot) == snapshot;
    return applies && attribute.need != Need::optional;
}

static std::string value_text(const Attribute &attribute, const Value &value, double now)
{
    if (!value.good())
        return "(" + fault_text(attribute, value) + ")";
    if (attribute.key == "lastping")
        return fmt::format("{} ({} ago)", value.text,
                           human_age(now - static_cast<double>(value_number(attribute, value))));
    std::string text = value.text;
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text.empty() ? "(empty)" : text;
}

static std::string attributes_text(const Cluster &cluster, Kind kind, const Values &values, bool snapshot,
                                   const Style &style)
{
    Table table({"ATTRIBUTE", "VALUE"});
    for (size_t i = 0; i < values.size(); i++) {
        const Attribute &attribute = attributes(kind)[i];
        if (!values[i].missing() || expected(attribute, snapshot, kind))
            table.add({std::string(attribute.key), value_text(attribute, values[i], cluster.now_exact)});
    }
    return "\n" + table.render(style);
}

static std::string good_text(const Value &value)
{
    return value.good() && !value.text.empty() ? value.text : "-";
}

static std::string heard_text(const Cluster &cluster, uint32_t uid)
{
    const Node *node = cluster.node(uid);
    std::optional<double> age = node ? cluster.age(*node) : std::nullopt;
    return !node ? "no record" : age ? human_age(*age) : "here";
}

static std::string members_text(const Cluster &cluster, const VDisk &vdisk, const Style &style)
{
    std::vector<uint32_t> listed = vdisk.membership();
    std::set<uint32_t> all(listed.begin(), listed.end());
    for (const Member &member : vdisk.members)
        all.insert(member.uid);
    if (all.empty())
        return heading("No member", style);
    Table table({"NODE", "AGE", "LISTED", "GEN", "STATUS", "SEQNO", "NUMKEYS", "PORT", "ST_MEM", "FRONTENDS"});
    for (uint32_t uid : all) {
        const Member *member = vdisk.member(uid);
        bool names = std::find(listed.begin(), listed.end(), uid) != listed.end();
        std::vector<std::string> row = {std::to_string(uid), heard_text(cluster, uid), names ? "yes" : "no"};
        for (const char *key : {"membership_gen_count", "status", "seqno", "numkeys", "port", "st_mem", "frontend"})
            row.push_back(member ? good_text(member->value(key)) : "-");
        std::replace(row.back().begin(), row.back().end(), '\n', ' ');
        table.add(std::move(row));
    }
    return heading("Members", style) + table.render(style, "  ");
}

static std::string nodes_text(const Cluster &cluster, const Datastore &datastore, const Style &style)
{
    Table table({"NODE", "AGE", "SIZE", "FREE", "ALLOCATED", "UTIL", "NAMES IT"});
    for (const Link &link : datastore.members.links) {
        std::optional<uint32_t> uid = uid_from(link.name);
        const Node *node = uid ? cluster.node(*uid) : nullptr;
        auto figure = [&](const char *key) {
            std::optional<uint64_t> value = node ? figure_of(*node, key) : std::nullopt;
            return value ? std::to_string(*value) : "-";
        };
        bool names =
            node && node->value("datastoremember").good() && node->value("datastoremember").text == datastore.uuid;
        table.add({link.name, uid ? heard_text(cluster, *uid) : "-", figure("size"), figure("freespace"),
                   figure("allocatedspace"), figure("utilization"), names ? "yes" : "no"});
    }
    return table.empty() ? heading("No member", style) : heading("Members", style) + table.render(style, "  ");
}

/* A group of names under what they have in common. */
static std::string group_text(const std::string &common, const std::vector<std::string> &names)
{
    constexpr size_t indent = 4;
    return fmt::format("  {} ({})\n    {}\n", printable(common), names.size(),
                       wrap(fmt::format("{}", fmt::join(names, " ")), terminal_width(), indent));
}

/* Links that say nothing but names are listed by directory, all others with their target. */
static std::string links_text(const std::vector<Link> &links, const Style &style)
{
    std::string text;
    std::map<std::string, std::vector<std::string>> directories;
    for (const Link &link : links) {
        size_t slash = link.name.rfind('/') + 1;
        std::string name = link.name.substr(slash);
        if (link.target.ends_with("/" + name))
            directories[link.name.substr(0, slash)].push_back(printable(name));
        else
            text += fmt::format("  {} -> {}\n", printable(link.name), printable(link.target));
    }
    for (const auto &[directory, names] : directories)
        text += group_text(directory, names);
    return text.empty() ? heading("No link", style) : heading("Links", style) + text;
}

/* By what stands around the name of the record that links. */
static std::string back_links_text(const std::vector<std::string> &paths, const Style &style)
{
    std::map<std::string, std::vector<std::string>> places;
    for (const std::string &path : paths) {
        size_t begin = path.find('/') + 1, end = path.find('/', begin);
        places[path.substr(0, begin) + "*" + path.substr(end)].push_back(printable(path.substr(begin, end - begin)));
    }
    std::string text;
    for (const auto &[place, names] : places)
        text += group_text(place, names);
    return text.empty() ? heading("Linked from nowhere", style) : heading("Linked from", style) + text;
}

static std::string lock_text(const Lock *lock, const Style &style)
{
    if (!lock)
        return heading("Not locked", style);
    std::string holder = lock->alive ? fmt::format("process {}, {}", lock->pid, lock->command)
                         : lock->pid ? fmt::format("process {}, which is gone", lock->pid)
                                     : "nobody has written a number into it";
    return heading("Locked", style) +
           fmt::format("  {} for {}: {}\n", printable(lock->path), human_age(lock->age_seconds), printable(holder));
}

/* ---- The three kinds -----------------------------------------------------------------------------------------------
 */

static void add_links(Subject &subject, const std::string &directory, const LinkDirectory &links)
{
    for (const Link &link : links.links)
        subject.links.push_back({fmt::format("{}/{}", directory, link.name), link.target});
}

/* The datastores and nodes that were read and link to the record from the directory `entry` of theirs. */
static void find_back_links(Subject &subject, const std::string &name)
{
    bool node = std::string_view(subject.kind) == "node";
    for (const auto &[uuid, datastore] : subject.cluster.datastores)
        if ((node ? datastore.members : datastore.vdisks).find(name))
            subject.linked_from.push_back(fmt::format("Datastore/{}/{}/{}", uuid, node ? "members" : "vdisks", name));
    if (node)
        return;
    for (const auto &[uid, other] : subject.cluster.nodes)
        if (other.vdisks.find(name))
            subject.linked_from.push_back(fmt::format("Node/{}/vdisks/{}", uid, name));
    for (const auto &[uuid, vdisk] : subject.cluster.vdisks)
        if (vdisk.snapshots.find(name))
            subject.linked_from.push_back(fmt::format("VDisk/{}/snapshots/{}", uuid, name));
}

static bool describe_node(Subject &subject, const std::string &name, const Style &style)
{
    const Cluster &cluster = subject.cluster;
    const Node *node = cluster.node(node_number(name));
    if (!node)
        return false;
    std::optional<double> age = cluster.age(*node);
    subject.title = fmt::format("node {}, {}{}", node->uid, cluster.local(*node) ? "of this host" : "a peer",
                                age ? fmt::format(", heard {} ago", human_age(*age)) : "");
    add_links(subject, fmt::format("Node/{}/vdisks", name), node->vdisks);
    find_back_links(subject, name);
    subject.body = attributes_text(cluster, Kind::node, node->values, false, style);
    subject.document = node_json(cluster, *node);
    return true;
}

static bool describe_datastore(Subject &subject, const std::string &name, const Style &style)
{
    const Cluster &cluster = subject.cluster;
    const Datastore *datastore = cluster.datastore(name);
    if (!datastore)
        return false;
    subject.title = fmt::format("datastore {}, {} and {}", name, count_of(datastore->members.links.size(), "member"),
                                count_of(datastore->vdisks.links.size(), "VDisk"));
    add_links(subject, fmt::format("Datastore/{}/members", name), datastore->members);
    add_links(subject, fmt::format("Datastore/{}/vdisks", name), datastore->vdisks);
    for (const auto &[uid, node] : cluster.nodes)
        if (node.value("datastoremember").good() && node.value("datastoremember").text == name)
            subject.linked_from.push_back(fmt::format("Node/{}/datastoremember", uid));
    for (const auto &[uuid, vdisk] : cluster.vdisks)
        if (vdisk.datastore_name() == name)
            subject.linked_from.push_back(fmt::format("VDisk/{}/datastore", uuid));
    subject.body = attributes_text(cluster, Kind::datastore, datastore->values, false, style) +
                   nodes_text(cluster, *datastore, style);
    subject.document = datastore_json(*datastore);
    return true;
}

static bool describe_vdisk(Subject &subject, const std::string &name, const Style &style)
{
    const Cluster &cluster = subject.cluster;
    const VDisk *vdisk = cluster.vdisk(name);
    if (!vdisk)
        return false;
    std::optional<uint64_t> bytes = vdisk_bytes(*vdisk);
    subject.title =
        fmt::format("VDisk {}, {}{}", name,
                    vdisk->snapshot() ? "a Snapshot of " + good_text(vdisk->value("parent")) : std::string("Plain"),
                    bytes ? ", " + human_size(*bytes) : "");
    if (!vdisk->datastore.empty())
        subject.links.push_back({fmt::format("VDisk/{}/datastore", name), vdisk->datastore});
    add_links(subject, fmt::format("VDisk/{}/snapshots", name), vdisk->snapshots);
    for (const Member &member : vdisk->members)
        if (!member.nodestatus.empty())
            subject.links.push_back(
                {fmt::format("VDisk/{}/memberinfo/{}/nodestatus", name, member.uid), member.nodestatus});
    find_back_links(subject, name);
    subject.body = attributes_text(cluster, Kind::vdisk, vdisk->values, vdisk->snapshot(), style) +
                   members_text(cluster, *vdisk, style);
    subject.document = vdisk_json(*vdisk);
    return true;
}

/* ---- The command ---------------------------------------------------------------------------------------------------
 */

static void print_text(const Subject &subject, const Style &style)
{
    const Lock *lock = subject.cluster.lock(subject.record);
    std::string text = fmt::format("{}{}{}\n{}", style.bold, printable(subject.title), style.reset, subject.body);
    text += links_text(subject.links, style) + back_links_text(subject.linked_from, style) + lock_text(lock, style);
    text += subject.troubles.empty() ? heading("No trouble", style)
                                     : heading("Troubles", style) + troubles_text(subject.troubles, style);
    print(text);
}

static Json to_json(const Subject &subject)
{
    const Lock *lock = subject.cluster.lock(subject.record);
    return {{subject.kind, subject.document},
            {"links", json_list(subject.links,
                                [](const Link &link) -> Json {
                                    return {{"path", utf8(link.name)}, {"target", utf8(link.target)}};
                                })},
            {"linked_from", json_list(subject.linked_from, [](const std::string &path) { return utf8(path); })},
            {"lock", lock ? lock_json(*lock) : Json()},
            {"troubles", json_list(subject.troubles, trouble_json)}};
}

using Describe = bool (*)(Subject &subject, const std::string &name, const Style &style);

static void run_show(const Options &options, const char *kind, const std::string &name, Describe describe)
{
    Settings settings = options.settings();
    std::string record = record_name(kind, name);
    Subject subject{read_cluster(settings, {Scope::one_record, record}), record, kind, {}, {}, {}, "", "", {}};
    subject.troubles = confirmed_troubles(subject.cluster);
    if (!describe(subject, name, options.style()))
        give_up_absent(settings, record);
    if (options.json)
        print_json(to_json(subject));
    else
        print_text(subject, options.style());
}

void add_show(CLI::App &app, Options &options, int &)
{
    struct Target {
        const char *kind, *metavariable, *description, *footer;
        Describe describe;
    };
    static constexpr Target targets[] = {
        {"node", "N", "Everything of one node", "Example:\n  mwctl show node 7", describe_node},
        {"datastore", "D", "Everything of one datastore", "Example:\n  mwctl show datastore ds1", describe_datastore},
        {"vdisk", "V", "Everything of one VDisk", "Example:\n  mwctl --json show vdisk v1", describe_vdisk},
    };
    CLI::App *command =
        app.add_subcommand("show", "Everything of one record: attributes, members, links, lock, troubles");
    command->require_subcommand(1);
    command->footer("Examples:\n  mwctl show node 7\n  mwctl show vdisk v1");
    for (const Target &target : targets) {
        CLI::App *kind = command->add_subcommand(target.kind, target.description);
        auto name = std::make_shared<std::string>();
        kind->add_option("NAME", *name, "The record's name")->type_name(target.metavariable)->required();
        kind->footer(target.footer);
        kind->callback([&options, &target, name] { run_show(options, target.kind, *name, target.describe); });
    }
}

} // namespace mwctl
