#include "repair.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "folder.h"
#include "load.h"
#include "names.h"
#include "phrases.h"
#include "record.h"
#include "vesk_util.h"

namespace kyt {
namespace {

constexpr int MAX_ASIDE = 4;

struct aside_name {
    char text[13] = "KYT_BAD0.LST";
    explicit aside_name(int number) { text[7] = static_cast<char>('0' + number); }
};

// A record on its way into the new list. Of several with one ts the first in order stays: live before deleted, the
// list's own before one found elsewhere.
struct candidate {
    kyt_record record;
    bool deleted;
    bool foreign;  // not from the list itself: believed only when its clip is on the card
};

bool comes_first(const candidate& a, const candidate& b) {
    if (a.record.ts != b.record.ts) {
        return a.record.ts < b.record.ts;
    }
    // What the list itself says about a ts counts, deleted or not; an older or broken copy only fills gaps.
    return a.foreign != b.foreign ? b.foreign : !a.deleted && b.deleted;
}

struct repair {
    int folder;
    loaded files[2];
    int list = -1;            // which of the files is the list
    bool damaged = false;     // something in it was destroyed, or there was something but no list
    bool cut = false;         // fewer or more slots than it was left with
    int rival = -1;           // beside a list: a file whose header does not say what it is, but with records
    bool other_card = false;  // the list was made on another card: believed only where a clip is on this one
    bool complete = false;    // the folder was read whole, without an error
    bool as_it_was = false;   // on a full card
    phrases found;
    phrases done;
    array<candidate> candidates;
    array<uint32_t> clips;  // on the card, ascending
    array<kyt_record> result;
    uint32_t twice = 0;  // records of the list itself whose ts another one has
    uint32_t added = 0;
    uint32_t returned = 0;  // deleted ones whose clips are still there
    uint32_t dropped = 0;   // of a damaged file, without a clip
    uint32_t first_returned = 0;
};

bool gather(repair* r, const loaded& file, bool foreign) {
    for (const kyt_record& record : file.records) {
        if (!r->candidates.push({record, !is_live(record), foreign})) {
            return false;
        }
    }
    return true;
}

// All clips of the card, or with `only` those of the periods of deleted records.
bool read_folder(repair* r, bool everything) {
    array<uint32_t> periods;
    r->complete = everything;
    if (everything && folder_periods(r->folder, &periods) < 0) {
        r->complete = false;
        r->found.add("the recordings folder cannot be read: %s", std::strerror(errno));
    }
    for (const candidate& c : r->candidates) {
        const uint32_t period = c.record.ts - c.record.ts % PERIOD_S;
        if (!everything && c.deleted && (periods.size == 0 || periods[periods.size - 1] != period) &&
            !periods.push(period)) {
            return false;
        }
    }
    std::sort(periods.begin(), periods.end());
    const uint32_t* const last = std::unique(periods.begin(), periods.end());
    uint32_t unreadable = 0;
    int why = 0;
    for (const uint32_t* period = periods.begin(); period != last; ++period) {
        if (folder_clips(r->folder, *period, &r->clips) < 0) {
            if (errno == ENOMEM) {
                return false;
            }
            r->complete = false;
            ++unreadable;
            why = errno;
        }
    }
    if (unreadable > 0) {
        r->found.add("%u hours of the folder cannot be read: %s", unreadable, std::strerror(why));
    }
    std::sort(r->clips.begin(), r->clips.end());
    r->clips.size = static_cast<uint32_t>(std::unique(r->clips.begin(), r->clips.end()) - r->clips.begin());
    return true;
}

bool keep(repair* r, const candidate& c, bool on_card) {
    if (c.deleted) {
        if (!on_card) {
            return true;  // and the tombstone goes
        }
        r->first_returned = r->returned++ == 0 ? c.record.ts : r->first_returned;
        return r->result.push(live_record(c.record.ts, 0, c.record.flags));
    }
    // A whole-looking record in a damaged file may be noise. A clip that is gone needs no record anyway.
    if (!on_card && (c.foreign || (r->damaged && r->complete))) {
        ++r->dropped;
        return true;
    }
    return r->result.push(c.record);
}

// Puts the candidates in order. A ts that stands twice in the list shows that a sector came where another one was, so
// that there are records missing, too.
void sort_candidates(repair* r) {
    std::sort(r->candidates.begin(), r->candidates.end(), comes_first);
    for (uint32_t i = 1; i < r->candidates.size; ++i) {
        r->twice += !r->candidates[i].foreign && r->candidates[i].record.ts == r->candidates[i - 1].record.ts ? 1 : 0;
    }
}

bool merge(repair* r) {
    const uint32_t* clip = r->clips.begin();
    const uint32_t* const clips_end = r->clips.end();
    uint32_t at = 0;
    while (at < r->candidates.size || clip != clips_end) {
        if (at == r->candidates.size || (clip != clips_end && *clip < r->candidates[at].record.ts)) {
            ++r->added;
            if (!r->result.push(live_record(*clip++, 0, 0))) {
                return false;
            }
            continue;
        }
        const candidate& c = r->candidates[at];
        const bool on_card = clip != clips_end && *clip == c.record.ts;
        if (!keep(r, c, on_card)) {
            return false;
        }
        clip += on_card ? 1 : 0;
        const uint32_t ts = c.record.ts;
        for (++at; at < r->candidates.size && r->candidates[at].record.ts == ts; ++at) {
            // Nobody knows which of two files is the newer one: rather a mark too many than one too few.
            if (r->rival >= 0 && on_card && r->result.size > 0 && r->result[r->result.size - 1].ts == ts) {
                kyt_record& kept = r->result[r->result.size - 1];
                kept.flags = static_cast<uint8_t>(kept.flags | r->candidates[at].record.flags);
            }
        }
    }
    if (r->result.size > MAX_RECORDS) {
        r->found.add("more clips than a list can hold: the newest %u stay out of it", r->result.size - MAX_RECORDS);
        r->result.size = MAX_RECORDS;
    }
    return true;
}

// Keeps an unreadable file for whoever wants to look into it; the fourth and later ones share a name, so that a card
// that goes bad again and again does not fill with them.
void set_aside(repair* r, int file) {
    const char* const name = LIST_NAMES[file];
    const loaded& l = r->files[file];
    if (l.failure == 0 && l.empty) {
        r->found.add("%s was empty", name);
        (void)unlinkat(r->folder, name, 0);
        return;
    }
    r->found.add("%s %s", name,
                 l.failure != 0                           ? std::strerror(l.failure)
                 : l.header == header_kind::OTHER_VERSION ? "was written by another version"
                 : l.unreadable > 0                       ? "has parts that cannot be read"
                                                          : "was no list");
    struct stat status = {};
    int number = 0;
    while (number < MAX_ASIDE - 1 && fstatat(r->folder, aside_name(number).text, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        ++number;
    }
    const aside_name aside(number);
    (void)unlinkat(r->folder, aside.text, 0);
    if (renameat(r->folder, name, r->folder, aside.text) < 0) {
        r->done.add("%s cannot be set aside: %s", name, std::strerror(errno));
    } else {
        r->done.add("%s is set aside as %s", name, aside.text);
    }
}

bool must_be_set_aside(const repair& r, int file) {
    const loaded& l = r.files[file];
    if (l.failure == ENOENT) {
        return false;
    }
    // Beside a list, the other file is a copy in the making or the list's predecessor: it may go. An unreadable page
    // keeps its place on the card, so that no clip is written there.
    return l.failure != 0 || l.unreadable > 0 || file == r.rival ||
           (r.list < 0 && !is_list(l) && !(l.header == header_kind::INTACT));
}

void drop_file(repair* r, int file) {
    if (r->files[file].failure == ENOENT) {
        return;
    }
    if (must_be_set_aside(*r, file)) {
        set_aside(r, file);
    } else {
        (void)unlinkat(r->folder, LIST_NAMES[file], 0);
    }
}

// What was found, beside what has been said already.
void find(repair* r) {
    const loaded* const l = r->list >= 0 ? &r->files[r->list] : nullptr;
    if (!l) {
        return;
    }
    if (l->head.state == static_cast<uint32_t>(file_state::OPEN)) {
        r->found.add("the list was not closed");
    }
    if (l->other_order) {
        r->found.add("the list comes from a machine of the other byte order");
    }
    if (r->other_card) {
        r->found.add("the list belongs to another card");
    }
    if (r->cut) {
        r->found.add("the list was cut short or made longer");
    }
    const uint32_t destroyed = l->destroyed + l->unreadable * (4096U / 8U);
    if (destroyed > 0) {
        r->found.add("%u of its records were destroyed", destroyed);
    }
    if (r->twice > 0) {
        r->found.add("%u of its records stood there twice", r->twice);
    }
    if (!l->ascending) {
        r->found.add("its records were out of order");
    }
}

// One line for the log, whatever has happened: found, then done.
void report(repair* r, int failure) {
    const loaded* const l = r->list >= 0 ? &r->files[r->list] : nullptr;
    if (!l && !r->damaged && failure == 0 && r->found.empty()) {
        log_info("kyt: a new list, with %u clips that are on the card", r->result.size);
        return;
    }
    if (r->as_it_was) {
        r->done.add("used as it is");
    } else if (failure == 0 && !r->found.empty()) {
        r->done.add("%u records now, of them %u from the folder", r->result.size, r->added);
    }
    if (r->dropped > 0) {
        r->done.add("%u dropped for want of a clip", r->dropped);
    }
    if (r->returned > 0) {
        r->done.add("%u deleted clips are still on the card and back in the list, the first is %u", r->returned,
                    r->first_returned);
    }
    if (r->damaged) {
        r->done.add("marks may be lost");
    }
    if (failure != 0) {
        r->done.add("no list is in use: %s", std::strerror(failure));
    }
    const char* const between = r->found.empty() ? "" : ": ";
    if (failure != 0 || r->damaged || r->returned > 0 || r->other_card || r->as_it_was || (l && l->other_order)) {
        log_warning("kyt: %s%s%s", r->found.text, between, r->done.text);
    } else {
        log_info("kyt: %s%s%s", r->found.text, between, r->done.text);
    }
}

int write_anew(repair* r, int name, uint32_t generation, ready_file* ready) {
    list_writer writer;
    bool ok = writer_begin(&writer, r->folder, LIST_NAMES[name], generation) == 0;
    for (const kyt_record& record : r->result) {
        ok = ok && writer_put(&writer, record) == 0;
    }
    // A list without records can lose nothing: it need not wait for the card, and a fresh card is ready sooner.
    const bool sync = r->result.size > 0 || r->list >= 0;
    ok = ok && writer_end(&writer, sync) == 0 &&
         (sync ? header_seal(writer.fd, generation, file_state::OPEN, r->result.size)
               : header_write(writer.fd, generation, file_state::OPEN, 0)) == 0;
    if (!ok) {
        const int failure = errno;
        writer_drop(&writer, r->folder, LIST_NAMES[name]);
        errno = failure;
        return -1;
    }
    *ready = {writer.fd, name, generation, file_bytes(r->result.size), r->result.size};
    return 0;
}

void remove_asides(repair* r) {
    for (int number = 0; number < MAX_ASIDE; ++number) {
        if (unlinkat(r->folder, aside_name(number).text, 0) == 0) {
            r->done.add("%s is removed to make room", aside_name(number).text);
        }
    }
}

// Uses the list's file as it lies.
int take_file(repair* r, ready_file* ready) {
    const loaded& l = r->files[r->list];
    const int fd = openat(r->folder, LIST_NAMES[r->list], O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return -1;
    }
    struct stat status = {};
    // From here on a power cut leaves a file that says so.
    if (fstat(fd, &status) < 0 || (l.head.state == static_cast<uint32_t>(file_state::CLOSED) &&
                                   header_seal(fd, l.head.generation, file_state::OPEN, l.used) < 0)) {
        const int failure = errno;
        close(fd);
        errno = failure;
        return -1;
    }
    drop_file(r, 1 - r->list);
    *ready = {fd, r->list, l.head.generation, static_cast<uint32_t>(status.st_size), l.used};
    return 0;
}

// The name for the new list. What lies there goes first; the other file stays until the new list is sealed, so that a
// power cut in between finds it: it is the one that says more.
int name_for_new(const repair& r) {
    if (r.list >= 0 && r.rival < 0) {
        return 1 - r.list;
    }
    if (r.files[0].failure == ENOENT || r.files[1].failure == ENOENT) {
        return r.files[0].failure == ENOENT ? 0 : 1;
    }
    return r.files[0].records.size < r.files[1].records.size ? 0 : 1;
}

// Writes the result under the free name and lets it take the place of what there was.
int replace_files(repair* r, ready_file* ready) {
    uint32_t generation = 1;
    for (const loaded& l : r->files) {
        if (l.failure == 0 && l.header == header_kind::INTACT) {
            generation = std::max(generation, l.head.generation + 1);
        }
    }
    const int name = name_for_new(*r);
    drop_file(r, name);
    if (write_anew(r, name, generation, ready) < 0) {
        if (errno != ENOSPC) {
            return -1;
        }
        // A full card must not leave the camera without a list: it could not even make room any more.
        if (r->list >= 0 && !r->damaged && !r->files[r->list].other_order) {
            r->found.add("no room to put the list in order");
            r->as_it_was = true;
            return take_file(r, ready);
        }
        remove_asides(r);
        if (write_anew(r, name, generation, ready) < 0) {
            return -1;
        }
    }
    drop_file(r, 1 - name);
    return 0;
}

}  // namespace

int prepare_list(int folder, ready_file* ready) {
    repair r;
    r.folder = folder;
    if (!load_files(folder, &r.files)) {
        errno = ENOMEM;
        return -1;
    }
    r.list = choose_list(r.files);
    const loaded* const l = r.list >= 0 ? &r.files[r.list] : nullptr;
    const bool closed = l && l->head.state == static_cast<uint32_t>(file_state::CLOSED);
    r.cut = l && has_wrong_size(*l);
    r.damaged = l ? l->destroyed > 0 || l->unreadable > 0 || r.cut
                  : r.files[0].failure != ENOENT || r.files[1].failure != ENOENT;
    // A list's predecessor comes back when its end was not on the card yet. Beside it, a file with a damaged header may
    // be the true list: the clips decide.
    for (int file = 0; l && file < 2; ++file) {
        const loaded& other = r.files[file];
        if (file != r.list && other.failure == 0 && other.header == header_kind::DAMAGED && other.records.size > 0) {
            r.rival = file;
            r.damaged = true;
        }
    }
    const uint32_t card = card_of(folder);
    r.other_card = l && l->head.card != 0 && card != 0 && l->head.card != card;
    bool ok = true;
    for (int file = 0; file < 2 && ok; ++file) {
        // Without damage the other file has nothing to say: it is older, or a copy in the making.
        ok = file == r.list ? gather(&r, r.files[file], r.other_card) : !r.damaged || gather(&r, r.files[file], true);
    }
    sort_candidates(&r);
    r.damaged = r.damaged || r.twice > 0;
    const bool everything = !closed || r.damaged || r.other_card;
    if (ok && (everything || l->deleted > 0)) {
        ok = read_folder(&r, everything);
    }
    if (!ok || !merge(&r)) {
        errno = ENOMEM;
        return -1;
    }
    find(&r);
    const bool as_it_lies = l && !r.damaged && !r.other_card && !l->other_order && l->ascending && l->deleted == 0 &&
                            r.added == 0 && r.dropped == 0;
    const int result = as_it_lies ? take_file(&r, ready) : replace_files(&r, ready);
    const int failure = result == 0 ? 0 : errno;
    if (!r.found.empty() || !r.done.empty() || r.returned > 0 || (result == 0 && !l)) {
        report(&r, failure);
    }
    errno = failure;
    return result;
}

}  // namespace kyt
