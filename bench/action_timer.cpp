// Loaded before the daemon's libraries (LD_PRELOAD), it measures in the daemon itself how long a remote action holds
// the event loop, and what of that is whose. For each request one line on standard error, in microseconds:
//   action_timer: deleteVideo parse 8210 (7990, 4000 in the kernel, 152 page faults) handler 21340 (17510) thread 3204
//   loop 31002
// parse: the JSON library's; handler: the daemon's; in brackets the loop thread's own processor time of each. The
// kernel's part of that is counted in its ticks. thread: the creation of threads by the handler, which may run at once.
// loop: all callbacks of the round, with all of these.
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <dlfcn.h>
#include <ev.h>
#include <iterator>
#include <json-c/json.h>
#include <pthread.h>
#include <sys/resource.h>

#include "vesk_util.h"

namespace {

constexpr int MAX_ACTIONS = 8;

const remote_action* original;
remote_action timed[MAX_ACTIONS + 1];
vesk_app_descriptor timed_descriptor;

const char* ran;  // the action of this round, or null
int64_t thread_us;

int64_t now_us(clockid_t clock = CLOCK_MONOTONIC) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
}

struct span {
    int64_t wall_us;
    int64_t processor_us;
    int64_t kernel_us;
    long page_faults;

    static span now() {
        rusage usage;
        getrusage(RUSAGE_THREAD, &usage);
        return {now_us(), now_us(CLOCK_THREAD_CPUTIME_ID),
                static_cast<int64_t>(usage.ru_stime.tv_sec) * 1'000'000 + usage.ru_stime.tv_usec, usage.ru_minflt};
    }
    void add_since(const span& begin) {
        const span end = now();
        wall_us += end.wall_us - begin.wall_us;
        processor_us += end.processor_us - begin.processor_us;
        kernel_us += end.kernel_us - begin.kernel_us;
        page_faults += end.page_faults - begin.page_faults;
    }
};
span parse;
span handler;

// The function that the daemon would have called without us.
template <typename FUNCTION>
FUNCTION next(const char* name) {
    return reinterpret_cast<FUNCTION>(dlsym(RTLD_NEXT, name));
}

template <int INDEX>
int32_t run_timed(void* context, json_object* params, json_object* reply) {
    const span begin = span::now();
    const int32_t code = original[INDEX].handler(context, params, reply);
    handler.add_since(begin);
    ran = original[INDEX].name;
    return code;
}

constexpr remote_action_handler HANDLERS[] = {run_timed<0>, run_timed<1>, run_timed<2>, run_timed<3>,
                                              run_timed<4>, run_timed<5>, run_timed<6>, run_timed<7>};
static_assert(std::size(HANDLERS) == MAX_ACTIONS);

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int app_init(const vesk_app_descriptor* descriptor, int argc, char** argv) {
    original = descriptor->actions;
    for (int i = 0; i < MAX_ACTIONS && original[i].name != nullptr; ++i) {
        timed[i] = {original[i].name, HANDLERS[i], {0, 0}};
    }
    timed_descriptor = *descriptor;
    timed_descriptor.actions = timed;
    return next<decltype(&app_init)>("app_init")(&timed_descriptor, argc, argv);
}

__attribute__((visibility("default"))) json_object* json_tokener_parse_ex(json_tokener* tokener, const char* text,
                                                                          int length) {
    const auto real = next<decltype(&json_tokener_parse_ex)>("json_tokener_parse_ex");
    const span begin = span::now();
    json_object* result = real(tokener, text, length);
    parse.add_since(begin);
    return result;
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's names are reserved ones
__attribute__((visibility("default"))) int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                          void* (*body)(void*), void* argument) {
    const auto real = next<decltype(&pthread_create)>("pthread_create");
    const int64_t begin_us = now_us();
    const int error = real(thread, attributes, body, argument);
    thread_us += now_us() - begin_us;
    return error;
}

__attribute__((visibility("default"))) void ev_invoke_pending(struct ev_loop* loop) {
    const auto real = next<decltype(&ev_invoke_pending)>("ev_invoke_pending");
    ran = nullptr;
    parse = handler = {};
    thread_us = 0;
    const int64_t begin_us = now_us();
    real(loop);
    const int64_t loop_us = now_us() - begin_us;
    if (ran != nullptr) {
        fprintf(
            stderr,
            "action_timer: %s parse %lld (%lld, %lld in the kernel, %ld page faults) handler %lld (%lld) thread %lld "
            "loop %lld\n",
            ran, static_cast<long long>(parse.wall_us), static_cast<long long>(parse.processor_us),
            static_cast<long long>(parse.kernel_us), parse.page_faults, static_cast<long long>(handler.wall_us),
            static_cast<long long>(handler.processor_us), static_cast<long long>(thread_us),
            static_cast<long long>(loop_us));
    }
}

}  // extern "C"
