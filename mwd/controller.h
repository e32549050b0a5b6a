/*
 * The controller: the daemon's one thread of control. It owns the sockets, the peer tables, the timers, the counters
 * and the one message buffer. Called by main, each function once and in this order.
 */
#ifndef MWD_CONTROLLER_H
#define MWD_CONTROLLER_H

/* Makes the tables, installs the signal handlers and staggers the timers. Returns 0, or -1 to -3 for the table. */
int controller_module_setup();

/*
 * Brings the sockets up and turns until SIGINT, SIGTERM or a socket that can no longer be read. Returns 0 then, or -1
 * if the bring-up failed; all sockets are closed either way.
 */
int controller_thread_loop();

/* Frees the tables. */
void controller_module_teardown();

#endif
