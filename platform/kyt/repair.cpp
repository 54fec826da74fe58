#include "repair.h"

#include "record.h"

namespace kyt {
namespace {

void free_slot(repair* r, uint32_t slot) {
    put_empty(r->h->list.slots + slot);
    r->h->empty.push(slot);
}

uint32_t ts_of(const repair& r, uint32_t slot) {
    return r.h->list.slots[slot].ts;
}

void drop_without_clip(repair* r) {
    order& live = r->h->live;
    uint32_t kept = live.first;
    for (uint32_t place = live.first; place < live.end; ++place) {
        const uint32_t ts = live.ts_at(place);
        if (contains(r->card.clips, ts) || !is_known(r->card, ts)) {
            live.entries[kept++] = live.entries[place];
        } else {
            ++r->dropped;
            free_slot(r, live.entries[place]);
        }
    }
    live.end = kept;
}

// The slot of a deleted record is free when its clip is gone. A clip that is still there comes back.
void settle_deleted(repair* r) {
    for (const uint32_t slot : r->file.deleted) {
        kyt_record* const record = r->h->list.slots + slot;
        if (contains(r->card.clips, record->ts)) {
            r->first_returned = r->returned++ == 0 ? record->ts : r->first_returned;
            put_record(record, returned_record(*record));
            order_add(&r->h->live, slot);
        } else if (is_known(r->card, record->ts)) {
            free_slot(r, slot);
        } else {
            r->h->tombstones.push({record->ts, slot, 0});
        }
    }
    order_sort(&r->h->live);
}

// The record of a clip that the list does not have.
kyt_record record_for(repair* r, uint32_t ts) {
    const kyt_record* best = nullptr;
    for (kyt_handle* const list : r->aside) {
        const kyt_record* const found = list ? order_find(&list->live, ts) : nullptr;
        best = found && (!best || found->flags > best->flags) ? found : best;
    }
    return best ? *best : live_record(ts, 0, 0);
}

void add_clips(repair* r) {
    kyt_handle* const h = r->h;
    order listed = h->live;  // what is added comes after its end, until all is sorted
    for (const uint32_t ts : r->card.clips) {
        if (order_find(&listed, ts)) {
            continue;
        }
        if (h->empty.size == 0 && h->list.used == MAX_RECORDS) {
            ++r->left_out;
            continue;
        }
        const uint32_t slot = h->empty.size > 0 ? h->empty[--h->empty.size] : h->list.used++;
        put_record(h->list.slots + slot, record_for(r, ts));
        order_add(&h->live, slot);
        ++r->added;
    }
    order_sort(&h->live);
}

}  // namespace

void repair_order(repair* r) {
    order& live = r->h->live;
    // Of two records of one clip, the one with the mark stays as it is and where it is. Moving the mark would be a
    // change of two sectors, between which a power cut loses it.
    order_sort(&live);
    order_drop_doubles(&live, &r->doubles);
    for (const uint32_t slot : r->doubles) {
        free_slot(r, slot);
    }
    array<uint32_t>& deleted = r->file.deleted;
    std::sort(deleted.begin(), deleted.end(), [r](uint32_t a, uint32_t b) { return ts_of(*r, a) < ts_of(*r, b); });
    uint32_t kept = 0;
    for (const uint32_t slot : deleted) {
        const uint32_t ts = ts_of(*r, slot);
        if (!order_find(&live, ts) && (kept == 0 || ts_of(*r, deleted[kept - 1]) != ts)) {
            deleted[kept++] = slot;
        } else {
            free_slot(r, slot);
        }
    }
    deleted.size = kept;
}

void repair_from_folder(repair* r, bool everything) {
    array<uint32_t>& periods = r->card.periods;
    for (const uint32_t slot : r->file.deleted) {
        const uint32_t period = period_of(ts_of(*r, slot));
        if (periods.size == 0 || periods[periods.size - 1] != period) {
            periods.push(period);
        }
    }
    folder_read(r->folder, everything, &r->card);
    // What looks like a record in a damaged file may be noise. A clip that is gone needs no record anyway.
    if (r->damaged || r->other_card) {
        drop_without_clip(r);
    }
    settle_deleted(r);
    if (everything) {
        add_clips(r);
    }
}

}  // namespace kyt
