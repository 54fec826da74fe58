#include "aside.h"

#include <cerrno>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "errors.h"
#include "record.h"
#include "store.h"

namespace kyt {
namespace {

constexpr int NAMES = 4;

struct aside_name {
    char text[13] = "KYT_BAD0.LST";
    explicit aside_name(int number) { text[7] = static_cast<char>('0' + number); }
};

// access needs no date, which a stat could not express after 2038.
bool is_taken(int folder, int number) {
    return faccessat(folder, aside_name(number).text, F_OK, 0) == 0;
}

// Closes gaps, so that the numbers are in order of age. How many there are.
int count_names(int folder) {
    int count = 0;
    for (int number = 0; number < NAMES; ++number) {
        if (is_taken(folder, number)) {
            if (number != count) {
                (void)renameat(folder, aside_name(number).text, folder, aside_name(count).text);
            }
            ++count;
        }
    }
    return count;
}

// False: out of memory.
bool read_one(int fd, array<kyt_record>* records) {
    store s;
    order live;
    loaded l;
    s.fd = fd;
    bool ok = store_make(&s) && order_make(&live, s.slots);
    if (ok && store_load(&s, &live, &l) == 0) {
        for (uint32_t place = live.first; ok && place < live.end; ++place) {
            ok = records->push(s.slots[live.entries[place]]);
        }
    } else {
        ok = ok && errno != ENOMEM;
    }
    order_free(&live);
    store_free(&s);
    return ok;
}

}  // namespace

void aside_move(int folder, phrases* done) {
    const int count = count_names(folder);
    const aside_name name(std::min(count, NAMES - 1));
    if (count == NAMES) {
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
    for (int number = 0; number < NAMES; ++number) {
        if (unlinkat(folder, aside_name(number).text, 0) == 0) {
            done->add("%s is removed to make room", aside_name(number).text);
            return true;
        }
    }
    return false;
}

bool aside_read(int folder, array<kyt_record>* records) {
    bool ok = true;
    for (int number = 0; ok && number < NAMES; ++number) {
        const int fd = openat(folder, aside_name(number).text, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd >= 0) {
            ok = read_one(fd, records);
            close(fd);
        }
    }
    std::sort(records->begin(), records->end(),
              [](const kyt_record& a, const kyt_record& b) { return a.ts != b.ts ? a.ts < b.ts : a.flags > b.flags; });
    return ok;
}

}  // namespace kyt
