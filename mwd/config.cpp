#include "mwd/config.h"

#define SYSLOG_NAMES /* facilitynames and prioritynames */
#include "mwd/syslog.h"

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <regex.h>
#include <strings.h>

const char *opt_config = "/marblewell/etc/mwd.conf";
int opt_debug;

char *cfg_syslog_ident;
int cfg_syslog_facility;
int cfg_syslog_priority;
char *cfg_pid_file;
char *cfg_work_directory;
char *cfg_local_nodes;
int cfg_unicast_mode;
char *cfg_unicast_hosts;
char *cfg_bind_interface;
int cfg_bind_port;
char *cfg_ctrl_address;
int cfg_ctrl_port;
char *cfg_multicast_address;
int cfg_node_lock_timeout_ms;
int cfg_datastore_lock_timeout_ms;
int cfg_vdisk_lock_timeout_ms;
char *cfg_fence_check;
int cfg_ping_interval;
int cfg_heartbeat_interval;
int cfg_stats_interval;

static int config_module_initialized;

static const char patt_comment[] = "^(#|;)|^[[:blank:]]*$";
static const char patt_keyval[] = "^[[:blank:]]*([[:alnum:]_.]+)[[:blank:]]*=[[:blank:]]*([[:graph:]]+)[[:blank:]]*$";
static const char patt_quoted[] =
    "^[[:blank:]]*([[:alnum:]_.]+)[[:blank:]]*=[[:blank:]]*\"([[:print:]]*)\"[[:blank:]]*$";
static regex_t preg_comment, preg_keyval, preg_quoted;

/* One key of the file. Exactly one of `string` and `integer` is set; `names` tells a number that is given by name. */
struct ConfigKey {
    const char *key;
    char **string;
    const char *string_default;
    size_t string_max; /* longest value, 0 for any */
    bool absolute;     /* begins with "/" */
    int *integer;
    int integer_default;
    int min, max;
    const CODE *names;
    bool reopens_log;
};

static constexpr ConfigKey string_key(const char *key, char **value, const char *initial, size_t max = 0)
{
    return {key, value, initial, max, false, nullptr, 0, 0, 0, nullptr, false};
}

static constexpr ConfigKey root_key(const char *key, char **value, const char *initial, size_t max)
{
    return {key, value, initial, max, true, nullptr, 0, 0, 0, nullptr, false};
}

static constexpr ConfigKey integer_key(const char *key, int *value, int initial, int min, int max)
{
    return {key, nullptr, nullptr, 0, false, value, initial, min, max, nullptr, false};
}

static constexpr ConfigKey name_key(const char *key, int *value, int initial, const CODE *names)
{
    return {key, nullptr, nullptr, 0, false, value, initial, 0, 0, names, true};
}

static constexpr ConfigKey log_string_key(const char *key, char **value, const char *initial)
{
    return {key, value, initial, 0, false, nullptr, 0, 0, 0, nullptr, true};
}

/* All keys, in the order in which they are compared and dumped. */
static const ConfigKey config_keys[] = {
    log_string_key("syslog_ident", &cfg_syslog_ident, "mwd"),
    name_key("syslog_facility", &cfg_syslog_facility, LOG_DAEMON, facilitynames),
    name_key("syslog_priority", &cfg_syslog_priority, LOG_INFO, prioritynames),
    string_key("pid_file", &cfg_pid_file, "/var/run/mwd.pid"),
    root_key("work_directory", &cfg_work_directory, "/marblewell/DB", CFG_WORK_DIRECTORY_MAX),
    string_key("local_nodes", &cfg_local_nodes, "/marblewell/local_nodes"),
    integer_key("unicast_mode", &cfg_unicast_mode, 0, 0, INT_MAX),
    string_key("unicast_hosts", &cfg_unicast_hosts, "/marblewell/unicast_hosts"),
    string_key("bind_interface", &cfg_bind_interface, "eth0", 15),
    integer_key("bind_port", &cfg_bind_port, 8000, 1, 65535),
    string_key("ctrl_address", &cfg_ctrl_address, "127.0.0.1"),
    integer_key("ctrl_port", &cfg_ctrl_port, 31337, 1, 65535),
    string_key("multicast_address", &cfg_multicast_address, "224.123.123.123"),
    integer_key("node_lock_timeout_ms", &cfg_node_lock_timeout_ms, 750, 0, 60000),
    integer_key("datastore_lock_timeout_ms", &cfg_datastore_lock_timeout_ms, 750, 0, 60000),
    integer_key("vdisk_lock_timeout_ms", &cfg_vdisk_lock_timeout_ms, 750, 0, 60000),
    string_key("fence_check", &cfg_fence_check, "/usr/tidewatcher/fencecheck"),
    integer_key("ping_interval", &cfg_ping_interval, 90, 0, 3600),
    integer_key("heartbeat_interval", &cfg_heartbeat_interval, 30, 0, 3600),
    integer_key("stats_interval", &cfg_stats_interval, 60, 0, 86400),
};

