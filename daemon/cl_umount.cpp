// A card that somebody holds open is tried ten times: at once, and then nine times with half a second before each try.
// Behind each of those nine that fails, fuser says who holds the card, and the statistics channel hears of it. Between
// the tries the loop serves everything else; the frame stays busy, so that no second job begins and no event leads to
// another state. (The 30-minute refresh does not ask.)
#include "cl_umount.h"

#include <errno.h>
#include <ev.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cl_execvp.h"
#include "closure.h"
#include "mountpoint.h"
#include "rpc.h"

namespace {

// The steps, in the order in which they fire. cl_next_umount is the first try; then these two take turns:
void on_retry_umount(struct ev_loop*, ev_timer* timer, int);  // half a second later: the next try, then fuser
void fuser_done(closure_frame* frame, void* argument);        // reports the holders; waits for the next try or gives up

constexpr int RETRIES = 9;
constexpr ev_tstamp RETRY_SECONDS = 0.5;
constexpr int MAX_NAMES = 5;  // of all that hold the card, an alert names this many

constexpr const char* fuser_argv[] = {"fuser", "-m", MOUNTPOINT_PATH, nullptr};

// One for each job that has to retry; owned by it.
struct umount_retry {
    closure_frame* frame;
    int32_t retries;   // fuser rounds left
    ev_timer timer;    // one shot
    char output[128];  // what fuser said
};

void wait_for_next_try(umount_retry* retry) {
    ev_timer_set(&retry->timer, RETRY_SECONDS, 0.0);
    ev_timer_start(ev_default_loop(0), &retry->timer);
}

umount_retry* umount_retry_new(closure_frame* frame) {
    auto* retry = static_cast<umount_retry*>(malloc(sizeof(umount_retry)));
    if (retry == nullptr) {
        return nullptr;
    }
    *retry = {.frame = frame, .retries = RETRIES, .timer = {}, .output = {}};
    ev_init(&retry->timer, on_retry_umount);
    retry->timer.data = retry;
    wait_for_next_try(retry);
    return retry;
}

void umount_retry_free(umount_retry* retry) {
    ev_timer_stop(ev_default_loop(0), &retry->timer);
    free(retry);
}

// 0 with the process's name in the slot, or "pid=<id>" when it has none that can be read. -1: there is no such process.
int fuser_read_comm(int pid, char (&slot)[RPC_FUSER_NAME_SIZE]) {
    char path[22];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        return -1;
    }
    // The kernel keeps 15 bytes of a name, and the slot has room for as many. A name with a ")" in it ends there: good
    // enough to tell a person whom to ask.
    const int fields = fscanf(file, "%*d (%15[^)]", slot);
    (void)fclose(file);  // only read from
    if (fields != 1) {
        snprintf(slot, sizeof slot, "pid=%d", pid);
    }
    return 0;
}

// text: process ids with blanks between them; consumed. Who is gone by now is left out.
void fuser_report(char* text) {
    char names[MAX_NAMES][RPC_FUSER_NAME_SIZE];
    int count = 0;
    char* rest = nullptr;
    for (char* token = strtok_r(text, " \n", &rest); token != nullptr && count < MAX_NAMES;
         token = strtok_r(nullptr, " \n", &rest)) {
        // What is no number becomes 0, and no process has that id.
        if (fuser_read_comm(static_cast<int>(atol(token)), names[count]) == 0) {
            ++count;
        }
    }
    if (count > 0) {
        rpc_send_alert_umount_fail(count, names);
    }
}

}  // namespace

void cl_next_umount(closure_frame* frame) {
    if (mountpoint_umount() == 0) {
        closure_succeed(frame, 0);
        return;
    }
    if (umount_retry_new(frame) == nullptr) {
        closure_fail(frame, ENOMEM);
    }
}

namespace {

void on_retry_umount(struct ev_loop*, ev_timer* timer, int) {
    auto* retry = static_cast<umount_retry*>(timer->data);
    closure_frame* frame = retry->frame;
    if (mountpoint_umount() == 0) {
        umount_retry_free(retry);
        closure_succeed(frame, 0);
        return;
    }
    closure_debug_next("on_retry_umount", "cl_next_execvp_read", "fuser_done");
    closure_setup_frame(frame, fuser_done, retry);
    frame->status = CLOSURE_BUSY;
    cl_next_execvp_read(frame, fuser_argv, retry->output, sizeof retry->output);
}

// A fuser that fails (it does when nobody holds the card), or that is missing, costs the report and nothing else.
void fuser_done(closure_frame* frame, void* argument) {
    auto* retry = static_cast<umount_retry*>(argument);
    if (frame->status == CLOSURE_OK) {
        fuser_report(retry->output);
    }
    --retry->retries;
    if (retry->retries == 0) {
        umount_retry_free(retry);
        closure_fail(frame, EBUSY);
        return;
    }
    // How fuser ended is not how the job ended: until the next try the frame is as busy as before.
    frame->status = CLOSURE_BUSY;
    wait_for_next_try(retry);
}

}  // namespace
