// Opening a long list that was closed in order without reading its records: reading and checking a million takes 150
// ms and more.
//
// The header says that the list was closed in order. A look at its first record, its last one and the slot behind is
// all that the open does beside; the keeper reads the rest (inspect.cpp), and until it is through nothing is taken for
// granted (list.h). Whatever is not exactly as a close leaves it is read whole (repair.h).
#pragma once

#include "region.h"
#include "repair.h"

namespace kyt {

// A list of up to so many used slots is read at the open: 256 KiB take next to no time, and damage is mended at once.
// Tests lower it.
extern uint32_t read_whole_up_to;

// Maps the list, if it may be used unread, and seals it as open. False: nothing has changed, it is to be read.
bool take_unread(int folder, ready_file* ready, region* map);

}  // namespace kyt
