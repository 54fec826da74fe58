// The mount point manager: owns the mount of the card at "/mnt/sdcard" and keeps its own idea of it true to the
// kernel's mount table. Loop thread only; mount, umount and statfs block it while the kernel works.
#pragma once

#include <ev.h>
#include <stdint.h>
#include <sys/statfs.h>

constexpr char MOUNTPOINT_PATH[] = "/mnt/sdcard";
constexpr int MOUNTPOINT_MAX_FILESYSTEMS = 8;

enum mount_status : uint32_t {
    MOUNT_NONE = 0,    // nothing mounted
    MOUNT_OK = 1,      // a device of the card is mounted
    MOUNT_FAILED = 2,  // the last automatic attempt failed
};

// There is one, owned by this module; other modules read it.
struct mountpoint_manager {
    int32_t mountinfo_fd;  // "/proc/self/mountinfo"; -1 when closed
    mount_status mounted;
    uint32_t mask;  // 1: mounting and opening the recordings folder by itself is held off
    ev_io mountinfo_watcher;
    ev_timer refresh_timer;                            // every 2 s once armed
    char filesystems[MOUNTPOINT_MAX_FILESYSTEMS][16];  // in the kernel's order; ends at the first empty slot
};

mountpoint_manager* mountpoint_get_manager();

// Loads the kernel's filesystems (ends the process when there are none) and starts watching the mount table.
// 0, or -1 when the mount table cannot be opened.
int mountpoint_init();
void mountpoint_exit();

// Releases the hold and mounts the card. 0: mounted now or already. -1: no device and filesystem fitted.
int mountpoint_mount();

// Holds automatic mounting off and takes the card off its mount point. 0: nothing is mounted any more. -1: the kernel
// refused; errno is umount's.
int mountpoint_umount();

// Releases the hold without mounting.
void mountpoint_clear_mask();

// statfs of the mount point. -1 with the buffer untouched while nothing is mounted.
int mountpoint_statfs(struct statfs* buffer);

// After a change of block devices: forgets a failed attempt and looks at the mount again in two seconds.
void mountpoint_refresh_delay();

// Logs the filesystems that mounting tries.
void dump_supported_fs();

// Brings the record, the mount and the recordings folder in line with the kernel's mount table. Detaches
// "/mnt/sdcard" only from a card that has gone. A mount of such a card anywhere else is passed over, with one warning.
void mountinfo_refresh_state();

// --- used inside the module and by its tests ---------------------------------------------------------------------

// The minor of the first device of major 179 in the mount table, known or not, wherever it is mounted; -1 when there is
// none.
int mountinfo_find_mmc();
int mountpoint_try_mount();
void mountpoint_set_mounted(mount_status value);
