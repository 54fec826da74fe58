// The deletion list and its threads. The threads are real; the test holds them at their calls, so that every
// interleaving that matters is made and none is waited for.
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>

#include "support/promise.h"
#include "support/records_rig.h"

namespace {

constexpr char STARTS[] = "err del_list_thread_num = ";
constexpr char FIVE_RUN[] = "err  5 del_list thread alerady running\n";

// Where a worker can be held: at a call of its own. Everything below `lock` is guarded by it.
std::mutex lock;
auto& changed = *new std::condition_variable;  // never destroyed: that would wait for those who wait on it
int workers;                                   // alive
int locks_taken;                               // by workers, since the last reset
std::set<int> held_at;                         // the calls of workers' pthread_mutex_lock, counted from 1, that wait
std::multiset<int> held;                       // those that are waiting
int held_unlinks;                              // workers that wait in unlink
bool hold_unlinks;
int create_errno;        // not 0: pthread_create fails with it
bool postpone_creation;  // pthread_create only remembers
void* (*postponed)(void*) = nullptr;
ev_async* async;
pthread_mutex_t* the_locks[2];  // the module's own, in the order in which they were made
int destroyed;
int detached;  // counted by the test's own thread
thread_local bool is_worker = false;

// Polls nothing: waits for a state of the above. A deadline, because a test that hangs says nothing.
template <typename Condition>
void await(const char* what, Condition condition) {
    std::unique_lock guard(lock);
    if (!changed.wait_for(guard, std::chrono::seconds(30), condition)) {
        fprintf(stderr, "not within 30 s: %s\n", what);
        abort();
    }
}

void set(void (*change)()) {
    const std::lock_guard guard(lock);
    change();
    changed.notify_all();
}

void* worker_body(void* body) {
    is_worker = true;
    void* (*real)(void*) = nullptr;
    static_assert(sizeof real == sizeof body);
    memcpy(&real, &body, sizeof real);
    EXPECT_EQ(nullptr, real(nullptr));
    const std::lock_guard guard(lock);
    --workers;
    changed.notify_all();
    return nullptr;
}

}  // namespace

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
    EXPECT_EQ(nullptr, attributes);
    EXPECT_EQ(nullptr, argument);
    {
        const std::lock_guard guard(lock);
        if (create_errno != 0) {
            return create_errno;
        }
        ++workers;
        if (postpone_creation) {
            postponed = body;
            return __real_pthread_create(
                thread, attributes, [](void*) -> void* { return nullptr; }, nullptr);
        }
    }
    void* opaque = nullptr;
    memcpy(&opaque, &body, sizeof body);
    return __real_pthread_create(thread, attributes, worker_body, opaque);
}

int __real_pthread_detach(pthread_t);
int __wrap_pthread_detach(pthread_t thread) {
    ++detached;
    return __real_pthread_detach(thread);
}

int __real_pthread_mutex_lock(pthread_mutex_t*);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (is_worker && (mutex == the_locks[0] || mutex == the_locks[1])) {  // stand-ins have locks of their own
        is_worker = false;
        std::unique_lock guard(lock);
        const int number = ++locks_taken;
        if (held_at.count(number) != 0) {
            held.insert(number);
            changed.notify_all();
            changed.wait(guard, [number] { return held_at.count(number) == 0; });
        }
        is_worker = true;
    }
    return __real_pthread_mutex_lock(mutex);
}

int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    EXPECT_EQ(nullptr, attributes);
    the_locks[0] = the_locks[1];
    the_locks[1] = mutex;
    return __real_pthread_mutex_init(mutex, attributes);
}

int __real_pthread_mutex_destroy(pthread_mutex_t*);
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    ++destroyed;
    return __real_pthread_mutex_destroy(mutex);
}

void __real_ev_async_start(struct ev_loop*, ev_async*);
void __wrap_ev_async_start(struct ev_loop* loop, ev_async* watcher) {
    async = watcher;
    __real_ev_async_start(loop, watcher);
}

}  // extern "C"

