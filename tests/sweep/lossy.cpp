/*
 * Two hosts that hear each other over a link which loses, doubles and reorders datagrams, while programs of both hosts
 * change their records and ask for publications. Once the link is sound, one publication of each makes the trees equal.
 */
#include "tests/system/harness.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <random>
#include <unistd.h>

namespace fs = std::filesystem;
using Dice = std::mt19937;

static unsigned setting(const char *name, unsigned initial)
{
    const char *text = getenv(name);
    return text ? static_cast<unsigned>(atoi(text)) : initial;
}

/* A host with the node of its own number, and what the link still holds of what it sent. */
struct End {
    Host host;
    const std::string uid, ds;
    std::map<std::string, unsigned> generations; /* of every VDisk there ever was: they never fall */
    std::optional<Daemon> daemon;
    Lines held;

    explicit End(int number) : host(number), uid(std::to_string(number)), ds("ds" + uid)
    {
        fs::copy_file("/bin/true", host.path("/mnt/fence"));
        host.write("/mnt/local_nodes", uid + "\n");
        host.put(node_record(uid, ds) + datastore_record(ds, uid));
        daemon.emplace(host, "syslog_priority = notice\n", Lines(), "-d");
    }

    /* Writes values into the tree and has the daemon told. */
    void store(const Tree &record, const std::string &command)
    {
        for (const auto &[name, value] : record) {
            const std::string inside = "/mnt/DB/" + name;
            if (value == "/")
                fs::create_directories(host.path(inside));
            else if (value.starts_with("-> "))
                fs::create_symlink(value.substr(3), host.path(inside));
            else
                host.write(inside, value);
        }
        int control = host.socket(SOCK_STREAM, "127.0.0.1", 31337);
        EXPECT_GT(write(control, command.data(), command.size()), 0);
        close(control);
        daemon->wait_for("Closing CTRL");
        daemon->sync();
    }

    /* The node or its datastore changes, or a VDisk goes or comes anew, with the generation it had or the next. */
    void change(Dice &dice)
    {
        std::string vdisk = "v" + uid + std::to_string(dice() % 20), roll = std::to_string(1 + dice() % 250);
        if (dice() % 8 == 0)
            return store(edit({}, "Node/" + uid + "/freespace=" + roll + " Datastore/" + ds + "/description=" + roll),
                         "ds_ping " + uid + "\n");
        for (const std::string &dir : Lines{"VDisk/", "Node/" + uid + "/vdisks/", "Datastore/" + ds + "/vdisks/"})
            host.remove("/mnt/DB/" + dir + vdisk);
        if (dice() % 4 == 0)
            return store({}, "vdisk_deleted " + uid + " " + vdisk + "\n");
        unsigned &generation = generations[vdisk];
        generation += dice() % 2 || generation == 0;
        Tree record = vdisk_record(plain(vdisk.c_str(), generation), {uid}, ds);
        record = edit(record, "sectors=" + roll + " membership=" + uid + "|" + roll, "VDisk/" + vdisk + "/");
        record =
            edit(record, "seqno=" + roll + " frontend=10.0.0." + roll, "VDisk/" + vdisk + "/memberinfo/" + uid + "/");
        store(record, "single_vdisk_ping " + uid + " " + vdisk + "\n");
    }

    /* What the host sent goes to the other one: a fifth never, a fifth twice, some of it later. */
    void carry(End &to, Dice &dice, bool sound)
    {
        for (const std::string &datagram : daemon->sent())
            held.insert(held.end(), sound ? 1 : std::array{0U, 1U, 1U, 1U, 2U}[dice() % 5], datagram);
        if (!sound)
            std::shuffle(held.begin(), held.end(), dice);
        for (size_t stay = sound ? 0 : dice() % 6; held.size() > stay; held.erase(held.begin()))
            to.daemon->send(held.front());
        to.daemon->sync();
    }

    Tree tree() const
    {
        Tree tree = host.tree();
        std::erase_if(
            tree, [](auto &entry) { return entry.first.ends_with("/ipaddr") || entry.first.ends_with("/lastping"); });
        return tree;
    }
};

TEST(Lossy, trees_end_equal)
{
    const unsigned changes = setting("MWD_LOSSY_CHANGES", 400),
                   seed = setting("MWD_LOSSY_SEED", std::random_device()());
    printf("%u changes, seed %u\n", changes, seed);
    Dice dice(seed);
    End a(1), b(2);
    for (unsigned i = 0; i < changes; i++) {
        End &from = dice() % 2 ? a : b;
        from.change(dice);
        if (i % 10 == 0)
            from.daemon->publish();
        from.carry(&from == &a ? b : a, dice, false);
    }
    a.carry(b, dice, true);
    b.carry(a, dice, true);
    a.daemon->publish();
    b.daemon->publish();
    a.carry(b, dice, true);
    b.carry(a, dice, true);
    EXPECT_TRUE(a.tree().contains("Node/2/vdisks/") && b.tree().contains("Node/1/vdisks/"));
    EXPECT_EQ(diff(a.tree(), b.tree()), "");
}
