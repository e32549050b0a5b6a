#include "mwctl/trouble_rules.h"

#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

Judge::Judge(const Cluster &the_cluster) : cluster(the_cluster)
{
    linked_.reserve(cluster.vdisks.size());
    for (const auto &[uid, node] : cluster.nodes)
        for (const Link &link : node.vdisks.links)
            linked_[link.name].push_back(&node);
}

Trouble &Judge::add(const char *code, std::string record, std::string file, std::string text, std::string action)
{
    const auto &codes = trouble_codes();
    auto known = std::find_if(codes.begin(), codes.end(),
                              [&](const TroubleCode &other) { return std::string_view(other.code) == code; });
    Trouble &trouble = troubles.emplace_back();
    trouble.code = known->code;
    trouble.severity = known->severity;
    trouble.involved.insert(record);
    if (!file.empty())
        trouble.witnesses.insert(file);
    trouble.record = std::move(record);
    trouble.file = std::move(file);
    trouble.text = std::move(text);
    trouble.action = std::move(action);
    return trouble;
}

bool Judge::published(const Node &node) const
{
    return cluster.settings.lists(node.uid) || (!cluster.settings.local_nodes_whole && cluster.local(node));
}

bool Judge::local(uint32_t uid) const
{
    const Node *node = cluster.node(uid);
    return node ? cluster.local(*node) : cluster.settings.lists(uid);
}

const std::vector<const Node *> &Judge::linked(std::string_view vdisk) const
{
    static const std::vector<const Node *> none;
    auto found = linked_.find(vdisk);
    return found == linked_.end() ? none : found->second;
}

std::vector<uint32_t> Judge::publishers(const std::string &vdisk) const
{
    std::vector<uint32_t> uids;
    for (const Node *node : linked(vdisk))
        if (published(*node))
            uids.push_back(node->uid);
    return uids;
}

std::vector<uint32_t> Judge::shareholders(const VDisk &vdisk) const
{
    std::vector<uint32_t> uids;
    /* A damaged list still tells whom it named. */
    for (std::string_view line : value_lines(vdisk.value("membership")))
        uids.push_back(static_cast<uint32_t>(strtoul(std::string(line).c_str(), nullptr, 10)));
    for (const Member &member : vdisk.members)
        uids.push_back(member.uid);
    for (const Node *node : linked(vdisk.uuid))
        uids.push_back(node->uid);
    return uids;
}

bool Judge::peers_only(const VDisk &vdisk) const
{
    auto readable = [](Fault fault) {
        return fault != Fault::unreadable && fault != Fault::no_file && fault != Fault::oversized;
    };
    const Value &transaction = vdisk.value("transaction_id");
    if (!cluster.settings.local_nodes_whole || vdisk.access.fault != Fault::none || !readable(vdisk.memberinfo) ||
        !readable(vdisk.value("membership").fault) || !(transaction.missing() || transaction.good()) ||
        vdisk.number("transaction_id") != 0)
        return false;
    std::vector<uint32_t> uids = shareholders(vdisk);
    return std::none_of(uids.begin(), uids.end(), [&](uint32_t uid) { return local(uid); });
}

bool Judge::reported_by_peers(const VDisk &vdisk) const
{
    std::vector<uint32_t> uids = shareholders(vdisk);
    return uids.empty() || std::any_of(uids.begin(), uids.end(), [&](uint32_t uid) { return !local(uid); });
}

static bool plain_character(char c)
{
    return isalnum(static_cast<unsigned char>(c)) || std::string_view("._/=:@%+,-").find(c) != std::string_view::npos;
}

std::string shell_word(std::string_view word)
{
    if (!word.empty() && std::all_of(word.begin(), word.end(), plain_character))
        return std::string(word);
    bool dollar = std::any_of(word.begin(), word.end(), [](char c) { return c < 0x20 || c == 0x7f; });
    std::string quoted = dollar ? "$'" : "'";
    for (char c : word)
        if (dollar && (c < 0x20 || c == 0x7f))
            quoted += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        else if (dollar && (c == '\'' || c == '\\'))
            quoted += {'\\', c};
        else if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    return quoted + "'";
}

std::string shell_path(const Cluster &cluster, const std::string &file)
{
    return shell_word(file.starts_with('/') ? file : cluster.settings.work_directory + "/" + file);
}

std::string nodes_text(const std::vector<uint32_t> &uids)
{
    std::string text = uids.size() == 1 ? "node " : "nodes ";
    for (size_t i = 0; i < uids.size(); i++)
        text += fmt::format("{}{}", i == 0 ? "" : i + 1 == uids.size() ? " and " : ", ", uids[i]);
    return text;
}

void Flaws::add(std::string file, std::string reason)
{
    files.push_back(std::move(file));
    reasons.push_back(std::move(reason));
}

void Flaws::add(const std::string &directory, const Attribute &attribute, const Value &value)
{
    refused = refused || value.fault == Fault::unreadable;
    add(fmt::format("{}/{}", directory, attribute.key), fault_text(attribute, value));
}

std::string Flaws::text() const
{
    std::string text = fmt::format("{} {}", files[0], reasons[0]);
    if (files.size() > 1)
        text += fmt::format(" (and {} more)", files.size() - 1);
    return text;
}

} // namespace mwctl
