#include "mwctl/record_lock.h"

#include "mwctl/cluster.h"
#include "mwctl/failure.h"
#include "mwctl/text.h"
#include "mwd/config.h"
#include "mwd/object_internal.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>

namespace mwctl
{

/* How many locks this process holds, and the signals that passed before the first. */
static int locks_held;
static sigset_t signals_before;

static void hold_signals()
{
    if (locks_held++ > 0)
        return;
    sigset_t ending;
    sigemptyset(&ending);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ending, signal);
    sigprocmask(SIG_BLOCK, &ending, &signals_before);
}

static void release_signals()
{
    if (--locks_held == 0)
        sigprocmask(SIG_SETMASK, &signals_before, nullptr);
}

std::string lock_path(const std::string &record)
{
    auto [kind, name] = split_record(record);
    return fmt::format("/tmp/{}-{}", kind == "node" ? "NODE" : kind == "datastore" ? "DS" : "VDISK", name);
}

static int configured_timeout(const std::string &record)
{
    std::string kind = split_record(record).first;
    return kind == "node"        ? cfg_node_lock_timeout_ms
           : kind == "datastore" ? cfg_datastore_lock_timeout_ms
                                 : cfg_vdisk_lock_timeout_ms;
}

static std::string holder_of(const std::string &record)
{
    for (const Lock &lock : read_locks()) {
        if (lock.record != record)
            continue;
        if (lock.alive)
            return fmt::format("process {} holds it: {}", lock.pid, lock.command);
        if (lock.pid)
            return fmt::format("its holder, process {}, is dead: mwctl locks --break removes it", lock.pid);
        return fmt::format("{} is empty: its holder died or failed early; remove it by hand once you are sure",
                           lock.path);
    }
    return "its holder let go in this moment: try again";
}

RecordLock::RecordLock(const std::string &record, std::optional<int> timeout_ms) : path_(lock_path(record))
{
    hold_signals();
    mode_t mask = umask(022); /* everybody may read who holds it, whatever the caller's mask is */
    int result = PathLock(path_.c_str(), timeout_ms.value_or(configured_timeout(record)));
    umask(mask);
    if (result == 0)
        return;
    std::string reason = strerror(errno);
    if (result < -2) /* the file is ours, but does not say so: nobody must wait for it */
        PathUnlock(path_.c_str());
    release_signals();
    give_up(result == -1 ? fmt::format("the lock of {} is not to be had; {}", printable(record), holder_of(record))
                         : fmt::format("cannot make the lock {}: {}", printable(path_), reason));
}

RecordLock::~RecordLock()
{
    PathUnlock(path_.c_str());
    release_signals();
}

} // namespace mwctl
