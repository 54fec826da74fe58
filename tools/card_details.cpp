#include "tools/card_details.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <initializer_list>
#include <json-c/json.h>
#include <unistd.h>

#include "tools/veskctl.h"

namespace {

constexpr unsigned CARD_MAJOR = 179;
constexpr size_t TEXT_MAX = 128;  // bytes of a file of the kernel's that the report carries
constexpr size_t PATH_SIZE = 320;
constexpr int SECTOR = 512;

// Numbers as seen on cards; the list of who has which is not published.
struct maker {
    unsigned long id;
    const char* name;
};
constexpr maker MAKERS[] = {{0x01, "Panasonic"}, {0x02, "Toshiba, Kioxia"}, {0x03, "SanDisk"}, {0x1b, "Samsung"},
                            {0x1d, "ADATA"},     {0x27, "Phison"},          {0x28, "Lexar"},   {0x31, "Silicon Power"},
                            {0x41, "Kingston"},  {0x74, "Transcend"},       {0x82, "Sony"}};

// The SD status register, 64 bytes as hexadecimal digits, most significant first.
constexpr size_t STATUS_DIGITS = 128;
constexpr size_t SPEED_CLASS_BYTE = 8;
constexpr size_t UHS_GRADE_BYTE = 14;    // upper half
constexpr size_t VIDEO_CLASS_BYTE = 15;  // in MB/s
constexpr size_t APP_CLASS_BYTE = 21;    // lower half

bool read_text(const char* path, char (&text)[TEXT_MAX + 1]) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    const ssize_t length = read(fd, text, TEXT_MAX);
    close(fd);
    if (length <= 0) {
        return false;
    }
    text[length] = '\0';
    if (text[length - 1] == '\n') {
        text[length - 1] = '\0';
    }
    return true;
}

// The first disk of the card's major number, as the daemon takes it.
bool find_disk(char (&disk)[64]) {
    DIR* disks = opendir("/sys/block");
    if (disks == nullptr) {
        return false;
    }
    bool found = false;
    while (const dirent* entry = readdir(disks)) {
        char path[PATH_SIZE];
        char number[TEXT_MAX + 1];
        (void)snprintf(path, sizeof path, "/sys/block/%s/dev", entry->d_name);
        if (entry->d_name[0] != '.' && strlen(entry->d_name) < sizeof disk && read_text(path, number) &&
            strtoul(number, nullptr, 10) == CARD_MAJOR && (!found || strcmp(entry->d_name, disk) < 0)) {
            memcpy(disk, entry->d_name, strlen(entry->d_name) + 1);
            found = true;
        }
    }
    closedir(disks);
    return found;
}

json_object* local_registers(const char* disk) {
    json_object* object = json_object_new_object();
    for (const char* name : {"manfid", "oemid", "name", "serial", "date", "ssr"}) {
        char path[PATH_SIZE];
        char text[TEXT_MAX + 1];
        (void)snprintf(path, sizeof path, "/sys/block/%s/device/%s", disk, name);
        if (read_text(path, text)) {
            json_object_object_add(object, name, veskctl_text_json(text, strlen(text)));
        }
    }
    return object;
}

json_object* local_block(const char* disk) {
    json_object* object = json_object_new_object();
    for (const char* name : {"ro", "force_ro", "size"}) {
        char path[PATH_SIZE];
        char text[TEXT_MAX + 1];
        (void)snprintf(path, sizeof path, "/sys/block/%s/%s", disk, name);
        if (read_text(path, text)) {
            json_object_object_add(object, name, json_object_new_int64(strtoll(text, nullptr, 10)));
        }
    }
    return object;
}

const char* text_of(json_object* object, const char* name) {
    json_object* value = nullptr;
    return json_object_object_get_ex(object, name, &value) && json_object_is_type(value, json_type_string)
               ? json_object_get_string(value)
               : nullptr;
}

// -1: not told.
int64_t number_of(json_object* object, const char* name) {
    json_object* value = nullptr;
    return json_object_object_get_ex(object, name, &value) && json_object_is_type(value, json_type_int)
               ? json_object_get_int64(value)
               : -1;
}

json_object* text_or_null(const char* text) {
    return text != nullptr && *text != '\0' ? veskctl_text_json(text, strlen(text)) : nullptr;
}

