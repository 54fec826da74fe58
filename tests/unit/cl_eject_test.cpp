#include "cl_eject.h"

#include <cerrno>

#include "support/job_rig.h"

using rig::world;

namespace {

constexpr char TRACE[] = "debug closure: cl_next_eject(): cl_next_umount -> next_eject";

class cl_eject : public rig::job {};

// The hold goes last: at the end of the chain the card must not yet be free to be mounted.
TEST_F(cl_eject, card_is_closed_and_the_hold_goes_behind_the_end) {
    start(cl_next_eject);
    EXPECT_EQ(world.steps, (strings{"umount", "eject", "done 2 0", "clear_mask"}));
    EXPECT_EQ(logged::lines(), strings{TRACE});
}

TEST_F(cl_eject, no_card) {
    world.eject_errno = ENODEV;
    start(cl_next_eject);
    EXPECT_EQ(world.steps, (strings{"umount", "eject", "done 3 19", "clear_mask"}));
    EXPECT_EQ(logged::lines(), strings{TRACE}) << "no message here";
}

TEST_F(cl_eject, card_in_use_is_not_ejected_and_not_mounted_again) {
    for (const int code : {EBUSY, ENOMEM}) {
        SetUp();
        world.umount = {CLOSURE_FAILED, code};
        start(cl_next_eject);
        EXPECT_EQ(world.steps, (strings{"umount", "clear_mask", "done 3 " + std::to_string(code)}));
        EXPECT_EQ(logged::lines(), (strings{TRACE, "err Unable to umount sdcard."}));
    }
}

TEST_F(cl_eject, waits_for_the_unmount) {
    world.umount.at_once = false;
    start(cl_next_eject);
    EXPECT_EQ(world.steps, strings{"umount"});
    EXPECT_EQ(frame.status, CLOSURE_BUSY);
    end(CLOSURE_OK, 0);
    EXPECT_EQ(world.steps, (strings{"umount", "eject", "done 2 0", "clear_mask"}));
}

}  // namespace
