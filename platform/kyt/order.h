// The live records in order of time: an array of their slots, ascending by ts, in a reservation of its own.
//
// The array is a window that moves forward as the oldest clips go and new ones come, both in O(1). For a record in
// between, the shorter side moves by one place, 4 bytes a record; a deletion far from both ends only marks the entry,
// and one pass takes out the marks when there are many. Until its entry is gone, a deleted record must keep its ts.
// A search first looks at a sample of every 64th ts, so that it touches few pages: a small processor knows its way to
// 32 of them, and each further one is an exception. Memory: 4 bytes a record and 4 a sample; what the window has left
// behind goes back to the system in steps of 64 KiB.
#pragma once

#include "array.h"
#include "format.h"

namespace kyt {

struct order {
    static constexpr uint32_t ROOM = 2 * MAX_RECORDS;  // entries
    static constexpr uint32_t STEP = STEP_BYTES / sizeof(uint32_t);
    static constexpr uint32_t SPACING = 64;
    static constexpr uint32_t START = STEP;              // of the window, at first: late clips may come before it
    static constexpr uint32_t GONE = uint32_t{1} << 31;  // marks the entry of a deleted record
    static constexpr uint32_t SLOT = GONE - 1;

    kyt_record* slots = nullptr;
    uint32_t* entries = nullptr;  // ROOM of them, in memory that is zero and takes no room until it is used
    uint32_t* samples = nullptr;  // behind them: the ts of the entries whose places are multiples of SPACING
    uint32_t first = START;       // never a marked entry
    uint32_t end = START;
    uint32_t gone = 0;        // marked entries
    uint32_t hint = 0;        // the place that was looked at last; may be any number
    uint32_t given_back = 0;  // entries before this one take no memory; a multiple of STEP

    uint32_t size() const { return end - first - gone; }
    bool is_gone(uint32_t place) const { return (entries[place] & GONE) != 0; }
    uint32_t ts_at(uint32_t place) const { return slots[entries[place] & SLOT].ts; }
};

// While a list is opened: adds slots in any order, then sorts them; only then can they be found. Of several slots with
// one ts the first one has the flags and the duration, if any has; the others go to `doubles`.
void order_add(order* o, uint32_t slot);
void order_sort(order* o);
void order_drop_doubles(order* o, array<uint32_t>* doubles);

// The first place whose ts is not below `ts`; o.end: none.
uint32_t order_place(const order& o, uint32_t ts);

// The live record of ts, or null.
kyt_record* order_find(order* o, uint32_t ts);

// The live record after `prev`, which may have been live until just now; null: the oldest one.
kyt_record* order_next(order* o, const kyt_record* prev);

// Whether one more entry fits. It always does when less than half of the room was passed since order_tidy.
inline bool order_has_room(const order& o) {
    return o.end < order::ROOM;
}
// The slot is filled already, its ts is in no other one, and there is room.
void order_insert(order* o, uint32_t slot);
// `record` is in the list, and is changed only after the call.
void order_remove(order* o, const kyt_record* record);

// Takes out the marks, and moves the window back to the start when half of the room was passed. O(size). To be called
// before the slots of deleted records are used again.
void order_tidy(order* o);

}  // namespace kyt
