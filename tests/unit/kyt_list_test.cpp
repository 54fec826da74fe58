// The list against a model, over sessions, and what it costs.
#include <dirent.h>
#include <gtest/gtest.h>
#include <map>
#include <poll.h>
#include <random>
#include <vector>

#include "handle.h"
#include "keeper.h"
#include "kyt_rdonly.h"
#include "support/log.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t BASE = 1'790'000'000;

int entries_of(const char* path) {
    int count = 0;
    DIR* const stream = opendir(path);
    while (readdir(stream)) {
        ++count;
    }
    closedir(stream);
    return count;
}

// Waits until the keeper has ended its job.
void await_job(kyt_handle* list) {
    for (int i = 0; i < 3000; ++i) {
        const kyt::phase at = list->keeper->at.load();
        if (at == kyt::phase::DONE || at == kyt::phase::IDLE) {
            return;
        }
        poll(nullptr, 0, 2);
    }
    FAIL() << "the keeper did not end its job";
}

// One maintenance with all that follows from it.
void optimise(kyt_handle* list) {
    ASSERT_EQ(kyt_optimise(list), 0);
    await_job(list);
    ASSERT_EQ(kyt_optimise(list), 0);
    await_job(list);
}

struct KytList : testing::Test {
    void SetUp() override { logged::reset(); }
    recordings card;
    kyt_handle* list = nullptr;
    void open() {
        list = kyt::open_folder(card.path().c_str());
        ASSERT_NE(list, nullptr) << strerror(errno);
    }
    void reopen() {
        kyt_close(list);
        open();
    }
    void TearDown() override { kyt_close(list); }
};

struct clip {
    uint8_t seconds;
    uint8_t flags;
    bool operator==(const clip&) const = default;
};
using model = std::map<uint32_t, clip>;

model contents(kyt_handle* list) {
    model found;
    uint32_t last = 0;
    for (const kyt_record* r = kyt_next(list, nullptr); r; r = kyt_next(list, r)) {
        EXPECT_GT(r->ts, last);
        last = r->ts;
        found[r->ts] = {static_cast<uint8_t>(kyt_record_seconds(r)), r->flags};
    }
    EXPECT_EQ(kyt_count(list), found.size());
    return found;
}

