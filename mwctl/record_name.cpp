#include "mwctl/record_name.h"

#include "mwctl/cluster.h"
#include "mwctl/failure.h"

#include <fmt/format.h>

namespace mwctl
{

std::string_view kind_word(Kind kind)
{
    return kind == Kind::node        ? "node"
           : kind == Kind::datastore ? "datastore"
           : kind == Kind::vdisk     ? "vdisk"
                                     : "member";
}

std::string RecordName::text() const
{
    if (kind == Kind::member)
        return fmt::format("vdisk/{}/{}", name, uid);
    return fmt::format("{}/{}", kind_word(kind), name);
}

std::string RecordName::path() const
{
    switch (kind) {
    case Kind::node:
        return "Node/" + name;
    case Kind::datastore:
        return "Datastore/" + name;
    case Kind::vdisk:
        return "VDisk/" + name;
    case Kind::member:
        break;
    }
    return fmt::format("VDisk/{}/memberinfo/{}", name, uid);
}

RecordName RecordName::locked() const
{
    return kind == Kind::member ? RecordName{Kind::vdisk, name} : *this;
}

static uint32_t parse_uid(std::string_view text)
{
    uint32_t uid = uid_from(text).value_or(0);
    if (uid == 0)
        refuse(fmt::format("'{}' is no node's number: 1 to 4294967295, without leading zeros", text));
    return uid;
}

/* A name with a newline cannot stand in the file that repeats it. */
static std::string parse_uuid(std::string_view kind, std::string_view text)
{
    if (!uuid_usable(text) || text.find('\n') != std::string_view::npos)
        refuse(fmt::format("'{}' cannot name a {}: 1 to 14 bytes without '/' and newlines, and not '.' or '..'", text,
                           kind));
    return std::string(text);
}

RecordName node_record(std::string_view uid)
{
    uint32_t number = parse_uid(uid);
    return {Kind::node, std::to_string(number), number};
}

RecordName datastore_record(std::string_view uuid)
{
    return {Kind::datastore, parse_uuid("datastore", uuid)};
}

RecordName vdisk_record(std::string_view uuid)
{
    return {Kind::vdisk, parse_uuid("VDisk", uuid)};
}

RecordName member_record(const RecordName &vdisk, uint32_t uid)
{
    return {Kind::member, vdisk.name, uid};
}

RecordName parse_record(std::string_view text)
{
    auto [kind, name] = split_record(text);
    if (kind == "node")
        return node_record(name);
    if (kind == "datastore")
        return datastore_record(name);
    if (kind != "vdisk")
        refuse(fmt::format("'{}' names no record: say node/7, datastore/ds1, vdisk/v1 or vdisk/v1/7", text));
    size_t slash = name.find('/');
    if (slash == std::string::npos)
        return vdisk_record(name);
    return member_record(vdisk_record(name.substr(0, slash)), parse_uid(name.substr(slash + 1)));
}

} // namespace mwctl
