// tool_probe [-o FILE] COMMAND ARGUMENT...: runs a program to its end and says on one line what it took: when it began
// and ended in milliseconds of the monotonic clock, how it ended ("exit 0", "signal 9"), how long it ran, and the peak
// of its memory in KiB. Its input and output are left alone. -o: the line is added to FILE; and then this program ends
// as the other one did, so that it can take its place below the daemon.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int EXIT_NOT_STARTED = 99;

double now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Ends as the other program did.
[[noreturn]] void end_like(int status) {
    if (WIFSIGNALED(status)) {
        (void)signal(WTERMSIG(status), SIG_DFL);
        (void)raise(WTERMSIG(status));
    }
    _exit(WEXITSTATUS(status));
}

}  // namespace

int main(int argc, char** argv) {
    const char* file = nullptr;
    char** command = argv + 1;
    if (argc > 2 && strcmp(argv[1], "-o") == 0) {
        file = argv[2];
        command += 2;
    }
    if (*command == nullptr) {
        fprintf(stderr, "usage: tool_probe [-o FILE] COMMAND ARGUMENT...\n");
        return 2;
    }
    const double start = now_ms();
    const pid_t child = fork();
    if (child == 0) {
        execvp(*command, command);
        _exit(EXIT_NOT_STARTED);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child) {
        perror("tool_probe");
        return 2;
    }
    const double end = now_ms();
    FILE* out = file != nullptr ? fopen(file, "ae") : stdout;
    if (out == nullptr) {
        perror(file);
        return 2;
    }
    const bool killed = WIFSIGNALED(status);
    fprintf(out, "tool_probe: %.1f to %.1f: %s %d, %.0f ms, %ld KiB\n", start, end, killed ? "signal" : "exit",
            killed ? WTERMSIG(status) : WEXITSTATUS(status), end - start, usage.ru_maxrss);
    (void)fflush(out);
    if (file != nullptr) {
        end_like(status);
    }
    return 0;
}
