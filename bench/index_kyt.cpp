#include <cerrno>
#include <poll.h>

#include "handle.h"
#include "keeper.h"
#include "index_engine.h"
#include "record.h"

namespace {

kyt_handle* of(void* index) {
    return static_cast<kyt_handle*>(index);
}

bool append(void* index, uint32_t ts) {
    const kyt_record record = kyt::live_record(ts, 60, 0);
    while (kyt_write(of(index), &record) < 0) {
        if (errno != ENOSPC) {
            return false;
        }
        poll(nullptr, 0, 1);  // a million a second: the keeper is still making room
    }
    return true;
}

bool fill(const char* folder, const uint32_t* ts, uint32_t count) {
    kyt_handle* const list = kyt::open_folder(folder);
    bool ok = list != nullptr;
    for (uint32_t i = 0; ok && i < count; ++i) {
        ok = append(list, ts[i]);
    }
    kyt_close(list);
    return ok;
}

bool await_keeper(kyt_handle* list) {
    for (int wait = 0; wait < 60'000; ++wait) {
        const kyt::phase at = list->keeper->at.load();
        if (at == kyt::phase::DONE || at == kyt::phase::IDLE) {
            return true;
        }
        poll(nullptr, 0, 1);
    }
    return false;
}

// Tombstones go when a comparison has shown that their clips are gone: two rounds, and one to go over to the new file.
bool compact(void* index) {
    for (int round = 0; round < 3; ++round) {
        if (kyt_optimise(of(index)) < 0 || !await_keeper(of(index))) {
            return false;
        }
    }
    return true;
}

uint32_t walk(void* index) {
    uint32_t count = 0;
    for (const kyt_record* r = kyt_next(of(index), nullptr); r != nullptr; r = kyt_next(of(index), r)) {
        ++count;
    }
    return count;
}

bool drop_oldest(void* index) {
    kyt_record* const oldest = kyt_next(of(index), nullptr);
    return oldest != nullptr && kyt_mark_deleted(of(index), oldest) == 0;
}

}  // namespace

const index_engine INDEX_KYT = {
    "clip index",
    "on the card within 2 s, beside the caller",
    fill,
    [](const char* folder) { return static_cast<void*>(kyt::open_folder(folder)); },
    [](void* index) { kyt_close(of(index)); },
    [](void* index, uint32_t ts) { return kyt_get(of(index), ts) != nullptr; },
    walk,
    append,
    drop_oldest,
    compact,
};
