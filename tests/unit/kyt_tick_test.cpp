// The keeper's tick, by the test's own clock on a keeper without a thread: when and how it flushes and grows. And how
// its thread begins and ends.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "handle.h"
#include "record.h"
#include "support/log.h"
#include "support/recordings.h"

using kyt::MAX_BYTES;
using kyt::SPARE_RECORDS;
using kyt::STEP_BYTES;

namespace {

constexpr uint32_t BASE = 1'790'000'000;

// The C library, as each test wants it.
struct library {
    std::string failing;  // this call fails
    int errnum = EIO;
    std::atomic<int32_t> now_ms{-1};            // -1: the real clock
    std::function<void(const char* call)> see;  // each call before it happens
    std::vector<std::string> calls;             // while there is no other thread
    bool noting = false;
    void* window = nullptr;
    void reset() {
        failing.clear();
        errnum = EIO;
        now_ms = -1;
        see = nullptr;
        calls.clear();
        noting = false;
        window = nullptr;
    }
} libc;

bool fails(const char* call) {
    if (libc.see) {
        libc.see(call);
    }
    if (libc.noting) {
        libc.calls.emplace_back(call);
    }
    if (libc.failing != call) {
        return false;
    }
    errno = libc.errnum;
    return true;
}

}  // namespace

extern "C" {

int __real_clock_gettime(clockid_t, timespec*);
int __real_fdatasync(int);
int __real_ftruncate64(int, off64_t);
void* __real_mmap64(void*, size_t, int, int, int, off64_t);
int __real_munmap(void*, size_t);
int __real_eventfd(unsigned, int);
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    const int32_t now = libc.now_ms;
    if (clock != CLOCK_MONOTONIC || now < 0) {
        return __real_clock_gettime(clock, time);
    }
    *time = {static_cast<time_t>(now / 1000), static_cast<long>(now % 1000) * 1000000};
    return 0;
}
int __wrap_fdatasync(int fd) {
    return fails("all") ? -1 : __real_fdatasync(fd);
}
int __wrap_sync_file_range(int fd, off64_t offset, off64_t size, unsigned flags) {
    struct stat status = {};
    EXPECT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(size, 0) << "to the end";
    EXPECT_EQ(flags, unsigned{SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER});
    return fails("pages") ? -1 : 0;
}
int __wrap_ftruncate64(int fd, off64_t size) {
    return fails("grow") ? -1 : __real_ftruncate64(fd, size);
}
void* __wrap_mmap64(void* address, size_t size, int protection, int flags, int fd, off64_t offset) {
    if (fd < 0 || address) {
        return __real_mmap64(address, size, protection, flags, fd, offset);
    }
    if (fails("look")) {
        return MAP_FAILED;
    }
    libc.window = __real_mmap64(address, size, protection, flags, fd, offset);
    return libc.window;
}
int __wrap_munmap(void* address, size_t size) {
    if (address == libc.window && size == STEP_BYTES) {
        (void)fails("look away");
    }
    return __real_munmap(address, size);
}
int __wrap_mlock(const void* address, size_t size) {
    if (address == libc.window && size == STEP_BYTES) {
        (void)fails("lock");
    }
    return 0;
}
int __wrap_eventfd(unsigned count, int flags) {
    return fails("eventfd") ? -1 : __real_eventfd(count, flags);
}
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* context) {
    return fails("thread") ? libc.errnum : __real_pthread_create(thread, attributes, run, context);
}

}  // extern "C"

namespace {

using calls = std::vector<std::string>;

template <typename Condition>
bool await(Condition condition) {
    for (int waited_ms = 0; waited_ms < 10'000; waited_ms += 2) {
        if (condition()) {
            return true;
        }
        poll(nullptr, 0, 2);
    }
    return condition();
}

struct KytTick : testing::Test {
    void SetUp() override {
        logged::reset();
        libc.reset();
        card.set_bytes("KYT_A.LST", std::string(STEP_BYTES, '\0'));
        k.folder = folder;
        k.files[0].fd = openat(folder, "KYT_A.LST", O_RDWR | O_CLOEXEC);
        ASSERT_GE(k.files[0].fd, 0);
        k.files[0].capacity = k.mapped = STEP_BYTES;
        k.last_flush_ms = 1'000'000;
        libc.now_ms = 1'000'000;
        libc.noting = true;
    }
    ~KytTick() override {
        libc.reset();
        if (k.window) {
            munmap(k.window, STEP_BYTES);
        }
        close(k.files[0].fd);
        close(folder);
    }
    KytTick() = default;
    KytTick(const KytTick&) = delete;
    KytTick& operator=(const KytTick&) = delete;

