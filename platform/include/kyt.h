// libkyt: the record list file, the index of all clips on the card.
//
// An open list is in plain memory; nothing is mapped. Callers change records in place through the pointers that they
// get, and a thread of the library brings what has changed to the file in the recordings folder: unless the card keeps
// it waiting, it is written within a second and on the card within two. What is not written yet is lost when the
// process dies, and other processes do not see it.
//
// Every call belongs to the thread that opened the list, except kyt_ts2path, kyt_path2ts and kyt_record_parse, which
// are pure and may be called from anywhere. Only kyt_open_rdwr and kyt_close wait for the card.
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

// Opens the list of "/mnt/sdcard/ZOLTA_RECORD_VIDEO", making, repairing or replacing the file as need be. Waits for the
// card. The handle is the caller's until kyt_close or kyt_close_dirty.
// Null: errno says why. EBUSY: the list is open already, in this process or another one, or a call that was under way
// when kyt_close_dirty closed it is still waiting for the card; it is not waited for. EROFS: the card is
// write-protected. ENOSPC: the list has to be made, and there is no room for it. Otherwise ENOMEM or the errno of a
// call to the card.
kyt_handle* kyt_open_rdwr(void);

// Closes the list. Waits until all changes are on the card; one that the card refuses is said in the log, and the next
// opening compares the list with the folder. A null handle is fine.
void kyt_close(kyt_handle* handle);

// Closes a list whose card is gone: waits for nothing, touches no file and takes no lock that a call may hold when a
// bus fault interrupts it, so that it may be called after one has jumped out of any call on the list. What was not
// written yet is lost; a write that is under way ends by itself. A null handle is fine.
void kyt_close_dirty(kyt_handle* handle);

// Maintenance: takes over what the last comparison with the folder has found, which is clips whose announcement was
// lost and deleted clips whose files are gone, so that later clips may have their slots; then has the next comparison
// begun, beside the caller. Ends the validity of all record pointers. O(n), and 4 bytes of memory a clip until the
// comparison ends; without that memory the next call tries again. Waits for nothing.
// 0, or -1 with errno (EINVAL: no list; EROFS: a read-only handle); the list stays usable either way.
int kyt_optimise(kyt_handle* handle);

// The live record of ts, or null. Valid until the record is deleted or kyt_optimise runs; until then `flags` may
// be changed in place, and nothing has to be called for it. O(log n).
struct kyt_record* kyt_get(kyt_handle* handle, uint32_t ts);

// The live record after prev, ascending by ts; null starts at the oldest and null is the end. prev may just have been
// marked deleted. O(1) for the oldest and along a walk, otherwise O(log n). Valid as that of kyt_get.
struct kyt_record* kyt_next(kyt_handle* handle, const struct kyt_record* prev);

// Adds a copy of the record. O(1) for the newest clip; for an earlier one O(log n) and a shift of 4 bytes for each clip
// between it and the nearer end. On a card that is full the record waits in memory until the file can grow.
// 0, or -1 with errno (EEXIST: a live record has this ts; EINVAL: the record did not come from kyt_record_parse;
// ENOSPC: no room in the list for now, whose 1,048,064 slots are those of clips and of deleted ones whose files may
// still be there; a later comparison with the folder finds the clip; EROFS: a read-only handle).
int kyt_write(kyt_handle* handle, const struct kyt_record* record);

// Marks a record deleted; the clip's files are the caller's business. As long as they are there, the clip stays deleted
// for this session only: the next opening has it back. Takes 12 bytes of memory until a comparison saw that they are
// gone.
// 0, or -1 with errno (EINVAL: no live record of this list; ENOMEM: it stays live; EROFS: a read-only handle).
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
