/*
 * What is wrong: the one list of rules that turns a Cluster into troubles, each with the command that mends it. A rule
 * looks at values alone and never at the system.
 */
#ifndef MWCTL_TROUBLE_H
#define MWCTL_TROUBLE_H

#include "mwctl/cluster.h"

#include <set>
#include <string>
#include <vector>

namespace mwctl
{

enum class Severity { warning, error };

struct Trouble {
    const char *code = ""; /* stable: "NODE_SILENT" */
    Severity severity = Severity::warning;
    std::string record; /* "vdisk/v1", "node/7", "lock/NODE-7", "daemon", "config" */
    std::string file;   /* relative to the tree, or absolute outside; empty if it is about no file */
    std::string text;   /* one sentence */
    std::string action; /* what to type, or to decide */
    bool repairable = false;
    std::set<uint32_t> holds_back; /* nodes of this host some or all of whose messages are not sent for it */
    /* The records to read again before this counts, none if it counts at once; and the files of the tree that a writer
     * at work would have changed between the two readings. */
    std::set<std::string> involved, witnesses;

    /* The same finding, whatever its words. */
    bool same(const Trouble &other) const;
};

/*
 * The troubles that the cluster shows, errors first, then by record. What was not read at the needed depth shows none,
 * and of a scope that is one record only that record's own. Unconfirmed: a writer may have been at work.
 */
std::vector<Trouble> find_troubles(const Cluster &cluster);

/*
 * The troubles that stand: those that readings at least 50 ms apart show alike, from files that nobody wrote meanwhile
 * and under locks that no living process holds. Updates `cluster` by what was read again. Takes 50 ms, at most about
 * half a second, if there is anything to confirm, and no time if not.
 */
std::vector<Trouble> confirmed_troubles(Cluster &cluster);

/* Every code with its severity, for help, completion and metrics. */
struct TroubleCode {
    const char *code;
    Severity severity;
};
const std::vector<TroubleCode> &trouble_codes();

} // namespace mwctl

#endif
