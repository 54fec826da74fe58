// Opening a list: what is done with the file. All of it may wait for the card.
#include <cerrno>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

#include "keeper.h"
#include "record.h"
#include "repair.h"

#ifndef F_OFD_SETLK
#define F_OFD_SETLK 37
#endif

namespace kyt {
namespace {

// A write lock of the open file for as long as its keeper lives. The keeper of a list that was closed by
// kyt_close_dirty may still be about to write an old copy of a sector into this very file, and its loop has forgotten
// it: without the lock a mark made since then could be overwritten for good. A write lock needs a descriptor open for
// writing, so a program that may only read cannot keep the list closed. False: errno says why.
bool lock(int fd) {
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fcntl(fd, F_OFD_SETLK, &whole) == 0) {
        return true;
    }
    // Linux before 3.15 has no such locks, and some filesystems have none at all.
    const bool is_taken = errno == EAGAIN || errno == EACCES;
    if (!is_taken && (flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)) {
        return true;
    }
    errno = EBUSY;
    return false;
}

// What cannot be a list: a directory, a link, a pipe, or what the card does not give. Any other failure of an open says
// nothing about the file.
bool is_no_file(int error) {
    return error == EISDIR || error == ELOOP || error == ENXIO || error == ESPIPE || error == EIO;
}

// Fills r->file, r->failure and r->exists. 0, or -1 with errno: no list can be opened now.
int read_file(repair* r) {
    store& list = r->h->list;
    list.fd = openat(r->folder, LIST_NAME, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (list.fd < 0) {
        r->failure = errno;
        return errno == ENOENT || is_no_file(errno) ? 0 : -1;
    }
    loaded& l = r->file;
    if (!lock(list.fd) || load(r->h, &l) < 0) {
        r->failure = errno;
        return is_no_file(errno) ? 0 : -1;
    }
    // Of noise, one slot in 32,768 looks like a record.
    const bool is_noise =
        l.header == header_kind::DAMAGED && r->h->live.size() + l.deleted.size <= l.used / 1024 && l.size > 0;
    if (is_noise) {
        unload(r->h, &l);
    }
    r->exists = l.unreadable == 0 && !is_noise && l.header != header_kind::OTHER_VERSION;
    return 0;
}

// A list file that cannot be used keeps what it holds under another name, KYT_BAD0.LST to KYT_BAD3.LST, the oldest
// first. The fourth and later ones share a name, so that a card that goes bad again and again does not fill up with
// them. Bad sectors stay where no clip will be written.
struct aside_name {
    char text[13] = "KYT_BAD0.LST";
    explicit aside_name(int number) { text[7] = static_cast<char>('0' + number); }
};

// Unlike a stat, this needs no date that fits in a time_t.
bool exists(int folder, const aside_name& name) {
    return faccessat(folder, name.text, F_OK, 0) == 0;
}

void aside_move(int folder, phrases* done) {
    // Gaps are closed, so that the numbers are in order of age.
    int count = 0;
    for (int number = 0; number < ASIDE_NAMES; ++number) {
        if (exists(folder, aside_name(number))) {
            (void)renameat(folder, aside_name(number).text, folder, aside_name(count++).text);
        }
    }
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

// Removes the oldest of them. False: there is none.
bool aside_remove_oldest(int folder, phrases* done) {
    for (int number = 0; number < ASIDE_NAMES; ++number) {
        if (unlinkat(folder, aside_name(number).text, 0) == 0) {
            done->add("%s is removed to make room", aside_name(number).text);
            return true;
        }
    }
    return false;
}

// Opens copies of those that there are. False: out of memory.
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

// Whether all names of the folder are to be read.
bool judge_file(repair* r) {
    const loaded& l = r->file;
    const uint32_t live = r->h->live.size() + r->doubles.size;
    const uint32_t card = card_of(r->folder);
    r->other_card = l.is_list() && l.head.card != 0 && card != 0 && l.head.card != card;
    r->missing = r->exists && l.is_closed() && live < l.head.live ? l.head.live - live : 0;
    r->damaged = r->exists ? !l.is_list() || l.destroyed > 0 || r->doubles.size > 0 || l.has_wrong_size() ||
                                 (l.is_closed() && live != l.head.live)
                           : r->failure != ENOENT;
    return !l.is_closed() || r->damaged || r->other_card || l.other_order;
}

// The slots that follow the newest record's are taken first: they are in its sector, or in the next one.
void sort_empty(kyt_handle* h) {
    std::sort(h->empty.begin(), h->empty.end());
    if (h->live.size() > 0) {
        const uint32_t newest = h->live.entries[h->live.end - 1];
        std::rotate(h->empty.begin(), std::upper_bound(h->empty.begin(), h->empty.end(), newest), h->empty.end());
    }
}

// 0, or -1 with errno and no file.
int make_file(int folder, store* list, file_state state) {
    list->bytes = file_bytes(list->used);
    list->fd = openat(folder, LIST_NAME, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (list->fd < 0) {
        return -1;
    }
    if (lock(list->fd) && header_write(list->fd, state, 0) == 0 && ftruncate(list->fd, list->bytes) == 0) {
        return 0;
    }
    const int failure = errno;
    close(std::exchange(list->fd, -1));
    (void)unlinkat(folder, LIST_NAME, 0);
    return fail_with(failure);
}

int replace_file(repair* r, bool has_records) {
    store& list = r->h->list;
    close(std::exchange(list.fd, -1));
    if (r->failure != ENOENT) {
        aside_move(r->folder, &r->done);
    }
    std::fill_n(list.sums, MAX_SECTORS, uint64_t{0});
    // A full card must not leave the camera without a list: it could not even make room any more.
    while (make_file(r->folder, &list, has_records ? file_state::WRITING : file_state::OPEN) < 0) {
        const int failure = errno;
        if (failure != ENOSPC || !aside_remove_oldest(r->folder, &r->done)) {
            return fail_with(failure);
        }
    }
    return 0;
}

// The last slot that is not empty, if a file that ends there would be smaller; otherwise all used ones.
uint32_t tail_of(const repair& r) {
    const store& list = r.h->list;
    uint32_t tail = list.used;
    while (tail > 0 && slot_kind(list.slots[tail - 1]) == slot::EMPTY) {
        --tail;
    }
    return file_bytes(tail) < file_bytes(list.used) ? tail : list.used;
}

// After the header says that the list is open and may have as few slots as `tail`. Cut exactly there, the file has only
// zeros behind it when it grows to its size: nothing that was in those slots ever comes back.
void cut_tail(const repair& r, uint32_t tail) {
    kyt_handle* const h = r.h;
    store& list = h->list;
    const uint32_t wanted = file_bytes(tail);
    if (wanted < r.file.size && ftruncate(list.fd, offset_of(tail)) == 0) {
        list.bytes = ftruncate(list.fd, wanted) == 0 ? wanted : offset_of(tail);
        std::fill(list.slots + tail, list.slots + list.used, kyt_record{});
        std::fill(list.sums + tail / SECTOR_RECORDS, list.sums + MAX_SECTORS, uint64_t{0});
        list.used = tail;
        h->empty.keep_before(std::remove_if(h->empty.begin(), h->empty.end(), [=](uint32_t s) { return s >= tail; }));
    }
}

// Brings the file to where the keeper can go on. 0, or -1 with errno.
int prepare_file(repair* r) {
    kyt_handle* const h = r->h;
    const loaded& l = r->file;
    const uint32_t tail = tail_of(*r);
    uint32_t sealed = std::min(l.used, tail);
    // Everything is to be on the card before the header says that this is the list: until then it shows how the records
    // are to be read, or that marks may only be in a file that was set aside.
    bool write_first = l.other_order || !l.is_list() || l.is(file_state::WRITING);
    bool seal = write_first || r->other_card || l.is_closed() || l.head.records > sealed;
    if (!r->exists) {
        // A list without records can lose nothing: it need not wait for the card, and a fresh card is ready sooner.
        write_first = seal = h->live.size() > 0;
        if (replace_file(r, seal) < 0) {
            return -1;
        }
    }
    if (write_first) {
        writer w;
        w.list = h->list;
        while (!write_changes(&w, h->list.used, true)) {
            if (errno != ENOSPC || !aside_remove_oldest(r->folder, &r->done)) {
                return -1;
            }
        }
        h->list.bytes = w.list.bytes;
        sealed = tail;
    }
    if (seal && header_seal(h->list.fd, file_state::OPEN, sealed) < 0) {
        return -1;
    }
    if (r->exists) {
        cut_tail(*r, tail);
    }
    sort_empty(h);
    return 0;
}

}  // namespace

int open_list(int folder, kyt_handle* h) {
    repair r;
    r.folder = folder;
    r.h = h;
    if (read_file(&r) < 0) {
        return -1;
    }
    repair_order(&r);
    const bool everything = judge_file(&r);
    // What was set aside has the marks that a list made from the folder lacks.
    const bool is_made_again = !r.file.is_list() || r.file.is(file_state::WRITING);
    if (is_made_again && !aside_open(folder, r.aside)) {
        return fail_with(ENOMEM);
    }
    if (everything || r.file.deleted.size > 0) {
        repair_from_folder(&r, everything);
    }
    if (h->empty.failed || h->tombstones.failed || r.doubles.failed || r.card.is_out_of_memory()) {
        return fail_with(ENOMEM);
    }
    const int failure = prepare_file(&r) == 0 ? 0 : errno;
    repair_report(r, failure);
    return failure == 0 ? 0 : fail_with(failure);
}

}  // namespace kyt
