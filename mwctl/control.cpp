#include "mwctl/control.h"

#include "mwctl/cluster.h"
#include "mwctl/failure.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <sys/socket.h>

namespace mwctl
{

int require_daemon(const Settings &settings)
{
    Daemon daemon = read_daemon(settings);
    if (daemon.running)
        return daemon.pid;
    std::string reason = daemon.not_mwd.empty()
                             ? daemon.pid ? fmt::format("process {} of {} is gone", daemon.pid, settings.pid_file)
                                          : fmt::format("{} names no process", settings.pid_file)
                             : fmt::format("process {} of {} is {}", daemon.pid, settings.pid_file, daemon.not_mwd);
    give_up(fmt::format("mwd does not run ({}): start it, for example with systemctl start mwd", reason));
}

void signal_daemon(const Settings &settings, int signal)
{
    int pid = require_daemon(settings);
    if (kill(pid, signal) < 0)
        give_up(
            fmt::format("cannot signal mwd, process {}: {}; run this as its owner or as root", pid, strerror(errno)));
}

ControlPort::ControlPort(const Settings &settings)
    : place_(fmt::format("{}:{}", settings.ctrl_address, settings.ctrl_port))
{
    require_daemon(settings);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(settings.ctrl_port));
    if (inet_pton(AF_INET, settings.ctrl_address.c_str(), &address.sin_addr) != 1)
        give_up(fmt::format("ctrl_address {} is no IPv4 address: mwctl config", settings.ctrl_address));
    socket_ = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket_ || connect(socket_.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) < 0)
        give_up(fmt::format("cannot reach mwd's control port {}: {}; mwctl config shows where it is", place_,
                            strerror(errno)));
}

void ControlPort::send(const std::string &line)
{
    std::string text = line + "\n";
    ssize_t sent = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(text.size()))
        give_up(fmt::format("cannot tell mwd at {}: {}", place_, strerror(errno)));
}

} // namespace mwctl
