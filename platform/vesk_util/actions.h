// Remote actions: requests that arrive on the bus and are answered there by the daemon's handlers. Also the daemon's
// own status on the bus, since both live on the process's shared session.
#pragma once

struct ev_loop;
struct remote_action;

// Opens the shared session and answers the table's actions (null: none) from then on, on the loop's thread. app and
// table stay the caller's and must last until actions_stop.
// 0, or -1 with errno (EINVAL: the bus address makes no sense).
int actions_start(struct ev_loop* loop, const char* app, const remote_action* table);

// Says goodbye and closes the session. Waits at most a fifth of a second for the broker.
void actions_stop();
