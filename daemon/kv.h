// The configuration store: this daemon's share of the camera's keys, mirrored to the configuration service.
// Loop thread only; no locks.
#pragma once

#include <ev.h>
#include <stddef.h>

// Told about a notification of a registered key: value is `length` bytes of any kind, valid only during the call, or
// null with length 0 when the notification carries none. Loop thread, once for every notification, never from
// kv_register.
using kv_callback = void (*)(void* context, const char* value, size_t length);

// Prepares the watchers and opens the link; while the service is away it is tried every second. Always 0.
// Once, after app_init and before anything else here.
int kv_init();

// Pushes what is left, without waiting for the answers, closes the link and forgets everything.
void kv_exit();

// Has callback called for every notification of the key, from the next loop iteration with an open link on. 0, or -1
// with errno when memory runs out (nothing is kept, nothing is logged).
int kv_register(const char* name_space, const char* group, const char* key, kv_callback callback, void* context);

// Sets a key to the first `length` bytes of value and pushes it at once if that is a change. A push that the library
// refuses is repeated when the link is open again; one that it takes and that fails later goes out with the next change
// of any key. name_space is cut to 7 characters, key to 31 (see kv.cpp).
void kv_set_str(const char* name_space, const char* key, const char* value, size_t length);

// The value last set or fetched, owned by the store and valid until the key is set again; null when there is none.
// Never asks the service.
const char* kv_get_str(const char* key);

// Has the pending changes pushed on the loop.
void kv_request_commit();

// kv_set_str for a key of namespace "mem".
void kvmem_set(const char* key, const char* value);

// Fetches a key of namespace "mem" into the store. Runs the loop until the answer is there, so any other callback may
// run meanwhile; a key that is stored and pushed already does not wait, its new value lands later. Nor does one wait
// any longer once another key is set meanwhile: that pushes every entry that waits, without a value. A link that is
// lost ends the wait without a value; a link that is closed meanwhile, by the reopen timer, takes the answer along, and
// the wait then ends with the next set of any key. Aborts when the read cannot be started. Nothing in the daemon calls
// it.
void kvmem_sync(const char* key);

// --- used inside the module and by its tests -----------------------------------------------------------------------

// The watcher of a link whose descriptor the daemon has to watch itself. The library watches its own, so nothing ever
// starts this one.
extern ev_io link_io;
