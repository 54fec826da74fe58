#include "support/libc_calls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <list>
#include <mutex>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using libc_calls::called;

// By what they reach: fail and hold know them by these groups.
constexpr std::string_view OF_CARD[] = {"open", "openat", "pread", "fstat", "lseek", "fstatat", "fdopendir", "readdir"};
constexpr std::string_view WRITING[] = {"pwrite", "ftruncate", "fdatasync", "fsync", "unlinkat", "renameat"};
constexpr std::string_view OF_MEMORY[] = {"malloc", "realloc", "calloc"};
constexpr std::string_view KNOWN[] = {
    "open",    "openat", "close",   "pread",         "pwrite",   "ftruncate", "fdatasync",      "fsync",
    "fstat",   "lseek",  "fstatat", "unlinkat",      "renameat", "fdopendir", "readdir",        "fcntl",
    "flock",   "ioctl",  "mmap",    "munmap",        "madvise",  "eventfd",   "pthread_create", "malloc",
    "realloc", "calloc", "time",    "clock_gettime", "poll"};
constexpr size_t CALLS = std::size(KNOWN);

template <size_t N>
constexpr bool has(const std::string_view (&names)[N], std::string_view name) {
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}
constexpr size_t index_of(std::string_view name) {
    return static_cast<size_t>(std::find(std::begin(KNOWN), std::end(KNOWN), name) - std::begin(KNOWN));
}

struct fault {
    std::string call;
    int nth;
    int times;
    int errnum;
};

// Calls that nobody has asked anything of only count: no lock, or a race in what is tested would be hidden.
std::array<std::atomic<int>, CALLS> counts;
std::atomic<bool> armed = false;
std::atomic<bool> has_failed = false;
std::atomic<size_t> most_at_once = SIZE_MAX;
std::atomic<uint32_t> volume = 0;
std::atomic<bool> has_time = false;
std::atomic<time_t> the_time = 0;  // no wider than the target can store at one go

std::mutex guard;
std::condition_variable changed;
std::list<fault> faults;
std::list<std::string> holds;
int held_now = 0;
std::array<libc_calls::hook, CALLS> hooks;
std::array<libc_calls::after_hook, CALLS> after_hooks;

void check_name(std::string_view call) {
    if (index_of(call) == CALLS && call != libc_calls::CARD && call != libc_calls::WRITES &&
        call != libc_calls::MEMORY) {
        std::fprintf(stderr, "no stand-in for %.*s\n", static_cast<int>(call.size()), call.data());
        std::abort();
    }
}

bool is_meant(std::string_view wanted, const called& c) {
    const bool writes = has(WRITING, c.call) || libc_calls::opens_for_writing(c);
    return wanted == c.call || (wanted == libc_calls::CARD && (writes || has(OF_CARD, c.call))) ||
           (wanted == libc_calls::WRITES && writes) || (wanted == libc_calls::MEMORY && has(OF_MEMORY, c.call));
}

// 0, or the errno with which the call is to fail.
int fault_of(const called& c) {
    int failure = 0;
    for (fault& f : faults) {
        if (f.times == 0 || !is_meant(f.call, c)) {
            continue;
        }
        if (f.nth > 1) {
            --f.nth;
        } else {
            f.times -= f.times == libc_calls::FOREVER ? 0 : 1;
            failure = f.errnum;
        }
    }
    has_failed = has_failed || failure != 0;
    return failure;
}

// 0, or the errno with which the call is to fail.
int enter(size_t index, const called& c) {
    counts[index].fetch_add(1, std::memory_order_relaxed);
    if (!armed.load(std::memory_order_relaxed)) {
        return 0;
    }
    std::unique_lock lock(guard);
    const auto is_held = [&] {
        return std::any_of(holds.begin(), holds.end(), [&](const std::string& wanted) { return is_meant(wanted, c); });
    };
    if (is_held()) {
        ++held_now;
        changed.wait(lock, [&] { return !is_held(); });
        --held_now;
    }
    const int failure = fault_of(c);
    const libc_calls::hook hook = hooks[index];
    lock.unlock();
    return failure != 0 || !hook ? failure : hook(c);
}

template <typename Result>
void leave(size_t index, const called& c, Result result) {
    if (!armed.load(std::memory_order_relaxed)) {
        return;
    }
    std::unique_lock lock(guard);
    const libc_calls::after_hook hook = after_hooks[index];
    lock.unlock();
    if (hook) {
        const int kept = errno;
        hook(c, (intptr_t)result);
        errno = kept;
    }
}

// Makes the call unless it is to fail; then it gives `failure`.
template <typename Real>
auto make(const called& c, decltype(std::declval<Real>()()) failure, Real real) {
    const size_t index = index_of(c.call);
    const int kept = errno;
    if (const int error = enter(index, c); error != 0) {
        errno = error;
        return failure;
    }
    errno = kept;
    const auto result = real();
    leave(index, c, result);
    return result;
}

}  // namespace

