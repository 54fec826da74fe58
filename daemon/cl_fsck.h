// The filesystem check job. Loop thread only.
#pragma once

struct closure_frame;

// Unmounts the card, checks and repairs the filesystem on the device, and mounts the card again. device: copied. The
// frame succeeds with 0 or fails with the first failing stage's code; a repaired filesystem is fsck.fat's exit code 1
// and so a failure. ENODEV: another card has come in meanwhile, and is left alone (cl_card.h).
void cl_next_fsck(closure_frame* frame, const char* device);
