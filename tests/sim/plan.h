// What happens to a camera: a list of events that a seed decides as a whole before anything runs, so that a part of it
// can be run again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

enum class kind : uint8_t {
    CLIP,     // the recorder writes a clip and announces it; a: size, b: oddities
    FILL,     // somebody fills the card; a: how far
    RELEASE,  // and takes his files away again
    INSERT,   // a card into an empty slot; a: what kind of card, b: order of the events
    PULL,     // the card out of the slot
    SWAP,     // out, and another in a moment later; a, b: as for INSERT
    REQUEST,  // by key or by remote action; a: which, b: its parameters
    CLOCK,    // the clock is set; a: how
    BROKER,   // the configuration service; a: what becomes of it, b: for how long
    NOTICE,   // a notification that is not what it should be; a: how
    UEVENT,   // the kernel says something odd; a: what
    MOUNT,    // somebody mounts or unmounts; a: what
    HOLD,     // processes hold the card; b: for how long
    WRITE,    // somebody writes a little to the card; a: how much
    CARD,     // the card changes its ways; a: how
    TOOL,     // the next run of a tool is not what it should be; a: which, b: how
    LIST,     // the record list library: a: what
    FAIL,     // a call of the C library fails; a: which, b: with what, when and how often
    SIGNAL,   // SIGTERM: the end
};
constexpr int KINDS = static_cast<int>(kind::SIGNAL) + 1;

struct event {
    int64_t at_ms;
    kind what;
    uint32_t a;
    uint32_t b;
};

std::vector<event> make_plan(uint64_t seed, double days);

const char* name_of(kind what);
std::string describe(const event& e);

}  // namespace sim
