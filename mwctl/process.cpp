#include "mwctl/process.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <unistd.h>
#include <vector>

namespace mwctl
{

static std::string read_proc(int pid, const char *file)
{
    std::ifstream stream(fmt::format("/proc/{}/{}", pid, file), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/* The fields of /proc/PID/stat from the third on: the second, a name in brackets, may hold anything. */
static std::vector<std::string> stat_fields(int pid)
{
    std::string text = read_proc(pid, "stat");
    size_t bracket = text.rfind(')');
    if (bracket == std::string::npos)
        return {};
    std::istringstream rest(text.substr(bracket + 1));
    return {std::istream_iterator<std::string>(rest), {}};
}

bool process_alive(int pid)
{
    std::vector<std::string> fields = stat_fields(pid);
    return !fields.empty() && fields[0] != "Z" && fields[0] != "X";
}

std::string process_command(int pid)
{
    std::string command = read_proc(pid, "cmdline");
    while (!command.empty() && command.back() == '\0')
        command.pop_back();
    std::replace(command.begin(), command.end(), '\0', ' ');
    if (!command.empty())
        return command;
    std::string name = read_proc(pid, "comm");
    if (!name.empty() && name.back() == '\n')
        name.pop_back();
    return name.empty() ? "" : fmt::format("[{}]", name);
}

std::string process_executable(int pid)
{
    std::error_code error;
    std::string path = std::filesystem::read_symlink(fmt::format("/proc/{}/exe", pid), error).string();
    if (error == std::errc::permission_denied) { /* another user's process: its name is all that it shows */
        std::string name = read_proc(pid, "comm");
        return name.substr(0, name.find('\n'));
    }
    static constexpr std::string_view deleted =
        " (deleted)"; /* an upgrade replaced the file under the running daemon */
    if (path.ends_with(deleted))
        path.resize(path.size() - deleted.size());
    return path.substr(path.rfind('/') + 1);
}

static uint64_t field_number(const std::vector<std::string> &fields, size_t index)
{
    return index < fields.size() ? strtoull(fields[index].c_str(), nullptr, 10) : 0;
}

static time_t boot_time()
{
    std::ifstream stream("/proc/stat");
    std::string word;
    long long seconds = 0;
    while (stream >> word)
        if (word == "btime")
            stream >> seconds;
    return static_cast<time_t>(seconds);
}

ProcessUse process_use(int pid)
{
    enum { utime = 11, stime = 12, cutime = 13, cstime = 14, starttime = 19, rss = 21 };
    std::vector<std::string> fields = stat_fields(pid);
    if (fields.size() <= rss)
        return {};
    auto ticks = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    uint64_t used = field_number(fields, utime) + field_number(fields, stime) + field_number(fields, cutime) +
                    field_number(fields, cstime);
    return {boot_time() + static_cast<time_t>(field_number(fields, starttime) / ticks),
            static_cast<double>(used) / static_cast<double>(ticks),
            field_number(fields, rss) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE))};
}

static bool holds_socket(const std::filesystem::path &process, const std::string &wanted)
{
    std::error_code error;
    for (const auto &fd : std::filesystem::directory_iterator(process / "fd", error))
        if (std::filesystem::read_symlink(fd.path(), error).string() == wanted)
            return true;
    return false;
}

int socket_holder(uint64_t inode)
{
    std::string wanted = fmt::format("socket:[{}]", inode);
    std::error_code error;
    for (const auto &process : std::filesystem::directory_iterator("/proc", error)) {
        std::string name = process.path().filename();
        int pid = 0;
        auto [end, fault] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (fault == std::errc() && end == name.data() + name.size() && holds_socket(process.path(), wanted))
            return pid;
    }
    return 0;
}

} // namespace mwctl
