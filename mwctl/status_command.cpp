/* status: one page that says what state, what is wrong, and which command mends it. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/render.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <ctime>
#include <fmt/format.h>
#include <unistd.h>

namespace mwctl
{

/* Peers that the page names one by one; of more it names those that were silent longest. */
constexpr size_t PEERS_SHOWN = 8;

struct View {
    Cluster cluster;
    std::vector<Trouble> troubles;
    std::vector<const Node *> local, peers; /* peers by age, the longest silent first */
    size_t plain = 0, snapshots = 0;
};

static View look(Settings settings)
{
    View view{read_cluster(std::move(settings), {Scope::summary, ""}), {}, {}, {}};
    view.troubles = confirmed_troubles(view.cluster);
    for (const auto &[uid, node] : view.cluster.nodes)
        (view.cluster.local(node) ? view.local : view.peers).push_back(&node);
    std::stable_sort(view.peers.begin(), view.peers.end(), [&](const Node *a, const Node *b) {
        return view.cluster.age(*a).value_or(0) > view.cluster.age(*b).value_or(0);
    });
    for (const auto &[uuid, vdisk] : view.cluster.vdisks)
        (vdisk.snapshot() ? view.snapshots : view.plain)++;
    return view;
}

static std::string daemon_text(const Cluster &cluster, const Style &style)
{
    const Daemon &daemon = cluster.daemon;
    if (!daemon.running)
        return fmt::format("{}not running{}", style.red, style.reset);
    double up = static_cast<double>(cluster.now - daemon.since);
    std::string drops = daemon.drops == 0
                            ? "no datagram dropped"
                            : fmt::format("{}{} datagrams dropped{}", style.yellow, daemon.drops, style.reset);
    return fmt::format("running for {} as process {}, {:.1f} s of CPU, {} of memory, {}", human_age(up), daemon.pid,
                       daemon.cpu_seconds, human_size(daemon.rss_bytes), drops);
}

/* What keeps a local node's publication back, as its troubles tell; else how full its next PING is. */
static std::string publication_of(const View &view, const Node &node)
{
    std::string record = record_name("node", std::to_string(node.uid));
    for (const Trouble &trouble : view.troubles)
        if (trouble.severity == Severity::error && trouble.record == record)
            return fmt::format("kept back: {}", trouble.code);
    for (const Link &link : node.vdisks.links)
        for (const Trouble &trouble : view.troubles)
            if (trouble.severity == Severity::error && trouble.record == record_name("vdisk", link.name))
                return fmt::format("PING kept back: {} {}", trouble.code, trouble.record);
    std::optional<size_t> bytes = ping_bytes(view.cluster, node);
    if (!view.cluster.daemon.running)
        return "nothing is sent: the daemon is down";
    return bytes ? fmt::format("PING of {} bytes every {} s", *bytes, view.cluster.settings.ping_interval)
                 : "PING unknown";
}

static std::string local_nodes_text(const View &view, const Style &style)
{
    Table table({"NODE", "DATASTORE", "VDISKS", "FREESPACE", "UTILIZATION", "PUBLISHED"});
    for (const Node *node : view.local)
        table.add({std::to_string(node->uid), node->value("datastoremember").text,
                   std::to_string(node->vdisks.links.size()), node->value("freespace").text,
                   node->value("utilization").text, publication_of(view, *node)});
    return table.empty() ? "  none\n" : table.render(style, "  ");
}

static std::string peers_text(const View &view, const Style &style)
{
    Table table({"NODE", "HEARD", "ADDRESS", "VERSION", "DATASTORE", "VDISKS", "FREESPACE"});
    for (size_t i = 0; i < std::min(view.peers.size(), PEERS_SHOWN); i++) {
        const Node &node = *view.peers[i];
        std::optional<double> age = view.cluster.age(node);
        table.add({std::to_string(node.uid), age ? human_age(*age) + (*age < 0 ? "" : " ago") : "never",
                   node.value("ipaddr").text, node.value("version").text, node.value("datastoremember").text,
                   std::to_string(node.vdisks.links.size()), node.value("freespace").text});
    }
    std::string text = table.empty() ? "  none\n" : table.render(style, "  ");
    if (view.peers.size() > PEERS_SHOWN)
        text += fmt::format("  and {} more, heard later than these; mwctl nodes lists all\n",
                            view.peers.size() - PEERS_SHOWN);
    return text;
}

