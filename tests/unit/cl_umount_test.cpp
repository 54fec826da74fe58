#include "cl_umount.h"

#include <algorithm>
#include <cerrno>
#include <ev.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "cl_execvp.h"
#include "closure.h"
#include "mountpoint.h"
#include "rpc.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"

using list = std::vector<std::string>;

// --- stand-ins for the neighbours: the mount, the runner, the reports, and libev's clock -----------------------------

namespace {

int tries;                 // of mountpoint_umount
int refused;               // the first so many tries fail
std::vector<list> alerts;  // the names of each
ev_timer* waiting;         // the timer that was started last and has not fired

// A run of fuser that has not ended.
struct run {
    closure_frame* frame;
    char* buffer;
};
std::vector<run> runs;
std::function<void(run)> on_start;  // may end the run before its starting call returns

void end_run(run r, const std::string& output, bool ok = true) {
    ASSERT_LT(output.size(), 128U);
    memcpy(r.buffer, output.c_str(), output.size() + 1);
    ok ? closure_succeed(r.frame, 0) : closure_fail(r.frame, 1);
}

}  // namespace

int mountpoint_umount() {
    ++tries;
    errno = EBUSY;
    return tries <= refused ? -1 : 0;
}

void cl_next_execvp_read(closure_frame* frame, const char* const* argv, char* buffer, uint32_t size) {
    list arguments;
    while (*argv != nullptr) {
        arguments.emplace_back(*argv++);
    }
    EXPECT_EQ(arguments, (list{"fuser", "-m", "/mnt/sdcard"}));
    EXPECT_EQ(size, 128U);
    EXPECT_EQ(frame->status, CLOSURE_BUSY);
    EXPECT_EQ(frame->top, &frame->slots[2]) << "bottom, the job's next step, fuser_done";
    memset(buffer, '#', size);
    runs.push_back({frame, buffer});
    if (on_start) {
        on_start(runs.back());
    }
}

void rpc_send_alert_umount_fail(int32_t count, const char (*names)[RPC_FUSER_NAME_SIZE]) {
    list all;
    for (int32_t i = 0; i < count; ++i) {
        EXPECT_NE(memchr(names[i], '\0', RPC_FUSER_NAME_SIZE), nullptr);
        all.emplace_back(names[i]);
    }
    alerts.push_back(all);
}

namespace {
void* record;  // allocated last and not freed
}

extern "C" {

void __real_ev_timer_start(struct ev_loop*, ev_timer*);
void __wrap_ev_timer_start(struct ev_loop* loop, ev_timer* timer) {
    EXPECT_EQ(loop, ev_default_loop(0));
    EXPECT_FALSE(ev_is_active(timer));
    EXPECT_EQ(timer->at, 0.5);
    EXPECT_EQ(timer->repeat, 0.0);
    EXPECT_EQ(waiting, nullptr) << "one wait at a time";
    waiting = timer;
    __real_ev_timer_start(loop, timer);
}

void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) {
    if (kernel::must_fail("malloc")) {
        return nullptr;
    }
    record = __real_malloc(size);
    return record;
}
void __real_free(void* block);
void __wrap_free(void* block) {
    if (block == record) {
        record = nullptr;
    }
    __real_free(block);
}
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    return kernel::must_fail("malloc") ? nullptr : __real_calloc(count, size);
}

}  // extern "C"

