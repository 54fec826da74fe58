// Asking the daemon for a remote action, as anybody on the bus may.
#pragma once

struct json_object;

// Sends the action with these parameters (released here) and waits for its answer. VESKCTL_DONE: *reply is the answer,
// the caller's to put, and *result its code. Other exit codes after a message; VESKCTL_UNKNOWN: it was sent, but no
// answer came.
int action_ask(const char* name, json_object* parameters, json_object** reply, int* result);

// The words for a code that the daemon answers instead of doing it.
const char* action_result_words(int result);
