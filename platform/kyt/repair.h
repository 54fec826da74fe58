// Opening: finds the list, repairs it, or makes it anew from the clips on the card. May wait for the card.
#pragma once

#include "format.h"

namespace kyt {

// A list file that is ready for use: sealed as OPEN, all `records` slots whole, no ts twice.
struct ready_file {
    int fd = -1;
    int name = 0;  // index into LIST_NAMES
    uint32_t generation = 0;
    uint32_t bytes = 0;
    uint32_t records = 0;
};

// 0, or -1 with errno. Nothing that belongs to a clip is ever removed.
int prepare_list(int folder, ready_file* ready);

}  // namespace kyt
