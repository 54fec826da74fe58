#include "main.h"

#include <charconv>
#include <errno.h>
#include <ev.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string_view>
#include <time.h>
#include <unistd.h>

#include "actions.h"
#include "kv.h"
#include "sdcard.h"
#include "vesk_util.h"

std::atomic<pthread_t> bus_guard_thread;
sigjmp_buf bus_guard_jmp;

namespace {

constexpr int64_t NS_PER_S = 1'000'000'000;
constexpr int32_t SLOW_BATCH_NS = NS_PER_S + 1;
constexpr size_t DUMP_READ_BYTES = 80;
constexpr int DUMP_PATIENCE_MS = 5'000;

constexpr vesk_app_descriptor descriptor = {.name = "vesk_sdcard", .actions = action_table, .reserved = {}};

void on_sigterm(struct ev_loop*, ev_signal*, int) {
    ev_break(ev_default_loop(0), EVBREAK_ALL);
}

// libev calls this instead of invoking the pending watchers itself: the watchdog over callbacks that hold up the loop.
void on_invoke_pending(struct ev_loop* loop) {
    timespec t0;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    ev_invoke_pending(loop);
    timespec t1;
    clock_gettime(CLOCK_MONOTONIC, &t1);

    // Kept at 32 bits: a stall of about 2.15 s or longer may wrap to a small or negative value and go unreported. That
    // is accepted behaviour, not an oversight: do not widen it. Computed unsigned, because signed overflow would be
    // undefined instead of wrapping.
    const uint32_t seconds = static_cast<uint32_t>(t1.tv_sec - t0.tv_sec);
    const uint32_t nanoseconds = static_cast<uint32_t>(t1.tv_nsec - t0.tv_nsec);
    const int32_t elapsed_ns = static_cast<int32_t>(seconds * static_cast<uint32_t>(NS_PER_S) + nanoseconds);
    if (elapsed_ns >= SLOW_BATCH_NS) {
        log_warning("ev_run: loop takes too long time: %5.3lf s",
                    static_cast<double>(t1.tv_sec - t0.tv_sec) +
                        static_cast<double>(t1.tv_nsec - t0.tv_nsec) / static_cast<double>(NS_PER_S));
    }
}

// The dump is written with nothing but what a signal handler may call: snprintf may lock or allocate, write does not.
// It is written whole, also where the caller has made descriptor 2 one that does not wait. A piece that it refuses is
// lost, never the abort after it; once it had no room for DUMP_PATIENCE_MS, no further piece waits.
void dump(std::string_view text) {
    static int patience_ms = DUMP_PATIENCE_MS;
    while (!text.empty()) {
        const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && errno == EAGAIN) {
            pollfd room = {STDERR_FILENO, POLLOUT, 0};
            if (poll(&room, 1, patience_ms) == 1) {
                continue;
            }
            patience_ms = 0;
        }
        if (written <= 0) {
            return;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
}

// As printf's "%d".
void dump_decimal(int value) {
    char digits[12];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    dump({digits, static_cast<size_t>(end - digits)});
}

// As glibc's "%p", whichever C library the camera has.
void dump_pointer(const void* pointer) {
    if (pointer == nullptr) {
        dump("(nil)");
        return;
    }
    char digits[2 + 2 * sizeof pointer] = {'0', 'x'};
    const auto end = std::to_chars(digits + 2, digits + sizeof digits, reinterpret_cast<uintptr_t>(pointer), 16).ptr;
    dump({digits, static_cast<size_t>(end - digits)});
}

// Which file the fault's address belonged to.
void dump_maps() {
    char bytes[DUMP_READ_BYTES];
    const int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    ssize_t length;
    while ((length = read(fd, bytes, sizeof bytes)) > 0) {  // a failed open ends it here
        dump({bytes, static_cast<size_t>(length)});
    }
    close(fd);
}

}  // namespace

void on_sigbus(int signum, siginfo_t* info, void*) {
    const struct sigaction default_action = {};

    if (pthread_equal(bus_guard_thread, pthread_self()) != 0) {
        siglongjmp(bus_guard_jmp, signum);
    }

    // A second fault from here on must end the process at once instead of coming back.
    sigaction(SIGBUS, &default_action, nullptr);
    // Without SA_SIGINFO the argument is whatever the architecture passes: nothing on 32-bit MIPS, and on others a
    // record that the kernel need not have filled. So it may lead a reader of the dump astray, but never the dump.
    dump("SIGBUS information: si_code = ");
    dump_decimal(info != nullptr ? info->si_code : 0);
    dump(", si_addr = ");
    dump_pointer(info != nullptr ? info->si_addr : nullptr);
    dump_maps();
    dump("SIGBUS Abort!");
    abort();
}

int main(int argc, char** argv) {
    if (app_init(&descriptor, argc, argv) < 0) {
        perror("app_init");
        return 1;
    }
    // A tool that ends before it has read its input: the write is to fail, and not to end the process.
    (void)signal(SIGPIPE, SIG_IGN);
    (void)kv_init();  // a service that is away is tried again every second
    // Without memory for these nobody can ask for a format or an eject by key; the rest works.
    (void)kv_register("mem", "default", "spec_sdcard_format", on_spec_sdcard_format, nullptr);
    (void)kv_register("mem", "default", "spec_sdcard_unmount", on_spec_sdcard_unmount, nullptr);
    sdcard_init();

    struct ev_loop* const loop = ev_default_loop(0);
    ev_signal sigterm_watcher;  // watches until the process ends; its loop does not run any more by then
    ev_signal_init(&sigterm_watcher, on_sigterm, SIGTERM);
    ev_signal_start(loop, &sigterm_watcher);
    ev_set_invoke_pending_cb(loop, on_invoke_pending);

    app_run();

    sdcard_exit();
    kv_exit();
    app_fini();
    return 0;
}
