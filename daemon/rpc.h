// The reports to the camera's statistics channel: "sdcard.info" and "sdcard.alert". Loop thread only. Nothing here
// fails its caller: a report that cannot be built is not sent.
// Each of the three alerts is sent at most once in 300 s; the next one says how many were dropped ("cool_down").
#pragma once

#include <stdint.h>

enum rpc_alert : int32_t {
    RPC_ALERT_SLOW = 1,         // the card writes too slowly
    RPC_ALERT_UMOUNT_FAIL = 2,  // processes hold the card
    RPC_ALERT_BROKEN = 4,       // the card became broken
    RPC_ALERT_NOT_EXISTS = 5,   // the card is gone without an eject
};

constexpr int RPC_FUSER_NAME_SIZE = 16;  // bytes of a process name, with its NUL

// Everything that the kernel says about the card.
void rpc_send_sdcard_info();

// RPC_ALERT_BROKEN and RPC_ALERT_NOT_EXISTS, which share one cool-down.
void rpc_send_alert(rpc_alert type);

// mean_speed: bytes a second of device busy time; elapse: seconds since the card became slow; active_sec: sectors of
// 512 bytes written in the measured interval.
void rpc_send_alert_slow(int32_t mean_speed, int32_t elapse, uint32_t active_sec);

// names: `count` process names.
void rpc_send_alert_umount_fail(int32_t count, const char (*names)[RPC_FUSER_NAME_SIZE]);
