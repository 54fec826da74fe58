// The public calls on an open list. All of them run on the loop thread and none waits for the card.
#include "kyt.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <unistd.h>

#include "export.h"
#include "handle.h"
#include "kyt_rdonly.h"
#include "names.h"
#include "phrases.h"
#include "unread.h"
#include "vesk_util.h"

using namespace kyt;

namespace {

constexpr uint32_t PERIOD_END_S = 300;  // a clip is announced at its end: give the last one of an hour that long

void free_handle(kyt_handle* h) {
    h->~kyt_handle();
    std::free(h);
}

kept_file& current(kyt_handle* h) {
    return h->keeper->files[h->file];
}

// The fields that outlive the file in use.
void changed(kyt_handle* h) {
    std::atomic<uint32_t>& changes = h->keeper->changes;
    changes.store(changes.load(std::memory_order_relaxed) + 1, std::memory_order_release);  // nobody else writes it
}

// Tells the keeper how many slots are used, and wakes it when the file should grow.
void tell_used(kyt_handle* h) {
    kept_file& file = current(h);
    file.used.store(h->order.count, std::memory_order_release);
    const uint32_t capacity = file.capacity.load(std::memory_order_acquire);
    if (h->order.count + SPARE_RECORDS > slots_in(capacity) && h->asked_bytes != capacity) {
        h->asked_bytes = capacity;
        keeper_wake(h->keeper);
    }
}

void take_growth(kyt_handle* h) {
    const uint32_t capacity = current(h).capacity.load(std::memory_order_acquire);
    if (capacity > h->map.in_file && region_grow(&h->map, current(h).fd, capacity) == 0) {
        h->keeper->mapped.store(capacity, std::memory_order_release);
        changed(h);  // records may have moved from memory into the file
    }
}

// What the keeper has found in the records that the open took over unread, once it is through.
void take_findings(kyt_handle* h) {
    keeper* const k = h->keeper;
    if (h->order.unread == 0 || h->distrusted || !k->inspected.load(std::memory_order_acquire)) {
        return;
    }
    // A list that was closed in order had no tombstones; those that the loop has made since are its own.
    uint32_t deleted = h->order.found_deleted;
    for (const uint32_t slot_number : k->deleted) {
        const bool still = slot_kind(h->order.at[slot_number]) == slot::DELETED;
        deleted += still && !list_may_have_deleted(h->order, slot_number) ? 1 : 0;
    }
    k->deleted.clear();
    const findings& found = k->found;
    if (!found.any() && deleted == 0) {
        list_trust(&h->order);
        return;
    }
    h->distrusted = true;
    if (!h->order.ordered) {
        h->order.live -= std::min(h->order.live, found.destroyed + deleted);
    }
    phrases words;
    if (found.destroyed > 0) {
        words.add("%u of its records were destroyed", found.destroyed);
    }
    if (deleted > 0) {
        words.add("%u of its records were deleted ones", deleted);
    }
    if (found.out_of_order) {
        words.add("its records were out of order");
    }
    if (found.behind > 0) {
        words.add("there was something behind its end");
    }
    if (found.out_of_memory) {
        words.add("there was no memory for looking at it");
    }
    log_warning("kyt: the list was closed in order, but %s: the next maintenance writes it anew, marks may be lost",
                words.text);
}

int add(kyt_handle* h, const kyt_record& record) {
    const uint32_t known = list_find(h->order, record.ts);
    if (known != list::NONE) {
        if (is_live(h->order.at[known])) {
            errno = EEXIST;
            return -1;
        }
        if (!list_revive(&h->order, known, record)) {
            errno = ENOMEM;
            return -1;
        }
        changed(h);
        return 0;
    }
    take_growth(h);
    if (h->order.count >= slots_in(h->map.usable) && region_overflow(&h->map) < 0) {
        if (!h->said_full) {
            h->said_full = true;
            log_err("kyt: no room in the list for %u and later ones", record.ts);
        }
        keeper_wake(h->keeper);
        errno = ENOSPC;
        return -1;
    }
    if (!list_append(&h->order, record)) {
        errno = ENOMEM;
        return -1;
    }
    h->said_full = false;
    changed(h);
    tell_used(h);
    return 0;
}

// Takes over what a comparison has found. Adds only, so pointers stay good.
void take_found(kyt_handle* h) {
    if (h->taken || h->keeper->at.load(std::memory_order_acquire) != phase::DONE) {
        return;
    }
    h->taken = true;
    const job& work = h->keeper->work;
    uint32_t added = 0;
    uint32_t first = 0;
    for (const uint32_t ts : work.missing) {
        // Deleted since the thread looked, or announced: then it is no news. A destroyed record may have kept its ts.
        const uint32_t known = list_find(h->order, ts);
        const bool is_news = known == list::NONE || slot_kind(h->order.at[known]) == slot::BAD;
        if (is_news && add(h, live_record(ts, 0, 0)) == 0) {
            first = added++ == 0 ? ts : first;
        }
    }
    if (added > 0) {
        log_info("kyt: %u clips were on the card but not in the list, the first is %u: added", added, first);
    }
    // The files of these are still being removed, or cannot be: their tombstones stay for another round.
    for (const uint32_t ts : work.undead) {
        const uint32_t slot_number = list_find(h->order, ts);
        if (slot_number != list::NONE && slot_kind(h->order.at[slot_number]) == slot::DELETED) {
            h->order.at[slot_number] = deleted_record(h->order.at[slot_number], h->round);
        }
    }
    if (work.complete) {
        h->compared = true;
        h->compared_round = h->round;
    }
}

// Whether the rewriting leaves a tombstone out.
bool is_dropped(const job& work, const kyt_record& record) {
    return work.may_drop && slot_kind(record) == slot::DELETED &&
           static_cast<int8_t>(round_of(record) - work.drop_round) < 0;
}

// Carries what has happened since the rewriting began into the new list. Both are walked in order, once.
bool carry_changes(const list& from, const job& work, list* to, region* map) {
    const uint32_t copied = to->count;
    uint32_t at = 0;
    for (uint32_t slot_number = list_next_any(from, list::NONE); slot_number != list::NONE;
         slot_number = list_next_any(from, slot_number)) {
        const kyt_record& record = from.at[slot_number];
        while (at < copied && to->at[at].ts < record.ts) {
            ++at;
        }
        if (at < copied && to->at[at].ts == record.ts) {
            if (std::memcmp(&to->at[at], &record, sizeof record) != 0) {
                to->at[at] = record;
            }
            continue;
        }
        // A tombstone that was left out stays out, unless its clip has been recorded and deleted once more.
        if (!is_dropped(work, record)) {
            if (to->count >= slots_in(map->usable) && region_overflow(map) < 0) {
                return false;
            }
            if (!list_append(to, record)) {
                return false;
            }
        }
    }
    return true;
}

bool is_without_clip(const job& work, uint32_t slot_number, const kyt_record& record) {
    return slot_number < work.inherited && is_live(record) &&
           std::binary_search(work.without_clip.begin(), work.without_clip.end(), record.ts);
}

// The same out of a list that may hold anything, in any order. Of several records with one ts the one that counts is
// that which the loop finds by it.
bool carry_mended(const list& from, const job& work, list* to, region* map) {
    uint32_t expected = 0;  // mostly they lie alike
    for (uint32_t slot_number = 0; slot_number < from.count; ++slot_number) {
        const kyt_record& record = from.at[slot_number];
        const slot kind = slot_kind(record);
        if (kind != slot::LIVE && kind != slot::DELETED) {
            continue;
        }
        const bool there = expected < to->count && to->at[expected].ts == record.ts;
        const uint32_t found = there ? expected : list_find(*to, record.ts);
        if (found != list::NONE) {
            const bool same = std::memcmp(&to->at[found], &record, sizeof record) == 0;
            if (!same && list_find(from, record.ts) == slot_number) {
                to->at[found] = record;
            }
            expected = found + 1;
            continue;
        }
        if (is_dropped(work, record) || is_without_clip(work, slot_number, record)) {
            continue;
        }
        if ((to->count >= slots_in(map->usable) && region_overflow(map) < 0) || !list_append(to, record)) {
            return false;
        }
    }
    return true;
}

// Goes over to the rewritten file. False: it is not to be used.
bool switch_file(kyt_handle* h) {
    const int other = 1 - h->file;
    kept_file& file = h->keeper->files[other];
    const uint32_t bytes = file.capacity.load(std::memory_order_acquire);
    region map;
    list order;
    if (region_map(&map, file.fd, bytes) < 0) {
        return false;
    }
    order.at = region_slots(map);
    order.count = h->keeper->work.new_records;
    order.last_main = order.count > 0 ? order.count - 1 : list::NONE;
    const job& work = h->keeper->work;
    const auto carry = work.mend ? carry_mended : carry_changes;
    if (!carry(h->order, work, &order, &map) || !list_load(&order, region_slots(map), order.count)) {
        region_unmap(&map);
        return false;
    }
    region_unmap(&h->map);
    h->map = map;
    h->order.swap(order);
    h->file = other;
    h->distrusted = false;
    h->asked_bytes = 0;
    h->keeper->mapped.store(bytes, std::memory_order_release);
    file.used.store(h->order.count, std::memory_order_release);
    changed(h);
    return true;
}

bool may_drop(const kyt_handle& h, const kyt_record& record) {
    return h.compared && static_cast<int8_t>(round_of(record) - h.compared_round) < 0 &&
           slot_kind(record) == slot::DELETED;
}

// Rewriting costs 8 bytes a record, so it waits until there is something to gain: order, or one dead slot in 64. That
// is less than a sector written for each clip deleted, and keeps a file of 100,000 clips below 8.7 bytes a clip.
bool worth_rewriting(const kyt_handle& h) {
    uint32_t dead = 0;
    for (uint32_t i = 0; i < h.order.count; ++i) {
        dead += may_drop(h, h.order.at[i]) ? 1 : 0;
    }
    return h.order.strays.size > 0 || dead >= SPARE_RECORDS + h.order.live / 64;
}

bool set_up_rewriting(kyt_handle* h) {
    job& work = h->keeper->work;
    const list& order = h->order;
    work.mend = h->distrusted;
    work.inherited = order.unread;
    if (h->distrusted) {
        work.records = order.count;
        work.may_drop = h->compared;
        work.drop_round = h->compared_round;
        return true;
    }
    // What has not been read yet may turn out to be in need of mending: the next maintenance knows.
    if (order.unread > 0 || !worth_rewriting(*h) || !work.strays.reserve(order.strays.size) ||
        !work.runs.reserve(order.strays.size)) {
        return false;
    }
    work.records = order.count;
    work.strays.size = work.runs.size = 0;
    for (const uint32_t slot_number : order.strays) {
        (void)work.strays.push(slot_number);
        (void)work.runs.push(slot_number);
    }
    std::sort(work.runs.begin(), work.runs.end());
    work.may_drop = h->compared;
    work.drop_round = h->compared_round;
    return true;
}

void start_work(kyt_handle* h) {
    job& work = h->keeper->work;
    const auto now = static_cast<uint32_t>(time(nullptr));
    work.horizon = now < PERIOD_END_S ? 0 : (now - PERIOD_END_S) / PERIOD_S * PERIOD_S;
    work.rewrite = set_up_rewriting(h);
    ++h->round;
    h->taken = false;
    h->keeper->at.store(phase::WORK, std::memory_order_release);
    keeper_wake(h->keeper);
}

// A failed write leaves pages that the kernel takes for clean: made dirty again, they are written again.
void write_again(kyt_handle* h) {
    if (h->keeper->redirty.exchange(false, std::memory_order_acq_rel)) {
        const uint32_t end = RECORDS_AT + h->order.count * static_cast<uint32_t>(sizeof(kyt_record));
        for (uint32_t offset = RECORDS_AT; offset < std::min(end, h->map.in_file); offset += 4096) {
            volatile uint8_t* const byte = h->map.base + offset;
            *byte = *byte;
        }
        changed(h);
    }
}

bool read_only(const kyt_handle* h) {
    if (!h->keeper) {
        errno = EROFS;
    }
    return !h->keeper;
}

// Kept out of kyt_next, so that a step within what is in order costs no more than a look at the bounds.
__attribute__((noinline)) kyt_record* next_by_search(kyt_handle* h, const kyt_record* prev) {
    if (!h || (prev && (prev < h->order.at || prev >= h->order.at + h->order.count))) {
        return nullptr;
    }
    if (h->keeper) {
        take_findings(h);
    }
    // Whoever walks may be after the oldest one, to delete it: then a page in another one's place must not decide.
    if (h->order.unread > 0 && !h->order.ordered) {
        (void)list_order_unread(&h->order);
    }
    const uint32_t from = prev ? static_cast<uint32_t>(prev - h->order.at) : list::NONE;
    const uint32_t slot_number = list_next(h->order, from);
    return slot_number == list::NONE ? nullptr : h->order.at + slot_number;
}

}  // namespace

