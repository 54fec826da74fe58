// The application framework without a broker: log, command line, random numbers, the beginning and the end.
#include "vesk_util.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ev.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/capture.h"
#include "support/promise.h"

namespace {

// Where the library under test finds the receiver of the system's log instead of at /dev/log.
std::string syslog_socket = "/tmp/no/syslog/here";

}  // namespace

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's names are reserved ones
extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
    sockaddr_un at = {};
    const auto* path = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
    if (address->sa_family == AF_UNIX && strcmp(path, "/dev/log") == 0) {
        at.sun_family = AF_UNIX;
        strncpy(at.sun_path, syslog_socket.c_str(), sizeof at.sun_path - 1);
        address = reinterpret_cast<const sockaddr*>(&at);
        length = sizeof at;
    }
    return static_cast<int>(syscall(SYS_connect, fd, address, length));
}

namespace {

struct outcome {
    int status;  // exit status, or 1000 + the signal that ended it
    std::string out;
    std::string err;
};

std::string drain(int fd) {
    std::string all;
    char part[4096];
    for (ssize_t got = 0; (got = read(fd, part, sizeof part)) > 0;) {
        all.append(part, static_cast<size_t>(got));
    }
    return all;
}

// Runs body in a process of its own, whose standard output and error are caught; neither may exceed a pipe.
outcome in_child(const std::function<int()>& body) {
    int out[2];
    int err[2];
    EXPECT_EQ(pipe(out), 0);
    EXPECT_EQ(pipe(err), 0);
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        for (const int fd : {out[0], out[1], err[0], err[1]}) {
            close(fd);
        }
        unsetenv("JOURNAL_STREAM");
        unsetenv("NOTIFY_SOCKET");
        setenv("VESK_BUS", "unix:/tmp/no/broker/here", 1);
        const int status = body();
        fflush(nullptr);
        _exit(status);
    }
    close(out[1]);
    close(err[1]);
    outcome result = {0, drain(out[0]), drain(err[0])};
    close(out[0]);
    close(err[0]);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    return result;
}

// The receiver of the system's log, of either kind, until the end of the process or the object.
class Syslog {
  public:
    explicit Syslog(int type) : fd_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
        char name[] = "/tmp/syslog.XXXXXX";
        folder_ = mkdtemp(name);
        syslog_socket = folder_ + "/log";
        sockaddr_un at = {};
        at.sun_family = AF_UNIX;
        strncpy(at.sun_path, syslog_socket.c_str(), sizeof at.sun_path - 1);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(listen(fd_, 8), 0);
        }
    }
    Syslog(const Syslog&) = delete;
    Syslog& operator=(const Syslog&) = delete;
    ~Syslog() {
        close(fd_);
        unlink(syslog_socket.c_str());
        rmdir(folder_.c_str());
    }
    // The next message, or what is there of it after 100 ms.
    std::string next(int type = SOCK_DGRAM) const {
        char text[8192];
        pollfd waiting = {fd_, POLLIN, 0};
        if (poll(&waiting, 1, 100) != 1) {
            return "";
        }
        const int from = type == SOCK_STREAM ? accept(fd_, nullptr, nullptr) : fd_;
        const ssize_t got = recv(from, text, sizeof text, 0);
        if (from != fd_) {
            close(from);
        }
        return {text, static_cast<size_t>(std::max<ssize_t>(got, 0))};
    }

  private:
    int fd_;
    std::string folder_;
};

constexpr int READY = 50;
constexpr int SAID_EINVAL = 51;
constexpr int SAID_OTHER = 52;

vesk_app_descriptor descriptor = {"tester", nullptr, {0, 0, 0, 0}};

int init(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "/usr/sbin/tester");
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    if (app_init(&descriptor, static_cast<int>(argv.size()) - 1, argv.data()) == 0) {
        return READY;
    }
    return errno == EINVAL ? SAID_EINVAL : SAID_OTHER;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

