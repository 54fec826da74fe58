// libkyt: the record list file, the index of all clips on the card.
//
// The list is one file in the recordings folder, mapped into memory. Callers change records in place through the
// pointers that they get. Every call belongs to the thread that opened the list, except kyt_ts2path, kyt_path2ts and
// kyt_record_parse, which are pure and may be called from anywhere. No call made on a list waits for the card; only
// kyt_open_rdwr reads it, and kyt_close sees to it that everything has been handed to it.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kyt_handle kyt_handle;

enum { KYT_PERSISTENT = 1 };  // bit 0 of kyt_record.flags: never deleted to free space

// One clip. A record that kyt_record_parse filled is complete: copied whole over a stored one of the same ts it leaves
// the list valid. Only `flags` may be changed by a caller.
struct kyt_record {
    uint32_t ts;          // start of the clip, seconds since 1970, UTC; never 0
    uint8_t reserved[2];  // the library's
    uint8_t flags;        // KYT_PERSISTENT; the other bits are 0 today
    uint8_t reserved2;    // the library's
};

// Opens the list of "/mnt/sdcard/ZOLTA_RECORD_VIDEO", making, repairing or replacing the file as need be.
// Null: errno says why. The handle is the caller's until kyt_close or kyt_close_dirty. One list may be open at a time.
kyt_handle* kyt_open_rdwr(void);

// Closes the list and keeps all changes. A null handle is fine.
void kyt_close(kyt_handle* handle);

// Closes a list whose card is gone: touches no page of the mapping, does no I/O that can hang and takes no lock that an
// interrupted call may hold, so that it may be called after a bus fault has jumped out of any call on the list.
void kyt_close_dirty(kyt_handle* handle);

// Maintenance: order, dead space, clips whose announcement was lost. Ends the validity of all record pointers.
// 0, or -1 with errno; the list stays usable either way.
int kyt_optimise(kyt_handle* handle);

// The live record of ts, or null. Valid until the record is deleted or kyt_optimise runs. O(log n).
struct kyt_record* kyt_get(kyt_handle* handle, uint32_t ts);

// The live record after prev, ascending by ts; null starts at the oldest and null is the end. prev may just have been
// marked deleted. The oldest costs O(1) amortised.
struct kyt_record* kyt_next(kyt_handle* handle, const struct kyt_record* prev);

// Adds a copy of the record. 0, or -1 with errno (EEXIST: a live record has this ts; EINVAL: the record did not come
// from kyt_record_parse; ENOSPC: no room on the card for now, the clip is found again by a later kyt_optimise).
int kyt_write(kyt_handle* handle, const struct kyt_record* record);

// Marks a record deleted; the clip's files are the caller's business. 0, or -1 with errno.
int kyt_mark_deleted(kyt_handle* handle, struct kyt_record* record);

// Writes the clip's full path without extension ("/mnt/sdcard/ZOLTA_RECORD_VIDEO/2026112101/20261121_012205"), NUL
// included. flag: 0. The length without the NUL, or -1 with errno (ENAMETOOLONG, EINVAL) and the buffer untouched.
int kyt_ts2path(uint32_t ts, char* buffer, size_t size, int flag);

// The timestamp of a period directory's name ("2026112101"). flag: 0. 0: the name is not exactly of that form.
uint32_t kyt_path2ts(const char* name, int flag);

// Parses an announcement: "<ts>", "<ts>,<seconds>" or "<ts>,<seconds>,<flags>", decimal; text is not NUL-terminated.
// 0 with the record filled, or -1 with errno EINVAL and the record untouched.
int kyt_record_parse(struct kyt_record* record, const char* text, size_t length);

#ifdef __cplusplus
}
#endif
