// Input: how many bytes fuser prints, these bytes, and what /proc/<id>/stat holds, for whichever process is asked.
#include <cstring>
#include <ev.h>

#include "cl_execvp.h"
#include "cl_umount.h"
#include "closure.h"
#include "mountpoint.h"
#include "rpc.h"
#include "support.h"

namespace {

const uint8_t* printed;
size_t printed_size;
bool is_held;
ev_timer* retry;

void done(closure_frame*, void*) {}

}  // namespace

int mountpoint_umount() {
    return is_held ? -1 : 0;
}
void cl_next_execvp_read(closure_frame* frame, const char* const*, char* buffer, uint32_t size) {
    const size_t length = printed_size < size - 1 ? printed_size : size - 1;
    memcpy(buffer, printed, length);
    buffer[length] = '\0';
    closure_succeed(frame, 0);
}
void rpc_send_alert_umount_fail(int32_t count, const char (*names)[RPC_FUSER_NAME_SIZE]) {
    fuzz::require(count >= 1 && count <= 5, "how many are named");
    for (int32_t i = 0; i < count; ++i) {
        fuzz::require(memchr(names[i], '\0', RPC_FUSER_NAME_SIZE) != nullptr, "a name that ends");
    }
}

extern "C" void __real_ev_timer_start(struct ev_loop*, ev_timer*);
extern "C" void __wrap_ev_timer_start(struct ev_loop* loop, ev_timer* timer) {
    retry = timer;
    __real_ev_timer_start(loop, timer);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    printed_size = data[0] < size - 1 ? data[0] : size - 1;
    printed = data + 1;
    const uint8_t* stat = printed + printed_size;
    const size_t stat_size = size - 1 - printed_size;
    fuzz::set_file(stat_size > 0 ? stat : nullptr, stat_size);

    closure_frame frame;
    closure_init(&frame, nullptr);
    closure_setup_frame(&frame, done, nullptr);
    frame.status = CLOSURE_BUSY;
    is_held = true;
    cl_next_umount(&frame);
    ev_timer_stop(EV_DEFAULT, retry);  // as it has fired
    ev_invoke(EV_DEFAULT, retry, EV_TIMER);
    is_held = false;
    ev_timer_stop(EV_DEFAULT, retry);
    ev_invoke(EV_DEFAULT, retry, EV_TIMER);
    fuzz::require(frame.status == CLOSURE_OK, "the job's end");
    return 0;
}
