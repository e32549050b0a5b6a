/* nodes, datastores, vdisks: a line a record. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/render.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace mwctl
{

struct TableOptions {
    std::optional<uint32_t> node;
    std::optional<std::string> datastore;
    std::string sort;
    bool exact = false;
};

/* A cell: how it reads, and what it sorts by where that is a number. */
struct Cell {
    std::string text;
    std::optional<double> key;
};

struct Row {
    std::vector<Cell> cells;
    Json document;
};

/* A value of the record as it stands, "-" for one that cannot be read. */
static Cell value_cell(Kind kind, const Values &values, std::string_view key)
{
    const Value &value = value_of(kind, values, key);
    if (!value.good())
        return {"-", {}};
    const Attribute &attribute = attributes(kind)[static_cast<size_t>(attribute_index(kind, key))];
    if (attribute.form != Form::number)
        return {value.text, {}};
    uint64_t number = value_number(attribute, value);
    return {std::to_string(number), static_cast<double>(number)};
}

static Cell count_cell(size_t count)
{
    return {std::to_string(count), static_cast<double>(count)};
}

static Cell age_cell(std::optional<double> age, bool exact)
{
    if (!age)
        return {"-", {}};
    return {exact ? fmt::format("{:.0f}", *age) : human_age(*age), *age};
}

static Cell capacity_cell(const VDisk &vdisk, bool exact)
{
    if (!vdisk.value("sectors").good() || !vdisk.value("sector_size").good())
        return {"-", {}};
    uint64_t bytes;
    if (__builtin_mul_overflow(vdisk.number("sectors"), vdisk.number("sector_size"), &bytes))
        bytes = UINT64_MAX;
    return {exact ? std::to_string(bytes) : human_size(bytes), static_cast<double>(bytes)};
}

static bool has_link(const LinkDirectory &directory, const std::string &name)
{
    return std::any_of(directory.links.begin(), directory.links.end(),
                       [&](const Link &link) { return link.name == name; });
}

static const std::vector<std::string> node_columns = {"NODE",      "PLACE",  "AGE",       "ADDRESS",    "VERSION",
                                                      "DATASTORE", "VDISKS", "FREESPACE", "UTILIZATION"};

static std::vector<Row> node_rows(const Cluster &cluster, const TableOptions &wanted)
{
    std::vector<Row> rows;
    for (const auto &[uid, node] : cluster.nodes) {
        if ((wanted.node && *wanted.node != uid) ||
            (wanted.datastore && node.value("datastoremember").text != *wanted.datastore))
            continue;
        rows.push_back({{count_cell(uid),
                         {cluster.local(node) ? "here" : "peer", {}},
                         age_cell(cluster.age(node), wanted.exact),
                         value_cell(Kind::node, node.values, "ipaddr"),
                         value_cell(Kind::node, node.values, "version"),
                         value_cell(Kind::node, node.values, "datastoremember"),
                         count_cell(node.vdisks.links.size()),
                         value_cell(Kind::node, node.values, "freespace"),
                         value_cell(Kind::node, node.values, "utilization")},
                        node_json(cluster, node)});
    }
    return rows;
}

static const std::vector<std::string> datastore_columns = {"DATASTORE", "NAME",     "MEMBERS", "VDISKS",
                                                           "SECTOR",    "REPLICAS", "STRIPES", "OVERCOMMIT"};

static std::vector<Row> datastore_rows(const Cluster &cluster, const TableOptions &wanted)
{
    std::vector<Row> rows;
    for (const auto &[uuid, datastore] : cluster.datastores) {
        if ((wanted.datastore && *wanted.datastore != uuid) ||
            (wanted.node && !has_link(datastore.members, std::to_string(*wanted.node))))
            continue;
        Row row{{{uuid, {}},
                 value_cell(Kind::datastore, datastore.values, "name"),
                 count_cell(datastore.members.links.size()),
                 count_cell(datastore.vdisks.links.size())},
                datastore_json(datastore)};
        for (const char *key : {"sector_size", "replicas", "stripes", "overcommit"})
            row.cells.push_back(value_cell(Kind::datastore, datastore.values, key));
        rows.push_back(std::move(row));
    }
    return rows;
}

static const std::vector<std::string> vdisk_columns = {"VDISK",      "KIND",    "NAME",  "SIZE",
                                                       "GENERATION", "MEMBERS", "STATE", "DATASTORE"};

