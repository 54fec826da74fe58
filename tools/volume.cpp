#include "tools/volume.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char MOUNT_POINT[] = "/mnt/sdcard";
constexpr char PARTITIONS[] = "/proc/partitions";
constexpr unsigned CARD_MAJOR = 179;
constexpr size_t NAME_SIZE = 64;
constexpr unsigned char EXTENDED = 0x29;  // an identity and a label follow

uint32_t little_endian(const unsigned char* bytes, int count) {
    uint32_t value = 0;
    for (int i = count; i > 0; --i) {
        value = value << 8 | bytes[i - 1];
    }
    return value;
}

// Turns the kernel's "\040" for a blank back into one.
void unescape(char* text) {
    char* to = text;
    for (const char* from = text; *from != '\0'; ++to) {
        unsigned value = 0;
        if (*from == '\\' && sscanf(from + 1, "%3o", &value) == 1 && strlen(from) >= 4) {
            *to = static_cast<char>(value);
            from += 4;
        } else {
            *to = *from++;
        }
    }
    *to = '\0';
}

void add(fat_volume (&volumes)[VOLUMES_MAX], size_t* count, const char* device) {
    if (*count < VOLUMES_MAX && volume_read(device, &volumes[*count])) {
        ++*count;
    }
}

// The next device of the card in the kernel's table (null: it could not be opened). False: there is no other.
bool next_device(FILE* table, char (&name)[NAME_SIZE]) {
    char line[256];
    while (table != nullptr && fgets(line, sizeof line, table) != nullptr) {
        unsigned major = 0;
        if (sscanf(line, "%u %*u %*u %63s", &major, name) == 2 && major == CARD_MAJOR) {
            return true;
        }
    }
    return false;
}

void close_table(FILE* table) {
    if (table != nullptr) {
        fclose(table);
    }
}

}  // namespace

bool volume_card_is_present() {
    FILE* table = fopen(PARTITIONS, "re");
    char name[NAME_SIZE];
    const bool present = next_device(table, name);
    close_table(table);
    return present;
}

bool volume_mounted(char (&device)[VOLUME_PATH]) {
    FILE* table = fopen("/proc/self/mountinfo", "re");
    if (table == nullptr) {
        return false;
    }
    bool found = false;
    char line[1024];
    while (fgets(line, sizeof line, table) != nullptr) {
        char point[VOLUME_PATH];
        char source[VOLUME_PATH];
        const char* behind = strstr(line, " - ");
        // The last mount of a place is the one that is seen.
        if (behind != nullptr && sscanf(line, "%*s %*s %*s %*s %255s", point) == 1 &&
            sscanf(behind, " - %*s %255s", source) == 1 && strcmp(point, MOUNT_POINT) == 0) {
            unescape(source);
            memcpy(device, source, sizeof source);
            found = true;
        }
    }
    fclose(table);
    return found;
}

bool volume_read(const char* device, fat_volume* volume) {
    const int fd = open(device, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    unsigned char sector[512];
    const ssize_t length = pread(fd, sector, sizeof sector, 0);
    close(fd);
    if (length != sizeof sector || sector[510] != 0x55 || sector[511] != 0xaa) {
        return false;
    }
    // A partition table ends with the same two bytes; only a FAT has a sector size here, and exFAT has none.
    const uint32_t sector_size = little_endian(sector + 11, 2);
    if (sector_size < 512 || sector_size > 4096 || (sector_size & (sector_size - 1)) != 0) {
        return false;
    }
    const bool fat32 = little_endian(sector + 22, 2) == 0;  // its table's size is kept elsewhere
    const unsigned char* extended = sector + (fat32 ? 66 : 38);
    if (extended[0] != EXTENDED) {
        return false;
    }
    volume->id = little_endian(extended + 1, 4);
    memcpy(volume->label, extended + 5, 11);
    size_t end = 11;
    while (end > 0 && volume->label[end - 1] == ' ') {
        --end;
    }
    volume->label[end] = '\0';
    return true;
}

size_t volume_list(fat_volume (&volumes)[VOLUMES_MAX]) {
    size_t count = 0;
    char device[VOLUME_PATH];
    if (volume_mounted(device)) {
        add(volumes, &count, device);
    }
    FILE* table = fopen(PARTITIONS, "re");
    char name[NAME_SIZE];
    while (next_device(table, name)) {
        (void)snprintf(device, sizeof device, "/dev/%s", name);
        add(volumes, &count, device);
    }
    close_table(table);
    return count;
}
