#include "main.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ev.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <thread>
#include <time.h>
#include <vector>

#include "actions.h"
#include "kv.h"
#include "sdcard.h"
#include "support/child.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"
#include "vesk_util.h"

int vesk_main(int argc, char** argv);  // the daemon's main; its object is compiled with this name for it

namespace {

using strings = std::vector<std::string>;

// What the neighbours were asked to do, in order, and what they do then.
strings called;
int app_init_result;
int kv_init_result;
const vesk_app_descriptor* given_descriptor;
std::vector<const char*> given_arguments;
std::function<void()> during_sdcard_init;
std::function<void()> during_app_run;
std::function<void()> during_sdcard_exit;

// What the wrapped calls do.
timespec clock_now;
bool clock_is_scripted;
std::function<ssize_t(int fd, void* buffer, size_t length)> on_read;
std::function<ssize_t(int fd, const void* buffer, size_t length)> on_write;

bool sigterm_is_handled() {
    struct sigaction action;
    sigaction(SIGTERM, nullptr, &action);
    return action.sa_handler != SIG_DFL;
}

// Runs the daemon's main. The default loop keeps its local watcher, so this is for child processes.
int run_main() {
    static char name[] = "vesk_sdcard";
    static char option[] = "--option";
    static char* arguments[] = {name, option, nullptr};
    return vesk_main(2, arguments);
}

}  // namespace

extern "C" {

int app_init(const vesk_app_descriptor* descriptor, int argc, char** argv) {
    called.emplace_back("app_init");
    given_descriptor = descriptor;
    given_arguments.assign(argv, argv + argc);
    errno = EINVAL;
    return app_init_result;
}

int app_run() {
    called.emplace_back("app_run");
    if (during_app_run) {
        during_app_run();
    }
    return 0;
}

void app_fini() {
    called.emplace_back("app_fini");
}

int __real_clock_gettime(clockid_t clock, timespec* out);
int __wrap_clock_gettime(clockid_t clock, timespec* out) {
    if (!clock_is_scripted) {
        return __real_clock_gettime(clock, out);
    }
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    *out = clock_now;
    return 0;
}

ssize_t __real_read(int fd, void* buffer, size_t length);
ssize_t __wrap_read(int fd, void* buffer, size_t length) {
    return on_read ? on_read(fd, buffer, length) : __real_read(fd, buffer, length);
}

ssize_t __real_write(int fd, const void* buffer, size_t length);
ssize_t __wrap_write(int fd, const void* buffer, size_t length) {
    return on_write ? on_write(fd, buffer, length) : __real_write(fd, buffer, length);
}

}  // extern "C"

int kv_init() {
    called.emplace_back("kv_init");
    return kv_init_result;
}

int kv_register(const char* name_space, const char* group, const char* key, kv_callback callback, void* context) {
    const bool is_right =
        context == nullptr &&
        callback == (std::string(key) == "spec_sdcard_format" ? on_spec_sdcard_format : on_spec_sdcard_unmount);
    called.push_back(std::string("kv_register ") + name_space + " " + group + " " + key + (is_right ? "" : " wrongly"));
    return kv_init_result;
}

void on_spec_sdcard_format(void*, const char*, size_t) {}
void on_spec_sdcard_unmount(void*, const char*, size_t) {}

const remote_action action_table[] = {{}};

void kv_exit() {
    called.emplace_back("kv_exit");
}

void sdcard_init() {
    called.emplace_back("sdcard_init");
    if (during_sdcard_init) {
        during_sdcard_init();
    }
}

void sdcard_exit() {
    called.emplace_back("sdcard_exit");
    if (during_sdcard_exit) {
        during_sdcard_exit();
    }
}

