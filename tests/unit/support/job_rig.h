// What surrounds a card job in its unit tests: the unmount job, the runner, the block devices and the mount, all
// answered by the test. The closure engine is the real one, with the card manager's continuation at the bottom.
#pragma once

#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <set>
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
    uint32_t insertion = 0;
    std::set<std::string, std::less<>> strange_nodes;    // paths where there is another device than the table has
    std::function<void(const std::string& step)> after;  // sees each step that was noted
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

    // What happens behind the job's back, right after the first step that begins with `step`: each of these is another
    // card.
    struct swap {
        const char* what;
        void (*happens)();
    };
    static const std::vector<swap>& swaps();
    static void swap_after(const std::string& step, const swap& how);

    // Lines of a level, for example "err ".
    static strings lines_of(const std::string& level);

  private:
    void push_bottom();
};

}  // namespace rig