namespace {

list ended;  // "<status> <result>" whenever the job's next step ran

void next_step(closure_frame* frame, void* argument) {
    EXPECT_EQ(argument, &ended);
    EXPECT_EQ(record, nullptr) << "freed before the next step, which may take minutes";
    ended.push_back(std::to_string(frame->status) + " " + std::to_string(frame->result));
    closure_return(frame);
}

void on_closure_done(closure_frame*, void*) {}

constexpr char TRACE[] = "debug closure: on_retry_umount(): cl_next_execvp_read -> fuser_done";

// A whole line of a stat file.
std::string stat_of(int pid, const std::string& name) {
    return std::to_string(pid) + " (" + name + ") S 1 1 1 0 -1 4194560 0 0\n";
}

// The number that the next descriptor gets.
int next_descriptor() {
    ev_default_loop(0);  // made by the first who asks, with descriptors of its own
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

class cl_umount : public testing::Test {
  protected:
    closure_frame frame;
    const int free_before = next_descriptor();

    void SetUp() override {
        kernel::reset();
        logged::reset();
        ended.clear();
        alerts.clear();
        runs.clear();
        on_start = nullptr;
        waiting = nullptr;
        tries = 0;
        refused = 0;
        closure_init(&frame, nullptr);
    }

    void TearDown() override {
        EXPECT_EQ(ev_run(ev_default_loop(0), EVRUN_NOWAIT), 0) << "a watcher is left behind";
        EXPECT_EQ(next_descriptor(), free_before) << "a descriptor is left behind";
    }

    void start() {
        closure_setup_frame(&frame, on_closure_done, nullptr);
        closure_setup_frame(&frame, next_step, &ended);
        frame.status = CLOSURE_BUSY;
        cl_next_umount(&frame);
    }

    // Half a second goes by: libev has stopped a one-shot timer when it calls back.
    static void half_a_second_later() {
        ASSERT_NE(waiting, nullptr) << "nothing waits";
        ev_timer* timer = waiting;
        waiting = nullptr;
        ev_timer_stop(ev_default_loop(0), timer);
        timer->cb(ev_default_loop(0), timer, EV_TIMER);
    }

    // Every round's fuser ends at once with this output.
    static void fuser_says(const std::string& output, bool ok = true) {
        on_start = [=](run r) { end_run(r, output, ok); };
    }

    static void to_the_end() {
        while (waiting != nullptr) {
            half_a_second_later();
        }
    }
};

PROMISES("cl_umount");

TEST_F(cl_umount, is_through_at_once_when_nothing_holds_the_card) {
    PROMISE("nothing is mounted, or nobody holds the card", "the step succeeds at once, without a wait");
    start();
    EXPECT_EQ(ended, list{"2 0"});
    EXPECT_EQ(tries, 1);
    EXPECT_EQ(waiting, nullptr);
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(cl_umount, waits_half_a_second_before_the_next_try) {
    PROMISE("the first try is refused",
            "the next comes half a second later; nobody is asked who holds the card before that");
    refused = 1;
    start();
    EXPECT_TRUE(ended.empty());
    ASSERT_NE(waiting, nullptr);
    EXPECT_EQ(frame.status, CLOSURE_BUSY);
    EXPECT_TRUE(runs.empty()) << "nobody is asked before the first wait is over";
    half_a_second_later();
    EXPECT_EQ(ended, list{"2 0"});
    EXPECT_EQ(tries, 2);
    EXPECT_TRUE(runs.empty());
    EXPECT_TRUE(alerts.empty());
    EXPECT_EQ(waiting, nullptr);
}

TEST_F(cl_umount, gives_up_behind_the_tenth_try) {
    PROMISE("fuser is started", "the trace says so");
    PROMISE("all ten are refused", "the step fails with EBUSY (16) behind the ninth fuser");
    PROMISE("the same process holds the card through all tries", "each of the nine rounds asks for an alert");
    refused = 100;
    kernel::write("/proc/71/stat", stat_of(71, "recorder"));
    fuser_says(" 71\n");
    start();
    to_the_end();
    EXPECT_EQ(tries, 10);
    EXPECT_EQ(runs.size(), 9U);
    EXPECT_EQ(alerts, std::vector<list>(9, list{"recorder"})) << "each round asks for its alert";
    EXPECT_EQ(ended, list{"3 " + std::to_string(EBUSY)});
    EXPECT_EQ(logged::lines(), list(9, TRACE));
}

TEST_F(cl_umount, every_try_may_be_the_one_that_succeeds) {
    PROMISE("a later try is refused", "fuser is asked, and half a second behind its end the next try follows");
    PROMISE("any of the ten tries succeeds", "the step does");
    PROMISE("the step has ended, whichever way", "no timer and no open file is left");
    for (int nth = 1; nth <= 10; ++nth) {
        SetUp();
        refused = nth - 1;
        fuser_says("");
        start();
        to_the_end();
        EXPECT_EQ(tries, nth);
        EXPECT_EQ(runs.size(), static_cast<size_t>(std::max(0, nth - 2)));
        EXPECT_EQ(ended, list{"2 0"}) << nth;
    }
}

// The holder lets go behind the third try: the fourth succeeds, and each fuser in between has reported it.
TEST_F(cl_umount, a_holder_that_lets_go) {
    PROMISE("files are closed behind the third try",
            "the fourth succeeds, and the two runs of fuser in between have each asked for an alert");
    refused = 3;
    kernel::write("/proc/71/stat", stat_of(71, "recorder"));
    fuser_says(" 71\n");
    start();
    to_the_end();
    EXPECT_EQ(tries, 4);
    EXPECT_EQ(alerts.size(), 2U);
    EXPECT_EQ(ended, list{"2 0"});
}

TEST_F(cl_umount, stays_busy_from_the_start_to_the_end) {
    PROMISE("a later try is refused", "fuser is asked, and half a second behind its end the next try follows");
    PROMISE("fuser has ended and the next try is awaited", "the frame is as busy as before, whatever fuser came to");
    PROMISE("fuser still runs", "there is no try meanwhile");
    refused = 100;
    start();
    for (int round = 1; round <= 9; ++round) {
        EXPECT_EQ(frame.status, CLOSURE_BUSY) << "while it waits, round " << round;
        half_a_second_later();
        EXPECT_EQ(frame.status, CLOSURE_BUSY) << "while fuser runs, round " << round;
        EXPECT_EQ(waiting, nullptr) << "no try while fuser runs";
        EXPECT_TRUE(ended.empty());
        end_run(runs.back(), "", round % 2 == 0);  // the outcome of fuser is not the job's
    }
    EXPECT_EQ(ended, list{"3 " + std::to_string(EBUSY)});
}

TEST_F(cl_umount, a_fuser_that_fails_costs_the_report_only) {
    PROMISE("fuser fails, or is missing", "no alert; the tries go on");
    refused = 100;
    kernel::write("/proc/71/stat", stat_of(71, "recorder"));
    fuser_says(" 71\n", false);
    start();
    to_the_end();
    EXPECT_EQ(tries, 10);
    EXPECT_TRUE(alerts.empty());
    EXPECT_EQ(kernel::count("fopen"), 0);
    EXPECT_EQ(ended, list{"3 " + std::to_string(EBUSY)});
}

TEST_F(cl_umount, without_memory_for_the_retry_it_fails_at_once) {
    PROMISE("there is no memory to wait with", "the step fails at once with ENOMEM (12)");
    refused = 100;
    kernel::fail("malloc", ENOMEM);
    start();
    EXPECT_EQ(ended, list{"3 " + std::to_string(ENOMEM)});
    EXPECT_EQ(tries, 1);
    EXPECT_EQ(waiting, nullptr);
}

TEST_F(cl_umount, numbers_of_the_outcomes_stand) {
    PROMISE("all ten are refused", "the step fails with EBUSY (16) behind the ninth fuser");
    PROMISE("there is no memory to wait with", "the step fails at once with ENOMEM (12)");
    EXPECT_EQ(EBUSY, 16);
    EXPECT_EQ(ENOMEM, 12);
}

TEST_F(cl_umount, reports_who_holds_the_card) {
    PROMISE("fuser lists processes",
            "the alert has their names, wherever blanks and newlines stand between the numbers");
    PROMISE("fuser lists nobody", "no alert");
    PROMISE("a listed process is gone by then",
            "it is left out and takes no place; when all are gone there is no alert");
    PROMISE("more than five are listed", "the first five that are there are named, and five is the count");
    PROMISE("a name cannot be read", "\"pid=%d\" takes its place");
    PROMISE("a name has more than 15 bytes", "the first 15 are told, with their NUL inside the slot");
    PROMISE("a name has a closing parenthesis in it", "it ends there");
    PROMISE("fuser prints what is no number", "it is passed over like a process that is gone");
    PROMISE("the step has ended, whichever way", "no timer and no open file is left");
    const struct {
        const char* what;
        std::string output;
        list names;  // empty: no alert
    } rows[] = {
        {"nobody", "", {}},
        {"blanks only", " \n  \n", {}},
        {"one", "71", {"recorder"}},
        {"several, blanks and newlines between", " 71 72\n 73\n", {"recorder", "sh", "a b"}},
        {"newlines only between", "71\n72\n73", {"recorder", "sh", "a b"}},
        {"the same twice", "71 71", {"recorder", "recorder"}},
        {"five", "71 72 73 74 75", {"recorder", "sh", "a b", "n4", "n5"}},
        {"more than five", "71 72 73 74 75 76 77", {"recorder", "sh", "a b", "n4", "n5"}},
        {"gone ones do not count as one of the five",
         "1001 71 1002 72 73 1003 74 75 76",
         {"recorder", "sh", "a b", "n4", "n5"}},
        {"gone ones only", "1001 1002", {}},
        {"only blanks and newlines are between two", "71\t72 73\v74\n75\r76", {"recorder", "a b", "n5"}},
        {"no number", "/mnt/sdcard: cannot 71", {"recorder"}},
        {"a number with letters behind it", "71c 72m", {"recorder", "sh"}},
        {"signs and nonsense", "-71 - + 0 99999999999999999999 -2147483648 72", {"sh"}},
        {"15 bytes of name", "80", {"123456789012345"}},
        {"16 bytes of name: the slot ends before", "81", {"123456789012345"}},
        {"far more", "82 71", {"abcdefghijklmno", "recorder"}},
        {"a name with a parenthesis ends there", "83", {"odd"}},
        {"opening parentheses are part of it", "84", {"(sd-pam"}},
        {"no name at all", "85", {"pid=85"}},
        {"a name that begins with a parenthesis", "86", {"pid=86"}},
        {"a stat file of something else", "87", {"pid=87"}},
        {"an empty stat file", "4194304", {"pid=4194304"}},
    };
    const std::pair<int, const char*> processes[] = {
        {71, "recorder"},
        {72, "sh"},
        {73, "a b"},
        {74, "n4"},
        {75, "n5"},
        {76, "n6"},
        {77, "n7"},
        {85, ""},
        {86, ")x"},
        {83, "odd) R (one"},
        {84, "(sd-pam)"},
        {80, "123456789012345"},
        {81, "1234567890123456"},
        {82, "abcdefghijklmnopqrstuvwxyz0123456789"},
    };
    for (const auto& row : rows) {
        SetUp();
        for (const auto& [pid, name] : processes) {
            kernel::write("/proc/" + std::to_string(pid) + "/stat", stat_of(pid, name));
        }
        kernel::write("/proc/87/stat", "nothing of the kind");
        kernel::write("/proc/4194304/stat", "");
        refused = 2;
        fuser_says(row.output);
        start();
        to_the_end();
        EXPECT_EQ(alerts, row.names.empty() ? std::vector<list>{} : std::vector<list>{row.names}) << row.what;
        EXPECT_EQ(ended, list{"2 0"}) << row.what;
    }
}

}  // namespace
