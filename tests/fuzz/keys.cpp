// Input: which request key, then the value that somebody sets it to.
#include <cstdlib>
#include <cstring>
#include <sys/statfs.h>

#include "cl_eject.h"
#include "cl_fsck.h"
#include "cl_mkfs.h"
#include "kv.h"
#include "mmc.h"
#include "mountpoint.h"
#include "records.h"
#include "rpc.h"
#include "sdcard.h"
#include "support.h"

namespace {

mmc_manager mmc;
mountpoint_manager mountpoint;
int started;
int answered;

}  // namespace

mmc_manager* mmc_get_manager() {
    return &mmc;
}
mmc_state mmc_get_state() {
    return MMC_STATE_RDWR;
}
int mmc_dev_init() {
    return 0;
}
void mmc_dev_exit() {}
int mmc_rescan() {
    return 0;
}
int mmc_calc_write_speed(uint32_t*) {
    return 0;
}
mountpoint_manager* mountpoint_get_manager() {
    return &mountpoint;
}
int mountpoint_statfs(struct statfs*) {
    return -1;
}
int mountpoint_init() {
    return 0;
}
void mountpoint_exit() {}
void mountinfo_refresh_state() {}
int records_init() {
    return 0;
}
void records_exit() {}
int records_delete_oldest() {
    return -1;
}
void rpc_send_sdcard_info() {}
void rpc_send_alert(rpc_alert) {}
void rpc_send_alert_slow(int32_t, int32_t, uint32_t) {}
void cl_next_mkfs(closure_frame* frame) {
    ++started;
    closure_succeed(frame, 0);
}
void cl_next_eject(closure_frame* frame) {
    ++started;
    closure_fail(frame, 16);
}
void cl_next_fsck(closure_frame*, const char*) {}
void kvmem_set(const char* key, const char* value) {
    if (strncmp(key, "spec_", 5) == 0) {
        fuzz::require(strncmp(value, "end", 3) == 0, "the answer");
        ++answered;
    }
}
extern "C" int rand_range(int a, int) {
    return a;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    closure_init(&sd.closure, &sd);
    sd.state = SDCARD_NORMAL;
    started = answered = 0;
    // As the configuration client hands a value over: exactly its bytes, and a NUL behind them.
    auto* value = static_cast<char*>(malloc(size));
    memcpy(value, data + 1, size - 1);
    value[size - 1] = '\0';
    (data[0] % 2 == 0 ? on_spec_sdcard_format : on_spec_sdcard_unmount)(nullptr, value, size - 1);
    const int is_request = size > 5 && memcmp(value, "start", 5) == 0 ? 1 : 0;
    fuzz::require(started == is_request, "a job for a request and for nothing else");
    fuzz::require(answered == is_request, "an answer for a request and for nothing else");
    free(value);
    return 0;
}