namespace {

class MainTest : public testing::Test {
  protected:
    void SetUp() override {
        kernel::reset();
        logged::reset();
        called.clear();
        app_init_result = 0;
        kv_init_result = 0;
        during_sdcard_init = during_app_run = during_sdcard_exit = nullptr;
        clock_is_scripted = false;
        on_read = nullptr;
        on_write = nullptr;
        bus_guard_thread = 0;
    }
};

const strings WHOLE_RUN = {"app_init",
                           "kv_init",
                           "kv_register mem default spec_sdcard_format",
                           "kv_register mem default spec_sdcard_unmount",
                           "sdcard_init",
                           "app_run",
                           "sdcard_exit",
                           "kv_exit",
                           "app_fini"};

PROMISES("main");

TEST_F(MainTest, StartsInOrderAndStopsInReverse) {
    PROMISE("the daemon starts",
            "framework, key store, the two request keys and card manager come up in this order, then the loop runs");
    PROMISE("the loop has ended",
            "card manager, key store and framework go down in this order, and the exit status is 0");
    PROMISE("SIGTERM arrives while the card manager is still starting",
            "the signal's default ends the process: it is handled only from the loop on");
    PROMISE("a second SIGTERM arrives behind the end of the loop", "it does not cut the end short");
    const auto outcome = child::run([] {
        during_sdcard_init = [] { EXPECT_FALSE(sigterm_is_handled()); };
        during_app_run = [] { EXPECT_TRUE(sigterm_is_handled()); };
        EXPECT_EQ(run_main(), 0);
        EXPECT_EQ(called, WHOLE_RUN);
        EXPECT_TRUE(sigterm_is_handled()) << "a second SIGTERM must not end the process";
        EXPECT_TRUE(logged::lines().empty());
    });
    EXPECT_TRUE(outcome.exited_with(0));
    EXPECT_EQ(outcome.error, "");
}

// The daemon writes to tools that may end before they have read it all, and the device's framework need not see to it.
TEST_F(MainTest, WritingToAPipeThatNobodyReadsIsNoEnd) {
    PROMISE("a tool ends before it has read its input", "writing to it fails with EPIPE, and the daemon lives");
    const auto outcome = child::run([] {
        signal(SIGPIPE, SIG_DFL);
        during_app_run = [] {
            int ends[2];
            EXPECT_EQ(pipe(ends), 0);
            close(ends[0]);
            EXPECT_EQ(write(ends[1], "x", 1), -1);
            EXPECT_EQ(errno, EPIPE);
        };
        EXPECT_EQ(run_main(), 0);
    });
    EXPECT_TRUE(outcome.exited_with(0));
    EXPECT_EQ(outcome.error, "");
}

TEST_F(MainTest, DescribesItselfToTheFramework) {
    PROMISE("the framework asks who is there",
            "the name \"vesk_sdcard\", padded with NULs, the table of actions, the other words zero, the command line "
            "untouched");
    const auto outcome = child::run([] {
        run_main();
        char name[sizeof given_descriptor->name] = "vesk_sdcard";
        EXPECT_EQ(memcmp(given_descriptor->name, name, sizeof name), 0) << "NUL-padded to the end";
        EXPECT_EQ(given_descriptor->actions, action_table);
        for (const uint32_t word : given_descriptor->reserved) {
            EXPECT_EQ(word, 0U);
        }
        ASSERT_EQ(given_arguments.size(), 2U);
        EXPECT_STREQ(given_arguments[0], "vesk_sdcard");
        EXPECT_STREQ(given_arguments[1], "--option");
    });
    EXPECT_TRUE(outcome.exited_with(0));
}

TEST_F(MainTest, StartsNothingWithoutTheFramework) {
    PROMISE("the framework refuses to start",
            "\"app_init\" and errno's text on standard error, exit status 1, no key registered and no state published");
    const auto outcome = child::run([] {
        app_init_result = -1;
        EXPECT_EQ(run_main(), 1);
        EXPECT_EQ(called, strings{"app_init"});
        EXPECT_FALSE(sigterm_is_handled());
    });
    EXPECT_TRUE(outcome.exited_with(0));
    EXPECT_EQ(outcome.error, "app_init: " + std::string(strerror(EINVAL)) + "\n");
}

TEST_F(MainTest, GoesOnAfterResultsThatAreNoFailure) {
    PROMISE("the framework answers with a positive number", "that is no failure");
    PROMISE("the key store or a registration fails at the start", "the daemon runs without it, with no word said here");
    const auto outcome = child::run([] {
        app_init_result = 1;
        kv_init_result = -1;
        EXPECT_EQ(run_main(), 0);
        EXPECT_EQ(called, WHOLE_RUN);
    });
    EXPECT_TRUE(outcome.exited_with(0));
    EXPECT_EQ(outcome.error, "");
}

TEST_F(MainTest, SigtermBreaksTheLoop) {
    PROMISE("SIGTERM arrives while watchers are active", "the loop ends all the same, and the orderly end follows");
    const auto outcome = child::run([] {
        during_app_run = [] {
            struct ev_loop* loop = ev_default_loop(0);
            ev_timer keep_alive;
            ev_timer_init(
                &keep_alive, [](struct ev_loop*, ev_timer*, int) { FAIL() << "still running"; }, 10., 0.);
            ev_timer_start(loop, &keep_alive);
            raise(SIGTERM);
            EXPECT_TRUE(ev_run(loop, 0)) << "broken with a watcher active";
            ev_timer_stop(loop, &keep_alive);
        };
        EXPECT_EQ(run_main(), 0);
        EXPECT_EQ(called, WHOLE_RUN);
    });
    EXPECT_TRUE(outcome.exited_with(0));
}

TEST_F(MainTest, SigtermBreaksNestedLoopsToo) {
    PROMISE("SIGTERM arrives in a loop inside the loop", "both end");
    const auto outcome = child::run([] {
        during_app_run = [] {
            struct ev_loop* loop = ev_default_loop(0);
            ev_timer nesting;
            ev_timer keep_alive;
            ev_timer_init(
                &nesting,
                [](struct ev_loop* inner, ev_timer*, int) {
                    raise(SIGTERM);
                    ev_run(inner, 0);
                },
                0., 0.);
            ev_timer_init(
                &keep_alive, [](struct ev_loop*, ev_timer*, int) { FAIL() << "still running"; }, 10., 0.);
            ev_timer_start(loop, &nesting);
            ev_timer_start(loop, &keep_alive);
            ev_run(loop, 0);
            ev_timer_stop(loop, &keep_alive);
        };
        EXPECT_EQ(run_main(), 0);
    });
    EXPECT_TRUE(outcome.exited_with(0));
}

TEST_F(MainTest, SigtermDoesNotWaitForAJobsChild) {
    PROMISE("SIGTERM arrives while a card job's child runs", "nobody waits for the child, and it is left running");
    const auto outcome = child::run([] {
        static pid_t job;
        static ev_child job_watcher;
        job = -1;
        during_sdcard_init = [] {
            job = fork();
            if (job == 0) {
                pause();
                _exit(0);
            }
            ev_child_init(
                &job_watcher, [](struct ev_loop*, ev_child*, int) { FAIL() << "nobody ended it"; }, job, 0);
            ev_child_start(ev_default_loop(0), &job_watcher);
        };
        during_app_run = [] {
            raise(SIGTERM);
            ev_run(ev_default_loop(0), 0);
        };
        during_sdcard_exit = [] {
            int status;
            EXPECT_EQ(waitpid(job, &status, WNOHANG), 0) << "still running";
        };
        EXPECT_EQ(run_main(), 0);
        EXPECT_EQ(called, WHOLE_RUN);
        ASSERT_GT(job, 0) << "no child was started, and -1 would be everybody's";
        kill(job, SIGKILL);
        waitpid(job, nullptr, 0);
    });
    EXPECT_TRUE(outcome.exited_with(0));
}

// --- the watchdog --------------------------------------------------------------------------------------------------

TEST_F(MainTest, WatchdogReportsSlowBatches) {
    PROMISE("a round of callbacks takes more than a second",
            "\"ev_run: loop takes too long time: %5.3lf s\" with the seconds, such as 1.500");
    PROMISE("a round takes a second to the nanosecond", "not a word");
    PROMISE("a round takes 2.147483648 s, 3 s or whatever else is too small or negative in 32 bits of nanoseconds",
            "not a word");
    PROMISE("a round takes so long that the 32 bits are large again", "it is reported with its true length");
    static const struct {
        time_t seconds;
        long nanoseconds;
        const char* seconds_reported;  // null: nothing is
    } rows[] = {
        {0, 0, nullptr},
        {0, 999'999'999, nullptr},
        {1, 0, nullptr},
        {1, 1, "1.000"},
        {1, 500'000'000, "1.500"},
        {2, 147'483'647, "2.147"},
        {2, 147'483'648, nullptr},  // wraps to the smallest
                                    // number
        {3, 0, nullptr},
        {4, 294'967'296, nullptr},  // wraps to 0
        {5, 294'967'296, nullptr},  // wraps to one second
        {5, 294'967'297, "5.295"},
        {12, 900'000'000, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.seconds << " s " << row.nanoseconds << " ns");
        const auto outcome = child::run([&row] {
            static bool ran;
            ran = false;
            during_app_run = [&row] {
                struct ev_loop* loop = ev_default_loop(0);
                clock_is_scripted = true;
                clock_now = {100, 700'000'000};
                ev_timer slow;
                ev_timer_init(
                    &slow,
                    [](struct ev_loop*, ev_timer* self, int) {
                        const auto* took = static_cast<decltype(&row)>(self->data);
                        const long nanoseconds = clock_now.tv_nsec + took->nanoseconds % 1'000'000'000;
                        clock_now.tv_sec += took->seconds + nanoseconds / 1'000'000'000;
                        clock_now.tv_nsec = nanoseconds % 1'000'000'000;
                        ran = true;
                    },
                    0., 0.);
                slow.data = const_cast<void*>(static_cast<const void*>(&row));
                ev_timer_start(loop, &slow);
                ev_run(loop, EVRUN_ONCE);
                clock_is_scripted = false;
            };
            run_main();
            EXPECT_TRUE(ran);
            if (row.seconds_reported == nullptr) {
                EXPECT_EQ(logged::lines(), strings{});
            } else {
                EXPECT_EQ(
                    logged::lines(),
                    strings{"warning ev_run: loop takes too long time: " + std::string(row.seconds_reported) + " s"});
            }
        });
        EXPECT_TRUE(outcome.exited_with(0));
    }
}

// --- the bus-fault guard -------------------------------------------------------------------------------------------

constexpr char MAPS[] = "/proc/self/maps";
constexpr std::string_view END = "SIGBUS Abort!";

// As the recordings install it.
void install_guard() {
    struct sigaction action = {};
    action.sa_handler = reinterpret_cast<void (*)(int)>(reinterpret_cast<void*>(on_sigbus));
    ASSERT_EQ(sigaction(SIGBUS, &action, nullptr), 0);
}

// Reads a mapped page whose file has no such page any more.
void fault() {
    char path[] = "/tmp/vesk-unit-fault-XXXXXX";
    const int fd = mkstemp(path);
    unlink(path);
    ASSERT_EQ(ftruncate(fd, 1), 0);
    const auto* page =
        static_cast<volatile const char*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ASSERT_NE(page, MAP_FAILED);
    ASSERT_EQ(ftruncate(fd, 0), 0);
    (void)page[0];
    FAIL() << "no bus fault";
}

bool sigbus_is_blocked() {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, SIGBUS) == 1;
}

