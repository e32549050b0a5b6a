/* check: every file of the tree is read, and what no message will heal is said. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/render.h"
#include "mwctl/repair.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <iterator>
#include <unistd.h>

namespace mwctl
{

/* What was looked at: "12 nodes, 3 datastores, 456 VDisks, 1 lock". */
static std::string extent_text(const Cluster &cluster)
{
    return fmt::format("{}, {}, {}, {}", count_of(cluster.nodes.size(), "node"),
                       count_of(cluster.datastores.size(), "datastore"), count_of(cluster.vdisks.size(), "VDisk"),
                       count_of(cluster.locks.size(), "lock"));
}

static size_t repairable_count(const std::vector<Trouble> &troubles)
{
    return static_cast<size_t>(
        std::count_if(troubles.begin(), troubles.end(), [](const Trouble &trouble) { return trouble.repairable; }));
}

static Json repaired_json(const Repaired &repaired)
{
    return {{"code", repaired.code},
            {"record", utf8(repaired.record)},
            {"steps", json_list(repaired.steps, [](const std::string &step) { return utf8(step); })}};
}

static void print_report(const Cluster &cluster, const std::vector<Trouble> &troubles, const Style &style)
{
    if (troubles.empty()) {
        print(fmt::format("{}no trouble{} in {}\n", style.green, style.reset, extent_text(cluster)));
        return;
    }
    auto errors = std::count_if(troubles.begin(), troubles.end(),
                                [](const Trouble &trouble) { return trouble.severity == Severity::error; });
    std::string closing =
        fmt::format("{} and {} in {}", count_of(static_cast<size_t>(errors), "error"),
                    count_of(troubles.size() - static_cast<size_t>(errors), "warning"), extent_text(cluster));
    if (size_t repairable = repairable_count(troubles))
        closing += fmt::format("; mwctl check --repair would mend {}", repairable);
    print(fmt::format("{}\n{}\n", troubles_text(troubles, style), closing));
}

struct CheckOptions {
    bool repair = false, yes = false;
};

/* Whether a person at the terminal agrees. */
static bool agreed(size_t count)
{
    fprintf(stderr, "Mend %zu of them? [y/N] ", count);
    char answer[16] = "";
    return fgets(answer, sizeof(answer), stdin) && (answer[0] == 'y' || answer[0] == 'Y');
}

/* Mends until nothing more can be: what is mended may uncover the next. Leaves in `troubles` what is left. */
static std::vector<Repaired> mend(Cluster &cluster, std::vector<Trouble> &troubles, bool steps_on_stdout)
{
    auto say = [&](const std::string &text, bool left) {
        if (steps_on_stdout)
            print(printable(text) + "\n");
        else if (left)
            fputs((printable(text) + "\n").c_str(), stderr);
    };
    std::vector<Repaired> all;
    for (bool progress = true; progress;) {
        std::vector<Repaired> done = repair(cluster, troubles, say);
        progress = !done.empty();
        all.insert(all.end(), std::make_move_iterator(done.begin()), std::make_move_iterator(done.end()));
        if (progress) {
            cluster = read_cluster(cluster.settings, {Scope::whole, ""});
            troubles = confirmed_troubles(cluster);
        }
    }
    return all;
}

static int run_check(const Options &options, const CheckOptions &wanted)
{
    if (wanted.repair && !wanted.yes && !isatty(STDIN_FILENO))
        refuse("check --repair asks before it changes anything, and nobody is at a terminal; add --yes");
    Cluster cluster = read_cluster(options.settings(), {Scope::whole, ""});
    std::vector<Trouble> troubles = confirmed_troubles(cluster);
    std::vector<Repaired> repaired;
    size_t count = repairable_count(troubles);
    if (wanted.repair && count > 0) {
        if (!wanted.yes)
            fputs(troubles_text(troubles, options.style()).c_str(), stderr);
        if (wanted.yes || agreed(count))
            repaired = mend(cluster, troubles, !options.json);
    }
    if (options.json)
        print_json({{"troubles", json_list(troubles, trouble_json)}, {"repaired", json_list(repaired, repaired_json)}});
    else
        print_report(cluster, troubles, options.style());
    return troubles.empty() ? STATUS_DONE : STATUS_TROUBLE;
}

void add_check(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("check", "Reads every file of the tree and says what no message will heal");
    auto wanted = std::make_shared<CheckOptions>();
    CLI::Option *repair = command->add_flag("--repair", wanted->repair, "Mend what peers' messages then make whole");
    command->add_flag("--yes", wanted->yes, "Mend without asking")->needs(repair);
    command->footer("Examples:\n  mwctl check\n  mwctl check --repair --yes");
    command->callback([&, wanted] { status = run_check(options, *wanted); });
}

} // namespace mwctl
