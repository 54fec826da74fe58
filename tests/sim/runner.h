// Lives, each in a process of its own, so that a daemon's records are fresh and its end is only its own.
#pragma once

#include <string>
#include <vector>

#include "world.h"

namespace sim {

struct task {
    uint64_t seed = 0;
    double days = 1;
    std::vector<event> plan;
    bool is_loud = false;
    bool is_mute = false;  // not even a crash is told about
    void (*prepare)(void*) = nullptr;
    void* context = nullptr;
};

// Starts a life. The descriptor that its verdict comes from.
struct started {
    int pid;
    int fd;
};
started start(const task& t);

// Waits for its end. A life that ends without a verdict has crashed or hung.
outcome finish(const started& s);

inline outcome run(const task& t) {
    return finish(start(t));
}

// The shortest list of events, by their places in the seed's plan, that still fails for the same reason.
std::vector<size_t> shrink(const task& failing, const outcome& seen, int max_runs);

// Fails every call in turn. True: no violation. Prints its own figures.
bool fail_every_call(int jobs, int max_nth, double max_minutes);

// One of them again, with its whole log.
bool fail_one_call(const std::string& name, uint64_t nth, int errnum, bool forever);

}  // namespace sim
