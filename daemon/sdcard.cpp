#include "sdcard.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/statfs.h>
#include <time.h>
#include <unistd.h>

#include "cl_eject.h"
#include "cl_fsck.h"
#include "cl_mkfs.h"
#include "closure.h"
#include "kv.h"
#include "mmc.h"
#include "mountpoint.h"
#include "records.h"
#include "rpc.h"
#include "vesk_util.h"

const char* const sdstate2str[7] = {"normal", "not_exists", "full", "broken", "formatting", "eject", "fixing"};

namespace {

constexpr int32_t NOT_SLOW = -1;  // one second before 1970 the clock says the same: it stays so for a second

}  // namespace

// Not zero, which would be "normal": unknown until the first derivation is through, so that no refresh comes before it.
// For the same reason the card is not slow since 1970.
sdcard_manager sd = {.state = SDCARD_UNKNOWN,
                     .refresh_timer = {},
                     .info_timer = {},
                     .slow_since = NOT_SLOW,
                     .speed_timer = {},
                     .closure = {}};

namespace {

constexpr ev_tstamp REFRESH_PERIOD_S = 1800.0;
constexpr int REFRESH_PRIORITY = -2;  // the lowest: whatever happens at the same time is worth more than a safety net
constexpr int32_t INFO_PERIOD_S = 86400;
constexpr int INFO_SPREAD_S = 1800;  // so that cameras that were switched on together do not report together for ever
constexpr ev_tstamp SPEED_FIRST_S = 1.0;
constexpr ev_tstamp SPEED_PERIOD_S = 60.0;
constexpr int32_t MINUTES_PER_DAY = 1440;

constexpr char UPDATE_MARKER[] = "/mnt/sdcard/manu_test/update.txt";

// What "sdcard_rw" says about a state.
const char* rw_of(sdcard_state state) {
    switch (state) {
        case SDCARD_NORMAL:
            return "rdwr";
        case SDCARD_FULL:
            return "rdonly";
        case SDCARD_NOT_EXISTS:
        case SDCARD_BROKEN:
        case SDCARD_FORMATTING:
        case SDCARD_EJECT:
        case SDCARD_FIXING:
        case SDCARD_EJECTING:
        case SDCARD_UNKNOWN:
            break;
    }
    return "none";
}

// A card with the marker keeps its images in place.
bool images_stay() {
    return access(UPDATE_MARKER, F_OK) == 0;
}

// Renames an update image that was left on the card, so that nothing finds it under its own name again. A card without
// the image logs its warning at every start, and that is intended.
void set_aside(const char* image) {
    char from[64];
    char to[64];
    snprintf(from, sizeof from, "%s/%s", MOUNTPOINT_PATH, image);
    snprintf(to, sizeof to, "%s/%s.bak", MOUNTPOINT_PATH, image);
    if (rename(from, to) < 0) {
        log_warning("Rename %s: %s", image, strerror(errno));
    }
}

// The marker is asked for afresh before each of the two whole-flash images.
void set_update_images_aside() {
    if (!images_stay()) {
        set_aside("tf_recovery.img");
        set_aside("tf_update.img");
    }
    if (!images_stay()) {
        set_aside("tf_all_recovery.img");
    }
    if (!images_stay()) {
        set_aside("tf_all.img");
    }
}

// Does not ask whether a job runs: a derived state may replace the job's until the job ends. The recorder depends on
// it: a job that never ends, because a tool hangs, must not keep a stale state published for ever.
void on_timer_refresh(struct ev_loop*, ev_timer*, int) {
    sdcard_update_state();
}

ev_tstamp next_info_s() {
    return INFO_PERIOD_S - rand_range(0, INFO_SPREAD_S);
}

void on_timer_info(struct ev_loop* loop, ev_timer* timer, int) {
    ev_timer_set(timer, next_info_s(), 0.0);
    ev_timer_start(loop, timer);
    rpc_send_sdcard_info();
}

// Signed 32-bit like the times; unsigned in between, because a clock that was set may lie further apart than that.
int32_t seconds_since(int32_t then, int32_t now) {
    return static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(then));
}

