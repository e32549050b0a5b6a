/* Records: their values, directories and links, each step with its debug line and its failure line. */
#include "mwd/object_internal.h"

#include "mwd/io.h"
#include "mwd/misc.h"
#include "mwd/syslog.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

int text_join(char *text, size_t size, std::initializer_list<std::string_view> pieces)
{
    size_t used = 0;
    for (const std::string_view piece : pieces) {
        if (piece.size() >= size - used)
            return -1;
        memcpy(text + used, piece.data(), piece.size());
        used += piece.size();
    }
    text[used] = '\0';
    return 0;
}

static int stored(int result)
{
    return result < 0 ? -1 : 0;
}

int record_store_u32(const Record &record, const char *key, uint32_t value)
{
    log_debug_as(record.op, RECORD_PATH "/%s=%u", RECORD_ARGS(record), key, value);
    return stored(AttrStore(record.dirfd, key, "%u\n", value));
}

int record_store_u64(const Record &record, const char *key, uint64_t value)
{
    auto number = static_cast<unsigned long long>(value);
    log_debug_as(record.op, RECORD_PATH "/%s=%llu", RECORD_ARGS(record), key, number);
    return stored(AttrStore(record.dirfd, key, "%llu\n", number));
}

int record_store_string(const Record &record, const char *key, const char *value)
{
    log_debug_as(record.op, RECORD_PATH "/%s=%s", RECORD_ARGS(record), key, value);
    return stored(AttrStore(record.dirfd, key, "%s\n", value));
}

int record_store_text(const Record &record, const char *key, const char *field, size_t width)
{
    int precision = static_cast<int>(width);
    log_debug_as(record.op, RECORD_PATH "/%s=%.*s", RECORD_ARGS(record), key, precision, field);
    return stored(AttrStore(record.dirfd, key, "%.*s\n", precision, field));
}

static int load_failed(const Record &record, const char *key, int result)
{
    log_error_as(record.op, "Failed to load " RECORD_PATH "/%s: %d", RECORD_ARGS(record), key, result);
    return -1;
}

int record_load_u32(const Record &record, const char *key, uint32_t *value)
{
    int result = AttrLoad(record.dirfd, key, "%u", value);
    if (result != 1)
        return load_failed(record, key, result);
    log_debug_as(record.op, RECORD_PATH "/%s=%u", RECORD_ARGS(record), key, *value);
    return 0;
}

int record_load_u64(const Record &record, const char *key, uint64_t *value)
{
    unsigned long long number;
    int result = AttrLoad(record.dirfd, key, "%llu", &number);
    if (result != 1)
        return load_failed(record, key, result);
    log_debug_as(record.op, RECORD_PATH "/%s=%llu", RECORD_ARGS(record), key, number);
    *value = number;
    return 0;
}

int record_load_text(const Record &record, const char *key, char *field, size_t width)
{
    int length = record_load_string(record, key, field, width);
    if (length < 0)
        return -1;
    log_debug_as(record.op, RECORD_PATH "/%s=%.*s (%d)", RECORD_ARGS(record), key, static_cast<int>(width), field,
                 length);
    return 0;
}

int record_load_string(const Record &record, const char *key, char *dst, size_t dst_len)
{
    int length = StringLoad(record.dirfd, key, dst, dst_len);
    return length < 0 ? load_failed(record, key, length) : length;
}

enum class Existing { Fine, Failure };

static int make_directory(const Record &record, const char *name, Existing existing)
{
    log_debug_as(record.op, RECORD_PATH "/%s [MKDIR]", RECORD_ARGS(record), name);
    if (mkdirat(record.dirfd, name, 0777) < 0 && (errno != EEXIST || existing == Existing::Failure)) {
        log_error_as(record.op, "mkdir(" RECORD_PATH "/%s): %s", RECORD_ARGS(record), name, strerror(errno));
        return -1;
    }
    return 0;
}

int record_mkdir(const Record &record, const char *name)
{
    return make_directory(record, name, Existing::Fine);
}

int record_mkdir_new(const Record &record, const char *name)
{
    return make_directory(record, name, Existing::Failure);
}

int record_symlink(const Record &record, const char *name, const char *target)
{
    log_debug_as(record.op, RECORD_PATH "/%s [SYMLINK %s]", RECORD_ARGS(record), name, target);
    if (symlinkat(target, record.dirfd, name) < 0) {
        log_error_as(record.op, "symlink(" RECORD_PATH "/%s, %s): %s", RECORD_ARGS(record), name, target,
                     strerror(errno));
        return -1;
    }
    return 0;
}

void record_sync_close(const Record &record)
{
    if (fsync(record.dirfd) < 0)
        log_warn_as(record.op, "fsync(%d): %s", record.dirfd, strerror(errno));
    fd_close(record.dirfd);
}

static int make_path(const char *op, const char *path, Existing existing)
{
    log_debug_as(op, "%s [MKDIR]", path);
    if (mkdir(path, 0777) < 0 && (errno != EEXIST || existing == Existing::Failure)) {
        log_error_as(op, "mkdir(%s): %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

int path_mkdir(const char *op, const char *path)
{
    return make_path(op, path, Existing::Fine);
}

int path_mkdir_new(const char *op, const char *path)
{
    return make_path(op, path, Existing::Failure);
}

int path_unlink(const char *op, const char *path)
{
    if (unlink(path) < 0 && errno != ENOENT) {
        log_error_as(op, "unlink(%s): %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

int path_rmdir(const char *op, const char *path)
{
    if (rmdir(path) == 0 || errno == ENOENT)
        return 0;
    if (errno == ENOTEMPTY || errno == EEXIST)
        return 1;
    log_error_as(op, "rmdir(%s): %s", path, strerror(errno));
    return -1;
}

int path_remove_tree(const char *op, const char *path)
{
    int result = rm_fr(path);
    if (result != 0)
        log_error_as(op, "Could not remove %s", path);
    return result;
}

int dir_open(const char *path)
{
    return fd_open(path, O_RDONLY | O_DIRECTORY, 0);
}

int dir_openat(int dirfd, const char *name)
{
    return fd_openat(dirfd, name, O_RDONLY | O_DIRECTORY, 0);
}

int entry_missing(int dirfd, const char *name)
{
    struct stat st;
    if (fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) == 0)
        return 0;
    return errno == ENOENT ? 1 : -1;
}
