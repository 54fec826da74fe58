// The public calls for tools: a copy of a list, and what is wrong with a recordings folder. Only kyt_repair changes it.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "export.h"
#include "folder.h"
#include "kyt_rdonly.h"
#include "load.h"

using namespace kyt;

namespace {

void describe(const loaded& l, kyt_health* health) {
    std::strncpy(health->list, LIST_NAME, sizeof health->list - 1);
    health->open = !l.is_closed();
    health->other_byte_order = l.other_order;
    health->wrong_size = l.has_wrong_size();
    health->card = l.head.card;
    health->destroyed = l.destroyed;
    health->unreadable = l.unreadable;
    health->deleted = l.deleted.size;
}

// 0, or the errno.
int look(int folder, kyt_handle* h, kyt_health* health) {
    loaded l;
    array<uint32_t> doubles;
    array<uint32_t> deleted;
    contents card;
    const int failure = load_copy(folder, LIST_NAME, h, &l, &doubles);
    if (l.is_list()) {
        describe(l, health);
    } else {
        unload(h, &l);
    }
    folder_read(folder, true, &card);
    for (const uint32_t slot : l.deleted) {
        deleted.push(h->list.slots[slot].ts);
    }
    sort_unique(&deleted);
    if (failure == ENOMEM || deleted.failed || card.is_out_of_memory()) {
        return ENOMEM;
    }
    health->other_version = l.header == header_kind::OTHER_VERSION;
    health->header_damaged = failure != ENOENT && l.header == header_kind::DAMAGED;
    health->volume = card_of(folder);
    health->records = h->live.size();
    health->clips = card.clips.size;
    health->twice = doubles.size + l.deleted.size - deleted.size;
    uint32_t listed = 0;
    for (const uint32_t ts : card.clips) {
        listed += order_find(&h->live, ts) ? 1 : 0;
    }
    for (const uint32_t ts : deleted) {
        const bool is_live_too = order_find(&h->live, ts) != nullptr;
        health->twice += is_live_too ? 1 : 0;
        health->undeleted += !is_live_too && contains(card.clips, ts) ? 1 : 0;
    }
    health->records_without_clip = health->records - listed;
    health->clips_not_listed = health->clips - listed - health->undeleted;
    return card.failure != 0 ? card.failure : card.unread_failure;
}

// Calls `use` with a folder's descriptor and a fresh handle. The handle if its result, an errno, is 0; else null.
template <typename Use>
kyt_handle* with_folder(const char* path, Use use) {
    const int folder = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return nullptr;
    }
    kyt_handle* h = handle_make();
    const int failure = h ? use(folder, h) : ENOMEM;
    close(folder);
    if (h && failure != 0) {
        handle_free(std::exchange(h, nullptr));
    }
    errno = failure;
    return h;
}

}  // namespace

KYT_API kyt_handle* kyt_open_rdonly(const char* folder_path) {
    return with_folder(folder_path, [](int folder, kyt_handle* h) {
        loaded l;
        array<uint32_t> doubles;
        const int failure = load_copy(folder, LIST_NAME, h, &l, &doubles);
        return failure == 0 && !l.is_list() ? EBADMSG : failure;
    });
}

KYT_API int kyt_check(const char* folder_path, kyt_health* health) {
    kyt_health seen = {};
    kyt_handle* const h =
        with_folder(folder_path, [&](int folder, kyt_handle* fresh) { return look(folder, fresh, &seen); });
    if (!h) {
        return -1;
    }
    kyt_close(h);
    *health = seen;
    return 0;
}

KYT_API int kyt_repair(const char* folder_path) {
    kyt_handle* const list = open_folder(folder_path);
    kyt_close(list);
    return list ? 0 : -1;
}
