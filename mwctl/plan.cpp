#include "mwctl/plan.h"

#include "mwctl/failure.h"

#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

Texts take_apart(const std::vector<std::string> &assignments)
{
    Texts texts;
    for (const std::string &assignment : assignments)
        if (auto [key, text] = split_assignment(assignment); !texts.emplace(key, text).second)
            refuse(fmt::format("{} is given twice", key));
    return texts;
}

static bool applies(const Attribute &attribute, bool snapshot)
{
    return attribute.applies == Applies::always || (attribute.applies == Applies::snapshot) == snapshot;
}

/*
 * Whose the record is, and to whom it belongs, stands before anything else, so that a record cut short can be told from
 * one that another program left behind.
 */
static bool comes_first(const Attribute &attribute)
{
    return attribute.key == "membership" || attribute.key == "datastoremember";
}

std::vector<Change> make_plan(Kind kind, bool snapshot, Texts &given, const Texts &usual)
{
    std::vector<Change> plan;
    for (const Attribute &attribute : attributes(kind)) {
        auto text = given.find(attribute.key);
        if (attribute.key == "uuid" || attribute.key == "ipaddr" || attribute.key == "lastping") {
            if (text != given.end())
                refuse(attribute.key == "uuid" ? "uuid is the record's name and not given as a value"
                                               : fmt::format("{} is written by messages alone", attribute.key));
            if (attribute.key != "uuid")
                continue;
        }
        if (text != given.end()) {
            if (!applies(attribute, snapshot))
                refuse(fmt::format("a {} has no {}", snapshot ? "Snapshot" : "Plain VDisk", attribute.key));
            plan.push_back(check_value(kind, text->first, text->second));
            given.erase(text);
            if (!plan.back().bytes)
                plan.pop_back();
        } else if (applies(attribute, snapshot) && attribute.need != Need::optional) {
            auto other = usual.find(attribute.key);
            plan.push_back(initial_value(kind, attribute.key,
                                         other == usual.end() ? std::string(attribute.initial) : other->second));
        }
    }
    std::stable_partition(plan.begin(), plan.end(),
                          [](const Change &change) { return comes_first(*change.attribute); });
    return plan;
}

void require_all_taken(const Texts &given, std::string_view what)
{
    if (!given.empty())
        refuse(fmt::format("a {} has no key '{}': mwd-database(5) lists them", what, given.begin()->first));
}

std::vector<Change> missing_values(const HeldRecord &held, const std::string &directory, const RecordName &record,
                                   const std::vector<Change> &plan)
{
    std::vector<Change> missing;
    for (const Change &change : plan) {
        const Attribute &attribute = *change.attribute;
        Value value = held.read(attribute, directory);
        std::string text = value_text(attribute, value);
        if (value.missing() || (!value.good() && (change.given || attribute.key == "uuid")))
            missing.push_back(change);
        else if (!value.good())
            refuse(fmt::format("{}/{} {}: give {}=VALUE as well", record.path(), attribute.key,
                               fault_text(attribute, value), attribute.key));
        else if (change.given && text != change.text)
            refuse(fmt::format("{} exists, and its {} is '{}', not '{}': mwctl set changes it", record.text(),
                               attribute.key, text, change.text));
    }
    return missing;
}

std::vector<Change> usual_datastore(const RecordName &record)
{
    Texts none;
    return make_plan(Kind::datastore, false, none, {{"uuid", record.name}, {"name", record.name}});
}

std::vector<std::string> make_datastore(const Settings &settings, const RecordName &record,
                                        const std::vector<Change> &plan, uint32_t uid)
{
    std::vector<std::string> steps;
    HeldRecord held(settings, record);
    std::vector<Change> missing = missing_values(held, ".", record, plan);
    if (!missing.empty() || !held.has("members") || !held.has("vdisks")) {
        held.make_directory();
        held.make_directory("vdisks");
        held.make_directory("members");
        for (const Change &change : missing)
            held.write(change);
        held.sync();
        steps.push_back("made " + record.text());
    }
    if (uid != 0 && held.link(fmt::format("members/{}", uid), fmt::format("../../../Node/{}", uid))) {
        held.sync("members");
        steps.push_back(fmt::format("node/{} is a member of {}", uid, record.text()));
    }
    return steps;
}

} // namespace mwctl
