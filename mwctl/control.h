/* The running daemon: its signals and its control port. */
#ifndef MWCTL_CONTROL_H
#define MWCTL_CONTROL_H

#include "mwctl/settings.h"
#include "mwctl/tree.h"

#include <string>

namespace mwctl
{

/* The daemon's process number. Gives up with status 3 if it does not run. */
int require_daemon(const Settings &settings);

/* Sends the signal to the running daemon; gives up with status 3 if that cannot be done. */
void signal_daemon(const Settings &settings, int signal);

/* A connection to the control port of the running daemon, for one command. The daemon never answers. */
class ControlPort
{
  public:
    /* Connects, or gives up with status 3. */
    explicit ControlPort(const Settings &settings);
    /* Hands over a line without its newline. */
    void send(const std::string &line);

  private:
    std::string place_; /* ADDRESS:PORT */
    Descriptor socket_;
};

} // namespace mwctl

#endif
