// Repair of a list in memory while it is opened: what the file holds is brought together with what is in the folder.
// Nothing is written: the keeper finds the sectors that differ from the file, as after any change.
#pragma once

#include "folder.h"
#include "handle.h"
#include "phrases.h"

namespace kyt {

struct repair {
    int folder = -1;
    kyt_handle* h = nullptr;

    // What was found in the file.
    loaded file;
    int failure = 0;          // errno of an open or a read that shows that there is no list; ENOENT: no file
    bool exists = false;      // there is a file, and it stays the list's
    bool damaged = false;     // something in it was destroyed or is missing, or there was a file but no list
    bool other_card = false;  // it was made on another card: believed only where a clip is on this one
    uint32_t doubles = 0;
    uint32_t missing = 0;  // of the live records that its header promises

    // What was found elsewhere.
    contents card;
    array<kyt_record> known;  // records of files that were set aside, ascending by ts: for a list that is made again

    // What was done.
    uint32_t added = 0;
    uint32_t returned = 0;  // deleted clips that are still on the card
    uint32_t first_returned = 0;
    uint32_t dropped = 0;   // records of a damaged file without a clip
    uint32_t left_out = 0;  // clips for which there is no room
    phrases found;
    phrases done;
};

// Sorts the slots that were read, and frees those whose clip has another one. False: out of memory.
bool repair_order(repair* r);

// Brings the list and the folder together: all of it with `everything`, otherwise only the periods of deleted records.
// False: out of memory.
bool repair_from_folder(repair* r, bool everything);

// One line of the log, if there is anything to say. failure: why no list is in use, or 0.
void repair_report(repair* r, int failure);

}  // namespace kyt
