#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <unistd.h>

#include "mmc.h"
#include "support/mmc_rig.h"
#include "support/promise.h"

using namespace rig;

namespace {

// A card with two partitions and a kernel that keeps the flags.
class mmc_eject : public rig::mmc {
  protected:
    list flagged;  // "mmcblk0p1 1": the devices whose flag was set, and to what
    list refused;  // devices whose flag cannot be set
    std::vector<int> opened;

    void SetUp() override {
        rig::mmc::SetUp();
        flagged.clear();
        refused.clear();
        opened.clear();
        kernel::write("/dev/mmcblk0p1", "");
        kernel::write("/dev/mmcblk0p2", "");
        mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
        mmc_new_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
        mmc_new_block("mmcblk0p2", 2, MMC_BLOCK_PARTITION);
        m->state = MMC_STATE_RDWR;
        kernel::on().ioctl = [this](int fd, unsigned long request, void* argument) {
            const std::string device =
                std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).filename().string();
            int* const flag = static_cast<int*>(argument);
            if (request == BLKROGET) {
                *flag = readonly;
                return 0;
            }
            EXPECT_EQ(request, static_cast<unsigned long>(BLKROSET));
            EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
            opened.push_back(fd);
            if (std::find(refused.begin(), refused.end(), device) != refused.end()) {
                errno = EACCES;
                return -1;
            }
            flagged.push_back(device + " " + std::to_string(*flag));
            readonly = 1;
            return 0;
        };
        kernel::forget_calls();
        logged::reset();
    }
};

PROMISES("mmc");

TEST_F(mmc_eject, every_partition_then_the_disk_are_closed_to_writes) {
    PROMISE("the card is ejected",
            "the kernel's read-only flag is set on each partition of the table, then on the disk, and the state is "
            "ejected");
    for (const mmc_state state : {MMC_STATE_RDWR, MMC_STATE_RDONLY}) {
        again();
        m->state = state;
        EXPECT_EQ(::mmc_eject(), 0);
        EXPECT_EQ(flagged, (list{"mmcblk0p1 1", "mmcblk0p2 1", "mmcblk0 1"}));
        EXPECT_EQ(mmc_get_state(), MMC_STATE_EJECTED);
        EXPECT_EQ(kernel::count("open"), 2) << "the disk by the descriptor that is there";
        EXPECT_TRUE(logged::lines().empty());
        ASSERT_GE(m->disk_fd, 0);
        EXPECT_TRUE(is_open(m->disk_fd));
        for (const int fd : opened) {
            EXPECT_EQ(is_open(fd), fd == m->disk_fd);
        }
        EXPECT_EQ(refresh_delays, 0);
    }
}

TEST_F(mmc_eject, second_time_touches_nothing) {
    PROMISE("the card is ejected already", "0, and no device is touched");
    ASSERT_EQ(::mmc_eject(), 0);
    kernel::forget_calls();
    EXPECT_EQ(::mmc_eject(), 0);
    EXPECT_TRUE(kernel::calls().empty());
    EXPECT_EQ(mmc_get_state(), MMC_STATE_EJECTED);
}

TEST_F(mmc_eject, no_card) {
    PROMISE("there is no card to eject", "-1 with ENODEV");
    m->state = MMC_STATE_NONE;
    errno = 0;
    EXPECT_EQ(::mmc_eject(), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_TRUE(kernel::calls().empty());
    EXPECT_EQ(mmc_get_state(), MMC_STATE_NONE);
}

TEST_F(mmc_eject, what_cannot_be_closed_is_passed_over) {
    PROMISE("a partition or the disk does not open or refuses the flag",
            "it is passed over without a word, and the card counts as ejected");
    const struct {
        const char* what;
        int open_fails;  // the nth open
        list refused;
        list flagged;
    } rows[] = {
        {"first partition does not open", 1, {}, {"mmcblk0p2 1", "mmcblk0 1"}},
        {"second partition does not open", 2, {}, {"mmcblk0p1 1", "mmcblk0 1"}},
        {"partition refuses", 0, {"mmcblk0p1"}, {"mmcblk0p2 1", "mmcblk0 1"}},
        {"disk refuses", 0, {"mmcblk0"}, {"mmcblk0p1 1", "mmcblk0p2 1"}},
        {"all refuse", 0, {"mmcblk0p1", "mmcblk0p2", "mmcblk0"}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        again();
        refused = row.refused;
        if (row.open_fails > 0) {
            kernel::fail("open", ENXIO, row.open_fails);
        }
        EXPECT_EQ(::mmc_eject(), 0);
        EXPECT_EQ(flagged, row.flagged);
        EXPECT_EQ(mmc_get_state(), MMC_STATE_EJECTED);
        EXPECT_TRUE(logged::lines().empty());
    }
}

TEST_F(mmc_eject, only_the_partitions_of_the_table_are_opened) {
    PROMISE("the card is ejected",
            "the kernel's read-only flag is set on each partition of the table, then on the disk, and the state is "
            "ejected");
    const struct {
        uint32_t removed;
        list flagged;
    } rows[] = {{1, {"mmcblk0p2 1", "mmcblk0 1"}}, {2, {"mmcblk0p1 1", "mmcblk0 1"}}};
    for (const auto& row : rows) {
        again();
        mmc_remove_block("", row.removed, MMC_BLOCK_PARTITION);
        EXPECT_EQ(::mmc_eject(), 0);
        EXPECT_EQ(flagged, row.flagged) << "not what lies stale behind the count";
    }
}

// The state does not outlive the next event, the kernel's flag does.
TEST_F(mmc_eject, ejected_card_reads_as_read_only_from_the_next_event_on) {
    PROMISE("an event comes behind an eject", "the card reads as read-only from then on");
    ASSERT_EQ(::mmc_eject(), 0);
    mmc_refresh_rdonly();
    EXPECT_EQ(mmc_get_state(), MMC_STATE_RDONLY);
}

// --- reading the partition table again -----------------------------------------------------------------------------

TEST_F(mmc_eject, partition_table_is_read_again_through_the_disks_descriptor) {
    PROMISE("the partition table is to be read again",
            "the kernel is asked through the disk's descriptor; the table changes by its events alone");
    int asked = 0;
    kernel::on().ioctl = [&](int fd, unsigned long request, void*) {
        ++asked;
        EXPECT_EQ(fd, m->disk_fd);
        EXPECT_EQ(request, static_cast<unsigned long>(BLKRRPART));
        return 0;
    };
    EXPECT_EQ(mmc_partprobe(), 0);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(kernel::count("open"), 0);
    EXPECT_EQ(names(), (list{"mmcblk0p1", "mmcblk0p2"})) << "the kernel's events change the table, not the request";
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(mmc_eject, kernels_refusal_to_read_again_is_passed_on) {
    PROMISE("the kernel refuses, as while a partition is mounted", "-1 with its errno, without a word");
    for (const int code : {EBUSY, EIO}) {
        kernel::fail("ioctl", code);
        errno = 0;
        EXPECT_EQ(mmc_partprobe(), -1);
        EXPECT_EQ(errno, code);
        EXPECT_TRUE(logged::lines().empty());
    }
}

TEST_F(mmc_eject, nothing_to_read_again_without_a_disk) {
    PROMISE("no disk is open", "-1 with EINVAL, and the kernel is not asked");
    mmc_remove_block("mmcblk0", 0, MMC_BLOCK_DISK);
    kernel::forget_calls();
    errno = 0;
    EXPECT_EQ(mmc_partprobe(), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(kernel::calls().empty());
}

}  // namespace
