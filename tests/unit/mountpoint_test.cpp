#include "mountpoint.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "mmc.h"
#include "records.h"
#include "sdcard.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"

using namespace std::string_literals;
using list = std::vector<std::string>;

// --- stand-ins for the neighbours: the block devices, the card's state, the recordings ------------------------------

namespace {
mmc_manager block_devices;
list told;  // calls into the neighbours, in order
sdcard_state merged;
int errno_of_close;
bool knows_every_device;
uint32_t mask_at_close;  // at the last record_dir_close
size_t lines_at_merge;   // of the log, at the last merge_state
}  // namespace

mmc_manager* mmc_get_manager() {
    return &block_devices;
}
mmc_state mmc_get_state() {
    return block_devices.state;
}
mmc_block* mmc_get_block(uint32_t minor) {
    for (mmc_block& partition : block_devices.partitions) {
        if (partition.minor == minor) {
            return &partition;
        }
    }
    return block_devices.disk.minor == minor || knows_every_device ? &block_devices.disk : nullptr;
}

sdcard_manager sd;
sdcard_state merge_state() {
    lines_at_merge = logged::lines().size();
    told.push_back("merge_state while " + std::to_string(mountpoint_get_manager()->mounted));
    return merged;
}
void sdcard_refresh(const char* reason) {
    told.push_back("sdcard_refresh " + std::string(reason) + " at " +
                   std::to_string(mountpoint_get_manager()->mounted));
}
void record_dir_open() {
    told.emplace_back("record_dir_open");
}
void record_dir_close(int dirty) {
    told.push_back("record_dir_close " + std::to_string(dirty) + " after " + std::to_string(kernel::count("umount")) +
                   " umounts");
    mask_at_close = mountpoint_get_manager()->mask;
    errno = errno_of_close;
}

namespace {

constexpr char REPORTED_NONE[] = "sdcard_refresh Mountinfo changed. at 0";
constexpr char REPORTED_OK[] = "sdcard_refresh Mountinfo changed. at 1";
constexpr char REPORTED_FAILED[] = "sdcard_refresh Mountinfo changed. at 2";
constexpr char DETACHING[] =
    "warning sdcard: mountpoint: The mounted block device is not found. Detaching the mountpoint.";
constexpr char MOUNT_ERROR[] =
    "err sdcard: mountpoint: Fail to mount the mmc device. mkfs or recreate partition table is required.";

constexpr char ROOT_LINE[] = "15 1 31:4 / / ro,relatime - squashfs /dev/root ro\n";
constexpr char CARD_LINE[] = "21 15 179:1 / /mnt/sdcard rw,nosuid - vfat /dev/mmcblk0p1 rw\n";
constexpr char CARD_ELSEWHERE[] = "21 15 179:1 / /media rw,nosuid - vfat /dev/mmcblk0p1 rw\n";
constexpr char GONE_LINE[] = "21 15 179:33 / /mnt/sdcard rw,nosuid - vfat /dev/mmcblk1p1 rw\n";
constexpr char GONE_ELSEWHERE[] = "20 15 179:33 / /media rw,nosuid - vfat /dev/mmcblk1p1 rw\n";

int told_count(const std::string& what) {
    return static_cast<int>(std::count(told.begin(), told.end(), what));
}

void set_block(mmc_block* block, const char* name, uint32_t minor) {
    snprintf(block->path, sizeof block->path, "/dev/%s", name);
    block->name = block->path + 5;
    block->minor = minor;
}

void write_mountinfo(const std::string& text) {
    kernel::write("/proc/self/mountinfo", text);
}

// The device that is mounted at MOUNTPOINT_PATH: the last line of it counts, which lies on top.
dev_t device_at_mount_point() {
    dev_t found = makedev(31, 4);
    std::istringstream table(kernel::read("/proc/self/mountinfo"));
    for (std::string line; std::getline(table, line);) {
        unsigned major;
        unsigned minor;
        char target[64];
        if (sscanf(line.c_str(), "%*d%*d%u:%u%*s%63s", &major, &minor, target) == 3 &&
            std::string_view(target) == MOUNTPOINT_PATH) {
            found = makedev(major, minor);
        }
    }
    return found;
}

void write_filesystems(const list& names) {
    std::string text = "nodev\tsysfs\nnodev\tproc\n";
    for (const auto& name : names) {
        text += "\t" + name + "\n";
    }
    kernel::write("/proc/filesystems", text);
}

list filesystems() {
    list all;
    for (const auto& name : mountpoint_get_manager()->filesystems) {
        if (name[0] == '\0') {
            break;
        }
        all.emplace_back(name);
    }
    return all;
}

list mounts() {
    list all;
    for (const auto& call : kernel::calls()) {
        if (call.compare(0, 6, "mount ") == 0) {
            all.push_back(call.substr(6));
        }
    }
    return all;
}

class mountpoint : public testing::Test {
  protected:
    mountpoint_manager* m = mountpoint_get_manager();

