// The clip that the recorder writes, made once from a test pattern.
#pragma once

#include <cstdint>

// The smallest size of a padded clip's ".mp4": one of just the video has no room for the box that pads.
uint32_t clip_min_bytes();

// Writes a clip's ".jpeg", then its ".mp4", padded to mp4_bytes (0: as it is) with a box that players skip. The ".mp4"
// gets its name when it is complete: a clip exists when its ".mp4" does. base: path without extension, whose folder
// exists. 0, or -1 with errno and nothing left of the ".mp4".
int clip_write(const char* base, uint32_t mp4_bytes);
