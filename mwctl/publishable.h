/* Whether the daemon could publish a record, judged by the daemon's own reading of it; the words come from the rules.
 */
#ifndef MWCTL_PUBLISHABLE_H
#define MWCTL_PUBLISHABLE_H

#include "mwctl/settings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace mwctl
{

/*
 * Each returns what keeps the daemon from it, or an empty text. The tree is read without locks, so a finding is looked
 * at again before it counts.
 */
std::string keeps_back_node(const Settings &settings, uint32_t uid);      /* any message of the node */
std::string keeps_back_datastore(const Settings &settings, uint32_t uid); /* its DS_PING */
std::string keeps_back_vdisk(const Settings &settings, uint32_t uid, const std::string &vdisk); /* one report of it */
std::string keeps_back_ping(const Settings &settings, uint32_t uid); /* its DS_PING or its PING */

} // namespace mwctl

#endif
