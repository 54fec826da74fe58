// Opening a list: what is done with the file. All of it may wait for the card.
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "aside.h"
#include "record.h"
#include "repair.h"
#include "writer.h"

namespace kyt {
namespace {

// A write lock of the open file for as long as its keeper lives. The keeper of a list that was closed by
// kyt_close_dirty may still be about to write an old copy of a sector into this very file, and its loop has forgotten
// it: without the lock a mark made since then could be overwritten for good. A write lock needs a descriptor open for
// writing, so a program that may only read cannot keep the list closed. False: errno says why.
bool lock(int fd) {
#ifdef F_OFD_SETLK
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fcntl(fd, F_OFD_SETLK, &whole) == 0) {
        return true;
    }
    if (errno == EAGAIN || errno == EACCES) {
        errno = EBUSY;
        return false;
    }
    // Linux before 3.15 knows no such locks.
#endif
    if (flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) {
        return true;  // or a filesystem without locks
    }
    errno = EBUSY;
    return false;
}

// How the file is to be used, once the list in memory is complete.
struct plan {
    bool write_first = false;  // everything is to be on the card before the header says that this is the list
    bool seal = false;         // the header is to be written
};

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
    if (!lock(list.fd)) {
        return -1;
    }
    loaded& l = r->file;
    if (store_load(&list, &r->h->live, &l) < 0) {
        r->failure = errno;
        return is_no_file(errno) ? 0 : -1;
    }
    // Of noise, one slot in 32,768 looks like a record.
    const bool is_noise = l.header == header_kind::DAMAGED && l.live + l.deleted.size <= l.used / 1024 && l.size > 0;
    if (is_noise) {
        store_clear(&list, &r->h->live, &l);
    }
    r->exists = l.unreadable == 0 && !is_noise && l.header != header_kind::OTHER_VERSION;
    return 0;
}

// Whether all names of the folder are to be read.
bool judge_file(repair* r) {
    const loaded& l = r->file;
    const uint32_t live = r->h->live.size() + r->doubles;
    const uint32_t card = card_of(r->folder);
    r->other_card = is_list(l) && l.head.card != 0 && card != 0 && l.head.card != card;
    r->missing = r->exists && is_closed(l) && live < l.head.live ? l.head.live - live : 0;
    const bool miscounted = is_closed(l) && live != l.head.live;
    r->damaged = r->exists ? !is_list(l) || l.destroyed > 0 || r->doubles > 0 || has_wrong_size(l) || miscounted
                           : r->failure != ENOENT;
    return !is_closed(l) || r->damaged || r->other_card || l.other_order;
}

// The slots that follow the newest record's are taken first: they are in its sector, or in the next one.
void sort_empty(kyt_handle* h) {
    std::sort(h->empty.begin(), h->empty.end());
    if (h->live.size() > 0) {
        const uint32_t newest = h->live.entries[h->live.end - 1];
        std::rotate(h->empty.begin(), std::upper_bound(h->empty.begin(), h->empty.end(), newest), h->empty.end());
    }
}

// A file of its own name, not yet sealed. 0, or -1 with errno.
int make_file(kyt_handle* h, int folder, file_state state) {
    store& list = h->list;
    const int fd = openat(folder, LIST_NAME, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    const uint32_t bytes = file_bytes(list.used);
    if (!lock(fd) || header_write(fd, state, 0) < 0 || ftruncate(fd, bytes) < 0) {
        const int failure = errno;
        close(fd);
        (void)unlinkat(folder, LIST_NAME, 0);
        errno = failure;
        return -1;
    }
    list.fd = fd;
    list.bytes = bytes;
    return 0;
}

int replace_file(repair* r, plan* p) {
    store& list = r->h->list;
    if (list.fd >= 0) {
        close(list.fd);
        list.fd = -1;
    }
    if (r->failure != ENOENT) {
        aside_move(r->folder, &r->done);
    }
    std::memset(list.sums, 0, MAX_SECTORS * sizeof *list.sums);
    // A list without records can lose nothing: it need not wait for the card, and a fresh card is ready sooner.
    p->write_first = p->seal = r->h->live.size() > 0;
    const file_state state = p->seal ? file_state::WRITING : file_state::OPEN;
    // A full card must not leave the camera without a list: it could not even make room any more.
    while (make_file(r->h, r->folder, state) < 0) {
        if (errno != ENOSPC || !aside_remove_oldest(r->folder, &r->done)) {
            return -1;
        }
    }
    return 0;
}

plan plan_for(const repair& r, uint32_t sealed) {
    const loaded& l = r.file;
    plan p;
    p.write_first = l.other_order || has_state(l, file_state::WRITING);
    p.seal = p.write_first || r.other_card || !has_state(l, file_state::OPEN) || l.head.records > sealed;
    return p;
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
    if (wanted >= r.file.size || ftruncate(list.fd, offset_of(tail)) < 0) {
        return;
    }
    list.bytes = ftruncate(list.fd, wanted) == 0 ? wanted : offset_of(tail);
    std::memset(static_cast<void*>(list.slots + tail), 0, size_t{list.used - tail} * sizeof(kyt_record));
    std::fill_n(list.sums + tail / SECTOR_RECORDS, MAX_SECTORS - tail / SECTOR_RECORDS, uint64_t{0});
    list.used = tail;
    const uint32_t* const end = std::remove_if(h->empty.begin(), h->empty.end(), [&](uint32_t s) { return s >= tail; });
    h->empty.size = static_cast<uint32_t>(end - h->empty.begin());
}

// Brings the file to where the keeper can go on. 0, or -1 with errno.
int prepare_file(repair* r) {
    kyt_handle* const h = r->h;
    const uint32_t tail = tail_of(*r);
    uint32_t sealed = std::min(r->file.used, tail);
    plan p;
    if (r->exists) {
        p = plan_for(*r, sealed);
    } else if (replace_file(r, &p) < 0) {
        return -1;
    }
    if (p.write_first) {
        writer w;
        w.list = h->list;
        if (!write_changes(&w, h->list.used, true)) {
            return -1;
        }
        h->list.bytes = w.list.bytes;
        sealed = tail;
    }
    if (p.seal && header_seal(h->list.fd, file_state::OPEN, sealed) < 0) {
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
    bool ok = repair_order(&r);
    const bool everything = judge_file(&r);
    // What was set aside has the marks that a list made from the folder lacks.
    if (ok && (!is_list(r.file) || has_state(r.file, file_state::WRITING))) {
        ok = aside_read(folder, &r.known);
    }
    if (!ok || !repair_from_folder(&r, everything)) {
        errno = ENOMEM;
        return -1;
    }
    const int failure = prepare_file(&r) == 0 ? 0 : errno;
    repair_report(&r, failure);
    errno = failure;
    return failure == 0 ? 0 : -1;
}

}  // namespace kyt
