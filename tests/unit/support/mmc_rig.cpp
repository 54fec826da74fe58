#include "support/mmc_rig.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <linux/fs.h>
#include <map>
#include <sys/sysmacros.h>

#include "mountpoint.h"

namespace rig {

int refresh_delays;
mmc_state state_at_delay;
int interruptions;
int64_t slept_ms;

namespace {

std::map<std::string, struct stat, std::less<>> nodes;

}  // namespace

void set_node(const std::string& path, unsigned minor, unsigned major, mode_t type) {
    nodes[path] = {};
    nodes[path].st_mode = type | 0600;
    nodes[path].st_rdev = makedev(major, minor);
}

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

list names() {
    list all;
    for (int i = 0; i < mmc_get_manager()->partition_count; ++i) {
        const mmc_block& p = mmc_get_manager()->partitions[i];
        EXPECT_EQ(p.name, p.path + 5) << i;
        EXPECT_EQ(std::string("/dev/") + p.name, p.path);
        all.emplace_back(p.name);
    }
    return all;
}

void mmc::SetUp() {
    kernel::reset();
    logged::reset();
    refresh_delays = 0;
    interruptions = 0;
    slept_ms = 0;
    *m = mmc_manager{};
    kernel::write("/dev/mmcblk0", "");
    kernel::write("/dev/mmcblk1", "");
    nodes.clear();
    kernel::on().stat = [](const char* path, struct stat* status) {
        const auto found = nodes.find(path);
        if (found == nodes.end()) {
            errno = ENOENT;
            return -1;
        }
        *status = found->second;
        return 0;
    };
    kernel::on().ioctl = [this](int fd, unsigned long request, void* argument) {
        EXPECT_EQ(fd, m->disk_fd);
        EXPECT_EQ(request, static_cast<unsigned long>(BLKROGET));
        *static_cast<int*>(argument) = readonly;
        return 0;
    };
}

}  // namespace rig

extern "C" int __wrap_nanosleep(const timespec* wanted, timespec* left) {
    const int64_t ms = wanted->tv_sec * 1000 + wanted->tv_nsec / 1'000'000;
    kernel::add_call("sleep " + std::to_string(ms) + " ms");
    const int64_t slept = rig::interruptions > 0 && ms > 300 ? 300 : ms;
    rig::slept_ms += slept;
    if (slept == ms) {
        return 0;
    }
    --rig::interruptions;
    left->tv_sec = (ms - slept) / 1000;
    left->tv_nsec = (ms - slept) % 1000 * 1'000'000;
    errno = EINTR;
    return -1;
}

void mountpoint_refresh_delay() {
    ++rig::refresh_delays;
    rig::state_at_delay = mmc_get_state();
}
