// What a kyt_handle is, and what tests, measurements and fuzzing use beside the public calls.
#pragma once

#include "order.h"
#include "store.h"

namespace kyt {

struct keeper;

// A clip that was deleted and whose files may still be there. 12 bytes.
struct tombstone {
    uint32_t ts;
    uint32_t slot;   // of its record, which keeps it until the files were seen to be gone
    uint32_t round;  // the number of comparisons that had begun when it was deleted
};

}  // namespace kyt

struct kyt_handle {
    kyt::store list;  // of an open list only `slots` and `used` count: the rest is the keeper's
    kyt::order live;
    kyt::array<uint32_t> empty;  // slots that the next clips take, from next_empty on
    uint32_t next_empty = 0;
    kyt::array<kyt::tombstone> tombstones;  // ascending by ts
    kyt::keeper* keeper = nullptr;          // null: a read-only handle
    uint32_t round = 0;                     // counts comparisons
    bool taken = true;                      // what the last comparison has found is in the list
    bool said_full = false;                 // the log says that there is no room
};

namespace kyt {

// kyt_open_rdwr for any folder.
kyt_handle* open_folder(const char* path);
// Waits until all changes so far are on the card. False: they are not, after 100 s.
bool settle(kyt_handle* list);
// Whether a comparison with the folder is under way. kyt_optimise takes over its results when it is not.
bool is_comparing(const kyt_handle* list);

// Memory for an empty handle, and its end: reservations included, but neither a keeper nor a descriptor.
kyt_handle* handle_make();
void handle_free(kyt_handle* h);

// Opens the list of a folder into an empty handle, with all repairs; the list's descriptor is in h->list.fd then, and
// no keeper is at work yet. May wait for the card. 0, or -1 with errno and whatever was opened still in `h`.
int open_list(int folder, kyt_handle* h);

}  // namespace kyt
