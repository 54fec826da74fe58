// A card that refuses what it is asked last: room for more, a list's rewriting, the end of a session. Each time the log
// says what that may cost, and the next opening finds what there was.
#include <cerrno>
#include <gtest/gtest.h>
#include <poll.h>

#include "handle.h"
#include "kyt_rdonly.h"
#include "support/card_calls.h"
#include "support/log.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t BASE = 1'790'000'000;   // long ago: these periods have ended
constexpr uint32_t IN_FIRST_STEP = 7'680;  // records that a new list has room for
constexpr uint32_t IN_MEMORY = 131'072;    // and that wait in memory when the card gives no more
constexpr int ALWAYS = 1'000'000;

constexpr char NOT_IN_ORDER[] = "err kyt: the list is not closed in order: Input/output error";

template <typename Condition>
bool await(Condition condition) {
    for (int waited = 0; waited < 30'000 && !condition(); waited += 2) {
        poll(nullptr, 0, 2);
    }
    return condition();
}

struct KytRefused : testing::Test {
    void SetUp() override {
        logged::reset();
        card_calls::reset();
        open();
    }
    void TearDown() override {
        card_calls::reset();
        kyt_close(list);
    }
    void open() {
        list = kyt::open_folder(card.path().c_str());
        ASSERT_NE(list, nullptr) << strerror(errno);
    }
    void reopen() {
        kyt_close(list);
        list = nullptr;
        card_calls::reset();
        open();
    }
    int write(uint32_t ts) const {
        const kyt_record record = record_of(ts);
        return kyt_write(list, &record);
    }
    // One step of the maintenance, to its end.
    void optimise() const {
        ASSERT_EQ(kyt_optimise(list), 0);
        ASSERT_TRUE(await([&] {
            const kyt::phase at = list->keeper->at;
            return at == kyt::phase::DONE || at == kyt::phase::IDLE;
        }));
    }
    // Clips that came out of order, and a rewriting of the list that is ready to be used.
    void prepare_rewriting() const {
        for (const uint32_t second : {5U, 3U, 9U, 7U}) {
            ASSERT_EQ(write(BASE + second), 0);
        }
        optimise();
        ASSERT_TRUE(list->keeper->work.rewritten);
    }
    const std::vector<uint32_t> in_order = {BASE + 3, BASE + 5, BASE + 7, BASE + 9};

    recordings card;
    kyt_handle* list = nullptr;
};

