// The runner with real children on the real loop. They are shell scripts, so that the test runs under an emulator of
// the processor as well; where an order matters, a child waits for the test at its gate: descriptor 9.
#include "cl_execvp.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ev.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "closure.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"

namespace fs = std::filesystem;
using list = std::vector<std::string>;

namespace {
std::vector<ev_io*> io_started;  // the watchers of the run under test
ev_child* child_started;
long allocated;                  // live allocations of the runner
std::function<void()> on_child;  // runs in the child, first of all
}  // namespace

extern "C" {

int __real_pipe2(int* ends, int flags);
int __wrap_pipe2(int* ends, int flags) {
    return kernel::must_fail("pipe2") ? -1 : __real_pipe2(ends, flags);
}

pid_t __real_fork();
pid_t __wrap_fork() {
    if (kernel::must_fail("fork")) {
        return -1;
    }
    const pid_t pid = __real_fork();
    if (pid == 0 && on_child) {
        on_child();
    }
    return pid;
}

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    if (kernel::must_fail("calloc")) {
        return nullptr;
    }
    ++allocated;
    return __real_calloc(count, size);
}

void __real_free(void* memory);
void __wrap_free(void* memory) {
    allocated -= memory != nullptr;
    __real_free(memory);
}

void __real_ev_io_start(struct ev_loop* loop, ev_io* watcher);
void __wrap_ev_io_start(struct ev_loop* loop, ev_io* watcher) {
    io_started.push_back(watcher);
    __real_ev_io_start(loop, watcher);
}

void __real_ev_child_start(struct ev_loop* loop, ev_child* watcher);
void __wrap_ev_child_start(struct ev_loop* loop, ev_child* watcher) {
    child_started = watcher;
    __real_ev_child_start(loop, watcher);
}

}  // extern "C"

namespace {

constexpr int GATE = 9;
constexpr ev_tstamp DEADLINE_SECONDS = 20;

// Our descriptors that are open, or only those that a child gets.
std::set<int> descriptors(bool inherited_only = false) {
    std::set<int> open;
    for (int fd = 0; fd < 256; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && !(inherited_only && (flags & FD_CLOEXEC) != 0)) {
            open.insert(fd);
        }
    }
    return open;
}

