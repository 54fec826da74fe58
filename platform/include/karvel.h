// libkarvel, libkarvel_share, libkarvelev: the client of the configuration service karveld, which holds the camera's
// shared keys and relays their changes between its programs.
//
// Everything here belongs to the thread of the loop that the handle was opened on. No callback runs inside the call
// that made its request. A handle stays safe after it is closed: callers keep the old pointer and go on using it.
// Namespaces, groups and keys are NUL-terminated, not empty and hold none of '/', '+', '#'; a null group is "default".
// Values are bytes with a length, at most 64 KiB.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

struct ev_loop;

typedef struct karvel_handle karvel_handle;      // one connection
typedef struct karvel_response karvel_response;  // an answer or a notification; valid only during the callback

// Told about an answer or a notification. A callback may close the handle that it was called from.
typedef void (*karvel_callback)(karvel_response* response, void* context);

// --- libkarvelev ---------------------------------------------------------------------------------------------------

// Opens a connection that the library watches on the given loop. flags: 0.
// Null when the service cannot be reached. Returns at once: it may wait for a connect to a local socket, never for a
// distant host. "Connected" begins here: requests made before the service has answered the connect are queued.
karvel_handle* libkarvelev_config_open(struct ev_loop* loop, int flags);

// --- libkarvel -----------------------------------------------------------------------------------------------------

// Closes the connection. From then on no callback of the handle runs, ever. Waits, at most 20 ms, for a service that
// has not answered every set. What was set to be kept and has not reached it by then goes out with the next handle that
// this process opens; what may have reached it is set again there if the service still has an older value of this
// process. Nothing happens for a null or closed handle.
void libkarvel_close(karvel_handle* handle);

// Sets a key. keep: 1 keeps the value in the service, 0 only relays it. value: a NUL-terminated string, copied; an
// empty one takes the key's value away; a null one changes nothing, and its success is told like any other.
// timeout_s: seconds allowed, -1 for 10.
// True: handed to a connection that lived when the call returned; then exactly one of the two callbacks runs, unless
// the handle is closed first: on_ok when the service acknowledged, on_fail when it refused, the time ran out or the
// connection was lost. False: nothing happens (null, closed or lost handle, a name or value that cannot be, no memory).
// A value that was to be kept, and was acknowledged, is set again once after a reconnect if the service has none at all
// then: at most 32 keys, and never one that this process has registered for.
bool libkarvel_set_value(karvel_handle* handle, const char* name_space, const char* group, const char* key, int keep,
                         const char* value, karvel_callback on_ok, karvel_callback on_fail, int timeout_s,
                         void* context);

// Subscribes to a key. id: gets a non-zero number before the call returns. confirm: 1 asks for the confirmation.
// True: handed to the connection; when the service confirms, on_notify runs once with no value, then once for every
// change; a value that stood in the service before is never delivered. on_fail runs when the service refused or the
// connection was lost. Registering the same key with the same context again replaces the earlier registration.
bool libkarvel_register_notification(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                                     uint32_t* id, karvel_callback on_notify, karvel_callback on_fail, int confirm,
                                     void* context);

// Reads a key's value. unused: null. timeout_s: seconds allowed, -1 for 10.
// True: on_done runs exactly once whatever happens, unless the handle is closed first; xcontrol_get_response tells the
// value or that there is none.
bool libkarvel_get_value(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                         karvel_callback on_done, void* unused, int timeout_s, void* context);

// Ends what is overdue. Call it once a second while anything is outstanding; nothing depends on other times.
void libkarvel_timeout_process(karvel_handle* handle);

// Handles what has arrived. False: the connection is broken. A handle that is watched on a loop needs no call of it.
bool libkarvel_xhandle_response(karvel_handle* handle);

// --- libkarvel_share -----------------------------------------------------------------------------------------------

// The names of a key. Owned by the pair.
struct karvel_xname {
    const char* name_space;
    const char* group;
    const char* key;
};

// A value: bytes of any kind, in a pair with a NUL behind them that does not count. Owned by the pair or the response
// it came from.
struct karvel_xvalue {
    const char* data;
    size_t length;
};

struct karvel_xpair {
    const struct karvel_xname* first;    // never null
    const struct karvel_xvalue* second;  // null: the notification carries no value
};

// Parses a notification. *error: 0 on success, else a positive errno. Null when there is nothing to free.
struct karvel_xpair* xresponse_parse(karvel_response* response, int* error);

// Frees a parsed pair; null is fine.
void xpair_basefree(struct karvel_xpair* pair);

// The value of a read. 1: *value is set, valid as long as the response. 0: the key has no value, *value is untouched.
int xcontrol_get_response(karvel_response* response, const struct karvel_xvalue** value);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
