// The calls on an open list when memory is short, and by the test's own clock.
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "handle.h"
#include "kyt_rdonly.h"
#include "record.h"
#include "support/log.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t HOUR = 1'790'002'800;

struct {
    int allocation = 0;  // the loop's that fails, counted from 1 down
    time_t now = 0;      // 0: the real clock
} libc;
thread_local bool is_loop = false;

// Without a word in errno: C does not promise one.
bool is_short() {
    return is_loop && --libc.allocation == 0;
}

}  // namespace

extern "C" {

void* __real_malloc(size_t);
void* __real_realloc(void*, size_t);
time_t __real_time(time_t*);

void* __wrap_malloc(size_t size) {
    return is_short() ? nullptr : __real_malloc(size);
}
void* __wrap_realloc(void* old, size_t size) {
    return is_short() ? nullptr : __real_realloc(old, size);
}
time_t __wrap_time(time_t* at) {
    return libc.now != 0 ? libc.now : __real_time(at);
}

}  // extern "C"

namespace {

struct KytCalls : testing::Test {
    void SetUp() override {
        libc = {};
        is_loop = true;
        logged::reset();
    }
    void TearDown() override {
        libc = {};
        logged::disturb_errno(0);
        kyt_close(list);
    }
    void open() {
        list = kyt::open_folder(card.path().c_str());
        ASSERT_NE(list, nullptr);
    }
    int write(uint32_t ts) const {
        const kyt_record record = kyt::live_record(ts, 60, 0);
        errno = 0;
        return kyt_write(list, &record);
    }
    void compare() const {
        ASSERT_EQ(kyt_optimise(list), 0);
        await_job();
    }
    void await_job() const {
        for (int waited_ms = 0; waited_ms < 10'000; waited_ms += 2) {
            const kyt::phase at = list->keeper->at;
            if (at == kyt::phase::DONE || at == kyt::phase::IDLE) {
                return;
            }
            poll(nullptr, 0, 2);
        }
        FAIL() << "the keeper does not end its job";
    }
    std::vector<uint32_t> seconds() const {
        std::vector<uint32_t> found = all_ts(list);
        for (uint32_t& ts : found) {
            ts -= HOUR;
        }
        return found;
    }

    recordings card;
    kyt_handle* list = nullptr;
};

using clips = std::vector<uint32_t>;

TEST_F(KytCalls, AnOpenWithoutMemoryFailsWholeAndHurtsNothing) {
    open();
    for (const uint32_t second : {20, 10, 30}) {
        ASSERT_EQ(write(HOUR + second), 0);
    }
    kyt_close(list);
    list = nullptr;
    logged::reset();
    const int before = dup(STDERR_FILENO);
    close(before);
    int refused = 0;
    for (int nth = 1; !list; ++nth) {
        libc.allocation = nth;
        list = kyt::open_folder(card.path().c_str());
        libc.allocation = 0;
        if (!list) {
            ++refused;
            const int after = dup(STDERR_FILENO);
            close(after);
            EXPECT_EQ(after, before) << nth;
        }
    }
    EXPECT_GE(refused, 4);  // the handle, the records, their order, the keeper
    EXPECT_EQ(seconds(), (clips{10, 20, 30}));
}

TEST_F(KytCalls, AClipThatComesLateIsRefusedWithoutMemoryAndMayBeWrittenAgain) {
    open();
    ASSERT_EQ(write(HOUR + 20), 0);
    for (const int nth : {1, 2}) {  // the order of the strays, the slots that they fill
        libc.allocation = nth;
        EXPECT_EQ(write(HOUR + 10), -1) << nth;
        EXPECT_EQ(errno, ENOMEM) << nth;
        EXPECT_EQ(seconds(), clips{20}) << nth;
        EXPECT_EQ(kyt_get(list, HOUR + 10), nullptr);
        EXPECT_EQ(kyt_count(list), 1U);
    }
    EXPECT_EQ(write(HOUR + 10), 0);
    EXPECT_EQ(seconds(), (clips{10, 20}));
}

TEST_F(KytCalls, ADeletedClipStaysDeletedWhenThereIsNoMemoryForItsReturn) {
    open();
    for (uint32_t second = 0; second < 80; ++second) {
        ASSERT_EQ(write(HOUR + second), 0);
    }
    // As many runs of deleted ones as memory was taken for at first; within one of them the return makes two of it.
    for (uint32_t run = 0; run < 16; ++run) {
        for (uint32_t clip = 0; clip < 3; ++clip) {
            ASSERT_EQ(kyt_mark_deleted(list, kyt_get(list, HOUR + 5 * run + clip)), 0);
        }
    }
    const clips before = seconds();
    libc.allocation = 1;
    EXPECT_EQ(write(HOUR + 1), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(kyt_get(list, HOUR + 1), nullptr);
    EXPECT_EQ(seconds(), before);
    EXPECT_EQ(write(HOUR + 1), 0);
    EXPECT_EQ(kyt_count(list), before.size() + 1);
}

TEST_F(KytCalls, WithoutMemoryTheNewListWaitsForAnotherTime) {
    open();
    for (const uint32_t second : {20, 10, 30}) {
        ASSERT_EQ(write(HOUR + second), 0);
    }
    // Nothing to set up a rewriting with: the comparison runs all the same.
    for (const int nth : {1, 2}) {
        libc.allocation = nth;
        compare();
        EXPECT_LE(libc.allocation, 0);
        EXPECT_FALSE(list->keeper->work.rewritten) << nth;
    }
    compare();
    ASSERT_TRUE(list->keeper->work.rewritten);
    // Nothing to bring over what came meanwhile: the new list goes, and another one is made.
    ASSERT_EQ(write(HOUR + 15), 0);
    libc.allocation = 1;
    compare();
    EXPECT_LE(libc.allocation, 0);
    EXPECT_EQ(list->file, 0);
    for (int job = 0; job < 4; ++job) {
        compare();
    }
    EXPECT_EQ(list->file, 1);
    EXPECT_EQ(seconds(), (clips{10, 15, 20, 30}));
}

TEST_F(KytCalls, AnHourIsComparedFiveMinutesAfterItsEnd) {
    card.add_clip(HOUR);
    open();
    kyt_mark_deleted(list, kyt_get(list, HOUR));
    card.add_clip(HOUR + 60);
    card.add_clip(HOUR + 3600);
    libc.now = HOUR + 3600 + 299;
    compare();
    compare();
    EXPECT_EQ(seconds(), clips{});
    libc.now = HOUR + 3600 + 300;
    compare();
    compare();
    EXPECT_EQ(seconds(), clips{60});
}

TEST_F(KytCalls, BeforeTheClockIsSetNoHourHasEnded) {
    open();
    card.add_clip(HOUR);
    for (const time_t now : {1, 299, 300, 3600}) {
        libc.now = now;
        compare();
        compare();
        EXPECT_EQ(seconds(), clips{}) << now;
    }
}

TEST_F(KytCalls, WhatIsFoundMeanwhileDoesNotChangeTheAnswer) {
    open();
    ASSERT_EQ(write(HOUR + 20), 0);
    card.add_clip(HOUR + 30);
    compare();
    logged::reset();
    logged::disturb_errno(EINTR);
    EXPECT_EQ(write(HOUR + 20), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(seconds(), (clips{20, 30}));
    EXPECT_EQ(logged::lines().size(), 1U);
}

}  // namespace
