// The format job. Loop thread only.
#pragma once

struct closure_frame;

// Unmounts the card, writes a partition table with one partition, makes a FAT filesystem labelled "QX_CAM" on it and
// mounts the card again; after a failure it is mounted again as it is. The frame succeeds with 0 or fails with the
// first failing stage's code; with ENODEV when another card has come in meanwhile, which is left alone (cl_card.h).
void cl_next_mkfs(closure_frame* frame);