namespace {

class records_del_list : public rig::test {
  protected:
    void SetUp() override {
        {
            const std::lock_guard guard(lock);
            locks_taken = held_unlinks = create_errno = 0;
            held_at.clear();
            held.clear();
            hold_unlinks = postpone_creation = false;
        }
        rig::test::SetUp();
        record_dir_open();
        kernel::on().before = [](const char* call, const char*) {
            if (!is_worker || std::string(call) != "unlink") {
                return;
            }
            is_worker = false;
            {
                std::unique_lock guard(lock);
                ++held_unlinks;
                changed.notify_all();
                changed.wait(guard, [] { return !hold_unlinks; });
                --held_unlinks;
            }
            is_worker = true;
        };
        logged::reset();
        kernel::forget_calls();
    }
    void TearDown() override {
        release();
        await_workers();
        rig::test::TearDown();
    }

    static void release() {
        set([] {
            held_at.clear();
            hold_unlinks = false;
        });
    }
    static void await_workers() {
        await("the workers' end", [] { return workers == 0; });
    }
    static void await_held_at(int number) {
        await("a worker at its lock", [number] { return held.count(number) != 0; });
    }
    static void let_go(int number) {
        const std::lock_guard guard(lock);
        held_at.erase(number);
        changed.notify_all();
    }

