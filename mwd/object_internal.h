/*
 * What the sources of the object store share: attribute files, records with their directories and links, and the
 * operations that only other operations call.
 */
#ifndef MWD_OBJECT_INTERNAL_H
#define MWD_OBJECT_INTERNAL_H

#include "mwd/object.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <initializer_list>
#include <string_view>

constexpr size_t PATH_LEN = 256;  /* absolute paths */
constexpr size_t TARGET_LEN = 64; /* targets of symbolic links */

/* Joins the pieces of a path, or of a link's target. Returns 0, or -1 without a line if the text does not fit. */
int text_join(char *text, size_t size, std::initializer_list<std::string_view> pieces);
template <size_t Size> int text_join(char (&text)[Size], std::initializer_list<std::string_view> pieces)
{
    return text_join(text, Size, pieces);
}

/* A number as a piece of a text. */
struct Decimal {
    char digits[10];
    size_t length;

    explicit Decimal(uint32_t number)
    {
        length = static_cast<size_t>(std::to_chars(digits, digits + sizeof(digits), number).ptr - digits);
    }
    operator std::string_view() const
    {
        return {digits, length};
    }
};

/* A UUID of a wire record as a piece of a text. */
inline std::string_view uuid_view(const char (&field)[UUID_WIDTH])
{
    return {field, strnlen(field, UUID_WIDTH)};
}

/* Frees a buffer from malloc at the end of its scope. */
struct BufGuard {
    char *buf;

    explicit BufGuard(char *buffer) : buf(buffer)
    {
    }
    ~BufGuard()
    {
        free(buf);
    }
    BufGuard(const BufGuard &) = delete;
    BufGuard &operator=(const BufGuard &) = delete;
};

/* Closes a directory stream at the end of its scope. */
struct DirGuard {
    DIR *dir;

    explicit DirGuard(DIR *stream) : dir(stream)
    {
    }
    ~DirGuard()
    {
        if (dir)
            closedir(dir);
    }
    DirGuard(const DirGuard &) = delete;
    DirGuard &operator=(const DirGuard &) = delete;
};

/*
 * Attribute files: one value as one line in the file `key` of the directory `dirfd`.
 */

/* Writes the value over the old one, in place. Returns the number of bytes stored, or -1. */
[[gnu::format(printf, 3, 4)]] int AttrStore(int dirfd, const char *key, const char *format, ...);

/* Reads the value by a scanf format. Returns the number of conversions, or -1: not always after a line. */
[[gnu::format(scanf, 3, 4)]] int AttrLoad(int dirfd, const char *key, const char *format, ...);

/*
 * Reads the value as text of at most `dst_len` bytes, below 256, and zeroes the rest of `dst`; a text that fills it has
 * no terminator. Returns the text's length; 0 with `dst` as it was for an empty file; or -1 with `dst` as it was.
 */
int StringLoad(int dirfd, const char *key, char *dst, size_t dst_len);

/* Opens a value for reading, and never waits for what is no file. Returns the descriptor or a negative number. */
int value_open(int dirfd, const char *key);

/*
 * Reads the whole open file into a new terminated buffer *r_buf, the caller's to free. Returns its size; or 0 for an
 * empty file and a negative number on failure, with *r_buf as it was.
 */
ssize_t FileLoad(int fd, char **r_buf);

/*
 * A record, or a directory of links in one: the operation that works on it, under whose name all is logged; its path,
 * in up to three pieces that are only joined in a line; and its open directory.
 */
struct Record {
    const char *op;
    const char *path;
    const char *sub;  /* "", or what follows the path: "/members", "/memberinfo/" */
    const char *leaf; /* "", or the last piece */
    int dirfd;
};
#define RECORD_PATH "%s%s%s"
#define RECORD_ARGS(record) (record).path, (record).sub, (record).leaf

/* Each logs "PATH/KEY=VALUE" at debug level and stores the value. Returns 0 or -1. */
int record_store_u32(const Record &record, const char *key, uint32_t value);
int record_store_u64(const Record &record, const char *key, uint64_t value);
int record_store_string(const Record &record, const char *key, const char *value);
/* A text field of `width` bytes. */
int record_store_text(const Record &record, const char *key, const char *field, size_t width);

