// The C library's calls about devices, mounts, the uevent socket, time and signals.
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <linux/fs.h>
#include <linux/netlink.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <unistd.h>

#include "descriptors.h"
#include "faults.h"
#include "invariants.h"
#include "world.h"

namespace sim {
namespace {

constexpr int64_t MOUNT_NS = 60 * MS;
constexpr pid_t DAEMON_PID = 4242;

int netlink_fd = -1;

struct message {
    std::string bytes;
    std::optional<uevent> what;  // null: nothing that a table could follow from
};
std::deque<message> waiting;

std::map<int, struct sigaction> actions;
int bus_faults;

int refuse(int errnum) {
    errno = errnum;
    return -1;
}

std::string encode(const uevent& e) {
    const std::string fields[] = {e.action + "@/devices/platform/mmc/block/" + e.name,
                                  "ACTION=" + e.action,
                                  "DEVPATH=/devices/platform/mmc/block/" + e.name,
                                  "SUBSYSTEM=block",
                                  "MAJOR=" + std::to_string(e.major),
                                  "MINOR=" + std::to_string(e.minor),
                                  "DEVNAME=" + e.name,
                                  "DEVTYPE=" + e.type,
                                  "SEQNUM=1"};
    std::string bytes;
    for (const std::string& field : fields) {
        bytes += field;
        bytes += '\0';
    }
    return bytes;
}

void enqueue(message m) {
    if (netlink_fd < 0) {
        return;  // nobody listens
    }
    waiting.push_back(std::move(m));
    set_readable(netlink_fd, true);
}

}  // namespace

void say(const uevent& e) {
    note("kernel: %s %s %d:%u", e.action.c_str(), e.name.c_str(), e.major, e.minor);
    enqueue({encode(e), e});
}

void say_raw(std::string datagram) {
    enqueue({std::move(datagram), std::nullopt});
}

void deliver_signal(int signum) {
    const auto action = actions.find(signum);
    if (action == actions.end() || action->second.sa_handler == SIG_DFL) {
        if (signum == SIGTERM) {
            end_of_life("SIGTERM before anybody watches for it");
        }
        return;
    }
    action->second.sa_handler(signum);
}

bool raise_bus_fault() {
    // The guard saves no signal mask: after the first recovery SIGBUS stays blocked, and the kernel ends the process at
    // the next fault.
    note("world: bus fault");
    if (++bus_faults > 1) {
        end_of_life("a second bus fault while the signal is blocked");
    }
    changed();
    const auto action = actions.find(SIGBUS);
    if (action == actions.end()) {
        violation("a bus fault and no handler for it");
    }
    siginfo_t info = {};
    action->second.sa_sigaction(SIGBUS, &info, nullptr);
    return false;
}

}  // namespace sim

using namespace sim;

extern "C" {

int __wrap_mount(const char* path, const char* target, const char* type, unsigned long flags, const void* data) {
    spend(MOUNT_NS);
    if (flags != (MS_NOSUID | MS_NODEV | MS_DIRSYNC | MS_NOATIME | MS_NODIRATIME | MS_SILENT) ||
        strcmp(static_cast<const char*>(data), "umask=0022") != 0 || strcmp(target, "/mnt/sdcard") != 0) {
        violation("mount of %s at %s with flags 0x%lx", path, target, flags);
    }
    if (must_fail(call::MOUNT)) {
        return -1;
    }
    const auto found = find_device(path);
    if (!found) {
        return refuse(ENOENT);
    }
    const std::shared_ptr<filesystem> fs = found->part != nullptr ? found->part->fs : found->of->whole;
    if (fs == nullptr || fs->type != type) {
        return refuse(EINVAL);
    }
    check_mount();
    if (found->of->is_read_only || found->of->is_write_protected) {
        return refuse(EACCES);
    }
    for (const mounted& m : mounts) {
        if (m.fs == fs && m.target == target) {
            return refuse(EBUSY);
        }
    }
    mounts.push_back({found->of, found->of->minor() + (found->part != nullptr ? found->part->number : 0), target, fs});
    note("world: %s mounted", path);
    mounts_changed();
    mounted_once();
    return 0;
}

int __wrap_umount2(const char* target, int flags) {
    spend(MOUNT_NS);
    if (strcmp(target, "/mnt/sdcard") != 0) {
        violation("unmount of %s", target);
    }
    const bool detaches = (flags & MNT_DETACH) != 0;
    if (must_fail(detaches ? call::UMOUNT2 : call::UMOUNT)) {
        return -1;
    }
    if (!detaches && (now_ns() < held_until_ns || live_workers() > 0)) {
        return refuse(EBUSY);
    }
    for (size_t i = mounts.size(); i-- > 0;) {
        if (mounts[i].target == target) {
            if (!detaches && open_descriptors(fd_kind::DIRECTORY) > 0) {
                return refuse(EBUSY);
            }
            note("world: unmounted, flags %d", flags);
            mounts.erase(mounts.begin() + static_cast<std::ptrdiff_t>(i));
            mounts_changed();
            return 0;
        }
    }
    return refuse(EINVAL);
}
int __wrap_umount(const char* target) {
    unmount_tried();
    return __wrap_umount2(target, 0);
}

// The mount point's device, and the node of a device.
int __wrap_stat64(const char* path, struct stat* status) {
    spend(CALL_NS);
    if (must_fail(call::STAT)) {
        return -1;
    }
    *status = {};
    if (strcmp(path, "/mnt/sdcard") == 0) {
        status->st_mode = S_IFDIR | 0755;
        status->st_dev = makedev(31, 4);
        for (const mounted& m : mounts) {  // the last one lies on top
            if (m.target == path) {
                status->st_dev = makedev(179, m.minor);
            }
        }
        return 0;
    }
    const auto found = find_device(path);
    if (!found || (found->part == nullptr && now_ns() < found->of->node_ready_ns)) {
        return refuse(ENOENT);
    }
    status->st_mode = S_IFBLK | 0600;
    status->st_rdev = makedev(179, found->of->minor() + (found->part != nullptr ? found->part->number : 0));
    job_looked();
    return 0;
}
int __wrap_stat(const char* path, struct stat* status) __attribute__((alias("__wrap_stat64")));

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    int* argument = va_arg(args, int*);
    va_end(args);
    spend(CALL_NS);
    const descriptor* d = get(fd);
    if (d == nullptr || d->kind != fd_kind::DISK) {
        violation("ioctl on descriptor %d", fd);
    }
    const std::shared_ptr<card> disk = d->disk;
    const bool is_whole = d->minor == disk->minor();
    if (must_fail(call::IOCTL)) {
        if (request == BLKROGET) {
            const int errnum = errno;
            table_flag_failed();
            errno = errnum;
        } else if (request == BLKROSET && is_whole) {
            table_ejected();  // asked for, which is all that is looked at
        }
        return -1;
    }
    switch (request) {
        case BLKROGET:
            *argument = disk->is_read_only ? 1 : 0;
            return 0;
        case BLKROSET:
            check_job_card("marking read-only", *disk);
            note("world: read-only flag of %u set to %d", d->minor, *argument);
            if (is_whole) {
                disk->is_read_only = *argument != 0;
                table_ejected();
                changed();
            }
            return 0;
        case BLKRRPART: {
            check_job_card("reading the partitions again", *disk);
            for (const mounted& m : mounts) {
                if (m.from == disk) {
                    return refuse(EBUSY);
                }
            }
            for (const char* action : {"remove", "add"}) {
                for (const partition& p : disk->partitions) {
                    say({action, 179, disk->minor() + p.number, disk->name_of(p), "partition"});
                }
            }
            changed();
            return 0;
        }
        default:
            violation("ioctl 0x%lx", request);
    }
}

