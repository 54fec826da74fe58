// The record list library: the same promises, kept in memory. Names and announcements are the real library's.
#include <cerrno>
#include <cstring>

#include "faults.h"
#include "invariants.h"
#include "kyt.h"
#include "world.h"

struct kyt_handle {
    bool is_open = false;
    std::shared_ptr<sim::filesystem> fs;
};

namespace sim {
namespace {

kyt_handle the_list;
int faults_in;  // calls of kyt_next until one of them faults; 0: none does

clip_list& list_of(const kyt_handle* handle) {
    if (handle != &the_list || !handle->is_open) {
        violation("the list is used that is not open");
    }
    return handle->fs->list;
}

uint32_t ts_of(const std::string& base_name) {
    tm parts = {};
    if (base_name.size() != 19 || strptime(base_name.substr(0, 15).c_str(), "%Y%m%d_%H%M%S", &parts) == nullptr) {
        return 0;
    }
    return static_cast<uint32_t>(timegm(&parts));
}

// Clips on the card that the list does not know; of periods that have ended, or of all.
void merge_folder(filesystem& fs, bool all) {
    const node* folder = find(fs, "ZOLTA_RECORD_VIDEO");
    if (folder == nullptr) {
        return;
    }
    char now[16];
    const time_t seconds = wall_s();
    tm parts = {};
    gmtime_r(&seconds, &parts);
    strftime(now, sizeof now, "%Y%m%d%H", &parts);
    for (const auto& [period, directory] : folder->children) {
        if (!directory->is_dir || (!all && period >= now)) {
            continue;
        }
        for (const auto& [name, file] : directory->children) {
            const uint32_t ts = name.size() == 19 && name.substr(15) == ".mp4" ? ts_of(name) : 0;
            if (ts != 0 && fs.list.slots.count(ts) == 0) {
                kyt_record record = {};
                record.ts = ts;
                fs.list.slots[ts] = {record, false};
                fs.list.protected_ts.erase(ts);
                note("list: %u found in the folder", ts);
            }
        }
    }
}

}  // namespace

bool list_is_open() {
    return the_list.is_open;
}

filesystem* list_filesystem() {
    return the_list.fs.get();
}

void odd_list(uint32_t a) {
    switch (a % 4) {
        case 0:
            // Rare: the first one takes away the guard for the rest of the daemon's life.
            if ((a >> 4) % 10 == 0) {
                faults_in = 1 + static_cast<int>((a >> 8) % 3);
            }
            break;
        case 1:
            fail(call::KYT_OPEN, EIO, 1, false);
            break;
        case 2:
            fail(call::KYT_WRITE, ENOSPC, 1, false);
            break;
        case 3:
            fail(call::KYT_OPTIMISE, EIO, 1, false);
            break;
    }
}

}  // namespace sim

using namespace sim;

extern "C" {

kyt_handle* kyt_open_rdwr(void) {
    check_list_opened();
    spend(30 * MS);
    if (must_fail(call::KYT_OPEN)) {
        return nullptr;
    }
    if (the_list.is_open) {
        violation("the list is opened twice");
    }
    const std::shared_ptr<filesystem> fs = at_mount_point();
    if (fs->is_gone || fs->is_read_only) {
        errno = fs->is_gone ? EIO : EROFS;
        return nullptr;
    }
    the_list.is_open = true;
    the_list.fs = fs;
    std::erase_if(fs->list.slots, [](const auto& entry) { return entry.second.is_deleted; });
    merge_folder(*fs, true);
    note("list: opened with %zu clips", fs->list.slots.size());
    changed();
    return &the_list;
}

void kyt_close(kyt_handle* handle) {
    (void)list_of(handle);
    the_list.is_open = false;
    note("list: closed");
    changed();
}

void kyt_close_dirty(kyt_handle* handle) {
    kyt_close(handle);
}

int kyt_optimise(kyt_handle* handle) {
    (void)list_of(handle);
    if (must_fail(call::KYT_OPTIMISE)) {
        return -1;
    }
    merge_folder(*handle->fs, false);
    return 0;
}

kyt_record* kyt_get(kyt_handle* handle, uint32_t ts) {
    clip_list& list = list_of(handle);
    const auto at = list.slots.find(ts);
    return at != list.slots.end() && !at->second.is_deleted ? &at->second.record : nullptr;
}

kyt_record* kyt_next(kyt_handle* handle, const kyt_record* prev) {
    clip_list& list = list_of(handle);
    if (faults_in > 0 && --faults_in == 0) {
        (void)raise_bus_fault();
    }
    auto at = prev == nullptr ? list.slots.begin() : list.slots.upper_bound(prev->ts);
    while (at != list.slots.end() && at->second.is_deleted) {
        ++at;
    }
    return at != list.slots.end() ? &at->second.record : nullptr;
}

int kyt_write(kyt_handle* handle, const kyt_record* record) {
    clip_list& list = list_of(handle);
    if (must_fail(call::KYT_WRITE)) {
        return -1;
    }
    const auto at = list.slots.find(record->ts);
    if (at != list.slots.end() && !at->second.is_deleted) {
        violation("%u is written into the list twice", record->ts);
    }
    list.slots[record->ts] = {*record, false};
    changed();
    return 0;
}

int __real_kyt_ts2path(uint32_t ts, char* buffer, size_t size, int flag);
int __wrap_kyt_ts2path(uint32_t ts, char* buffer, size_t size, int flag) {
    return must_fail(call::KYT_TS2PATH) ? -1 : __real_kyt_ts2path(ts, buffer, size, flag);
}

int kyt_mark_deleted(kyt_handle* handle, kyt_record* record) {
    clip_list& list = list_of(handle);
    const auto at = list.slots.find(record->ts);
    if (at == list.slots.end() || &at->second.record != record) {
        violation("a record is marked deleted that is not the list's");
    }
    at->second.is_deleted = true;
    list.protected_ts.erase(record->ts);
    errno = EBADMSG;  // what the library leaves in errno is its own business
    changed();
    return 0;
}

}  // extern "C"
