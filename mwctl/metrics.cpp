/* metrics: the summary of the cluster in the text format of Prometheus. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/render.h"
#include "mwctl/replace_file.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <initializer_list>

namespace mwctl
{

/* Families of samples, each behind its HELP and TYPE; a family without samples leaves no trace. */
class Exposition
{
  public:
    using Labels = std::initializer_list<std::pair<const char *, std::string>>;

    void family(const char *name, const char *type, const char *help)
    {
        name_ = name;
        heading_ = fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
    }

    template <typename Number> void sample(Labels labels, Number value)
    {
        text_ += heading_ + name_;
        heading_.clear();
        const char *separator = "{";
        for (const auto &[label, content] : labels) {
            text_ += fmt::format("{}{}=\"{}\"", separator, label, escape(content));
            separator = ",";
        }
        text_ += fmt::format("{} {}\n", labels.size() ? "}" : "", value);
    }

    template <typename Number> void single(const char *name, const char *type, const char *help, Number value)
    {
        family(name, type, help);
        sample({}, value);
    }

    const std::string &text() const
    {
        return text_;
    }

  private:
    static std::string escape(const std::string &content)
    {
        std::string result;
        for (char c : printable(content)) {
            if (c == '\\' || c == '"')
                result += '\\';
            result += c;
        }
        return result;
    }

    std::string name_, heading_, text_;
};

static void add_outcome(Exposition &out, bool success)
{
    out.single("mwd_metrics_success", "gauge", "1: this is what the tree says; 0: it could not be read.",
               success ? 1 : 0);
}

static void add_daemon(Exposition &out, const Daemon &daemon)
{
    out.single("mwd_daemon_up", "gauge", "Whether the daemon of this host runs.", daemon.running ? 1 : 0);
    if (!daemon.running)
        return;
    out.single("mwd_daemon_start_time_seconds", "gauge", "When the daemon was started, since the Epoch.", daemon.since);
    out.single("mwd_daemon_cpu_seconds_total", "counter", "Processor time of the daemon and its fence checks.",
               daemon.cpu_seconds);
    out.single("mwd_daemon_resident_memory_bytes", "gauge", "Memory of the daemon.", daemon.rss_bytes);
    out.single("mwd_daemon_dropped_datagrams_total", "counter", "Datagrams that its UDP socket has dropped.",
               daemon.drops);
}

static void add_node_identity(Exposition &out, const Cluster &cluster)
{
    out.family("mwd_node_info", "gauge", "Each node of the tree, with what it says of itself; always 1.");
    for (const auto &[uid, node] : cluster.nodes)
        out.sample({{"node", std::to_string(uid)},
                    {"local", cluster.local(node) ? "true" : "false"},
                    {"ipaddr", text_of(node.value("ipaddr"))},
                    {"version", text_of(node.value("version"))},
                    {"vendor", text_of(node.value("vendor"))},
                    {"model", text_of(node.value("model"))},
                    {"datastore", text_of(node.value("datastoremember"))}},
                   1);
    out.family("mwd_node_age_seconds", "gauge", "Time since the node was heard, when this was written.");
    for (const auto &[uid, node] : cluster.nodes)
        if (auto age = cluster.age(node))
            out.sample({{"node", std::to_string(uid)}}, *age);
    out.family("mwd_node_last_heard_timestamp_seconds", "gauge", "When the node was heard, since the Epoch.");
    for (const auto &[uid, node] : cluster.nodes)
        if (node.value("lastping").good())
            out.sample({{"node", std::to_string(uid)}}, node.number("lastping"));
}

static void add_node_figures(Exposition &out, const Cluster &cluster)
{
    struct Figure {
        const char *key, *name, *help;
    };
    static constexpr Figure figures[] = {
        {"size", "mwd_node_size", "Space of the node, in the unit of its programs; 0 with a backup channel."},
        {"freespace", "mwd_node_freespace", "Free space of the node, in the unit of its programs."},
        {"allocatedspace", "mwd_node_allocatedspace", "Allocated space of the node, in the unit of its programs."},
        {"utilization", "mwd_node_utilization", "Utilization of the node, in the unit of its programs."},
        {"memtotal", "mwd_node_memtotal", "Memory of the node, in the unit of its programs."},
        {"memavail", "mwd_node_memavail", "Available memory of the node, in the unit of its programs."},
    };
    for (const Figure &figure : figures) {
        out.family(figure.name, "gauge", figure.help);
        for (const auto &[uid, node] : cluster.nodes)
            if (node.value(figure.key).good())
                out.sample({{"node", std::to_string(uid)}}, node.number(figure.key));
    }
    out.family("mwd_node_vdisks", "gauge", "VDisks that are linked to the node.");
    for (const auto &[uid, node] : cluster.nodes)
        out.sample({{"node", std::to_string(uid)}}, node.vdisks.links.size());
    out.family("mwd_node_ping_bytes", "gauge", "Bytes of the PING of a node of this host; 65507 fit.");
    for (const auto &[uid, node] : cluster.nodes)
        if (cluster.local(node))
            if (auto bytes = ping_bytes(cluster, node))
                out.sample({{"node", std::to_string(uid)}}, *bytes);
}

