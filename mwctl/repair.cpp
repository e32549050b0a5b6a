#include "mwctl/repair.h"

#include "mwctl/failure.h"
#include "mwctl/record_lock.h"
#include "mwctl/tree.h"
#include "mwd/misc.h"
#include "mwd/object_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mwctl
{

/* A trouble being mended: what was done so far, and the cluster around its record as it is under the lock. */
struct Mending {
    const Trouble &trouble;
    Cluster around;
    Repaired done;

    void step(const std::string &text)
    {
        done.steps.push_back(text);
    }
};

/* Why a trouble is left as it is. */
struct Left : std::runtime_error {
    using std::runtime_error::runtime_error;
};

static bool local_uid(const Cluster &cluster, uint32_t uid)
{
    const Node *node = cluster.node(uid);
    return node ? cluster.local(*node) : cluster.settings.lists(uid);
}

/* The numbers of a member list however it is damaged; nothing if it cannot be read at all. */
static std::optional<std::vector<uint32_t>> members_named(const Value &membership)
{
    if (membership.fault == Fault::unreadable || membership.fault == Fault::oversized ||
        membership.fault == Fault::no_file)
        return std::nullopt;
    std::vector<uint32_t> uids;
    for (std::string_view line : value_lines(membership))
        uids.push_back(static_cast<uint32_t>(strtoul(std::string(line).c_str(), nullptr, 10)));
    return uids;
}

bool peers_only(const Cluster &cluster, const VDisk &vdisk)
{
    const Value &transaction = vdisk.value("transaction_id");
    if (!transaction.missing() && (!transaction.good() || vdisk.number("transaction_id") != 0))
        return false;
    if (vdisk.memberinfo != Fault::none && vdisk.memberinfo != Fault::missing)
        return false;
    std::optional<std::vector<uint32_t>> named = members_named(vdisk.value("membership"));
    auto local = [&](uint32_t uid) {
        return local_uid(cluster, uid);
    };
    return named && std::none_of(named->begin(), named->end(), local) &&
           std::none_of(vdisk.members.begin(), vdisk.members.end(),
                        [&](const Member &member) { return local(member.uid); }) &&
           std::none_of(cluster.nodes.begin(), cluster.nodes.end(), [&](const auto &entry) {
               const auto &links = entry.second.vdisks.links;
               return cluster.local(entry.second) && std::any_of(links.begin(), links.end(), [&](const Link &link) {
                          return link.name == vdisk.uuid;
                      });
           });
}

std::string link_target(const std::string &path)
{
    std::vector<std::string> parts;
    for (size_t begin = 0; begin <= path.size();) {
        size_t end = std::min(path.find('/', begin), path.size());
        parts.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    if (parts.size() == 4 && (parts[2] == "vdisks" || parts[2] == "snapshots"))
        return "../../../VDisk/" + parts[3];
    if (parts.size() == 4 && parts[2] == "members")
        return "../../../Node/" + parts[3];
    if (parts.size() == 5 && parts[4] == "nodestatus")
        return fmt::format("../../../../Node/{}/status", parts[3]);
    return "";
}

static std::string absolute(const Mending &mending, const std::string &path)
{
    return mending.around.settings.work_directory + "/" + path;
}

static void remove_link(Mending &mending, const std::string &path)
{
    struct stat st;
    std::string whole = absolute(mending, path);
    if (lstat(whole.c_str(), &st) < 0 && errno == ENOENT)
        return;
    if (!S_ISLNK(st.st_mode))
        throw Left(fmt::format("{} is no link any more", path));
    if (unlink(whole.c_str()) < 0 && errno != ENOENT)
        throw Left(fmt::format("cannot remove {}: {}", path, strerror(errno)));
    mending.step(fmt::format("removed the link {}", path));
}

static void check_result(int result, const std::string &what)
{
    if (result < 0)
        throw Left(fmt::format("cannot {}: {}", what, strerror(errno)));
}

/* The references first and the record last, as the daemon does it, so that a run that is cut short is found again. */
static void remove_vdisk(Mending &mending)
{
    std::string uuid = split_record(mending.trouble.record).second;
    const VDisk *vdisk = mending.around.vdisk(uuid);
    for (const auto &[uid, node] : mending.around.nodes) {
        RecordLock lock(record_name("node", std::to_string(uid)));
        remove_link(mending, fmt::format("Node/{}/vdisks/{}", uid, uuid));
    }
    const Value &parent = vdisk->value("parent");
    if (parent.good() && uuid_usable(parent.text) && parent.text != uuid) {
        RecordLock lock(record_name("vdisk", parent.text));
        remove_link(mending, fmt::format("VDisk/{}/snapshots/{}", parent.text, uuid));
    }
    for (const auto &[name, datastore] : mending.around.datastores) {
        RecordLock lock(record_name("datastore", name));
        remove_link(mending, fmt::format("Datastore/{}/vdisks/{}", name, uuid));
    }
    check_result(rm_fr(absolute(mending, "VDisk/" + uuid).c_str()), "remove VDisk/" + uuid);
    mending.step(fmt::format("removed the record VDisk/{}: the next PING of a member makes it anew", uuid));
}

/* A link to a VDisk whose record is gone. Its lock, held too, keeps a creation out meanwhile. */
static void remove_dangling_link(Mending &mending)
{
    const std::string &path = mending.trouble.file;
    std::string target = path.substr(path.rfind('/') + 1);
    RecordLock lock(mending.trouble.record);
    struct stat st;
    if (lstat(absolute(mending, "VDisk/" + target).c_str(), &st) == 0)
        throw Left(fmt::format("VDisk/{} is there now", target));
    remove_link(mending, path);
}

/* The link gets the right target in one rename, so that it is never missing. */
static void correct_link(Mending &mending)
{
    const std::string &path = mending.trouble.file;
    std::string target = link_target(path);
    if (target.empty()) {
        const VDisk *vdisk = mending.around.vdisk(split_record(mending.trouble.record).second);
        target = "../../Datastore/" + (vdisk ? vdisk->datastore_name() : "");
    }
    size_t second = path.find('/', path.find('/') + 1);
    std::string whole = absolute(mending, path), scratch = absolute(mending, path.substr(0, second)) + "/.mwctl-link";
    unlink(scratch.c_str());
    check_result(symlink(target.c_str(), scratch.c_str()), "make a link in " + path.substr(0, second));
    if (rename(scratch.c_str(), whole.c_str()) < 0) {
        std::string reason = strerror(errno);
        unlink(scratch.c_str());
        throw Left(fmt::format("cannot replace {}: {}", path, reason));
    }
    mending.step(fmt::format("pointed {} at {}", path, target));
}

static void link_back_from_datastore(Mending &mending)
{
    std::string uuid = split_record(mending.trouble.record).second;
    std::string datastore = mending.around.vdisk(uuid)->datastore_name();
    if (!mending.around.datastore(datastore)) {
        remove_link(mending, fmt::format("VDisk/{}/datastore", uuid));
        return;
    }
    RecordLock lock(record_name("datastore", datastore));
    check_result(DatastoreUpdate_RefVDisk(datastore.c_str(), uuid.c_str()), "link the VDisk in Datastore/" + datastore);
    mending.step(fmt::format("made the link Datastore/{}/vdisks/{}", datastore, uuid));
}

static void remove_member_record(Mending &mending)
{
    const std::string &path = mending.trouble.file;
    check_result(rm_fr(absolute(mending, path).c_str()), "remove " + path);
    mending.step(fmt::format("removed the member record {}", path));
}

/* The daemon's own way out of a datastore, which takes the record with its last member: never while a local node names
 * it. */
static void remove_datastore_member(Mending &mending)
{
    std::string uuid = split_record(mending.trouble.record).second;
    const Datastore *datastore = mending.around.datastore(uuid);
    bool last = datastore->members.links.size() <= 1;
    for (const auto &[uid, node] : mending.around.nodes)
        if (last && mending.around.local(node) && node.value("datastoremember").text == uuid)
            throw Left(
                fmt::format("node {} of this host names datastore {}, which would go with its last link; first: mwctl "
                            "set node/{} datastoremember={}",
                            uid, uuid, uid, uuid));
    std::string uid = mending.trouble.file.substr(mending.trouble.file.rfind('/') + 1);
    check_result(DatastoreUpdate_UnrefNode(uuid.c_str(), uid.c_str()), "take the node out of Datastore/" + uuid);
    mending.step(
        fmt::format("removed the link {}{}", mending.trouble.file, last ? " and with it the empty datastore" : ""));
}

/* The way to mend a code, under the lock of the record unless the next says otherwise. */
struct Remedy {
    std::string_view code;
    void (*mend)(Mending &mending);
    bool locks_target; /* the VDisk that the link names is locked instead of the record, which `mend` locks under it */
    bool whole_vdisk;  /* everything of the VDisk must be peers' */
};

static constexpr Remedy remedies[] = {
    {"VDISK_CUT_SHORT", remove_vdisk, false, true},
    {"VDISK_UNREADABLE", remove_vdisk, false, true},
    {"VDISK_LINK_DANGLING", remove_dangling_link, true, false},
    {"VDISK_LINK_WRONG", correct_link, false, true},
    {"VDISK_DATASTORE_ONE_SIDED", link_back_from_datastore, false, true},
    {"VDISK_MEMBER_LEFT_BEHIND", remove_member_record, false, true},
    {"DATASTORE_MEMBER_LEFT_BEHIND", remove_datastore_member, false, false},
};

/* What is looked at once more under the lock: the trouble still stands, and it is no business of a local node's. */
static void check_again(Mending &mending, const Remedy &remedy)
{
    const Trouble &trouble = mending.trouble;
    std::vector<Trouble> now = find_troubles(mending.around);
    if (std::none_of(now.begin(), now.end(), [&](const Trouble &other) { return other.same(trouble); }))
        throw Left("it is gone");
    auto [kind, name] = split_record(trouble.record);
    const VDisk *vdisk = kind == "vdisk" ? mending.around.vdisk(name) : nullptr;
    if (remedy.whole_vdisk && vdisk && !peers_only(mending.around, *vdisk))
        throw Left("a node of this host has a share of the VDisk, or a transaction is open");
    std::string last = trouble.file.substr(trouble.file.rfind('/') + 1);
    if (kind == "node" && local_uid(mending.around, uid_from(name).value_or(0)))
        throw Left("the node is this host's own");
    if (trouble.code == std::string_view("DATASTORE_MEMBER_LEFT_BEHIND") &&
        local_uid(mending.around, uid_from(last).value_or(0)))
        throw Left("the member is this host's own");
}

/*
 * Mends one trouble under its lock. What was done before something got in the way is told too, and all of it once the
 * lock is gone: a pipe that is closed by then leaves no lock behind.
 */
static Repaired mend(const Cluster &cluster, const Trouble &trouble, const Remedy &remedy, const Tell &say)
{
    Mending mending{trouble, {}, {trouble.code, trouble.record, {}}};
    std::string left;
    try {
        RecordLock lock(remedy.locks_target ? record_name("vdisk", trouble.file.substr(trouble.file.rfind('/') + 1))
                                            : trouble.record);
        mending.around = read_cluster(cluster.settings, {Scope::one_record, trouble.record});
        check_again(mending, remedy);
        remedy.mend(mending);
    } catch (const std::runtime_error &reason) { /* Left, or a lock that is not to be had */
        left = fmt::format("left {} {}: {}", trouble.code, trouble.record, reason.what());
    }
    for (const std::string &step : mending.done.steps)
        say(step, false);
    if (!left.empty())
        say(left, true);
    return mending.done;
}

std::vector<Repaired> repair(Cluster &cluster, const std::vector<Trouble> &troubles, const Tell &say)
{
    std::vector<Repaired> done;
    std::set<std::string> changed;
    for (const Trouble &trouble : troubles) {
        auto remedy = std::find_if(std::begin(remedies), std::end(remedies),
                                   [&](const Remedy &other) { return other.code == trouble.code; });
        if (!trouble.repairable || remedy == std::end(remedies))
            continue;
        if (!cluster.settings.local_nodes_whole) {
            say(fmt::format("left {} {}: without {} nobody knows which nodes are this host's own", trouble.code,
                            trouble.record, cluster.settings.local_nodes_file),
                true);
            continue;
        }
        if (Repaired repaired = mend(cluster, trouble, *remedy, say); !repaired.steps.empty())
            done.push_back(std::move(repaired));
        changed.insert(trouble.record);
        changed.insert(trouble.involved.begin(), trouble.involved.end());
    }
    reread(cluster, changed);
    return done;
}

} // namespace mwctl
