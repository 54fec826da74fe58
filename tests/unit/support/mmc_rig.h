// What the block devices' unit tests share: two card slots' device nodes, a kernel that knows the read-only flag, and
// the mount point manager's stand-in.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "mmc.h"
#include "support/kernel.h"
#include "support/log.h"

namespace rig {

using list = std::vector<std::string>;

extern int refresh_delays;  // calls of mountpoint_refresh_delay

bool is_open(int fd);

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
