
#include <cerrno>
#include <unistd.h>

#include "keeper.h"
#include "phrases.h"
#include "record.h"
#include "vesk_util.h"

namespace kyt {
namespace {

constexpr uint32_t RUN_SECTORS = 16;  // written at one go; 8 KiB of the thread's stack

// FAT fills what a file grows by with zeros. Not synchronised here: a synchronisation that fails takes the error of all
// earlier writes with it, so there is one for all of them. False, with errno: the slots have no room in the file.
bool grow(writer* w, uint32_t used) {
    store& list = w->list;
    while (list.bytes < file_bytes(used)) {
        const uint32_t next = list.bytes / STEP_BYTES * STEP_BYTES + STEP_BYTES;
        if (ftruncate(list.fd, next) < 0) {
            const int failure = errno;
            if (!w->said_no_room && !w->abandoned) {
                w->said_no_room = true;
                log_warning("kyt: the list cannot grow: %s", error_text(failure).text);
            }
            errno = failure;
            return offset_of(used) <= list.bytes;
        }
        w->said_no_room = false;
        w->unsynced = true;
        list.bytes = next;
    }
    return true;
}

size_t first_slot(uint32_t sector) {
    return size_t{sector} * SECTOR_RECORDS;
}

bool is_written(const store& list, uint32_t sector) {
    return (list.sums[sector] | SYNCED) == (sum_of(list.slots + first_slot(sector), SECTOR_RECORDS) | SYNCED);
}

// 0, or the errno of the last write that the card has refused.
int write_sectors(writer* w, uint32_t sectors) {
    store& list = w->list;
    kyt_record run[RUN_SECTORS * SECTOR_RECORDS];
    int failure = 0;
    for (uint32_t sector = 0; sector < sectors;) {
        uint32_t count = 0;
        for (; count < RUN_SECTORS && sector + count < sectors && !is_written(list, sector + count); ++count) {
            kyt_record* const to = run + first_slot(count);
            copy_records(to, list.slots + first_slot(sector + count), SECTOR_RECORDS);
            list.sums[sector + count] = sum_of(to, SECTOR_RECORDS);
        }
        if (count > 0) {
            if (w->abandoned) {
                return ECANCELED;
            }
            w->unsynced = true;
            if (write_at(list.fd, run, size_t{count} * SECTOR_BYTES, offset_of(sector * SECTOR_RECORDS)) < 0) {
                failure = errno;
                std::fill_n(list.sums + sector, count, uint64_t{0});
            }
        }
        sector += std::max(count, 1U);
    }
    return failure;
}

void settle_sums(store* list, uint32_t sectors, bool synced) {
    for (uint64_t* sum = list->sums; sum != list->sums + sectors; ++sum) {
        if (synced) {
            *sum |= *sum != 0 ? SYNCED : 0;
        } else if ((*sum & SYNCED) == 0) {
            *sum = 0;
        }
    }
}

}  // namespace

bool write_changes(writer* w, uint32_t used, bool sync) {
    const int no_room = grow(w, used) ? 0 : errno;
    const uint32_t in_file = w->list.bytes < RECORDS_AT ? 0 : (w->list.bytes - RECORDS_AT) / SECTOR_BYTES;
    const uint32_t sectors = std::min((used + SECTOR_RECORDS - 1) / SECTOR_RECORDS, in_file);
    int failure = write_sectors(w, sectors);
    if (sync && w->unsynced && !w->abandoned) {
        const bool synced = fdatasync(w->list.fd) == 0;
        failure = synced ? failure : errno;
        settle_sums(&w->list, sectors, synced);
        w->unsynced = false;
    }
    errno = failure != 0 ? failure : no_room;
    return errno == 0;
}

}  // namespace kyt
