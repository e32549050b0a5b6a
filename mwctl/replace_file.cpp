#include "mwctl/replace_file.h"

#include "mwctl/failure.h"
#include "mwctl/tree.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mwctl
{

static bool write_whole(int fd, std::string_view content)
{
    while (!content.empty()) {
        ssize_t written = write(fd, content.data(), content.size());
        if (written < 0 && errno != EINTR)
            return false;
        content.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    return fchmod(fd, 0644) == 0 && fsync(fd) == 0;
}

void replace_file(const std::string &path, std::string_view content)
{
    /* Hidden, and without the ending of `path`: collectors of *.prom pass it over. */
    size_t base = path.rfind('/') + 1;
    std::string temporary = fmt::format("{}.{}.XXXXXX", path.substr(0, base), path.substr(base));
    Descriptor fd(mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd)
        give_up(fmt::format("cannot write {}: {}; is there the directory, and may you write to it?", path,
                            strerror(errno)));
    if (!write_whole(fd.get(), content) || rename(temporary.c_str(), path.c_str()) < 0) {
        int error = errno;
        unlink(temporary.c_str());
        give_up(fmt::format("cannot write {}: {}; the old file stands", path, strerror(error)));
    }
}

} // namespace mwctl
