// The comparison of the folder with the list, beside the loop: lost announcements, deleted clips, and slots that are
// free again.
#include <atomic>
#include <ctime>
#include <fstream>

#include "support/kyt_rig.h"

namespace {

using namespace kyt_rig;
using libc_calls::called;
using libc_calls::FOREVER;
using testing::PrintToString;

PROMISES("kyt", "Beside the loop");

constexpr uint32_t HOUR = 3600;

struct KytCompare : rig {
    std::string period_of(uint32_t ts) const { return std::filesystem::path(card.clip(ts)).parent_path().filename(); }
    void refuse_period(uint32_t ts, int errnum) const {
        const std::string name = period_of(ts);
        libc_calls::before("openat", [name, errnum](const called& c) { return name == c.name ? errnum : 0; });
    }
    void allow_periods() const { libc_calls::before("openat", {}); }
    // A comparison of which the loop knows nothing yet.
    void compare() const {
        ASSERT_EQ(kyt_optimise(list), 0);
        await_comparison();
    }
    // Where the next clips are.
    std::set<const kyt_record*> next_slots() {
        std::set<const kyt_record*> taken;
        for (int i = 0; i < 8; ++i) {
            const uint32_t ts = next_new_++;
            EXPECT_EQ(add(ts), 0);
            taken.insert(kyt_get(list, ts));
        }
        return taken;
    }
    bool is_reused(const kyt_record* slot) { return next_slots().contains(slot); }

