/*
 * One fixed life of a small cluster, as a host hears it from the nodes 6, 7 and 8: datastores, Plain VDisks and a
 * Snapshot, a generation that rises and drops a member, a deletion, a stale VDisk, datastores left. To hear it twice
 * leaves the same tree as once. And what the host's own programs wrote of its node 9, which the daemon publishes.
 */
#include <map>
#include <string>
#include <vector>

std::vector<std::string> story();
std::map<std::string, std::string> story_local();

/* What the test of failed allocations shares with its shim, in /mnt/alloc. */
struct Allocations {
    long countdown; /* how many allocations until one fails; 0 for never */
    long alive;
    long own; /* whether the daemon itself asked for the one that failed */
};
