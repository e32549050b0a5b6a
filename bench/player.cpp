/*
 * Plays the peers of the daemon whose PID comes last, or of the floor in its place.
 *
 *   bench_player feed KIND VDISKS COUNT PID   sends COUNT messages, pausing so that none is lost; prints the receiver's
 *                                             CPU time per message in nanoseconds
 *   bench_player fill NODES VDISKS PID        has every node say all that it has to say, once
 *   bench_player cluster NODES VDISKS PID     has the nodes speak at the default intervals; prints seven numbers
 *
 * These are: by how much time was compressed; the receiver's share of a core and of the time, in percent; its longest
 * turn in milliseconds; datagrams sent; datagrams lost; how many PINGs its socket holds.
 */
#include "bench/messages.h"

#include <chrono>
#include <compare>
#include <csignal>
#include <fstream>
#include <queue>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

using std::string;

constexpr double PING_INTERVAL = 90, HEARTBEAT_INTERVAL = 30;

static_assert(PORT == 0x1F40, "as /proc/net/udp shows it below");

static pid_t receiver;
static int so, sink;
static char buf[MSG_LEN_MAX];

static double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

static void pause_for(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

/* The file `name` of the receiver in /proc. */
static string process_file(const char *name)
{
    std::ifstream file("/proc/" + std::to_string(receiver) + "/" + name);
    string text;
    if (!std::getline(file, text)) {
        fprintf(stderr, "the receiver is gone\n");
        exit(1);
    }
    return text;
}

static double cpu_seconds()
{
    return std::stod(process_file("schedstat")) / 1e9;
}

/* What waits in the receiver's UDP socket, the one that is bound to no address, and how many found no room there. */
struct Queue {
    unsigned long queued, drops;
};

static Queue receive_queue()
{
    std::ifstream file("/proc/net/udp");
    for (string line; std::getline(file, line);) {
        Queue queue;
        if (sscanf(line.c_str(), " %*d: 00000000:1F40 %*s %*x %*x:%lx %*s %*s %*s %*s %*s %*s %*s %lu", &queue.queued,
                   &queue.drops) == 2)
            return queue;
    }
    exit(1);
}

static void drain_sink()
{
    static char scrap[MSG_LEN_MAX];
    while (recv(sink, scrap, sizeof(scrap), MSG_DONTWAIT) >= 0)
        ;
}

/* Waits until the receiver has done all that came and sleeps in select. */
static void wait_idle()
{
    for (;;) {
        drain_sink();
        string stat = process_file("stat");
        if (stat[stat.rfind(')') + 2] == 'S' && receive_queue().queued == 0)
            return;
        pause_for(50e-6);
    }
}

static size_t unpaced; /* bytes of the receiver's buffer that went out since it was last seen to have room */

/* Waits until the receiver's socket has room for any message, yet before it has nothing to do. */
static void pace()
{
    while (unpaced > 60000 && receive_queue().queued >= 40000) {
        drain_sink();
        pause_for(20e-6);
    }
    unpaced = unpaced > 60000 ? 0 : unpaced;
}

static void transmit(uint8_t type, const Cluster &cluster, uint32_t uid)
{
    size_t length = put_message(buf, type, cluster, uid);
    send(so, buf, length, 0);
    unpaced += 2 * length + 1024;
}

static uint8_t message_of(const string &kind, unsigned int turn)
{
    static const uint8_t mix[] = {MSG_HEARTBEAT, MSG_AUX_PING, MSG_HEARTBEAT, MSG_DS_PING, MSG_HEARTBEAT, MSG_PING};
    if (kind == "mix")
        return mix[turn % sizeof(mix)];
    return kind == "aux" ? MSG_AUX_PING : kind == "ds" ? MSG_DS_PING : kind == "ping" ? MSG_PING : MSG_HEARTBEAT;
}

static void feed(const string &kind, const Cluster &cluster, unsigned int count)
{
    wait_idle();
    unsigned long drops = receive_queue().drops;
    double before = cpu_seconds();
    /* A publication starts with whatever comes in: here the heartbeat of a node that nobody knows. */
    for (unsigned int i = 0; i < count; i++) {
        pace();
        transmit(message_of(kind, i), cluster, kind == "publish" ? 8 : 7);
    }
    wait_idle();
    if (receive_queue().drops != drops) {
        fprintf(stderr, "datagrams were lost\n");
        exit(1);
    }
    printf("%.0f\n", (cpu_seconds() - before) / count * 1e9);
}

struct Turns {
    double mean, longest;
};

/* How long the receiver is busy with one PING; the longest may be the publication of its own node, the first. */
static Turns measure_turns(const Cluster &cluster)
{
    Turns turns = {};
    double total = 0;
    for (uint32_t uid = 1; uid <= std::min(cluster.nodes, 50U) && total < 10; uid++) {
        wait_idle();
        if (uid == 1)
            kill(receiver, SIGUSR1);
        double began = now();
        transmit(uid == 1 ? MSG_HEARTBEAT : MSG_PING, cluster, uid);
        wait_idle();
        double turn = now() - began;
        turns.longest = std::max(turns.longest, turn);
        turns.mean = (total += turn) / uid;
    }
    return turns;
}

struct Event {
    double at;
    uint32_t uid;
    bool heartbeat;

    auto operator<=>(const Event &) const = default;
};
using Events = std::priority_queue<Event, std::vector<Event>, std::greater<>>; /* the earliest first */

/* Node 1 is the receiver's own; all others are played, each from a moment of its own. */
static Events first_events(const Cluster &cluster, double scale)
{
    std::mt19937 random(1);
    std::uniform_real_distribution<double> phase(0, 1 / scale);
    Events events;
    for (uint32_t uid = 1; uid <= cluster.nodes; uid++) {
        events.push({phase(random) * PING_INTERVAL, uid, false});
        events.push({phase(random) * HEARTBEAT_INTERVAL, uid, true});
    }
    return events;
}

/* Returns how many datagrams went out. */
static unsigned long play(const Cluster &cluster, const Event &event)
{
    drain_sink();
    if (event.uid == 1 && !event.heartbeat)
        kill(receiver, SIGUSR1);
    if (event.uid == 1)
        return 0;
    if (!event.heartbeat)
        for (uint8_t type : {MSG_DS_PING, MSG_AUX_PING})
            transmit(type, cluster, event.uid);
    transmit(event.heartbeat ? MSG_HEARTBEAT : MSG_PING, cluster, event.uid);
    return event.heartbeat ? 1 : 3;
}

/* How many PINGs the receiver's socket holds for it. */
static unsigned long pings_held(const Cluster &cluster)
{
    wait_idle();
    kill(receiver, SIGSTOP);
    unsigned long held = 0, drops = receive_queue().drops;
    for (; receive_queue().drops == drops; held++)
        transmit(MSG_PING, cluster, 2);
    kill(receiver, SIGCONT);
    return held - 1;
}

static void play_cluster(const Cluster &cluster)
{
    const Turns turns = measure_turns(cluster);
    double busy = turns.mean * cluster.nodes / PING_INTERVAL;
    /* Time is compressed only as far as that leaves the receiver idle nine tenths of it. */
    double scale = std::clamp(0.1 / busy, 1.0, 10.0), seconds = busy > 1 ? PING_INTERVAL / 3 : PING_INTERVAL / scale;
    Events events = first_events(cluster, scale);
    unsigned long drops = receive_queue().drops, sent = 0;
    double began = now(), cpu = cpu_seconds();
    while (events.top().at < seconds) {
        Event event = events.top();
        events.pop();
        pause_for(event.at - (now() - began));
        sent += play(cluster, event);
        event.at += (event.heartbeat ? HEARTBEAT_INTERVAL : PING_INTERVAL) / scale;
        events.push(event);
    }
    pause_for(seconds - (now() - began));
    double share = (cpu_seconds() - cpu) / (now() - began) / scale;
    drops = receive_queue().drops - drops;
    printf("%.1f %.3f %.2f %.1f %lu %lu %lu\n", scale, share * 100, busy * 100, turns.longest * 1000, sent, drops,
           pings_held(cluster));
}

int main(int argc, char **argv)
{
    if (argc < 5)
        return 2;
    string mode = argv[1];
    auto number = [argv](int i) {
        return static_cast<unsigned int>(atoi(argv[i]));
    };
    receiver = atoi(argv[argc - 1]);
    struct sockaddr_in receiver_addr = address_of(INADDR_LOOPBACK, PORT);
    so = bound_socket(SOCK_DGRAM, INADDR_LOOPBACK, 0);
    connect(so, reinterpret_cast<struct sockaddr *>(&receiver_addr), sizeof(receiver_addr));
    int size = 64 << 20;
    sink = bound_socket(SOCK_DGRAM, INADDR_LOOPBACK + 1, PORT);
    setsockopt(sink, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
    const Cluster cluster = {number(2), number(3), 3};
    if (mode == "feed")
        feed(argv[2], {7, number(3), 1}, number(4));
    if (mode == "cluster")
        play_cluster(cluster);
    for (uint32_t uid = 1; mode == "fill" && uid <= cluster.nodes; uid++)
        for (uint8_t type : {MSG_DS_PING, MSG_AUX_PING, MSG_PING}) {
            pace();
            transmit(type, cluster, uid);
        }
    wait_idle();
    return 0;
}