/* Each reads one value and logs it at debug level. Returns 0, or -1 after "Failed to load PATH/KEY: RESULT". */
int record_load_u32(const Record &record, const char *key, uint32_t *value);
int record_load_u64(const Record &record, const char *key, uint64_t *value);
/* A text field of `width` bytes, zeroed before. */
int record_load_text(const Record &record, const char *key, char *field, size_t width);
/* As StringLoad, with no line for a success. Returns the length, or -1 after the line above. */
int record_load_string(const Record &record, const char *key, char *dst, size_t dst_len);

/* Makes a directory in the record after the line "PATH/NAME [MKDIR]"; one that exists is fine. Returns 0 or -1. */
int record_mkdir(const Record &record, const char *name);
/* The same, but one that exists is a failure. */
int record_mkdir_new(const Record &record, const char *name);

/* Makes the link `name` after the line "PATH/NAME [SYMLINK TARGET]". Returns 0 or -1. */
int record_symlink(const Record &record, const char *name, const char *target);

/* fsync and close of the record's directory, on the common way out. A failed fsync is only a warning. */
void record_sync_close(const Record &record);

/* Makes the directory `path` after the line "PATH [MKDIR]", for operation `op`; one that exists is fine. 0 or -1. */
int path_mkdir(const char *op, const char *path);
/* The same, but one that exists is a failure. */
int path_mkdir_new(const char *op, const char *path);
/* Removes a file or link, for operation `op`; a missing one is fine. Returns 0 or -1. */
int path_unlink(const char *op, const char *path);
/* Removes a directory if it is empty. Returns 0 if it is gone, 1 if it holds something, or -1. */
int path_rmdir(const char *op, const char *path);
/* Removes a tree through rm_fr and returns its result, after the line "Could not remove PATH" on failure. */
int path_remove_tree(const char *op, const char *path);

/* Opens a directory. Returns the descriptor or a negative number. */
int dir_open(const char *path);
int dir_openat(int dirfd, const char *name);

/* Whether nothing, not even a dangling link, has the name: 1, or 0 if something has, or -1 without a line. */
int entry_missing(int dirfd, const char *name);

/* Path locks under their texts, and the two operations below all of them. */
int PathLock(const char *path, int timeout_ms); /* -1 timed out, -2 open, -3 write, -4 fsync */
void PathUnlock(const char *path);
int NodeLockStr(const char *nodeuuid);
void NodeUnlockStr(const char *nodeuuid);

/*
 * Member records: VDisk/<uuid>/memberinfo/<uid>. All under the VDisk's lock. `vdiskpath` serves the log alone.
 */

/* Writes the whole record of the sender `nodeuuid`, open as `mbfd`, and the links it is owed. */
int MemberinfoCreate(struct VDisk *vdisk, const char *vdiskpath, int vdiskfd, const char *nodeuuid, int mbfd);
/* Removes the record, then the node's link to the VDisk; neither needs to be there. Takes the node's lock. */
int MemberinfoDelete(struct VDisk *vdisk, const char *nodeuuid);
/* Stores the report's member list; an empty one leaves the stored list alone. */
int MembershipStore(struct VDisk *vdisk, const char *vdiskpath, int vdiskfd);
/* Reads a list, empty before, and its count, if it has any element. On failure the list is empty. */
int MembershipLoad(struct MemberList *members, int *members_count, const char *vdiskpath, int vdiskfd);
int FrontendsLoad(struct FrontendList *frontends, int *frontends_count, const char *vdiskpath, const char *nodeuuid,
                  int mbfd);
/* The links of a VDisk in its nodes and its datastore: Ref under the caller's lock, Unref takes the lock itself. */
int NodeUpdate_RefVDisk(const char *nodeuuid, const char *vdiskuuid);
int NodeUpdate_UnrefVDisk(const char *nodeuuid, const char *vdiskuuid);
int DatastoreUpdate_RefVDisk(const char *dsuuid, const char *vdiskuuid);
int DatastoreUpdate_UnrefVDisk(const char *vdiskuuid);

/* The update path of VDiskCreate, on the open directories of the VDisk and of its member records. */
int VDiskUpdate(const struct Hdr *hdr, struct VDisk *vdisk, const char *vdiskpath, const char *nodeuuid, int vdiskfd,
                int mbtopfd);
/* Runs the fence-check program and waits for it. Its result has no effect; -1 if it could not be run or awaited. */
int FenceCheck(struct VDisk *vdisk, const char *nodeuuid);

#endif
