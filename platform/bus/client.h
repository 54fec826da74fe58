// One attempt at the broker: a libmosquitto object from its birth to its end. It is never used twice: a session that
// comes back gets a new one, with nothing left of what the old one had not had acknowledged.
#pragma once

#include "bus.h"

struct mosquitto;

// Begins to connect to where bus_address says. `owner` is what libmosquitto hands to its callbacks, which
// `set_callbacks` sets before anything can happen. Never waits.
// Null: errno says why.
mosquitto* client_connect(void* owner, void (*set_callbacks)(mosquitto* client), const bus_message* will);

// Says goodbye and frees the client. Outside libmosquitto's own callbacks only: there it would abort.
// wait_ms: how long the broker may take to read what it was sent, 0: no matter.
void client_close(mosquitto* client, int wait_ms);

// What a libmosquitto return code means, as a positive errno. Reads errno: call it right after the failure.
int client_error(int code);

// Milliseconds on a clock that nobody sets.
int64_t monotonic_ms();
