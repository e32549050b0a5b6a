/* wait: returns when the tree says so. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/tree_watch.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace mwctl
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct WaitArguments {
    std::string name;
    std::optional<uint64_t> generation;
    bool gone = false;
    std::optional<double> timeout;
};

/* Something to wait for. `lacking` says in a few words what is not yet so, and nothing once all is. */
struct Goal {
    std::string record;
    std::vector<std::string> directories; /* where a change may bring it about, relative to the tree */
    std::function<std::string(int root)> lacking;
};

static bool needed(const Attribute &attribute, bool snapshot, bool generation)
{
    if (attribute.need == Need::applied)
        return generation;
    return (attribute.need == Need::published || attribute.need == Need::removal) &&
           attribute.applies != (snapshot ? Applies::plain : Applies::snapshot);
}

/* What a record still lacks of the values that a publication reads; with `generation`, that one too. */
static std::string values_lacking(Kind kind, const Values &values, bool generation)
{
    bool snapshot = kind == Kind::vdisk && number_of(kind, values, "snapshot") != 0;
    for (size_t i = 0; i < values.size(); i++) {
        const Attribute &attribute = attributes(kind)[i];
        if (needed(attribute, snapshot, generation) && !values[i].good())
            return fmt::format("its {} {}", attribute.key, fault_text(attribute, values[i]));
    }
    return "";
}

static std::string vdisk_lacking(int root, const WaitArguments &arguments)
{
    Directory directory = read_directory(root, "VDisk/" + arguments.name);
    if (arguments.gone)
        return directory.fault == Fault::missing ? "" : "it is still there";
    if (directory.fault != Fault::none)
        return "it is not there";
    Values values = read_values(directory, Kind::vdisk);
    std::string lack = values_lacking(Kind::vdisk, values, arguments.generation.has_value());
    uint64_t generation = number_of(Kind::vdisk, values, "highest_gen_count");
    if (lack.empty() && generation < arguments.generation.value_or(0))
        return fmt::format("its generation is {}", generation);
    return lack;
}

static Goal vdisk_goal(const WaitArguments &arguments)
{
    if (!uuid_usable(arguments.name))
        refuse(fmt::format("'{}' cannot be the name of a VDisk: 1 to 14 bytes without '/'", arguments.name));
    return {record_name("vdisk", arguments.name), {"VDisk", "VDisk/" + arguments.name}, [arguments](int root) {
                return vdisk_lacking(root, arguments);
            }};
}

/* A node of this host is waited for until it can be published, one of another host until it is heard. */
static std::string node_lacking(int root, uint32_t uid, const Settings &settings, const Network &network)
{
    Cluster cluster;
    cluster.settings = settings;
    cluster.network = network;
    cluster.now_exact = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    Directory directory = read_directory(root, fmt::format("Node/{}", uid));
    if (directory.fault != Fault::none)
        return "it is not there";
    Node node;
    node.uid = uid;
    node.values = read_values(directory, Kind::node);
    if (cluster.local(node)) {
        std::string lack = values_lacking(Kind::node, node.values, false);
        return !lack.empty() || directory.find("vdisks") ? lack : "it has no directory vdisks";
    }
    std::optional<double> age = cluster.age(node);
    if (!age)
        return "its lastping is being written";
    /* One second of grace, since lastping has whole seconds and was read after the clock. */
    if (*age < -1)
        return "its last message lies in the future";
    return *age <= silence_limit(settings) ? "" : fmt::format("it was last heard {} ago", human_age(*age));
}

static Goal node_goal(const WaitArguments &arguments, const Settings &settings)
{
    std::optional<uint32_t> uid = uid_from(arguments.name);
    if (!uid || *uid == 0)
        refuse(fmt::format("'{}' is no node's number: 1 to 4294967295", arguments.name));
    Network network = read_network(settings, true);
    return {record_name("node", arguments.name),
            {"Node", "Node/" + arguments.name},
            [uid = *uid, settings, network](int root) {
                return node_lacking(root, uid, settings, network);
            }};
}

