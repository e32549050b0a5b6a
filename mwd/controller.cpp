/* The loop: set-up, signals, timers, and the order of the work within one turn. */
#include "mwd/controller.h"
#include "mwd/controller_internal.h"

#include "mwd/config.h"
#include "mwd/io.h"
#include "mwd/syslog.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/resource.h>
#include <sys/socket.h>

static int controller_module_initialized;

/* Reload and pings start out set: the first turn loads the tables and publishes. */
static volatile sig_atomic_t do_exit;
static volatile sig_atomic_t do_reload = 1;
static volatile sig_atomic_t force_pings = 1;

static_assert(sizeof(time_t) == 8, "built without _TIME_BITS=64");
static time_t ping_ts, heartbeat_ts, stats_ts;

/* The loop's steps log under its name. */
static const char loop_op[] = "controller_thread_loop";

/* State of one run of the loop. */
struct Loop {
    char *buf; /* MSG_LEN_MAX bytes: the datagram just received, or the message being built */
    int so;
    int ctrlso;
    fd_set fds;  /* what to wait for */
    fd_set rfds; /* what is ready in this turn */
    int nfds;
    struct CtrlConnList ccl;
};

static void sigint(int)
{
    do_exit = 1;
}

static void sighup(int)
{
    do_reload = 1;
}

static void sigusr1(int)
{
    force_pings = 1;
}

/* Without SA_RESTART: a signal interrupts select, recvfrom and read. */
static void install_signal(int sig, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
}

/* Whoever started the daemon may have held signals back, or ignored the end of children, which waitpid needs. */
static void clear_inherited_signals()
{
    install_signal(SIGCHLD, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

int controller_module_setup()
{
    assert(!controller_module_initialized && !local_nodes && !unicast_hosts && !multicast_groups);
    if (NodeListAlloc(&local_nodes) < 0)
        return -1;
    if (HostListAlloc(&unicast_hosts) < 0) {
        NodeListFree(local_nodes);
        local_nodes = nullptr;
        return -2;
    }
    if (HostListAlloc(&multicast_groups) < 0) {
        HostListFree(unicast_hosts);
        unicast_hosts = nullptr;
        NodeListFree(local_nodes);
        local_nodes = nullptr;
        return -3;
    }
    install_signal(SIGPIPE, SIG_IGN);
    install_signal(SIGINT, sigint);
    install_signal(SIGTERM, sigint);
    install_signal(SIGHUP, sighup);
    install_signal(SIGUSR1, sigusr1);
    clear_inherited_signals();

    ping_ts = time(nullptr);
    heartbeat_ts = time(nullptr) + 3;
    stats_ts = time(nullptr) + 7;
    controller_module_initialized = 1;
    return 0;
}

void controller_module_teardown()
{
    assert(controller_module_initialized);
    log_notice("Starting shutdown sequence...");
    HostListFree(multicast_groups);
    multicast_groups = nullptr;
    HostListFree(unicast_hosts);
    unicast_hosts = nullptr;
    NodeListFree(local_nodes);
    local_nodes = nullptr;
    controller_module_initialized = 0;
    log_notice("Shutdown sequence finished!");
}

static void update_fds(fd_set *fds, int *nfdsp, int so, int ctrlso, struct CtrlConnList *cclp)
{
    FD_ZERO(fds);
    FD_SET(so, fds);
    FD_SET(ctrlso, fds);
    int largest = std::max(so, ctrlso);
    struct CtrlConn *ccp;
    TAILQ_FOREACH(ccp, cclp, entries) {
        FD_SET(ccp->so, fds);
        largest = std::max(largest, ccp->so);
    }
    *nfdsp = largest + 1;
}

static void watch_connections(struct Loop *loop)
{
    update_fds(&loop->fds, &loop->nfds, loop->so, loop->ctrlso, &loop->ccl);
}

/* What is kept for the tree, the log and the fence check while control connections take all they can. */
constexpr rlim_t RESERVED_FDS = 64;

/*
 * Control connections may take every descriptor that select can hold, so the limit on open files is raised above that.
 * Returns the limit in force.
 */
static rlim_t raise_open_files()
{
    constexpr rlim_t wanted = FD_SETSIZE + RESERVED_FDS;
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) < 0) {
        log_warn("getrlimit(RLIMIT_NOFILE): %s", strerror(errno));
        return wanted;
    }
    if (limit.rlim_cur >= wanted)
        return limit.rlim_cur;
    rlim_t before = limit.rlim_cur;
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    if (limit.rlim_cur > before && setrlimit(RLIMIT_NOFILE, &limit) < 0) {
        log_warn("setrlimit(RLIMIT_NOFILE): %s", strerror(errno));
        return before;
    }
    return limit.rlim_cur;
}