static void add_datastores(Exposition &out, const Cluster &cluster)
{
    out.family("mwd_datastore_info", "gauge", "Each datastore of the tree; always 1.");
    for (const auto &[uuid, datastore] : cluster.datastores)
        out.sample({{"datastore", uuid}, {"name", text_of(datastore.value("name"))}}, 1);
    out.family("mwd_datastore_members", "gauge", "Nodes of the datastore.");
    for (const auto &[uuid, datastore] : cluster.datastores)
        out.sample({{"datastore", uuid}}, datastore.members.links.size());
    out.family("mwd_datastore_vdisks", "gauge", "VDisks of the datastore.");
    for (const auto &[uuid, datastore] : cluster.datastores)
        out.sample({{"datastore", uuid}}, datastore.vdisks.links.size());
}

static void add_vdisks(Exposition &out, const Cluster &cluster)
{
    size_t plain = 0, snapshots = 0, unreadable = 0, open = 0;
    for (const auto &[uuid, vdisk] : cluster.vdisks) {
        (!vdisk.value("snapshot").good() ? unreadable : vdisk.snapshot() ? snapshots : plain)++;
        open += vdisk.number("transaction_id") != 0;
    }
    out.family("mwd_vdisks", "gauge", "VDisks of the tree; the kind of an unreadable one is not to be had.");
    out.sample({{"kind", "plain"}}, plain);
    out.sample({{"kind", "snapshot"}}, snapshots);
    out.sample({{"kind", "unreadable"}}, unreadable);
    out.single("mwd_transactions_open", "gauge", "VDisks of this host's nodes whose reports a transaction holds back.",
               open);
}

static void add_locks(Exposition &out, const std::vector<Lock> &locks)
{
    size_t held = 0, stale = 0, empty = 0;
    double oldest = 0;
    for (const Lock &lock : locks) {
        (lock.alive ? held : lock.pid ? stale : empty)++;
        oldest = std::max(oldest, lock.age_seconds);
    }
    out.family("mwd_locks", "gauge", "Path locks: of a living holder, of a dead one, and without a holder's number.");
    out.sample({{"state", "held"}}, held);
    out.sample({{"state", "stale"}}, stale);
    out.sample({{"state", "empty"}}, empty);
    out.single("mwd_lock_oldest_age_seconds", "gauge", "Age of the oldest path lock, 0 if there is none.", oldest);
}

static void add_troubles(Exposition &out, const std::vector<Trouble> &troubles)
{
    out.family("mwd_troubles", "gauge", "Troubles by their code; mwctl check names each with its remedy.");
    for (const TroubleCode &code : trouble_codes())
        out.sample({{"code", code.code}, {"severity", code.severity == Severity::error ? "error" : "warning"}},
                   std::count_if(troubles.begin(), troubles.end(),
                                 [&](const Trouble &trouble) { return std::string_view(trouble.code) == code.code; }));
}

static std::string metrics_text(const Options &options)
{
    Cluster cluster = read_cluster(options.settings(), {Scope::summary, ""});
    std::vector<Trouble> troubles = confirmed_troubles(cluster);
    Exposition out;
    add_outcome(out, true);
    add_daemon(out, cluster.daemon);
    add_node_identity(out, cluster);
    add_node_figures(out, cluster);
    add_datastores(out, cluster);
    add_vdisks(out, cluster);
    add_locks(out, cluster.locks);
    add_troubles(out, troubles);
    return out.text();
}

/* A run that cannot read the tree says so in the file too, lest old numbers pass for the present ones. */
static void write_metrics(const Options &options, const std::string &file)
{
    std::string text;
    try {
        text = metrics_text(options);
    } catch (...) {
        Exposition out;
        add_outcome(out, false);
        replace_file(file, out.text());
        throw;
    }
    replace_file(file, text);
}

static int run_metrics(const Options &options, const std::string &file)
{
    if (options.json)
        refuse("metrics has a format of its own; leave --json out, or see mwctl --json status");
    if (file.empty())
        print(metrics_text(options));
    else
        write_metrics(options, file);
    return STATUS_DONE;
}

void add_metrics(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("metrics", "Numbers for Prometheus, in its text format");
    auto file = std::make_shared<std::string>();
    command->add_option("--output", *file, "Write to this file, whole or not at all")->type_name("FILE");
    command->footer("Example:\n  mwctl metrics --output /var/lib/prometheus/node-exporter/mwd.prom");
    command->callback([&options, &status, file] { status = run_metrics(options, *file); });
}

} // namespace mwctl
