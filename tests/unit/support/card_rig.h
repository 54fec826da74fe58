// What surrounds the card manager in its unit tests: the card's devices, mount and recordings, the keys, the reports,
// and (in card_chains.cpp) the chains of the jobs. The closure engine is the real one.
#pragma once

#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "closure.h"
#include "mmc.h"
#include "mountpoint.h"
#include "sdcard.h"
#include "support/kernel.h"
#include "support/log.h"

using strings = std::vector<std::string>;

namespace rig {

constexpr char CARD[] = "/mnt/sdcard";

// What the neighbours say, and what they were asked, in order.
struct neighbours {
    mmc_manager mmc;
    mountpoint_manager mountpoint = {};
    uint64_t f_bavail = 1 << 20;
    int32_t f_bsize = 4096;
    int statfs_result = 0;
    int mountpoint_init_result = 0;
    int mmc_dev_init_result = 0;
    int delete_errno = 0;               // not 0: records_delete_oldest fails with it
    std::deque<uint64_t> after_delete;  // f_bavail after each deletion
    std::function<void()> on_delete;    // inside records_delete_oldest
    bool refresh_from_mountinfo = false;
    int speed = MMC_SPEED_NO_BASELINE;  // mmc_calc_write_speed
    int speed_errno = 0;
    bool is_next_report_due = false;   // at the last rpc_send_sdcard_info
    size_t lines_before_key = 0;       // of the log, at the last kvmem_set
    uint32_t written = 0;              // sectors; told only when the speed is not negative and is_written
    bool is_written = true;            // false: the counters stood still, and nothing is told
    std::deque<int> random;            // what rand_range gives; empty: its lower end
    closure_frame* running = nullptr;  // the frame of a chain that was started and has not ended
    strings steps;                     // "mmc_rescan", "sdcard_status=0", "rpc_send_alert 5", "cl_next_mkfs"
};
extern neighbours world;

// Adds to what was seen.
void step(std::string text);

// Which timer is due in how many seconds.
double remaining_s(ev_timer* timer);

// A fresh card, mounted, on a daemon that has not started.
class test : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Starts and forgets what was seen of it.
    static void start();
    static void fill(uint64_t free_kib = 0);
};

// What a test that ends by abort has logged and done, for the parent to read.
void tell_on_abort();

}  // namespace rig
