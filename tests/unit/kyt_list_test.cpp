// The list as its user sees it: what is found, in which order, what is refused, and what room it takes.
#include <map>
#include <random>
#include <vector>

#include "support/kyt_rig.h"

namespace {

using namespace kyt_rig;

PROMISES("kyt", "The list");

struct clip {
    uint8_t seconds;
    uint8_t flags;
    bool operator==(const clip&) const = default;
};
using model = std::map<uint32_t, clip>;

struct KytList : rig {
    model contents() const {
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
    void write_or_replace(uint32_t ts, const clip& c, model* expected) const {
        if (expected->contains(ts)) {
            ASSERT_EQ(add(ts, c.seconds, c.flags), -1);
            ASSERT_EQ(errno, EEXIST);
            *kyt_get(list, ts) = kyt::live_record(ts, c.seconds, c.flags);
        } else {
            ASSERT_EQ(add(ts, c.seconds, c.flags), 0);
        }
        (*expected)[ts] = c;
    }
    void delete_and_go_on(uint32_t ts, model* expected) const {
        kyt_record* const record = kyt_get(list, ts);
        ASSERT_EQ(record != nullptr, expected->contains(ts));
        if (record) {
            ASSERT_EQ(kyt_mark_deleted(list, record), 0);
            expected->erase(ts);
            const auto after = expected->upper_bound(ts);
            const kyt_record* const next = kyt_next(list, record);
            ASSERT_EQ(next ? next->ts : 0, after == expected->end() ? 0 : after->first);
            ASSERT_EQ(kyt_mark_deleted(list, record), -1);
            ASSERT_EQ(errno, EINVAL);
        }
    }
};

TEST_F(KytList, RandomOperationsAgreeWithAModel) {
    PROMISE("clips are written, deleted, marked, maintained and the list reopened, in any order and by any clock",
            "the list holds exactly what is alive, ascending, and goes on after a clip just deleted");
    PROMISE("a parsed record is copied whole over a stored one of the same time", "the list stays valid");
    for (const unsigned seed : {1U, 2U, 3U, 4U}) {
        std::mt19937 random(seed);
        std::filesystem::remove_all(card.path());
        std::filesystem::create_directory(card.path());
        reopen();
        model expected;
        uint32_t clock = BASE;
        const auto pick = [&](uint32_t below) { return static_cast<uint32_t>(random() % below); };
        for (int step = 0; step < 3000; ++step) {
            const uint32_t what = pick(1000);
            if (what < 500) {
                // Mostly in order, sometimes late, sometimes the clock has been put back or far ahead.
                clock += 1 + pick(60);
                const uint32_t ts = what < 350 ? clock : what < 480 ? BASE + pick(60'000) : clock + 400'000'000;
                write_or_replace(ts, {static_cast<uint8_t>(pick(256)), static_cast<uint8_t>(pick(2))}, &expected);
            } else if (what < 700 && !expected.empty()) {
                delete_and_go_on(what < 640 ? expected.begin()->first : BASE + pick(60'000), &expected);
            } else if (what < 950 && !expected.empty()) {
                auto at = expected.lower_bound(BASE + pick(60'000));
                at = at == expected.end() ? expected.begin() : at;
                at->second.flags ^= KYT_PERSISTENT;
                kyt_get(list, at->first)->flags ^= KYT_PERSISTENT;
            } else if (what < 985) {
                ASSERT_EQ(contents(), expected);
            } else if (what < 994) {
                optimise();
            } else {
                reopen();
            }
            ASSERT_FALSE(HasFatalFailure());
            if (what >= 985) {
                ASSERT_EQ(contents(), expected) << "seed " << seed << " step " << step;
            }
        }
    }
}

TEST_F(KytList, AClipIsFoundWhateverWasFoundBeforeIt) {
    PROMISE("clips are looked for in any order", "each is found, deleted and absent ones are not");
    open();
    for (const uint32_t second : {10U, 20U, 30U, 60U, 40U, 50U, 70U}) {  // two that come late
        ASSERT_EQ(add(BASE + second), 0);
    }
    remove(BASE + 30);
    for (uint32_t before = 0; before <= 80; before += 10) {
        for (uint32_t second = 5; second <= 80; second += 5) {
            (void)kyt_get(list, BASE + before);
            const kyt_record* const found = kyt_get(list, BASE + second);
            const bool is_there = second % 10 == 0 && second != 30 && second != 80;
            ASSERT_EQ(found ? found->ts : 0, is_there ? BASE + second : 0) << before;
        }
    }
    EXPECT_EQ(kyt_get(list, 0), nullptr);
}

TEST_F(KytList, TheFirstAndTheLastSecondThatThereAre) {
    PROMISE("clips have the first and the last time that 32 bits can hold", "they are clips like all others");
    open();
    for (const uint32_t ts : {UINT32_MAX, 1U, 0x7FFF'FFFFU, 0x8000'0000U, UINT32_MAX - 1}) {
        ASSERT_EQ(add(ts), 0);
    }
    const std::vector<uint32_t> all = {1, 0x7FFF'FFFF, 0x8000'0000, UINT32_MAX - 1, UINT32_MAX};
    EXPECT_EQ(all_ts(list), all);
    kyt_record* const last = kyt_get(list, UINT32_MAX);
    EXPECT_EQ(kyt_next(list, last), nullptr);
    EXPECT_EQ(kyt_mark_deleted(list, last), 0);
    EXPECT_EQ(kyt_next(list, last), nullptr);
    EXPECT_EQ(kyt_next(list, kyt_get(list, UINT32_MAX - 1)), nullptr);
}

TEST_F(KytList, PointersStayGoodWhileTheListGrows) {
    PROMISE("the list grows", "pointers stay good");
    open();
    std::vector<kyt_record*> pointers;
    for (uint32_t i = 0; i < 40'000; ++i) {
        ASSERT_EQ(add(BASE + i), 0) << i;
        pointers.push_back(kyt_get(list, BASE + i));
    }
    for (uint32_t i = 0; i < 40'000; ++i) {
        ASSERT_EQ(pointers[i]->ts, BASE + i);
        ASSERT_EQ(kyt_get(list, BASE + i), pointers[i]);
    }
    reopen();
    EXPECT_EQ(kyt_count(list), 40'000U);
}

TEST_F(KytList, ADeletedClipComesBackWhereverItIs) {
    PROMISE("a deleted clip is written again, wherever it is", "it is back in its place, as it is announced now");
    open();
    model expected;
    for (uint32_t i = 0; i < 10; ++i) {
        ASSERT_EQ(add(BASE + i, 60, 1), 0);
        expected[BASE + i] = {60, 1};
    }
    for (uint32_t i = 1; i < 9; ++i) {
        remove(BASE + i);
        expected.erase(BASE + i);
    }
    for (const uint32_t i : {4U, 1U, 8U, 6U, 2U, 3U, 5U, 7U}) {
        ASSERT_EQ(add(BASE + i, i, 0), 0) << i;
        expected[BASE + i] = {static_cast<uint8_t>(i), 0};
        EXPECT_EQ(contents(), expected) << i;
    }
    remove(BASE + 4);
    optimise();
    ASSERT_EQ(add(BASE + 4, 4, 0), 0);
    EXPECT_EQ(contents(), expected);
    reopen();
    EXPECT_EQ(contents(), expected);
}

TEST_F(KytList, RefusesWhatIsNoRecord) {
    PROMISE("a clip with a live record is written again", "EEXIST, and the stored record stays as it is");
    PROMISE(
        "a record was made by hand or is a deleted one, a pointer does not lead to a live record of the list, or "
        "there is no list",
        "EINVAL, or nothing");
    open();
    ASSERT_EQ(add(BASE, 60, 1), 0);
    kyt_record record = kyt::live_record(BASE, 20, 0);
    EXPECT_EQ(kyt_write(list, &record), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(contents(), (model{{BASE, {60, 1}}}));
    const kyt_record bad[] = {{BASE + 1, {0, 0}, 0, 0},
                              {},
                              {BASE, {0x5A, 0xC3}, 0xA5, 0x3C},
                              kyt::deleted_record(kyt::live_record(BASE + 1, 0, 0))};
    for (const kyt_record& no_clip : bad) {
        errno = 0;
        EXPECT_EQ(kyt_write(list, &no_clip), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(kyt_write(list, nullptr), -1);
    EXPECT_EQ(kyt_mark_deleted(list, nullptr), -1);
    EXPECT_EQ(kyt_next(list, &record), nullptr);
    kyt_record* const end = kyt_get(list, BASE) + 1;  // a slot that has not been used
    for (kyt_record* const other : {&record, end}) {
        errno = 0;
        EXPECT_EQ(kyt_mark_deleted(list, other), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    for (const auto call : {+[](const kyt_record* r) { return kyt_write(nullptr, r); },
                            +[](const kyt_record*) { return kyt_optimise(nullptr); },
                            +[](const kyt_record*) { return kyt_mark_deleted(nullptr, nullptr); }}) {
        errno = 0;
        EXPECT_EQ(call(&record), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(kyt_get(nullptr, BASE), nullptr);
    EXPECT_EQ(kyt_next(nullptr, nullptr), nullptr);
    EXPECT_EQ(kyt_count(nullptr), 0U);
    kyt_close(nullptr);
    kyt_close_dirty(nullptr);
}

TEST_F(KytList, AHundredThousandClipsTakeAtMost87BytesEach) {
    PROMISE("100,000 clips are listed", "the file takes at most 8.7 bytes for each");
    open();
    add_many(BASE, 100'000, 60);
    reopen();
    EXPECT_LE(card.bytes(LIST).size(), 870'000U);
    EXPECT_EQ(kyt_count(list), 100'000U);
}

TEST_F(KytList, AFullCardInUseDoesNotGrowTheFile) {
    PROMISE("a full card is in use for long", "slots are used again, and the file does not grow");
    open();
    add_many(BASE, 7'600, 60);  // the first step is full but for the spare slots and what half an hour needs
    reopen();
    const size_t before = card.bytes(LIST).size();
    ASSERT_EQ(before, size_t{2} * kyt::STEP_BYTES);
    uint32_t newest = 7'600;
    for (int half_hour = 0; half_hour < 80; ++half_hour) {
        for (int i = 0; i < 300; ++i, ++newest) {
            ASSERT_EQ(kyt_mark_deleted(list, kyt_next(list, nullptr)), 0);
            ASSERT_EQ(add(BASE + 60 * newest), 0);
        }
        optimise();
    }
    EXPECT_EQ(kyt_count(list), 7'600U);
    ASSERT_TRUE(kyt::settle(list));
    EXPECT_EQ(card.bytes(LIST).size(), before);
    EXPECT_LE(used_slots(card.bytes(LIST)), 7'600U + 900U);
}

TEST_F(KytList, AFullListRefusesAndFindsTheClipsLater) {
    PROMISE("a list holds as many clips as it can, 1,048,064",
            "further ones are refused with ENOSPC, which is said once; with room again they are found in the folder");
    open();
    add_many(BASE, kyt::MAX_RECORDS);
    const uint32_t late = BASE - 3600;  // its hour has ended
    card.add_clip(late);
    for (int i = 0; i < 3; ++i) {
        errno = 0;
        EXPECT_EQ(add(late), -1);
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(logged::count("err kyt: no room in the list for " + std::to_string(late) + " and later ones"), 1);
    EXPECT_EQ(kyt_get(list, late), nullptr);
    remove(BASE + 5);
    EXPECT_EQ(add(late), -1) << "its slot is that of a clip whose files may still be there";
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(add(BASE + 5), 0) << "a clip that comes back has its own";
    remove(BASE + 5);
    optimise();
    optimise();
    EXPECT_EQ(kyt_next(list, nullptr)->ts, late) << "found by the comparison";
    EXPECT_EQ(kyt_count(list), kyt::MAX_RECORDS);
    EXPECT_EQ(add(late - 1), -1);
    EXPECT_EQ(logged::count("err kyt: no room in the list for " + std::to_string(late - 1) + " and later ones"), 1);
    close();
    EXPECT_EQ(card.bytes(LIST).size(), size_t{kyt::MAX_BYTES});
    open();
    EXPECT_EQ(kyt_count(list), kyt::MAX_RECORDS);
    EXPECT_EQ(kyt_next(list, nullptr)->ts, late);
}

TEST_F(KytList, ManyRoundsLeaveNothingBehind) {
    PROMISE("lists are opened and closed a hundred times, half of them as vanished ones",
            "no descriptor and no thread is left behind");
    open();
    reopen();
    const size_t descriptors = open_descriptors();
    const size_t threads = entries_of("/proc/self/task");
    for (uint32_t round = 0; round < 100; ++round) {
        ASSERT_EQ(add(BASE + round), 0);
        if (round % 2 == 0) {
            reopen();
        } else {
            ASSERT_EQ(kyt_optimise(list), 0);
            ASSERT_TRUE(kyt::settle(list));
            close_dirty();
            open();
        }
    }
    EXPECT_EQ(kyt_count(list), 100U);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(entries_of("/proc/self/task"), threads);
}

}  // namespace
