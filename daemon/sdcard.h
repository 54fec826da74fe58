// The card manager: the one card state that the rest of the camera sees. Loop thread only.
#pragma once

#include <ev.h>
#include <stddef.h>
#include <stdint.h>

#include "closure.h"

enum sdcard_state : int32_t {
    SDCARD_NORMAL = 0,            // mounted, writable, at least SDCARD_FULL_KIB free
    SDCARD_NOT_EXISTS = 1,        // no card, or nothing mounted
    SDCARD_FULL = 2,              // mounted and writable, but short of space even after the oldest clips went
    SDCARD_BROKEN = 3,            // read-only card, failed mount, not writable, or statfs failed
    SDCARD_FORMATTING = 4,        // format job running
    SDCARD_EJECT = 5,             // taken out of service on request
    SDCARD_FIXING = 6,            // filesystem check running
    SDCARD_EJECTING = 7,          // eject job running; has no name in sdstate2str
    SDCARD_UNKNOWN = 0x7fffffff,  // before the first derivation
};

extern const char* const sdstate2str[7];  // by state, SDCARD_NORMAL to SDCARD_FIXING

constexpr uint32_t SDCARD_FULL_KIB = 40960;  // below this much free space the card is full
constexpr int SDCARD_SLOW_BPS = 204800;      // below this many bytes a second of busy time the card is slow

// The card manager's record. There is one.
struct sdcard_manager {
    sdcard_state state;      // as published
    ev_timer refresh_timer;  // every 1800 s
    ev_timer info_timer;     // about once a day, drawn anew each time
    int32_t slow_since;      // seconds since 1970: start of the period in which the card writes slowly; -1: none
    ev_timer speed_timer;    // every 60 s
    closure_frame closure;   // of the one job that may run
};
extern sdcard_manager sd;

// Starts everything that watches the card and publishes the first state. Aborts when a monitor cannot start.
void sdcard_init();
void sdcard_exit();

// Derives the state anew after an event; the reason goes to the log. Ignored until sdcard_init is through, and
// while a job runs: then the job owns the state.
void sdcard_refresh(const char* reason);

sdcard_state sdcard_get_state();

// The state that block devices, mount and free space amount to; changes nothing.
sdcard_state merge_state();

// Stores and publishes a state; the only way to change it. The same state again does nothing.
void sdcard_set_state(sdcard_state state);

// Derives the state, deletes the oldest clips while the card is full, and publishes a change.
void sdcard_update_state();

// The card operations: each starts one job on the manager's frame. 0: started. -1 with errno: EBUSY while a job runs,
// EINVAL when the block device is not writable. How a job ended shows in the state.
int sdcard_mkfs();
int sdcard_fsck();

// 0 also when the card is ejected already; -1 without errno when there is no card.
int sdcard_eject();

// Told about the request keys: a value that begins with "start" asks for a format, or for an eject. Answered at once
// with "end<time>" in the same key, whether or not the job could be started.
void on_spec_sdcard_format(void* context, const char* value, size_t length);
void on_spec_sdcard_unmount(void* context, const char* value, size_t length);
