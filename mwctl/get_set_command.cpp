/* get and set: one value of a record, and values of this host's own records. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/ownership.h"
#include "mwctl/render.h"
#include "mwctl/steps.h"
#include "mwctl/tree.h"
#include "mwctl/writer.h"
#include "mwd/misc.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

namespace mwctl
{

/* The value, read again while it is faulty: a writer may have been at work. */
static Value read_steady(const std::string &path, const Attribute &attribute)
{
    constexpr int looks = 4, pause_ms = 60;
    Value value;
    for (int i = 0; i < looks; i++) {
        value = read_value_at(AT_FDCWD, path, attribute);
        if (value.good() || value.missing())
            break;
        msleep(pause_ms);
    }
    return value;
}

static int run_get(const Options &options, const std::string &name, const std::string &key)
{
    Settings settings = options.settings();
    RecordName record = parse_record(name);
    if (attribute_index(record.kind, key) < 0)
        check_value(record.kind, key, ""); /* refuses, and says which keys there are */
    const Attribute &attribute = attribute_of(record.kind, key);
    std::string directory = fmt::format("{}/{}", settings.work_directory, record.path());
    struct stat st;
    if (lstat(directory.c_str(), &st) < 0)
        give_up(fmt::format("{} is not in the tree: {}: {}", record.text(), directory, strerror(errno)));
    Value value = read_steady(fmt::format("{}/{}", directory, key), attribute);
    if (!value.good())
        give_up(fmt::format("{}/{} {}", directory, key, fault_text(attribute, value)));
    if (options.json)
        print_json({{"record", record.text()}, {"key", key}, {"value", value_json(attribute, value)}});
    else
        print(printable(value_text(attribute, value)) + "\n");
    return STATUS_DONE;
}

/* The values to set, none twice. */
static std::vector<Change> check_changes(const RecordName &record, const std::vector<std::string> &assignments)
{
    std::vector<Change> changes;
    for (const std::string &assignment : assignments) {
        auto [key, text] = split_assignment(assignment);
        if (key == "uuid")
            refuse("uuid is the record's name and stays as it is");
        Change change = check_value(record.kind, key, text);
        for (const Change &other : changes)
            if (other.attribute == change.attribute)
                refuse(fmt::format("{} is given twice", key));
        changes.push_back(std::move(change));
    }
    return changes;
}

/* A transaction is always this host's own: no message ever writes it. */
static bool only_transaction(const std::vector<Change> &changes)
{
    return std::all_of(changes.begin(), changes.end(),
                       [](const Change &change) { return change.attribute->key == "transaction_id"; });
}

/* Whether a VDisk is a Snapshot, and whose, is decided when it is made: links of other records hang on it. */
static void require_kind(const VDisk &vdisk, const std::vector<Change> &changes)
{
    const Value &kind = vdisk.value("snapshot");
    for (const Change &change : changes) {
        if (change.attribute->key == "snapshot" && kind.good() &&
            (change.text == "0") != (vdisk.number("snapshot") == 0))
            refuse(fmt::format("vdisk/{} is a {} and stays one: mwctl new vdisk makes another", vdisk.uuid,
                               vdisk.snapshot() ? "Snapshot" : "Plain VDisk"));
        const Value &parent = vdisk.value("parent");
        if (change.attribute->key == "parent" && parent.good() && parent.text != change.text)
            refuse(fmt::format("vdisk/{} is a Snapshot of {} and stays one: mwctl new vdisk makes another", vdisk.uuid,
                               parent.text));
        bool of_snapshot = change.attribute->applies == Applies::snapshot;
        if (kind.good() && change.attribute->applies != Applies::always && of_snapshot != vdisk.snapshot())
            refuse(fmt::format("vdisk/{} is a {}, which has no {}", vdisk.uuid,
                               vdisk.snapshot() ? "Snapshot" : "Plain VDisk", change.attribute->key));
    }
}

/* Gives up or refuses unless all of the changes may be made. */
static Cluster check_record(const Settings &settings, const RecordName &record, const std::vector<Change> &changes)
{
    Cluster cluster = read_around(settings, record);
    require_record(cluster, record);
    bool transaction = record.kind == Kind::vdisk && only_transaction(changes);
    if (!transaction && !own_record(cluster, record))
        refuse(fmt::format("{} is a peer's: its next message would undo the change; set it on the peer's host",
                           record.text()));
    if (const VDisk *vdisk = cluster.vdisk(record.name); vdisk && record.locked().kind == Kind::vdisk)
        require_kind(*vdisk, changes);
    return cluster;
}

