// The card manager with all of its jobs below it, from the request to the state that the card is left in. Only the
// mount, the block devices and the programs are stand-ins; the programs are shell scripts that note that they ran.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ev.h>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <sys/stat.h>

#include "rpc.h"
#include "support/card_rig.h"
#include "support/promise.h"

using rig::world;

namespace {

constexpr ev_tstamp DEADLINE_S = 20;
constexpr char RAN[] = "/mnt/ran";            // a line for each program that ran
constexpr char FDISK_INPUT[] = "/mnt/input";  // what fdisk was told

// The card below the jobs.
struct {
    int refused_umounts;  // the first so many are
    int partprobe_errno;
    int eject_errno;
    uint32_t insertion;
    bool can_mount;
    bool is_held;       // off automatic mounting
    bool fork_failed;   // the last one
    size_t lines_seen;  // of RAN
} card;

// The programs that have run since the last look take their place among the steps.
void note_programs() {
    const std::string text = kernel::read(RAN);
    size_t line = 0;
    for (size_t begin = 0; begin < text.size(); begin = text.find('\n', begin) + 1) {
        if (line++ >= card.lines_seen) {
            rig::step(text.substr(begin, text.find('\n', begin) - begin));
            card.lines_seen = line;
        }
    }
}

void step(const std::string& text) {
    note_programs();
    rig::step(text);
}

void set_mounted(mount_status value) {
    world.mountpoint.mounted = value;
    sdcard_refresh("Mountinfo changed.");
}

// An empty place in the path but for the four programs.
void install(const std::string& name, const std::string& commands) {
    const std::string path = "/mnt/bin/" + name;
    kernel::write(path, "#!/bin/sh\necho " + name + " \"$@\" >>" + kernel::host(RAN) + "\n" + commands + "\n");
    ASSERT_EQ(0, chmod(kernel::host(path).c_str(), 0755));
}

}  // namespace

int mountpoint_umount() {
    step("umount");
    card.is_held = true;
    if (card.refused_umounts > 0) {
        --card.refused_umounts;
        errno = EBUSY;
        return -1;
    }
    if (world.mountpoint.mounted == MOUNT_OK) {
        set_mounted(MOUNT_NONE);
    }
    return 0;
}
int mountpoint_mount() {
    step("mount");
    card.is_held = false;
    if (world.mountpoint.mounted == MOUNT_OK) {
        return 0;
    }
    if (!card.can_mount) {
        return -1;
    }
    set_mounted(MOUNT_OK);
    return 0;
}
void mountpoint_clear_mask() {
    step("clear_mask");
    card.is_held = false;
}
uint32_t mmc_get_insertion() {
    return card.insertion;
}
bool mmc_is_node_known(const char* path) {
    if (path == std::string_view(world.mmc.disk.path)) {
        return true;
    }
    for (int32_t i = 0; i < world.mmc.partition_count; ++i) {
        if (path == std::string_view(world.mmc.partitions[i].path)) {
            return true;
        }
    }
    return false;
}
int mmc_partprobe() {
    step("mmc_partprobe");
    errno = card.partprobe_errno;
    return card.partprobe_errno == 0 ? 0 : -1;
}
int mmc_eject() {
    step("mmc_eject");
    errno = card.eject_errno;
    if (card.eject_errno != 0) {
        return -1;
    }
    world.mmc.state = MMC_STATE_EJECTED;
    return 0;
}
void rpc_send_alert_umount_fail(int32_t, const char (*)[RPC_FUSER_NAME_SIZE]) {
    step("rpc_send_alert_umount_fail");
}

extern "C" {

// The waits between the tries of an unmount last half a second each; a test has no time for them.
void __real_ev_timer_start(struct ev_loop*, ev_timer*);
void __wrap_ev_timer_start(struct ev_loop* loop, ev_timer* timer) {
    if (timer->at == 0.5) {
        ev_timer_set(timer, 0.0, 0.0);
    }
    __real_ev_timer_start(loop, timer);
}

pid_t __real_fork();
pid_t __wrap_fork() {
    card.fork_failed = kernel::must_fail("fork");
    return card.fork_failed ? -1 : __real_fork();
}

}  // extern "C"

