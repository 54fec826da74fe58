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

    bool is_list() const { return header == header_kind::INTACT; }
    bool is(file_state state) const { return is_list() && head.state == static_cast<uint32_t>(state); }
    bool is_closed() const { return is(file_state::CLOSED); }
    bool has_odd_size() const { return size % STEP_BYTES != 0 || size > MAX_BYTES; }
    // Not as long as it was when its header was written. An open list may have become longer, whatever its size.
    bool has_wrong_size() const {
        return is_list() && (used < head.records || (is_closed() && (has_odd_size() || used > head.records)));
    }
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

}  // namespace kyt
