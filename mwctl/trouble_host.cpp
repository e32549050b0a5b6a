/* Rules about the daemon's process, its configuration and tables, its place in the network, and the path locks. */
#include "mwctl/text.h"
#include "mwctl/trouble_rules.h"
#include "mwd/table.h"

#include <arpa/inet.h>
#include <fmt/format.h>

namespace mwctl
{

/* What concerns the host as a whole counts at once: no writer of the tree is involved. */
static void add_at_once(Judge &judge, const char *code, const char *record, const std::string &file, std::string text,
                        std::string action)
{
    Trouble &trouble = judge.add(code, record, file, std::move(text), std::move(action));
    trouble.involved.clear();
    trouble.witnesses.clear();
}

static void judge_process(Judge &judge)
{
    const Daemon &daemon = judge.cluster.daemon;
    const Settings &settings = judge.cluster.settings;
    if (!daemon.running) {
        std::string why = fmt::format("{} names no process", settings.pid_file);
        if (!daemon.not_mwd.empty())
            why = fmt::format("process {} of {} is no mwd but {}", daemon.pid, settings.pid_file, daemon.not_mwd);
        else if (daemon.pid != 0)
            why = fmt::format("process {} of {} is gone", daemon.pid, settings.pid_file);
        add_at_once(judge, "DAEMON_DOWN", "daemon", settings.pid_file,
                    why + ": nothing is published and nothing of what peers say arrives", "systemctl start mwd");
    }
    if (daemon.drops > 0)
        add_at_once(judge, "DAEMON_DROPS", "daemon", "",
                    fmt::format("its UDP socket has dropped {} datagrams since it started: what they said is missing "
                                "until their senders say it again",
                                daemon.drops),
                    "raise net.core.rmem_default with sysctl(8) and restart mwd; look for locks held long and for a "
                    "slow fence check");
}

/* What config_load takes and the start refuses. */
static void judge_addresses(Judge &judge)
{
    const Settings &settings = judge.cluster.settings;
    auto invalid = [&](const std::string &text) {
        add_at_once(judge, "CONFIG_INVALID", "config", settings.file, text + ": the daemon would not start",
                    fmt::format("correct {}", shell_word(settings.file)));
    };
    struct sockaddr_in sa;
    struct in_addr address;
    if (inet_aton(settings.ctrl_address.c_str(), &address) == 0)
        invalid(fmt::format("ctrl_address {} is no IPv4 address", settings.ctrl_address));
    if (settings.unicast_mode)
        return;
    if (settings.groups.empty())
        invalid("multicast_address names no group");
    for (const std::string &group : settings.groups)
        if (table_host(group.c_str(), 0, &sa) < 0 || !IN_MULTICAST(ntohl(sa.sin_addr.s_addr)))
            invalid(fmt::format("multicast_address {} is no multicast group", group));
}

static std::string at_line(const FileFault &fault)
{
    return fault.line == 0 ? fault.file : fmt::format("{}:{}", fault.file, fault.line);
}

static void judge_files(Judge &judge)
{
    const Settings &settings = judge.cluster.settings;
    for (const FileFault &fault : settings.config_faults)
        add_at_once(judge, "CONFIG_INVALID", "config", fault.file,
                    fmt::format("{}: {}: the daemon would not start", at_line(fault), fault.text),
                    fmt::format("correct {}", shell_word(fault.file)));
    for (const FileFault &fault : settings.table_faults)
        add_at_once(judge, "TABLE_INVALID", "config", fault.file,
                    fmt::format("{} {}: the daemon keeps the table that it has, or starts with an empty one",
                                at_line(fault), fault.text),
                    fmt::format("correct {}, then: mwctl reload", shell_word(fault.file)));
}

static void judge_interface(Judge &judge)
{
    const Settings &settings = judge.cluster.settings;
    const Network &network = judge.cluster.network;
    std::string name = shell_word(settings.bind_interface), flaw, action;
    if (!network.interface_exists) {
        flaw = "does not exist";
        action = fmt::format("set bind_interface in {} to one of: ip -brief link", shell_word(settings.file));
    } else if (!network.interface_up) {
        flaw = "is down";
        action = fmt::format("ip link set {} up", name);
    } else if (network.interface_address.empty()) {
        flaw = "has no IPv4 address";
        action = fmt::format("ip address add ADDRESS/BITS dev {}", name);
    } else if (!settings.unicast_mode && network.interface_loopback) {
        flaw = "is the loopback, which carries no multicast to other hosts";
        action = fmt::format("set bind_interface in {}, or unicast_mode = 1", shell_word(settings.file));
    } else if (!settings.unicast_mode && !network.interface_multicast) {
        flaw = "carries no multicast";
        action = fmt::format("ip link set {} multicast on", name);
    } else {
        return;
    }
    add_at_once(judge, "INTERFACE_UNUSABLE", "config", settings.file,
                fmt::format("bind_interface {} {}: the daemon does not start on it, and reaches no peer",
                            settings.bind_interface, flaw),
                action);
}

static void judge_ports(Judge &judge)
{
    const Settings &settings = judge.cluster.settings;
    if (judge.cluster.daemon.running)
        return;
    auto taken = [&](const char *key, int port, const std::string &holder) {
        if (!holder.empty())
            add_at_once(judge, "PORT_TAKEN", "daemon", settings.file,
                        fmt::format("{} {} is held by {}: the daemon does not start", key, port, holder),
                        fmt::format("end that process, or set another {} in {}", key, shell_word(settings.file)));
    };
    taken("bind_port", settings.bind_port, judge.cluster.network.udp_holder);
    taken("ctrl_port", settings.ctrl_port, judge.cluster.network.ctrl_holder);
}

void judge_daemon(Judge &judge)
{
    if (judge.cluster.scope.extent == Scope::one_record)
        return;
    judge_process(judge);
    judge_files(judge);
    judge_addresses(judge);
    judge_interface(judge);
    judge_ports(judge);
}

/* The daemon's patience with the lock, in seconds. */
static double lock_timeout(const Settings &settings, const Lock &lock)
{
    std::string kind = split_record(lock.record).first;
    int ms = kind == "node"        ? settings.node_lock_ms
             : kind == "datastore" ? settings.datastore_lock_ms
                                   : settings.vdisk_lock_ms;
    return ms / 1000.0;
}

/* The nodes of this host that need the lock for their messages. */
static std::set<uint32_t> waiting_for(const Judge &judge, const Lock &lock)
{
    auto [kind, name] = split_record(lock.record);
    std::set<uint32_t> uids;
    for (const auto &[uid, node] : judge.cluster.nodes) {
        bool needed = kind == "node" ? std::to_string(uid) == name
                      : kind == "datastore"
                          ? node.value("datastoremember").good() && node.value("datastoremember").text == name
                          : node.vdisks.find(name) != nullptr;
        if (needed && judge.published(node))
            uids.insert(uid);
    }
    return uids;
}

void judge_locks(Judge &judge)
{
    constexpr double number_due = 60; /* seconds after which a lock without a number in it is nobody's */
    for (const Lock &lock : judge.cluster.locks) {
        size_t before = judge.troubles.size();
        std::string record = record_name("lock", lock.name), path = shell_word(lock.path);
        std::string effect = fmt::format("nobody can work on {}, and messages about it are lost", lock.record);
        if (lock.pid != 0 && !lock.alive)
            judge.add("LOCK_STALE", record, lock.path,
                      fmt::format("its holder, process {}, is gone: {}", lock.pid, effect), "mwctl locks --break");
        else if (lock.pid == 0 && lock.age_seconds >= number_due)
            judge.add("LOCK_STALE", record, lock.path,
                      fmt::format("no process number came into it for {}: {}", human_age(lock.age_seconds), effect),
                      fmt::format("make sure that no program is just taking it, then: rm {}", path));
        else if (lock.pid != 0 && lock.age_seconds > lock_timeout(judge.cluster.settings, lock))
            judge.add("LOCK_HELD_LONG", record, lock.path,
                      fmt::format("process {} ({}) holds it for {}, longer than the daemon waits: until it ends, {}",
                                  lock.pid, lock.command, human_age(lock.age_seconds), effect),
                      fmt::format("wait for process {}, or end it: kill {}", lock.pid, lock.pid));
        if (judge.troubles.size() > before)
            judge.troubles.back().holds_back = waiting_for(judge, lock);
    }
}

} // namespace mwctl
