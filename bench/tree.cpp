/*
 * Writes the tree that a daemon has after all peers of a cluster have said everything once, without the daemon.
 *
 *   bench_tree DIRECTORY NODES VDISKS DATASTORES   three members a VDisk
 */
#include "bench/messages.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

using std::string;
using std::to_string;

using Pairs = std::vector<std::pair<const char *, string>>;

[[noreturn]] static void fail(const string &what)
{
    perror(what.c_str());
    exit(1);
}

static void make_directory(const string &path)
{
    if (mkdir(path.c_str(), 0755) < 0 && errno != EEXIST)
        fail(path);
}

static void make_link(const string &target, const string &path)
{
    if (symlink(target.c_str(), path.c_str()) < 0)
        fail(path);
}

static void write_values(const string &directory, const Pairs &pairs)
{
    for (const auto &[key, text] : pairs) {
        string path = directory + "/" + key, line = text + "\n";
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            fail(path);
        close(fd);
    }
}

static string store_of(uint32_t uid, unsigned int stores)
{
    return "store-" + to_string(uid % stores);
}

static void write_node(uint32_t uid, const string &store)
{
    string node = "Node/" + to_string(uid);
    make_directory(node);
    make_directory(node + "/vdisks");
    write_values(node, {{"version", "v1.8"},
                        {"uuid", to_string(uid)},
                        {"status", "1"},
                        {"nodestatus", "2"},
                        {"vendor", "Bench"},
                        {"model", "Storage-node"},
                        {"freespace", "1000000"},
                        {"utilization", "42"},
                        {"revision", "1.8.0-1"},
                        {"serial", "SN-0000000001"},
                        {"hbtl", "10.0.0.7"},
                        {"performance", "5"},
                        {"hostid", "77"},
                        {"size", "2000000"},
                        {"backupchannel", "0.0.0.0"},
                        {"ipaddr", "10.0." + to_string(uid / 256 % 256) + "." + to_string(uid % 256)},
                        {"lastping", to_string(time(nullptr))},
                        {"allocatedspace", "500000"},
                        {"curvdisks", "12"},
                        {"curvdisksforctrl", "6"},
                        {"maxvdisksforctrl", "64"},
                        {"memtotal", "16384"},
                        {"memavail", "8192"},
                        {"datastoremember", store}});
    make_link("../../../Node/" + to_string(uid), "Datastore/" + store + "/members/" + to_string(uid));
}

static void write_datastore(const string &store)
{
    string path = "Datastore/" + store;
    for (const string &directory : {path, path + "/vdisks", path + "/members"})
        make_directory(directory);
    write_values(path, {{"uuid", store},
                        {"name", "Store"},
                        {"description", "Benchmark-store"},
                        {"sector_size", "512"},
                        {"replicas", "3"},
                        {"stripes", "4"},
                        {"overcommit", "1"}});
}

static void write_member(const string &path, const string &uuid, uint32_t uid)
{
    string member = path + "/memberinfo/" + to_string(uid);
    make_directory(member);
    write_values(member, {{"membership_gen_count", "5"},
                          {"numkeys", "123456"},
                          {"seqno", "987654321"},
                          {"status", "1"},
                          {"port", "7001"},
                          {"st_mem", "2"},
                          {"snap_limit", "10"},
                          {"frontend", "10.0.0.7"}});
    make_link("../../../../Node/" + to_string(uid) + "/status", member + "/nodestatus");
    make_link("../../../VDisk/" + uuid, "Node/" + to_string(uid) + "/vdisks/" + uuid);
}

static void write_vdisk(const string &uuid, uint32_t first, uint32_t last, const string &store)
{
    string path = "VDisk/" + uuid, members;
    for (const string &directory : {path, path + "/memberinfo", path + "/snapshots"})
        make_directory(directory);
    for (uint32_t uid = first; uid <= last; uid++) {
        members += (members.empty() ? "" : "\n") + to_string(uid);
        write_member(path, uuid, uid);
    }
    write_values(path, {{"uuid", uuid},
                        {"name", "volume"},
                        {"sector_size", "512"},
                        {"sectors", "20971520"},
                        {"replicas", "3"},
                        {"st_mems", "4"},
                        {"st_size", "64"},
                        {"snapshot", "0"},
                        {"description", "A-volume-of-the-benchmark"},
                        {"highest_gen_count", "5"},
                        {"membership", members}});
    make_link("../../Datastore/" + store, path + "/datastore");
    make_link("../../../VDisk/" + uuid, "Datastore/" + store + "/vdisks/" + uuid);
}

int main(int argc, char **argv)
{
    if (argc != 5)
        return 2;
    auto number = [argv](int i) {
        return static_cast<unsigned int>(atoi(argv[i]));
    };
    const Cluster cluster = {number(2), number(3), 3};
    unsigned int stores = std::max(number(4), 1U);
    make_directory(argv[1]);
    if (chdir(argv[1]) < 0)
        fail(argv[1]);
    for (const char *top : {"Node", "Datastore", "VDisk"})
        make_directory(top);
    for (unsigned int i = 0; i < stores; i++)
        write_datastore(store_of(i, stores));
    for (uint32_t uid = 1; uid <= cluster.nodes; uid++)
        write_node(uid, store_of(uid, stores));
    for (uint32_t first = 1; first <= cluster.nodes; first += cluster.copies)
        for (unsigned int i = 0; i < cluster.vdisks; i++)
            write_vdisk(vdisk_name(cluster, first, i), first, std::min(first + cluster.copies - 1, cluster.nodes),
                        store_of(first, stores));
    return 0;
}
