// How soon a record is on a card that has refused it: the card's partition is put under the kernel's device mapper,
// which first passes everything on, then refuses each write, then passes everything on again. What is on the card is
// read from the partition itself, past all caches.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/dm-ioctl.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "format.h"
#include "handle.h"
#include "index_probe.h"

namespace {

constexpr const char* NAME = "refusing";
constexpr const char* MOUNT_POINT = "/mnt/sdcard";
constexpr const char* FOLDER = "/mnt/sdcard/ZOLTA_RECORD_VIDEO";
constexpr uint32_t CLIPS = 16'000;
constexpr size_t SECTOR = 512;
constexpr double PATIENCE_US = 30e6;

struct request {
    dm_ioctl head;
    dm_target_spec target;
    char parameters[256];
};

class mapped_card {
  public:
    explicit mapped_card(const char* device) : device_(device) {
        control_ = open("/dev/mapper/control", O_RDWR | O_CLOEXEC);
        const int fd = open(device, O_RDONLY | O_CLOEXEC);
        uint64_t bytes = 0;
        if (control_ < 0 || fd < 0 || ioctl(fd, BLKGETSIZE64, &bytes) < 0) {
            die(device);
        }
        close(fd);
        sectors_ = bytes / SECTOR;
        request r = made();
        ask(DM_DEV_CREATE, &r);
        std::snprintf(path_, sizeof path_, "/dev/dm-%u", minor(static_cast<dev_t>(r.head.dev)));
        switch_to("linear", "");
    }
    void take_writes() { switch_to("linear", ""); }
    void refuse_writes() { switch_to("flakey", " 0 3600 1 error_writes"); }  // of each hour none is good
    void remove() {
        request r = made();
        ask(DM_DEV_REMOVE, &r);
        close(control_);
    }
    const char* path() const { return path_; }

  private:
    static request made() {
        request r = {};
        r.head.version[0] = DM_VERSION_MAJOR;
        r.head.data_size = sizeof r;
        r.head.data_start = sizeof r.head;
        std::snprintf(r.head.name, sizeof r.head.name, "%s", NAME);
        return r;
    }
    void ask(unsigned long what, request* r) const {
        if (ioctl(control_, what, r) < 0) {
            die("the device mapper");
        }
    }
    // Nothing is flushed for it: what waits in memory is to meet the new state.
    void switch_to(const char* kind, const char* options) const {
        request r = made();
        r.head.target_count = 1;
        r.target.length = sectors_;
        std::snprintf(r.target.target_type, sizeof r.target.target_type, "%s", kind);
        std::snprintf(r.parameters, sizeof r.parameters, "%s 0%s", device_, options);
        ask(DM_TABLE_LOAD, &r);
        r = made();
        r.head.flags = DM_SKIP_LOCKFS_FLAG;
        ask(DM_DEV_SUSPEND, &r);  // without its flag it goes on, with the new table
    }

    const char* device_;
    int control_ = -1;
    uint64_t sectors_ = 0;
    char path_[32] = {};
};

// Where in the list file the record of ts is, by the file's pages in memory; 0: nowhere.
uint32_t offset_in_file(int list_file, uint32_t ts) {
    kyt_record records[SECTOR / sizeof(kyt_record)];
    for (uint32_t at = kyt::RECORDS_AT; pread(list_file, records, SECTOR, at) == static_cast<ssize_t>(SECTOR);
         at += SECTOR) {
        for (const kyt_record& record : records) {
            if (record.ts == ts) {
                return at + static_cast<uint32_t>((&record - records) * sizeof record);
            }
        }
    }
    return 0;
}

// Whether the card has these bytes of the list file.
bool is_on_card(int raw, int list_file, uint32_t offset, uint32_t ts) {
    alignas(4096) static char sector[SECTOR];
    int block = static_cast<int>(offset / SECTOR);  // a FAT of ours has blocks of one sector
    if (ioctl(list_file, FIBMAP, &block) < 0 || block == 0 ||
        pread(raw, sector, SECTOR, static_cast<off_t>(block) * static_cast<off_t>(SECTOR)) !=
            static_cast<ssize_t>(SECTOR)) {
        die("the card cannot be read");
    }
    uint32_t found = 0;
    std::memcpy(&found, sector + offset % SECTOR, sizeof found);
    return found == ts;
}

}  // namespace

int probe_refused(const char* device, uint32_t rounds) {
    mapped_card card(device);
    if (mount(card.path(), MOUNT_POINT, "vfat", MS_NOSUID | MS_NODEV | MS_DIRSYNC | MS_NOATIME | MS_NODIRATIME,
              "umask=0022") < 0 ||
        (mkdir(FOLDER, 0755) < 0 && errno != EEXIST)) {
        die("mount");
    }
    kyt_handle* const list = open_list(FOLDER, 0);
    for (uint32_t clip = 0; clip < CLIPS; ++clip) {
        if (!append_clip(list, clip)) {
            die("append");
        }
    }
    char path[128];
    std::snprintf(path, sizeof path, "%s/%s", FOLDER, kyt::LIST_NAME);
    const int list_file = open(path, O_RDONLY | O_CLOEXEC);
    const int raw = open(device, O_RDONLY | O_DIRECT | O_CLOEXEC);
    int block_bytes = 0;
    if (!kyt::settle(list) || list_file < 0 || raw < 0 || ioctl(list_file, FIGETBSZ, &block_bytes) < 0 ||
        block_bytes != static_cast<int>(SECTOR)) {
        die(path);
    }
    std::printf("{\"clips\": %u, \"ms\": [", CLIPS);
    for (uint32_t round = 0; round < rounds; ++round) {
        card.refuse_writes();
        const uint32_t ts = ts_of(CLIPS + round);
        if (!append_clip(list, CLIPS + round)) {
            die("append");
        }
        // Refused three or four times, and then at another moment of the keeper's second in each round.
        poll(nullptr, 0, 3000 + static_cast<int>(round * 370 % 1000));
        const uint32_t offset = offset_in_file(list_file, ts);
        if (offset == 0 || is_on_card(raw, list_file, offset, ts)) {
            die(offset == 0 ? "the record is nowhere" : "the card has not refused");
        }
        card.take_writes();
        const double start = now_us();
        while (!is_on_card(raw, list_file, offset, ts)) {
            if (now_us() - start > PATIENCE_US) {
                die("the record does not come");
            }
            poll(nullptr, 0, 5);
        }
        std::printf("%s%.0f", round == 0 ? "" : ", ", (now_us() - start) / 1e3);
    }
    std::printf("]}\n");
    close(raw);
    close(list_file);
    kyt_close(list);
    if (umount(MOUNT_POINT) < 0) {
        die("umount");
    }
    card.remove();
    return 0;
}
