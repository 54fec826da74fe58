// The mount of the card. Two things change it: this module on request, and anybody else behind our back. So the
// kernel's mount table is the truth, and mountinfo_refresh_state brings the record, the mount and the recordings folder
// in line with it: when the table changes, every two seconds, and at start.
#include "mountpoint.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "mmc.h"
#include "records.h"
#include "sdcard.h"
#include "vesk_util.h"

namespace {

constexpr char MOUNT_DATA[] = "umask=0022";
constexpr unsigned long MOUNT_FLAGS = MS_NOSUID | MS_NODEV | MS_DIRSYNC | MS_NOATIME | MS_NODIRATIME | MS_SILENT;

// Filesystems of the camera's own flash, never of a card.
constexpr const char* SKIPPED_FILESYSTEMS[] = {"squashfs", "jffs2"};

constexpr ev_tstamp REFRESH_SECONDS = 2.0;
constexpr int REFRESH_PRIORITY = -2;  // last of all: it sees what this round's uevents made of the table

constexpr size_t MOUNTINFO_MAX = 4096;  // bytes of the mount table that are looked at

// A detach that succeeds takes one mount away, so that the kernel ends the loop long before. This bound is for a
// process that mounts as fast as we detach: the next refresh goes on.
constexpr int MAX_DETACHES = 16;

// Mounts of unknown devices that are left alone get one warning for each minor, for so many minors; beyond them, none.
constexpr int MAX_WARNED = 16;

constinit mountpoint_manager manager = {
    .mountinfo_fd = -1,
    .mounted = MOUNT_NONE,
    .mask = 0,
    .mountinfo_watcher = {},
    .refresh_timer = {},
    .filesystems = {},
};

struct minors {
    uint32_t minor[MAX_WARNED];
    int count;
};
constinit minors warned = {};

// --- log lines of this module ------------------------------------------------------------------------------------

#define MOUNT_LOG(level)                                                                \
    __attribute__((format(printf, 1, 2))) void mount_##level(const char* format, ...) { \
        va_list args;                                                                   \
        va_start(args, format);                                                         \
        log_vp##level("sdcard: mountpoint: ", format, args);                            \
        va_end(args);                                                                   \
    }
MOUNT_LOG(crit)
MOUNT_LOG(err)
MOUNT_LOG(warning)
MOUNT_LOG(info)
MOUNT_LOG(debug)
#undef MOUNT_LOG

// --- filesystems -------------------------------------------------------------------------------------------------

bool is_skipped(const char* name) {
    for (const char* skipped : SKIPPED_FILESYSTEMS) {
        if (strcmp(name, skipped) == 0) {
            return true;
        }
    }
    return false;
}

// A device image without a disk filesystem, or with more than fit, is not one that this daemon can work on.
void mountpoint_load_fs() {
    FILE* file = fopen("/proc/filesystems", "re");
    if (file == nullptr) {
        perror("/proc/filesystems");
        _exit(1);
    }
    memset(manager.filesystems, 0, sizeof manager.filesystems);
    int count = 0;
    char* line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, file) > 0) {
        char name[sizeof manager.filesystems[0]];
        // "nodev\tproc" is a virtual filesystem, "\tvfat" one that lives on a disk.
        if (line[0] == 'n' || sscanf(line, "%15s", name) != 1 || is_skipped(name)) {
            continue;
        }
        if (count == MOUNTPOINT_MAX_FILESYSTEMS) {
            mount_crit("Too many filesystems.");
            abort();
        }
        memcpy(manager.filesystems[count], name, sizeof name);
        ++count;
    }
    free(line);
    (void)fclose(file);  // only read from
    if (count == 0) {
        mount_crit("No filesystem detected.");
        abort();
    }
}

int filesystem_count() {
    int count = 0;
    while (count < MOUNTPOINT_MAX_FILESYSTEMS && manager.filesystems[count][0] != '\0') {
        ++count;
    }
    return count;
}

int mountpoint_mount_dev(const char* path) {
    for (int i = 0; i < filesystem_count(); ++i) {
        const char* name = manager.filesystems[i];
        const int result = mount(path, MOUNTPOINT_PATH, name, MOUNT_FLAGS, MOUNT_DATA);
        mount_debug("mount %s to %s with %s: %s", path, MOUNTPOINT_PATH, name,
                    result == 0 ? "Success" : strerror(errno));
        if (result == 0) {
            return 0;
        }
    }
    return -1;
}

void on_mountinfo_change(struct ev_loop*, ev_io*, int) {
    mountinfo_refresh_state();
}

void on_refresh_timer(struct ev_loop*, ev_timer*, int) {
    mountinfo_refresh_state();
}

