/* publish and reload: what the daemon is asked for, once it is clear that it can do it. */
#include "mwctl/command.h"
#include "mwctl/control.h"
#include "mwctl/failure.h"
#include "mwctl/ownership.h"
#include "mwctl/publishable.h"
#include "mwctl/record_name.h"
#include "mwctl/steps.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <fmt/format.h>

namespace mwctl
{

static void give_up_if(const std::string &reason)
{
    if (!reason.empty())
        give_up("not published: " + reason);
}

/* A faulty line of the tables that count. */
static void require_tables(const Settings &settings)
{
    if (settings.table_faults.empty())
        return;
    const FileFault &fault = settings.table_faults[0];
    std::string place = fault.line ? fmt::format("{}:{}", fault.file, fault.line) : fault.file;
    size_t more = settings.table_faults.size() - 1;
    give_up(fmt::format("{}: {}{}; nothing was sent, and mwd goes on with what it read before", place, fault.text,
                        more ? fmt::format(" (and {} more: mwctl config)", more) : ""));
}

/* The daemon publishes what it can; whoever is left out is told. */
static int publish_all(const Options &options)
{
    Settings settings = options.settings();
    require_tables(settings);
    require_daemon(settings);
    if (settings.local_nodes.empty())
        give_up(fmt::format("{} lists no node: add one to it, then: mwctl reload", settings.local_nodes_file));
    std::string first;
    size_t kept_back = 0;
    for (const LocalNode &node : settings.local_nodes) {
        std::string reason = keeps_back_ping(settings, node.uid);
        if (!reason.empty() && kept_back++ == 0)
            first = reason;
    }
    if (kept_back == settings.local_nodes.size())
        give_up_if(first);
    signal_daemon(settings, SIGUSR1);
    if (kept_back > 0)
        give_up(fmt::format("mwd publishes {} of {} nodes whole; not the others: {}",
                            settings.local_nodes.size() - kept_back, settings.local_nodes.size(), first));
    return print_steps(options, "", {fmt::format("mwd publishes all {} local nodes", settings.local_nodes.size())});
}

static int publish_datastore(const Options &options, const std::string &uid)
{
    Settings settings = options.settings();
    RecordName node = node_record(uid);
    ControlPort port(settings);
    give_up_if(keeps_back_datastore(settings, node.uid));
    port.send("ds_ping " + node.name);
    return print_steps(options, node.text(), {fmt::format("mwd publishes the datastore of {}", node.text())});
}

/* The control port takes one line. */
static void require_line(const RecordName &vdisk)
{
    if (vdisk.name.ends_with('\r'))
        refuse(
            fmt::format("'{}' ends with a character that the control port takes for the end of its line", vdisk.name));
}

static int publish_vdisk(const Options &options, const std::string &uid, const std::string &uuid)
{
    Settings settings = options.settings();
    RecordName node = node_record(uid), vdisk = vdisk_record(uuid);
    require_line(vdisk);
    ControlPort port(settings);
    give_up_if(keeps_back_vdisk(settings, node.uid, vdisk.name));
    port.send(fmt::format("single_vdisk_ping {} {}", node.name, vdisk.name));
    return print_steps(options, vdisk.text(), {fmt::format("mwd publishes {} of {}", vdisk.text(), node.text())});
}

static int publish_deleted(const Options &options, const std::string &uid, const std::string &uuid)
{
    Settings settings = options.settings();
    RecordName node = node_record(uid), vdisk = vdisk_record(uuid);
    require_line(vdisk);
    ControlPort port(settings);
    give_up_if(keeps_back_node(settings, node.uid));
    port.send(fmt::format("vdisk_deleted {} {}", node.name, vdisk.name));
    std::vector<std::string> steps = {fmt::format("mwd publishes that {} has given up {}", node.text(), vdisk.text())};
    Cluster cluster = read_around(settings, node);
    if (const Node *record = cluster.node(node.uid))
        for (const Link &link : record->vdisks.links)
            if (link.name == vdisk.name)
                steps.push_back(fmt::format("it is still linked to the node here, so its next PING brings it back; "
                                            "this gives it up: mwctl drop vdisk {} --node {}",
                                            vdisk.name, node.uid));
    return print_steps(options, vdisk.text(), steps);
}

static int run_reload(const Options &options)
{
    Settings settings = options.settings();
    require_tables(settings);
    signal_daemon(settings, SIGHUP);
    return print_steps(options, "", {"mwd reads its tables again"});
}

void add_publish(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("publish", "Have the daemon publish now what it would publish later");
    command->require_subcommand(1);
    command->footer("Examples:\n  mwctl publish all\n  mwctl publish vdisk 7 v1");

    CLI::App *all = command->add_subcommand("all", "All local nodes, with their datastores and VDisks");
    all->footer("Example:\n  mwctl publish all");
    all->callback([&] { status = publish_all(options); });

    auto node = std::make_shared<std::string>(), vdisk = std::make_shared<std::string>();
    CLI::App *datastore = command->add_subcommand("datastore", "The datastore of a local node");
    datastore->add_option("NODE", *node, "A number of local_nodes")->required();
    datastore->footer("Example:\n  mwctl publish datastore 7");
    datastore->callback([&options, &status, node] { status = publish_datastore(options, *node); });

    CLI::App *one = command->add_subcommand("vdisk", "What a local node reports of one VDisk");
    one->add_option("NODE", *node, "A number of local_nodes")->required();
    one->add_option("VDISK", *vdisk, "A VDisk that is linked to the node")->required();
    one->footer("Example:\n  mwctl publish vdisk 7 v1");
    one->callback([&options, &status, node, vdisk] { status = publish_vdisk(options, *node, *vdisk); });

    CLI::App *deleted = command->add_subcommand("deleted", "That a local node has given up a VDisk");
    deleted->add_option("NODE", *node, "A number of local_nodes")->required();
    deleted->add_option("VDISK", *vdisk, "The VDisk's name")->required();
    deleted->footer("Example:\n  mwctl publish deleted 7 v1\nTo give a VDisk up, with its records: mwctl drop vdisk");
    deleted->callback([&options, &status, node, vdisk] { status = publish_deleted(options, *node, *vdisk); });

    CLI::App *reload = app.add_subcommand("reload", "Have the daemon read local_nodes and unicast_hosts again");
    reload->footer("Example:\n  mwctl reload\nThe configuration itself is read at the daemon's start alone.");
    reload->callback([&options, &status] { status = run_reload(options); });
}

} // namespace mwctl