kyt_handle* kyt::open_folder(const char* path, reading wanted) {
    const int folder = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return nullptr;
    }
    ready_file ready;
    auto* const memory = std::malloc(sizeof(kyt_handle));
    kyt_handle* const h = memory ? new (memory) kyt_handle : nullptr;
    const bool unread = h && wanted == reading::AS_NEEDED && take_unread(folder, &ready, &h->map);
    if (unread) {
        list_take_unread(&h->order, region_slots(h->map), ready.records);
    }
    bool ok = unread || (h && prepare_list(folder, &ready) == 0 && region_map(&h->map, ready.fd, ready.bytes) == 0);
    if (ok && !unread && !list_load(&h->order, region_slots(h->map), ready.records)) {
        errno = ENOMEM;
        ok = false;
    }
    if (ok) {
        h->file = ready.name;
        h->keeper = keeper_start(folder, ready, unread);
        ok = h->keeper;
    }
    if (!ok) {
        const int failure = errno;
        if (h) {
            region_unmap(&h->map);
            free_handle(h);
        }
        if (ready.fd >= 0) {
            close(ready.fd);
        }
        close(folder);
        errno = failure;
        return nullptr;
    }
    return h;
}

KYT_API kyt_handle* kyt_open_rdwr(void) {
    return open_folder(RECORD_FOLDER);
}

