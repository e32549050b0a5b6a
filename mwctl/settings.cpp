#include "mwctl/settings.h"

#include "mwctl/failure.h"
#include "mwctl/text.h"
#include "mwd/config.h"
#include "mwd/syslog.h"
#include "mwd/table.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace mwctl
{

/* As many faults of one file are told; one is enough for the daemon to refuse it. */
constexpr size_t FAULTS_TOLD = 100;

struct FileCloser {
    void operator()(FILE *file) const
    {
        fclose(file);
    }
};
using File = std::unique_ptr<FILE, FileCloser>;

/* Opens a file for reading, without waiting for a FIFO that nobody writes. Null with errno set on failure. */
static File open_file(const std::string &path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return nullptr;
    struct stat st;
    if (fstat(fd, &st) < 0 || !(S_ISREG(st.st_mode) || S_ISCHR(st.st_mode))) {
        close(fd);
        errno = EINVAL;
        return nullptr;
    }
    return File(fdopen(fd, "r"));
}

static std::string choose_file(const std::optional<std::string> &file)
{
    if (file)
        return *file;
    const char *environment = getenv("MWD_CONF");
    if (environment && environment[0] != '\0')
        return environment;
    static constexpr const char *packaged = "/etc/mwd/mwd.conf";
    return access(packaged, F_OK) == 0 ? packaged : opt_config;
}

static void note_origin(Settings &settings, const char *key, const std::string &origin)
{
    for (ConfigEntry &entry : settings.values)
        if (entry.key == key)
            entry.origin = origin;
}

/* The daemon stops at the first fault; here the rest is read too, so that one look shows them all. */
static void read_config(Settings &settings)
{
    File file = open_file(settings.file);
    if (!file)
        give_up(fmt::format("cannot read the configuration {}: {}; name another one with -C FILE",
                            printable(settings.file), strerror(errno)));
    char line[CONFIG_LINE_LEN], fault[CONFIG_FAULT_LEN];
    const char *key;
    for (size_t number = 1;; number++) {
        int result = config_next_line(file.get(), line, fault);
        if (result == 0)
            return;
        bool broken_off = result < 0;
        if (result > 0 && config_apply_line(line, &key, fault) >= 0) {
            if (key)
                note_origin(settings, key, fmt::format("{}:{}", settings.file, number));
            continue;
        }
        settings.config_faults.push_back({settings.file, number, fault});
        if (broken_off || settings.config_faults.size() == FAULTS_TOLD)
            return;
    }
}

/* Reads a table line by line into `add`, which returns whether the line is good. Returns whether all of it was. */
template <typename Add> static bool read_table(Settings &settings, const std::string &path, Add add)
{
    File file = open_file(path);
    if (!file) {
        settings.table_faults.push_back({path, 0, fmt::format("cannot be read: {}", strerror(errno))});
        return false;
    }
    size_t faults = 0;
    auto fault = [&](size_t line, std::string text) {
        settings.table_faults.push_back({path, line, std::move(text)});
        faults++;
    };
    char line[TABLE_LINE_LEN];
    size_t number = 0;
    int result;
    while ((result = table_next_line(file.get(), line, &number)) > 0 && faults < FAULTS_TOLD) {
        std::string text = add(line, number);
        if (!text.empty())
            fault(number, text);
    }
    if (result == -1)
        fault(number,
              strlen(line) + 1 == sizeof(line) ? "is longer than 254 characters" : "does not end with a newline");
    else if (result < 0)
        fault(0, fmt::format("cannot be read: {}", strerror(errno)));
    return faults == 0;
}

void reread_tables(Settings &settings)
{
    settings.local_nodes.clear();
    settings.unicast_hosts.clear();
    settings.table_faults.clear();
    settings.local_nodes_whole = read_table(settings, settings.local_nodes_file, [&](const char *line, size_t number) {
        uint32_t uid = table_node(line);
        if (uid == 0)
            return fmt::format("'{}' names no node", line);
        settings.local_nodes.push_back({uid, number});
        return std::string();
    });
    if (!settings.unicast_mode)
        return;
    read_table(settings, settings.unicast_hosts_file, [&](const char *line, size_t number) {
        struct sockaddr_in sa;
        if (table_host(line, static_cast<uint16_t>(settings.bind_port), &sa) < 0)
            return fmt::format("'{}' is no IPv4 address", line);
        settings.unicast_hosts.push_back({line, number});
        return std::string();
    });
}

static std::vector<std::string> split_groups(std::string_view list)
{
    std::vector<std::string> groups;
    while (!list.empty()) {
        size_t end = std::min(list.find_first_of(", "), list.size());
        if (end > 0)
            groups.emplace_back(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return groups;
}

static void take_over_values(Settings &settings)
{
    struct ConfigValue value;
    for (size_t i = 0; config_value(i, &value); i++) {
        settings.values[i].text = value.text ? value.text : std::to_string(value.number);
        settings.values[i].numeric = !value.text;
    }
    settings.work_directory = cfg_work_directory;
    settings.pid_file = cfg_pid_file;
    settings.local_nodes_file = cfg_local_nodes;
    settings.unicast_hosts_file = cfg_unicast_hosts;
    settings.bind_interface = cfg_bind_interface;
    settings.ctrl_address = cfg_ctrl_address;
    settings.groups = split_groups(cfg_multicast_address);
    settings.unicast_mode = cfg_unicast_mode != 0;
    settings.bind_port = cfg_bind_port;
    settings.ctrl_port = cfg_ctrl_port;
    settings.node_lock_ms = cfg_node_lock_timeout_ms;
    settings.datastore_lock_ms = cfg_datastore_lock_timeout_ms;
    settings.vdisk_lock_ms = cfg_vdisk_lock_timeout_ms;
    settings.ping_interval = cfg_ping_interval;
    settings.heartbeat_interval = cfg_heartbeat_interval;
}

bool Settings::lists(uint32_t uid) const
{
    return std::any_of(local_nodes.begin(), local_nodes.end(), [&](const LocalNode &node) { return node.uid == uid; });
}

Settings read_settings(const std::optional<std::string> &file)
{
    config_module_setup();
    log_mask = 0; /* the daemon's own code says nothing here: each command words its failures itself */
    Settings settings{};
    struct ConfigValue value;
    for (size_t i = 0; config_value(i, &value); i++)
        settings.values.push_back({value.key, "", false, "default"});
    settings.file = choose_file(file);
    read_config(settings);
    take_over_values(settings);
    reread_tables(settings);
    return settings;
}

} // namespace mwctl
