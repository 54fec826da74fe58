#include "keeper.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include "vesk_util.h"

namespace kyt {
namespace {

constexpr uint32_t FLUSH_MS = 900;
constexpr uint32_t TICK_MS = 1000;
constexpr size_t STACK_BYTES = size_t{64} * 1024;

uint64_t now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// Starts and awaits the writing of dirty pages and nothing else: with none it costs no access to the card.
int write_pages(int fd) {
#ifdef SYNC_FILE_RANGE_WRITE
    if (sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER) ==
        0) {
        return 0;
    }
    if (errno == EIO || errno == ENOSPC || errno == EROFS) {
        return -1;
    }
#endif
    return fdatasync(fd);
}

// After a call that may have led to a change the file is synchronised, with the card's own cache, at this tick and at
// the next one: the change itself may follow the call by a moment. Otherwise only pages that were changed in place
// without any call are written.
void flush(keeper* k) {
    const uint32_t changes = k->changes.load(std::memory_order_acquire);
    if (changes != k->flushed_changes) {
        k->flushed_changes = changes;
        k->flush_due = 2;
    }
    const int fd = k->files[k->list].fd;
    k->last_flush_ms = now_ms();
    const int result = k->flush_due > 0 ? fdatasync(fd) : write_pages(fd);
    if (result == 0) {
        k->flush_due -= k->flush_due > 0 ? 1 : 0;
        if (k->failing) {
            k->failing = false;
            // No more than that: on a card that is gone the kernel reports the failure once and success ever after.
            log_info("kyt: no further error from the card");
        }
        return;
    }
    // The kernel takes the pages for clean after a failure and would not write them again.
    k->flush_due = 2;
    k->redirty.store(true, std::memory_order_release);
    if (!k->failing && !is_abandoned(*k)) {
        k->failing = true;
        log_err("kyt: the card does not take the list: %s", std::strerror(errno));
    }
}

void close_window(keeper* k) {
    if (k->window) {
        munmap(k->window, STEP_BYTES);
        k->window = nullptr;
    }
}

// FAT fills what a file grows by with zeros: 64 KiB that the loop must not wait for.
void grow(keeper* k) {
    kept_file& file = k->files[k->list];
    uint32_t capacity = file.capacity.load(std::memory_order_relaxed);
    if (k->window && k->mapped.load(std::memory_order_acquire) >= capacity) {
        close_window(k);
    }
    while (!is_abandoned(*k) && capacity < MAX_BYTES &&
           file.used.load(std::memory_order_acquire) + SPARE_RECORDS > slots_in(capacity)) {
        // Only ever longer: the file may have been made longer by the end of an earlier session.
        if (ftruncate(file.fd, capacity + STEP_BYTES) < 0) {
            if (!k->cannot_grow) {
                k->cannot_grow = true;
                log_warning("kyt: the list cannot grow: %s", std::strerror(errno));
            }
            return;
        }
        k->cannot_grow = false;
        // Read into memory and locked there, so that the loop finds the pages without waiting for the card.
        close_window(k);
        void* const window = mmap(nullptr, STEP_BYTES, PROT_READ, MAP_SHARED, file.fd, capacity);
        if (window != MAP_FAILED) {
            k->window = window;
            (void)mlock(window, STEP_BYTES);  // refused without the right to lock: region.cpp has told
        }
        capacity += STEP_BYTES;
        file.capacity.store(capacity, std::memory_order_release);
        k->flush_due = 2;  // the file's new length is to be on the card as well
    }
}

// The kernel takes refused pages for written. The loop makes them dirty again otherwise, by the mapping; at the end it
// waits for this thread, so nobody changes them meanwhile. False, with errno: a page could not be read or written.
bool dirty_again(int fd, uint32_t used) {
    uint8_t page[4096];
    const uint32_t end = RECORDS_AT + used * static_cast<uint32_t>(sizeof(kyt_record));
    for (uint32_t offset = RECORDS_AT; offset < end; offset += sizeof page) {
        const long got = read_at(fd, page, sizeof page, offset);
        if (got < 0 || write_at(fd, page, static_cast<size_t>(got), offset) < 0) {
            return false;
        }
    }
    return true;
}

void finish(keeper* k) {
    if (k->at.load(std::memory_order_acquire) == phase::COMMIT && !work_commit(k)) {
        // The old list stays open on the card, so that the next session compares it with the folder.
        log_err("kyt: the rewritten list is not on the card: changes since then may be lost");
        return;
    }
    if (k->at.load(std::memory_order_acquire) != phase::COMMIT) {
        work_discard(k);
    }
    kept_file& file = k->files[k->list];
    const tail& rest = k->rest;
    bool in_order = rest.in_order && rest.file == k->list;
    if (rest.bytes > 0 && rest.file == k->list &&
        (write_at(file.fd, rest.data, rest.bytes, rest.offset) < 0 || ftruncate(file.fd, file_bytes(file.used)) < 0)) {
        in_order = false;
        log_err("kyt: the card has no room for the newest records");
    }
    const uint32_t used = file.used.load(std::memory_order_acquire);
    const bool whole = !k->redirty.load(std::memory_order_acquire) || dirty_again(file.fd, used);
    if (!whole || fdatasync(file.fd) < 0 ||
        header_seal(file.fd, file.generation, file_state::CLOSED, used, in_order) < 0) {
        log_err("kyt: the list is not closed in order: %s", std::strerror(errno));
    }
}

void release(keeper* k) {
    if (k->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        close(k->wake);
        k->~keeper();
        std::free(k);
    }
}

// A flush begins a second after the last one began: on a slow card, where it takes long itself, a pause behind it would
// be too much for the 2 s from a change to the card.
int pause_ms(const keeper& k) {
    const uint64_t passed = now_ms() - k.last_flush_ms;
    return passed < TICK_MS ? static_cast<int>(TICK_MS - passed) : 0;
}

void* keeper_main(void* context) {
    auto* const k = static_cast<keeper*>(context);
    k->last_flush_ms = now_ms();
    if (k->inherited > 0) {
        inspect(k);
    }
    for (;;) {
        pollfd wake = {k->wake, POLLIN, 0};
        if (poll(&wake, 1, pause_ms(*k)) > 0) {
            uint64_t count = 0;
            (void)!read(k->wake, &count, sizeof count);
        }
        if (is_ending(*k)) {
            break;
        }
        keeper_tick(k);
        switch (k->at.load(std::memory_order_acquire)) {
            case phase::WORK:
                work_do(k);
                k->at.store(phase::DONE, std::memory_order_release);
                break;
            case phase::COMMIT:
                if (work_commit(k)) {
                    k->at.store(phase::IDLE, std::memory_order_release);
                }
                break;
            case phase::DISCARD:
                work_discard(k);
                k->at.store(phase::IDLE, std::memory_order_release);
                break;
            case phase::IDLE:
            case phase::DONE:
                break;
        }
    }
    if (!is_abandoned(*k)) {
        finish(k);
    }
    // Nothing may hold the card any more: it is to be unmounted.
    close_window(k);
    for (kept_file& file : k->files) {
        if (file.fd >= 0) {
            close(file.fd);
        }
    }
    close(k->folder);
    release(k);
    return nullptr;
}

int start_thread(keeper* k) {
    pthread_attr_t attributes;
    int failure = pthread_attr_init(&attributes);
    if (failure != 0) {
        return failure;
    }
    const long least = sysconf(_SC_THREAD_STACK_MIN);
    (void)pthread_attr_setstacksize(&attributes, std::max(STACK_BYTES, least > 0 ? static_cast<size_t>(least) : 0));
    // Signals are the loop's; it is a bus fault's thread that the daemon's guard looks at, too.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    failure = pthread_create(&k->thread, &attributes, keeper_main, k);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return failure;
}

}  // namespace

