// The block device monitor: the kernel's uevents of the card slot and the table of the card's disk and partitions.
// Loop thread only.
#pragma once

#include <ev.h>
#include <stdint.h>

constexpr unsigned MMC_BLOCK_MAJOR = 179;  // every block device of this major is taken for the card
constexpr uint32_t MMC_MINOR_NONE = UINT32_MAX;
constexpr int MMC_MAX_PARTITIONS = 7;

enum mmc_state : uint32_t {
    MMC_STATE_NONE = 0,     // no disk known, or it could not be opened
    MMC_STATE_RDWR = 1,     // disk open and writable
    MMC_STATE_RDONLY = 2,   // disk open, the kernel's read-only flag is set or unknown
    MMC_STATE_EJECTED = 3,  // taken out of service on request
};

// What DEVTYPE says.
enum mmc_block_type { MMC_BLOCK_NONE = 0, MMC_BLOCK_DISK = 1, MMC_BLOCK_PARTITION = 2 };

// One block device.
struct mmc_block {
    uint32_t minor = MMC_MINOR_NONE;  // MMC_MINOR_NONE when the slot is empty
    char path[38] = "";               // "/dev/mmcblk0p1", cut to fit; "" when the slot is empty
    const char* name = nullptr;       // into path, behind "/dev/"; null when the slot is empty
};

// The kernel's counters of the disk's statistics file, each cut to 32 bits, in the order in which they are kept.
struct mmc_stat {
    uint32_t read_sectors;  // of 512 bytes
    uint32_t write_sectors;
    uint32_t read_ios;
    uint32_t write_ios;
    uint32_t read_merges;
    uint32_t write_merges;
    uint32_t read_ticks;  // ms
    uint32_t write_ticks;
    uint32_t io_ticks;  // ms during which the device was busy
    uint32_t time_in_queue;
    uint32_t in_flight;
};

// The table. There is one, owned by this module; other modules read it.
struct mmc_manager {
    int32_t uevent_fd = -1;  // -1 when closed
    ev_io uevent_watcher{};
    mmc_state state = MMC_STATE_NONE;  // recomputed after every accepted batch of uevents and every rescan
    int32_t disk_fd = -1;              // the whole disk, opened read-write; -1 when closed
    mmc_stat stat{};                   // the last sample
    uint32_t stat_time_ms = 0;         // when it was taken, by the monotonic clock, wrapping; 0: no sample
    mmc_block disk;
    mmc_block partitions[MMC_MAX_PARTITIONS];  // dense, in the order they were added; [count..] may be stale
    int32_t partition_count = 0;               // 0 to MMC_MAX_PARTITIONS
};

mmc_manager* mmc_get_manager();
mmc_state mmc_get_state();

// The disk if it has this minor, else the first partition that has it, else null.
mmc_block* mmc_get_block(uint32_t minor);

// Which insertion of a card the disk in the table comes from: another number after each "add" of a disk that is not in
// the table yet, and after each "remove". The same card put in again is another insertion; what happens to partitions
// is none, nor is a "change", a repeated "add", or a rescan that finds the same disk.
uint32_t mmc_get_insertion();

// Is this path in the table, and is the device node there the device that the table has under it? While our descriptor
// of the old disk is open, the kernel gives a new card other minors: a swap whose events nobody has read yet shows
// here.
bool mmc_is_node_known(const char* path);

// Opens the uevent socket and starts its watcher. Does not look for devices that are there already: mmc_rescan does.
// 0, or -1 after an error line. From then on a socket that cannot be read ends the process.
int mmc_dev_init();
void mmc_dev_exit();

// Rebuilds the table from "/proc/partitions". 0; -1 when that cannot be read (the table is left empty and the state as
// it was) or when the disk found cannot be opened.
int mmc_rescan();

// Makes the kernel refuse every write to the disk and its partitions until it is removed. 0: done, now or before.
// -1/ENODEV: no card.
int mmc_eject();

// Asks the kernel to read the partition table again. 0, or -1 with the kernel's errno (EBUSY while a partition is
// mounted); -1/EINVAL when the disk is not open.
int mmc_partprobe();

// Not an errno: a value that no measurement has. It is the ENODATA of the camera's kernel.
constexpr int MMC_SPEED_NO_BASELINE = -61;

// Takes one sample of the kernel's statistics of the disk. 0, or -1 with errno and the last sample kept.
int mmc_read_stat();

// Bytes per second of device busy time since the last call; 0: too little was written to judge; -1: the sample failed
// (errno); MMC_SPEED_NO_BASELINE: the first call since the start or since the disk was removed.
// written: null, or where the number of 512-byte sectors written goes (untouched without a measurement, and when one of
// the two counters stood still or wrapped).
int mmc_calc_write_speed(uint32_t* written);

// --- used inside the module and by its tests ---------------------------------------------------------------------

// Applies one datagram of `length` bytes; buffer[length] must be there and NUL. 0: it was about the card. -1: ignored.
int uevent_parse(const char* buffer, int length);

// name: as the kernel has it, without "/dev/". A new disk takes one second and empties the partitions: their own "add"
// comes after it.
void mmc_new_block(const char* name, uint32_t minor, mmc_block_type type);
void mmc_remove_block(const char* name, uint32_t minor, mmc_block_type type);
void mmc_change_block(const char* name);

// Recomputes the state from the kernel's read-only flag and asks for another look at the mount in two seconds.
void mmc_refresh_rdonly();
