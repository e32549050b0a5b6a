#include "mwctl/tree.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mwctl
{

/* More than any value may have, and than any list that fits a message. */
constexpr size_t VALUE_READ = 257;
constexpr size_t LIST_READ = (size_t(1) << 20) + 1;

Descriptor::~Descriptor()
{
    if (fd_ >= 0)
        close(fd_);
}

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept
{
    std::swap(fd_, other.fd_);
    return *this;
}

const Entry *Directory::find(std::string_view name) const
{
    auto found = std::find_if(entries.begin(), entries.end(), [&](const Entry &entry) { return entry.name == name; });
    return found == entries.end() ? nullptr : &*found;
}

static char type_of_mode(mode_t mode)
{
    return S_ISREG(mode) ? 'f' : S_ISDIR(mode) ? 'd' : S_ISLNK(mode) ? 'l' : 'o';
}

static char type_of_entry(int dirfd, const struct dirent64 *entry)
{
    switch (entry->d_type) {
    case DT_REG:
        return 'f';
    case DT_DIR:
        return 'd';
    case DT_LNK:
        return 'l';
    case DT_UNKNOWN:
        break;
    default:
        return 'o';
    }
    struct stat st;
    return fstatat(dirfd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 ? type_of_mode(st.st_mode) : 'o';
}

Directory read_directory(int at, const std::string &name)
{
    Directory directory;
    directory.fd = Descriptor(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    auto failed = [&] {
        directory.fault = errno == ENOENT                      ? Fault::missing
                          : errno == ENOTDIR || errno == ELOOP ? Fault::no_file
                                                               : Fault::unreadable;
        directory.reason = strerror(errno);
        return std::move(directory);
    };
    if (!directory.fd)
        return failed();
    thread_local char buffer[32768] __attribute__((aligned(8)));
    ssize_t length;
    while ((length = getdents64(directory.fd.get(), buffer, sizeof(buffer))) > 0)
        for (ssize_t at_entry = 0; at_entry < length;) {
            auto *entry = reinterpret_cast<struct dirent64 *>(buffer + at_entry);
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
                directory.entries.push_back({entry->d_name, type_of_entry(directory.fd.get(), entry)});
            at_entry += entry->d_reclen;
        }
    return length < 0 ? failed() : std::move(directory);
}

static Value refused()
{
    if (errno == ENOENT)
        return {};
    return {strerror(errno), errno == EISDIR || errno == ENXIO ? Fault::no_file : Fault::unreadable};
}

/* Reads an open file and judges what is in it; `regular` tells that it needs no look at its kind. */
static Value read_open_file(int fd, const Attribute &attribute, bool regular)
{
    struct stat st;
    if (!regular && (fstat(fd, &st) < 0 || !S_ISREG(st.st_mode)))
        return {"", Fault::no_file};
    bool list = attribute.form == Form::nodes || attribute.form == Form::addresses;
    char small[VALUE_READ];
    std::string large;
    char *buffer = small;
    size_t size = sizeof(small), length = 0;
    for (;;) {
        ssize_t result = read(fd, buffer + length, size - length);
        if (result < 0 && errno == EINTR)
            continue;
        if (result < 0)
            return refused();
        length += static_cast<size_t>(result);
        if (length < size || length == LIST_READ || !list) /* of a regular file, less than asked for is all there is */
            return parse_value(attribute, {buffer, length});
        if (large.empty())
            large.assign(small, length);
        large.resize(std::min(size * 4, LIST_READ));
        buffer = large.data();
        size = large.size();
    }
}

static Value read_value_file(int at, const char *path, const Attribute &attribute, bool regular)
{
    Descriptor fd(openat(at, path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    return fd ? read_open_file(fd.get(), attribute, regular) : refused();
}

Value read_value(const Directory &directory, const Attribute &attribute)
{
    const Entry *entry = directory.find(attribute.key);
    if (!entry)
        return {};
    if (entry->type == 'd' || entry->type == 'o')
        return {"", Fault::no_file};
    return read_value_file(directory.fd.get(), entry->name.c_str(), attribute, entry->type == 'f');
}

Value read_value_at(int at, const std::string &path, const Attribute &attribute)
{
    return read_value_file(at, path.c_str(), attribute, false);
}

Values read_values(const Directory &directory, Kind kind)
{
    Values values;
    values.reserve(attributes(kind).size());
    for (const Attribute &attribute : attributes(kind))
        values.push_back(read_value(directory, attribute));
    return values;
}

std::optional<std::string> read_link(int at, const std::string &name)
{
    char target[PATH_MAX];
    ssize_t length = readlinkat(at, name.c_str(), target, sizeof(target));
    if (length < 0)
        return std::nullopt;
    return std::string(target, static_cast<size_t>(length));
}

LinkDirectory read_links(int at, const std::string &name, const std::string &path, std::vector<Stray> &strays)
{
    Directory directory = read_directory(at, name);
    LinkDirectory result{directory.fault, directory.reason, {}};
    for (const Entry &entry : directory.entries) {
        std::optional<std::string> target;
        if (entry.type == 'l')
            target = read_link(directory.fd.get(), entry.name);
        if (target)
            result.links.push_back({entry.name, *target});
        else if (entry.type != 'l')
            strays.push_back({fmt::format("{}/{}/{}", path, name, entry.name), entry.type});
    }
    std::sort(result.links.begin(), result.links.end(), [](const Link &a, const Link &b) { return a.name < b.name; });
    return result;
}

} // namespace mwctl
