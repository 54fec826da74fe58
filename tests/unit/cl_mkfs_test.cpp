#include "cl_mkfs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/job_rig.h"
#include "support/promise.h"

using namespace std::string_literals;
using rig::world;

namespace {

const std::string FDISK = "run fdisk /dev/mmcblk0";
const std::string MKFS = "run mkfs.fat -n QX_CAM /dev/mmcblk0p1";

class cl_mkfs : public rig::job {
  protected:
    void SetUp() override {
        rig::job::SetUp();
        set_block(&world.mmc.disk, "mmcblk0", 0);
        set_partitions(1);
    }
    static void set_block(mmc_block* block, const char* name, uint32_t minor) {
        snprintf(block->path, sizeof block->path, "/dev/%s", name);
        block->name = block->path + 5;
        block->minor = minor;
    }
    static void set_partitions(int32_t count) {
        for (int32_t i = 0; i < count; ++i) {
            set_block(&world.mmc.partitions[i], ("mmcblk0p" + std::to_string(i + 1)).c_str(),
                      static_cast<uint32_t>(i + 1));
        }
        world.mmc.partition_count = count;
    }
};

PROMISES("cl_mkfs");

TEST_F(cl_mkfs, card_is_made_new) {
    PROMISE("all goes well",
            "unmount, fdisk on the disk, the table read again, mkfs.fat with the label \"QX_CAM\" on the first "
            "partition, mount; succeeded with 0");
    PROMISE("each stage begins", "the trace says what comes next");
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps, (strings{"umount", FDISK, "partprobe", MKFS, "mount", "done 2 0"}));
    EXPECT_EQ(logged::lines(), (strings{"debug closure: cl_next_mkfs(): cl_next_umount -> next_fdisk",
                                        "debug closure: next_fdisk(): cl_next_execvp_write -> next_partprobe",
                                        "debug closure: next_partprobe(): cl_next_execvp -> next_finish"}));
}

TEST_F(cl_mkfs, fdisk_is_given_seventeen_bytes_the_last_one_nul) {
    PROMISE("fdisk runs", "it is given 17 bytes, the last one a NUL");
    start(cl_next_mkfs);
    EXPECT_EQ(world.input, "o\nn\np\n1\n\n\nt\nc\nw\n\0"s);
    EXPECT_EQ(world.input.size(), 17U);
}

