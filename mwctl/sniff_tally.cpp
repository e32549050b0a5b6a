#include "mwctl/sniff_tally.h"

#include <fmt/format.h>

namespace mwctl
{

constexpr size_t SOURCES_MAX = 20000;
constexpr size_t NODES_MAX = 20000;
constexpr size_t DATAGRAM_MAX = 65507; /* of UDP over IPv4 */

void SniffTally::add(const std::string &address, uint16_t port, const Message &message)
{
    Key key(fmt::format("{}:{}", address, port), message.kind);
    if (rows_.size() >= SOURCES_MAX && !rows_.contains(key))
        key.first = "others";
    Row &row = rows_[key];
    row.count++;
    row.bytes += message.bytes;
    row.malformed += !message.malformed.empty();

    /* Of other kinds, and of datagrams without a header, nobody takes a number. */
    if (!message.header || std::string_view(message.kind) == "UNKNOWN")
        return;
    const uint32_t uid = message.header->uid;
    if (nodes_.size() >= NODES_MAX && !nodes_.contains(uid))
        return;
    Node &node = nodes_[uid];
    if (node.addresses.size() < 3)
        node.addresses.insert(address);
    node.major = message.header->major;
    node.minor = message.header->minor;
    if (message.header->type == MSG_PING)
        node.longest_ping = std::max(node.longest_ping, message.bytes);
}

static Trouble node_trouble(const char *code, Severity severity, uint32_t uid, std::string text, std::string action)
{
    Trouble trouble;
    trouble.code = code;
    trouble.severity = severity;
    trouble.record = fmt::format("node/{}", uid);
    trouble.text = std::move(text);
    trouble.action = std::move(action);
    trouble.involved = {trouble.record};
    return trouble;
}

static bool below_1_8(uint8_t major, uint8_t minor)
{
    return major == 0 || (major == 1 && minor < 8);
}

std::vector<Trouble> SniffTally::troubles() const
{
    std::vector<Trouble> troubles;
    for (const auto &[uid, node] : nodes_) {
        if (node.addresses.size() > 1)
            troubles.push_back(node_trouble(
                "NODE_NUMBER_TAKEN", Severity::error, uid,
                fmt::format("messages of node {} come from {}, and each one overwrites the record at every peer: two "
                            "hosts publish one node",
                            uid, fmt::join(node.addresses, " and ")),
                "give the node of one of these hosts another number, in its record and in local_nodes"));
        if (below_1_8(node.major, node.minor))
            troubles.push_back(node_trouble(
                "NODE_VERSION_OLD", Severity::warning, uid,
                fmt::format(
                    "it says version {}.{}: below 1.8 it cannot tell a generation above 99, and its reports of a "
                    "VDisk that has a higher one are stale",
                    node.major, node.minor),
                "bring the node to version 1.8 or later, and its record's version with it"));
        if (node.longest_ping * 10 > DATAGRAM_MAX * 9)
            troubles.push_back(node_trouble(
                "PING_NEARLY_FULL", Severity::warning, uid,
                fmt::format("its PING takes {} bytes of the {} that a datagram carries: soon none will be sent",
                            node.longest_ping, DATAGRAM_MAX),
                "move VDisks to another node, or give some up"));
    }
    return troubles;
}

} // namespace mwctl
