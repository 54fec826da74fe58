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

// With 64-bit file offsets some C libraries call these by another name.
#ifdef __GLIBC__
#define WIDE(name) name##64
#else
#define WIDE(name) name
#endif
#define JOIN2(a, b) a##b
#define JOIN(a, b) JOIN2(a, b)
#define REAL_WIDE(name) JOIN(__real_, WIDE(name))
// The same stand-in by the plain name and by the wide one.
#define BOTH(result, name, ...)        \
    result __wrap_##name(__VA_ARGS__); \
    result __wrap_##name##64(__VA_ARGS__) __attribute__((alias("__wrap_" #name)));

extern "C" {
int REAL_WIDE(open)(const char*, int, ...);
int REAL_WIDE(openat)(int, const char*, int, ...);
int __real_close(int);
ssize_t REAL_WIDE(pread)(int, void*, size_t, off_t);
ssize_t REAL_WIDE(pwrite)(int, const void*, size_t, off_t);
int REAL_WIDE(ftruncate)(int, off_t);
int __real_fdatasync(int);
int __real_fsync(int);
int REAL_WIDE(fstat)(int, struct stat*);
off_t REAL_WIDE(lseek)(int, off_t, int);
int REAL_WIDE(fstatat)(int, const char*, struct stat*, int);
int __real_unlinkat(int, const char*, int);
int __real_renameat(int, const char*, int, const char*);
DIR* __real_fdopendir(int);
struct dirent* REAL_WIDE(readdir)(DIR*);
int REAL_WIDE(fcntl)(int, int, ...);
int __real_flock(int, int);
int __real_ioctl(int, unsigned long, ...);
void* REAL_WIDE(mmap)(void*, size_t, int, int, int, off_t);
int __real_munmap(void*, size_t);
int __real_madvise(void*, size_t, int);
int __real_eventfd(unsigned, int);
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
void* __real_malloc(size_t);
void* __real_realloc(void*, size_t);
void* __real_calloc(size_t, size_t);
time_t __real_time(time_t*);
int __real_clock_gettime(clockid_t, struct timespec*);
int __real_poll(struct pollfd*, nfds_t, int);
}

