#include "store.h"

#include <cerrno>
#include <sys/mman.h>
#include <unistd.h>

#include "record.h"

namespace kyt {
namespace {

constexpr size_t PAGE_BYTES = 4096;
constexpr size_t SLOTS_BYTES = MAX_BYTES;  // somewhat more than the slots take
constexpr size_t ALL_BYTES = SLOTS_BYTES + MAX_SECTORS * sizeof(uint64_t);

struct reader {
    store* s;
    loaded* l;
    uint32_t count = 0;  // slots that were read
    bool given_up = false;
};

// Reads up to `bytes` from slot `slot` on. How many bytes, or -1 with errno and the slots zero.
long read_slots(reader* r, uint32_t slot, size_t bytes) {
    kyt_record* const to = r->s->slots + slot;
    const long got = read_at(r->s->fd, to, bytes, offset_of(slot));
    const auto whole = got < 0 ? 0 : static_cast<uint32_t>(got) / static_cast<uint32_t>(sizeof(kyt_record));
    std::memset(static_cast<void*>(to + whole), 0, bytes - whole * sizeof(kyt_record));
    for (uint32_t i = 0; i + SECTOR_RECORDS <= whole; i += SECTOR_RECORDS) {
        r->s->sums[(slot + i) / SECTOR_RECORDS] = sum_of(to + i, SECTOR_RECORDS) | 1;
    }
    r->count = got < 0 ? r->count : slot + whole;
    return got;
}

// A step of the file that cannot be read at one go, piece by piece.
bool read_pieces(reader* r, uint32_t slot, size_t bytes) {
    for (size_t done = 0; done < bytes; done += PAGE_BYTES) {
        const size_t piece = std::min(PAGE_BYTES, bytes - done);
        if (read_slots(r, slot + static_cast<uint32_t>(done / sizeof(kyt_record)), piece) < 0) {
            if (errno == ENOMEM) {
                return false;
            }
            if (++r->l->unreadable == MAX_UNREADABLE) {
                r->given_up = true;
                return true;
            }
        }
    }
    return true;
}

bool read_records(reader* r) {
    const uint64_t end = std::min<uint64_t>(r->l->size, MAX_BYTES);
    for (uint64_t at = RECORDS_AT; at < end && !r->given_up;) {
        const auto bytes = static_cast<size_t>(std::min<uint64_t>(STEP_BYTES - at % STEP_BYTES, end - at));
        const auto slot = static_cast<uint32_t>((at - RECORDS_AT) / sizeof(kyt_record));
        if (read_slots(r, slot, bytes) < 0 && !read_pieces(r, slot, bytes)) {
            return false;
        }
        at += bytes;
    }
    return true;
}

// Without a header, the first record that is whole in one byte order only shows which one the file has.
bool looks_swapped(const store& s, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        const bool native = s.slots[i].ts != 0 && slot_kind(s.slots[i]) != slot::BAD;
        const bool other = s.slots[i].ts != 0 && slot_kind(swapped(s.slots[i])) != slot::BAD;
        if (native != other) {
            return other;
        }
    }
    return false;
}

// What is in the slot, which gets this machine's byte order.
slot judge(kyt_record* record, bool other_order) {
    const kyt_record stored = *record;
    if (!other_order) {
        return slot_kind(stored);
    }
    *record = swapped(stored);
    const slot kind = slot_kind(*record);
    if (kind != slot::BAD || slot_kind(stored) == slot::BAD) {
        return kind;
    }
    *record = stored;  // turned already, before a power cut
    return slot_kind(stored);
}

// False: out of memory.
bool add_slot(uint32_t at, slot kind, store* s, order* live, loaded* l) {
    switch (kind) {
        case slot::LIVE:
            ++l->live;
            order_add(live, at);
            return true;
        case slot::DELETED:
            return l->deleted.push(at);
        case slot::BAD:
            ++l->destroyed;
            [[fallthrough]];
        case slot::UNUSED:
        case slot::EMPTY:
            put_empty(s->slots + at);
            return l->empty.push(at);
    }
    return false;
}

bool judge_all(store* s, order* live, loaded* l, uint32_t count) {
    const bool open = is_list(*l) && !is_closed(*l);
    for (uint32_t at = 0; at < count; ++at) {
        const slot kind = judge(s->slots + at, l->other_order);
        if (kind == slot::UNUSED) {
            continue;
        }
        for (; s->used < at; ++s->used) {
            // Of an open list, sectors may be on the card although others before them are not.
            l->destroyed += open && s->used >= l->head.records ? 0 : 1;
            if (!add_slot(s->used, slot::UNUSED, s, live, l)) {
                return false;
            }
        }
        s->used = at + 1;
        if (!add_slot(at, kind, s, live, l)) {
            return false;
        }
    }
    l->used = s->used;
    return true;
}

}  // namespace

bool store_make(store* s) {
    void* const made =
        mmap(nullptr, ALL_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (made == MAP_FAILED) {
        return false;
    }
    s->slots = static_cast<kyt_record*>(made);
    s->sums = reinterpret_cast<uint64_t*>(static_cast<uint8_t*>(made) + SLOTS_BYTES);
    return true;
}

void store_free(store* s) {
    if (s->slots) {
        munmap(s->slots, ALL_BYTES);
        s->slots = nullptr;
    }
}

int store_load(store* s, order* live, loaded* l) {
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
    reader r = {s, l};
    const bool is_read = read_records(&r);
    if (l->header == header_kind::DAMAGED) {
        l->other_order = looks_swapped(*s, r.count);
    }
    if (!is_read || !judge_all(s, live, l, r.count)) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

void store_clear(store* s, order* live, loaded* l) {
    std::memset(static_cast<void*>(s->slots), 0, size_t{s->used} * sizeof(kyt_record));
    s->used = 0;
    live->end = live->first;
    l->deleted.size = l->empty.size = l->live = 0;
}

}  // namespace kyt
