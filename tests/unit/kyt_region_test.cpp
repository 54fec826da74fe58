// The list's file in memory: where it lies, how it grows, and that nothing is lost when the kernel refuses.
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "region.h"
#include "support/log.h"

using kyt::LOCK_BYTES;
using kyt::MAX_BYTES;
using kyt::OVERFLOW_BYTES;
using kyt::STEP_BYTES;

extern "C" {
void* __real_mmap64(void*, size_t, int, int, int, off64_t);
int __real_munmap(void*, size_t);
int __real_mprotect(void*, size_t, int);
void* __real_malloc(size_t);
}

namespace {

constexpr uintptr_t CACHE_BYTES = uintptr_t{256} * 1024;  // what shared pages' addresses are multiples of on MIPS

// The kernel, as each test wants it.
struct {
    std::string failing;       // this call fails
    uintptr_t reserve_at = 0;  // modulo CACHE_BYTES
    void* reserved = nullptr;  // the stretch that was given
    size_t reserved_bytes = 0;
    std::vector<std::pair<const void*, size_t>> locked;  // what was to be locked
    int unmapped = 0;                                    // of the stretch
} kernel;

bool fails(const char* call, int errnum) {
    if (kernel.failing != call) {
        return false;
    }
    errno = errnum;
    return true;
}

}  // namespace

extern "C" {

void* __wrap_mmap64(void* address, size_t size, int protection, int flags, int fd, off64_t offset) {
    if (fd >= 0) {
        return fails("map", ENODEV) ? MAP_FAILED : __real_mmap64(address, size, protection, flags, fd, offset);
    }
    if (address || size < MAX_BYTES) {
        return __real_mmap64(address, size, protection, flags, fd, offset);
    }
    if (fails("reserve", ENOMEM)) {
        return MAP_FAILED;
    }
    void* const around = __real_mmap64(nullptr, size + 2 * CACHE_BYTES, protection, flags, -1, 0);
    const auto begin = reinterpret_cast<uintptr_t>(around);
    const uintptr_t in_front = CACHE_BYTES - begin % CACHE_BYTES + kernel.reserve_at;
    __real_munmap(around, in_front);
    kernel.reserved = static_cast<uint8_t*>(around) + in_front;
    kernel.reserved_bytes = size;
    __real_munmap(static_cast<uint8_t*>(kernel.reserved) + size, 2 * CACHE_BYTES - in_front);
    return kernel.reserved;
}
int __wrap_munmap(void* address, size_t size) {
    kernel.unmapped += address == kernel.reserved && size == kernel.reserved_bytes ? 1 : 0;
    const int result = __real_munmap(address, size);
    errno = EINVAL;
    return result;
}
int __wrap_mprotect(void* address, size_t size, int protection) {
    return fails("protect", ENOMEM) ? -1 : __real_mprotect(address, size, protection);
}
void* __wrap_malloc(size_t size) {
    return kernel.failing == "malloc" && fails("malloc", ENOMEM) ? nullptr : __real_malloc(size);
}
int __wrap_mlock(const void* address, size_t size) {
    kernel.locked.emplace_back(address, size);
    return fails("lock", EPERM) ? -1 : 0;
}

}  // extern "C"

namespace {

// Whether the kernel itself could read there: a way to ask without a fault.
bool is_readable(const uint8_t* at) {
    std::array<int, 2> ends = {};
    EXPECT_EQ(pipe(ends.data()), 0);
    const bool readable = write(ends[1], at, 1) == 1;
    close(ends[0]);
    close(ends[1]);
    return readable;
}

struct KytRegion : testing::Test {
    void SetUp() override {
        kernel = {};
        logged::reset();
        set_file_bytes(STEP_BYTES);
    }
    ~KytRegion() override {
        kernel.failing.clear();
        kyt::region_unmap(&map);
        std::fclose(stream);
    }
    KytRegion() = default;
    KytRegion(const KytRegion&) = delete;
    KytRegion& operator=(const KytRegion&) = delete;

    void set_file_bytes(uint32_t bytes) const { ASSERT_EQ(ftruncate(fd, bytes), 0); }
    uint8_t in_file(uint32_t at) const {
        uint8_t byte = 0;
        EXPECT_EQ(pread(fd, &byte, 1, at), 1);
        return byte;
    }
    // Each 4 KiB from `first` to `end`: something of its own.
    void mark(uint32_t first, uint32_t end) const {
        for (uint32_t at = first; at < end; at += 4096) {
            map.base[at] = map.base[at + 4095] = mark_of(at);
        }
    }
    void expect_marks(uint32_t first, uint32_t end) const {
        for (uint32_t at = first; at < end; at += 4096) {
            ASSERT_EQ(map.base[at], mark_of(at)) << at;
            ASSERT_EQ(map.base[at + 4095], mark_of(at)) << at;
        }
    }
    static uint8_t mark_of(uint32_t at) { return static_cast<uint8_t>(1 + at / 4096 % 251); }
    void open_with_waiting(uint32_t steps) {
        ASSERT_EQ(kyt::region_map(&map, fd, STEP_BYTES), 0);
        for (uint32_t step = 0; step < steps; ++step) {
            ASSERT_EQ(kyt::region_overflow(&map), 0);
        }
        ASSERT_EQ(map.usable, (1 + steps) * STEP_BYTES);
        mark(STEP_BYTES, map.usable);
    }

