#include "faults.h"

#include <cerrno>
#include <vector>

#include "world.h"

namespace sim {
namespace {

struct row {
    const char* name;
    std::vector<int> errnos;
};

const row ROWS[CALLS] = {
    {"open", {EACCES, EIO, EMFILE, ENFILE, ENOMEM, ENOENT, ENXIO, EROFS, ENOTDIR, ENOSPC}},
    {"openat", {EACCES, EIO, EMFILE, ENFILE, ENOMEM, ENOENT}},
    {"fdopendir", {ENOMEM}},
    {"readdir", {EIO, ENOENT}},
    {"fopen", {EACCES, EMFILE, ENOMEM, ENOENT}},
    {"access", {EACCES, EIO, ENOENT, EROFS, ENOMEM}},
    {"mkdir", {EACCES, EIO, ENOSPC, EROFS, EEXIST, ENOMEM}},
    {"rename", {EACCES, EIO, ENOENT, ENOSPC, EROFS, EBUSY}},
    {"unlink", {EACCES, EIO, ENOENT, EROFS, EBUSY, EISDIR, EPERM, ENOMEM}},
    {"rmdir", {EACCES, EBUSY, EIO, ENOENT, ENOTEMPTY, EROFS}},
    {"stat", {EIO, ENOENT, ENOMEM}},
    {"fstat", {EIO, ENOMEM}},
    {"fstatat", {EIO, ENOENT, ENOMEM}},
    {"statfs", {EIO, ENOMEM, ENOENT, EINTR}},
    {"fcntl", {EMFILE, EINVAL}},
    {"read", {EIO, EINTR, EAGAIN}},
    {"write", {EIO, ENOSPC, EPIPE, EAGAIN, EINTR}},
    {"pread", {EIO, EINTR, ENOMEM}},
    {"recv", {EINTR, ENOMEM, ENOBUFS, EBADF, EAGAIN}},
    {"ioctl", {EBUSY, EACCES, EINVAL, ENODEV, ENOTTY}},
    {"mount", {EACCES, EBUSY, EINVAL, EIO, ENODEV, ENOENT, ENOMEM, ENXIO, EROFS}},
    {"umount", {EBUSY, EINVAL, ENOMEM, EPERM}},
    {"umount2", {EINVAL, EPERM, ENOMEM}},
    {"socket", {EMFILE, ENOBUFS, EPROTONOSUPPORT, EAFNOSUPPORT}},
    {"bind", {EACCES, EADDRINUSE, EINVAL}},
    {"pipe", {EMFILE, ENFILE}},
    {"fork", {EAGAIN, ENOMEM}},
    {"eventfd", {EMFILE, ENFILE, ENOMEM}},
    {"poll", {EINTR}},
    {"malloc", {ENOMEM}},
    {"pthread_create", {EAGAIN, EPERM}},
    {"execvp", {ENOENT, EACCES, ENOMEM, EIO}},
    {"kyt_open_rdwr", {EIO, ENOMEM, ENOSPC, EROFS, EMFILE}},
    {"kyt_write", {EEXIST, EINVAL, ENOSPC}},
    {"kyt_optimise", {EIO, ENOMEM, ENOSPC}},
    {"kyt_ts2path", {ENAMETOOLONG}},
    {"libkarvelev_config_open", {ECONNREFUSED}},
    {"libkarvel_set_value", {ENOTCONN}},
    {"libkarvel_register_notification", {ENOTCONN}},
    {"json_object_new_object", {ENOMEM}},
    {"json_object_new_array", {ENOMEM}},
};

struct rule {
    call which;
    int errnum;
    uint64_t at;  // the call's number
    bool forever;
};

std::vector<rule> rules;
uint64_t counts[CALLS];
uint64_t failed[CALLS];
uint64_t failed_in_all;
int pauses;

}  // namespace

const char* name_of(call which) {
    return ROWS[static_cast<int>(which)].name;
}

std::span<const int> errnos_of(call which) {
    return ROWS[static_cast<int>(which)].errnos;
}

void fail(call which, int errnum, uint64_t nth, bool forever) {
    rules.push_back({which, errnum, counts[static_cast<int>(which)] + nth, forever});
}

void stop_failing() {
    rules.clear();
}

bool must_fail(call which) {
    if (pauses > 0) {
        return false;
    }
    const auto index = static_cast<int>(which);
    ++counts[index];
    for (size_t i = 0; i < rules.size(); ++i) {
        const rule r = rules[i];
        if (r.which != which || counts[index] < r.at) {
            continue;
        }
        if (!r.forever) {
            rules.erase(rules.begin() + static_cast<std::ptrdiff_t>(i));
        }
        ++failed[index];
        ++failed_in_all;
        note("fault: %s call %llu fails: errno %d", ROWS[index].name, static_cast<unsigned long long>(counts[index]),
             r.errnum);
        changed();
        errno = r.errnum;
        return true;
    }
    return false;
}

faults_paused::faults_paused() {
    ++pauses;
}

faults_paused::~faults_paused() {
    --pauses;
}

uint64_t calls_of(call which) {
    return counts[static_cast<int>(which)];
}

uint64_t failures() {
    return failed_in_all;
}

uint64_t failures_of(call which) {
    return failed[static_cast<int>(which)];
}

bool is_failing_forever() {
    for (const rule& r : rules) {
        if (r.forever && counts[static_cast<int>(r.which)] >= r.at) {
            return true;
        }
    }
    return false;
}

}  // namespace sim
