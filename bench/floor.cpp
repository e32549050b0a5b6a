/*
 * The floor: what a message costs if nothing is done but the system calls that its handling consists of. The calls of
 * each kind of message stand in the scripts below and are turned, before the first datagram comes, into a row of plain
 * calls with all their arguments and results. Nothing is parsed, looked up in the message or logged. A call that ends
 * otherwise than it does in the steady state ends the program.
 *
 *   bench_floor KIND VDISKS
 */
#include "bench/messages.h"

#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <set>
#include <sstream>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

using std::string;

/*
 * A script is verbs and the words that each acts on. `dir` opens a directory on top of a stack, `close` and `sync` take
 * it off; names that are no paths are relative to the top, or to the directory N of the stack in "N:name". `mkdir`
 * finds the directory there, `lookfor` and `nodir` find nothing. $ is the VDisk in hand, and ~ the root of the tree.
 */
static const string lock_node = "lock /tmp/NODE-7 ", unlock_node = "unlock /tmp/NODE-7 ", dir_node = "dir ~/Node/7 ";
static const string lock_store = "lock /tmp/DS-store-1 ", unlock_store = "unlock /tmp/DS-store-1 ";

static const string create_node =
    "mkdir ~/Node ~/Node/7 dir ~/Node/7 mkdir vdisks store version=v1.8 uuid=7 status=1 nodestatus=2 vendor=Bench "
    "model=Storage-node freespace=1000000 utilization=42 revision=1.8.0-1 serial=SN-0000000001 hbtl=10.0.0.7 "
    "performance=5 hostid=77 size=2000000 backupchannel=0.0.0.0 ipaddr=127.0.0.1 lastping=now sync ";
static const string refresh_node = lock_node + create_node + unlock_node;

static const string heartbeat = lock_node + dir_node + "store lastping=now sync " + unlock_node;
static const string aux_ping = lock_node + create_node + dir_node +
                               "store allocatedspace=500000 curvdisks=12 curvdisksforctrl=6 maxvdisksforctrl=64 "
                               "memtotal=16384 memavail=8192 sync " +
                               unlock_node;
static const string ds_ping =
    refresh_node + lock_store +
    "mkdir ~/Datastore ~/Datastore/store-1 dir ~/Datastore/store-1 store uuid=store-1 name=Store "
    "description=Benchmark-store sector_size=512 replicas=3 stripes=4 overcommit=1 mkdir vdisks members "
    "dir members look 7 close sync " +
    unlock_store + lock_node + dir_node + "store datastoremember=store-1 sync " + unlock_node;

static const string report_member =
    "lock /tmp/VDISK-$ mkdir ~/VDisk look ~/VDisk/$ dir ~/VDisk/$ dir memberinfo look 7 dir 7 store "
    "seqno=987654321 load 0:highest_gen_count store membership_gen_count=5 numkeys=123456 seqno=987654321 status=1 "
    "port=7001 st_mem=2 snap_limit=10 ";
static const string report_frontend = "store frontend=10.0.0.7 look nodestatus 0:datastore " + lock_node +
                                      "dir ~/Node/7/vdisks look $ close " + unlock_node;
static const string report_vdisk =
    "close store 0:sectors=20971520 load 0:membership store 0:membership=7 close sync unlock /tmp/VDISK-$ ";
static const string list_vdisks = lock_node + "list ~/Node/7/vdisks " + unlock_node;

static const string load_node =
    lock_node + dir_node +
    "load version nodestatus vendor model freespace utilization revision serial hbtl size backupchannel performance "
    "hostid allocatedspace curvdisks curvdisksforctrl maxvdisksforctrl memtotal memavail close " +
    dir_node + "look datastoremember load datastoremember close list ~/Node/7/vdisks " + unlock_node + lock_store +
    "dir ~/Datastore/store-1 load uuid name description sector_size replicas stripes overcommit close " + unlock_store +
    "send 294 236 ";
static const string load_vdisk =
    "lock /tmp/VDISK-$ dir ~/VDisk/$ lookfor transaction_id load uuid name sector_size sectors replicas st_mems st_size "
    "snapshot description dir memberinfo dir 7 load numkeys seqno status port st_mem membership_gen_count "
    "0:membership frontend close close close unlock /tmp/VDISK-$ ";
/* The message that sets a publication off: the heartbeat of a node that has no record. */
static const string strangers_heartbeat = "lock /tmp/NODE-8 nodir ~/Node/8 unlock /tmp/NODE-8 ";