namespace libc_calls {

void reset() {
    release();
    const std::lock_guard lock(guard);
    armed = false;
    has_failed = has_time = false;
    faults.clear();
    hooks.fill({});
    after_hooks.fill({});
    for (auto& count : counts) {
        count = 0;
    }
    volume = 0;
    most_at_once = SIZE_MAX;
}
void fail(const std::string& call, int nth, int errnum, int times) {
    check_name(call);
    const std::lock_guard lock(guard);
    faults.push_back({call, nth, times, errnum});
    has_failed = false;
    armed = true;
}
void stop_failing() {
    const std::lock_guard lock(guard);
    faults.clear();
}
bool failed() {
    return has_failed;
}
int count(const std::string& call) {
    check_name(call);
    int sum = 0;
    for (size_t i = 0; i < CALLS; ++i) {
        sum += is_meant(call, {.call = KNOWN[i].data()}) ? counts[i].load() : 0;
    }
    return sum;
}
void hold(const std::string& call) {
    check_name(call);
    const std::lock_guard lock(guard);
    holds.push_back(call);
    armed = true;
}
void release() {
    const std::lock_guard lock(guard);
    holds.clear();
    changed.notify_all();
}
int held() {
    const std::lock_guard lock(guard);
    return held_now;
}
void set_most_at_once(size_t bytes) {
    most_at_once = bytes;
}
void set_volume(uint32_t number) {
    volume = number;
}
void set_time(int64_t seconds) {
    the_time = static_cast<time_t>(seconds);
    has_time = true;
}
std::string file_of(int fd) {
    std::array<char, PATH_MAX> target = {};
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target.data(), target.size());
    const std::string path(target.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
    return path.substr(path.rfind('/') + 1);
}
bool opens_for_writing(const called& c) {
    return std::string_view(c.call).starts_with("open") && (c.flags & (O_RDWR | O_WRONLY | O_CREAT)) != 0;
}
void before(const std::string& call, hook wanted) {
    check_name(call);
    const std::lock_guard lock(guard);
    hooks.at(index_of(call)) = std::move(wanted);
    armed = true;
}
void after(const std::string& call, after_hook wanted) {
    check_name(call);
    const std::lock_guard lock(guard);
    after_hooks.at(index_of(call)) = std::move(wanted);
    armed = true;
}

}  // namespace libc_calls