// What a card that is slow, or idle since it was, has to report at this minute: the seconds that it has been slow, at
// first, after an hour and after each day; 0 at every other minute.
int32_t slow_seconds_to_report(int32_t now) {
    if (sd.slow_since == NOT_SLOW) {
        const auto first_s = static_cast<int32_t>(SPEED_PERIOD_S);
        sd.slow_since = seconds_since(first_s, now);
        return first_s;
    }
    const int32_t elapsed_s = seconds_since(sd.slow_since, now);
    const int32_t minutes = elapsed_s / 60;
    return minutes == 60 || minutes % MINUTES_PER_DAY == 0 ? elapsed_s : 0;
}

void on_timer_speed(struct ev_loop*, ev_timer*, int) {
    if (mmc_get_state() != MMC_STATE_RDWR) {
        return;
    }
    const auto now = static_cast<int32_t>(time(nullptr));
    uint32_t written = 0;
    const int speed = mmc_calc_write_speed(&written);
    if (speed < 0) {
        if (speed != MMC_SPEED_NO_BASELINE) {
            log_warning("Unable to calculate the write speed of sdcard. %s", strerror(errno));
        }
        sd.slow_since = NOT_SLOW;
        return;
    }
    log_debug("sdcard write speed: %d KiB/s", speed / 1024);

    const bool is_idle = speed == 0;
    const bool is_slow = !is_idle && speed < SDCARD_SLOW_BPS;
    int32_t elapse_s = 0;
    if (is_slow || (is_idle && sd.slow_since != NOT_SLOW)) {
        elapse_s = slow_seconds_to_report(now);
    } else if (sd.slow_since != NOT_SLOW) {  // fast, and it was slow
        elapse_s = seconds_since(sd.slow_since, now);
        sd.slow_since = NOT_SLOW;
    }
    if (elapse_s != 0) {
        rpc_send_alert_slow(speed, elapse_s, written);
    }
}

// --- card operations -------------------------------------------------------------------------------------------------

// -1/EBUSY while a job runs. The frame is the only guard that the jobs have, and on one thread no other is needed.
int refuse_while_busy(const char* operation) {
    if (sd.closure.status != CLOSURE_BUSY) {
        return 0;
    }
    log_err("%s: closure is busy", operation);
    errno = EBUSY;
    return -1;
}

// The bottom of every job's stack: the job is over, and the state is what the card is again.
void on_closure_done(closure_frame* frame, void* job_name) {
    const auto* const name = static_cast<const char*>(job_name);
    if (frame->status == CLOSURE_OK) {
        log_info("closure: %s successful", name);
    } else {
        log_err("closure: %s failed", name);
    }
    sdcard_update_state();
}

struct card_job {
    sdcard_state state;     // while it runs
    const char* operation;  // for the trace, as is the next one
    const char* chain;
    const char* name;  // for the log at its end
};

// What every job begins with. The state is published before anything is done to the card.
void begin_job(const card_job& job) {
    sdcard_set_state(job.state);
    closure_debug_next(job.operation, job.chain, "on_closure_done");
    closure_setup_frame(&sd.closure, on_closure_done, const_cast<char*>(job.name));
    sd.closure.status = CLOSURE_BUSY;
}

// The length is not looked at. Our configuration client ends every value with a NUL, at which the comparison stops. The
// device's own promises none: there a value shorter than five bytes is compared with up to four bytes of what follows
// it, and only "s" to "star" can come so far. Programs that ask for a job write "start", with or without something
// after it, and all of them have to be understood.
bool is_request(const char* value) {
    return value != nullptr && strncmp(value, "start", 5) == 0;
}

// The answer says that the request was read, not that a job could be started: whoever asked looks at the state.
void answer_request(const char* key) {
    char text[32] = "";
    snprintf(text, sizeof text, "end%d", static_cast<int>(time(nullptr)));
    kvmem_set(key, text);
}

}  // namespace

