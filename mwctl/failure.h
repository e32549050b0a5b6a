/* How a command ends: the exit statuses that scripts rely on, and the failures that carry one. */
#ifndef MWCTL_FAILURE_H
#define MWCTL_FAILURE_H

#include <stdexcept>
#include <string>

namespace mwctl
{

constexpr int STATUS_DONE = 0;       /* done, all is well */
constexpr int STATUS_TROUBLE = 1;    /* done, but there is trouble; or what was waited for did not come */
constexpr int STATUS_USAGE = 2;      /* wrong usage, a refused key or value */
constexpr int STATUS_IMPOSSIBLE = 3; /* could not be done */

/* Ends the command with `status` after one line on stderr: what went wrong and what would help. */
struct Failure : std::runtime_error {
    int status;

    Failure(int exit_status, const std::string &text) : std::runtime_error(text), status(exit_status)
    {
    }
};

/* A key, value or name that is refused. Nothing was written. */
[[noreturn]] inline void refuse(const std::string &text)
{
    throw Failure(STATUS_USAGE, text);
}

/* Something that is not to be had: no tree, no permission, a lock that is held. */
[[noreturn]] inline void give_up(const std::string &text)
{
    throw Failure(STATUS_IMPOSSIBLE, text);
}

} // namespace mwctl

#endif
