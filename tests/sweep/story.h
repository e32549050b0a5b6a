/*
 * One fixed life of a small cluster, as a host hears it from the nodes 6, 7 and 8: nodes, datastores, Plain VDisks and
 * a Snapshot, a generation that rises and drops a member, a deletion, a stale VDisk, and leaving a datastore. No VDisk
 * that is in the tree at the end has its record made anew on the way, so hearing it again changes nothing.
 */
#ifndef TESTS_SWEEP_STORY_H
#define TESTS_SWEEP_STORY_H

#include <map>
#include <string>
#include <vector>

std::vector<std::string> story();
/* What the host's other programs have written for the host's own node 9, which the daemon publishes. */
std::map<std::string, std::string> story_local();

#endif
