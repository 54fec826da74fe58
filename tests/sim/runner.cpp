#include "runner.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

#include "real.h"

namespace sim {
namespace {

constexpr unsigned HANG_S = 300;  // of real time, on a loaded machine; a simulated day takes about one

}  // namespace

started start(const task& t) {
    int ends[2];
    if (__real_pipe2(ends, 0) != 0) {
        perror("pipe");
        __real__exit(2);
    }
    fflush(stdout);
    const pid_t pid = __real_fork();
    if (pid < 0) {
        fprintf(stderr, "fork: %s\n", strerror(errno));
        __real__exit(2);
    }
    if (pid == 0) {
        __real_close(ends[0]);
        alarm(HANG_S);
        if (t.is_mute) {
            (void)!freopen("/dev/null", "w", stderr);
        }
        live({.plan = &t.plan,
              .seed = t.seed,
              .days = t.days,
              .is_loud = t.is_loud,
              .result_fd = ends[1],
              .prepare = t.prepare,
              .context = t.context});
    }
    __real_close(ends[1]);
    return {pid, ends[0]};
}

outcome finish(const started& s) {
    outcome result = {};
    size_t length = 0;
    ssize_t got;
    while (length < sizeof result &&
           (got = __real_read(s.fd, reinterpret_cast<char*>(&result) + length, sizeof result - length)) > 0) {
        length += static_cast<size_t>(got);
    }
    __real_close(s.fd);
    int status = 0;
    (void)__real_waitpid(s.pid, &status, 0);
    if (length < sizeof result) {
        result = {};
        result.what = verdict::VIOLATION;
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
            snprintf(result.reason, sizeof result.reason, "the daemon does not come back to its loop");
        } else if (WIFSIGNALED(status)) {
            snprintf(result.reason, sizeof result.reason, "the daemon crashed: %s", strsignal(WTERMSIG(status)));
        } else {
            snprintf(result.reason, sizeof result.reason, "the daemon ended with %d", WEXITSTATUS(status));
        }
    }
    return result;
}

}  // namespace sim
