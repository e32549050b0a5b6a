/* config: what is in force, where it comes from, and what of it the daemon could not use. Needs no tree. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/render.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>

namespace mwctl
{

/* Settings and network without a tree, and the troubles of these alone. */
struct Configuration {
    Cluster cluster;
    std::vector<Trouble> troubles;
};

static Configuration read_configuration(const Options &options)
{
    Configuration configuration;
    Cluster &cluster = configuration.cluster;
    cluster.settings = options.settings();
    cluster.daemon = read_daemon(cluster.settings);
    cluster.network = read_network(cluster.settings, cluster.daemon.running);
    configuration.troubles = find_troubles(cluster);
    static constexpr std::string_view shown[] = {"CONFIG_INVALID", "TABLE_INVALID", "INTERFACE_UNUSABLE", "PORT_TAKEN"};
    std::erase_if(configuration.troubles, [](const Trouble &trouble) {
        return std::find(std::begin(shown), std::end(shown), trouble.code) == std::end(shown);
    });
    return configuration;
}

/* ---- For people ----------------------------------------------------------------------------------------------------
 */

/* "line 3" for what stands in the configuration. */
static std::string origin_text(const ConfigEntry &entry, const Settings &settings)
{
    std::string prefix = settings.file + ":";
    return entry.origin.starts_with(prefix) ? "line " + entry.origin.substr(prefix.size()) : entry.origin;
}

static std::string interface_text(const Network &network)
{
    if (!network.interface_exists)
        return "does not exist";
    return fmt::format("{}, {}{}{}", network.interface_up ? "up" : "down",
                       network.interface_address.empty() ? "no IPv4 address" : network.interface_address,
                       network.interface_loopback ? ", loopback" : "",
                       network.interface_multicast ? ", multicast" : ", no multicast");
}

static std::string port_text(const Cluster &cluster, const std::string &holder)
{
    if (cluster.daemon.running)
        return fmt::format("the daemon runs, process {}", cluster.daemon.pid);
    return holder.empty() ? "free" : "held by " + holder;
}

static std::string network_text(const Cluster &cluster)
{
    const Settings &settings = cluster.settings;
    std::string receivers = settings.unicast_mode
                                ? fmt::format("unicast to {} of {}", count_of(settings.unicast_hosts.size(), "host"),
                                              settings.unicast_hosts_file)
                                : fmt::format("multicast to {}", fmt::join(settings.groups, ", "));
    std::string text;
    auto line = [&](const char *name, const std::string &content) {
        text += fmt::format("  {:<10} {}\n", name, printable(content));
    };
    line("interface", fmt::format("{}: {}", settings.bind_interface, interface_text(cluster.network)));
    line("messages", receivers);
    line("UDP port", fmt::format("{}: {}", settings.bind_port, port_text(cluster, cluster.network.udp_holder)));
    line("control", fmt::format("{}:{}: {}", settings.ctrl_address, settings.ctrl_port,
                                port_text(cluster, cluster.network.ctrl_holder)));
    return text;
}

static std::string table_text(const std::string &title, const std::string &file, const Table &table, const Style &style)
{
    std::string text = fmt::format("\n{}{}, {}{}\n", style.bold, title, printable(file), style.reset);
    return text + (table.empty() ? "  no entry\n" : table.render(style, "  "));
}

static void print_text(const Configuration &configuration, const Style &style)
{
    const Settings &settings = configuration.cluster.settings;
    Table values({"KEY", "VALUE", "ORIGIN"}), nodes({"NODE", "LINE"}), hosts({"ADDRESS", "LINE"});
    for (const ConfigEntry &entry : settings.values)
        values.add({entry.key, entry.text, origin_text(entry, settings)});
    for (const LocalNode &node : settings.local_nodes)
        nodes.add({std::to_string(node.uid), std::to_string(node.line)});
    for (const UnicastHost &host : settings.unicast_hosts)
        hosts.add({host.address, std::to_string(host.line)});
    std::string text =
        fmt::format("{}Configuration, {}{}\n{}\n{}Network{}\n{}", style.bold, printable(settings.file), style.reset,
                    values.render(style, "  "), style.bold, style.reset, network_text(configuration.cluster));
    text += table_text("Nodes of this host", settings.local_nodes_file, nodes, style);
    if (settings.unicast_mode)
        text += table_text("Hosts", settings.unicast_hosts_file, hosts, style);
    text += configuration.troubles.empty() ? fmt::format("\n{}No trouble{}\n", style.green, style.reset)
                                           : fmt::format("\n{}Troubles{}\n{}", style.bold, style.reset,
                                                         troubles_text(configuration.troubles, style));
    print(text);
}

/* ---- For programs --------------------------------------------------------------------------------------------------
 */

static Json values_json(const Settings &settings)
{
    Json values = Json::object();
    for (const ConfigEntry &entry : settings.values)
        values[entry.key] = {{"value", entry.numeric ? Json(std::stol(entry.text)) : Json(utf8(entry.text))},
                             {"origin", utf8(entry.origin)}};
    return values;
}

static Json network_json(const Cluster &cluster)
{
    const Network &network = cluster.network;
    auto or_null = [](const std::string &text) {
        return text.empty() ? Json() : Json(utf8(text));
    };
    return {{"interface", utf8(cluster.settings.bind_interface)},
            {"exists", network.interface_exists},
            {"up", network.interface_up},
            {"address", or_null(network.interface_address)},
            {"multicast", network.interface_multicast},
            {"loopback", network.interface_loopback},
            {"groups", json_list(cluster.settings.groups, [](const std::string &group) { return utf8(group); })},
            {"udp_holder", or_null(network.udp_holder)},
            {"ctrl_holder", or_null(network.ctrl_holder)}};
}

static Json to_json(const Configuration &configuration)
{
    const Settings &settings = configuration.cluster.settings;
    return {{"file", utf8(settings.file)},
            {"values", values_json(settings)},
            {"local_nodes", json_list(settings.local_nodes,
                                      [](const LocalNode &node) -> Json {
                                          return {{"uid", node.uid}, {"line", node.line}};
                                      })},
            {"unicast_hosts", json_list(settings.unicast_hosts,
                                        [](const UnicastHost &host) -> Json {
                                            return {{"address", utf8(host.address)}, {"line", host.line}};
                                        })},
            {"network", network_json(configuration.cluster)},
            {"troubles", json_list(configuration.troubles, trouble_json)}};
}

static int run_config(const Options &options)
{
    Configuration configuration = read_configuration(options);
    if (options.json)
        print_json(to_json(configuration));
    else
        print_text(configuration, options.style());
    return configuration.troubles.empty() ? STATUS_DONE : STATUS_TROUBLE;
}

void add_config(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("config", "The configuration in force, with the origin of every value");
    command->footer("Examples:\n  mwctl config\n  mwctl -C /etc/mwd/mwd.conf.new config");
    command->callback([&] { status = run_config(options); });
}

} // namespace mwctl
