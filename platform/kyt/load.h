// Reading a list file by plain reads: what is whole in it, and what is wrong with it.
#pragma once

#include "array.h"
#include "format.h"

namespace kyt {

struct loaded {
    // 0: a file was read. ENOENT: there is none. Else why nothing could be read at all.
    int failure = 0;
    header_kind header = header_kind::DAMAGED;
    list_header head = {};     // unless DAMAGED
    bool other_order = false;  // the records were turned into this machine's byte order
    bool empty = false;        // a file of no bytes
    bool odd_size = false;     // not a size that the library leaves behind: cut short, or grown by somebody else
    bool ascending = true;     // strictly, tombstones included
    uint32_t used = 0;         // slots up to the last one that is not free
    uint32_t destroyed = 0;    // of them: not whole, or free although used ones follow
    uint32_t deleted = 0;
    uint32_t unreadable = 0;    // pages that the card did not give
    array<kyt_record> records;  // all whole ones, live and deleted, as they lie
};

// Fills `l`, which must be fresh.
void load_file(int folder, const char* name, loaded* l);

// Both of the list's files. False: out of memory; whatever else is wrong with one is in its record.
bool load_files(int folder, loaded (*files)[2]);

inline bool is_list(const loaded& l) {
    return l.failure == 0 && l.header == header_kind::INTACT &&
           l.head.state != static_cast<uint32_t>(file_state::WRITING);
}

// Whether the file, or what is used of it, is not as long as it was when its header was written. A list that is open
// may only have become longer: what it had then was on the card.
inline bool has_wrong_size(const loaded& l) {
    const bool closed = l.head.state == static_cast<uint32_t>(file_state::CLOSED);
    return l.odd_size || l.used < l.head.records || (closed && l.used > l.head.records);
}

// Which of the two files is the list: 0 or 1, or -1 for none.
int choose_list(const loaded (&files)[2]);

}  // namespace kyt