std::string text_of_length(size_t length) {
    std::string text;
    while (text.size() < length) {
        text += "00400000-00455000 r-xp /bin/line" + std::to_string(text.size()) + "\n";
    }
    return text.substr(0, length);
}

TEST_F(MainTest, FaultOutsideTheRegionDumpsAndAborts) {
    PROMISE("a bus fault happens outside of the region",
            "\"SIGBUS information: si_code = %d, si_addr = %p\", the memory map right behind it, \"SIGBUS Abort!\", "
            "and the process ends by SIGABRT");
    const std::string maps = text_of_length(1000);
    kernel::write(MAPS, maps);
    const auto outcome = child::run([] {
        install_guard();
        fault();
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    const std::string rest = maps + std::string(END);
    ASSERT_GT(outcome.error.size(), rest.size());
    const size_t at = outcome.error.find(rest);
    ASSERT_NE(at, std::string::npos) << outcome.error;
    const std::string line = outcome.error.substr(0, at);
#if defined(__mips__) && _MIPS_SIM == _ABIO32
    EXPECT_EQ(line, "SIGBUS information: si_code = 0, si_addr = (nil)") << "the kernel passes no record here";
#else
    const std::regex form("SIGBUS information: si_code = -?[0-9]+, si_addr = (0x[0-9a-f]+|\\(nil\\))");
    EXPECT_TRUE(std::regex_match(line, form)) << line;
#endif
}

TEST_F(MainTest, FaultInTheRegionJumpsAndPrintsNothing) {
    PROMISE("a bus fault happens in the guarded region",
            "the region's begin is returned to with the signal's number, and nothing is printed");
    PROMISE("a bus fault in the guarded region was survived", "SIGBUS is blocked in the loop thread from then on");
    kernel::write(MAPS, "maps");
    const auto outcome = child::run([] {
        install_guard();
        volatile bool recovered = false;
        bus_guard_thread = pthread_self();
        switch (sigsetjmp(bus_guard_jmp, 0)) {
            case 0:
                fault();
                break;
            case SIGBUS:
                recovered = true;
                break;
            default:
                FAIL() << "not the signal's number";
        }
        bus_guard_thread = 0;
        EXPECT_TRUE(recovered);
        EXPECT_TRUE(sigbus_is_blocked());
        EXPECT_TRUE(logged::lines().empty());
    });
    EXPECT_TRUE(outcome.exited_with(0)) << outcome.error;
    EXPECT_EQ(outcome.error, "");
}

#ifndef __mips__  // user-mode emulation, which runs the tests there, repeats a blocked fault for ever; kernels kill
TEST_F(MainTest, SecondFaultInTheThreadKills) {
    PROMISE("the loop thread meets another fault after one that it survived",
            "the kernel ends the process by SIGBUS, without a dump");
    const auto outcome = child::run([] {
        install_guard();
        bus_guard_thread = pthread_self();
        if (sigsetjmp(bus_guard_jmp, 0) == 0) {
            fault();
        }
        bus_guard_thread = 0;
        fault();
    });
    EXPECT_TRUE(outcome.killed_by(SIGBUS)) << outcome.status;
    EXPECT_EQ(outcome.error.find("SIGBUS"), std::string::npos) << outcome.error;
}
#endif

TEST_F(MainTest, FaultInAnotherThreadIsFatalWhileTheRegionIsEntered) {
    PROMISE("another thread faults while the loop thread is in the region", "it is as fatal as outside");
    kernel::write(MAPS, "maps\n");
    const auto outcome = child::run([] {
        install_guard();
        bus_guard_thread = pthread_self();
        if (sigsetjmp(bus_guard_jmp, 0) != 0) {
            FAIL() << "jumped";
        }
        std::thread(fault).join();
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    EXPECT_NE(outcome.error.find("maps\nSIGBUS Abort!"), std::string::npos) << outcome.error;
}

// What on_sigbus writes for an information record, with the maps "maps".
std::string dump_of(siginfo_t* info) {
    kernel::write(MAPS, "maps");
    const auto outcome = child::run([info] { on_sigbus(SIGBUS, info, nullptr); });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    const size_t at = outcome.error.find("mapsSIGBUS Abort!");
    EXPECT_NE(at, std::string::npos) << outcome.error;
    return outcome.error.substr(0, at);
}

TEST_F(MainTest, DumpNamesTheFault) {
    PROMISE("the fault is told of", "code and address read as printf has them, \"(nil)\" for no address");
    PROMISE("the kernel passes no information at all", "code 0 and \"(nil)\"");
    EXPECT_EQ(dump_of(nullptr), "SIGBUS information: si_code = 0, si_addr = (nil)");
    static const struct {
        int code;
        uintptr_t address;
        const char* line;
    } rows[] = {
        {BUS_ADRERR, 0x7fff0010, "SIGBUS information: si_code = 2, si_addr = 0x7fff0010"},
        {0, 0, "SIGBUS information: si_code = 0, si_addr = (nil)"},
        {-6, 1, "SIGBUS information: si_code = -6, si_addr = 0x1"},
        {INT_MIN, 0xdeadbeef, "SIGBUS information: si_code = -2147483648, si_addr = 0xdeadbeef"},
        {INT_MAX, 0xa0, "SIGBUS information: si_code = 2147483647, si_addr = 0xa0"},
    };
    for (const auto& row : rows) {
        siginfo_t info = {};
        info.si_code = row.code;
        info.si_addr = reinterpret_cast<void*>(row.address);  // NOLINT(performance-no-int-to-ptr): made up
        EXPECT_EQ(dump_of(&info), row.line);
    }
    siginfo_t info = {};
    info.si_addr = reinterpret_cast<void*>(UINTPTR_MAX);  // NOLINT(performance-no-int-to-ptr): made up
    EXPECT_EQ(dump_of(&info), "SIGBUS information: si_code = 0, si_addr = 0x" + std::string(2 * sizeof(void*), 'f'));
}

constexpr std::string_view NIL_LINE = "SIGBUS information: si_code = 0, si_addr = (nil)";

TEST_F(MainTest, DumpWithoutMaps) {
    PROMISE("the memory map cannot be opened", "the dump goes on without");
    kernel::fail("open", EMFILE);
    const auto outcome = child::run([] { on_sigbus(SIGBUS, nullptr, nullptr); });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    EXPECT_EQ(outcome.error.substr(0, NIL_LINE.size() + END.size()), std::string(NIL_LINE) + std::string(END));
}

TEST_F(MainTest, DumpReadsMapsByEightyBytesUntilAReadFails) {
    PROMISE("the memory map is copied",
            "in reads of 80 bytes up to the first that fails or is empty; its file is closed");
    const std::string maps = text_of_length(400);
    kernel::write(MAPS, maps);
    const auto outcome = child::run([] {
        static int reads;
        reads = 0;
        on_read = [](int fd, void* buffer, size_t length) -> ssize_t {
            if (length != 80) {
                _exit(1);
            }
            if (++reads == 4) {
                errno = EIO;
                return -1;
            }
            return __real_read(fd, buffer, length);
        };
        on_sigbus(SIGBUS, nullptr, nullptr);
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    const std::string expected = std::string(NIL_LINE) + maps.substr(0, 240) + std::string(END);
    EXPECT_EQ(outcome.error.substr(0, expected.size()), expected);
}

TEST_F(MainTest, DumpIsWholeOnADescriptorThatDoesNotWait) {
    PROMISE("standard error does not block and is full", "the dump waits for room, and is whole");
    const std::string maps = text_of_length(300'000);  // more than a pipe takes
    kernel::write(MAPS, maps);
    const auto outcome = child::run([] {
        fcntl(STDERR_FILENO, F_SETFL, fcntl(STDERR_FILENO, F_GETFL) | O_NONBLOCK);
        on_sigbus(SIGBUS, nullptr, nullptr);
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    const std::string expected = std::string(NIL_LINE) + maps + std::string(END);
    EXPECT_EQ(outcome.error.substr(0, expected.size()), expected);
}

TEST_F(MainTest, DumpWaitsOnceForADescriptorThatStaysFull) {
    PROMISE("standard error does not block, is full and stays so",
            "the dump waits 5 s once, not for each of its pieces, and the process aborts");
    kernel::write(MAPS, text_of_length(800));
    const auto outcome = child::run([] {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
        while (write(ends[1], "x", 1) == 1) {
        }
        dup2(ends[1], STDERR_FILENO);
        alarm(15);
        on_sigbus(SIGBUS, nullptr, nullptr);
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
}

TEST_F(MainTest, DumpComesAfterTheDefaultActionAndClosesTheMaps) {
    PROMISE("the dump begins", "SIGBUS has its default action already, so that a second fault ends the process");
    PROMISE("the memory map is copied",
            "in reads of 80 bytes up to the first that fails or is empty; its file is closed");
    kernel::write(MAPS, "maps");
    const auto outcome = child::run([] {
        install_guard();
        static int maps_fd;
        maps_fd = -1;
        on_read = [](int fd, void* buffer, size_t length) {
            maps_fd = fd;
            return __real_read(fd, buffer, length);
        };
        on_write = [](int fd, const void* buffer, size_t length) {
            struct sigaction action;
            sigaction(SIGBUS, nullptr, &action);
            const bool at_end = std::string_view(static_cast<const char*>(buffer), length) == END;
            if (action.sa_handler != SIG_DFL || fd != STDERR_FILENO || (at_end && fcntl(maps_fd, F_GETFD) != -1)) {
                _exit(1);
            }
            return __real_write(fd, buffer, length);
        };
        on_sigbus(SIGBUS, nullptr, nullptr);
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    EXPECT_NE(outcome.error.find("mapsSIGBUS Abort!"), std::string::npos);
}

TEST_F(MainTest, DumpSurvivesShortAndFailingWrites) {
    PROMISE("standard error takes little, nothing, or fails",
            "what it takes is written on; the process aborts in any case");
    kernel::write(MAPS, "maps");
    auto outcome = child::run([] {
        on_write = [](int fd, const void* buffer, size_t length) {
            return __real_write(fd, buffer, std::min<size_t>(length, 3));
        };
        on_sigbus(SIGBUS, nullptr, nullptr);
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    const std::string expected = std::string(NIL_LINE) + "maps" + std::string(END);
    EXPECT_EQ(outcome.error.substr(0, expected.size()), expected);

    outcome = child::run([] {
        on_write = [](int, const void*, size_t) -> ssize_t {
            errno = EPIPE;
            return -1;
        };
        on_sigbus(SIGBUS, nullptr, nullptr);
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    EXPECT_EQ(outcome.error.find("SIGBUS"), std::string::npos);

    // Nor is one that takes nothing tried for ever.
    outcome = child::run([] {
        on_write = [](int, const void*, size_t) -> ssize_t { return 0; };
        on_sigbus(SIGBUS, nullptr, nullptr);
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
}

}  // namespace
