/* What an operator calls a record: node/7, datastore/ds1, vdisk/v1, and vdisk/v1/7 for a member's share of a VDisk. */
#ifndef MWCTL_RECORD_NAME_H
#define MWCTL_RECORD_NAME_H

#include "mwctl/attributes.h"

#include <string>
#include <string_view>

namespace mwctl
{

struct RecordName {
    Kind kind;
    std::string name; /* of the node, datastore or VDisk; of a member the VDisk's */
    uint32_t uid = 0; /* of a node or a member */

    std::string text() const; /* "vdisk/v1/7" */
    std::string path() const; /* relative to the tree: "VDisk/v1/memberinfo/7" */
    /* The record whose lock covers this one: a member's is that of its VDisk. */
    RecordName locked() const;
};

/* Each refuses, with status 2, what cannot be the name of such a record. */
RecordName parse_record(std::string_view text);
RecordName node_record(std::string_view uid);
RecordName datastore_record(std::string_view uuid);
RecordName vdisk_record(std::string_view uuid);
RecordName member_record(const RecordName &vdisk, uint32_t uid);

/* "node", "datastore", "vdisk", "member". */
std::string_view kind_word(Kind kind);

} // namespace mwctl

#endif