/* The figures that the members state, added up as they stand: their unit is the storage programs' own. */
static std::string datastores_text(const View &view, const Style &style)
{
    Table table({"DATASTORE", "NAME", "MEMBERS", "VDISKS", "FREESPACE", "ALLOCATED"});
    for (const auto &[uuid, datastore] : view.cluster.datastores) {
        uint64_t free = 0, allocated = 0;
        for (const Link &link : datastore.members.links)
            if (const Node *node = view.cluster.node(uid_from(link.name).value_or(0))) {
                free += node->number("freespace");
                allocated += node->number("allocatedspace");
            }
        table.add({uuid, datastore.value("name").text, std::to_string(datastore.members.links.size()),
                   std::to_string(datastore.vdisks.links.size()), std::to_string(free), std::to_string(allocated)});
    }
    return table.empty() ? "  none\n" : table.render(style, "  ");
}

static std::string heading(const Style &style, const std::string &text)
{
    return fmt::format("\n{}{}{}\n", style.bold, text, style.reset);
}

static std::string page(const View &view, const Style &style)
{
    const Cluster &cluster = view.cluster;
    auto errors = std::count_if(view.troubles.begin(), view.troubles.end(),
                                [](const Trouble &trouble) { return trouble.severity == Severity::error; });
    std::string state = view.troubles.empty() ? fmt::format("{}healthy{}", style.green, style.reset)
                        : errors > 0          ? fmt::format("{}in trouble{}", style.red, style.reset)
                                              : fmt::format("{}working, with warnings{}", style.yellow, style.reset);
    std::string text = fmt::format("  host: {}\n state: {}\ndaemon: {}\n  tree: {}\n", printable(cluster.host), state,
                                   daemon_text(cluster, style), printable(cluster.settings.work_directory));
    text += heading(style, "nodes of this host") + local_nodes_text(view, style);
    text += heading(style, fmt::format("peers ({})", view.peers.size())) + peers_text(view, style);
    text += heading(style, "datastores") + datastores_text(view, style);
    text += heading(style, "VDisks") + fmt::format("  {} plain, {} snapshots\n", view.plain, view.snapshots);
    text += heading(style, "troubles");
    if (view.troubles.empty())
        return text + "  none that can be seen without reading every file; mwctl check reads them all\n";
    return text + troubles_text(view.troubles, style) +
           "\nmwctl check reads every file; each code has its cause and remedy in mwctl(8)\n";
}

static Json document(const View &view)
{
    auto node = [&](const Node *one) {
        return node_json(view.cluster, *one);
    };
    return {{"host", utf8(view.cluster.host)},
            {"healthy", view.troubles.empty()},
            {"daemon", daemon_json(view.cluster.daemon)},
            {"local_nodes", json_list(view.local, node)},
            {"peers", json_list(view.peers, node)},
            {"datastores",
             json_list(view.cluster.datastores, [](const auto &entry) { return datastore_json(entry.second); })},
            {"vdisks", {{"plain", view.plain}, {"snapshots", view.snapshots}, {"total", view.cluster.vdisks.size()}}},
            {"troubles", json_list(view.troubles, trouble_json)}};
}

static int show_once(const Options &options, const Settings &settings, const char *before)
{
    View view = look(settings);
    if (options.json)
        print_json(document(view));
    else
        print(before + page(view, options.style()) + (before[0] ? "\033[J" : ""));
    return view.troubles.empty() ? STATUS_DONE : STATUS_TROUBLE;
}

static volatile sig_atomic_t interrupted;

/* Page after page until SIGINT; on a terminal each over the last, without clearing it first, so that nothing flickers.
 */
static int watch(const Options &options, double seconds)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {
        interrupted = 1;
    };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    Settings settings = options.settings();
    bool terminal = isatty(STDOUT_FILENO);
    if (terminal)
        print("\033[2J");
    while (!interrupted) {
        show_once(options, settings, terminal && !options.json ? "\033[H" : "");
        struct timespec pause = {
            static_cast<time_t>(seconds),
            static_cast<long>((seconds - static_cast<double>(static_cast<time_t>(seconds))) * 1e9)};
        nanosleep(&pause, nullptr);
    }
    return STATUS_DONE;
}

void add_status(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("status", "One page: what state, what is wrong, which command mends it");
    auto seconds = std::make_shared<double>(2);
    CLI::Option *again = command->add_option("--watch", *seconds, "Redraw every SECONDS, 2 unless told, until SIGINT")
                             ->expected(0, 1)
                             ->check(CLI::Range(0.1, 86400.0))
                             ->type_name("SECONDS");
    command->footer("Examples:\n  mwctl status\n  mwctl status --watch=5");
    command->callback([&options, &status, seconds, again] {
        status = again->count() > 0 ? watch(options, *seconds) : show_once(options, options.settings(), "");
    });
}

} // namespace mwctl