int __wrap_socket(int domain, int type, int protocol) {
    if (must_fail(call::SOCKET)) {
        return -1;
    }
    if (domain != AF_NETLINK || type != (SOCK_DGRAM | SOCK_CLOEXEC) || protocol != NETLINK_KOBJECT_UEVENT) {
        violation("socket %d %d %d", domain, type, protocol);
    }
    descriptor d;
    d.kind = fd_kind::NETLINK;
    d.is_close_on_exec = true;
    return netlink_fd = new_descriptor(std::move(d));
}

int __wrap_bind(int, const sockaddr* address, socklen_t length) {
    if (must_fail(call::BIND)) {
        return -1;
    }
    sockaddr_nl netlink = {};
    memcpy(&netlink, address, std::min<size_t>(length, sizeof netlink));
    if (length != sizeof netlink || netlink.nl_groups != 1 || netlink.nl_pid != 0) {
        violation("bind to group %u", netlink.nl_groups);
    }
    return 0;
}

ssize_t __wrap_recv(int fd, void* buffer, size_t size, int flags) {
    spend(CALL_NS);
    if (fd != netlink_fd || (flags & MSG_DONTWAIT) == 0) {
        violation("recv from %d with flags %d", fd, flags);
    }
    if (must_fail(call::RECV)) {
        if (errno == ENOBUFS) {
            waiting.clear();  // what was in it is lost
        }
        if (errno == EAGAIN || errno == ENOMEM) {
            const int errnum = errno;
            table_batch_ended();
            errno = errnum;
        }
        return -1;
    }
    if (waiting.empty()) {
        set_readable(fd, false);
        table_batch_ended();
        return refuse(EAGAIN);
    }
    const message m = std::move(waiting.front());
    waiting.pop_front();
    const size_t length = std::min(size, m.bytes.size());
    memcpy(buffer, m.bytes.data(), length);
    if (m.what) {
        table_told(*m.what);
    }
    return static_cast<ssize_t>(length);
}

int __wrap_nanosleep(const timespec* wanted, timespec*) {
    if (wanted->tv_sec != 1 || wanted->tv_nsec != 0) {
        violation("a pause of %lld s and %lld ns", static_cast<long long>(wanted->tv_sec),
                  static_cast<long long>(wanted->tv_nsec));
    }
    spend(SECOND);
    return 0;
}

time_t __wrap_time(time_t* out) {
    const time_t now = wall_s();
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

int __wrap_clock_gettime(clockid_t clock, timespec* out) {
    const int64_t ahead_s = clock == CLOCK_REALTIME ? wall_s() - now_ns() / SECOND : 0;
    out->tv_sec = now_ns() / SECOND + ahead_s;
    out->tv_nsec = now_ns() % SECOND;
    return 0;
}

int __wrap_gettimeofday(timeval* out, void*) {
    out->tv_sec = wall_s();
    out->tv_usec = now_ns() % SECOND / 1000;
    return 0;
}

pid_t __wrap_getpid(void) {
    return DAEMON_PID;
}

int __wrap_sigaction(int signum, const struct sigaction* action, struct sigaction* old) {
    if (old != nullptr) {
        *old = actions[signum];
    }
    if (action != nullptr) {
        actions[signum] = *action;
    }
    return 0;
}

}  // extern "C"
