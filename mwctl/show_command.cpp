/* show: everything of one record. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/render.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace mwctl
{

/* A heading and what stands below it; nothing if there is nothing. */
static std::string section(const Style &style, const std::string &heading, const std::string &body)
{
    return body.empty() ? "" : fmt::format("\n{}{}{}\n{}", style.bold, heading, style.reset, body);
}

static std::string attributes_text(Kind kind, const Values &values)
{
    std::string text;
    for (size_t i = 0; i < values.size(); i++) {
        const Attribute &attribute = attributes(kind)[i];
        bool list = attribute.form == Form::nodes || attribute.form == Form::addresses;
        if (values[i].missing() && (attribute.applies != Applies::always || attribute.need == Need::optional ||
                                    attribute.need == Need::unread))
            continue;
        std::string shown = values[i].good()
                                ? list ? fmt::format("{}", fmt::join(value_lines(values[i]), " ")) : values[i].text
                                : fmt::format("({})", fault_text(attribute, values[i]));
        text += fmt::format("  {:<22}{}\n", attribute.key, printable(shown));
    }
    return text;
}

static std::string links_text(const LinkDirectory &directory)
{
    std::string text;
    for (const Link &link : directory.links)
        text += fmt::format("  {:<22}{}\n", printable(link.name), printable(link.target));
    return text;
}

static std::string names_text(const std::vector<std::string> &names)
{
    return names.empty() ? "" : fmt::format("  {}\n", printable(fmt::format("{}", fmt::join(names, " "))));
}

static bool links(const LinkDirectory &directory, const std::string &name)
{
    return std::any_of(directory.links.begin(), directory.links.end(),
                       [&](const Link &link) { return link.name == name; });
}

static std::string node_text(const Cluster &cluster, const Node &node, const Style &style)
{
    std::string uid = std::to_string(node.uid);
    std::vector<std::string> datastores;
    for (const auto &[uuid, datastore] : cluster.datastores)
        if (links(datastore.members, uid))
            datastores.push_back(uuid);
    std::optional<double> age = cluster.age(node);
    std::string heard = age ? fmt::format("heard {} ago", human_age(*age)) : "never heard";
    std::optional<size_t> bytes = cluster.local(node) ? ping_bytes(cluster, node) : std::nullopt;
    std::string ping = bytes ? fmt::format(", its PING has {} of 65507 bytes", *bytes) : "";
    return fmt::format("node {}: {}, {}{}\n{}{}{}", node.uid, cluster.local(node) ? "of this host" : "a peer", heard,
                       ping, attributes_text(Kind::node, node.values),
                       section(style, "linked from datastores", names_text(datastores)),
                       section(style, fmt::format("{} VDisks", node.vdisks.links.size()), links_text(node.vdisks)));
}

static std::string datastore_text(const Cluster &cluster, const Datastore &datastore, const Style &style)
{
    std::vector<std::string> named;
    for (const auto &[uid, node] : cluster.nodes)
        if (node.value("datastoremember").text == datastore.uuid)
            named.push_back(std::to_string(uid));
    return fmt::format(
        "datastore {}\n{}{}{}{}", printable(datastore.uuid), attributes_text(Kind::datastore, datastore.values),
        section(style, "members", links_text(datastore.members)), section(style, "named by nodes", names_text(named)),
        section(style, fmt::format("{} VDisks", datastore.vdisks.links.size()), links_text(datastore.vdisks)));
}

static std::string members_text(const VDisk &vdisk)
{
    std::vector<std::string> headings = {"NODE"};
    for (const Attribute &attribute : attributes(Kind::member))
        headings.emplace_back(attribute.key);
    Table table(headings);
    for (const Member &member : vdisk.members) {
        std::vector<std::string> cells = {std::to_string(member.uid)};
        for (const Value &value : member.values)
            cells.push_back(value.good()      ? fmt::format("{}", fmt::join(value_lines(value), " "))
                            : value.missing() ? "-"
                                              : "?");
        table.add(cells);
    }
    return table.empty() ? "" : table.render({}, "  ");
}

