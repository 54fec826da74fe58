// The thread beside the loop: what it brings to the card and when, and what it says when the card refuses.
#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <unistd.h>

#include "support/kyt_rig.h"

namespace {

using namespace kyt_rig;
using libc_calls::called;
using libc_calls::FOREVER;
using testing::PrintToString;

PROMISES("kyt", "Beside the loop");

constexpr const char* REFUSED = "err kyt: the card does not take the list: Input/output error";
constexpr const char* TAKEN_AGAIN = "info kyt: the card takes the list again";

struct KytKeeper : rig {
    // What pwrite was asked to write of the records, sector by sector.
    void note_sectors() {
        libc_calls::before("pwrite", [this](const called& c) {
            const std::lock_guard lock(guard);
            for (int64_t at = c.offset; at < c.offset + static_cast<int64_t>(c.size); at += 512) {
                sectors.push_back((at - kyt::RECORDS_AT) / 512);
            }
            return 0;
        });
    }
    std::vector<int64_t> noted() {
        const std::lock_guard lock(guard);
        return std::exchange(sectors, {});
    }
    std::mutex guard;
    std::vector<int64_t> sectors;
};

TEST_F(KytKeeper, AChangeIsOnTheCardWithinTwoSeconds) {
    PROMISE("something changes, also through a pointer that was got long ago", "it is synchronised within two seconds");
    PROMISE("nothing changes", "nothing is written or synchronised");
    open();
    ASSERT_EQ(add(BASE), 0);
    ASSERT_TRUE(kyt::settle(list));
    kyt_record* const record = kyt_get(list, BASE);
    poll(nullptr, 0, 2500);
    const int before = libc_calls::count("fdatasync");
    const int writes = libc_calls::count(libc_calls::WRITES);
    poll(nullptr, 0, 2500);
    EXPECT_EQ(libc_calls::count(libc_calls::WRITES), writes) << "an idle list does nothing";
    EXPECT_EQ(libc_calls::count("fdatasync"), before);
    record->flags = KYT_PERSISTENT;
    EXPECT_TRUE(await([&] { return libc_calls::count("fdatasync") > before; }, 2000));
    EXPECT_EQ(flags_on_card(BASE), KYT_PERSISTENT);
}

TEST_F(KytKeeper, WhatIsWrittenOrDeletedIsSeenByOthersSoon) {
    PROMISE("a clip is written or deleted", "another program sees it before the next synchronisation");
    open();
    poll(nullptr, 0, 100);
    for (int i = 0; i < 3; ++i) {
        libc_calls::hold("fdatasync");
        ASSERT_EQ(add(BASE, 60, 1), 0);
        EXPECT_TRUE(await([&] { return flags_on_card(BASE) == 1 || libc_calls::held() > 0; }));
        EXPECT_TRUE(await([&] { return flags_on_card(BASE) == 1; }, 2000));
        libc_calls::release();
        ASSERT_TRUE(kyt::settle(list));
        remove(BASE);
        EXPECT_TRUE(await([&] { return flags_on_card(BASE) == -1; }, 2000));
        ASSERT_TRUE(kyt::settle(list));
    }
}

TEST_F(KytKeeper, OnlySectorsThatDifferAreWritten) {
    PROMISE("a few records have changed", "the sectors of 512 bytes in which they are, and no others, are written");
    open();
    add_many(BASE, 4000);
    ASSERT_TRUE(kyt::settle(list));
    note_sectors();
    for (const uint32_t slot : {0U, 63U, 64U, 1000U, 1001U, 3999U}) {
        kyt_get(list, BASE + slot)->flags ^= 1;
    }
    ASSERT_TRUE(kyt::settle(list));
    EXPECT_EQ(noted(), (std::vector<int64_t>{0, 1, 15, 62}));
    kyt_get(list, BASE)->flags ^= 1;
    kyt_get(list, BASE)->flags ^= 1;  // as it is on the card
    ASSERT_TRUE(kyt::settle(list));
    EXPECT_EQ(noted(), std::vector<int64_t>{});
    // What was opened is known to be on the card.
    reopen();
    ASSERT_TRUE(kyt::settle(list));
    noted();
    EXPECT_EQ(add(BASE + 4000), 0);
    ASSERT_TRUE(kyt::settle(list));
    const std::vector<int64_t> one = noted();
    EXPECT_EQ(std::set<int64_t>(one.begin(), one.end()), std::set<int64_t>{62}) << PrintToString(one);
}

TEST_F(KytKeeper, EveryByteOfARecordCounts) {
    PROMISE("any bit of any flag in a sector changes, or two of them", "that is seen");
    open();
    add_many(BASE, 64);
    ASSERT_TRUE(kyt::settle(list));
    for (const uint32_t other : {0U, 1U, 31U, 63U}) {
        for (int bit = 0; bit < 8; ++bit) {
            kyt_get(list, BASE)->flags ^= static_cast<uint8_t>(1U << bit);
            kyt_get(list, BASE + other)->flags ^= static_cast<uint8_t>(0x80U >> bit);
            const int flags = kyt_get(list, BASE + other)->flags;
            ASSERT_TRUE(kyt::settle(list));
            EXPECT_EQ(flags_on_card(BASE), kyt_get(list, BASE)->flags) << bit;
            EXPECT_EQ(flags_on_card(BASE + other), flags) << bit;
        }
    }
}

TEST_F(KytKeeper, ASlowSynchronisationIsNotFollowedByAPause) {
    PROMISE("a synchronisation takes longer than a second", "the next one does not wait on top of it");
    std::atomic<int> entered = 0;
    std::atomic<int> polled = 0;
    open();
    libc_calls::before("fdatasync", [&](const called&) {
        ++entered;
        usleep(1'200'000);
        polled = 0;
        return 0;
    });
    libc_calls::before("poll", [&](const called& c) {
        // The keeper's wait, right after a synchronisation.
        if (c.flags > 0 && entered > 0 && polled.exchange(1) == 0) {
            EXPECT_LT(c.flags, 900);
        }
        return 0;
    });
    ASSERT_EQ(add(BASE), 0);
    ASSERT_TRUE(await([&] { return entered.load() > 0; }));
    kyt_get(list, BASE)->flags = 1;
    ASSERT_TRUE(await([&] { return entered.load() > 1; }));
    close();
}

TEST_F(KytKeeper, NoCallOfTheLoopWaitsForAStalledCard) {
    PROMISE("the card stalls", "no call on the list waits for it, and what was recorded meanwhile is there later");
    open();
    libc_calls::hold(libc_calls::CARD);
    ASSERT_EQ(add(BASE), 0);
    ASSERT_TRUE(await([] { return libc_calls::held() > 0; }));
    add_many(BASE + 1, 29'999);  // 3.6 times what the file has room for
    EXPECT_EQ(kyt_get(list, BASE + 29'999)->ts, BASE + 29'999);
    EXPECT_EQ(kyt_mark_deleted(list, kyt_next(list, nullptr)), 0);
    EXPECT_EQ(kyt_optimise(list), 0);
    EXPECT_EQ(all_ts(list).size(), 29'999U);
    EXPECT_EQ(libc_calls::held(), 1);  // the keeper, still
    libc_calls::release();
    reopen();
    EXPECT_EQ(kyt_count(list), 29'999U) << PrintToString(logged::lines());
}

TEST_F(KytKeeper, TheLoopTouchesNoFile) {
    PROMISE("clips are written, found, deleted and maintained", "no call of the loop reaches the card");
    open();
    const auto loop = std::this_thread::get_id();
    std::atomic<int> by_loop = 0;
    for (const char* call : {"open", "openat", "pread", "pwrite", "ftruncate", "fdatasync", "fsync", "fstat", "lseek",
                             "fstatat", "unlinkat", "renameat", "fdopendir", "readdir", "close", "poll"}) {
        libc_calls::before(call, [&](const called&) {
            by_loop += std::this_thread::get_id() == loop ? 1 : 0;
            return 0;
        });
    }
    add_many(BASE, 20'000);
    for (uint32_t i = 0; i < 2'000; ++i) {
        remove(BASE + 7 * i);
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(kyt_optimise(list), 0);
        for (int spin = 0; spin < 1'000'000 && kyt::is_comparing(list); ++spin) {
            sched_yield();
        }
        add_many(BASE + 100'000 + 1'000U * static_cast<uint32_t>(i), 1'000);
    }
    EXPECT_EQ(all_ts(list).size(), 21'000U);
    EXPECT_EQ(by_loop, 0);
}

TEST_F(KytKeeper, ACardThatRefusesGetsTheSectorsAgain) {
    PROMISE("the card refuses a write or a synchronisation",
            "what was not synchronised is written again every second, by itself, until the card takes it; the log "
            "says the beginning and the end, once");
    PROMISE("a synchronisation was refused", "sectors that were written before it count as not written");
    open();
    add_many(BASE, 640);
    ASSERT_TRUE(kyt::settle(list));
    for (const char* call : {"fdatasync", "pwrite"}) {
        logged::reset();
        note_sectors();
        kyt_get(list, BASE)->flags ^= 1;
        kyt_get(list, BASE + 128)->flags ^= 1;
        libc_calls::fail(call, 1, EIO, 3);
        ASSERT_TRUE(await([] { return logged::has(TAKEN_AGAIN); })) << call;
        const std::vector<int64_t> written = noted();
        EXPECT_GE(std::count(written.begin(), written.end(), 0), call[0] == 'f' ? 2 : 1) << call;
        EXPECT_GE(std::count(written.begin(), written.end(), 2), 1) << call;
        EXPECT_EQ(std::count(written.begin(), written.end(), 1), 0) << "it was on the card already";
        EXPECT_EQ(logged::count(REFUSED), 1);
        EXPECT_EQ(logged::lines().size(), 2U) << PrintToString(logged::lines());
        EXPECT_EQ(flags_on_card(BASE), kyt_get(list, BASE)->flags);
        EXPECT_EQ(flags_on_card(BASE + 128), kyt_get(list, BASE + 128)->flags);
        libc_calls::reset();
    }
}

TEST_F(KytKeeper, TheEndOfTheRefusalIsSaidWhenAllIsOnTheCard) {
    PROMISE("the card takes some sectors again and refuses others", "the log says the end when all is on the card");
    open();
    add_many(BASE, 640);
    ASSERT_TRUE(kyt::settle(list));
    std::atomic<bool> refusing = true;
    libc_calls::before("pwrite", [&](const called& c) {
        return refusing && c.offset <= kyt::RECORDS_AT + 1024 &&
                       c.offset + static_cast<int64_t>(c.size) > kyt::RECORDS_AT + 1024
                   ? EIO
                   : 0;
    });
    kyt_get(list, BASE + 128)->flags = 1;  // that sector
    kyt_get(list, BASE + 600)->flags = 1;
    ASSERT_TRUE(await([] { return logged::has(REFUSED); }));
    EXPECT_TRUE(await([&] { return flags_on_card(BASE + 600) == 1; }));
    const int syncs = libc_calls::count("pwrite");
    ASSERT_TRUE(await([&] { return libc_calls::count("pwrite") > syncs + 1; }));
    EXPECT_FALSE(logged::has(TAKEN_AGAIN));
    EXPECT_EQ(flags_on_card(BASE + 128), 0);
    refusing = false;
    ASSERT_TRUE(await([] { return logged::has(TAKEN_AGAIN); }));
    EXPECT_EQ(flags_on_card(BASE + 128), 1);
}

TEST_F(KytKeeper, WithoutRoomForGrowthRecordsWait) {
    PROMISE("the card lets the file grow no further",
            "records wait in memory and can be used; it is said once, tried every second, and they are written when "
            "there is room");
    open();
    libc_calls::fail("ftruncate", 1, ENOSPC, FOREVER);
    add_many(BASE, 20'000);
    const auto says = [](const char* text) { return logged::count(text); };
    ASSERT_TRUE(await([&] { return says("warning kyt: the list cannot grow: No space left on device") == 1; }));
    EXPECT_TRUE(await([&] { return flags_on_card(BASE + 100) == 0; })) << "those that have room";
    const int tried = libc_calls::count("ftruncate");
    EXPECT_TRUE(await([&] { return libc_calls::count("ftruncate") >= tried + 2; }));
    EXPECT_EQ(kyt_get(list, BASE + 19'999)->ts, BASE + 19'999);
    EXPECT_EQ(says("warning kyt: the list cannot grow: No space left on device"), 1);
    libc_calls::stop_failing();
    EXPECT_TRUE(await([&] { return flags_on_card(BASE + 19'999) == 0; }));
    ASSERT_TRUE(kyt::settle(list));
    kyt_health health = {};
    EXPECT_EQ(kyt_check(card.path().c_str(), &health), 0);
    EXPECT_EQ(health.records, 20'000U);
    // Another time is said again.
    libc_calls::fail("ftruncate", 1, ENOSPC, FOREVER);
    add_many(BASE + 20'000, 10'000);
    EXPECT_TRUE(await([&] { return says("warning kyt: the list cannot grow: No space left on device") == 2; }));
}

TEST_F(KytKeeper, AFileGrowsAheadOfNeed) {
    PROMISE("a file has less than 512 slots to spare", "it grows by steps of 64 KiB, as many as are needed");
    open();
    std::mutex lock;
    std::vector<int64_t> sizes;
    libc_calls::before("ftruncate", [&](const called& c) {
        const std::lock_guard guard_sizes(lock);
        sizes.push_back(c.offset);
        return 0;
    });
    const uint32_t fits = (kyt::STEP_BYTES - kyt::RECORDS_AT) / 8 - 512;
    add_many(BASE, fits);
    ASSERT_TRUE(kyt::settle(list));
    EXPECT_TRUE(sizes.empty());
    ASSERT_EQ(add(BASE + fits), 0);
    ASSERT_TRUE(kyt::settle(list));
    EXPECT_EQ(sizes, std::vector<int64_t>{int64_t{2} * kyt::STEP_BYTES});
    add_many(BASE + fits + 1, 20'000);
    ASSERT_TRUE(kyt::settle(list));
    EXPECT_EQ(card.bytes(LIST).size(), kyt::file_bytes(fits + 20'001));
    for (size_t i = 1; i < sizes.size(); ++i) {
        EXPECT_EQ(sizes[i] - sizes[i - 1], kyt::STEP_BYTES) << "FAT writes zeros, while the loop's records wait";
    }
}

TEST_F(KytKeeper, ACopyNeverHasHalfOfARecord) {
    PROMISE("slots change while they are copied", "what goes to the card has whole records only");
    open();
    std::atomic<int> bad = 0;
    std::atomic<int> copies = 0;
    libc_calls::before("pwrite", [&](const called& c) {
        for (size_t at = 0; c.offset >= kyt::RECORDS_AT && at + 8 <= c.size; at += 8) {
            kyt_record record;
            std::memcpy(&record, static_cast<const char*>(c.data) + at, sizeof record);
            bad += kyt::slot_kind(record) == kyt::slot::BAD ? 1 : 0;
            ++copies;
        }
        return 0;
    });
    add_many(BASE, 64);
    uint32_t next = BASE + 64;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
    while (std::chrono::steady_clock::now() < end) {
        for (int i = 0; i < 64; ++i) {  // slots change their clips only after a comparison
            ASSERT_EQ(kyt_mark_deleted(list, kyt_next(list, nullptr)), 0);
        }
        optimise();
        add_many(next, 64);
        next += 64;
        for (int i = 0; i < 200; ++i) {
            remove(next - 1);
            ASSERT_EQ(add(next - 1, static_cast<uint32_t>(i)), 0);
            kyt_get(list, next - 2)->flags ^= 1;
        }
    }
    EXPECT_EQ(bad, 0);
    EXPECT_GT(copies, 1000);
    EXPECT_LE(used_slots(card.bytes(LIST)), 256U) << "slots were not used again";
}

TEST_F(KytKeeper, SignalsAreTheLoops) {
    PROMISE("a signal arrives",
            "it is the loop's, never the thread's; those of a fault in the thread itself are its own");
    sigset_t before;
    sigset_t inherited;
    sigset_t after;
    int threads = 0;
    libc_calls::before("pthread_create", [&](const libc_calls::called&) {
        ++threads;
        pthread_sigmask(SIG_SETMASK, nullptr, &inherited);  // a thread begins with its maker's mask
        return 0;
    });
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    open();
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    ASSERT_EQ(threads, 1);
    for (int signal = 1; signal < 32; ++signal) {
        const bool is_own = signal == SIGBUS || signal == SIGSEGV || signal == SIGFPE || signal == SIGILL;
        if (signal != SIGKILL && signal != SIGSTOP) {
            EXPECT_EQ(sigismember(&inherited, signal) == 0, is_own) << signal;
            EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
        }
    }
}

}  // namespace
