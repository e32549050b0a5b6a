#include "mwd/syslog.h"

#include "mwd/config.h"

static int syslog_module_initialized;

void syslog_module_setup()
{
    if (syslog_module_initialized)
        syslog_module_teardown();

    int option = LOG_PID | LOG_NDELAY;
    if (opt_debug >= 1)
        option |= LOG_PERROR;
    openlog(cfg_syslog_ident, option, cfg_syslog_facility);
    if (opt_debug < 2)
        setlogmask(LOG_UPTO(cfg_syslog_priority & LOG_PRIMASK));
    syslog_module_initialized = 1;
}

void syslog_module_teardown()
{
    closelog();
    syslog_module_initialized = 0;
}

bool log_debug_enabled()
{
    return setlogmask(0) & LOG_MASK(LOG_DEBUG);
}
