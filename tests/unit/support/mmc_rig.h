// What the block devices' unit tests share: two card slots' device nodes, a kernel that knows the read-only flag, and
// the mount point manager's stand-in.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "mmc.h"
#include "support/kernel.h"
#include "support/log.h"

namespace rig {

using list = std::vector<std::string>;

extern int refresh_delays;        // calls of mountpoint_refresh_delay
extern mmc_state state_at_delay;  // at the last of them
extern int interruptions;         // of the next pauses, each after 300 ms
extern int64_t slept_ms;          // in all

bool is_open(int fd);

// Puts the device node of this minor at the path; a block device of the card's major unless told otherwise.
void set_node(const std::string& path, unsigned minor, unsigned major = MMC_BLOCK_MAJOR, mode_t type = S_IFBLK);

// The partitions in the table. Fails the test when their names and paths do not go together.
list names();

class mmc : public testing::Test {
  protected:
    mmc_manager* m = mmc_get_manager();
    int readonly = 0;  // the kernel's flag

    void SetUp() override;
    void TearDown() override { mmc_dev_exit(); }

    // For the next row of a table.
    void again() {
        TearDown();
        SetUp();
    }
};

}  // namespace rig
