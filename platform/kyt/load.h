// Reading a list file, by plain reads: it is never mapped.
#pragma once

#include "handle.h"

namespace kyt {

struct loaded {
    header_kind header = header_kind::DAMAGED;
    list_header head = {};     // unless DAMAGED
    bool other_order = false;  // the records were turned into this machine's byte order
    uint64_t size = 0;         // of the file
    uint32_t used = 0;         // slots
    uint32_t destroyed = 0;    // used slots that are not whole; they are empty now
    uint32_t unreadable = 0;   // pages that the card did not give
    array<uint32_t> deleted;   // slots of deleted records
};

// Reads h->list.fd into a fresh handle and judges each record once. The live ones are added to h->live, unsorted.
// Waits for the card, and gives up after MAX_UNREADABLE pages that it does not give.
// 0, or -1 with errno: ESPIPE, it is no regular file; anything else, nothing is known about it.
constexpr uint32_t MAX_UNREADABLE = 16;
int load(kyt_handle* h, loaded* l);

// Forgets the records that were read.
void unload(kyt_handle* h, loaded* l);

// Reads a file of a folder that way, changing nothing, and sorts the live records, each ts once.
// 0, or the errno: ENOENT, there is none; ENOMEM; EBADMSG, it cannot be read.
int load_copy(int folder, const char* name, kyt_handle* h, loaded* l, array<uint32_t>* doubles);

inline bool is_list(const loaded& l) {
    return l.header == header_kind::INTACT;
}
inline bool has_state(const loaded& l, file_state state) {
    return is_list(l) && l.head.state == static_cast<uint32_t>(state);
}
inline bool is_closed(const loaded& l) {
    return has_state(l, file_state::CLOSED);
}
// Whether the file is not as long as it was when its header was written. An open list may have become longer, whatever
// its size; a closed one has a size that the library leaves behind.
inline bool has_wrong_size(const loaded& l) {
    const bool odd = l.size % STEP_BYTES != 0 || l.size > MAX_BYTES;
    return is_list(l) && (l.used < l.head.records || (is_closed(l) && (odd || l.used > l.head.records)));
}

}  // namespace kyt
