#include "mwctl/tree_watch.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace mwctl
{

TreeWatch::TreeWatch() : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    if (!fd_)
        failure_ = strerror(errno);
}

void TreeWatch::add(const std::string &path, const std::string &tag)
{
    if (!fd_)
        return;
    int watch = inotify_add_watch(fd_.get(), path.c_str(),
                                  IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVE | IN_DELETE_SELF | IN_ONLYDIR);
    if (watch >= 0)
        tags_[watch] = tag;
    else if (errno == ENOSPC || errno == ENOMEM)
        failure_ = errno == ENOSPC ? "the limit fs.inotify.max_user_watches is reached" : strerror(errno);
}

std::vector<TreeWatch::Event> TreeWatch::wait(std::chrono::milliseconds timeout)
{
    std::vector<Event> events;
    struct pollfd polled = {fd_.get(), POLLIN, 0};
    if (poll(&polled, 1, static_cast<int>(timeout.count())) <= 0)
        return events;
    char buffer[65536] __attribute__((aligned(8)));
    ssize_t length;
    while ((length = read(fd_.get(), buffer, sizeof(buffer))) > 0)
        for (ssize_t at = 0; at < length;) {
            auto *event = reinterpret_cast<struct inotify_event *>(buffer + at);
            at += static_cast<ssize_t>(sizeof(*event) + event->len);
            auto tag = tags_.find(event->wd);
            if (event->mask & IN_Q_OVERFLOW)
                events.push_back({});
            else if (event->mask & IN_IGNORED)
                tags_.erase(event->wd);
            else if (tag != tags_.end())
                events.push_back({tag->second, event->len ? event->name : "",
                                  (event->mask & IN_ISDIR) && (event->mask & (IN_CREATE | IN_MOVED_TO))});
        }
    return events;
}

} // namespace mwctl