namespace {

using libc_calls::called;

enum kind : uint8_t { OF_CARD, WRITES_CARD, OF_MEMORY, OTHER };
struct known_call {
    const char* name;
    kind of;
};
constexpr known_call KNOWN[] = {
    {"open", OF_CARD},
    {"openat", OF_CARD},
    {"close", OTHER},
    {"pread", OF_CARD},
    {"pwrite", WRITES_CARD},
    {"ftruncate", WRITES_CARD},
    {"fdatasync", WRITES_CARD},
    {"fsync", WRITES_CARD},
    {"fstat", OF_CARD},
    {"lseek", OF_CARD},
    {"fstatat", OF_CARD},
    {"unlinkat", WRITES_CARD},
    {"renameat", WRITES_CARD},
    {"fdopendir", OF_CARD},
    {"readdir", OF_CARD},
    {"fcntl", OTHER},
    {"flock", OTHER},
    {"ioctl", OTHER},
    {"mmap", OTHER},
    {"munmap", OTHER},
    {"madvise", OTHER},
    {"eventfd", OTHER},
    {"pthread_create", OTHER},
    {"malloc", OF_MEMORY},
    {"realloc", OF_MEMORY},
    {"calloc", OF_MEMORY},
    {"time", OTHER},
    {"clock_gettime", OTHER},
    {"poll", OTHER},
};
constexpr size_t CALLS = std::size(KNOWN);

constexpr size_t index_of(std::string_view name) {
    for (size_t i = 0; i < CALLS; ++i) {
        if (name == KNOWN[i].name) {
            return i;
        }
    }
    return CALLS;
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
std::atomic<int64_t> the_time = 0;

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

bool is_meant(std::string_view wanted, size_t index, const called& c) {
    const kind of = KNOWN[index].of;
    const bool writes = of == WRITES_CARD || libc_calls::opens_for_writing(c);
    return wanted == c.call || (wanted == libc_calls::CARD && (of == OF_CARD || of == WRITES_CARD)) ||
           (wanted == libc_calls::WRITES && writes) || (wanted == libc_calls::MEMORY && of == OF_MEMORY);
}

// 0, or the errno with which the call is to fail.
int fault_of(size_t index, const called& c) {
    int failure = 0;
    for (fault& f : faults) {
        if (f.times == 0 || !is_meant(f.call, index, c)) {
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
        return std::any_of(holds.begin(), holds.end(),
                           [&](const std::string& wanted) { return is_meant(wanted, index, c); });
    };
    if (is_held()) {
        ++held_now;
        changed.wait(lock, [&] { return !is_held(); });
        --held_now;
    }
    const int failure = fault_of(index, c);
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

mode_t mode_of(int flags, va_list arguments) {
    return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
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
        sum += is_meant(call, i, {.call = KNOWN[i].name}) ? counts[i].load() : 0;
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
    the_time = seconds;
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

extern "C" {

BOTH(int, open, const char* name, int flags, ...)
BOTH(int, openat, int folder, const char* name, int flags, ...)
BOTH(ssize_t, pread, int fd, void* data, size_t size, off_t offset)
BOTH(ssize_t, pwrite, int fd, const void* data, size_t size, off_t offset)
BOTH(int, ftruncate, int fd, off_t size)
BOTH(int, fstat, int fd, struct stat* status)
BOTH(off_t, lseek, int fd, off_t offset, int whence)
BOTH(int, fstatat, int folder, const char* name, struct stat* status, int flags)
BOTH(struct dirent*, readdir, DIR* stream)
BOTH(int, fcntl, int fd, int command, ...)
BOTH(void*, mmap, void* address, size_t size, int protection, int flags, int fd, off_t offset)

int __wrap_open(const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return make({.call = "open", .name = name, .flags = flags}, -1, [=] { return REAL_WIDE(open)(name, flags, mode); });
}
int __wrap_openat(int folder, const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return make({.call = "openat", .fd = folder, .name = name, .flags = flags}, -1,
                [=] { return REAL_WIDE(openat)(folder, name, flags, mode); });
}
int __wrap_close(int fd) {
    return make({.call = "close", .fd = fd}, -1, [=] { return __real_close(fd); });
}
ssize_t __wrap_pread(int fd, void* data, size_t size, off_t offset) {
    return make({.call = "pread", .fd = fd, .size = size, .offset = offset}, ssize_t{-1},
                [=] { return REAL_WIDE(pread)(fd, data, std::min<size_t>(size, most_at_once), offset); });
}
ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset) {
    return make({.call = "pwrite", .fd = fd, .data = data, .size = size, .offset = offset}, ssize_t{-1},
                [=] { return REAL_WIDE(pwrite)(fd, data, std::min<size_t>(size, most_at_once), offset); });
}
int __wrap_ftruncate(int fd, off_t size) {
    return make({.call = "ftruncate", .fd = fd, .offset = size}, -1, [=] { return REAL_WIDE(ftruncate)(fd, size); });
}
int __wrap_fdatasync(int fd) {
    return make({.call = "fdatasync", .fd = fd}, -1, [=] { return __real_fdatasync(fd); });
}
int __wrap_fsync(int fd) {
    return make({.call = "fsync", .fd = fd}, -1, [=] { return __real_fsync(fd); });
}
int __wrap_fstat(int fd, struct stat* status) {
    return make({.call = "fstat", .fd = fd}, -1, [=] { return REAL_WIDE(fstat)(fd, status); });
}
off_t __wrap_lseek(int fd, off_t offset, int whence) {
    return make({.call = "lseek", .fd = fd, .flags = whence, .offset = offset}, off_t{-1},
                [=] { return REAL_WIDE(lseek)(fd, offset, whence); });
}
int __wrap_fstatat(int folder, const char* name, struct stat* status, int flags) {
    return make({.call = "fstatat", .fd = folder, .name = name, .flags = flags}, -1,
                [=] { return REAL_WIDE(fstatat)(folder, name, status, flags); });
}
int __wrap_unlinkat(int folder, const char* name, int flags) {
    return make({.call = "unlinkat", .fd = folder, .name = name, .flags = flags}, -1,
                [=] { return __real_unlinkat(folder, name, flags); });
}
int __wrap_renameat(int from, const char* name, int to, const char* new_name) {
    return make({.call = "renameat", .fd = from, .name = name, .new_name = new_name}, -1,
                [=] { return __real_renameat(from, name, to, new_name); });
}
DIR* __wrap_fdopendir(int fd) {
    return make({.call = "fdopendir", .fd = fd}, static_cast<DIR*>(nullptr), [=] { return __real_fdopendir(fd); });
}
struct dirent* __wrap_readdir(DIR* stream) {
    return make({.call = "readdir", .fd = dirfd(stream)}, static_cast<struct dirent*>(nullptr),
                [=] { return REAL_WIDE(readdir)(stream); });
}
int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return make({.call = "fcntl", .fd = fd, .flags = command}, -1,
                [=] { return REAL_WIDE(fcntl)(fd, command, argument); });
}
int __wrap_flock(int fd, int operation) {
    return make({.call = "flock", .fd = fd, .flags = operation}, -1, [=] { return __real_flock(fd, operation); });
}
int __wrap_ioctl(int fd, unsigned long request, ...) {
    constexpr unsigned long GET_VOLUME_ID = _IOR('r', 0x13, uint32_t);  // FAT's
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return make({.call = "ioctl", .fd = fd}, -1, [=] {
        if (request == GET_VOLUME_ID && volume != 0) {
            *static_cast<uint32_t*>(argument) = volume;
            return 0;
        }
        return __real_ioctl(fd, request, argument);
    });
}
void* __wrap_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
    return make({.call = "mmap", .fd = fd, .flags = flags, .size = size, .offset = offset}, MAP_FAILED,
                [=] { return REAL_WIDE(mmap)(address, size, protection, flags, fd, offset); });
}
int __wrap_munmap(void* address, size_t size) {
    return make({.call = "munmap", .data = address, .size = size}, -1, [=] { return __real_munmap(address, size); });
}
int __wrap_madvise(void* address, size_t size, int advice) {
    return make({.call = "madvise", .flags = advice, .data = address, .size = size}, -1,
                [=] { return __real_madvise(address, size, advice); });
}
int __wrap_eventfd(unsigned value, int flags) {
    return make({.call = "eventfd", .flags = flags}, -1, [=] { return __real_eventfd(value, flags); });
}
// Says by its result why it has failed.
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* context) {
    const int result =
        make({.call = "pthread_create"}, -1, [=] { return __real_pthread_create(thread, attributes, body, context); });
    return result < 0 ? errno : result;
}
void* __wrap_malloc(size_t size) {
    return make({.call = "malloc", .size = size}, static_cast<void*>(nullptr), [=] { return __real_malloc(size); });
}
void* __wrap_realloc(void* memory, size_t size) {
    return make({.call = "realloc", .data = memory, .size = size}, static_cast<void*>(nullptr),
                [=] { return __real_realloc(memory, size); });
}
void* __wrap_calloc(size_t number, size_t size) {
    return make({.call = "calloc", .size = number * size}, static_cast<void*>(nullptr),
                [=] { return __real_calloc(number, size); });
}
time_t __wrap_time(time_t* out) {
    return make({.call = "time"}, time_t{-1}, [=] {
        if (!has_time) {
            return __real_time(out);
        }
        const auto now = static_cast<time_t>(the_time.load());
        if (out != nullptr) {
            *out = now;
        }
        return now;
    });
}
int __wrap_clock_gettime(clockid_t clock, struct timespec* now) {
    return make({.call = "clock_gettime", .flags = clock}, -1, [=] {
        const int result = __real_clock_gettime(clock, now);
        if (has_time && clock == CLOCK_REALTIME) {
            *now = {static_cast<time_t>(the_time.load()), 0};
        }
        return result;
    });
}
int __wrap_poll(struct pollfd* fds, nfds_t count, int timeout_ms) {
    return make({.call = "poll", .flags = timeout_ms}, -1, [=] { return __real_poll(fds, count, timeout_ms); });
}

}  // extern "C"
