// The daemon's threads, one running at a time and in an order that the seed decides. A worker can be held up before
// each lock that it takes and before each file that it removes.
#include <cerrno>
#include <dlfcn.h>
#include <pthread.h>
#include <ucontext.h>

#include "faults.h"
#include "world.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#else
static void __sanitizer_start_switch_fiber(void**, const void*, size_t) {}
static void __sanitizer_finish_switch_fiber(void*, const void**, size_t*) {}
#endif

namespace sim {
namespace {

constexpr size_t STACK_BYTES = size_t{256} * 1024;
constexpr int64_t SLICE_NS = 300'000;

struct worker {
    int number;
    void* (*body)(void*);
    void* argument;
    std::unique_ptr<char[]> stack;
    ucontext_t context;
    void* fake_stack = nullptr;
    bool is_done = false;
};

std::vector<std::unique_ptr<worker>> workers;
worker* running;
ucontext_t loop_context;
void* loop_fake_stack;
const void* loop_stack;
size_t loop_stack_bytes;
int numbers;
int lost;
std::map<pthread_mutex_t*, int> holders;  // -1: the loop's thread, else the worker's number

// The C library's own: the sanitizer's says each time that it knows nothing of fibers, which is not so once it is told
// of every switch.
int switch_context(ucontext_t* from, const ucontext_t* to) {
    static const auto real =
        reinterpret_cast<int (*)(ucontext_t*, const ucontext_t*)>(dlsym(dlopen("libc.so.6", RTLD_NOW), "swapcontext"));
    return real(from, to);
}

void leave(bool for_ever) {
    worker* w = running;
    __sanitizer_start_switch_fiber(for_ever ? nullptr : &w->fake_stack, loop_stack, loop_stack_bytes);
    switch_context(&w->context, &loop_context);
    __sanitizer_finish_switch_fiber(w->fake_stack, &loop_stack, &loop_stack_bytes);
}

void run_worker() {
    __sanitizer_finish_switch_fiber(nullptr, &loop_stack, &loop_stack_bytes);
    (void)running->body(running->argument);
    running->is_done = true;
    leave(true);
}

void resume(int number);

void resume_later(int number) {
    later(SLICE_NS + static_cast<int64_t>(chance().below(20)) * MS, [number] { resume(number); });
}

void resume(int number) {
    worker* w = nullptr;
    for (const auto& candidate : workers) {
        if (candidate->number == number) {
            w = candidate.get();
        }
    }
    if (w == nullptr) {
        return;
    }
    running = w;
    __sanitizer_start_switch_fiber(&loop_fake_stack, w->stack.get(), STACK_BYTES);
    switch_context(&loop_context, &w->context);
    __sanitizer_finish_switch_fiber(loop_fake_stack, nullptr, nullptr);
    running = nullptr;
    if (!w->is_done) {
        resume_later(number);
        return;
    }
    for (const auto& [lock, holder] : holders) {
        if (holder == number) {
            violation("a worker ends with a lock in its hands");
        }
    }
    for (size_t i = 0; i < workers.size(); ++i) {
        if (workers[i].get() == w) {
            workers.erase(workers.begin() + static_cast<std::ptrdiff_t>(i));
            break;
        }
    }
    note("thread: worker %d ends", number);
    changed();
}

int self() {
    return running != nullptr ? running->number : -1;
}

}  // namespace

int live_workers() {
    return static_cast<int>(workers.size());
}

bool in_worker() {
    return running != nullptr;
}

int lost_workers() {
    return lost;
}

void yield_worker() {
    if (running == nullptr) {
        return;
    }
    for (const auto& [lock, holder] : holders) {
        if (holder == running->number) {
            return;
        }
    }
    leave(false);
}

}  // namespace sim

using namespace sim;

extern "C" {

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t*, void* (*body)(void*), void* argument) {
    if (must_fail(call::THREAD)) {
        ++lost;
        return errno;
    }
    auto w = std::make_unique<worker>();
    w->number = ++numbers;
    w->body = body;
    w->argument = argument;
    w->stack = std::make_unique<char[]>(STACK_BYTES);
    getcontext(&w->context);
    w->context.uc_stack.ss_sp = w->stack.get();
    w->context.uc_stack.ss_size = STACK_BYTES;
    w->context.uc_link = nullptr;
    makecontext(&w->context, run_worker, 0);
    *thread = static_cast<pthread_t>(w->number);
    note("thread: worker %d starts", w->number);
    resume_later(w->number);
    workers.push_back(std::move(w));
    if (workers.size() > 5) {
        violation("%zu workers at once", workers.size());
    }
    return 0;
}

int __wrap_pthread_detach(pthread_t) {
    return 0;
}

int __wrap_pthread_mutex_init(pthread_mutex_t* lock, const pthread_mutexattr_t*) {
    holders.erase(lock);
    return 0;
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* lock) {
    if (holders.count(lock) != 0) {
        violation("a lock is destroyed that somebody holds");
    }
    return 0;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* lock) {
    yield_worker();
    while (holders.count(lock) != 0) {
        if (holders[lock] == self()) {
            violation("a lock is taken twice");
        }
        if (running == nullptr) {
            violation("the loop's thread waits for a lock");
        }
        leave(false);
    }
    holders[lock] = self();
    return 0;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* lock) {
    const auto held = holders.find(lock);
    if (held == holders.end() || held->second != self()) {
        violation("a lock is released that was not taken");
    }
    holders.erase(held);
    return 0;
}

}  // extern "C"
