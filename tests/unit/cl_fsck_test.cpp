#include "cl_fsck.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/job_rig.h"
#include "support/kernel.h"
#include "support/promise.h"

using rig::world;

// The copy of the device's path, from strdup to free.
namespace {
char* copy;
bool copy_freed;
}  // namespace

extern "C" {

char* __real_strdup(const char* text);
char* __wrap_strdup(const char* text) {
    if (kernel::must_fail("strdup")) {
        return nullptr;
    }
    copy = __real_strdup(text);
    return copy;
}

void __real_free(void* block);
void __wrap_free(void* block) {
    if (block != nullptr && block == copy) {
        EXPECT_FALSE(copy_freed);
        copy_freed = true;
        world.steps.emplace_back("free");
    }
    __real_free(block);
}

}  // extern "C"

namespace {

const std::string FSCK = "run fsck.fat -aw /dev/mmcblk0p1";

class cl_fsck : public rig::job {
  protected:
    void SetUp() override {
        rig::job::SetUp();
        snprintf(world.mmc.disk.path, sizeof world.mmc.disk.path, "/dev/mmcblk0");
        copy = nullptr;
        copy_freed = false;
    }
    void check(const char* device = "/dev/mmcblk0p1") { start(cl_next_fsck, device); }
};

PROMISES("cl_fsck");

TEST_F(cl_fsck, card_is_checked_and_mounted_again) {
    PROMISE("nothing is found", "unmount, \"fsck.fat -aw\" on the device, mount; succeeded with 0");
    PROMISE("each stage begins", "the trace says what comes next");
    PROMISE("the check ends at whichever stage", "the copy of the path is freed once, before the mount");
    check();
    EXPECT_EQ(world.steps, (strings{"umount", FSCK, "free", "mount", "done 2 0"}));
    EXPECT_EQ(logged::lines(), (strings{"debug closure: cl_next_fsck(): cl_next_umount -> next_fsck",
                                        "debug closure: next_fsck(): cl_next_execvp -> next_finish"}));
}

TEST_F(cl_fsck, failures_of_the_stages) {
    PROMISE("something is found, repaired or not, or fsck.fat is killed or missing",
            "\"next_finish: unable to check filesystem.\", mounted again, failed with fsck.fat's code, -1 or 99");
    PROMISE("the card cannot be unmounted, or there was no memory to wait with",
            "\"Unable to umount sdcard.\", no check, mounted again, failed with the unmount's 16 or 12");
    PROMISE("the check ends at whichever stage", "the copy of the path is freed once, before the mount");
    const rig::outcome ok;
    const struct {
        const char* what;
        rig::outcome umount;
        rig::outcome fsck;
        strings steps;
        std::string line;
    } rows[] = {
        {"card in use",
         {CLOSURE_FAILED, EBUSY},
         ok,
         {"umount", "free", "mount", "done 3 16"},
         "Unable to umount sdcard."},
        {"no memory for the retries",
         {CLOSURE_FAILED, ENOMEM},
         ok,
         {"umount", "free", "mount", "done 3 12"},
         "Unable to umount sdcard."},
        {"repaired, or refused the memory for a table of that size",
         ok,
         {CLOSURE_FAILED, 1},
         {"umount", FSCK, "free", "mount", "done 3 1"},
         "next_finish: unable to check filesystem."},
        {"not repaired",
         ok,
         {CLOSURE_FAILED, 2},
         {"umount", FSCK, "free", "mount", "done 3 2"},
         "next_finish: unable to check filesystem."},
        {"no fsck.fat",
         ok,
         {CLOSURE_FAILED, 99},
         {"umount", FSCK, "free", "mount", "done 3 99"},
         "next_finish: unable to check filesystem."},
        {"killed for want of memory",
         ok,
         {CLOSURE_FAILED, -1},
         {"umount", FSCK, "free", "mount", "done 3 -1"},
         "next_finish: unable to check filesystem."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        SetUp();
        world.umount = row.umount;
        world.runs = {row.fsck};
        check();
        EXPECT_EQ(world.steps, row.steps);
        EXPECT_EQ(lines_of("err "), strings{"err " + row.line});
        EXPECT_TRUE(lines_of("warning ").empty());
    }
}

TEST_F(cl_fsck, another_card_is_left_alone) {
    PROMISE("another card is in before fsck.fat",
            "it is not run: \"fsck: the sdcard is not the one that the job began with\", the path is freed, what is "
            "there is mounted, and the job fails with ENODEV");
    std::vector<swap> all = swaps();
    all.push_back({"by whose partition alone it shows", [] { world.strange_nodes = {"/dev/mmcblk0p1"}; }});
    for (const swap& how : all) {
        SCOPED_TRACE(how.what);
        SetUp();
        swap_after("umount", how);
        check();
        EXPECT_EQ(world.steps, (strings{"umount", "free", "mount", "done 3 19"}));
        EXPECT_EQ(lines_of("err "), strings{"err fsck: the sdcard is not the one that the job began with"});
        SetUp();
        ++world.insertion;  // before the job: it begins with this one
        check();
        EXPECT_EQ(world.steps.back(), "done 2 0");
    }
}

TEST_F(cl_fsck, path_that_cannot_be_copied_touches_nothing) {
    PROMISE("the device's path cannot be copied", "failed with ENOMEM (12) before anything was touched or said");
    kernel::fail("strdup", ENOMEM);
    check();
    EXPECT_EQ(world.steps, strings{"done 3 12"});
    EXPECT_TRUE(logged::lines().empty());
}

// The caller's text may be gone or changed before fsck.fat runs, and its end may take as long as it likes.
TEST_F(cl_fsck, path_is_the_jobs_own_until_the_check_has_ended) {
    PROMISE("the card or its table of devices changes meanwhile", "the device is the one that was there at the start");
    world.umount.at_once = false;
    world.runs = {{.at_once = false}};
    char device[] = "/dev/mmcblk0p1";
    check(device);
    EXPECT_EQ(world.steps, strings{"umount"});
    EXPECT_EQ(frame.status, CLOSURE_BUSY);
    memset(device, '#', sizeof device - 1);
    end(CLOSURE_OK, 0);
    EXPECT_EQ(world.steps, (strings{"umount", FSCK}));
    EXPECT_EQ(frame.status, CLOSURE_BUSY);
    EXPECT_FALSE(copy_freed);
    end(CLOSURE_OK, 0);
    EXPECT_EQ(world.steps, (strings{"umount", FSCK, "free", "mount", "done 2 0"}));
}

TEST_F(cl_fsck, mount_that_fails_changes_no_outcome) {
    PROMISE("the card cannot be mounted again", "the outcome stays what it was");
    world.mount_result = -1;
    check();
    EXPECT_EQ(world.steps.back(), "done 2 0");

    SetUp();
    world.mount_result = -1;
    world.umount = {CLOSURE_FAILED, EBUSY};
    check();
    EXPECT_EQ(world.steps.back(), "done 3 16");
}

}  // namespace
