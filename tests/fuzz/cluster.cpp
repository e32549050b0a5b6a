/*
 * Fuzz target of mwctl's reader and rules: the input is a series of changes to a small tree on a private tmpfs.
 * Whatever the tree then is, it is read, judged and rendered in every way, and no control character comes out.
 */
#include "mwctl/failure.h"
#include "mwctl/render.h"

#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace mwctl;

static const fs::path root = "/tmp/tree";
static std::vector<fs::path> places; /* what inputs change, by number */
static Settings settings;

/* Every attribute of a record with its initial value, or with a number. */
static void write_record(const fs::path &directory, Kind kind)
{
    fs::create_directories(directory);
    for (const Attribute &attribute : attributes(kind)) {
        std::string value(attribute.initial);
        if (value.empty())
            value = attribute.form == Form::snaptime    ? "31-04-05_06.07.08"
                    : attribute.form == Form::addresses ? "10.0.0.1"
                    : attribute.key == "parent"         ? "v1"
                    : attribute.form == Form::nodes     ? "7\n8"
                                                        : "7";
        std::ofstream(directory / attribute.key) << value << "\n";
    }
}

static void write_tree()
{
    fs::remove_all(root);
    for (const char *uid : {"7", "8"}) {
        write_record(root / "Node" / uid, Kind::node);
        fs::create_directory(root / "Node" / uid / "vdisks");
    }
    write_record(root / "Datastore/7", Kind::datastore);
    for (const char *directory : {"members", "vdisks"})
        fs::create_directory(root / "Datastore/7" / directory);
    for (const char *uuid : {"v1", "s1"}) {
        fs::path vdisk = root / "VDisk" / uuid;
        write_record(vdisk, Kind::vdisk);
        fs::create_directory(vdisk / "snapshots");
        fs::create_symlink("../../Datastore/7", vdisk / "datastore");
        fs::create_symlink(fmt::format("../../../VDisk/{}", uuid), root / "Datastore/7/vdisks" / uuid);
        for (const char *uid : {"7", "8"}) {
            write_record(vdisk / "memberinfo" / uid, Kind::member);
            fs::create_symlink(fmt::format("../../../VDisk/{}", uuid), root / "Node" / uid / "vdisks" / uuid);
        }
    }
}

/* One byte says where, one what, one how long the rest of the change is. */
static void change(std::string &input)
{
    auto byte = [&](size_t i) {
        return static_cast<unsigned char>(input[i]);
    };
    fs::path place = places[byte(0) % places.size()];
    unsigned what = byte(1) % 8;
    std::string piece = input.substr(3, byte(2));
    input.erase(0, 3 + piece.size());
    std::error_code ignored;
    std::string name = piece.substr(0, piece.find_first_of(std::string_view("/\0", 2)));
    if (what >= 4 && !name.empty() && name != "." && name != "..") /* beside it, under a name of the input's own */
        place = place.parent_path() / name;
    if (place.string().size() > 1000 || !place.string().starts_with(root.string()))
        return;
    fs::remove_all(place, ignored);
    switch (what % 4) {
    case 0:
        std::ofstream(place, std::ios::binary) << piece;
        break;
    case 1:
        fs::create_symlink(piece.substr(0, piece.find('\0')), place, ignored);
        break;
    case 2:
        fs::create_directory(place, ignored);
        break;
    case 3:
        if (byte(0) % 2)
            mkfifo(place.c_str(), 0600);
        break;
    }
}

static void check_text(const std::string &text)
{
    for (char c : text)
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7f)
            abort();
}

static void check_json(const Json &document)
{
    check_text(document.dump(2, ' ', true)); /* throws at what is not UTF-8 */
}

static void look(const Scope &scope)
{
    Cluster cluster = read_cluster(settings, scope);
    std::vector<Trouble> troubles = find_troubles(cluster);
    std::set<std::string> records;
    for (const Trouble &trouble : troubles) {
        if (trouble.text.empty() || trouble.action.empty() || trouble.record.empty())
            abort();
        check_json(trouble_json(trouble));
        records.insert(trouble.involved.begin(), trouble.involved.end());
    }
    check_text(troubles_text(troubles, {}));
    for (const auto &[uid, node] : cluster.nodes)
        check_json(node_json(cluster, node));
    for (const auto &[uuid, datastore] : cluster.datastores)
        check_json(datastore_json(datastore));
    for (const auto &[uuid, vdisk] : cluster.vdisks)
        check_json(vdisk_json(vdisk));
    reread(cluster, records);
    std::vector<Trouble> again = find_troubles(cluster);
    if (again.size() != troubles.size()) /* nobody writes, so a second reading says the same */
        abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const int lowest_free = dup(0);
    close(lowest_free);
    write_tree();
    std::string input(reinterpret_cast<const char *>(data), size);
    while (input.size() > 3)
        change(input);
    for (Scope::Extent extent : {Scope::summary, Scope::whole})
        look({extent, ""});
    for (const char *record : {"node/7", "node/8", "datastore/7", "vdisk/v1", "vdisk/s1"})
        look({Scope::one_record, record});
    const int still_free = dup(0);
    if (still_free != lowest_free)
        abort();
    close(still_free);
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    if (unshare(CLONE_NEWNS) < 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) < 0)
        abort();
    settings.work_directory = root;
    settings.bind_interface = "lo";
    settings.ctrl_address = "127.0.0.1";
    settings.unicast_mode = true;
    settings.local_nodes_whole = true;
    settings.local_nodes = {{7, 1}};
    write_tree();
    for (const auto &entry : fs::recursive_directory_iterator(root))
        places.push_back(entry.path());
    return 0;
}