namespace {

// The lines above the trace.
strings said() {
    strings lines;
    for (const auto& line : logged::lines()) {
        if (!line.starts_with("debug ")) {
            lines.push_back(line);
        }
    }
    return lines;
}

// What a job comes to.
struct row {
    const char* what;
    void (*prepare)();
    closure_status status;
    int result;
    strings steps;  // behind the publication of the job
    strings said;
};

class card_jobs : public rig::test {
  protected:
    void SetUp() override {
        rig::test::SetUp();
        card = {.refused_umounts = 0,
                .partprobe_errno = 0,
                .eject_errno = 0,
                .insertion = 0,
                .can_mount = true,
                .is_held = false,
                .fork_failed = false,
                .lines_seen = 0};
        snprintf(world.mmc.disk.path, sizeof world.mmc.disk.path, "/dev/mmcblk0");
        snprintf(world.mmc.partitions[0].path, sizeof world.mmc.partitions[0].path, "/dev/mmcblk0p1");
        world.mmc.partition_count = 1;
        for (const char* name : {"mkfs.fat", "fsck.fat"}) {
            install(name, "");
        }
        // The last byte told by itself: printf ends no line with it.
        install("fdisk", "/usr/bin/head -c 17 >" + kernel::host(FDISK_INPUT));
        install("fuser", "exit 1");  // nobody holds the card
        setenv("PATH", kernel::host("/mnt/bin").c_str(), 1);
        start();
        ev_timer_stop(EV_DEFAULT, &sd.speed_timer);  // it comes due within a test, and has nothing to do with it
    }

    void TearDown() override {
        rig::test::TearDown();
        setenv("PATH", path.c_str(), 1);
    }

    // Runs the loop until the job has ended or, for want of a process, will never end.
    static void finish() {
        ev_timer deadline;
        ev_timer_init(
            &deadline, [](struct ev_loop*, ev_timer*, int) {}, DEADLINE_S, 0.0);
        ev_now_update(EV_DEFAULT);
        ev_timer_start(EV_DEFAULT, &deadline);
        while (sd.closure.status == CLOSURE_BUSY && !card.fork_failed && ev_is_active(&deadline)) {
            ev_run(EV_DEFAULT, EVRUN_ONCE);
        }
        ev_timer_stop(EV_DEFAULT, &deadline);
        note_programs();
    }

    void check(const row& row, int (*start_job)(), const char* status) {
        SCOPED_TRACE(row.what);
        SetUp();
        row.prepare();
        EXPECT_EQ(0, start_job());
        finish();
        strings steps = {std::string("sdcard_status=") + status, "sdcard_rw=none"};
        steps.insert(steps.end(), row.steps.begin(), row.steps.end());
        EXPECT_EQ(steps, world.steps);
        EXPECT_EQ(row.said, said());
        EXPECT_EQ(row.status, sd.closure.status);
        EXPECT_EQ(row.result, sd.closure.result);
        EXPECT_EQ(closure_empty(&sd.closure), sd.closure.top);
        EXPECT_FALSE(card.is_held);
    }

