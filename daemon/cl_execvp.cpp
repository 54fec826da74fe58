// One run is one exec_ctx, from the call to the child's end. libev calls on_child_exit before anything else of the same
// round, the child's output included: what is still in the pipe then is not read. Only fuser's output is captured, what
// gets lost is a line in a report, and the next round asks again. It is rare: once in some 700 runs of
// fuser on a workbench, and that one had much else to do.
//
// A run has no time limit. A child that waits for the end of its input waits for ever, because the pipe stays open
// until it ends; so does one that prints more than the capture takes and the pipe holds. A camera's tools do neither;
// cl_mkfs.cpp names one that waits.
#include "cl_execvp.h"

#include <errno.h>
#include <ev.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "closure.h"
#include "vesk_util.h"

namespace {

// What happens to a run after its start, in the usual order:
void on_stdin_writable(struct ev_loop* loop, ev_io* watcher, int);
void on_stdout_readable(struct ev_loop* loop, ev_io* watcher, int);
void on_child_exit(struct ev_loop*, ev_child* watcher, int);

constexpr int EXIT_NOT_STARTED = 99;  // what a child says that found no program to become

constexpr int READ_END = 0;
constexpr int WRITE_END = 1;

// Freed when the child has ended.
struct exec_ctx {
    closure_frame* frame;
    const char* const* argv;  // the caller's, not looked at once the child runs
    const char* in_data;      // next byte of input to send; null: no input
    char* out_cursor;         // where the next byte of output goes; null: no capture
    uint32_t in_left;         // bytes
    uint32_t out_left;        // bytes, the terminator's included
    ev_child child;
    char name[20];  // argv[0] for messages, cut to what fits
    ev_io in_io;    // our end of the input pipe; fd -1: there is none
    ev_io out_io;   // our end of the output pipe; fd -1: there is none
};

exec_ctx* exec_ctx_new(closure_frame* frame) {
    auto* ctx = static_cast<exec_ctx*>(calloc(1, sizeof(exec_ctx)));
    if (ctx == nullptr) {
        return nullptr;
    }
    ctx->frame = frame;
    ev_child_init(&ctx->child, on_child_exit, 0, 0);
    ev_io_init(&ctx->in_io, on_stdin_writable, -1, 0);
    ev_io_init(&ctx->out_io, on_stdout_readable, -1, 0);
    ctx->child.data = ctx;
    ctx->in_io.data = ctx;
    ctx->out_io.data = ctx;
    return ctx;
}

void close_open(int fd) {
    if (fd >= 0) {
        close(fd);
    }
}

void exec_ctx_free(exec_ctx* ctx) {
    struct ev_loop* loop = ev_default_loop(0);
    ev_child_stop(loop, &ctx->child);
    ev_io_stop(loop, &ctx->out_io);
    ev_io_stop(loop, &ctx->in_io);
    close_open(ctx->out_io.fd);
    close_open(ctx->in_io.fd);
    free(ctx);
}

// Opens a pipe, and our end of it does not block. Both ends are close-on-exec: the child gets its end by dup2, which
// does not pass the flag on, and nothing else that is started meanwhile gets either.
int open_pipe(int (&ends)[2], int our_end) {
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    (void)fcntl(ends[our_end], F_SETFL, fcntl(ends[our_end], F_GETFL) | O_NONBLOCK);  // cannot fail on a pipe of ours
    return 0;
}

// The child's side, from fork to exec. Other threads may have held any lock of the C library at the fork, and here they
// do not exist to release it: nothing but these four calls. The ends are never 0 or 1 themselves, where dup2 would keep
// the close-on-exec flag: the framework sees to it that 0, 1 and 2 are open from the start.
[[noreturn]] void become_child(const exec_ctx* ctx, const int (&input)[2], const int (&output)[2]) {
    if (input[READ_END] >= 0) {
        dup2(input[READ_END], STDIN_FILENO);
        close(input[READ_END]);
        close(input[WRITE_END]);
    }
    if (output[WRITE_END] >= 0) {
        dup2(output[WRITE_END], STDOUT_FILENO);
        close(output[WRITE_END]);
        close(output[READ_END]);
    }
    execvp(ctx->argv[0], const_cast<char* const*>(ctx->argv));
    _exit(EXIT_NOT_STARTED);
}

// 0, or a positive errno with nothing started and the child's ends closed; our ends go with the context.
int exec_ctx_spawn(exec_ctx* ctx) {
    int input[2] = {-1, -1};
    int output[2] = {-1, -1};
    if (ctx->in_data != nullptr) {
        if (open_pipe(input, WRITE_END) != 0) {
            return errno;
        }
        ev_io_set(&ctx->in_io, input[WRITE_END], EV_WRITE);
    }
    if (ctx->out_cursor != nullptr) {
        if (open_pipe(output, READ_END) != 0) {
            const int error = errno;
            close_open(input[READ_END]);
            return error;
        }
        ev_io_set(&ctx->out_io, output[READ_END], EV_READ);
    }
    snprintf(ctx->name, sizeof ctx->name, "%s", ctx->argv[0]);
    const pid_t pid = fork();
    const int error = errno;
    if (pid == 0) {
        become_child(ctx, input, output);
    }
    close_open(input[READ_END]);
    close_open(output[WRITE_END]);
    if (pid < 0) {
        return error;
    }
    struct ev_loop* loop = ev_default_loop(0);
    if (ctx->in_data != nullptr) {
        ev_io_start(loop, &ctx->in_io);
    }
    if (ctx->out_cursor != nullptr) {
        ev_io_start(loop, &ctx->out_io);
    }
    ev_child_set(&ctx->child, pid, 0);
    ev_child_start(loop, &ctx->child);
    return 0;
}

void exec_ctx_start(exec_ctx* ctx) {
    closure_frame* frame = ctx->frame;
    const int result = exec_ctx_spawn(ctx);
    if (result != 0) {
        exec_ctx_free(ctx);
    }
    // A pipe or fork failure is a positive errno, and that counts as started: the frame stays busy and no further job
    // is taken until the daemon starts anew. Do not turn it round: a system that is out of descriptors or processes
    // cannot finish a job, and one that failed here would mount and write a card that is half made.
    if (result < 0) {
        closure_fail(frame, result);
    }
}

void on_stdin_writable(struct ev_loop* loop, ev_io* watcher, int) {
    auto* ctx = static_cast<exec_ctx*>(watcher->data);
    const ssize_t written = write(watcher->fd, ctx->in_data, ctx->in_left);
    if (written <= 0) {
        ev_io_stop(loop, watcher);  // a child that closed its input may have read enough; its exit code tells
        return;
    }
    ctx->in_data += written;
    ctx->in_left -= static_cast<uint32_t>(written);
    if (ctx->in_left == 0) {
        log_debug("exec-%s: all stdin data has been sent.", ctx->name);
        ev_io_stop(loop, watcher);
    }
}

void on_stdout_readable(struct ev_loop* loop, ev_io* watcher, int) {
    auto* ctx = static_cast<exec_ctx*>(watcher->data);
    const ssize_t length = read(watcher->fd, ctx->out_cursor, ctx->out_left);
    if (length <= 0) {
        ev_io_stop(loop, watcher);
        return;
    }
    ctx->out_cursor += length;
    ctx->out_left -= static_cast<uint32_t>(length);
    if (ctx->out_left == 0) {
        log_warning("exec-%s: stdout buffer overflow.", ctx->name);
        ev_io_stop(loop, watcher);
    }
}

// What a wait status is to the frame: the exit code, or -1 when there is none.
int exit_code(const exec_ctx* ctx, int status) {
    if (WIFEXITED(status)) {
        const int code = WEXITSTATUS(status);
        if (code != 0) {
            log_warning("%s: exit with code %d", ctx->name, code);
        }
        return code;
    }
    if (WIFSIGNALED(status)) {
        log_warning("%s: exit with signal %s", ctx->name, strsignal(WTERMSIG(status)));
    } else {
        log_warning("%s: exit with unexpected status 0x%x", ctx->name, static_cast<unsigned>(status));
    }
    return -1;
}

void terminate_output(exec_ctx* ctx) {
    if (ctx->out_left != 0) {
        *ctx->out_cursor = '\0';
    } else {
        log_warning("%s: stdout buffer is too small!", ctx->name);
        ctx->out_cursor[-1] = '\0';
    }
}

void on_child_exit(struct ev_loop*, ev_child* watcher, int) {
    auto* ctx = static_cast<exec_ctx*>(watcher->data);
    closure_frame* frame = ctx->frame;
    const int code = exit_code(ctx, watcher->rstatus);
    if (ctx->out_cursor != nullptr) {
        terminate_output(ctx);
    }
    exec_ctx_free(ctx);
    if (code == 0) {
        closure_succeed(frame, 0);
    } else {
        closure_fail(frame, code);
    }
}

}  // namespace

void cl_next_execvp(closure_frame* frame, const char* const* argv) {
    exec_ctx* ctx = exec_ctx_new(frame);
    if (ctx == nullptr) {
        closure_fail(frame, errno);
        return;
    }
    ctx->argv = argv;
    exec_ctx_start(ctx);
}

void cl_next_execvp_read(closure_frame* frame, const char* const* argv, char* buffer, uint32_t size) {
    exec_ctx* ctx = exec_ctx_new(frame);
    if (ctx == nullptr) {
        closure_fail(frame, errno);
        return;
    }
    ctx->argv = argv;
    ctx->out_cursor = buffer;
    ctx->out_left = size;
    exec_ctx_start(ctx);
}

void cl_next_execvp_write(closure_frame* frame, const char* const* argv, const char* data, uint32_t length) {
    exec_ctx* ctx = exec_ctx_new(frame);
    if (ctx == nullptr) {
        closure_fail(frame, errno);
        return;
    }
    ctx->argv = argv;
    ctx->in_data = data;
    ctx->in_left = length;
    exec_ctx_start(ctx);
}
