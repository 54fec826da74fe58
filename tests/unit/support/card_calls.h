// The calls by which the record list reaches the card, so that a test can fail them, stop them and see them. Any
// thread. Link with --wrap for each of CARD_CALLS in tests/unit/CMakeLists.txt.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace card_calls {

void reset();

// Makes call number nth (1: the next) fail with errnum; `only`: of this function alone, empty: of any.
void fail(const std::string& only, int nth, int errnum, int times = 1);
bool failed();  // whether that has happened
int count(const std::string& call);

// From now on, one read or write moves so many bytes at most.
void set_most_at_once(size_t bytes);

// While stopped, calls that write to the card hang, as on a card whose driver waits.
void stop();
void go_on();
int hanging();

// The serial number of the volume on which everything lies; 0: a filesystem that has none.
void set_volume(uint32_t number);

// Before and after each fsync and fdatasync, with the file's name.
struct hooks {
    std::function<void(const std::string& name)> before_sync;
    std::function<void(const std::string& name)> after_sync;
};
void set_hooks(const hooks& wanted);

}  // namespace card_calls
