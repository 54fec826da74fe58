#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mutex>
#include <unistd.h>

#include "support/coverage.h"
#include "vesk_util.h"

namespace {

class counts : public testing::Environment {
  public:
    void TearDown() override { coverage::write_counts(); }
};
const auto* const registered = testing::AddGlobalTestEnvironment(new counts);

std::mutex lock;
std::vector<std::string> kept;
int disturbance = 0;

// With VESK_MESSAGES naming a file: adds "<test>\t<message as in the source>" to it. In one write, for children write
// too.
void note(const char* format) {
    static const char* path = getenv("VESK_MESSAGES");
    const testing::TestInfo* test = path == nullptr ? nullptr : testing::UnitTest::GetInstance()->current_test_info();
    if (test == nullptr) {
        return;
    }
    std::string line = std::string(test->test_suite_name()) + "." + test->name() + "\t";
    for (const char* c = format; *c != '\0'; ++c) {
        line += *c == '\n' ? "\\n" : *c == '"' ? "\\\"" : std::string(1, *c);
    }
    line += '\n';
    const int fd = open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd >= 0) {
        (void)!write(fd, line.data(), line.size());
        close(fd);
    }
}

void keep(const char* level, const char* prefix, const char* format, va_list args) {
    char text[4096 + 256];
    vsnprintf(text, sizeof text, format, args);
    const int error = errno;
    note(format);
    errno = error;
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
bool has_part(std::string_view part) {
    std::lock_guard guard(lock);
    return std::any_of(kept.begin(), kept.end(),
                       [&](const std::string& line) { return line.find(part) != std::string::npos; });
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
