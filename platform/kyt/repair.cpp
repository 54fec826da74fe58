#include "repair.h"

#include <cerrno>

#include "record.h"

namespace kyt {
namespace {

constexpr uint64_t NEVER = uint64_t{UINT32_MAX} + 1;  // later than any ts

bool free_slot(repair* r, uint32_t slot) {
    put_empty(r->h->list.slots + slot);
    return r->h->empty.push(slot);
}

// The ascending slots of the list, of deleted records and the clips of the folder, walked side by side.
struct merger {
    repair* r;
    const uint32_t* live;
    const uint32_t* live_end;
    const uint32_t* deleted;
    const uint32_t* deleted_end;
    const uint32_t* clip;
    const uint32_t* clip_end;
    array<uint32_t> merged;  // slots

    uint64_t ts_of(const uint32_t* slot, const uint32_t* end) const {
        return slot == end ? NEVER : r->h->list.slots[*slot].ts;
    }

    bool merge_live(uint32_t slot, bool on_card) {
        // What looks like a record in a damaged file may be noise. A clip that is gone needs no record anyway.
        const bool drop = !on_card && (r->damaged || r->other_card) && is_known(r->card, r->h->list.slots[slot].ts);
        r->dropped += drop ? 1 : 0;
        return drop ? free_slot(r, slot) : merged.push(slot);
    }

    bool merge_deleted(uint32_t slot, bool on_card) {
        kyt_record* const record = r->h->list.slots + slot;
        if (!on_card) {
            return is_known(r->card, record->ts) ? free_slot(r, slot) : r->h->tombstones.push({record->ts, slot, 0});
        }
        r->first_returned = r->returned++ == 0 ? record->ts : r->first_returned;
        put_record(record, returned_record(*record));
        return merged.push(slot);
    }

    // A record for a clip that the list does not have.
    bool add_clip(uint32_t ts) {
        kyt_handle* const h = r->h;
        uint32_t slot = h->list.used;
        if (h->empty.size > 0) {
            slot = h->empty[--h->empty.size];
        } else if (slot == MAX_RECORDS) {
            ++r->left_out;
            return true;
        } else {
            ++h->list.used;
        }
        const kyt_record* const known =
            std::lower_bound(r->known.begin(), r->known.end(), ts,
                             [](const kyt_record& record, uint32_t wanted) { return record.ts < wanted; });
        const bool is_marked = known != r->known.end() && known->ts == ts;
        put_record(h->list.slots + slot, is_marked ? *known : live_record(ts, 0, 0));
        ++r->added;
        return merged.push(slot);
    }

    // False: out of memory.
    bool run(bool everything) {
        for (;;) {
            const uint64_t live_ts = ts_of(live, live_end);
            const uint64_t deleted_ts = ts_of(deleted, deleted_end);
            const uint64_t clip_ts = clip == clip_end ? NEVER : *clip;
            const uint64_t ts = std::min(std::min(live_ts, deleted_ts), clip_ts);
            if (ts == NEVER) {
                return true;
            }
            const bool on_card = clip_ts == ts;
            clip += on_card ? 1 : 0;
            bool ok = true;
            if (live_ts == ts) {
                ok = merge_live(*live++, on_card);
            } else if (deleted_ts == ts) {
                ok = merge_deleted(*deleted++, on_card);
            } else if (everything) {
                ok = add_clip(static_cast<uint32_t>(ts));
            }
            if (!ok) {
                return false;
            }
        }
    }
};

}  // namespace

bool repair_order(repair* r) {
    kyt_handle* const h = r->h;
    const auto ts_of = [h](uint32_t slot) { return h->list.slots[slot].ts; };
    // Of two records of one clip, the one with the mark stays as it is and where it is. Moving the mark would be a
    // change of two sectors, between which a power cut loses it.
    array<uint32_t> doubles;
    order_sort(&h->live);
    if (!order_drop_doubles(&h->live, &doubles)) {
        return false;
    }
    r->doubles = doubles.size;
    h->empty.swap(r->file.empty);
    array<uint32_t>& deleted = r->file.deleted;
    std::sort(deleted.begin(), deleted.end(), [&](uint32_t a, uint32_t b) { return ts_of(a) < ts_of(b); });
    uint32_t kept = 0;
    for (const uint32_t slot : deleted) {
        const uint32_t place = order_place(h->live, ts_of(slot));
        const bool is_live_too = place < h->live.end && h->live.ts_at(place) == ts_of(slot);
        if (!is_live_too && (kept == 0 || ts_of(deleted[kept - 1]) != ts_of(slot))) {
            deleted[kept++] = slot;
        } else if (!doubles.push(slot)) {
            return false;
        }
    }
    deleted.size = kept;
    for (const uint32_t slot : doubles) {
        if (!free_slot(r, slot)) {
            return false;
        }
    }
    return true;
}

bool repair_from_folder(repair* r, bool everything) {
    kyt_handle* const h = r->h;
    array<uint32_t>& deleted = r->file.deleted;
    if (!everything && deleted.size == 0) {
        return true;
    }
    for (const uint32_t slot : deleted) {
        const uint32_t period = period_of(h->list.slots[slot].ts);
        array<uint32_t>& periods = r->card.periods;
        if ((periods.size == 0 || periods[periods.size - 1] != period) && !periods.push(period)) {
            return false;
        }
    }
    if (!folder_read(r->folder, everything, &r->card)) {
        return false;
    }
    order& live = h->live;
    merger m = {r,
                live.entries + live.first,
                live.entries + live.end,
                deleted.begin(),
                deleted.end(),
                r->card.clips.begin(),
                r->card.clips.end(),
                {}};
    if (!m.merged.reserve(live.size()) || !m.run(everything)) {
        return false;
    }
    live.end = live.first;
    for (const uint32_t slot : m.merged) {
        order_add(&live, slot);
    }
    return true;
}

}  // namespace kyt
