// libvesk_util: the application framework. It carries a daemon's name, command line, log, event loop and remote
// actions, so that the daemon itself holds only its work.
#pragma once

#include <stdarg.h>
#include <stdint.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

struct json_object;

// Handles one remote action.
// context: the framework's, opaque; params: the request's JSON, owned by the framework, never null;
// reply: a JSON object owned by the framework, into which the handler may add members (it takes them over).
// Returns 0 (done), 0x7fffffff (done, the answer is in the reply object: sent as code 0 with its members) or a
// negative code that the caller gets as it is. Runs on the default loop's thread and must not wait for anything.
typedef int32_t (*remote_action_handler)(void* context, struct json_object* params, struct json_object* reply);

// One row of an action table; a row of zeros ends the table.
struct remote_action {
    const char* name;  // as it stands in the request, never freed
    remote_action_handler handler;
    uint32_t reserved[2];  // 0
};

// What a daemon is to the framework. Must stay valid until app_fini has returned.
struct vesk_app_descriptor {
    char name[32];                        // NUL-padded; names the log and the bus topics
    const struct remote_action* actions;  // null: the daemon answers no remote actions
    uint32_t reserved[4];                 // 0
};

// Reads the command line (--bus, --foreground, --log-level, --version, --help), opens the log, ignores SIGPIPE, takes
// SIGCHLD, SIGTERM and SIGBUS even where they were blocked or ignored at the start, and starts the remote actions on
// the default loop. A broker that is absent is no failure: it is reached later. 0: ready. -1: errno says why (EINVAL
// for a command line that makes no sense, already explained on standard error). --help and --version answer on standard
// output and end the process with 0. Main thread, once.
int app_init(const struct vesk_app_descriptor* descriptor, int argc, char** argv);

// Runs libev's default loop until somebody breaks it. Always 0. Main thread.
int app_run(void);

// Says goodbye on the bus and releases what app_init set up. The log goes on working. Main thread, last.
void app_fini(void);

// Any integer from a to b, both included, evenly spread; a when b is below a. Any thread.
int rand_range(int a, int b);

// The log: one line a message whatever it contains, to standard error with syslog-style priority marks ("<3>") in the
// foreground and under a service manager, to syslog otherwise. Any thread, at any time until the process ends.
// A log that fails or whose reader hangs never fails or stops its caller: what could not be written is counted, and
// told in one line later. errno is the same after the call as before it.
void log_crit(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_err(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_info(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_debug(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The same with a prefix before the message and an argument list.
void log_vpcrit(const char* prefix, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
void log_vperr(const char* prefix, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
void log_vpwarning(const char* prefix, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
void log_vpinfo(const char* prefix, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
void log_vpdebug(const char* prefix, const char* format, va_list args) __attribute__((format(printf, 2, 0)));

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