__attribute__((format(printf, 3, 4))) void call(void (*form)(const char*, const char*, va_list), const char* prefix,
                                                const char* format, ...) {
    va_list args;
    va_start(args, format);
    form(prefix, format, args);
    va_end(args);
}

// --- Log -----------------------------------------------------------------------------------------------------------

PROMISES("vesk_util", "The log");

TEST(Log, MarksLevels) {
    PROMISE("a message is logged", "one line with its level's mark and, where asked for, a prefix");
    Capture error;
    log_crit("c %d", 1);
    log_err("e %s", "two");
    log_warning("w");
    log_info("i");
    call(log_vpcrit, "p: ", "%d", 1);
    call(log_vperr, "p: ", "%d", 2);
    call(log_vpwarning, "p: ", "%d", 3);
    call(log_vpinfo, "p: ", "%d", 4);
    EXPECT_EQ(error.text(), "<2>c 1\n<3>e two\n<4>w\n<6>i\n<2>p: 1\n<3>p: 2\n<4>p: 3\n<6>p: 4\n");
}

TEST(Log, IsOneLineWhateverItContains) {
    PROMISE("a message has line ends inside, control characters or escapes",
            "it is one line still, with those shown and text beyond ASCII untouched");
    PROMISE("a message ends in line ends", "they make no line of their own");
    const struct {
        const char* message;
        const char* line;
    } rows[] = {
        {"plain", "<6>plain\n"},
        {"", "<6>\n"},
        {"\n", "<6>\n"},
        {"ends in one\n", "<6>ends in one\n"},
        {"ends in two\n\n", "<6>ends in two\n"},
        {"a\nb\n", "<6>a\\nb\n"},
        {"tab\tcr\r", "<6>tab\\tcr\\x0d\n"},
        {"\x1b[31mred\x7f\x01", "<6>\\x1b[31mred\\x7f\\x01\n"},
        {"gr\xc3\xbc\xc3\x9f", "<6>gr\xc3\xbc\xc3\x9f\n"},
        {"<0>forged", "<6><0>forged\n"},
        {"100% \\n", "<6>100% \\n\n"},
    };
    for (const auto& row : rows) {
        Capture error;
        log_info("%s", row.message);
        EXPECT_EQ(error.text(), row.line);
    }
    Capture error;
    call(log_vpinfo, "pre\nfix: ", "%s", "x");
    EXPECT_EQ(error.text(), "<6>pre\\nfix: x\n");
}

