// A conversation with the configuration service, for a command that has nothing else to do: each call runs the loop
// until it has its answer. Failures are told on standard error by whoever meets them, once.
#pragma once

#include <cstdint>

#include "bus/bus.h"

struct exchange {
    bus_session* session;
    void (*on_message)(const bus_message* message, void* context);
    void* context;
    bool connected;
    int error;         // errno of the lost session; 0: it lives
    uint32_t request;  // whose answer came last
    int reason;        // and what it was
};

// Connects. VESKCTL_DONE, or another exit code after a message. The caller closes it either way.
int exchange_open(exchange* talk, void (*listener)(const bus_message*, void*), void* context);
void exchange_close(exchange* talk);

// Subscribes and waits until the service has agreed. What it keeps may come only after that: exchange_settle.
int exchange_subscribe(exchange* talk, const char* filter, bus_retained retained);

// Waits until all that the service kept for the subscriptions so far has come.
int exchange_settle(exchange* talk);

// Sends one message and waits until the service has it. heard (null: no matter) tells whether anybody listens to it.
// VESKCTL_UNKNOWN, without a message: it was sent, but whether it arrived cannot be known; exchange_fate says why.
int exchange_publish(exchange* talk, const bus_message* message, bool* heard);

// Waits until *done, which on_message sets, or the session is lost, or the time has passed. *done.
bool exchange_wait(exchange* talk, const bool* done, double seconds);

// What has become of a service that owes an answer: "the configuration service went away" when the session is lost,
// whatever was still said before, else "... went silent".
const char* exchange_fate(const exchange& talk);

// Seconds on a clock that nobody sets.
double exchange_clock_s();

constexpr char DAEMON_STATUS_TOPIC[] = "vesk/vesk_sdcard/status";
constexpr char CARD_STATUS_TOPIC[] = "karvel/mem/default/sdcard_status";
