/* graph: the cluster as a Graphviz digraph, to be drawn by dot. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/render.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace mwctl
{

static constexpr const char *RED = "#c62828", *GREY = "#6b7785", *LINE = "#b9c3cd";

/* What belongs to a datastore has its colour: of its lines, and of the ground behind its name. */
struct Tint {
    const char *line, *ground;
};
static constexpr Tint tints[] = {{"#2f6db3", "#dceafa"}, {"#2e8b57", "#dcf3e4"}, {"#7d4fb0", "#ebe1f7"},
                                 {"#b06a10", "#faebd3"}, {"#1f8a93", "#d8f1f3"}, {"#8a6d3b", "#f0e7d6"}};
static constexpr Tint no_tint = {"#7a8691", "#e8ecf0"};

/* VDisks that the same nodes have in the same datastore; each with its Snapshots under it. */
struct Group {
    std::string datastore;
    std::set<uint32_t> members;
    std::vector<const VDisk *> vdisks;
};

/* What is drawn, sorted out of the cluster. */
struct Picture {
    const Cluster &cluster;
    std::map<std::string, std::vector<const Trouble *>> troubles; /* by record */
    std::map<std::string, size_t> datastores;                     /* each name's number */
    std::map<std::string, std::vector<const VDisk *>> snapshots;  /* by parent */
    std::vector<Group> groups;

    Tint tint(const std::string &datastore) const
    {
        auto found = datastores.find(datastore);
        return found == datastores.end() ? no_tint : tints[found->second % std::size(tints)];
    }
};

/* Text inside a label: printable, and neither markup nor one of the two characters that XML refuses. */
static std::string html(std::string_view text)
{
    std::string result, safe = printable(text);
    for (size_t i = 0; i < safe.size(); i++) {
        std::string_view three = std::string_view(safe).substr(i, 3);
        if (three == "\xef\xbf\xbe" || three == "\xef\xbf\xbf") {
            result += three[2] == '\xbe' ? "\\xef\\xbf\\xbe" : "\\xef\\xbf\\xbf";
            i += 2;
        } else if (std::string_view("&<>\"").find(safe[i]) != std::string_view::npos) {
            result += fmt::format("&#{};", static_cast<int>(safe[i]));
        } else {
            result += safe[i];
        }
    }
    return result;
}

/* A quoted string in which nothing stands for anything else. */
static std::string quoted_string(std::string_view text)
{
    std::string result = "\"";
    for (char c : html(text))
        result += c == '\\' ? "\\\\" : std::string(1, c);
    return result + "\"";
}

/* Small coloured text; none for none, which dot would not take. */
static std::string small(std::string_view text, const char *color = GREY)
{
    return text.empty() ? "" : fmt::format("<FONT POINT-SIZE=\"9\" COLOR=\"{}\">{}</FONT>", color, html(text));
}

static std::string left(const std::string &content, std::string_view options = "")
{
    return fmt::format("<TD ALIGN=\"LEFT\" {}>{}</TD>", options, content);
}

static std::string row(const std::string &cells)
{
    return fmt::format("<TR>{}</TR>", cells);
}

/* A bar that shows how full something is, with its percentage; nothing if the figures tell nothing. */
static std::string bar_row(const char *what, uint64_t total, uint64_t available, const char *color)
{
    constexpr int length = 90;
    if (total == 0 || available > total)
        return "";
    double share = static_cast<double>(total - available) / static_cast<double>(total);
    int full = std::clamp(static_cast<int>(share * length + 0.5), 0, length);
    auto part = [](int width, const char *ground) {
        return width == 0 ? ""
                          : fmt::format("<TD FIXEDSIZE=\"TRUE\" WIDTH=\"{}\" HEIGHT=\"8\" BGCOLOR=\"{}\"></TD>", width,
                                        ground);
    };
    std::string bar = fmt::format("<TABLE BORDER=\"0\" CELLBORDER=\"0\" CELLSPACING=\"0\" CELLPADDING=\"0\">{}</TABLE>",
                                  row(part(full, color) + part(length - full, "#e3e8ed")));
    return row(left(small(what)) + left(bar) + left(small(fmt::format("{:.0f} %", share * 100))));
}

static std::string trouble_rows(const Picture &picture, const std::string &record, int columns)
{
    std::string rows;
    auto found = picture.troubles.find(record);
    if (found != picture.troubles.end())
        for (const Trouble *trouble : found->second)
            rows +=
                row(left(fmt::format("<B>{}</B>", small(trouble->code, RED)), fmt::format("COLSPAN=\"{}\"", columns)));
    return rows;
}

