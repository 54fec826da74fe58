// What the measurements of index_probe share. Times are in microseconds; what cannot be measured ends the program.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "kyt.h"

constexpr uint32_t FIRST_TS = 1'790'000'000 / 3600 * 3600;

inline uint32_t ts_of(uint32_t clip_index) {
    return FIRST_TS + clip_index * 60;
}

double now_us();     // by the clock
double thread_us();  // of the processor, for the calling thread
double others_us();  // of the processor, for all other threads of this process

[[noreturn]] void die(const char* what);

struct freed {
    void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using buffer = std::unique_ptr<T[], freed>;
template <typename T>
buffer<T> make_buffer(size_t count) {
    buffer<T> made(static_cast<T*>(std::calloc(count, sizeof(T))));
    if (!made) {
        die("memory");
    }
    return made;
}

// Writes to the card since it was put in, as the kernel counts them.
struct traffic {
    unsigned long long requests;
    unsigned long long sectors;
};
traffic read_traffic();

// Opens the list in the folder, which has at least `least` clips.
kyt_handle* open_list(const char* folder, uint32_t least);
// A list holds the clips [oldest, newest) of ts_of().
uint32_t oldest_clip(kyt_handle* list);               // 0 when there is none
bool append_clip(kyt_handle* list, uint32_t newest);  // false: refused
void delete_clip(kyt_handle* list, uint32_t oldest);

// index_calls.cpp
int probe_calls(const char* folder, uint32_t seconds);
int probe_optimise(const char* folder, uint32_t rounds);
// index_refused.cpp
int probe_refused(const char* device, uint32_t rounds);
