/*
 * What the system tests are made of: hosts (a network and a mount namespace each), real daemons in them, messages as
 * peers send them, and the database tree as a map. A host's files are below /mnt: the daemon mwd, mwd.conf, the tree in
 * DB, both tables, and what a test puts there.
 */
#ifndef TESTS_SYSTEM_HARNESS_H
#define TESTS_SYSTEM_HARNESS_H

#include "mwd/netlib.h"

#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;
using Uids = std::vector<uint32_t>;

/* Path below the root of the tree, or "/tmp/..." for a lock -> content, "-> target" of a link, "/" of a directory. */
using Tree = std::map<std::string, std::string>;
Tree operator+(Tree a, const Tree &b);
Lines operator+(Lines a, const Lines &b);
/*
 * The tree after edits, separated by blanks, of paths below `dir`: "path=a|b" is a file of the lines a and b, "path:a"
 * one that holds "a" without a newline, "path>target" a link, "path/" a directory; "-path" is gone with all that begins
 * so. "V/" at the start stands for VDisk/v1/, "M7/" and "M8/" for its memberinfo/7/ and memberinfo/8/.
 */
Tree edit(Tree tree, const std::string &edits, const std::string &dir = "");
/* What differs, a line each, with "|" for a newline: "+path: now", "-path: before", "~path: before => now". */
std::string diff(const Tree &before, const Tree &after);

/* Messages, with a value of its own in every field. A report is a VDiskEntry with its lists. */
std::string message(uint8_t type, uint32_t uid, const std::string &body = "");
std::string ds_ping(uint32_t uid, const char *dsuuid);
std::string aux_ping(uint32_t uid);
std::string vdisk_deleted(uint32_t uid, const char *uuid);
VDiskEntry plain(const char *uuid, unsigned gen = 5);
VDiskEntry snapshot(const char *uuid, const char *parent, unsigned gen = 5);
std::string report(VDiskEntry vde, const Uids &members = {7}, const Uids &frontends = {0x0a000001});

/* The same as records, whole, as the host's other programs write them for local nodes. */
Tree node_record(const std::string &uid, const std::string &dsuuid = "");
Tree datastore_record(const std::string &uuid, const std::string &member = "");
Tree vdisk_record(const VDiskEntry &vde, const Lines &members = {"7"}, const std::string &dsuuid = "");

struct Host {
    explicit Host(int number_ = 1);
    ~Host();
    std::string path(const std::string &inside) const
    {
        return "/proc/" + std::to_string(holder) + "/root" + inside;
    }
    std::string read(const std::string &inside) const;
    void write(const std::string &inside, const std::string &content);
    void put(const Tree &tree); /* as all of the tree and the locks */
    Tree tree() const;          /* a "lastping" of this hour reads "now" */
    Lines locks() const;        /* names in /tmp */
    void remove(const std::string &inside);
    void set_clock(time_t seconds);
    pid_t spawn(const Lines &argv, int stderr_fd);
    void shell(const std::string &command);
    /* A socket in this host's network: UDP bound to the address, or TCP connected to it. */
    int socket(int type, const char *address, int port);

    int number;   /* the last part of its address on a wire */
    pid_t holder; /* keeps the namespaces */
    int peer;     /* 127.0.0.2, port 8000: whom its table unicast_hosts names at first */
};

std::string kinds(const Lines &datagrams); /* such as "PING:207 " */
int wait_for_exit(pid_t pid);              /* its exit status, 128 + the signal if one killed it */

/* What may stand in front of the daemon's command line: strace writes /mnt/strace, time stands at Host::set_clock. */
Lines strace(const Lines &options);
const Lines stopped_clock = {"env", "LD_PRELOAD=/mnt/clock.so"};

/* The configuration that daemons start from: unicast mode on loopback, no timer due, no waiting for locks. */
extern const char base_config[];

/* Edits of a tree, a message that then arrives, the edits that it must make, and the lines above info. */
struct Case {
    std::string before, datagram, after, lines;
};

struct Daemon {
    explicit Daemon(Host &on, const std::string &config = "", const Lines &prefix = {}, const char *options = "-dd");
    ~Daemon(); /* stops it, if it still runs, and checks its status, descriptors and locks */
    void send(const std::string &datagram);
    /* Waits until all that was sent is handled. Returns the lines above info since the last call, @ for "/mnt/DB/". */
    std::string sync();
    std::string apply(const std::string &datagram)
    {
        send(datagram);
        return sync();
    }
    std::string publish() /* SIGUSR1 and the pass that it forces */
    {
        kill(pid, SIGUSR1);
        return sync();
    }
    std::string reload() /* SIGHUP and what it reads; a signal just before the loop waits is seen a turn later */
    {
        kill(pid, SIGHUP);
        wait_for("load_unicast_hosts(): Loading");
        return sync();
    }
    void check(const std::string &datagram, const Tree &after, const std::string &lines = "");
    void check(const Tree &base, const std::vector<Case> &cases);
    Lines sent(int so = -1);                          /* all that waits at the host's peer, or that socket */
    void wait_for(const std::string &text);           /* in a line since the last sync */
    std::string step(const std::string &begin) const; /* the lines of the last sync's step that begin so */
    int stop(int signal = SIGTERM);
    int descriptors() const; /* waits until the daemon sleeps */
    bool pump();             /* takes the next line; false at the daemon's end */

    Host &host;
    Lines log = {"its start"}; /* and every line so far, without ident and process number */
    pid_t pid;
    FILE *err;
    int shorts = 0, shorts_seen = 0; /* datagrams that are too short for a header */
    int descriptors_at_start;
    size_t first = 0, next = 0; /* bounds of the last step in `log` */
};

/* Runs the daemon to its end with this configuration and nothing more. Returns its status and stderr. */
std::pair<int, std::string> run(Host &host, const std::string &config, const Lines &options = {"-ddC/mnt/mwd.conf"});

#endif
