// One record of the list file: 8 bytes that show by themselves whether they are whole.
//
//   byte  0..3  ts, 32 bits in the file's byte order
//         4     the clip's seconds
//         5, 7  check over bytes 0 to 4, low byte first
//         6     flags; outside the check, since callers change them in place
//
// The check is a CRC-16 whose final mask tells a live record from a deleted one. The masks are complements, so no
// single burst of wrong bits turns one into the other, and neither zeros nor ones pass. Noise passes for a live record
// once in 65,536 times; an opening that finds damage therefore asks the folder for a second opinion.
//
// A slot whose last four bytes are EMPTY is free, whatever its ts is. So a slot changes from one clip to another in
// steps of one word, each of which leaves a whole record: a copy taken at any moment never holds half of one.
#pragma once

#include "kyt.h"

namespace kyt {

enum class slot : uint8_t { UNUSED, EMPTY, LIVE, DELETED, BAD };

slot slot_kind(const kyt_record& record);

kyt_record live_record(uint32_t ts, uint8_t seconds, uint8_t flags);
kyt_record deleted_record(const kyt_record& live);  // keeps duration and flags: the clip may come back
kyt_record returned_record(const kyt_record& deleted);

inline bool is_live(const kyt_record& record) {
    return slot_kind(record) == slot::LIVE;
}

// A record of a machine of the other byte order, as this one stores it; and back.
kyt_record swapped(const kyt_record& record);

// These change a slot that another thread may be copying.
void put_record(kyt_record* slot, const kyt_record& record);
void put_empty(kyt_record* slot);  // its ts stays

// Copies slots that another thread may be changing: each record as it is at some moment.
void copy_records(kyt_record* to, const kyt_record* from, uint32_t count);

// A sum over the slots, whatever is happening to them at the time. Never 0, and bit 0 is clear.
uint64_t sum_of(const kyt_record* from, uint32_t count);

}  // namespace kyt