/* Puts a copy of `text` in the place of *value; `op` names the caller in the line of a failed allocation. */
static void replace_string(const char *op, char **value, const char *text)
{
    free(*value);
    *value = strdup(text);
    if (!*value) {
        fprintf(stderr, "error: %s(): strdup(%s): %s\n", op, text, strerror(errno));
        exit(1);
    }
}

static void compile_pattern(regex_t *preg, const char *pattern, int flags)
{
    int result = regcomp(preg, pattern, flags);
    if (result != 0) {
        char text[1024];
        regerror(result, preg, text, sizeof(text));
        fprintf(stderr, "regcomp(%s): %s\n", pattern, text);
        exit(1);
    }
}

void config_module_setup()
{
    assert(!config_module_initialized);
    compile_pattern(&preg_comment, patt_comment, REG_EXTENDED | REG_NOSUB);
    compile_pattern(&preg_keyval, patt_keyval, REG_EXTENDED);
    compile_pattern(&preg_quoted, patt_quoted, REG_EXTENDED);

    for (const ConfigKey &key : config_keys) {
        if (key.string)
            replace_string(__func__, key.string, key.string_default);
        else
            *key.integer = key.integer_default;
    }
    config_module_initialized = 1;
}

/* Why a line is refused. Returns -1. */
[[gnu::format(printf, 2, 3)]] static int refuse(char (&fault)[CONFIG_FAULT_LEN], const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vsnprintf(fault, sizeof(fault), format, args);
    va_end(args);
    return -1;
}

static int apply_name(const ConfigKey &key, const char *value, char (&fault)[CONFIG_FAULT_LEN])
{
    for (const CODE *code = key.names; code->c_name; code++)
        if (strcasecmp(code->c_name, value) == 0) {
            *key.integer = code->c_val;
            return 0;
        }
    return refuse(fault, "Incorrect %s value: `%s'", key.key, value);
}

/* Reads like atoi: any text is a number, and one that is out of `int` is cut to its low bits first. */
static int apply_integer(const ConfigKey &key, const char *value, char (&fault)[CONFIG_FAULT_LEN])
{
    int number = static_cast<int>(strtol(value, nullptr, 10));
    if (number < key.min || number > key.max)
        return refuse(fault, "Incorrect %s value: %d", key.key, number);
    *key.integer = number;
    return 0;
}

static int apply_value(const ConfigKey &key, const char *value, char (&fault)[CONFIG_FAULT_LEN])
{
    int result = 0;
    if (key.names)
        result = apply_name(key, value, fault);
    else if (key.integer)
        result = apply_integer(key, value, fault);
    else if ((key.string_max && strlen(value) > key.string_max) || (key.absolute && value[0] != '/'))
        result = refuse(fault, "Incorrect %s value: `%s'", key.key, value);
    else
        replace_string("config_load", key.string, value);
    return result == 0 && key.reopens_log ? 1 : result;
}

/*
 * Whether the line fits the pattern. The platform reports a match that ran out of memory as a misfit, and only errno
 * tells: a quoted value must not be taken for a plain word because of it.
 */
static bool line_fits(const regex_t *preg, const char *pattern, const char *line, size_t slots, regmatch_t *match)
{
    errno = 0;
    if (regexec(preg, line, slots, match, 0) == 0)
        return true;
    if (errno != ENOMEM)
        return false;
    fprintf(stderr, "error: config_load(): regexec(%s): %s\n", pattern, strerror(errno));
    exit(1);
}

