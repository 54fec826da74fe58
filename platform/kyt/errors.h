// strerror for any thread: the C library's own may keep the text in one buffer for all.
#pragma once

#include <cstring>

namespace kyt {

struct error_text {
    // strerror_r comes in two kinds, one that fills the buffer and one that returns the text.
    explicit error_text(int error) : text(pick(strerror_r(error, buffer, sizeof buffer), buffer)) {}

    char buffer[96] = "";
    const char* text;

  private:
    [[maybe_unused]] static const char* pick(int, const char* filled) { return filled; }
    [[maybe_unused]] static const char* pick(const char* returned, const char*) { return returned; }
};

}  // namespace kyt