// A stand-in by the name that the call has here: with 64-bit file offsets some C libraries add 64 to it, and then both
// names lead to it. The last arguments say what the call is about.
#ifdef __GLIBC__
#define REAL_NAME(name) __real_##name##64
#else
#define REAL_NAME(name) __real_##name
#endif
#define PLAIN(result, name, failure, parameters, arguments, ...)                                             \
    result __real_##name parameters;                                                                         \
    result __wrap_##name parameters {                                                                        \
        return make({.call = #name, __VA_ARGS__}, result(failure), [=] { return __real_##name arguments; }); \
    }
#define WIDE(result, name, failure, parameters, arguments, ...)                                                \
    result REAL_NAME(name) parameters;                                                                         \
    result __wrap_##name parameters {                                                                          \
        return make({.call = #name, __VA_ARGS__}, result(failure), [=] { return REAL_NAME(name) arguments; }); \
    }                                                                                                          \
    result __wrap_##name##64 parameters __attribute__((alias("__wrap_" #name)));
// With an argument that not every call has: the ABI of each of our machines passes it in the same place.
#define PASSED_ON(type, last)                 \
    va_list rest;                             \
    va_start(rest, last);                     \
    const auto argument = va_arg(rest, type); \
    va_end(rest)

using stream = DIR*;
using entry = struct dirent*;
using address = void*;

extern "C" {

// clang-format off
PLAIN(int, close, -1, (int fd), (fd), .fd = fd)
PLAIN(int, fdatasync, -1, (int fd), (fd), .fd = fd)
PLAIN(int, fsync, -1, (int fd), (fd), .fd = fd)
PLAIN(int, flock, -1, (int fd, int operation), (fd, operation), .fd = fd, .flags = operation)
PLAIN(int, unlinkat, -1, (int folder, const char* name, int flags), (folder, name, flags),
      .fd = folder, .name = name, .flags = flags)
PLAIN(int, renameat, -1, (int folder, const char* name, int to, const char* new_name), (folder, name, to, new_name),
      .fd = folder, .name = name, .new_name = new_name)
PLAIN(stream, fdopendir, nullptr, (int fd), (fd), .fd = fd)
PLAIN(int, munmap, -1, (void* at, size_t size), (at, size), .data = at, .size = size)
PLAIN(int, madvise, -1, (void* at, size_t size, int advice), (at, size, advice),
      .flags = advice, .data = at, .size = size)
PLAIN(int, eventfd, -1, (unsigned value, int flags), (value, flags), .flags = flags)
PLAIN(address, malloc, nullptr, (size_t size), (size), .size = size)
PLAIN(address, realloc, nullptr, (void* old, size_t size), (old, size), .data = old, .size = size)
PLAIN(address, calloc, nullptr, (size_t number, size_t size), (number, size), .size = number * size)
PLAIN(int, poll, -1, (struct pollfd* fds, nfds_t count, int timeout_ms), (fds, count, timeout_ms), .flags = timeout_ms)
WIDE(ssize_t, pread, -1, (int fd, void* data, size_t size, off_t offset),
     (fd, data, std::min<size_t>(size, most_at_once), offset), .fd = fd, .size = size, .offset = offset)
WIDE(ssize_t, pwrite, -1, (int fd, const void* data, size_t size, off_t offset),
     (fd, data, std::min<size_t>(size, most_at_once), offset), .fd = fd, .data = data, .size = size, .offset = offset)
WIDE(int, ftruncate, -1, (int fd, off_t size), (fd, size), .fd = fd, .offset = size)
WIDE(int, fstat, -1, (int fd, struct stat* status), (fd, status), .fd = fd)
WIDE(off_t, lseek, -1, (int fd, off_t offset, int whence), (fd, offset, whence),
     .fd = fd, .flags = whence, .offset = offset)
WIDE(int, fstatat, -1, (int folder, const char* name, struct stat* status, int flags), (folder, name, status, flags),
     .fd = folder, .name = name, .flags = flags)
WIDE(entry, readdir, nullptr, (DIR* folder), (folder), .fd = dirfd(folder))
WIDE(address, mmap, MAP_FAILED, (void* at, size_t size, int protection, int flags, int fd, off_t offset),
     (at, size, protection, flags, fd, offset), .fd = fd, .flags = flags, .size = size, .offset = offset)
// clang-format on

int REAL_NAME(open)(const char*, int, ...);
int __wrap_open(const char* name, int flags, ...) {
    PASSED_ON(mode_t, flags);
    return make({.call = "open", .name = name, .flags = flags}, -1,
                [=] { return REAL_NAME(open)(name, flags, argument); });
}
int __wrap_open64(const char* name, int flags, ...) __attribute__((alias("__wrap_open")));
int REAL_NAME(openat)(int, const char*, int, ...);
int __wrap_openat(int folder, const char* name, int flags, ...) {
    PASSED_ON(mode_t, flags);
    return make({.call = "openat", .fd = folder, .name = name, .flags = flags}, -1,
                [=] { return REAL_NAME(openat)(folder, name, flags, argument); });
}
int __wrap_openat64(int folder, const char* name, int flags, ...) __attribute__((alias("__wrap_openat")));
int REAL_NAME(fcntl)(int, int, ...);
int __wrap_fcntl(int fd, int command, ...) {
    PASSED_ON(void*, command);
    return make({.call = "fcntl", .fd = fd, .flags = command}, -1,
                [=] { return REAL_NAME(fcntl)(fd, command, argument); });
}
int __wrap_fcntl64(int fd, int command, ...) __attribute__((alias("__wrap_fcntl")));
int __real_ioctl(int, unsigned long, ...);
int __wrap_ioctl(int fd, unsigned long request, ...) {
    constexpr unsigned long GET_VOLUME_ID = _IOR('r', 0x13, uint32_t);  // FAT's
    PASSED_ON(void*, request);
    return make({.call = "ioctl", .fd = fd}, -1, [=] {
        if (request == GET_VOLUME_ID && volume != 0) {
            *static_cast<uint32_t*>(argument) = volume;
            return 0;
        }
        return __real_ioctl(fd, request, argument);
    });
}
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* context) {
    const int result =
        make({.call = "pthread_create"}, -1, [=] { return __real_pthread_create(thread, attributes, body, context); });
    return result < 0 ? errno : result;  // it says by its result why it has failed
}
time_t __real_time(time_t*);
time_t __wrap_time(time_t* out) {
    return make({.call = "time"}, time_t{-1}, [=] {
        const time_t now = has_time ? the_time.load() : __real_time(nullptr);
        if (out != nullptr) {
            *out = now;
        }
        return now;
    });
}
int __real_clock_gettime(clockid_t, struct timespec*);
int __wrap_clock_gettime(clockid_t clock, struct timespec* now) {
    return make({.call = "clock_gettime", .flags = clock}, -1, [=] {
        const int result = __real_clock_gettime(clock, now);
        if (has_time && clock == CLOCK_REALTIME) {
            *now = {the_time.load(), 0};
        }
        return result;
    });
}

}  // extern "C"
