// The card slot as the kernel tells it: uevents are drained in batches into the table of the disk and its partitions,
// and after a batch, or a rescan of "/proc/partitions", the state is worked out once from the disk's read-only flag.
#include "mmc.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/netlink.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include "mountpoint.h"
#include "vesk_util.h"

using std::string_view;

namespace {

constexpr size_t UEVENT_MAX =
    4096;  // bytes of a datagram that are looked at; the kernel's have 2048 at most behind the header
constexpr unsigned KERNEL_UEVENT_GROUP = 1;  // what the kernel says, not what a user-space device manager makes of it
constexpr int UEVENT_PRIORITY = 1;           // the table is up to date before anybody at the default priority reads it

constexpr char DEV_PREFIX[] = "/dev/";
constexpr size_t DEV_PREFIX_LENGTH = sizeof DEV_PREFIX - 1;
constexpr char SYS_BLOCK_PREFIX[] = "/sys/block/";
constexpr int BLOCK_NAME_MAX = 32;  // the width in PARTITIONS_LINE
constexpr char PARTITIONS_LINE[] = "%4u %7u %*u %32s";
static_assert(sizeof mmc_block::path == DEV_PREFIX_LENGTH + BLOCK_NAME_MAX + 1);

constexpr uint64_t SECTOR_BYTES = 512;      // of the kernel's counters, whatever the card's are
constexpr uint32_t SPEED_MIN_SECTORS = 40;  // less than this says nothing about a card's speed

constinit mmc_manager manager;

// Goes up with every disk that comes or goes; wraps. A job compares it with what it was when the job began.
constinit uint32_t insertion;

// --- log lines of this module ------------------------------------------------------------------------------------

#define DEVICE_LOG(level)                                                                \
    __attribute__((format(printf, 1, 2))) void device_##level(const char* format, ...) { \
        va_list args;                                                                    \
        va_start(args, format);                                                          \
        log_vp##level("device: ", format, args);                                         \
        va_end(args);                                                                    \
    }
DEVICE_LOG(crit)
DEVICE_LOG(err)
DEVICE_LOG(warning)
DEVICE_LOG(info)
#undef DEVICE_LOG

// --- the table ---------------------------------------------------------------------------------------------------

void mmc_block_set(mmc_block* block, const char* name, uint32_t minor) {
    snprintf(block->path, sizeof block->path, "%s%s", DEV_PREFIX, name);
    block->minor = minor;
    block->name = block->path + DEV_PREFIX_LENGTH;
}

void mmc_block_clear(mmc_block* block) {
    block->minor = MMC_MINOR_NONE;
    block->name = nullptr;
    block->path[0] = '\0';
}

void mmc_add_partition(const char* name, uint32_t minor) {
    if (manager.partition_count >= MMC_MAX_PARTITIONS) {
        device_warning("Too many partitions");
        return;
    }
    mmc_block_set(&manager.partitions[manager.partition_count], name, minor);
    ++manager.partition_count;
}

void mmc_remove_partition(int32_t slot) {
    mmc_block_clear(&manager.partitions[slot]);
    for (int32_t i = slot; i + 1 < manager.partition_count; ++i) {
        manager.partitions[i] = manager.partitions[i + 1];
        // The copied name points into the record that it came from, which the next round overwrites.
        manager.partitions[i].name = manager.partitions[i].path + DEV_PREFIX_LENGTH;
    }
    --manager.partition_count;
}

void remove_all_partitions() {
    while (manager.partition_count > 0) {
        mmc_remove_partition(manager.partition_count - 1);
    }
}

int open_disk() {
    manager.disk_fd = open(manager.disk.path, O_RDWR | O_CLOEXEC);
    return manager.disk_fd >= 0 ? 0 : -1;
}

void close_disk() {
    if (manager.disk_fd >= 0) {
        close(manager.disk_fd);
        manager.disk_fd = -1;
    }
}

