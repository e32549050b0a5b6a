/* The files of the tree as they are: directories listed, values read, at the price of as few system calls as it takes.
 */
#ifndef MWCTL_TREE_H
#define MWCTL_TREE_H

#include "mwctl/cluster.h"

#include <string>
#include <string_view>
#include <vector>

namespace mwctl
{

/* A descriptor that its scope closes; -1 stands for none. */
class Descriptor
{
  public:
    explicit Descriptor(int fd = -1) : fd_(fd)
    {
    }
    ~Descriptor();
    Descriptor(Descriptor &&other) noexcept : fd_(other.fd_)
    {
        other.fd_ = -1;
    }
    Descriptor &operator=(Descriptor &&other) noexcept;
    int get() const
    {
        return fd_;
    }
    explicit operator bool() const
    {
        return fd_ >= 0;
    }

  private:
    int fd_;
};

struct Entry {
    std::string name;
    char type; /* as in Stray */
};

/* An open directory with its entries, "." and ".." apart, in no order; or why there is none. */
struct Directory {
    Descriptor fd;
    std::vector<Entry> entries;
    Fault fault = Fault::none; /* missing, unreadable, or no_file for what is no directory */
    std::string reason;

    const Entry *find(std::string_view name) const;
};

/* Opens and lists `name` in the directory `at`; a link in its place is no directory. */
Directory read_directory(int at, const std::string &name);

/* Reads and judges the value of `attribute` in `directory`. */
Value read_value(const Directory &directory, const Attribute &attribute);

/* Reads and judges one value by its path relative to `at`, without a listing. */
Value read_value_at(int at, const std::string &path, const Attribute &attribute);

/* All values of a record. */
Values read_values(const Directory &directory, Kind kind);

/* The target of the link, or nothing if it cannot be read. */
std::optional<std::string> read_link(int at, const std::string &name);

/* The links of a directory; what is no link goes to `strays` under `path`. */
LinkDirectory read_links(int at, const std::string &name, const std::string &path, std::vector<Stray> &strays);

} // namespace mwctl

#endif
