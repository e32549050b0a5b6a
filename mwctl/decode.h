/*
 * A datagram of the cluster taken apart: what it says, and what the daemon has against it. Bytes in, values and their
 * renderings out; nothing here looks at the system.
 */
#ifndef MWCTL_DECODE_H
#define MWCTL_DECODE_H

#include "mwctl/render.h"
#include "mwctl/text.h"
#include "mwd/netlib.h"

#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mwctl
{

/* A VDisk's entry with its lists, as far as they lie in the datagram. */
struct WireVDisk {
    VDiskEntry entry;
    uint16_t generation; /* of the coding that the sender's version makes count */
    std::vector<uint32_t> membership;
    std::vector<uint32_t> frontends; /* addresses as numbers */
};

struct Message {
    const char *kind = "UNKNOWN"; /* one of the six messages', else this */
    size_t bytes = 0;
    std::optional<Hdr> header; /* nothing if the datagram is too short for one */
    std::vector<WireVDisk> vdisks;
    std::optional<DatastoreEntry> datastore;
    std::optional<AuxPingData> aux;
    std::optional<VDiskDeleteEntry> deleted;
    /* In the words of the daemon's log with what it does not say behind them: why it drops some or all of the message.
     */
    std::vector<std::string> malformed;
    std::vector<std::string> notes; /* what is odd, and ignored by the daemon */
};

/* Reads the datagram as the daemon does, which stops at the first thing that is malformed. Takes any bytes. */
Message decode(std::string_view datagram);

/* The keys "bytes", "kind", "header" and so on of a `sniff` document. */
Json message_json(const Message &message);

/* What the message says in a few words, printable: "node 7 v2.1, 2 VDisks: v1 s1". */
std::string message_summary(const Message &message);

/* Every field of the document message_json, a record at a time, as indented lines; printable. */
std::string message_details(const Json &document);

/* The text of a wire field: up to its first zero byte, at most its width. */
template <size_t width> std::string_view field_bytes(const char (&field)[width])
{
    return {field, strnlen(field, width)};
}
/* The same as UTF-8. */
template <size_t width> std::string field_text(const char (&field)[width])
{
    return utf8(field_bytes(field));
}

} // namespace mwctl

#endif
