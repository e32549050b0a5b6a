/* The daemon's process, and what the kernel says of its interface and ports. */
#include "mwctl/cluster.h"
#include "mwctl/process.h"
#include "mwctl/tree.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace mwctl
{

/* A row of /proc/net/udp or tcp. */
struct SocketRow {
    std::string local; /* "0100007F:1F40" */
    std::string state;
    uint64_t inode = 0;
    uint64_t drops = 0;
};

static std::vector<SocketRow> read_sockets(const std::string &file)
{
    std::vector<SocketRow> rows;
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    while (std::getline(stream, line)) {
        std::istringstream words(line);
        std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
        if (fields.size() >= 10)
            rows.push_back({fields[1], fields[3], strtoull(fields[9].c_str(), nullptr, 10),
                            fields.size() > 12 ? strtoull(fields[12].c_str(), nullptr, 10) : 0});
    }
    return rows;
}

/* Bound to the port of the address, which is any for 0. */
static bool on_port(const SocketRow &row, uint32_t address, int port)
{
    return row.local == fmt::format("{:08X}:{:04X}", address, port);
}

/* The process number that the PID file holds, 0 if there is none. */
static int read_pid(const std::string &file)
{
    char text[16] = "";
    Descriptor fd(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) < 0 || !S_ISREG(st.st_mode) || read(fd.get(), text, sizeof(text) - 1) <= 0)
        return 0;
    long pid = strtol(text, nullptr, 10);
    return pid > 0 && pid <= INT32_MAX ? static_cast<int>(pid) : 0;
}

Daemon read_daemon(const Settings &settings)
{
    Daemon daemon;
    int pid = daemon.pid = read_pid(settings.pid_file);
    if (pid == 0 || !process_alive(pid))
        return daemon;
    std::string executable = process_executable(pid);
    if (executable != "mwd") {
        daemon.not_mwd = executable.empty() ? process_command(pid) : executable;
        return daemon;
    }
    daemon.running = true;
    ProcessUse use = process_use(pid);
    daemon.since = use.since;
    daemon.cpu_seconds = use.cpu_seconds;
    daemon.rss_bytes = use.rss_bytes;
    for (const SocketRow &row : read_sockets(fmt::format("/proc/{}/net/udp", pid)))
        if (on_port(row, INADDR_ANY, settings.bind_port))
            daemon.drops += row.drops;
    return daemon;
}

static std::string holder_text(uint64_t inode)
{
    int pid = socket_holder(inode);
    return pid ? fmt::format("{} ({})", process_command(pid), pid) : "a process that cannot be seen from here";
}

/* Whoever holds a port on every address, or on the one that the daemon needs. */
static void read_ports(Network &network, const Settings &settings)
{
    static constexpr const char *listening = "0A";
    uint32_t interface = inet_addr(network.interface_address.c_str()), ctrl = inet_addr(settings.ctrl_address.c_str());
    for (const SocketRow &row : read_sockets("/proc/net/udp"))
        if (on_port(row, INADDR_ANY, settings.bind_port) || on_port(row, interface, settings.bind_port))
            network.udp_holder = holder_text(row.inode);
    for (const SocketRow &row : read_sockets("/proc/net/tcp"))
        if ((on_port(row, INADDR_ANY, settings.ctrl_port) || on_port(row, ctrl, settings.ctrl_port)) &&
            row.state == listening)
            network.ctrl_holder = holder_text(row.inode);
}

Network read_network(const Settings &settings, bool daemon_running)
{
    Network network;
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) == 0) {
        std::unique_ptr<struct ifaddrs, void (*)(struct ifaddrs *)> owner(list, freeifaddrs);
        for (struct ifaddrs *at = list; at; at = at->ifa_next) {
            bool wanted = settings.bind_interface == at->ifa_name;
            if (wanted) {
                network.interface_exists = true;
                network.interface_up = at->ifa_flags & IFF_UP;
                network.interface_multicast = at->ifa_flags & IFF_MULTICAST;
                network.interface_loopback = at->ifa_flags & IFF_LOOPBACK;
            }
            if (!at->ifa_addr || at->ifa_addr->sa_family != AF_INET)
                continue;
            char text[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &reinterpret_cast<struct sockaddr_in *>(at->ifa_addr)->sin_addr, text, sizeof(text));
            network.addresses.insert(text);
            if (wanted && network.interface_address.empty())
                network.interface_address = text;
        }
    }
    if (!daemon_running)
        read_ports(network, settings);
    return network;
}

} // namespace mwctl
