#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <mutex>

#include "vesk_util.h"

namespace {

std::mutex lock;
std::vector<std::string> kept;
int disturbance = 0;

void keep(const char* level, const char* prefix, const char* format, va_list args) {
    char text[4096 + 256];
    vsnprintf(text, sizeof text, format, args);
    std::lock_guard guard(lock);
    kept.push_back(std::string(level) + " " + prefix + text);
    if (disturbance != 0) {
        errno = disturbance;
    }
}

}  // namespace

namespace logged {

void reset() {
    std::lock_guard guard(lock);
    kept.clear();
    disturbance = 0;
}

const std::vector<std::string>& lines() {
    return kept;
}
bool has(std::string_view line) {
    return count(line) > 0;
}
int count(std::string_view line) {
    std::lock_guard guard(lock);
    return static_cast<int>(std::count(kept.begin(), kept.end(), line));
}
int count_beginning(std::string_view prefix) {
    std::lock_guard guard(lock);
    return static_cast<int>(
        std::count_if(kept.begin(), kept.end(), [&](const std::string& line) { return line.starts_with(prefix); }));
}
void disturb_errno(int value) {
    std::lock_guard guard(lock);
    disturbance = value;
}

}  // namespace logged

#define LOG_STAND_IN(level, name)                                              \
    void log_##level(const char* format, ...) {                                \
        va_list args;                                                          \
        va_start(args, format);                                                \
        keep(name, "", format, args);                                          \
        va_end(args);                                                          \
    }                                                                          \
    void log_vp##level(const char* prefix, const char* format, va_list args) { \
        keep(name, prefix, format, args);                                      \
    }

extern "C" {
LOG_STAND_IN(crit, "crit")
LOG_STAND_IN(err, "err")
LOG_STAND_IN(warning, "warning")
LOG_STAND_IN(info, "info")
LOG_STAND_IN(debug, "debug")
}