    FILE* const stream = std::tmpfile();
    const int fd = fileno(stream);
    kyt::region map;
};

TEST_F(KytRegion, WhereverThereIsRoomTheFileLiesWhereTheCacheWantsItAndWithinThatRoom) {
    for (const uintptr_t at : {uintptr_t{0}, uintptr_t{4096}, CACHE_BYTES / 2, CACHE_BYTES - 4096}) {
        kernel.reserve_at = at;
        ASSERT_EQ(kyt::region_map(&map, fd, STEP_BYTES), 0);
        const auto* const begin = static_cast<const uint8_t*>(kernel.reserved);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(map.base) % CACHE_BYTES, 0U) << at;
        EXPECT_GE(map.base, begin) << at;
        EXPECT_LE(map.base + MAX_BYTES, begin + kernel.reserved_bytes) << at;
        kyt::region_unmap(&map);
    }
}

TEST_F(KytRegion, WhatIsWrittenThereIsInTheFile) {
    ASSERT_EQ(pwrite(fd, "x", 1, STEP_BYTES - 1), 1);
    ASSERT_EQ(kyt::region_map(&map, fd, STEP_BYTES), 0);
    EXPECT_EQ(map.base[STEP_BYTES - 1], 'x');
    map.base[17] = 'y';
    EXPECT_EQ(in_file(17), 'y');
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(kyt::region_slots(map)), map.base + kyt::RECORDS_AT);
    EXPECT_EQ(map.in_file, STEP_BYTES);
    EXPECT_EQ(map.usable, STEP_BYTES);
}

TEST_F(KytRegion, BehindWhatIsInUseNothingCanBeTouched) {
    ASSERT_EQ(kyt::region_map(&map, fd, STEP_BYTES), 0);
    EXPECT_TRUE(is_readable(map.base + (STEP_BYTES - 1)));
    EXPECT_FALSE(is_readable(map.base + STEP_BYTES));
    ASSERT_EQ(kyt::region_overflow(&map), 0);
    EXPECT_TRUE(is_readable(map.base + (size_t{2} * STEP_BYTES - 1)));
    EXPECT_FALSE(is_readable(map.base + size_t{2} * STEP_BYTES));
}

