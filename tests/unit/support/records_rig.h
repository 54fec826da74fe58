// What surrounds the recordings in their unit tests: a record list library of a few lines, the card manager, the key
// store, the bus-fault guard, and the calls of the C library that only they make.
#pragma once

#include <ev.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kv.h"
#include "kyt.h"
#include "records.h"
#include "support/kernel.h"
#include "support/log.h"

using strings = std::vector<std::string>;

// The list: period directories are any ten digits, clip `ts` is "<2026112100 + ts / 100>/clip_<ts>". An announcement is
// "<ts>" or "<ts>,<flags>".
struct kyt_handle {
    std::map<uint32_t, kyt_record> records;
    std::set<uint32_t> deleted;  // marked, still in records
    int steps = 0;               // calls of kyt_next
};

namespace rig {

struct state {
    kyt_handle list;  // survives being closed, as the file does
    bool is_open = false;
    bool was_guard_installed = false;  // when kv_register was called
    strings calls;          // of the list, the card manager and the key store, in order; without kyt_next and kyt_get
    int open_errno = 0;     // not 0: kyt_open_rdwr fails with it
    int kv_errno = 0;       // not 0: kv_register fails with it
    int ts2path_errno = 0;  // not 0: kyt_ts2path fails with it
    int marking_errno = 0;  // what kyt_mark_deleted leaves in errno
    std::function<void()> on_next;     // at the start of kyt_next
    std::function<void()> on_refresh;  // inside sdcard_refresh
    std::function<void()> on_close;    // inside kyt_close_dirty
    std::function<void()> on_readdir;  // at the start of readdir
    std::function<void(const kyt_record*)> on_write;
    std::set<std::string> unknown_type;  // directory entries whose type the filesystem does not tell
    kv_callback announce = nullptr;      // what was registered
    void* announce_context = this;
    ev_timer* rescan = nullptr;           // the timer last given to ev_timer_start
    ev_timer* optimise = nullptr;         // the timer last given to ev_timer_again
    int timer_starts = 0;                 // of both kinds
    std::function<void()> on_write_call;  // at the start of write
    strings writes;                       // what write was given, while noting
    bool note_writes = false;
};
state& get();

// Which malloc fails, counted from now; 0: none. By itself, because malloc runs before and after everything else.
extern int malloc_to_fail;

// Adds clips to the list, flags 0, and makes their files when asked to.
void add(uint32_t ts, uint8_t flags = 0);
void make_clip(uint32_t ts);
std::string clip(uint32_t ts);      // path without extension
std::string relative(uint32_t ts);  // the same below the recordings folder
strings live();                     // the timestamps of what is not deleted

int open_descriptors();
double remaining_s(ev_timer* timer);

// The guard's own way out, as a bus fault would take it.
void fault();

// A fresh card, mounted, with nothing on it; the recordings initialised and closed.
class test : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace rig
