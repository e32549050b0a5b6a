/* VDiskTree: what the platform's red-black tree makes of VDisks in the order of their names. */
#include "mwd/object.h"

#include <cstring>

int VDiskCompare(struct VDisk *vda, struct VDisk *vdb)
{
    return strcmp(vda->vdiskuuid, vdb->vdiskuuid);
}

RB_GENERATE(VDiskTree, VDisk, entries, VDiskCompare)