/* What is done before the VDisks, for each of them, for each without a frontend, and after them. */
static const std::map<string, std::array<string, 4>> works = {
    {"heartbeat", {heartbeat}},
    {"aux", {aux_ping}},
    {"ds", {ds_ping}},
    {"ping", {refresh_node, report_member + report_frontend + report_vdisk, report_member + report_vdisk, list_vdisks}},
    {"publish", {load_node, load_vdisk, load_vdisk, "send ping"}}};

struct Call {
    long number, args[6], result;
};
static constexpr long ANY = LONG_MAX;
using Calls = std::vector<Call>;

struct Directory {
    int fd;
    string path;
};

struct Word {
    int dirfd;
    char *name;
    string path, text;
};

/* What scripts are turned into calls with. */
static Calls calls;
static std::vector<Directory> stack;
static int first_fd;   /* what the next open returns while the stack is empty */
static string example; /* the VDisk whose sizes of files stand for those of the others */
static std::vector<char *> uuid_places;
static string owner;
static char lastping[] = "0000000000\n";
static char buf[MSG_LEN_MAX];
static size_t ping_len;
static struct stat st;
static struct sockaddr_in sink = address_of(INADDR_LOOPBACK + 1, PORT);

template <typename... Args> static void call(long result, long number, Args... args)
{
    calls.push_back({number, {(long)args...}, result});
}

static int next_fd()
{
    return first_fd + static_cast<int>(stack.size());
}

static void write_file(const Word &word, int flags, const string &text)
{
    const char *kept = text == "now\n" ? lastping : strdup(text.c_str());
    call(next_fd(), SYS_openat, word.dirfd, word.name, O_RDWR | O_CREAT | O_TRUNC | flags, 0666);
    call(ANY, SYS_write, next_fd(), kept, strlen(kept));
    if (flags & O_EXCL)
        call(0, SYS_fsync, next_fd());
    call(0, SYS_close, next_fd());
}

static void read_file(const Word &word)
{
    stat(word.path.c_str(), &st);
    call(next_fd(), SYS_openat, word.dirfd, word.name, O_RDONLY | O_NONBLOCK);
    call(st.st_size, SYS_lseek, next_fd(), 0, SEEK_END);
    if (st.st_size > 0) {
        call(0, SYS_lseek, next_fd(), 0, SEEK_SET);
        call(st.st_size, SYS_read, next_fd(), buf, st.st_size);
    }
    call(0, SYS_close, next_fd());
}

/* What opendir, readdir and closedir come to, and one lstat for each entry. */
static void list_directory(const Word &word)
{
    call(next_fd(), SYS_openat, AT_FDCWD, word.name, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_DIRECTORY);
    call(0, SYS_newfstatat, next_fd(), "", &st, AT_EMPTY_PATH);
    call(ANY, SYS_getdents64, next_fd(), buf, 32768);
    DIR *dir = opendir(word.name);
    while (const struct dirent *entry = readdir(dir))
        call(0, SYS_newfstatat, AT_FDCWD, strdup((word.path + "/" + entry->d_name).c_str()), &st, AT_SYMLINK_NOFOLLOW);
    closedir(dir);
    call(0, SYS_getdents64, next_fd(), buf, 32768);
    call(0, SYS_close, next_fd());
}

static Word word_of(string text)
{
    Directory base = stack.empty() ? Directory{} : stack.back();
    if (text[1] == ':') {
        base = stack[static_cast<size_t>(text[0] - '0')];
        text.erase(0, 2);
    }
    if (text[0] == '~')
        text.replace(0, 1, "/tmp/DB");
    size_t equals = std::min(text.find('='), text.size()), place = text.find('$');
    string name = text.substr(0, equals), value = text.substr(std::min(equals + 1, text.size())) + "\n";
    if (place != string::npos)
        name.replace(place, 1, example);
    char *kept = strdup(name.c_str());
    if (place != string::npos)
        uuid_places.push_back(kept + place);
    if (name[0] == '/')
        return {AT_FDCWD, kept, name, value};
    return {base.fd, kept, base.path + "/" + name, value};
}

