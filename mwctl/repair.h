/*
 * Mends what no message heals, so that peers' next messages bring back what is lost. Nothing that only this host knows
 * is touched: whatever names a local node, or is in a transaction, is left to the operator, and while the table of
 * local nodes cannot be read nothing is removed.
 */
#ifndef MWCTL_REPAIR_H
#define MWCTL_REPAIR_H

#include "mwctl/trouble.h"

#include <functional>
#include <string>
#include <vector>

namespace mwctl
{

/* Takes a step that was done, or, `left`, a trouble that could not be mended and why. */
using Tell = std::function<void(const std::string &text, bool left)>;

struct Repaired {
    std::string code, record;
    std::vector<std::string> steps;
};

/*
 * Mends those of `troubles` that are repairable, each under the lock of its record, where it is looked at once more:
 * one that is gone by then is passed over. `say` gets a line a step as it is done, and one for each trouble that could
 * not be mended. Rereads what it changed into `cluster`. Killed at any point, it leaves what a further run mends.
 */
std::vector<Repaired> repair(Cluster &cluster, const std::vector<Trouble> &troubles, const Tell &say);

/* Whether a VDisk belongs to peers alone and may go: no local node has a share or a link, and no transaction is open.
 */
bool peers_only(const Cluster &cluster, const VDisk &vdisk);

/* The target that a link has to have by its place in the tree, "VDisk/v1/snapshots/s1"; empty if it is no place of a
 * link. */
std::string link_target(const std::string &path);

} // namespace mwctl

#endif