    // The record as the program finds it, before any test has touched it.
    static const mountpoint_manager& at_start() {
        static const mountpoint_manager kept = *mountpoint_get_manager();
        return kept;
    }
    void SetUp() override {
        (void)at_start();
        kernel::reset();
        logged::reset();
        block_devices = mmc_manager{};
        block_devices.state = MMC_STATE_RDWR;
        set_block(&block_devices.disk, "mmcblk0", 0);
        set_block(&block_devices.partitions[0], "mmcblk0p1", 1);
        set_block(&block_devices.partitions[1], "mmcblk0p2", 2);
        block_devices.partition_count = 2;
        set_block(&block_devices.partitions[2], "stale", 99);  // behind the count
        merged = SDCARD_NORMAL;
        sd.state = SDCARD_NORMAL;
        errno_of_close = 0;
        *m = mountpoint_manager{};
        m->mountinfo_fd = -1;
        write_filesystems({"vfat", "msdos"});
        write_mountinfo(ROOT_LINE);
        kernel::make_dir(MOUNTPOINT_PATH);
        kernel::on().stat = [](const char* path, struct stat* status) {
            EXPECT_STREQ(path, MOUNTPOINT_PATH);
            *status = {};
            status->st_dev = device_at_mount_point();
            return 0;
        };
        ASSERT_EQ(mountpoint_init(), 0);
        forget_warnings();
        forget();
    }
    void TearDown() override { mountpoint_exit(); }
    // A warning that is not repeated is forgotten when the table knows the device.
    void forget_warnings() {
        knows_every_device = true;
        m->mask = 1;
        mountinfo_refresh_state();
        knows_every_device = false;
        m->mask = 0;
    }
    static void forget() {
        told.clear();
        logged::reset();
        kernel::forget_calls();
    }
    // Only this device with this filesystem can be mounted; the kernel's table shows it from then on.
    static void only(const std::string& device, const std::string& type) {
        kernel::on().mount = [=](const char* d, const char*, const char* t, unsigned long, const char*) {
            if (device == d && type == t) {
                return 0;
            }
            errno = EINVAL;
            return -1;
        };
    }
    ev_tstamp timer_left() { return ev_timer_remaining(ev_default_loop(0), &m->refresh_timer); }
};

PROMISES("mountpoint", "Start and stop");

TEST_F(mountpoint, nothing_is_mounted_or_held_off_when_the_program_starts) {
    PROMISE("the program has just been loaded",
            "nothing counts as mounted, nothing is held off, no descriptor is open");
    EXPECT_EQ(at_start().mountinfo_fd, -1);
    EXPECT_EQ(at_start().mounted, MOUNT_NONE);
    EXPECT_EQ(at_start().mask, 0U);
}

// --- the filesystems -----------------------------------------------------------------------------------------------

TEST_F(mountpoint, filesystems_of_disks_in_the_kernels_order) {
    PROMISE("the kernel offers filesystems of disks",
            "they are kept in its order, which is the order of trying, and logged in one line after \"Supported "
            "filesystems:\"");
    PROMISE("a line of the kernel's list begins with n, or has no word",
            "it is left out; a name with n behind the tab is not");
    PROMISE("the kernel offers squashfs or jffs2",
            "they are left out and do not count towards the limit; names that only resemble them stay");
    PROMISE("a filesystem's name has more than 15 characters", "the first 15 are kept");
    const struct {
        const char* what;
        std::string text;
        list names;
        const char* line;
    } rows[] = {
        {"own flash left out",
         "nodev\tsysfs\nnodev\ttmpfs\n\tvfat\n\tmsdos\n\texfat\n\tsquashfs\nnodev\tramfs\n\tjffs2\n",
         {"vfat", "msdos", "exfat"},
         "Supported filesystems: vfat msdos exfat"},
        {"no line break at the end", "\text4\n\tvfat", {"ext4", "vfat"}, "Supported filesystems: ext4 vfat"},
        {"empty lines", "\n\t\n\tvfat\n \n", {"vfat"}, "Supported filesystems: vfat"},
        {"a name that begins with n", "\tntfs\n", {"ntfs"}, "Supported filesystems: ntfs"},
        {"a line that begins with n", "\tvfat\nntfs\n", {"vfat"}, "Supported filesystems: vfat"},
        {"names like those left out",
         "\tsquashfs2\n\tjffs\n",
         {"squashfs2", "jffs"},
         "Supported filesystems: squashfs2 jffs"},
        {"15 characters", "\t123456789012345\n", {"123456789012345"}, "Supported filesystems: 123456789012345"},
        {"more characters",
         "\t1234567890123456 x\n\tvfat\n",
         {"123456789012345", "vfat"},
         "Supported filesystems: 123456789012345 vfat"},
        {"eight, and nine with one left out",
         "\ta\n\tb\n\tc\n\td\n\te\n\tf\n\tg\n\tjffs2\n\th\n",
         {"a", "b", "c", "d", "e", "f", "g", "h"},
         "Supported filesystems: a b c d e f g h"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        mountpoint_exit();
        logged::reset();
        kernel::write("/proc/filesystems", row.text);
        ASSERT_EQ(mountpoint_init(), 0);
        EXPECT_EQ(filesystems(), row.names);
        EXPECT_EQ(logged::lines(), list{"info sdcard: mountpoint: "s + row.line});
    }
}

TEST_F(mountpoint, filesystems_fill_eight_slots_of_full_length) {
    PROMISE("eight filesystems with names of full length", "all are kept and all are logged");
    list names;
    for (char c = 'a'; c <= 'h'; ++c) {
        names.emplace_back(15, c);
    }
    mountpoint_exit();
    write_filesystems(names);
    ASSERT_EQ(mountpoint_init(), 0);
    EXPECT_EQ(filesystems(), names);
    logged::reset();
    dump_supported_fs();
    std::string line = "info sdcard: mountpoint: Supported filesystems:";
    for (const auto& name : names) {
        line += " " + name;
    }
    EXPECT_EQ(logged::lines(), list{line});
}

class mountpoint_death : public mountpoint {
  protected:
    static void die_telling() {
        signal(
            SIGABRT, +[](int) {
                for (const auto& kept : logged::lines()) {
                    (void)!write(STDERR_FILENO, (kept + "\n").c_str(), kept.size() + 1);
                }
                signal(SIGABRT, SIG_DFL);
            });
        mountpoint_init();
    }
};

TEST_F(mountpoint_death, unreadable_list_of_filesystems) {
    PROMISE("\"/proc/filesystems\" cannot be opened",
            "the reason goes to standard error, and the process ends with status 1");
    kernel::fail("fopen", EACCES);
    EXPECT_EXIT(mountpoint_init(), testing::ExitedWithCode(1), "^/proc/filesystems: "s + strerror(EACCES));
}

TEST_F(mountpoint_death, ninth_filesystem) {
    PROMISE("there is a ninth filesystem", "\"Too many filesystems.\" and an abort");
    write_filesystems({"a", "b", "c", "d", "e", "f", "g", "h", "i"});
    EXPECT_EXIT(die_telling(), testing::KilledBySignal(SIGABRT), "crit sdcard: mountpoint: Too many filesystems\\.\n");
}

TEST_F(mountpoint_death, no_filesystem) {
    PROMISE("there is no filesystem of disks", "\"No filesystem detected.\" and an abort");
    write_filesystems({"squashfs", "jffs2"});
    EXPECT_EXIT(die_telling(), testing::KilledBySignal(SIGABRT),
                "crit sdcard: mountpoint: No filesystem detected\\.\n");
}

// --- start and stop ------------------------------------------------------------------------------------------------

TEST_F(mountpoint, init_watches_the_table_and_leaves_the_timer_alone) {
    PROMISE("the mount point is set up",
            "the table is open read-only and close-on-exec and watched for writability at priority 0; the two-second "
            "timer is set up at priority -2 but not started");
    PROMISE("the mount point is shut down, once or twice",
            "watcher and timer are off, the descriptor is closed and -1");
    EXPECT_EQ(fcntl(m->mountinfo_fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(fcntl(m->mountinfo_fd, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(ev_is_active(&m->mountinfo_watcher));
    EXPECT_EQ(m->mountinfo_watcher.fd, m->mountinfo_fd);
    EXPECT_EQ(m->mountinfo_watcher.events & (EV_READ | EV_WRITE), EV_WRITE);
    EXPECT_EQ(ev_priority(&m->mountinfo_watcher), 0);
    EXPECT_FALSE(ev_is_active(&m->refresh_timer));
    EXPECT_EQ(ev_priority(&m->refresh_timer), -2);
    EXPECT_DOUBLE_EQ(m->refresh_timer.repeat, 2.0);
    EXPECT_DOUBLE_EQ(timer_left(), 2.0);  // what a plain start would wait
    EXPECT_TRUE(mounts().empty());

    mountpoint_refresh_delay();
    const int fd = m->mountinfo_fd;
    mountpoint_exit();
    EXPECT_FALSE(ev_is_active(&m->mountinfo_watcher));
    EXPECT_FALSE(ev_is_active(&m->refresh_timer));
    EXPECT_EQ(m->mountinfo_fd, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    mountpoint_exit();  // twice is fine
}

TEST_F(mountpoint, init_without_a_mount_table) {
    PROMISE("the mount table cannot be opened",
            "\"open\" and the reason go to standard error, the start fails, nothing is watched");
    mountpoint_exit();
    kernel::fail("open", EMFILE);
    testing::internal::CaptureStderr();
    EXPECT_EQ(mountpoint_init(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "open: "s + strerror(EMFILE) + "\n");
    EXPECT_EQ(m->mountinfo_fd, -1);
    EXPECT_FALSE(ev_is_active(&m->mountinfo_watcher));
}

// --- mount, unmount, statfs ----------------------------------------------------------------------------------------

PROMISES("mountpoint", "On request");

TEST_F(mountpoint, mount_tries_partitions_then_the_disk_with_each_filesystem) {
    PROMISE("the card is to be mounted",
            "each partition in the order of its slots with each filesystem, then the whole disk; the first success "
            "ends it");
    PROMISE("a mount was tried",
            "one line at debug level with device, place, filesystem and \"Success\" or the reason, which logging "
            "before it cannot spoil");
    PROMISE("mounting on request succeeds", "the hold is gone, the status is reported as mounted, the timer runs");
    const struct {
        const char* device;
        const char* type;
        int attempts;
    } rows[] = {
        {"/dev/mmcblk0p1", "vfat", 1},  {"/dev/mmcblk0p1", "msdos", 2}, {"/dev/mmcblk0p2", "vfat", 3},
        {"/dev/mmcblk0p2", "msdos", 4}, {"/dev/mmcblk0", "vfat", 5},    {"/dev/mmcblk0", "msdos", 6},
    };
    const list order = {"/dev/mmcblk0p1 /mnt/sdcard vfat", "/dev/mmcblk0p1 /mnt/sdcard msdos",
                        "/dev/mmcblk0p2 /mnt/sdcard vfat", "/dev/mmcblk0p2 /mnt/sdcard msdos",
                        "/dev/mmcblk0 /mnt/sdcard vfat",   "/dev/mmcblk0 /mnt/sdcard msdos"};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.attempts);
        forget();
        m->mounted = MOUNT_FAILED;
        m->mask = 1;
        ev_timer_stop(ev_default_loop(0), &m->refresh_timer);
        only(row.device, row.type);
        logged::disturb_errno(EIO);
        EXPECT_EQ(mountpoint_mount(), 0);
        EXPECT_EQ(m->mask, 0U);
        EXPECT_EQ(m->mounted, MOUNT_OK);
        EXPECT_EQ(mounts(), list(order.begin(), order.begin() + row.attempts));
        EXPECT_EQ(told, (list{"merge_state while 2", REPORTED_OK}));
        EXPECT_TRUE(ev_is_active(&m->refresh_timer));
        ASSERT_EQ(logged::lines().size(), static_cast<size_t>(row.attempts));
        EXPECT_EQ(logged::lines().back(),
                  "debug sdcard: mountpoint: mount "s + row.device + " to /mnt/sdcard with " + row.type + ": Success");
        if (row.attempts > 1) {
            EXPECT_EQ(logged::lines()[0],
                      "debug sdcard: mountpoint: mount /dev/mmcblk0p1 to /mnt/sdcard with vfat: "s + strerror(EINVAL));
        }
    }
}

TEST_F(mountpoint, card_without_partitions_is_mounted_as_a_whole) {
    PROMISE("the card has no partition table", "the whole disk is mounted");
    block_devices.partition_count = 0;
    EXPECT_EQ(mountpoint_mount(), 0);
    EXPECT_EQ(mounts(), list{"/dev/mmcblk0 /mnt/sdcard vfat"});
    EXPECT_EQ(m->mounted, MOUNT_OK);
}

TEST_F(mountpoint, mount_options) {
    PROMISE(
        "a mount is tried",
        "without set-user-id, devices and access times, directories synchronous, the kernel silent, \"umask=0022\"");
    unsigned long seen = 0;
    std::string data;
    kernel::on().mount = [&](const char*, const char*, const char*, unsigned long flags, const char* d) {
        seen = flags;
        data = d;
        return 0;
    };
    EXPECT_EQ(mountpoint_mount(), 0);
    EXPECT_EQ(seen,
              static_cast<unsigned long>(MS_NOSUID | MS_NODEV | MS_DIRSYNC | MS_NOATIME | MS_NODIRATIME | MS_SILENT));
    EXPECT_EQ(data, "umask=0022");
}

TEST_F(mountpoint, mount_that_fails_leaves_the_status_and_says_so) {
    PROMISE("mounting on request fails",
            "\"Fail to mount the mmc device. mkfs or recreate partition table is required.\", the status stays as it "
            "was, nothing is reported, the hold is gone");
    only("nothing", "");
    for (mount_status before : {MOUNT_NONE, MOUNT_FAILED}) {
        forget();
        m->mounted = before;
        m->mask = 1;
        EXPECT_EQ(mountpoint_mount(), -1);
        EXPECT_EQ(m->mounted, before);
        EXPECT_EQ(m->mask, 0U);
        EXPECT_EQ(mounts().size(), 6U);
        EXPECT_EQ(logged::lines().back(), MOUNT_ERROR);
        EXPECT_TRUE(told.empty());
        EXPECT_FALSE(ev_is_active(&m->refresh_timer));
    }
}

TEST_F(mountpoint, only_a_writable_card_is_mounted) {
    PROMISE("the card is write-protected, ejected or absent",
            "no mount is even tried: EINVAL, and the same error line on request");
    for (mmc_state state : {MMC_STATE_NONE, MMC_STATE_RDONLY, MMC_STATE_EJECTED}) {
        forget();
        block_devices.state = state;
        errno = 0;
        EXPECT_EQ(mountpoint_try_mount(), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_TRUE(logged::lines().empty());
        EXPECT_EQ(mountpoint_mount(), -1);
        EXPECT_EQ(logged::lines(), list{MOUNT_ERROR});
        EXPECT_EQ(m->mounted, MOUNT_NONE);
        EXPECT_TRUE(mounts().empty());
    }
}

TEST_F(mountpoint, mount_of_what_is_mounted_only_releases_the_hold) {
    PROMISE("the card is mounted already", "mounting only releases the hold");
    m->mounted = MOUNT_OK;
    m->mask = 1;
    EXPECT_EQ(mountpoint_mount(), 0);
    EXPECT_EQ(m->mask, 0U);
    EXPECT_TRUE(kernel::calls().empty());
    EXPECT_TRUE(told.empty());
    EXPECT_FALSE(ev_is_active(&m->refresh_timer));
}

TEST_F(mountpoint, umount_closes_the_recordings_first) {
    PROMISE("the card is unmounted on request",
            "automatic mounting is held off, the recordings are closed before the kernel is asked, without flags; then "
            "\"Umount successful\" and the report");
    m->mounted = MOUNT_OK;
    int flags = -1;
    kernel::on().umount = [&](const char*, int f) {
        flags = f;
        return 0;
    };
    EXPECT_EQ(mountpoint_umount(), 0);
    EXPECT_EQ(kernel::calls(), list{"umount /mnt/sdcard"});
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(told, (list{"record_dir_close 0 after 0 umounts", "merge_state while 1", REPORTED_NONE}));
    EXPECT_EQ(logged::lines(), list{"info sdcard: mountpoint: Umount successful"});
    EXPECT_EQ(mask_at_close, 1U) << "held off from the first moment";
    EXPECT_EQ(lines_at_merge, 1U) << "told before it is reported";
    EXPECT_EQ(m->mounted, MOUNT_NONE);
    EXPECT_EQ(m->mask, 1U);
}

TEST_F(mountpoint, umount_that_the_kernel_refuses) {
    PROMISE(
        "the kernel refuses to unmount",
        "-1 with its errno, not that of closing the recordings; still mounted, held off, nothing logged or reported");
    m->mounted = MOUNT_OK;
    errno_of_close = EIO;
    for (const int errnum : {EBUSY, EINVAL, EPERM, ENOMEM}) {
        forget();
        kernel::fail("umount", errnum);
        EXPECT_EQ(mountpoint_umount(), -1);
        EXPECT_EQ(errno, errnum);
        EXPECT_EQ(m->mounted, MOUNT_OK);
        EXPECT_EQ(m->mask, 1U);
        EXPECT_EQ(told, list{"record_dir_close 0 after 0 umounts"});
        EXPECT_TRUE(logged::lines().empty());
    }
}

TEST_F(mountpoint, umount_of_nothing_holds_automatic_mounting_off) {
    PROMISE("nothing is mounted and unmounting is asked for",
            "success, and held off from then on: no refresh mounts until the hold is released");
    PROMISE("the hold is released without mounting", "nothing else happens at that moment");
    for (mount_status status : {MOUNT_NONE, MOUNT_FAILED}) {
        forget();
        m->mounted = status;
        m->mask = 0;
        EXPECT_EQ(mountpoint_umount(), 0);
        EXPECT_EQ(m->mounted, status);
        EXPECT_EQ(m->mask, 1U);
        EXPECT_TRUE(told.empty());
        EXPECT_TRUE(kernel::calls().empty());
        EXPECT_TRUE(logged::lines().empty());
    }
    mountinfo_refresh_state();
    mountinfo_refresh_state();
    EXPECT_TRUE(mounts().empty());
    mountpoint_clear_mask();
    EXPECT_EQ(m->mask, 0U);
    EXPECT_TRUE(mounts().empty()) << "nothing else happens by itself";
    EXPECT_FALSE(ev_is_active(&m->refresh_timer)) << "nor later";
    mountinfo_refresh_state();
    EXPECT_EQ(mounts().size(), 1U);
}

TEST_F(mountpoint, statfs_only_of_a_mounted_card) {
    PROMISE("free space is asked for while nothing is mounted", "-1, the buffer untouched, the kernel not asked");
    PROMISE("free space of the mounted card is asked for",
            "the kernel's answer for the mount point, failures with errno");
    kernel::on().statfs = [](const char* path, struct statfs* buffer) {
        EXPECT_STREQ(path, "/mnt/sdcard");
        buffer->f_bfree = 4711;
        return 0;
    };
    struct statfs buffer {};
    for (mount_status status : {MOUNT_NONE, MOUNT_FAILED}) {
        m->mounted = status;
        EXPECT_EQ(mountpoint_statfs(&buffer), -1);
        EXPECT_EQ(buffer.f_bfree, 0U);
        EXPECT_TRUE(kernel::calls().empty());
    }
    m->mounted = MOUNT_OK;
    EXPECT_EQ(mountpoint_statfs(&buffer), 0);
    EXPECT_EQ(buffer.f_bfree, 4711U);
    kernel::fail("statfs", EIO);
    EXPECT_EQ(mountpoint_statfs(&buffer), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(mountpoint, refresh_delay_forgets_a_failure_and_arms_the_timer) {
    PROMISE("block devices changed",
            "a failed attempt is forgotten without a report, and the next look is two seconds away");
    for (mount_status status : {MOUNT_NONE, MOUNT_OK, MOUNT_FAILED}) {
        m->mounted = status;
        mountpoint_refresh_delay();
        EXPECT_EQ(m->mounted, status == MOUNT_FAILED ? MOUNT_NONE : status);
        EXPECT_TRUE(ev_is_active(&m->refresh_timer));
        EXPECT_NEAR(timer_left(), 2.0, 0.001);
    }
    EXPECT_TRUE(told.empty()) << "not reported";
}

// Each change counts from its own time, also while the timer runs from an earlier one.
TEST_F(mountpoint, each_change_of_devices_puts_the_look_off_again) {
    PROMISE("devices change, or the card is mounted on request, while the timer runs",
            "the next look is two seconds from then on");
    mountpoint_refresh_delay();
    ev_sleep(0.05);
    ev_now_update(ev_default_loop(0));
    ASSERT_LT(timer_left(), 1.96);
    mountpoint_refresh_delay();
    EXPECT_NEAR(timer_left(), 2.0, 0.001);

    ev_sleep(0.05);
    ev_now_update(ev_default_loop(0));
    ASSERT_LT(timer_left(), 1.96);
    EXPECT_EQ(mountpoint_mount(), 0);
    EXPECT_NEAR(timer_left(), 2.0, 0.001) << "so does a mount on request";
}

TEST_F(mountpoint, status_is_reported_when_it_or_the_card_state_changed) {
    PROMISE("the status is set to what it is, and the card's derived state is the published one",
            "nothing is reported");
    PROMISE(
        "the status changes, or only the derived state differs",
        "it is stored and reported as \"Mountinfo changed.\"; the state compared is the one derived before storing");
    const struct {
        mount_status before;
        mount_status value;
        sdcard_state merged_now;
        bool reported;
    } rows[] = {
        {MOUNT_NONE, MOUNT_NONE, SDCARD_NORMAL, false}, {MOUNT_OK, MOUNT_OK, SDCARD_NORMAL, false},
        {MOUNT_OK, MOUNT_OK, SDCARD_FULL, true},        {MOUNT_NONE, MOUNT_OK, SDCARD_NORMAL, true},
        {MOUNT_OK, MOUNT_NONE, SDCARD_FULL, true},      {MOUNT_NONE, MOUNT_FAILED, SDCARD_NORMAL, true},
    };
    for (const auto& row : rows) {
        told.clear();
        m->mounted = row.before;
        merged = row.merged_now;
        mountpoint_set_mounted(row.value);
        list expected = {"merge_state while " + std::to_string(row.before)};
        if (row.reported) {
            expected.push_back("sdcard_refresh Mountinfo changed. at " + std::to_string(row.value));
        }
        EXPECT_EQ(told, expected);
        EXPECT_EQ(m->mounted, row.value);
    }
}

// --- the mount table -----------------------------------------------------------------------------------------------

PROMISES("mountpoint", "The kernel's table");

TEST_F(mountpoint, first_card_mount_of_the_table) {
    PROMISE("the table is looked at",
            "one read from its beginning on the same descriptor, so a second look sees what is true then");
    PROMISE("several devices of major 179 are mounted", "the first one's minor counts");
    PROMISE("179 stands in another column, or is only part of a number", "it does not count");
    PROMISE("lines are empty, broken or without an end", "they are passed over, and none runs into the next");
    const struct {
        const char* what;
        std::string text;
        int minor;
    } rows[] = {
        {"none", ROOT_LINE, -1},
        {"empty", "", -1},
        {"card", ROOT_LINE + std::string(CARD_LINE), 1},
        {"elsewhere", ROOT_LINE + std::string(CARD_ELSEWHERE), 1},
        {"the first of two", std::string(GONE_LINE) + CARD_LINE, 33},
        {"no line break", "21 15 179:7 / /x rw", 7},
        {"major by the whole number", "21 15 1179:7 / /x rw\n21 15 17:9 / /x rw\n", -1},
        {"other columns", "179 179 8:179 / /179:1 rw - x 179:1 rw\n", -1},
        {"broken lines", "\n\nx\n21 15\n21 15 179\n21 15 179:\n21 15 :4 / /x\n21 15 179:5 / /x\n", 5},
        {"a line does not go on in the next", "21 15\n179:5 / /x\n", -1},
        {"large minor", "21 15 179:1048575 / /x rw\n", 1048575},
    };
    for (const auto& row : rows) {
        write_mountinfo(row.text);
        EXPECT_EQ(mountinfo_find_mmc(), row.minor) << row.what;
        EXPECT_EQ(mountinfo_find_mmc(), row.minor) << row.what << ", read again from the start";
    }
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(mountpoint, unreadable_table_shows_no_card) {
    PROMISE("the table cannot be read", "no card is mounted, nothing is logged");
    close(m->mountinfo_fd);
    m->mountinfo_fd = open(kernel::host("/mnt").c_str(), O_RDONLY | O_CLOEXEC);  // read: EISDIR
    EXPECT_EQ(mountinfo_find_mmc(), -1);
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(mountpoint, oversized_table_is_cut_with_a_warning) {
    PROMISE(
        "the table fills 4096 bytes",
        "\"mountinfo is too large, mountpoint changes may lost.\", and 4095 bytes count: a card behind them is missed");
    PROMISE("the table has 4095 bytes", "it is read whole, without a warning");
    constexpr char WARNING[] = "warning sdcard: mountpoint: mountinfo is too large, mountpoint changes may lost.";
    const std::string card = "21 15 179:4";  // its last digit is the last byte that counts
    const struct {
        size_t filler;
        size_t total;
        int minor;
        int warnings;
    } rows[] = {
        {4095 - card.size(), 4095, 4, 0},   // fits exactly
        {4095 - card.size(), 4096, 4, 1},   // byte 4096 is dropped: a digit that would make the minor another
        {4096 - card.size(), 4096, -1, 1},  // cut in front of the minor
        {100, 4096, 4, 1},
        {100, 9000, 4, 1},
        {5000, 9000, -1, 1},
    };
    for (const auto& row : rows) {
        logged::reset();
        std::string text(row.filler - 1, 'x');
        text += "\n" + card;
        if (row.filler == 100) {
            text += " / /x rw\n";
        }
        text.resize(row.total, '7');
        write_mountinfo(text);
        EXPECT_EQ(mountinfo_find_mmc(), row.minor) << row.filler << " " << row.total;
        EXPECT_EQ(logged::count(WARNING), row.warnings) << row.filler << " " << row.total;
    }
}

// --- the reconciliation --------------------------------------------------------------------------------------------

TEST_F(mountpoint, inserted_card_is_mounted_and_its_folder_opened) {
    PROMISE("a writable card is not mounted",
            "it is mounted by itself, its recordings opened, and the status reported");
    write_mountinfo(ROOT_LINE);
    mountinfo_refresh_state();
    EXPECT_EQ(mounts(), list{"/dev/mmcblk0p1 /mnt/sdcard vfat"});
    EXPECT_EQ(told, (list{"record_dir_open", "merge_state while 0", REPORTED_OK}));
    EXPECT_EQ(m->mounted, MOUNT_OK);
    EXPECT_EQ(logged::count(MOUNT_ERROR), 0);
}

TEST_F(mountpoint, mounted_card_opens_the_folder_at_every_refresh) {
    PROMISE("the card stays mounted and writable", "each refresh opens the recordings, and reports nothing");
    write_mountinfo(CARD_LINE);
    mountinfo_refresh_state();
    EXPECT_EQ(told, (list{"record_dir_open", "merge_state while 0", REPORTED_OK}));
    told.clear();
    mountinfo_refresh_state();
    EXPECT_EQ(told, (list{"record_dir_open", "merge_state while 1"}));
    EXPECT_TRUE(mounts().empty());
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(mountpoint, card_mounted_by_hand_elsewhere_counts) {
    PROMISE("the card is mounted by hand elsewhere",
            "it counts as mounted, its recordings are opened, it is left where it is");
    write_mountinfo(ROOT_LINE + std::string(CARD_ELSEWHERE));
    mountinfo_refresh_state();
    EXPECT_EQ(m->mounted, MOUNT_OK);
    EXPECT_EQ(told_count("record_dir_open"), 1);
    EXPECT_TRUE(mounts().empty());
    EXPECT_EQ(kernel::count("umount"), 0);
}

TEST_F(mountpoint, card_unmounted_by_hand_is_mounted_again) {
    PROMISE("the card was unmounted behind our back",
            "the same refresh mounts it again, and the status did not change meanwhile");
    m->mounted = MOUNT_OK;
    mountinfo_refresh_state();
    EXPECT_EQ(mounts(), list{"/dev/mmcblk0p1 /mnt/sdcard vfat"});
    EXPECT_EQ(told, (list{"record_dir_open", "merge_state while 1"}));
    EXPECT_EQ(m->mounted, MOUNT_OK);
}

TEST_F(mountpoint, folder_is_not_opened_where_it_cannot_be_written) {
    PROMISE("the mount point cannot be written",
            "the recordings are not opened, though the card counts as mounted; a later refresh opens them");
    write_mountinfo(CARD_LINE);
    kernel::fail("access", EROFS);
    mountinfo_refresh_state();
    EXPECT_EQ(told_count("record_dir_open"), 0);
    EXPECT_EQ(m->mounted, MOUNT_OK);
    EXPECT_EQ(kernel::count("access /mnt/sdcard"), 1);
    mountinfo_refresh_state();
    EXPECT_EQ(told_count("record_dir_open"), 1);
}

// As above, with the kernel judging: W_OK it must be, not mere existence.
TEST_F(mountpoint, folder_is_not_opened_in_a_read_only_directory) {
    PROMISE("the mount point cannot be written",
            "the recordings are not opened, though the card counts as mounted; a later refresh opens them");
    write_mountinfo(CARD_LINE);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        namespace fs = std::filesystem;
        for (fs::path dir = kernel::host(MOUNTPOINT_PATH); dir != "/tmp"; dir = dir.parent_path()) {
            fs::permissions(dir, fs::perms::all & ~fs::perms::others_write);
        }
        fs::permissions(kernel::host(MOUNTPOINT_PATH), fs::perms::owner_read | fs::perms::owner_exec |
                                                           fs::perms::others_read | fs::perms::others_exec);
        if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {
            _exit(3);
        }
        mountinfo_refresh_state();
        _exit(told_count("record_dir_open") == 0 && m->mounted == MOUNT_OK ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(mountpoint, failed_mount_is_tried_again_every_time_and_reported_once) {
    PROMISE("automatic mounting fails",
            "it is tried again at each refresh, told at debug level only, and reported once until it succeeds");
    only("nothing", "");
    mountinfo_refresh_state();
    EXPECT_EQ(told, (list{"merge_state while 0", REPORTED_FAILED}));
    EXPECT_EQ(m->mounted, MOUNT_FAILED);
    mountinfo_refresh_state();
    EXPECT_EQ(told_count(REPORTED_FAILED), 1);
    EXPECT_EQ(told_count("record_dir_open"), 0);
    EXPECT_EQ(mounts().size(), 12U);
    for (const auto& line : logged::lines()) {
        EXPECT_EQ(line.compare(0, 6, "debug "), 0) << line;
    }
    only("/dev/mmcblk0p2", "msdos");
    mountinfo_refresh_state();
    EXPECT_EQ(told_count(REPORTED_OK), 1);
    EXPECT_EQ(m->mounted, MOUNT_OK);
}

TEST_F(mountpoint, card_that_is_not_writable_is_not_mounted) {
    PROMISE("the card is not writable", "it is never mounted by itself, and that is no failure");
    for (mmc_state state : {MMC_STATE_NONE, MMC_STATE_RDONLY, MMC_STATE_EJECTED}) {
        block_devices.state = state;
        mountinfo_refresh_state();
        EXPECT_EQ(m->mounted, MOUNT_NONE) << state;
    }
    EXPECT_TRUE(mounts().empty());
    EXPECT_EQ(told_count("record_dir_open"), 0);
    EXPECT_EQ(told_count(REPORTED_FAILED), 0);
}

TEST_F(mountpoint, held_off_card_is_neither_mounted_nor_opened) {
    PROMISE("automatic mounting is held off",
            "a writable card stays unmounted through any number of refreshes; what others mount is seen, but its "
            "recordings are not opened");
    m->mask = 1;
    write_mountinfo(CARD_LINE);
    mountinfo_refresh_state();
    EXPECT_EQ(told, (list{"merge_state while 0", REPORTED_OK})) << "but still seen";
    write_mountinfo(ROOT_LINE);
    for (int i = 0; i < 5; ++i) {
        mountinfo_refresh_state();
    }
    EXPECT_TRUE(mounts().empty());
    EXPECT_EQ(told_count("record_dir_open"), 0);
    EXPECT_EQ(told_count(REPORTED_NONE), 1);
}

TEST_F(mountpoint, pulled_card_is_detached) {
    PROMISE("the mounted device is not one of the present card",
            "\"The mounted block device is not found. Detaching the mountpoint.\", recordings closed as those of a "
            "card that is gone, then a lazy detach, then the report");
    m->mounted = MOUNT_OK;
    block_devices = mmc_manager{};
    write_mountinfo(ROOT_LINE + std::string(CARD_LINE));
    int flags = -1;
    kernel::on().umount = [&](const char*, int f) {
        flags = f;
        write_mountinfo(ROOT_LINE);
        return 0;
    };
    mountinfo_refresh_state();
    EXPECT_EQ(logged::lines(), list{DETACHING});
    EXPECT_EQ(told, (list{"record_dir_close 1 after 0 umounts", "merge_state while 1", REPORTED_NONE}));
    EXPECT_EQ(kernel::count("umount2 /mnt/sdcard "), 1);
    EXPECT_EQ(flags, MNT_DETACH);
    EXPECT_EQ(m->mounted, MOUNT_NONE);
}

TEST_F(mountpoint, swapped_card_is_mounted_in_the_same_refresh) {
    PROMISE("another card is in when the old one is detached", "it is mounted in the same refresh");
    m->mounted = MOUNT_OK;
    write_mountinfo(GONE_LINE);
    kernel::on().umount = [&](const char*, int) {
        write_mountinfo(ROOT_LINE);
        return 0;
    };
    mountinfo_refresh_state();
    EXPECT_EQ(told, (list{"record_dir_close 1 after 0 umounts", "record_dir_open", "merge_state while 1"}));
    EXPECT_EQ(mounts(), list{"/dev/mmcblk0p1 /mnt/sdcard vfat"});
    EXPECT_EQ(m->mounted, MOUNT_OK);
}

TEST_F(mountpoint, mounts_that_are_gone_are_detached_one_by_one) {
    PROMISE("several mounts of gone devices are stacked",
            "they are detached one by one, until the first card mount is a known one or there is none");
    write_mountinfo(std::string(GONE_LINE) + GONE_LINE + CARD_ELSEWHERE);
    int left = 2;
    kernel::on().umount = [&](const char*, int) {
        write_mountinfo((--left > 0 ? GONE_LINE : "") + std::string(CARD_ELSEWHERE));
        return 0;
    };
    mountinfo_refresh_state();
    EXPECT_EQ(logged::count(DETACHING), 2);
    EXPECT_EQ(told_count("record_dir_close 1 after 1 umounts"), 1);
    EXPECT_EQ(m->mounted, MOUNT_OK);
    EXPECT_TRUE(mounts().empty());
}

// What lies at our place is a card that has gone, and the kernel does not let go of it.
TEST_F(mountpoint, detach_that_fails_ends_the_search) {
    PROMISE("the detach of a gone device fails",
            "the search ends with nothing mounted; the next refresh may still mount the present card");
    m->mounted = MOUNT_OK;
    m->mask = 1;
    write_mountinfo(GONE_LINE);
    kernel::fail("umount2", EINVAL, 1, kernel::FOREVER);
    mountinfo_refresh_state();
    EXPECT_EQ(logged::count(DETACHING), 1);
    EXPECT_EQ(kernel::count("umount2"), 1);
    EXPECT_EQ(m->mounted, MOUNT_NONE);
    m->mask = 0;
    mountinfo_refresh_state();
    EXPECT_EQ(mounts().size(), 1U) << "the card that is known is mounted all the same";
}

// Somebody has mounted a card somewhere else; it has gone, and another one is in: whoever looks first at the first line
// must not take the present card down for it.
TEST_F(mountpoint, gone_card_mounted_elsewhere_leaves_the_present_one_alone) {
    PROMISE(
        "a device that is gone is still mounted elsewhere, and the present card at its place",
        "the present card stays mounted and its recordings open; one warning for that minor, and nothing is detached");
    write_mountinfo(std::string(GONE_ELSEWHERE) + CARD_LINE);
    for (int i = 0; i < 5; ++i) {
        mountinfo_refresh_state();
        EXPECT_EQ(m->mounted, MOUNT_OK);
    }
    EXPECT_EQ(kernel::count("umount"), 0);
    EXPECT_TRUE(mounts().empty());
    EXPECT_EQ(logged::lines(), list{DETACHING}) << "once";
    EXPECT_EQ(told_count("record_dir_open"), 5);
    EXPECT_EQ(told_count("record_dir_close 1 after 0 umounts"), 0);
}

// The same from the beginning, on a kernel that keeps its own table: one mount is all there is to see.
TEST_F(mountpoint, card_that_comes_in_beside_a_gone_one_is_mounted_once) {
    PROMISE("a card comes in while one that is gone is still mounted elsewhere",
            "it is mounted once and not taken down again");
    std::string table = std::string(ROOT_LINE) + GONE_ELSEWHERE;
    write_mountinfo(table);
    kernel::on().mount = [&table](const char*, const char*, const char*, unsigned long, const char*) {
        table += CARD_LINE;
        write_mountinfo(table);
        return 0;
    };
    kernel::on().umount = [&table](const char*, int) {
        const size_t at = table.rfind(CARD_LINE);
        if (at == std::string::npos) {
            errno = EINVAL;
            return -1;
        }
        table.resize(at);
        write_mountinfo(table);
        return 0;
    };
    for (int i = 0; i < 20; ++i) {
        mountinfo_refresh_state();
    }
    EXPECT_EQ(mounts(), list{"/dev/mmcblk0p1 /mnt/sdcard vfat"});
    EXPECT_EQ(kernel::count("umount"), 0);
    EXPECT_EQ(m->mounted, MOUNT_OK);
    EXPECT_EQ(logged::count(DETACHING), 1);
}

TEST_F(mountpoint, gone_card_mounted_elsewhere_over_an_empty_slot_is_warned_of_once) {
    PROMISE("the slot is empty and a gone device is mounted elsewhere",
            "nothing counts as mounted, one warning, and the recordings are not closed for it");
    block_devices = mmc_manager{};
    m->mounted = MOUNT_OK;
    write_mountinfo(std::string(ROOT_LINE) + GONE_ELSEWHERE);
    for (int i = 0; i < 5; ++i) {
        mountinfo_refresh_state();
        EXPECT_EQ(m->mounted, MOUNT_NONE);
    }
    EXPECT_EQ(logged::lines(), list{DETACHING});
    EXPECT_EQ(kernel::count("umount"), 0);
    EXPECT_EQ(told_count("record_dir_close 1 after 0 umounts"), 0) << "nothing of ours was detached";
}

TEST_F(mountpoint, each_gone_card_is_warned_of_once) {
    PROMISE("many gone devices are mounted elsewhere",
            "one warning for each minor, for 16 at most; a minor that a card has had since is warned of again");
    block_devices = mmc_manager{};
    const auto line = [](int minor) { return "20 15 179:" + std::to_string(minor) + " / /media rw\n"; };
    std::string table;
    for (int minor = 33; minor < 33 + 20; ++minor) {
        table += line(minor);
        write_mountinfo(table);
        mountinfo_refresh_state();
        mountinfo_refresh_state();
    }
    EXPECT_EQ(logged::count(DETACHING), 16) << "beyond that many the log stays quiet";
    // A card that is known by one of these minors, and goes: that is news again.
    logged::reset();
    set_block(&block_devices.disk, "mmcblk4", 40);
    mountinfo_refresh_state();
    EXPECT_EQ(m->mounted, MOUNT_OK);
    block_devices = mmc_manager{};
    mountinfo_refresh_state();
    mountinfo_refresh_state();
    EXPECT_EQ(logged::count(DETACHING), 1);
    EXPECT_EQ(m->mounted, MOUNT_NONE);
}

// Mounted at our place and elsewhere, by the same minor: detached here, passed over there, and one warning for both.
TEST_F(mountpoint, gone_card_mounted_here_and_elsewhere) {
    PROMISE("a gone device is mounted at our place and elsewhere",
            "it is detached here and left there, with one warning for both");
    block_devices = mmc_manager{};
    m->mounted = MOUNT_OK;
    write_mountinfo(std::string(ROOT_LINE) + GONE_LINE + GONE_ELSEWHERE);
    kernel::on().umount = [](const char*, int) {
        write_mountinfo(std::string(ROOT_LINE) + GONE_ELSEWHERE);
        return 0;
    };
    mountinfo_refresh_state();
    mountinfo_refresh_state();
    EXPECT_EQ(kernel::count("umount2 /mnt/sdcard "), 1);
    EXPECT_EQ(logged::lines(), list{DETACHING});
    EXPECT_EQ(m->mounted, MOUNT_NONE);
}

TEST_F(mountpoint, mount_point_that_cannot_be_looked_at_is_not_detached) {
    PROMISE("the mount point's device cannot be asked for", "nothing is detached");
    kernel::fail("stat", EIO, 1, kernel::FOREVER);
    write_mountinfo(std::string(GONE_LINE) + CARD_LINE);
    mountinfo_refresh_state();
    EXPECT_EQ(kernel::count("umount"), 0);
    EXPECT_EQ(m->mounted, MOUNT_OK);
}

TEST_F(mountpoint, detaching_without_progress_ends) {
    PROMISE("detaches succeed and the line stays", "the search gives up after 16");
    PROMISE("automatic mounting is held off", "a mount of a gone device is detached all the same");
    m->mounted = MOUNT_OK;
    m->mask = 1;
    write_mountinfo(GONE_LINE);
    mountinfo_refresh_state();  // every detach "succeeds", the line stays
    EXPECT_EQ(kernel::count("umount2"), 16);
    EXPECT_EQ(m->mounted, MOUNT_NONE);
}

TEST_F(mountpoint, both_watchers_look_at_the_mount) {
    PROMISE("the kernel tells a change of the table, or the timer fires", "the same look at everything");
    block_devices.state = MMC_STATE_NONE;
    struct ev_loop* loop = ev_default_loop(0);
    ev_invoke(loop, &m->mountinfo_watcher, EV_WRITE);
    EXPECT_EQ(told, list{"merge_state while 0"});
    ev_invoke(loop, &m->refresh_timer, EV_TIMER);
    EXPECT_EQ(told, (list{"merge_state while 0", "merge_state while 0"}));
}

}  // namespace
