/* The path locks, taken in the daemon's own way. */
#ifndef MWCTL_RECORD_LOCK_H
#define MWCTL_RECORD_LOCK_H

#include <optional>
#include <string>

namespace mwctl
{

/*
 * Holds the lock of a record ("node/7", "datastore/ds1", "vdisk/v1") for a scope. SIGINT, SIGTERM and SIGHUP are held
 * back until the outermost lock of the process is gone, so that none of them leaves one behind.
 *
 * Order: a VDisk's lock first, and under it one other at a time; under a node's or a datastore's lock none.
 */
class RecordLock
{
  public:
    /*
     * Takes the lock, waiting for `timeout_ms`, else for the record's configured time-out, as the daemon does. Gives up
     * with status 3 and a line that names the holder.
     */
    explicit RecordLock(const std::string &record, std::optional<int> timeout_ms = {});
    ~RecordLock();
    RecordLock(const RecordLock &) = delete;
    RecordLock &operator=(const RecordLock &) = delete;

  private:
    std::string path_;
};

/* The file that is the record's lock. */
std::string lock_path(const std::string &record);

} // namespace mwctl

#endif
