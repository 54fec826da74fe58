// The library under measurement, by its public calls.
#include <charconv>
#include <cstring>
#include <poll.h>

#include "handle.h"
#include "index_engine.h"
#include "keeper.h"

namespace {

kyt_handle* of(void* index) {
    return static_cast<kyt_handle*>(index);
}

// As the daemon gets it: an announcement, parsed and added.
bool append(void* index, uint32_t ts) {
    char text[16];
    char* const end = std::to_chars(text, text + sizeof text - 3, ts).ptr;
    std::memcpy(end, ",60", 3);
    kyt_record record = {};
    return kyt_record_parse(&record, text, static_cast<size_t>(end + 3 - text)) == 0 &&
           kyt_write(of(index), &record) == 0;
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

bool await_comparison(kyt_handle* list) {
    for (int wait = 0; wait < 60'000; ++wait) {
        if (!kyt::is_comparing(list)) {
            return true;
        }
        poll(nullptr, 0, 1);
    }
    return false;
}

// The slots of deleted clips are free when a comparison has not met their files and the next call has learnt of it.
bool compact(void* index) {
    for (int round = 0; round < 2; ++round) {
        if (kyt_optimise(of(index)) < 0 || !await_comparison(of(index))) {
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
