/* What a datagram says: as a document, in a few words, and field by field. */
#include "mwctl/decode.h"

#include <fmt/format.h>

namespace mwctl
{

/* A number of a packed record, by value. */
static uint64_t number(uint64_t value)
{
    return value;
}

/* A number that holds an IPv4 address, dotted. */
static std::string address_text(uint32_t address)
{
    return fmt::format("{}.{}.{}.{}", address >> 24, (address >> 16) & 0xff, (address >> 8) & 0xff, address & 0xff);
}

static Json header_json(const Hdr &header)
{
    Json document = {{"major", header.major},
                     {"minor", header.minor},
                     {"type", header.type},
                     {"nodestatus", header.nodestatus},
                     {"uid", number(header.uid)},
                     {"vendor", field_text(header.vendor)},
                     {"model", field_text(header.model)},
                     {"revision.freespace", number(header.revision.freespace)},
                     {"revision.utilization", number(header.revision.utilization)},
                     {"revision.rev", field_text(header.revision.rev)},
                     {"serial", field_text(header.serial)},
                     {"hbtl", field_text(header.hbtl)},
                     {"size", number(header.size)}};
    if (header.nodestatus == NODESTATUS_BACKUP)
        document["backupchannel"] = address_text(header.size);
    document["performance"] = header.performance;
    document["hostid"] = number(header.hostid);
    return document;
}

static Json datastore_entry_json(const DatastoreEntry &entry)
{
    return {{"uuid", field_text(entry.uuid)},
            {"name", field_text(entry.name)},
            {"description", field_text(entry.description)},
            {"sector_size", number(entry.sector_size)},
            {"replicas", number(entry.replicas)},
            {"stripes", number(entry.stripes)},
            {"overcommit", entry.overcommit}};
}

static Json aux_json(const AuxPingData &aux)
{
    return {{"length", number(aux.length)},
            {"allocatedspace", number(aux.allocatedspace)},
            {"curvdisks", number(aux.curvdisks)},
            {"curvdisksforctrl", number(aux.curvdisksforctrl)},
            {"maxvdisksforctrl", number(aux.maxvdisksforctrl)},
            {"memtotal", number(aux.memtotal)},
            {"memavail", number(aux.memavail)}};
}

static void add_description(Json &document, const VDiskEntry &entry)
{
    if (entry.snapshot == 0) {
        document["description"] = field_text(entry.description.descr);
        document["snaptime"] = nullptr;
        document["parent"] = nullptr;
        return;
    }
    const auto &snap = entry.description.snap;
    document["y"] = snap.y;
    document["m"] = snap.m;
    document["d"] = number(snap.d);
    document["H"] = snap.H;
    document["M"] = snap.M;
    document["S"] = snap.S;
    document["snaptime"] = fmt::format("{:02}-{:02}-{:02}_{:02}.{:02}.{:02}", number(snap.y), number(snap.m),
                                       number(snap.d), number(snap.H), number(snap.M), number(snap.S));
    document["parent"] = field_text(snap.parent);
}

static Json wire_vdisk_json(const WireVDisk &vdisk)
{
    const VDiskEntry &entry = vdisk.entry;
    Json document = {{"transaction_id", number(entry.transaction_id)},
                     {"uuid", field_text(entry.uuid)},
                     {"old_mshipgencnt", field_text(entry.name.old_mshipgencnt)},
                     {"name", field_text(entry.name.name)},
                     {"mshipgencnt", ntohs(entry.name.mshipgencnt)},
                     {"generation", vdisk.generation},
                     {"sector_size", number(entry.sector_size)},
                     {"numkeys", number(entry.numkeys)},
                     {"sectors", number(entry.sectors)},
                     {"seqno", number(entry.seqno)}};
    add_description(document, entry);
    document.update({{"status", entry.status},
                     {"port", number(entry.port)},
                     {"replicas", number(entry.replicas)},
                     {"st_mem", entry.st_mem},
                     {"st_mems", entry.st_mems},
                     {"st_size", number(entry.st_size)},
                     {"snapshot", number(entry.snapshot)},
                     {"members", number(entry.members)},
                     {"membership", vdisk.membership},
                     {"frontend_count", number(entry.frontends)},
                     {"frontends", json_list(vdisk.frontends, address_text)}});
    return document;
}

Json message_json(const Message &message)
{
    Json document = {{"bytes", message.bytes},
                     {"kind", message.kind},
                     {"header", message.header ? header_json(*message.header) : Json()}};
    std::string_view kind = message.kind;
    if (kind == "PING" || kind == "SINGLE_VDISK_PING")
        document["vdisks"] = json_list(message.vdisks, wire_vdisk_json);
    if (kind == "DS_PING")
        document["datastore"] = message.datastore ? datastore_entry_json(*message.datastore) : Json();
    if (kind == "AUX_PING")
        document["aux"] = message.aux ? aux_json(*message.aux) : Json();
    if (kind == "VDISK_DELETED")
        document["deleted"] =
            message.deleted ? Json{{"node", number(message.deleted->node)}, {"uuid", field_text(message.deleted->uuid)}}
                            : Json();
    document["malformed"] =
        message.malformed.empty() ? Json() : Json(fmt::format("{}", fmt::join(message.malformed, "; ")));
    document["notes"] = message.notes;
    return document;
}

/* The names of the first VDisks, Snapshots behind an @. */
static std::string vdisk_names(const std::vector<WireVDisk> &vdisks)
{
    constexpr size_t shown = 6;
    std::string text;
    for (size_t i = 0; i < std::min(shown, vdisks.size()); i++)
        text += fmt::format(" {}", field_text(vdisks[i].entry.uuid));
    return text + (vdisks.size() > shown ? " ..." : "");
}

std::string message_summary(const Message &message)
{
    if (!message.header)
        return "no header";
    std::string text = fmt::format("node {} v{}.{}", number(message.header->uid), number(message.header->major),
                                   number(message.header->minor));
    std::string_view kind = message.kind;
    if (kind == "PING" || kind == "SINGLE_VDISK_PING")
        text += fmt::format(", {} VDisk{}{}{}", message.vdisks.size(), message.vdisks.size() == 1 ? "" : "s",
                            message.vdisks.empty() ? "" : ":", vdisk_names(message.vdisks));
    else if (kind == "DS_PING")
        text += message.datastore ? fmt::format(" is in datastore {}", field_text(message.datastore->uuid))
                                  : " is in no datastore";
    else if (message.aux)
        text +=
            fmt::format(", allocatedspace {}, curvdisks {}, memavail {} of {}", number(message.aux->allocatedspace),
                        number(message.aux->curvdisks), number(message.aux->memavail), number(message.aux->memtotal));
    else if (message.deleted)
        text += fmt::format(" gave up VDisk {}", field_text(message.deleted->uuid));
    return printable(text);
}

static std::string value_text(const Json &value)
{
    if (value.is_string())
        return fmt::format("\"{}\"", printable(value.get<std::string>()));
    if (!value.is_array())
        return value.dump();
    std::string text;
    for (const Json &element : value)
        text += (text.empty() ? "" : ",") + (element.is_string() ? element.get<std::string>() : element.dump());
    return text.empty() ? "none" : text;
}

/* The record's fields as NAME=VALUE, in lines of a terminal's width. */
static std::string record_text(std::string_view title, const Json &record)
{
    constexpr size_t columns = 100;
    std::string text, line = fmt::format("    {}:", title);
    for (const auto &[key, value] : record.items()) {
        if (value.is_null())
            continue;
        std::string field = fmt::format("{}={}", key, value_text(value));
        if (display_width(line) + 1 + display_width(field) > columns) {
            text += line + "\n";
            line = "       ";
        }
        line += " " + field;
    }
    return text + line + "\n";
}

std::string message_details(const Json &document)
{
    std::string text;
    for (const char *title : {"header", "datastore", "aux", "deleted"})
        if (document.contains(title) && document[title].is_object())
            text += record_text(title, document[title]);
    if (document.contains("vdisks"))
        for (const Json &vdisk : document["vdisks"])
            text += record_text("vdisk", vdisk);
    return text;
}

} // namespace mwctl