/* In a transaction, with members that have not reported, or complete. */
static std::string state_of(const VDisk &vdisk)
{
    if (vdisk.number("transaction_id") != 0)
        return fmt::format("transaction {}", vdisk.number("transaction_id"));
    std::vector<uint32_t> uids = vdisk.membership();
    auto silent = std::count_if(uids.begin(), uids.end(), [&](uint32_t uid) { return !vdisk.member(uid); });
    return silent == 0 ? "complete"
                       : fmt::format("{} of {} reported", uids.size() - static_cast<size_t>(silent), uids.size());
}

static bool names_member(const VDisk &vdisk, uint32_t uid)
{
    std::vector<uint32_t> uids = vdisk.membership();
    return vdisk.member(uid) || std::find(uids.begin(), uids.end(), uid) != uids.end();
}

static std::vector<Row> vdisk_rows(const Cluster &cluster, const TableOptions &wanted)
{
    std::vector<Row> rows;
    for (const auto &[uuid, vdisk] : cluster.vdisks) {
        if ((wanted.node && !names_member(vdisk, *wanted.node)) ||
            (wanted.datastore && vdisk.datastore_name() != *wanted.datastore))
            continue;
        rows.push_back({{{uuid, {}},
                         {vdisk.snapshot() ? fmt::format("snapshot of {}", vdisk.value("parent").text) : "plain", {}},
                         value_cell(Kind::vdisk, vdisk.values, "name"),
                         capacity_cell(vdisk, wanted.exact),
                         value_cell(Kind::vdisk, vdisk.values, "highest_gen_count"),
                         {fmt::format("{}", fmt::join(vdisk.membership(), ",")), {}},
                         {state_of(vdisk), {}},
                         {vdisk.datastore_name().empty() ? "-" : vdisk.datastore_name(), {}}},
                        vdisk_json(vdisk)});
    }
    return rows;
}

struct Listing {
    const char *command;
    const char *description;
    const std::vector<std::string> &columns;
    std::vector<Row> (*rows)(const Cluster &, const TableOptions &);
    Scope::Extent extent;
};

static const Listing listings[] = {
    {"nodes", "The nodes of the cluster, a line each", node_columns, node_rows, Scope::summary},
    {"datastores", "The datastores, a line each", datastore_columns, datastore_rows, Scope::summary},
    {"vdisks", "The virtual disks, a line each", vdisk_columns, vdisk_rows, Scope::whole},
};

static void sort_rows(std::vector<Row> &rows, const Listing &listing, std::string column)
{
    std::transform(column.begin(), column.end(), column.begin(), [](unsigned char c) { return std::toupper(c); });
    auto found = std::find(listing.columns.begin(), listing.columns.end(), column);
    if (found == listing.columns.end())
        refuse(fmt::format("{} has no column {}; there are: {}", listing.command, column,
                           fmt::join(listing.columns, ", ")));
    auto index = static_cast<size_t>(found - listing.columns.begin());
    std::stable_sort(rows.begin(), rows.end(), [&](const Row &a, const Row &b) {
        const Cell &x = a.cells[index], &y = b.cells[index];
        if (x.key && y.key)
            return *x.key < *y.key;
        return x.key.has_value() != y.key.has_value() ? x.key.has_value() : x.text < y.text;
    });
}

static int run_listing(const Options &options, const Listing &listing, const TableOptions &wanted)
{
    Cluster cluster = read_cluster(options.settings(), {listing.extent, ""});
    std::vector<Row> rows = listing.rows(cluster, wanted);
    if (!wanted.sort.empty())
        sort_rows(rows, listing, wanted.sort);
    if (options.json) {
        print_json({{listing.command, json_list(rows, [](const Row &row) { return row.document; })}});
        return STATUS_DONE;
    }
    Table table(listing.columns);
    for (const Row &row : rows) {
        std::vector<std::string> cells;
        for (const Cell &cell : row.cells)
            cells.push_back(cell.text);
        table.add(std::move(cells));
    }
    print(table.render(options.style()));
    return STATUS_DONE;
}

void add_tables(CLI::App &app, Options &options, int &status)
{
    for (const Listing &listing : listings) {
        CLI::App *command = app.add_subcommand(listing.command, listing.description);
        auto wanted = std::make_shared<TableOptions>();
        command->add_option("--node", wanted->node, "Only what belongs to this node")->type_name("N");
        command->add_option("--datastore", wanted->datastore, "Only what belongs to this datastore")->type_name("D");
        command->add_option("--sort", wanted->sort, "The column to sort by, in either case")->type_name("COLUMN");
        command->add_flag("--exact", wanted->exact, "Bytes and seconds instead of human units");
        command->footer(fmt::format("Example:\n  mwctl {0} --sort {1}", listing.command, listing.columns[2]));
        command->callback([&options, &status, &listing, wanted] { status = run_listing(options, listing, *wanted); });
    }
}

} // namespace mwctl
