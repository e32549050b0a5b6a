#include "mwctl/cluster.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace mwctl
{

const Value &value_of(Kind kind, const Values &values, std::string_view key)
{
    static const Value none;
    int index = attribute_index(kind, key);
    return index < 0 || static_cast<size_t>(index) >= values.size() ? none : values[static_cast<size_t>(index)];
}

uint64_t number_of(Kind kind, const Values &values, std::string_view key)
{
    int index = attribute_index(kind, key);
    if (index < 0 || static_cast<size_t>(index) >= values.size())
        return 0;
    return value_number(attributes(kind)[static_cast<size_t>(index)], values[static_cast<size_t>(index)]);
}

const Link *LinkDirectory::find(std::string_view name) const
{
    auto found = std::lower_bound(links.begin(), links.end(), name,
                                  [](const Link &link, std::string_view sought) { return link.name < sought; });
    return found == links.end() || found->name != name ? nullptr : &*found;
}

std::vector<uint32_t> VDisk::membership() const
{
    std::vector<uint32_t> uids;
    const Value &list = value("membership");
    if (list.good())
        for (std::string_view line : value_lines(list))
            uids.push_back(static_cast<uint32_t>(strtoul(std::string(line).c_str(), nullptr, 10)));
    return uids;
}

const Member *VDisk::member(uint32_t uid) const
{
    auto found = std::find_if(members.begin(), members.end(), [&](const Member &member) { return member.uid == uid; });
    return found == members.end() ? nullptr : &*found;
}

std::string VDisk::datastore_name() const
{
    size_t slash = datastore.rfind('/');
    return slash == std::string::npos ? "" : datastore.substr(slash + 1);
}

template <typename Map>
static const typename Map::mapped_type *find_in(const Map &map, const typename Map::key_type &key)
{
    auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}

const Node *Cluster::node(uint32_t uid) const
{
    return find_in(nodes, uid);
}

const Datastore *Cluster::datastore(const std::string &uuid) const
{
    return find_in(datastores, uuid);
}

const VDisk *Cluster::vdisk(const std::string &uuid) const
{
    return find_in(vdisks, uuid);
}

const Lock *Cluster::lock(const std::string &record) const
{
    auto found = std::find_if(locks.begin(), locks.end(), [&](const Lock &lock) { return lock.record == record; });
    return found == locks.end() ? nullptr : &*found;
}

bool Cluster::local(const Node &node) const
{
    if (settings.lists(node.uid) || node.value("lastping").missing())
        return true;
    const Value &ipaddr = node.value("ipaddr");
    return ipaddr.good() && !ipaddr.text.starts_with("127.") && network.addresses.contains(ipaddr.text);
}

std::optional<double> Cluster::age(const Node &node) const
{
    if (!node.value("lastping").good())
        return std::nullopt;
    return now_exact - static_cast<double>(node.number("lastping"));
}

double silence_limit(const Settings &settings)
{
    return std::max(90.0, 3.0 * settings.heartbeat_interval);
}

std::string record_name(std::string_view kind, std::string_view name)
{
    return fmt::format("{}/{}", kind, name);
}

std::pair<std::string, std::string> split_record(std::string_view record)
{
    size_t slash = record.find('/');
    if (slash == std::string_view::npos)
        return {std::string(record), ""};
    return {std::string(record.substr(0, slash)), std::string(record.substr(slash + 1))};
}

bool uuid_usable(std::string_view name)
{
    return !name.empty() && name.size() <= 14 && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

std::optional<uint32_t> uid_from(std::string_view name)
{
    uint32_t uid;
    auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), uid);
    if (name.empty() || error != std::errc() || end != name.data() + name.size() || (name[0] == '0' && name.size() > 1))
        return std::nullopt;
    return uid;
}

} // namespace mwctl
