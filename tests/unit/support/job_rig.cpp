#include "support/job_rig.h"

#include <cerrno>

#include "cl_execvp.h"
#include "cl_umount.h"
#include "mountpoint.h"
#include "support/kernel.h"

namespace rig {

neighbours world;

namespace {

const char JOB[] = "job";

void note(const std::string& step) {
    world.steps.push_back(step);
    if (world.after) {
        world.after(step);
    }
}

void on_closure_done(closure_frame* frame, void* argument) {
    EXPECT_EQ(argument, JOB);
    EXPECT_EQ(frame->top, frame->slots - 1) << "nothing is left on the stack";
    world.steps.push_back("done " + std::to_string(frame->status) + " " + std::to_string(frame->result));
}

void finish(closure_frame* frame, const outcome& how) {
    errno = EPIPE;  // whatever ran last has left its own
    if (how.status == CLOSURE_OK) {
        closure_succeed(frame, how.result);
    } else {
        closure_fail(frame, how.result);
    }
}

// An operation was started on the frame, with the job's next step on top of the bottom.
void operate(closure_frame* frame, const outcome& how) {
    EXPECT_EQ(frame->status, CLOSURE_BUSY);
    EXPECT_EQ(frame->top, &frame->slots[1]) << "the bottom and the next step";
    EXPECT_EQ(world.waiting, nullptr) << "one operation at a time";
    if (how.at_once) {
        finish(frame, how);
    } else {
        world.waiting = frame;
    }
}

void run(closure_frame* frame, const char* const* argv) {
    std::string step = "run";
    for (; *argv != nullptr; ++argv) {
        step += std::string(" ") + *argv;
    }
    note(step);
    outcome how;
    if (!world.runs.empty()) {
        how = world.runs.front();
        world.runs.pop_front();
    }
    operate(frame, how);
}

int answer(int errnum) {
    errno = errnum;
    return errnum == 0 ? 0 : -1;
}

}  // namespace

void job::SetUp() {
    kernel::reset();
    logged::reset();
    logged::disturb_errno(EPIPE);
    world = neighbours{};
    closure_init(&frame, nullptr);
}

void job::TearDown() {
    EXPECT_EQ(world.waiting, nullptr) << "the test has left an operation unfinished";
}

void job::push_bottom() {
    closure_setup_frame(&frame, on_closure_done, const_cast<char*>(JOB));
    frame.status = CLOSURE_OK;  // as behind a step that succeeded: the job itself says that it is busy
}

void job::end(closure_status status, int32_t result) {
    ASSERT_NE(world.waiting, nullptr);
    closure_frame* const waiting = world.waiting;
    world.waiting = nullptr;
    finish(waiting, {status, result});
}

const std::vector<job::swap>& job::swaps() {
    static const std::vector<swap> all = {
        {"whose events have come", [] { ++world.insertion; }},
        {"that nobody has heard of yet",
         [] {
             world.strange_nodes = {"/dev/mmcblk0", "/dev/mmcblk0p1"};
         }},
        {"by whose disk alone it shows", [] { world.strange_nodes = {"/dev/mmcblk0"}; }},
    };
    return all;
}

void job::swap_after(const std::string& step, const swap& how) {
    world.after = [step, happens = how.happens, is_done = false](const std::string& noted) mutable {
        if (!is_done && noted.starts_with(step)) {
            is_done = true;
            happens();
        }
    };
}

strings job::lines_of(const std::string& level) {
    strings found;
    for (const auto& line : logged::lines()) {
        if (line.compare(0, level.size(), level) == 0) {
            found.push_back(line);
        }
    }
    return found;
}

}  // namespace rig

// --- stand-ins -----------------------------------------------------------------------------------------------------

using rig::world;

void cl_next_umount(closure_frame* frame) {
    rig::note("umount");
    rig::operate(frame, world.umount);
}

void cl_next_execvp(closure_frame* frame, const char* const* argv) {
    rig::run(frame, argv);
}

void cl_next_execvp_write(closure_frame* frame, const char* const* argv, const char* data, uint32_t length) {
    world.input.assign(data, length);
    rig::run(frame, argv);
}

mmc_manager* mmc_get_manager() {
    return &world.mmc;
}

uint32_t mmc_get_insertion() {
    return world.insertion;
}

bool mmc_is_node_known(const char* path) {
    errno = ENOENT;
    return world.strange_nodes.count(path) == 0;
}

int mmc_partprobe() {
    rig::note("partprobe");
    return rig::answer(world.partprobe_errno);
}

int mmc_eject() {
    rig::note("eject");
    return rig::answer(world.eject_errno);
}

int mountpoint_mount() {
    rig::note("mount");
    errno = EPIPE;
    return world.mount_result;
}

void mountpoint_clear_mask() {
    rig::note("clear_mask");
}
