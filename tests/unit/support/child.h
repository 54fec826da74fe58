// Runs a test's body in a child process: for what ends the process, or leaves it in a state that no other test wants.
#pragma once

#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/coverage.h"

namespace child {

constexpr int FAILED = 99;  // exit status of a child with a failed expectation

struct outcome {
    int status;         // as waitpid gives it
    std::string error;  // all of its standard error

    bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
    bool killed_by(int signum) const { return WIFSIGNALED(status) && WTERMSIG(status) == signum; }
};

// The child ends with 0 behind the body, or with FAILED after a failed expectation; it is killed after 20 s.
inline outcome run(const std::function<void()>& body) {
    int ends[2];
    if (pipe(ends) != 0) {
        ADD_FAILURE() << "pipe";
        return {-1, ""};
    }
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        alarm(20);
        coverage::write_counts_at_abort();
        body();
        fflush(nullptr);
        coverage::write_counts();
        _exit(testing::Test::HasFailure() ? FAILED : 0);
    }
    close(ends[1]);
    outcome result = {-1, ""};
    char bytes[4096];
    ssize_t length;
    while ((length = read(ends[0], bytes, sizeof bytes)) > 0) {
        result.error.append(bytes, static_cast<size_t>(length));
    }
    close(ends[0]);
    EXPECT_EQ(waitpid(pid, &result.status, 0), pid);
    return result;
}

}  // namespace child
