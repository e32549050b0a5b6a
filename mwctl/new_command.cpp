/* new: whole records of this host's own. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/new_vdisk.h"
#include "mwctl/ownership.h"
#include "mwctl/plan.h"
#include "mwctl/steps.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace mwctl
{

[[noreturn]] static void refuse_whole(const RecordName &record)
{
    refuse(fmt::format("{} exists already: mwctl show {} {} shows it, and mwctl set changes it", record.text(),
                       kind_word(record.kind), record.name));
}

static void require_not_of_peer(const Settings &settings, const RecordName &record)
{
    Cluster cluster = read_around(settings, record);
    if (record_exists(cluster, record) && !own_record(cluster, record))
        refuse(fmt::format("{} exists already, and is a peer's", record.text()));
}

/* Writes nothing, so that a plan that contradicts the record is refused before the datastore is touched. */
static bool node_is_whole(const Settings &settings, const RecordName &node, const std::vector<Change> &plan)
{
    HeldRecord held(settings, node);
    return missing_values(held, ".", node, plan).empty() && held.has("vdisks");
}

/*
 * The value that names the datastore is the first of the record, so that a node that was cut short is never published
 * as one without a datastore.
 */
static void write_node(const Settings &settings, const RecordName &node, const std::vector<Change> &plan)
{
    HeldRecord held(settings, node);
    std::vector<Change> missing = missing_values(held, ".", node, plan);
    held.make_directory();
    held.make_directory("vdisks");
    for (const Change &change : missing)
        held.write(change);
    held.sync();
}

static std::string what_next(const Settings &settings, const RecordName &node)
{
    if (settings.lists(node.uid))
        return "to publish it now: mwctl publish all";
    return fmt::format("to have it published, add the line {} to {}, then: mwctl reload", node.uid,
                       settings.local_nodes_file);
}

static int new_node(const Options &options, const std::string &uid, const std::optional<std::string> &datastore,
                    const std::vector<std::string> &assignments)
{
    RecordName node = node_record(uid);
    Texts given = take_apart(assignments);
    if (datastore && !given.emplace("datastoremember", datastore_record(*datastore).name).second)
        refuse("--datastore and datastoremember are both given");
    std::vector<Change> plan = make_plan(Kind::node, false, given, {{"uuid", node.name}});
    require_all_taken(given, "node");
    Settings settings = options.settings();
    make_root(settings);
    require_not_of_peer(settings, node);
    bool whole = node_is_whole(settings, node, plan);
    std::vector<std::string> steps;
    for (const Change &change : plan)
        if (change.attribute->key == "datastoremember")
            steps = make_datastore(settings, datastore_record(change.text),
                                   usual_datastore(datastore_record(change.text)), node.uid);
    if (!whole) {
        write_node(settings, node, plan);
        steps.push_back("made " + node.text());
    }
    if (steps.empty())
        refuse_whole(node);
    steps.push_back(what_next(settings, node));
    return print_steps(options, node.text(), steps);
}

static int new_datastore(const Options &options, const std::string &uuid, const std::vector<std::string> &assignments)
{
    RecordName datastore = datastore_record(uuid);
    Texts given = take_apart(assignments);
    std::vector<Change> plan =
        make_plan(Kind::datastore, false, given, {{"uuid", datastore.name}, {"name", datastore.name}});
    require_all_taken(given, "datastore");
    Settings settings = options.settings();
    make_root(settings);
    require_not_of_peer(settings, datastore);
    std::vector<std::string> steps = make_datastore(settings, datastore, plan, 0);
    if (steps.empty())
        refuse_whole(datastore);
    steps.push_back(fmt::format("a node joins it: mwctl new node NODE --datastore {}, or mwctl set node/NODE "
                                "datastoremember={}",
                                datastore.name, datastore.name));
    return print_steps(options, datastore.text(), steps);
}

static int new_vdisk(const Options &options, const std::string &uuid, const std::string &uid,
                     const std::optional<std::string> &parent, const std::vector<std::string> &assignments)
{
    VDiskRequest request{vdisk_record(uuid), node_record(uid), {}, take_apart(assignments)};
    if (parent)
        request.parent = vdisk_record(*parent);
    Settings settings = options.settings();
    std::vector<std::string> steps = make_vdisk(settings, request);
    if (steps.empty())
        refuse_whole(request.vdisk);
    steps.push_back(settings.lists(request.node.uid) ? "to publish it now: mwctl publish all"
                                                     : what_next(settings, request.node));
    return print_steps(options, request.vdisk.text(), steps);
}

void add_new(CLI::App &app, Options &options, int &status)
{
    struct Arguments {
        std::string name, node;
        std::optional<std::string> datastore, parent;
        std::vector<std::string> assignments;
    };
    auto arguments = std::make_shared<Arguments>();
    auto add_values = [&](CLI::App *command) {
        command->add_option("KEY=VALUE", arguments->assignments, "Values other than the usual ones; lists with commas");
    };
    CLI::App *command = app.add_subcommand("new", "Make a whole record of this host's own");
    command->require_subcommand(1);
    command->footer("Examples:\n  mwctl new node 7 --datastore ds1\n  mwctl new vdisk v1 --node 7 frontend=10.0.0.1");

    CLI::App *node = command->add_subcommand("node", "A node, and its datastore if there is none yet");
    node->add_option("NODE", arguments->name, "A number that no other node of the cluster has")->required();
    node->add_option("--datastore", arguments->datastore, "The datastore that it belongs to")->type_name("DATASTORE");
    add_values(node);
    node->footer("Example:\n  mwctl new node 7 --datastore ds1 size=1000 freespace=900");
    node->callback([&options, &status, arguments] {
        status = new_node(options, arguments->name, arguments->datastore, arguments->assignments);
    });

    CLI::App *datastore = command->add_subcommand("datastore", "A datastore without members");
    datastore->add_option("DATASTORE", arguments->name, "Its name, at most 14 bytes")->required();
    add_values(datastore);
    datastore->footer("Example:\n  mwctl new datastore ds1 name='First floor' replicas=2");
    datastore->callback(
        [&options, &status, arguments] { status = new_datastore(options, arguments->name, arguments->assignments); });

    CLI::App *vdisk = command->add_subcommand("vdisk", "A VDisk, or a node's share of one that names it");
    vdisk->add_option("VDISK", arguments->name, "Its name, at most 14 bytes")->required();
    vdisk->add_option("--node", arguments->node, "The local node that has a share of it")
        ->type_name("NODE")
        ->required();
    vdisk->add_option("--snapshot-of", arguments->parent, "Makes it a Snapshot of this Plain VDisk")
        ->type_name("VDISK");
    add_values(vdisk);
    vdisk->footer("Examples:\n  mwctl new vdisk v1 --node 7 sectors=2097152 membership=7,8 frontend=10.0.0.1\n"
                  "  mwctl new vdisk s1 --node 7 --snapshot-of v1");
    vdisk->callback([&options, &status, arguments] {
        status = new_vdisk(options, arguments->name, arguments->node, arguments->parent, arguments->assignments);
    });
}

} // namespace mwctl
