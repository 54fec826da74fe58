// The keeper reads what an open took over unread. By plain reads like all that it does, so a record that the loop is
// just changing may look destroyed for a moment: nothing is believed at the first look.
#include <poll.h>

#include "keeper.h"
#include "record.h"

namespace kyt {
namespace {

constexpr uint32_t PAGE_RECORDS = 512;
constexpr int LOOKS = 4;
constexpr int LOOK_AGAIN_MS = 5;

struct page {
    kyt_record records[PAGE_RECORDS];
    uint32_t read = 0;  // records that the card gave
    uint32_t used = 0;  // slots of the list that were used when it had been read
    uint32_t deleted = 0;
};

void read_page(const kept_file& file, uint32_t slot_number, page* p) {
    const long got = read_at(file.fd, p->records, sizeof p->records,
                             RECORDS_AT + slot_number * static_cast<uint32_t>(sizeof(kyt_record)));
    p->read = got < 0 ? 0 : static_cast<uint32_t>(got) / static_cast<uint32_t>(sizeof(kyt_record));
    p->used = file.used.load(std::memory_order_acquire);
}

// What is wrong with a page. last_ts: of the record before it.
findings judge(page* p, const check_table& table, uint32_t first, uint32_t inherited, uint32_t* last_ts) {
    findings found;
    p->deleted = 0;
    for (uint32_t i = 0; i < PAGE_RECORDS; ++i) {
        const uint32_t slot_number = first + i;
        const slot kind = i < p->read ? slot_kind(p->records[i], table) : slot::BAD;
        if (slot_number >= inherited) {
            found.behind += i < p->read && slot_number >= p->used && kind != slot::FREE ? 1 : 0;
        } else if (kind != slot::LIVE && kind != slot::DELETED) {
            ++found.destroyed;
        } else {
            p->deleted += kind == slot::DELETED ? 1 : 0;
            found.out_of_order = found.out_of_order || p->records[i].ts <= *last_ts;
            *last_ts = p->records[i].ts;
        }
    }
    return found;
}

}  // namespace

void inspect(keeper* k) {
    const kept_file& file = k->files[k->list];
    const uint32_t slots = slots_in(file.capacity.load(std::memory_order_relaxed));
    findings* const found = &k->found;
    const check_table table;
    uint32_t last_ts = 0;
    page p;
    for (uint32_t first = 0; first < slots; first += PAGE_RECORDS) {
        findings of_page;
        uint32_t page_last_ts = 0;
        for (int look = 0; look < LOOKS && (look == 0 || of_page.any()); ++look) {
            // What is wrong with the first page that is destroyed is certain; the others are only counted.
            if (look > 0 && (found->any() || poll(nullptr, 0, LOOK_AGAIN_MS) != 0)) {
                break;
            }
            if (is_ending(*k)) {
                return;
            }
            keeper_tick(k);
            read_page(file, first, &p);
            page_last_ts = last_ts;
            of_page = judge(&p, table, first, k->inherited, &page_last_ts);
        }
        last_ts = page_last_ts;
        found->destroyed += of_page.destroyed;
        found->behind += of_page.behind;
        found->out_of_order = found->out_of_order || of_page.out_of_order;
        for (uint32_t i = 0; p.deleted > 0 && i < p.read && first + i < k->inherited; ++i) {
            if (slot_kind(p.records[i], table) == slot::DELETED && !k->deleted.push(first + i)) {
                found->out_of_memory = true;
            }
        }
    }
    k->inspected.store(true, std::memory_order_release);
}

}  // namespace kyt
