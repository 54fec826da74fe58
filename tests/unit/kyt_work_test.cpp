// The keeper's two long jobs by themselves, on a keeper without a thread: what a comparison finds, what a rewriting
// leaves out, and what either leaves behind when the card, the memory or the session ends.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

#include "keeper.h"
#include "load.h"
#include "record.h"
#include "support/log.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t HOUR = 1'790'002'800;
constexpr uint32_t PERIOD = 3600;
constexpr uint32_t MOST = kyt::job::MAX_FOUND;
constexpr const char* OLD = "KYT_A.LST";
constexpr const char* NEW = "KYT_B.LST";

// The C library, as each test wants it.
struct {
    std::string failing;  // this call fails,
    int nth = 0;          // counted from 1 down,
    int errnum = 0;
    std::function<void(const std::string&)> see;  // each call before it happens
    std::vector<std::string> calls;
} libc;

bool fails(const char* call) {
    if (libc.see) {
        libc.see(call);
    }
    if (libc.failing != call || --libc.nth != 0) {
        return false;
    }
    errno = libc.errnum;
    return true;
}

bool fails_writing(const char* call) {
    libc.calls.emplace_back(call);
    return fails(call);
}

}  // namespace

extern "C" {

int __real_openat64(int, const char*, int, ...);
ssize_t __real_pread64(int, void*, size_t, off64_t);
ssize_t __real_pwrite64(int, const void*, size_t, off64_t);
int __real_ftruncate64(int, off64_t);
int __real_fdatasync(int);
int __real_fsync(int);
int __real_unlinkat(int, const char*, int);
void* __real_malloc(size_t);
void* __real_realloc(void*, size_t);

int __wrap_openat64(int folder, const char* name, int flags, ...) {
    return fails("open") ? -1 : __real_openat64(folder, name, flags, 0644);
}
ssize_t __wrap_pread64(int fd, void* data, size_t size, off64_t offset) {
    return fails("read") ? -1 : __real_pread64(fd, data, size, offset);
}
ssize_t __wrap_pwrite64(int fd, const void* data, size_t size, off64_t offset) {
    return fails_writing("write") ? -1 : __real_pwrite64(fd, data, size, offset);
}
int __wrap_ftruncate64(int fd, off64_t size) {
    return fails_writing("truncate") ? -1 : __real_ftruncate64(fd, size);
}
int __wrap_fdatasync(int fd) {
    return fails_writing("synchronise") ? -1 : __real_fdatasync(fd);
}
int __wrap_fsync(int fd) {
    return fails_writing("synchronise all") ? -1 : __real_fsync(fd);
}
int __wrap_unlinkat(int folder, const char* name, int flags) {
    return fails_writing("remove") ? -1 : __real_unlinkat(folder, name, flags);
}
void* __wrap_malloc(size_t size) {
    return libc.failing == "memory" && fails("memory") ? nullptr : __real_malloc(size);
}
void* __wrap_realloc(void* old, size_t size) {
    return libc.failing == "memory" && fails("memory") ? nullptr : __real_realloc(old, size);
}

}  // extern "C"

namespace {

kyt_record live(uint32_t ts) {
    return kyt::live_record(ts, 60, 0);
}
kyt_record deleted(uint32_t ts, uint8_t round) {
    return kyt::deleted_record(live(ts), round);
}

struct KytWork : testing::Test {
    void SetUp() override {
        libc = {};
        logged::reset();
        k.folder = folder;
        k.work.horizon = UINT32_MAX;
    }
    ~KytWork() override {
        libc = {};
        for (const kyt::kept_file& file : k.files) {
            if (file.fd >= 0) {
                close(file.fd);
            }
        }
        close(folder);
    }
    KytWork() = default;
    KytWork(const KytWork&) = delete;
    KytWork& operator=(const KytWork&) = delete;