json_object* maker_name(const char* id) {
    const unsigned long number = id != nullptr ? strtoul(id, nullptr, 16) : 0;
    for (const maker& known : MAKERS) {
        if (known.id == number) {
            return json_object_new_string(known.name);
        }
    }
    return nullptr;
}

// Two letters, as a number of the kernel's.
json_object* oem(const char* id) {
    if (id == nullptr) {
        return nullptr;
    }
    const unsigned long number = strtoul(id, nullptr, 16);
    const char letters[] = {static_cast<char>(number >> 8 & 0xff), static_cast<char>(number & 0xff), '\0'};
    const bool printable = letters[0] > ' ' && letters[0] < 0x7f && letters[1] > ' ' && letters[1] < 0x7f;
    return json_object_new_string(printable ? letters : id);
}

// "02/2006" as "2006-02".
json_object* month(const char* date) {
    unsigned number = 0;
    unsigned year = 0;
    if (date == nullptr || sscanf(date, "%2u/%4u", &number, &year) != 2 || number < 1 || number > 12) {
        return nullptr;
    }
    char text[16];
    (void)snprintf(text, sizeof text, "%04u-%02u", year % 10000, number % 100);
    return json_object_new_string(text);
}

// A byte of the SD status; -1: not told. A register of zeros is one that the card did not give to the kernel.
int status_byte(const char* digits, size_t byte) {
    if (digits == nullptr || strlen(digits) != STATUS_DIGITS || strspn(digits, "0") == STATUS_DIGITS) {
        return -1;
    }
    const char text[] = {digits[byte * 2], digits[byte * 2 + 1], '\0'};
    char* end = nullptr;
    const long value = strtol(text, &end, 16);
    return end == text + 2 ? static_cast<int>(value) : -1;
}

json_object* known_int(int value) {
    return value >= 0 ? json_object_new_int(value) : nullptr;
}

json_object* speed_class(const char* status) {
    constexpr int CLASSES[] = {0, 2, 4, 6, 10};
    const int code = status_byte(status, SPEED_CLASS_BYTE);
    return code >= 0 && code < static_cast<int>(sizeof CLASSES / sizeof *CLASSES) ? json_object_new_int(CLASSES[code])
                                                                                  : nullptr;
}

}  // namespace

json_object* card_details_local() {
    char disk[64] = "";
    if (!find_disk(disk)) {
        return nullptr;
    }
    json_object* report = json_object_new_object();
    json_object_object_add(report, "mmc", local_registers(disk));
    json_object_object_add(report, "block", local_block(disk));
    return report;
}

json_object* card_details_decode(json_object* report) {
    json_object* card = nullptr;
    json_object* block = nullptr;
    if (!json_object_is_type(report, json_type_object) || !json_object_object_get_ex(report, "mmc", &card) ||
        !json_object_object_get_ex(report, "block", &block)) {
        return nullptr;
    }
    const char* status = text_of(card, "ssr");
    const int64_t sectors = number_of(block, "size");
    const int uhs = status_byte(status, UHS_GRADE_BYTE);
    const int app = status_byte(status, APP_CLASS_BYTE);
    const int64_t read_only = number_of(block, "ro");
    json_object* details = json_object_new_object();
    json_object_object_add(details, "maker", maker_name(text_of(card, "manfid")));
    json_object_object_add(details, "maker_id", text_or_null(text_of(card, "manfid")));
    json_object_object_add(details, "oem", oem(text_of(card, "oemid")));
    json_object_object_add(details, "name", text_or_null(text_of(card, "name")));
    json_object_object_add(details, "serial", text_or_null(text_of(card, "serial")));
    json_object_object_add(details, "made", month(text_of(card, "date")));
    json_object_object_add(details, "size", sectors >= 0 ? json_object_new_int64(sectors * SECTOR) : nullptr);
    json_object_object_add(details, "speed_class", speed_class(status));
    json_object_object_add(details, "uhs_grade", known_int(uhs >= 0 ? uhs >> 4 : -1));
    json_object_object_add(details, "video_class", known_int(status_byte(status, VIDEO_CLASS_BYTE)));
    json_object_object_add(details, "app_class", known_int(app >= 0 ? app & 0xf : -1));
    json_object_object_add(details, "read_only", read_only >= 0 ? json_object_new_boolean(read_only != 0) : nullptr);
    return details;
}
