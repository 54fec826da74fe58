// mount_probe DEVICE TYPE: what an insertion costs the kernel, without the daemon: mounts the card where the daemon
// would and prints, in milliseconds, the mount, the first and the second statfs, the scan of the recordings folder and
// the opening of the clip index. Unmounts again. The daemon must not run.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include "kyt.h"

namespace {

constexpr char MOUNT_POINT[] = "/mnt/sdcard";
constexpr char FOLDER[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO";

double now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// What the first look at the recordings costs: every name and every file's size, as the daemon's own scan reads them.
int scan() {
    int files = 0;
    DIR* folder = opendir(FOLDER);
    if (folder == nullptr) {
        return 0;
    }
    while (const dirent* entry = readdir(folder)) {
        if (kyt_path2ts(entry->d_name, 0) == 0) {
            continue;
        }
        const int fd = openat(dirfd(folder), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* period = fdopendir(fd);
        if (period == nullptr) {
            continue;
        }
        while (const dirent* file = readdir(period)) {
            struct stat status;
            files += file->d_type == DT_REG && fstatat(dirfd(period), file->d_name, &status, 0) == 0;
        }
        closedir(period);
    }
    closedir(folder);
    return files;
}

double last_ms;

void lap(const char* what) {
    const double now = now_ms();
    printf("%s %.1f\n", what, now - last_ms);
    last_ms = now_ms();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: mount_probe DEVICE TYPE\n");
        return 2;
    }
    struct statfs space;
    last_ms = now_ms();
    if (mount(argv[1], MOUNT_POINT, argv[2], MS_NOSUID | MS_NODEV | MS_DIRSYNC | MS_NOATIME | MS_NODIRATIME | MS_SILENT,
              "umask=0022") != 0) {
        perror("mount_probe: mount");
        return 1;
    }
    lap("mount");
    (void)statfs(MOUNT_POINT, &space);
    lap("first_statfs");
    (void)statfs(MOUNT_POINT, &space);
    lap("second_statfs");
    mkdir(FOLDER, 0755);
    last_ms = now_ms();
    kyt_handle* list = kyt_open_rdwr();
    lap("open_index");
    const int files = scan();
    lap("scan");
    printf("files %d\n", files);
    kyt_close(list);
    lap("close_index");
    if (umount(MOUNT_POINT) != 0) {
        perror("mount_probe: umount");
        return 1;
    }
    lap("umount");
    return list != nullptr ? 0 : 1;
}
