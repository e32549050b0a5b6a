/* The daemon's frame: the order in which everything comes up and goes down. */
#include "mwd/config.h"
#include "mwd/controller.h"
#include "mwd/io.h"
#include "mwd/syslog.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

[[noreturn]] static void usage(const char *program)
{
    fprintf(stderr, "Usage: %s [-dh] [-C config]\n", program);
    exit(1);
}

static void parse_options(int argc, char **argv)
{
    opterr = 0; /* the usage line says it all */
    int option;
    while ((option = getopt(argc, argv, "dC:h")) != -1) {
        switch (option) {
        case 'd':
            opt_debug++;
            break;
        case 'C':
            opt_config = optarg;
            break;
        default:
            usage(argv[0]);
        }
    }
}

/* Keeps 0, 1 and 2 taken: what is meant for standard error must not end up in a socket or a file of the tree. */
static void hold_standard_descriptors()
{
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

/* Makes the work directory, its last component only, and enters it. Failures are told on stderr. */
static int enter_work_directory()
{
    if (mkdir(cfg_work_directory, 0777) < 0 && errno != EEXIST) {
        fprintf(stderr, "error: mkdir(%s): %s\n", cfg_work_directory, strerror(errno));
        return -1;
    }
    if (chdir(cfg_work_directory) < 0) {
        fprintf(stderr, "error: chdir(%s): %s\n", cfg_work_directory, strerror(errno));
        return -1;
    }
    return 0;
}

/* The file names the process for the host's other programs. It is no lock, and it stays. */
static int write_pid_file(const char *op)
{
    int fd = fd_open(cfg_pid_file, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return -1;
    char pid_file[16];
    int len = snprintf(pid_file, sizeof(pid_file), "%d\n", getpid());
    if (buf_tx(fd, pid_file, static_cast<size_t>(len), 1) < 0)
        return -1;
    if (fsync(fd) < 0) {
        log_error_as(op, "fsync(%s): %s", cfg_pid_file, strerror(errno));
        return -1;
    }
    return fd_close(fd);
}

int main(int argc, char **argv)
{
    parse_options(argc, argv);
    hold_standard_descriptors();
    config_module_setup();
    syslog_module_setup();
    config_load();

    umask(022);
    if (enter_work_directory() < 0)
        exit(1);
    if (opt_debug == 0 && daemon(1, 0) < 0) {
        fprintf(stderr, "error: daemon(): %s\n", strerror(errno));
        exit(1);
    }
    config_dump();
    if (write_pid_file(__func__) < 0)
        exit(1);
    if (controller_module_setup() < 0 || controller_thread_loop() < 0)
        exit(1);

    controller_module_teardown();
    config_module_teardown();
    syslog_module_teardown();
    return 0;
}
