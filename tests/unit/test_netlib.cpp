#include "tests/unit/fixture.h"

#include <regex>

static std::string dumped()
{
    return std::regex_replace(std::exchange(Unit::log, ""), std::regex("\ndebug: \\w+_dump\\(\\): "), " ");
}

/* In these bytes no number is like its neighbours, and no text ends before its field. */
TEST_F(Unit, DumpsEveryFieldInOrder)
{
    setlogmask(LOG_UPTO(LOG_DEBUG));
    std::string bytes = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz012345678";
    (bytes += bytes + bytes + bytes)[2] = MSG_VDISK_DELETED;
    hdr_dump(reinterpret_cast<const Hdr *>(bytes.data()));
    EXPECT_EQ(dumped(), "debug: hdr_dump(): major=65 minor=66 type=34 [VDISK_DELETED] nodestatus=68 uid=1212630597 "
                        "vendor=IJKLMNOPQRSTUVWXYZabcdefghijklmn model=opqrstuvwxyz012345678ABCDEFGHIJK "
                        "revision.freespace=1330531660 revision.utilization=1397903696 "
                        "revision.rev=TUVWXYZabcdefghijklmnopq "
                        "serial=rstuvwxyz012345678ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrst "
                        "hbtl=uvwxyz012345678ABCDEFGHIJKLMNOPQ size=1431589714 performance=86 hostid=22615\n");
    bytes.replace(119, 2, 2, '\0');
    vde_dump(reinterpret_cast<const VDiskEntry *>(bytes.data()));
    EXPECT_NE(bytes.npos, dumped().find(" snapshot=0 description=RSTUVWXYZabcdefghijklmnopqrstuvw status=120 "));
    bytes.replace(119, 2, "\1\2").replace(78, 7, "\x6f\x03\xef\x03\x09\x05\x02");
    vde_dump(reinterpret_cast<const VDiskEntry *>(bytes.data()));
    EXPECT_EQ(dumped(), "debug: vde_dump(): transaction_id=1143095873 uuid=EFGHIJKLMNOPQR "
                        "membership_gen_count=30584 name=UVWXYZabcdefghijklmnopqrstuv sector_size=825260665 "
                        "numkeys=4699566917121487666 sectors=5280548930227290946 seqno=5859270312931904330 "
                        "snapshot=513 parent=YZabcdefghijkl snaptime=111-03-1007_09.05.02 status=120 port=31353 "
                        "replicas=12592 st_mem=50 st_mems=51 st_size=13620 members=16696 frontends=17218\n");
    bytes[81] = '\xff';
    dse_dump(reinterpret_cast<const DatastoreEntry *>(bytes.data()));
    EXPECT_EQ(dumped(), "debug: dse_dump(): uuid=AB\"DEFGHIJKLMN name=OPQRSTUVWXYZabcdefghijklmnopqrst "
                        "description=uvwxyz012345678ABCDEFGHIJKLMNOPQ sector_size=-1113233 replicas=1289 "
                        "stripes=22786 overcommit=90\n");
    fee_dump(reinterpret_cast<const FrontendEntry *>("\x02\x01\xa8\xc0"));
    mbe_dump(reinterpret_cast<const MemberEntry *>("\x02\x01\xa8\xc0"));
    EXPECT_EQ("debug: fee_dump(): node=192.168.1.2 node=3232235778\n", dumped());
    EXPECT_STREQ("UNKNOWN", msg_type(reinterpret_cast<const Hdr *>("\0\0\43")));
    EXPECT_STREQ("UNKNOWN", msg_type(reinterpret_cast<const Hdr *>("\0\0\44")));
}
