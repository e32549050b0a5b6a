#include "tests/unit/fixture.h"

#include "mwd/syslog.h"

#include <netinet/tcp.h>

/* A pipe that holds one page or some, so that longer writes are cut short. */
struct Pipe {
    int fds[2];

    explicit Pipe(int flags, int pages = 1)
    {
        EXPECT_EQ(0, pipe2(fds, flags)) << strerror(errno);
        EXPECT_EQ(pages * PAGE, fcntl(fds[1], F_SETPIPE_SZ, pages * PAGE)) << strerror(errno);
    }
    ~Pipe()
    {
        close(fds[0]);
        close(fds[1]);
    }

    static constexpr int PAGE = 4096;
};

static std::string random_text(size_t length)
{
    std::string text(length, '?');
    std::generate(text.begin(), text.end(), std::mt19937());
    return text;
}

TEST(Io, ReadGoesOnUntilAllIsThereAndTellsAnEarlyEnd)
{
    Pipe pipe(O_DIRECT, 2); /* what was written in two calls is read in two */
    std::string got(5, '?');
    EXPECT_EQ(2, buf_tx(pipe.fds[1], "ab", 2, 1));
    EXPECT_EQ(2, buf_tx(pipe.fds[1], "cd", 2, 1));
    EXPECT_EQ(4, buf_rx(pipe.fds[0], got.data(), 4, 1));
    EXPECT_EQ("abcd?", got);
    EXPECT_EQ(2, buf_tx(pipe.fds[1], "ef", 2, 1));
    close(std::exchange(pipe.fds[1], -1));
    EXPECT_EQ(0, buf_rx(pipe.fds[0], got.data(), 3, 1));
}

/* A full pipe ends a vector's first write around each boundary, and the array then holds what is left. */
TEST(Io, VectorGoesOnWhereItWasCutShort)
{
    const std::string sent = random_text(5000);
    std::string got(5000, '?');
    for (const auto &[length, first_left] : {std::pair(4097UL, 0), {4096, 2}, {4095, 2}, {4094, 3}, {4093, 3}}) {
        const Pipe pipe(O_DIRECT | O_NONBLOCK);
        char *text = const_cast<char *>(sent.data());
        struct iovec iov[] = {{text, length}, {text, 0}, {text + length, 2}, {text + length + 2, 4}};
        EXPECT_EQ(-1, iov_tx(pipe.fds[1], iov, 4, 1)) << length;
        EXPECT_EQ(4096, buf_rx(pipe.fds[0], &got[0], 4096, 1)) << length;
        EXPECT_EQ(length - 4090, iov_tx(pipe.fds[1], iov + first_left, 4 - first_left, 1)) << length;
        EXPECT_EQ(length - 4090, buf_rx(pipe.fds[0], &got[4096], length - 4090, 1)) << length;
        EXPECT_EQ(sent.substr(0, length + 6), got.substr(0, length + 6)) << length;
    }
}

static int ticks, drained_pipe = -1;
static char *drain_to; /* where the handler puts what it reads */

/* Every second tick empties the pipe, so that one cuts a write short and the next meets one that has moved nothing. */
static void tick(int)
{
    if (ticks++ % 2 == 0 && drained_pipe >= 0)
        drain_to += std::max(0L, read(drained_pipe, drain_to, Pipe::PAGE));
}

TEST(Io, SignalEndsATransferOrNot)
{
    struct sigaction interrupting = {};
    interrupting.sa_handler = tick;
    sigaction(SIGALRM, &interrupting, nullptr);
    const std::string sent = random_text(10000);
    std::string got(10000, '?');
    Pipe pipe(O_DIRECT);
    ualarm(1000, 1000);
    EXPECT_EQ(-1, buf_rx(pipe.fds[0], got.data(), 5, 0));
    EXPECT_EQ(-1, buf_tx(pipe.fds[1], sent.data(), 5000, -1));
    EXPECT_EQ(4096, buf_rx(pipe.fds[0], got.data(), 4096, 1)) << "what fitted";

    EXPECT_EQ(0, fd_blocking(pipe.fds[0], 0));
    drain_to = got.data();
    drained_pipe = pipe.fds[0];
    struct iovec rest = {const_cast<char *>(&sent[5000]), 5000};
    EXPECT_EQ(5000, buf_tx(pipe.fds[1], sent.data(), 5000, 1));
    EXPECT_EQ(5000, iov_tx(pipe.fds[1], &rest, 1, 1));
    ualarm(0, 0);
    drained_pipe = -1;
    EXPECT_EQ(0, fd_blocking(pipe.fds[0], 1));
    const auto left = static_cast<size_t>(&got[9999] - drain_to + 1);
    EXPECT_EQ(left, buf_rx(pipe.fds[0], drain_to, left, 1));
    EXPECT_EQ(sent, got);
}

TEST(Io, OptionsReachTheKernel)
{
    const FdGuard so(socket(AF_INET, SOCK_STREAM, 0)), file(open("/tmp", O_TMPFILE | O_RDWR, 0600));
    for (int result : {so_linger(so.fd, 1, 7), so_timeo(so.fd, 1, 3), so_timeo(so.fd, 0, 4), so_lowat(so.fd, 0, 5),
                       so_buf(so.fd, 1, 16), so_buf(so.fd, 0, 32), tcp_keepalive(so.fd, 11, 12, 13)})
        EXPECT_EQ(0, result);
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
