#include "cl_eject.h"

#include <cerrno>
#include <cstdio>

#include "support/job_rig.h"
#include "support/promise.h"

using rig::world;

namespace {

constexpr char TRACE[] = "debug closure: cl_next_eject(): cl_next_umount -> next_eject";

class cl_eject : public rig::job {
  protected:
    void SetUp() override {
        rig::job::SetUp();
        snprintf(world.mmc.disk.path, sizeof world.mmc.disk.path, "/dev/mmcblk0");
    }
};

PROMISES("cl_eject");

// The hold goes last: at the end of the chain the card must not yet be free to be mounted.
TEST_F(cl_eject, card_is_closed_and_the_hold_goes_behind_the_end) {
    PROMISE("all goes well", "unmount, then the devices closed to writes, succeeded with 0, and the state is eject");
    PROMISE("the eject has succeeded",
            "the card is not mounted again, and the hold on mounting goes only behind the job's end");
    PROMISE("an eject begins", "the trace says what comes next");
    start(cl_next_eject);
    EXPECT_EQ(world.steps, (strings{"umount", "eject", "done 2 0", "clear_mask"}));
    EXPECT_EQ(logged::lines(), strings{TRACE});
}

TEST_F(cl_eject, no_card) {
    PROMISE("the card has gone by then", "failed with ENODEV, without a word of its own, and the hold goes");
    world.eject_errno = ENODEV;
    start(cl_next_eject);
    EXPECT_EQ(world.steps, (strings{"umount", "eject", "done 3 19", "clear_mask"}));
    EXPECT_EQ(logged::lines(), strings{TRACE}) << "no message here";
}

TEST_F(cl_eject, another_card_is_left_alone) {
    PROMISE("another card is in after the unmount",
            "it is not ejected: \"eject: the sdcard is not the one that the job began with\", the job fails with "
            "ENODEV, and then the hold is released");
    for (const swap& how : swaps()) {
        SCOPED_TRACE(how.what);
        SetUp();
        swap_after("umount", how);
        start(cl_next_eject);
        EXPECT_EQ(world.steps, (strings{"umount", "done 3 19", "clear_mask"}));
        EXPECT_EQ(logged::lines(), (strings{TRACE, "err eject: the sdcard is not the one that the job began with"}));
        SetUp();
        ++world.insertion;  // before the job: it begins with this one
        start(cl_next_eject);
        EXPECT_EQ(world.steps, (strings{"umount", "eject", "done 2 0", "clear_mask"}));
    }
}

TEST_F(cl_eject, card_in_use_is_not_ejected_and_not_mounted_again) {
    PROMISE("the card cannot be unmounted, or there was no memory to wait with",
            "\"Unable to umount sdcard.\", nothing is closed, the hold goes, the job mounts nothing, and it fails with "
            "the unmount's 16 or 12");
    for (const int code : {EBUSY, ENOMEM}) {
        SetUp();
        world.umount = {CLOSURE_FAILED, code};
        start(cl_next_eject);
        EXPECT_EQ(world.steps, (strings{"umount", "clear_mask", "done 3 " + std::to_string(code)}));
        EXPECT_EQ(logged::lines(), (strings{TRACE, "err Unable to umount sdcard."}));
    }
}

TEST_F(cl_eject, waits_for_the_unmount) {
    PROMISE("the unmount takes its time", "the devices are left alone until then, and the frame stays busy");
    world.umount.at_once = false;
    start(cl_next_eject);
    EXPECT_EQ(world.steps, strings{"umount"});
    EXPECT_EQ(frame.status, CLOSURE_BUSY);
    end(CLOSURE_OK, 0);
    EXPECT_EQ(world.steps, (strings{"umount", "eject", "done 2 0", "clear_mask"}));
}

}  // namespace
