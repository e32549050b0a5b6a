#include "mwd/misc.h"

#include "mwd/syslog.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

static int rm_fn(const char *fpath, const struct stat *, int typeflag, struct FTW *)
{
    int result;

    switch (typeflag) {
    case FTW_F:
    case FTW_SL:
        result = unlink(fpath);
        log_debug("unlink(%s): %d", fpath, result);
        return result;
    case FTW_DP:
        result = rmdir(fpath);
        log_debug("rmdir(%s): %d", fpath, result);
        return result;
    default:
        return -1;
    }
}

int rm_fr(const char *dirpath)
{
    struct stat st;
    if (lstat(dirpath, &st) < 0) {
        if (errno == ENOENT)
            return 0;
        log_error("lstat(%s): %s", dirpath, strerror(errno));
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        log_error("%s not a directory!", dirpath);
        return -2;
    }
    return nftw(dirpath, rm_fn, 256, FTW_PHYS | FTW_MOUNT | FTW_DEPTH);
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