/* The sentences of a record's troubles, which an SVG shows where the pointer rests. */
static std::string tooltip(const Picture &picture, const std::string &record)
{
    std::string text = record;
    auto found = picture.troubles.find(record);
    if (found != picture.troubles.end())
        for (const Trouble *trouble : found->second)
            text += fmt::format("; {}: {}", trouble->code, trouble->text);
    return quoted_string(text);
}

/* The one table of a box, with a red frame if there is trouble in it. */
static std::string box(bool trouble, const std::string &rows)
{
    return fmt::format("<<TABLE BORDER=\"{}\" COLOR=\"{}\" BGCOLOR=\"white\" CELLBORDER=\"0\" "
                       "CELLSPACING=\"0\" CELLPADDING=\"3\">{}</TABLE>>",
                       trouble ? 2 : 1, trouble ? RED : LINE, rows);
}

static std::string count(size_t number, const char *what)
{
    return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

static std::string datastore_text(const Picture &picture, const Datastore &datastore, size_t number)
{
    uint64_t size = 0, free = 0;
    for (const auto &[uid, node] : picture.cluster.nodes)
        if (text_of(node.value("datastoremember")) == datastore.uuid && node.number("size") > 0) {
            size += node.number("size");
            free += node.number("freespace");
        }
    std::string record = record_name("datastore", datastore.uuid);
    std::string rows = row(left(fmt::format("<B>{}</B>", html(datastore.uuid)),
                                fmt::format("COLSPAN=\"3\" BGCOLOR=\"{}\"", picture.tint(datastore.uuid).ground))) +
                       row(left(html(text_of(datastore.value("name"))), "COLSPAN=\"3\"")) +
                       row(left(small(count(datastore.members.links.size(), "member") + ", " +
                                      count(datastore.vdisks.links.size(), "VDisk")),
                                "COLSPAN=\"3\"")) +
                       bar_row("space", size, free, picture.tint(datastore.uuid).line) +
                       trouble_rows(picture, record, 3);
    std::string text = fmt::format("  datastore_{} [label={} tooltip={}]\n", number,
                                   box(picture.troubles.contains(record), rows), tooltip(picture, record));
    for (const Link &link : datastore.members.links)
        if (auto uid = uid_from(link.name); uid && picture.cluster.node(*uid))
            text += fmt::format("  datastore_{}:e -> node_{}:w [color=\"{}\" penwidth=1.6 arrowhead=none]\n", number,
                                *uid, picture.tint(datastore.uuid).line);
    return text;
}

static std::string node_text(const Picture &picture, const Node &node)
{
    std::string record = record_name("node", std::to_string(node.uid));
    std::optional<double> age = picture.cluster.age(node);
    Tint tint = picture.tint(text_of(node.value("datastoremember")));
    std::string about = fmt::format("{} {}", text_of(node.value("vendor")), text_of(node.value("model")));
    std::string heard = picture.cluster.local(node) ? "of this host" : age ? "heard " + human_age(*age) + " ago" : "";
    std::string rows = row(left(fmt::format("<B>node {}</B>&#160; {}", node.uid, small(text_of(node.value("version")))),
                                fmt::format("COLSPAN=\"3\" BGCOLOR=\"{}\"", tint.ground))) +
                       row(left(small(about), "COLSPAN=\"3\"")) + row(left(small(heard), "COLSPAN=\"3\"")) +
                       bar_row("space", node.number("size"), node.number("freespace"), "#4a86bd") +
                       bar_row("memory", node.number("memtotal"), node.number("memavail"), "#8d9bb0") +
                       trouble_rows(picture, record, 3);
    return fmt::format("    node_{} [label={} tooltip={}]\n", node.uid, box(picture.troubles.contains(record), rows),
                       tooltip(picture, record));
}

/* Troubles of what has no box of its own: the daemon, its configuration, records that are not there. */
static std::string other_troubles(const Picture &picture)
{
    std::string rows;
    for (const auto &[record, troubles] : picture.troubles) {
        auto [kind, name] = split_record(record);
        auto uid = uid_from(name);
        if ((kind == "node" && uid && picture.cluster.node(*uid)) ||
            (kind == "datastore" && picture.cluster.datastore(name)) ||
            (kind == "vdisk" && picture.cluster.vdisk(name)))
            continue;
        for (const Trouble *trouble : troubles)
            rows += row(left(fmt::format("<B>{}</B>", small(trouble->code, RED))) + left(small(record)));
    }
    return rows;
}

static std::string host_text(const Picture &picture, const std::string &address, bool here, size_t number)
{
    const Cluster &cluster = picture.cluster;
    std::string label = here ? fmt::format("<B>{}</B>&#160; {}", html(cluster.host), small("this host"))
                             : fmt::format("<B>{}</B>", address.empty() ? "address unknown" : html(address));
    std::string text = fmt::format(
        "  subgraph cluster_{} {{\n    label=<{}>; style=\"rounded,filled\"; color=\"{}\"; fillcolor=\"{}\"\n", number,
        label, LINE, here ? "#fdf6e3" : "#f5f7f9");
    bool empty = true;
    for (const auto &[uid, node] : cluster.nodes)
        if (here ? cluster.local(node) : !cluster.local(node) && text_of(node.value("ipaddr")) == address) {
            text += node_text(picture, node);
            empty = false;
        }
    std::string rows = here ? other_troubles(picture) : "";
    if (!rows.empty())
        text += fmt::format("    other [label={}]\n", box(true, rows));
    else if (empty)
        text += fmt::format("    other [label=<{}>]\n", small("no node of its own"));
    return text + "  }\n";
}

static std::string vdisk_size(const VDisk &vdisk)
{
    uint64_t bytes;
    return __builtin_mul_overflow(vdisk.number("sectors"), vdisk.number("sector_size"), &bytes) ? ""
                                                                                                : human_size(bytes);
}

/* One line of a group for the VDisk, and under it one for each of its Snapshots; `above` are the VDisks it hangs under.
 */
static std::string vdisk_rows(const Picture &picture, const VDisk &vdisk, std::set<std::string> above = {})
{
    std::string record = record_name("vdisk", vdisk.uuid);
    bool trouble = picture.troubles.contains(record);
    std::string indent = above.empty() ? "" : "&#160;&#160;&#9492;&#160;";
    std::string about = fmt::format("gen {}", vdisk.number("highest_gen_count"));
    if (vdisk.snapshot())
        about = fmt::format("{}, {}", text_of(vdisk.value("snaptime")), about);
    std::string name = fmt::format("{}<B>{}</B>", indent, html(vdisk.uuid));
    if (trouble)
        name = fmt::format("<FONT COLOR=\"{}\">{}</FONT>", RED, name);
    std::string rows = row(left(name) + left(small(text_of(vdisk.value("name")))) +
                           fmt::format("<TD ALIGN=\"RIGHT\">{}</TD>", small(vdisk_size(vdisk))) + left(small(about)));
    rows += trouble_rows(picture, record, 4);
    above.insert(vdisk.uuid);
    if (auto found = picture.snapshots.find(vdisk.uuid); found != picture.snapshots.end())
        for (const VDisk *snapshot : found->second)
            if (!above.contains(snapshot->uuid))
                rows += vdisk_rows(picture, *snapshot, above);
    return rows;
}

/* Where the node serves the group's VDisks: its frontends, each named once. */
static std::string frontends(const Group &group, uint32_t uid)
{
    constexpr size_t most = 3;
    std::set<std::string> found;
    bool reported = false;
    for (const VDisk *vdisk : group.vdisks)
        if (const Member *member = vdisk->member(uid)) {
            reported = true;
            for (std::string_view address : value_lines(member->value("frontend")))
                found.insert(member->number("port") ? fmt::format("{}:{}", address, member->number("port"))
                                                    : std::string(address));
        }
    if (found.empty())
        return reported ? "no frontend" : "no report yet";
    size_t more = found.size() > most ? found.size() - most : 0;
    std::string text = fmt::format(
        "{}", fmt::join(found.begin(), std::next(found.begin(), static_cast<ptrdiff_t>(found.size() - more)), ", "));
    return more ? fmt::format("{} and {} more", text, more) : text;
}

static std::string group_text(const Picture &picture, const Group &group, size_t number)
{
    Tint tint = picture.tint(group.datastore);
    std::string rows, edges, records;
    bool trouble = false;
    for (uint32_t uid : group.members) {
        rows += row(left(fmt::format("node {}", uid), fmt::format("PORT=\"m{}\" BGCOLOR=\"{}\"", uid, tint.ground)) +
                    left(small(frontends(group, uid)), fmt::format("COLSPAN=\"3\" BGCOLOR=\"{}\"", tint.ground)));
        if (picture.cluster.node(uid))
            edges += fmt::format("  node_{}:e -> vdisks_{}:m{}:w [color=\"{}\" arrowhead=dot arrowsize=0.5]\n", uid,
                                 number, uid, tint.line);
    }
    for (const VDisk *vdisk : group.vdisks) {
        std::string more = vdisk_rows(picture, *vdisk);
        trouble = trouble || more.find(RED) != std::string::npos;
        rows += more;
    }
    return fmt::format("  vdisks_{} [label={} tooltip={}]\n{}", number, box(trouble, rows),
                       quoted_string(group.datastore.empty() ? "in no datastore" : "in datastore " + group.datastore),
                       edges);
}

static std::set<uint32_t> all_members(const VDisk &vdisk)
{
    std::vector<uint32_t> listed = vdisk.membership();
    std::set<uint32_t> members(listed.begin(), listed.end());
    for (const Member &member : vdisk.members)
        members.insert(member.uid);
    return members;
}

static void sort_out_vdisks(Picture &picture)
{
    std::map<std::pair<std::string, std::set<uint32_t>>, std::vector<const VDisk *>> sorted;
    for (const auto &[uuid, vdisk] : picture.cluster.vdisks) {
        std::string parent = text_of(vdisk.value("parent"));
        const VDisk *above = vdisk.snapshot() && parent != uuid ? picture.cluster.vdisk(parent) : nullptr;
        if (above && !above->snapshot())
            picture.snapshots[parent].push_back(&vdisk);
        else
            sorted[{vdisk.datastore_name(), all_members(vdisk)}].push_back(&vdisk);
    }
    for (auto &[key, vdisks] : sorted)
        picture.groups.push_back({key.first, key.second, vdisks});
}

static Picture make_picture(const Cluster &cluster, const std::vector<Trouble> &troubles)
{
    Picture picture{cluster, {}, {}, {}, {}};
    for (const Trouble &trouble : troubles) {
        std::string record = trouble.record;
        for (const Lock &lock : cluster.locks)
            if (record == "lock/" + lock.name)
                record = lock.record;
        picture.troubles[record].push_back(&trouble);
    }
    for (const auto &[uuid, datastore] : cluster.datastores)
        picture.datastores.emplace(uuid, picture.datastores.size());
    sort_out_vdisks(picture);
    return picture;
}

static std::string graph_text(const Cluster &cluster, const std::vector<Trouble> &troubles)
{
    Picture picture = make_picture(cluster, troubles);
    std::string text = fmt::format("digraph cluster {{\n"
                                   "  rankdir=LR; ranksep=1.1; nodesep=0.18; labelloc=t; fontsize=15; bgcolor=white\n"
                                   "  label=<<B>The cluster as {} sees it</B>&#160; {}>\n"
                                   "  graph [fontname=\"Helvetica,Arial,sans-serif\"]\n"
                                   "  node [shape=plain fontname=\"Helvetica,Arial,sans-serif\" fontsize=11]\n"
                                   "  edge [fontname=\"Helvetica,Arial,sans-serif\" fontsize=9]\n",
                                   html(cluster.host), small(iso_time(cluster.now)));
    for (const auto &[uuid, number] : picture.datastores)
        text += datastore_text(picture, *cluster.datastore(uuid), number);
    std::set<std::string> addresses;
    for (const auto &[uid, node] : cluster.nodes)
        if (!cluster.local(node))
            addresses.insert(text_of(node.value("ipaddr")));
    size_t number = 0;
    text += host_text(picture, "", true, number++);
    for (const std::string &address : addresses)
        text += host_text(picture, address, false, number++);
    for (size_t i = 0; i < picture.groups.size(); i++)
        text += group_text(picture, picture.groups[i], i);
    return text + "}\n";
}

static int run_graph(const Options &options)
{
    if (options.json)
        refuse("graph has a format of its own; leave --json out, or use dot -Tjson on what it prints");
    Cluster cluster = read_cluster(options.settings(), {Scope::whole, ""});
    std::vector<Trouble> troubles = confirmed_troubles(cluster);
    print(graph_text(cluster, troubles));
    return STATUS_DONE;
}

void add_graph(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("graph", "The cluster as a picture, for Graphviz");
    command->footer("Example:\n  mwctl graph | dot -Tsvg > cluster.svg");
    command->callback([&options, &status] { status = run_graph(options); });
}

} // namespace mwctl
