/* watch: a line for each change of the tree, as it happens. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/story.h"
#include "mwctl/tree_watch.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace mwctl
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/* Two readings this far apart have to agree before a change counts. */
constexpr auto SETTLING = 50ms;
/* Between two looks at what no event tells: ages, locks, the daemon. */
constexpr auto TICK = 1s;

static constexpr const char *TOP = "top/"; /* tags of Node, Datastore, VDisk and the tree itself */

/* A record that something happened to, until two readings agree. */
struct Pending {
    std::optional<Json> shape; /* of the last reading */
    Clock::time_point due;
    uint64_t turn;       /* records are told in the order in which they were touched */
    bool silent = false; /* it is not known how it was before: take it in and tell nothing */
};

class Watch
{
  public:
    Watch(const Options &options, bool since_start);
    [[noreturn]] void run();

  private:
    void watch_record(const std::string &record);
    std::set<std::string> listed_records() const;
    void take_events(std::chrono::milliseconds timeout);
    void touch(const std::string &record, bool silent = false);
    void touch_all();
    void settle();
    bool settle_record(const std::string &record, Pending &pending);
    void hear(const std::string &record);
    void tick();
    void look_for_silence();
    void look_at_locks();
    void look_at_daemon();
    void tell_what_is_there();
    void tell(const Event &event) const;
    bool lock_held(const std::string &record) const;

    const Options &options_;
    Style style_;
    TreeWatch watch_;
    Cluster known_; /* as it was told; of a node only what `heard_` does not say */
    Cluster fresh_; /* as it was just read */
    std::map<std::string, Pending> pending_;
    struct Heard {
        uint64_t lastping;
        bool silent;
    };
    std::map<uint32_t, Heard> heard_;
    std::map<std::pair<dev_t, ino_t>, std::pair<Lock, bool>> locks_; /* of the last look, and whether they were told */
    Clock::time_point next_tick_ = Clock::now(), next_poll_ = Clock::now();
    uint64_t turn_ = 0;
    bool failure_told_ = false;
};

static std::string path_of(const Settings &settings, const std::string &record)
{
    auto [kind, name] = split_record(record);
    const char *top = kind == "node" ? "Node" : kind == "datastore" ? "Datastore" : "VDisk";
    return fmt::format("{}/{}/{}", settings.work_directory, top, name);
}

static bool usable(const std::string &kind, const std::string &name)
{
    return kind == "node" ? uid_from(name).has_value() : uuid_usable(name);
}

static std::string kind_of_top(const std::string &top)
{
    return top == "Node" ? "node" : top == "Datastore" ? "datastore" : "vdisk";
}

/* The directories are watched first and read then, so that no change falls between. */
Watch::Watch(const Options &options, bool since_start) : options_(options), style_(options.style())
{
    Settings settings = options.settings();
    fresh_.settings = known_.settings = settings;
    std::set<std::string> records = listed_records();
    watch_.add(settings.work_directory, TOP);
    for (const char *top : {"Node", "Datastore", "VDisk"})
        watch_.add(fmt::format("{}/{}", settings.work_directory, top), std::string(TOP) + top);
    for (const std::string &record : records)
        watch_record(record);
    known_ = read_cluster(settings, {Scope::whole, ""});
    for (const auto &[uuid, datastore] : known_.datastores)
        if (doubtful(known_, record_name("datastore", uuid)))
            touch(record_name("datastore", uuid), true);
    for (const auto &[uuid, vdisk] : known_.vdisks)
        if (doubtful(known_, record_name("vdisk", uuid)))
            touch(record_name("vdisk", uuid), true);
    take_events(0ms);
    for (auto &[record, pending] : pending_)
        pending.silent = true;
    for (auto give_up_at = Clock::now() + TICK; !pending_.empty() && Clock::now() < give_up_at;) {
        take_events(10ms);
        settle();
    }
    for (const auto &[uid, node] : known_.nodes)
        if (node.value("lastping").good())
            heard_[uid] = {node.number("lastping"), *known_.age(node) > silence_limit(settings)};
    if (since_start)
        tell_what_is_there();
    tell({"watching",
          "daemon",
          {{"tree", utf8(settings.work_directory)},
           {"running", known_.daemon.running},
           {"nodes", known_.nodes.size()},
           {"datastores", known_.datastores.size()},
           {"vdisks", known_.vdisks.size()}}});
}

void Watch::tell(const Event &event) const
{
    time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    if (options_.json) {
        print_json_line(
            {{"at", iso_time(now)}, {"event", event.name}, {"record", utf8(event.record)}, {"detail", event.detail}});
        return;
    }
    bool bad = event.name == "node-silent" || event.name == "lock-held" || event.name == "daemon-stopped";
    bool good = event.name == "node-heard" || event.name.ends_with("-created") || event.name == "member-joined";
    print(fmt::format("{}{}{}  {}{:<17}{}  {}  {}\n", style_.dim, iso_time(now), style_.reset,
                      bad    ? style_.red
                      : good ? style_.green
                             : style_.yellow,
                      event.name, style_.reset, printable(event.record), detail_text(event.detail)));
}

