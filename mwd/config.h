/*
 * The configuration: one global per key of the configuration file, set once at start and read directly by every module.
 * Strings belong to this module; nobody else writes or frees them. Failures of this module are told on stderr, since
 * the process is not yet in the background, and end the process with status 1.
 */
#ifndef MWD_CONFIG_H
#define MWD_CONFIG_H

#include <cstddef>
#include <cstdio>

/*
 * The longest work directory: what the longest path leaves of a path buffer. That is a VDisk's link in its datastore,
 * with the 15 bytes that a file datastoremember can hold: Datastore/<15>/vdisks/<14>.
 */
constexpr size_t CFG_WORK_DIRECTORY_MAX = 207;

/* The command line. */
extern const char *opt_config; /* path of the configuration file */
extern int opt_debug;          /* how many times -d was given */

extern char *cfg_syslog_ident;
extern int cfg_syslog_facility; /* LOG_DAEMON and its like */
extern int cfg_syslog_priority; /* LOG_INFO and its like */
extern char *cfg_pid_file;
extern char *cfg_work_directory; /* root of the database tree: absolute, at most CFG_WORK_DIRECTORY_MAX characters */
extern char *cfg_local_nodes;
extern int cfg_unicast_mode; /* not 0: unicast mode */
extern char *cfg_unicast_hosts;
extern char *cfg_bind_interface; /* at most 15 characters */
extern int cfg_bind_port;
extern char *cfg_ctrl_address;
extern int cfg_ctrl_port;
extern char *cfg_multicast_address; /* a list, separated by commas and blanks */
extern int cfg_node_lock_timeout_ms;
extern int cfg_datastore_lock_timeout_ms;
extern int cfg_vdisk_lock_timeout_ms;
extern char *cfg_fence_check;
extern int cfg_ping_interval; /* seconds, like the two below */
extern int cfg_heartbeat_interval;
extern int cfg_stats_interval;

/* Compiles the line patterns and gives every value its default. The first call of the process, once. */
void config_module_setup();

/* Reads the file opt_config over the defaults. A change of the log's keys takes effect while it is still read. */
void config_load();

/* A line of the file with its newline and terminator, and a reason that can quote a whole line. */
constexpr size_t CONFIG_LINE_LEN = 1024;
constexpr size_t CONFIG_FAULT_LEN = CONFIG_LINE_LEN + 64;

/* Reads up to the next newline and cuts it. Returns 1, 0 at the end of the file, or -1 with the reason in `fault`. */
int config_next_line(FILE *file, char (&line)[CONFIG_LINE_LEN], char (&fault)[CONFIG_FAULT_LEN]);

/*
 * Applies one line, which it cuts up, and puts the name of its key into *key: a constant, null if the line names no
 * known one. Returns 0; 1 if the value calls for syslog_module_setup; or -1 with the reason in `fault` and all values
 * as they were.
 */
int config_apply_line(char *line, const char **key, char (&fault)[CONFIG_FAULT_LEN]);

/* A value in force: its text, or its number where `text` is null. Names of the log's numbers are texts. */
struct ConfigValue {
    const char *key;
    const char *text;
    int number;
};

/* The values in force, in the order of config_dump, from index 0 on. False behind the last. */
bool config_value(size_t index, struct ConfigValue *value);

/* Writes all values in one line to the log, at level info, with neither level word nor function name. */
void config_dump();

/* Frees the values and the patterns. */
void config_module_teardown();

#endif
