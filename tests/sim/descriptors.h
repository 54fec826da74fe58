// The descriptors of the simulated kernel. Inside the simulator only.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "world.h"

namespace sim {

struct pipe_buffer {
    std::string bytes;
    int readers = 0;
    int writers = 0;
};

struct descriptor {
    fd_kind kind = fd_kind::FREE;
    bool is_close_on_exec = false;
    bool is_non_blocking = false;
    bool is_readable = false;  // BUS
    uint64_t counter = 0;      // EVENT
    uint64_t seen_table = 0;   // MOUNTINFO: the version that its poll has told of
    std::shared_ptr<pipe_buffer> pipe;
    std::shared_ptr<card> disk;  // DISK
    uint32_t minor = 0;
    std::shared_ptr<filesystem> fs;  // DIRECTORY, FILE
    std::string path;                // of it, below the filesystem's root; of SYSTEM, as it is
    std::string text;                // what is read from a SYSTEM file
};

constexpr int FIRST_FD = 64;  // below are the simulator's own
constexpr size_t PIPE_BYTES = 65536;

int new_descriptor(descriptor d);  // -1 with errno when there are none left
descriptor* get(int fd);           // null: not one of ours
int release(int fd);

extern bool in_child;  // between fork and exec, in a process of its own
void child_dup2(int from, int to);
[[noreturn]] void child_exec(const char* program, char* const* argv);
[[noreturn]] void child_exit(int code);

constexpr int64_t CALL_NS = 20'000;  // what a call costs that does not wait for a card
int64_t card_ns();                   // and one that does

}  // namespace sim