TEST_F(KytRefused, WhenMemoryIsFullTooClipsAreRefusedAndFoundAgainLater) {
    card_calls::fail("ftruncate", 1, ENOSPC, ALWAYS);
    constexpr uint32_t ROOM = IN_FIRST_STEP + IN_MEMORY;
    for (uint32_t i = 0; i < ROOM; ++i) {
        ASSERT_EQ(write(BASE + i), 0) << i;
    }
    const std::string refused = "err kyt: no room in the list for " + std::to_string(BASE + ROOM) + " and later ones";
    for (uint32_t i = ROOM; i < ROOM + 3; ++i) {
        card.add_clip(BASE + i);
        EXPECT_EQ(write(BASE + i), -1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(kyt_get(list, BASE + i), nullptr);
    }
    EXPECT_TRUE(logged::has(refused.c_str()));
    EXPECT_EQ(logged::count_beginning("err kyt: no room"), 1) << "said once";
    EXPECT_EQ(kyt_count(list), ROOM);
    EXPECT_EQ(kyt_get(list, BASE + ROOM - 1)->ts, BASE + ROOM - 1);

    card_calls::reset();
    ASSERT_TRUE(await([&] { return list->keeper->files[0].capacity > 1'000'000U; }));
    EXPECT_EQ(write(BASE + ROOM + 10), 0);
    optimise();
    optimise();
    EXPECT_EQ(kyt_count(list), ROOM + 4);
    EXPECT_NE(kyt_get(list, BASE + ROOM + 2), nullptr);

    // The next time is news again.
    card_calls::fail("ftruncate", 1, ENOSPC, ALWAYS);
    uint32_t next = BASE + ROOM + 11;
    while (write(next) == 0) {
        ++next;
    }
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(logged::count_beginning("err kyt: no room"), 2);
}

TEST_F(KytRefused, RecordsThatAreStillInMemoryAtTheEndAreMissedInTheLog) {
    card_calls::fail("ftruncate", 1, ENOSPC, ALWAYS);
    for (uint32_t i = 0; i < IN_FIRST_STEP + 100; ++i) {
        ASSERT_EQ(write(BASE + i), 0);
    }
    card.add_clip(BASE + IN_FIRST_STEP + 99);
    ASSERT_TRUE(await([] { return logged::has("warning kyt: the list cannot grow: No space left on device"); }));
    card_calls::fail("pwrite", 1, ENOSPC, ALWAYS);
    reopen();
    EXPECT_EQ(logged::count("err kyt: the card has no room for the newest records"), 1);
    EXPECT_EQ(logged::count("err kyt: the list is not closed in order: No space left on device"), 1);
    EXPECT_EQ(kyt_count(list), IN_FIRST_STEP + 1) << "what was in the file, and the clip that is on the card";
}

TEST_F(KytRefused, ACloseThatTheCardRefusesIsSaidAndCostsAComparison) {
    for (const char* call : {"fdatasync", "pwrite"}) {
        SCOPED_TRACE(call);
        ASSERT_TRUE(write(BASE) == 0 || errno == EEXIST);
        card_calls::fail(call, 1, EIO, ALWAYS);
        logged::reset();
        reopen();
        EXPECT_EQ(logged::count(NOT_IN_ORDER), 1);
        EXPECT_TRUE(logged::has("info kyt: the list was not closed: 1 records now, of them 0 from the folder"))
            << testing::PrintToString(logged::lines());
        EXPECT_EQ(all_ts(list), std::vector<uint32_t>{BASE});
    }
}

TEST_F(KytRefused, ARewrittenListThatDoesNotReachTheCardIsNotTheList) {
    prepare_rewriting();
    card_calls::fail("fdatasync", 1, EIO, ALWAYS);
    ASSERT_EQ(kyt_optimise(list), 0);
    EXPECT_EQ(all_ts(list), in_order) << "here it is in use already";
    reopen();
    EXPECT_EQ(logged::count("err kyt: the rewritten list is not on the card: changes since then may be lost"), 1);
    EXPECT_EQ(all_ts(list), in_order);
}

TEST_F(KytRefused, BehindARewritingThatFailedTheOldListIsNotCalledClosed) {
    prepare_rewriting();
    card_calls::fail("fdatasync", 1, EIO, ALWAYS);
    ASSERT_EQ(kyt_optimise(list), 0);
    ASSERT_TRUE(await([&] { return list->keeper->redirty.load(); }));
    card_calls::reset();
    kyt::keeper_close(list->keeper, {});
    list->keeper = nullptr;
    kyt::region_unmap(&list->map);
    reopen();
    EXPECT_TRUE(
        logged::has("info kyt: the list was not closed, its records were out of order: 4 records now, of them 0 "
                    "from the folder"))
        << "what it lacks is looked for in the folder: " << testing::PrintToString(logged::lines());
}

TEST_F(KytRefused, WhatTheCardRefusedBehindTheLoopsLastLookIsWrittenOnceMore) {
    ASSERT_EQ(write(BASE), 0);
    list->keeper->redirty = true;
    const int before = card_calls::count("pwrite");
    kyt::keeper_close(list->keeper, {});
    EXPECT_EQ(card_calls::count("pwrite"), before + 2) << "the page of records, and the header";
    list->keeper = nullptr;
    kyt::region_unmap(&list->map);
    reopen();
    EXPECT_EQ(all_ts(list), std::vector<uint32_t>{BASE});

    list->keeper->redirty = true;
    card_calls::fail("pread", 1, EIO);
    kyt::keeper_close(list->keeper, {});
    EXPECT_EQ(logged::count(NOT_IN_ORDER), 1);
    list->keeper = nullptr;
    kyt::region_unmap(&list->map);
    reopen();
    EXPECT_TRUE(logged::has("info kyt: the list was not closed: 1 records now, of them 0 from the folder"));
}

TEST_F(KytRefused, ARewrittenListThatCannotBeMappedIsNotUsed) {
    prepare_rewriting();
    int& fd = list->keeper->files[1].fd;
    close(fd);
    fd = -1;
    ASSERT_EQ(kyt_optimise(list), 0);
    EXPECT_EQ(list->file, 0);
    EXPECT_TRUE(await([&] { return list->keeper->at == kyt::phase::IDLE; }))
        << "it is dropped, and the next job may begin";
    EXPECT_EQ(all_ts(list), in_order);
    reopen();
    EXPECT_EQ(all_ts(list), in_order);
}

TEST_F(KytRefused, AnOldListThatCannotBeRemovedIsRemovedByTheNextOpening) {
    prepare_rewriting();
    card_calls::fail("unlink", 1, EIO);
    optimise();
    EXPECT_EQ(logged::count("warning kyt: the old list stays: Input/output error"), 1);
    EXPECT_EQ(card.files(), (std::set<std::string>{"KYT_A.LST", "KYT_B.LST"}));
    reopen();
    EXPECT_EQ(card.files(), std::set<std::string>{"KYT_B.LST"});
    EXPECT_EQ(all_ts(list), in_order);
}

}  // namespace
