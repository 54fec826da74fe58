// What header-only parts of the C++ library call when they are misused, and what libstdc++ would bring along otherwise.
// A range that does not exist is a programming error: there is nothing to catch it here, and going on would read what
// is not there.
#include <cstdlib>

namespace std {
[[noreturn]] void __throw_out_of_range_fmt(const char* format, ...);
[[noreturn]] void __throw_out_of_range_fmt(const char* /*format*/, ...) {
    abort();
}
}  // namespace std
