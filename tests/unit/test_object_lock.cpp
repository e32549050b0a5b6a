#include "tests/unit/fixture.h"

TEST_F(Unit, LockWaitsByTheTimeOutOfTheCall)
{
    std::ofstream("lock").flush();
    for (const auto &[timeout, end] : {std::pair(0, 50), {49, 50}, {50, 51}, {750, 401}, {1000, 801}, {60000, 51201}}) {
        std::string lines;
        for (int ms = 50; ms < end; ms *= 2)
            lines += "notice: PathLock(): Contention on lock, sleep " + to_string(ms) + "ms\n[" + to_string(ms) + "]\n";
        EXPECT_EQ(-1, PathLock("lock", timeout));
        EXPECT_EQ(lines + (timeout > 0 ? "notice: PathLock(): Timed out locking lock\n" : ""), std::exchange(log, ""));
    }
    setlogmask(LOG_UPTO(LOG_ERR));
    on_sleep = std::function([] { return log.ends_with("[400]\n") ? unlink("lock") : EINTR; });
    EXPECT_EQ(0, PathLock("lock", 750));
    EXPECT_EQ(to_string(getpid()).size() + 1, fs::file_size("lock"));
    PathUnlock("lock");

    /* Each record has one lock under two names, and each kind of record its own time-out. */
    cfg_node_lock_timeout_ms = 50, cfg_datastore_lock_timeout_ms = 100, cfg_vdisk_lock_timeout_ms = 200;
    const auto *dse = reinterpret_cast<const struct DatastoreEntry *>("fourteen-chars and what is behind");
    struct VDisk vdisk = {};
    strcpy(vdisk.vdiskuuid, strcpy(vdisk.parentuuid, "v1"));
    EXPECT_EQ(-1, NodeLock(4000000000) + NodeLockStr("4000000000"));
    EXPECT_EQ(-1, DatastoreLock(dse) + DatastoreLockStr("fourteen-chars"));
    EXPECT_EQ(-1, VDiskLock(&vdisk) + ParentLock(&vdisk));
    EXPECT_EQ("[50]\n[100]\n[200]\n[400]\n[50]\n[50]\n[100]\n[50]\n[100]\n[200]\n", log);
    NodeUnlockStr("4000000000");
    DatastoreUnlock(dse);
    ParentUnlock(&vdisk);
    EXPECT_TRUE(fs::is_empty("/tmp"));
}