TEST_F(KytList, RandomOperationsAgreeWithAModel) {
    for (const unsigned seed : {1U, 2U, 3U, 4U, 5U, 6U}) {
        std::mt19937 random(seed);
        recordings folder;
        list = kyt::open_folder(folder.path().c_str());
        ASSERT_NE(list, nullptr);
        model expected;
        uint32_t clock = BASE;
        const auto pick = [&](uint32_t below) { return static_cast<uint32_t>(random() % below); };
        for (int step = 0; step < 4000; ++step) {
            const uint32_t what = pick(1000);
            if (what < 500) {
                // Mostly in order, sometimes late, sometimes the clock has been put back or far ahead.
                clock += 1 + pick(60);
                const uint32_t ts = what < 350 ? clock : what < 480 ? BASE + pick(60'000) : clock + 400'000'000;
                const clip c = {static_cast<uint8_t>(pick(256)), static_cast<uint8_t>(pick(2))};
                const kyt_record record =
                    record_of(std::to_string(ts) + "," + std::to_string(c.seconds) + "," + std::to_string(c.flags));
                if (expected.contains(ts)) {
                    ASSERT_EQ(kyt_write(list, &record), -1);
                    ASSERT_EQ(errno, EEXIST);
                    *kyt_get(list, ts) = record;
                } else {
                    ASSERT_EQ(kyt_write(list, &record), 0);
                }
                expected[ts] = c;
            } else if (what < 700 && !expected.empty()) {
                const uint32_t ts = what < 640 ? expected.begin()->first : BASE + pick(60'000);
                kyt_record* const record = kyt_get(list, ts);
                ASSERT_EQ(record != nullptr, expected.contains(ts));
                if (record) {
                    ASSERT_EQ(kyt_mark_deleted(list, record), 0);
                    expected.erase(ts);
                    const auto after = expected.upper_bound(ts);
                    const kyt_record* const next = kyt_next(list, record);
                    ASSERT_EQ(next ? next->ts : 0, after == expected.end() ? 0 : after->first);
                    ASSERT_EQ(kyt_mark_deleted(list, record), -1);
                }
            } else if (what < 950 && !expected.empty()) {
                auto at = expected.lower_bound(BASE + pick(60'000));
                at = at == expected.end() ? expected.begin() : at;
                at->second.flags ^= KYT_PERSISTENT;
                kyt_get(list, at->first)->flags ^= KYT_PERSISTENT;
            } else if (what < 985) {
                ASSERT_EQ(contents(list), expected);
            } else if (what < 994) {
                optimise(list);
                ASSERT_EQ(contents(list), expected);
            } else {
                kyt_close(list);
                list = kyt::open_folder(folder.path().c_str());
                ASSERT_NE(list, nullptr);
                ASSERT_EQ(contents(list), expected) << "seed " << seed << " step " << step;
            }
        }
        kyt_close(list);
        list = nullptr;
    }
}

TEST_F(KytList, AClipIsFoundWhateverWasFoundBeforeIt) {
    open();
    for (const uint32_t second : {10, 20, 30, 60, 40, 50, 70}) {  // two that come late
        const kyt_record record = record_of(std::to_string(BASE + second));
        ASSERT_EQ(kyt_write(list, &record), 0);
    }
    ASSERT_EQ(kyt_mark_deleted(list, kyt_get(list, BASE + 30)), 0);
    for (uint32_t before = 0; before <= 80; before += 10) {
        for (uint32_t second = 5; second <= 80; second += 5) {
            (void)kyt_get(list, BASE + before);
            const kyt_record* const found = kyt_get(list, BASE + second);
            const bool is_there = second % 10 == 0 && second != 30 && second != 80;
            ASSERT_EQ(found ? found->ts : 0, is_there ? BASE + second : 0) << before;
        }
    }
}

// The ends of pages are remembered, so each of them counts, and so does another list in the same place.

TEST_F(KytList, PointersStayGoodWhileTheFileGrows) {
    open();
    std::vector<kyt_record*> pointers;
    for (uint32_t i = 0; i < 40'000; ++i) {
        const kyt_record record = record_of(BASE + i);
        ASSERT_EQ(kyt_write(list, &record), 0) << i;
        pointers.push_back(kyt_get(list, BASE + i));
    }
    for (uint32_t i = 0; i < 40'000; ++i) {
        ASSERT_EQ(pointers[i]->ts, BASE + i);
        ASSERT_EQ(kyt_get(list, BASE + i), pointers[i]);
    }
    reopen();
    EXPECT_EQ(kyt_count(list), 40'000U);
}

TEST_F(KytList, AHundredThousandClipsTakeAtMost87BytesEach) {
    open();
    for (uint32_t i = 0; i < 100'000; ++i) {
        const kyt_record record = record_of(BASE + 60 * i);
        ASSERT_EQ(kyt_write(list, &record), 0);
    }
    reopen();
    EXPECT_LE(std::filesystem::file_size(card.file(card.list_name())), 870'000U);
    EXPECT_EQ(kyt_count(list), 100'000U);
}

TEST_F(KytList, AFullCardInUseDoesNotGrowTheFile) {
    open();
    uint32_t newest = 0;
    for (; newest < 20'000; ++newest) {
        const kyt_record record = record_of(BASE + 60 * newest);
        ASSERT_EQ(kyt_write(list, &record), 0);
    }
    reopen();
    const auto before = std::filesystem::file_size(card.file(card.list_name()));
    for (int half_hour = 0; half_hour < 60; ++half_hour) {
        for (int i = 0; i < 300; ++i, ++newest) {
            ASSERT_EQ(kyt_mark_deleted(list, kyt_next(list, nullptr)), 0);
            const kyt_record record = record_of(BASE + 60 * newest);
            ASSERT_EQ(kyt_write(list, &record), 0);
        }
        optimise(list);
    }
    EXPECT_EQ(kyt_count(list), 20'000U);
    EXPECT_LE(std::filesystem::file_size(card.file(card.list_name())), before + 65536);
    EXPECT_EQ(std::filesystem::file_size(card.file(card.list_name())), before) << list->list.used;
}

// Walking over deleted ones must not cost: counted in slots looked at would be best, here in time that differs by
// a multiple when it goes wrong (16 times for a walk over all the deleted ones).
TEST_F(KytList, DeletingTheOldestIsLinearAlsoBehindProtectedOnes) {
    const auto cost = [&](uint32_t clips) {
        recordings folder;
        kyt_handle* const h = kyt::open_folder(folder.path().c_str());
        for (uint32_t i = 0; i < clips; ++i) {
            const kyt_record record = record_of(std::to_string(BASE + i) + (i % 4000 == 0 ? ",60,1" : ""));
            EXPECT_EQ(kyt_write(h, &record), 0);
        }
        timespec start = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
        uint32_t deleted = 0;
        for (;;) {
            kyt_record* record = kyt_next(h, nullptr);
            while (record && record->flags != 0) {
                record = kyt_next(h, record);
            }
            if (!record) {
                break;
            }
            EXPECT_EQ(kyt_mark_deleted(h, record), 0);
            ++deleted;
        }
        timespec end = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
        EXPECT_EQ(deleted, clips - (clips + 3999) / 4000);
        kyt_close(h);
        return (static_cast<double>(end.tv_sec - start.tv_sec) * 1e9 +
                static_cast<double>(end.tv_nsec - start.tv_nsec)) /
               deleted;
    };
    const double few = cost(2'000);
    const double many = cost(32'000);
    EXPECT_LT(many, 5 * few + 500);
}





// 512 of them and one more for each 64 live clips, the first slot's included.

TEST_F(KytList, AClipComesBackInFrontOfBehindAndWithinARunOfDeletedOnes) {
    open();
    model expected;
    for (uint32_t i = 0; i < 10; ++i) {
        const kyt_record record = record_of(BASE + i);
        ASSERT_EQ(kyt_write(list, &record), 0);
        expected[BASE + i] = {0, 0};
    }
    for (uint32_t i = 1; i < 9; ++i) {
        ASSERT_EQ(kyt_mark_deleted(list, kyt_get(list, BASE + i)), 0);
        expected.erase(BASE + i);
    }
    EXPECT_EQ(contents(list), expected);
    for (const uint32_t i : {4U, 1U, 8U, 6U, 2U, 3U, 5U, 7U}) {
        const kyt_record record = record_of(BASE + i);
        ASSERT_EQ(kyt_write(list, &record), 0) << i;
        expected[BASE + i] = {0, 0};
        EXPECT_EQ(contents(list), expected) << i;
    }
}

TEST_F(KytList, RefusesWhatIsNoRecord) {
    open();
    kyt_record record = record_of(BASE);
    ASSERT_EQ(kyt_write(list, &record), 0);
    EXPECT_EQ(kyt_write(list, &record), -1);
    EXPECT_EQ(errno, EEXIST);
    const kyt_record by_hand = {BASE + 1, {0, 0}, 0, 0};
    EXPECT_EQ(kyt_write(list, &by_hand), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kyt_mark_deleted(list, &record), -1);  // not a pointer into the list
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kyt_next(list, &record), nullptr);
    EXPECT_EQ(kyt_get(nullptr, BASE), nullptr);
    EXPECT_EQ(kyt_next(nullptr, nullptr), nullptr);
    EXPECT_EQ(kyt_write(nullptr, &record), -1);
    EXPECT_EQ(kyt_optimise(nullptr), -1);
    kyt_close(nullptr);
    kyt_close_dirty(nullptr);
}

TEST_F(KytList, ALookFromOutsideSeesTheLiveListAndChangesNothing) {
    open();
    for (uint32_t i = 1; i <= 2000; ++i) {
        const kyt_record record = record_of(std::to_string(BASE + i) + "," + std::to_string(i % 256));
        ASSERT_EQ(kyt_write(list, &record), 0);
    }
    kyt_get(list, BASE + 7)->flags = KYT_PERSISTENT;
    kyt_mark_deleted(list, kyt_get(list, BASE + 1));
    ASSERT_TRUE(kyt::settle(list));
    const std::string before = card.bytes("KYT.LST");
    kyt_handle* look = kyt_open_rdonly(card.path().c_str());
    ASSERT_NE(look, nullptr);
    EXPECT_EQ(kyt_count(look), 1999U);
    EXPECT_EQ(kyt_get(look, BASE + 7)->flags, KYT_PERSISTENT);
    EXPECT_EQ(kyt_record_seconds(kyt_get(look, BASE + 300)), 44U);
    EXPECT_EQ(kyt_get(look, BASE + 1), nullptr);
    EXPECT_EQ(all_ts(look), all_ts(list));
    const kyt_record record = record_of(BASE);
    EXPECT_EQ(kyt_write(look, &record), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(kyt_mark_deleted(look, kyt_next(look, nullptr)), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(kyt_optimise(look), -1);
    EXPECT_EQ(errno, EROFS);
    kyt_close(look);
    look = kyt_open_rdonly(card.path().c_str());
    kyt_close_dirty(look);
    EXPECT_EQ(card.bytes("KYT.LST"), before);
    recordings empty;
    EXPECT_EQ(kyt_open_rdonly(empty.path().c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    empty.set_bytes("KYT.LST", "rubbish");
    EXPECT_EQ(kyt_open_rdonly(empty.path().c_str()), nullptr);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_EQ(kyt_open_rdonly("/nonexistent"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(KytList, TwoHundredRoundsLeaveNothingBehind) {
    open();
    reopen();
    const int descriptors = entries_of("/proc/self/fd");
    const int threads = entries_of("/proc/self/task");
    for (int round = 0; round < 200; ++round) {
        const kyt_record record = record_of(BASE + static_cast<uint32_t>(round));
        ASSERT_EQ(kyt_write(list, &record), 0);
        if (round % 2 == 0) {
            reopen();
        } else {
            ASSERT_EQ(kyt_optimise(list), 0);
            ASSERT_TRUE(kyt::settle(list));
            kyt_close_dirty(list);
            open();
        }
    }
    EXPECT_EQ(kyt_count(list), 200U);
    for (int i = 0; i < 2000 && entries_of("/proc/self/fd") != descriptors; ++i) {
        poll(nullptr, 0, 2);  // abandoned keepers end by themselves
    }
    EXPECT_EQ(entries_of("/proc/self/fd"), descriptors);
    EXPECT_LE(entries_of("/proc/self/task"), threads + 1);
}

}  // namespace