// The mount table's text, terminated, and whether it had to be cut. False: it cannot be read.
bool read_mountinfo(char (&table)[MOUNTINFO_MAX], bool* is_cut) {
    // One positional read: from offset 0 the open descriptor always gives the table as it is now.
    ssize_t length = pread(manager.mountinfo_fd, table, sizeof table, 0);
    if (length < 0) {
        return false;
    }
    *is_cut = length == sizeof table;
    if (*is_cut) {
        length = sizeof table - 1;
    }
    table[length] = '\0';
    return true;
}

// The minor of the next mounted device of the card, -1: there is none. *line moves behind it; null at the end.
int next_card_minor(char** line) {
    while (*line != nullptr) {
        char* const text = *line;
        char* const end = strchr(text, '\n');
        if (end != nullptr) {
            *end = '\0';
        }
        *line = end != nullptr ? end + 1 : nullptr;
        // Where it is mounted is not compared: a card mounted by hand somewhere else counts as well.
        unsigned major = 0;
        unsigned minor = 0;
        if (sscanf(text, "%*d%*d%u:%u%*s%*s", &major, &minor) == 2 && major == MMC_BLOCK_MAJOR) {
            return static_cast<int>(minor);
        }
    }
    return -1;
}

bool is_known(uint32_t minor) {
    return mmc_get_block(minor) != nullptr;
}

// Is what is mounted at our place a card that has gone? Anything else there is not ours to detach: nothing, or the card
// that is in, mounted there while a card that has gone is still mounted somewhere else.
bool is_gone_card_at_mount_point() {
    struct stat status;
    return stat(MOUNTPOINT_PATH, &status) == 0 && major(status.st_dev) == MMC_BLOCK_MAJOR &&
           !is_known(minor(status.st_dev));
}

// False: there was a warning for this minor already, or there have been too many.
bool remember_warning(uint32_t minor) {
    for (int i = 0; i < warned.count; ++i) {
        if (warned.minor[i] == minor) {
            return false;
        }
    }
    if (warned.count == MAX_WARNED) {
        return false;
    }
    warned.minor[warned.count++] = minor;
    return true;
}

// A minor that the table knows has a new card: should that one go while it is mounted, there is a warning again.
void forget_warnings_of_known_devices() {
    int kept = 0;
    for (int i = 0; i < warned.count; ++i) {
        if (!is_known(warned.minor[i])) {
            warned.minor[kept++] = warned.minor[i];
        }
    }
    warned.count = kept;
}

void warn_of_unknown_device() {
    mount_warning("The mounted block device is not found. Detaching the mountpoint.");
}

// The first card mount of the table has gone and is not at our place: what do the lines behind it say? It is somebody
// else's mount, which we can neither take away nor wait for. Detaching "/mnt/sdcard" would take down our own good mount
// there; the next look would mount it again, and so on without end, because each of the two changes the table.
mount_status pass_over_unknown_devices() {
    char table[MOUNTINFO_MAX];
    bool is_cut;
    char* line = table;
    if (!read_mountinfo(table, &is_cut)) {
        return MOUNT_NONE;
    }
    for (int minor = next_card_minor(&line); minor != -1; minor = next_card_minor(&line)) {
        if (is_known(static_cast<uint32_t>(minor))) {
            return MOUNT_OK;
        }
        if (remember_warning(static_cast<uint32_t>(minor))) {
            warn_of_unknown_device();
        }
    }
    return MOUNT_NONE;
}

// Is a device of the card mounted? Takes away mounts of devices that are gone before it answers.
mount_status find_mount() {
    forget_warnings_of_known_devices();
    for (int detached = 0; detached < MAX_DETACHES; ++detached) {
        const int minor = mountinfo_find_mmc();
        if (minor == -1) {
            return MOUNT_NONE;
        }
        if (is_known(static_cast<uint32_t>(minor))) {
            return MOUNT_OK;
        }
        if (!is_gone_card_at_mount_point()) {
            return pass_over_unknown_devices();
        }
        warn_of_unknown_device();
        (void)remember_warning(static_cast<uint32_t>(minor));  // one is enough, should it be mounted elsewhere as well
        record_dir_close(1);
        if (umount2(MOUNTPOINT_PATH, MNT_DETACH) != 0) {
            return MOUNT_NONE;  // mounted on a folder above, perhaps: the table would show it again for ever
        }
    }
    return MOUNT_NONE;
}

}  // namespace

mountpoint_manager* mountpoint_get_manager() {
    return &manager;
}

int mountpoint_init() {
    mountpoint_load_fs();
    dump_supported_fs();
    manager.mountinfo_fd = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (manager.mountinfo_fd < 0) {
        perror("open");
        return -1;
    }
    // EV_WRITE, because the kernel tells a change as POLLERR | POLLPRI, while the table is always readable: EV_READ
    // spins (measured: 60,000 calls in 50 ms). libev's epoll, poll and select backends all take the error condition for
    // writability and deliver it once for the changes since the last look (tests/unit/mountinfo_watch_test.cpp). With
    // epoll, a change before the loop's first round goes untold; the timer makes up for that.
    ev_io_init(&manager.mountinfo_watcher, on_mountinfo_change, manager.mountinfo_fd, EV_WRITE);
    ev_io_start(ev_default_loop(0), &manager.mountinfo_watcher);
    // Not started here: the first look at the block devices does.
    ev_timer_init(&manager.refresh_timer, on_refresh_timer, REFRESH_SECONDS, REFRESH_SECONDS);
    ev_set_priority(&manager.refresh_timer, REFRESH_PRIORITY);
    return 0;
}