sdcard_state merge_state() {
    switch (mmc_get_state()) {
        case MMC_STATE_NONE:
            return SDCARD_NOT_EXISTS;
        case MMC_STATE_RDONLY:
            return SDCARD_BROKEN;
        case MMC_STATE_EJECTED:
            return SDCARD_EJECT;
        case MMC_STATE_RDWR:
            break;
    }
    switch (mountpoint_get_manager()->mounted) {
        case MOUNT_NONE:
            return SDCARD_NOT_EXISTS;
        case MOUNT_FAILED:
            return SDCARD_BROKEN;
        case MOUNT_OK:
            break;
    }
    if (access(MOUNTPOINT_PATH, W_OK) != 0) {
        log_warning("Unable to write access the sdcard.");
        return SDCARD_BROKEN;
    }
    struct statfs space;
    if (mountpoint_statfs(&space) < 0) {
        return SDCARD_BROKEN;
    }
    // Multiplied unsigned, where nothing overflows; the block size is a signed number, and so is what comes out.
    const auto free_bytes = static_cast<int64_t>(static_cast<uint64_t>(space.f_bavail) *
                                                 static_cast<uint64_t>(static_cast<int64_t>(space.f_bsize)));
    const auto free_kib = static_cast<uint32_t>(free_bytes / 1024);
    if (free_kib < SDCARD_FULL_KIB) {
        // Every look at a full card logs this again: who reads the log sees the free space at each deletion.
        log_info("size available: %lu KiB", static_cast<unsigned long>(free_kib));
        return SDCARD_FULL;
    }
    return SDCARD_NORMAL;
}

void sdcard_set_state(sdcard_state state) {
    if (state == sd.state) {
        return;
    }
    const sdcard_state old = sd.state;
    sd.state = state;
    char text[10];
    snprintf(text, sizeof text, "%d", static_cast<int>(state));
    kvmem_set("sdcard_status", text);
    kvmem_set("sdcard_rw", rw_of(state));

    if (state == SDCARD_BROKEN) {
        rpc_send_alert(RPC_ALERT_BROKEN);
    } else if (state == SDCARD_NOT_EXISTS && old != SDCARD_EJECT) {
        rpc_send_alert(RPC_ALERT_NOT_EXISTS);
    }
    // The card's details, when there is something new to tell: at the start, of a card that has come, of one that is
    // gone after an eject, of one that broke.
    const bool has_come = old == SDCARD_NOT_EXISTS;
    const bool was_taken_out = old == SDCARD_EJECT && state == SDCARD_NOT_EXISTS;
    if (old == SDCARD_UNKNOWN || has_come || was_taken_out || state == SDCARD_BROKEN) {
        rpc_send_sdcard_info();
    }
}

void sdcard_update_state() {
    sdcard_state state = merge_state();
    while (state == SDCARD_FULL) {
        if (records_delete_oldest() < 0) {
            log_err("records_delete_oldest: %s", strerror(errno));
            break;
        }
        state = merge_state();
    }
    if (state == SDCARD_UNKNOWN) {
        abort();  // merge_state never says so
    }
    if (state != sd.state) {
        sdcard_set_state(state);
    }
}

void sdcard_refresh(const char* reason) {
    if (sd.state == SDCARD_UNKNOWN || sd.closure.status == CLOSURE_BUSY) {
        return;
    }
    log_info("refresh sdcard state due to %s", reason);
    sdcard_update_state();
    ev_timer_again(EV_DEFAULT, &sd.refresh_timer);  // the next periodic look counts from this one
}

sdcard_state sdcard_get_state() {
    return sd.state;
}

int sdcard_mkfs() {
    if (refuse_while_busy("sdcard_mkfs") < 0) {
        return -1;
    }
    const mmc_state block_state = mmc_get_state();
    if (block_state != MMC_STATE_RDWR) {
        log_err("%s: Unable to format sdcard when mmc device in %d state.", "sdcard_mkfs",
                static_cast<int>(block_state));
        errno = EINVAL;
        return -1;
    }
    begin_job({SDCARD_FORMATTING, "sdcard_mkfs", "cl_next_mkfs", "mkfs"});
    cl_next_mkfs(&sd.closure);
    return 0;
}

