#include "mwd/io.h"

#include "mwd/syslog.h"

#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

ssize_t buf_tx(int fd, const char *buf, size_t len, int nointr)
{
    assert(len > 0);
    size_t idx = 0;
    do {
        ssize_t n = write(fd, buf + idx, len - idx);
        if (n < 0) {
            if (errno == EINTR && nointr > 0)
                continue;
            log_error("write(%zu): %s", len - idx, strerror(errno));
            return -1;
        }
        idx += static_cast<size_t>(n);
    } while (idx < len);
    return static_cast<ssize_t>(len);
}

ssize_t buf_rx(int fd, char *buf, size_t len, int nointr)
{
    size_t idx = 0;
    do {
        ssize_t n = read(fd, buf + idx, len - idx);
        if (n < 0) {
            if (errno == EINTR && nointr > 0)
                continue;
            log_error("read(%zu): %s", len - idx, strerror(errno));
            return -1;
        }
        if (n == 0) {
            log_error("read(%zu): EOF", len - idx);
            return 0;
        }
        idx += static_cast<size_t>(n);
    } while (idx < len);
    return static_cast<ssize_t>(len);
}

/* Moves the vector's start behind the `done` bytes that were written; fewer than it holds. */
static void iov_advance(struct iovec **iov, int *iovcnt, size_t done)
{
    while (done >= (*iov)->iov_len) {
        done -= (*iov)->iov_len;
        ++*iov;
        --*iovcnt;
    }
    (*iov)->iov_base = static_cast<char *>((*iov)->iov_base) + done;
    (*iov)->iov_len -= done;
}

ssize_t iov_tx(int fd, struct iovec *iov, int iovcnt, int nointr)
{
    assert(iovcnt > 0);
    size_t len = 0;
    for (int i = 0; i < iovcnt; i++)
        len += iov[i].iov_len;

    size_t idx = 0;
    for (;;) {
        ssize_t n = writev(fd, iov, iovcnt);
        if (n < 0) {
            if (errno == EINTR && nointr > 0)
                continue;
            log_error("writev(%zu/%d): %s", len - idx, iovcnt, strerror(errno));
            return -1;
        }
        size_t togo = len - idx;
        idx += static_cast<size_t>(n);
        if (idx == len)
            return static_cast<ssize_t>(len);
        log_notice("PARTIAL writev(): %zd/%zu", n, togo);
        iov_advance(&iov, &iovcnt, static_cast<size_t>(n));
    }
}

int fd_open(const char *path, int flags, int mode)
{
    int fd;
    while ((fd = open(path, flags, mode)) < 0) {
        if (errno != EINTR) {
            log_error("open(%s): %s", path, strerror(errno));
            return fd;
        }
        log_warn("open(%s): %s", path, strerror(errno));
    }
    return fd;
}

int fd_openat(int dirfd, const char *path, int flags, int mode)
{
    int fd;
    while ((fd = openat(dirfd, path, flags, mode)) < 0) {
        if (errno != EINTR) {
            log_error("openat(%s): %s", path, strerror(errno));
            return fd;
        }
        log_warn("openat(%s): %s", path, strerror(errno));
    }
    return fd;
}

int fd_close(int fd)
{
    assert(fd >= 0);
    while (close(fd) < 0) {
        if (errno != EINTR) {
            log_error("close(%d): %s", fd, strerror(errno));
            return -1;
        }
        log_warn("close(%d): %s", fd, strerror(errno));
    }
    return 0;
}

int fd_truncate(int fd, uint64_t length)
{
    while (ftruncate(fd, static_cast<off_t>(length)) < 0) {
        auto shown = static_cast<unsigned long long>(length);
        if (errno != EINTR) {
            log_error("ftruncate(%d, %llu): %s", fd, shown, strerror(errno));
            return -1;
        }
        log_warn("ftruncate(%d, %llu): %s", fd, shown, strerror(errno));
    }
    return 0;
}

int fd_blocking(int fd, int blocking)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        log_error("fcntl(F_GETFL): %s", strerror(errno));
        return -1;
    }
    flags = blocking > 0 ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
    if (fcntl(fd, F_SETFL, flags) < 0) {
        log_error("fcntl(F_SETFL): %s", strerror(errno));
        return -2;
    }
    return 0;
}