void new_disk(const char* name, uint32_t minor) {
    if (manager.disk.name == nullptr || manager.disk.minor != minor) {
        ++insertion;  // a repeated "add" is about the same card
    }
    close_disk();
    mmc_block_set(&manager.disk, name, minor);
    // The kernel announces the disk before its device node can be opened. Holding up the whole loop is deliberate: the
    // partitions' events wait in the socket meanwhile and are applied after the disk's.
    timespec left = {.tv_sec = 1, .tv_nsec = 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
        // A signal, say of the tool of a job that the card was pulled from, makes the pause no shorter.
    }
    const int opened = open_disk();
    const int error = errno;
    printf("bdev.disk.path is %s\n", manager.disk.path);
    // Standard output may be a pipe or a file: flushed, so that the line is there when the disk is, is not lost when
    // this process aborts, and is not written a second time by a child that inherits the buffer.
    (void)fflush(stdout);  // nobody listening is no reason to stop
    if (opened != 0) {
        // The partitions stay as they were; without a descriptor the state says that there is no disk.
        device_err("open disk: %s", strerror(error));
        return;
    }
    remove_all_partitions();
}

void remove_disk() {
    ++insertion;
    close_disk();
    mmc_block_clear(&manager.disk);
    remove_all_partitions();
    manager.stat_time_ms = 0;  // the next card's counters start anew
}

// Goes by the minor, not by the name: it is what the table is looked up by.
void remove_partition_by_minor(uint32_t minor) {
    for (int32_t i = 0; i < manager.partition_count; ++i) {
        if (manager.partitions[i].minor == minor) {
            mmc_remove_partition(i);
            return;
        }
    }
}

// Whole disks have a directory directly below /sys/block, partitions have theirs below their disk's.
bool is_whole_disk(const char* name) {
    char path[sizeof SYS_BLOCK_PREFIX + BLOCK_NAME_MAX];
    static_assert(sizeof path == 44);
    snprintf(path, sizeof path, "%s%s", SYS_BLOCK_PREFIX, name);
    return access(path, F_OK) == 0;
}

// --- uevents -----------------------------------------------------------------------------------------------------

// What a datagram says about a device; the texts point into it.
struct uevent {
    const char* action = nullptr;
    int major = -1;
    int minor = -1;
    // The kernel always names the devices of this major. Should it not, this is what the log would say, and no device
    // opens by that name.
    const char* name = "(null)";
    mmc_block_type type = MMC_BLOCK_NONE;
};

// atoi, but defined for any number of digits.
int to_int(const char* text) {
    return static_cast<int>(strtol(text, nullptr, 10));
}

mmc_block_type to_block_type(const char* value) {
    if (strcmp(value, "disk") == 0) {
        return MMC_BLOCK_DISK;
    }
    if (strcmp(value, "partition") == 0) {
        return MMC_BLOCK_PARTITION;
    }
    device_warning("Unknow mmc block type: %s", value);
    return MMC_BLOCK_NONE;
}

// False: the event is about somebody else's device and the rest of the datagram is of no interest.
bool take_pair(string_view key, const char* value, uevent* event) {
    if (key == "ACTION") {
        event->action = value;
    } else if (key == "MAJOR") {
        event->major = to_int(value);
        return event->major == static_cast<int>(MMC_BLOCK_MAJOR);
    } else if (key == "MINOR") {
        event->minor = to_int(value);
    } else if (key == "DEVNAME") {
        event->name = value;
    } else if (key == "DEVTYPE") {
        event->type = to_block_type(value);
    }
    return true;
}

int dispatch(const uevent& event) {
    const uint32_t minor = static_cast<uint32_t>(event.minor);
    if (strcmp(event.action, "add") == 0) {
        mmc_new_block(event.name, minor, event.type);
    } else if (strcmp(event.action, "remove") == 0) {
        mmc_remove_block(event.name, minor, event.type);
    } else if (strcmp(event.action, "change") == 0) {
        mmc_change_block(event.name);
    } else {
        device_warning("Unexpected sdcard action: %s", event.action);
        return -1;
    }
    return 0;
}

