#include "tests/unit/fixture.h"

#include "mwd/syslog.h"

#include <netinet/tcp.h>

static int fds[2], ticks, drains;
static char *next;

TEST(Io, TransfersGoOnWhereTheyWereCutShortAndEndWithASignal)
{
    std::string sent(10000, 's'), got(10001, '?');
    std::generate(sent.begin(), sent.end(), std::mt19937());
    ASSERT_EQ(0, pipe2(fds, O_DIRECT));
    EXPECT_EQ(4, buf_tx(fds[1], "ab", 2, 1) + buf_tx(fds[1], "ab", 2, 1)); /* to be read one by one */
    EXPECT_TRUE(buf_rx(fds[0], got.data(), 4, 1) == 4 && got.starts_with("abab?"));
    ASSERT_EQ(4096, fcntl(fds[1], F_SETPIPE_SZ, 4096) + fd_blocking(fds[1], 0));
    /* A full pipe ends a vector's first write around each boundary, and the array then holds what is left. */
    for (const auto &[length, first] : {std::pair(4097UL, 0), {4096, 2}, {4095, 2}, {4094, 3}, {4093, 3}}) {
        struct iovec iov[] = {{&sent[0], length}, {&sent[0], 0}, {&sent[length], 2}, {&sent[length + 2], 4}};
        EXPECT_EQ(-1, iov_tx(fds[1], iov, 4, 1));
        EXPECT_EQ(4096, buf_rx(fds[0], &got[0], 4096, 1));
        EXPECT_EQ(length - 4090, iov_tx(fds[1], iov + first, 4 - first, 1));
        buf_rx(fds[0], &got[4096], length - 4090, 1);
        EXPECT_EQ(sent.substr(0, length + 6), got.substr(0, length + 6));
    }
    /* One tick cuts a write short, the next meets a write that has moved nothing yet. */
    struct sigaction interrupting = {};
    interrupting.sa_handler = [](int) {
        next += ticks++ % 2 < drains ? std::max(0L, read(fds[0], next, 4096)) : 0;
    };
    sigaction(SIGALRM, &interrupting, nullptr);
    ualarm(1000, 1000);
    EXPECT_EQ(-1, buf_rx(fds[0], got.data(), 5, 0));
    EXPECT_EQ(-1, (fd_blocking(fds[1], 1), buf_tx(fds[1], sent.data(), 5000, -1)));
    EXPECT_EQ(4096, buf_rx(fds[0], got.data(), 4096, 1) + fd_blocking(fds[0], 0));
    next = got.data(), drains = 1;
    struct iovec rest = {&sent[5000], 5000};
    EXPECT_EQ(10000, buf_tx(fds[1], sent.data(), 5000, 1) + iov_tx(fds[1], &rest, 1, 1));
    ualarm(0, 0), drains = 0;
    EXPECT_EQ(0, (fd_close(fds[1]), buf_rx(fds[0], next, static_cast<size_t>(&got[10000] - next) + 1, 1))); /* EOF */
    EXPECT_EQ(sent + "?", got);
}

TEST(Io, OptionsReachTheKernel)
{
    const FdGuard so(socket(AF_INET, SOCK_STREAM, 0)), file(open("/tmp", O_TMPFILE | O_RDWR, 0600));
    EXPECT_EQ(0, so_linger(so.fd, 1, 7) + so_timeo(so.fd, 1, 3) + so_timeo(so.fd, 0, 4) + so_lowat(so.fd, 0, 5) +
                     so_buf(so.fd, 1, 16) + so_buf(so.fd, 0, 32) + tcp_keepalive(so.fd, 11, 12, 13));
    int value[4] = {}; /* both numbers of SO_LINGER are summed up */
    socklen_t len = sizeof(value);
    std::string seen;
    for (int opt : {SO_LINGER, SO_SNDTIMEO, SO_RCVTIMEO, SO_RCVLOWAT, SO_SNDBUF, SO_RCVBUF, SO_KEEPALIVE, -TCP_KEEPIDLE,
                    -TCP_KEEPINTVL, -TCP_KEEPCNT}) {
        getsockopt(so.fd, opt > 0 ? SOL_SOCKET : IPPROTO_TCP, abs(opt), value, &len);
        seen += to_string(value[0] + value[1]) + " ";
    }
    EXPECT_EQ("8 3 4 5 32768 65536 1 11 12 13 ", seen); /* the kernel doubles the buffers */
    EXPECT_TRUE(fd_truncate(file.fd, 5000000000) == 0 && lseek(file.fd, 0, SEEK_END) == 5000000000);
}

TEST(Io, FailuresNameTheCallAndTheStep)
{
    const FdGuard so(socket(AF_INET, SOCK_STREAM, 0)), null(open("/dev/null", O_RDONLY));
    openlog("io", LOG_PERROR, LOG_USER);
    testing::internal::CaptureStderr();
    const struct {
        int result, expected, error;
        const char *line;
    } rows[] = {
        {so_linger(-1, 1, 7), -1, EBADF, "so_linger(): setsockopt(SO_LINGER, 1, 7)"},
        {so_timeo(-1, 1, 3), -1, EBADF, "so_timeo(): setsockopt(SO_SNDTIMEO, 3)"},
        {so_timeo(-1, 0, 4), -1, EBADF, "so_timeo(): setsockopt(SO_RCVTIMEO, 4)"},
        {so_lowat(-1, 1, 5), -1, EBADF, "so_lowat(): setsockopt(SO_SNDLOWAT, 5)"},
        {so_lowat(-1, 0, 6), -1, EBADF, "so_lowat(): setsockopt(SO_RCVLOWAT, 6)"},
        {so_buf(-1, 1, 16), -1, EBADF, "so_buf(): setsockopt(SO_SNDBUF, 16384)"},
        {so_buf(-1, 0, 32), -1, EBADF, "so_buf(): setsockopt(SO_RCVBUF, 32768)"},
        {tcp_keepalive(-1, 1, 1, 1), -1, EBADF, "tcp_keepalive(): setsockopt(SO_KEEPALIVE)"},
        {tcp_keepalive(so.fd, 0, 1, 1), -2, EINVAL, "tcp_keepalive(): setsockopt(TCP_KEEPIDLE)"},
        {tcp_keepalive(so.fd, 1, 0, 1), -3, EINVAL, "tcp_keepalive(): setsockopt(TCP_KEEPINTVL)"},
        {tcp_keepalive(so.fd, 1, 1, 0), -4, EINVAL, "tcp_keepalive(): setsockopt(TCP_KEEPCNT)"},
        {fd_truncate(-1, 5000000000), -1, EBADF, "fd_truncate(): ftruncate(-1, 5000000000)"},
        {fd_blocking(-1, 0), -1, EBADF, "fd_blocking(): fcntl(F_GETFL)"},
    };
    std::string lines;
    for (const auto &[result, expected, error, line] : rows) {
        EXPECT_EQ(expected, result) << line;
        lines += std::string("io: error: ") + line + ": " + strerror(error) + "\n";
    }
    EXPECT_EQ(lines, testing::internal::GetCapturedStderr());
}
