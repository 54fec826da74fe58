// For the scenarios of the bus-fault guard, preloaded into the daemon: a clip index whose library maps a file of the
// card, as a device's own library may. Ours keeps the index in plain memory and meets no bus fault. Each call on a list
// looks at the mapped page first; what was asked for is then done by the real library.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "kyt.h"

namespace {

constexpr char MAPPED[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO/mapped";
constexpr size_t PAGE_BYTES = 4096;

volatile char* page;  // null: no list is open

template <typename F>
F* real(F*, const char* name) {
    return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

// What a scenario makes fail, by cutting the file short.
void look() {
    (void)*page;
}

void unmap() {
    munmap(const_cast<char*>(page), PAGE_BYTES);
    page = nullptr;
}

}  // namespace

#pragma GCC visibility push(default)

kyt_handle* kyt_open_rdwr() {
    kyt_handle* const handle = real(kyt_open_rdwr, "kyt_open_rdwr")();
    if (handle == nullptr) {
        return nullptr;
    }
    const int fd = open(MAPPED, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    void* const mapping = ftruncate(fd, PAGE_BYTES) == 0
                              ? mmap(nullptr, PAGE_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                              : MAP_FAILED;
    close(fd);
    if (mapping == MAP_FAILED) {
        kyt_close(handle);
        return nullptr;
    }
    page = static_cast<volatile char*>(mapping);
    return handle;
}

void kyt_close(kyt_handle* handle) {
    if (page != nullptr) {
        unmap();
    }
    real(kyt_close, "kyt_close")(handle);
}

void kyt_close_dirty(kyt_handle* handle) {
    if (page != nullptr) {
        unmap();
    }
    real(kyt_close_dirty, "kyt_close_dirty")(handle);
}

int kyt_optimise(kyt_handle* handle) {
    look();
    return real(kyt_optimise, "kyt_optimise")(handle);
}

kyt_record* kyt_get(kyt_handle* handle, uint32_t ts) {
    look();
    return real(kyt_get, "kyt_get")(handle, ts);
}

kyt_record* kyt_next(kyt_handle* handle, const kyt_record* prev) {
    look();
    return real(kyt_next, "kyt_next")(handle, prev);
}

int kyt_write(kyt_handle* handle, const kyt_record* record) {
    look();
    return real(kyt_write, "kyt_write")(handle, record);
}

int kyt_mark_deleted(kyt_handle* handle, kyt_record* record) {
    look();
    return real(kyt_mark_deleted, "kyt_mark_deleted")(handle, record);
}

#pragma GCC visibility pop
