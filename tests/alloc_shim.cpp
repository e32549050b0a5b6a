/* Preloaded into the daemon: fails one allocation, made by the daemon or by the C library for it, and counts. */
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
void __libc_free(void *old);
}
/* What the test shares with it, in /mnt/alloc. */
struct Allocations {
    long countdown; /* how many allocations until one fails; 0 for never */
    long alive;
    long own;      /* whether the daemon itself asked for the one that failed */
    long own_only; /* whether only what it asks for itself is counted down */
};
static Allocations none, *shared = &none;
static pid_t owner; /* its children share the file */

[[gnu::constructor]] static void attach()
{
    owner = getpid();
    int fd = open("/mnt/alloc", O_RDWR | O_CLOEXEC);
    shared = static_cast<Allocations *>(mmap(nullptr, sizeof(none), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
}

static bool fails(const void *caller)
{
    const bool own =
        reinterpret_cast<uintptr_t>(caller) - getauxval(AT_PHDR) < 1 << 24; /* the program's headers are first */
    if (getpid() != owner || shared->countdown == 0 || own < shared->own_only || --shared->countdown > 0)
        return false;
    shared->own = own;
    errno = ENOMEM;
    return true;
}

static void *counted(void *fresh)
{
    shared->alive += fresh != nullptr;
    return fresh;
}

extern "C" void *malloc(size_t size)
{
    return fails(__builtin_return_address(0)) ? nullptr : counted(__libc_malloc(size));
}

extern "C" void *calloc(size_t count, size_t size)
{
    return fails(__builtin_return_address(0)) ? nullptr : counted(__libc_calloc(count, size));
}

extern "C" void *realloc(void *old, size_t size)
{
    return old ? __libc_realloc(old, size) : malloc(size);
}

extern "C" void free(void *old)
{
    shared->alive -= old != nullptr;
    __libc_free(old);
}