TEST_F(KytRegion, AMappingThatFailsSaysWhyAndTakesNoRoom) {
    kernel.failing = "reserve";
    EXPECT_EQ(kyt::region_map(&map, fd, STEP_BYTES), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(map.reserved, nullptr);

    kernel.failing = "map";
    EXPECT_EQ(kyt::region_map(&map, fd, STEP_BYTES), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(kernel.unmapped, 1);
    EXPECT_EQ(map.reserved, nullptr);
    EXPECT_EQ(map.base, nullptr);
    EXPECT_EQ(map.usable, 0U);
}

TEST_F(KytRegion, TheRoomIsGivenBackOnce) {
    kyt::region_unmap(&map);  // there is none yet
    EXPECT_EQ(kernel.unmapped, 0);
    ASSERT_EQ(kyt::region_map(&map, fd, STEP_BYTES), 0);
    kyt::region_unmap(&map);
    kyt::region_unmap(&map);
    EXPECT_EQ(kernel.unmapped, 1);
}

TEST_F(KytRegion, RecordsThatWaitedMoveIntoTheFileAndKeepTheirAddresses) {
    constexpr struct {
        uint32_t waiting;  // steps of plain memory
        uint32_t file;     // steps of the file, as it has grown
    } ROWS[] = {{1, 2}, {3, 4}, {3, 2}, {1, 5}, {0, 3}};
    for (const auto& row : ROWS) {
        set_file_bytes(0);
        set_file_bytes(row.file * STEP_BYTES);
        open_with_waiting(row.waiting);
        const uint8_t* const base = map.base;
        ASSERT_EQ(kyt::region_grow(&map, fd, row.file * STEP_BYTES), 0);
        EXPECT_EQ(map.base, base);
        EXPECT_EQ(map.in_file, row.file * STEP_BYTES);
        EXPECT_EQ(map.usable, (1 + std::max(row.waiting, row.file - 1)) * STEP_BYTES);
        const uint32_t end = (1 + row.waiting) * STEP_BYTES;
        expect_marks(STEP_BYTES, end);
        for (uint32_t at = STEP_BYTES; at < std::min(end, map.in_file); at += 4096) {
            ASSERT_EQ(in_file(at), mark_of(at)) << row.waiting << ' ' << row.file << ' ' << at;
        }
        if (end < map.in_file) {
            map.base[map.in_file - 1] = 'z';
            EXPECT_EQ(in_file(map.in_file - 1), 'z');
        }
        // What still waits moves with the next growth.
        set_file_bytes(6 * STEP_BYTES);
        ASSERT_EQ(kyt::region_grow(&map, fd, 6 * STEP_BYTES), 0);
        expect_marks(STEP_BYTES, end);
        kyt::region_unmap(&map);
    }
}

TEST_F(KytRegion, AGrowthThatFailsLosesNothingAndMayBeTriedAgain) {
    open_with_waiting(2);
    set_file_bytes(3 * STEP_BYTES);
    for (const auto& [call, errnum] : {std::pair{"malloc", ENOMEM}, {"map", ENODEV}}) {
        kernel.failing = call;
        EXPECT_EQ(kyt::region_grow(&map, fd, 3 * STEP_BYTES), -1) << call;
        EXPECT_EQ(errno, errnum) << call;
        kernel.failing.clear();
        EXPECT_EQ(map.in_file, STEP_BYTES) << call;
        EXPECT_EQ(map.usable, 3 * STEP_BYTES) << call;
        expect_marks(STEP_BYTES, map.usable);
    }
    ASSERT_EQ(kyt::region_grow(&map, fd, 3 * STEP_BYTES), 0);
    expect_marks(STEP_BYTES, map.usable);
    EXPECT_EQ(in_file(STEP_BYTES), mark_of(STEP_BYTES));
}

TEST_F(KytRegion, WithNothingWaitingAGrowthNeedsNoMemory) {
    ASSERT_EQ(kyt::region_map(&map, fd, STEP_BYTES), 0);
    set_file_bytes(2 * STEP_BYTES);
    kernel.failing = "malloc";
    EXPECT_EQ(kyt::region_grow(&map, fd, 2 * STEP_BYTES), 0);
}

TEST_F(KytRegion, PlainMemoryIsBoundedAndStartsAnewWhenTheFileHasGrown) {
    open_with_waiting(OVERFLOW_BYTES / STEP_BYTES);
    EXPECT_EQ(kyt::region_overflow(&map), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(map.usable, STEP_BYTES + OVERFLOW_BYTES);
    set_file_bytes(2 * STEP_BYTES);
    ASSERT_EQ(kyt::region_grow(&map, fd, 2 * STEP_BYTES), 0);
    EXPECT_EQ(kyt::region_overflow(&map), 0);
    EXPECT_EQ(kyt::region_overflow(&map), -1);
}

TEST_F(KytRegion, TheLargestFileHasNoMemoryBehindIt) {
    set_file_bytes(MAX_BYTES - STEP_BYTES);
    ASSERT_EQ(kyt::region_map(&map, fd, MAX_BYTES - STEP_BYTES), 0);
    EXPECT_EQ(kyt::region_overflow(&map), 0);
    EXPECT_EQ(kyt::region_overflow(&map), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(map.usable, MAX_BYTES);
    map.base[MAX_BYTES - 1] = 1;
    set_file_bytes(MAX_BYTES);
    EXPECT_EQ(kyt::region_grow(&map, fd, MAX_BYTES), 0);
    EXPECT_EQ(in_file(MAX_BYTES - 1), 1);
}

TEST_F(KytRegion, RefusedMemoryIsNoRoomForTheCaller) {
    ASSERT_EQ(kyt::region_map(&map, fd, STEP_BYTES), 0);
    kernel.failing = "protect";
    EXPECT_EQ(kyt::region_overflow(&map), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(map.usable, STEP_BYTES);
}

TEST_F(KytRegion, TheFilesPagesAreLockedUpToTheLimit) {
    set_file_bytes(LOCK_BYTES + STEP_BYTES);
    open_with_waiting(2);
    ASSERT_EQ(kyt::region_grow(&map, fd, LOCK_BYTES), 0);
    ASSERT_EQ(kyt::region_grow(&map, fd, LOCK_BYTES + STEP_BYTES), 0);
    const std::vector<std::pair<const void*, size_t>> wanted = {
        {map.base, STEP_BYTES}, {map.base, LOCK_BYTES}, {map.base, LOCK_BYTES}};
    EXPECT_EQ(kernel.locked, wanted);
}

// The only test that may see it, since it is said once in the life of a program.
TEST_F(KytRegion, MemoryThatCannotBeLockedIsSaidOnceAndTheListWorks) {
    kernel.failing = "lock";
    open_with_waiting(1);
    set_file_bytes(2 * STEP_BYTES);
    ASSERT_EQ(kyt::region_grow(&map, fd, 2 * STEP_BYTES), 0);
    expect_marks(STEP_BYTES, 2 * STEP_BYTES);
    EXPECT_EQ(logged::lines(),
              std::vector<std::string>{"warning kyt: the list cannot be locked in memory: Operation not permitted"});
}

}  // namespace
