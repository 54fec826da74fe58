#include "order.h"

#include <sys/mman.h>

#include "record.h"

namespace kyt {
namespace {

constexpr uint32_t NEAR = 256;  // records from an end

bool comes_first(const kyt_record& a, const kyt_record& b) {
    if (a.ts != b.ts) {
        return a.ts < b.ts;
    }
    return a.flags != b.flags ? a.flags > b.flags : a.reserved[0] > b.reserved[0];
}

bool is_at(const order& o, uint32_t place, const kyt_record* record) {
    return place >= o.first && place < o.end && o.entries[place] == static_cast<uint32_t>(record - o.slots);
}

// Moves `count` entries. The places may overlap.
void move_entries(order* o, uint32_t to, uint32_t from, uint32_t count) {
    std::memmove(o->entries + to, o->entries + from, size_t{count} * sizeof(uint32_t));
}

// Entries from `from` to `to`, multiples of the step: a multiple of the page, however large that is. A system that does
// not take them costs memory and nothing else.
void give_back(order* o, uint32_t from, uint32_t to) {
    (void)madvise(o->entries + from, size_t{to - from} * sizeof(uint32_t), MADV_DONTNEED);
}

// After the entries from `from` to `to` have changed.
void sample(order* o, uint32_t from, uint32_t to) {
    for (uint32_t place = (from + order::SPACING - 1) / order::SPACING * order::SPACING; place < to;
         place += order::SPACING) {
        o->samples[place / order::SPACING] = o->ts_at(place);
    }
}

void clean(order* o) {
    if (o->gone > 0) {
        const auto is_gone = [](uint32_t entry) { return (entry & order::GONE) != 0; };
        const uint32_t* const end = std::remove_if(o->entries + o->first, o->entries + o->end, is_gone);
        o->end = static_cast<uint32_t>(end - o->entries);
        o->gone = 0;
        sample(o, o->first, o->end);
    }
}

// After `first` has changed: it is no marked entry, and no memory is kept for what is well before it.
void settle_first(order* o) {
    for (; o->first < o->end && o->is_gone(o->first); ++o->first) {
        --o->gone;
    }
    const uint32_t passed = o->first / order::STEP * order::STEP;
    if (passed > o->given_back) {
        give_back(o, o->given_back, passed);
    }
    o->given_back = passed;
}

}  // namespace

void order_add(order* o, uint32_t slot) {
    o->entries[o->end++] = slot;
}

void order_sort(order* o) {
    const auto less = [o](uint32_t a, uint32_t b) { return comes_first(o->slots[a], o->slots[b]); };
    uint32_t* const begin = o->entries + o->first;
    uint32_t* const end = o->entries + o->end;
    uint32_t* const second = std::is_sorted_until(begin, end, less);
    // Slots that are used again one after the other make a ring.
    if (second != end && std::is_sorted(second, end, less) && less(end[-1], *begin)) {
        std::rotate(begin, second, end);
    } else if (second != end) {
        std::sort(begin, end, less);
    }
    sample(o, o->first, o->end);
}

void order_drop_doubles(order* o, array<uint32_t>* doubles) {
    uint32_t kept = o->first;
    for (uint32_t place = o->first; place < o->end; ++place) {
        if (kept > o->first && o->ts_at(kept - 1) == o->ts_at(place)) {
            doubles->push(o->entries[place]);
        } else {
            o->entries[kept++] = o->entries[place];
        }
    }
    o->end = kept;
    sample(o, o->first, o->end);
}

uint32_t order_place(const order& o, uint32_t ts) {
    if (o.first == o.end || o.ts_at(o.end - 1) < ts) {
        return o.end;
    }
    // The samples say between which two of them it is. One before the window may be outdated and is not asked.
    uint32_t* const samples_end = o.samples + (o.end - 1) / order::SPACING + 1;
    const uint32_t* const sample = std::lower_bound(o.samples + o.first / order::SPACING + 1, samples_end, ts);
    const auto passed = static_cast<uint32_t>(sample - o.samples);
    const uint32_t low = std::max(o.first, (passed - 1) * order::SPACING);
    const uint32_t high = sample == samples_end ? o.end : passed * order::SPACING;
    const auto is_before = [&](uint32_t entry, uint32_t wanted) { return o.slots[entry & order::SLOT].ts < wanted; };
    return static_cast<uint32_t>(std::lower_bound(o.entries + low, o.entries + high, ts, is_before) - o.entries);
}

kyt_record* order_find(order* o, uint32_t ts) {
    // A caller that names many clips mostly names them in order.
    uint32_t place = o->hint + 1;
    if (place < o->first || place >= o->end || o->ts_at(place) != ts) {
        place = order_place(*o, ts);
    }
    if (place == o->end || o->ts_at(place) != ts || o->is_gone(place)) {
        return nullptr;
    }
    o->hint = place;
    return o->slots + o->entries[place];
}

kyt_record* order_next(order* o, const kyt_record* prev) {
    uint32_t place = o->first;
    if (prev && is_at(*o, o->hint, prev)) {
        place = o->hint + 1;
    } else if (prev) {
        place = prev->ts == UINT32_MAX ? o->end : order_place(*o, prev->ts + 1);
    }
    while (place < o->end && o->is_gone(place)) {
        ++place;
    }
    o->hint = place;
    return place < o->end ? o->slots + o->entries[place] : nullptr;
}

void order_insert(order* o, uint32_t slot) {
    uint32_t place = order_place(*o, o->slots[slot].ts);
    if (o->gone > 0 && place < o->end) {
        clean(o);  // among them may be an entry of this very slot
        place = order_place(*o, o->slots[slot].ts);
    }
    if (o->first > 0 && place - o->first < o->end - place) {
        move_entries(o, o->first - 1, o->first, place - o->first);
        --o->first;
        o->entries[--place] = slot;
        settle_first(o);
        sample(o, o->first, place + 1);
    } else {
        move_entries(o, place + 1, place, o->end - place);
        o->entries[place] = slot;
        sample(o, place, ++o->end);
    }
}

void order_remove(order* o, const kyt_record* record) {
    const uint32_t place = is_at(*o, o->hint, record) ? o->hint : order_place(*o, record->ts);
    const uint32_t before = place - o->first;
    const uint32_t behind = o->end - place;
    if (std::min(before, behind) > NEAR) {
        o->entries[place] |= order::GONE;
        if (++o->gone > NEAR + (o->end - o->first) / 64) {
            clean(o);
        }
    } else if (before < behind) {
        move_entries(o, o->first + 1, o->first, before);
        sample(o, ++o->first, place + 1);
    } else {
        move_entries(o, place, place + 1, behind - 1);
        sample(o, place, --o->end);
    }
    settle_first(o);
}

void order_tidy(order* o) {
    clean(o);
    if (o->first >= order::ROOM / 2) {
        const uint32_t size = o->end - o->first;
        const uint32_t last_step = o->end / order::STEP * order::STEP;
        move_entries(o, order::START, o->first, size);
        o->first = order::START;
        o->end = o->first + size;
        o->given_back = 0;
        sample(o, o->first, o->end);
        const uint32_t kept = (o->end + order::STEP - 1) / order::STEP * order::STEP;
        give_back(o, std::min(kept, last_step), last_step);
    }
}

}  // namespace kyt
