// libkyt for tools: a look into the record list of any recordings folder, live or copied, without changing anything.
//
// Nothing is mapped, locked or written: the list is copied by plain reads, so a tool may look while the daemon records,
// and a recordings folder may lie on a workstation of either byte order. Calls on one handle belong to one thread.
#pragma once

#include "kyt.h"

#ifdef __cplusplus
extern "C" {
#endif

// Copies the list of the recordings folder (the one that holds the period directories) into memory, as it is now; what
// changes later is not seen. kyt_get, kyt_next and kyt_close work on the handle; kyt_write, kyt_mark_deleted and
// kyt_optimise fail with EROFS. Damaged records are left out.
// Null: errno says why (ENOENT: no folder or no list in it; EBADMSG: there is a list, but none that can be read).
kyt_handle* kyt_open_rdonly(const char* folder_path);

// How many live records the list holds. Any kind of handle; 0 for null.
uint32_t kyt_count(const kyt_handle* handle);

// The clip's duration in seconds, 0 to 255; 0: it was not announced. Pure.
uint32_t kyt_record_seconds(const struct kyt_record* record);

#ifdef __cplusplus
}
#endif
