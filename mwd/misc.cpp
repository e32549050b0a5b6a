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
#include <sys/stat.h>
#include <unistd.h>

/* Whether a directory is the root of what is mounted there, of a bind mount too. */
static bool is_mount_point(const struct statx &st)
{
    return st.stx_attributes & STATX_ATTR_MOUNT_ROOT;
}

static int rm_directory(char *path, size_t length);

/* Removes one entry of the directory at `path`, with all below it; a mount point is passed over. */
static int rm_fn(const struct dirent *entry, char *path, size_t length)
{
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
        return 0;
    length += static_cast<size_t>(snprintf(path + length, PATH_MAX - length, "/%s", entry->d_name));
    if (length >= PATH_MAX)
        return -1;
    if (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) {
        struct statx st;
        if (statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_TYPE, &st) < 0)
            return -1;
        if (S_ISDIR(st.stx_mode))
            return is_mount_point(st) ? 0 : rm_directory(path, length);
    }
    int result = unlink(path);
    log_debug("unlink(%s): %d", path, result);
    return result;
}

/* Empties and removes the directory at `path`, which has that length in PATH_MAX bytes. */
static int rm_directory(char *path, size_t length)
{
    DIR *dir = opendir(path);
    if (!dir)
        return -1;
    int result = 0;
    const struct dirent *entry;
    while (result == 0 && (entry = readdir(dir)))
        result = rm_fn(entry, path, length);
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
    if (is_mount_point(st))
        return -1;
    char path[PATH_MAX];
    snprintf(path, sizeof(path), "%s", dirpath);
    return rm_directory(path, strlen(path));
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
