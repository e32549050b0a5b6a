/* What a command that changes something says at its end, when it holds no lock any more. */
#ifndef MWCTL_STEPS_H
#define MWCTL_STEPS_H

#include "mwctl/command.h"

#include <string>
#include <vector>

namespace mwctl
{

/* Prints each step as a line, or {"record", "steps"} with null for no record. Returns STATUS_DONE. */
int print_steps(const Options &options, const std::string &record, const std::vector<std::string> &steps);

} // namespace mwctl

#endif
