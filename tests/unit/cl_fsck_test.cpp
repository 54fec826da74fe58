#include "cl_fsck.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "support/job_rig.h"
#include "support/kernel.h"

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
        copy = nullptr;
        copy_freed = false;
    }
    void check(const char* device = "/dev/mmcblk0p1") { start(cl_next_fsck, device); }
};

TEST_F(cl_fsck, card_is_checked_and_mounted_again) {
    check();
    EXPECT_EQ(world.steps, (strings{"umount", FSCK, "free", "mount", "done 2 0"}));
    EXPECT_EQ(logged::lines(), (strings{"debug closure: cl_next_fsck(): cl_next_umount -> next_fsck",
                                        "debug closure: next_fsck(): cl_next_execvp -> next_finish"}));
}

TEST_F(cl_fsck, failures_of_the_stages) {
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

TEST_F(cl_fsck, path_that_cannot_be_copied_touches_nothing) {
    kernel::fail("strdup", ENOMEM);
    check();
    EXPECT_EQ(world.steps, strings{"done 3 12"});
    EXPECT_TRUE(logged::lines().empty());
}

// The caller's text may be gone or changed before fsck.fat runs, and its end may take as long as it likes.
TEST_F(cl_fsck, path_is_the_jobs_own_until_the_check_has_ended) {
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
