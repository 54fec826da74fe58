// A stand-in for the kernel's edge. Absolute paths below /mnt, /proc, /sys and /dev lead into a folder of the test's
// own; what cannot be had there (mounts, netlink, block ioctls, the clock) is answered by hooks. Every call is noted.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>
#include <vector>

namespace kernel {

// Forgets hooks, faults, notes and the folder's content. Call it in SetUp.
void reset();

// Where a path of the camera lies on this machine.
std::string host(std::string_view path);

// The camera's files, by their path on the camera. write makes the folders above it.
void write(std::string_view path, std::string_view text);
std::string read(std::string_view path);
void make_dir(std::string_view path);
bool exists(std::string_view path);

// Makes call number `nth` (1: the next) of the C library's function fail with errnum, and `times` - 1 after it.
void fail(std::string_view call, int errnum, int nth = 1, int times = 1);
constexpr int FOREVER = 1 << 30;

// For a test's own stand-ins: whether this call was told to fail; then errno is set.
bool must_fail(std::string_view call);

// What was called, in order: "mount /dev/mmcblk0p1 /mnt/sdcard vfat", "umount /mnt/sdcard", "open
// /proc/partitions". Only calls about the camera's paths and the hooked ones are noted.
const std::vector<std::string>& calls();
void add_call(const std::string& call);   // for a test's own stand-ins
int count(std::string_view call_prefix);  // how many of the calls begin like this
void forget_calls();

// Hooks; the defaults succeed and do nothing. A hook that returns -1 has set errno.
struct hooks {
    std::function<int(const char* device, const char* target, const char* type, unsigned long flags, const char* data)>
        mount;
    std::function<int(const char* target, int flags)> umount;  // umount and umount2
    std::function<int(const char* path, struct statfs* buffer)> statfs;
    std::function<int(const char* path, struct stat* buffer)> stat;  // default: what lies in the folder
    std::function<int(int fd, unsigned long request, void* argument)> ioctl;
    std::function<int(int domain, int type, int protocol)> socket;
    std::function<int(int fd, const void* address, unsigned length)> bind;
    std::function<ssize_t(int fd, void* buffer, size_t length, int flags)> recv;
    std::function<void(const char* call, const char* path)>
        before;                  // sees every noted call about a path before it happens
    time_t now = 1'790'000'000;  // what time(2) says
    int access_mode = -1;        // what the last access asked for
    int open_flags = -1;         // what the last open asked for
};
hooks& on();

}  // namespace kernel
