/* The counters, and the two lines that show them. */
#include "mwd/controller_internal.h"

#include "mwd/syslog.h"

#include <cstring>

/* The long arrays count from the start of the process, the short ones from the last lines. */
static long long stats_rx_long[STATS_RX_KINDS], stats_rx_short[STATS_RX_KINDS];
static long long stats_tx_long[STATS_TX_KINDS], stats_tx_short[STATS_TX_KINDS];

void count_rx(int idx)
{
    stats_rx_long[idx]++;
    stats_rx_short[idx]++;
}

void count_tx(int idx)
{
    stats_tx_long[idx]++;
    stats_tx_short[idx]++;
}

/* A pair of counters for "%lld/%lld": since the last lines, and since the start. */
#define RX_PAIR(idx) stats_rx_short[idx], stats_rx_long[idx]
#define TX_PAIR(idx) stats_tx_short[idx], stats_tx_long[idx]

void stats()
{
    log_notice("RX: ALL=%lld/%lld PING=%lld/%lld DS_PING=%lld/%lld AUX_PING=%lld/%lld SV_PING=%lld/%lld "
               "VDISK_DEL=%lld/%lld HEARTBEAT=%lld/%lld UNKNOWN=%lld/%lld",
               RX_PAIR(STATS_ALL), RX_PAIR(STATS_PING), RX_PAIR(STATS_DS_PING), RX_PAIR(STATS_AUX_PING),
               RX_PAIR(STATS_SV_PING), RX_PAIR(STATS_VDISK_DEL), RX_PAIR(STATS_HEARTBEAT), RX_PAIR(STATS_UNKNOWN));
    memset(stats_rx_short, 0, sizeof(stats_rx_short));
    log_notice("TX: ALL=%lld/%lld PING=%lld/%lld DS_PING=%lld/%lld AUX_PING=%lld/%lld SV_PING=%lld/%lld "
               "VDISK_DEL=%lld/%lld HEARTBEAT=%lld/%lld",
               TX_PAIR(STATS_ALL), TX_PAIR(STATS_PING), TX_PAIR(STATS_DS_PING), TX_PAIR(STATS_AUX_PING),
               TX_PAIR(STATS_SV_PING), TX_PAIR(STATS_VDISK_DEL), TX_PAIR(STATS_HEARTBEAT));
    memset(stats_tx_short, 0, sizeof(stats_tx_short));
}