TEST_F(cl_mkfs, failures_of_the_stages) {
    PROMISE("the card cannot be unmounted, or there was no memory to wait with",
            "\"cl_mkfs: Unable to umount sdcard.\", no fdisk, mounted again, failed with the unmount's 16 or 12");
    PROMISE("fdisk fails, is killed or is missing",
            "\"cl_mkfs: unable to re-create the partition table.\", no mkfs.fat, mounted again, failed with fdisk's "
            "code, -1 or 99");
    PROMISE("the kernel does not read the table again",
            "\"cl_mkfs: can not rescan partitions: %s\", mounted again, failed with its errno");
    PROMISE("the partition is not known yet, or there are several",
            "\"cl_mkfs: Unexpected partition count: %d.\", mounted again, failed with EINVAL (22)");
    PROMISE("mkfs.fat fails, is killed or is missing",
            "\"cl_mkfs: unable to make new filesystem.\", mounted again, failed with mkfs.fat's code, -1 or 99");
    const rig::outcome ok;
    const struct {
        const char* what;
        rig::outcome umount;
        rig::outcome fdisk;
        int partprobe_errno;
        int32_t partitions;
        rig::outcome mkfs;
        strings steps;
        std::string line;
    } rows[] = {
        {"card in use",
         {CLOSURE_FAILED, EBUSY},
         ok,
         0,
         1,
         ok,
         {"umount", "mount", "done 3 16"},
         "Unable to umount sdcard."},
        {"no memory for the retries",
         {CLOSURE_FAILED, ENOMEM},
         ok,
         0,
         1,
         ok,
         {"umount", "mount", "done 3 12"},
         "Unable to umount sdcard."},
        {"fdisk fails",
         ok,
         {CLOSURE_FAILED, 1},
         0,
         1,
         ok,
         {"umount", FDISK, "mount", "done 3 1"},
         "unable to re-create the partition table."},
        {"fdisk is killed",
         ok,
         {CLOSURE_FAILED, -1},
         0,
         1,
         ok,
         {"umount", FDISK, "mount", "done 3 -1"},
         "unable to re-create the partition table."},
        {"no fdisk",
         ok,
         {CLOSURE_FAILED, 99},
         0,
         1,
         ok,
         {"umount", FDISK, "mount", "done 3 99"},
         "unable to re-create the partition table."},
        {"table cannot be read again",
         ok,
         ok,
         EBUSY,
         1,
         ok,
         {"umount", FDISK, "partprobe", "mount", "done 3 16"},
         "can not rescan partitions: "s + strerror(EBUSY)},
        {"card gone before it is read again",
         ok,
         ok,
         EINVAL,
         0,
         ok,
         {"umount", FDISK, "partprobe", "mount", "done 3 22"},
         "can not rescan partitions: "s + strerror(EINVAL)},
        {"partition not told yet",
         ok,
         ok,
         0,
         0,
         ok,
         {"umount", FDISK, "partprobe", "mount", "done 3 22"},
         "Unexpected partition count: 0."},
        {"a partition too many",
         ok,
         ok,
         0,
         2,
         ok,
         {"umount", FDISK, "partprobe", "mount", "done 3 22"},
         "Unexpected partition count: 2."},
        {"mkfs.fat fails",
         ok,
         ok,
         0,
         1,
         {CLOSURE_FAILED, 1},
         {"umount", FDISK, "partprobe", MKFS, "mount", "done 3 1"},
         "unable to make new filesystem."},
        {"mkfs.fat is killed",
         ok,
         ok,
         0,
         1,
         {CLOSURE_FAILED, -1},
         {"umount", FDISK, "partprobe", MKFS, "mount", "done 3 -1"},
         "unable to make new filesystem."},
        {"no mkfs.fat",
         ok,
         ok,
         0,
         1,
         {CLOSURE_FAILED, 99},
         {"umount", FDISK, "partprobe", MKFS, "mount", "done 3 99"},
         "unable to make new filesystem."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        SetUp();
        world.umount = row.umount;
        world.runs = {row.fdisk, row.mkfs};
        world.partprobe_errno = row.partprobe_errno;
        set_partitions(row.partitions);
        start(cl_next_mkfs);
        EXPECT_EQ(world.steps, row.steps);
        EXPECT_EQ(lines_of("err "), strings{"err cl_mkfs: " + row.line});
        EXPECT_TRUE(lines_of("warning ").empty());
    }
}

constexpr char ANOTHER_CARD[] = "err mkfs: the sdcard is not the one that the job began with";

TEST_F(cl_mkfs, another_card_is_left_alone) {
    PROMISE("another card is in before fdisk, the re-read or mkfs.fat",
            "that step is not run: \"mkfs: the sdcard is not the one that the job began with\", what is there is "
            "mounted, and the job fails with ENODEV");
    const struct {
        const char* after;
        strings steps;
    } rows[] = {
        {"umount", {"umount", "mount", "done 3 19"}},
        {"run fdisk", {"umount", FDISK, "mount", "done 3 19"}},
        {"partprobe", {"umount", FDISK, "partprobe", "mount", "done 3 19"}},
    };
    for (const auto& row : rows) {
        for (const swap& how : swaps()) {
            SCOPED_TRACE(row.after + " and a swap "s + how.what);
            SetUp();
            swap_after(row.after, how);
            start(cl_next_mkfs);
            EXPECT_EQ(world.steps, row.steps);
            EXPECT_EQ(lines_of("err "), strings{ANOTHER_CARD});
        }
    }
}

// It is not the disk's node alone that is looked at: mkfs.fat gets the partition's.
TEST_F(cl_mkfs, partition_that_is_another_device_is_left_alone) {
    PROMISE("only the partition's node is another device", "mkfs.fat is not run, and the job fails with ENODEV");
    world.strange_nodes = {"/dev/mmcblk0p1"};
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps, (strings{"umount", FDISK, "partprobe", "mount", "done 3 19"}));
    EXPECT_EQ(lines_of("err "), strings{ANOTHER_CARD});
}

