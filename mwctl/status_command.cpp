/* status: what is, what is wrong, and which command mends it. */
#include "mwctl/status_page.h"

#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/figures.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <csignal>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace mwctl
{

struct Report {
    Cluster cluster;
    std::vector<Trouble> troubles;
};

static Report make_report(const Settings &settings)
{
    Report report{read_cluster(settings, {Scope::summary, ""}), {}};
    report.troubles = confirmed_troubles(report.cluster);
    return report;
}

static Json to_json(const Report &report)
{
    const Cluster &cluster = report.cluster;
    auto nodes = [&](const std::vector<const Node *> &list) {
        return json_list(list, [&](const Node *node) { return node_json(cluster, *node); });
    };
    VDiskCounts counts = count_vdisks(cluster);
    return {{"host", utf8(cluster.host)},
            {"healthy", report.troubles.empty()},
            {"daemon", daemon_json(cluster.daemon)},
            {"local_nodes", nodes(local_nodes(cluster))},
            {"peers", nodes(peers(cluster))},
            {"datastores", json_list(cluster.datastores, [](const auto &pair) { return datastore_json(pair.second); })},
            {"vdisks",
             {{"plain", counts.plain},
              {"snapshots", counts.snapshots},
              {"unknown", counts.unknown},
              {"total", counts.total()}}},
            {"troubles", json_list(report.troubles, trouble_json)}};
}

static int run_status(const Options &options)
{
    Report report = make_report(options.settings());
    if (options.json)
        print_json(to_json(report));
    else
        print(status_page(report.cluster, report.troubles, options.style()));
    return report.troubles.empty() ? STATUS_DONE : STATUS_TROUBLE;
}

/* A terminal's second screen for as long as the scope lasts: what stood on the first one comes back. */
class SecondScreen
{
  public:
    SecondScreen()
    {
        print("\033[?1049h\033[?25l\033[?7l"); /* the screen; no cursor; long lines are cut */
    }
    ~SecondScreen()
    {
        static constexpr std::string_view leave = "\033[?7h\033[?25h\033[?1049l";
        if (write(STDOUT_FILENO, leave.data(), leave.size()) < 0)
            return; /* the terminal is gone, and with it what had to be put back */
    }
    SecondScreen(const SecondScreen &) = delete;
    SecondScreen &operator=(const SecondScreen &) = delete;

    /* Draws over what stands there, in one write, so that nothing flickers. */
    void draw(std::string_view text)
    {
        struct winsize size;
        size_t rows = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 1 ? size.ws_row : 24;
        std::string frame = "\033[H";
        for (size_t row = 1; row < rows && !text.empty(); row++) {
            size_t end = std::min(text.find('\n'), text.size());
            frame += fmt::format("{}\033[K\r\n", text.substr(0, end));
            text.remove_prefix(std::min(end + 1, text.size()));
        }
        print(frame + "\033[J" + (text.empty() ? "" : "... (a taller window shows the rest)"));
    }
};

/* The signals that end the watch, held back so that only wait_for_end sees them. */
static sigset_t hold_ending_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

/* Waits so long for one of them. Returns its number, 0 if none came. */
static int wait_for_end(const sigset_t &signals, double seconds)
{
    struct timespec timeout;
    timeout.tv_sec = static_cast<time_t>(seconds);
    timeout.tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9);
    return std::max(sigtimedwait(&signals, nullptr, &timeout), 0);
}

static void print_frame(const Options &options, const Report &report, std::optional<SecondScreen> &screen, double every)
{
    if (options.json) {
        print_json_line(to_json(report));
        return;
    }
    std::string page = status_page(report.cluster, report.troubles, options.style());
    if (!screen) {
        print(fmt::format("{}\n{}\n", iso_time(report.cluster.now), page));
        return;
    }
    screen->draw(fmt::format("Every {:g} s: mwctl status, {}\n\n{}", every, iso_time(report.cluster.now), page));
}

static int watch_status(const Options &options, double every)
{
    Settings settings = options.settings();
    sigset_t signals = hold_ending_signals();
    int end;
    {
        std::optional<SecondScreen> screen;
        do {
            reread_tables(settings);
            Report report = make_report(settings);
            if (!options.json && !screen && isatty(STDOUT_FILENO))
                screen.emplace();
            print_frame(options, report, screen, every);
        } while ((end = wait_for_end(signals, every)) == 0);
    }
    return end == SIGINT ? STATUS_DONE : 128 + end;
}

void add_status(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("status", "One page: what is, what is wrong, and which command mends it");
    auto every = std::make_shared<double>(2);
    CLI::Option *watch = command->add_option("--watch", *every, "Again and again, every so many seconds")
                             ->type_name("[SECONDS=2]")
                             ->expected(0, 1)
                             ->default_str("2")
                             ->check(CLI::Range(0.1, 86400.0));
    command->footer("Examples:\n  mwctl status\n  mwctl status --watch=5\n  mwctl --json status | jq .troubles");
    command->callback([&options, &status, every, watch] {
        status = watch->count() > 0 ? watch_status(options, *every) : run_status(options);
    });
}

} // namespace mwctl
