#include "keeper.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "folder.h"
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
    const uint32_t asked = k->asked;
    sync = sync || asked != k->brought;
    if (sync) {
        k->last_sync_ms = now_ms();
    }
    if (!write_changes(&k->file, k->used, sync)) {
        const int failure = errno;
        if (!k->failing && !k->file.abandoned) {
            k->failing = true;
            log_err("kyt: the card does not take the list: %s", error_text(failure).text);
        }
    } else if (sync) {
        if (k->failing) {
            k->failing = false;
            log_info("kyt: the card takes the list again");
        }
        k->brought = asked;
    }
}

void release(keeper* k) {
    if (--k->owners == 0) {
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

// Synchronises when it is time.
void tick(keeper* k) {
    if (!k->ending && pause_ms(*k) == 0) {
        flush(k, true);
    }
}

// All periods that there are, and those of deleted clips: one that does not exist any more has none of them, also when
// the folder cannot be read to its end.
void list_periods(const keeper& k, array<uint32_t>* periods) {
    (void)folder_periods(k.folder, periods);
    for (const uint32_t ts : k.work.deleted) {
        if (periods->size == 0 || (*periods)[periods->size - 1] != period_of(ts)) {
            periods->push(period_of(ts));
        }
    }
    sort_unique(periods);
}

// Compares the folder with the list, on copies that the loop has made.
void compare(keeper* k) {
    comparison& work = k->work;
    array<uint32_t> periods;
    work.missing.size = 0;
    uint32_t gone = 0;
    const uint32_t* deleted = work.deleted.begin();
    list_periods(*k, &periods);
    for (const uint32_t period : periods) {
        tick(k);
        if (k->ending || periods.failed) {
            break;
        }
        array<uint32_t> clips;
        const bool is_read = folder_clips(k->folder, period, &clips) == 0;
        std::sort(clips.begin(), clips.end());
        const uint32_t* const first = deleted;
        while (deleted != work.deleted.end() && period_of(*deleted) == period) {
            ++deleted;
        }
        for (const uint32_t ts : clips) {
            if (period < work.horizon && !contains(work.listed, ts) && !std::binary_search(first, deleted, ts) &&
                work.missing.size < comparison::MAX_MISSING) {
                work.missing.push(ts);
            }
        }
        for (const uint32_t* ts = first; ts != deleted; ++ts) {
            if (is_read && !contains(clips, *ts)) {
                work.deleted[gone++] = *ts;
            }
        }
    }
    work.deleted.size = gone;
    work.listed.clear();
}

// Waits for the next second or for the loop, and writes what the loop has woken the thread for.
void wait(keeper* k) {
    pollfd wake = {k->wake, POLLIN, 0};
    if (poll(&wake, 1, pause_ms(*k)) > 0) {
        if (!k->ending && k->asked == k->brought) {
            poll(nullptr, 0, BURST_MS);
        }
        uint64_t count = 0;
        (void)!read(k->wake, &count, sizeof count);
        k->woken = false;
        if (!k->ending) {
            flush(k, false);
        }
    }
}

void* keeper_main(void* context) {
    auto* const k = static_cast<keeper*>(context);
    k->last_sync_ms = now_ms();
    for (; !k->ending; wait(k)) {
        tick(k);
        if (k->at == phase::WORK) {
            compare(k);
            k->at = phase::DONE;
        }
    }
    const uint32_t used = k->used;
    if (!k->file.abandoned && (!write_changes(&k->file, used, true) ||
                               header_seal(k->file.list.fd, file_state::CLOSED, used, k->live_at_end) < 0)) {
        log_err("kyt: the list is not closed in order: %s", error_text(errno).text);
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
    pthread_attr_init(&attributes);
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
    k->ending = true;
    k->woken = false;
    keeper_wake(k);
}

}  // namespace

keeper* keeper_start(int folder, const store& list) {
    const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    void* const memory = wake < 0 ? nullptr : std::malloc(sizeof(keeper));
    keeper* const k = memory ? new (memory) keeper : nullptr;
    int failure = errno;
    if (k) {
        k->folder = folder;
        k->file.list = list;
        k->used = list.used;
        k->wake = wake;
        failure = start_thread(k);
        if (failure == 0) {
            return k;
        }
    }
    std::free(memory);
    close(wake);
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
    k->file.abandoned = true;
    end_thread(k);
    pthread_detach(k->thread);
    release(k);
}

}  // namespace kyt
