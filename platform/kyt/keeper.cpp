#include "keeper.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "phrases.h"
#include "vesk_util.h"

namespace kyt {
namespace {

constexpr uint32_t TICK_MS = 1000;
constexpr uint32_t BURST_MS = 5;  // what comes within this time is written at one go
constexpr size_t STACK_BYTES = size_t{64} * 1024;

uint64_t now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

void flush(keeper* k, bool sync) {
    const uint32_t asked = k->asked.load();
    sync = sync || asked != k->brought.load();
    if (sync) {
        k->last_sync_ms = now_ms();
    }
    if (!write_changes(&k->file, k->used.load(), sync)) {
        const int failure = errno;
        if (!k->failing && !k->file.abandoned.load()) {
            k->failing = true;
            log_err("kyt: the card does not take the list: %s", error_text(failure).text);
        }
    } else if (sync) {
        if (k->failing) {
            k->failing = false;
            log_info("kyt: the card takes the list again");
        }
        k->brought.store(asked);
    }
}

void finish(keeper* k) {
    const uint32_t used = k->used.load();
    if (!write_changes(&k->file, used, true) ||
        header_seal(k->file.list.fd, file_state::CLOSED, used, k->live_at_end) < 0) {
        log_err("kyt: the list is not closed in order: %s", error_text(errno).text);
    }
}

void release(keeper* k) {
    if (k->owners.fetch_sub(1) == 1) {
        close(k->wake);
        store_free(k->file.list);
        k->~keeper();
        std::free(k);
    }
}

// A flush begins a second after the last one began: on a slow card, where it takes long itself, a pause after it would
// be too much for the 2 s from a change to the card.
int pause_ms(const keeper& k) {
    const uint64_t passed = now_ms() - k.last_sync_ms;
    return passed < TICK_MS ? static_cast<int>(TICK_MS - passed) : 0;
}

// Whether the loop has woken the thread before the pause was over.
bool wait_for_wake(keeper* k) {
    pollfd wake = {k->wake, POLLIN, 0};
    if (poll(&wake, 1, pause_ms(*k)) <= 0) {
        return false;
    }
    if (!k->ending.load() && k->asked.load() == k->brought.load()) {
        poll(nullptr, 0, BURST_MS);
    }
    uint64_t count = 0;
    (void)!read(k->wake, &count, sizeof count);
    k->woken.store(false);
    return true;
}

void* keeper_main(void* context) {
    auto* const k = static_cast<keeper*>(context);
    k->last_sync_ms = now_ms();
    for (;;) {
        const bool woken = wait_for_wake(k);
        if (k->ending.load()) {
            break;
        }
        if (woken) {
            flush(k, false);
        }
        keeper_tick(k);
        if (k->at.load() == phase::WORK) {
            compare(k);
            k->at.store(phase::DONE);
        }
    }
    if (!k->file.abandoned.load()) {
        finish(k);
    }
    // Nothing may hold the card any more: it is to be unmounted.
    close(k->file.list.fd);
    close(k->folder);
    release(k);
    return nullptr;
}

// 0, or the errno.
int start_thread(keeper* k) {
    pthread_attr_t attributes;
    const int failure = pthread_attr_init(&attributes);
    if (failure != 0) {
        return failure;
    }
    const long least = sysconf(_SC_THREAD_STACK_MIN);
    (void)pthread_attr_setstacksize(&attributes, std::max(STACK_BYTES, least > 0 ? static_cast<size_t>(least) : 0));
    // Signals are the loop's. Those of a fault are the faulting thread's: blocked, they would end the process without
    // the handler that the daemon has for them.
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    for (const int fault : {SIGBUS, SIGSEGV, SIGFPE, SIGILL}) {
        sigdelset(&blocked, fault);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    const int result = pthread_create(&k->thread, &attributes, keeper_main, k);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return result;
}

void end_thread(keeper* k) {
    k->ending.store(true);
    k->woken.store(false);
    keeper_wake(k);
}

}  // namespace

keeper* keeper_start(int folder, const store& list) {
    void* const memory = std::malloc(sizeof(keeper));
    if (!memory) {
        return nullptr;
    }
    auto* const k = new (memory) keeper;
    k->folder = folder;
    k->file.list = list;
    k->used = list.used;
    k->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const int failure = k->wake < 0 ? errno : start_thread(k);
    if (failure == 0) {
        return k;
    }
    if (k->wake >= 0) {
        close(k->wake);
    }
    k->~keeper();
    std::free(k);
    errno = failure;
    return nullptr;
}

void keeper_wake(keeper* k) {
    if (!k->woken.exchange(true)) {
        const uint64_t one = 1;
        (void)!write(k->wake, &one, sizeof one);
    }
}

void keeper_close(keeper* k, uint32_t live) {
    k->live_at_end = live;
    end_thread(k);
    pthread_join(k->thread, nullptr);
    release(k);
}

void keeper_abandon(keeper* k) {
    k->file.abandoned.store(true);
    end_thread(k);
    pthread_detach(k->thread);
    release(k);
}

void keeper_tick(keeper* k) {
    if (!k->ending.load() && pause_ms(*k) == 0) {
        flush(k, true);
    }
}

}  // namespace kyt
