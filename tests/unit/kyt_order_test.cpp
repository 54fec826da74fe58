// The order of the records in memory: where clips come and go, what that costs in memory, and a million of them.
#include <array>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "support/kyt_rig.h"

namespace {

using namespace kyt_rig;

PROMISES("kyt", "The list");

struct KytOrder : rig {
    void expect_all(const std::set<uint32_t>& expected) const {
        const std::vector<uint32_t> found = all_ts(list);
        ASSERT_EQ(found.size(), expected.size());
        ASSERT_TRUE(std::equal(found.begin(), found.end(), expected.begin()));
        ASSERT_EQ(kyt_count(list), expected.size());
    }
};

TEST_F(KytOrder, ClipsGoFromTheMiddleAndComeBackThere) {
    PROMISE("very many clips far from the oldest and the newest are deleted, and others come between them",
            "the order holds, also when slots of deleted ones are used again");
    open();
    std::set<uint32_t> expected;
    for (uint32_t i = 0; i < 30'000; ++i) {
        ASSERT_EQ(add(BASE + 10 * i), 0);
        expected.insert(BASE + 10 * i);
    }
    std::mt19937 random(3);
    const auto anywhere = [&] { return BASE + static_cast<uint32_t>(random() % 300'000); };
    for (int round = 0; round < 6; ++round) {
        // Runs, so that whole stretches go, and with them the entries beside a walk.
        for (int run = 0; run < 40; ++run) {
            auto at = expected.lower_bound(anywhere());
            for (uint32_t i = 0; at != expected.end() && i < random() % 100; ++i) {
                kyt_record* const record = kyt_get(list, *at);
                ASSERT_EQ(kyt_mark_deleted(list, record), 0);
                at = expected.erase(at);
                const kyt_record* const next = kyt_next(list, record);
                ASSERT_EQ(next ? next->ts : 0, at == expected.end() ? 0 : *at);
                ASSERT_EQ(kyt_get(list, record->ts), nullptr);
            }
        }
        expect_all(expected);
        if (round % 2 == 1) {
            optimise();  // frees the slots
        }
        for (int i = 0; i < 300; ++i) {
            const uint32_t ts = anywhere();
            ASSERT_EQ(add(ts), expected.insert(ts).second ? 0 : -1);
        }
        expect_all(expected);
    }
    reopen();
    expect_all(expected);
}

TEST_F(KytOrder, AnEndEmptiesAndFillsAgain) {
    PROMISE("the last clip goes, from either end, and others come", "the list is empty, and in order again");
    open();
    for (int round = 0; round < 3; ++round) {
        std::set<uint32_t> expected;
        for (const uint32_t ts : {BASE + 9, BASE + 5, BASE + 7, BASE + 1, BASE + 3}) {
            ASSERT_EQ(add(ts), 0);
            expected.insert(ts);
        }
        expect_all(expected);
        while (!expected.empty()) {
            const uint32_t ts = round == 0 ? *expected.begin() : round == 1 ? *expected.rbegin() : BASE + 5;
            kyt_record* const record = kyt_get(list, expected.contains(ts) ? ts : *expected.begin());
            expected.erase(record->ts);
            ASSERT_EQ(kyt_mark_deleted(list, record), 0);
            expect_all(expected);
        }
        EXPECT_EQ(kyt_next(list, nullptr), nullptr);
    }
}

TEST_F(KytOrder, AMillionClipsPassThroughASmallList) {
    PROMISE("twice as many clips pass through a list as it can hold, with maintenance now and then",
            "none is refused, and the order holds");
    open();
    constexpr uint32_t LIVE = 50'000;
    constexpr uint32_t ALL = 2 * kyt::MAX_RECORDS + 400'000;
    add_many(BASE, LIVE);
    for (uint32_t i = LIVE; i < ALL; ++i) {
        const kyt_record record = kyt::live_record(BASE + i, 0, 0);
        kyt_record* const oldest = kyt_next(list, nullptr);
        ASSERT_EQ(oldest->ts, BASE + i - LIVE);
        ASSERT_EQ(kyt_mark_deleted(list, oldest), 0);
        ASSERT_EQ(kyt_write(list, &record), 0) << i << std::strerror(errno);
        if (i % 50'000 == 0) {
            optimise();
        }
    }
    std::set<uint32_t> expected;
    for (uint32_t i = ALL - LIVE; i < ALL; ++i) {
        expected.insert(BASE + i);
    }
    expect_all(expected);
    ASSERT_EQ(add(BASE), 0) << "in front of them all";
    expected.insert(BASE);
    expect_all(expected);
    reopen();  // what is on the card is a ring
    expect_all(expected);
}

// What the library has mapped, as far as it is in memory.
struct mappings {
    std::mutex guard;
    std::map<uintptr_t, size_t> regions;
    void watch() {
        libc_calls::after("mmap", [this](const libc_calls::called& c, intptr_t address) {
            const std::lock_guard lock(guard);
            regions[static_cast<uintptr_t>(address)] = c.size;
        });
        libc_calls::before("munmap", [this](const libc_calls::called& c) {
            const std::lock_guard lock(guard);
            regions.erase(reinterpret_cast<uintptr_t>(c.data));
            return 0;
        });
    }
    size_t resident_bytes() {
        const std::lock_guard lock(guard);
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size_t pages = 0;
        for (const auto& [address, size] : regions) {
            std::vector<unsigned char> in_memory((size + page - 1) / page);
            void* start = nullptr;
            std::memcpy(&start, &address, sizeof start);
            EXPECT_EQ(mincore(start, size, in_memory.data()), 0);
            pages += static_cast<size_t>(
                std::count_if(in_memory.begin(), in_memory.end(), [](unsigned char p) { return (p & 1) != 0; }));
        }
        return pages * page;
    }
};

TEST_F(KytOrder, MemoryIsThirteenBytesAClip) {
    PROMISE("200,000 clips are listed", "they take at most 13 bytes of memory each");
    PROMISE("the oldest of them have gone", "the memory of their places in the order is given back");
    mappings m;
    m.watch();
    open();
    constexpr uint32_t CLIPS = 200'000;
    add_many(BASE, CLIPS);
    ASSERT_TRUE(kyt::settle(list));
    const size_t all = m.resident_bytes();
    EXPECT_LE(all, size_t{13} * CLIPS);
    EXPECT_GE(all, size_t{8} * CLIPS) << "nothing was measured";
    for (uint32_t i = 0; i < CLIPS * 3 / 4; ++i) {
        ASSERT_EQ(kyt_mark_deleted(list, kyt_next(list, nullptr)), 0);
    }
    EXPECT_LE(m.resident_bytes(), all - size_t{CLIPS} * 3 + size_t{2} * 65'536);
    // And the same with the maintenance, after which the window is wherever it wants to be.
    optimise();
    EXPECT_EQ(kyt_next(list, nullptr)->ts, BASE + CLIPS * 3 / 4);
    EXPECT_LE(m.resident_bytes(), all - size_t{CLIPS} * 3 + size_t{3} * 65'536);
    close();
    EXPECT_EQ(m.resident_bytes(), 0U);
}

}  // namespace