static Json heard_detail(const Node &node, bool first)
{
    return {{"first", first},
            {"ipaddr", utf8(text_of(node.value("ipaddr")))},
            {"version", utf8(text_of(node.value("version")))}};
}

void Watch::tell_what_is_there()
{
    for (const auto &[uid, heard] : heard_) {
        const Node &node = known_.nodes.at(uid);
        std::string record = record_name("node", std::to_string(uid));
        if (heard.silent)
            tell({"node-silent", record, {{"age_seconds", *known_.age(node)}}});
        else
            tell({"node-heard", record, heard_detail(node, true)});
    }
    auto tell_record = [&](const std::string &record) {
        for (const Event &event : record_events(record, nullptr, record_shape(known_, record)))
            tell(event);
    };
    for (const auto &[uuid, datastore] : known_.datastores)
        tell_record(record_name("datastore", uuid));
    for (const auto &[uuid, vdisk] : known_.vdisks)
        tell_record(record_name("vdisk", uuid));
}

void Watch::watch_record(const std::string &record)
{
    std::string path = path_of(known_.settings, record);
    watch_.add(path, record);
    if (record.starts_with("datastore/"))
        watch_.add(path + "/members", record);
    if (!record.starts_with("vdisk/"))
        return;
    watch_.add(path + "/memberinfo", record);
    for (const Entry &entry : read_directory(AT_FDCWD, path + "/memberinfo").entries)
        if (entry.type == 'd')
            watch_.add(fmt::format("{}/memberinfo/{}", path, entry.name), record);
}

std::set<std::string> Watch::listed_records() const
{
    std::set<std::string> records;
    for (const char *top : {"Node", "Datastore", "VDisk"})
        for (const Entry &entry :
             read_directory(AT_FDCWD, fmt::format("{}/{}", known_.settings.work_directory, top)).entries)
            if (entry.type == 'd' && usable(kind_of_top(top), entry.name))
                records.insert(record_name(kind_of_top(top), entry.name));
    return records;
}

void Watch::touch(const std::string &record, bool silent)
{
    pending_.try_emplace(record, Pending{std::nullopt, Clock::now(), turn_++, silent});
}

void Watch::touch_all()
{
    for (const std::string &record : listed_records()) {
        watch_record(record);
        touch(record);
    }
    for (const auto &[uid, node] : known_.nodes)
        touch(record_name("node", std::to_string(uid)));
    for (const auto &[uuid, datastore] : known_.datastores)
        touch(record_name("datastore", uuid));
    for (const auto &[uuid, vdisk] : known_.vdisks)
        touch(record_name("vdisk", uuid));
}

void Watch::take_events(std::chrono::milliseconds timeout)
{
    for (const TreeWatch::Event &event : watch_.wait(timeout)) {
        if (event.tag.empty() || (event.tag == TOP && event.new_directory)) {
            for (const char *top : {"Node", "Datastore", "VDisk"})
                watch_.add(fmt::format("{}/{}", known_.settings.work_directory, top), std::string(TOP) + top);
            touch_all();
        } else if (event.tag.starts_with(TOP)) {
            std::string kind = kind_of_top(event.tag.substr(strlen(TOP)));
            if (event.tag == TOP || !usable(kind, event.name))
                continue;
            std::string record = record_name(kind, event.name);
            if (event.new_directory)
                watch_record(record);
            touch(record);
        } else {
            if (event.new_directory)
                watch_record(event.tag);
            touch(event.tag);
        }
    }
}

bool Watch::lock_held(const std::string &record) const
{
    const Lock *lock = fresh_.lock(record);
    return lock && lock->alive;
}

/* A node is heard when its lastping rises, whatever else of its record is being written. */
void Watch::hear(const std::string &record)
{
    auto uid = uid_from(split_record(record).second);
    const Node *node = uid ? fresh_.node(*uid) : nullptr;
    if (!node || !node->value("lastping").good())
        return;
    uint64_t lastping = node->number("lastping");
    auto [heard, first] = heard_.try_emplace(*uid, Heard{lastping, false});
    if (first || (heard->second.silent && lastping > heard->second.lastping))
        tell({"node-heard", record, heard_detail(*node, first)});
    if (lastping > heard->second.lastping)
        heard->second.silent = false;
    heard->second.lastping = lastping;
}

/* Whether the record is settled: as it was known, or as two readings in a row found it while nobody held its lock. */
bool Watch::settle_record(const std::string &record, Pending &pending)
{
    Json shape = record_shape(fresh_, record), before = record_shape(known_, record);
    if (shape == before && !pending.silent)
        return true;
    if (pending.shape != shape || lock_held(record)) {
        pending.shape = shape;
        pending.due = Clock::now() + SETTLING;
        return false;
    }
    if (!pending.silent)
        for (const Event &event : record_events(record, before, shape))
            tell(event);
    auto [kind, name] = split_record(record);
    auto take_over = [&](auto &known, auto &fresh, const auto &key) {
        known.erase(key);
        if (auto found = fresh.find(key); found != fresh.end())
            known.emplace(key, found->second);
    };
    if (kind == "vdisk")
        take_over(known_.vdisks, fresh_.vdisks, name);
    else if (kind == "datastore")
        take_over(known_.datastores, fresh_.datastores, name);
    else
        take_over(known_.nodes, fresh_.nodes, *uid_from(name));
    return true;
}

