/* The path locks as they lie in /tmp. */
#include "mwctl/process.h"
#include "mwctl/tree.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mwctl
{

/* The record whose lock has this file name, or nothing. */
static std::optional<std::string> record_of_lock(const std::string &name)
{
    if (name.starts_with("NODE-") && uid_from(name.substr(5)))
        return record_name("node", name.substr(5));
    if (name.starts_with("DS-") && uuid_usable(name.substr(3)))
        return record_name("datastore", name.substr(3));
    if (name.starts_with("VDISK-") && uuid_usable(name.substr(6)))
        return record_name("vdisk", name.substr(6));
    return std::nullopt;
}

/* The process number that the lock's first line holds, 0 if there is none. */
static int read_holder(int fd)
{
    char text[16] = "";
    ssize_t length = read(fd, text, sizeof(text) - 1);
    if (length <= 0)
        return 0;
    long number = strtol(text, nullptr, 10);
    return number > 0 && number <= INT32_MAX ? static_cast<int>(number) : 0;
}

static std::optional<Lock> read_lock(int tmp, const std::string &name, const std::string &record)
{
    Descriptor fd(openat(tmp, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (fd ? fstat(fd.get(), &st) < 0 : fstatat(tmp, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) < 0)
        return std::nullopt;
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    Lock lock;
    lock.path = "/tmp/" + name;
    lock.name = name;
    lock.record = record;
    lock.pid = fd && S_ISREG(st.st_mode) ? read_holder(fd.get()) : 0;
    lock.alive = lock.pid > 0 && process_alive(lock.pid);
    lock.command = lock.alive ? process_command(lock.pid) : "";
    lock.age_seconds = static_cast<double>(now.tv_sec - st.st_mtim.tv_sec) +
                       static_cast<double>(now.tv_nsec - st.st_mtim.tv_nsec) / 1e9;
    lock.uid = st.st_uid;
    lock.device = st.st_dev;
    lock.inode = st.st_ino;
    return lock;
}

std::vector<Lock> read_locks()
{
    std::vector<Lock> locks;
    Directory tmp = read_directory(AT_FDCWD, "/tmp/.");
    for (const Entry &entry : tmp.entries)
        if (std::optional<std::string> record = record_of_lock(entry.name))
            if (std::optional<Lock> lock = read_lock(tmp.fd.get(), entry.name, *record))
                locks.push_back(*lock);
    std::sort(locks.begin(), locks.end(), [](const Lock &a, const Lock &b) { return a.name < b.name; });
    return locks;
}

} // namespace mwctl
