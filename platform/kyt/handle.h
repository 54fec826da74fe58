// What a kyt_handle is, and what tests, measurements and fuzzing use beside the public calls.
#pragma once

#include "order.h"

namespace kyt {

struct keeper;

// The list in memory, plain and private: reserved for the largest list, so that slots never move. Pages that were never
// touched take no room.
struct store {
    kyt_record* slots = nullptr;
    uint64_t* sums = nullptr;  // of each sector as it is in the file, with SYNCED when also on the card; 0: not known
    uint32_t used = 0;         // slots
    int fd = -1;               // the file
    uint32_t bytes = 0;        // of the file, at most MAX_BYTES
};
constexpr uint64_t SYNCED = 1;

// A clip that was deleted and whose files may still be there. 12 bytes.
struct tombstone {
    uint32_t ts;
    uint32_t slot;   // of its record, which keeps it until the files were seen to be gone
    uint32_t round;  // the number of comparisons that had begun when it was deleted
};

}  // namespace kyt

struct kyt_handle {
    kyt::store list;  // of a list that has a keeper only `slots` and `used` count: the rest is the keeper's
    kyt::order live;
    kyt::array<uint32_t> empty;  // slots that the next clips take, from next_empty on
    uint32_t next_empty = 0;
    kyt::array<kyt::tombstone> tombstones;  // ascending by ts
    kyt::keeper* keeper = nullptr;          // null: a read-only handle
    uint32_t round = 0;                     // counts comparisons
    bool said_full = false;                 // the log says that there is no room
};

namespace kyt {

// kyt_open_rdwr for any folder.
kyt_handle* open_folder(const char* path);
// Waits until all changes so far are on the card. False: they are not, after 100 s.
bool settle(kyt_handle* h);
// Whether a comparison with the folder is under way. kyt_optimise takes over its results when it is not.
bool is_comparing(const kyt_handle* h);

// An empty handle, null with ENOMEM; and its end, without closing a descriptor. The memory of `list` belongs to the
// keeper if there is one.
kyt_handle* handle_make();
void handle_free(kyt_handle* h);
void store_free(const store& s);

// Opens the list of a folder into an empty handle, with all repairs. The list's descriptor is in h->list.fd then, and
// no keeper is at work yet. May wait for the card. 0, or -1 with errno and what was opened still in the handle.
int open_list(int folder, kyt_handle* h);

}  // namespace kyt
