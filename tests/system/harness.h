/*
 * What the system tests are made of: hosts (network and mount namespaces with a /tmp of their own), real
 * daemons started in them, messages as peers send them, and the database tree as a map. A host's files are
 * all below /mnt: mwd, mwd.conf, the tree in DB, the two tables, and what a test puts there.
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
/* Path below the root of the tree -> content of a file, "-> target" of a link, "/" of a directory. */
using Tree = std::map<std::string, std::string>;

Tree operator+(Tree a, const Tree &b);
/* What differs, a line each, newlines in contents shown as "|": "+path: new", "-path: old", "~path: old =>
 * new". */
std::string diff(const Tree &before, const Tree &after);

/* Fills a text field of a record. */
template <size_t N> void set(char (&field)[N], std::string_view text)
{
    for (size_t i = 0; i < N; i++)
        field[i] = i < text.size() ? text[i] : '\0';
}
template <typename Record> std::string bytes(const Record &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof(record)};
}

/* Messages: every field holds a value of its own. A report is a VDiskEntry and its lists. */
Hdr header(uint8_t type, uint32_t uid, uint8_t major = 2, uint8_t minor = 1);
std::string message(uint8_t type, uint32_t uid, const std::string &body = "");
DatastoreEntry datastore(const char *uuid);
AuxPingData capacity();
VDiskEntry plain(const char *uuid, unsigned gen = 5);
VDiskEntry snapshot(const char *uuid, const char *parent, unsigned gen = 5);
std::string report(VDiskEntry vde, const std::vector<uint32_t> &members = {7},
                   const std::vector<uint32_t> &frontends = {0x0a000001});
std::string deleted(uint32_t node, const char *uuid);

/* The same as records, whole, as this host's other programs write them for a local node. */
Tree node_record(uint32_t uid, const std::string &dsuuid = "");
Tree datastore_record(const std::string &uuid, const std::vector<uint32_t> &members = {});
Tree vdisk_record(const VDiskEntry &vde, const std::vector<uint32_t> &members = {7}, const std::string &dsuuid = "");

class Host
{
  public:
    /* `number` is the last part of its address on a wire. */
    explicit Host(int number = 1);
    ~Host();
    Host(const Host &) = delete;

    std::string path(const std::string &inside) const;
    std::string read(const std::string &inside) const;
    void write(const std::string &inside, const std::string &content);
    void put(const Tree &tree); /* into /mnt/DB */
    Tree tree() const;          /* of /mnt/DB, with every "lastping" that holds the time of now as "now" */
    Lines locks() const;        /* what lies in /tmp */
    void lock(const std::string &name);
    void unlock(const std::string &name);
    void set_clock(int64_t seconds);
    void shell(const std::string &command);
    /* A socket of this host's network: UDP bound there, or TCP connected there. */
    int udp(const char *address, int port);
    int tcp(const char *address, int port);
    pid_t spawn(const Lines &argv, int stderr_fd);

    const int number;
    int peer; /* 127.0.0.2, port 8000: the only host in the table unicast_hosts at first */

  private:
    int open_socket(int type, const char *address, int port);
    pid_t holder;
};

/* A wire between two hosts: eth0 on both, 10.0.0.<number>. */
void wire(Host &a, Host &b);
/* All datagrams that wait at the socket. */
Lines drain(int so);
/* Takes a program to its end and returns its exit status, 128 + signal if it was killed. */
int wait_for_exit(pid_t pid);

/* What may stand in front of the daemon's command line. */
Lines strace(const Lines &options); /* into /mnt/strace */
Lines stopped_clock();              /* time is what Host::set_clock says */

/* A running daemon in unicast mode on loopback, with timers that are not due and locks that do not wait. */
class Daemon
{
  public:
    explicit Daemon(Host &on, const std::string &config = "", const Lines &prefix = {}, const Lines &options = {"-dd"});
    ~Daemon(); /* stops it, if it still runs, and checks that it was sound: status, descriptors, lock files */
    Daemon(const Daemon &) = delete;

    void send(const std::string &datagram);
    /* Waits until all that was sent is handled. Returns the lines above info since the last call, each with a newline.
     */
    std::string sync();
    std::string apply(const std::string &datagram);
    std::string publish(); /* SIGUSR1, and the pass that it forces */
    std::string change(const std::string &datagram, std::string *log = nullptr); /* what it changes in the tree */
    Lines sent();                                      /* datagrams at the peer, none left there */
    std::string wait_for(const std::string &text);     /* a line that contains it, since the last sync */
    bool logged(const std::string &text) const;        /* in the step that the last sync ended */
    std::string step(const std::string &prefix) const; /* lines of that step that begin so */
    void signal(int number);
    int stop(int number = SIGTERM);
    int descriptors() const;

    Host &host;
    Lines log; /* every line so far, without ident and process number */
    pid_t pid = -1;

  private:
    bool pump(int timeout_ms);
    int err;
    int shorts = 0; /* datagrams sent that are too short to be counted */
    int descriptors_at_start = 0;
    size_t begin = 0, end = 0; /* of the last step, in `log` */
};

/* Runs the daemon to its end with the configuration file `config` as it stands. */
struct Ended {
    int status;
    std::string err;
};
Ended run(Host &host, const std::string &config, const Lines &options = {"-C", "/mnt/mwd.conf"});

/* The configuration that Daemon starts from. */
extern const char base_config[];

#endif
