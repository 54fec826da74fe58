#include "region.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "vesk_util.h"

namespace kyt {
namespace {

// Shared pages must lie at addresses that suit the data cache; 256 KiB is the widest distance that MIPS asks for.
constexpr uintptr_t ALIGNMENT = uintptr_t{256} * 1024;
constexpr size_t RESERVED_BYTES = MAX_BYTES + ALIGNMENT;

constexpr uint32_t PAGE_BYTES = 4096;

void lock(region* r) {
    // No room under the limit for locked memory: the list works, but a pulled card may fault. Said once, not 48 times a
    // day; the first open is on the loop thread like every other.
    static bool said = false;
    const uint32_t wanted = std::min(r->in_file, LOCK_BYTES);
    if (mlock(r->base, wanted) == 0) {
        r->locked = wanted;
    } else if (!said) {
        said = true;
        log_warning("kyt: the list cannot be locked in memory: %s", std::strerror(errno));
    }
}

}  // namespace

int region_map(region* r, int fd, uint32_t bytes) {
    void* const reserved = mmap(nullptr, RESERVED_BYTES, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (reserved == MAP_FAILED) {
        return -1;
    }
    r->reserved = reserved;
    const auto address = reinterpret_cast<uintptr_t>(reserved);
    r->base = static_cast<uint8_t*>(reserved) + ((ALIGNMENT - address % ALIGNMENT) % ALIGNMENT);
    if (region_grow(r, fd, bytes) < 0) {
        const int failure = errno;
        region_unmap(r);
        errno = failure;
        return -1;
    }
    return 0;
}

int region_grow(region* r, int fd, uint32_t bytes) {
    const uint32_t first = r->in_file;
    const uint32_t waiting = std::min(r->usable, bytes) - first;  // bytes of plain memory that move into the file
    void* moved = nullptr;
    if (waiting > 0) {
        moved = std::malloc(waiting);
        if (!moved) {
            return -1;
        }
        std::memcpy(moved, r->base + first, waiting);
    }
    if (mmap(r->base + first, bytes - first, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, first) == MAP_FAILED) {
        std::free(moved);
        return -1;
    }
    r->in_file = bytes;
    r->usable = std::max(r->usable, bytes);
    lock(r);
    if (moved) {
        std::memcpy(r->base + first, moved, waiting);
        std::free(moved);
    }
    return 0;
}

int region_read_in(const region* r, int fd, uint32_t records) {
    const uint32_t end = RECORDS_AT + records * static_cast<uint32_t>(sizeof(kyt_record));
    // What is locked is in memory; the rest mostly is as well, and to ask costs a tenth of reading it.
    unsigned char in_memory[MAX_BYTES / PAGE_BYTES] = {};
    if (end <= r->locked) {
        return 0;
    }
    if (mincore(r->base + r->locked, end - r->locked, in_memory) < 0) {
        return -1;
    }
    uint8_t page[PAGE_BYTES];
    for (uint32_t offset = r->locked; offset < end; offset += PAGE_BYTES) {
        if ((in_memory[(offset - r->locked) / PAGE_BYTES] & 1) == 0 &&
            read_at(fd, page, sizeof page, offset) != static_cast<long>(sizeof page)) {
            return -1;
        }
    }
    return 0;
}

int region_overflow(region* r) {
    if (r->usable == MAX_BYTES || r->usable - r->in_file >= OVERFLOW_BYTES ||
        mprotect(r->base + r->usable, STEP_BYTES, PROT_READ | PROT_WRITE) < 0) {
        errno = ENOSPC;
        return -1;
    }
    r->usable += STEP_BYTES;
    return 0;
}

void region_unmap(region* r) {
    if (r->reserved) {
        munmap(r->reserved, RESERVED_BYTES);
    }
    *r = {};
}

}  // namespace kyt
