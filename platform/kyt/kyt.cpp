// The public calls on an open list. All of them run on the loop thread; but for opening and closing, none touches a
// file.
#include "kyt.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include "export.h"
#include "folder.h"
#include "handle.h"
#include "keeper.h"
#include "kyt_rdonly.h"
#include "record.h"
#include "vesk_util.h"

using namespace kyt;

namespace {

constexpr uint32_t PERIOD_END_S = 300;  // a clip is announced at its end: an hour's last one gets that long
constexpr uint32_t NO_SLOT = UINT32_MAX;
constexpr size_t SLOTS_BYTES = MAX_BYTES;  // somewhat more than the slots take
constexpr size_t STORE_BYTES = SLOTS_BYTES + MAX_SECTORS * sizeof(uint64_t);
constexpr size_t ORDER_BYTES = (order::ROOM + order::ROOM / order::SPACING) * sizeof(uint32_t);

// The first tombstone whose ts is not below `ts`.
tombstone* find_tombstone(const kyt_handle* h, uint32_t ts) {
    return std::lower_bound(h->tombstones.begin(), h->tombstones.end(), ts,
                            [](const tombstone& t, uint32_t wanted) { return t.ts < wanted; });
}
bool is_for(const kyt_handle* h, const tombstone* t, uint32_t ts) {
    return t != h->tombstones.end() && t->ts == ts;
}

// The slot for a record of ts: the clip's own when it was deleted, a free one, or one after all others.
uint32_t take_slot(kyt_handle* h, uint32_t ts) {
    if (tombstone* const t = find_tombstone(h, ts); is_for(h, t, ts)) {
        const uint32_t slot = t->slot;
        h->tombstones.erase(t);
        return slot;
    }
    if (h->next_empty < h->empty.size) {
        return h->empty[h->next_empty++];
    }
    return h->list.used < MAX_RECORDS ? h->list.used++ : NO_SLOT;
}

int add(kyt_handle* h, const kyt_record& record) {
    if (order_find(&h->live, record.ts)) {
        return fail_with(EEXIST);
    }
    const uint32_t slot = order_has_room(h->live) ? take_slot(h, record.ts) : NO_SLOT;
    if (slot == NO_SLOT) {
        if (!h->said_full) {
            h->said_full = true;
            log_err("kyt: no room in the list for %u and later ones", record.ts);
        }
        return fail_with(ENOSPC);
    }
    h->said_full = false;
    put_record(h->list.slots + slot, record);
    order_insert(&h->live, slot);
    h->keeper->used = h->list.used;
    keeper_wake(h->keeper);
    return 0;
}

bool has_results(const kyt_handle* h) {
    return h->keeper->at == phase::DONE;
}

// Adds the clips that the last comparison has found. It only adds, so pointers stay valid.
void take_missing(kyt_handle* h) {
    if (!has_results(h)) {
        return;
    }
    uint32_t added = 0;
    uint32_t first = 0;
    for (const uint32_t ts : h->keeper->work.missing) {
        // One that was announced or deleted since the thread looked is not missing.
        if (!is_for(h, find_tombstone(h, ts), ts) && add(h, live_record(ts, 0, 0)) == 0) {
            first = added++ == 0 ? ts : first;
        }
    }
    h->keeper->work.missing.size = 0;
    if (added > 0) {
        log_info("kyt: %u clips were on the card but not in the list, the first is %u: added", added, first);
    }
}

// The slots of deleted clips whose files are gone are free from now on. One that was deleted since the comparison began
// may have been recorded again in between.
void free_slots(kyt_handle* h) {
    const array<uint32_t>& gone = h->keeper->work.deleted;
    h->empty.keep_before(std::copy(h->empty.begin() + h->next_empty, h->empty.end(), h->empty.begin()));
    h->next_empty = 0;
    uint32_t kept = 0;
    for (const tombstone& t : h->tombstones) {
        const bool is_free = t.round < h->round && contains(gone, t.ts);
        if (is_free && h->empty.reserve(h->empty.size + 1)) {
            h->empty.push(t.slot);
            put_empty(h->list.slots + t.slot);
        } else {
            h->tombstones[kept++] = t;
        }
    }
    h->tombstones.size = kept;
    keeper_wake(h->keeper);
}

// The start of the period that has not ended yet.
uint32_t current_period(const kyt_handle* h) {
    // A C library whose time_t has 32 bits may fail after 2038; then the newest clip says how late it is at least.
    const time_t now = time(nullptr);
    if (now == -1) {
        return h->live.size() > 0 ? period_of(h->live.ts_at(h->live.end - 1)) : 0;
    }
    const auto seconds = static_cast<uint32_t>(now);
    return seconds < PERIOD_END_S ? 0 : period_of(seconds - PERIOD_END_S);
}

void start_comparison(kyt_handle* h) {
    comparison& work = h->keeper->work;
    work.horizon = current_period(h);
    work.listed.size = work.deleted.size = 0;
    if (!work.listed.reserve(h->live.size()) || !work.deleted.reserve(h->tombstones.size)) {
        return;  // the next maintenance tries again
    }
    for (uint32_t place = h->live.first; place < h->live.end; ++place) {
        work.listed.push(h->live.ts_at(place));
    }
    for (const tombstone& t : h->tombstones) {
        work.deleted.push(t.ts);
    }
    ++h->round;
    h->keeper->at = phase::WORK;
    keeper_wake(h->keeper);
}

bool is_slot(const kyt_handle* h, const kyt_record* record) {
    return record >= h->list.slots && record < h->list.slots + h->list.used;
}

// Null: out of memory.
void* reserve(size_t bytes) {
    void* const made = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return made == MAP_FAILED ? nullptr : made;
}

}  // namespace

