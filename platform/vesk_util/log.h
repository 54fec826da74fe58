// The log's set-up; the calls themselves are in vesk_util.h. Until log_open has run, messages from level info up go to
// standard error.
#pragma once

#include <string_view>

enum class log_target { STANDARD_ERROR, SYSLOG };

// Where this process' log belongs: standard error in the foreground (asked for, or on a terminal) and under a service
// manager (which is told by NOTIFY_SOCKET, or by JOURNAL_STREAM naming our very standard error), syslog otherwise.
log_target log_choose_target(bool foreground);

// Sets target, least urgent level (a syslog number) and the name that syslog shows. The name must stay valid.
void log_open(const char* name, int level, log_target target);

// Tells how many messages could not be written, if any and if that can be written now. The log goes on working.
void log_finish();

// The level of "crit", "err", "warning", "info" or "debug" as its syslog number, -1 for any other text.
int log_level_of(std::string_view name);
