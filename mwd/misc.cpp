#include "mwd/misc.h"

#include "mwd/syslog.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Opens the directory `name`, unless it is a mount point: that fails with EXDEV, whatever is mounted there. */
static int open_unmounted(int dirfd, const char *name)
{
    struct open_how how = {};
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_NO_XDEV;
    return static_cast<int>(syscall(SYS_openat2, dirfd, name, &how, sizeof(how)));
}

static int rm_directory(int fd, char *path, size_t length);

/* Removes one entry of the directory `dirfd`, which has the path of that length, with all below it. */
static int rm_fn(int dirfd, const struct dirent *entry, char *path, size_t length)
{
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
        return 0;
    length += static_cast<size_t>(snprintf(path + length, PATH_MAX - length, "/%s", entry->d_name));
    if (length >= PATH_MAX)
        return -1;
    if (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) {
        int fd = open_unmounted(dirfd, entry->d_name);
        if (fd >= 0)
            return rm_directory(fd, path, length);
        if (errno != ENOTDIR)
            return errno == EXDEV ? 0 : -1;
    }
    int result = unlink(path);
    log_debug("unlink(%s): %d", path, result);
    return result;
}

/* Empties the directory `fd`, closes it and removes it. `path`, of PATH_MAX bytes, leads to it. */
static int rm_directory(int fd, char *path, size_t length)
{
    DIR *dir = fdopendir(fd);
    if (!dir) {
        close(fd);
        return -1;
    }
    int result = 0;
    const struct dirent *entry;
    while (result == 0 && (entry = readdir(dir)))
        result = rm_fn(fd, entry, path, length);
    closedir(dir);
    if (result != 0)
        return result;
    path[length] = '\0';
    result = rmdir(path);
    log_debug_as("rm_fn", "rmdir(%s): %d", path, result);
    return result;
}

int rm_fr(const char *dirpath)
{
    struct statx st;
    if (statx(AT_FDCWD, dirpath, AT_SYMLINK_NOFOLLOW, STATX_TYPE, &st) < 0) {
        if (errno == ENOENT)
            return 0;
        log_error("lstat(%s): %s", dirpath, strerror(errno));
        return -1;
    }
    if (!S_ISDIR(st.stx_mode)) {
        log_error("%s not a directory!", dirpath);
        return -2;
    }
    if (st.stx_attributes & STATX_ATTR_MOUNT_ROOT)
        return -1;
    int fd = open(dirpath, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return -1;
    char path[PATH_MAX];
    snprintf(path, sizeof(path), "%s", dirpath);
    return rm_directory(fd, path, strlen(path));
}

int msleep(int ms)
{
    sigset_t set, oldset;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, &oldset);

    struct timespec ts;
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = (ms % 1000) * 1000000L;
    int retval = nanosleep(&ts, nullptr) < 0 ? -errno : 0;

    sigprocmask(SIG_SETMASK, &oldset, nullptr);
    return retval;
}
