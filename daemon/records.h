// The recordings: the recordings folder, its clip index, new clips, deletion of the oldest, and the operation log.
// Loop thread only, except record_delete and log_record.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr char RECORD_DIR[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO";

// Installs the bus-fault guard and subscribes to new clips. Always 0.
int records_init();
void records_exit();

// Opens the recordings folder and its index; does nothing while they are open. A failure is logged and leaves them
// closed.
void record_dir_open();

// Closes them. dirty: not 0 when the card has vanished, 0 for an orderly end.
void record_dir_close(int dirty);

// Bytes that the clips take, after a fresh look at the folder. 0 while it is closed.
uint64_t record_dir_size();

// Debug aid: logs what is known of each period's folder.
void record_dir_dump();

// Deletes the oldest clip that carries no mark. 0: one clip is gone. -1: none; errno says why, EFAULT after a bus
// fault, and is left as it was when there was nothing to delete.
int records_delete_oldest();

// Removes a clip's files and what becomes empty with them. path: the clip without extension, in a writable buffer of
// `size` bytes; base_length: its length, or negative when it could not be formed. 0: the ".mp4" is gone. -1: it is not;
// errno is its unlink's. Any thread.
int record_delete(char* path, size_t size, int base_length);

// One batch of the deletion list: what a remote request wants deleted. One allocation.
struct del_list_entry {
    del_list_entry* prev;  // the head's points to the tail
    del_list_entry* next;  // null at the tail
    uint32_t count;
    uint32_t ts[];  // 0: skipped
};

// A batch with room for `count` timestamps, all of which the caller fills; null when memory is short.
del_list_entry* records_del_begin(uint32_t count);

// Drops the batch's clips from the index, protected ones included, and has a thread remove their files. 0: taken, the
// batch is the list's. -1: the index is not open; the batch is still the caller's.
int records_del_commit(del_list_entry* batch);

// Protects a clip from being deleted to free space. 0, or -1/ENOENT: no such clip, -1/EINVAL: the index is not open.
int records_mark_persistent(uint32_t ts);

// Appends one line to the operation log on the card; the format carries the line break. Never fails the caller. Any
// thread.
void log_record(const char* format, ...) __attribute__((format(printf, 1, 2)));
