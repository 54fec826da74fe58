#include "handle.h"

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

#include "keeper.h"

namespace kyt {
namespace {

constexpr size_t SLOTS_BYTES = MAX_BYTES;  // somewhat more than the slots take
constexpr size_t STORE_BYTES = SLOTS_BYTES + MAX_SECTORS * sizeof(uint64_t);
constexpr size_t ORDER_BYTES = order::ROOM * sizeof(uint32_t);

// Null: out of memory.
void* reserve(size_t bytes) {
    void* const made = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return made == MAP_FAILED ? nullptr : made;
}

void give_back(void* memory, size_t bytes) {
    if (memory) {
        munmap(memory, bytes);
    }
}

}  // namespace

void store_free(const store& s) {
    give_back(s.slots, STORE_BYTES);
}

kyt_handle* handle_make() {
    void* const memory = std::malloc(sizeof(kyt_handle));
    kyt_handle* const h = memory ? new (memory) kyt_handle : nullptr;
    if (h) {
        h->list.slots = h->live.slots = static_cast<kyt_record*>(reserve(STORE_BYTES));
        h->list.sums = reinterpret_cast<uint64_t*>(h->list.slots + SLOTS_BYTES / sizeof(kyt_record));
        h->live.entries = static_cast<uint32_t*>(reserve(ORDER_BYTES));
        if (h->list.slots && h->live.entries) {
            return h;
        }
        handle_free(h);
    }
    errno = ENOMEM;
    return nullptr;
}

void handle_free(kyt_handle* h) {
    if (h) {
        give_back(h->live.entries, ORDER_BYTES);
        if (!h->keeper) {
            store_free(h->list);
        }
        h->~kyt_handle();
        std::free(h);
    }
}

kyt_handle* open_folder(const char* path) {
    const int folder = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return nullptr;
    }
    kyt_handle* const h = handle_make();
    if (h && open_list(folder, h) == 0) {
        h->keeper = keeper_start(folder, h->list);
    }
    if (h && h->keeper) {
        return h;
    }
    const int failure = errno;
    if (h && h->list.fd >= 0) {
        close(h->list.fd);
    }
    handle_free(h);
    close(folder);
    errno = failure;
    return nullptr;
}

}  // namespace kyt
