/* lock: a command under a record's lock, as flock(1) runs one under that of a file. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/record_lock.h"
#include "mwctl/record_name.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

namespace mwctl
{

/*
 * All signals but those that stop, resume or tell of a window, held back for a scope: each of them could end this
 * program before it has let go of the lock.
 */
class SignalsHeld
{
  public:
    SignalsHeld()
    {
        sigfillset(&held);
        for (int signal : {SIGTSTP, SIGTTIN, SIGTTOU, SIGCONT, SIGWINCH, SIGURG})
            sigdelset(&held, signal);
        sigprocmask(SIG_BLOCK, &held, &before);
    }
    ~SignalsHeld()
    {
        sigprocmask(SIG_SETMASK, &before, nullptr);
    }
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;

    sigset_t held, before;
};

[[noreturn]] static void run_command(const std::vector<std::string> &command, const sigset_t &signals)
{
    std::vector<char *> argv;
    for (const std::string &word : command)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    sigprocmask(SIG_SETMASK, &signals, nullptr);
    execvp(argv[0], argv.data());
    bool absent = errno == ENOENT;
    fprintf(stderr, "mwctl: cannot run %s: %s\n", printable(command[0]).c_str(), strerror(errno));
    _exit(absent ? 127 : 126);
}

/* Whether the command has the signal already: a terminal sends it to all of a process group. */
static bool heard_by_command(const siginfo_t &info, pid_t child)
{
    return info.si_code == SI_KERNEL && getpgid(child) == getpgrp();
}

/* Passes signals on until the command has ended. Returns its status as a shell tells it. */
static int wait_for_command(pid_t child, const sigset_t &held)
{
    for (;;) {
        siginfo_t info;
        if (sigwaitinfo(&held, &info) < 0)
            continue;
        if (info.si_signo != SIGCHLD) {
            if (!heard_by_command(info, child))
                kill(child, info.si_signo);
            continue;
        }
        int status;
        if (waitpid(child, &status, WNOHANG) == child)
            return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
}

static int run_locked(const std::vector<std::string> &command, const SignalsHeld &signals)
{
    signal(SIGCHLD, SIG_DFL); /* whoever started this may have ignored it, and then no child can be waited for */
    pid_t child = fork();
    if (child < 0)
        give_up(std::string("cannot start a process: ") + strerror(errno));
    if (child == 0)
        run_command(command, signals.before);
    return wait_for_command(child, signals.held);
}

/* One try with no signal in between; nothing if somebody holds the lock and `last` is not set. */
static std::optional<int> try_locked(const std::string &record, const std::vector<std::string> &command, bool last)
{
    SignalsHeld signals;
    std::optional<RecordLock> lock;
    try {
        lock.emplace(record, 0);
    } catch (const Failure &) {
        if (last)
            throw;
        return std::nullopt;
    }
    return run_locked(command, signals);
}

static int run_lock(const Options &options, const std::string &name, std::optional<double> seconds,
                    const std::vector<std::string> &command)
{
    Settings settings = options.settings();
    RecordName record = parse_record(name).locked();
    int configured = record.kind == Kind::node        ? settings.node_lock_ms
                     : record.kind == Kind::datastore ? settings.datastore_lock_ms
                                                      : settings.vdisk_lock_ms;
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                                       seconds.value_or(static_cast<double>(configured) / 1000)));
    for (;;) {
        bool last = Clock::now() >= deadline;
        if (std::optional<int> status = try_locked(record.text(), command, last))
            return *status;
        usleep(50000);
    }
}

void add_lock(CLI::App &app, Options &options, int &status)
{
    struct Arguments {
        std::string record;
        std::optional<double> wait;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App *command = app.add_subcommand("lock", "Run a command, which stands behind --, under a record's lock");
    command->add_option("RECORD", arguments->record, "node/7, datastore/ds1 or vdisk/v1")->required();
    command->add_option("--wait", arguments->wait, "How long to wait for the lock; else as long as the daemon would")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 1e6));
    command->footer("Example:\n  mwctl lock vdisk/v1 --wait 10 -- tar -C /var/lib/mwd/DB/VDisk -cf v1.tar v1");
    command->callback([&options, &status, arguments] {
        if (options.behind.empty())
            refuse("which command? It stands behind --: mwctl lock RECORD -- COMMAND");
        status = run_lock(options, arguments->record, arguments->wait, options.behind);
    });
}

} // namespace mwctl