void mountpoint_exit() {
    ev_io_stop(ev_default_loop(0), &manager.mountinfo_watcher);
    ev_timer_stop(ev_default_loop(0), &manager.refresh_timer);
    if (manager.mountinfo_fd >= 0) {
        close(manager.mountinfo_fd);
        manager.mountinfo_fd = -1;
    }
}

int mountpoint_mount() {
    manager.mask = 0;
    if (manager.mounted == MOUNT_OK) {
        return 0;
    }
    if (mountpoint_try_mount() != 0) {
        mount_err("Fail to mount the mmc device. mkfs or recreate partition table is required.");
        return -1;
    }
    mountpoint_set_mounted(MOUNT_OK);
    ev_timer_again(ev_default_loop(0), &manager.refresh_timer);
    return 0;
}

int mountpoint_umount() {
    manager.mask = 1;
    if (manager.mounted != MOUNT_OK) {
        return 0;
    }
    record_dir_close(0);
    if (umount(MOUNTPOINT_PATH) != 0) {
        return -1;  // nothing is logged here: the caller reads errno, tries again and names who is in the way
    }
    mount_info("Umount successful");
    mountpoint_set_mounted(MOUNT_NONE);
    return 0;
}

void mountpoint_clear_mask() {
    manager.mask = 0;
}

int mountpoint_statfs(struct statfs* buffer) {
    if (manager.mounted != MOUNT_OK) {
        return -1;
    }
    return statfs(MOUNTPOINT_PATH, buffer);
}

void mountpoint_refresh_delay() {
    if (manager.mounted == MOUNT_FAILED) {
        manager.mounted = MOUNT_NONE;  // not reported: the attempt that follows has its say
    }
    // Counted from the time at which the loop's round began, so that the second slept on a new disk is part of the two.
    ev_timer_again(ev_default_loop(0), &manager.refresh_timer);
}

void dump_supported_fs() {
    char text[4096] = "Supported filesystems:";
    size_t length = strlen(text);
    for (int i = 0; i < filesystem_count(); ++i) {
        length += static_cast<size_t>(snprintf(text + length, sizeof text - length, " %s", manager.filesystems[i]));
    }
    mount_info("%s", text);
}

int mountpoint_try_mount() {
    if (mmc_get_state() != MMC_STATE_RDWR) {
        errno = EINVAL;
        return -1;
    }
    const mmc_manager* mmc = mmc_get_manager();
    for (int32_t i = 0; i < mmc->partition_count; ++i) {
        if (mountpoint_mount_dev(mmc->partitions[i].path) == 0) {
            return 0;
        }
    }
    return mountpoint_mount_dev(mmc->disk.path);  // a card without a partition table
}

void mountpoint_set_mounted(mount_status value) {
    // Derived before the new value is stored: what is compared with the published state is what the old value amounts
    // to. A changed value is reported in any case.
    const sdcard_state merged = merge_state();
    if (manager.mounted == value && merged == sd.state) {
        return;
    }
    manager.mounted = value;
    sdcard_refresh("Mountinfo changed.");
}

int mountinfo_find_mmc() {
    char table[MOUNTINFO_MAX];
    bool is_cut;
    if (!read_mountinfo(table, &is_cut)) {
        return -1;
    }
    // A kernel with pages of 4 KiB hands out whole lines and never fills the last byte, so that there a longer table is
    // cut without the warning. A card whose line is cut off shows as not mounted; mounting it then fails with EBUSY,
    // and the card's state is broken.
    if (is_cut) {
        mount_warning("mountinfo is too large, mountpoint changes may lost.");
    }
    char* line = table;
    return next_card_minor(&line);
}

void mountinfo_refresh_state() {
    mount_status found = find_mount();
    if (manager.mask == 0) {
        if (mmc_get_state() == MMC_STATE_RDWR && found == MOUNT_NONE) {
            found = mountpoint_try_mount() == 0 ? MOUNT_OK : MOUNT_FAILED;
        }
        // With the card mounted by hand elsewhere this opens the folder below an empty MOUNTPOINT_PATH, on the
        // camera's own flash. The recorder writes there too, and counts on the folder; and people who mount the card by
        // hand have the camera at hand.
        if (found == MOUNT_OK && access(MOUNTPOINT_PATH, W_OK) == 0) {
            record_dir_open();  // at every refresh; free while the folder is open
        }
    }
    mountpoint_set_mounted(found);
}
