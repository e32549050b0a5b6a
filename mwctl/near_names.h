/* Names that somebody may have meant. */
#ifndef MWCTL_NEAR_NAMES_H
#define MWCTL_NEAR_NAMES_H

#include "mwctl/settings.h"

#include <string>

namespace mwctl
{

/* The number of a node as it stands on the command line; refuses what is none. */
uint32_t node_number(const std::string &text);

/* Gives up: the record ("vdisk/v1") is not in the tree. The line names up to three records with a similar name. */
[[noreturn]] void give_up_absent(const Settings &settings, const std::string &record);

} // namespace mwctl

#endif
