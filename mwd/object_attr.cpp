/* Attribute files: the only way to a value in the tree. */
#include "mwd/object_internal.h"

#include "mwd/io.h"
#include "mwd/syslog.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

/* One value with its newline, and a terminator. */
constexpr size_t VALUE_LEN = 256;

/*
 * Values are opened with O_NONBLOCK, so that a FIFO or a terminal in the place of one fails. The daemon would otherwise
 * wait for whoever is at the other end, holding the record's lock and deaf to signals.
 */

int AttrStore(int dirfd, const char *key, const char *format, ...)
{
    char *text;
    va_list args;
    va_start(args, format);
    int length = vasprintf(&text, format, args);
    va_end(args);
    if (length < 0)
        return -1;

    BufGuard guard(text);
    int fd = fd_openat(dirfd, key, O_RDWR | O_CREAT | O_TRUNC | O_NONBLOCK, 0666);
    if (fd < 0)
        return -1;
    ssize_t written = buf_tx(fd, text, static_cast<size_t>(length), 1);
    fd_close(fd);
    return written == length ? length : -1;
}

int value_open(int dirfd, const char *key)
{
    return fd_openat(dirfd, key, O_RDONLY | O_NONBLOCK, 0);
}

/*
 * Reads the one line of `key` into `text`, without its newline. Returns the length with the newline, so that 0 is the
 * empty file and nothing else; or -1. Flat, since a publication is little else than this: calls around its system
 * calls cost more than a percent.
 */
[[gnu::flatten]] static int line_load(const char *op, int dirfd, const char *key, char (&text)[VALUE_LEN])
{
    FdGuard fd(value_open(dirfd, key));
    if (fd.fd < 0)
        return -1;
    off_t size = lseek(fd.fd, 0, SEEK_END);
    if (size < 0) {
        log_error_as(op, "lseek(%s): %s", key, strerror(errno));
        return -1;
    }
    if (size == 0)
        return 0;
    if (size >= static_cast<off_t>(VALUE_LEN)) {
        log_error_as(op, "Oversized file %s", key);
        return -1;
    }
    if (lseek(fd.fd, 0, SEEK_SET) < 0) {
        log_error_as(op, "lseek(%s): %s", key, strerror(errno));
        return -1;
    }
    auto length = static_cast<size_t>(size);
    if (buf_rx(fd.fd, text, length, 1) != size)
        return -1;
    text[length] = '\0';
    if (text[length - 1] != '\n') {
        log_error_as(op, "Malformed file %s", key);
        return -1;
    }
    text[length - 1] = '\0';
    return static_cast<int>(length);
}

/* As strtoull, with a short way for plain digits, which nearly every number of the tree is. */
static const char *scan_digits(const char *text, unsigned long long *number)
{
    constexpr ptrdiff_t digits_that_fit = 19;
    const char *at = text;
    *number = 0;
    for (; *at >= '0' && *at <= '9'; at++)
        *number = *number * 10 + static_cast<unsigned long long>(*at - '0');
    if (at != text && at - text <= digits_that_fit)
        return at;
    char *end;
    *number = strtoull(text, &end, 10);
    return end;
}

/*
 * The formats of the tree's numbers, "%u" and "%llu", as vsscanf reads them and at a fraction of its cost. Returns the
 * number of conversions, or EOF for a text of blanks.
 */
static int scan_number(const char *text, const char *format, va_list args)
{
    unsigned long long number;
    if (scan_digits(text, &number) == text)
        return text[strspn(text, " \t\n\v\f\r")] == '\0' ? EOF : 0;
    if (format[1] == 'u')
        *va_arg(args, unsigned int *) = static_cast<unsigned int>(number);
    else
        *va_arg(args, unsigned long long *) = number;
    return 1;
}

int AttrLoad(int dirfd, const char *key, const char *format, ...)
{
    char text[VALUE_LEN];
    int length = line_load(__func__, dirfd, key, text);
    if (length < 0)
        return -1;
    if (length == 0) {
        log_error("Empty file %s", key);
        return -1;
    }
    va_list args;
    va_start(args, format);
    int conversions = scan_number(text, format, args);
    va_end(args);
    return conversions;
}

int StringLoad(int dirfd, const char *key, char *dst, size_t dst_len)
{
    char text[VALUE_LEN];
    int length = line_load(__func__, dirfd, key, text);
    if (length <= 0)
        return length;

    auto text_len = static_cast<size_t>(length) - 1;
    if (text_len > dst_len) {
        log_error("String too long in %s: %s", key, text);
        return -1;
    }
    memset(dst, 0, dst_len);
    memcpy(dst, text, text_len);
    return length - 1;
}

ssize_t FileLoad(int fd, char **r_buf)
{
    off_t size = lseek(fd, 0, SEEK_END);
    if (size <= 0)
        return size < 0 ? -1 : 0;
    if (!std::in_range<ssize_t>(size) || lseek(fd, 0, SEEK_SET) < 0)
        return -1;

    auto length = static_cast<size_t>(size);
    auto *buf = static_cast<char *>(malloc(length + 1));
    if (!buf) {
        log_error("malloc(%zu): %s", length + 1, strerror(errno));
        return -1;
    }
    ssize_t result = buf_rx(fd, buf, length, 1);
    if (result != size) {
        free(buf);
        return result < 0 ? result : -1; /* a file that ends early is a failure too */
    }
    buf[length] = '\0';
    *r_buf = buf;
    return result;
}
