#include "mwctl/sniff_socket.h"

#include "mwctl/failure.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mwctl
{

constexpr int RECEIVE_BUFFER = 32 << 20; /* hundreds of the longest messages, while the output stands still */
constexpr size_t PACKET_MAX = 65536;     /* with its IP header */

[[noreturn]] static void give_up_call(const std::string &call)
{
    give_up(fmt::format("cannot hear the wire: {}: {}", call, strerror(errno)));
}

template <typename Value> static void set_option(int so, int level, int option, const Value &value, const char *name)
{
    if (setsockopt(so, level, option, &value, sizeof(value)) < 0)
        give_up_call(fmt::format("setsockopt({})", name));
}

SniffSocket::SniffSocket(const Settings &settings, const std::optional<std::string> &interface)
    : socket_(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP)),
      port_(static_cast<uint16_t>(settings.bind_port)), buffer_(PACKET_MAX)
{
    if (!socket_ && (errno == EPERM || errno == EACCES))
        give_up("hearing the wire takes root, or the capability CAP_NET_RAW: try sudo");
    if (!socket_)
        give_up_call("socket()");
    attach_filter();
    set_option(descriptor(), SOL_SOCKET, SO_TIMESTAMPNS, 1, "SO_TIMESTAMPNS");
    /* Beyond the system's limit where that is allowed. */
    if (setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof(RECEIVE_BUFFER)) < 0)
        set_option(descriptor(), SOL_SOCKET, SO_RCVBUF, RECEIVE_BUFFER, "SO_RCVBUF");
    const std::string &joined_on = interface ? *interface : settings.bind_interface;
    if (interface && if_nametoindex(interface->c_str()) == 0)
        give_up(fmt::format("there is no interface {}; `ip link` lists them", *interface));
    if (interface && setsockopt(descriptor(), SOL_SOCKET, SO_BINDTODEVICE, interface->data(),
                                static_cast<socklen_t>(interface->size())) < 0)
        give_up_call(fmt::format("setsockopt(SO_BINDTODEVICE, {})", *interface));
    if (!settings.unicast_mode)
        for (const std::string &group : settings.groups)
            join(group, joined_on);
}

/* The program sees a packet from its IP header on. What came before it was in place is sorted out by take_apart. */
void SniffSocket::attach_filter()
{
    constexpr uint32_t destination_port = offsetof(struct udphdr, dest);
    struct sock_filter code[] = {
        BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0), /* the length of the IP header */
        BPF_STMT(BPF_LD | BPF_H | BPF_IND, destination_port),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, port_, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, PACKET_MAX),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    struct sock_fprog program = {std::size(code), code};
    set_option(descriptor(), SOL_SOCKET, SO_ATTACH_FILTER, program, "SO_ATTACH_FILTER");
}

void SniffSocket::join(const std::string &group, const std::string &interface)
{
    struct ip_mreqn request = {};
    request.imr_multiaddr.s_addr = inet_addr(group.c_str());
    request.imr_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    if (request.imr_ifindex == 0)
        give_up(fmt::format("there is no interface {} to join the group {} on; name another with -i, or mend "
                            "bind_interface",
                            interface, group));
    if (setsockopt(descriptor(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) < 0)
        give_up_call(fmt::format("joining {} on {}", group, interface));
}

/* As the kernel hands it to the daemon: what lies behind the length of the UDP header is no part of the datagram. */
std::optional<Datagram> SniffSocket::take_apart(size_t length) const
{
    struct iphdr ip;
    struct udphdr udp;
    if (length < sizeof(ip))
        return std::nullopt;
    memcpy(&ip, buffer_.data(), sizeof(ip));
    const size_t offset = ip.ihl * size_t{4};
    if (length < offset + sizeof(udp))
        return std::nullopt;
    memcpy(&udp, buffer_.data() + offset, sizeof(udp));
    const size_t udp_length = ntohs(udp.len);
    if (ntohs(udp.dest) != port_ || udp_length < sizeof(udp) || udp_length > length - offset)
        return std::nullopt;
    return Datagram{
        {}, ntohl(ip.saddr), ntohs(udp.source), {buffer_.data() + offset + sizeof(udp), udp_length - sizeof(udp)}};
}

std::optional<Datagram> SniffSocket::receive()
{
    struct iovec piece = {buffer_.data(), buffer_.size()};
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct timespec))];
    struct msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t length = recvmsg(descriptor(), &message, 0);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return std::nullopt;
    if (length < 0)
        give_up_call("recvmsg()");
    std::optional<Datagram> datagram = take_apart(static_cast<size_t>(length));
    const struct cmsghdr *stamp = CMSG_FIRSTHDR(&message);
    if (datagram && stamp && stamp->cmsg_type == SCM_TIMESTAMPNS)
        memcpy(&datagram->at, CMSG_DATA(stamp), sizeof(datagram->at));
    return datagram;
}

uint64_t SniffSocket::dropped() const
{
    uint32_t figures[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof(figures);
    if (getsockopt(descriptor(), SOL_SOCKET, SO_MEMINFO, figures, &length) < 0)
        give_up_call("getsockopt(SO_MEMINFO)");
    return figures[SK_MEMINFO_DROPS];
}

static void become_nobody()
{
    const struct passwd *nobody = getpwnam("nobody");
    const uid_t uid = nobody ? nobody->pw_uid : 65534;
    const gid_t gid = nobody ? nobody->pw_gid : 65534;
    if (setgroups(0, nullptr) < 0 || setresgid(gid, gid, gid) < 0 || setresuid(uid, uid, uid) < 0)
        give_up(fmt::format("cannot give root up: {}", strerror(errno)));
}

void drop_privileges()
{
    if (geteuid() == 0)
        become_nobody();
    /* Whoever had the capability alone gives that up. */
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capset, &header, none) < 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) < 0)
        give_up(fmt::format("cannot give the capabilities up: {}", strerror(errno)));
}

} // namespace mwctl
