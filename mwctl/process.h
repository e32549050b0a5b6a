/* What /proc tells of processes. */
#ifndef MWCTL_PROCESS_H
#define MWCTL_PROCESS_H

#include <cstdint>
#include <ctime>
#include <string>

namespace mwctl
{

/* Whether the process runs; a zombie does not. */
bool process_alive(int pid);

/* Its command line with blanks between the words, or its name in brackets; empty if it is gone. */
std::string process_command(int pid);

/* The base name of its executable, of another user's process its own name; empty if it is gone. */
std::string process_executable(int pid);

struct ProcessUse {
    time_t since = 0;
    double cpu_seconds = 0;
    uint64_t rss_bytes = 0;
};

/* Start, processor time of it and its children that it waited for, and resident memory; zeros if it is gone. */
ProcessUse process_use(int pid);

/* The process that has the socket of this inode open, 0 if none can be seen. */
int socket_holder(uint64_t inode);

} // namespace mwctl

#endif
