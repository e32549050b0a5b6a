/*
 * Descriptors, transfers and TCP: one system call each, with one policy each. Every function logs its own failure with
 * its own name; callers only look at the result. `nointr` above 0 repeats a call that a signal interrupted, without a
 * line; 0 or less makes EINTR a failure like any other. EAGAIN is an ordinary failure everywhere.
 */
#ifndef MWD_IO_H
#define MWD_IO_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>
#include <sys/uio.h>

/* Writes all `len` bytes of `buf`, in as many calls as it takes; `len` is above 0. Returns `len` or -1. */
ssize_t buf_tx(int fd, const char *buf, size_t len, int nointr);

/*
 * Reads exactly `len` bytes into `buf`. Returns `len`; 0 after an error line when the file ends first, whatever was
 * read before it; or -1.
 */
ssize_t buf_rx(int fd, char *buf, size_t len, int nointr);

/*
 * Writes all of the vector; `iovcnt` is above 0. A partial write is logged and continued, and changes the caller's
 * array. Returns the total length or -1.
 */
ssize_t iov_tx(int fd, struct iovec *iov, int iovcnt, int nointr);

/* open(2), repeated after EINTR with a warning. Returns the descriptor, or the negative result of open. */
int fd_open(const char *path, int flags, int mode);

/* openat(2) in the same way; `path` is relative to `dirfd`. */
int fd_openat(int dirfd, const char *path, int flags, int mode);

/* close(2), repeated after EINTR with a warning. `fd` must not be negative. Returns 0 or -1. */
int fd_close(int fd);

/* ftruncate(2) to `length` bytes, repeated after EINTR with a warning. Returns 0 or -1. */
int fd_truncate(int fd, uint64_t length);

/* Makes `fd` blocking if `blocking` is above 0, else non-blocking. Returns 0; -1 or -2 for the F_GETFL or F_SETFL. */
int fd_blocking(int fd, int blocking);

/* Closes a descriptor at the end of its scope; -1 stands for none. */
struct FdGuard {
    int fd;

    explicit FdGuard(int descriptor) : fd(descriptor)
    {
    }
    ~FdGuard()
    {
        if (fd >= 0)
            fd_close(fd);
    }
    FdGuard(const FdGuard &) = delete;
    FdGuard &operator=(const FdGuard &) = delete;
};

/*
 * A listening IPv4 socket on `addr`, dotted text, and `port`; a `backlog` of 0 or less means 128. Returns the socket,
 * which the caller closes, or -1.
 */
int tcp_listen(const char *addr, int port, int backlog);

/*
 * Accepts one connection and switches TCP_NODELAY on. Puts the peer's address as text into `inet_addr`, 16 bytes, and
 * its port, in host order, into *inet_port. Returns the new socket, blocking and the caller's to close, or -1. EINTR is
 * repeated with a warning.
 */
int tcp_accept(int so, char *inet_addr, int *inet_port);

/* Keep-alive with `idle` and `interval` seconds and `count` probes. Returns 0; -1 to -4 for the option that failed. */
int tcp_keepalive(int so, int idle, int interval, int count);

/* SO_LINGER, `linger` in seconds. Returns 0 or -1, like the three below. */
int so_linger(int so, int onoff, int linger);

/* Send time-out if `tx` is above 0, else receive time-out, in seconds. */
int so_timeo(int so, int tx, int timeout);

/* Send low-water mark if `tx` is above 0, else receive low-water mark, in bytes. */
int so_lowat(int so, int tx, int bytes);

/* Send buffer if `tx` is above 0, else receive buffer, in KiB. */
int so_buf(int so, int tx, int kb);

#endif