KYT_API void kyt_close(kyt_handle* h) {
    if (!h) {
        return;
    }
    if (h->keeper) {
        write_again(h);
        take_growth(h);
        take_findings(h);
        const list& order = h->order;
        const uint32_t end = RECORDS_AT + order.count * static_cast<uint32_t>(sizeof(kyt_record));
        const uint32_t waiting = end > h->map.in_file ? end - h->map.in_file : 0;
        // What has not been read through in this session is not vouched for: the next one reads it.
        const bool in_order = order.unread == 0 && order.strays.size == 0 && order.live == order.count;
        keeper_close(h->keeper, {h->file, h->map.base + h->map.in_file, waiting, h->map.in_file, in_order});
        region_unmap(&h->map);
    }
    free_handle(h);
}

KYT_API void kyt_close_dirty(kyt_handle* h) {
    if (!h) {
        return;
    }
    if (h->keeper) {
        keeper_abandon(h->keeper);
        region_unmap(&h->map);
    }
    free_handle(h);
}

KYT_API int kyt_optimise(kyt_handle* h) {
    if (!h || read_only(h)) {
        errno = h ? EROFS : EINVAL;
        return -1;
    }
    keeper* const k = h->keeper;
    write_again(h);
    take_growth(h);
    take_findings(h);
    take_found(h);
    if (k->at.load(std::memory_order_acquire) == phase::DONE) {
        if (k->work.rewritten) {
            k->at.store(switch_file(h) ? phase::COMMIT : phase::DISCARD, std::memory_order_release);
            keeper_wake(k);
            return 0;  // the next comparison is the next call's, however fast the keeper is
        }
        k->at.store(phase::IDLE, std::memory_order_relaxed);
    }
    if (k->at.load(std::memory_order_acquire) == phase::IDLE) {
        start_work(h);
    }
    return 0;
}