    // A list with these slots, in use.
    void set_list(const std::vector<kyt_record>& slots) {
        libc.failing.clear();
        if (k.files[0].fd >= 0) {
            close(k.files[0].fd);
        }
        kyt::list_writer writer;
        ASSERT_EQ(kyt::writer_begin(&writer, folder, OLD, 7), 0);
        for (const kyt_record& record : slots) {
            ASSERT_EQ(kyt::writer_put(&writer, record), 0);
        }
        ASSERT_EQ(kyt::writer_end(&writer, false), 0);
        ASSERT_EQ(kyt::header_seal(writer.fd, 7, kyt::file_state::OPEN, 0), 0);
        k.files[0].fd = writer.fd;
        k.files[0].generation = 7;
        k.files[0].used = k.work.records = static_cast<uint32_t>(slots.size());
        k.files[0].capacity = kyt::file_bytes(k.files[0].used);
        libc.calls.clear();
    }
    void add_video(uint32_t ts) const {
        std::filesystem::create_directories(std::filesystem::path(card.clip(ts)).parent_path());
        const int fd = open((card.clip(ts) + ".mp4").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    // What lies in a file, live ones above 0, deleted ones below.
    std::vector<int64_t> in(const char* name) const {
        kyt::loaded l;
        kyt::load_file(folder, name, &l);
        EXPECT_EQ(l.failure, 0);
        std::vector<int64_t> found;
        for (const kyt_record& record : l.records) {
            found.push_back(kyt::is_live(record) ? int64_t{record.ts} : -int64_t{record.ts});
        }
        return found;
    }
    static std::vector<uint32_t> values(const kyt::array<uint32_t>& from) {
        std::vector<uint32_t> found(from.begin(), from.end());
        std::sort(found.begin(), found.end());
        return found;
    }
    void make_fail(const char* call, int nth, int errnum) const {
        libc.failing = call;
        libc.nth = nth;
        libc.errnum = errnum;
    }
    // The list is to be rewritten, with slots 1 and 3 as strays.
    void set_list_with_strays() {
        set_list({live(HOUR + 20), live(HOUR + 10), live(HOUR + 40), live(HOUR + 30), live(HOUR + 50)});
        k.work.rewrite = true;
        for (const uint32_t slot : {1U, 3U}) {
            ASSERT_TRUE(k.work.strays.push(slot));
            ASSERT_TRUE(k.work.runs.push(slot));
        }
    }

    recordings card;
    int folder = open(card.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    kyt::keeper k;
};

const std::vector<int64_t> IN_ORDER = {HOUR + 10, HOUR + 20, HOUR + 30, HOUR + 40, HOUR + 50};

// --- comparing ---------------------------------------------------------------------------------------------------

TEST_F(KytWork, ClipsAreComparedInHoweverManyHoursTheyLie) {
    std::vector<kyt_record> slots;
    std::vector<uint32_t> missing;
    std::vector<uint32_t> undead;
    for (uint32_t hour = 0; hour < 200; ++hour) {
        const uint32_t begin = HOUR + hour * PERIOD;
        for (const uint32_t ts : {begin, begin + PERIOD - 1}) {
            add_video(ts);
            switch ((hour + ts) % 3) {
                case 0:
                    slots.push_back(live(ts));
                    break;
                case 1:
                    slots.push_back(deleted(ts, 3));
                    undead.push_back(ts);
                    break;
                default:
                    missing.push_back(ts);
            }
        }
        slots.push_back(live(begin + 8));  // of no clip
        slots.push_back(deleted(begin + 16, 3));
        slots.push_back({begin, {1, 2}, 3, 4});  // of no record
    }
    set_list(slots);
    kyt::work_do(&k);
    EXPECT_TRUE(k.work.complete);
    EXPECT_EQ(values(k.work.missing), missing);
    EXPECT_EQ(values(k.work.undead), undead);
    kyt::work_do(&k);  // begins anew
    EXPECT_EQ(values(k.work.missing), missing);
    EXPECT_EQ(values(k.work.undead), undead);
    EXPECT_FALSE(k.work.rewritten);
}

TEST_F(KytWork, AClipThatMayStillBeAnnouncedIsNotMissing) {
    for (uint32_t hour = 0; hour < 3; ++hour) {
        add_video(HOUR + hour * PERIOD);
        add_video(HOUR + hour * PERIOD + 7);
    }
    set_list({deleted(HOUR + 2 * PERIOD + 7, 1)});
    k.work.horizon = HOUR + PERIOD;
    kyt::work_do(&k);
    EXPECT_EQ(values(k.work.missing), (std::vector<uint32_t>{HOUR, HOUR + 7}));
    // What is deleted will not be announced.
    EXPECT_EQ(values(k.work.undead), std::vector<uint32_t>{HOUR + 2 * PERIOD + 7});
}

TEST_F(KytWork, WhatAComparisonFindsIsBounded) {
    for (uint32_t clip = 0; clip < MOST + 1; ++clip) {
        add_video(HOUR + clip);
    }
    set_list({live(HOUR)});
    kyt::work_do(&k);
    EXPECT_EQ(k.work.missing.size, MOST);
    EXPECT_TRUE(k.work.complete);
    set_list({});
    kyt::work_do(&k);
    EXPECT_EQ(k.work.missing.size, MOST);
    EXPECT_TRUE(k.work.complete) << "the rest is found the next time";
    // Of deleted ones none may be overlooked: else its tombstone would be dropped.
    std::vector<kyt_record> slots = {live(HOUR)};
    for (uint32_t clip = 1; clip < MOST + 1; ++clip) {
        slots.push_back(deleted(HOUR + clip, 1));
    }
    set_list(slots);
    kyt::work_do(&k);
    EXPECT_EQ(k.work.undead.size, MOST);
    EXPECT_TRUE(k.work.complete);
    slots[0] = deleted(HOUR, 1);
    set_list(slots);
    kyt::work_do(&k);
    EXPECT_EQ(k.work.undead.size, MOST);
    EXPECT_FALSE(k.work.complete);
}

TEST_F(KytWork, AComparisonIsCompleteOnlyWhenAllCouldBeRead) {
    add_video(HOUR);
    add_video(HOUR + PERIOD);
    set_list({deleted(HOUR, 1), deleted(HOUR + PERIOD, 1)});
    constexpr struct {
        const char* call;
        int nth;
        uint32_t found;
    } ROWS[] = {
        {"open", 1, 0},                      // the folder
        {"open", 2, 1},   {"open", 3, 1},    // an hour of it
        {"read", 1, 0},                      // the list: nothing is known to be deleted
        {"memory", 1, 0}, {"memory", 2, 0},  // the hours' names, the batch
    };
    for (const auto& row : ROWS) {
        make_fail(row.call, row.nth, strcmp(row.call, "memory") == 0 ? ENOMEM : EIO);
        kyt::work_do(&k);
        EXPECT_LE(libc.nth, 0) << row.call << row.nth;
        libc.failing.clear();
        EXPECT_FALSE(k.work.complete) << row.call << row.nth;
        EXPECT_EQ(k.work.undead.size, row.found) << row.call << row.nth;
    }
    kyt::work_do(&k);
    EXPECT_TRUE(k.work.complete);
    EXPECT_EQ(k.work.undead.size, 2U);
}

TEST_F(KytWork, RecordsThatTheFileDoesNotHaveYetAreNotWaitedFor) {
    add_video(HOUR);
    set_list({deleted(HOUR, 1)});
    k.files[0].used = 20'000;
    k.files[0].capacity = kyt::MAX_BYTES;  // nor does it grow
    kyt::work_do(&k);
    EXPECT_TRUE(k.work.complete);
    EXPECT_EQ(k.work.undead.size, 1U);
}

TEST_F(KytWork, SixtyFourHoursAreComparedInOnePassOverTheList) {
    set_list({live(HOUR)});
    uint32_t hours = 0;
    for (const auto& [wanted, passes] :
         {std::pair{0U, 0}, {1U, 1}, {63U, 1}, {64U, 1}, {65U, 2}, {128U, 2}, {129U, 3}}) {
        for (; hours < wanted; ++hours) {
            add_video(HOUR + hours * PERIOD);
        }
        int reads = 0;
        libc.see = [&](const std::string& call) { reads += call == "read" ? 1 : 0; };
        kyt::work_do(&k);
        libc.see = nullptr;
        EXPECT_EQ(reads, passes) << wanted;
        EXPECT_EQ(k.work.missing.size, wanted == 0 ? 0 : wanted - 1);
    }
}

TEST_F(KytWork, AComparisonStopsForAFlush) {
    set_list({live(HOUR)});
    add_video(HOUR);
    ++k.changes;
    kyt::work_do(&k);
    EXPECT_EQ(libc.calls, std::vector<std::string>{"synchronise"});
}

// --- rewriting ---------------------------------------------------------------------------------------------------

TEST_F(KytWork, AListIsRewrittenInOrder) {
    set_list_with_strays();
    kyt::work_do(&k);
    ASSERT_TRUE(k.work.rewritten);
    EXPECT_EQ(in(NEW), IN_ORDER);
    EXPECT_EQ(k.work.new_records, 5U);
    EXPECT_EQ(k.files[1].used, 5U);
    EXPECT_EQ(k.files[1].generation, 8U);
    EXPECT_EQ(k.files[1].capacity, std::filesystem::file_size(card.file(NEW)));
    EXPECT_EQ(k.work.strays.size, 0U);
    // It is not the list yet.
    EXPECT_EQ(k.list, 0);
    kyt::loaded files[2];
    ASSERT_TRUE(kyt::load_files(folder, &files));
    EXPECT_EQ(kyt::choose_list(files), 0);
}

TEST_F(KytWork, StraysBehindTheLastAndInFrontOfTheFirstOne) {
    set_list({live(HOUR + 50), live(HOUR + 10), live(HOUR + 20), live(HOUR + 40), live(HOUR + 30)});
    k.work.rewrite = true;
    for (const uint32_t slot : {1U, 2U, 4U, 3U}) {
        ASSERT_TRUE(k.work.strays.push(slot));
    }
    for (const uint32_t slot : {1U, 2U, 3U, 4U}) {
        ASSERT_TRUE(k.work.runs.push(slot));
    }
    kyt::work_do(&k);
    EXPECT_EQ(in(NEW), IN_ORDER);
}

TEST_F(KytWork, OnlyTombstonesOfEarlierRoundsAreLeftOut) {
    const std::vector<kyt_record> slots = {deleted(HOUR, 255),    deleted(HOUR + 1, 1), deleted(HOUR + 2, 2),
                                           deleted(HOUR + 3, 3),  live(HOUR + 4),       {HOUR + 5, {1, 2}, 3, 4},
                                           deleted(HOUR + 6, 130)};
    set_list(slots);
    k.work.rewrite = true;
    k.work.may_drop = true;
    k.work.drop_round = 2;  // rounds count modulo 256: 255 is before it, and 130 is as far behind as can be told
    kyt::work_do(&k);
    EXPECT_EQ(in(NEW), (std::vector<int64_t>{-int64_t{HOUR + 2}, -int64_t{HOUR + 3}, HOUR + 4}));
    kyt::work_discard(&k);
    k.work.may_drop = false;
    kyt::work_do(&k);
    EXPECT_EQ(in(NEW).size(), 6U);
}

TEST_F(KytWork, ALongListGoesToTheCardInPieces) {
    std::vector<kyt_record> slots;
    for (uint32_t clip = 0; clip < 20'000; ++clip) {
        slots.push_back(live(HOUR + clip));
    }
    set_list(slots);
    k.work.rewrite = true;
    k.last_flush_ms = UINT64_MAX / 2;  // no flush of the old list among them
    kyt::work_do(&k);
    ASSERT_TRUE(k.work.rewritten);
    EXPECT_EQ(in(NEW).size(), slots.size());
    EXPECT_EQ(std::count(libc.calls.begin(), libc.calls.end(), "synchronise"), 2);
    kyt::work_discard(&k);
    make_fail("synchronise", 2, EIO);
    kyt::work_do(&k);
    EXPECT_FALSE(k.work.rewritten);
    EXPECT_FALSE(card.has(NEW));
}

TEST_F(KytWork, ARewritingThatFailsAnywhereLeavesNothingBehind) {
    for (const char* call : {"open", "read", "write", "truncate", "synchronise all"}) {
        for (int nth = 1;; ++nth) {
            set_list_with_strays();
            logged::reset();
            make_fail(call, nth, EIO);
            kyt::work_do(&k);
            if (libc.nth > 0) {
                EXPECT_TRUE(k.work.rewritten);
                EXPECT_GE(nth, 2) << call;
                kyt::work_discard(&k);
                break;
            }
            libc.failing.clear();
            EXPECT_FALSE(card.has(NEW) && !k.work.rewritten) << call << nth;
            if (!k.work.rewritten) {
                EXPECT_EQ(k.files[1].fd, -1);
                EXPECT_EQ(logged::lines(),
                          std::vector<std::string>{"warning kyt: the list could not be rewritten: Input/output error"});
            }
            EXPECT_EQ(in(OLD).size(), 5U);
            kyt::work_discard(&k);
        }
    }
}

// The end of the session in front of each call: nothing more is said, and only a list that is whole is kept.
TEST_F(KytWork, AnEndOfTheSessionEndsTheWork) {
    for (const kyt::ending end : {kyt::ending::CLOSE, kyt::ending::ABANDON}) {
        for (int nth = 1;; ++nth) {
            k.end = kyt::ending::NONE;
            add_video(HOUR + 60);
            add_video(HOUR + PERIOD);
            set_list_with_strays();
            const int before = fcntl(folder, F_DUPFD_CLOEXEC, 3);
            close(before);
            int calls = 0;
            libc.see = [&](const std::string&) {
                if (++calls == nth) {
                    k.end = end;
                }
            };
            kyt::work_do(&k);
            libc.see = nullptr;
            EXPECT_TRUE(logged::lines().empty());
            if (k.work.rewritten) {
                EXPECT_EQ(in(NEW), IN_ORDER);
                kyt::work_discard(&k);
            } else if (end == kyt::ending::CLOSE) {
                EXPECT_FALSE(card.has(NEW)) << nth;
            } else {
                std::filesystem::remove(card.file(NEW));  // no call may wait for the card any more
            }
            const int after = fcntl(folder, F_DUPFD_CLOEXEC, 3);
            close(after);
            EXPECT_EQ(after, before) << nth;
            if (calls < nth) {
                EXPECT_GT(nth, 10);
                break;
            }
        }
    }
}

TEST_F(KytWork, AfterItsAbandonmentTheFilesAreLeftAlone) {
    set_list_with_strays();
    libc.see = [&](const std::string& call) { k.end = call == "write" ? kyt::ending::ABANDON : k.end.load(); };
    kyt::work_do(&k);
    EXPECT_FALSE(k.work.rewritten);
    EXPECT_TRUE(card.has(NEW));
    EXPECT_EQ(std::count(libc.calls.begin(), libc.calls.end(), "remove"), 1) << "the leftover, before";
}

// --- the new list becomes the list ---------------------------------------------------------------------------------

TEST_F(KytWork, TheNewListIsOnTheCardBeforeItIsTheListAndTheOldOneGoesLast) {
    set_list_with_strays();
    kyt::work_do(&k);
    const int old_fd = k.files[0].fd;
    libc.calls.clear();
    ASSERT_TRUE(kyt::work_commit(&k));
    EXPECT_EQ(libc.calls, (std::vector<std::string>{"synchronise", "synchronise", "write", "synchronise", "remove",
                                                    "synchronise all"}));
    EXPECT_TRUE(logged::lines().empty());
    EXPECT_EQ(k.list, 1);
    EXPECT_EQ(k.files[0].fd, -1);
    EXPECT_EQ(fcntl(old_fd, F_GETFD), -1);
    EXPECT_EQ(card.files(), std::set<std::string>{NEW});
    EXPECT_EQ(in(NEW), IN_ORDER);
    // And back under the first name.
    k.work.rewrite = true;
    kyt::work_do(&k);
    ASSERT_TRUE(kyt::work_commit(&k));
    EXPECT_EQ(card.files(), std::set<std::string>{OLD});
    EXPECT_EQ(k.files[0].generation, 9U);
}

TEST_F(KytWork, ACardThatRefusesTheNewListKeepsTheOldOne) {
    constexpr struct {
        const char* call;
        int nth;
    } ROWS[] = {{"synchronise", 2}, {"write", 1}, {"synchronise", 3}};
    set_list_with_strays();
    kyt::work_do(&k);
    for (const auto& row : ROWS) {
        make_fail(row.call, row.nth, EIO);
        EXPECT_FALSE(kyt::work_commit(&k)) << row.call;
        EXPECT_EQ(k.list, 0);
        EXPECT_EQ(in(OLD).size(), 5U);
        EXPECT_EQ(in(NEW), IN_ORDER);
        k.redirty = false;
    }
    // The kernel takes for written what was refused, so it is the loop's turn first: it makes the pages dirty again.
    make_fail("synchronise", 2, EIO);
    EXPECT_FALSE(kyt::work_commit(&k));
    EXPECT_TRUE(k.redirty);
    EXPECT_FALSE(kyt::work_commit(&k));
    EXPECT_EQ(k.list, 0);
    k.redirty = false;
    // Tried again; that the old one does not take its last changes is no reason: the new one has them.
    make_fail("synchronise", 1, EIO);
    EXPECT_TRUE(kyt::work_commit(&k));
    EXPECT_EQ(card.files(), std::set<std::string>{NEW});
}

TEST_F(KytWork, AnOldListThatStaysIsOutdated) {
    set_list_with_strays();
    kyt::work_do(&k);
    make_fail("remove", 1, EROFS);
    EXPECT_TRUE(kyt::work_commit(&k));
    EXPECT_TRUE(logged::has("warning kyt: the old list stays: Read-only file system"));
    EXPECT_EQ(card.files(), (std::set<std::string>{OLD, NEW}));
    kyt::loaded files[2];
    ASSERT_TRUE(kyt::load_files(folder, &files));
    EXPECT_EQ(kyt::choose_list(files), 1);
    EXPECT_EQ(files[1].head.state, static_cast<uint32_t>(kyt::file_state::OPEN));
}

TEST_F(KytWork, AnAbandonedKeeperMakesNoListTheList) {
    set_list_with_strays();
    kyt::work_do(&k);
    for (int nth = 1; nth <= 4; ++nth) {
        int calls = 0;
        libc.see = [&](const std::string&) { k.end = ++calls == nth ? kyt::ending::ABANDON : k.end.load(); };
        EXPECT_FALSE(kyt::work_commit(&k)) << nth;
        EXPECT_LE(calls, nth == 3 ? 4 : nth) << "the header and its way to the card are one step";
        EXPECT_TRUE(card.has(OLD));
        EXPECT_EQ(k.list, 0);
        libc.see = nullptr;
        k.end = kyt::ending::NONE;
    }
}

TEST_F(KytWork, ANewListThatIsNotWantedIsRemoved) {
    set_list_with_strays();
    kyt::work_do(&k);
    const int fd = k.files[1].fd;
    kyt::work_discard(&k);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(k.files[1].fd, -1);
    EXPECT_EQ(card.files(), std::set<std::string>{OLD});
    // Where there is none, nothing is removed.
    card.set_bytes(NEW, "of somebody else");
    kyt::work_discard(&k);
    EXPECT_TRUE(card.has(NEW));
}

}  // namespace
