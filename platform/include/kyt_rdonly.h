// libkyt for tools: a look into the record list of any recordings folder, live or copied, without changing anything.
//
// Nothing is mapped, and only kyt_repair locks or writes: the list is copied by plain reads, so a tool may look while
// the daemon records, and a recordings folder may be on a workstation of either byte order. Such a look sees what has
// been written: an added or deleted clip within milliseconds as a rule, a changed flag within a second. Calls on one
// handle belong to one thread. All calls that name a folder wait for its disk.
#pragma once

#include "kyt.h"

#ifdef __cplusplus
extern "C" {
#endif

// Copies the list of the recordings folder (the one that holds the period directories) into memory, as its file is now;
// what changes later is not seen. kyt_get, kyt_next and kyt_close work on the handle; kyt_write, kyt_mark_deleted and
// kyt_optimise fail with EROFS. Damaged records are left out.
// Null: errno says why (ENOENT: no folder or no list in it; EBADMSG: there is a list, but none that can be read;
// ENOMEM).
kyt_handle* kyt_open_rdonly(const char* folder_path);

// What a look at a recordings folder shows: the list beside the clips' names.
struct kyt_health {
    char list[16];                  // the list's file; "": there is none
    uint8_t header_damaged;         // a file that should be a list and is none, in the list's place
    uint8_t other_version;          // written by a version that this one cannot read
    uint8_t open;                   // in use, or left behind by a power cut
    uint8_t other_byte_order;       // of a camera whose processor stores numbers the other way round
    uint8_t wrong_size;             // cut short, or made longer by somebody else
    uint8_t out_of_order;           // always 0: records are in no order
    uint32_t card;                  // the FAT volume for which it was written; 0: not known
    uint32_t volume;                // the one that it is on; 0: not known
    uint32_t records;               // clips in it
    uint32_t deleted;               // records of deleted clips
    uint32_t destroyed;             // records that are not whole
    uint32_t unreadable;            // pages of 4096 bytes that the card did not give
    uint32_t twice;                 // records of a clip that has another one
    uint32_t clips;                 // clips on the card
    uint32_t clips_not_listed;      // clips without a record
    uint32_t records_without_clip;  // records whose clip is gone
    uint32_t undeleted;             // deleted clips that are still on the card
};

// Looks at a recordings folder and changes nothing. 0, or -1 with errno.
int kyt_check(const char* folder_path, struct kyt_health* health);

// Opens the list of any recordings folder as the camera does, with all repairs, and closes it cleanly. The log says
// what was found and done. 0, or -1 with the errno of an opening: EBUSY, a program on this machine has the list open.
int kyt_repair(const char* folder_path);

// How many live records the list holds. Any kind of handle; 0 for null.
uint32_t kyt_count(const kyt_handle* handle);

// The clip's duration in seconds, 0 to 255; 0: it was not announced. Pure.
uint32_t kyt_record_seconds(const struct kyt_record* record);

#ifdef __cplusplus
}
#endif