/*
 * Where the limit on open files is low, connections get half of it, but a few descriptors above the listener in any
 * case: whoever started the daemon may have left files open. One more is needed to accept what is then refused.
 */
static int connection_fd_limit(rlim_t open_files, int ctrlso)
{
    constexpr rlim_t a_few = 4;
    rlim_t share = open_files - std::min(RESERVED_FDS, open_files / 2);
    rlim_t least = std::min(static_cast<rlim_t>(ctrlso) + 1 + a_few, open_files - 1);
    return static_cast<int>(std::min<rlim_t>(FD_SETSIZE, std::max(share, least)));
}

/* Prepares the socket for the groups of cfg_multicast_address. Returns 0 or -1. */
static int bring_up_multicast(int so, const struct sockaddr_in *if_addr)
{
    if (parse_mcast_groups() < 0)
        return -1;
    if (TAILQ_EMPTY(multicast_groups)) {
        log_error_as(loop_op, "Multicast groups missing");
        return -1;
    }
    if (set_mcast_socket(so, if_addr) < 0 || join_mcast_groups(so, if_addr) < 0)
        return -1;
    return 0;
}

static int bring_up(struct Loop *loop)
{
    *loop = {};
    loop->so = -1;
    loop->ctrlso = -1;
    TAILQ_INIT(&loop->ccl);
    rlim_t open_files = raise_open_files();

    loop->buf = static_cast<char *>(malloc(MSG_LEN_MAX));
    if (!loop->buf) {
        log_error_as(loop_op, "malloc(%zu): %s", MSG_LEN_MAX, strerror(errno));
        return -1;
    }
    struct sockaddr_in if_addr;
    if (get_interface_addr(cfg_bind_interface, &if_addr) < 0)
        return -1;
    struct sockaddr_in bind_addr = {};
    bind_addr.sin_family = AF_INET;
    bind_addr.sin_port = htons(static_cast<uint16_t>(cfg_bind_port));
    loop->so = open_socket(&bind_addr);
    if (loop->so < 0)
        return -1;
    loop->ctrlso = tcp_listen(cfg_ctrl_address, cfg_ctrl_port, 0);
    if (loop->ctrlso < 0 || fd_blocking(loop->ctrlso, 0) < 0)
        return -1;
    if (std::max(loop->so, loop->ctrlso) >= FD_SETSIZE) { /* a starter that left that many files open */
        log_error_as(loop_op, "Descriptor %d not below %d", std::max(loop->so, loop->ctrlso), FD_SETSIZE);
        return -1;
    }
    ctrl_fd_limit = connection_fd_limit(open_files, loop->ctrlso);
    if (cfg_unicast_mode == 0 && bring_up_multicast(loop->so, &if_addr) < 0)
        return -1;
    watch_connections(loop);
    return 0;
}

/* The one exit path, for a bring-up that failed half way too. Peers are told nothing. */
static void bring_down(struct Loop *loop)
{
    CtrlConnListFlush(&loop->ccl);
    if (loop->ctrlso >= 0)
        fd_close(loop->ctrlso);
    if (loop->so >= 0)
        fd_close(loop->so);
    free(loop->buf);
}

