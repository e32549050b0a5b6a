/* What happens in the tree, as the kernel's inotify tells it. */
#ifndef MWCTL_TREE_WATCH_H
#define MWCTL_TREE_WATCH_H

#include "mwctl/tree.h"

#include <chrono>
#include <string>
#include <unordered_map>
#include <vector>

namespace mwctl
{

class TreeWatch
{
  public:
    /* Something was written, made, moved or removed in a directory that was added. */
    struct Event {
        std::string tag;  /* of the directory; empty if events were lost and anything may have happened */
        std::string name; /* in it; empty if it is about the directory itself */
        bool new_directory = false;
    };

    TreeWatch();

    /* Watches the directory, if there is one; its events carry `tag`. Adding it again costs a system call, no more. */
    void add(const std::string &path, const std::string &tag);

    /* The events that have come; if there are none, those that come within `timeout`. */
    std::vector<Event> wait(std::chrono::milliseconds timeout);

    /* Why some directories are not watched, such as the kernel's limit; empty if all are. */
    const std::string &failure() const
    {
        return failure_;
    }

  private:
    Descriptor fd_;
    std::unordered_map<int, std::string> tags_;
    std::string failure_;
};

} // namespace mwctl

#endif