    const std::string path = getenv("PATH");
};

// So many tries of an unmount that is refused, with what comes between them.
strings refused(int tries) {
    strings steps;
    for (int i = 0; i < tries; ++i) {
        steps.emplace_back("umount");
        if (i > 0) {
            steps.emplace_back("fuser -m /mnt/sdcard");
        }
    }
    return steps;
}

strings operator+(strings a, const strings& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const strings BACK = {"sdcard_status=0", "sdcard_rw=rdwr"};
constexpr char REFRESH[] = "info refresh sdcard state due to Mountinfo changed.";

PROMISES("cl_mkfs");

TEST_F(card_jobs, format) {
    PROMISE("all goes well",
            "unmount, fdisk on the disk, the table read again, mkfs.fat with the label \"QX_CAM\" on the first "
            "partition, mount; succeeded with 0");
    PROMISE("files are closed before the last try", "the format goes through");
    PROMISE("fdisk fails, is killed or is missing",
            "\"cl_mkfs: unable to re-create the partition table.\", no mkfs.fat, mounted again, failed with fdisk's "
            "code, -1 or 99");
    PROMISE("mkfs.fat fails, is killed or is missing",
            "\"cl_mkfs: unable to make new filesystem.\", mounted again, failed with mkfs.fat's code, -1 or 99");
    PROMISE("what was made, or left, cannot be mounted", "the outcome stays what it was, and the state tells");
    const strings upto_fdisk = {"umount", "fdisk /dev/mmcblk0"};
    const strings upto_probe = upto_fdisk + strings{"mmc_partprobe"};
    const strings upto_mkfs = upto_probe + strings{"mkfs.fat -n QX_CAM /dev/mmcblk0p1"};
    const strings mount = {"mount"};
    const strings gone = {"sdcard_status=1", "sdcard_rw=none", "rpc_send_alert 5"};
    const row rows[] = {
        {"succeeds", [] {}, CLOSURE_OK, 0, upto_mkfs + mount + BACK, {REFRESH, "info closure: mkfs successful"}},
        {"files are closed in time",
         [] { card.refused_umounts = 3; },
         CLOSURE_OK,
         0,
         refused(3) + upto_mkfs + mount + BACK,
         {"warning fuser: exit with code 1", "warning fuser: exit with code 1", REFRESH,
          "info closure: mkfs successful"}},
        {"the ninth retry is in time", [] { card.refused_umounts = 9; }, CLOSURE_OK, 0,
         refused(9) + upto_mkfs + mount + BACK,
         strings(8, "warning fuser: exit with code 1") + strings{REFRESH, "info closure: mkfs successful"}},
        {"files stay open", [] { card.refused_umounts = 10; }, CLOSURE_FAILED, EBUSY, refused(10) + mount + BACK,
         strings(9, "warning fuser: exit with code 1") +
             strings{"err cl_mkfs: Unable to umount sdcard.", "err closure: mkfs failed"}},
        {"fdisk fails",
         [] { install("fdisk", "exit 3"); },
         CLOSURE_FAILED,
         3,
         upto_fdisk + mount + BACK,
         {"warning fdisk: exit with code 3", "err cl_mkfs: unable to re-create the partition table.", REFRESH,
          "err closure: mkfs failed"}},
        {"fdisk is killed",
         [] { install("fdisk", "kill -9 $$"); },
         CLOSURE_FAILED,
         -1,
         upto_fdisk + mount + BACK,
         {"warning fdisk: exit with signal Killed", "err cl_mkfs: unable to re-create the partition table.", REFRESH,
          "err closure: mkfs failed"}},
        {"the kernel does not read the table",
         [] { card.partprobe_errno = EBUSY; },
         CLOSURE_FAILED,
         EBUSY,
         upto_probe + mount + BACK,
         {"err cl_mkfs: can not rescan partitions: Device or resource busy", REFRESH, "err closure: mkfs failed"}},
        {"no partition is known",
         [] { world.mmc.partition_count = 0; },
         CLOSURE_FAILED,
         EINVAL,
         upto_probe + mount + BACK,
         {"err cl_mkfs: Unexpected partition count: 0.", REFRESH, "err closure: mkfs failed"}},
        {"more than one partition is known",
         [] { world.mmc.partition_count = 2; },
         CLOSURE_FAILED,
         EINVAL,
         upto_probe + mount + BACK,
         {"err cl_mkfs: Unexpected partition count: 2.", REFRESH, "err closure: mkfs failed"}},
        {"mkfs.fat fails",
         [] { install("mkfs.fat", "exit 1"); },
         CLOSURE_FAILED,
         1,
         upto_mkfs + mount + BACK,
         {"warning mkfs.fat: exit with code 1", "err cl_mkfs: unable to make new filesystem.", REFRESH,
          "err closure: mkfs failed"}},
        {"mkfs.fat is missing",
         [] { remove(kernel::host("/mnt/bin/mkfs.fat").c_str()); },
         CLOSURE_FAILED,
         99,
         upto_probe + mount + BACK,
         {"warning mkfs.fat: exit with code 99", "err cl_mkfs: unable to make new filesystem.", REFRESH,
          "err closure: mkfs failed"}},
        {"what was made cannot be mounted",
         [] { card.can_mount = false; },
         CLOSURE_OK,
         0,
         upto_mkfs + mount + gone,
         {"info closure: mkfs successful"}},
    };
    for (const auto& row : rows) {
        check(row, sdcard_mkfs, "4");
    }
}

TEST_F(card_jobs, format_tells_fdisk_what_to_do) {
    PROMISE("fdisk runs", "it is given 17 bytes, the last one a NUL");
    ASSERT_EQ(0, sdcard_mkfs());
    finish();
    EXPECT_EQ(std::string("o\nn\np\n1\n\n\nt\nc\nw\n\0", 17), kernel::read(FDISK_INPUT));
}

TEST_F(card_jobs, format_leaves_this_trace) {
    PROMISE("each stage begins", "the trace says what comes next");
    card.refused_umounts = 2;
    ASSERT_EQ(0, sdcard_mkfs());
    finish();
    strings trace;
    for (const auto& line : logged::lines()) {
        if (line.starts_with("debug closure: ")) {
            trace.push_back(line.substr(sizeof "debug closure: " - 1));
        }
    }
    EXPECT_EQ((strings{"sdcard_mkfs(): cl_next_mkfs -> on_closure_done", "cl_next_mkfs(): cl_next_umount -> next_fdisk",
                       "on_retry_umount(): cl_next_execvp_read -> fuser_done",
                       "next_fdisk(): cl_next_execvp_write -> next_partprobe",
                       "next_partprobe(): cl_next_execvp -> next_finish"}),
              trace);
}

PROMISES("cl_eject");

TEST_F(card_jobs, eject) {
    PROMISE("all goes well", "unmount, then the devices closed to writes, succeeded with 0, and the state is eject");
    PROMISE("the eject has succeeded",
            "the card is not mounted again, and the hold on mounting goes only behind the job's end");
    PROMISE("nothing is mounted", "the eject follows at once");
    PROMISE("the card cannot be unmounted, or there was no memory to wait with",
            "\"Unable to umount sdcard.\", nothing is closed, the hold goes, the job mounts nothing, and it fails with "
            "the unmount's 16 or 12");
    PROMISE("the card has gone by then", "failed with ENODEV, without a word of its own, and the hold goes");
    const row rows[] = {
        {"succeeds",
         [] {},
         CLOSURE_OK,
         0,
         {"umount", "mmc_eject", "sdcard_status=5", "sdcard_rw=none", "clear_mask"},
         {"info closure: eject successful"}},
        {"nothing is mounted",
         [] {
             world.mountpoint.mounted = MOUNT_FAILED;
             sd.state = SDCARD_BROKEN;
         },
         CLOSURE_OK,
         0,
         {"umount", "mmc_eject", "sdcard_status=5", "sdcard_rw=none", "clear_mask"},
         {"info closure: eject successful"}},
        {"files stay open", [] { card.refused_umounts = 10; }, CLOSURE_FAILED, EBUSY,
         refused(10) + strings{"clear_mask"} + BACK,
         strings(9, "warning fuser: exit with code 1") +
             strings{"err Unable to umount sdcard.", "err closure: eject failed"}},
        {"the card has gone meanwhile",
         [] { card.eject_errno = ENODEV; },
         CLOSURE_FAILED,
         ENODEV,
         {"umount", "mmc_eject", "sdcard_status=1", "sdcard_rw=none", "rpc_send_alert 5", "clear_mask"},
         {"err closure: eject failed"}},
    };
    for (const auto& row : rows) {
        check(row, sdcard_eject, "7");
    }
}

PROMISES("cl_fsck");

TEST_F(card_jobs, check) {
    PROMISE("nothing is found", "unmount, \"fsck.fat -aw\" on the device, mount; succeeded with 0");
    PROMISE("something is found, repaired or not, or fsck.fat is killed or missing",
            "\"next_finish: unable to check filesystem.\", mounted again, failed with fsck.fat's code, -1 or 99");
    PROMISE("the card cannot be unmounted, or there was no memory to wait with",
            "\"Unable to umount sdcard.\", no check, mounted again, failed with the unmount's 16 or 12");
    const strings upto_fsck = {"umount", "fsck.fat -aw /dev/mmcblk0p1"};
    const row rows[] = {
        {"finds nothing", [] {}, CLOSURE_OK, 0, upto_fsck + strings{"mount"} + BACK,
         strings{REFRESH, "info closure: fsck successful"}},
        {"repairs something",
         [] { install("fsck.fat", "exit 1"); },
         CLOSURE_FAILED,
         1,
         upto_fsck + strings{"mount"} + BACK,
         {"warning fsck.fat: exit with code 1", "err next_finish: unable to check filesystem.", REFRESH,
          "err closure: fsck failed"}},
        {"files stay open", [] { card.refused_umounts = 10; }, CLOSURE_FAILED, EBUSY,
         refused(10) + strings{"mount"} + BACK,
         strings(9, "warning fuser: exit with code 1") +
             strings{"err Unable to umount sdcard.", "err closure: fsck failed"}},
    };
    for (const auto& row : rows) {
        check(row, sdcard_fsck, "6");
    }
}

TEST_F(card_jobs, check_keeps_to_the_device_that_was_there_at_its_start) {
    PROMISE("the card or its table of devices changes meanwhile", "the device is the one that was there at the start");
    card.refused_umounts = 1;
    ASSERT_EQ(0, sdcard_fsck());
    world.mmc.partitions[1] = world.mmc.partitions[0];
    snprintf(world.mmc.partitions[0].path, sizeof world.mmc.partitions[0].path, "/dev/mmcblk0p2");
    world.mmc.partition_count = 2;
    finish();
    EXPECT_EQ(
        (strings{"sdcard_status=6", "sdcard_rw=none", "umount", "umount", "fsck.fat -aw /dev/mmcblk0p1", "mount"}) +
            BACK,
        world.steps);
}

PROMISES("cl_umount");

TEST_F(card_jobs, a_held_card_is_refreshed_by_nobody_and_taken_by_no_second_job) {
    PROMISE("the next try is awaited, or fuser runs", "the loop serves everything else");
    PROMISES("sdcard");
    PROMISE("somebody asks while a job runs", "nothing happens, and the periodic look is not postponed");
    card.refused_umounts = 5;
    ASSERT_EQ(0, sdcard_mkfs());
    int rounds = 0;
    while (sd.closure.status == CLOSURE_BUSY && card.refused_umounts > 0) {
        ev_run(EV_DEFAULT, EVRUN_ONCE);
        ++rounds;
        logged::reset();
        sdcard_refresh("New Record");
        errno = 0;
        EXPECT_EQ(-1, sdcard_eject());
        EXPECT_EQ(EBUSY, errno);
        EXPECT_EQ(strings{"err sdcard_eject: closure is busy"}, said());
        EXPECT_TRUE(card.is_held);
    }
    EXPECT_GT(rounds, 4);
    finish();
    EXPECT_EQ(CLOSURE_OK, sd.closure.status);
}

// The card is held, somebody pulls it during the retries and puts in another one.
TEST_F(card_jobs, a_card_that_came_in_during_the_retries_is_left_alone) {
    PROMISE("a held card is pulled during the retries and another one put in",
            "no tool runs on that one, the job fails with ENODEV, and its state is normal");
    const struct {
        const char* job;
        int (*start_job)();
    } rows[] = {{"mkfs", sdcard_mkfs}, {"fsck", sdcard_fsck}, {"eject", sdcard_eject}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.job);
        SetUp();
        card.refused_umounts = 3;
        ASSERT_EQ(0, row.start_job());
        while (card.refused_umounts > 1) {
            ev_run(EV_DEFAULT, EVRUN_ONCE);
        }
        ++card.insertion;
        card.refused_umounts = 0;
        world.mountpoint.mounted = MOUNT_NONE;  // the old card was detached
        finish();
        if (row.job == std::string_view("eject")) {
            EXPECT_EQ(SDCARD_NOT_EXISTS, sd.state) << "until it is mounted by itself";
            set_mounted(MOUNT_OK);
        }
        EXPECT_EQ(SDCARD_NORMAL, sd.state);
        EXPECT_EQ(CLOSURE_FAILED, sd.closure.status);
        EXPECT_EQ(ENODEV, sd.closure.result);
        EXPECT_FALSE(card.is_held);
        for (const char* tool : {"fdisk", "mkfs.fat", "fsck.fat", "mmc_partprobe", "mmc_eject"}) {
            for (const auto& step : world.steps) {
                EXPECT_FALSE(step.starts_with(tool)) << step;
            }
        }
        EXPECT_EQ(1,
                  logged::count(std::string("err ") + row.job + ": the sdcard is not the one that the job began with"));
        EXPECT_EQ(1, logged::count(std::string("err closure: ") + row.job + " failed"));
    }
}

PROMISES("cl_mkfs");

// At whichever step: the job stays where it is, the card off its mount point, and no other job begins.
TEST_F(card_jobs, a_program_that_cannot_be_had_keeps_the_frame_for_good) {
    PROMISE("no process can be had for fdisk or mkfs.fat",
            "the card stays off its mount point, held, and no further job is taken");
    struct {
        const char* program;
        int nth;  // fork
        int refused_umounts;
        int (*start_job)();
    } rows[] = {
        {"fuser", 1, 2, sdcard_eject},
        {"fdisk", 1, 0, sdcard_mkfs},
        {"mkfs.fat", 2, 0, sdcard_mkfs},
        {"fsck.fat", 1, 0, sdcard_fsck},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.program);
        SetUp();
        card.refused_umounts = row.refused_umounts;
        kernel::fail("fork", EAGAIN, row.nth);
        EXPECT_EQ(0, row.start_job()) << "taken for a start";
        finish();
        EXPECT_TRUE(card.fork_failed);
        EXPECT_EQ(CLOSURE_BUSY, sd.closure.status);
        world.steps.clear();
        for (int (*start_job)() : {sdcard_mkfs, sdcard_eject, sdcard_fsck}) {
            errno = 0;
            EXPECT_EQ(-1, start_job());
            EXPECT_EQ(EBUSY, errno);
        }
        sdcard_refresh("New Record");
        EXPECT_EQ(strings{}, world.steps);
        EXPECT_TRUE(card.is_held);

        // The daemon never gets there; the test does, so that the job leaves nothing behind.
        card.fork_failed = false;
        closure_fail(&sd.closure, EAGAIN);
        finish();
        EXPECT_EQ(closure_empty(&sd.closure), sd.closure.top);
    }
}

