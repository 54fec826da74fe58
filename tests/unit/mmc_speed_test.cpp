#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "mmc.h"
#include "support/mmc_rig.h"
#include "support/promise.h"

using namespace std::string_literals;
using namespace rig;

namespace {
timespec monotonic;
int clock_reads;
}  // namespace

extern "C" int __real_clock_gettime(clockid_t id, timespec* out);
extern "C" int __wrap_clock_gettime(clockid_t id, timespec* out) {
    if (id != CLOCK_MONOTONIC) {
        return __real_clock_gettime(id, out);
    }
    ++clock_reads;
    *out = monotonic;
    return 0;
}

namespace {

constexpr char STAT[] = "/sys/block/mmcblk0/stat";
constexpr uint32_t UNTOUCHED = 4711;

class mmc_speed : public rig::mmc {
  protected:
    uint32_t written = UNTOUCHED;

    void SetUp() override {
        rig::mmc::SetUp();
        written = UNTOUCHED;
        monotonic = {.tv_sec = 100, .tv_nsec = 0};
        clock_reads = 0;
        mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
        m->state = MMC_STATE_RDWR;
        kernel::forget_calls();
        logged::reset();
        counters("0", "0");
    }

    // The disk's counters as the kernel shows them; those of no interest here are told apart by their values.
    static void counters(const std::string& write_sectors, const std::string& io_ticks) {
        kernel::write(STAT, "  1  2  3  4  5  6  " + write_sectors + "  8  9  " + io_ticks + "  11\n");
    }
    static void counters(uint32_t write_sectors, uint32_t io_ticks) {
        counters(std::to_string(write_sectors), std::to_string(io_ticks));
    }
    void baseline(uint32_t write_sectors = 0, uint32_t io_ticks = 0) {
        counters(write_sectors, io_ticks);
        m->stat_time_ms = 0;
        ASSERT_EQ(mmc_calc_write_speed(nullptr), MMC_SPEED_NO_BASELINE);
        ASSERT_NE(m->stat_time_ms, 0U);
        kernel::forget_calls();
        logged::reset();
    }
    // A sample that failed has changed nothing.
    void expect_kept(uint32_t write_sectors, uint32_t io_ticks, uint32_t time_ms) {
        EXPECT_EQ(m->stat.write_sectors, write_sectors);
        EXPECT_EQ(m->stat.io_ticks, io_ticks);
        EXPECT_EQ(m->stat_time_ms, time_ms);
        EXPECT_EQ(written, UNTOUCHED);
    }
};

// --- one sample ----------------------------------------------------------------------------------------------------

PROMISES("mmc");

TEST_F(mmc_speed, counters_are_kept_in_their_own_order) {
    PROMISE("a sample is taken", "the eleven counters and the time are kept, each in 32 bits, and the file is closed");
    kernel::write(STAT, "    101 102 103 104\t105 106   107 108 109 110 111\n");
    monotonic = {.tv_sec = 7, .tv_nsec = 89'999'999};
    const int lowest_free = fcntl(0, F_DUPFD_CLOEXEC, 0);
    close(lowest_free);
    EXPECT_EQ(mmc_read_stat(), 0);
    EXPECT_EQ(m->stat.read_ios, 101U);
    EXPECT_EQ(m->stat.read_merges, 102U);
    EXPECT_EQ(m->stat.read_sectors, 103U);
    EXPECT_EQ(m->stat.read_ticks, 104U);
    EXPECT_EQ(m->stat.write_ios, 105U);
    EXPECT_EQ(m->stat.write_merges, 106U);
    EXPECT_EQ(m->stat.write_sectors, 107U);
    EXPECT_EQ(m->stat.write_ticks, 108U);
    EXPECT_EQ(m->stat.in_flight, 109U);
    EXPECT_EQ(m->stat.io_ticks, 110U);
    EXPECT_EQ(m->stat.time_in_queue, 111U);
    EXPECT_EQ(m->stat_time_ms, 7089U);
    EXPECT_EQ(clock_reads, 1);
    EXPECT_EQ(kernel::calls(), list{"fopen "s + STAT});
    EXPECT_FALSE(is_open(lowest_free)) << "the file is closed";
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(mmc_speed, later_kernels_have_more_counters) {
    PROMISE("the kernel has more counters", "the first eleven count");
    kernel::write(STAT, "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n");
    EXPECT_EQ(mmc_read_stat(), 0);
    EXPECT_EQ(m->stat.time_in_queue, 11U);
}

TEST_F(mmc_speed, disk_is_found_by_its_name) {
    PROMISE("the disk is called mmcblk1", "the statistics of that name are read");
    mmc_new_block("mmcblk1", 8, MMC_BLOCK_DISK);
    kernel::write("/sys/block/mmcblk1/stat", "1 2 3 4 5 6 77 8 9 10 11\n");
    EXPECT_EQ(mmc_read_stat(), 0);
    EXPECT_EQ(m->stat.write_sectors, 77U);

    const std::string longest(32, 'n');
    mmc_new_block(longest.c_str(), 16, MMC_BLOCK_DISK);
    kernel::write("/sys/block/" + longest + "/stat", "1 2 3 4 5 6 78 8 9 10 11\n");
    EXPECT_EQ(mmc_read_stat(), 0);
    EXPECT_EQ(m->stat.write_sectors, 78U);
}

TEST_F(mmc_speed, time_and_counters_keep_their_low_32_bits) {
    PROMISE("a sample is taken", "the eleven counters and the time are kept, each in 32 bits, and the file is closed");
    monotonic = {.tv_sec = 4'294'968, .tv_nsec = 5'000'000};  // 2^32 ms and 709 more
    counters("4294967295", "4294967294");
    EXPECT_EQ(mmc_read_stat(), 0);
    EXPECT_EQ(m->stat_time_ms, 709U);
    EXPECT_EQ(m->stat.write_sectors, 4294967295U);
    EXPECT_EQ(m->stat.io_ticks, 4294967294U);
    if constexpr (sizeof(long) > sizeof(uint32_t)) {  // only there the kernel's counters are wider
        counters("4294967301", "8589934592");
        EXPECT_EQ(mmc_read_stat(), 0);
        EXPECT_EQ(m->stat.write_sectors, 5U);
        EXPECT_EQ(m->stat.io_ticks, 0U);
    }
}

TEST_F(mmc_speed, samples_that_fail_keep_the_last_one) {
    PROMISE("the card is not writable", "-1 with EINVAL, no file touched, and the last sample kept");
    PROMISE("the statistics cannot be opened",
            "\"Unable to read statistics of %s: %s\n\", -1 with its errno, and the last sample kept");
    PROMISE("there are fewer than eleven counters", "-1 with EFAULT, without a word, and the last sample kept");
    const struct {
        const char* what;
        mmc_state state;
        int open_errno;
        const char* text;
        int error;
        list log;
    } rows[] = {
        {"no card", MMC_STATE_NONE, 0, nullptr, EINVAL, {}},
        {"read-only", MMC_STATE_RDONLY, 0, nullptr, EINVAL, {}},
        {"ejected", MMC_STATE_EJECTED, 0, nullptr, EINVAL, {}},
        {"no statistics",
         MMC_STATE_RDWR,
         EACCES,
         nullptr,
         EACCES,
         {"warning device: Unable to read statistics of mmcblk0: "s + strerror(EACCES) + "\n"}},
        {"ten counters", MMC_STATE_RDWR, 0, "1 2 3 4 5 6 7 8 9 10\n", EFAULT, {}},
        {"ten counters and a word", MMC_STATE_RDWR, 0, "1 2 3 4 5 6 7 8 9 10 x\n", EFAULT, {}},
        {"nothing", MMC_STATE_RDWR, 0, "", EFAULT, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        again();
        baseline(1000, 50);
        const uint32_t time_ms = m->stat_time_ms;
        monotonic.tv_sec += 60;
        if (row.text != nullptr) {
            kernel::write(STAT, row.text);
        } else {
            counters(5000, 500);
        }
        logged::disturb_errno(EPIPE);
        for (const bool by_speed : {false, true}) {
            m->state = row.state;
            if (row.open_errno != 0) {
                kernel::fail("fopen", row.open_errno);
            }
            logged::reset();
            logged::disturb_errno(EPIPE);
            errno = 0;
            EXPECT_EQ(by_speed ? mmc_calc_write_speed(&written) : mmc_read_stat(), -1);
            EXPECT_EQ(errno, row.error);
            EXPECT_EQ(logged::lines(), row.log);
            expect_kept(1000, 50, time_ms);
        }
        if (row.state != MMC_STATE_RDWR) {
            EXPECT_EQ(kernel::count("fopen"), 0);
        }
        m->state = MMC_STATE_RDWR;  // 4000 sectors in 450 ms since the baseline
        counters(5000, 500);
        EXPECT_EQ(mmc_calc_write_speed(&written), 4551111);
        EXPECT_EQ(written, 4000U);
    }
}

// --- the speed -----------------------------------------------------------------------------------------------------

TEST_F(mmc_speed, figures) {
    PROMISE("2048 sectors took 1000 busy milliseconds",
            "1048576 bytes a second, multiplied in 64 bits, rounded down and cut to 32");
    PROMISE("fewer than 40 sectors were written", "0; how many is told all the same, and they are not carried over");
    PROMISE("a counter stood still or wrapped", "0, and nothing is told");
    PROMISE("nobody wants to know how many sectors", "the speed is the same");
    const struct {
        const char* what;
        uint32_t sectors[2];  // the baseline and the next sample
        uint32_t ticks[2];
        int speed;
        uint32_t written;
    } rows[] = {
        {"1 MiB in a second", {0, 2048}, {0, 1000}, 1048576, 2048},
        {"1 MiB in 100 ms", {10, 2058}, {7, 107}, 10485760, 2048},
        {"39 sectors", {100, 139}, {0, 10}, 0, 39},
        {"40 sectors", {100, 140}, {0, 10}, 2048000, 40},
        {"a fraction is cut", {0, 41}, {0, 13}, 1614769, 41},
        {"nothing at all", {100, 100}, {50, 50}, 0, UNTOUCHED},
        {"nothing written", {100, 100}, {50, 90}, 0, UNTOUCHED},
        {"not busy", {100, 900}, {50, 50}, 0, UNTOUCHED},
        {"one sector in one millisecond", {100, 101}, {50, 51}, 0, 1},
        {"sectors wrapped", {4294967290U, 5000}, {50, 90}, 0, UNTOUCHED},
        {"ticks wrapped", {100, 900}, {4294967290U, 20}, 0, UNTOUCHED},
        {"upper half of the counters", {2147483640U, 2147485688U}, {2147483640U, 2147484640U}, 1048576, 2048},
        {"more than 32 bits on the way", {0, 4'000'000}, {0, 3000}, 682666666, 4'000'000},
        {"more than 32 bits in the end",
         {0, 20'000'000},
         {0, 1},
         static_cast<int>(10'240'000'000'000 & 0xffffffff),
         20'000'000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        for (const bool told : {true, false}) {
            written = UNTOUCHED;
            baseline(row.sectors[0], row.ticks[0]);
            counters(row.sectors[1], row.ticks[1]);
            monotonic.tv_sec += 60;
            EXPECT_EQ(mmc_calc_write_speed(told ? &written : nullptr), row.speed);
            EXPECT_EQ(written, told ? row.written : UNTOUCHED);
            EXPECT_EQ(m->stat.write_sectors, row.sectors[1]) << "the next baseline, whatever came of this one";
            EXPECT_EQ(m->stat.io_ticks, row.ticks[1]);
            EXPECT_EQ(m->stat_time_ms, static_cast<uint32_t>(monotonic.tv_sec) * 1000U);
            EXPECT_TRUE(logged::lines().empty());
        }
    }
}

TEST_F(mmc_speed, first_call_takes_the_baseline) {
    PROMISE("the speed is asked for the first time", "-61, and a sample is there to compare with");
    counters(1000, 10);
    EXPECT_EQ(mmc_calc_write_speed(&written), -61);
    EXPECT_EQ(written, UNTOUCHED);
    EXPECT_EQ(m->stat_time_ms, 100'000U);
    counters(3048, 1010);
    EXPECT_EQ(mmc_calc_write_speed(&written), 1048576);
    EXPECT_EQ(written, 2048U);
}

TEST_F(mmc_speed, baseline_that_failed_is_tried_again) {
    PROMISE("the first sample fails", "-61 again, and it is tried again the next time");
    m->state = MMC_STATE_NONE;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(mmc_calc_write_speed(&written), -61);
        EXPECT_EQ(m->stat_time_ms, 0U);
    }
    m->state = MMC_STATE_RDWR;
    counters(5000, 500);
    EXPECT_EQ(mmc_calc_write_speed(&written), -61);
    EXPECT_EQ(m->stat.write_sectors, 5000U);
    EXPECT_EQ(written, UNTOUCHED);
}

TEST_F(mmc_speed, every_interval_for_itself) {
    PROMISE("fewer than 40 sectors were written", "0; how many is told all the same, and they are not carried over");
    baseline(0, 0);
    counters(39, 10);  // too little, and not carried over
    EXPECT_EQ(mmc_calc_write_speed(&written), 0);
    counters(78, 20);
    EXPECT_EQ(mmc_calc_write_speed(&written), 0);
    EXPECT_EQ(written, 39U);
    counters(178, 30);
    EXPECT_EQ(mmc_calc_write_speed(&written), 5120000);
    EXPECT_EQ(written, 100U);
}

TEST_F(mmc_speed, another_card_starts_anew) {
    PROMISE("the disk was removed since", "-61 again");
    baseline(100000, 1000);
    mmc_remove_block("mmcblk0", 0, MMC_BLOCK_DISK);
    EXPECT_EQ(m->stat_time_ms, 0U);
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    m->state = MMC_STATE_RDWR;
    counters(200000, 2000);
    EXPECT_EQ(mmc_calc_write_speed(&written), -61);
    EXPECT_EQ(written, UNTOUCHED);
}

TEST_F(mmc_speed, only_a_removed_disk_takes_the_sample_along) {
    PROMISE("the disk was announced again or the table built anew, or a partition came and went",
            "the sample still counts");
    baseline(0, 0);
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    counters(2048, 1000);
    EXPECT_EQ(mmc_calc_write_speed(&written), 1048576);

    kernel::write("/proc/partitions", " 179 0 100 mmcblk0\n");
    ASSERT_EQ(mmc_rescan(), 0);
    counters(4096, 2000);
    EXPECT_EQ(mmc_calc_write_speed(&written), 1048576);
}

// Its time is the number that says that there is none: once in 49 days, for a millisecond.
TEST_F(mmc_speed, a_sample_at_millisecond_zero_is_none) {
    PROMISE("a sample falls on the millisecond at which the clock's 32 bits are 0",
            "it counts as none, and -61 comes once more");
    baseline(0, 0);
    monotonic = {.tv_sec = 4'294'967, .tv_nsec = 296'000'000};
    counters(2048, 1000);
    EXPECT_EQ(mmc_calc_write_speed(&written), 1048576);
    EXPECT_EQ(m->stat_time_ms, 0U);
    monotonic.tv_sec += 60;
    written = UNTOUCHED;
    counters(4096, 2000);
    EXPECT_EQ(mmc_calc_write_speed(&written), MMC_SPEED_NO_BASELINE);
    EXPECT_EQ(written, UNTOUCHED);
    counters(6144, 3000);
    EXPECT_EQ(mmc_calc_write_speed(&written), 1048576);
}

TEST_F(mmc_speed, partitions_that_go_take_no_sample_along) {
    PROMISE("the disk was announced again or the table built anew, or a partition came and went",
            "the sample still counts");
    baseline(0, 0);
    mmc_new_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
    mmc_remove_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
    counters(2048, 1000);
    EXPECT_EQ(mmc_calc_write_speed(&written), 1048576);
}

}  // namespace
