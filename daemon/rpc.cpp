// Reports are built whole and handed over; what the world does not answer is left out of them or null, and never keeps
// the rest from being sent. The statistics library owns a report from the moment that it is handed over.
#include "rpc.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <time.h>
#include <unistd.h>

#include "mmc.h"
#include "mountpoint.h"
#include "sdcard.h"
#include "vesk_statistics.h"
#include "vesk_util.h"

namespace {

constexpr int32_t COOL_DOWN_S = 300;
constexpr size_t TEXT_MAX = 128;   // bytes of a sysfs file that go into a report as text
constexpr size_t NUMBER_MAX = 40;  // and as a number

// One for each alert. Near 1970 the camera's clock is not set yet and nothing is sent for the first 300 s: `last_sent`
// says 1970 as well. That is accepted.
struct cool_down {
    int32_t last_sent = 0;   // time(), cut to 32 bits
    int32_t suppressed = 0;  // dropped since then
};
cool_down alert_cool_down;
cool_down slow_cool_down;
cool_down umount_fail_cool_down;

// --- what the kernel says --------------------------------------------------------------------------------------------

// "/sys/block/<disk><below>", opened; null when there is no disk or no such directory.
DIR* open_disk_directory(const char* below) {
    const char* const disk = mmc_get_manager()->disk.name;
    if (disk == nullptr) {
        return nullptr;
    }
    char path[64];
    snprintf(path, sizeof path, "/sys/block/%s%s", disk, below);
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    DIR* const directory = fdopendir(fd);
    if (directory == nullptr) {
        close(fd);
    }
    return directory;
}

// Reads the beginning of a file; a sysfs file is read at one go. The number of bytes; 0 or less: nothing to be had.
ssize_t read_file(DIR* directory, const char* name, char* buffer, size_t size) {
    // Non-blocking: a file that is something else than it looks like must not hold the loop up.
    const int fd = openat(dirfd(directory), name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return -1;
    }
    const ssize_t length = read(fd, buffer, size);
    close(fd);
    return length;
}

void add_text(json_object* object, DIR* directory, const char* name) {
    char text[TEXT_MAX];
    ssize_t length = read_file(directory, name, text, sizeof text);
    if (length <= 0) {
        return;
    }
    if (text[length - 1] == '\n') {
        --length;
    }
    json_object_object_add(object, name, json_object_new_string_len(text, static_cast<int>(length)));
}

void add_number(json_object* object, DIR* directory, const char* name) {
    char text[NUMBER_MAX + 1];
    const ssize_t length = read_file(directory, name, text, NUMBER_MAX);
    if (length <= 0) {
        return;
    }
    text[length] = '\0';
    // atoi as the camera has it, where a long is an int: beyond its range the nearest value.
    const long number = std::clamp<long>(strtol(text, nullptr, 10), INT32_MIN, INT32_MAX);
    json_object_object_add(object, name, json_object_new_int(static_cast<int32_t>(number)));
}

bool is_regular_file(DIR* directory, const dirent* entry) {
    if (entry->d_type != DT_UNKNOWN) {
        return entry->d_type == DT_REG;
    }
    struct stat status;
    return fstatat(dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode);
}

// The card's own registers: every file that the kernel shows of them. Null without a card.
json_object* mmc_to_json() {
    DIR* const directory = open_disk_directory("/device");
    if (directory == nullptr) {
        return nullptr;
    }
    json_object* const object = json_object_new_object();
    while (const dirent* const entry = readdir(directory)) {
        // "uevent" says again what the others say.
        if (object != nullptr && is_regular_file(directory, entry) && strcmp(entry->d_name, "uevent") != 0) {
            add_text(object, directory, entry->d_name);
        }
    }
    closedir(directory);
    return object;
}

// The block device. Null without a card.
json_object* block_to_json() {
    DIR* const directory = open_disk_directory("");
    if (directory == nullptr) {
        return nullptr;
    }
    json_object* const object = json_object_new_object();
    if (object != nullptr) {
        add_text(object, directory, "stat");
        for (const char* const name : {"ro", "force_ro", "size"}) {
            add_number(object, directory, name);
        }
    }
    closedir(directory);
    return object;
}

// The filesystem. Null while nothing is mounted.
json_object* fs_to_json() {
    struct statfs space;
    if (mountpoint_statfs(&space) < 0) {
        return nullptr;
    }
    json_object* const object = json_object_new_object();
    if (object == nullptr) {
        return nullptr;
    }
    const auto add = [object](const char* name, auto value) {
        json_object_object_add(object, name, json_object_new_int64(static_cast<int64_t>(value)));
    };
    // Signed words, so that a magic number with the highest bit set is negative on the camera, also with a C library
    // that declares them unsigned.
    add("f_type", static_cast<long>(space.f_type));
    add("f_bsize", static_cast<long>(space.f_bsize));
    add("f_blocks", space.f_blocks);
    add("f_bfree", space.f_bfree);
    add("f_bavail", space.f_bavail);
    add("f_files", space.f_files);
    add("f_ffree", space.f_ffree);
    return object;
}

// --- alerts ----------------------------------------------------------------------------------------------------------

// Logs the report under the function's name and hands it over.
void send(const char* function, const char* event_name, json_object* root) {
    log_debug("%s: %s", function, json_object_to_json_string(root));
    (void)report_stat_object(event_name, root);  // delivery is the library's business
}

// A new alert of this type, or null: another one was sent less than 300 s ago, or memory is short. A report that fails
// for want of memory has begun a new period of silence all the same, or it would be tried at every occasion.
json_object* alert_new(cool_down* slot, rpc_alert type) {
    const auto now = static_cast<int32_t>(time(nullptr));
    // Unsigned, because the clock may jump by more than a signed difference holds.
    const auto since = static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(slot->last_sent));
    if (since < COOL_DOWN_S) {
        ++slot->suppressed;
        return nullptr;
    }
    slot->last_sent = now;
    json_object* const root = json_object_new_object();
    if (root != nullptr) {
        json_object_object_add(root, "type", json_object_new_int(type));
    }
    return root;
}

