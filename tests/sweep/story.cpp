#include "tests/sweep/story.h"

#include "tests/system/harness.h"

Lines story()
{
    return {aux_ping(7),
            ds_ping(7, "ds1"),
            ds_ping(8, "ds1"),
            ds_ping(6, "ds2"),
            message(MSG_PING, 7, report(plain("v1"), {7, 8}) + report(plain("v2")) + report(snapshot("s1", "v1"))),
            message(MSG_SINGLE_VDISK_PING, 8, report(plain("v1"), {7, 8})),
            message(MSG_SINGLE_VDISK_PING, 8, report(plain("v1", 6), {8})),
            vdisk_deleted(7, "s1"),
            message(MSG_PING, 7),
            message(MSG_DS_PING, 8),
            message(MSG_DS_PING, 6),
            message(MSG_HEARTBEAT, 7)};
}

Tree story_local()
{
    return node_record("9", "ds9") + datastore_record("ds9", "9") + vdisk_record(plain("w1"), {"9"}, "ds9");
}
