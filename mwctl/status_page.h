/* The one page of `status`. */
#ifndef MWCTL_STATUS_PAGE_H
#define MWCTL_STATUS_PAGE_H

#include "mwctl/render.h"

#include <string>
#include <vector>

namespace mwctl
{

/*
 * What a cluster read as a summary and its troubles are to an operator: the state first, then the daemon, nodes,
 * datastores and VDisks, then each trouble with its action. Long lists are cut, and what they leave out is counted.
 */
std::string status_page(const Cluster &cluster, const std::vector<Trouble> &troubles, const Style &style);

} // namespace mwctl

#endif
