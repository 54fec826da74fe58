// Calls that are made to fail: the n-th one from now, once or from then on, with an errno that its manual gives.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace sim {

enum class call : uint8_t {
    OPEN,
    OPENAT,
    OPENDIR,
    READDIR,
    FOPEN,
    ACCESS,
    MKDIR,
    RENAME,
    UNLINK,
    RMDIR,
    STAT,
    FSTAT,
    FSTATAT,
    STATFS,
    FCNTL,
    READ,
    WRITE,
    PREAD,
    RECV,
    IOCTL,
    MOUNT,
    UMOUNT,
    UMOUNT2,
    SOCKET,
    BIND,
    PIPE,
    FORK,
    EVENTFD,
    POLL,
    MALLOC,
    THREAD,
    EXEC,
    KYT_OPEN,
    KYT_WRITE,
    KYT_OPTIMISE,
    KYT_TS2PATH,
    KARVEL_OPEN,
    KARVEL_SET,
    KARVEL_REGISTER,
    JSON_OBJECT,
    JSON_ARRAY,
};
constexpr int CALLS = static_cast<int>(call::JSON_ARRAY) + 1;

const char* name_of(call which);
std::span<const int> errnos_of(call which);

// nth: 1 is the next call. forever: every call from the n-th on.
void fail(call which, int errnum, uint64_t nth, bool forever);
void stop_failing();

// Counts the call. True: it is to fail; errno is set.
bool must_fail(call which);

// While one of these lives nothing fails and nothing is counted: the simulator calls for itself.
struct faults_paused {
    faults_paused();
    ~faults_paused();
};

uint64_t calls_of(call which);  // so far
uint64_t failures();            // so far
uint64_t failures_of(call which);
bool is_failing_forever();

}  // namespace sim
