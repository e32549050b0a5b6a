/* nodes, datastores, vdisks: one line a record. */
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

struct TableOptions {
    std::string node, datastore, sort;
    bool exact = false;
};

/* A cell: for people, as the record has it, and what it is sorted by. */
struct Cell {
    std::string text;
    std::string exact;
    std::optional<double> number = {}; /* before everything that has none */
};

static Cell text_cell(const std::string &text)
{
    std::string shown = text.empty() ? "-" : text;
    return {shown, shown};
}

static Cell value_cell(const Value &value)
{
    return text_cell(value.good() ? value.text : "");
}

static Cell number_cell(std::optional<uint64_t> number)
{
    if (!number)
        return text_cell("");
    std::string text = std::to_string(*number);
    return {text, text, static_cast<double>(*number)};
}

static Cell size_cell(std::optional<uint64_t> bytes)
{
    return bytes ? Cell{human_size(*bytes), std::to_string(*bytes), static_cast<double>(*bytes)} : text_cell("");
}

static Cell age_cell(std::optional<double> seconds)
{
    return seconds ? Cell{human_age(*seconds), fmt::format("{:.0f}", *seconds), *seconds} : text_cell("");
}

static Cell sum_cell(const Sum &sum)
{
    return {sum.text(), sum.text(), sum.known ? std::optional(static_cast<double>(sum.total)) : std::nullopt};
}

static Cell nodes_cell(const std::vector<uint32_t> &uids)
{
    constexpr size_t shown = 4;
    std::string all = fmt::format("{}", fmt::join(uids, ","));
    std::string text = all;
    if (uids.size() > shown)
        text = fmt::format("{},+{}", fmt::join(uids.begin(), uids.begin() + shown, ","), uids.size() - shown);
    return {text.empty() ? "-" : text, all.empty() ? "-" : all, static_cast<double>(uids.size())};
}

/* What the columns of a table look at. */
struct View {
    Cluster cluster;
    std::map<std::string, Capacity> space;
};

template <typename Record> struct Column {
    const char *heading;
    Cell (*cell)(const View &view, const Record &record);
};

static const std::vector<Column<Node>> node_columns = {
    {"NODE",
     [](const View &, const Node &node) {
         return number_cell(node.uid);
     }},
    {"PLACE",
     [](const View &view, const Node &node) {
         return text_cell(view.cluster.local(node) ? "here" : "peer");
     }},
    {"AGE",
     [](const View &view, const Node &node) {
         return age_cell(view.cluster.age(node));
     }},
    {"ADDRESS",
     [](const View &, const Node &node) {
         return value_cell(node.value("ipaddr"));
     }},
    {"VERSION",
     [](const View &, const Node &node) {
         return value_cell(node.value("version"));
     }},
    {"DATASTORE",
     [](const View &, const Node &node) {
         return value_cell(node.value("datastoremember"));
     }},
    {"VDISKS",
     [](const View &, const Node &node) {
         return number_cell(node.vdisks.links.size());
     }},
    {"SIZE",
     [](const View &, const Node &node) {
         return number_cell(figure_of(node, "size"));
     }},
    {"FREE",
     [](const View &, const Node &node) {
         return number_cell(figure_of(node, "freespace"));
     }},
    {"UTIL",
     [](const View &, const Node &node) {
         return number_cell(figure_of(node, "utilization"));
     }},
};

static const Capacity &space_of(const View &view, const Datastore &datastore)
{
    static const Capacity none;
    auto found = view.space.find(datastore.uuid);
    return found == view.space.end() ? none : found->second;
}

static const std::vector<Column<Datastore>> datastore_columns = {
    {"DATASTORE",
     [](const View &, const Datastore &datastore) {
         return text_cell(datastore.uuid);
     }},
    {"NAME",
     [](const View &, const Datastore &datastore) {
         return value_cell(datastore.value("name"));
     }},
    {"MEMBERS",
     [](const View &, const Datastore &datastore) {
         return number_cell(datastore.members.links.size());
     }},
    {"VDISKS",
     [](const View &, const Datastore &datastore) {
         return number_cell(datastore.vdisks.links.size());
     }},
    {"REPLICAS",
     [](const View &, const Datastore &datastore) {
         return value_cell(datastore.value("replicas"));
     }},
    {"SIZE",
     [](const View &view, const Datastore &datastore) {
         return sum_cell(space_of(view, datastore).size);
     }},
    {"FREE",
     [](const View &view, const Datastore &datastore) {
         return sum_cell(space_of(view, datastore).free);
     }},
    {"ALLOCATED",
     [](const View &view, const Datastore &datastore) {
         return sum_cell(space_of(view, datastore).allocated);
     }},
};