std::string file_content(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

int ended;              // how often the continuation ran
long allocated_at_end;  // when it ran last
std::set<int> open_at_end;

void on_done(closure_frame*, void* argument) {
    EXPECT_EQ(argument, &ended);
    ++ended;
    allocated_at_end = allocated;
    open_at_end = descriptors();
}

class cl_execvp : public testing::Test {
  protected:
    struct ev_loop* loop = ev_default_loop(0);
    closure_frame frame;
    std::string folder;
    std::string input;  // what start_write sends; lives as long as its run
    int gate = -1;      // the test's end
    std::set<int> before;
    long allocated_before = 0;

    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);  // as the framework does
        kernel::reset();
        logged::reset();
        char pattern[] = "/tmp/vesk-exec-XXXXXX";
        folder = mkdtemp(pattern);
        closure_init(&frame, nullptr);
        io_started.clear();
        child_started = nullptr;
        ended = 0;
        on_child = nullptr;
        before = descriptors();
        allocated_before = allocated;
    }

    void TearDown() override {
        close_gate();
        EXPECT_EQ(ev_run(loop, EVRUN_NOWAIT), 0) << "a watcher is left behind";
        EXPECT_EQ(descriptors(), before);
        EXPECT_EQ(allocated, allocated_before);
        fs::remove_all(folder);
    }

    // The child that is started next can wait by "read x <&9".
    void make_gate() {
        int ends[2];
        ASSERT_EQ(__real_pipe2(ends, O_CLOEXEC), 0);
        ASSERT_EQ(dup2(ends[0], GATE), GATE);
        close(ends[0]);
        gate = ends[1];
    }
    void open_gate() { ASSERT_EQ(write(gate, "\n", 1), 1); }
    void close_gate() {
        if (gate >= 0) {
            close(gate);
            close(GATE);
            gate = -1;
        }
    }

    // An executable of this name in the test's folder, which stands first on the search path until the test ends.
    std::string make_program(const std::string& name, const std::string& script) {
        std::string path = folder + "/" + name;
        std::ofstream(path) << "#!/bin/sh\n" << script << "\n";
        chmod(path.c_str(), 0755);
        return path;
    }

    void push() {
        ended = 0;
        closure_setup_frame(&frame, on_done, &ended);
        frame.status = CLOSURE_BUSY;
        frame.result = 12345;
    }

    void start(const list& arguments) {
        push();
        cl_next_execvp(&frame, vector_of(arguments).data());
    }
    void start_sh(const std::string& script) { start({"/bin/sh", "-c", script}); }
    void start_read(const std::string& script, char* buffer, uint32_t size) {
        push();
        cl_next_execvp_read(&frame, vector_of({"sh", "-c", script}).data(), buffer, size);
    }
    void start_write(const std::string& script, const std::string& data) {
        push();
        input = data;
        cl_next_execvp_write(&frame, vector_of({"sh", "-c", script}).data(), input.data(),
                             static_cast<uint32_t>(input.size()));
    }

    static std::vector<const char*> vector_of(const list& arguments) {
        std::vector<const char*> argv;
        for (const auto& argument : arguments) {
            argv.push_back(argument.c_str());
        }
        argv.push_back(nullptr);
        return argv;
    }

    // Turns the loop until the condition holds.
    void turn_until(const char* what, const std::function<bool()>& condition) {
        ev_timer deadline;
        ev_timer_init(
            &deadline, [](struct ev_loop*, ev_timer*, int) {}, DEADLINE_SECONDS, 0.);
        ev_now_update(loop);
        ev_timer_start(loop, &deadline);
        while (!condition() && ev_is_active(&deadline)) {
            ev_run(loop, EVRUN_ONCE);
        }
        EXPECT_TRUE(condition()) << what;
        ev_timer_stop(loop, &deadline);
    }

    // Turns the loop until the frame is completed, and says how: "<status> <result>".
    std::string outcome() {
        turn_until("the child ends", [] { return ended > 0; });
        ev_run(loop, EVRUN_NOWAIT);
        EXPECT_EQ(ended, 1);
        return std::to_string(frame.status) + " " + std::to_string(frame.result);
    }

    std::string run_sh(const std::string& script) {
        start_sh(script);
        return outcome();
    }

    // Until the child is dead, with nothing of what it left behind looked at yet.
    static void wait_for_zombie() {
        siginfo_t info;
        while (waitid(P_PID, static_cast<id_t>(child_started->pid), &info, WEXITED | WNOWAIT) != 0) {
            ASSERT_EQ(errno, EINTR);
        }
    }
};

// --- how a child ends -------------------------------------------------------------------------------------------

PROMISES("cl_execvp");

