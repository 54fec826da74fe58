#include "closure.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "sdcard.h"
#include "support/child.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"

namespace {

using list = std::vector<std::string>;

list ran;  // "<step> <status> <result>", in order

void note(const char* step, const closure_frame* frame) {
    ran.push_back(std::string(step) + " " + std::to_string(frame->status) + " " + std::to_string(frame->result));
}

// The bottom of every chain below. argument: what to call it.
void on_done(closure_frame* frame, void* argument) {
    note(static_cast<const char*>(argument), frame);
}

void pass_on(closure_frame* frame, void* argument) {
    note(static_cast<const char*>(argument), frame);
    closure_return(frame);
}

// First of all; an emulator of the processor may have something to add.
bool says(const child::outcome& end, const std::string& text) {
    return end.error.compare(0, text.size(), text) == 0;
}

char DONE[] = "done";
char FIRST[] = "first";
char SECOND[] = "second";

class closure : public testing::Test {
  protected:
    sdcard_manager owner = {};
    closure_frame frame;

    void SetUp() override {
        kernel::reset();
        logged::reset();
        ran.clear();
        memset(static_cast<void*>(&frame), 0xa5, sizeof frame);
        closure_init(&frame, &owner);
    }

    ptrdiff_t depth() const { return frame.top + 1 - frame.slots; }
};

PROMISES("closure");

TEST_F(closure, starts_idle_and_empty) {
    PROMISE("a frame has never run", "it is idle, its stack empty");
    EXPECT_EQ(frame.owner, &owner);
    EXPECT_EQ(frame.status, CLOSURE_IDLE);
    EXPECT_EQ(frame.result, 0);
    EXPECT_EQ(depth(), 0);
}

// Others store and compare them.
TEST_F(closure, numbers_stand) {
    PROMISE("a status is read as a number", "idle, busy, succeeded and failed are 0 to 3");
    EXPECT_EQ(CLOSURE_IDLE, 0);
    EXPECT_EQ(CLOSURE_BUSY, 1);
    EXPECT_EQ(CLOSURE_OK, 2);
    EXPECT_EQ(CLOSURE_FAILED, 3);
    EXPECT_EQ(CLOSURE_DEPTH, 5);
}

TEST_F(closure, last_pushed_runs_first_with_its_own_argument) {
    PROMISE("five continuations are pushed", "all run, the last pushed first, each with its own argument");
    closure_setup_frame(&frame, on_done, DONE);
    closure_setup_frame(&frame, pass_on, SECOND);
    closure_setup_frame(&frame, pass_on, FIRST);
    EXPECT_EQ(depth(), 3);
    EXPECT_TRUE(ran.empty()) << "pushing runs nothing";
    closure_return(&frame);
    EXPECT_EQ(ran, (list{"first 0 0", "second 0 0", "done 0 0"}));
    EXPECT_EQ(depth(), 0);
}

TEST_F(closure, return_leaves_the_outcome_alone) {
    PROMISE("a step only passes on", "the outcome stays as it was");
    frame.status = CLOSURE_BUSY;
    frame.result = -1;
    closure_setup_frame(&frame, on_done, DONE);
    closure_return(&frame);
    EXPECT_EQ(ran, list{"done 1 -1"});
}

TEST_F(closure, outcome_stands_before_the_continuation_runs) {
    PROMISE("an operation ends", "status and code stand before the continuation runs");
    PROMISE("a job is over", "the frame keeps its outcome, not busy");
    closure_setup_frame(&frame, on_done, DONE);
    closure_succeed(&frame, 7);
    closure_setup_frame(&frame, on_done, DONE);
    closure_fail(&frame, 16);
    EXPECT_EQ(ran, (list{"done 2 7", "done 3 16"}));
    EXPECT_EQ(frame.status, CLOSURE_FAILED) << "left as it ended";
    EXPECT_EQ(frame.result, 16);
}

TEST_F(closure, five_fit) {
    PROMISE("five continuations are pushed", "all run, the last pushed first, each with its own argument");
    for (int i = 0; i < CLOSURE_DEPTH - 1; ++i) {
        closure_setup_frame(&frame, i == 0 ? on_done : pass_on, DONE);
    }
    closure_setup_frame(&frame, pass_on, FIRST);
    EXPECT_EQ(frame.top, &frame.slots[4]);
    closure_succeed(&frame, 0);
    EXPECT_EQ(ran, (list{"first 2 0", "done 2 0", "done 2 0", "done 2 0", "done 2 0"}));
}

TEST_F(closure, a_sixth_ends_the_process) {
    PROMISE("a sixth is pushed", "\"closure stack overflow!\" with errno's text, and the process ends by SIGABRT");
    for (int i = 0; i < CLOSURE_DEPTH; ++i) {
        closure_setup_frame(&frame, on_done, DONE);
    }
    const auto end = child::run([&] {
        errno = EPERM;
        closure_setup_frame(&frame, on_done, DONE);
    });
    EXPECT_TRUE(end.killed_by(SIGABRT));
    EXPECT_TRUE(says(end, "closure stack overflow!: Operation not permitted\n")) << end.error;
}

TEST_F(closure, a_pop_too_many_ends_the_process) {
    PROMISE("an empty stack is popped, in whichever way",
            "\"closure stack underflow!\" with errno's text, and the process ends by SIGABRT");
    struct row {
        const char* name;
        std::function<void(closure_frame*)> pop;
    };
    const row rows[] = {
        {"return", closure_return},
        {"succeed", [](closure_frame* f) { closure_succeed(f, 0); }},
        {"fail", [](closure_frame* f) { closure_fail(f, 1); }},
    };
    for (const row& r : rows) {
        const auto end = child::run([&] {
            closure_setup_frame(&frame, on_done, DONE);
            closure_return(&frame);  // empty again is as empty as at first
            errno = EPERM;
            r.pop(&frame);
        });
        EXPECT_TRUE(end.killed_by(SIGABRT)) << r.name;
        EXPECT_TRUE(says(end, "closure stack underflow!: Operation not permitted\n")) << r.name << ": " << end.error;
    }
    const auto end = child::run([&] { closure_return(&frame); });
    EXPECT_TRUE(end.killed_by(SIGABRT)) << "never pushed anything";
}

// An operation that is through at once.
void operation(closure_frame* frame) {
    closure_succeed(frame, 0);
}

int steps_left;

void step(closure_frame* frame, void* argument) {
    if (--steps_left == 0) {
        closure_return(frame);
        return;
    }
    closure_setup_frame(frame, step, argument);
    frame->status = CLOSURE_BUSY;
    operation(frame);
}

TEST_F(closure, what_is_through_at_once_has_run_the_rest_when_its_call_returns) {
    PROMISE("an operation is through before its starting call returns", "the continuation has run by then");
    closure_setup_frame(&frame, on_done, DONE);
    closure_setup_frame(&frame, pass_on, FIRST);
    frame.status = CLOSURE_BUSY;
    operation(&frame);
    EXPECT_EQ(ran, (list{"first 2 0", "done 2 0"}));
}

TEST_F(closure, a_step_that_pushes_uses_the_slot_that_it_ran_from) {
    PROMISE("a continuation pushes while it runs", "the slot that it came from is used again");
    steps_left = 100;
    closure_setup_frame(&frame, on_done, DONE);
    step(&frame, nullptr);
    EXPECT_EQ(steps_left, 0);
    EXPECT_EQ(ran, list{"done 2 0"});
}

TEST_F(closure, a_failure_of_the_first_step_reaches_the_bottom_as_it_is) {
    PROMISE("the first step of a chain fails", "status and code reach the bottom as they are");
    closure_setup_frame(&frame, on_done, DONE);
    closure_setup_frame(&frame, pass_on, SECOND);
    closure_setup_frame(&frame, pass_on, FIRST);
    closure_fail(&frame, 99);
    EXPECT_EQ(ran, (list{"first 3 99", "second 3 99", "done 3 99"}));
}

TEST_F(closure, trace_names_who_runs_what_it_starts_and_what_comes_next) {
    PROMISE("a step begins an operation", "the trace says who runs, what it starts and what comes next");
    closure_debug_next("cl_next_mkfs", "cl_next_umount", "next_fdisk");
    EXPECT_EQ(logged::lines(), list{"debug closure: cl_next_mkfs(): cl_next_umount -> next_fdisk"});
}

}  // namespace
