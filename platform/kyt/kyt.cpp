// The public calls on an open list. All of them run on the loop thread; but for opening and closing, none touches a
// file.
#include "kyt.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <poll.h>
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

// The place of ts among the tombstones.
uint32_t tombstone_place(const kyt_handle* h, uint32_t ts) {
    const tombstone* const found = std::lower_bound(h->tombstones.begin(), h->tombstones.end(), ts,
                                                    [](const tombstone& t, uint32_t wanted) { return t.ts < wanted; });
    return static_cast<uint32_t>(found - h->tombstones.begin());
}
bool is_deleted(const kyt_handle* h, uint32_t place, uint32_t ts) {
    return place < h->tombstones.size && h->tombstones[place].ts == ts;
}

// The slot for a record of ts: the clip's own when it was deleted, a free one, or one after all others.
uint32_t take_slot(kyt_handle* h, uint32_t ts) {
    const uint32_t place = tombstone_place(h, ts);
    if (is_deleted(h, place, ts)) {
        const uint32_t slot = h->tombstones[place].slot;
        h->tombstones.erase(place);
        return slot;
    }
    if (h->next_empty < h->empty.size) {
        return h->empty[h->next_empty++];
    }
    return h->list.used < MAX_RECORDS ? h->list.used++ : NO_SLOT;
}

int add(kyt_handle* h, const kyt_record& record) {
    if (order_find(&h->live, record.ts)) {
        errno = EEXIST;
        return -1;
    }
    const uint32_t slot = order_has_room(h->live) ? take_slot(h, record.ts) : NO_SLOT;
    if (slot == NO_SLOT) {
        if (!h->said_full) {
            h->said_full = true;
            log_err("kyt: no room in the list for %u and later ones", record.ts);
        }
        errno = ENOSPC;
        return -1;
    }
    h->said_full = false;
    put_record(h->list.slots + slot, record);
    order_insert(&h->live, slot);
    h->keeper->used.store(h->list.used, std::memory_order_release);
    keeper_wake(h->keeper);
    return 0;
}

bool has_results(const kyt_handle* h) {
    return h->keeper->at.load(std::memory_order_acquire) == phase::DONE;
}

// Adds the clips that the last comparison has found. It only adds, so pointers stay valid.
void take_missing(kyt_handle* h) {
    if (h->taken || !has_results(h)) {
        return;
    }
    h->taken = true;
    uint32_t added = 0;
    uint32_t first = 0;
    for (const uint32_t ts : h->keeper->work.missing) {
        // One that was announced or deleted since the thread looked is not missing.
        if (!is_deleted(h, tombstone_place(h, ts), ts) && add(h, live_record(ts, 0, 0)) == 0) {
            first = added++ == 0 ? ts : first;
        }
    }
    if (added > 0) {
        log_info("kyt: %u clips were on the card but not in the list, the first is %u: added", added, first);
    }
}

// The slots of deleted clips whose files are gone are free from now on. One that was deleted since the comparison began
// may have been recorded again in between.
void free_slots(kyt_handle* h) {
    const array<uint32_t>& gone = h->keeper->work.deleted;
    h->empty.drop(h->next_empty);
    h->next_empty = 0;
    uint32_t kept = 0;
    for (const tombstone& t : h->tombstones) {
        const bool is_free = t.round < h->round && std::binary_search(gone.begin(), gone.end(), t.ts);
        if (is_free && h->empty.push(t.slot)) {
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
        (void)work.listed.push(h->live.ts_at(place));
    }
    for (const tombstone& t : h->tombstones) {
        (void)work.deleted.push(t.ts);
    }
    ++h->round;
    h->taken = false;
    h->keeper->at.store(phase::WORK, std::memory_order_release);
    keeper_wake(h->keeper);
}

// Sets errno.
bool is_read_only(const kyt_handle* h) {
    if (!h->keeper) {
        errno = EROFS;
    }
    return !h->keeper;
}

bool is_slot(const kyt_handle* h, const kyt_record* record) {
    return record >= h->list.slots && record < h->list.slots + h->list.used;
}

}  // namespace

kyt_handle* kyt::handle_make() {
    void* const memory = std::malloc(sizeof(kyt_handle));
    if (!memory) {
        return nullptr;
    }
    auto* const h = new (memory) kyt_handle;
    if (!store_make(&h->list) || !order_make(&h->live, h->list.slots)) {
        handle_free(h);
        errno = ENOMEM;
        return nullptr;
    }
    return h;
}

void kyt::handle_free(kyt_handle* h) {
    order_free(&h->live);
    if (!h->keeper) {
        store_free(&h->list);
    }
    h->~kyt_handle();
    std::free(h);
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
    const int failure = h ? errno : ENOMEM;
    if (h) {
        if (h->list.fd >= 0) {
            close(h->list.fd);
        }
        handle_free(h);
    }
    close(folder);
    errno = failure;
    return nullptr;
}

bool kyt::settle(kyt_handle* h) {
    keeper* const k = h->keeper;
    const uint32_t asked = k->asked.load(std::memory_order_relaxed) + 1;
    k->asked.store(asked, std::memory_order_release);
    keeper_wake(k);
    for (int wait = 0; wait < 100'000; ++wait) {
        if (k->brought.load(std::memory_order_acquire) == asked) {
            return true;
        }
        poll(nullptr, 0, wait < 1000 ? 0 : 1);
    }
    return false;
}

bool kyt::is_comparing(const kyt_handle* h) {
    return h->keeper->at.load(std::memory_order_acquire) == phase::WORK;
}

KYT_API kyt_handle* kyt_open_rdwr(void) {
    return open_folder(RECORD_FOLDER);
}

KYT_API void kyt_close(kyt_handle* h) {
    if (!h) {
        return;
    }
    if (h->keeper) {
        keeper_close(h->keeper, h->live.size());
    }
    handle_free(h);
}

KYT_API void kyt_close_dirty(kyt_handle* h) {
    if (!h) {
        return;
    }
    if (h->keeper) {
        keeper_abandon(h->keeper);
    }
    handle_free(h);
}

KYT_API int kyt_optimise(kyt_handle* h) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    if (is_read_only(h)) {
        return -1;
    }
    take_missing(h);
    order_tidy(&h->live);
    if (has_results(h)) {
        free_slots(h);
        h->keeper->at.store(phase::IDLE, std::memory_order_relaxed);
    }
    if (h->keeper->at.load(std::memory_order_relaxed) == phase::IDLE) {
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
    if (!h || !record || !is_live(*record)) {
        errno = EINVAL;
        return -1;
    }
    if (is_read_only(h)) {
        return -1;
    }
    // The announcement first: a comparison that has found the same clip knows neither its duration nor its mark.
    const int result = add(h, *record);
    const int error = errno;
    take_missing(h);
    errno = error;
    return result;
}

KYT_API int kyt_mark_deleted(kyt_handle* h, kyt_record* record) {
    if (!h || !record || !is_slot(h, record) || !is_live(*record)) {
        errno = EINVAL;
        return -1;
    }
    if (is_read_only(h)) {
        return -1;
    }
    order_remove(&h->live, record);
    const tombstone t = {record->ts, static_cast<uint32_t>(record - h->list.slots), h->round};
    // Without memory for it, the clip is found again should its files stay.
    (void)h->tombstones.insert(tombstone_place(h, t.ts), t);
    put_record(record, deleted_record(*record));
    keeper_wake(h->keeper);
    return 0;
}

KYT_API uint32_t kyt_count(const kyt_handle* h) {
    return h ? h->live.size() : 0;
}