void alert_send(cool_down* slot, const char* function, json_object* root) {
    if (slot->suppressed > 0) {
        json_object_object_add(root, "cool_down", json_object_new_int(slot->suppressed));
        slot->suppressed = 0;
    }
    send(function, "sdcard.alert", root);
}

}  // namespace

void rpc_send_sdcard_info() {
    json_object* const root = json_object_new_object();
    if (root == nullptr) {
        return;
    }
    json_object_object_add(root, "state", json_object_new_int(sdcard_get_state()));
    json_object_object_add(root, "mmc", mmc_to_json());
    json_object_object_add(root, "block", block_to_json());
    json_object_object_add(root, "fs", fs_to_json());
    send("rpc_send_sdcard_info", "sdcard.info", root);
}

void rpc_send_alert(rpc_alert type) {
    json_object* const root = alert_new(&alert_cool_down, type);
    if (root == nullptr) {
        return;
    }
    alert_send(&alert_cool_down, "rpc_send_alert", root);
}

void rpc_send_alert_slow(int32_t mean_speed, int32_t elapse, uint32_t active_sec) {
    json_object* const root = alert_new(&slow_cool_down, RPC_ALERT_SLOW);
    if (root == nullptr) {
        return;
    }
    json_object_object_add(root, "mean_speed", json_object_new_int(mean_speed));
    json_object_object_add(root, "elapse", json_object_new_int(elapse));
    json_object_object_add(root, "active_sec", json_object_new_int64(active_sec));
    alert_send(&slow_cool_down, "rpc_send_alert_slow", root);
}

void rpc_send_alert_umount_fail(int32_t count, const char (*names)[RPC_FUSER_NAME_SIZE]) {
    json_object* const root = alert_new(&umount_fail_cool_down, RPC_ALERT_UMOUNT_FAIL);
    if (root == nullptr) {
        return;
    }
    json_object* const fuser = json_object_new_array();
    if (fuser == nullptr) {
        json_object_put(root);
        return;
    }
    for (int32_t i = 0; i < count; ++i) {
        json_object_array_add(fuser, json_object_new_string(names[i]));
    }
    json_object_object_add(root, "fuser", fuser);
    alert_send(&umount_fail_cool_down, "rpc_send_alert_umount_fail", root);
}
