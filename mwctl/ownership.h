/* Whose a record is. Of what peers own, their next message writes everything again. */
#ifndef MWCTL_OWNERSHIP_H
#define MWCTL_OWNERSHIP_H

#include "mwctl/cluster.h"
#include "mwctl/record_name.h"

namespace mwctl
{

/* Whether the node is this host's own, with or without a record in `cluster`. */
bool own_node(const Cluster &cluster, uint32_t uid);

/*
 * Whether the record is this host's own, or shared with peers: a node of this host is the node, the member, one of the
 * datastore's members, or has a share of the VDisk; or the datastore or VDisk is nobody's yet. `cluster` was read
 * around the record.
 */
bool own_record(const Cluster &cluster, const RecordName &record);

/* Whether the cluster has the record. */
bool record_exists(const Cluster &cluster, const RecordName &record);

/* The cluster around one record; a member's is that of its VDisk. */
Cluster read_around(const Settings &settings, const RecordName &record);

/* Gives up with status 3 if there is no such record. */
void require_record(const Cluster &cluster, const RecordName &record);

} // namespace mwctl

#endif
