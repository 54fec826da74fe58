#include "support/kernel.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

extern "C" {
int __real_open64(const char*, int, ...);
int __real_openat64(int, const char*, int, ...);
FILE* __real_fopen64(const char*, const char*);
DIR* __real_opendir(const char*);
int __real_access(const char*, int);
int __real_mkdir(const char*, mode_t);
int __real_rename(const char*, const char*);
int __real_unlink(const char*);
int __real_unlinkat(int, const char*, int);
int __real_rmdir(const char*);
int __real_stat64(const char*, struct stat*);
int __real_fstatat64(int, const char*, struct stat*, int);
int __real_dup(int);
}

namespace {

struct fault {
    int errnum;
    int nth;
    int times;
};

std::string& root() {
    static std::string path = [] {
        char pattern[] = "/tmp/vesk-unit-XXXXXX";
        std::string made = mkdtemp(pattern);
        static struct remover {
            std::string path;
            pid_t owner;
            ~remover() {
                if (getpid() == owner) {
                    std::error_code ignored;
                    fs::remove_all(path, ignored);
                }
            }
        } at_exit{made, getpid()};
        return made;
    }();
    return path;
}

std::mutex lock;  // of the faults and the notes: modules have threads
std::multimap<std::string, fault, std::less<>> faults;
std::vector<std::string> noted;
kernel::hooks the_hooks;

bool is_camera_path(std::string_view path) {
    for (std::string_view top : {"/mnt", "/proc", "/sys", "/dev"}) {
        if (path.substr(0, top.size()) == top && (path.size() == top.size() || path[top.size()] == '/')) {
            return true;
        }
    }
    return false;
}

using kernel::must_fail;

void note(const char* call, const char* path) {
    {
        const std::lock_guard guard(lock);
        noted.push_back(std::string(call) + " " + path);
    }
    if (the_hooks.before) {
        the_hooks.before(call, path);
    }
}

// Notes a call about a path. True: it is to fail.
bool enter(const char* call, const char* path) {
    if (is_camera_path(path)) {
        note(call, path);
    } else if (path[0] == '/') {
        return false;  // the test's own business
    }
    return must_fail(call);
}

std::string lead(const char* path) {
    return is_camera_path(path) ? kernel::host(path) : path;
}

}  // namespace

namespace kernel {

void reset() {
    for (const auto& entry : fs::directory_iterator(root())) {
        fs::remove_all(entry.path());
    }
    faults.clear();
    noted.clear();
    the_hooks = hooks{};
}

std::string host(std::string_view path) {
    return root() + std::string(path);
}

void write(std::string_view path, std::string_view text) {
    fs::create_directories(fs::path(host(path)).parent_path());
    std::ofstream(host(path), std::ios::binary) << text;
}

std::string read(std::string_view path) {
    std::ostringstream text;
    text << std::ifstream(host(path), std::ios::binary).rdbuf();
    return text.str();
}

void make_dir(std::string_view path) {
    fs::create_directories(host(path));
}

bool exists(std::string_view path) {
    return fs::exists(host(path));
}

void fail(std::string_view call, int errnum, int nth, int times) {
    faults.emplace(std::string(call), fault{errnum, nth, times});
}

// Counts the call down in every fault that waits for it. True: it is to fail, errno is set.
bool must_fail(std::string_view call) {
    const std::lock_guard guard(lock);
    bool failed = false;
    for (auto [at, end] = faults.equal_range(call); at != end; ++at) {
        fault& f = at->second;
        if (f.nth > 1) {
            --f.nth;
        } else if (f.times > 0) {
            --f.times;
            errno = f.errnum;
            failed = true;
        }
    }
    return failed;
}

const std::vector<std::string>& calls() {
    return noted;
}

void add_call(const std::string& call) {
    noted.push_back(call);
}

int count(std::string_view call_prefix) {
    int n = 0;
    for (const auto& call : noted) {
        n += call.compare(0, call_prefix.size(), call_prefix) == 0;
    }
    return n;
}

void forget_calls() {
    noted.clear();
}

hooks& on() {
    return the_hooks;
}

}  // namespace kernel

extern "C" {

int __wrap_open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    __atomic_store_n(&the_hooks.open_flags, flags, __ATOMIC_RELAXED);  // threads open files, too
    return enter("open", path) ? -1 : __real_open64(lead(path).c_str(), flags, mode);
}
int __wrap_open(const char* path, int flags, ...) __attribute__((alias("__wrap_open64")));

int __wrap_openat64(int fd, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return enter("openat", path) ? -1 : __real_openat64(fd, lead(path).c_str(), flags, mode);
}
int __wrap_openat(int fd, const char* path, int flags, ...) __attribute__((alias("__wrap_openat64")));