static void reload_tables()
{
    load_local_nodes();
    dump_local_nodes();
    load_unicast_hosts();
    dump_unicast_hosts();
    do_reload = 0;
}

/* Waits for input, a second at most, or a signal. Returns what select returns; negative ends the turn. */
static int wait_for_input(struct Loop *loop)
{
    loop->rfds = loop->fds;
    struct timeval tv = {1, 0};
    int ready = select(loop->nfds, &loop->rfds, nullptr, nullptr, &tv);
    if (ready < 0 && errno != EINTR)
        log_error_as(loop_op, "select(): %s", strerror(errno));
    return ready;
}

/* Wall-clock seconds: a timer is due an interval after the end of its last work. */
static bool is_due(time_t base, int interval)
{
    return time(nullptr) >= base + interval;
}

static void run_due_timers(struct Loop *loop)
{
    if (is_due(stats_ts, cfg_stats_interval)) {
        stats();
        stats_ts = time(nullptr);
    }
    if (force_pings || is_due(ping_ts, cfg_ping_interval)) {
        send_pings(loop->buf, MSG_LEN_MAX, loop->so);
        ping_ts = time(nullptr);
        force_pings = 0;
    }
    if (is_due(heartbeat_ts, cfg_heartbeat_interval)) {
        send_heartbeats(loop->buf, MSG_LEN_MAX, loop->so);
        heartbeat_ts = time(nullptr);
    }
}

enum class Received { Handled, Dropped, Failed };

/* Takes one datagram and hands it to its handler. */
static Received receive_datagram(struct Loop *loop)
{
    struct sockaddr_in source_addr;
    ssize_t r;
    do {
        socklen_t sl = sizeof(source_addr);
        source_addr = {};
        r = recvfrom(loop->so, loop->buf, MSG_LEN_MAX, 0, reinterpret_cast<struct sockaddr *>(&source_addr), &sl);
    } while (r < 0 && errno == EINTR);
    if (r < 0) {
        log_error_as(loop_op, "recvfrom(): %s", strerror(errno));
        return Received::Failed;
    }
    if (static_cast<size_t>(r) < sizeof(struct Hdr)) {
        log_error_as(loop_op, "Malformed packet? #1");
        return Received::Dropped;
    }
    char ipaddr[INET_ADDRSTRLEN];
    if (!inet_ntop(AF_INET, &source_addr.sin_addr, ipaddr, sizeof(ipaddr))) {
        log_error_as(loop_op, "inet_ntop(): %s", strerror(errno));
        return Received::Dropped;
    }
    log_debug_as(loop_op, "recvfrom(%s:%d): %zd", ipaddr, ntohs(source_addr.sin_port), r);
    count_rx(STATS_ALL);
    dispatch_datagram(reinterpret_cast<struct Hdr *>(loop->buf), static_cast<size_t>(r), ipaddr);
    return Received::Handled;
}

int controller_thread_loop()
{
    struct Loop loop;
    int error = bring_up(&loop);
    while (error == 0) {
        if (do_exit) {
            log_notice("Exit...");
            break;
        }
        if (do_reload)
            reload_tables();
        int ready = wait_for_input(&loop);
        if (ready < 0)
            continue;
        run_due_timers(&loop);
        if (ready == 0) {
            log_debug("Waiting...");
            continue;
        }
        if (FD_ISSET(loop.so, &loop.rfds)) {
            Received received = receive_datagram(&loop);
            if (received == Received::Failed)
                break;
            if (received == Received::Dropped)
                continue;
        }
        if (serve_ctrl_conns(&loop.ccl, &loop.rfds, loop.buf, MSG_LEN_MAX, loop.so))
            watch_connections(&loop);
        if (FD_ISSET(loop.ctrlso, &loop.rfds) && accept_ctrl_conn(loop.ctrlso, &loop.ccl))
            watch_connections(&loop);
    }
    bring_down(&loop);
    return error;
}
