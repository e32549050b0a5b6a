/* locks: who holds what, and the removal of what the dead left behind. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/process.h"
#include "mwctl/render.h"
#include "mwctl/tree.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mwctl
{

static std::string owner_name(unsigned uid)
{
    const struct passwd *entry = getpwuid(uid);
    return entry ? entry->pw_name : std::to_string(uid);
}

static std::string state_of(const Lock &lock)
{
    return lock.alive ? "held" : lock.pid ? "stale" : "empty";
}

static void print_text(const std::vector<Lock> &locks, const Style &style)
{
    if (locks.empty()) {
        print("no record is locked\n");
        return;
    }
    Table table({"LOCK", "RECORD", "STATE", "AGE", "PID", "OWNER", "COMMAND"});
    for (const Lock &lock : locks)
        table.add({lock.name, lock.record, state_of(lock), human_age(lock.age_seconds),
                   lock.pid ? std::to_string(lock.pid) : "-", owner_name(lock.uid), lock.command});
    print(table.render(style));
}

/*
 * Removes the lock if its name still stands for the very file whose holder was found dead. A name can only come to
 * stand for another file when somebody else removes this one, and a run of this program keeps others like it out. What
 * remains is a hand that removes the file between these two calls, and a program that takes the lock in the same
 * moment.
 */
static bool break_lock(const Lock &lock)
{
    struct stat st;
    if (lstat(lock.path.c_str(), &st) < 0 || st.st_dev != lock.device || st.st_ino != lock.inode ||
        process_alive(lock.pid))
        return false;
    if (unlink(lock.path.c_str()) < 0 && errno != ENOENT)
        give_up(fmt::format("cannot remove {}: {}; run this as its owner or as root", lock.path, strerror(errno)));
    return true;
}

/* Removes the locks of dead holders, which are read here, behind other runs. Returns those that went. */
static std::vector<Lock> break_stale_locks()
{
    Descriptor tmp(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!tmp || flock(tmp.get(), LOCK_EX) < 0)
        give_up(fmt::format("cannot keep other runs out of /tmp: {}", strerror(errno)));
    std::vector<Lock> broken;
    for (const Lock &lock : read_locks())
        if (lock.pid && !lock.alive && break_lock(lock))
            broken.push_back(lock);
    return broken;
}

static void tell_broken(const std::vector<Lock> &broken, const std::vector<Lock> &left)
{
    for (const Lock &lock : broken)
        print(fmt::format("removed {}: its holder, process {}, is dead\n", printable(lock.path), lock.pid));
    for (const Lock &lock : left)
        if (!lock.pid)
            print(fmt::format("left {}: it names no process; if nothing on this host is about to take it, remove it by "
                              "hand: rm '{}'\n",
                              printable(lock.path), printable(lock.path)));
    if (broken.empty())
        print("no lock has a dead holder\n");
}

static int run_locks(const Options &options, bool break_stale)
{
    std::vector<Lock> broken;
    if (break_stale)
        broken = break_stale_locks();
    std::vector<Lock> locks = read_locks();
    if (options.json) {
        Json document = {{"locks", json_list(locks, lock_json)}};
        if (break_stale)
            document["broken"] = json_list(broken, lock_json);
        print_json(document);
    } else if (break_stale) {
        tell_broken(broken, locks);
    } else {
        print_text(locks, options.style());
    }
    return STATUS_DONE;
}

void add_locks(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("locks", "Every path lock of this host, its holder and its age");
    auto break_stale = std::make_shared<bool>(false);
    command->add_flag("--break", *break_stale, "Remove the locks whose holder is dead, and those alone");
    command->footer("Examples:\n  mwctl locks\n  mwctl locks --break");
    command->callback([&options, &status, break_stale] { status = run_locks(options, *break_stale); });
}

} // namespace mwctl