/* Turns the fresh socket `so` into a listener. Returns 0 or -1; the caller closes the socket. */
static int listen_on(const char *op, int so, const char *addr, int port, int backlog)
{
    int on = 1;
    if (setsockopt(so, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
        log_error_as(op, "setsockopt(SO_REUSEADDR): %s", strerror(errno));
        return -1;
    }
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_aton(addr, &sa.sin_addr) == 0) {
        log_error_as(op, "inet_aton(%s): failed", addr);
        return -1;
    }
    if (bind(so, reinterpret_cast<struct sockaddr *>(&sa), sizeof(sa)) < 0) {
        log_error_as(op, "bind(%s:%d): %s", addr, port, strerror(errno));
        return -1;
    }
    if (listen(so, backlog > 0 ? backlog : 128) < 0) {
        log_error_as(op, "listen(): %s", strerror(errno));
        return -1;
    }
    return 0;
}

int tcp_listen(const char *addr, int port, int backlog)
{
    int so = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (so < 0) {
        log_error("socket(): %s", strerror(errno));
        return -1;
    }
    if (listen_on(__func__, so, addr, port, backlog) < 0) {
        fd_close(so);
        return -1;
    }
    return so;
}

int tcp_accept(int so, char *inet_addr, int *inet_port)
{
    struct sockaddr_in sa;
    int peer;
    for (;;) {
        sa = {};
        socklen_t sl = sizeof(sa);
        peer = accept(so, reinterpret_cast<struct sockaddr *>(&sa), &sl);
        if (peer >= 0)
            break;
        if (errno != EINTR) {
            log_error("accept(): %s", strerror(errno));
            return -1;
        }
        log_warn("accept(): %s", strerror(errno));
    }
    if (!inet_ntop(AF_INET, &sa.sin_addr, inet_addr, INET_ADDRSTRLEN)) {
        log_error("inet_ntop(): %s", strerror(errno));
        fd_close(peer);
        return -1;
    }
    *inet_port = ntohs(sa.sin_port);
    int on = 1;
    if (setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) < 0) {
        log_error("setsockopt(TCP_NODELAY): %s", strerror(errno));
        fd_close(peer);
        return -1;
    }
    return peer;
}

int tcp_keepalive(int so, int idle, int interval, int count)
{
    int on = 1;
    if (setsockopt(so, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on)) < 0) {
        log_error("setsockopt(SO_KEEPALIVE): %s", strerror(errno));
        return -1;
    }
    if (setsockopt(so, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle)) < 0) {
        log_error("setsockopt(TCP_KEEPIDLE): %s", strerror(errno));
        return -2;
    }
    if (setsockopt(so, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof(interval)) < 0) {
        log_error("setsockopt(TCP_KEEPINTVL): %s", strerror(errno));
        return -3;
    }
    if (setsockopt(so, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof(count)) < 0) {
        log_error("setsockopt(TCP_KEEPCNT): %s", strerror(errno));
        return -4;
    }
    return 0;
}

int so_linger(int so, int onoff, int linger)
{
    struct linger value = {};
    value.l_onoff = onoff;
    value.l_linger = linger;
    if (setsockopt(so, SOL_SOCKET, SO_LINGER, &value, sizeof(value)) < 0) {
        log_error("setsockopt(SO_LINGER, %d, %d): %s", onoff, linger, strerror(errno));
        return -1;
    }
    return 0;
}

static const char *direction(int tx)
{
    return tx > 0 ? "SND" : "RCV";
}

int so_timeo(int so, int tx, int timeout)
{
    struct timeval tv = {};
    tv.tv_sec = timeout;
    if (setsockopt(so, SOL_SOCKET, tx > 0 ? SO_SNDTIMEO : SO_RCVTIMEO, &tv, sizeof(tv)) < 0) {
        log_error("setsockopt(SO_%sTIMEO, %d): %s", direction(tx), timeout, strerror(errno));
        return -1;
    }
    return 0;
}

int so_lowat(int so, int tx, int bytes)
{
    if (setsockopt(so, SOL_SOCKET, tx > 0 ? SO_SNDLOWAT : SO_RCVLOWAT, &bytes, sizeof(bytes)) < 0) {
        log_error("setsockopt(SO_%sLOWAT, %d): %s", direction(tx), bytes, strerror(errno));
        return -1;
    }
    return 0;
}

int so_buf(int so, int tx, int kb)
{
    auto bytes = static_cast<int>(static_cast<unsigned int>(kb) * 1024U);
    if (setsockopt(so, SOL_SOCKET, tx > 0 ? SO_SNDBUF : SO_RCVBUF, &bytes, sizeof(bytes)) < 0) {
        log_error("setsockopt(SO_%sBUF, %d): %s", direction(tx), bytes, strerror(errno));
        return -1;
    }
    return 0;
}