int config_next_line(FILE *file, char (&line)[CONFIG_LINE_LEN], char (&fault)[CONFIG_FAULT_LEN])
{
    if (!fgets(line, sizeof(line), file))
        return ferror(file) ? refuse(fault, "Error reading config") : 0;
    char *newline = strchr(line, '\n');
    if (!newline)
        return refuse(fault, "Config line too long");
    *newline = '\0';
    return 1;
}

int config_apply_line(char *line, const char **key, char (&fault)[CONFIG_FAULT_LEN])
{
    *key = nullptr;
    if (line_fits(&preg_comment, patt_comment, line, 0, nullptr))
        return 0;

    regmatch_t match[3];
    if (!line_fits(&preg_quoted, patt_quoted, line, 3, match) && !line_fits(&preg_keyval, patt_keyval, line, 3, match))
        return refuse(fault, "Broken config line `%s'", line);
    const char *name = line + match[1].rm_so;
    const char *value = line + match[2].rm_so;
    line[match[1].rm_eo] = '\0';
    line[match[2].rm_eo] = '\0';

    for (const ConfigKey &known : config_keys)
        if (strcmp(known.key, name) == 0) {
            *key = known.key;
            return apply_value(known, value, fault);
        }
    return refuse(fault, "Unknown config option `%s'", name);
}

void config_load()
{
    FILE *file = fopen(opt_config, "r");
    if (!file) {
        fprintf(stderr, "error: %s(): fopen(%s): %s\n", __func__, opt_config, strerror(errno));
        exit(1);
    }
    char line[CONFIG_LINE_LEN], fault[CONFIG_FAULT_LEN];
    const char *key;
    int result;
    while ((result = config_next_line(file, line, fault)) > 0) {
        result = config_apply_line(line, &key, fault);
        if (result < 0)
            break;
        if (result > 0)
            syslog_module_setup();
    }
    fclose(file);
    if (result < 0) {
        fprintf(stderr, "error: %s(): %s\n", __func__, fault);
        exit(1);
    }
}

/* The first name of the value; every value in use has one, since it came from the table. */
static const char *name_of_value(const CODE *names, int value)
{
    while (names->c_name && names->c_val != value)
        names++;
    return names->c_name;
}

bool config_value(size_t index, struct ConfigValue *value)
{
    if (index >= std::size(config_keys))
        return false;
    const ConfigKey &key = config_keys[index];
    value->key = key.key;
    value->text = key.string ? *key.string : key.names ? name_of_value(key.names, *key.integer) : nullptr;
    value->number = key.integer ? *key.integer : 0;
    return true;
}

void config_dump()
{
    syslog(LOG_INFO,
           "syslog_ident=%s syslog_facility=%s syslog_priority=%s pid_file=%s work_directory=%s local_nodes=%s "
           "unicast_mode=%d unicast_hosts=%s bind_interface=%s bind_port=%d ctrl_address=%s ctrl_port=%d "
           "multicast_address=%s node_lock_timeout_ms=%d datastore_lock_timeout_ms=%d "
           "vdisk_lock_timeout_ms=%d fence_check=%s ping_interval=%d heartbeat_interval=%d stats_interval=%d",
           cfg_syslog_ident, name_of_value(facilitynames, cfg_syslog_facility),
           name_of_value(prioritynames, cfg_syslog_priority), cfg_pid_file, cfg_work_directory, cfg_local_nodes,
           cfg_unicast_mode, cfg_unicast_hosts, cfg_bind_interface, cfg_bind_port, cfg_ctrl_address, cfg_ctrl_port,
           cfg_multicast_address, cfg_node_lock_timeout_ms, cfg_datastore_lock_timeout_ms, cfg_vdisk_lock_timeout_ms,
           cfg_fence_check, cfg_ping_interval, cfg_heartbeat_interval, cfg_stats_interval);
}

static void free_string(char **value)
{
    free(*value);
    *value = nullptr;
}

void config_module_teardown()
{
    free_string(&cfg_fence_check);
    free_string(&cfg_multicast_address);
    free_string(&cfg_ctrl_address);
    free_string(&cfg_bind_interface);
    free_string(&cfg_unicast_hosts);
    free_string(&cfg_local_nodes);
    free_string(&cfg_work_directory);
    free_string(&cfg_pid_file);
    free_string(&cfg_syslog_ident);
    regfree(&preg_quoted);
    regfree(&preg_keyval);
    regfree(&preg_comment);
    config_module_initialized = 0;
}
