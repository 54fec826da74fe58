// The eject job. Loop thread only.
#pragma once

struct closure_frame;

// Unmounts the card and makes the kernel refuse every write to it, so that it can be pulled. The card is not mounted
// again. The frame succeeds with 0 or fails with the unmount's or the block device table's errno. ENODEV: it has gone,
// or another card has come in meanwhile, which is left alone (cl_card.h).
void cl_next_eject(closure_frame* frame);