TEST(Log, CutsWhatWouldNotLeaveInOnePiece) {
    PROMISE("a message is longer than what leaves in one piece, also by its escapes", "it is cut, and \"...\" says so");
    for (const size_t length : {4000U, 4088U, 4089U, 4090U, 4091U, 4095U, 4096U, 5000U, 100'000U}) {
        Capture error;
        const std::string message(length, 'x');
        log_info("%s", message.c_str());
        const std::string line = error.text();
        ASSERT_LE(line.size(), 4096U) << length;
        EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << length;
        if (line != "<6>" + message + "\n") {
            EXPECT_GT(length, 4085U);
            EXPECT_GT(line.size(), 4080U) << length;
            EXPECT_EQ(line.substr(line.size() - 4), "...\n") << length;
        }
    }
    Capture error;  // escapes make a message longer
    log_info("%s", std::string(2000, '\x01').c_str());
    EXPECT_LE(error.text().size(), 4096U);
    EXPECT_EQ(error.count("..."), 1);
}

TEST(Log, LeavesErrnoAlone) {
    PROMISE("anything is logged, filtered or written in vain", "errno stays as it was");
    Capture error;
    errno = ENOTTY;
    log_info("works %s", "fine");
    EXPECT_EQ(errno, ENOTTY);
    log_debug("is filtered");
    EXPECT_EQ(errno, ENOTTY);
    const outcome closed = in_child([] {
        close(STDERR_FILENO);
        errno = ENOTTY;
        log_err("goes nowhere");
        return errno == ENOTTY ? 0 : 1;
    });
    EXPECT_EQ(closed.status, 0);
}

TEST(Log, SurvivesAReaderThatIsGone) {
    PROMISE("the reader of the log has gone", "the caller goes on");
    const outcome gone = in_child([] {
        int ends[2];
        if (init({"--foreground"}) != READY || pipe(ends) < 0) {
            return 1;
        }
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        errno = ENOTTY;
        log_err("nobody reads this");
        return errno == ENOTTY ? 0 : 2;
    });
    EXPECT_EQ(gone.status, 0);
}

TEST(Log, GivesUpOnAFullPipeThatDoesNotBlock) {
    PROMISE("the log is a full pipe that does not block", "messages are lost, the caller goes on");
    const outcome full = in_child([] {
        int ends[2];
        if (pipe(ends) < 0 || fcntl(ends[1], F_SETFL, O_NONBLOCK) < 0) {
            return 1;
        }
        dup2(ends[1], STDERR_FILENO);
        for (int i = 0; i < 1000; ++i) {
            log_err("%s", std::string(1000, 'x').c_str());
        }
        return 0;
    });
    EXPECT_EQ(full.status, 0);
}

// What a reader finds after `made` messages to a full standard error and one more behind them: the first ones, the line
// that counts the rest, and the last.
void expect_counted(const std::string& text, int made) {
    int seen = 0;
    int counted = 0;
    std::istringstream lines(text);
    std::string line;
    std::string last;
    while (std::getline(lines, line)) {
        last = line;
        seen += line.substr(0, 4) == "<3>x" ? 1 : 0;
        int lost = 0;  // a last short line may find room for the count so far
        if (sscanf(line.c_str(), "<4>log: %d messages could not be written", &lost) == 1) {
            counted += lost;
        }
    }
    EXPECT_GT(seen, 0);
    EXPECT_GT(counted, 0) << text.substr(text.size() > 300 ? text.size() - 300 : 0);
    EXPECT_EQ(seen + counted, made);
    EXPECT_EQ(last, "<3>once more");
}

constexpr int FLOOD = 2000;
constexpr int64_t FLOOD_LIMIT_MS = 5'000;  // a single write that waited would take for ever

int64_t real_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Fills standard error, which nobody reads, empties it, and logs once more. The flags stay those that were inherited.
std::string flood(int reader, int writer) {
    const int saved = dup(STDERR_FILENO);
    dup2(writer, STDERR_FILENO);
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    const int64_t began_ms = real_ms();
    alarm(30);
    for (int i = 0; i < FLOOD; ++i) {
        log_err("%s", std::string(1000, 'x').c_str());
    }
    alarm(0);
    EXPECT_LT(real_ms() - began_ms, FLOOD_LIMIT_MS);
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), flags);
    std::string text;
    const auto empty = [&] {
        char part[4096];
        for (pollfd waiting = {reader, POLLIN, 0}; poll(&waiting, 1, 100) == 1;) {
            const ssize_t got = read(reader, part, sizeof part);
            if (got <= 0) {
                return;
            }
            text.append(part, static_cast<size_t>(got));
        }
    };
    empty();
    log_err("once more");
    empty();
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), flags);
    dup2(saved, STDERR_FILENO);
    close(saved);
    return text;
}

TEST(Log, AReaderThatHangsStopsNobody) {
    PROMISE("the reader of the log hangs",
            "the caller goes on after a short wait for the first message that finds no room; the flags of standard "
            "error stay as they were");
    PROMISE("messages could not be written", "a line before the next one that can be tells how many");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    expect_counted(flood(ends[0], ends[1]), FLOOD);
    close(ends[0]);
    close(ends[1]);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    expect_counted(flood(ends[0], ends[1]), FLOOD);
    close(ends[0]);
    close(ends[1]);
}

