/* What happened to a record between two readings, as events: a comparison of plain values. */
#ifndef MWCTL_STORY_H
#define MWCTL_STORY_H

#include "mwctl/render.h"

#include <string>
#include <vector>

namespace mwctl
{

struct Event {
    std::string name;   /* stable: "vdisk-created" */
    std::string record; /* as in Trouble */
    Json detail;        /* an object; a change is {"from": …, "to": …} */
};

/*
 * What counts of a record, without what differs from report to report; null if the cluster has no such record. The
 * members of a VDisk are the nodes that its membership lists and that have reported.
 */
Json record_shape(const Cluster &cluster, const std::string &record);

/* The events that lead from one shape of the record to the other, in the order in which the daemon writes. */
std::vector<Event> record_events(const std::string &record, const Json &before, const Json &after);

/* Whether the record as it was read may be one that a writer was at: torn, empty or without what comes last. */
bool doubtful(const Cluster &cluster, const std::string &record);

/* The detail in a line for people; printable. */
std::string detail_text(const Json &detail);

} // namespace mwctl

#endif
