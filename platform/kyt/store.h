// The list in memory, and reading it from a file. The memory is plain and private, reserved for the largest list, so
// that slots never move; pages that were never touched take no room. A file is read once, by plain reads, and never
// mapped.
#pragma once

#include "format.h"
#include "order.h"

namespace kyt {

struct store {
    kyt_record* slots = nullptr;
    uint64_t* sums = nullptr;  // of each sector of slots as it is in the file; 0: not known
    uint32_t used = 0;         // slots
    int fd = -1;               // of the file; the store's owner closes it
    uint32_t bytes = 0;        // of the file that may be used, at most MAX_BYTES
};

// Reserves the memory. False: errno says why.
bool store_make(store* s);
void store_free(store* s);

// What a file holds.
struct loaded {
    header_kind header = header_kind::DAMAGED;
    list_header head = {};     // unless DAMAGED
    bool other_order = false;  // the records were turned into this machine's byte order
    uint64_t size = 0;         // of the file
    uint32_t used = 0;         // slots
    uint32_t live = 0;         // records
    uint32_t destroyed = 0;    // used slots that are not whole; they are empty now
    uint32_t unreadable = 0;   // pieces that the card did not give
    array<uint32_t> deleted;   // slots of deleted records
    array<uint32_t> empty;     // empty slots before the last used one
};

// Reads s->fd into the memory, which must be fresh, judges each record once and adds the live ones to `live`, unsorted.
// Waits for the card; a card that does not give its pages is asked for at most MAX_UNREADABLE of them.
// 0, or -1 with errno: ESPIPE, it is no regular file; anything else, nothing is known about it.
constexpr uint32_t MAX_UNREADABLE = 16;
int store_load(store* s, order* live, loaded* l);

// Forgets what was read.
void store_clear(store* s, order* live, loaded* l);

inline bool is_list(const loaded& l) {
    return l.header == header_kind::INTACT;
}
inline bool has_state(const loaded& l, file_state state) {
    return is_list(l) && l.head.state == static_cast<uint32_t>(state);
}
inline bool is_closed(const loaded& l) {
    return has_state(l, file_state::CLOSED);
}
// Not a size that the library leaves behind.
inline bool has_odd_size(const loaded& l) {
    return l.size % STEP_BYTES != 0 || l.size == 0 || l.size > MAX_BYTES;
}
// Whether the file is not as long as it was when its header was written. A list that is open may have become longer:
// its header says what was on the card at that time.
inline bool has_wrong_size(const loaded& l) {
    return is_list(l) && (l.used < l.head.records || (is_closed(l) && (has_odd_size(l) || l.used > l.head.records)));
}

}  // namespace kyt