KYT_API kyt_record* kyt_get(kyt_handle* h, uint32_t ts) {
    if (!h) {
        return nullptr;
    }
    // Whoever names many clips mostly names them as they lie, so the slot behind the last one is looked at before
    // anything is searched: a ts is in one slot at most.
    uint32_t slot_number = h->expected;
    if (slot_number >= h->order.count || h->order.at[slot_number].ts != ts) {
        slot_number = list_find(h->order, ts);
    }
    if (slot_number == list::NONE || !is_live(h->order.at[slot_number])) {
        return nullptr;
    }
    h->expected = slot_number + 1;
    if (h->keeper) {
        changed(h);  // it is about to be
    }
    return h->order.at + slot_number;
}

KYT_API kyt_record* kyt_next(kyt_handle* h, const kyt_record* prev) {
    if (h && list_is_plain_behind(h->order, prev)) [[likely]] {
        return const_cast<kyt_record*>(prev) + 1;  // the list's own, which its caller may change
    }
    return next_by_search(h, prev);
}

KYT_API int kyt_write(kyt_handle* h, const kyt_record* record) {
    if (!h || !record || !is_live(*record)) {
        errno = EINVAL;
        return -1;
    }
    if (read_only(h)) {
        return -1;
    }
    write_again(h);
    take_findings(h);
    // The announcement first: a comparison that has found the same clip knows neither its duration nor its mark.
    const int result = add(h, *record);
    const int error = errno;
    take_found(h);
    errno = error;
    return result;
}

KYT_API int kyt_mark_deleted(kyt_handle* h, kyt_record* record) {
    if (!h || !record || record < h->order.at || record >= h->order.at + h->order.count || !is_live(*record)) {
        errno = EINVAL;
        return -1;
    }
    if (read_only(h)) {
        return -1;
    }
    list_delete(&h->order, static_cast<uint32_t>(record - h->order.at), h->round);
    changed(h);
    return 0;
}

KYT_API uint32_t kyt_count(const kyt_handle* h) {
    return h ? h->order.live : 0;
}