void kyt::store_free(const store& s) {
    if (s.slots) {
        munmap(s.slots, STORE_BYTES);
    }
}

kyt_handle* kyt::handle_make() {
    void* const memory = std::malloc(sizeof(kyt_handle));
    kyt_handle* const h = memory ? new (memory) kyt_handle : nullptr;
    if (h) {
        h->list.slots = h->live.slots = static_cast<kyt_record*>(reserve(STORE_BYTES));
        h->list.sums = reinterpret_cast<uint64_t*>(h->list.slots + SLOTS_BYTES / sizeof(kyt_record));
        h->live.entries = static_cast<uint32_t*>(reserve(ORDER_BYTES));
        h->live.samples = h->live.entries + order::ROOM;
        if (h->list.slots && h->live.entries) {
            return h;
        }
        handle_free(h);
    }
    errno = ENOMEM;
    return nullptr;
}

void kyt::handle_free(kyt_handle* h) {
    if (h) {
        if (h->live.entries) {
            munmap(h->live.entries, ORDER_BYTES);
        }
        if (!h->keeper) {
            store_free(h->list);
        }
        h->~kyt_handle();
        std::free(h);
    }
}

kyt_handle* kyt::open_folder(const char* path) {
    const int folder = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return nullptr;
    }
    kyt_handle* const h = handle_make();
    if (h && open_list(folder, h) == 0) {
        h->keeper = keeper_start(folder, h->list);
    }
    if (h && h->keeper) {
        return h;
    }
    const int failure = errno;
    close(h ? h->list.fd : -1);
    handle_free(h);
    close(folder);
    errno = failure;
    return nullptr;
}

bool kyt::settle(kyt_handle* h) {
    keeper* const k = h->keeper;
    const uint32_t asked = k->asked + 1;
    k->asked = asked;
    keeper_wake(k);
    for (int wait = 0; k->brought != asked; ++wait) {
        if (wait == 100'000) {
            return false;
        }
        poll(nullptr, 0, wait < 1000 ? 0 : 1);
    }
    return true;
}

bool kyt::is_comparing(const kyt_handle* h) {
    return h->keeper->at == phase::WORK;
}

KYT_API kyt_handle* kyt_open_rdwr(void) {
    return open_folder(RECORD_FOLDER);
}

KYT_API void kyt_close(kyt_handle* h) {
    if (h && h->keeper) {
        keeper_close(h->keeper, h->live.size());
    }
    handle_free(h);
}

KYT_API void kyt_close_dirty(kyt_handle* h) {
    if (h && h->keeper) {
        keeper_abandon(h->keeper);
    }
    handle_free(h);
}

KYT_API int kyt_optimise(kyt_handle* h) {
    if (!h || !h->keeper) {
        return fail_with(h ? EROFS : EINVAL);
    }
    take_missing(h);
    order_tidy(&h->live);
    if (has_results(h)) {
        free_slots(h);
        h->keeper->at = phase::IDLE;
    }
    if (h->keeper->at == phase::IDLE) {
        start_comparison(h);
    }
    return 0;
}

KYT_API kyt_record* kyt_get(kyt_handle* h, uint32_t ts) {
    return h ? order_find(&h->live, ts) : nullptr;
}

KYT_API kyt_record* kyt_next(kyt_handle* h, const kyt_record* prev) {
    return h && (!prev || is_slot(h, prev)) ? order_next(&h->live, prev) : nullptr;
}

KYT_API int kyt_write(kyt_handle* h, const kyt_record* record) {
    const bool is_good = h && record && is_live(*record);
    if (!is_good || !h->keeper) {
        return fail_with(is_good ? EROFS : EINVAL);
    }
    // The announcement first: a comparison that has found the same clip knows neither its duration nor its mark.
    const int result = add(h, *record);
    const int error = errno;
    take_missing(h);
    errno = error;
    return result;
}

KYT_API int kyt_mark_deleted(kyt_handle* h, kyt_record* record) {
    const bool is_good = h && record && is_slot(h, record) && is_live(*record);
    if (!is_good || !h->keeper) {
        return fail_with(is_good ? EROFS : EINVAL);
    }
    if (!h->tombstones.reserve(h->tombstones.size + 1)) {
        return fail_with(ENOMEM);
    }
    order_remove(&h->live, record);
    const tombstone t = {record->ts, static_cast<uint32_t>(record - h->list.slots), h->round};
    h->tombstones.insert(find_tombstone(h, t.ts), t);
    put_record(record, deleted_record(*record));
    keeper_wake(h->keeper);
    return 0;
}

KYT_API uint32_t kyt_count(const kyt_handle* h) {
    return h ? h->live.size() : 0;
}
