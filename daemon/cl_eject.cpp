// The card made safe to pull: off its mount point, and closed to every write by the kernel.
#include "cl_eject.h"

#include <errno.h>

#include "cl_card.h"
#include "cl_umount.h"
#include "closure.h"
#include "mmc.h"
#include "mountpoint.h"
#include "vesk_util.h"

namespace {

// The steps, in the order in which they fire. cl_next_eject takes the card off its mount point; then
void next_eject(closure_frame* frame, void*);  // closes it to writes

}  // namespace

void cl_next_eject(closure_frame* frame) {
    cl_card_remember();
    closure_debug_next("cl_next_eject", "cl_next_umount", "next_eject");
    closure_setup_frame(frame, next_eject, nullptr);
    frame->status = CLOSURE_BUSY;
    cl_next_umount(frame);
}

namespace {

void next_eject(closure_frame* frame, void*) {
    if (frame->status != CLOSURE_OK) {
        // Not mounted again here: without the hold the next look at the mount table does what the card allows.
        log_err("Unable to umount sdcard.");
        mountpoint_clear_mask();
        closure_return(frame);
        return;
    }
    if (!cl_card_is_same("eject", mmc_get_manager()->disk.path)) {
        closure_fail(frame, ENODEV);
    } else if (mmc_eject() < 0) {
        closure_fail(frame, errno);
    } else {
        closure_succeed(frame, 0);
    }
    // Only now, with the rest of the chain behind us: what derives the state at its end must not find the card free to
    // be mounted. Afterwards its read-only flag keeps it off.
    mountpoint_clear_mask();
}

}  // namespace
