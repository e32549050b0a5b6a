/* Hearing the cluster beside the daemon: a raw socket, to which the kernel hands whole datagrams, and only a copy. */
#ifndef MWCTL_SNIFF_SOCKET_H
#define MWCTL_SNIFF_SOCKET_H

#include "mwctl/settings.h"
#include "mwctl/tree.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mwctl
{

struct Datagram {
    struct timespec at; /* when the kernel took it */
    uint32_t address;   /* of the sender, as a number */
    uint16_t port;
    std::string_view payload; /* valid until the next one is received */
};

class SniffSocket
{
  public:
    /*
     * Hears datagrams to the port of `settings`: on `interface` alone, or without one on all, as the daemon does. In
     * multicast mode joins its groups, on that interface or the configured one. Gives up with status 3 if it must not,
     * or if the interface is not there.
     */
    SniffSocket(const Settings &settings, const std::optional<std::string> &interface);

    int descriptor() const
    {
        return socket_.get();
    }
    /* The next datagram, or nothing if none waits. */
    std::optional<Datagram> receive();
    /* How many the kernel has thrown away so far because they were not received in time. */
    uint64_t dropped() const;

  private:
    void attach_filter();
    void join(const std::string &group, const std::string &interface);
    std::optional<Datagram> take_apart(size_t length) const;

    Descriptor socket_;
    uint16_t port_;
    std::vector<char> buffer_;
};

/* Becomes nobody without capabilities, for good. Gives up if that fails. */
void drop_privileges();

} // namespace mwctl

#endif
