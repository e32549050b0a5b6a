#include "mwctl/decode.h"

#include <arpa/inet.h>
#include <cstring>
#include <fmt/format.h>
#include <set>

namespace mwctl
{

constexpr int DIGITS_OFFSET = '0' * 10 + '0';

/* The records of a datagram, one behind the other. */
class Cursor
{
  public:
    explicit Cursor(std::string_view bytes) : rest_(bytes)
    {
    }
    /* The next record, or nothing if it does not lie inside the datagram whole. */
    template <typename Record> std::optional<Record> take()
    {
        if (rest_.size() < sizeof(Record))
            return std::nullopt;
        Record record;
        memcpy(&record, rest_.data(), sizeof(record));
        rest_.remove_prefix(sizeof(record));
        return record;
    }
    void skip(size_t bytes)
    {
        rest_.remove_prefix(std::min(bytes, rest_.size()));
    }
    size_t left() const
    {
        return rest_.size();
    }

  private:
    std::string_view rest_;
};

/* A number of a packed record, by value. */
static uint64_t number(uint64_t value)
{
    return value;
}

static uint16_t generation_of(const Hdr &header, const VDiskEntry &entry)
{
    if (header.major > 1 || (header.major == 1 && header.minor >= 8))
        return ntohs(entry.name.mshipgencnt);
    auto tens = static_cast<signed char>(entry.name.old_mshipgencnt[0]);
    auto ones = static_cast<signed char>(entry.name.old_mshipgencnt[1]);
    return static_cast<uint16_t>(tens * 10 + ones - DIGITS_OFFSET);
}

static void note_ignored(Message &message, const Cursor &cursor)
{
    if (cursor.left() > 0)
        message.notes.push_back(fmt::format("{} bytes at the end that nothing calls for", cursor.left()));
}

static bool names_usable(Message &message, const VDiskEntry &entry)
{
    if (!uuid_usable(field_bytes(entry.uuid))) {
        message.malformed.push_back(
            fmt::format("Malformed packet? #5: a VDisk cannot be named '{}'", field_text(entry.uuid)));
        return false;
    }
    const auto &parent = entry.description.snap.parent;
    if (entry.snapshot == 0 || uuid_usable(field_bytes(parent)))
        return true;
    message.malformed.push_back(fmt::format("Malformed packet? #5: the parent of {} cannot be named '{}'",
                                            field_text(entry.uuid), field_text(parent)));
    return false;
}

/* Reads up to `count` numbers. Returns whether all lie inside the datagram. */
template <typename Record> static bool read_list(Cursor &cursor, size_t count, std::vector<uint32_t> &list)
{
    while (list.size() < count) {
        std::optional<Record> record = cursor.take<Record>();
        if (!record)
            return false;
        list.push_back(record->node);
    }
    return true;
}

static bool read_lists(Message &message, Cursor &cursor, WireVDisk &vdisk)
{
    if (!read_list<MemberEntry>(cursor, vdisk.entry.members, vdisk.membership)) {
        message.malformed.push_back(fmt::format("Malformed packet? #2: {} has {} members, the datagram ends behind {}",
                                                field_text(vdisk.entry.uuid), number(vdisk.entry.members),
                                                vdisk.membership.size()));
        return false;
    }
    if (!read_list<FrontendEntry>(cursor, vdisk.entry.frontends, vdisk.frontends)) {
        message.malformed.push_back(
            fmt::format("Malformed packet? #3: {} has {} frontends, the datagram ends behind {}",
                        field_text(vdisk.entry.uuid), number(vdisk.entry.frontends), vdisk.frontends.size()));
        return false;
    }
    return true;
}

static void read_vdisks(Message &message, Cursor &cursor)
{
    std::set<std::string> seen;
    while (std::optional<VDiskEntry> entry = cursor.take<VDiskEntry>()) {
        message.vdisks.push_back({*entry, generation_of(*message.header, *entry), {}, {}});
        WireVDisk &vdisk = message.vdisks.back();
        if (!names_usable(message, vdisk.entry) || !read_lists(message, cursor, vdisk))
            return;
        if (!seen.insert(std::string(field_bytes(vdisk.entry.uuid))).second)
            message.malformed.push_back(fmt::format("Duplicate VDisk Entry {}", field_text(vdisk.entry.uuid)));
    }
    note_ignored(message, cursor);
}

static void read_datastore(Message &message, Cursor &cursor)
{
    message.datastore = cursor.take<DatastoreEntry>();
    note_ignored(message, cursor);
    if (!message.datastore)
        return;
    const auto &uuid = message.datastore->uuid;
    if (!uuid_usable(field_bytes(uuid)))
        message.malformed.push_back(
            fmt::format("Malformed Datastore UUID from Node {}: {}", number(message.header->uid), field_text(uuid)));
}

static void read_aux(Message &message, Cursor &cursor)
{
    cursor.skip(AUX_PING_OFFSET - sizeof(Hdr));
    message.aux = cursor.take<AuxPingData>();
    if (message.aux)
        note_ignored(message, cursor);
    else
        message.malformed.push_back(
            fmt::format("Malformed Node Ping?: {} bytes, an AUX_PING has {}", message.bytes, AUX_PING_LEN));
}

static void read_deleted(Message &message, Cursor &cursor)
{
    message.deleted = cursor.take<VDiskDeleteEntry>();
    if (!message.deleted) {
        message.malformed.push_back(
            fmt::format("Malformed packet? #4: {} bytes, a VDISK_DELETED has {}", message.bytes, VDISK_DELETED_LEN));
        return;
    }
    note_ignored(message, cursor);
    if (message.deleted->node != message.header->uid)
        message.notes.push_back(fmt::format("HASHREQ_VDISK_DELETED {} != {}, using {}", number(message.header->uid),
                                            number(message.deleted->node), number(message.header->uid)));
    const auto &uuid = message.deleted->uuid;
    if (!uuid_usable(field_bytes(uuid)))
        message.malformed.push_back(
            fmt::format("Malformed packet? #5: a VDisk cannot be named '{}'", field_text(uuid)));
}

Message decode(std::string_view datagram)
{
    Message message;
    message.bytes = datagram.size();
    Cursor cursor(datagram);
    message.header = cursor.take<Hdr>();
    if (!message.header) {
        message.malformed.push_back(
            fmt::format("Malformed packet? #1: {} bytes, a header has {}", message.bytes, sizeof(Hdr)));
        return message;
    }
    switch (message.header->type) {
    case MSG_PING:
        message.kind = "PING";
        read_vdisks(message, cursor);
        break;
    case MSG_SINGLE_VDISK_PING:
        message.kind = "SINGLE_VDISK_PING";
        read_vdisks(message, cursor);
        break;
    case MSG_DS_PING:
        message.kind = "DS_PING";
        read_datastore(message, cursor);
        break;
    case MSG_AUX_PING:
        message.kind = "AUX_PING";
        read_aux(message, cursor);
        break;
    case MSG_VDISK_DELETED:
        message.kind = "VDISK_DELETED";
        read_deleted(message, cursor);
        break;
    case MSG_HEARTBEAT:
        message.kind = "HEARTBEAT";
        note_ignored(message, cursor);
        break;
    default:
        message.notes.push_back(fmt::format("Received unknown header type {} [{}]", number(message.header->type),
                                            msg_type(&*message.header)));
    }
    return message;
}

} // namespace mwctl
