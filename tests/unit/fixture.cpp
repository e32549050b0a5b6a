#include "tests/unit/fixture.h"

#include <cstdarg>

[[gnu::format(printf, 2, 0)]] static void note(int priority, const char *format, va_list args)
{
    char text[1024];
    vsnprintf(text, sizeof(text), format, args);
    Unit::log += setlogmask(0) & LOG_MASK(priority) ? text + "\n"s : "";
}

extern "C" [[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    note(priority, format, args);
    va_end(args);
}

extern "C" [[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    note(priority, format, args);
    va_end(args);
}

extern "C" int __wrap_nanosleep(const struct timespec *time, struct timespec *)
{
    Unit::log += "[" + to_string(time->tv_sec * 1000 + time->tv_nsec / 1000000) + "]\n";
    errno = Unit::on_sleep ? Unit::on_sleep() : 0;
    return errno == 0 ? 0 : -1;
}
