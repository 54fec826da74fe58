// Opening when the card, the machine or another program refuses something.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/kyt_file_rig.h"

namespace {

using namespace kyt_rig;
using libc_calls::called;
using libc_calls::FOREVER;
using testing::PrintToString;

PROMISES("kyt", "Opening");

struct KytRefused : file_rig {
    std::string zeros() const { return std::string(whole.size(), '\0'); }
};

TEST_F(KytRefused, AFolderThatIsNotThere) {
    PROMISE("there is no folder, or a file in its place", "no list, ENOENT or ENOTDIR");
    const std::string aside = card.path() + "2";
    std::filesystem::rename(card.path(), aside);
    expect_refused(ENOENT);
    std::ofstream(card.path()).flush();
    expect_refused(ENOTDIR);
    std::filesystem::remove(card.path());
    std::filesystem::rename(aside, card.path());
}

TEST_F(KytRefused, AWriteProtectedCardIsRefusedAndLeftAlone) {
    PROMISE("the card is write-protected", "no list, EROFS, and nothing on it has changed");
    for (const std::string& bytes : {whole, left_open(), zeros()}) {
        put(bytes);
        libc_calls::before("openat", [](const called& c) { return libc_calls::opens_for_writing(c) ? EROFS : 0; });
        for (const char* call : {"pwrite", "ftruncate", "renameat", "unlinkat"}) {
            libc_calls::before(call, [](const called&) { return EROFS; });
        }
        expect_refused(EROFS);
        EXPECT_TRUE(card.bytes(LIST) == bytes);
        EXPECT_EQ(card.files(), std::set<std::string>{LIST});
        libc_calls::reset();
    }
}

TEST_F(KytRefused, WhatSaysNothingOfTheFileSetsNothingAside) {
    PROMISE("an open fails for want of descriptors or memory, for a signal, a date or a right",
            "the list is opened all the same, or it is not opened with that reason; nothing is set aside");
    for (const int errnum : {EMFILE, ENFILE, EINTR, EOVERFLOW, EACCES, ENOMEM, EPERM, EBUSY}) {
        for (const char* call : {"open", "openat", "fstat", "fstatat", "lseek", "fdopendir", "readdir", "pread"}) {
            if (std::string_view(call) == "pread" && errnum != EINTR) {
                continue;  // the card's own answer
            }
            for (int nth = 1; nth < 20; ++nth) {
                put(left_open());
                libc_calls::fail(call, nth, errnum);
                list = opened();
                EXPECT_TRUE(list || errno == errnum) << call << nth << std::strerror(errno);
                const bool happened = libc_calls::failed();
                libc_calls::stop_failing();
                close();
                EXPECT_EQ(card.files(), std::set<std::string>{LIST}) << call << nth << std::strerror(errnum);
                if (!happened) {
                    break;
                }
                open();
                EXPECT_EQ(kyt_count(list), CLIPS);
                EXPECT_EQ(kyt_get(list, ts_of(0))->flags, 1);
                close();
            }
        }
    }
}

TEST_F(KytRefused, AFilesDateIsNotLookedAt) {
    PROMISE("the list or a folder has a date past 2038, which the C library's fstat refuses",
            "it is opened like every other");
    for (const char* call : {"fstat", "fstatat"}) {
        libc_calls::fail(call, 1, EOVERFLOW, FOREVER);
    }
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    EXPECT_TRUE(logged::lines().empty());
    left_open();
    for (const char* call : {"fstat", "fstatat"}) {
        libc_calls::fail(call, 1, EOVERFLOW, FOREVER);
    }
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    put(zeros());
    card.set_bytes(ASIDE, "an earlier one");
    EXPECT_EQ(marks_after_opening(), 0U);
    EXPECT_TRUE(card.bytes(ASIDE) == "an earlier one");
    EXPECT_TRUE(card.bytes("KYT_BAD1.LST") == zeros());
    kyt_health health = {};
    EXPECT_EQ(kyt_check(card.path().c_str(), &health), 0);
    EXPECT_EQ(health.records, CLIPS);
}

TEST_F(KytRefused, AnOpenWithoutDescriptorsSaysSo) {
    PROMISE("descriptors run out during the opening", "no list, EMFILE, and none is left open");
    const int next = dup(STDERR_FILENO);
    ::close(next);
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const size_t before = open_descriptors();
    int refused = 0;
    for (rlimit low = {static_cast<rlim_t>(next), limit.rlim_max}; !list; ++low.rlim_cur) {
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
        list = opened();
        const int failure = errno;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        if (!list) {
            ++refused;
            EXPECT_EQ(failure, EMFILE);
            EXPECT_EQ(open_descriptors(), before) << refused;
        }
    }
    EXPECT_GE(refused, 3);  // the folder, the list, the keeper's own
    EXPECT_EQ(card.files(), std::set<std::string>{LIST});
}

TEST_F(KytRefused, PagesThatTheCardDoesNotGive) {
    PROMISE("the card does not give a page",
            "the clips of that page come from the folder, the other marks are kept, "
            "and the file is set aside with its bad page");
    for (const int64_t bad : {int64_t{0}, int64_t{4096}, int64_t{8192}}) {
        put(whole);
        libc_calls::before("pread", [&](const called& c) {
            return libc_calls::file_of(c.fd) == LIST && c.offset / 4096 * 4096 <= bad &&
                           bad < c.offset + static_cast<int64_t>(c.size)
                       ? EIO
                       : 0;
        });
        open();
        EXPECT_EQ(kyt_count(list), CLIPS);
        const uint32_t marked = static_cast<uint32_t>(bad == 4096 ? 513 : 0);
        EXPECT_EQ(kyt_get(list, ts_of(marked))->flags, 1) << bad;
        EXPECT_TRUE(logged::has_part("KYT.LST has parts that cannot be read")) << PrintToString(logged::lines());
        EXPECT_TRUE(logged::has_part("KYT.LST is set aside as KYT_BAD0.LST"));
        EXPECT_TRUE(logged::has_part("marks may be lost"));
        close();
        EXPECT_TRUE(card.bytes(ASIDE) == whole);
    }
}

TEST_F(KytRefused, AFileOfUnreadablePagesTakesNotLong) {
    PROMISE("the card gives no page of a file of 8 MiB",
            "not every page is tried, and the list is made from the folder");
    put(whole);
    std::filesystem::resize_file(card.file(LIST), kyt::MAX_BYTES);
    int tried = 0;
    libc_calls::before("pread", [&](const called& c) {
        const bool is_list = libc_calls::file_of(c.fd).starts_with("KYT");
        tried += is_list ? 1 : 0;
        return is_list ? EIO : 0;
    });
    open();
    EXPECT_EQ(kyt_count(list), CLIPS);
    EXPECT_GT(tried, 0);
    EXPECT_LE(tried, 100) << "a card's driver may try each for seconds";
    close();
    EXPECT_TRUE(card.has(ASIDE));
}

TEST_F(KytRefused, AFullCardStillHasItsList) {
    PROMISE("the card is full", "the list is used as it is, what a repair changes included");
    open();
    remove(ts_of(5));
    ASSERT_TRUE(kyt::settle(list));
    close_dirty();
    card.remove_clip(ts_of(5));
    libc_calls::fail("ftruncate", 1, ENOSPC, FOREVER);
    libc_calls::fail("pwrite", 1, ENOSPC, FOREVER);
    open();
    EXPECT_EQ(kyt_count(list), CLIPS - 1);
    EXPECT_TRUE(logged::has("info kyt: the list was not closed: 699 records now, of them 0 from the folder"));
    close_dirty();
    libc_calls::reset();
    // A clip whose files are still there is back, when the log says so.
    put(with_record(whole, 6, kyt::deleted_record(record_at(whole, 6))));
    libc_calls::fail("ftruncate", 1, ENOSPC, FOREVER);
    list = opened();
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(logged::has_part("1 deleted clips are still on the card and back in the list, the first is " +
                                 std::to_string(ts_of(6))));
    EXPECT_NE(kyt_get(list, ts_of(6)), nullptr);
    EXPECT_EQ(kyt_get(list, ts_of(6))->flags, 1);
}

TEST_F(KytRefused, OnAFullCardWhatWasSetAsideMakesRoomOldestFirst) {
    PROMISE("a new list finds no room on the card",
            "files that were set aside go, the oldest first and no more than needed, and the log names each");
    PROMISE("there is no room for the list even then", "no list, ENOSPC, and the log says so");
    for (const char* call : {"ftruncate", "pwrite"}) {
        for (int times = 0; times <= 3; ++times) {
            put(zeros());
            card.set_bytes(ASIDE, "older");
            card.set_bytes("KYT_BAD1.LST", "younger");
            libc_calls::fail(call, 1, ENOSPC, times);
            EXPECT_EQ(marks_after_opening(), 0U);
            for (int number = 0; number < 3; ++number) {
                const std::string name = "KYT_BAD" + std::to_string(number) + ".LST";
                EXPECT_EQ(card.has(name), times <= number) << call << times;
                EXPECT_EQ(logged::has_part(name + " is removed to make room"), times > number) << call << times;
            }
            libc_calls::reset();
        }
    }
    put(zeros());
    libc_calls::fail("ftruncate", 1, ENOSPC, FOREVER);
    expect_refused(ENOSPC);
    EXPECT_TRUE(logged::has_part("no list is in use: No space left on device")) << PrintToString(logged::lines());
    libc_calls::reset();
    logged::reset();
    EXPECT_EQ(marks_after_opening(), 0U);
}

TEST_F(KytRefused, AFileThatCannotBeSetAsideIsNotOverwritten) {
    PROMISE("a file cannot be set aside", "no list; the log says so, and the file stays as it is");
    const std::string newer = with_header(whole, [](kyt::list_header* h) { h->version = 2; });
    put(newer);
    libc_calls::fail("renameat", 1, EIO, FOREVER);
    const size_t descriptors = open_descriptors();
    EXPECT_EQ(opened(), nullptr);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(logged::has_part("KYT.LST cannot be set aside: Input/output error"));
    EXPECT_TRUE(logged::has_part("no list is in use"));
    EXPECT_TRUE(card.bytes(LIST) == newer);
}

TEST_F(KytRefused, AFolderThatCannotBeReadInFull) {
    PROMISE(
        "hours of the folder cannot be read at an opening",
        "the log says how many and why; what the list has of them stays, and what was deleted in them stays deleted");
    const std::string broken_hour = std::filesystem::path(card.clip(ts_of(0))).parent_path().filename();
    std::string bytes = with_record(whole, 1, kyt::deleted_record(record_at(whole, 1)));  // in that hour
    bytes.replace(4096 + 512 * 10, 32, std::string(32, 'x'));                             // and damage elsewhere
    put(bytes);
    libc_calls::before("openat", [&](const called& c) { return c.name == broken_hour ? EIO : 0; });
    open();
    EXPECT_TRUE(logged::has_part("1 hours of the folder cannot be read: Input/output error"));
    EXPECT_EQ(kyt_count(list), CLIPS - 1);
    EXPECT_EQ(kyt_get(list, ts_of(1)), nullptr);
    close();
    libc_calls::reset();
    open();
    EXPECT_NE(kyt_get(list, ts_of(1)), nullptr);
    EXPECT_EQ(kyt_count(list), CLIPS);
    close();
    put(left_open());
    libc_calls::fail("fdopendir", 1, EIO);
    open();
    EXPECT_TRUE(logged::has_part("the recordings folder cannot be read: Input/output error"));
    EXPECT_EQ(kyt_count(list), CLIPS);
}

TEST_F(KytRefused, EveryCallThatCanFailMayFailDuringTheOpen) {
    PROMISE("any one call to the card fails during the opening",
            "the list has all clips or says that the folder could not be read; the next opening has all");
    const std::string open_list = left_open();
    const auto try_with = [&](const std::string& state, const char* calls, int nth, int errnum) {
        card.remove_files();
        if (!state.empty()) {
            put(state);
        }
        logged::reset();
        libc_calls::fail(calls, nth, errnum);
        list = opened();
        const bool happened = libc_calls::failed();
        libc_calls::stop_failing();
        if (list) {
            EXPECT_TRUE(kyt_count(list) == CLIPS || logged::has_part("folder cannot be read")) << calls << nth;
            close_dirty();
        }
        EXPECT_TRUE(await([&] { return (list = opened()) != nullptr || errno != EBUSY; }));
        EXPECT_EQ(kyt_count(list), CLIPS) << calls << nth << std::strerror(errno);
        close_dirty();
        return happened;
    };
    for (const int errnum : {EIO, ENOSPC}) {
        for (const std::string& state : {whole, open_list, zeros(), of_other_order(whole), std::string()}) {
            for (int nth = 1; nth < 30 && try_with(state, libc_calls::CARD, nth, errnum); ++nth) {
            }  // then it reads names, very many
            for (int nth = 1; try_with(state, libc_calls::WRITES, nth, errnum) && nth < 100; ++nth) {
            }
        }
    }
}

TEST_F(KytRefused, TheThreadCannotBeStarted) {
    PROMISE("the thread beside the loop, its wake-up or memory cannot be had",
            "the opening fails with that reason and leaves nothing behind, the list's file included");
    for (const char* call : {"pthread_create", "eventfd", "mmap"}) {
        for (int nth = 1, happened = 1; happened != 0; ++nth) {
            put(whole);
            libc_calls::fail(call, nth, EAGAIN);
            const size_t descriptors = open_descriptors();
            errno = 0;
            list = opened();
            happened = libc_calls::failed() ? 1 : 0;
            EXPECT_EQ(list == nullptr, happened != 0) << call << nth;
            if (!list) {
                EXPECT_TRUE(errno == EAGAIN || errno == ENOMEM) << std::strerror(errno);
                EXPECT_EQ(open_descriptors(), descriptors) << call;
            }
            libc_calls::stop_failing();
            close();
            EXPECT_EQ(marks_after_opening(), ALL_MARKS);
        }
    }
}

TEST_F(KytRefused, ShortReadsAndWritesGoOn) {
    PROMISE("a read or write is cut short or interrupted", "it goes on; one that moves nothing for no reason fails");
    libc_calls::set_most_at_once(100);
    libc_calls::fail("pread", 7, EINTR, 3);
    libc_calls::fail("pwrite", 2, EINTR, 3);
    put(of_other_order(whole));
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    EXPECT_TRUE(libc_calls::failed());
    EXPECT_TRUE(card.bytes(LIST) == whole);
    put(zeros());
    libc_calls::set_most_at_once(0);
    list = opened();
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(errno, EIO);
}

}  // namespace
