// The card manager: the one card state that the rest of the camera sees. Loop thread only.
#pragma once

#include <ev.h>
#include <stddef.h>
#include <stdint.h>

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

// The card manager's record. There is one.
struct sdcard_manager {
    sdcard_state state;      // as published
    ev_timer refresh_timer;  // every 1800 s
};
extern sdcard_manager sd;

// Starts everything that watches the card and publishes the first state. Aborts when a monitor cannot start.
void sdcard_init();
void sdcard_exit();

// Derives the state anew after an event; the reason goes to the log. Ignored until sdcard_init is through.
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
