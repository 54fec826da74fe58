// The unmount job, the first step of every card job. Loop thread only.
#pragma once

struct closure_frame;

// Takes the card off its mount point and keeps it off. Tries ten times in all, half a second apart, and reports the
// processes that hold the card. The frame succeeds with 0 or fails with EBUSY (after the last try) or ENOMEM; the hold
// on automatic mounting is set in every case and is the caller's to release.
void cl_next_umount(closure_frame* frame);
