// The thread beside the loop: flushing, growing, comparing, and every way to end.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csetjmp>
#include <csignal>
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include "handle.h"
#include "keeper.h"
#include "kyt_rdonly.h"
#include "support/card_calls.h"
#include "support/log.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t BASE = 1'790'000'000;  // long ago: these periods have ended

template <typename Condition>
bool await(Condition condition, int deadline_ms = 10'000) {
    for (int waited = 0; waited < deadline_ms; waited += 2) {
        if (condition()) {
            return true;
        }
        poll(nullptr, 0, 2);
    }
    return condition();
}

int open_descriptors() {
    int count = 0;
    DIR* const stream = opendir("/proc/self/fd");
    while (readdir(stream)) {
        ++count;
    }
    closedir(stream);
    return count;
}

struct KytKeeper : testing::Test {
    void SetUp() override {
        logged::reset();
        card_calls::reset();
    }
    void TearDown() override {
        card_calls::reset();
        kyt_close(list);
    }
    void open() {
        list = kyt::open_folder(card.path().c_str());
        ASSERT_NE(list, nullptr);
    }
    void write(uint32_t ts, const char* rest = "") {
        const kyt_record record = record_of(std::to_string(ts) + rest);
        ASSERT_EQ(kyt_write(list, &record), 0);
    }
    void optimise() {
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(kyt_optimise(list), 0);
            ASSERT_TRUE(await([&] {
                const kyt::phase at = list->keeper->at;
                return at == kyt::phase::DONE || at == kyt::phase::IDLE;
            }));
        }
    }
    recordings card;
    kyt_handle* list = nullptr;
};

TEST_F(KytKeeper, AChangeIsSynchronisedWithinTwoSeconds) {
    open();
    usleep(1500000);
    const int before = card_calls::count("fdatasync");
    write(BASE);
    EXPECT_TRUE(await([&] { return card_calls::count("fdatasync") > before; }, 2000));
    kyt_record* const record = kyt_get(list, BASE);
    usleep(3000000);
    EXPECT_EQ(card_calls::count("fdatasync"), before + 1) << "nothing has changed";
    record->flags = KYT_PERSISTENT;  // long after the call that gave the pointer
    EXPECT_TRUE(await([&] { return card_calls::count("fdatasync") >= before + 2; }, 2000));
}


TEST_F(KytKeeper, AnOpenWithoutDescriptorsSaysSoAndLeavesNoneOpen) {
    const int before = open_descriptors();
    const int next = dup(STDERR_FILENO);
    close(next);
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit low = limit;
    int refused = 0;
    for (low.rlim_cur = static_cast<rlim_t>(next); !list; ++low.rlim_cur) {
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
        list = kyt::open_folder(card.path().c_str());
        const int failure = errno;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        if (!list) {
            ++refused;
            EXPECT_EQ(failure, EMFILE);
            EXPECT_EQ(open_descriptors(), before) << refused;
        }
    }
    EXPECT_GE(refused, 3);  // the folder, the list, the keeper's own
}

TEST_F(KytKeeper, BehindASlowSynchronisationThereIsNoPause) {
    using clock = std::chrono::steady_clock;
    std::atomic<int> pause_ms = -1;
    std::atomic<bool> entered = false;
    clock::time_point end = clock::time_point::max();  // the keeper's alone
    card_calls::hooks hooks;
    hooks.before_sync = [&](const std::string&) {
        if (end != clock::time_point::max()) {
            const auto pause = std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - end);
            pause_ms = static_cast<int>(pause.count());
        }
        entered = true;
        usleep(1'100'000);
    };
    hooks.after_sync = [&](const std::string&) { end = clock::now(); };
    open();
    card_calls::set_hooks(hooks);
    write(BASE);
    ASSERT_TRUE(await([&] { return entered.load(); }));
    write(BASE + 1);
    ASSERT_TRUE(await([&] { return pause_ms >= 0; }));
    EXPECT_LT(pause_ms, 900);  // a whole second otherwise
    card_calls::set_hooks({});
    kyt_close(list);  // waits for the thread, which may still be in a hook
    list = nullptr;
}