TEST(Log, AStoppedTerminalStopsNobody) {
    PROMISE("the terminal that the log goes to is stopped", "the caller goes on");
    PROMISE("standard error has become another file since messages were lost", "they are counted there");
    const int own = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_TRUE(own >= 0 && grantpt(own) == 0 && unlockpt(own) == 0);
    const int terminal = open(ptsname(own), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(tcflow(terminal, TCOOFF), 0);
    const int saved = dup(STDERR_FILENO);
    dup2(terminal, STDERR_FILENO);
    const int64_t began_ms = real_ms();
    alarm(30);
    for (int i = 0; i < 100; ++i) {
        log_err("%s", std::string(1000, 'x').c_str());
    }
    alarm(0);
    dup2(saved, STDERR_FILENO);
    close(saved);
    EXPECT_LT(real_ms() - began_ms, FLOOD_LIMIT_MS);
    close(terminal);
    close(own);
    Capture rest;
    log_err("told");  // and what is counted is told elsewhere, if standard error has become another one
    EXPECT_EQ(rest.count("messages could not be written"), 1);
}

TEST(Log, ASystemLogThatHangsStopsNobody) {
    PROMISE("the system log hangs", "the caller goes on");
    PROMISE("messages could not be written", "a line before the next one that can be tells how many");
    const Syslog receiver(SOCK_DGRAM);
    const outcome result = in_child([&] {
        if (init({}) != READY) {
            return 1;
        }
        const int64_t began_ms = real_ms();
        for (int i = 0; i < FLOOD; ++i) {
            log_err("x");
        }
        if (real_ms() - began_ms > FLOOD_LIMIT_MS) {
            return 2;
        }
        int seen = 0;
        while (!receiver.next().empty()) {
            ++seen;
        }
        log_err("once more");
        const std::string counted = receiver.next();
        const std::string last = receiver.next();
        printf("%s|%s", counted.substr(counted.find(": ")).c_str(), last.substr(last.find(": ")).c_str());
        return seen > 0 && contains(counted, "log: " + std::to_string(FLOOD - seen) + " messages could not be written")
                   ? 0
                   : 3;
    });
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(contains(result.out, "|: once more")) << result.out;
}

TEST(Log, WhatWasLostIsToldAtTheEndAtLast) {
    PROMISE("the application ends with lost messages uncounted", "they are counted then");
    const outcome result = in_child([] {
        int ends[2];
        if (init({"--foreground"}) != READY || pipe(ends) < 0) {
            return 1;
        }
        const int saved = dup(STDERR_FILENO);
        dup2(ends[1], STDERR_FILENO);
        for (int i = 0; i < 100; ++i) {
            log_err("%s", std::string(1000, 'x').c_str());
        }
        dup2(saved, STDERR_FILENO);
        app_fini();
        return 0;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(contains(result.err, "messages could not be written\n")) << result.err;
}

TEST(Log, FiltersByLevel) {
    PROMISE("a level is chosen, or none", "that one and what is more urgent is logged; info without a choice");
    const struct {
        std::vector<std::string> arguments;
        const char* lines;
    } rows[] = {
        {{"--log-level", "crit"}, "<2>c\n"},
        {{"--log-level", "err"}, "<2>c\n<3>e\n"},
        {{"--log-level", "warning"}, "<2>c\n<3>e\n<4>w\n"},
        {{"--log-level", "info"}, "<2>c\n<3>e\n<4>w\n<6>i\n"},
        {{"--log-level", "debug"}, "<2>c\n<3>e\n<4>w\n<6>i\n<7>d\n"},
        {{}, "<2>c\n<3>e\n<4>w\n<6>i\n"},
    };
    for (const auto& row : rows) {
        const outcome result = in_child([&] {
            std::vector<std::string> arguments = row.arguments;
            arguments.emplace_back("--foreground");
            const int ready = init(arguments);
            log_crit("c");
            log_err("e");
            log_warning("w");
            log_info("i");
            log_debug("d");
            return ready;
        });
        EXPECT_EQ(result.status, READY);
        EXPECT_EQ(result.err, row.lines);
    }
}

TEST(Log, ChoosesItsTarget) {
    PROMISE("nobody seems to read standard error", "the log goes to syslog, under the name of the program");
    PROMISE("the program runs in the foreground, or under a service manager",
            "the log goes to standard error; the journal of a parent does not count");
    const struct {
        const char* name;
        std::function<void()> prepare;
        std::vector<std::string> arguments;
        bool to_syslog;
    } rows[] = {
        {"nobody asked", [] {}, {}, true},
        {"foreground", [] {}, {"--foreground"}, false},
        {"notify socket", [] { setenv("NOTIFY_SOCKET", "/run/notify", 1); }, {}, false},
        {"journal",
         [] {
             struct stat stream = {};
             fstat(STDERR_FILENO, &stream);
             const std::string name = std::to_string(static_cast<unsigned long long>(stream.st_dev)) + ":" +
                                      std::to_string(static_cast<unsigned long long>(stream.st_ino));
             setenv("JOURNAL_STREAM", name.c_str(), 1);
         },
         {},
         false},
        {"the journal of a parent", [] { setenv("JOURNAL_STREAM", "1:1", 1); }, {}, true},
    };
    for (const auto& row : rows) {
        for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
            const Syslog receiver(type);
            const outcome result = in_child([&] {
                row.prepare();
                const int ready = init(row.arguments);
                printf("%d", static_cast<int>(getpid()));
                log_warning("a\nb\n");
                return ready;
            });
            EXPECT_EQ(result.status, READY) << row.name;
            std::string message = receiver.next(type);
            if (row.to_syslog) {
                const std::string expected =
                    "<" + std::to_string(LOG_DAEMON | 4) + ">tester[" + result.out + "]: a\\nb";
                EXPECT_EQ(message, type == SOCK_STREAM ? expected + '\0' : expected) << row.name;
                EXPECT_EQ(result.err, "") << row.name;
            } else {
                EXPECT_EQ(result.err, "<4>a\\nb\n") << row.name;
                EXPECT_EQ(message, "") << row.name;
            }
        }
    }
}

TEST(Log, GoesToATerminal) {
    PROMISE("standard error is a terminal", "the log goes there");
    const outcome result = in_child([] {
        const int own = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (own < 0 || grantpt(own) < 0 || unlockpt(own) < 0) {
            return 1;
        }
        const int terminal = open(ptsname(own), O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (terminal < 0 || dup2(terminal, STDERR_FILENO) < 0 || init({}) != READY) {
            return 2;
        }
        log_warning("seen");
        char text[64] = "";
        pollfd waiting = {own, POLLIN, 0};
        if (poll(&waiting, 1, 10'000) == 1) {
            (void)!read(own, text, sizeof text - 1);
        }
        return strcmp(text, "<4>seen\r\n") == 0 ? 0 : 3;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "") << "not to syslog";
}

TEST(Log, KeepsTheLinesOfThreadsApart) {
    PROMISE("several threads log at once", "each line stays whole");
    constexpr int MESSAGES = 400;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int saved = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    std::string all;
    std::thread reader([&] { all = drain(ends[0]); });
    {
        std::vector<std::thread> writers;
        for (const char letter : {'a', 'b', 'c'}) {
            writers.emplace_back([letter] {
                const std::string text(1500, letter);
                for (int i = 0; i < MESSAGES; ++i) {
                    log_info("%s", text.c_str());
                }
            });
        }
        for (std::thread& writer : writers) {
            writer.join();
        }
    }
    dup2(saved, STDERR_FILENO);
    close(saved);
    reader.join();
    close(ends[0]);

    int whole = 0;
    std::istringstream lines(all);
    for (std::string line; std::getline(lines, line);) {
        int lost = 0;
        if (sscanf(line.c_str(), "<4>log: %d messages could not be written", &lost) == 1) {
            whole += lost;  // the reader was too slow
            continue;
        }
        ASSERT_EQ(line.size(), 1503U);
        ASSERT_EQ(line.substr(0, 3), "<6>");
        ASSERT_EQ(line.substr(3), std::string(1500, line[3]));
        ++whole;
    }
    EXPECT_EQ(whole, 3 * MESSAGES);
}

TEST(Log, WorksUntilTheProcessEnds) {
    PROMISE("the application has ended, or the process is exiting", "logging works");
    const outcome result = in_child([]() -> int {
        if (init({"--foreground"}) != READY) {
            return 1;
        }
        app_fini();
        log_info("after the end");
        (void)atexit([] { log_info("while exiting"); });
        static std::atomic<bool> running{false};
        std::thread([] {
            for (;;) {
                running = true;
                log_debug("filtered");
                log_info("thread");
                usleep(1000);
            }
        }).detach();
        while (!running) {
            usleep(1000);
        }
        exit(7);
    });
    EXPECT_EQ(result.status, 7);
    EXPECT_TRUE(contains(result.err, "<6>after the end\n"));
    EXPECT_TRUE(contains(result.err, "<6>while exiting\n"));
}

// --- Command line --------------------------------------------------------------------------------------------------

PROMISES("vesk_util", "The command line, beginning and end");

TEST(Options, AreReadStrictly) {
    PROMISE("an option is unknown or without its value, or an argument is left over",
            "it is explained on standard error, the beginning fails with EINVAL");
    PROMISE("the log level or the bus address makes no sense", "likewise, with its text");
    PROMISE("the version or help is asked for", "it is answered on standard output, and the process ends with 0");
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* out;
        const char* err;
    } rows[] = {
        {{}, READY, "", ""},
        {{"--foreground"}, READY, "", ""},
        {{"--bus", "unix:/tmp/nowhere"}, READY, "", ""},
        {{"--bus=tcp:127.0.0.1:1", "--log-level=debug", "--foreground"}, READY, "", ""},
        {{"--version"}, 0, "tester 0.", ""},
        {{"--help"}, 0, "Usage: tester [OPTION]...\n", ""},
        {{"--bus"}, SAID_EINVAL, "", "--bus"},
        {{"--bus", "nonsense"}, SAID_EINVAL, "", "'nonsense'"},
        {{"--bus", ""}, SAID_EINVAL, "", "bus address"},
        {{"--log-level", "loud"}, SAID_EINVAL, "", "unknown log level 'loud'"},
        {{"--log-level", "INFO"}, SAID_EINVAL, "", "unknown log level 'INFO'"},
        {{"--frobnicate"}, SAID_EINVAL, "", "--frobnicate"},
        {{"-x"}, SAID_EINVAL, "", "x"},
        {{"extra"}, SAID_EINVAL, "", "unexpected argument 'extra'"},
        {{"--", "--help"}, SAID_EINVAL, "", "unexpected argument '--help'"},
        {{"--foreground=yes"}, SAID_EINVAL, "", "foreground"},
    };
    for (const auto& row : rows) {
        const outcome result = in_child([&] { return init(row.arguments); });
        const std::string first = row.arguments.empty() ? "nothing" : row.arguments[0];
        EXPECT_EQ(result.status, row.status) << first;
        EXPECT_TRUE(contains(result.out, row.out)) << first << ": " << result.out;
        EXPECT_TRUE(contains(result.err, row.err)) << first << ": " << result.err;
        if (row.status == SAID_EINVAL) {
            EXPECT_FALSE(result.err.empty()) << first;
            EXPECT_EQ(result.out, "") << first;
        }
    }
}

TEST(Options, HelpNamesThemAll) {
    PROMISE("the version or help is asked for", "it is answered on standard output, and the process ends with 0");
    const outcome result = in_child([] { return init({"--help"}); });
    for (const char* name : {"--bus", "--foreground", "--log-level", "--version", "--help", "VESK_BUS"}) {
        EXPECT_TRUE(contains(result.out, name)) << name;
    }
}

TEST(Options, ABusAddressOfTheEnvironmentIsCheckedToo) {
    PROMISE("the address of the environment makes no sense", "likewise");
    const outcome result = in_child([] {
        setenv("VESK_BUS", "nonsense", 1);
        return init({});
    });
    EXPECT_EQ(result.status, SAID_EINVAL);
    EXPECT_TRUE(contains(result.err, "'nonsense'")) << result.err;
}

// --- Beginning and end ---------------------------------------------------------------------------------------------

TEST(App, TakesNamesThatCanBeTopics) {
    PROMISE("the name cannot be part of a topic",
            "the beginning fails with EINVAL; a name may fill its field to the last byte");
    const struct {
        std::string name;
        int status;
    } rows[] = {
        {"vesk_sdcard", READY}, {std::string(32, 'n'), READY}, {"", SAID_EINVAL},
        {"a/b", SAID_EINVAL},   {"a+", SAID_EINVAL},           {"#", SAID_EINVAL},
        {"a\nb", SAID_EINVAL},
    };
    for (const auto& row : rows) {
        const outcome result = in_child([&] {
            memset(descriptor.name, 0, sizeof descriptor.name);
            memcpy(descriptor.name, row.name.data(), row.name.size());
            return init({"--foreground"});
        });
        EXPECT_EQ(result.status, row.status) << row.name;
    }
}

TEST(App, IgnoresSigpipe) {
    PROMISE("a reader goes away", "no signal ends the process");
    const outcome result = in_child([] {
        struct sigaction action = {};
        const int ready = init({});
        sigaction(SIGPIPE, nullptr, &action);
        return ready == READY && action.sa_handler == SIG_IGN ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0);
}

// What a program that was started by one that waits for signals, or that a shell has put aside, has inherited.
TEST(App, TakesItsSignalsWhateverWasInherited) {
    PROMISE("SIGCHLD, SIGTERM or SIGBUS was blocked or ignored when the program was started",
            "each takes effect from the beginning on; other signals stay as they were");
    const outcome result = in_child([] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        for (const int number : {SIGCHLD, SIGTERM, SIGBUS}) {
            (void)signal(number, SIG_IGN);
        }
        if (init({}) != READY) {
            return 1;
        }
        sigset_t now;
        sigprocmask(SIG_BLOCK, nullptr, &now);
        for (const int number : {SIGCHLD, SIGTERM, SIGBUS}) {
            struct sigaction action = {};
            sigaction(number, nullptr, &action);
            if (sigismember(&now, number) != 0 || action.sa_handler == SIG_IGN) {
                return 2;
            }
        }
        if (sigismember(&now, SIGUSR1) != 1) {
            return 3;  // none of ours
        }
        // And to the end: a child's exit and the request to end arrive on the loop.
        static int told;
        struct ev_loop* loop = ev_default_loop(0);
        ev_signal ends;
        ev_signal_init(
            &ends, [](struct ev_loop*, ev_signal*, int) { told |= 1; }, SIGTERM);
        ev_signal_start(loop, &ends);
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(0);
        }
        ev_child child;
        ev_child_init(
            &child, [](struct ev_loop*, ev_child*, int) { told |= 2; }, pid, 0);
        ev_child_start(loop, &child);
        kill(getpid(), SIGTERM);
        for (const int64_t deadline_ms = real_ms() + 10'000; told != 3 && real_ms() < deadline_ms;) {
            ev_run(loop, EVRUN_NOWAIT);
            usleep(1000);
        }
        return told == 3 ? 0 : 4;
    });
    EXPECT_EQ(result.status, 0);
}

// A handler that somebody has installed is not taken away: libev's own for children is there before.
TEST(App, LeavesHandlersAlone) {
    PROMISE("a signal has a handler before the application begins", "the handler stays");
    const outcome result = in_child([] {
        (void)signal(SIGTERM, [](int) {});
        struct sigaction before = {};
        struct sigaction after = {};
        sigaction(SIGTERM, nullptr, &before);
        const int ready = init({});
        sigaction(SIGTERM, nullptr, &after);
        return ready == READY && before.sa_handler == after.sa_handler ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0);
}

TEST(App, NeverLetsAFileTakeTheLogsDescriptor) {
    PROMISE("the process was started with standard descriptors closed", "no later file gets their numbers");
    const outcome result = in_child([] {
        close(0);
        close(1);
        close(2);
        if (init({"--foreground"}) != READY) {
            return 1;
        }
        return open("/dev/null", O_RDWR | O_CLOEXEC) > 2 ? 0 : 2;
    });
    EXPECT_EQ(result.status, 0);
}

TEST(App, MayEndWithoutHavingBegun) {
    PROMISE("the application ends without having begun, or twice", "nothing happens");
    EXPECT_EQ(in_child([] {
                  app_fini();
                  app_fini();
                  return 0;
              }).status,
              0);
}

// --- Random numbers ------------------------------------------------------------------------------------------------

PROMISES("vesk_util", "Random numbers");

TEST(RandRange, StaysInside) {
    PROMISE("a number is drawn", "it lies in the range, both ends included, up to the whole range of int");
    PROMISE("the end lies below the beginning", "the beginning");
    EXPECT_EQ(rand_range(5, 5), 5);
    EXPECT_EQ(rand_range(7, 3), 7);
    EXPECT_EQ(rand_range(INT_MAX, INT_MIN), INT_MAX);
    std::set<int> seen;
    for (int i = 0; i < 500; ++i) {
        const int value = rand_range(-2, 2);
        ASSERT_GE(value, -2);
        ASSERT_LE(value, 2);
        seen.insert(value);
    }
    EXPECT_EQ(seen.size(), 5U);
    bool negative = false;
    bool positive = false;
    for (int i = 0; i < 100; ++i) {
        const int value = rand_range(INT_MIN, INT_MAX);
        negative = negative || value < 0;
        positive = positive || value > 0;
    }
    EXPECT_TRUE(negative && positive);
}

// A remainder alone would give the lowest third of this range half of the numbers.
TEST(RandRange, FavoursNobody) {
    PROMISE("the range does not divide what is drawn from", "no number is favoured");
    constexpr int THIRD = 1000;
    int lowest_third = 0;
    for (int i = 0; i < 3 * THIRD; ++i) {
        lowest_third += rand_range(INT_MIN, 0x3fffffff) < INT_MIN / 2 ? 1 : 0;
    }
    EXPECT_NEAR(lowest_third, THIRD, 200);
}

TEST(RandRange, WorksWithoutItsDevice) {
    PROMISE("there is no random device", "numbers are drawn all the same, and errno stays");
    const outcome result = in_child([] {
        const rlimit none = {0, 0};
        if (setrlimit(RLIMIT_NOFILE, &none) < 0 || open("/dev/urandom", O_RDONLY | O_CLOEXEC) >= 0) {
            return 1;
        }
        errno = ENOTTY;
        std::set<int> seen;
        for (int i = 0; i < 2000; ++i) {
            const int value = rand_range(10, 19);
            if (value < 10 || value > 19) {
                return 2;
            }
            seen.insert(value);
        }
        if (errno != ENOTTY) {
            return 3;
        }
        return seen.size() == 10 ? 0 : 4;
    });
    EXPECT_EQ(result.status, 0);
}

}  // namespace