TEST_F(cl_execvp, success) {
    PROMISE("a program is started", "the call does not wait for it; the frame stays busy");
    PROMISE("the program exits with 0", "the step succeeds with 0, without a word");
    start_sh("exit 0");
    EXPECT_EQ(ended, 0) << "the starting call does not wait";
    EXPECT_EQ(frame.status, CLOSURE_BUSY);
    EXPECT_EQ(outcome(), "2 0");
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(cl_execvp, exit_codes) {
    PROMISE("the program exits with anything else", "\"%s: exit with code %d\", and the step fails with the code");
    for (int code : {1, 2, 98, 127, 128, 255}) {
        logged::reset();
        EXPECT_EQ(run_sh("exit " + std::to_string(code)), "3 " + std::to_string(code));
        EXPECT_EQ(logged::lines(), list{"warning /bin/sh: exit with code " + std::to_string(code)});
    }
}

TEST_F(cl_execvp, missing_program) {
    PROMISE("there is no such program, or it may not be executed", "it counts as one that exited with 99");
    start({"/no/such/tool"});
    EXPECT_EQ(outcome(), "3 99");
    EXPECT_EQ(logged::lines(), list{"warning /no/such/tool: exit with code 99"});
    logged::reset();
    start({"no-such-tool-here"});
    EXPECT_EQ(outcome(), "3 99");
    EXPECT_EQ(logged::lines(), list{"warning no-such-tool-here: exit with code 99"});
}

TEST_F(cl_execvp, program_that_may_not_be_executed) {
    PROMISE("there is no such program, or it may not be executed", "it counts as one that exited with 99");
    const std::string path = make_program("tool", "exit 0");
    chmod(path.c_str(), 0644);
    start({path});
    EXPECT_EQ(outcome(), "3 99");
}

TEST_F(cl_execvp, killed_by_a_signal) {
    PROMISE("a signal ends it", "\"%s: exit with signal %s\", and the step fails with -1");
    for (int signum : {SIGKILL, SIGTERM, SIGSEGV}) {
        logged::reset();
        EXPECT_EQ(run_sh("ulimit -c 0; kill -" + std::to_string(signum) + " $$"), "3 -1");
        EXPECT_EQ(logged::lines(), list{"warning /bin/sh: exit with signal " + std::string(strsignal(signum))});
    }
}

// A child that is stopped goes on later, and its run goes on with it.
TEST_F(cl_execvp, stopped_and_continued) {
    PROMISE("the program is stopped and goes on later", "the step goes on with it");
    start_sh("kill -STOP $$; exit 3");
    pid_t pid = child_started->pid;
    ev_timer prod;
    prod.data = &pid;
    ev_timer_init(
        &prod, [](struct ev_loop*, ev_timer* timer, int) { kill(*static_cast<pid_t*>(timer->data), SIGCONT); }, 0.01,
        0.01);
    ev_timer_start(loop, &prod);
    turn_until("the child ends", [] { return ended > 0; });
    ev_timer_stop(loop, &prod);
    EXPECT_EQ(outcome(), "3 3");
    EXPECT_EQ(logged::lines(), list{"warning /bin/sh: exit with code 3"});
}

// libev does not tell of a stop, so that only a status of neither kind could come; it would end the run.
TEST_F(cl_execvp, status_that_is_no_end) {
    PROMISE("the program's status is neither an exit nor a signal",
            "\"%s: exit with unexpected status 0x%x\", and the step fails with -1");
    make_gate();
    start_sh("read x <&9");
    const pid_t pid = child_started->pid;
    child_started->rstatus = 0x137f;
    ev_invoke(loop, child_started, EV_CHILD);
    EXPECT_EQ(outcome(), "3 -1");
    EXPECT_EQ(logged::lines(), list{"warning /bin/sh: exit with unexpected status 0x137f"});
    open_gate();
    turn_until("it is reaped all the same", [&] { return kill(pid, 0) != 0; });
}

// The kernel's bit for a core dump, which this machine may not write.
TEST_F(cl_execvp, killed_with_a_core_dump) {
    PROMISE("the program is killed and its status has the core dump's bit", "failure -1, and the signal in the log");
    make_gate();
    start_sh("read x <&9");
    const pid_t pid = child_started->pid;
    child_started->rstatus = SIGSEGV | 0x80;
    ev_invoke(loop, child_started, EV_CHILD);
    EXPECT_EQ(outcome(), "3 -1");
    EXPECT_EQ(logged::lines(), list{"warning /bin/sh: exit with signal " + std::string(strsignal(SIGSEGV))});
    open_gate();
    turn_until("it is reaped all the same", [&] { return kill(pid, 0) != 0; });
}

// The next step may run for minutes: the last one's pipes and memory are not to wait for it.
TEST_F(cl_execvp, nothing_of_a_run_is_left_when_the_next_step_begins) {
    PROMISE("the next step begins", "the run's pipes are closed and its memory is free");
    char buffer[8];
    const std::function<void()> ways[] = {
        [&] { start_sh("exit 0"); },
        [&] { start_sh("exit 1"); },
        [&] { start_read("echo x", buffer, sizeof buffer); },
        [&] { start_write("read x", "x\n"); },
    };
    for (const auto& way : ways) {
        way();
        (void)outcome();
        EXPECT_EQ(allocated_at_end, allocated_before);
        EXPECT_EQ(open_at_end, before);
    }
}

TEST_F(cl_execvp, long_names_are_cut_in_messages) {
    PROMISE("the program's name is longer than 19 characters", "messages show the first 19");
    const struct {
        const char* name;
        const char* shown;
    } rows[] = {
        {"nineteen-characters", "nineteen-characters"},
        {"twenty-characters-xy", "twenty-characters-x"},
        {"a-name-far-longer-than-any-tool-of-ours", "a-name-far-longer-t"},
        {"", ""},
    };
    for (const auto& [name, shown] : rows) {
        logged::reset();
        start({name});
        EXPECT_EQ(outcome(), "3 99");
        EXPECT_EQ(logged::lines(), list{"warning " + std::string(shown) + ": exit with code 99"});
    }
}

// --- what a child gets ------------------------------------------------------------------------------------------

TEST_F(cl_execvp, arguments_are_passed_as_they_are) {
    PROMISE("arguments have blanks, stars or nothing in them", "they arrive as they are");
    start({"/bin/sh", "-c", "[ $# = 3 ] && [ \"$1\" = 'a b' ] && [ -z \"$2\" ] && [ \"$3\" = '*' ]", "sh", "a b", "",
           "*"});
    EXPECT_EQ(outcome(), "2 0");
}

TEST_F(cl_execvp, argv_is_not_needed_once_the_child_runs) {
    PROMISE("the call has returned", "the arguments are the caller's again");
    push();
    {
        std::string script = "exit 4";
        auto argv = std::make_unique<std::vector<const char*>>(
            std::vector<const char*>{"/bin/sh", "-c", script.c_str(), nullptr});
        cl_next_execvp(&frame, argv->data());
    }
    EXPECT_EQ(outcome(), "3 4");
}

TEST_F(cl_execvp, environment_and_working_directory_are_ours) {
    PROMISE("the program looks around", "environment, working folder and standard error are the daemon's");
    char here[4096];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    setenv("VESK_RUNNER_TEST", "seen", 1);
    EXPECT_EQ(run_sh("[ \"$VESK_RUNNER_TEST\" = seen ] && [ \"$(pwd -P)\" = '" + std::string(here) + "' ]"), "2 0");
    unsetenv("VESK_RUNNER_TEST");
}

TEST_F(cl_execvp, standard_error_is_ours) {
    PROMISE("the program looks around", "environment, working folder and standard error are the daemon's");
    testing::internal::CaptureStderr();
    EXPECT_EQ(run_sh("echo from the child >&2"), "2 0");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "from the child\n");
}

