/* A VDisk of this host's own, or a local node's share of one. */
#ifndef MWCTL_NEW_VDISK_H
#define MWCTL_NEW_VDISK_H

#include "mwctl/plan.h"

#include <optional>

namespace mwctl
{

struct VDiskRequest {
    RecordName vdisk, node;
    std::optional<RecordName> parent; /* makes it a Snapshot */
    Texts given;                      /* keys of the VDisk and of its member record */
};

/*
 * Makes what is missing of the record, of the node's member record and of the links, the one that has the VDisk
 * published last. Returns what it did, nothing if all was there; refuses or gives up before anything is written if the
 * request cannot be met.
 */
std::vector<std::string> make_vdisk(const Settings &settings, VDiskRequest request);

} // namespace mwctl

#endif
