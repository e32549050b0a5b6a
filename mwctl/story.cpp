#include "mwctl/story.h"

#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

static Json change(const Json &from, const Json &to)
{
    return {{"from", from}, {"to", to}};
}

static Json vdisk_shape(const VDisk &vdisk)
{
    Json shape = vdisk_json(vdisk), members = Json::object();
    std::vector<uint32_t> listed = vdisk.membership();
    for (Json &member : shape["members"]) {
        auto uid = member["uid"].get<uint32_t>();
        if (std::find(listed.begin(), listed.end(), uid) == listed.end())
            continue;
        for (const char *key : {"uid", "seqno", "membership_gen_count"})
            member.erase(key);
        members[std::to_string(uid)] = member;
    }
    shape["members"] = members;
    return shape;
}

static Json datastore_shape(const Datastore &datastore)
{
    Json shape = datastore_json(datastore), members = Json::object();
    for (const Json &uid : shape["members"])
        members[std::to_string(uid.get<uint32_t>())] = Json::object();
    shape["members"] = members;
    shape.erase("vdisks"); /* told by the VDisks */
    return shape;
}

Json record_shape(const Cluster &cluster, const std::string &record)
{
    auto [kind, name] = split_record(record);
    if (kind == "vdisk") {
        const VDisk *vdisk = cluster.vdisk(name);
        return vdisk ? vdisk_shape(*vdisk) : Json();
    }
    if (kind == "datastore") {
        const Datastore *datastore = cluster.datastore(name);
        return datastore ? datastore_shape(*datastore) : Json();
    }
    auto uid = uid_from(name);
    return uid && cluster.node(*uid) ? Json::object() : Json();
}

/* What is told of a record that came: its members by number, and of the rest what tells it from others. */
static Json description(const Json &shape)
{
    Json detail = Json::object();
    for (const char *key : {"kind", "parent", "name", "datastore", "highest_gen_count", "membership"})
        if (auto value = shape.find(key); value != shape.end() && !value->is_null())
            detail[key] = *value;
    Json members = Json::array();
    for (const auto &member : shape["members"].items())
        members.push_back(std::stoul(member.key()));
    detail["members"] = members;
    return detail;
}

/* The keys whose values differ, each with its change, under `prefix`. */
static void add_changes(Json &detail, const Json &before, const Json &after, const std::string &prefix)
{
    for (const auto &item : before.items())
        if (auto now = after.find(item.key()); now == after.end())
            detail[prefix + item.key()] = change(item.value(), nullptr);
        else if (*now != item.value())
            detail[prefix + item.key()] = change(item.value(), *now);
    for (const auto &item : after.items())
        if (!before.contains(item.key()))
            detail[prefix + item.key()] = change(nullptr, item.value());
}

/* Takes the members out of both shapes and tells of those that came and went; what changed of the others is added. */
static std::vector<Event> member_events(const std::string &record, Json &before, Json &after, Json &changes)
{
    std::vector<Event> joined, left;
    Json was = before["members"], now = after["members"];
    for (const auto &member : now.items()) {
        Json detail = {{"member", std::stoul(member.key())}};
        detail.update(member.value());
        if (!was.contains(member.key()))
            joined.push_back({"member-joined", record, detail});
        else
            add_changes(changes, was[member.key()], member.value(), member.key() + "/");
    }
    for (const auto &member : was.items())
        if (!now.contains(member.key()))
            left.push_back({"member-left", record, {{"member", std::stoul(member.key())}}});
    before.erase("members");
    after.erase("members");
    if (!joined.empty() || !left.empty()) { /* which says the same */
        before.erase("membership");
        after.erase("membership");
    }
    joined.insert(joined.end(), left.begin(), left.end());
    return joined;
}

std::vector<Event> record_events(const std::string &record, const Json &before, const Json &after)
{
    std::string kind = split_record(record).first;
    if (before == after)
        return {};
    if (before.is_null())
        return kind == "node" ? std::vector<Event>()
                              : std::vector<Event>{{kind + "-created", record, description(after)}};
    if (after.is_null())
        return {{kind + "-gone", record, Json::object()}};
    Json was = before, now = after, changes = Json::object();
    std::vector<Event> events = member_events(record, was, now, changes);
    static constexpr const char *generation = "highest_gen_count";
    if (was.contains(generation) && now.contains(generation) && was[generation].is_number() &&
        now[generation].is_number() && was[generation] < now[generation]) {
        events.push_back({"generation-raised", record, change(was[generation], now[generation])});
        was.erase(generation);
        now.erase(generation);
    }
    add_changes(changes, was, now, "");
    if (!changes.empty())
        events.push_back({kind + "-changed", record, changes});
    return events;
}

static bool torn(const Values &values)
{
    return std::any_of(values.begin(), values.end(),
                       [](const Value &value) { return !value.good() && !value.missing(); });
}

bool doubtful(const Cluster &cluster, const std::string &record)
{
    auto [kind, name] = split_record(record);
    if (const VDisk *vdisk = kind == "vdisk" ? cluster.vdisk(name) : nullptr)
        return torn(vdisk->values) || vdisk->membership().empty() || !vdisk->value("highest_gen_count").good() ||
               vdisk->memberinfo != Fault::none ||
               std::any_of(vdisk->members.begin(), vdisk->members.end(), [](const Member &member) {
                   return torn(member.values) || member.value("frontend").text.empty();
               });
    if (const Datastore *datastore = kind == "datastore" ? cluster.datastore(name) : nullptr)
        return torn(datastore->values);
    return false;
}

static std::string value_text(const Json &value)
{
    if (value.is_object() && value.contains("from"))
        return fmt::format("{} -> {}", value_text(value["from"]), value_text(value["to"]));
    if (value.is_null())
        return "nothing";
    if (value.is_string())
        return fmt::format("\"{}\"", printable(value.get<std::string>()));
    if (value.is_boolean())
        return value.get<bool>() ? "yes" : "no";
    if (!value.is_array())
        return value.dump();
    std::string text;
    for (const Json &element : value)
        text +=
            (text.empty() ? "" : " ") + (element.is_string() ? printable(element.get<std::string>()) : element.dump());
    return text.empty() ? "none" : text;
}

std::string detail_text(const Json &detail)
{
    if (detail.contains("from"))
        return value_text(detail);
    std::string text;
    for (const auto &item : detail.items())
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", item.key(), value_text(item.value()));
    return text;
}

} // namespace mwctl