static const Change *find_change(const std::vector<Change> &changes, std::string_view key)
{
    auto found = std::find_if(changes.begin(), changes.end(),
                              [&](const Change &change) { return change.attribute->key == key; });
    return found == changes.end() ? nullptr : &*found;
}

/*
 * The node's link in the datastore that it joins comes before the value that names it, and that in the one that it
 * leaves goes before: a datastore goes with its last member, so nobody names one that does not link it.
 */
static void change_datastore(const Cluster &cluster, const Node &node, const Change &change)
{
    const Value &value = node.value("datastoremember");
    std::string old = value.good() ? value.text : "";
    if (old == change.text)
        old.clear();
    if (!old.empty() && !change.text.empty())
        refuse(fmt::format("node {} leaves {} before it joins another, or its peers keep it in both: mwctl set node/{} "
                           "datastoremember= && mwctl publish datastore {}, then this again",
                           node.uid, old, node.uid, node.uid));
    if (!change.text.empty()) {
        RecordName datastore = datastore_record(change.text);
        HeldRecord held(cluster.settings, datastore);
        if (!held.has("uuid"))
            give_up(fmt::format("{} is not in the tree: mwctl new datastore {}", datastore.text(), datastore.name));
        held.make_directory("members");
        held.link(fmt::format("members/{}", node.uid), fmt::format("../../../Node/{}", node.uid));
        held.sync("members");
    } else if (uuid_usable(old)) {
        HeldRecord held(cluster.settings, datastore_record(old));
        if (held.remove(fmt::format("members/{}", node.uid)))
            held.sync("members");
    }
}

static int run_set(const Options &options, const std::string &name, const std::vector<std::string> &assignments)
{
    RecordName record = parse_record(name);
    std::vector<Change> changes = check_changes(record, assignments);
    Settings settings = options.settings();
    Cluster cluster = check_record(settings, record, changes);
    const Change *datastore = record.kind == Kind::node ? find_change(changes, "datastoremember") : nullptr;
    if (datastore)
        change_datastore(cluster, *cluster.node(record.uid), *datastore);
    std::vector<std::string> steps;
    {
        HeldRecord held(settings, record.locked());
        check_record(settings, record, changes);
        std::string directory = record.kind == Kind::member ? fmt::format("memberinfo/{}", record.uid) : ".";
        for (const Change &change : changes) {
            held.write(change, directory);
            steps.push_back(change.bytes ? fmt::format("{} {}={}", record.text(), change.attribute->key, change.text)
                                         : fmt::format("{} {} removed", record.text(), change.attribute->key));
        }
        held.sync(directory);
    }
    return print_steps(options, record.text(), steps);
}

void add_get_set(CLI::App &app, Options &options, int &status)
{
    struct Arguments {
        std::string record, key;
        std::vector<std::string> assignments;
    };
    auto arguments = std::make_shared<Arguments>();
    const char *records = "node/7, datastore/ds1, vdisk/v1, or vdisk/v1/7 for a member's share";
    CLI::App *get = app.add_subcommand("get", "One value of a record");
    get->add_option("RECORD", arguments->record, records)->required();
    get->add_option("KEY", arguments->key, "A key of mwd-database(5)")->required();
    get->footer("Examples:\n  mwctl get node/7 freespace\n  mwctl get vdisk/v1/7 frontend");
    get->callback([&options, &status, arguments] { status = run_get(options, arguments->record, arguments->key); });

    CLI::App *set = app.add_subcommand("set", "Set values of this host's own record, all of them or none");
    set->add_option("RECORD", arguments->record, records)->required();
    set->add_option("KEY=VALUE", arguments->assignments, "Lists with commas; nothing behind the = for an empty text")
        ->required();
    set->footer("Examples:\n  mwctl set node/7 freespace=850 utilization=15\n  mwctl set vdisk/v1 membership=7,8");
    set->callback(
        [&options, &status, arguments] { status = run_set(options, arguments->record, arguments->assignments); });
}

} // namespace mwctl
