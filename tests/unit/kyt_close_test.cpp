// The end of a session: a clean one, one that the card refuses, one without a card; and who may write to the file then.
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/kyt_file_rig.h"

namespace {

using namespace kyt_rig;
using libc_calls::called;
using libc_calls::FOREVER;
using testing::PrintToString;

PROMISES("kyt", "Closing, and a card that is gone");

struct KytClose : file_rig {};

TEST_F(KytClose, ACleanEndIsSaidWhenAllIsOnTheCard) {
    PROMISE("a list is closed", "its records are synchronised before its header says so, which is synchronised too");
    open();
    std::atomic<int> unsynced = 0;
    std::atomic<int> sealed_too_early = 0;
    libc_calls::before("pwrite", [&](const called& c) {
        sealed_too_early += c.offset == 0 && unsynced > 0 ? 1 : 0;
        ++unsynced;
        return 0;
    });
    libc_calls::after("fdatasync",
                      [&](const called&, intptr_t result) { unsynced = result == 0 ? 0 : unsynced.load(); });
    add_many(ts_of(CLIPS), 1000);
    close();
    EXPECT_EQ(sealed_too_early, 0);
    EXPECT_EQ(unsynced, 0);
    const kyt::list_header header = header_of(card.bytes(LIST));
    EXPECT_TRUE(is_closed(card.bytes(LIST)));
    EXPECT_EQ(header.live, CLIPS + 1000);
    EXPECT_EQ(header.records, CLIPS + 1000);
}

TEST_F(KytClose, ACloseThatTheCardRefuses) {
    PROMISE("the card refuses the close", "it is said, and the next opening compares the list with the folder");
    for (const char* call : {"pwrite", "fdatasync"}) {
        for (int nth = 1; nth <= 2; ++nth) {
            put(whole);
            card.remove_clip(ts_of(CLIPS));
            open();
            ASSERT_TRUE(kyt::settle(list));
            kyt_get(list, ts_of(1))->flags = 1;
            libc_calls::fail(call, nth, EIO, FOREVER);
            close();
            EXPECT_TRUE(logged::has("err kyt: the list is not closed in order: Input/output error")) << call << nth;
            libc_calls::reset();
            // The header may have reached the card after all; then it is right.
            if (!is_closed(card.bytes(LIST))) {
                card.add_clip(ts_of(CLIPS));
                logged::reset();
                EXPECT_GE(marks_after_opening(CLIPS + 1), ALL_MARKS);
                EXPECT_TRUE(logged::has_part("the list was not closed"));
            }
        }
    }
}

TEST_F(KytClose, WhatWasRefusedBeforeIsWrittenBeforeTheClose) {
    PROMISE("the card refused something just before the close", "it is written again, or the list is not closed");
    open();
    libc_calls::fail("fdatasync", 1, EIO, 1);
    kyt_get(list, ts_of(1))->flags = 1;
    ASSERT_TRUE(await([] { return libc_calls::failed(); }));
    std::atomic<int> written = 0;
    libc_calls::before("pwrite", [&](const called& c) {
        written += c.offset == kyt::RECORDS_AT ? 1 : 0;
        return 0;
    });
    close();
    EXPECT_GE(written, 1);
    EXPECT_TRUE(is_closed(card.bytes(LIST)));
    EXPECT_EQ(marks_after_opening(), ALL_MARKS + 1);
}

TEST_F(KytClose, RecordsWithoutRoomAtTheEnd) {
    PROMISE("records still wait in memory at the close, and the card has no room",
            "it is said; clips whose files are on the card are found at the next opening");
    open();
    libc_calls::fail("ftruncate", 1, ENOSPC, FOREVER);
    add_many(BASE + 200'000, 20'000);
    card.add_clip(BASE + 200'000 + 15'000);
    close();
    EXPECT_TRUE(logged::has("err kyt: the list is not closed in order: No space left on device"))
        << PrintToString(logged::lines());
    libc_calls::reset();
    open();
    EXPECT_TRUE(logged::has_part("the list was not closed"));
    EXPECT_NE(kyt_get(list, BASE + 200'000 + 15'000), nullptr);
    EXPECT_EQ(kyt_get(list, ts_of(0))->flags, 1);
}

TEST_F(KytClose, ADirtyCloseWaitsForNothing) {
    PROMISE("a list of a vanished card is closed",
            "it waits for nothing; its descriptors go when the card answers, and no further call changes the card");
    const size_t before = open_descriptors();
    open();
    ASSERT_EQ(add(ts_of(CLIPS)), 0);
    libc_calls::hold(libc_calls::WRITES);
    ASSERT_TRUE(await([] { return libc_calls::held() > 0; }));
    ASSERT_EQ(kyt_optimise(list), 0);
    const int writes = libc_calls::count(libc_calls::WRITES);
    const int locks = libc_calls::count("fcntl") + libc_calls::count("flock");
    kyt_close_dirty(list);
    list = nullptr;
    EXPECT_EQ(libc_calls::held(), 1);
    EXPECT_GT(open_descriptors(), before);
    libc_calls::fail(libc_calls::CARD, 1, EIO, FOREVER);
    libc_calls::release();
    EXPECT_TRUE(await([&] { return open_descriptors() == before; }));
    EXPECT_LE(libc_calls::count(libc_calls::WRITES), writes + 1);
    EXPECT_EQ(libc_calls::count("fcntl") + libc_calls::count("flock"), locks);
    EXPECT_TRUE(logged::lines().empty()) << "of a card that is gone there is nothing to say";
}

TEST_F(KytClose, AnEndInTheMiddleOfEveryJob) {
    PROMISE("the session ends during any job beside the loop, cleanly or not", "the job ends, nothing stays open");
    const size_t before = open_descriptors();
    for (int round = 0; round < 40; ++round) {
        open();
        for (const uint32_t ts : {5U, 3U, 9U, 7U}) {
            ASSERT_EQ(add(ts_of(CLIPS) + ts + 10U * static_cast<uint32_t>(round)), 0);
        }
        ASSERT_EQ(kyt_optimise(list), 0);
        if (round % 4 >= 2) {
            await_comparison();
            ASSERT_EQ(kyt_optimise(list), 0);
        }
        for (int spin = 0; spin < round * 200; ++spin) {
            sched_yield();
        }
        if (round % 2 == 0) {
            close();
        } else {
            close_dirty();
        }
        ASSERT_TRUE(await([&] { return open_descriptors() == before; }));
    }
}

TEST_F(KytClose, ALateWriterNeverMeetsTheNextSession) {
    PROMISE("the thread of a vanished card's list is still about to write when the same file is opened again",
            "EBUSY until it has ended, at once; what is marked after that stays marked");
    open();
    ASSERT_TRUE(kyt::settle(list));
    libc_calls::hold("pwrite");
    ASSERT_EQ(add(ts_of(CLIPS)), 0);
    ASSERT_TRUE(await([] { return libc_calls::held() == 1; }));
    kyt_close_dirty(list);
    list = nullptr;
    card.add_clip(ts_of(CLIPS));
    for (int i = 0; i < 3; ++i) {
        const size_t descriptors = open_descriptors();
        EXPECT_EQ(opened(), nullptr);
        EXPECT_EQ(errno, EBUSY);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    EXPECT_EQ(kyt_repair(card.path().c_str()), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(logged::lines().empty()) << PrintToString(logged::lines());
    EXPECT_EQ(libc_calls::held(), 1) << "nobody has written";
    libc_calls::release();
    ASSERT_TRUE(await([&] { return (list = opened()) != nullptr; }));
    for (uint32_t i = CLIPS - 60; i <= CLIPS; ++i) {  // in its sectors
        kyt_get(list, ts_of(i))->flags = 1;
    }
    ASSERT_TRUE(kyt::settle(list));
    poll(nullptr, 0, 200);
    for (uint32_t i = CLIPS - 60; i <= CLIPS; ++i) {
        EXPECT_EQ(flags_on_card(ts_of(i)), 1);
    }
}

TEST_F(KytClose, OneWriter) {
    PROMISE("a list is open already, also one that was made just now",
            "another opening fails with EBUSY, tries the "
            "lock once and changes nothing; looks work");
    for (const bool is_new : {false, true}) {
        if (is_new) {
            std::filesystem::remove(card.file(LIST));
        }
        open();
        ASSERT_TRUE(kyt::settle(list));
        const std::string bytes = card.bytes(LIST);
        const int tried = libc_calls::count("fcntl");
        const int writes = libc_calls::count(libc_calls::WRITES);
        for (const bool by_tool : {false, true}) {
            errno = 0;
            EXPECT_TRUE(by_tool ? kyt_repair(card.path().c_str()) < 0 : opened() == nullptr);
            EXPECT_EQ(errno, EBUSY);
        }
        EXPECT_EQ(libc_calls::count("fcntl"), tried + 2);
        EXPECT_LE(libc_calls::count(libc_calls::WRITES), writes + 2);  // opened for writing, twice
        EXPECT_TRUE(card.bytes(LIST) == bytes);
        EXPECT_EQ(flags_on_card(ts_of(1)), 0);
        kyt_health health = {};
        EXPECT_EQ(kyt_check(card.path().c_str(), &health), 0);
        EXPECT_EQ(health.records, CLIPS);
        close();
    }
}

TEST_F(KytClose, KernelsAndFilesystemsWithoutSuchLocks) {
    PROMISE("the kernel has no locks of open files", "flock takes their place");
    PROMISE("the filesystem has no locks at all", "the list is opened");
    PROMISE("the lock is taken, however the kernel says so", "EBUSY");
    for (const int errnum : {EAGAIN, EACCES}) {
        libc_calls::fail("fcntl", 1, errnum);
        expect_refused(EBUSY);
    }
    libc_calls::fail("fcntl", 1, EINVAL, FOREVER);
    open();
    EXPECT_GT(libc_calls::count("flock"), 0);
    expect_refused(EBUSY);
    close();
    libc_calls::fail("flock", 1, EWOULDBLOCK);
    expect_refused(EBUSY);
    for (const int errnum : {ENOLCK, EOPNOTSUPP, ENOSYS}) {
        libc_calls::reset();
        libc_calls::fail("fcntl", 1, errnum == ENOSYS ? EINVAL : errnum, FOREVER);
        libc_calls::fail("flock", 1, errnum, FOREVER);
        EXPECT_EQ(marks_after_opening(), ALL_MARKS) << errnum;
    }
}

TEST_F(KytClose, AFolderThatVanishesUnderAnOpenList) {
    PROMISE("the folder vanishes under an open list", "every call works on, and so does the close");
    open();
    std::filesystem::remove_all(card.path());
    ASSERT_EQ(add(ts_of(CLIPS)), 0);
    optimise();
    remove(ts_of(3));
    optimise();
    EXPECT_EQ(kyt_count(list), CLIPS);
    EXPECT_EQ(all_ts(list).size(), CLIPS);
    close();
}

TEST_F(KytClose, AProcessThatDiesLosesNoClip) {
    PROMISE("the process dies", "the next opening has every clip, and the marks of more than two seconds ago");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        kyt_handle* const mine = opened();
        kyt_get(mine, ts_of(1))->flags = 1;
        const bool settled = kyt::settle(mine);
        kyt_get(mine, ts_of(2))->flags = 1;
        (void)!::write(ends[1], settled ? "y" : "n", 1);
        pause();
    }
    char answer = 0;
    ASSERT_EQ(read(ends[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    expect_refused(EBUSY);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_GE(marks_after_opening(), ALL_MARKS + 1);
    open();
    EXPECT_EQ(kyt_get(list, ts_of(1))->flags, 1);
}

}  // namespace
