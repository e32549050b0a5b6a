/* check: every file of the tree is read, and what no message will heal is said. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/render.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace mwctl
{

static std::string count_of(size_t count, const char *noun)
{
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

/* What was looked at: "12 nodes, 3 datastores, 456 VDisks, 1 lock". */
static std::string extent_text(const Cluster &cluster)
{
    return fmt::format("{}, {}, {}, {}", count_of(cluster.nodes.size(), "node"),
                       count_of(cluster.datastores.size(), "datastore"), count_of(cluster.vdisks.size(), "VDisk"),
                       count_of(cluster.locks.size(), "lock"));
}

static void print_report(const Cluster &cluster, const std::vector<Trouble> &troubles, const Style &style)
{
    if (troubles.empty()) {
        print(fmt::format("{}no trouble{} in {}\n", style.green, style.reset, extent_text(cluster)));
        return;
    }
    auto errors = std::count_if(troubles.begin(), troubles.end(),
                                [](const Trouble &trouble) { return trouble.severity == Severity::error; });
    auto repairable =
        std::count_if(troubles.begin(), troubles.end(), [](const Trouble &trouble) { return trouble.repairable; });
    std::string closing =
        fmt::format("{} and {} in {}", count_of(static_cast<size_t>(errors), "error"),
                    count_of(troubles.size() - static_cast<size_t>(errors), "warning"), extent_text(cluster));
    if (repairable > 0)
        closing += fmt::format("; mwctl check --repair would mend {}", repairable);
    print(fmt::format("{}\n{}\n", troubles_text(troubles, style), closing));
}

struct CheckOptions {
    bool repair = false, yes = false;
};

static int run_check(const Options &options, const CheckOptions &wanted)
{
    Cluster cluster = read_cluster(options.settings(), {Scope::whole, ""});
    std::vector<Trouble> troubles = confirmed_troubles(cluster);
    (void)wanted;
    if (options.json)
        print_json({{"troubles", json_list(troubles, trouble_json)}, {"repaired", Json::array()}});
    else
        print_report(cluster, troubles, options.style());
    return troubles.empty() ? STATUS_DONE : STATUS_TROUBLE;
}

void add_check(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("check", "Reads every file of the tree and says what no message will heal");
    auto wanted = std::make_shared<CheckOptions>();
    command->footer("Example:\n  mwctl check");
    command->callback([&, wanted] { status = run_check(options, *wanted); });
}

} // namespace mwctl