  private:
    uint32_t next_new_ = BASE + 1000 * HOUR;
};

TEST_F(KytCompare, ALostAnnouncementIsFoundWhenItsPeriodHasEnded) {
    PROMISE("an announcement was lost",
            "the clip is found five minutes after its hour has ended, and not while it may still be announced");
    open();
    ASSERT_EQ(add(BASE), 0);
    for (const uint32_t ts : {BASE, BASE + 60, BASE + 7200, BASE + 3 * HOUR}) {
        card.add_clip(ts);
    }
    libc_calls::set_time(BASE + 3 * HOUR + 299);  // the hour of BASE + 7200 has just ended
    optimise();
    EXPECT_EQ(all_ts(list), (std::vector<uint32_t>{BASE, BASE + 60}));
    EXPECT_TRUE(logged::has("info kyt: 1 clips were on the card but not in the list, the first is " +
                            std::to_string(BASE + 60) + ": added"));
    libc_calls::set_time(BASE + 3 * HOUR + 300);
    optimise();
    EXPECT_EQ(all_ts(list), (std::vector<uint32_t>{BASE, BASE + 60, BASE + 7200}));
    reopen();  // nothing waits at an opening that has to look anyway
    EXPECT_EQ(kyt_count(list), 3U);
}

TEST_F(KytCompare, WhateverTheClockSays) {
    PROMISE("the clock is in 1970, fails, or is past what a signed 32-bit time can hold",
            "no clip is taken for lost while it may still be announced");
    constexpr uint32_t LAST_OF_TIME = UINT32_MAX / HOUR * HOUR - HOUR;
    constexpr struct {
        int64_t now;
        uint32_t ended;  // 0: none is sure to have
        uint32_t current;
    } ROWS[] = {{INT32_MAX, INT32_MAX - 2 * HOUR, INT32_MAX - 10},
                {int64_t{INT32_MAX} + 1, INT32_MAX - 2 * HOUR, INT32_MAX + 1U},
                {int64_t{INT32_MAX} + int64_t{5} * HOUR, INT32_MAX, INT32_MAX + 5 * HOUR},
                {UINT32_MAX - 10, LAST_OF_TIME - HOUR, UINT32_MAX - 20},
                {0, 0, 1},
                {299, 0, 1},
                {HOUR, 0, 1},
                {HOUR + 300, 1, HOUR + 10},
                {-1, 0, LAST_OF_TIME}};
    for (const auto& row : ROWS) {
        std::filesystem::remove_all(card.path());
        std::filesystem::create_directory(card.path());
        libc_calls::set_time(row.now);
        open();
        card.add_clip(row.current);
        if (row.ended != 0) {
            card.add_clip(row.ended);
        }
        optimise();
        EXPECT_EQ(kyt_get(list, row.current), nullptr) << row.now;
        EXPECT_EQ(kyt_get(list, row.ended) != nullptr, row.ended != 0) << row.now;
        close();
    }
}

TEST_F(KytCompare, WhatWasFoundAndWhatIsAnnounced) {
    PROMISE("a clip was found and others are announced", "it is taken over with the next of them");
    PROMISE("a clip was found and is announced after all", "the announcement counts");
    PROMISE("a clip is announced and deleted while a comparison is under way", "it does not come back from it");
    open();
    card.add_clip(BASE + 60);
    compare();
    EXPECT_EQ(kyt_count(list), 0U);
    ASSERT_EQ(add(BASE + 120), 0);
    EXPECT_EQ(all_ts(list), (std::vector<uint32_t>{BASE + 60, BASE + 120}));
    card.add_clip(BASE + 70);
    optimise();
    optimise();
    card.add_clip(BASE + 80);
    compare();
    ASSERT_EQ(add(BASE + 80, 20, 1), 0);
    EXPECT_EQ(kyt_record_seconds(kyt_get(list, BASE + 80)), 20U);
    EXPECT_EQ(kyt_get(list, BASE + 80)->flags, KYT_PERSISTENT);
    EXPECT_NE(kyt_get(list, BASE + 70), nullptr);
    optimise();
    card.add_clip(BASE + 90);
    libc_calls::hold("fdopendir");
    ASSERT_EQ(kyt_optimise(list), 0);
    ASSERT_TRUE(await([] { return libc_calls::held() > 0; }));
    ASSERT_EQ(add(BASE + 90), 0);
    remove(BASE + 90);
    libc_calls::release();
    await_comparison();
    optimise();
    optimise();
    EXPECT_EQ(kyt_get(list, BASE + 90), nullptr);
    EXPECT_EQ(all_ts(list), (std::vector<uint32_t>{BASE + 60, BASE + 70, BASE + 80, BASE + 120}));
}

TEST_F(KytCompare, OddThingsInTheFolderAreNoClips) {
    PROMISE("odd files and folders are in the recordings folder", "they are no clips");
    open();
    const std::string hour = period_of(BASE);
    for (const std::string& name :
         {hour + "/20260921_150000.mp4.part", hour + "/20260921_160000.mp4", hour + "/x.mp4", hour + "/.mp4",
          hour + "/20260921_150001.jpeg", std::string("2026092199/20260921_150000.mp4"), std::string("lost/x.mp4")}) {
        std::filesystem::create_directories(std::filesystem::path(card.file(name)).parent_path());
        std::ofstream(card.file(name)) << "x";
    }
    std::filesystem::create_directories(card.file(hour + "/20260921_150002.mp4"));
    std::filesystem::create_directory_symlink(card.file(hour), card.file("2026092213"));
    card.set_bytes("2026092214", "a file with an hour's name");
    optimise();
    EXPECT_EQ(kyt_count(list), 0U);
    close_dirty();
    open();
    EXPECT_EQ(kyt_count(list), 0U);
}

TEST_F(KytCompare, ADeletedClipWhoseFilesStay) {
    PROMISE("a deleted clip's files stay",
            "it does not come back in this session, does at the next opening with its mark and duration, and the log "
            "says so");
    open();
    add_many(BASE, 1'200);
    for (const uint32_t ts : {BASE + 3, BASE + 1'100}) {
        card.add_clip(ts);
    }
    *kyt_get(list, BASE + 3) = kyt::live_record(BASE + 3, 77, 1);
    for (uint32_t i = 0; i < 1'000; ++i) {
        remove(BASE + i);
    }
    for (int round = 0; round < 4; ++round) {
        optimise();
        ASSERT_EQ(kyt_count(list), 200U);
        ASSERT_EQ(kyt_get(list, BASE + 3), nullptr);
    }
    reopen();
    ASSERT_NE(kyt_get(list, BASE + 3), nullptr);
    EXPECT_EQ(kyt_get(list, BASE + 3)->flags, KYT_PERSISTENT);
    EXPECT_EQ(kyt_record_seconds(kyt_get(list, BASE + 3)), 77U);
    EXPECT_TRUE(logged::has("warning kyt: 1 deleted clips are still on the card and back in the list, the first is " +
                            std::to_string(BASE + 3)))
        << PrintToString(logged::lines());
    EXPECT_EQ(kyt_count(list), 201U);
}

TEST_F(KytCompare, ASlotIsFreeWhenItsFilesWereSeenToBeGone) {
    PROMISE("the hour of a deleted clip was read in full after the deletion, or is gone, without its files",
            "its slot is free for another clip");
    PROMISE("a comparison began before the deletion, or its files are still there", "its slot is not free yet");
    for (const bool hour_stays : {true, false}) {
        open();
        ASSERT_EQ(add(BASE), 0);
        card.add_clip(BASE);
        if (hour_stays) {
            card.add_clip(BASE + 1);
            ASSERT_EQ(add(BASE + 1), 0);
        }
        const kyt_record* const slot = kyt_get(list, BASE);
        libc_calls::hold("fdopendir");
        ASSERT_EQ(kyt_optimise(list), 0);
        ASSERT_TRUE(await([] { return libc_calls::held() > 0; }));
        remove(BASE);
        card.remove_clip(BASE);
        EXPECT_FALSE(is_reused(slot)) << "before any look";
        libc_calls::release();
        await_comparison();
        card.add_clip(BASE);  // still being removed
        compare();            // takes over the one that began too early
        EXPECT_FALSE(is_reused(slot)) << "the look began before the deletion";
        card.remove_clip(BASE);
        compare();
        EXPECT_FALSE(is_reused(slot)) << "its files were still there";
        compare();
        EXPECT_TRUE(is_reused(slot));
        EXPECT_EQ(kyt_get(list, BASE), nullptr);
        close();
        std::filesystem::remove_all(card.path());
        std::filesystem::create_directory(card.path());
    }
}

TEST_F(KytCompare, AnHourThatCannotBeRead) {
    PROMISE("an hour of the folder cannot be read",
            "slots of clips deleted in it are not free, those of other hours are, and clips of other hours are found");
    open();
    const uint32_t other = BASE + 5 * HOUR;
    for (const uint32_t ts : {BASE, other}) {
        card.add_clip(ts);
        card.add_clip(ts + 1);
        ASSERT_EQ(add(ts), 0);
    }
    const kyt_record* const in_bad_hour = kyt_get(list, BASE);
    const kyt_record* const in_good_hour = kyt_get(list, other);
    for (const uint32_t ts : {BASE, other}) {
        remove(ts);
        card.remove_clip(ts);
    }
    std::set<const kyt_record*> slots;
    for (const int errnum : {EIO, EACCES, EMFILE, ENOMEM}) {
        refuse_period(BASE, errnum);
        optimise();
        optimise();
        slots.merge(next_slots());
        EXPECT_FALSE(slots.contains(in_bad_hour)) << errnum;
        EXPECT_TRUE(slots.contains(in_good_hour)) << errnum;
        EXPECT_EQ(kyt_get(list, BASE + 1), nullptr);
        EXPECT_NE(kyt_get(list, other + 1), nullptr);
    }
    // One that breaks off in the middle has not been read in full.
    allow_periods();
    const std::string bad = period_of(BASE);
    libc_calls::before("readdir", [&](const called& c) { return libc_calls::file_of(c.fd) == bad ? EIO : 0; });
    optimise();
    optimise();
    EXPECT_FALSE(is_reused(in_bad_hour));
    libc_calls::before("readdir", {});
    optimise();
    optimise();
    EXPECT_TRUE(is_reused(in_bad_hour));
    EXPECT_NE(kyt_get(list, BASE + 1), nullptr);
}

TEST_F(KytCompare, FoldersThatAreNeverReadInFull) {
    PROMISE("hundreds of comparisons go by without the folder being read in full",
            "what was deleted in this session stays deleted");
    open();
    add_many(BASE, 100);
    card.add_clip(BASE + 5 * HOUR);
    for (uint32_t i = 0; i < 100; ++i) {
        card.add_clip(BASE + i);
    }
    refuse_period(BASE + 5 * HOUR, EIO);
    for (uint32_t round = 0; round < 400; ++round) {
        compare();
        if (round % 5 == 0) {
            remove(BASE + round / 5);
        }
    }
    optimise();
    EXPECT_EQ(kyt_count(list), 20U);
    EXPECT_EQ(kyt_next(list, nullptr)->ts, BASE + 80);
    refuse_period(BASE, EIO);
    for (int round = 0; round < 300; ++round) {
        compare();
    }
    allow_periods();
    optimise();
    optimise();
    EXPECT_EQ(kyt_get(list, BASE), nullptr);
    EXPECT_EQ(kyt_count(list), 21U);
}

TEST_F(KytCompare, VeryManyFindingsAtOnce) {
    PROMISE("more clips are without a record than one comparison reports", "later ones report the rest");
    PROMISE("more deleted clips still have their files than one comparison reports", "none of them comes back");
    open();
    constexpr uint32_t MANY = 5'000;
    for (uint32_t i = 0; i < MANY; ++i) {
        card.add_clip(BASE + i);
    }
    for (int i = 0; i < 3; ++i) {
        optimise();
    }
    ASSERT_EQ(kyt_count(list), MANY);
    std::vector<const kyt_record*> slots;
    for (uint32_t i = 0; i < MANY; ++i) {
        slots.push_back(kyt_get(list, BASE + i));
        remove(BASE + i);
    }
    for (int i = 0; i < 3; ++i) {
        optimise();
    }
    EXPECT_EQ(kyt_count(list), 0U);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(add(BASE + 100 * HOUR + static_cast<uint32_t>(i)), 0);
        ASSERT_FALSE(std::find(slots.begin(), slots.end(),
                               kyt_get(list, BASE + 100 * HOUR + static_cast<uint32_t>(i))) != slots.end());
    }
    reopen();
    EXPECT_EQ(kyt_count(list), MANY + 100);
}

TEST_F(KytCompare, AnotherOneIsNotBegunWhileOneIsUnderWay) {
    PROMISE("maintenance comes again while a comparison is under way", "nothing is begun or lost by it");
    open();
    card.add_clip(BASE);
    libc_calls::hold("fdopendir");
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(kyt_optimise(list), 0);
        EXPECT_TRUE(kyt::is_comparing(list));
    }
    EXPECT_TRUE(await([] { return libc_calls::held() == 1; }));
    EXPECT_EQ(libc_calls::count("fdopendir"), 2);  // at the opening, and now
    libc_calls::release();
    await_comparison();
    ASSERT_EQ(kyt_optimise(list), 0);
    EXPECT_NE(kyt_get(list, BASE), nullptr);
}

TEST_F(KytCompare, FlushingGoesOnDuringAComparison) {
    PROMISE("a comparison takes long", "changes are on the card within two seconds all the same");
    open();
    add_many(BASE, 10);
    for (uint32_t hour = 0; hour < 40; ++hour) {
        card.add_clip(BASE + hour * HOUR);
    }
    ASSERT_TRUE(kyt::settle(list));
    libc_calls::before("fdopendir", [](const called&) {
        poll(nullptr, 0, 200);
        return 0;
    });
    ASSERT_EQ(kyt_optimise(list), 0);
    for (int i = 0; i < 2; ++i) {
        kyt_get(list, BASE)->flags ^= 1;
        const int flags = kyt_get(list, BASE)->flags;
        const int syncs = libc_calls::count("fdatasync");
        EXPECT_TRUE(
            await([&] { return libc_calls::count("fdatasync") > syncs && flags_on_card(BASE) == flags; }, 2500));
        EXPECT_TRUE(kyt::is_comparing(list));
    }
}

}  // namespace
