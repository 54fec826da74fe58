// Asking the daemon for a remote action, as anybody on the bus may.
#pragma once

struct json_object;

// Sends the action with these parameters (released here) and waits for its answer. VESKCTL_DONE: *reply is the answer,
// the caller's to put, and *result its code. Other exit codes after a message; VESKCTL_UNKNOWN: it was sent, but no
// answer came.
int action_ask(const char* name, json_object* parameters, json_object** reply, int* result);

// Says that the daemon answers this code, which is not 0. VESKCTL_NO_CARD or VESKCTL_REFUSED.
int action_refused(int result);
