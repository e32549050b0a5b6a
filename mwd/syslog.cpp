#include "mwd/syslog.h"

#include "mwd/config.h"

static int syslog_module_initialized;

int log_mask = LOG_UPTO(LOG_DEBUG);

void syslog_module_setup()
{
    if (syslog_module_initialized)
        syslog_module_teardown();

    int option = LOG_PID | LOG_NDELAY;
    if (opt_debug >= 1)
        option |= LOG_PERROR;
    openlog(cfg_syslog_ident, option, cfg_syslog_facility);
    if (opt_debug < 2) {
        log_mask = LOG_UPTO(cfg_syslog_priority & LOG_PRIMASK);
        setlogmask(log_mask);
    }
    syslog_module_initialized = 1;
}

void syslog_module_teardown()
{
    closelog();
    syslog_module_initialized = 0;
}

bool log_debug_enabled()
{
    return log_mask & LOG_MASK(LOG_DEBUG);
}
