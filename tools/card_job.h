// Asking the daemon for a card job through its request key, and following it. The key's answer says only that the
// request was read; what became of it shows in the card's state, and for a format in the card itself.
#pragma once

#include "tools/veskctl.h"

struct card_job {
    const char* name;    // "format"
    const char* key;     // topic of the request key
    long working;        // the card state while it runs
    const char* erases;  // what to ask before it begins; null: it erases nothing
};

constexpr long STATE_NORMAL = 0;
constexpr long STATE_NOT_EXISTS = 1;
constexpr long STATE_FULL = 2;
constexpr long STATE_BROKEN = 3;
constexpr long STATE_FORMATTING = 4;
constexpr long STATE_EJECT = 5;
constexpr long STATE_FIXING = 6;
constexpr long STATE_EJECTING = 7;

// The outcome of a job that has begun and ended with this state. *detail: words that explain it, or "".
using card_job_verdict = int (*)(long ended_state, char* detail, size_t size, void* context);

// Reads --wait, --yes and --timeout, asks, follows, prints. prepare runs just before the request is sent. The exit
// code.
int card_job_run(const veskctl_options& options, int argc, char** argv, const card_job& job,
                 void (*prepare)(void* context), card_job_verdict verdict, void* context);
