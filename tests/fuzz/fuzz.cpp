/*
 * Fuzz targets: MWD_FUZZ_TARGET names the function that this build feeds. The tree and the locks lie on a private
 * tmpfs, every log line is formatted and dropped, every message sent is taken. After each input no lock and no
 * descriptor may be left. Seeds of datagrams are written into the directory of the first argument.
 */
#include "mwd/config.h"
#include "mwd/controller_internal.h"
#include "mwd/misc.h"
#include "tests/sweep/story.h"

#include <algorithm>
#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

static char buf[MSG_LEN_MAX];
static const std::string *open_text; /* while set, fopen reads it in place of any file, and exit comes back */
static FILE *open_file;
static jmp_buf refused;

extern "C" {
FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (!open_text)
        return __real_fopen(path, mode);
    return open_file = fmemopen(const_cast<char *>(open_text->data()), open_text->size(), "r");
}
int __real_fclose(FILE *file);
int __wrap_fclose(FILE *file)
{
    open_file = nullptr;
    return __real_fclose(file);
}
[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status)
{
    if (!open_text)
        __real_exit(status);
    longjmp(refused, status);
}
[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int, const char *format, ...)
{
    static char line[8192];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof(line), format, args);
    va_end(args);
}
/* The fence check is taken as run: a real child for each raised generation would leave no time for inputs. */
pid_t __wrap_fork()
{
    return 1;
}
pid_t __wrap_waitpid(pid_t pid, int *, int)
{
    return pid;
}
ssize_t __wrap_sendto(int, const void *message, size_t len, int, const struct sockaddr *, socklen_t)
{
    if (len < sizeof(Hdr) || len > MSG_LEN_MAX || static_cast<const Hdr *>(message)->uid != 7)
        abort();
    return static_cast<ssize_t>(len);
}
}

/* The datagram ends where its page does and nothing follows, so that any read beyond it faults. */
static void dispatch(const std::string &datagram)
{
    static char *const end = static_cast<char *>(mmap(nullptr, MSG_LEN_MAX + 4096, PROT_READ | PROT_WRITE,
                                                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) +
                             MSG_LEN_MAX;
    mprotect(end, 4096, PROT_NONE);
    if (datagram.size() < sizeof(Hdr) || datagram.size() > MSG_LEN_MAX)
        return;
    void *start = memcpy(end - datagram.size(), datagram.data(), datagram.size());
    dispatch_datagram(static_cast<Hdr *>(start), datagram.size(), "192.0.2.1");
}

static void with_text(const std::string &text, void (*read)())
{
    open_text = &text;
    if (setjmp(refused) == 0)
        read();
    open_text = nullptr;
    if (open_file)
        fclose(open_file);
}

/* Cuts the next piece off the input: what stands behind its length in two bytes. */
static std::string cut_piece(std::string *input)
{
    size_t length = 0;
    memcpy(&length, input->data(), std::min<size_t>(input->size(), 2));
    std::string piece = input->substr(std::min<size_t>(input->size(), 2), length);
    input->erase(0, 2 + length);
    return piece;
}

/* The local node 7 with two Plain VDisks and a Snapshot, and one destination. */
static void set_up_node()
{
    for (size_t i = 0; i < 5; i++)
        dispatch(story()[i]);
    with_text("7\n", load_local_nodes);
    with_text("192.0.2.2\n", load_unicast_hosts);
}

static void drop_everything()
{
    NodeListFlush(local_nodes);
    HostListFlush(unicast_hosts);
    HostListFlush(multicast_groups);
    rm_fr(cfg_work_directory);
    mkdir(cfg_work_directory, 0777);
}

[[maybe_unused]] static void fuzz_datagram(std::string input)
{
    while (!input.empty())
        dispatch(cut_piece(&input));
    drop_everything();
}

/* One read of the control port; commands leave the tree alone, so it is made once. */
[[maybe_unused]] static void fuzz_ctrl(std::string input)
{
    if (TAILQ_EMPTY(local_nodes))
        set_up_node();
    CtrlConn conn = {};
    memcpy(conn.buf, input.data(), std::min(input.size(), sizeof(conn.buf) - 1));
    handle_ctrl_cmd(&conn, buf, sizeof(buf), -1);
    node_clear(TAILQ_FIRST(local_nodes));
}

[[maybe_unused]] static void fuzz_config(std::string input)
{
    config_module_teardown();
    config_module_setup();
    with_text(input, config_load);
    config_dump();
}

[[maybe_unused]] static void fuzz_tables(std::string input)
{
    with_text(input, load_local_nodes);
    with_text(input, load_unicast_hosts);
    free(cfg_multicast_address);
    cfg_multicast_address = strdup(input.c_str());
    parse_mcast_groups();
    dump_local_nodes();
    dump_unicast_hosts();
    drop_everything();
}

/* Each piece, behind a byte that chooses, is a file's new content or a link's name; then the node publishes and hears
 * its own deletions. */
[[maybe_unused]] static void fuzz_tree(std::string input)
{
    set_up_node();
    static const std::vector<fs::directory_entry> entries(fs::recursive_directory_iterator(cfg_work_directory), {});
    while (!input.empty()) {
        auto choice = static_cast<unsigned char>(input[0]);
        input.erase(0, 1);
        std::string piece = cut_piece(&input);
        std::error_code ignored;
        if (choice < entries.size())
            std::ofstream(entries[choice].path(), std::ios::binary) << piece;
        else if (piece.find('/') == piece.npos)
            fs::create_symlink("x", cfg_work_directory + ("/Node/7/vdisks/" + piece), ignored);
    }
    send_pings(buf, sizeof(buf), -1);
    for (size_t i = 5; i < 10; i++)
        dispatch(story()[i]);
    drop_everything();
}

static int next_free_fd()
{
    int fd = dup(0);
    close(fd);
    return fd;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int before = next_free_fd();
    MWD_FUZZ_TARGET({reinterpret_cast<const char *>(data), size});
    if (next_free_fd() != before || std::distance(fs::directory_iterator("/tmp"), {}) != 1)
        abort();
    return 0;
}

/* Each message, the same with every text up to its width, and all in one. */
static void write_seeds(const std::string &directory)
{
    int number = 0;
    std::ofstream whole(directory + "/whole", std::ios::binary);
    for (std::string message : story()) {
        std::string length = {static_cast<char>(message.size() & 0xff), static_cast<char>(message.size() >> 8)};
        whole << length << message;
        std::ofstream(directory + "/" + std::to_string(number++), std::ios::binary) << length << message;
        std::replace(message.begin() + 8, message.end(), '\0', 'x');
        std::ofstream(directory + "/" + std::to_string(number++), std::ios::binary) << length << message;
    }
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    config_module_setup();
    if (*argc > 1)
        write_seeds((*argv)[1]);
    if (unshare(CLONE_NEWNS) < 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) < 0 || NodeListAlloc(&local_nodes) < 0 ||
        HostListAlloc(&unicast_hosts) < 0 || HostListAlloc(&multicast_groups) < 0)
        abort();
    free(cfg_work_directory);
    cfg_work_directory = strdup("/tmp/tree");
    cfg_node_lock_timeout_ms = cfg_datastore_lock_timeout_ms = cfg_vdisk_lock_timeout_ms = 0;
    cfg_unicast_mode = 1;
    drop_everything();
    return 0;
}