    static del_list_entry* batch_of(const std::vector<uint32_t>& times) {
        del_list_entry* batch = records_del_begin(static_cast<uint32_t>(times.size()));
        EXPECT_EQ(times.size(), batch->count);
        for (size_t i = 0; i < times.size(); ++i) {
            batch->ts[i] = times[i];
        }
        return batch;
    }
    static void commit(const std::vector<uint32_t>& times) { EXPECT_EQ(0, records_del_commit(batch_of(times))); }
    static void make(uint32_t ts, uint8_t flags = 0) {
        rig::add(ts, flags);
        rig::make_clip(ts);
    }
    static bool has_files(uint32_t ts) {
        return kernel::exists(rig::clip(ts) + ".mp4") || kernel::exists(rig::clip(ts) + ".jpeg");
    }
    static std::string ended(int files) {
        return "err del_list file_count = " + std::to_string(files) + "=========================\n";
    }
    static int unlinks(uint32_t ts) { return kernel::count("unlink " + rig::clip(ts) + ".mp4"); }
};

using records_del_list_death = records_del_list;

// --- batches ---------------------------------------------------------------------------------------------------------

PROMISES("records", "The deletion list");

TEST_F(records_del_list, a_batch_has_room_for_its_timestamps) {
    PROMISE("a batch is made", "it has room for its timestamps and knows their number, 0 included");
    del_list_entry* batch = records_del_begin(3);
    ASSERT_NE(nullptr, batch);
    EXPECT_EQ(3U, batch->count);
    batch->ts[2] = 1;
    free(batch);
    batch = records_del_begin(0);
    ASSERT_NE(nullptr, batch);
    free(batch);
}

TEST_F(records_del_list, no_batch_without_memory) {
    PROMISE("memory is short, or the batch is larger than all memory", "there is no batch");
    rig::malloc_to_fail = 1;
    EXPECT_EQ(nullptr, records_del_begin(1));
    if (sizeof(size_t) == 4) {
        EXPECT_EQ(nullptr, records_del_begin(UINT32_MAX)) << "more bytes than there are addresses";
        EXPECT_EQ(nullptr, records_del_begin((UINT32_MAX / 4) - 1));
    }
}

// --- deleting --------------------------------------------------------------------------------------------------------

TEST_F(records_del_list, the_index_forgets_at_once_and_the_files_go_later) {
    PROMISE("a batch is committed", "its clips leave the index at once, protected ones too; their files go later");
    PROMISE("a worker finds the list empty",
            "\"del_list file_count = %d=========================\n\" with the clips that it handled, and it gives its "
            "place back");
    make(101);
    make(102, KYT_PERSISTENT);
    make(103);
    set([] { hold_unlinks = true; });
    commit({101, 102});
    EXPECT_EQ(strings{"103"}, rig::live()) << "protected ones are not spared";
    EXPECT_TRUE(has_files(101));
    EXPECT_TRUE(has_files(102));
    release();
    await_workers();
    EXPECT_FALSE(has_files(101));
    EXPECT_FALSE(has_files(102));
    EXPECT_TRUE(has_files(103));
    EXPECT_TRUE(logged::has("err del_list_thread_num = 1\n"));
    EXPECT_TRUE(logged::has(ended(2)));
    EXPECT_EQ(logged::lines().front(), "err del_list_thread_num = 1\n");
    EXPECT_EQ(logged::lines().back(), ended(2));
}

// After a bus fault that was survived the loop thread has the signal blocked, and its threads begin like it. A fault in
// one of them is to end the process with the dump.
TEST_F(records_del_list, a_worker_has_bus_faults_delivered) {
    PROMISE("the loop thread has SIGBUS blocked after a recovery",
            "the threads that remove files unblock it for themselves");
    make(101);
    std::atomic<int> is_blocked = -1;
    const auto hold = kernel::on().before;
    kernel::on().before = [&is_blocked](const char* call, const char*) {
        if (strcmp(call, "unlink") == 0) {
            sigset_t mask;
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            is_blocked = sigismember(&mask, SIGBUS);
        }
    };
    sigset_t bus_fault;
    sigemptyset(&bus_fault);
    sigaddset(&bus_fault, SIGBUS);
    pthread_sigmask(SIG_BLOCK, &bus_fault, nullptr);
    commit({101});
    await_workers();
    sigset_t own;
    pthread_sigmask(SIG_UNBLOCK, &bus_fault, &own);
    EXPECT_EQ(0, is_blocked);
    EXPECT_EQ(1, sigismember(&own, SIGBUS)) << "the loop thread's mask stays";
    kernel::on().before = hold;
    EXPECT_FALSE(has_files(101));
}

TEST_F(records_del_list, what_the_index_does_not_have_is_left_alone) {
    PROMISE("a timestamp is 0, not in the index, or there twice", "no file is touched for it");
    rig::make_clip(101);  // a file without a record
    make(102);
    commit({0, 101, 102, 102});
    await_workers();
    EXPECT_TRUE(has_files(101));
    EXPECT_FALSE(has_files(102));
    EXPECT_EQ(1, unlinks(102)) << "the second time it is not in the index any more";
    EXPECT_TRUE(logged::has(ended(1)));
}

TEST_F(records_del_list, a_worker_asks_the_library_for_paths_and_nothing_else) {
    PROMISE("a worker is at work",
            "it asks the list library for paths, with its whole buffer of 4096 bytes, and for nothing else");
    make(101);
    rig::add(102);
    rig::get().calls.clear();
    commit({101, 0, 102});
    await_workers();
    EXPECT_EQ((strings{"kyt_mark_deleted 101", "kyt_mark_deleted 102", "kyt_ts2path 4096", "kyt_ts2path 4096"}),
              rig::get().calls);
}

TEST_F(records_del_list, a_batch_of_strangers_starts_a_worker_that_removes_nothing) {
    PROMISE("nothing in a batch is in the index, or the batch is empty",
            "a worker starts all the same, removes nothing, and says so with 0");
    for (const std::vector<uint32_t>& times : {std::vector<uint32_t>{7, 8, 9}, std::vector<uint32_t>{}}) {
        logged::reset();
        commit(times);
        await_workers();
        EXPECT_EQ((strings{"err del_list_thread_num = 1\n", ended(0)}), logged::lines());
    }
    EXPECT_EQ(0, kernel::count("unlink"));
}

TEST_F(records_del_list, closed_index) {
    PROMISE("the index is closed", "-1 without a line; the batch is neither queued nor freed");
    make(101);
    record_dir_close(0);
    logged::reset();
    del_list_entry* batch = batch_of({101});
    EXPECT_EQ(-1, records_del_commit(batch));
    EXPECT_EQ(101U, batch->ts[0]) << "still the caller's";
    free(batch);
    EXPECT_EQ(strings{}, logged::lines());
    EXPECT_TRUE(has_files(101));
    record_dir_open();
    commit({});
    await_workers();
    EXPECT_TRUE(has_files(101)) << "nor was it queued";
}

TEST_F(records_del_list, a_path_that_cannot_be_formed_and_files_that_are_gone_do_not_stop_it) {
    PROMISE("a path cannot be formed, or files are gone", "the worker goes on");
    rig::add(101);
    make(102);
    commit({101, 102});
    await_workers();
    EXPECT_FALSE(has_files(102));
    EXPECT_TRUE(logged::has(ended(2)));

    make(103);
    rig::get().ts2path_errno = EINVAL;
    commit({103});
    await_workers();
    EXPECT_TRUE(has_files(103));
    EXPECT_TRUE(logged::has(ended(1)));
}

TEST_F(records_del_list, a_card_that_goes_meanwhile) {
    PROMISE("the card goes while batches wait", "they are worked off all the same, and fail");
    make(101);
    make(102);
    set([] { hold_unlinks = true; });
    commit({101, 102});
    record_dir_close(1);
    kernel::fail("unlink", EIO, 1, kernel::FOREVER);
    release();
    await_workers();
    EXPECT_TRUE(logged::has(ended(2)));
    EXPECT_EQ(1, unlinks(101));
    EXPECT_EQ(1, unlinks(102)) << "it went on";
}

// --- workers ---------------------------------------------------------------------------------------------------------

TEST_F(records_del_list, five_at_once_and_the_sixth_batch_waits_for_one_of_them) {
    PROMISE("a batch comes while fewer than five workers run",
            "\"del_list_thread_num = %d\n\" with the new number, and a detached worker");
    PROMISE("a sixth comes", "\" 5 del_list thread alerady running\n\", and a running worker takes it");
    PROMISE("a worker finds the list empty",
            "\"del_list file_count = %d=========================\n\" with the clips that it handled, and it gives its "
            "place back");
    set([] { hold_unlinks = true; });
    detached = 0;
    for (uint32_t i = 1; i <= 6; ++i) {
        make(i * 100);
        commit({i * 100});
        if (i <= 5) {
            EXPECT_TRUE(logged::has(STARTS + std::to_string(i) + "\n"));
            await("a worker in unlink", [i] { return held_unlinks == static_cast<int>(i); });
        }
    }
    EXPECT_EQ(1, logged::count(FIVE_RUN));
    EXPECT_EQ(5, workers);
    EXPECT_EQ(5, detached) << "nobody waits for their end";
    EXPECT_EQ(strings{}, rig::live());
    release();
    await_workers();
    int processed = 0;
    for (uint32_t i = 1; i <= 6; ++i) {
        EXPECT_FALSE(has_files(i * 100));
    }
    for (int files = 0; files <= 6; ++files) {
        processed += files * logged::count(ended(files));
    }
    EXPECT_EQ(6, processed);

    logged::reset();
    commit({});
    await_workers();
    EXPECT_TRUE(logged::has("err del_list_thread_num = 1\n")) << "each gave its place back";
}

TEST_F(records_del_list, a_batch_that_comes_while_the_last_worker_leaves_is_not_forgotten) {
    PROMISE("a sixth comes when all five are about to leave", "one of them takes it");
    // Five workers have found the list empty and are about to say so, when the sixth batch is queued.
    set([] { held_at = {2, 4, 6, 8, 10}; });  // each locks the list once, to take its batch, and the count at its end
    for (uint32_t i = 1; i <= 5; ++i) {
        make(i * 100);
        commit({i * 100});
        await_held_at(static_cast<int>(2 * i));
    }
    make(600);
    commit({600});
    EXPECT_EQ(1, logged::count(FIVE_RUN));
    release();
    await_workers();
    EXPECT_FALSE(has_files(600));
}

TEST_F(records_del_list, two_workers_that_read_the_same_head) {
    PROMISE("two workers read the same head of the list",
            "one takes it, the other the next or none; no batch is worked off or freed twice");
    // Both stand before the lock with the first batch in their hands.
    set([] { held_at = {1, 2}; });
    make(101);
    make(201);
    commit({101});
    await_held_at(1);
    commit({201});
    await_held_at(2);
    // The first one takes it, removes its files and frees it; the other one's pointer leads to freed memory then.
    {
        const std::lock_guard guard(lock);
        hold_unlinks = true;
    }
    let_go(1);
    await("the first worker in unlink", [] { return held_unlinks == 1; });
    set([] { hold_unlinks = false; });
    await("the first worker's next lock", [] { return locks_taken >= 3; });
    let_go(2);
    await_workers();
    EXPECT_FALSE(has_files(101));
    EXPECT_FALSE(has_files(201));
    EXPECT_EQ(1, unlinks(101));
    EXPECT_EQ(1, unlinks(201));
}

TEST_F(records_del_list, the_second_of_two_finds_nothing_left) {
    PROMISE("two workers read the same head of the list",
            "one takes it, the other the next or none; no batch is worked off or freed twice");
    set([] { held_at = {1, 2}; });
    make(101);
    commit({101});
    await_held_at(1);
    commit({});
    await_held_at(2);
    let_go(1);
    await("one worker's end", [] { return workers == 1; });
    let_go(2);
    await_workers();
    EXPECT_EQ(1, unlinks(101));
    EXPECT_TRUE(logged::has(ended(1)));
    EXPECT_TRUE(logged::has(ended(0)));
}

TEST_F(records_del_list, many_batches_on_all_workers) {
    PROMISE("many batches run on all workers", "every file goes, once");
    for (uint32_t i = 1; i <= 200; ++i) {
        make(i * 10);
        make((i * 10) + 1);
        commit({i * 10, 7, (i * 10) + 1});
    }
    await_workers();
    EXPECT_EQ(strings{}, rig::live());
    for (uint32_t i = 1; i <= 200; ++i) {
        ASSERT_FALSE(has_files(i * 10));
        ASSERT_EQ(1, unlinks(i * 10));
        ASSERT_EQ(1, unlinks((i * 10) + 1));
    }
}

TEST_F(records_del_list, a_thread_that_cannot_be_created_takes_its_place_with_it) {
    PROMISE("a thread cannot be created", "\"pthread_create ret=%d\n\", its place is lost for good, the batch waits");
    EXPECT_EXIT(
        {
            make(101);
            create_errno = EAGAIN;
            for (int i = 1; i <= 6; ++i) {
                commit({101});
            }
            for (const auto& line : logged::lines()) {
                fprintf(stderr, "[%s]", line.c_str());
            }
            _exit(has_files(101) ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        "^\\[err del_list_thread_num = 1\n\\]\\[err pthread_create ret=11\n\\]"
        "\\[err del_list_thread_num = 2\n\\]\\[err pthread_create ret=11\n\\]"
        "\\[err del_list_thread_num = 3\n\\]\\[err pthread_create ret=11\n\\]"
        "\\[err del_list_thread_num = 4\n\\]\\[err pthread_create ret=11\n\\]"
        "\\[err del_list_thread_num = 5\n\\]\\[err pthread_create ret=11\n\\]"
        "\\[err  5 del_list thread alerady running\n\\]$");
}

TEST_F(records_del_list, a_count_below_zero_begins_anew) {
    PROMISE("the number of workers is below zero", "it begins at 1 again");
    EXPECT_EXIT(
        {
            postpone_creation = true;
            commit({});
            for (int i = 0; i < 3; ++i) {
                postponed(nullptr);  // ends more often than it was started
            }
            logged::reset();
            commit({});
            fputs(logged::lines().front().c_str(), stderr);
            _exit(0);
        },
        testing::ExitedWithCode(0), "^err del_list_thread_num = 1\n$");
}

TEST_F(records_del_list, batches_wait_for_the_next_worker_and_go_oldest_first) {
    PROMISE("batches wait without a worker", "the next worker takes them, the oldest first");
    EXPECT_EXIT(
        {
            for (uint32_t ts : {301U, 101U, 201U}) {
                make(ts);
            }
            create_errno = EAGAIN;
            commit({301});
            commit({101});
            create_errno = 0;
            commit({201});
            await_workers();
            std::string order;
            for (const auto& call : kernel::calls()) {
                if (call.starts_with("unlink") && call.ends_with(".mp4")) {
                    order += call.substr(call.size() - 7, 3) + " ";
                }
            }
            fputs(order.c_str(), stderr);
            _exit(0);
        },
        testing::ExitedWithCode(0), "^301 101 201 $");
}

// --- a broken list ---------------------------------------------------------------------------------------------------

TEST_F(records_del_list_death, a_worker_ends_the_process) {
    PROMISE("the list's links are broken",
            "the assertion's text with the place that is looked for, and an abort, in a worker and in the drain");
    EXPECT_EXIT(
        {
            postpone_creation = true;
            del_list_entry* batch = batch_of({});
            records_del_commit(batch);
            batch->prev = nullptr;
            postponed(nullptr);
        },
        testing::KilledBySignal(SIGABRT),
        "daemon/records:501: thread_Del_list_File: Assertion `\\(l\\)->prev != \\(\\(void \\*\\)0\\)' failed\\.");
}

TEST_F(records_del_list_death, the_drain_ends_the_process) {
    PROMISE("the list's links are broken",
            "the assertion's text with the place that is looked for, and an abort, in a worker and in the drain");
    EXPECT_EXIT(
        {
            create_errno = EAGAIN;
            del_list_entry* batch = batch_of({});
            records_del_commit(batch);
            batch->prev = nullptr;
            ev_invoke(EV_DEFAULT, async, EV_ASYNC);
        },
        testing::KilledBySignal(SIGABRT),
        "daemon/records:585: on_async_del: Assertion `\\(l\\)->prev != \\(\\(void \\*\\)0\\)' failed\\.");
}

// --- the drain on the loop -------------------------------------------------------------------------------------------

TEST_F(records_del_list, the_drain_runs_when_it_is_signalled) {
    PROMISE("the drain on the loop is signalled",
            "it works off everything without counting; unsignalled it never runs");
    EXPECT_EXIT(
        {
            for (uint32_t ts : {101U, 102U, 201U}) {
                make(ts);
            }
            create_errno = EAGAIN;
            commit({101, 102});
            commit({201});
            logged::reset();
            ev_run(EV_DEFAULT, EVRUN_NOWAIT);
            if (!has_files(101)) {
                _exit(1);  // nobody asked for it yet
            }
            ev_async_send(EV_DEFAULT, async);
            ev_run(EV_DEFAULT, EVRUN_NOWAIT);
            const bool is_counted = logged::count(ended(3)) + logged::count(ended(2)) > 0;
            _exit(has_files(101) || has_files(102) || has_files(201) || is_counted ? 2 : 0);
        },
        testing::ExitedWithCode(0), "");
}

// --- the end ---------------------------------------------------------------------------------------------------------

PROMISES("records", "Start and stop");

TEST_F(records_del_list, the_locks_go_with_the_last_worker_only) {
    PROMISE("the recordings stop", "the list is closed in order, the folder too, and both locks are destroyed");
    PROMISE("the recordings stop while a worker is deleting",
            "nobody waits for the worker, and its locks stay until it no longer needs them");
    destroyed = 0;
    records_exit();
    EXPECT_EQ(2, destroyed);
    records_init();
    record_dir_open();

    make(101);
    set([] { hold_unlinks = true; });
    commit({101});
    await("a worker in unlink", [] { return held_unlinks == 1; });
    destroyed = 0;
    records_exit();
    EXPECT_EQ(0, destroyed) << "it still needs them";
    release();
    await_workers();
    EXPECT_FALSE(has_files(101));
    EXPECT_TRUE(logged::has(ended(1)));
}

TEST_F(records_del_list, the_process_may_end_while_a_worker_is_at_work) {
    PROMISE("the recordings stop while a worker is deleting",
            "nobody waits for the worker, and its locks stay until it no longer needs them");
    EXPECT_EXIT(
        {
            make(101);
            hold_unlinks = true;
            commit({101});
            await("a worker in unlink", [] { return held_unlinks == 1; });
            records_exit();
            exit(0);
        },
        testing::ExitedWithCode(0), "^$");
}

// --- protecting ------------------------------------------------------------------------------------------------------

PROMISES("records", "The deletion list");

TEST_F(records_del_list, marking) {
    PROMISE("a clip is marked",
            "its lowest flag is set beside the others, nothing is written; marking again changes nothing");
    PROMISE("a clip is marked that is not in the index, or the index is closed", "-1 with ENOENT, or with EINVAL");
    rig::add(101, 0x10);
    rig::add(102);
    rig::get().calls.clear();
    EXPECT_EQ(0, records_mark_persistent(101));
    EXPECT_EQ(0x11, rig::get().list.records[101].flags);
    EXPECT_EQ(0, records_mark_persistent(101));
    EXPECT_EQ(0x11, rig::get().list.records[101].flags);
    EXPECT_EQ(0, rig::get().list.records[102].flags);
    EXPECT_EQ(strings{}, rig::get().calls) << "nothing is written";

    EXPECT_EQ(-1, records_mark_persistent(103));
    EXPECT_EQ(ENOENT, errno);
    record_dir_close(0);
    EXPECT_EQ(-1, records_mark_persistent(101));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(records_del_list, a_marked_clip_is_not_deleted_to_free_space) {
    PROMISE("a marked clip is the oldest", "the next one goes instead");
    make(101);
    make(102);
    EXPECT_EQ(0, records_mark_persistent(101));
    EXPECT_EQ(0, records_delete_oldest());
    EXPECT_EQ(strings{"101"}, rig::live());
    EXPECT_TRUE(has_files(101));
}

}  // namespace
