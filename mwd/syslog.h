/*
 * The log. Every line goes to syslog(3) in one shape: level word, function, text. The macros leave the
 * formatting to syslog(3) itself, which looks at the mask first, so a masked line costs a call and nothing
 * more.
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
#define log_error_as(op, format, ...) syslog(LOG_ERR, "error: %s(): " format "%s", op __VA_OPT__(, ) __VA_ARGS__, "")
#define log_warn_as(op, format, ...) syslog(LOG_WARNING, "warn: %s(): " format "%s", op __VA_OPT__(, ) __VA_ARGS__, "")
#define log_notice_as(op, format, ...)                                                                                 \
    syslog(LOG_NOTICE, "notice: %s(): " format "%s", op __VA_OPT__(, ) __VA_ARGS__, "")
#define log_info_as(op, format, ...) syslog(LOG_INFO, "info: %s(): " format "%s", op __VA_OPT__(, ) __VA_ARGS__, "")
#define log_debug_as(op, format, ...) syslog(LOG_DEBUG, "debug: %s(): " format "%s", op __VA_OPT__(, ) __VA_ARGS__, "")

/*
 * Opens the log with cfg_syslog_ident and cfg_syslog_facility and masks the levels behind
 * cfg_syslog_priority; with
 * `-d` lines are copied to stderr, with `-dd` nothing is masked. May run any number of times, the newest
 * values hold. cfg_syslog_ident stays the config module's and must live for as long as lines are written.
 */
void syslog_module_setup();

/* Closes the log. Lines written afterwards still reach syslog, under the platform's defaults. */
void syslog_module_teardown();

/* Whether debug lines pass: to be asked before work is done for debug lines alone. Makes no system call. */
bool log_debug_enabled();

#endif
