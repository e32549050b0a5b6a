#include "mwctl/render.h"

#include "mwd/netlib.h"

#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

std::string text_of(const Value &value)
{
    return value.good() ? value.text : "";
}

Json value_json(const Attribute &attribute, const Value &value)
{
    if (!value.good())
        return nullptr;
    if (attribute.form == Form::number)
        return value_number(attribute, value);
    if (attribute.form == Form::nodes)
        return json_list(value_lines(value), [](std::string_view line) {
            return static_cast<uint32_t>(strtoul(std::string(line).c_str(), nullptr, 10));
        });
    if (attribute.form == Form::addresses)
        return json_list(value_lines(value), [](std::string_view line) { return utf8(line); });
    return utf8(value.text);
}

/* Adds every attribute whose key does not stand in the document yet. */
static void add_attributes(Json &document, Kind kind, const Values &values)
{
    for (size_t i = 0; i < values.size(); i++) {
        const Attribute &attribute = attributes(kind)[i];
        if (!document.contains(attribute.key) && !values[i].missing())
            document[std::string(attribute.key)] = value_json(attribute, values[i]);
    }
}

static Json link_names(const LinkDirectory &directory)
{
    return json_list(directory.links, [](const Link &link) { return utf8(link.name); });
}

static Json link_numbers(const LinkDirectory &directory)
{
    Json result = Json::array();
    for (const Link &link : directory.links)
        if (auto uid = uid_from(link.name))
            result.push_back(*uid);
    return result;
}

std::optional<size_t> ping_bytes(const Cluster &cluster, const Node &node)
{
    size_t bytes = sizeof(Hdr);
    for (const Link &link : node.vdisks.links) {
        if (!uuid_usable(link.name)) /* the daemon passes over it too */
            continue;
        const VDisk *vdisk = cluster.vdisk(link.name);
        const Member *member = vdisk && vdisk->depth == Depth::whole ? vdisk->member(node.uid) : nullptr;
        if (!member)
            return std::nullopt;
        bytes += sizeof(VDiskEntry) + vdisk->membership().size() * sizeof(MemberEntry) +
                 value_lines(member->value("frontend")).size() * sizeof(FrontendEntry);
    }
    return bytes;
}

static Json or_null(const Value &value)
{
    return value.good() ? Json(utf8(value.text)) : Json();
}

Json node_json(const Cluster &cluster, const Node &node)
{
    bool local = cluster.local(node);
    std::optional<double> age = cluster.age(node);
    Json document = {
        {"uid", node.uid},
        {"local", local},
        {"age_seconds", age ? Json(*age) : Json()},
        {"ipaddr", or_null(node.value("ipaddr"))},
        {"version", or_null(node.value("version"))},
        {"datastore", node.value("datastoremember").text.empty() ? Json() : or_null(node.value("datastoremember"))},
        {"vdisks", node.vdisks.links.size()}};
    if (local) {
        std::optional<size_t> bytes = ping_bytes(cluster, node);
        document["ping_bytes"] = bytes ? Json(*bytes) : Json();
    }
    add_attributes(document, Kind::node, node.values);
    return document;
}

Json datastore_json(const Datastore &datastore)
{
    Json document = {{"uuid", utf8(datastore.uuid)},
                     {"members", link_numbers(datastore.members)},
                     {"vdisks", link_names(datastore.vdisks)}};
    add_attributes(document, Kind::datastore, datastore.values);
    return document;
}

Json vdisk_json(const VDisk &vdisk)
{
    std::string datastore = vdisk.datastore_name();
    Json document = {{"uuid", utf8(vdisk.uuid)},
                     {"kind", vdisk.snapshot() ? "snapshot" : "plain"},
                     {"parent", vdisk.snapshot() ? or_null(vdisk.value("parent")) : Json()},
                     {"datastore", datastore.empty() ? Json() : Json(utf8(datastore))},
                     {"membership", vdisk.membership()},
                     {"transaction_id", vdisk.number("transaction_id")}};
    document["members"] = json_list(vdisk.members, [](const Member &member) {
        Json entry = {{"uid", member.uid}};
        entry["frontends"] =
            json_list(value_lines(member.value("frontend")), [](std::string_view line) { return utf8(line); });
        add_attributes(entry, Kind::member, member.values);
        entry.erase("frontend");
        return entry;
    });
    add_attributes(document, Kind::vdisk, vdisk.values);
    return document;
}

Json daemon_json(const Daemon &daemon)
{
    return {{"running", daemon.running},
            {"pid", daemon.running ? Json(daemon.pid) : Json()},
            {"since", daemon.running ? Json(iso_time(daemon.since)) : Json()},
            {"cpu_seconds", daemon.cpu_seconds},
            {"rss_bytes", daemon.rss_bytes},
            {"drops", daemon.drops}};
}

Json lock_json(const Lock &lock)
{
    return {{"name", utf8(lock.name)}, {"record", utf8(lock.record)},   {"pid", lock.pid ? Json(lock.pid) : Json()},
            {"alive", lock.alive},     {"command", utf8(lock.command)}, {"age_seconds", lock.age_seconds},
            {"uid", lock.uid}};
}

Json trouble_json(const Trouble &trouble)
{
    return {{"code", trouble.code},
            {"severity", trouble.severity == Severity::error ? "error" : "warning"},
            {"record", utf8(trouble.record)},
            {"file", trouble.file.empty() ? Json() : Json(utf8(trouble.file))},
            {"text", utf8(trouble.text)},
            {"action", utf8(trouble.action)},
            {"repairable", trouble.repairable}};
}

std::string troubles_count(const std::vector<Trouble> &troubles)
{
    auto errors = static_cast<size_t>(std::count_if(
        troubles.begin(), troubles.end(), [](const Trouble &trouble) { return trouble.severity == Severity::error; }));
    size_t warnings = troubles.size() - errors;
    return fmt::format("{}{}{}", errors ? count_of(errors, "error") : "", errors && warnings ? ", " : "",
                       warnings ? count_of(warnings, "warning") : "");
}

std::string troubles_text(const std::vector<Trouble> &troubles, const Style &style)
{
    constexpr size_t gutter = 9;
    size_t width = terminal_width();
    std::string result;
    for (const Trouble &trouble : troubles) {
        bool error = trouble.severity == Severity::error;
        result += fmt::format("{}{:<7}{}  {}{}{}  {}\n{:9}{}\n {}action:{} {}\n", error ? style.red : style.yellow,
                              error ? "error" : "warning", style.reset, style.bold, trouble.code, style.reset,
                              printable(trouble.record), "", wrap(printable(trouble.text), width, gutter), style.green,
                              style.reset, printable(trouble.action));
    }
    return result;
}

} // namespace mwctl
