// What is wrong with a recordings folder, for tools. Reads files and names; changes nothing.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "export.h"
#include "folder.h"
#include "handle.h"
#include "kyt_rdonly.h"
#include "record.h"

using namespace kyt;

namespace {

void look_at_file(const loaded& l, kyt_health* health) {
    health->other_version = l.header == header_kind::OTHER_VERSION;
    health->header_damaged = l.header == header_kind::DAMAGED;
    if (!is_list(l)) {
        return;
    }
    std::strncpy(health->list, LIST_NAME, sizeof health->list - 1);
    health->open = !is_closed(l);
    health->other_byte_order = l.other_order;
    health->wrong_size = has_wrong_size(l);
    health->card = l.head.card;
    health->destroyed = l.destroyed;
    health->unreadable = l.unreadable;
}

// Counts what the list and the clips of the card have in common, ascending by ts.
void compare_clips(const order& live, const array<uint32_t>& clips, kyt_health* health) {
    const uint32_t* clip = clips.begin();
    for (uint32_t place = live.first; place < live.end; ++place) {
        for (; clip != clips.end() && *clip < live.ts_at(place); ++clip) {
            ++health->clips_not_listed;
        }
        if (clip != clips.end() && *clip == live.ts_at(place)) {
            ++clip;
        } else {
            ++health->records_without_clip;
        }
    }
    health->clips_not_listed += static_cast<uint32_t>(clips.end() - clip);
}

void compare_deleted(const kyt_handle* h, array<uint32_t>* deleted, const array<uint32_t>& clips, kyt_health* health) {
    const auto ts_of = [h](uint32_t slot) { return h->list.slots[slot].ts; };
    std::sort(deleted->begin(), deleted->end(), [&](uint32_t a, uint32_t b) { return ts_of(a) < ts_of(b); });
    for (uint32_t i = 0; i < deleted->size; ++i) {
        const uint32_t ts = ts_of((*deleted)[i]);
        const uint32_t place = order_place(h->live, ts);
        const bool is_live_too = place < h->live.end && h->live.ts_at(place) == ts;
        if (is_live_too || (i > 0 && ts_of((*deleted)[i - 1]) == ts)) {
            ++health->twice;
        } else if (std::binary_search(clips.begin(), clips.end(), ts)) {
            ++health->undeleted;
            --health->clips_not_listed;
        }
    }
}

// 0, or the errno.
int look(int folder, kyt_handle* h, kyt_health* health) {
    store& list = h->list;
    loaded l;
    list.fd = openat(folder, LIST_NAME, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (list.fd >= 0) {
        const int failure = store_load(&list, &h->live, &l) == 0 ? 0 : errno;
        close(list.fd);
        if (failure == ENOMEM) {
            return failure;
        }
        look_at_file(l, health);
    } else {
        health->header_damaged = errno != ENOENT;
    }
    if (!is_list(l)) {
        store_clear(&list, &h->live, &l);
    }
    array<uint32_t> doubles;
    order_sort(&h->live);
    contents card;
    if (!order_drop_doubles(&h->live, &doubles) || !folder_read(folder, true, &card)) {
        return ENOMEM;
    }
    if (card.failure != 0 || card.unread_failure != 0) {
        return card.failure != 0 ? card.failure : card.unread_failure;
    }
    health->volume = card_of(folder);
    health->records = h->live.size();
    health->deleted = l.deleted.size;
    health->twice = doubles.size;
    health->clips = card.clips.size;
    compare_clips(h->live, card.clips, health);
    compare_deleted(h, &l.deleted, card.clips, health);
    return 0;
}

}  // namespace

KYT_API int kyt_check(const char* folder_path, kyt_health* health) {
    const int folder = open(folder_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return -1;
    }
    kyt_handle* const h = handle_make();
    kyt_health seen = {};
    const int failure = h ? look(folder, h, &seen) : ENOMEM;
    if (h) {
        handle_free(h);
    }
    close(folder);
    if (failure != 0) {
        errno = failure;
        return -1;
    }
    *health = seen;
    return 0;
}

KYT_API int kyt_repair(const char* folder_path) {
    kyt_handle* const list = open_folder(folder_path);
    kyt_close(list);
    return list ? 0 : -1;
}
