/*
 * What the system tests are made of: hosts (a network and a mount namespace, with a /tmp of their own), real daemons
 * started in them, messages as peers send them, and the database tree as a map. A host's files are below /mnt: the
 * daemon mwd, mwd.conf, the tree in DB, both tables, and what a test puts there.
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
/*
 * Path below the root of the tree -> content of a file, "-> target" of a link, "/" of a directory. Locks are files that
 * begin with "/tmp/".
 */
using Tree = std::map<std::string, std::string>;

/*
 * The tree after edits, separated by blanks, of paths below `dir`: "path=a|b" is a file of the lines a and b, "path:a"
 * one that holds "a" without a newline, "path>target" a link, "path/" a directory; "-path" is gone with all below it.
 */
Tree edit(Tree tree, const std::string &edits, const std::string &dir = "");
/* What differs, a line each, with "|" for a newline: "+path: now", "-path: before", "~path: before => now". */
std::string diff(const Tree &before, const Tree &after);

template <size_t N> void set(char (&field)[N], std::string_view text)
{
    for (size_t i = 0; i < N; i++)
        field[i] = i < text.size() ? text[i] : '\0';
}
template <typename Record> std::string bytes(const Record &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof(record)};
}

/* Messages, with a value of its own in every field. A report is a VDiskEntry with its lists. */
Hdr header(uint8_t type, uint32_t uid);
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
Tree operator+(Tree a, const Tree &b);

class Host
{
  public:
    explicit Host(int number_ = 1);
    ~Host();
    Host(const Host &) = delete;

    std::string path(const std::string &inside) const;
    std::string read(const std::string &inside) const;
    void write(const std::string &inside, const std::string &content);
    void remove(const std::string &inside); /* below /mnt or /tmp, and nowhere else */
    void put(const Tree &tree);             /* as the whole of /mnt/DB */
    Tree tree() const;                      /* of /mnt/DB; a "lastping" of this hour reads "now" */
    Lines locks() const;                    /* what lies in /tmp */
    void set_clock(int64_t seconds);
    void shell(const std::string &command);
    /* Sockets in this host's network: UDP bound to the address, or TCP connected to it. */
    std::vector<int> sockets(int count, int type, const char *address, int port);
    int socket(int type, const char *address, int port);
    pid_t spawn(const Lines &argv, int stderr_fd);

    const int number; /* the last part of its address on a wire */
    int peer;         /* 127.0.0.2, port 8000: whom its table unicast_hosts names at first */

  private:
    pid_t holder;
};

/* A wire between two hosts: eth0 on both, 10.0.0.<number>. */
void wire(Host &a, Host &b);
/* All datagrams that wait at the socket. */
Lines drain(int so);
/* Their types and lengths, such as "PING:207 ". */
std::string kinds(const Lines &datagrams);
/* Waits for the end of a process. Returns its exit status, 128 + the signal if one killed it. */
int wait_for_exit(pid_t pid);

/* What may stand in front of the daemon's command line. */
Lines strace(const Lines &options); /* writes /mnt/strace */
Lines stopped_clock();              /* time is what Host::set_clock says */

/* The configuration that daemons start from: unicast mode on loopback, no timer due, no waiting for locks. */
extern const char base_config[];

/* Edits of a tree, a message that then arrives, the edits that it must make, and the lines above info. */
struct Case {
    std::string before, message, after, lines;
};

class Daemon
{
  public:
    explicit Daemon(Host &on, const std::string &config = "", const Lines &prefix = {}, const char *options = "-dd");
    ~Daemon(); /* stops it, if it still runs, and checks its status, descriptors and locks */
    Daemon(const Daemon &) = delete;

    void send(const std::string &datagram);
    /* Waits until all that was sent is handled. Returns the lines above info since the last call. */
    std::string sync();
    std::string apply(const std::string &datagram);
    std::string publish(); /* SIGUSR1 and the pass that it forces */
    std::string reload();  /* SIGHUP and what it reads */
    /* Applies a message that must leave the tree so and log these lines above info. */
    void check(const std::string &datagram, const Tree &after, const std::string &lines = "");
    void check(const Tree &base, const std::vector<Case> &cases);
    Lines sent();                                     /* the datagrams at the host's peer, none of which stays there */
    std::string wait_for(const std::string &text);    /* a line that holds it, since the last sync */
    std::string step(const std::string &begin) const; /* the lines of the last sync's step that begin so */
    int stop(int signal = SIGTERM);
    void wait_until_asleep() const;
    int descriptors() const;

    Host &host;
    Lines log; /* every line so far, without ident and process number */
    pid_t pid;

  private:
    bool pump();
    int err, shorts = 0, shorts_seen = 0; /* datagrams that are too short for a header */
    int descriptors_at_start;
    size_t first = 0, next = 0; /* bounds of the last step in `log` */
    std::string rest;           /* of a line that is not yet whole */
};

/* Runs the daemon to its end with this configuration and nothing more. */
struct Ended {
    int status;
    std::string err;
};
Ended run(Host &host, const std::string &config, const Lines &options = {"-dd", "-C", "/mnt/mwd.conf"});

#endif