void Watch::settle()
{
    Clock::time_point now = Clock::now();
    std::set<std::string> due;
    std::map<uint64_t, std::string> by_turn;
    for (const auto &[record, pending] : pending_)
        if (pending.due <= now) {
            due.insert(record);
            by_turn.emplace(pending.turn, record);
        }
    if (due.empty())
        return;
    reread_records(fresh_, due);
    fresh_.locks = read_locks();
    for (const auto &[turn, record] : by_turn) {
        if (record.starts_with("node/"))
            hear(record);
        if (settle_record(record, pending_.at(record)))
            pending_.erase(record);
    }
    fresh_.nodes.clear();
    fresh_.datastores.clear();
    fresh_.vdisks.clear();
}

void Watch::look_for_silence()
{
    double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    for (auto &[uid, heard] : heard_) {
        double age = now - static_cast<double>(heard.lastping);
        if (heard.silent || age <= silence_limit(known_.settings))
            continue;
        heard.silent = true;
        tell({"node-silent", record_name("node", std::to_string(uid)), {{"age_seconds", age}}});
    }
}

/* How long the daemon waits for this lock. */
static double patience(const Settings &settings, const std::string &record)
{
    return (record.starts_with("node/")        ? settings.node_lock_ms
            : record.starts_with("datastore/") ? settings.datastore_lock_ms
                                               : settings.vdisk_lock_ms) /
           1000.0;
}

/* A lock that two looks see, and that is older than the daemon's patience, keeps the daemon away from its record. */
void Watch::look_at_locks()
{
    decltype(locks_) now;
    for (const Lock &lock : read_locks()) {
        auto before = locks_.find({lock.device, lock.inode});
        bool known = before != locks_.end() && before->second.first.name == lock.name;
        bool told = known && before->second.second;
        std::string record = "lock/" + lock.name;
        if (known && !told && lock.age_seconds > patience(known_.settings, lock.record)) {
            told = true;
            Json detail = lock_json(lock);
            detail.erase("name");
            tell({"lock-held", record, detail});
        }
        now[{lock.device, lock.inode}] = {lock, told};
    }
    for (const auto &[file, entry] : locks_)
        if (entry.second && !now.contains(file))
            tell({"lock-released", "lock/" + entry.first.name, {{"record", utf8(entry.first.record)}}});
    locks_ = std::move(now);
}

void Watch::look_at_daemon()
{
    Daemon daemon = read_daemon(known_.settings);
    bool same = daemon.running == known_.daemon.running && (!daemon.running || daemon.pid == known_.daemon.pid);
    if (!same && known_.daemon.running)
        tell({"daemon-stopped", "daemon", {{"pid", known_.daemon.pid}}});
    if (!same && daemon.running)
        tell({"daemon-started", "daemon", {{"pid", daemon.pid}}});
    known_.daemon = daemon;
}

void Watch::tick()
{
    next_tick_ = Clock::now() + TICK;
    look_for_silence();
    look_at_locks();
    look_at_daemon();
    if (watch_.failure().empty() || Clock::now() < next_poll_)
        return;
    if (!failure_told_)
        fprintf(stderr, "mwctl: not all of the tree can be watched: %s; looking at it each second instead\n",
                watch_.failure().c_str());
    failure_told_ = true;
    Clock::time_point start = Clock::now();
    touch_all();
    settle();
    next_poll_ = Clock::now() + std::max<Clock::duration>(TICK, 4 * (Clock::now() - start));
}

void Watch::run()
{
    for (;;) {
        Clock::time_point wake = next_tick_;
        for (const auto &[record, pending] : pending_)
            wake = std::min(wake, pending.due);
        auto left = std::chrono::ceil<std::chrono::milliseconds>(wake - Clock::now());
        take_events(std::max(left, 0ms));
        settle();
        if (Clock::now() >= next_tick_)
            tick();
    }
}

void add_watch(CLI::App &app, Options &options, int &)
{
    CLI::App *command = app.add_subcommand("watch", "A line for each change, as it happens");
    auto since_start = std::make_shared<bool>(false);
    command->add_flag("--since-start", *since_start, "Tell first what is there");
    command->footer("Example:\n  mwctl --json watch | jq 'select(.event == \"generation-raised\")'");
    command->callback([&options, since_start] {
        for (int number : {SIGINT, SIGTERM})
            signal(number, [](int) { _exit(STATUS_DONE); });
        Watch(options, *since_start).run();
    });
}

} // namespace mwctl
