/* From a cluster to its troubles: the codes, their order, and what a second reading has to say before one counts. */
#include "mwctl/trouble.h"

#include "mwctl/tree.h"
#include "mwctl/trouble_rules.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <thread>

namespace mwctl
{

const std::vector<TroubleCode> &trouble_codes()
{
    static const std::vector<TroubleCode> codes = {
        {"DAEMON_DOWN", Severity::error},
        {"DAEMON_DROPS", Severity::warning},
        {"CONFIG_INVALID", Severity::error},
        {"TABLE_INVALID", Severity::error},
        {"INTERFACE_UNUSABLE", Severity::error},
        {"PORT_TAKEN", Severity::error},
        {"NODE_UNREADABLE", Severity::error},
        {"NODE_NOT_LISTED", Severity::warning},
        {"NODE_NUMBER_TAKEN", Severity::error},
        {"NODE_SILENT", Severity::warning},
        {"NODE_AHEAD", Severity::warning},
        {"NODE_WITHOUT_DATASTORE", Severity::warning},
        {"DATASTORE_UNREADABLE", Severity::error},
        {"DATASTORE_NOT_MEMBER", Severity::error},
        {"DATASTORE_MEMBER_LEFT_BEHIND", Severity::warning},
        {"VDISK_UNREADABLE", Severity::error},
        {"VDISK_CUT_SHORT", Severity::error},
        {"VDISK_LINK_DANGLING", Severity::error},
        {"VDISK_LINK_WRONG", Severity::warning},
        {"VDISK_DATASTORE_ONE_SIDED", Severity::warning},
        {"VDISK_MEMBER_LEFT_BEHIND", Severity::warning},
        {"SNAPSHOT_ORPHAN", Severity::warning},
        {"TRANSACTION_OPEN", Severity::warning},
        {"TRANSACTION_UNREADABLE", Severity::error},
        {"PING_TOO_LARGE", Severity::error},
        {"PING_NEARLY_FULL", Severity::warning},
        {"LOCK_STALE", Severity::error},
        {"LOCK_HELD_LONG", Severity::warning},
        {"NAME_UNUSABLE", Severity::warning},
        {"ENTRY_UNKNOWN", Severity::warning},
    };
    return codes;
}

bool Trouble::same(const Trouble &other) const
{
    return std::string_view(code) == other.code && record == other.record && file == other.file;
}

/* Whether the trouble is the one record's own; its lock is. */
static bool within_scope(const Cluster &cluster, const Trouble &trouble)
{
    if (cluster.scope.extent != Scope::one_record || trouble.record == cluster.scope.record)
        return true;
    const Lock *lock = cluster.lock(cluster.scope.record);
    return lock && trouble.record == record_name("lock", lock->name);
}

static void sort_troubles(std::vector<Trouble> &troubles)
{
    auto key = [](const Trouble &trouble) {
        return std::tuple(trouble.severity != Severity::error, std::string_view(trouble.record),
                          std::string_view(trouble.code), std::string_view(trouble.file));
    };
    std::sort(troubles.begin(), troubles.end(), [&](const Trouble &a, const Trouble &b) { return key(a) < key(b); });
}

std::vector<Trouble> find_troubles(const Cluster &cluster)
{
    Judge judge(cluster);
    for (auto rules :
         {judge_daemon, judge_locks, judge_names, judge_nodes, judge_datastores, judge_vdisks, judge_links})
        rules(judge);
    std::erase_if(judge.troubles, [&](const Trouble &trouble) { return !within_scope(cluster, trouble); });
    sort_troubles(judge.troubles);
    return std::move(judge.troubles);
}

/* A file as it lies there, or, if it is missing, the directory that it is missing from. */
struct Stamp {
    dev_t device = 0;
    ino_t inode = 0;
    int64_t changed = 0; /* ns */
    off_t size = 0;

    bool operator==(const Stamp &) const = default;
};

static Stamp stamp_of(int root, std::string path)
{
    struct stat st;
    while (fstatat(root, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) < 0) {
        size_t slash = path.rfind('/');
        if (slash == std::string::npos || slash == 0)
            return {};
        path.resize(slash);
    }
    return {st.st_dev, st.st_ino, st.st_mtim.tv_sec * 1'000'000'000L + st.st_mtim.tv_nsec, st.st_size};
}

/* A trouble on the way to be confirmed, with its witnesses' state after the reading that showed it. */
struct Candidate {
    Trouble trouble;
    std::vector<Stamp> stamps;
};

static Candidate make_candidate(int root, const Trouble &trouble)
{
    Candidate candidate{trouble, {}};
    for (const std::string &witness : trouble.witnesses)
        candidate.stamps.push_back(stamp_of(root, witness));
    return candidate;
}

static bool locked(const std::vector<Lock> &locks, const Trouble &trouble)
{
    return std::any_of(locks.begin(), locks.end(),
                       [&](const Lock &lock) { return lock.alive && trouble.involved.contains(lock.record); });
}

/*
 * Reads the candidates' records again. Those that show as before, from the very files of before, under locks that were
 * free before and after the reading, go to `confirmed`; those that show otherwise stay candidates.
 */
static void confirm(Cluster &cluster, int root, std::vector<Candidate> &candidates, std::vector<Trouble> &confirmed)
{
    std::set<std::string> records;
    for (const Candidate &candidate : candidates)
        records.insert(candidate.trouble.involved.begin(), candidate.trouble.involved.end());
    std::vector<Lock> locks_before = read_locks();
    reread(cluster, records);
    std::vector<Candidate> remaining;
    for (const Trouble &trouble : find_troubles(cluster)) {
        if (!records.contains(trouble.record))
            continue;
        Candidate again = make_candidate(root, trouble);
        auto before = std::find_if(candidates.begin(), candidates.end(),
                                   [&](const Candidate &candidate) { return candidate.trouble.same(trouble); });
        if (before != candidates.end() && before->stamps == again.stamps && !locked(locks_before, trouble) &&
            !locked(cluster.locks, trouble))
            confirmed.push_back(trouble);
        else
            remaining.push_back(std::move(again));
    }
    candidates = std::move(remaining);
}

std::vector<Trouble> confirmed_troubles(Cluster &cluster)
{
    using namespace std::chrono_literals;
    std::vector<Trouble> confirmed;
    std::vector<Candidate> candidates;
    Descriptor root(open(cluster.settings.work_directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const Trouble &trouble : find_troubles(cluster)) {
        if (trouble.involved.empty())
            confirmed.push_back(trouble);
        else
            candidates.push_back(make_candidate(root.get(), trouble));
    }
    auto deadline = std::chrono::steady_clock::now() + 500ms;
    while (!candidates.empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(55ms);
        confirm(cluster, root.get(), candidates, confirmed);
    }
    sort_troubles(confirmed);
    return confirmed;
}

} // namespace mwctl