keeper* keeper_start(int folder, const ready_file& file, bool inherited) {
    void* const memory = std::malloc(sizeof(keeper));
    if (!memory) {
        return nullptr;
    }
    auto* const k = new (memory) keeper;
    k->folder = folder;
    k->list = file.name;
    k->files[file.name].fd = file.fd;
    k->files[file.name].generation = file.generation;
    k->files[file.name].capacity = file.bytes;
    k->files[file.name].used = file.records;
    k->mapped = file.bytes;
    k->inherited = inherited ? file.records : 0;
    k->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int failure = k->wake < 0 ? errno : start_thread(k);
    if (failure != 0) {
        if (k->wake >= 0) {
            close(k->wake);
        }
        k->~keeper();
        std::free(k);
        errno = failure;
        return nullptr;
    }
    return k;
}

void keeper_wake(keeper* k) {
    const uint64_t one = 1;
    (void)!write(k->wake, &one, sizeof one);  // a counter that is full wakes as well
}

void keeper_close(keeper* k, const tail& rest) {
    k->rest = rest;
    k->end.store(ending::CLOSE, std::memory_order_release);
    keeper_wake(k);
    pthread_join(k->thread, nullptr);
    release(k);
}

void keeper_abandon(keeper* k) {
    k->end.store(ending::ABANDON, std::memory_order_release);
    keeper_wake(k);
    pthread_detach(k->thread);
    release(k);
}

void keeper_tick(keeper* k) {
    grow(k);
    if (!is_ending(*k) && now_ms() - k->last_flush_ms >= FLUSH_MS) {
        flush(k);
    }
}

}  // namespace kyt
