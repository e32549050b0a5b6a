/* Rules about node records and the messages that are made from them. */
#include "mwctl/render.h"
#include "mwctl/text.h"
#include "mwctl/trouble_rules.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fmt/format.h>

namespace mwctl
{

static std::string path_of(const Node &node)
{
    return fmt::format("Node/{}", node.uid);
}

static std::string record_of(const Node &node)
{
    return record_name("node", std::to_string(node.uid));
}

/* What keeps back all messages of a node, and what only changes them. */
struct NodeFlaws {
    Flaws all, listing, datastore;
};

static NodeFlaws flaws_of(const Node &node)
{
    NodeFlaws flaws;
    std::string path = path_of(node);
    for (size_t i = 0; i < node.values.size(); i++) {
        const Attribute &attribute = attributes(Kind::node)[i];
        if (attribute.need == Need::published && !node.values[i].good())
            flaws.all.add(path, attribute, node.values[i]);
    }
    struct in_addr address;
    const Value &backup = node.value("backupchannel");
    constexpr unsigned address_in_size = 1; /* the nodestatus with which the size is an address */
    if (node.number("nodestatus") == address_in_size && backup.good() &&
        inet_pton(AF_INET, backup.text.c_str(), &address) != 1)
        flaws.all.add(path + "/backupchannel", "is no IPv4 address, as nodestatus 1 asks for");
    if (node.vdisks.fault == Fault::missing)
        flaws.listing.add(path + "/vdisks", "is missing");
    else if (node.vdisks.fault != Fault::none)
        flaws.listing.add(path + "/vdisks", fmt::format("cannot be listed: {}", node.vdisks.reason));
    const Value &datastore = node.value("datastoremember");
    const auto &attribute = attributes(Kind::node)[static_cast<size_t>(attribute_index(Kind::node, "datastoremember"))];
    if (!datastore.good() && !datastore.missing())
        flaws.datastore.add(path, attribute, datastore);
    else if (!datastore.text.empty() && !uuid_usable(datastore.text))
        flaws.datastore.add(path + "/datastoremember", "names no datastore");
    return flaws;
}

static std::string value_action(const Node &node, const std::string &file)
{
    return fmt::format("mwctl set node/{} {}=VALUE", node.uid, file.substr(file.rfind('/') + 1));
}

static void judge_values(Judge &judge, const Node &node)
{
    if (node.access.fault != Fault::none) {
        judge
            .add("NODE_UNREADABLE", record_of(node), path_of(node),
                 fmt::format("{} cannot be read: {}", path_of(node), node.access.reason),
                 fmt::format("make it readable: ls -ld {}", shell_path(judge.cluster, path_of(node))))
            .holds_back = {node.uid};
        return;
    }
    NodeFlaws flaws = flaws_of(node);
    std::string record = record_of(node);
    auto unreadable = [&](const Flaws &found, const std::string &effect, std::string action) {
        Trouble &trouble = judge.add("NODE_UNREADABLE", record, found.files[0],
                                     fmt::format("{}: {}", found.text(), effect), std::move(action));
        trouble.witnesses.insert(found.files.begin(), found.files.end());
        trouble.holds_back = {node.uid};
    };
    if (!flaws.all.empty())
        unreadable(flaws.all, "nothing is published of the node", value_action(node, flaws.all.files[0]));
    else if (!flaws.listing.empty())
        unreadable(
            flaws.listing, "nothing but heartbeats is published of the node",
            fmt::format("mwctl lock {} -- mkdir {}", record, shell_path(judge.cluster, path_of(node) + "/vdisks")));
    else if (!flaws.datastore.empty())
        unreadable(flaws.datastore,
                   "the node is published without a datastore, and its peers take it out of the one "
                   "that they know",
                   value_action(node, flaws.datastore.files[0]));
}

/* The VDisks that the daemon finds linked to the node. */
static size_t vdisk_count(const Node &node)
{
    return static_cast<size_t>(std::count_if(node.vdisks.links.begin(), node.vdisks.links.end(),
                                             [](const Link &link) { return uuid_usable(link.name); }));
}

static void judge_datastore_of(Judge &judge, const Node &node)
{
    const Value &datastore = node.value("datastoremember");
    bool none = datastore.missing() || (datastore.good() && datastore.text.empty());
    if (none && vdisk_count(node) > 0)
        judge.add("NODE_WITHOUT_DATASTORE", record_of(node), path_of(node) + "/datastoremember",
                  fmt::format("the node has {} VDisks and no datastore: peers refuse what it reports of a VDisk for "
                              "which no other node has named one",
                              vdisk_count(node)),
                  fmt::format("mwctl set node/{} datastoremember=DATASTORE", node.uid));
}

static void judge_address(Judge &judge, const Node &node)
{
    const Value &ipaddr = node.value("ipaddr");
    if (!judge.cluster.settings.lists(node.uid) || !ipaddr.good() || ipaddr.text.empty() ||
        ipaddr.text.starts_with("127.") || judge.cluster.network.addresses.contains(ipaddr.text))
        return;
    std::string file = path_of(node) + "/ipaddr";
    judge.add("NODE_NUMBER_TAKEN", record_of(node), file,
              fmt::format("messages with this host's number {} came from {}, and each one overwrites the record: two "
                          "hosts publish one node",
                          node.uid, ipaddr.text),
              fmt::format("give one of the two nodes another number, write this record again, then: rm {}",
                          shell_path(judge.cluster, file)));
}

/* A list that is just being written only makes the PING look shorter, so the VDisks need no second look. */
static void judge_ping_size(Judge &judge, const Node &node)
{
    constexpr size_t datagram = 65507;
    std::optional<size_t> bytes = ping_bytes(judge.cluster, node);
    if (!bytes || *bytes * 10 <= datagram * 9)
        return;
    bool too_large = *bytes > datagram;
    Trouble &trouble = judge.add(
        too_large ? "PING_TOO_LARGE" : "PING_NEARLY_FULL", record_of(node), path_of(node) + "/vdisks",
        fmt::format("its PING of {} VDisks takes {} bytes of the {} that a datagram carries: {}", vdisk_count(node),
                    *bytes, datagram, too_large ? "none is sent" : "soon none will be sent"),
        "move VDisks to another node, or give some up: mwctl drop vdisk VDISK --node " + std::to_string(node.uid));
    if (too_large)
        trouble.holds_back = {node.uid};
}

static void judge_published(Judge &judge, const Node &node)
{
    judge_values(judge, node);
    judge_datastore_of(judge, node);
    judge_address(judge, node);
    judge_ping_size(judge, node);
}

static void judge_peer(Judge &judge, const Node &node)
{
    std::optional<double> age = judge.cluster.age(node);
    std::string file = path_of(node) + "/lastping";
    double patience = std::max(90.0, 3.0 * judge.cluster.settings.heartbeat_interval);
    if (age && *age < 0)
        judge.add("NODE_AHEAD", record_of(node), file,
                  fmt::format("it was last heard {} from now: this host's clock was set back, and until then or the "
                              "next message nobody can tell how long it is silent",
                              human_age(-*age)),
                  "check the clock: timedatectl");
    else if (age && *age > patience)
        judge.add("NODE_SILENT", record_of(node), file,
                  fmt::format("it was not heard for {}: what this host knows of it and its VDisks is that old",
                              human_age(*age)),
                  fmt::format("see whether its host at {} is up and mwd runs there: mwctl status; here: mwctl sniff",
                              node.value("ipaddr").good() ? node.value("ipaddr").text : "an unknown address"));
}

static void judge_unlisted(Judge &judge, const Node &node)
{
    const Settings &settings = judge.cluster.settings;
    judge
        .add("NODE_NOT_LISTED", record_of(node), path_of(node) + "/lastping",
             fmt::format("no message has written it and {} does not list it: nothing is published of it",
                         settings.local_nodes_file),
             fmt::format("if it is this host's: echo {} >> {} && mwctl reload", node.uid,
                         shell_word(settings.local_nodes_file)))
        .holds_back = {node.uid};
}

static void judge_listed_without_record(Judge &judge)
{
    const Settings &settings = judge.cluster.settings;
    if (judge.cluster.scope.extent == Scope::one_record)
        return;
    std::set<uint32_t> seen;
    for (const LocalNode &listed : settings.local_nodes)
        if (!judge.cluster.node(listed.uid) && seen.insert(listed.uid).second)
            judge
                .add("NODE_UNREADABLE", record_name("node", std::to_string(listed.uid)),
                     fmt::format("Node/{}", listed.uid),
                     fmt::format("{}:{} lists the node, and it has no record: nothing is published of it",
                                 settings.local_nodes_file, listed.line),
                     fmt::format("mwctl new node {}", listed.uid))
                .holds_back = {listed.uid};
}

void judge_nodes(Judge &judge)
{
    judge_listed_without_record(judge);
    for (const auto &[uid, node] : judge.cluster.nodes) {
        if (judge.published(node))
            judge_published(judge, node);
        else if (node.access.fault == Fault::none && node.value("lastping").missing())
            judge_unlisted(judge, node);
        else if (!judge.cluster.local(node))
            judge_peer(judge, node);
    }
}

} // namespace mwctl