    // What a tick does so long after the last one.
    calls tick(int after_ms) {
        libc.now_ms += after_ms;
        libc.calls.clear();
        kyt::keeper_tick(&k);
        return libc.calls;
    }
    off_t file_size() const {
        struct stat status = {};
        EXPECT_EQ(fstat(k.files[0].fd, &status), 0);
        return status.st_size;
    }

    recordings card;
    int folder = open(card.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    kyt::keeper k;
};

// --- flushing ----------------------------------------------------------------------------------------------------

TEST_F(KytTick, AFlushFollowsTheOneBeforeAfterNineTenthsOfASecond) {
    EXPECT_EQ(tick(899), calls{});
    EXPECT_EQ(tick(1), calls{"pages"});
    EXPECT_EQ(tick(1), calls{});
    EXPECT_EQ(tick(898), calls{});
    EXPECT_EQ(tick(2), calls{"pages"});
}

TEST_F(KytTick, TheTimeIsCountedFromTheBeginningOfAFlush) {
    libc.see = [](const char*) { libc.now_ms += 700; };  // a slow card
    EXPECT_EQ(tick(1000), calls{"pages"});
    EXPECT_EQ(tick(100), calls{});
    EXPECT_EQ(tick(100), calls{"pages"});
}

TEST_F(KytTick, AChangeIsSynchronisedTwiceAndThenNoMore) {
    for (int change = 0; change < 3; ++change) {
        ++k.changes;
        EXPECT_EQ(tick(1000), calls{"all"});
        EXPECT_EQ(tick(1000), calls{"all"});
        EXPECT_EQ(tick(1000), calls{"pages"});
        EXPECT_EQ(tick(1000), calls{"pages"});
    }
    // One that comes between the two has two of its own.
    ++k.changes;
    EXPECT_EQ(tick(1000), calls{"all"});
    ++k.changes;
    EXPECT_EQ(tick(1000), calls{"all"});
    EXPECT_EQ(tick(1000), calls{"all"});
    EXPECT_EQ(tick(1000), calls{"pages"});
}

TEST_F(KytTick, WhereSinglePagesCannotBeWrittenAllIs) {
    libc.failing = "pages";
    for (const int errnum : {ENOSYS, EINVAL, ESPIPE}) {
        libc.errnum = errnum;
        EXPECT_EQ(tick(1000), (calls{"pages", "all"})) << errnum;
    }
    EXPECT_FALSE(k.redirty);
    // These are the card's: the pages are lost unless they are made dirty again.
    for (const int errnum : {EIO, ENOSPC, EROFS}) {
        libc.errnum = errnum;
        k.flush_due = 0;
        EXPECT_EQ(tick(1000), calls{"pages"}) << errnum;
        EXPECT_TRUE(k.redirty.exchange(false)) << errnum;
    }
}

TEST_F(KytTick, ACardThatRefusesIsToldOfOnceAndSoIsItsReturn) {
    const std::string refused = "err kyt: the card does not take the list: Input/output error";
    const std::string taken = "info kyt: no further error from the card";
    ++k.changes;
    libc.failing = "all";
    EXPECT_EQ(tick(1000), calls{"all"});
    EXPECT_EQ(tick(1000), calls{"all"});
    EXPECT_EQ(tick(1000), calls{"all"});
    EXPECT_EQ(logged::lines(), (calls{refused}));
    EXPECT_TRUE(k.redirty);
    libc.failing.clear();
    EXPECT_EQ(tick(1000), calls{"all"});
    EXPECT_EQ(tick(1000), calls{"all"});
    EXPECT_EQ(tick(1000), calls{"pages"});
    EXPECT_EQ(logged::lines(), (calls{refused, taken}));
    libc.failing = "pages";
    EXPECT_EQ(tick(1000), calls{"pages"});
    EXPECT_EQ(logged::lines(), (calls{refused, taken, refused}));
}

TEST_F(KytTick, AnAbandonedKeeperSaysNothingOfItsCard) {
    libc.failing = "pages";
    libc.see = [&](const char*) { k.end = kyt::ending::ABANDON; };
    EXPECT_EQ(tick(1000), calls{"pages"});
    EXPECT_TRUE(logged::lines().empty());
    EXPECT_EQ(tick(1000), calls{});
}

// --- growing -----------------------------------------------------------------------------------------------------

TEST_F(KytTick, AFileGrowsAheadOfNeedAndItsPagesAreKeptUntilTheLoopHasThem) {
    const uint32_t enough = kyt::slots_in(STEP_BYTES) - SPARE_RECORDS;
    k.files[0].used = enough;
    EXPECT_EQ(tick(1), calls{});
    k.files[0].used = enough + 1;
    EXPECT_EQ(tick(1), (calls{"grow", "look", "lock"}));
    EXPECT_EQ(k.files[0].capacity, 2 * STEP_BYTES);
    EXPECT_EQ(file_size(), off_t{2} * STEP_BYTES);
    EXPECT_EQ(tick(1), calls{});
    EXPECT_NE(k.window, nullptr);
    k.mapped = 2 * STEP_BYTES;
    EXPECT_EQ(tick(1), calls{"look away"});
    EXPECT_EQ(tick(1), calls{});
    // The file's new length is to be on the card as well.
    EXPECT_EQ(tick(1000), calls{"all"});
    EXPECT_EQ(tick(1000), calls{"all"});
    EXPECT_EQ(tick(1000), calls{"pages"});
}

TEST_F(KytTick, AFileGrowsByAsManyStepsAsAreNeeded) {
    k.files[0].used = kyt::slots_in(2 * STEP_BYTES);
    EXPECT_EQ(tick(1), (calls{"grow", "look", "lock", "grow", "look away", "look", "lock"}));
    EXPECT_EQ(k.files[0].capacity, 3 * STEP_BYTES);
    EXPECT_EQ(file_size(), off_t{3} * STEP_BYTES);
}

TEST_F(KytTick, AFileOfTheLargestSizeStaysSo) {
    k.files[0].capacity = k.mapped = MAX_BYTES - STEP_BYTES;
    k.files[0].used = kyt::MAX_RECORDS;
    EXPECT_EQ(tick(1), (calls{"grow", "look", "lock"}));
    EXPECT_EQ(k.files[0].capacity, MAX_BYTES);
    k.mapped = MAX_BYTES;
    EXPECT_EQ(tick(1), calls{"look away"});
    EXPECT_EQ(tick(1), calls{});
}

TEST_F(KytTick, WithoutRoomForGrowthItIsToldOnceAndTriedAtEachTick) {
    const std::string told = "warning kyt: the list cannot grow: No space left on device";
    k.files[0].used = kyt::slots_in(STEP_BYTES);
    libc.failing = "grow";
    libc.errnum = ENOSPC;
    EXPECT_EQ(tick(1), calls{"grow"});
    EXPECT_EQ(tick(1), calls{"grow"});
    EXPECT_EQ(logged::lines(), calls{told});
    EXPECT_EQ(k.files[0].capacity, STEP_BYTES);
    libc.failing.clear();
    EXPECT_EQ(tick(1), (calls{"grow", "look", "lock"}));
    k.files[0].used = kyt::slots_in(2 * STEP_BYTES);
    libc.failing = "grow";
    EXPECT_EQ(tick(1), calls{"grow"});
    EXPECT_EQ(logged::lines(), (calls{told, told}));
}

TEST_F(KytTick, AGrownFileCountsAlsoWhenItsPagesCannotBeLookedAt) {
    k.files[0].used = kyt::slots_in(STEP_BYTES);
    libc.failing = "look";
    EXPECT_EQ(tick(1), (calls{"grow", "look"}));
    EXPECT_EQ(k.files[0].capacity, 2 * STEP_BYTES);
    EXPECT_EQ(k.window, nullptr);
}

TEST_F(KytTick, AnAbandonedKeeperGrowsNothing) {
    k.files[0].used = kyt::slots_in(3 * STEP_BYTES);
    libc.see = [&](const char*) { k.end = kyt::ending::ABANDON; };
    EXPECT_EQ(tick(1), (calls{"grow", "look", "lock"}));
    EXPECT_EQ(tick(1), calls{});
}

// --- the thread --------------------------------------------------------------------------------------------------

struct KytThread : testing::Test {
    void SetUp() override {
        logged::reset();
        libc.reset();
    }
    void TearDown() override { libc.reset(); }
    static int next_descriptor() {
        const int fd = dup(STDERR_FILENO);
        close(fd);
        return fd;
    }
    recordings card;
};

TEST_F(KytThread, OneThatCannotBeStartedLeavesNothingBehind) {
    const int before = next_descriptor();
    for (const auto& [call, errnum] : {std::pair{"eventfd", EMFILE}, {"thread", EAGAIN}}) {
        libc.failing = call;
        libc.errnum = errnum;
        EXPECT_EQ(kyt::open_folder(card.path().c_str()), nullptr) << call;
        EXPECT_EQ(errno, errnum) << call;
        EXPECT_EQ(next_descriptor(), before) << call;
    }
}

TEST_F(KytThread, SignalsAreTheLoops) {
    std::atomic<int> open_signals = -1;
    const pthread_t loop = pthread_self();
    libc.see = [&](const char*) {
        if (pthread_equal(pthread_self(), loop) == 0) {
            sigset_t blocked;
            pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
            int found = 0;
            for (const int number : {SIGTERM, SIGINT, SIGCHLD, SIGBUS, SIGUSR1}) {
                found += sigismember(&blocked, number) != 0 ? 0 : 1;
            }
            open_signals = found;
        }
    };
    kyt_handle* const list = kyt::open_folder(card.path().c_str());
    ASSERT_NE(list, nullptr);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "in the loop";
    kyt_close(list);
    EXPECT_EQ(open_signals, 0);
}

TEST_F(KytThread, WhoEndsLastClosesWhatBothUse) {
    std::atomic<bool> stalled = false;
    std::atomic<bool> waiting = false;
    libc.see = [&](const char*) {
        waiting = stalled.load();
        while (stalled) {
            poll(nullptr, 0, 1);
        }
    };
    kyt_handle* const list = kyt::open_folder(card.path().c_str());
    ASSERT_NE(list, nullptr);
    const int wake = list->keeper->wake;
    stalled = true;
    ASSERT_TRUE(await([&] { return waiting.load(); }));
    kyt_close_dirty(list);
    EXPECT_NE(fcntl(wake, F_GETFD), -1) << "the thread is still there";
    stalled = false;
    EXPECT_TRUE(await([&] { return fcntl(wake, F_GETFD) == -1; }));
}

TEST_F(KytThread, AfterANewListThatIsNotWantedTheNextJobCanBegin) {
    kyt_handle* const list = kyt::open_folder(card.path().c_str());
    ASSERT_NE(list, nullptr);
    for (const uint32_t second : {5, 3}) {
        const kyt_record record = kyt::live_record(BASE + second, 60, 0);
        ASSERT_EQ(kyt_write(list, &record), 0);
    }
    kyt::keeper* const k = list->keeper;
    ASSERT_EQ(kyt_optimise(list), 0);
    ASSERT_TRUE(await([&] { return k->at == kyt::phase::DONE; }));
    ASSERT_TRUE(k->work.rewritten);
    k->at = kyt::phase::DISCARD;  // as the loop says when it has no room for the new list
    kyt::keeper_wake(k);
    EXPECT_TRUE(await([&] { return k->at == kyt::phase::IDLE; }));
    EXPECT_EQ(card.files(), std::set<std::string>{"KYT_A.LST"});
    EXPECT_EQ(kyt_optimise(list), 0);
    EXPECT_TRUE(await([&] { return k->at == kyt::phase::DONE; }));
    EXPECT_TRUE(k->work.rewritten);
    kyt_close(list);
    EXPECT_EQ(card.files(), std::set<std::string>{"KYT_A.LST"}) << "nobody had taken the new one";
}

}  // namespace
