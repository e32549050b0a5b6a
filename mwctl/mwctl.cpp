/* The command line. */
#include "mwctl/command.h"
#include "mwctl/failure.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <unistd.h>

using namespace mwctl;

static constexpr Adder commands[] = {
    // seeing, mending, changing, and the wire
    add_status, add_tables, add_show,    add_config, add_metrics, add_graph, add_wait, add_watch,
    add_check,  add_locks,  add_publish, add_new,    add_get_set, add_drop,  add_lock, add_sniff,
};

/* The command behind `lock ... --` is none of the parser's business: takes its words off the command line. */
static std::vector<std::string> cut_locked_command(int *argc, char **argv)
{
    char **end = argv + *argc, **dashes = std::find(argv, end, std::string_view("--"));
    if (std::find(argv, dashes, std::string_view("lock")) == dashes)
        return {};
    *argc = static_cast<int>(dashes - argv);
    return dashes == end ? std::vector<std::string>() : std::vector<std::string>(dashes + 1, end);
}

static int run(int argc, char **argv)
{
    CLI::App app("Sees, checks, mends and changes what the metadata daemon mwd of this host keeps.", "mwctl");
    Options options;
    int status = STATUS_DONE;
    options.behind = cut_locked_command(&argc, argv);
    app.set_version_flag("--version", "mwctl " MWD_VERSION);
    app.add_option("-C", options.config, "The daemon's configuration")->type_name("FILE")->take_last();
    app.add_flag("--json", options.json, "One JSON document instead of text");
    app.add_option("--color", options.color, "auto, always or never")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->type_name("WHEN");
    app.require_subcommand(0, 1);
    app.fallthrough(); /* options of the program may stand behind the command too */
    app.footer("mwctl alone prints `status`. See mwctl(8).");
    for (Adder add : commands)
        add(app, options, status);
    if (argc > 2 && strcmp(argv[1], "complete") == 0 && strcmp(argv[2], "--") == 0) {
        complete(app, {argv + 3, argv + argc});
        return STATUS_DONE;
    }

    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty())
            app.get_subcommand("status")->parse(std::vector<std::string>{});
    } catch (const CLI::Success &success) { /* --help, --version */
        app.exit(success);
        return STATUS_DONE;
    } catch (const CLI::ParseError &error) {
        app.exit(error);
        return STATUS_USAGE;
    }
    return status;
}

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_DFL);
    try {
        return run(argc, argv);
    } catch (const Failure &failure) {
        fprintf(stderr, "mwctl: %s\n", printable(failure.what()).c_str());
        return failure.status;
    } catch (const std::exception &error) {
        fprintf(stderr, "mwctl: %s\n", printable(error.what()).c_str());
        return STATUS_IMPOSSIBLE;
    }
}