// Standard input, output and error, and nothing else but what is inherited from long before.
TEST_F(cl_execvp, descriptors_of_the_child) {
    PROMISE("the program looks at its descriptors",
            "there is nothing but its own pipe and what was inherited from long before");
    // Collected before it is written: the shell moves its output out of the way to write to a file.
    const std::string script =
        "n=0; while [ $n -lt 25 ]; do [ -e /proc/$$/fd/$n ] && seen=\"$seen$n \"; n=$((n + 1)); done; "
        "echo \"$seen\" >" +
        folder + "/open";
    std::string expected;
    for (int fd : descriptors(true)) {
        if (fd < 25) {
            expected += std::to_string(fd) + " ";
        }
    }
    char buffer[64];
    enum way { PLAIN, READ, WRITE };
    for (way w : {PLAIN, READ, WRITE}) {
        switch (w) {
            case PLAIN:
                start_sh(script);
                break;
            case READ:
                start_read(script, buffer, sizeof buffer);
                break;
            case WRITE:
                start_write(script, "x");
                break;
        }
        EXPECT_EQ(outcome(), "2 0");
        EXPECT_EQ(file_content(folder + "/open"), expected + "\n") << w;
    }
}

// The emulator of the processor knows nothing of filters, and the numbers are the workbench's.
#ifdef __x86_64__
// Kills the process at its first call of the kernel that is not one of these.
void allow_nothing_but_what_is_safe_behind_fork() {
    static sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_dup2, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_execve, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sigaltstack, 1, 0),  // the sanitizer's, where nothing returns
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {sizeof filter / sizeof *filter, filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        _exit(1);
    }
}

// Other threads may hold any lock of the C library at the fork.
TEST_F(cl_execvp, between_fork_and_exec_next_to_nothing_is_called) {
    PROMISE("another thread holds a lock of the C library at the fork",
            "nothing between fork and exec can wait for it");
    char buffer[8];
    on_child = allow_nothing_but_what_is_safe_behind_fork;
    start({"no-such-tool"});
    EXPECT_EQ(outcome(), "3 99");
    push();
    cl_next_execvp_read(&frame, vector_of({"no-such-tool"}).data(), buffer, sizeof buffer);
    EXPECT_EQ(outcome(), "3 99");
    push();
    cl_next_execvp_write(&frame, vector_of({"no-such-tool"}).data(), "x", 1);
    EXPECT_EQ(outcome(), "3 99");
}
#endif

