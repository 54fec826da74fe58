#include "support.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

#include "vesk_util.h"

namespace {

const uint8_t* file_data;
size_t file_size;

}  // namespace

namespace fuzz {

void require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "broken: %s\n", what);
        abort();
    }
}

void set_file(const uint8_t* data, size_t size) {
    file_data = data;
    file_size = size;
}

}  // namespace fuzz

// The log formats its lines, so that what is wrong with an argument shows, and drops them.
#define LOG_STAND_IN(level)                                             \
    void log_##level(const char* format, ...) {                         \
        char line[4096];                                                \
        va_list args;                                                   \
        va_start(args, format);                                         \
        vsnprintf(line, sizeof line, format, args);                     \
        va_end(args);                                                   \
    }                                                                   \
    void log_vp##level(const char*, const char* format, va_list args) { \
        char line[4096];                                                \
        vsnprintf(line, sizeof line, format, args);                     \
    }

extern "C" {

LOG_STAND_IN(crit)
LOG_STAND_IN(err)
LOG_STAND_IN(warning)
LOG_STAND_IN(info)
LOG_STAND_IN(debug)

FILE* __wrap_fopen64(const char*, const char*) {
    if (file_data == nullptr) {
        errno = ENOENT;
        return nullptr;
    }
    // fmemopen takes no empty buffer.
    return file_size == 0 ? tmpfile() : fmemopen(const_cast<uint8_t*>(file_data), file_size, "r");
}
FILE* __wrap_fopen(const char*, const char*) __attribute__((alias("__wrap_fopen64")));

int __wrap_open64(const char*, int, ...) {
    errno = ENOENT;
    return -1;
}
int __wrap_open(const char*, int, ...) __attribute__((alias("__wrap_open64")));

int __wrap_access(const char* path, int) {
    size_t length = 0;
    while (path[length] != '\0') {
        ++length;
    }
    return length % 2 == 0 ? 0 : -1;  // some disks, some partitions
}

int __wrap_nanosleep(const timespec*, timespec*) {
    return 0;
}

}  // extern "C"
