// The order of the records: which slot comes after which, where a ts is, what is deleted.
//
// A slot once used is not moved while the file is in use, so pointers stay good. Records mostly arrive in ascending
// order of ts: those slots are the main row, which a binary search can use as it lies. A record that comes with a ts
// below the main row's last one is a stray: it lies between the others, and an array in memory says in which order the
// strays are read (4 bytes each) and which slots they fill (8 bytes for each unbroken run). Deleted records keep their
// slot and their ts, as tombstones; unbroken runs of them are remembered as well (8 bytes each, at most MAX_DEAD_RUNS)
// so that a walk jumps over a run in one step however long it is. A rewritten file has neither strays nor, mostly,
// tombstones.
//
// Records that were taken over unread (`unread`) may be anything: destroyed, out of order, twice. Before a walk they
// are put in order as they are, so that the oldest is the oldest; without memory for that, a walk shows those only that
// stand between two whole ones, and only ascending, so it comes to an end whatever lies there.
//
// Invariants: a ts is in one slot at most; slots [0, count) are used, none behind; slot 0 belongs to the main row.
// Nothing here waits, and only slots are read or written in the mapping: a bus fault may jump out anywhere, after which
// the list may still be walked and freed. Memory comes from malloc only while no slot is being touched.
#pragma once

#include "array.h"
#include "record.h"

namespace kyt {

struct slots {
    uint32_t first;
    uint32_t end;  // one past the last
};

struct list {
    static constexpr uint32_t NONE = UINT32_MAX;
    static constexpr uint32_t MAX_DEAD_RUNS = 1024;

    kyt_record* at = nullptr;  // slot 0, in the mapping or on the heap
    uint32_t count = 0;        // used slots
    uint32_t live = 0;         // of them: live records
    uint32_t last_main = NONE;
    uint32_t live_from = 0;      // no slot from here on is deleted, so that a walk need not look at their checks
    uint32_t unread = 0;         // slots [0, unread) were taken over and are not vouched for
    bool ordered = false;        // their order is known, whatever they are
    uint32_t found_deleted = 0;  // of them: when they were put in order, tombstones that nobody here had made

    // The records behind which simply the next slot follows: nearly all of a list that is in order.
    uintptr_t plain_at = 0;
    uintptr_t plain_bytes = 0;

    // The ts of the last slot of each full page of slots, 0 where nobody has looked yet; a slot keeps its ts, so it
    // stays true. A search among the slots themselves would touch nearly as many pages as it has steps, and a camera's
    // processor knows its way to few pages at a time.
    static constexpr uint32_t PAGE = 4096 / sizeof(kyt_record);
    mutable array<uint32_t> page_ends;

    array<uint32_t> strays;    // slots, ascending by ts
    uint32_t first_stray = 0;  // in strays: all before it are deleted
    array<slots> stray_runs;   // ascending; touching runs are one
    array<slots> dead_runs;    // of the main row, ascending; touching runs are one

    void swap(list& other) {
        std::swap(at, other.at);
        std::swap(count, other.count);
        std::swap(live, other.live);
        std::swap(last_main, other.last_main);
        std::swap(live_from, other.live_from);
        std::swap(unread, other.unread);
        std::swap(ordered, other.ordered);
        std::swap(found_deleted, other.found_deleted);
        std::swap(plain_at, other.plain_at);
        std::swap(plain_bytes, other.plain_bytes);
        std::swap(first_stray, other.first_stray);
        page_ends.swap(other.page_ends);
        strays.swap(other.strays);
        stray_runs.swap(other.stray_runs);
        dead_runs.swap(other.dead_runs);
    }
};

// Takes over `count` slots as they lie. False: out of memory.
bool list_load(list* l, kyt_record* at, uint32_t count);
// The same without looking at them: said to be live and ascending.
void list_take_unread(list* l, kyt_record* at, uint32_t count);
// Puts them in order, whatever they are: costs a look at each, and memory only for what is out of order. False: out of
// memory, nothing changed.
bool list_order_unread(list* l);
// They are what they were said to be, apart from what was deleted since.
void list_trust(list* l);
void list_clear(list* l);

// The slot of ts, live or deleted, or NONE.
uint32_t list_find(const list& l, uint32_t ts);

// The live slot with the lowest ts above that of `slot` (NONE: the lowest of all), or NONE.
uint32_t list_next(const list& l, uint32_t slot);

// Whether the record behind `record` is simply that of the next slot. Null and the last one of all are not plain.
inline bool list_is_plain_behind(const list& l, const kyt_record* record) {
    return reinterpret_cast<uintptr_t>(record) - l.plain_at < l.plain_bytes;
}

// What list_next gives, with tombstones, for copying a whole list in order.
uint32_t list_next_any(const list& l, uint32_t slot);

// Appends in slot `count`, which must exist; the record's ts must be in no slot. False: out of memory, nothing changed.
bool list_append(list* l, const kyt_record& record);

// Writes a record over the tombstone of the same ts. False: out of memory, nothing changed.
bool list_revive(list* l, uint32_t slot, const kyt_record& record);

// Makes a live slot a tombstone.
void list_delete(list* l, uint32_t slot, uint8_t round);

// Whether list_delete, or a tombstone that was loaded, may be behind the state of this slot of the main row: of more
// than MAX_DEAD_RUNS runs nobody knows.
bool list_may_have_deleted(const list& l, uint32_t slot);

}  // namespace kyt