FILE* __wrap_fopen64(const char* path, const char* mode) {
    return enter("fopen", path) ? nullptr : __real_fopen64(lead(path).c_str(), mode);
}
FILE* __wrap_fopen(const char* path, const char* mode) __attribute__((alias("__wrap_fopen64")));

DIR* __wrap_opendir(const char* path) {
    return enter("opendir", path) ? nullptr : __real_opendir(lead(path).c_str());
}

int __wrap_access(const char* path, int mode) {
    kernel::on().access_mode = mode;
    return enter("access", path) ? -1 : __real_access(lead(path).c_str(), mode);
}

int __wrap_mkdir(const char* path, mode_t mode) {
    return enter("mkdir", path) ? -1 : __real_mkdir(lead(path).c_str(), mode);
}

int __wrap_rename(const char* from, const char* to) {
    return enter("rename", from) ? -1 : __real_rename(lead(from).c_str(), lead(to).c_str());
}

int __wrap_unlink(const char* path) {
    return enter("unlink", path) ? -1 : __real_unlink(lead(path).c_str());
}

int __wrap_unlinkat(int fd, const char* path, int flags) {
    return enter("unlinkat", path) ? -1 : __real_unlinkat(fd, lead(path).c_str(), flags);
}

int __wrap_rmdir(const char* path) {
    return enter("rmdir", path) ? -1 : __real_rmdir(lead(path).c_str());
}

int __wrap_stat64(const char* path, struct stat* buffer) {
    if (enter("stat", path)) {
        return -1;
    }
    return the_hooks.stat && is_camera_path(path) ? the_hooks.stat(path, buffer)
                                                  : __real_stat64(lead(path).c_str(), buffer);
}
int __wrap_stat(const char* path, struct stat* buffer) __attribute__((alias("__wrap_stat64")));

int __wrap_fstatat64(int fd, const char* path, struct stat* buffer, int flags) {
    return enter("fstatat", path) ? -1 : __real_fstatat64(fd, lead(path).c_str(), buffer, flags);
}
int __wrap_fstatat(int fd, const char* path, struct stat* buffer, int flags) __attribute__((alias("__wrap_fstatat64")));

int __wrap_dup(int fd) {
    return must_fail("dup") ? -1 : __real_dup(fd);
}

int __wrap_statfs64(const char* path, struct statfs* buffer) {
    if (enter("statfs", path)) {
        return -1;
    }
    return the_hooks.statfs ? the_hooks.statfs(path, buffer) : 0;
}
int __wrap_statfs(const char* path, struct statfs* buffer) __attribute__((alias("__wrap_statfs64")));

int __wrap_mount(const char* device, const char* target, const char* type, unsigned long flags, const void* data) {
    note("mount", (std::string(device) + " " + target + " " + type).c_str());
    if (must_fail("mount")) {
        return -1;
    }
    return the_hooks.mount ? the_hooks.mount(device, target, type, flags, static_cast<const char*>(data)) : 0;
}

int __wrap_umount(const char* target) {
    if (enter("umount", target)) {
        return -1;
    }
    return the_hooks.umount ? the_hooks.umount(target, 0) : 0;
}

int __wrap_umount2(const char* target, int flags) {
    note("umount2", (std::string(target) + " " + std::to_string(flags)).c_str());
    if (must_fail("umount2")) {
        return -1;
    }
    return the_hooks.umount ? the_hooks.umount(target, flags) : 0;
}

int __wrap_ioctl(int fd, unsigned long request, void* argument) {
    char text[32];
    snprintf(text, sizeof text, "0x%lx", request);
    note("ioctl", text);
    if (must_fail("ioctl")) {
        return -1;
    }
    return the_hooks.ioctl ? the_hooks.ioctl(fd, request, argument) : 0;
}

int __wrap_socket(int domain, int type, int protocol) {
    noted.push_back("socket " + std::to_string(domain) + " " + std::to_string(type) + " " + std::to_string(protocol));
    if (must_fail("socket")) {
        return -1;
    }
    return the_hooks.socket ? the_hooks.socket(domain, type, protocol)
                            : __real_open64("/dev/null", O_RDONLY | O_CLOEXEC);
}

int __wrap_bind(int fd, const void* address, unsigned length) {
    noted.push_back("bind " + std::to_string(length));
    if (must_fail("bind")) {
        return -1;
    }
    return the_hooks.bind ? the_hooks.bind(fd, address, length) : 0;
}

ssize_t __wrap_recv(int fd, void* buffer, size_t length, int flags) {
    noted.push_back("recv " + std::to_string(length));
    if (must_fail("recv")) {
        return -1;
    }
    if (the_hooks.recv) {
        return the_hooks.recv(fd, buffer, length, flags);
    }
    errno = EAGAIN;
    return -1;
}

time_t __wrap_time(time_t* out) {
    if (out != nullptr) {
        *out = the_hooks.now;
    }
    return the_hooks.now;
}

}  // extern "C"
