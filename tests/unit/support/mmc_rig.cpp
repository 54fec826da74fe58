#include "support/mmc_rig.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <map>
#include <sys/sysmacros.h>

#include "mountpoint.h"

namespace rig {

int refresh_delays;

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

void mountpoint_refresh_delay() {
    ++rig::refresh_delays;
}