PROMISES("sdcard");

TEST_F(card_jobs, one_after_the_other_on_one_frame) {
    PROMISE("a job has ended well",
            "\"closure: %s successful\" with its name, the state is derived, and the frame is free");
    for (int (*start_job)() : {sdcard_mkfs, sdcard_fsck, sdcard_mkfs, sdcard_eject}) {
        ASSERT_EQ(0, start_job());
        finish();
        EXPECT_EQ(CLOSURE_OK, sd.closure.status);
    }
    EXPECT_EQ(SDCARD_EJECT, sd.state);
    world.steps.clear();
    EXPECT_EQ(0, sdcard_eject()) << "is ejected already";
    EXPECT_EQ(-1, sdcard_mkfs());
    EXPECT_EQ(strings{}, world.steps);
}

TEST_F(card_jobs, a_request_by_key_is_answered_before_the_job_has_begun_its_work) {
    PROMISE("a request by key is taken", "the answer does not wait for the job to end");
    kernel::on().now = 1000;
    on_spec_sdcard_format(nullptr, "start", 5);
    on_spec_sdcard_format(nullptr, "start", 5);
    EXPECT_EQ((strings{"err sdcard_mkfs: closure is busy"}), said());
    finish();
    EXPECT_EQ((strings{"sdcard_status=4", "sdcard_rw=none", "umount", "spec_sdcard_format=end1000",
                       "spec_sdcard_format=end1000", "fdisk /dev/mmcblk0", "mmc_partprobe",
                       "mkfs.fat -n QX_CAM /dev/mmcblk0p1", "mount"}) +
                  BACK,
              world.steps);
}

}  // namespace
