// The keeper's two long jobs. Both go through the list's file by plain reads, which see what the loop has just changed
// in the mapping; what they find is only a proposal that the loop checks when it takes it over, so a record that is
// changing while it is read does no harm. Both stop for a flush each second, and for the end of the session.
//
// Comparing takes the periods in batches of 64, with a bit for each second of a period: the folder's names set
// bits, one pass over the list clears those that have a record. 57 KiB of memory however many clips there are, and for
// 100,000 clips 27 passes over a file that lies in memory.
//
// Rewriting merges the main row with the strays, front to back, in 4 KiB of memory. A list that was opened unread and
// in which damage was found has no such order: its whole records are sorted in memory, 16 bytes each.
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "folder.h"
#include "keeper.h"
#include "names.h"
#include "record.h"
#include "vesk_util.h"

namespace kyt {
namespace {

constexpr uint32_t BATCH_PERIODS = 64;
constexpr uint32_t PERIOD_BYTES = PERIOD_S / 8;
constexpr uint32_t RECORD_BYTES = sizeof(kyt_record);
constexpr uint32_t PAGE_RECORDS = 512;
constexpr uint32_t SYNC_RECORDS = 8192;  // a slow card takes the new list in pieces of 64 KiB between the flushes

struct batch {
    uint32_t periods[BATCH_PERIODS];  // ascending
    uint32_t count;
    uint8_t clip[BATCH_PERIODS][PERIOD_BYTES];
    uint8_t deleted[BATCH_PERIODS][PERIOD_BYTES];
};

// Reads slots [0, records) of the list in order. `see` gets each slot. False: a read failed or the session ends.
template <typename See>
bool read_slots(keeper* k, uint32_t records, See see) {
    kyt_record page[PAGE_RECORDS];
    for (uint32_t slot = 0; slot < records;) {
        keeper_tick(k);
        const uint32_t wanted = std::min(PAGE_RECORDS, records - slot);
        const long got =
            read_at(k->files[k->list].fd, page, size_t{wanted} * RECORD_BYTES, RECORDS_AT + slot * RECORD_BYTES);
        if (is_ending(*k) || got < 0) {
            return false;
        }
        const uint32_t whole = static_cast<uint32_t>(got) / RECORD_BYTES;
        for (uint32_t i = 0; i < whole; ++i) {
            see(page[i]);
        }
        if (whole < wanted) {
            return true;  // the newest records are still in memory only
        }
        slot += whole;
    }
    return true;
}

bool add_found(array<uint32_t>* found, uint32_t ts) {
    return found->size < job::MAX_FOUND && found->push(ts);
}

// False: something could not be read.
bool compare_batch(keeper* k, batch* b) {
    bool complete = true;
    array<uint32_t> clips;
    for (uint32_t i = 0; i < b->count && !is_ending(*k); ++i) {
        keeper_tick(k);
        clips.size = 0;
        complete = folder_clips(k->folder, b->periods[i], &clips) == 0 && complete;
        for (const uint32_t ts : clips) {
            const uint32_t second = ts % PERIOD_S;
            b->clip[i][second / 8] = static_cast<uint8_t>(b->clip[i][second / 8] | (1U << (second % 8)));
        }
    }
    const uint32_t* const end = b->periods + b->count;
    complete = read_slots(k, k->files[k->list].used.load(std::memory_order_acquire),
                          [&](const kyt_record& record) {
                              const slot kind = slot_kind(record);
                              const uint32_t second = record.ts % PERIOD_S;
                              const uint32_t* const period =
                                  std::lower_bound<const uint32_t*>(b->periods, end, record.ts - second);
                              if (period == end || *period != record.ts - second) {
                                  return;
                              }
                              const auto bit = static_cast<uint8_t>(1U << (second % 8));
                              uint8_t& clip = b->clip[period - b->periods][second / 8];
                              if (kind == slot::LIVE) {
                                  clip = static_cast<uint8_t>(clip & ~bit);
                              } else if (kind == slot::DELETED) {
                                  uint8_t& deleted = b->deleted[period - b->periods][second / 8];
                                  deleted = static_cast<uint8_t>(deleted | bit);
                              }
                          }) &&
               complete;
    if (is_ending(*k)) {
        return false;
    }
    for (uint32_t i = 0; i < b->count; ++i) {
        for (uint32_t second = 0; second < PERIOD_S; ++second) {
            const auto bit = static_cast<uint8_t>(1U << (second % 8));
            if ((b->clip[i][second / 8] & bit) != 0) {
                const uint32_t ts = b->periods[i] + second;
                const bool deleted = (b->deleted[i][second / 8] & bit) != 0;
                if (deleted) {
                    complete = add_found(&k->work.undead, ts) && complete;
                } else if (b->periods[i] < k->work.horizon) {
                    (void)add_found(&k->work.missing, ts);  // what does not fit in is found again the next time
                }
            }
        }
    }
    return complete;
}

bool compare(keeper* k) {
    array<uint32_t> periods;
    bool complete = folder_periods(k->folder, &periods) == 0;
    std::sort(periods.begin(), periods.end());
    auto* const b = static_cast<batch*>(std::malloc(sizeof(batch)));
    if (!b) {
        return false;
    }
    for (uint32_t first = 0; first < periods.size && !is_ending(*k); first += BATCH_PERIODS) {
        std::memset(b, 0, sizeof *b);
        b->count = std::min(BATCH_PERIODS, periods.size - first);
        std::copy_n(periods.begin() + first, b->count, b->periods);
        complete = compare_batch(k, b) && complete;
    }
    std::free(b);
    return complete && !is_ending(*k);
}

struct copier {
    keeper* k;
    list_writer writer;
    bool failed;
    uint32_t next_stray;  // in work.strays
    uint32_t next_run;    // in work.runs
    uint32_t slot;
};

void copy_record(copier* c, const kyt_record& record) {
    const job& work = c->k->work;
    const slot kind = slot_kind(record);
    const bool drop =
        kind == slot::DELETED && work.may_drop && static_cast<int8_t>(round_of(record) - work.drop_round) < 0;
    if (c->failed || drop || (kind != slot::LIVE && kind != slot::DELETED)) {
        return;  // one that is changing right now is brought over by the loop
    }
    c->failed = writer_put(&c->writer, record) < 0;
    if (!c->failed && c->writer.records % SYNC_RECORDS == 0) {
        c->failed = fdatasync(c->writer.fd) < 0;
        keeper_tick(c->k);
    }
}

// Copies the strays that come before ts.
void copy_strays(copier* c, uint32_t ts) {
    const array<uint32_t>& strays = c->k->work.strays;
    while (c->next_stray < strays.size && !c->failed) {
        kyt_record record = {};
        const uint32_t offset = RECORDS_AT + strays[c->next_stray] * static_cast<uint32_t>(sizeof record);
        if (read_at(c->k->files[c->k->list].fd, &record, sizeof record, offset) < 0) {
            c->failed = true;
        } else if (record.ts >= ts) {
            return;
        } else {
            ++c->next_stray;
            copy_record(c, record);
        }
    }
}

// Copies what is in order but for the strays.
bool copy_in_order(copier* c) {
    const job& work = c->k->work;
    const bool read = read_slots(c->k, work.records, [&](const kyt_record& record) {
        const uint32_t slot_number = c->slot++;
        if (c->next_run < work.runs.size && work.runs[c->next_run] == slot_number) {
            ++c->next_run;
            return;  // a stray: it comes where its ts says
        }
        copy_strays(c, record.ts);
        copy_record(c, record);
    });
    copy_strays(c, UINT32_MAX);
    return read;
}

// All clips on the card, ascending. False: not all of them could be read.
bool read_clips(keeper* k, array<uint32_t>* clips) {
    array<uint32_t> periods;
    bool complete = folder_periods(k->folder, &periods) == 0;
    for (const uint32_t period : periods) {
        keeper_tick(k);
        if (is_ending(*k)) {
            return false;
        }
        complete = folder_clips(k->folder, period, clips) == 0 && complete;
    }
    std::sort(clips->begin(), clips->end());
    return complete;
}

// Copies what is whole of records that may be anything: sorted, each ts once. Of what was taken over unread a record is
// believed only when its clip is on the card, for noise passes for a record now and then.
bool copy_mended(copier* c) {
    struct entry {
        kyt_record record;
        bool inherited;
    };
    keeper* const k = c->k;
    job& work = k->work;
    array<entry> whole;
    bool room = true;
    if (!read_slots(k, work.records, [&](const kyt_record& record) {
            const slot kind = slot_kind(record);
            const bool inherited = c->slot++ < work.inherited;
            room = room && ((kind != slot::LIVE && kind != slot::DELETED) || whole.push({record, inherited}));
        })) {
        return false;
    }
    array<uint32_t> clips;
    const bool complete = read_clips(k, &clips);
    std::sort(whole.begin(), whole.end(), [](const entry& a, const entry& b) {
        return a.record.ts != b.record.ts ? a.record.ts < b.record.ts : is_live(a.record) && !is_live(b.record);
    });
    uint32_t last_ts = 0;
    for (const entry& e : whole) {
        const uint32_t ts = e.record.ts;
        if (complete && e.inherited && is_live(e.record) && !std::binary_search(clips.begin(), clips.end(), ts)) {
            room = room && work.without_clip.push(ts);
        } else if (ts != last_ts) {
            copy_record(c, e.record);
            last_ts = ts;
        }
    }
    errno = room ? errno : ENOMEM;
    return room && !is_ending(*k);
}

bool rewrite(keeper* k) {
    job& work = k->work;
    const int name = 1 - k->list;
    const uint32_t generation = k->files[k->list].generation + 1;
    copier c = {k, {}, false, 0, 0, 0};
    c.failed = writer_begin(&c.writer, k->folder, LIST_NAMES[name], generation) < 0;
    const bool read = !c.failed && (work.mend ? copy_mended(&c) : copy_in_order(&c));
    if (!read || c.failed || writer_end(&c.writer, true) < 0) {
        if (!is_ending(*k)) {
            log_warning("kyt: the list could not be rewritten: %s", std::strerror(errno));
        }
        if (!is_abandoned(*k)) {
            writer_drop(&c.writer, k->folder, LIST_NAMES[name]);
        } else if (c.writer.fd >= 0) {
            close(c.writer.fd);
        }
        return false;
    }
    kept_file& file = k->files[name];
    file.fd = c.writer.fd;
    file.generation = generation;
    file.used = c.writer.records;
    file.capacity = file_bytes(c.writer.records);
    work.new_records = c.writer.records;
    return true;
}

}  // namespace

void work_do(keeper* k) {
    job& work = k->work;
    work.missing.size = work.undead.size = work.without_clip.size = 0;
    work.complete = compare(k);
    work.rewritten = work.rewrite && !is_ending(*k) && rewrite(k);
    work.strays.clear();
    work.runs.clear();
}

// The order that no power cut can hurt: what the old file lacks, then all of the new one, then the seal that makes the
// new one the list, then the old one's end. Until the seal the old file is the list.
//
// What the card has refused once the kernel takes for written: a second attempt would succeed without it. So the loop,
// whose mapping is the new file by now, has to make the pages dirty again before there is one.
bool work_commit(keeper* k) {
    kept_file& old_file = k->files[k->list];
    kept_file& new_file = k->files[1 - k->list];
    (void)fdatasync(old_file.fd);  // when it fails, so will the new one's
    if (is_abandoned(*k) || k->redirty.load(std::memory_order_acquire)) {
        return false;
    }
    if (fdatasync(new_file.fd) < 0) {
        k->redirty.store(true, std::memory_order_release);
        return false;
    }
    if (is_abandoned(*k) || header_seal(new_file.fd, new_file.generation, file_state::OPEN, k->work.new_records) < 0 ||
        is_abandoned(*k)) {
        return false;
    }
    if (unlinkat(k->folder, LIST_NAMES[k->list], 0) < 0) {
        log_warning("kyt: the old list stays: %s", std::strerror(errno));  // the next open removes it
    }
    (void)fsync(k->folder);  // not every filesystem can; the seal decides in any case
    close(old_file.fd);
    old_file.fd = -1;
    k->list = 1 - k->list;
    return true;
}

void work_discard(keeper* k) {
    kept_file& file = k->files[1 - k->list];
    if (file.fd >= 0) {
        close(file.fd);
        file.fd = -1;
        (void)unlinkat(k->folder, LIST_NAMES[1 - k->list], 0);
    }
}

}  // namespace kyt
