#include "mwctl/sniff_tally.h"

#include <fmt/format.h>

namespace mwctl
{

constexpr size_t SOURCES_MAX = 20000;
constexpr size_t NODES_MAX = 20000;
constexpr size_t DATAGRAM_MAX = 65507; /* of UDP over IPv4 */
constexpr size_t NEARLY_FULL = DATAGRAM_MAX / 10 * 9;

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

static Trouble node_trouble(const char *code, Severity severity, uint32_t uid)
{
    Trouble trouble;
    trouble.code = code;
    trouble.severity = severity;
    trouble.record = fmt::format("node/{}", uid);
    trouble.involved = {trouble.record};
    return trouble;
}

std::vector<Trouble> SniffTally::troubles() const
{
    std::vector<Trouble> troubles;
    for (const auto &[uid, node] : nodes_) {
        if (node.addresses.size() > 1) {
            Trouble trouble = node_trouble("NODE_NUMBER_TAKEN", Severity::error, uid);
            trouble.text = fmt::format("Messages of node {} come from {}: at every peer they overwrite each other.",
                                       uid, fmt::join(node.addresses, " and "));
            trouble.action = "give the node of one of these hosts another number, in its record and in local_nodes";
            troubles.push_back(trouble);
        }
        if (node.major == 0 || (node.major == 1 && node.minor < 8)) {
            Trouble trouble = node_trouble("NODE_VERSION_OLD", Severity::warning, uid);
            trouble.text =
                fmt::format("Node {} says version {}.{}: below 1.8 it cannot tell a generation above 99, and "
                            "its reports of a VDisk that has a higher one are stale.",
                            uid, node.major, node.minor);
            trouble.action = "bring the node to version 1.8 or later, then write that into its record's version";
            troubles.push_back(trouble);
        }
        if (node.longest_ping > NEARLY_FULL) {
            Trouble trouble = node_trouble("PING_NEARLY_FULL", Severity::warning, uid);
            trouble.text = fmt::format("A PING of node {} has {} bytes; one of more than {} cannot be sent.", uid,
                                       node.longest_ping, DATAGRAM_MAX);
            trouble.action = "move VDisks to another node before their number grows";
            troubles.push_back(trouble);
        }
    }
    return troubles;
}

} // namespace mwctl
