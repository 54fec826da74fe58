#include <cerrno>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "record.h"
#include "repair.h"

namespace kyt {
namespace {

struct aside_name {
    char text[13] = "KYT_BAD0.LST";
    explicit aside_name(int number) { text[7] = static_cast<char>('0' + number); }
};

// Unlike a stat, this needs no date that fits in a time_t.
bool exists(int folder, const aside_name& name) {
    return faccessat(folder, name.text, F_OK, 0) == 0;
}

// Closes gaps, so that the numbers are in order of age. How many there are.
int count_names(int folder) {
    int count = 0;
    for (int number = 0; number < ASIDE_NAMES; ++number) {
        const aside_name name(number);
        if (exists(folder, name)) {
            (void)renameat(folder, name.text, folder, aside_name(count++).text);
        }
    }
    return count;
}

}  // namespace

void aside_move(int folder, phrases* done) {
    const int count = count_names(folder);
    const aside_name name(std::min(count, ASIDE_NAMES - 1));
    if (count == ASIDE_NAMES) {
        (void)unlinkat(folder, name.text, 0);  // the rename alone would not put a directory there
    }
    if (renameat(folder, LIST_NAME, folder, name.text) < 0) {
        done->add("%s cannot be set aside: %s", LIST_NAME, error_text(errno).text);
    } else {
        done->add("%s is set aside as %s", LIST_NAME, name.text);
    }
    (void)fsync(folder);  // not every filesystem can
}

bool aside_remove_oldest(int folder, phrases* done) {
    for (int number = 0; number < ASIDE_NAMES; ++number) {
        if (unlinkat(folder, aside_name(number).text, 0) == 0) {
            done->add("%s is removed to make room", aside_name(number).text);
            return true;
        }
    }
    return false;
}

bool aside_open(int folder, kyt_handle* (&lists)[ASIDE_NAMES]) {
    for (int number = 0; number < ASIDE_NAMES; ++number) {
        const aside_name name(number);
        loaded l;
        array<uint32_t> doubles;
        if (!exists(folder, name)) {
            continue;
        }
        kyt_handle* const h = lists[number] = handle_make();
        if (!h || load_copy(folder, name.text, h, &l, &doubles) == ENOMEM) {
            return false;
        }
        // A deleted clip that is still on the card comes back with its mark.
        for (const uint32_t slot : l.deleted) {
            h->list.slots[slot] = returned_record(h->list.slots[slot]);
            order_add(&h->live, slot);
        }
        order_sort(&h->live);
        order_drop_doubles(&h->live, &doubles);
    }
    return true;
}

}  // namespace kyt