static void add_calls(const string &verb, const Word &word)
{
    if (verb == "lock")
        write_file(word, O_EXCL, owner);
    else if (verb == "unlock")
        call(0, SYS_unlink, word.name);
    else if (verb == "mkdir" && word.dirfd == AT_FDCWD)
        call(-EEXIST, SYS_mkdir, word.name, 0777);
    else if (verb == "mkdir")
        call(-EEXIST, SYS_mkdirat, word.dirfd, word.name, 0777);
    else if (verb == "store")
        write_file(word, O_NONBLOCK, word.text);
    else if (verb == "load")
        read_file(word);
    else if (verb == "look" || verb == "lookfor")
        call(verb == "look" ? 0 : -ENOENT, SYS_newfstatat, word.dirfd, word.name, &st, AT_SYMLINK_NOFOLLOW);
    else if (verb == "list")
        list_directory(word);
    else if (verb == "send")
        call(ANY, SYS_sendto, first_fd - 2, buf, word.path == "/ping" ? ping_len : strtoul(word.name, nullptr, 10), 0,
             &sink, sizeof(sink));
    else if (verb == "nodir")
        call(-ENOENT, SYS_openat, AT_FDCWD, word.name, O_RDONLY | O_DIRECTORY);
    else if (verb != "dir")
        abort();
    if (verb == "dir") {
        call(next_fd(), SYS_openat, word.dirfd, word.name, O_RDONLY | O_DIRECTORY);
        stack.push_back({next_fd(), word.path});
    }
}

static Calls calls_of(const string &script)
{
    static const std::set<string> verbs = {"lock",    "unlock", "mkdir", "store", "load", "look",
                                           "lookfor", "list",   "send",  "nodir", "dir"};
    calls.clear();
    std::istringstream words(script);
    string verb;
    for (string word; words >> word;) {
        if (word == "sync")
            call(0, SYS_fsync, stack.back().fd);
        if (word == "sync" || word == "close") {
            stack.pop_back();
            call(0, SYS_close, next_fd());
        } else if (verbs.contains(word)) {
            verb = word;
        } else {
            add_calls(verb, word_of(word));
        }
    }
    return calls;
}

static void run(const Calls &list)
{
    for (const Call &c : list) {
        long result = syscall(c.number, c.args[0], c.args[1], c.args[2], c.args[3], c.args[4], c.args[5]);
        if (result < 0)
            result = -errno;
        if (result != c.result && (c.result != ANY || result < 0)) [[unlikely]] {
            fprintf(stderr, "floor: call %ld came to %ld, not %ld\n", c.number, result, c.result);
            exit(1);
        }
    }
}

static std::array<Calls, 4> prepare(const string &kind, const Cluster &cluster)
{
    std::array<Calls, 4> work;
    ping_len = put_message(buf, MSG_PING, cluster, 7);
    for (size_t i = 0; i < work.size(); i++) {
        example = vdisk_name(cluster, 7, i == 1 ? 0 : cluster.vdisks - 1);
        work[i] = calls_of(works.at(kind)[i]);
    }
    return work;
}

static void do_work(const std::array<Calls, 4> &work, const std::vector<string> &vdisks, unsigned int frontends)
{
    run(work[0]);
    for (size_t i = 0; i < vdisks.size() && !work[1].empty(); i++) {
        for (char *place : uuid_places)
            memcpy(place, vdisks[i].data(), VDISK_NAME_LEN);
        run(work[i < frontends ? 1 : 2]);
    }
    run(work[3]);
}

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    const bool publish = string(argv[1]) == "publish";
    const Cluster cluster = {7, static_cast<unsigned int>(atoi(argv[2])), 1};
    int so = bound_socket(SOCK_DGRAM, INADDR_ANY, PORT);
    int ctrlso = bound_socket(SOCK_STREAM, INADDR_LOOPBACK, CTRL_PORT);
    umask(022);
    first_fd = ctrlso + 1;
    owner = std::to_string(getpid()) + "\n";
    std::vector<string> vdisks;
    for (unsigned int i = 0; i < cluster.vdisks; i++)
        vdisks.push_back(vdisk_name(cluster, 7, i));
    const auto work = prepare(argv[1], cluster);
    const Calls stranger = calls_of(strangers_heartbeat);

    fd_set fds, rfds;
    FD_ZERO(&fds);
    FD_SET(so, &fds);
    FD_SET(ctrlso, &fds);
    listen(ctrlso, 128); /* tells that all is ready */
    for (time_t shown = 0;;) {
        rfds = fds;
        struct timeval tv = {1, 0};
        int ready = select(first_fd, &rfds, nullptr, nullptr, &tv);
        if (publish)
            do_work(work, vdisks, reports_with_frontend(cluster));
        if (ready <= 0)
            continue;
        struct sockaddr_in source;
        socklen_t sl = sizeof(source);
        recvfrom(so, buf, sizeof(buf), 0, reinterpret_cast<struct sockaddr *>(&source), &sl);
        if (time_t now = time(nullptr); now != shown)
            memcpy(lastping, std::to_string(shown = now).data(), 10);
        if (publish)
            run(stranger);
        else
            do_work(work, vdisks, reports_with_frontend(cluster));
    }
}
