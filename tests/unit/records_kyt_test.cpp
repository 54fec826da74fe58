// The recordings with the real record list library: deletion threads at work while the loop thread uses the list and
// the library's own thread brings it to the card. Worth most under the thread sanitizer.
#include <cerrno>
#include <chrono>
#include <csetjmp>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "kv.h"
#include "kyt.h"
#include "main.h"
#include "records.h"
#include "sdcard.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"

std::atomic<pthread_t> bus_guard_thread;
sigjmp_buf bus_guard_jmp;

void on_sigbus(int, siginfo_t*, void*) {
    abort();
}

namespace {
kv_callback announce_callback;
int refreshed;
}  // namespace

int kv_register(const char*, const char*, const char*, kv_callback callback, void*) {
    announce_callback = callback;
    return 0;
}
void sdcard_refresh(const char*) {
    ++refreshed;
}

namespace {

constexpr uint32_t FIRST = 1'789'900'000;
constexpr uint32_t STEP_S = 60;
constexpr uint32_t BATCHES = 40;
constexpr uint32_t BATCH = 5;

std::string clip(uint32_t ts) {
    char path[128];
    EXPECT_GT(kyt_ts2path(ts, path, sizeof path, 0), 0);
    return path;
}

void record(uint32_t ts) {
    kernel::write(clip(ts) + ".jpeg", "image");
    kernel::write(clip(ts) + ".mp4", "video");
    const std::string value = std::to_string(ts) + ",60";
    announce_callback(nullptr, value.data(), value.size());
}

uint32_t nth(uint32_t number) {
    return FIRST + number * STEP_S;
}

class records_kyt : public testing::Test {
  protected:
    void SetUp() override {
        kernel::reset();
        logged::reset();
        kernel::make_dir(RECORD_DIR);
        records_init();
        record_dir_open();
    }
    void TearDown() override { records_exit(); }

    static void await_workers(int count) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (logged::count_beginning("err del_list file_count = ") < count) {
            ASSERT_LT(std::chrono::steady_clock::now(), end);
            std::this_thread::yield();
        }
    }
};

PROMISES("records", "The deletion list");

TEST_F(records_kyt, threads_delete_while_the_loop_goes_on_recording) {
    PROMISE("many batches run on all workers", "every file goes, once");
    for (uint32_t i = 0; i < BATCHES * BATCH * 2; ++i) {
        record(nth(i));
    }
    // Every second clip is deleted. Meanwhile new ones come, others are protected, and the folder is measured.
    uint32_t next = BATCHES * BATCH * 2;
    for (uint32_t number = 0; number < BATCHES; ++number) {
        del_list_entry* const batch = records_del_begin(BATCH);
        for (uint32_t i = 0; i < BATCH; ++i) {
            batch->ts[i] = nth((number * BATCH + i) * 2);
        }
        EXPECT_EQ(0, records_del_commit(batch));
        record(nth(next++));
        EXPECT_EQ(0, records_mark_persistent(nth(number * BATCH * 2 + 1)));
        EXPECT_EQ(-1, records_mark_persistent(nth(number * BATCH * 2)));
        EXPECT_EQ(ENOENT, errno);
        EXPECT_GT(record_dir_size(), 0U);
    }
    await_workers(logged::count_beginning("err del_list_thread_num = "));

    record_dir_close(0);
    record_dir_open();  // what the card has of it
    for (uint32_t i = 0; i < next; ++i) {
        const bool is_deleted = i < BATCHES * BATCH * 2 && i % 2 == 0;
        EXPECT_EQ(!is_deleted, kernel::exists(clip(nth(i)) + ".mp4")) << i;
        EXPECT_EQ(is_deleted ? -1 : 0, records_mark_persistent(nth(i))) << i;
    }
}

TEST_F(records_kyt, a_protected_clip_is_deleted_on_request_and_by_nothing_else) {
    PROMISE("a marked clip is deleted on request", "it goes");
    for (uint32_t i = 0; i < 3; ++i) {
        record(nth(i));
    }
    EXPECT_EQ(0, records_mark_persistent(nth(0)));
    record_dir_close(0);
    record_dir_open();
    EXPECT_EQ(0, records_delete_oldest());
    EXPECT_TRUE(kernel::exists(clip(nth(0)) + ".mp4"));
    EXPECT_FALSE(kernel::exists(clip(nth(1)) + ".mp4"));
    del_list_entry* const batch = records_del_begin(1);
    batch->ts[0] = nth(0);
    EXPECT_EQ(0, records_del_commit(batch));
    await_workers(1);
    EXPECT_FALSE(kernel::exists(clip(nth(0)) + ".mp4"));
    EXPECT_TRUE(kernel::exists(clip(nth(2)) + ".mp4"));
}

// Any thread may ask for a clip's path, at any time.
TEST_F(records_kyt, paths_are_formed_by_many_threads_at_once) {
    PROMISE("many threads ask for paths while clips are recorded", "each gets the right one");
    std::thread threads[4];
    for (std::thread& thread : threads) {
        thread = std::thread([] {
            for (uint32_t i = 0; i < 2000; ++i) {
                const time_t ts = FIRST + i * 977;
                tm utc;
                gmtime_r(&ts, &utc);
                char expected[64];
                strftime(expected, sizeof expected, "/mnt/sdcard/ZOLTA_RECORD_VIDEO/%Y%m%d%H/%Y%m%d_%H%M%S", &utc);
                EXPECT_EQ(expected, clip(static_cast<uint32_t>(ts)));
            }
        });
    }
    for (uint32_t i = 0; i < 200; ++i) {
        record(nth(i));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