static std::string vdisk_text(const Cluster &cluster, const VDisk &vdisk, const Style &style)
{
    std::vector<std::string> nodes, datastores;
    for (const auto &[uid, node] : cluster.nodes)
        if (links(node.vdisks, vdisk.uuid))
            nodes.push_back(std::to_string(uid));
    for (const auto &[uuid, datastore] : cluster.datastores)
        if (links(datastore.vdisks, vdisk.uuid))
            datastores.push_back(uuid);
    std::string kind =
        vdisk.snapshot() ? fmt::format("a Snapshot of {}", printable(vdisk.value("parent").text)) : "Plain";
    return fmt::format(
        "VDisk {}: {}\n{}{}{}{}{}{}", printable(vdisk.uuid), kind, attributes_text(Kind::vdisk, vdisk.values),
        section(style, "member records", members_text(vdisk)),
        section(style, "datastore", vdisk.has_datastore ? fmt::format("  {}\n", printable(vdisk.datastore)) : ""),
        section(style, "linked from nodes", names_text(nodes)),
        section(style, "linked from datastores", names_text(datastores)),
        section(style, "snapshots", links_text(vdisk.snapshots)));
}

static std::string lock_text(const Lock *lock)
{
    if (!lock)
        return "";
    return fmt::format("  {} for {}, {}\n", printable(lock->path), human_age(lock->age_seconds),
                       !lock->pid    ? "with no process number in it"
                       : lock->alive ? fmt::format("by process {}: {}", lock->pid, printable(lock->command))
                                     : fmt::format("by process {}, which is dead", lock->pid));
}

static int run_show(const Options &options, const std::string &kind, const std::string &name)
{
    std::string record = record_name(kind, name);
    Cluster cluster = read_cluster(options.settings(), {Scope::one_record, record});
    const Node *node = kind == "node" ? cluster.node(*uid_from(name)) : nullptr;
    const Datastore *datastore = kind == "datastore" ? cluster.datastore(name) : nullptr;
    const VDisk *vdisk = kind == "vdisk" ? cluster.vdisk(name) : nullptr;
    if (!node && !datastore && !vdisk)
        give_up(fmt::format("there is no {} {} in the tree {}; mwctl {}s lists them", kind, name,
                            cluster.settings.work_directory, kind));
    std::vector<Trouble> troubles = confirmed_troubles(cluster);
    node = kind == "node" ? cluster.node(*uid_from(name)) : nullptr;
    datastore = kind == "datastore" ? cluster.datastore(name) : nullptr;
    vdisk = kind == "vdisk" ? cluster.vdisk(name) : nullptr;
    if (!node && !datastore && !vdisk)
        give_up(fmt::format("{} {} has gone in this moment", kind, name));
    const Lock *lock = cluster.lock(record);
    if (options.json) {
        print_json({{kind, node    ? node_json(cluster, *node)
                           : vdisk ? vdisk_json(*vdisk)
                                   : datastore_json(*datastore)},
                    {"lock", lock ? lock_json(*lock) : Json()},
                    {"troubles", json_list(troubles, trouble_json)}});
        return STATUS_DONE;
    }
    Style style = options.style();
    print(node    ? node_text(cluster, *node, style)
          : vdisk ? vdisk_text(cluster, *vdisk, style)
                  : datastore_text(cluster, *datastore, style));
    print(section(style, "locked", lock_text(lock)));
    print(section(style, "troubles", troubles_text(troubles, style)));
    return STATUS_DONE;
}

void add_show(CLI::App &app, Options &options, int &status)
{
    CLI::App *show =
        app.add_subcommand("show", "Everything of one record: attributes, links both ways, lock, troubles");
    show->require_subcommand(1);
    show->footer("Example:\n  mwctl show vdisk v1");
    for (const char *kind : {"node", "datastore", "vdisk"}) {
        CLI::App *command = show->add_subcommand(kind, fmt::format("Everything of one {}", kind));
        auto name = std::make_shared<std::string>();
        CLI::Option *option = command->add_option("name", *name, "Its name in the tree")->required();
        if (kind == std::string("node"))
            option->check(
                [](const std::string &text) { return uid_from(text) ? "" : "'" + text + "' is no node's number"; });
        command->footer(fmt::format("Example:\n  mwctl show {} {}", kind, kind == std::string("node") ? "7" : "x1"));
        command->callback(
            [&options, &status, kind = std::string(kind), name] { status = run_show(options, kind, *name); });
    }
}

} // namespace mwctl
