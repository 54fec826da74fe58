#include "load.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "record.h"

namespace kyt {
namespace {

constexpr uint32_t PAGE_RECORDS = 4096 / sizeof(kyt_record);  // read at one go

// The slots as they are in the file. How many there are.
uint32_t read_slots(store* s, loaded* l) {
    uint32_t count = 0;
    for (uint32_t at = 0; at < MAX_RECORDS && offset_of(at) < l->size && l->unreadable < MAX_UNREADABLE;
         at += PAGE_RECORDS) {
        kyt_record* const page = s->slots + at;
        const long got = read_at(s->fd, page, PAGE_RECORDS * sizeof *page, offset_of(at));
        l->unreadable += got < 0 ? 1 : 0;  // the pages after it may be readable
        const auto whole = got < 0 ? 0 : static_cast<uint32_t>(got) / static_cast<uint32_t>(sizeof *page);
        std::fill_n(page + whole, PAGE_RECORDS - whole, kyt_record{});
        for (uint32_t i = 0; i + SECTOR_RECORDS <= whole; i += SECTOR_RECORDS) {
            s->sums[(at + i) / SECTOR_RECORDS] = sum_of(page + i, SECTOR_RECORDS) | SYNCED;
        }
        count = at + whole;
    }
    return count;
}

// Gives a sector's records this machine's byte order. Each sector is judged by itself, since a power cut may come
// between two of them; a sector is written as a whole, so it has the order in which more of it makes sense.
bool turn_sector(kyt_record* sector, bool when_equal) {
    int foreign = when_equal ? 1 : 0;
    for (uint32_t i = 0; i < SECTOR_RECORDS; ++i) {
        foreign += slot_kind(swapped(sector[i])) != slot::BAD ? 1 : 0;
        foreign -= slot_kind(sector[i]) != slot::BAD ? 1 : 0;
    }
    if (foreign > 0) {
        std::transform(sector, sector + SECTOR_RECORDS, sector, swapped);
    }
    return foreign > 0;
}

void judge(kyt_handle* h, loaded* l, uint32_t count) {
    uint32_t& used = h->list.used;
    const bool open = l->is_list() && !l->is_closed();
    for (uint32_t at = 0; at < count; ++at) {
        kyt_record* const record = h->list.slots + at;
        if (at % SECTOR_RECORDS == 0 && (l->other_order || l->header == header_kind::DAMAGED)) {
            l->other_order = turn_sector(record, l->other_order) || l->other_order;
        }
        const slot kind = slot_kind(*record);
        if (kind == slot::UNUSED) {
            continue;
        }
        for (; used < at; ++used) {
            // Of an open list, sectors may be on the card although others before them are not.
            l->destroyed += open && used >= l->head.records ? 0 : 1;
            put_empty(h->list.slots + used);
            h->empty.push(used);
        }
        used = at + 1;
        if (kind == slot::BAD) {
            ++l->destroyed;
            put_empty(record);
        }
        if (kind == slot::LIVE) {
            order_add(&h->live, at);
        } else {
            (kind == slot::DELETED ? l->deleted : h->empty).push(at);
        }
    }
    l->used = used;
}

}  // namespace

int load(kyt_handle* h, loaded* l) {
    store* const s = &h->list;
    // A size needs no stat, which fails for a file whose date the C library cannot express.
    const off_t size = lseek(s->fd, 0, SEEK_END);
    if (size < 0) {
        return -1;
    }
    l->size = static_cast<uint64_t>(size);
    s->bytes = static_cast<uint32_t>(std::min<uint64_t>(l->size, MAX_BYTES));
    uint8_t head[sizeof(list_header)] = {};
    l->unreadable += read_at(s->fd, head, sizeof head, 0) < 0 ? 1 : 0;
    l->header = header_read(head, &l->head, &l->other_order);
    if (l->header == header_kind::OTHER_VERSION) {
        return 0;
    }
    judge(h, l, read_slots(s, l));
    return h->empty.failed || l->deleted.failed ? fail_with(ENOMEM) : 0;
}

void unload(kyt_handle* h, loaded* l) {
    std::fill_n(h->list.slots, h->list.used, kyt_record{});
    h->list.used = 0;
    h->live.end = h->live.first;
    h->empty.size = l->deleted.size = 0;
}

int load_copy(int folder, const char* name, kyt_handle* h, loaded* l, array<uint32_t>* doubles) {
    const int fd = openat(folder, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        return errno == ENOENT ? ENOENT : EBADMSG;
    }
    h->list.fd = fd;
    const int failure = load(h, l) == 0 ? 0 : errno;
    close(fd);
    order_sort(&h->live);
    order_drop_doubles(&h->live, doubles);
    return failure == ENOMEM || doubles->failed ? ENOMEM : failure == 0 ? 0 : EBADMSG;
}

}  // namespace kyt