void uevent_on_readable(struct ev_loop*, ev_io*, int) {
    char buffer[UEVENT_MAX + 1];  // one more for the NUL behind a datagram that was cut
    bool accepted = false;
    int receive_error = 0;
    for (;;) {
        const ssize_t length = recv(manager.uevent_fd, buffer, UEVENT_MAX, MSG_DONTWAIT);
        receive_error = errno;  // at once: applying and logging an event disturb errno
        if (length < 0 && receive_error == EINTR) {
            continue;
        }
        if (length < 1) {
            break;
        }
        buffer[length] = '\0';
        if (uevent_parse(buffer, static_cast<int>(length)) == 0) {
            accepted = true;
        }
    }
    // An empty datagram ends the batch as well. It sets no errno, so that whatever stood there before the receive is
    // judged in its place. The kernel sends none; only root may send here, and whoever is root may end the daemon
    // anyway. ENOMEM ends the batch like EAGAIN; what the socket dropped then is not looked for.
    if (receive_error != EAGAIN && receive_error != ENOMEM) {
        device_crit("Can not receive message on NETLINK socket: %s", strerror(receive_error));
        abort();
    }
    if (accepted) {
        mmc_refresh_rdonly();
    }
}

}  // namespace

mmc_manager* mmc_get_manager() {
    return &manager;
}

mmc_state mmc_get_state() {
    return manager.state;
}

mmc_block* mmc_get_block(uint32_t minor) {
    if (manager.disk.minor == minor) {
        return &manager.disk;
    }
    for (int32_t i = 0; i < manager.partition_count; ++i) {
        if (manager.partitions[i].minor == minor) {
            return &manager.partitions[i];
        }
    }
    return nullptr;
}

uint32_t mmc_get_insertion() {
    return insertion;
}

bool mmc_is_node_known(const char* path) {
    const mmc_block* known = strcmp(path, manager.disk.path) == 0 ? &manager.disk : nullptr;
    for (int32_t i = 0; known == nullptr && i < manager.partition_count; ++i) {
        if (strcmp(path, manager.partitions[i].path) == 0) {
            known = &manager.partitions[i];
        }
    }
    struct stat status;
    return known != nullptr && stat(path, &status) == 0 && S_ISBLK(status.st_mode) &&
           major(status.st_rdev) == MMC_BLOCK_MAJOR && minor(status.st_rdev) == known->minor;
}

int mmc_dev_init() {
    manager.disk_fd = -1;
    manager.uevent_fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (manager.uevent_fd < 0) {
        device_err("socket: AF_NETLINK: %s", strerror(errno));
        return -1;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = 0;  // the kernel assigns one
    address.nl_groups = KERNEL_UEVENT_GROUP;
    // No receive buffer of a size of our own: the kernel's default holds the events of a card many times over.
    if (bind(manager.uevent_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        device_err("bind: AF_NETLINK: %s", strerror(errno));
        close(manager.uevent_fd);
        manager.uevent_fd = -1;
        return -1;
    }
    ev_io_init(&manager.uevent_watcher, uevent_on_readable, manager.uevent_fd, EV_READ);
    ev_set_priority(&manager.uevent_watcher, UEVENT_PRIORITY);
    ev_io_start(ev_default_loop(0), &manager.uevent_watcher);
    return 0;
}

void mmc_dev_exit() {
    ev_io_stop(ev_default_loop(0), &manager.uevent_watcher);
    if (manager.uevent_fd >= 0) {
        close(manager.uevent_fd);
        manager.uevent_fd = -1;
    }
    close_disk();
}

int mmc_rescan() {
    const uint32_t last_minor = manager.disk.minor;
    close_disk();
    manager.partition_count = 0;
    mmc_block_clear(&manager.disk);

    FILE* file = fopen("/proc/partitions", "re");
    if (file == nullptr) {
        return -1;
    }
    char* line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, file) > 0) {
        unsigned major = 0;
        unsigned minor = 0;
        char name[BLOCK_NAME_MAX + 1];
        if (sscanf(line, PARTITIONS_LINE, &major, &minor, name) != 3 || major != MMC_BLOCK_MAJOR) {
            continue;  // the header, the blank line, somebody else's device
        }
        if (is_whole_disk(name)) {
            mmc_block_set(&manager.disk, name, minor);  // a later disk takes the place of an earlier one
        } else {
            mmc_add_partition(name, minor);
        }
    }
    free(line);
    (void)fclose(file);  // only read from
    if (manager.disk.minor != last_minor) {
        ++insertion;
    }

    const int result = manager.disk.name != nullptr ? open_disk() : 0;
    mmc_refresh_rdonly();
    return result;
}