static Cell parent_cell(const View &, const VDisk &vdisk)
{
    return vdisk.snapshot() ? value_cell(vdisk.value("parent")) : text_cell("");
}

/* In a transaction, with members that have not reported it here, or complete. */
static Cell state_cell(const View &, const VDisk &vdisk)
{
    if (uint64_t transaction = vdisk.number("transaction_id"))
        return text_cell(fmt::format("transaction {}", transaction));
    std::vector<uint32_t> uids = vdisk.membership();
    auto missing = std::count_if(uids.begin(), uids.end(), [&](uint32_t uid) { return !vdisk.member(uid); });
    return text_cell(missing ? fmt::format("{} missing", missing) : "complete");
}

static const std::vector<Column<VDisk>> vdisk_columns = {
    {"VDISK",
     [](const View &, const VDisk &vdisk) {
         return text_cell(vdisk.uuid);
     }},
    {"NAME",
     [](const View &, const VDisk &vdisk) {
         return value_cell(vdisk.value("name"));
     }},
    {"SIZE",
     [](const View &, const VDisk &vdisk) {
         return size_cell(vdisk_bytes(vdisk));
     }},
    {"DATASTORE",
     [](const View &, const VDisk &vdisk) {
         return text_cell(vdisk.datastore_name());
     }},
    {"MEMBERS",
     [](const View &, const VDisk &vdisk) {
         return nodes_cell(vdisk.membership());
     }},
    {"GENERATION",
     [](const View &, const VDisk &vdisk) {
         return value_cell(vdisk.value("highest_gen_count"));
     }},
    {"STATE", state_cell},
    {"PARENT", parent_cell},
};

/* Orders by the column named in `sort`, downwards with a "-" before it. Refuses what is no column. */
template <typename Record>
static void sort_records(std::vector<const Record *> &records, const View &view,
                         const std::vector<Column<Record>> &columns, std::string sort)
{
    if (sort.empty())
        return;
    bool downwards = sort.starts_with('-');
    std::transform(sort.begin(), sort.end(), sort.begin(), [](unsigned char c) { return toupper(c); });
    auto column = std::find_if(columns.begin(), columns.end(), [&](const Column<Record> &candidate) {
        return std::string_view(sort).substr(downwards ? 1 : 0) == candidate.heading;
    });
    if (column == columns.end()) {
        std::string names;
        for (const Column<Record> &candidate : columns)
            names += std::string(names.empty() ? "" : ", ") + candidate.heading;
        refuse(fmt::format("there is no column {} to sort by; the columns are {}", sort, names));
    }
    using Keyed = std::pair<Cell, const Record *>;
    std::vector<Keyed> keyed;
    for (const Record *record : records)
        keyed.emplace_back(column->cell(view, *record), record);
    auto less = [](const Cell &a, const Cell &b) {
        return a.number && b.number ? *a.number < *b.number
                                    : std::tuple(!a.number, a.exact) < std::tuple(!b.number, b.exact);
    };
    std::stable_sort(keyed.begin(), keyed.end(), [&](const Keyed &a, const Keyed &b) {
        return downwards ? less(b.first, a.first) : less(a.first, b.first);
    });
    std::transform(keyed.begin(), keyed.end(), records.begin(), [](const Keyed &pair) { return pair.second; });
}

template <typename Record>
static std::string table_text(const std::vector<const Record *> &records, const View &view,
                              const std::vector<Column<Record>> &columns, bool exact, const Style &style)
{
    std::vector<std::string> headings;
    for (const Column<Record> &column : columns)
        headings.push_back(column.heading);
    Table table(headings);
    for (const Record *record : records) {
        std::vector<std::string> cells;
        for (const Column<Record> &column : columns) {
            Cell cell = column.cell(view, *record);
            cells.push_back(exact ? cell.exact : cell.text);
        }
        table.add(std::move(cells));
    }
    return table.render(style);
}

/* The node and the datastore that the table is narrowed to. Gives up if they are not in the tree. */
struct Filter {
    std::optional<uint32_t> node;
    std::string datastore;

