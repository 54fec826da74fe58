// What surrounds a card job in its unit tests: the unmount job, the runner, the block devices and the mount, all
// answered by the test. The closure engine is the real one, with the card manager's continuation at the bottom.
#pragma once

#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "closure.h"
#include "mmc.h"
#include "support/log.h"

using strings = std::vector<std::string>;

namespace rig {

// How an operation ends. Not at_once: it ends when the test says so, by job::end.
struct outcome {
    closure_status status = CLOSURE_OK;
    int32_t result = 0;
    bool at_once = true;
};

// What the neighbours say, and what they were asked, in order. Whatever disturbs errno on a camera does it here.
struct neighbours {
    mmc_manager mmc;
    outcome umount;
    std::deque<outcome> runs;          // of the runner's children; empty: succeeds at once
    int partprobe_errno = 0;           // not 0: mmc_partprobe fails with it
    int eject_errno = 0;               // not 0: mmc_eject fails with it
    int mount_result = 0;              // mountpoint_mount
    strings steps;                     // "umount", "run fsck.fat -aw /dev/x", "partprobe", "mount", "done 2 0"
    std::string input;                 // what the last child was given
    closure_frame* waiting = nullptr;  // of an operation that has not ended
};
extern neighbours world;

class job : public testing::Test {
  protected:
    closure_frame frame;

    void SetUp() override;
    void TearDown() override;

    // Starts the job as the card manager does.
    template <typename... Arguments>
    void start(void (*next)(closure_frame*, Arguments...), Arguments... arguments) {
        push_bottom();
        next(&frame, arguments...);
    }

    // Ends the operation that was started last.
    static void end(closure_status status, int32_t result);

    // Lines of a level, for example "err ".
    static strings lines_of(const std::string& level);

  private:
    void push_bottom();
};

}  // namespace rig
