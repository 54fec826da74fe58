// The mount table's watcher against the real kernel, in a mount namespace of the test's own: does a watcher for
// writability hear of mounts and unmounts, and is it silent in between? Where namespaces are refused the test is
// reported as skipped, not as passed.
#include <cerrno>
#include <cstring>
#include <ev.h>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "mmc.h"
#include "mountpoint.h"
#include "records.h"
#include "sdcard.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"

namespace {
int refreshes;
constexpr unsigned long RECURSIVE_PRIVATE = (1UL << 14) | (1UL << 18);  // MS_REC | MS_PRIVATE
}  // namespace

// --- stand-ins for the neighbours ----------------------------------------------------------------------------------
mmc_manager* mmc_get_manager() {
    static mmc_manager none;
    return &none;
}
mmc_state mmc_get_state() {
    return MMC_STATE_NONE;
}
mmc_block* mmc_get_block(uint32_t) {
    return nullptr;
}
sdcard_manager sd;
sdcard_state merge_state() {
    ++refreshes;
    return sd.state;
}
void sdcard_refresh(const char*) {}
void record_dir_open() {}
void record_dir_close(int) {}

namespace {

// The kernel's own mount and umount, which kernel.h stands in for otherwise.
int real_mount(const char* target, const char* type, unsigned long flags) {
    return static_cast<int>(syscall(SYS_mount, "none", target, type, flags, nullptr));
}
int real_umount(const char* target) {
    return static_cast<int>(syscall(SYS_umount2, target, 0));
}

// Runs the loop until the table was looked at, or half a minute has gone.
bool heard() {
    struct ev_loop* loop = ev_default_loop(0);
    ev_now_update(loop);
    ev_timer deadline;
    ev_timer_init(
        &deadline, +[](struct ev_loop* l, ev_timer*, int) { ev_break(l, EVBREAK_ALL); }, 30.0, 0.0);
    ev_timer_start(loop, &deadline);
    while (refreshes == 0 && ev_is_active(&deadline)) {
        ev_run(loop, EVRUN_ONCE);
    }
    ev_timer_stop(loop, &deadline);
    return refreshes > 0;
}

PROMISES("mountpoint", "The kernel's table");

TEST(mountinfo_watch, hears_of_each_change_once) {
    PROMISE("something is mounted or unmounted behind our back",
            "the real kernel's notice arrives once for it, and the loop is idle in between");
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        GTEST_SKIP() << "no mount namespace of our own allowed here";
    }
    ASSERT_EQ(real_mount("/", nullptr, RECURSIVE_PRIVATE), 0) << strerror(errno);
    kernel::reset();
    kernel::write("/proc/filesystems", "\tvfat\n");
    kernel::make_dir("/proc/self");
    kernel::make_dir("/mnt/sdcard");
    std::filesystem::create_symlink("/proc/self/mountinfo", kernel::host("/proc/self/mountinfo"));
    const std::string target = kernel::host("/mnt/sdcard");
    sd.state = SDCARD_NOT_EXISTS;

    ASSERT_EQ(mountpoint_init(), 0);
    struct ev_loop* loop = ev_default_loop(0);
    ev_run(loop, EVRUN_NOWAIT);  // the backend learns of the descriptor
    refreshes = 0;
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(real_mount(target.c_str(), "tmpfs", 0), 0) << strerror(errno);
        EXPECT_TRUE(heard()) << "mount " << round;
        ASSERT_EQ(real_umount(target.c_str()), 0) << strerror(errno);
        refreshes = 0;
        EXPECT_TRUE(heard()) << "umount " << round;
        for (int i = 0; i < 100; ++i) {
            ev_run(loop, EVRUN_NOWAIT);
        }
        EXPECT_EQ(refreshes, 1) << "told twice, or spins";
        refreshes = 0;
    }
    mountpoint_exit();
}

}  // namespace
