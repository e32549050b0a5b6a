/* The daemon's configuration and its two tables, with the place that each value comes from and every fault in them. */
#ifndef MWCTL_SETTINGS_H
#define MWCTL_SETTINGS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace mwctl
{

struct ConfigEntry {
    std::string key;
    std::string text; /* the value as text, numbers too */
    bool numeric;
    std::string origin; /* "default" or "FILE:LINE" */
};

/* What is wrong in a line of a file; line 0 is the file as a whole. */
struct FileFault {
    std::string file;
    size_t line;
    std::string text;
};

struct LocalNode {
    uint32_t uid;
    size_t line;
};

struct UnicastHost {
    std::string address;
    size_t line;
};

struct Settings {
    std::string file; /* of the configuration */
    std::vector<ConfigEntry> values;
    std::vector<FileFault> config_faults;

    std::string work_directory, pid_file, local_nodes_file, unicast_hosts_file, bind_interface, ctrl_address;
    std::vector<std::string> groups; /* multicast_address, taken apart */
    bool unicast_mode;
    int bind_port, ctrl_port;
    int node_lock_ms, datastore_lock_ms, vdisk_lock_ms;
    int ping_interval, heartbeat_interval;

    std::vector<LocalNode> local_nodes; /* as far as the table can be read */
    std::vector<UnicastHost> unicast_hosts;
    std::vector<FileFault>
        table_faults;       /* of both files; the daemon keeps its old table, or starts with an empty one */
    bool local_nodes_whole; /* the table was read without a fault: what is not in it is not local */

    bool lists(uint32_t uid) const; /* uid is in local_nodes */
};

/*
 * Reads the configuration `file`, else $MWD_CONF, else /etc/mwd/mwd.conf if it exists, else the daemon's own default,
 * and both tables. Faults in them are told in the result; values in faulty lines are as they were before. Gives up with
 * status 3 if the configuration cannot be opened. To be called once.
 */
Settings read_settings(const std::optional<std::string> &file);

/* Reads both tables again, as the daemon does at SIGHUP. */
void reread_tables(Settings &settings);

} // namespace mwctl

#endif
