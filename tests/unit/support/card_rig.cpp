#include "support/card_rig.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <utility>

#include "kv.h"
#include "records.h"
#include "rpc.h"
#include "vesk_util.h"

namespace rig {

neighbours world;

void step(std::string text) {
    world.steps.push_back(std::move(text));
}

}  // namespace rig

using rig::step;
using rig::world;

namespace {

void stop_timers() {
    for (auto* timer : {&sd.refresh_timer, &sd.info_timer, &sd.speed_timer}) {
        ev_timer_stop(EV_DEFAULT, timer);
    }
}

}  // namespace

mmc_state mmc_get_state() {
    return world.mmc.state;
}
mmc_manager* mmc_get_manager() {
    return &world.mmc;
}
int mmc_dev_init() {
    step("mmc_dev_init");
    return world.mmc_dev_init_result;
}
void mmc_dev_exit() {
    step("mmc_dev_exit");
}
int mmc_rescan() {
    step(sd.state == SDCARD_UNKNOWN ? "mmc_rescan" : "mmc_rescan while the state is known");
    return -1;  // no card is no failure of the start
}
int mmc_calc_write_speed(uint32_t* written) {
    step("mmc_calc_write_speed");
    if (world.speed >= 0 && world.is_written) {
        *written = world.written;
    }
    errno = world.speed_errno;
    return world.speed;
}
mountpoint_manager* mountpoint_get_manager() {
    return &world.mountpoint;
}
int mountpoint_statfs(struct statfs* buffer) {
    if (world.statfs_result == 0) {
        buffer->f_bavail = world.f_bavail;
        buffer->f_bsize = world.f_bsize;
    }
    return world.statfs_result;
}
int mountpoint_init() {
    step("mountpoint_init");
    return world.mountpoint_init_result;
}
void mountpoint_exit() {
    step("mountpoint_exit");
}
void mountinfo_refresh_state() {
    step("mountinfo_refresh_state");
    if (world.refresh_from_mountinfo) {
        sdcard_refresh("Mountinfo changed.");
    }
}
int records_init() {
    step(sd.closure.owner == &sd && sd.closure.status == CLOSURE_IDLE ? "records_init"
                                                                      : "records_init without a frame");
    return 0;
}
void records_exit() {
    const bool timers_run =
        ev_is_active(&sd.refresh_timer) || ev_is_active(&sd.info_timer) || ev_is_active(&sd.speed_timer);
    step(timers_run ? "records_exit while timers run" : "records_exit");
}
int records_delete_oldest() {
    step("records_delete_oldest");
    if (world.on_delete) {
        world.on_delete();
    }
    if (world.delete_errno != 0) {
        errno = world.delete_errno;
        return -1;
    }
    if (world.after_delete.empty()) {
        ADD_FAILURE() << "deletes on";
        errno = ENOENT;
        return -1;
    }
    world.f_bavail = world.after_delete.front();
    world.after_delete.pop_front();
    return static_cast<int>(world.after_delete.size() % 2);  // whatever is not negative is a success
}
void kvmem_set(const char* key, const char* value) {
    world.lines_before_key = logged::lines().size();
    step(std::string(key) + "=" + value);
}
void rpc_send_sdcard_info() {
    world.is_next_report_due = ev_is_active(&sd.info_timer) != 0;
    step("rpc_send_sdcard_info");
}
void rpc_send_alert(rpc_alert type) {
    step("rpc_send_alert " + std::to_string(type));
}
void rpc_send_alert_slow(int32_t mean_speed, int32_t elapse, uint32_t active_sec) {
    step("rpc_send_alert_slow " + std::to_string(mean_speed) + " " + std::to_string(elapse) + " " +
         std::to_string(active_sec));
}
extern "C" int rand_range(int a, int b) {
    step("rand_range " + std::to_string(a) + " " + std::to_string(b));
    if (world.random.empty()) {
        return a;
    }
    const int drawn = world.random.front();
    world.random.pop_front();
    return drawn;
}

namespace rig {

double remaining_s(ev_timer* timer) {
    ev_now_update(EV_DEFAULT);
    return ev_timer_remaining(EV_DEFAULT, timer);
}

void test::SetUp() {
    kernel::reset();
    logged::reset();
    kernel::make_dir(CARD);
    world = neighbours{};
    world.mmc.state = MMC_STATE_RDWR;
    world.mountpoint.mounted = MOUNT_OK;
    stop_timers();
    sd = {};
    sd.state = SDCARD_UNKNOWN;
}

void test::TearDown() {
    stop_timers();
}

void test::start() {
    sdcard_init();
    logged::reset();
    kernel::forget_calls();
    world.steps.clear();
}

void test::fill(uint64_t free_kib) {
    world.f_bavail = free_kib;
    world.f_bsize = 1024;
}

void tell_on_abort() {
    std::signal(SIGABRT, [](int) {
        for (const auto& line : logged::lines()) {
            fprintf(stderr, "[%s]", line.c_str());
        }
        for (const auto& name : world.steps) {
            fprintf(stderr, "(%s)", name.c_str());
        }
        fputs("(abort)", stderr);
    });
}

}  // namespace rig