TEST_F(cl_execvp, our_ends_do_not_block_and_both_ends_are_close_on_exec) {
    PROMISE("there is a pipe", "our end does not block, both are close-on-exec, and the child's is closed here");
    make_gate();
    char buffer[8];
    const std::set<int> without_pipe = descriptors();
    start_read("read x <&9", buffer, sizeof buffer);
    ASSERT_EQ(io_started.size(), 1U);
    EXPECT_EQ(io_started[0]->events & (EV_READ | EV_WRITE), EV_READ);
    EXPECT_NE(fcntl(io_started[0]->fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(io_started[0]->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(descriptors().size(), without_pipe.size() + 1) << "the child's end is closed here";
    open_gate();
    EXPECT_EQ(outcome(), "2 0");

    io_started.clear();
    start_write("read x <&9", "x");
    ASSERT_EQ(io_started.size(), 1U);
    EXPECT_EQ(io_started[0]->events & (EV_READ | EV_WRITE), EV_WRITE);
    EXPECT_NE(fcntl(io_started[0]->fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(io_started[0]->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(descriptors().size(), without_pipe.size() + 1);
    open_gate();
    EXPECT_EQ(outcome(), "2 0");
}

// --- standard input ---------------------------------------------------------------------------------------------

TEST_F(cl_execvp, seventeen_bytes_arrive_and_are_told_once) {
    PROMISE("the program is named without a slash", "it is found on the search path");
    PROMISE("all of the input is sent", "\"exec-%s: all stdin data has been sent.\" once, and nothing more is written");
    static constexpr char script[] = "o\nn\np\n1\n\n\nt\nc\nw\n";  // its NUL is the seventeenth
    static_assert(sizeof script == 17);
    make_gate();
    make_program("fdisk", "head -c 17 >" + folder + "/got; read x <&9");
    const char* path = getenv("PATH");
    ASSERT_NE(path, nullptr);
    const std::string old = path;
    setenv("PATH", (folder + ":" + old).c_str(), 1);
    push();
    cl_next_execvp_write(&frame, vector_of({"fdisk", "/dev/mmcblk0"}).data(), script, sizeof script);
    setenv("PATH", old.c_str(), 1);
    turn_until("all is sent", [] { return !logged::lines().empty(); });
    EXPECT_FALSE(ev_is_active(io_started[0])) << "nothing more is written";
    open_gate();
    EXPECT_EQ(outcome(), "2 0");
    EXPECT_EQ(file_content(folder + "/got"), std::string(script, sizeof script));
    EXPECT_EQ(logged::lines(), list{"debug exec-fdisk: all stdin data has been sent."});
}

TEST_F(cl_execvp, input_larger_than_a_pipe) {
    PROMISE("the input does not fit the pipe", "it is sent as the program reads");
    std::string data;
    for (int i = 0; data.size() < 300000; ++i) {
        data += std::to_string(i) + "\n";
    }
    data.resize(300000);
    start_write("head -c 300000 >" + folder + "/got", data);
    EXPECT_EQ(outcome(), "2 0");
    EXPECT_TRUE(file_content(folder + "/got") == data);
    EXPECT_EQ(logged::lines(), list{"debug exec-sh: all stdin data has been sent."});
}

// Who waits for the end of its input waits for ever: the pipe is closed when the child is dead.
TEST_F(cl_execvp, input_does_not_end_before_the_child) {
    PROMISE("all of the input is sent and the program reads on",
            "it finds no end: the pipe stays open until it has ended");
    start_write("head -c 3 >/dev/null; timeout 0.05 cat; [ $? = 124 ]", "abc");
    EXPECT_EQ(outcome(), "2 0");
}

TEST_F(cl_execvp, child_that_closes_its_input) {
    PROMISE("the program closes its input", "writing stops, and its exit decides as ever");
    make_gate();
    start_write("exec 0<&-; read x <&9; exit 5", std::string(200000, 'x'));
    ASSERT_EQ(io_started.size(), 1U);
    turn_until("writing has stopped", [] { return !ev_is_active(io_started[0]); });
    EXPECT_EQ(ended, 0);
    open_gate();
    EXPECT_EQ(outcome(), "3 5");
    EXPECT_EQ(logged::lines(), list{"warning sh: exit with code 5"});
}

TEST_F(cl_execvp, child_that_ends_with_input_unread) {
    PROMISE("the program ends with input unread", "its exit decides, and nothing says that all was sent");
    start_write("exit 0", std::string(200000, 'x'));
    wait_for_zombie();  // so that its end is seen before the broken pipe, with writing still under way
    EXPECT_EQ(outcome(), "2 0") << "what it did not want is no failure";
    EXPECT_FALSE(logged::has("debug exec-sh: all stdin data has been sent."));
}

// Told of as writable and then full: what is left is not sent, as with any other error.
TEST_F(cl_execvp, input_that_cannot_be_written) {
    PROMISE("the pipe takes nothing more although it was told of as writable",
            "what is left is not sent, and the program's exit code tells");
    make_gate();
    start_write("read x <&9", std::string(1 << 20, 'x'));
    ASSERT_EQ(io_started.size(), 1U);
    ev_io* const watcher = io_started[0];
    ev_invoke(loop, watcher, EV_WRITE);
    EXPECT_TRUE(ev_is_active(watcher)) << "a part of it went into the pipe";
    for (int i = 0; i < 100 && ev_is_active(watcher); ++i) {
        ev_invoke(loop, watcher, EV_WRITE);  // EAGAIN, once it is full
    }
    EXPECT_FALSE(ev_is_active(watcher));
    EXPECT_EQ(ended, 0);
    open_gate();
    EXPECT_EQ(outcome(), "2 0");
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(cl_execvp, no_input_to_send) {
    PROMISE("there is input of no length", "writing stops without a word");
    make_gate();
    start_write("read x <&9", "");
    turn_until("writing has stopped", [] { return !ev_is_active(io_started[0]); });
    open_gate();
    EXPECT_EQ(outcome(), "2 0");
    EXPECT_TRUE(logged::lines().empty());
}

// --- standard output --------------------------------------------------------------------------------------------

constexpr char OVERFLOWN[] = "warning exec-sh: stdout buffer overflow.";
constexpr char TOO_SMALL[] = "warning sh: stdout buffer is too small!";

// A child that prints so many bytes and stays until they are seen.
TEST_F(cl_execvp, capture_of_every_length) {
    PROMISE("the program prints less than the capture takes", "all of it is there with a NUL behind it");
    PROMISE("the program prints as much as the capture takes, or more",
            "\"exec-%s: stdout buffer overflow.\" at once and \"%s: stdout buffer is too small!\" at its end; all but "
            "the last byte are kept, and a NUL");
    PROMISE("the program prints nothing", "the capture is empty, without a word");
    const struct {
        uint32_t size;
        uint32_t printed;
        uint32_t kept;
    } rows[] = {
        {128, 0, 0},     {128, 1, 1},       {128, 126, 126}, {128, 127, 127}, {128, 128, 127},
        {128, 129, 127}, {128, 60000, 127}, {1, 0, 0},       {1, 1, 0},       {2, 5, 1},
    };
    for (const auto& [size, printed, kept] : rows) {
        SCOPED_TRACE(std::to_string(printed) + " bytes into " + std::to_string(size));
        logged::reset();
        make_gate();
        char buffer[129];
        memset(buffer, '#', sizeof buffer);
        start_read("head -c " + std::to_string(printed) + " /dev/zero | tr '\\0' x; read x <&9; exit 0", buffer, size);
        if (printed >= size) {
            turn_until("it is full", [] { return logged::has(OVERFLOWN); });
            EXPECT_FALSE(ev_is_active(io_started.back())) << "nothing more is read";
        } else if (printed > 0) {
            const uint32_t last = printed - 1;
            turn_until("all has arrived", [&] { return buffer[last] == 'x'; });
        }
        EXPECT_EQ(ended, 0);
        open_gate();
        EXPECT_EQ(outcome(), "2 0");
        EXPECT_EQ(std::string(buffer, kept), std::string(kept, 'x'));
        EXPECT_EQ(buffer[kept], '\0');
        EXPECT_EQ(buffer[size], '#') << "behind the buffer";
        EXPECT_EQ(logged::lines(), printed >= size ? (list{OVERFLOWN, TOO_SMALL}) : list{});
        close_gate();
    }
}

TEST_F(cl_execvp, capture_in_pieces) {
    PROMISE("the program prints less than the capture takes", "all of it is there with a NUL behind it");
    make_gate();
    char buffer[16];
    memset(buffer, '#', sizeof buffer);
    start_read("printf ab; read x <&9; printf cde; read x <&9; printf f; read x <&9", buffer, sizeof buffer);
    for (int at : {1, 4, 5}) {
        turn_until("the next piece", [&] { return buffer[at] != '#'; });
        open_gate();
    }
    EXPECT_EQ(outcome(), "2 0");
    EXPECT_STREQ(buffer, "abcdef");
}

TEST_F(cl_execvp, capture_is_terminated_behind_a_failure_too) {
    PROMISE("the program prints and fails", "what was read has its NUL all the same");
    make_gate();
    char buffer[16];
    memset(buffer, '#', sizeof buffer);
    start_read("printf ab; read x <&9; exit 1", buffer, sizeof buffer);
    turn_until("all has arrived", [&] { return buffer[1] == 'b'; });
    open_gate();
    EXPECT_EQ(outcome(), "3 1");
    EXPECT_STREQ(buffer, "ab");
}

TEST_F(cl_execvp, child_that_closes_its_output_and_goes_on) {
    PROMISE("the program closes its output and goes on", "reading stops, and the step waits for its end");
    make_gate();
    char buffer[16];
    start_read("printf ab; exec >&-; read x <&9", buffer, sizeof buffer);
    turn_until("reading has stopped", [] { return !ev_is_active(io_started[0]); });
    EXPECT_EQ(ended, 0);
    open_gate();
    EXPECT_EQ(outcome(), "2 0");
    EXPECT_STREQ(buffer, "ab");
}

// Called without anything to read, it finds the pipe not ready: a failure like any other.
TEST_F(cl_execvp, output_that_cannot_be_read) {
    PROMISE("the program's output cannot be read",
            "reading stops, what came before is kept, and the step waits for its end");
    make_gate();
    char buffer[16];
    memset(buffer, '#', sizeof buffer);
    start_read("printf ab; read x <&9; exit 3", buffer, sizeof buffer);
    turn_until("all has arrived", [&] { return buffer[1] == 'b'; });
    ev_invoke(loop, io_started[0], EV_READ);
    EXPECT_FALSE(ev_is_active(io_started[0]));
    EXPECT_EQ(ended, 0);
    open_gate();
    EXPECT_EQ(outcome(), "3 3");
    EXPECT_STREQ(buffer, "ab");
    EXPECT_EQ(logged::lines(), list{"warning sh: exit with code 3"});
}

// The child's end is handled before its output when both are there at once, and then the output is lost: kept so.
TEST_F(cl_execvp, output_behind_the_end_is_not_read) {
    PROMISE("the program has printed and ended before the loop looks", "that output is not read");
    char buffer[16];
    memset(buffer, '#', sizeof buffer);
    start_read("printf ab", buffer, sizeof buffer);
    wait_for_zombie();
    EXPECT_EQ(outcome(), "2 0");
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], '#');
    EXPECT_TRUE(logged::lines().empty());
}

// An end is handled before other events that were there first, those of the block devices included: what fdisk has made
// the kernel tell may be known only after fdisk's end was.
TEST_F(cl_execvp, an_end_comes_before_events_that_were_there_first) {
    PROMISE("the program's end and other events are there at once", "its end comes first, even before the uevents");
    int events[2];
    ASSERT_EQ(__real_pipe2(events, O_CLOEXEC), 0);
    static int ended_at_event;
    ended_at_event = -1;
    ev_io watcher;
    ev_io_init(
        &watcher, [](struct ev_loop*, ev_io*, int) { ended_at_event = ended; }, events[0], EV_READ);
    ev_set_priority(&watcher, 1);  // the highest that a watcher of the daemon asks for: that of the uevents
    ev_io_start(loop, &watcher);
    ASSERT_EQ(write(events[1], "x", 1), 1);
    start_sh("exit 0");
    wait_for_zombie();
    ev_run(loop, EVRUN_ONCE);
    ev_io_stop(loop, &watcher);
    EXPECT_EQ(ended_at_event, 1) << "both in one turn of the loop";
    close(events[0]);
    close(events[1]);
}

// More than the buffer and the pipe take blocks the child; whoever kills it ends the run.
TEST_F(cl_execvp, child_that_prints_without_end_waits_to_be_killed) {
    PROMISE("the program prints without end",
            "it is blocked once capture and pipe are full, and the step waits until somebody kills it");
    char buffer[8];
    start_read("exec cat /dev/zero", buffer, sizeof buffer);
    turn_until("it is full", [] { return logged::has(OVERFLOWN); });
    EXPECT_EQ(ended, 0);
    ASSERT_GT(child_started->pid, 0) << "-1 would be everybody's";
    kill(child_started->pid, SIGKILL);
    EXPECT_EQ(outcome(), "3 -1");
    EXPECT_EQ(logged::lines(),
              (list{OVERFLOWN, "warning sh: exit with signal " + std::string(strsignal(SIGKILL)), TOO_SMALL}));
}

// --- what cannot be started -------------------------------------------------------------------------------------

TEST_F(cl_execvp, without_memory_it_fails_at_once) {
    PROMISE("there is no memory for the run", "the step fails with ENOMEM before the call returns");
    char buffer[8];
    const std::function<void()> ways[] = {
        [&] { start_sh("exit 0"); },
        [&] { start_read("exit 0", buffer, sizeof buffer); },
        [&] { start_write("exit 0", "x"); },
    };
    for (const auto& way : ways) {
        kernel::fail("calloc", ENOMEM);
        way();
        EXPECT_EQ(ended, 1) << "before the starting call has returned";
        EXPECT_EQ(frame.status, CLOSURE_FAILED);
        EXPECT_EQ(frame.result, ENOMEM);
        EXPECT_EQ(child_started, nullptr);
    }
}

// Nothing is started and nobody is told: the frame stays busy. TearDown looks for watchers, descriptors and memory.
TEST_F(cl_execvp, pipe_or_fork_failure_leaves_the_frame_busy) {
    PROMISE("there is no pipe or no process to be had",
            "it counts as started: nothing runs, nothing is said, nothing leaks, and the frame stays busy for good");
    char buffer[8];
    const struct {
        const char* call;
        int errnum;
        std::function<void()> start;
    } rows[] = {
        {"fork", EAGAIN, [&] { start_sh("exit 0"); }},
        {"fork", ENOMEM, [&] { start_read("exit 0", buffer, sizeof buffer); }},
        {"fork", EAGAIN, [&] { start_write("exit 0", "x"); }},
        {"pipe2", EMFILE, [&] { start_read("exit 0", buffer, sizeof buffer); }},
        {"pipe2", ENFILE, [&] { start_write("exit 0", "x"); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        closure_init(&frame, nullptr);
        kernel::fail(row.call, row.errnum);
        row.start();
        EXPECT_EQ(ev_run(loop, EVRUN_NOWAIT), 0) << "nothing is left to wait for";
        EXPECT_EQ(ended, 0);
        EXPECT_EQ(frame.status, CLOSURE_BUSY);
        EXPECT_EQ(frame.result, 12345);
        EXPECT_EQ(frame.top, &frame.slots[0]) << "the continuation stays pushed";
        EXPECT_EQ(child_started, nullptr);
        EXPECT_TRUE(io_started.empty());
        EXPECT_TRUE(logged::lines().empty());
        EXPECT_EQ(descriptors(), before);
        EXPECT_EQ(allocated, allocated_before);
    }
}

// --- many runs --------------------------------------------------------------------------------------------------

TEST_F(cl_execvp, nothing_grows_over_many_runs) {
    PROMISE("programs have run many times, well or not", "no descriptor, watcher or byte is left");
    char buffer[128];
    for (int i = 0; i < 25; ++i) {
        EXPECT_EQ(run_sh("exit 0"), "2 0");
        EXPECT_EQ(run_sh("kill -9 $$"), "3 -1");
        start({"no-such-tool"});
        EXPECT_EQ(outcome(), "3 99");
        start_read("head -c 1000 /dev/zero", buffer, sizeof buffer);
        EXPECT_EQ(outcome(), "2 0");
        start_write("head -c 1 >/dev/null; exit 1", "data");
        EXPECT_EQ(outcome(), "3 1");
        ASSERT_EQ(descriptors(), before);
        ASSERT_EQ(allocated, allocated_before);
    }
}

}  // namespace
