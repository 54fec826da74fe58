// One record of the list file: 8 bytes that tell by themselves whether they are whole.
//
//   byte  0..3  ts, 32 bits in the file's byte order
//         4     a live record: the clip's seconds; a deleted one: the maintenance round in which it was deleted
//         5, 7  check over bytes 0 to 4, low byte first
//         6     flags; outside the check, since callers change them in place
//
// The check is a CRC-16 whose final mask tells a live record from a deleted one. The masks are complements, so no
// single burst of wrong bits turns one into the other, and neither zeros nor ones pass. Noise passes for a live record
// once in 65,536 times; whoever reads a damaged file asks the folder for a second opinion.
#pragma once

#include "kyt.h"

namespace kyt {

enum class slot : uint8_t { FREE, LIVE, DELETED, BAD };

slot slot_kind(const kyt_record& record);

// The same for going through very many of them: what each byte adds to the check, 2.5 KiB.
struct check_table {
    uint16_t of[5][256];
    check_table();
};
slot slot_kind(const kyt_record& record, const check_table& table);

kyt_record live_record(uint32_t ts, uint8_t seconds, uint8_t flags);
kyt_record deleted_record(const kyt_record& record, uint8_t round);  // flags are kept: the clip may come back

inline bool is_live(const kyt_record& record) {
    return slot_kind(record) == slot::LIVE;
}

// What a machine of the other byte order wrote, as this one writes it.
kyt_record swapped(const kyt_record& record);

inline uint8_t round_of(const kyt_record& deleted) {
    return deleted.reserved[0];
}

}  // namespace kyt
