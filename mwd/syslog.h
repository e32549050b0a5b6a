/*
 * The log. Every line goes to syslog(3) in one shape: level word, function, text. The macros leave the formatting to
 * syslog(3), so that the compiler checks it, and look at the mask themselves: a masked line costs no call, and its
 * arguments are not worked out.
 */
#ifndef MWD_SYSLOG_H
#define MWD_SYSLOG_H

#include <syslog.h>

/* Lines of the function in which they stand. */
#define log_error(format, ...) log_error_as(__func__, format __VA_OPT__(, ) __VA_ARGS__)
#define log_warn(format, ...) log_warn_as(__func__, format __VA_OPT__(, ) __VA_ARGS__)
#define log_notice(format, ...) log_notice_as(__func__, format __VA_OPT__(, ) __VA_ARGS__)
#define log_info(format, ...) log_info_as(__func__, format __VA_OPT__(, ) __VA_ARGS__)
#define log_debug(format, ...) log_debug_as(__func__, format __VA_OPT__(, ) __VA_ARGS__)

/* Lines of a step that several operations share, under the name of the operation `op` that it serves. */
#define log_error_as(op, format, ...) log_line(LOG_ERR, "error", op, format __VA_OPT__(, ) __VA_ARGS__)
#define log_warn_as(op, format, ...) log_line(LOG_WARNING, "warn", op, format __VA_OPT__(, ) __VA_ARGS__)
#define log_notice_as(op, format, ...) log_line(LOG_NOTICE, "notice", op, format __VA_OPT__(, ) __VA_ARGS__)
#define log_info_as(op, format, ...) log_line(LOG_INFO, "info", op, format __VA_OPT__(, ) __VA_ARGS__)
#define log_debug_as(op, format, ...) log_line(LOG_DEBUG, "debug", op, format __VA_OPT__(, ) __VA_ARGS__)

#define log_line(priority, word, op, format, ...)                                                                      \
    do {                                                                                                               \
        if (log_mask & LOG_MASK(priority))                                                                             \
            syslog(priority, word ": %s(): " format "%s", op __VA_OPT__(, ) __VA_ARGS__, "");                          \
    } while (0)

/* The levels that pass, as setlogmask(3) was told; set by syslog_module_setup alone. */
extern int log_mask;

/*
 * Opens the log with cfg_syslog_ident and cfg_syslog_facility and masks the levels behind cfg_syslog_priority; with
 * `-d` lines are copied to stderr, with `-dd` nothing is masked. May run any number of times, the newest values hold.
 * cfg_syslog_ident stays the config module's and must live for as long as lines are written.
 */
void syslog_module_setup();

/* Closes the log. Lines written afterwards still reach syslog, under the platform's defaults. */
void syslog_module_teardown();

/* Whether debug lines pass: to be asked before work is done for debug lines alone. Makes no system call. */
bool log_debug_enabled();

#endif
