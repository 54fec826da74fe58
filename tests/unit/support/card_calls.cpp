#include "support/card_calls.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
int __real_openat64(int, const char*, int, ...);
ssize_t __real_pread64(int, void*, size_t, off64_t);
ssize_t __real_pwrite64(int, const void*, size_t, off64_t);
int __real_ftruncate64(int, off64_t);
int __real_fdatasync(int);
int __real_fsync(int);
int __real_sync_file_range(int, off64_t, off64_t, unsigned);
int __real_unlinkat(int, const char*, int);
int __real_renameat(int, const char*, int, const char*);
int __real_mlock(const void*, size_t);
int __real_fstatat64(int, const char*, struct stat*, int);
}

namespace {

std::mutex guard;
std::condition_variable changed;
bool stopped = false;
int hanging_now = 0;
std::string fail_only;
int fail_nth = 0;
int fail_times = 0;
int fail_errnum = 0;
bool has_failed = false;
std::map<std::string, int> counts;
card_calls::hooks the_hooks;
uint32_t volume = 0;
std::atomic<size_t> most_at_once = SIZE_MAX;

// True: the call is to fail, errno is set.
bool enter(const char* call, bool writes) {
    std::unique_lock lock(guard);
    ++counts[call];
    if (writes && stopped) {
        ++hanging_now;
        changed.wait(lock, [] { return !stopped; });
        --hanging_now;
    }
    if (fail_times == 0 || (!fail_only.empty() && fail_only != call)) {
        return false;
    }
    if (--fail_nth > 0) {
        return false;
    }
    --fail_times;
    has_failed = true;
    errno = fail_errnum;
    return true;
}

std::string name_of(int fd) {
    std::array<char, 512> target = {};
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target.data(), target.size() - 1);
    const std::string path(target.data(), static_cast<size_t>(length > 0 ? length : 0));
    return path.substr(path.rfind('/') + 1);
}

int sync_with_hooks(const char* call, int fd, int (*real)(int)) {
    const card_calls::hooks hooks = [] {
        const std::lock_guard lock(guard);
        return the_hooks;
    }();
    const std::string name = hooks.before_sync || hooks.after_sync ? name_of(fd) : "";
    if (hooks.before_sync) {
        hooks.before_sync(name);
    }
    if (enter(call, true)) {
        return -1;
    }
    const int result = real(fd);
    if (result == 0 && hooks.after_sync) {
        hooks.after_sync(name);
    }
    return result;
}

}  // namespace

namespace card_calls {

void reset() {
    go_on();
    const std::lock_guard lock(guard);
    fail_times = fail_nth = 0;
    has_failed = false;
    counts.clear();
    the_hooks = {};
    volume = 0;
    most_at_once = SIZE_MAX;
}
void fail(const std::string& only, int nth, int errnum, int times) {
    const std::lock_guard lock(guard);
    fail_only = only;
    fail_nth = nth;
    fail_errnum = errnum;
    fail_times = times;
    has_failed = false;
}
bool failed() {
    const std::lock_guard lock(guard);
    return has_failed;
}
int count(const std::string& call) {
    const std::lock_guard lock(guard);
    return counts[call];
}
void stop() {
    const std::lock_guard lock(guard);
    stopped = true;
}
void go_on() {
    const std::lock_guard lock(guard);
    stopped = false;
    changed.notify_all();
}
int hanging() {
    const std::lock_guard lock(guard);
    return hanging_now;
}
void set_volume(uint32_t number) {
    const std::lock_guard lock(guard);
    volume = number;
}
void set_most_at_once(size_t bytes) {
    most_at_once = bytes;
}
void set_hooks(const hooks& wanted) {
    const std::lock_guard lock(guard);
    the_hooks = wanted;
}

}  // namespace card_calls

extern "C" {

int __wrap_openat64(int folder, const char* name, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    // Reading and writing are told apart, so that a card can be write-protected.
    const bool writes = (flags & (O_RDWR | O_WRONLY | O_CREAT)) != 0;
    return enter(writes ? "open for writing" : "open", writes) ? -1 : __real_openat64(folder, name, flags, mode);
}
ssize_t __wrap_pread64(int fd, void* data, size_t size, off64_t offset) {
    return enter("pread", false) ? -1 : __real_pread64(fd, data, std::min<size_t>(size, most_at_once), offset);
}
ssize_t __wrap_pwrite64(int fd, const void* data, size_t size, off64_t offset) {
    return enter("pwrite", true) ? -1 : __real_pwrite64(fd, data, std::min<size_t>(size, most_at_once), offset);
}
int __wrap_ftruncate64(int fd, off64_t size) {
    return enter("ftruncate", true) ? -1 : __real_ftruncate64(fd, size);
}
int __wrap_fdatasync(int fd) {
    return sync_with_hooks("fdatasync", fd, __real_fdatasync);
}
int __wrap_fsync(int fd) {
    return sync_with_hooks("fsync", fd, __real_fsync);
}
int __wrap_sync_file_range(int fd, off64_t offset, off64_t size, unsigned flags) {
    return enter("sync_file_range", true) ? -1 : __real_sync_file_range(fd, offset, size, flags);
}
int __wrap_unlinkat(int folder, const char* name, int flags) {
    return enter("unlink", true) ? -1 : __real_unlinkat(folder, name, flags);
}
int __wrap_renameat(int from, const char* name, int to, const char* new_name) {
    return enter("rename", true) ? -1 : __real_renameat(from, name, to, new_name);
}
int __wrap_mlock(const void* address, size_t size) {
    return enter("mlock", false) ? -1 : __real_mlock(address, size);
}
int __wrap_fstatat64(int folder, const char* name, struct stat* status, int flags) {
    return enter("stat", false) ? -1 : __real_fstatat64(folder, name, status, flags);
}
// The only one that the list asks: FAT's for the volume's number.
int __wrap_ioctl(int, unsigned long, uint32_t* number) {
    const std::lock_guard lock(guard);
    if (volume == 0) {
        errno = ENOTTY;
        return -1;
    }
    *number = volume;
    return 0;
}

}  // extern "C"
