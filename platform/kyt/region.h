// The list file in memory: one stretch of addresses, reserved once for the largest file, so that slots never move.
//
//   [0, in_file)        the file's pages, shared and locked in memory
//   [in_file, usable)   plain memory: slots that the file has no room for yet; when the file has grown, its pages take
//                       the place of these at the same addresses and the records are copied over
//   [usable, MAX_BYTES) reserved, not accessible
//
// Locked pages do not fault when the card is pulled, neither for reading nor for writing in place. LOCK_BYTES bounds
// what is locked; a list beyond it (more than 261,000 clips) is mapped, not locked, behind that point. Loop thread
// only.
#pragma once

#include "format.h"

namespace kyt {

constexpr uint32_t LOCK_BYTES = 2 * 1024 * 1024;
constexpr uint32_t OVERFLOW_BYTES = 1024 * 1024;  // at most this much plain memory behind the file's pages

struct region {
    uint8_t* base = nullptr;
    void* reserved = nullptr;  // what mmap gave; base is aligned within
    uint32_t in_file = 0;
    uint32_t locked = 0;  // bytes
    uint32_t usable = 0;
};

inline kyt_record* region_slots(const region& r) {
    return reinterpret_cast<kyt_record*>(r.base + RECORDS_AT);
}

// Maps the first `bytes` of the file (a multiple of the step) into a fresh region. 0, or -1 with errno.
int region_map(region* r, int fd, uint32_t bytes);

// The file has `bytes` now: takes its new pages in. 0, or -1 with errno and nothing lost.
int region_grow(region* r, int fd, uint32_t bytes);

// Brings the pages of so many slots into memory, by plain reads. 0, or -1 with errno: the card does not give them all.
int region_read_in(const region* r, int fd, uint32_t records);

// Another step of plain memory. 0, or -1 with errno ENOSPC.
int region_overflow(region* r);

// Touches nothing of the mapping: fine after a bus fault.
void region_unmap(region* r);

}  // namespace kyt
