#include "sdcard.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/statfs.h>
#include <unistd.h>

#include "kv.h"
#include "mmc.h"
#include "mountpoint.h"
#include "records.h"
#include "vesk_util.h"

const char* const sdstate2str[7] = {"normal", "not_exists", "full", "broken", "formatting", "eject", "fixing"};

// Unknown until the first derivation is through, so that nobody's refresh comes before it.
sdcard_manager sd = {.state = SDCARD_UNKNOWN, .refresh_timer = {}};

namespace {

constexpr double REFRESH_PERIOD_S = 1800.0;
constexpr int REFRESH_PRIORITY = -2;  // the lowest: whatever happens at the same time is worth more than a safety net

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

void on_timer_refresh(struct ev_loop*, ev_timer*, int) {
    sdcard_update_state();
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
    uint64_t free_bytes = static_cast<uint64_t>(space.f_bavail) * static_cast<uint64_t>(int64_t{space.f_bsize});
    auto free_kib = static_cast<uint32_t>(free_bytes / 1024);
    if (free_kib < SDCARD_FULL_KIB) {
        // While the card is full every look at it logs this anew; that is how it stands.
        log_info("size available: %lu KiB", static_cast<unsigned long>(free_kib));
        return SDCARD_FULL;
    }
    return SDCARD_NORMAL;
}

void sdcard_set_state(sdcard_state state) {
    if (state == sd.state) {
        return;
    }
    sd.state = state;
    char text[10];
    snprintf(text, sizeof text, "%d", static_cast<int>(state));
    kvmem_set("sdcard_status", text);
    kvmem_set("sdcard_rw", rw_of(state));
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
    if (sd.state == SDCARD_UNKNOWN) {
        return;
    }
    log_info("refresh sdcard state due to %s", reason);
    sdcard_update_state();
    ev_timer_again(EV_DEFAULT, &sd.refresh_timer);  // the next periodic look counts from this one
}

sdcard_state sdcard_get_state() {
    return sd.state;
}

void sdcard_init() {
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

    sd.state = SDCARD_UNKNOWN;
    (void)mmc_rescan();  // a camera without a card is no failure
    mountinfo_refresh_state();
    sdcard_update_state();

    set_update_images_aside();
    ev_timer_start(EV_DEFAULT, &sd.refresh_timer);
}

void sdcard_exit() {
    ev_timer_stop(EV_DEFAULT, &sd.refresh_timer);
    records_exit();
    mmc_dev_exit();
    mountpoint_exit();
}
