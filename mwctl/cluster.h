/*
 * The cluster as this host's tree, locks, configuration and kernel tell it: plain values, filled by the one reader and
 * looked at by the rules and by every output. Reading takes no lock and writes nothing, so a value may be torn by a
 * writer: only what a second reading confirms counts as wrong (trouble.h).
 */
#ifndef MWCTL_CLUSTER_H
#define MWCTL_CLUSTER_H

#include "mwctl/attributes.h"
#include "mwctl/settings.h"

#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace mwctl
{

/* Something in a directory that is no record, link or directory that belongs there. */
struct Stray {
    std::string path; /* relative to the tree */
    char type;        /* of readdir: 'd' directory, 'l' link, 'f' file, 'o' other */
};

/* A symbolic link. */
struct Link {
    std::string name;
    std::string target;
};

/* A directory inside a record: whether it could be read, and its links. Entries that are no links are strays. */
struct LinkDirectory {
    Fault fault = Fault::missing;
    std::string reason;      /* of the system, when unreadable */
    std::vector<Link> links; /* ascending by name */

    const Link *find(std::string_view name) const;
};

/* Whether the directory of a record could be read. */
struct Access {
    Fault fault = Fault::none; /* or unreadable */
    std::string reason;        /* of the system */
};

/* Values in the order of attributes(kind). */
using Values = std::vector<Value>;

/* The value of `key`; a missing one if the record was not read. */
const Value &value_of(Kind kind, const Values &values, std::string_view key);
/* Its number, 0 if there is none. */
uint64_t number_of(Kind kind, const Values &values, std::string_view key);

struct Node {
    uint32_t uid = 0;
    Access access;
    Values values;
    LinkDirectory vdisks;

    const Value &value(std::string_view key) const
    {
        return value_of(Kind::node, values, key);
    }
    uint64_t number(std::string_view key) const
    {
        return number_of(Kind::node, values, key);
    }
};

struct Datastore {
    std::string uuid;
    Access access;
    Values values;
    LinkDirectory members, vdisks;

    const Value &value(std::string_view key) const
    {
        return value_of(Kind::datastore, values, key);
    }
    uint64_t number(std::string_view key) const
    {
        return number_of(Kind::datastore, values, key);
    }
};

struct Member {
    uint32_t uid = 0;
    Access access;
    Values values;
    std::string nodestatus; /* target of the link, empty if there is none */

    const Value &value(std::string_view key) const
    {
        return value_of(Kind::member, values, key);
    }
    uint64_t number(std::string_view key) const
    {
        return number_of(Kind::member, values, key);
    }
};

/* How much of a VDisk was read: of one that is only named, at most the datastore link besides. */
enum class Depth { named, kind, whole };

struct VDisk {
    std::string uuid;
    Depth depth = Depth::named;
    Access access;
    Values values; /* at depth `kind` snapshot alone */
    Fault memberinfo = Fault::missing;
    std::string memberinfo_reason;
    std::vector<Member> members; /* member records, ascending */
    LinkDirectory snapshots;
    bool has_datastore = false;  /* anything named datastore */
    std::string datastore;       /* target of the link; empty if it is no link */
    time_t transaction_time = 0; /* when transaction_id was written */

    const Value &value(std::string_view key) const
    {
        return value_of(Kind::vdisk, values, key);
    }
    uint64_t number(std::string_view key) const
    {
        return number_of(Kind::vdisk, values, key);
    }
    bool snapshot() const
    {
        return number("snapshot") != 0;
    }
    std::vector<uint32_t> membership() const; /* empty if it cannot be read */
    const Member *member(uint32_t uid) const;
    /* The name behind the last "/" of the datastore link, as the daemon takes it; empty if there is none. */
    std::string datastore_name() const;
};

/* A lock file of /tmp. */
struct Lock {
    std::string path;   /* /tmp/NODE-7 */
    std::string name;   /* NODE-7 */
    std::string record; /* node/7, datastore/ds1, vdisk/v1 */
    int pid = 0;        /* 0 if no number is in it */
    bool alive = false; /* that process lives, zombies apart */
    std::string command;
    double age_seconds = 0;
    unsigned uid = 0; /* owner of the file */
    dev_t device = 0;
    ino_t inode = 0;
};

struct Daemon {
    bool running = false;
    int pid = 0;         /* what the PID file says, 0 if it says nothing */
    std::string not_mwd; /* executable of that process where it is not mwd */
    time_t since = 0;
    double cpu_seconds = 0;
    uint64_t rss_bytes = 0;
    uint64_t drops = 0; /* datagrams its UDP socket dropped */
};

/* The interface of the configuration and the ports, as the kernel has them. */
struct Network {
    std::set<std::string> addresses; /* of this host's interfaces, all */
    bool interface_exists = false, interface_up = false, interface_multicast = false, interface_loopback = false;
    std::string interface_address;
    /* Who holds the UDP port and the control port: "COMMAND (PID)", empty if nobody. */
    std::string udp_holder, ctrl_holder;
};

/* What of the tree a reading takes in. */
struct Scope {
    enum Extent {
        summary,   /* nodes and datastores; VDisks of local nodes whole, the others by kind */
        whole,     /* everything */
        one_record /* one record whole, and what it refers to as far as its rules need */
    } extent = whole;
    std::string record; /* of `one_record`: "node/7", "datastore/ds1", "vdisk/v1" */
};

struct Cluster {
    Settings settings;
    std::string host;
    time_t now = 0;
    double now_exact = 0;
    Daemon daemon;
    Network network;
    Scope scope;
    std::map<uint32_t, Node> nodes;
    std::map<std::string, Datastore> datastores;
    std::map<std::string, VDisk> vdisks;
    std::vector<Lock> locks; /* ascending by name */
    std::vector<Stray> strays;

    const Node *node(uint32_t uid) const;
    const Datastore *datastore(const std::string &uuid) const;
    const VDisk *vdisk(const std::string &uuid) const;
    const Lock *lock(const std::string &record) const;

    /*
     * A node of this host: in local_nodes, without lastping, or with an ipaddr of this host's interfaces (127.0.0.0/8
     * apart). Nothing that belongs to one is ever removed by a repair.
     */
    bool local(const Node &node) const;
    /* Seconds since the node was heard; negative if its lastping lies ahead; nothing if it has none. */
    std::optional<double> age(const Node &node) const;
};

/* Reads the cluster as `settings` place it. Gives up with status 3 if there is no tree or it cannot be entered. */
Cluster read_cluster(Settings settings, const Scope &scope);

/*
 * Reads the records named in `records` again, and the locks and the clock; a record that is gone is taken out, one that
 * came is put in.
 */
void reread(Cluster &cluster, const std::set<std::string> &records);

/* The same for the records alone: neither strays, nor locks, nor the clock. */
void reread_records(Cluster &cluster, const std::set<std::string> &records);

/* Seconds after which a node that was not heard is silent: three heartbeat intervals, at least 90. */
double silence_limit(const Settings &settings);

/* Just the locks of /tmp: those whose name is a record's lock. */
std::vector<Lock> read_locks();

/* The daemon, by the PID file; its memory, time and drops if it runs. */
Daemon read_daemon(const Settings &settings);

/* Interface, addresses, and the ports' holders if the daemon is down. */
Network read_network(const Settings &settings, bool daemon_running);

/* "node/7" from its parts, and back: the kind "node", "datastore" or "vdisk", and the name. */
std::string record_name(std::string_view kind, std::string_view name);
std::pair<std::string, std::string> split_record(std::string_view record);

/* Whether `name` can be that of a datastore or VDisk: 1 to 14 bytes, one component of a path. */
bool uuid_usable(std::string_view name);
/* The number of a node from a record's name: decimal without leading zeros. */
std::optional<uint32_t> uid_from(std::string_view name);

} // namespace mwctl

#endif
