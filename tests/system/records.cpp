/* Messages, and the records that say the same. */
#include "tests/system/harness.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <sstream>

Tree operator+(Tree a, const Tree &b)
{
    a.insert(b.begin(), b.end());
    return a;
}

Lines operator+(Lines a, const Lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Tree edit(Tree tree, const std::string &edits, const std::string &dir)
{
    std::istringstream words(edits);
    for (std::string word; words >> word;) {
        const size_t gone = word[0] == '-', mark = std::min(word.find_first_of("=:>"), word.size());
        std::string path = dir + word.substr(gone, mark - gone), value = word.substr(std::min(mark + 1, word.size()));
        for (const auto &[sign, place] :
             {std::pair{"V/", "VDisk/v1/"}, {"M7/", "VDisk/v1/memberinfo/7/"}, {"M8/", "VDisk/v1/memberinfo/8/"}})
            if (path.starts_with(sign))
                path.replace(0, strlen(sign), place);
        std::replace(value.begin(), value.end(), '|', '\n');
        if (gone)
            std::erase_if(tree, [&](const auto &entry) { return entry.first.starts_with(path); });
        else if (mark == word.size())
            tree[path] = "/";
        else
            tree[path] = word[mark] == '=' ? value + "\n" : word[mark] == '>' ? "-> " + value : value;
    }
    return tree;
}

std::string diff(const Tree &before, const Tree &after)
{
    std::string lines;
    for (const auto &[path, value] : before + after) {
        auto old = before.find(path), now = after.find(path);
        if (old == before.end() || now == after.end())
            lines += (old == before.end() ? "+" : "-") + path + ": " + value + "\r";
        else if (old->second != now->second)
            lines += "~" + path + ": " + old->second + " => " + now->second + "\r";
    }
    std::replace(lines.begin(), lines.end(), '\n', '|');
    std::replace(lines.begin(), lines.end(), '\r', '\n');
    return lines;
}

template <typename Record> static std::string bytes(const Record &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof(record)};
}

std::string message(uint8_t type, uint32_t uid, const std::string &body)
{
    const Hdr hdr = {2, 1, type, 2, uid, "vendor", "model", {1001, 1002, "rev"}, "serial", "hbtl", 1003, 104, 1005};
    return bytes(hdr) + body;
}

std::string ds_ping(uint32_t uid, const char *dsuuid)
{
    DatastoreEntry dse = {"", "dsname", "dsdescr", 512, 2, 3, 4};
    memcpy(dse.uuid, dsuuid, strnlen(dsuuid, UUID_WIDTH));
    return message(MSG_DS_PING, uid, bytes(dse));
}

std::string aux_ping(uint32_t uid)
{
    return message(MSG_AUX_PING, uid, '\0' + bytes(AuxPingData{28, 201, 202, 203, 204, 205, 206}));
}

std::string vdisk_deleted(uint32_t uid, const char *uuid)
{
    VDiskDeleteEntry vdde = {uid, ""};
    memcpy(vdde.uuid, uuid, strnlen(uuid, UUID_WIDTH));
    return message(MSG_VDISK_DELETED, uid, bytes(vdde));
}

VDiskEntry plain(const char *uuid, unsigned gen)
{
    VDiskEntry vde = {
        0, "", {"", "name", htons(gen & 0xffff)}, 301, 302, 303, 304, {"descr"}, 5, 306, 307, 8, 9, 310, 0, 0, 0};
    memcpy(vde.name.old_mshipgencnt, std::to_string(100 + gen % 100).data() + 1, 2);
    memcpy(vde.uuid, uuid, strnlen(uuid, UUID_WIDTH));
    return vde;
}

VDiskEntry snapshot(const char *uuid, const char *parent, unsigned gen)
{
    VDiskEntry vde = plain(uuid, gen);
    vde.snapshot = 1, vde.description.snap = {11, 3, 7, 9, 5, 2, "", ""};
    memcpy(vde.description.snap.parent, parent, strnlen(parent, UUID_WIDTH));
    return vde;
}

std::string report(VDiskEntry vde, const Uids &members, const Uids &frontends)
{
    vde.members = members.size() & 0xffff, vde.frontends = frontends.size() & 0xffff;
    std::string text = bytes(vde);
    for (const Uids *list : {&members, &frontends})
        text.append(reinterpret_cast<const char *>(list->data()), list->size() * sizeof(uint32_t));
    return text;
}

// clang-format off
Tree node_record(const std::string &uid, const std::string &dsuuid)
{
    return edit({{"Node/", "/"}, {"Node/" + uid + "/", "/"}},
        "vdisks/ version=v2.1 status=1 nodestatus=2 vendor=vendor model=model freespace=1001 utilization=1002 hbtl=hbtl "
        "revision=rev serial=serial size=1003 performance=104 hostid=1005 backupchannel=0.0.0.0 ipaddr=127.0.0.2 "
        "lastping=now allocatedspace=201 curvdisks=202 curvdisksforctrl=203 maxvdisksforctrl=204 memtotal=205 "
        "memavail=206 uuid=" + uid + (dsuuid.empty() ? "" : " datastoremember=" + dsuuid), "Node/" + uid + "/");
}

Tree datastore_record(const std::string &uuid, const std::string &member)
{
    return edit({{"Datastore/", "/"}, {"Datastore/" + uuid + "/", "/"}},
        "members/ vdisks/ name=dsname description=dsdescr sector_size=512 replicas=2 stripes=3 overcommit=4 uuid=" +
        uuid + (member.empty() ? "" : " members/" + member + ">../../../Node/" + member), "Datastore/" + uuid + "/");
}

Tree vdisk_record(const VDiskEntry &vde, const Lines &members, const std::string &dsuuid)
{
    const char *parent = vde.description.snap.parent;
    const std::string uuid(vde.uuid, strnlen(vde.uuid, UUID_WIDTH)), dir = "VDisk/" + uuid + "/";
    const std::string gen = std::to_string(ntohs(vde.name.mshipgencnt)), link = uuid + ">../../../VDisk/" + uuid;
    const std::string kind = vde.snapshot == 0 ? " snapshot=0 snapshots/ description=descr" : " snapshot=1 snaptime="
        "11-03-07_09.05.02 parent=" + std::string(parent, strnlen(parent, UUID_WIDTH));
    Tree tree = edit({{"VDisk/", "/"}, {dir, "/"}}, "memberinfo/ name=name sector_size=301 sectors=303 replicas=307 "
        "st_mems=9 st_size=310 uuid=" + uuid + " highest_gen_count=" + gen + kind, dir);
    for (const std::string &uid : members) {
        const std::string info = dir + "memberinfo/" + uid + "/";
        tree = edit(tree + Tree{{info, "/"}},
            "numkeys=302 seqno=304 status=5 port=306 st_mem=8 frontend=10.0.0.1 membership_gen_count=" + gen +
            (vde.snapshot == 0 ? " snap_limit=10" : "") + " nodestatus>../../../../Node/" + uid + "/status", info);
        tree = edit(tree, link, "Node/" + uid + "/vdisks/");
        tree[dir + "membership"] += uid + "\n";
    }
    const std::string ds = "Datastore/" + dsuuid;
    return dsuuid.empty() ? tree : edit(tree, ds + "/vdisks/" + link + " " + dir + "datastore>../../" + ds);
}
// clang-format on
