/* What the heard datagrams come to: how many of which kind from whom, and the troubles that only the wire shows. */
#ifndef MWCTL_SNIFF_TALLY_H
#define MWCTL_SNIFF_TALLY_H

#include "mwctl/decode.h"
#include "mwctl/trouble.h"

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace mwctl
{

class SniffTally
{
  public:
    struct Row {
        uint64_t count = 0, bytes = 0, malformed = 0;
    };
    using Key = std::pair<std::string, std::string>; /* source and kind */

    /* Counts a datagram from `address`, dotted, and `port`. Sources without end, as only a forger has, share a row. */
    void add(const std::string &address, uint16_t port, const Message &message);

    const std::map<Key, Row> &rows() const
    {
        return rows_;
    }
    /* By node; a code a node. */
    std::vector<Trouble> troubles() const;

  private:
    struct Node {
        std::set<std::string> addresses;
        uint8_t major = 0, minor = 0; /* the latest */
        size_t longest_ping = 0;
    };
    std::map<Key, Row> rows_;
    std::map<uint32_t, Node> nodes_;
};

} // namespace mwctl

#endif
