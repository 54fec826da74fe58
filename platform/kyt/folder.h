// What clips lie in the recordings folder, by name alone: on FAT a stat of one file reads through its directory.
#pragma once

#include "array.h"

namespace kyt {

constexpr uint32_t MAX_PERIODS = 64 * 1024;       // 7 years of hours
constexpr uint32_t MAX_CLIPS_OF_PERIOD = 3600;    // one name a second

// Adds the starts of all period directories, unsorted. 0, or -1 with errno and what was read until then.
int folder_periods(int folder, array<uint32_t>* periods);

// Adds the starts of all clips (".mp4") of one period, unsorted; a directory that is gone has none. 0, or -1 with errno
// and what was read until then.
int folder_clips(int folder, uint32_t period, array<uint32_t>* clips);

}  // namespace kyt