    Filter(const Cluster &cluster, const TableOptions &wanted) : datastore(wanted.datastore)
    {
        if (!wanted.node.empty()) {
            node = node_number(wanted.node);
            if (!cluster.node(*node))
                give_up_absent(cluster.settings, record_name("node", wanted.node));
        }
        if (!datastore.empty() && !cluster.datastore(datastore))
            give_up_absent(cluster.settings, record_name("datastore", datastore));
    }

    bool takes(const Node &record) const
    {
        const Value &member = record.value("datastoremember");
        return (!node || *node == record.uid) && (datastore.empty() || (member.good() && member.text == datastore));
    }
    bool takes(const Datastore &record) const
    {
        return (!node || record.members.find(std::to_string(*node))) && (datastore.empty() || record.uuid == datastore);
    }
    bool takes(const VDisk &record) const
    {
        std::vector<uint32_t> uids = record.membership();
        return (!node || record.member(*node) || std::find(uids.begin(), uids.end(), *node) != uids.end()) &&
               (datastore.empty() || record.datastore_name() == datastore);
    }
};

static Json json_of(const View &view, const Node &node)
{
    return node_json(view.cluster, node);
}

static Json json_of(const View &, const Datastore &datastore)
{
    return datastore_json(datastore);
}

static Json json_of(const View &, const VDisk &vdisk)
{
    return vdisk_json(vdisk);
}

template <typename Key, typename Record>
static void print_table(const View &view, const std::map<Key, Record> &all, const char *name,
                        const std::vector<Column<Record>> &columns, const Options &options, const TableOptions &wanted)
{
    Filter filter(view.cluster, wanted);
    std::vector<const Record *> records;
    for (const auto &[key, record] : all)
        if (filter.takes(record))
            records.push_back(&record);
    sort_records(records, view, columns, wanted.sort);
    if (options.json)
        print_json({{name, json_list(records, [&](const Record *record) { return json_of(view, *record); })}});
    else
        print(table_text(records, view, columns, wanted.exact, options.style()));
}

static View read_view(const Options &options, Scope::Extent extent)
{
    View view{read_cluster(options.settings(), {extent, ""}), {}};
    view.space = capacities(view.cluster);
    return view;
}

static void run_nodes(const Options &options, const TableOptions &wanted)
{
    View view = read_view(options, Scope::summary);
    print_table(view, view.cluster.nodes, "nodes", node_columns, options, wanted);
}

static void run_datastores(const Options &options, const TableOptions &wanted)
{
    View view = read_view(options, Scope::summary);
    print_table(view, view.cluster.datastores, "datastores", datastore_columns, options, wanted);
}

static void run_vdisks(const Options &options, const TableOptions &wanted)
{
    View view = read_view(options, Scope::whole);
    print_table(view, view.cluster.vdisks, "vdisks", vdisk_columns, options, wanted);
}

static void add_table(CLI::App &app, Options &options, const char *name, const char *description, const char *footer,
                      void (*run)(const Options &options, const TableOptions &wanted))
{
    CLI::App *command = app.add_subcommand(name, description);
    auto wanted = std::make_shared<TableOptions>();
    command->add_option("--node", wanted->node, "Only what has to do with this node")->type_name("N");
    command->add_option("--datastore", wanted->datastore, "Only what has to do with this datastore")->type_name("D");
    command->add_option("--sort", wanted->sort, "By this column, with a - before it downwards")->type_name("COLUMN");
    command->add_flag("--exact", wanted->exact, "Bytes and seconds instead of human units, lists whole");
    command->footer(footer);
    command->callback([&options, wanted, run] { run(options, *wanted); });
}

void add_tables(CLI::App &app, Options &options, int &)
{
    add_table(app, options, "nodes", "Every node, one line each",
              "Examples:\n  mwctl nodes --sort=-age\n  mwctl nodes --datastore ds1", run_nodes);
    add_table(app, options, "datastores", "Every datastore, one line each",
              "Examples:\n  mwctl datastores\n  mwctl datastores --node 7", run_datastores);
    add_table(app, options, "vdisks", "Every VDisk, one line each",
              "Examples:\n  mwctl vdisks --node 7\n  mwctl vdisks --sort=-size --exact", run_vdisks);
}

} // namespace mwctl