/* What the goal lacks as the tree is now. A tree that is not there yet says nothing, not even that a VDisk is gone. */
static std::string lacking(const Goal &goal, const std::string &tree)
{
    Descriptor root(open(tree.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (root)
        return goal.lacking(root.get());
    if (errno != ENOENT)
        give_up(fmt::format("cannot read the tree {}: {}", tree, strerror(errno)));
    return fmt::format("there is no tree {}", tree);
}

/* Everything is watched anew before each look, so whatever comes between look and wait ends the wait. */
static void watch_for(TreeWatch &watch, const Goal &goal, const std::filesystem::path &tree)
{
    std::error_code error;
    std::filesystem::path above = tree;
    while (!std::filesystem::exists(above, error) && above.has_relative_path())
        above = above.parent_path();
    watch.add(above.empty() ? "." : above, "tree");
    for (const std::string &directory : goal.directories)
        watch.add(tree / directory, "tree");
}

static int run_wait(const Options &options, const Goal &goal, const Settings &settings, std::optional<double> timeout)
{
    constexpr std::chrono::duration<double> longest = 1s;
    signal(SIGINT, [](int) { _exit(130); });
    TreeWatch watch;
    Clock::time_point start = Clock::now();
    auto waited = [&] {
        return std::chrono::duration<double>(Clock::now() - start);
    };
    for (;;) {
        watch_for(watch, goal, settings.work_directory);
        std::string lack = lacking(goal, settings.work_directory);
        if (lack.empty())
            break;
        std::chrono::duration<double> left(timeout ? *timeout - waited().count() : longest.count());
        if (left.count() <= 0)
            throw Failure(STATUS_TROUBLE, fmt::format("waited {} s for {} in vain: {}", *timeout, goal.record, lack));
        watch.wait(std::chrono::ceil<std::chrono::milliseconds>(std::min(left, longest)));
    }
    if (options.json)
        print_json({{"record", utf8(goal.record)}, {"waited_seconds", waited().count()}});
    return STATUS_DONE;
}

static void add_wait_vdisk(CLI::App *wait, Options &options, int &status, std::shared_ptr<WaitArguments> arguments)
{
    CLI::App *command = wait->add_subcommand("vdisk", "Until every value of the VDisk is there");
    command->add_option("vdisk", arguments->name, "Its uuid")->required()->type_name("V");
    CLI::Option *generation =
        command->add_option("--generation", arguments->generation, "Until highest_gen_count is at least this")
            ->type_name("G");
    command->add_flag("--gone", arguments->gone, "Until there is no such VDisk")->excludes(generation);
    command->fallthrough();
    command->footer("Example:\n  mwctl wait vdisk v1 --generation 5 --timeout 30");
    command->callback([&options, &status, arguments] {
        status = run_wait(options, vdisk_goal(*arguments), options.settings(), arguments->timeout);
    });
}

static void add_wait_node(CLI::App *wait, Options &options, int &status, std::shared_ptr<WaitArguments> arguments)
{
    CLI::App *command = wait->add_subcommand("node", "Until the node is heard, or complete if it is of this host");
    command->add_option("node", arguments->name, "Its number")->required()->type_name("N");
    command->fallthrough();
    command->footer("Example:\n  mwctl wait node 7 --timeout 60 || echo 'node 7 is silent'");
    command->callback([&options, &status, arguments] {
        Settings settings = options.settings();
        status = run_wait(options, node_goal(*arguments, settings), settings, arguments->timeout);
    });
}

void add_wait(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("wait", "Returns when the tree says so");
    auto arguments = std::make_shared<WaitArguments>();
    command->add_option("--timeout", arguments->timeout, "Give up after this time, with status 1")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 1e9));
    command->require_subcommand(1);
    command->footer("Example:\n  mwctl wait vdisk v1 --gone && echo 'v1 is gone'");
    add_wait_vdisk(command, options, status, arguments);
    add_wait_node(command, options, status, arguments);
}

} // namespace mwctl
