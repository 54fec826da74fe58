#include "repair.h"

#include <cerrno>

#include "record.h"
#include "vesk_util.h"

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
        if (contains(r->card.clips, ts) || !r->card.knows(ts)) {
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
        } else if (r->card.knows(record->ts)) {
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

void add_if(bool holds, phrases* p, const char* phrase) {
    if (holds) {
        p->add("%s", phrase);
    }
}

void add_count(phrases* p, uint32_t count, const char* phrase) {
    if (count > 0) {
        p->add("%u %s", count, phrase);
    }
}

// What was wrong with the file.
void describe_file(const repair& r, phrases* p) {
    const loaded& l = r.file;
    if (r.failure != 0) {
        p->add("%s cannot be read: %s", LIST_NAME, error_text(r.failure).text);
    } else if (!l.is_list()) {
        p->add("%s %s", LIST_NAME,
               l.header == header_kind::OTHER_VERSION ? "was written by another version"
               : l.size == 0                          ? "was empty"
                                                      : "was no list");
    }
    add_if(l.is_list() && !l.is_closed(), p, "the list was not closed");
    add_if(l.unreadable > 0, p, "KYT.LST has parts that cannot be read");
    add_if(l.other_order, p, "the list comes from a machine of the other byte order");
    add_if(r.other_card, p, "the list belongs to another card");
    add_if(r.exists && l.has_wrong_size(), p, "the list was cut short or made longer");
    add_count(p, l.is_list() ? l.destroyed : 0, "of its records were destroyed");
    add_count(p, r.missing > l.destroyed ? r.missing - l.destroyed : 0, "of its records were missing");
    add_count(p, r.doubles.size, "of its records stood there twice");
}

void describe_folder(const repair& r, phrases* p) {
    const contents& c = r.card;
    if (c.failure != 0) {
        p->add("the recordings folder cannot be read: %s", error_text(c.failure).text);
    }
    if (c.unread_failure != 0) {
        p->add("%u hours of the folder cannot be read: %s", c.unread.size, error_text(c.unread_failure).text);
    }
    if (r.left_out > 0 || c.too_many) {
        p->add("more clips than a list can hold: %u%s stay out of it", r.left_out, c.too_many ? " or more" : "");
    }
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

void repair_report(const repair& r, int failure) {
    const uint32_t records = r.h->live.size();
    const bool is_new = r.failure == ENOENT;
    phrases found;
    if (!is_new) {
        describe_file(r, &found);
    }
    describe_folder(r, &found);
    if (is_new && failure == 0 && found.empty() && r.done.empty()) {
        log_info("kyt: a new list, with %u clips that are on the card", records);
        return;
    }
    add_if(is_new && found.empty(), &found, "there was no list");
    phrases done = r.done;
    if (failure == 0 && !found.empty()) {
        done.add("%u records now, of them %u from the folder", records, r.added);
    }
    add_count(&done, r.dropped, "dropped for want of a clip");
    if (r.returned > 0) {
        done.add("%u deleted clips are still on the card and back in the list, the first is %u", r.returned,
                 r.first_returned);
    }
    add_if(r.damaged, &done, "marks may be lost");
    if (failure != 0) {
        done.add("no list is in use: %s", error_text(failure).text);
    }
    const bool is_warning = failure != 0 || r.damaged || r.returned > 0 || r.other_card || r.file.other_order;
    const char* const colon = found.empty() || done.empty() ? "" : ": ";
    if (!found.empty() || !done.empty()) {
        (is_warning ? log_warning : log_info)("kyt: %s%s%s", found.text, colon, done.text);
    }
}

}  // namespace kyt
