// The card's filesystem checked and repaired, off its mount point, and mounted again whatever the check came to.
#include "cl_fsck.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "cl_card.h"
#include "cl_execvp.h"
#include "cl_umount.h"
#include "closure.h"
#include "mountpoint.h"
#include "vesk_util.h"

namespace {

// The steps, in the order in which they fire. cl_next_fsck takes the card off its mount point; then these, whose
// argument is the device's path, a copy of the job's own:
void next_fsck(closure_frame* frame, void* argument);    // checks the filesystem
void next_finish(closure_frame* frame, void* argument);  // mounts the card again

}  // namespace

void cl_next_fsck(closure_frame* frame, const char* device) {
    // The table of block devices may have changed by the time the path is needed.
    char* const path = strdup(device);
    if (path == nullptr) {
        closure_fail(frame, ENOMEM);
        return;
    }
    cl_card_remember();
    closure_debug_next("cl_next_fsck", "cl_next_umount", "next_fsck");
    closure_setup_frame(frame, next_fsck, path);
    frame->status = CLOSURE_BUSY;
    cl_next_umount(frame);
}

namespace {

void next_fsck(closure_frame* frame, void* argument) {
    auto* const path = static_cast<char*>(argument);
    if (frame->status != CLOSURE_OK) {
        log_err("Unable to umount sdcard.");
        free(path);
        (void)mountpoint_mount();  // a card that cannot be mounted shows in the state
        closure_fail(frame, frame->result);
        return;
    }
    if (!cl_card_is_same("fsck", path)) {
        free(path);
        (void)mountpoint_mount();
        closure_fail(frame, ENODEV);
        return;
    }
    const char* const fsck_argv[] = {"fsck.fat", "-aw", path, nullptr};
    closure_debug_next("next_fsck", "cl_next_execvp", "next_finish");
    closure_setup_frame(frame, next_finish, path);
    frame->status = CLOSURE_BUSY;
    cl_next_execvp(frame, fsck_argv);
}

void next_finish(closure_frame* frame, void* argument) {
    free(argument);
    // A check that found something and repaired it exits with 1 and counts as failed like one that could not: nothing
    // that was found wrong goes unmentioned. Nor could the two be told apart: fsck.fat (4.2) exits with 1 as well when
    // it gets no memory for the card's allocation table, before it has looked at anything.
    if (frame->status != CLOSURE_OK) {
        log_err("%s: unable to check filesystem.", "next_finish");
    }
    (void)mountpoint_mount();
    closure_return(frame);
}

}  // namespace
