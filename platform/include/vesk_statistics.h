// libvesk_statistics: takes a daemon's reports to whoever collects them.
#pragma once

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

struct json_object;

// Hands over one report. Takes ownership of the object, whatever the result. Never blocks: while the broker is away at
// most 64 reports wait, the oldest dropped first.
// What still waits when the process ends is counted in the log.
// 0: sent or waiting. -1: errno says why (EINVAL: no name or no object; EMSGSIZE: more than 64 KiB of JSON). The
// default loop's thread, after app_init.
int report_stat_object(const char* event_name, struct json_object* object);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