TEST_F(KytKeeper, NoCallOfTheLoopWaitsForAStalledCard) {
    open();
    card_calls::stop();
    write(BASE);
    ASSERT_TRUE(await([] { return card_calls::hanging() > 0; }));
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t i = 1; i < 30'000; ++i) {  // 3.6 times what the file has room for
        write(BASE + i);
    }
    EXPECT_EQ(kyt_get(list, BASE + 29'999)->ts, BASE + 29'999);
    EXPECT_EQ(kyt_mark_deleted(list, kyt_next(list, nullptr)), 0);
    EXPECT_EQ(kyt_optimise(list), 0);
    EXPECT_EQ(all_ts(list).size(), 29'999U);
    EXPECT_EQ(card_calls::hanging(), 1);  // the keeper, still
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    card_calls::go_on();
    kyt_close(list);
    open();
    EXPECT_EQ(kyt_count(list), 29'999U) << testing::PrintToString(logged::lines());
}



TEST_F(KytKeeper, ACardThatRefusesOnceGetsThePagesAgain) {
    open();
    write(BASE);
    card_calls::fail("fdatasync", 1, EIO);
    ASSERT_TRUE(await([] { return logged::has("err kyt: the card does not take the list: Input/output error"); }));
    const int before = card_calls::count("pwrite");
    EXPECT_TRUE(await([] { return logged::has("info kyt: the card takes the list again"); }, 2000));
    EXPECT_EQ(card_calls::count("pwrite"), before + 1) << "by itself";
}

TEST_F(KytKeeper, ADirtyCloseWaitsForNothingAndTheDescriptorsGoWhenTheCardAnswers) {
    const int before = open_descriptors();
    open();
    write(BASE);
    card_calls::stop();
    ASSERT_TRUE(await([] { return card_calls::hanging() > 0; }));
    kyt_close_dirty(list);
    list = nullptr;
    EXPECT_EQ(card_calls::hanging(), 1);
    EXPECT_GT(open_descriptors(), before);
    card_calls::go_on();
    EXPECT_TRUE(await([&] { return open_descriptors() == before; }));
}

TEST_F(KytKeeper, ADirtyCloseInTheMiddleOfEveryJob) {
    const int before = open_descriptors();
    for (int nth = 1; nth < 30; ++nth) {
        open();
        for (const uint32_t ts : {5U, 3U, 9U, 7U}) {
            write(BASE + ts + 10 * static_cast<uint32_t>(nth));
        }
        ASSERT_EQ(kyt_optimise(list), 0);
        if (nth % 2 == 0) {
            ASSERT_TRUE(await([&] { return list->keeper->at == kyt::phase::DONE; }));
            ASSERT_EQ(kyt_optimise(list), 0);
        }
        for (int spin = 0; spin < nth * 200; ++spin) {
            sched_yield();
        }
        kyt_close_dirty(list);
        list = nullptr;
        ASSERT_TRUE(await([&] { return open_descriptors() == before; }));
    }
}

TEST_F(KytKeeper, ALostAnnouncementIsFoundWhenItsPeriodHasEnded) {
    open();
    write(BASE);
    card.add_clip(BASE);
    card.add_clip(BASE + 60);
    card.add_clip(BASE + 7200);
    const auto current = static_cast<uint32_t>(time(nullptr));
    card.add_clip(current);  // may still be announced
    optimise();
    EXPECT_EQ(all_ts(list), (std::vector<uint32_t>{BASE, BASE + 60, BASE + 7200}));
    EXPECT_TRUE(logged::has("info kyt: 2 clips were on the card but not in the list, the first is " +
                            std::to_string(BASE + 60) + ": added"));
}

TEST_F(KytKeeper, AnAnnouncementTakesOverWhatWasFound) {
    open();
    card.add_clip(BASE + 60);
    ASSERT_EQ(kyt_optimise(list), 0);
    ASSERT_TRUE(await([&] { return list->keeper->at == kyt::phase::DONE; }));
    write(BASE + 120);
    EXPECT_EQ(all_ts(list), (std::vector<uint32_t>{BASE + 60, BASE + 120}));
}

TEST_F(KytKeeper, AnAnnouncementCountsMoreThanWhatWasFound) {
    open();
    card.add_clip(BASE + 60);
    ASSERT_EQ(kyt_optimise(list), 0);
    ASSERT_TRUE(await([&] { return list->keeper->at == kyt::phase::DONE; }));
    write(BASE + 60, ",20,1");
    ASSERT_EQ(all_ts(list), std::vector<uint32_t>{BASE + 60});
    EXPECT_EQ(kyt_record_seconds(kyt_get(list, BASE + 60)), 20U);
    EXPECT_EQ(kyt_get(list, BASE + 60)->flags, KYT_PERSISTENT);
}

TEST_F(KytKeeper, OddThingsInTheFolderAreNoClips) {
    open();
    for (const char* name : {"2026092213/20260922_130000.mp4.part", "2026092213/20260922_140000.mp4",
                             "2026092213/x.mp4", "2026092213/20260922_130001.jpeg", "2026092299/20260922_130000.mp4"}) {
        std::filesystem::create_directories(std::filesystem::path(card.file(name)).parent_path());
        std::ofstream(card.file(name)) << "x";
    }
    std::filesystem::create_directories(card.file("2026092213/20260922_130002.mp4"));
    card.set_bytes("2026092214", "a file with a period's name");
    optimise();
    EXPECT_EQ(kyt_count(list), 0U);
    kyt_close_dirty(list);
    open();
    EXPECT_EQ(kyt_count(list), 0U);
}

TEST_F(KytKeeper, ADeletedClipWhoseFilesStayComesBackAtTheNextOpenOnly) {
    open();
    for (uint32_t i = 0; i < 1'200; ++i) {
        write(BASE + i);
    }
    card.add_clip(BASE + 3);
    card.add_clip(BASE + 1'100);
    for (uint32_t i = 0; i < 1'000; ++i) {
        kyt_mark_deleted(list, kyt_get(list, BASE + i));
    }
    for (int round = 0; round < 4; ++round) {
        optimise();
        ASSERT_EQ(kyt_count(list), 200U);
        ASSERT_EQ(kyt_get(list, BASE + 3), nullptr);
    }
    EXPECT_EQ(list->tombstones.size, 1U);
    EXPECT_EQ(list->empty.size - list->next_empty, 999U);
    kyt_close(list);
    open();
    ASSERT_NE(kyt_get(list, BASE + 3), nullptr);
    EXPECT_TRUE(logged::has("warning kyt: 1 deleted clips are still on the card and back in the list, the first is " +
                            std::to_string(BASE + 3)));
    EXPECT_EQ(kyt_count(list), 201U);
}

TEST_F(KytKeeper, ATombstoneIsNotDroppedBeforeTheFolderWasReadInFull) {
    open();
    for (uint32_t i = 0; i < 1'000; ++i) {
        write(BASE + i);
    }
    card.add_clip(BASE);
    for (uint32_t i = 0; i < 1'000; ++i) {
        kyt_mark_deleted(list, kyt_get(list, BASE + i));
    }
    card_calls::fail("open", 1, EIO, 1000);
    optimise();
    optimise();
    EXPECT_EQ(list->tombstones.size, 1'000U);
    card_calls::fail("", 0, 0, 0);
    optimise();
    optimise();
    EXPECT_EQ(list->tombstones.size, 1U);
    EXPECT_EQ(kyt_count(list), 0U);
}




}  // namespace