// What goes wrong with the card that the job began with is told first, and a swap during mkfs.fat's run changes nothing
// any more: what it has open is the old card.
TEST_F(cl_mkfs, swap_beside_another_failure_is_not_told) {
    PROMISE("the card is swapped and the tool has failed",
            "the tool's failure is what is told; a swap while mkfs.fat runs changes nothing");
    swap_after("run fdisk", swaps()[0]);
    world.runs = {{CLOSURE_FAILED, 1}};
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps, (strings{"umount", FDISK, "mount", "done 3 1"}));
    EXPECT_EQ(lines_of("err "), strings{"err cl_mkfs: unable to re-create the partition table."});

    SetUp();
    swap_after("run mkfs.fat", swaps()[0]);
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps, (strings{"umount", FDISK, "partprobe", MKFS, "mount", "done 2 0"}));
    EXPECT_TRUE(lines_of("err ").empty());
}

TEST_F(cl_mkfs, next_job_begins_with_the_card_that_is_in_then) {
    PROMISE("a format follows on one that met another card", "it is of the card that is in then");
    swap_after("umount", swaps()[0]);
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps.back(), "done 3 19");
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps.back(), "done 2 0");
}

TEST_F(cl_mkfs, mount_that_fails_changes_no_outcome) {
    PROMISE("what was made, or left, cannot be mounted", "the outcome stays what it was, and the state tells");
    world.mount_result = -1;
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps.back(), "done 2 0");

    SetUp();
    world.mount_result = -1;
    world.runs = {{CLOSURE_FAILED, 7}};
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps.back(), "done 3 7");
}

// Each stage waits for the one before it, and the table is looked at when its stage comes, not before.
TEST_F(cl_mkfs, stages_wait_for_each_other) {
    PROMISE("a stage takes its time",
            "the next waits for it, the frame stays busy, and disk and partition are looked up when their stage comes");
    world.umount.at_once = false;
    world.runs = {{.at_once = false}, {.at_once = false}};
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps, strings{"umount"});
    EXPECT_EQ(frame.status, CLOSURE_BUSY);

    set_block(&world.mmc.disk, "mmcblk7", 56);
    end(CLOSURE_OK, 0);
    EXPECT_EQ(world.steps, (strings{"umount", "run fdisk /dev/mmcblk7"}));
    EXPECT_EQ(frame.status, CLOSURE_BUSY);

    set_partitions(1);
    set_block(&world.mmc.partitions[0], "mmcblk7p1", 57);
    end(CLOSURE_OK, 0);
    EXPECT_EQ(world.steps,
              (strings{"umount", "run fdisk /dev/mmcblk7", "partprobe", "run mkfs.fat -n QX_CAM /dev/mmcblk7p1"}));
    EXPECT_EQ(frame.status, CLOSURE_BUSY);

    world.steps.clear();
    end(CLOSURE_OK, 0);
    EXPECT_EQ(world.steps, (strings{"mount", "done 2 0"}));
}

// What fdisk leaves in the frame is not what a later stage fails with.
TEST_F(cl_mkfs, frame_serves_the_next_job) {
    PROMISE("a format has failed", "the frame serves the next one, and nothing of the first shows in it");
    world.runs = {{CLOSURE_FAILED, 5}};
    start(cl_next_mkfs);
    world.steps.clear();
    start(cl_next_mkfs);
    EXPECT_EQ(world.steps.back(), "done 2 0");
}

}  // namespace
