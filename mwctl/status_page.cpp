#include "mwctl/status_page.h"

#include "mwctl/figures.h"

#include <algorithm>
#include <fmt/chrono.h>
#include <fmt/format.h>

namespace mwctl
{

/* The longest list that is shown whole, and how much is shown of a longer one. */
constexpr size_t ROWS_WHOLE = 8, ROWS_CUT = 5;
constexpr size_t DATAGRAM = 65507; /* bytes that a PING may have */

/* The page as it grows. */
struct Page {
    const Cluster &cluster;
    const std::vector<Trouble> &troubles;
    const Style &style;
    std::string text;

    void label(const char *name, const std::string &content)
    {
        constexpr size_t gutter = 8;
        text += fmt::format("{:>6}{} {}\n", name, *name ? ":" : " ", wrap(content, terminal_width(), gutter));
    }
    void heading(const std::string &words)
    {
        text += fmt::format("\n{}{}{}\n", style.bold, words, style.reset);
    }
};

static std::string coloured(const char *color, const std::string &words, const Style &style)
{
    return fmt::format("{}{}{}", color, words, style.reset);
}

static void add_state(Page &page)
{
    page.label("host", printable(page.cluster.host));
    std::string state =
        page.troubles.empty()
            ? coloured(page.style.green, "healthy", page.style)
            : coloured(page.troubles[0].severity == Severity::error ? page.style.red : page.style.yellow,
                       troubles_count(page.troubles), page.style);
    page.label("state", state);
}

static std::string local_time(time_t when)
{
    struct tm parts;
    return localtime_r(&when, &parts) ? fmt::format("{:%Y-%m-%d %H:%M:%S}", parts) : std::to_string(when);
}

static void add_daemon(Page &page)
{
    const Daemon &daemon = page.cluster.daemon;
    const Settings &settings = page.cluster.settings;
    if (!daemon.running) {
        page.label("daemon", coloured(page.style.red, "not running", page.style));
    } else {
        page.label("daemon", fmt::format("running since {} ({}), process {}", local_time(daemon.since),
                                         human_age(static_cast<double>(page.cluster.now - daemon.since)), daemon.pid));
        std::string drops = daemon.drops == 0 ? "no datagram" : count_of(daemon.drops, "datagram");
        page.label("", fmt::format("{:.1f} s of CPU, {} of memory, {} dropped", daemon.cpu_seconds,
                                   human_size(daemon.rss_bytes), drops));
    }
    page.label("config", printable(settings.file));
    page.label("tree", printable(settings.work_directory));
}

/* The first trouble that holds back messages of the node, or why there are none at all. */
static std::string publication_of(const Page &page, uint32_t uid)
{
    size_t others = 0;
    const Trouble *first = nullptr;
    for (const Trouble &trouble : page.troubles)
        if (trouble.holds_back.contains(uid))
            first ? void(others++) : void(first = &trouble);
    if (first)
        return fmt::format("held back: {}{}{}", first->code,
                           first->record == record_name("node", std::to_string(uid)) ? "" : " " + first->record,
                           others ? fmt::format(" and {} more", others) : "");
    if (!page.cluster.daemon.running)
        return "held back: DAEMON_DOWN";
    return fmt::format("every {} s", page.cluster.settings.ping_interval);
}

static std::string ping_text(const Cluster &cluster, const Node &node)
{
    std::optional<size_t> bytes = ping_bytes(cluster, node);
    if (!bytes)
        return "-";
    size_t percent = *bytes * 100 / DATAGRAM;
    return fmt::format("{} ({} %)", human_size(*bytes), percent ? std::to_string(percent) : "<1");
}

static std::string figure_text(const Node &node, std::string_view key)
{
    std::optional<uint64_t> figure = figure_of(node, key);
    return figure ? std::to_string(*figure) : "-";
}

static std::string text_or_dash(const Value &value)
{
    return value.good() && !value.text.empty() ? value.text : "-";
}

/* Rows that are left out, as a last line under a table. */
static void add_rest(Page &page, size_t rows, size_t shown, const char *command)
{
    if (rows > shown)
        page.text += fmt::format("  {}and {} more: {}{}\n", page.style.dim, rows - shown, command, page.style.reset);
}

static size_t rows_to_show(size_t rows)
{
    return rows <= ROWS_WHOLE ? rows : ROWS_CUT;
}

static void add_local_nodes(Page &page)
{
    const Cluster &cluster = page.cluster;
    std::map<uint32_t, const Node *> nodes;
    for (const LocalNode &listed : cluster.settings.local_nodes)
        nodes[listed.uid] = nullptr;
    for (const Node *node : local_nodes(cluster))
        nodes[node->uid] = node;
    if (nodes.empty()) {
        page.heading("This host has no node");
        return;
    }
    page.heading("Nodes of this host");
    Table table({"NODE", "DATASTORE", "VDISKS", "SIZE", "FREE", "PING", "PUBLISHED"});
    std::vector<std::vector<std::string>> held_back, others;
    for (const auto &[uid, node] : nodes) {
        std::vector<std::string> row = {std::to_string(uid), "-", "-", "-", "-", "-"};
        if (node)
            row = {row[0],
                   text_or_dash(node->value("datastoremember")),
                   std::to_string(node->vdisks.links.size()),
                   figure_text(*node, "size"),
                   figure_text(*node, "freespace"),
                   ping_text(cluster, *node)};
        row.push_back(publication_of(page, uid));
        (row.back().starts_with("held") ? held_back : others).push_back(std::move(row));
    }
    size_t shown = rows_to_show(nodes.size());
    held_back.insert(held_back.end(), others.begin(), others.end());
    for (size_t i = 0; i < shown; i++)
        table.add(held_back[i]);
    page.text += table.render(page.style, "  ");
    add_rest(page, nodes.size(), shown, "mwctl nodes");
}

static void add_peers(Page &page)
{
    const Cluster &cluster = page.cluster;
    std::vector<const Node *> nodes = peers(cluster);
    if (nodes.empty()) {
        page.heading("No peer was heard yet");
        return;
    }
    auto silent = static_cast<size_t>(std::count_if(page.troubles.begin(), page.troubles.end(), [](const Trouble &t) {
        return std::string_view(t.code) == "NODE_SILENT";
    }));
    size_t shown = rows_to_show(nodes.size());
    page.heading(fmt::format("{}{}{}", count_of(nodes.size(), "peer"),
                             silent ? fmt::format(", {} silent", silent) : ", none silent",
                             shown < nodes.size() ? "; those not heard for longest:" : ""));
    Table table({"NODE", "AGE", "ADDRESS", "VERSION", "DATASTORE", "VDISKS", "SIZE", "FREE"});
    for (size_t i = 0; i < shown; i++) {
        const Node &node = *nodes[i];
        std::optional<double> age = cluster.age(node);
        table.add({std::to_string(node.uid), age ? human_age(*age) : "-", text_or_dash(node.value("ipaddr")),
                   text_or_dash(node.value("version")), text_or_dash(node.value("datastoremember")),
                   std::to_string(node.vdisks.links.size()), figure_text(node, "size"),
                   figure_text(node, "freespace")});
    }
    page.text += table.render(page.style, "  ");
    add_rest(page, nodes.size(), shown, "mwctl nodes --sort=-age");
}

static void add_datastores(Page &page)
{
    const auto &datastores = page.cluster.datastores;
    if (datastores.empty()) {
        page.heading("No datastore");
        return;
    }
    page.heading("Datastores");
    std::map<std::string, Capacity> space = capacities(page.cluster);
    Table table({"DATASTORE", "NAME", "MEMBERS", "VDISKS", "SIZE", "FREE", "ALLOCATED"});
    size_t shown = rows_to_show(datastores.size()), row = 0;
    for (const auto &[uuid, datastore] : datastores) {
        if (row++ == shown)
            break;
        const Capacity &capacity = space[uuid];
        table.add({uuid, text_or_dash(datastore.value("name")), std::to_string(datastore.members.links.size()),
                   std::to_string(datastore.vdisks.links.size()), capacity.size.text(), capacity.free.text(),
                   capacity.allocated.text()});
    }
    page.text += table.render(page.style, "  ");
    add_rest(page, datastores.size(), shown, "mwctl datastores");
}

static void add_vdisks(Page &page)
{
    VDiskCounts counts = count_vdisks(page.cluster);
    if (counts.total() == 0) {
        page.heading("No VDisk");
        return;
    }
    std::string words = fmt::format("{} Plain, {}", counts.plain, count_of(counts.snapshots, "Snapshot"));
    if (counts.unknown)
        words += fmt::format(", {} of unknown kind", counts.unknown);
    words += fmt::format("; {} on nodes of this host", counts.here);
    if (counts.in_transaction)
        words += fmt::format(", {} of them in a transaction", counts.in_transaction);
    page.heading(count_of(counts.total(), "VDisk"));
    page.text += fmt::format("  {}\n", words);
}

/* Each trouble whole, but of many with one code the first ones, and the records of some more. */
static void add_troubles(Page &page)
{
    if (page.troubles.empty())
        return;
    page.heading("Troubles");
    std::map<std::string_view, size_t> totals, seen;
    for (const Trouble &trouble : page.troubles)
        totals[trouble.code]++;
    std::vector<Trouble> shown;
    auto flush = [&] {
        page.text += troubles_text(shown, page.style);
        shown.clear();
    };
    for (const Trouble &trouble : page.troubles) {
        size_t total = totals[trouble.code], number = ++seen[trouble.code];
        if (total <= ROWS_WHOLE || number <= ROWS_CUT)
            shown.push_back(trouble);
        if (total > ROWS_WHOLE && number == ROWS_CUT) {
            flush();
            page.text += fmt::format("         {}and {} more {}: mwctl check{}\n", page.style.dim, total - number,
                                     trouble.code, page.style.reset);
        }
    }
    flush();
    page.text += fmt::format("\n{}Each code is explained in mwctl(8). mwctl check reads every file of the tree.{}\n",
                             page.style.dim, page.style.reset);
}

std::string status_page(const Cluster &cluster, const std::vector<Trouble> &troubles, const Style &style)
{
    Page page{cluster, troubles, style, ""};
    for (auto add : {add_state, add_daemon, add_local_nodes, add_peers, add_datastores, add_vdisks, add_troubles})
        add(page);
    return page.text;
}

} // namespace mwctl
