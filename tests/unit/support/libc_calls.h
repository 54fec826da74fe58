// One table of stand-ins for calls of the C library: a test makes them fail, holds them, watches them and answers them.
// What nobody has asked for goes to the real call. Link libc_calls (tests/unit/CMakeLists.txt), which wraps the calls
// of everything that is linked statically; what is in a shared C++ library keeps its own. Any thread.
//
// A call has the name that every C library knows: "open" is open64, too. There are open openat close pread pwrite
// ftruncate fdatasync fsync fstat lseek fstatat unlinkat renameat fdopendir readdir fcntl flock ioctl mmap munmap
// madvise eventfd pthread_create malloc realloc calloc time clock_gettime poll. Another name ends the test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace libc_calls {

// Names of groups, for fail and hold.
constexpr const char* CARD = "card";           // whatever reaches a file or a folder
constexpr const char* WRITES = "card writes";  // what changes it: also an open for writing
constexpr const char* MEMORY = "memory";       // malloc, realloc, calloc
constexpr int FOREVER = 1 << 30;

void reset();  // all of this header, counts included

// Makes call number nth (1: the next) fail with errnum, and `times` - 1 after it.
void fail(const std::string& call, int nth, int errnum, int times = 1);
void stop_failing();
bool failed();  // whether any has failed since the last fail
int count(const std::string& call);

// While held, the calls wait before they are made, as on a card whose driver waits.
void hold(const std::string& call);
void release();
int held();  // how many wait

// One pread or pwrite moves so many bytes at most.
void set_most_at_once(size_t bytes);
// The serial number that FAT gives the volume on which every file is; 0: the filesystem's own answer.
void set_volume(uint32_t number);
// What time and the real-time clock say from now on. Not after the year 2038 where time_t has 32 bits.
void set_time(int64_t seconds);

// What a call is about; what it has not is empty.
struct called {
    const char* call;
    int fd = -1;
    const char* name = nullptr;      // relative to fd, if that is there
    const char* new_name = nullptr;  // renameat
    int flags = 0;                   // open, openat, fstatat, unlinkat; the command of fcntl, flock and madvise
    const void* data = nullptr;      // pwrite; the address of munmap and madvise; a mmap's is in its result
    size_t size = 0;
    int64_t offset = 0;  // the new size of ftruncate
};
std::string file_of(int fd);  // the name of the open file, without its folders
bool opens_for_writing(const called& c);

// Sees each such call before it is made, after the faults of `fail` were not meant for it. 0: it goes on; otherwise it
// fails with this errno. One for each name; an empty one removes it. Calls made inside are seen like any other.
using hook = std::function<int(const called& c)>;
void before(const std::string& call, hook wanted);
// After each such call that was made; the result is a pointer's value where it is one. errno is kept.
using after_hook = std::function<void(const called& c, intptr_t result)>;
void after(const std::string& call, after_hook wanted);

}  // namespace libc_calls
