/*
 * Fuzz targets: MWD_FUZZ_TARGET names the function that this build feeds. The tree and the locks lie on a private
 * tmpfs, log lines are formatted and dropped, messages are taken as sent. After each input no lock and no descriptor
 * may be left. $MWD_STORY is the file of the whole story, which some targets begin with.
 */
#include "mwd/config.h"
#include "mwd/controller_internal.h"
#include "mwd/misc.h"

#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

static std::vector<std::string> story;
static char buf[MSG_LEN_MAX];
static FILE *text; /* while set, it is what fopen opens, and exit comes back */
static jmp_buf refused;

extern "C" {
FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode)
{
    return text ? text : __real_fopen(path, mode);
}
int __real_fclose(FILE *file);
int __wrap_fclose(FILE *file)
{
    return file == text ? 0 : __real_fclose(file);
}
[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status)
{
    if (!text)
        __real_exit(status);
    longjmp(refused, status);
}
[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vsnprintf(nullptr, 0, format, args);
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

/* In a block of its own size, so that the sanitizer sees any read beyond it. */
static void dispatch(const std::string &datagram)
{
    const std::vector<char> copy(datagram.begin(), datagram.end());
    if (copy.size() >= sizeof(Hdr) && copy.size() <= MSG_LEN_MAX)
        dispatch_datagram(reinterpret_cast<const Hdr *>(copy.data()), copy.size(), "192.0.2.1");
}

static void with_text(std::string content, void (*read)())
{
    text = fmemopen(content.data(), content.size(), "r");
    if (setjmp(refused) == 0)
        read();
    __real_fclose(text);
    text = nullptr;
}

/* Cuts the next piece off the input: what stands behind its length in two bytes. */
static std::string cut_piece(std::string *input)
{
    uint16_t length = 0;
    input->copy(reinterpret_cast<char *>(&length), sizeof(length));
    input->erase(0, sizeof(length));
    std::string piece = input->substr(0, length);
    input->erase(0, length);
    return piece;
}

/* The local node 7 with two Plain VDisks and a Snapshot, and one destination. */
static void set_up_node()
{
    for (size_t i = 0; i < 5; i++)
        dispatch(story.at(i));
    with_text("7\n", load_local_nodes);
    with_text("192.0.2.2\n", load_unicast_hosts);
}

static void drop_everything()
{
    NodeListFlush(local_nodes);
    HostListFlush(unicast_hosts);
    HostListFlush(multicast_groups);
    rm_fr(cfg_work_directory);
    fs::create_directory(cfg_work_directory);
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
    input.copy(conn.buf, sizeof(conn.buf) - 1);
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

/* Each piece, behind a byte that chooses, is a file's content or a link's name; the node publishes, then hears more. */
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
        dispatch(story.at(i));
    drop_everything();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const int lowest_free = dup(0);
    close(lowest_free);
    MWD_FUZZ_TARGET({reinterpret_cast<const char *>(data), size});
    if (dup(0) != lowest_free || std::distance(fs::directory_iterator("/tmp"), {}) != 1)
        abort();
    close(lowest_free);
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    std::ifstream file(getenv("MWD_STORY"), std::ios::binary);
    for (std::string rest(std::istreambuf_iterator<char>(file), {}); !rest.empty();)
        story.push_back(cut_piece(&rest));
    config_module_setup();
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