int uevent_parse(const char* buffer, int length) {
    const char* const end = buffer + length;
    uevent event;
    const char* text = buffer + strnlen(buffer, static_cast<size_t>(length)) + 1;  // behind "<action>@<device path>"
    while (text < end) {
        const string_view pair(text);
        const size_t equals = pair.find('=');
        if (equals != string_view::npos && !take_pair(pair.substr(0, equals), text + equals + 1, &event)) {
            return -1;
        }
        text += pair.size() + 1;
    }
    // Without an action there is nothing to apply; the kernel always sends one.
    if (event.major < 0 || event.action == nullptr) {
        return -1;
    }
    return dispatch(event);
}

void mmc_new_block(const char* name, uint32_t minor, mmc_block_type type) {
    device_info("New block %s", name);
    switch (type) {
        case MMC_BLOCK_NONE:
            break;
        case MMC_BLOCK_DISK:
            new_disk(name, minor);
            break;
        case MMC_BLOCK_PARTITION:
            mmc_add_partition(name, minor);
            break;
    }
}

void mmc_remove_block(const char* name, uint32_t minor, mmc_block_type type) {
    device_info("Remove block %s", name);
    switch (type) {
        case MMC_BLOCK_NONE:
            break;
        case MMC_BLOCK_DISK:
            remove_disk();
            break;
        case MMC_BLOCK_PARTITION:
            remove_partition_by_minor(minor);
            break;
    }
}

void mmc_change_block(const char* name) {
    device_warning("Change block %s", name);
}

void mmc_refresh_rdonly() {
    if (manager.disk_fd < 0) {
        manager.state = MMC_STATE_NONE;
    } else {
        int readonly = 1;  // the kernel writes an int
        if (ioctl(manager.disk_fd, BLKROGET, &readonly) != 0) {
            device_warning("Fail to get the readonly status, assuming the disk is readonly.");
            readonly = 1;
        }
        // MMC_STATE_EJECTED is overwritten like any other: what ejecting did stays behind in the kernel's flag.
        manager.state = readonly != 0 ? MMC_STATE_RDONLY : MMC_STATE_RDWR;
    }
    mountpoint_refresh_delay();
}

int mmc_eject() {
    switch (manager.state) {
        case MMC_STATE_NONE:
            errno = ENODEV;
            return -1;
        case MMC_STATE_EJECTED:
            return 0;
        case MMC_STATE_RDWR:
        case MMC_STATE_RDONLY:
            break;
    }
    // Nothing is mounted by now, so the flag is a second safeguard: what it cannot be set on is not worth a failure.
    const int readonly = 1;
    for (int32_t i = 0; i < manager.partition_count; ++i) {
        const int fd = open(manager.partitions[i].path, O_RDWR | O_CLOEXEC);
        if (fd >= 0) {
            (void)ioctl(fd, BLKROSET, &readonly);
            close(fd);
        }
    }
    (void)ioctl(manager.disk_fd, BLKROSET, &readonly);
    // Until the state is worked out anew. The flags stay with the device, so that it then reads as read-only.
    manager.state = MMC_STATE_EJECTED;
    return 0;
}

