// The card operations: which are refused, what a job begins and ends with, and the keys by which they are asked for.
#include <cerrno>
#include <iterator>
#include <string>

#include "support/card_rig.h"
#include "support/promise.h"

using rig::tell_on_abort;
using rig::world;

namespace {

class sdcard_jobs : public rig::test {
  protected:
    void SetUp() override {
        rig::test::SetUp();
        snprintf(world.mmc.disk.path, sizeof world.mmc.disk.path, "/dev/mmcblk0");
        snprintf(world.mmc.partitions[0].path, sizeof world.mmc.partitions[0].path, "/dev/mmcblk0p1");
        world.mmc.partition_count = 1;
        start();
    }

    // Ends the chain that runs; the bottom continuation runs nested in it.
    static void end_chain(bool ok, int code) {
        closure_frame* frame = world.running;
        world.running = nullptr;
        ASSERT_NE(nullptr, frame);
        ok ? closure_succeed(frame, code) : closure_fail(frame, code);
    }
};
using sdcard_jobs_death = sdcard_jobs;

struct job {
    int (*start)();
    const char* operation;
    const char* chain;
    const char* chain_step;
    const char* name;
    const char* status;
};
constexpr job JOBS[] = {
    {sdcard_mkfs, "sdcard_mkfs", "cl_next_mkfs", "cl_next_mkfs", "mkfs", "4"},
    {sdcard_eject, "sdcard_eject", "cl_next_eject", "cl_next_eject", "eject", "7"},
    {sdcard_fsck, "sdcard_fsck", "cl_next_fsck", "cl_next_fsck /dev/mmcblk0p1", "fsck", "6"},
};

PROMISES("sdcard");

TEST_F(sdcard_jobs, publishes_its_state_runs_and_gives_the_card_its_own_state_back) {
    PROMISE("a job starts", "its state is published first, then the trace, then its chain runs on a busy frame");
    PROMISE("a job has ended well",
            "\"closure: %s successful\" with its name, the state is derived, and the frame is free");
    for (const auto& job : JOBS) {
        for (bool ok : {true, false}) {
            SCOPED_TRACE(std::string(job.name) + (ok ? " succeeds" : " fails"));
            SetUp();
            EXPECT_EQ(0, job.start());
            EXPECT_EQ((strings{std::string("sdcard_status=") + job.status, "sdcard_rw=none", job.chain_step}),
                      world.steps);
            EXPECT_EQ(
                strings{std::string("debug closure: ") + job.operation + "(): " + job.chain + " -> on_closure_done"},
                logged::lines());
            EXPECT_EQ(0U, world.lines_before_key) << "the state comes before the trace";
            EXPECT_EQ(CLOSURE_BUSY, sd.closure.status);

            world.steps.clear();
            logged::reset();
            end_chain(ok, ok ? 0 : 16);
            EXPECT_EQ(
                strings{std::string(ok ? "info" : "err") + " closure: " + job.name + (ok ? " successful" : " failed")},
                logged::lines());
            EXPECT_EQ((strings{"sdcard_status=0", "sdcard_rw=rdwr"}), world.steps);
            EXPECT_EQ(1U, world.lines_before_key) << "the end is told before the state is derived";
            EXPECT_EQ(ok ? CLOSURE_OK : CLOSURE_FAILED, sd.closure.status);
            EXPECT_EQ(closure_empty(&sd.closure), sd.closure.top);
        }
    }
}

TEST_F(sdcard_jobs, what_is_not_a_success_is_a_failure) {
    PROMISE("a job ends in whatever is not a success",
            "\"closure: %s failed\", the state is derived, and the frame stays as it was left");
    for (auto status : {CLOSURE_IDLE, CLOSURE_BUSY, CLOSURE_FAILED}) {
        SetUp();
        ASSERT_EQ(0, sdcard_mkfs());
        logged::reset();
        sd.closure.status = status;
        closure_return(&sd.closure);
        EXPECT_EQ(strings{"err closure: mkfs failed"}, logged::lines());
        EXPECT_EQ(status, sd.closure.status) << "left as it is";
        EXPECT_EQ(SDCARD_NORMAL, sd.state);
    }
}

TEST_F(sdcard_jobs, only_one_at_a_time) {
    PROMISE("any job is asked for while one runs",
            "\"%s: closure is busy\", EBUSY, and the running one is not disturbed");
    for (const auto& running : JOBS) {
        for (const auto& refused : JOBS) {
            SCOPED_TRACE(std::string(refused.name) + " while there is " + running.name);
            SetUp();
            ASSERT_EQ(0, running.start());
            world.steps.clear();
            logged::reset();
            logged::disturb_errno(EPIPE);
            errno = 0;
            EXPECT_EQ(-1, refused.start());
            EXPECT_EQ(EBUSY, errno);
            EXPECT_EQ(strings{std::string("err ") + refused.operation + ": closure is busy"}, logged::lines());
            EXPECT_EQ(strings{}, world.steps);

            end_chain(true, 0);
            EXPECT_EQ(0, refused.start()) << "free again";
            end_chain(true, 0);
        }
    }
}

TEST_F(sdcard_jobs, busy_is_told_before_anything_else) {
    PROMISE("a job is asked for while one runs, and could not be done anyhow", "busy is said first");
    ASSERT_EQ(0, sdcard_mkfs());
    world.mmc.state = MMC_STATE_NONE;
    sd.state = SDCARD_NOT_EXISTS;
    for (const auto& job : JOBS) {
        errno = 0;
        EXPECT_EQ(-1, job.start());
        EXPECT_EQ(EBUSY, errno);
    }
}

TEST_F(sdcard_jobs, format_and_check_need_a_writable_card) {
    PROMISE(
        "a format is asked for and the card is absent, read-only or ejected",
        "\"%s: Unable to format sdcard when mmc device in %d state.\" with the number, EINVAL, the state untouched");
    PROMISE("a check is asked for and the card is so",
            "\"%s: Unable to check filesystem when mmc device in %d state.\", EINVAL, the state untouched");
    for (int state : {0, 2, 3, 9}) {
        world.mmc.state = static_cast<mmc_state>(state);
        logged::reset();
        logged::disturb_errno(EPIPE);
        errno = 0;
        EXPECT_EQ(-1, sdcard_mkfs());
        EXPECT_EQ(EINVAL, errno);
        errno = 0;
        EXPECT_EQ(-1, sdcard_fsck());
        EXPECT_EQ(EINVAL, errno);
        const std::string number = std::to_string(state);
        EXPECT_EQ((strings{"err sdcard_mkfs: Unable to format sdcard when mmc device in " + number + " state.",
                           "err sdcard_fsck: Unable to check filesystem when mmc device in " + number + " state."}),
                  logged::lines());
    }
    EXPECT_EQ(strings{}, world.steps);
    EXPECT_EQ(SDCARD_NORMAL, sd.state);
}

TEST_F(sdcard_jobs, check_takes_the_first_partition_or_else_the_disk) {
    PROMISE("a check starts", "it gets the first partition, or the disk when there is none");
    for (int32_t partitions : {1, 2, 7}) {
        world.mmc.partition_count = partitions;
        ASSERT_EQ(0, sdcard_fsck());
        EXPECT_EQ("cl_next_fsck /dev/mmcblk0p1", world.steps.back());
        end_chain(true, 0);
    }
    world.mmc.partition_count = 0;
    ASSERT_EQ(0, sdcard_fsck());
    EXPECT_EQ("cl_next_fsck /dev/mmcblk0", world.steps.back());
}

TEST_F(sdcard_jobs, eject_goes_by_the_card_state) {
    PROMISE("an eject is asked for without a card",
            "\"%s: sdcard is not exists\" at debug level and -1, errno untouched");
    PROMISE("an eject is asked for of a card that is ejected or just being so", "0, and nothing is done");
    PROMISE("an eject is asked for of a normal, full or broken card, or in a state that nobody knows",
            "the job starts");
    struct {
        sdcard_state state;
        int result;
        const char* line;
        bool starts;
    } rows[] = {
        {SDCARD_NORMAL, 0, "", true},
        {SDCARD_FULL, 0, "", true},
        {SDCARD_BROKEN, 0, "", true},
        {static_cast<sdcard_state>(8), 0, "", true},
        {SDCARD_NOT_EXISTS, -1, "debug sdcard_eject: sdcard is not exists", false},
        {SDCARD_EJECT, 0, "", false},
        {SDCARD_EJECTING, 0, "", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.state);
        SetUp();
        sd.state = row.state;
        errno = 77;
        EXPECT_EQ(row.result, sdcard_eject());
        if (!row.starts) {
            EXPECT_EQ(77, errno);
            EXPECT_EQ(row.line[0] != '\0' ? strings{row.line} : strings{}, logged::lines());
            EXPECT_EQ(strings{}, world.steps);
            EXPECT_EQ(row.state, sd.state);
        } else {
            EXPECT_EQ(SDCARD_EJECTING, sd.state);
            EXPECT_EQ("cl_next_eject", world.steps.back());
        }
    }
}

TEST_F(sdcard_jobs_death, eject_in_a_job_state_without_a_job_ends_the_process) {
    PROMISE("an eject is asked for in a job's state without a job",
            "\"%s: Unexpected sdcard status %s.\" with the state's name, and the process aborts");
    PROMISE("an eject is asked for before there is a state", "the process aborts without a word");
    struct {
        sdcard_state state;
        const char* said;
    } rows[] = {
        {SDCARD_FORMATTING, "^\\[crit sdcard_eject: Unexpected sdcard status formatting.\\]\\(abort\\)"},
        {SDCARD_FIXING, "^\\[crit sdcard_eject: Unexpected sdcard status fixing.\\]\\(abort\\)"},
        {SDCARD_UNKNOWN, "^\\(abort\\)"},
    };
    for (const auto& row : rows) {
        EXPECT_EXIT(
            {
                tell_on_abort();
                sd.state = row.state;
                sdcard_eject();
            },
            testing::KilledBySignal(SIGABRT), row.said);
    }
}

TEST_F(sdcard_jobs, nobody_derives_a_state_while_a_job_runs_but_the_periodic_refresh) {
    PROMISE("somebody asks while a job runs", "nothing happens, and the periodic look is not postponed");
    PROMISE("1800 s have gone by without a refresh while a job runs",
            "the derived state takes the place of the job's, and the job goes on");
    ASSERT_EQ(0, sdcard_mkfs());
    ev_timer_stop(EV_DEFAULT, &sd.refresh_timer);
    ev_timer_set(&sd.refresh_timer, 7.0, 1800.0);
    ev_timer_start(EV_DEFAULT, &sd.refresh_timer);
    world.steps.clear();
    logged::reset();
    world.mmc.state = MMC_STATE_NONE;
    sdcard_refresh("Mountinfo changed.");
    EXPECT_EQ(strings{}, world.steps);
    EXPECT_EQ(strings{}, logged::lines());
    EXPECT_EQ(SDCARD_FORMATTING, sd.state);
    EXPECT_LT(rig::remaining_s(&sd.refresh_timer), 8) << "the periodic refresh is not postponed";

    ev_invoke(EV_DEFAULT, &sd.refresh_timer, EV_TIMER);
    EXPECT_EQ(SDCARD_NOT_EXISTS, sd.state);
    EXPECT_EQ(CLOSURE_BUSY, sd.closure.status);
}

TEST_F(sdcard_jobs, a_job_that_has_ended_lets_refreshes_through) {
    PROMISE("a job has ended, well or not", "refreshes count again");
    for (bool ok : {true, false}) {
        ASSERT_EQ(0, sdcard_mkfs());
        end_chain(ok, 1);
        logged::reset();
        sdcard_refresh("New Record");
        EXPECT_EQ(strings{"info refresh sdcard state due to New Record"}, logged::lines());
    }
}

TEST_F(sdcard_jobs, the_end_of_a_job_frees_space_like_any_derivation) {
    PROMISE("the card turns out full at a job's end", "the oldest clips go as ever");
    ASSERT_EQ(0, sdcard_mkfs());
    world.steps.clear();
    fill();
    world.after_delete = {40960};
    end_chain(true, 0);
    EXPECT_EQ((strings{"records_delete_oldest", "sdcard_status=0", "sdcard_rw=rdwr"}), world.steps);
}

TEST_F(sdcard_jobs, stopping_leaves_a_job_alone) {
    PROMISE("the card manager stops while a job runs", "the job is left alone");
    ASSERT_EQ(0, sdcard_mkfs());
    world.steps.clear();
    sdcard_exit();
    EXPECT_EQ((strings{"records_exit", "mmc_dev_exit", "mountpoint_exit"}), world.steps);
    EXPECT_EQ(CLOSURE_BUSY, sd.closure.status);
}

// --- the request keys ------------------------------------------------------------------------------------------------

struct request {
    void (*notify)(void*, const char*, size_t);
    const char* key;
    const char* chain;
};
constexpr request REQUESTS[] = {
    {on_spec_sdcard_format, "spec_sdcard_format", "cl_next_mkfs"},
    {on_spec_sdcard_unmount, "spec_sdcard_unmount", "cl_next_eject"},
};

TEST_F(sdcard_jobs, a_request_starts_the_job_and_is_answered_with_the_time) {
    PROMISE("a request key begins with \"start\"", "the job is started, then the key says \"end%d\" with the time");
    for (const auto& request : REQUESTS) {
        for (const char* value : {"start", "start1234", "starting"}) {
            SCOPED_TRACE(value);
            SetUp();
            kernel::on().now = 1'795'231'084;
            request.notify(nullptr, value, 0);  // the length is not looked at
            ASSERT_EQ(4U, world.steps.size());
            EXPECT_EQ(request.chain, world.steps[2]);
            EXPECT_EQ(std::string(request.key) + "=end1795231084", world.steps[3]);
        }
    }
}

TEST_F(sdcard_jobs, what_does_not_begin_with_start_is_no_request) {
    PROMISE("a request key says something else, or nothing", "nothing happens");
    for (const auto& request : REQUESTS) {
        request.notify(nullptr, nullptr, 0);
        for (const char* value :
             {"", "stop", "star", "Start", " start", "end1795231084", "s-art", "st-rt", "sta-t", "star-"}) {
            request.notify(nullptr, value, 5);
        }
    }
    EXPECT_EQ(strings{}, world.steps);
    EXPECT_EQ(strings{}, logged::lines());
}

TEST_F(sdcard_jobs, a_request_after_the_answer_starts_the_job_again) {
    PROMISE("a request by key comes after the answer to the one before",
            "the job is started again; the answer itself starts nothing");
    for (const auto& request : REQUESTS) {
        SetUp();
        kernel::on().now = 1000;
        for (int i = 0; i < 2; ++i) {
            world.steps.clear();
            request.notify(nullptr, "start", 5);
            EXPECT_NE(world.steps.end(), std::find(world.steps.begin(), world.steps.end(), request.chain)) << i;
            const size_t answered = world.steps.size();
            request.notify(nullptr, "end1000", 7);  // its own answer comes back
            EXPECT_EQ(answered, world.steps.size());
            end_chain(true, 0);
            sd.state = SDCARD_NORMAL;
        }
    }
}

TEST_F(sdcard_jobs, a_refused_request_is_answered_all_the_same) {
    PROMISE("a request by key is refused", "it is answered like one that was not");
    kernel::on().now = 1000;
    ASSERT_EQ(0, sdcard_fsck());
    for (const auto& request : REQUESTS) {
        world.steps.clear();
        request.notify(nullptr, "start", 5);
        EXPECT_EQ(strings{std::string(request.key) + "=end1000"}, world.steps);
    }
    end_chain(true, 0);
    world.mmc.state = MMC_STATE_RDONLY;
    world.steps.clear();
    on_spec_sdcard_format(nullptr, "start", 5);
    EXPECT_EQ(strings{"spec_sdcard_format=end1000"}, world.steps);
}

TEST_F(sdcard_jobs, the_answer_is_the_time_as_a_signed_32_bit_number) {
    PROMISE("the time does not fit 31 bits", "the answer has it as a signed 32-bit number");
    kernel::on().now = -5;
    on_spec_sdcard_format(nullptr, "start", 5);
    EXPECT_EQ("spec_sdcard_format=end-5", world.steps.back());
}

}  // namespace
