/* Preloaded into the daemon: its wall-clock time is the number that the test keeps in /mnt/clock. */
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" time_t time(time_t *result) noexcept
{
    static auto *now = static_cast<const volatile time_t *>(
        mmap(nullptr, sizeof(time_t), PROT_READ, MAP_SHARED, open("/mnt/clock", O_RDONLY | O_CLOEXEC), 0));
    return result ? *result = *now : *now;
}