int mmc_partprobe() {
    if (manager.disk_fd < 0) {
        errno = EINVAL;
        return -1;
    }
    return ioctl(manager.disk_fd, BLKRRPART);
}

int mmc_read_stat() {
    // Without a name: a rescan that could not read the kernel's list leaves the table empty and the state as it was.
    if (manager.state != MMC_STATE_RDWR || manager.disk.name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    char path[51];
    snprintf(path, sizeof path, "%s%s/stat", SYS_BLOCK_PREFIX, manager.disk.name);
    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        const int error = errno;
        device_warning("Unable to read statistics of %s: %s\n", manager.disk.name, strerror(error));
        errno = error;
        return -1;
    }
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // The kernel's order, which is not the one they are kept in.
    unsigned long read_ios;
    unsigned long read_merges;
    unsigned long read_sectors;
    unsigned long read_ticks;
    unsigned long write_ios;
    unsigned long write_merges;
    unsigned long write_sectors;
    unsigned long write_ticks;
    unsigned long in_flight;
    unsigned long io_ticks;
    unsigned long time_in_queue;
    const int fields =
        fscanf(file, "%lu%lu%lu%lu%lu%lu%lu%lu%lu%lu%lu", &read_ios, &read_merges, &read_sectors, &read_ticks,
               &write_ios, &write_merges, &write_sectors, &write_ticks, &in_flight, &io_ticks, &time_in_queue);
    (void)fclose(file);  // only read from
    if (fields != 11) {
        errno = EFAULT;
        return -1;
    }
    // Unsigned numbers of 64 bits on the workbench, where they are cut to what the camera's 32 hold.
    manager.stat = {.read_sectors = static_cast<uint32_t>(read_sectors),
                    .write_sectors = static_cast<uint32_t>(write_sectors),
                    .read_ios = static_cast<uint32_t>(read_ios),
                    .write_ios = static_cast<uint32_t>(write_ios),
                    .read_merges = static_cast<uint32_t>(read_merges),
                    .write_merges = static_cast<uint32_t>(write_merges),
                    .read_ticks = static_cast<uint32_t>(read_ticks),
                    .write_ticks = static_cast<uint32_t>(write_ticks),
                    .io_ticks = static_cast<uint32_t>(io_ticks),
                    .time_in_queue = static_cast<uint32_t>(time_in_queue),
                    .in_flight = static_cast<uint32_t>(in_flight)};
    manager.stat_time_ms = static_cast<uint32_t>(now.tv_sec) * 1000U + static_cast<uint32_t>(now.tv_nsec / 1'000'000);
    return 0;
}

int mmc_calc_write_speed(uint32_t* written) {
    if (manager.stat_time_ms == 0) {
        (void)mmc_read_stat();  // a failure leaves no baseline, and the next call tries again
        return MMC_SPEED_NO_BASELINE;
    }
    const mmc_stat last = manager.stat;
    const int result = mmc_read_stat();
    if (result < 0) {
        return result;
    }
    // A counter that wrapped is reported like one that stood still: once in a long while a measurement is missing.
    if (manager.stat.write_sectors <= last.write_sectors || manager.stat.io_ticks <= last.io_ticks) {
        return 0;
    }
    const uint32_t sectors = manager.stat.write_sectors - last.write_sectors;
    const uint32_t busy_ms = manager.stat.io_ticks - last.io_ticks;
    if (written != nullptr) {
        *written = sectors;
    }
    if (sectors < SPEED_MIN_SECTORS) {
        return 0;
    }
    return static_cast<int>(static_cast<uint32_t>(sectors * SECTOR_BYTES * 1000 / busy_ms));
}
