#include "tests/unit/fixture.h"

#include <netinet/tcp.h>

TEST_F(Unit, TransfersGoOnWhereTheyWereCutShortAndEndWithASignal)
{
    static std::function<void()> on_tick;
    std::string sent(10000, 's'), got(10000, '?');
    std::generate(sent.begin(), sent.end(), std::mt19937());
    int fds[2], made = pipe2(fds, O_DIRECT), ticks = 0, drained_by = 0;
    EXPECT_EQ(4, buf_tx(fds[1], "ab", 2, 1) + buf_tx(fds[1], "ab", 2, 1)); /* to be read one by one */
    EXPECT_TRUE(buf_rx(fds[0], got.data(), 4, 1) == 4 && got.starts_with("abab?"));
    ASSERT_EQ(4096, made + fcntl(fds[1], F_SETPIPE_SZ, 4096));
    EXPECT_EQ(O_WRONLY | O_DIRECT | O_NONBLOCK, (fd_blocking(fds[1], 0), fcntl(fds[1], F_GETFL)));
    /* A full pipe ends a vector's first write around each boundary, and the array then says what is left. */
    for (const auto &[length, first] : {std::pair(4097UL, 0), {4096, 2}, {4095, 2}, {4094, 3}, {4093, 3}}) {
        struct iovec iov[] = {{&sent[0], length}, {&sent[0], 0}, {&sent[length], 2}, {&sent[length + 2], 4}};
        const std::string rest = to_string(length - 4090) + "/" + to_string(4 - first);
        EXPECT_EQ(-1, iov_tx(fds[1], iov, 4, 1));
        EXPECT_NE(log.npos, log.find("\nerror: iov_tx(): writev(" + rest + "): Resource temporarily unavailable"));
        EXPECT_EQ(4096, buf_rx(fds[0], &got[0], 4096, 1));
        EXPECT_EQ(length - 4090, iov_tx(fds[1], iov + first, 4 - first, 1));
        buf_rx(fds[0], &got[4096], length - 4090, 1);
        EXPECT_EQ(sent.substr(0, length + 6), got.substr(0, length + 6));
    }
    log.clear();
    EXPECT_EQ(0, fd_blocking(fds[1], 1));

    /* One tick cuts a write short, the next meets a write that has moved nothing yet. */
    char *next = got.data();
    on_tick = std::function([&] { next += std::max(0L, ticks++ % 2 < drained_by ? read(fds[0], next, 4096) : 0); });
    struct sigaction interrupting = {};
    interrupting.sa_handler = static_cast<void (*)(int)>([](int) { on_tick(); });
    sigaction(SIGALRM, &interrupting, nullptr);
    ualarm(1000, 1000);
    EXPECT_EQ(-1, buf_rx(fds[0], got.data(), 5, 0));
    EXPECT_EQ(-1, buf_tx(fds[1], sent.data(), 5000, -1));
    EXPECT_EQ(4096, buf_rx(fds[0], got.data(), 4096, 1));
    fd_blocking(fds[0], 0);
    drained_by = 1;
    EXPECT_EQ(10000, buf_tx(fds[1], sent.data(), 10000, 1));
    ualarm(0, 0);
    fd_close(fds[1]);
    EXPECT_EQ(0, buf_rx(fds[0], next, static_cast<size_t>(got.data() + 10001 - next), 1)); /* 0, not what was there */
    EXPECT_EQ(sent, got);
    EXPECT_EQ(log, "error: buf_rx(): read(5): Interrupted system call\n"
                   "error: buf_tx(): write(904): Interrupted system call\nerror: buf_rx(): read(1): EOF\n");
}

TEST_F(Unit, SocketsAndTheirOptions)
{
    const int so = tcp_listen("127.0.0.1", 0, 0);
    EXPECT_EQ(-2, tcp_listen("192.0.2.1", 1, 1) + tcp_listen("localhost", 1, 1));
    EXPECT_EQ(so + 1, FdGuard(dup(so)).fd); /* both closed theirs */
    EXPECT_EQ(0, so_linger(so, 1, 7) + so_timeo(so, 1, 3) + so_timeo(so, 0, 4) + so_lowat(so, 0, 5) +
                     so_buf(so, 1, 16) + so_buf(so, 0, 32) + tcp_keepalive(so, 11, 12, 13));
    int value[4] = {}; /* both numbers of SO_LINGER are summed up */
    socklen_t len = sizeof(value);
    std::string seen;
    for (int opt : {SO_LINGER, SO_SNDTIMEO, SO_RCVTIMEO, SO_RCVLOWAT, SO_SNDBUF, SO_RCVBUF, SO_KEEPALIVE, -TCP_KEEPIDLE,
                    -TCP_KEEPINTVL, -TCP_KEEPCNT}) {
        getsockopt(so, opt > 0 ? SOL_SOCKET : IPPROTO_TCP, abs(opt), value, &len);
        seen += to_string(value[0] + value[1]) + " ";
    }
    EXPECT_EQ("8 3 4 5 32768 65536 1 11 12 13 ", seen); /* the kernel doubles the buffers */
}
