// rand_range. The bits come from /dev/urandom: every camera of a fleet starts with the same image and the same clock,
// so anything seeded from those would have all of them do at once what rand_range is there to spread. getrandom(2)
// would do as well, but it waits while the kernel's pool is young, which on a camera is just when daemons start.
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "vesk_util.h"

namespace {

bool read_urandom(uint32_t* value) {
    const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    ssize_t got = 0;
    do {
        got = read(fd, value, sizeof *value);
    } while (got < 0 && errno == EINTR);
    close(fd);
    return got == static_cast<ssize_t>(sizeof *value);
}

// Without /dev/urandom: clocks, process and stack address, stirred by the splitmix64 finalizer.
uint32_t stir_clocks(uint32_t attempt) {
    timespec monotonic = {};
    timespec wall = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &monotonic);
    (void)clock_gettime(CLOCK_REALTIME, &wall);
    uint64_t x = (static_cast<uint64_t>(monotonic.tv_nsec) << 32U) ^ static_cast<uint64_t>(wall.tv_nsec) ^
                 (static_cast<uint64_t>(wall.tv_sec) << 20U) ^ (static_cast<uint64_t>(getpid()) << 44U) ^
                 reinterpret_cast<uintptr_t>(&monotonic);
    x += 0x9e3779b97f4a7c15U * (attempt + 1ULL);
    x = (x ^ (x >> 30U)) * 0xbf58476d1ce4e5b9U;
    x = (x ^ (x >> 27U)) * 0x94d049bb133111ebU;
    return static_cast<uint32_t>(x ^ (x >> 31U));
}

}  // namespace

int rand_range(int a, int b) {
    if (b <= a) {
        return a;
    }
    const int saved_errno = errno;
    // One less than the count of values, so that the whole int range fits.
    const uint32_t span = static_cast<uint32_t>(b) - static_cast<uint32_t>(a);
    // The topmost values, from the last full multiple of the count on, would favour the low results: drawn again.
    const uint32_t unfair = span == UINT32_MAX ? 0 : (UINT32_MAX - span) % (span + 1);
    uint32_t bits = 0;
    uint32_t attempt = 0;
    do {
        if (!read_urandom(&bits)) {
            bits = stir_clocks(attempt);
        }
        ++attempt;
    } while (bits > UINT32_MAX - unfair);
    errno = saved_errno;
    const uint32_t offset = span == UINT32_MAX ? bits : bits % (span + 1);
    return static_cast<int>(static_cast<uint32_t>(a) + offset);
}
