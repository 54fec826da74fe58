// What a kyt_handle is, and the open for any folder.
#pragma once

#include "keeper.h"
#include "list.h"
#include "region.h"

struct kyt_handle {
    kyt::list order;
    kyt::region map;                // not for a read-only handle
    kyt::keeper* keeper = nullptr;  // null: a read-only handle
    kyt::array<kyt_record> copy;    // a read-only handle's records
    int file = 0;                   // index into the keeper's files
    uint32_t asked_bytes = 0;       // the capacity at which the keeper was last woken to grow the file
    uint32_t expected = 0;          // the slot behind the last one that was got; may be any number
    uint8_t round = 0;              // counts comparisons of folder and list, modulo 256
    bool taken = true;              // the last comparison's results are in the list
    bool compared = false;          // a complete comparison has been: the next field counts
    uint8_t compared_round = 0;     // what was deleted in earlier rounds and was not found is gone for good
    bool said_full = false;
    bool distrusted = false;  // what was taken over unread is not whole, or not in order
};

namespace kyt {

// kyt_open_rdwr for a folder of one's own: for tests, measurements and fuzzing.
enum class reading : uint8_t { AS_NEEDED, WHOLE };
kyt_handle* open_folder(const char* path, reading wanted = reading::AS_NEEDED);

}  // namespace kyt