int sdcard_eject() {
    if (refuse_while_busy("sdcard_eject") < 0) {
        return -1;
    }
    switch (sd.state) {
        case SDCARD_NOT_EXISTS:
            log_debug("%s: sdcard is not exists", "sdcard_eject");
            return -1;
        case SDCARD_EJECT:
        case SDCARD_EJECTING:
            return 0;
        case SDCARD_FORMATTING:
        case SDCARD_FIXING:
            // The state of a job without the job: nothing that is known of the card can be relied on.
            log_crit("%s: Unexpected sdcard status %s.", "sdcard_eject", sdstate2str[sd.state]);
            abort();
        case SDCARD_UNKNOWN:
            abort();
        case SDCARD_NORMAL:
        case SDCARD_FULL:
        case SDCARD_BROKEN:
            break;
    }
    begin_job({SDCARD_EJECTING, "sdcard_eject", "cl_next_eject", "eject"});
    cl_next_eject(&sd.closure);
    return 0;
}

// No key, action or timer leads here yet. It is in the program all the same, and works: the linker is told to keep it.
int sdcard_fsck() {
    if (refuse_while_busy("sdcard_fsck") < 0) {
        return -1;
    }
    const mmc_manager* const mmc = mmc_get_manager();
    const mmc_state block_state = mmc_get_state();
    if (block_state != MMC_STATE_RDWR) {
        log_err("%s: Unable to check filesystem when mmc device in %d state.", "sdcard_fsck",
                static_cast<int>(block_state));
        errno = EINVAL;
        return -1;
    }
    const char* const device = mmc->partition_count >= 1 ? mmc->partitions[0].path : mmc->disk.path;
    begin_job({SDCARD_FIXING, "sdcard_fsck", "cl_next_fsck", "fsck"});
    cl_next_fsck(&sd.closure, device);
    return 0;
}

void on_spec_sdcard_format(void*, const char* value, size_t) {
    if (!is_request(value)) {
        return;
    }
    (void)sdcard_mkfs();
    answer_request("spec_sdcard_format");
}

void on_spec_sdcard_unmount(void*, const char* value, size_t) {
    if (!is_request(value)) {
        return;
    }
    (void)sdcard_eject();
    answer_request("spec_sdcard_unmount");
}

void sdcard_init() {
    closure_init(&sd.closure, &sd);
    (void)records_init();  // always 0
    if (mountpoint_init() < 0) {
        log_err("fail to init mountpoint monitor");
        abort();
    }
    if (mmc_dev_init() < 0) {
        log_err("fail to initialize uevent.");
        abort();
    }
    ev_timer_init(&sd.refresh_timer, on_timer_refresh, REFRESH_PERIOD_S, REFRESH_PERIOD_S);
    ev_set_priority(&sd.refresh_timer, REFRESH_PRIORITY);
    ev_timer_init(&sd.info_timer, on_timer_info, next_info_s(), 0.0);
    ev_timer_init(&sd.speed_timer, on_timer_speed, SPEED_FIRST_S, SPEED_PERIOD_S);

    sd.slow_since = NOT_SLOW;
    sd.state = SDCARD_UNKNOWN;
    (void)mmc_rescan();  // a camera without a card is no failure
    mountinfo_refresh_state();
    sdcard_update_state();

    set_update_images_aside();
    ev_timer_start(EV_DEFAULT, &sd.refresh_timer);
    ev_timer_start(EV_DEFAULT, &sd.info_timer);
    ev_timer_start(EV_DEFAULT, &sd.speed_timer);
}

// A job that runs is left where it is; its child goes on and nobody waits for it.
void sdcard_exit() {
    ev_timer_stop(EV_DEFAULT, &sd.refresh_timer);
    ev_timer_stop(EV_DEFAULT, &sd.info_timer);
    ev_timer_stop(EV_DEFAULT, &sd.speed_timer);
    records_exit();
    mmc_dev_exit();
    mountpoint_exit();
}
