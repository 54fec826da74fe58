#include "support/records_rig.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "main.h"
#include "sdcard.h"

std::atomic<pthread_t> bus_guard_thread;
sigjmp_buf bus_guard_jmp;

void on_sigbus(int signum, siginfo_t*, void*) {
    if (pthread_equal(bus_guard_thread, pthread_self()) != 0) {
        siglongjmp(bus_guard_jmp, signum);
    }
    abort();
}

namespace {

// Workers make their notes beside the loop thread.
void note(const std::string& text) {
    static std::mutex lock;
    const std::lock_guard guard(lock);
    rig::get().calls.push_back(text);
}

// Workers may ask for paths and for nothing else.
pthread_t loop_thread;
void expect_loop_thread() {
    EXPECT_NE(0, pthread_equal(loop_thread, pthread_self()));
}

}  // namespace

namespace rig {

int malloc_to_fail;

state& get() {
    static state the_state;
    return the_state;
}

void add(uint32_t ts, uint8_t flags) {
    get().list.records[ts] = {.ts = ts, .reserved = {}, .flags = flags, .reserved2 = 0};
}

void make_clip(uint32_t ts) {
    kernel::write(clip(ts) + ".jpeg", "image");
    kernel::write(clip(ts) + ".mp4", "video");
}

std::string clip(uint32_t ts) {
    return std::string(RECORD_DIR) + "/" + relative(ts);
}

std::string relative(uint32_t ts) {
    return std::to_string(2026112100 + (ts / 100)) + "/clip_" + std::to_string(ts);
}

strings live() {
    strings found;
    for (const auto& [ts, record] : get().list.records) {
        if (get().list.deleted.count(ts) == 0) {
            found.push_back(std::to_string(ts));
        }
    }
    return found;
}

int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
        count += fcntl(fd, F_GETFD) >= 0;
    }
    return count;
}

double remaining_s(ev_timer* timer) {
    ev_now_update(EV_DEFAULT);
    return ev_timer_remaining(EV_DEFAULT, timer);
}

void fault() {
    on_sigbus(SIGBUS, nullptr, nullptr);
}

void test::SetUp() {
    if (get().is_open) {
        record_dir_close(0);
    }
    kernel::reset();
    logged::reset();
    umask(022);
    kernel::make_dir("/mnt/sdcard");
    get() = state{};
    loop_thread = pthread_self();
    malloc_to_fail = 0;
    records_init();
}

void test::TearDown() {
    records_exit();
    logged::reset();
    signal(SIGBUS, SIG_DFL);
}

}  // namespace rig

// --- neighbours ------------------------------------------------------------------------------------------------------

void sdcard_refresh(const char* reason) {
    note(std::string("sdcard_refresh ") + reason);
    if (rig::get().on_refresh) {
        rig::get().on_refresh();
    }
}

int kv_register(const char* name_space, const char* group, const char* key, kv_callback callback, void* context) {
    rig::state& rig = rig::get();
    note(std::string("kv_register ") + name_space + " " + group + " " + key);
    struct sigaction action = {};
    sigaction(SIGBUS, nullptr, &action);
    rig.was_guard_installed = action.sa_sigaction == on_sigbus;
    if (rig.kv_errno != 0) {
        errno = rig.kv_errno;
        return -1;
    }
    rig.announce = callback;
    rig.announce_context = context;
    return 0;
}

// --- the record list library -----------------------------------------------------------------------------------------

kyt_handle* kyt_open_rdwr() {
    expect_loop_thread();
    rig::state& rig = rig::get();
    note("kyt_open_rdwr");
    if (rig.open_errno != 0) {
        errno = rig.open_errno;
        return nullptr;
    }
    EXPECT_FALSE(rig.is_open);
    rig.is_open = true;
    return &rig.list;
}

void kyt_close(kyt_handle* handle) {
    expect_loop_thread();
    rig::state& rig = rig::get();
    note("kyt_close");
    EXPECT_EQ(&rig.list, handle);
    EXPECT_TRUE(rig.is_open);
    rig.is_open = false;
}

void kyt_close_dirty(kyt_handle* handle) {
    expect_loop_thread();
    rig::state& rig = rig::get();
    note("kyt_close_dirty");
    EXPECT_EQ(&rig.list, handle);
    EXPECT_TRUE(rig.is_open);
    rig.is_open = false;
    if (rig.on_close) {
        rig.on_close();
    }
    errno = EIO;
}

int kyt_optimise(kyt_handle*) {
    expect_loop_thread();
    note("kyt_optimise");
    EXPECT_TRUE(rig::get().is_open);
    return -1;  // the daemon does not look
}

kyt_record* kyt_get(kyt_handle* handle, uint32_t ts) {
    expect_loop_thread();
    EXPECT_TRUE(rig::get().is_open);
    auto at = handle->records.find(ts);
    return at == handle->records.end() || handle->deleted.count(ts) != 0 ? nullptr : &at->second;
}

kyt_record* kyt_next(kyt_handle* handle, const kyt_record* prev) {
    expect_loop_thread();
    EXPECT_TRUE(rig::get().is_open);
    ++handle->steps;
    if (rig::get().on_next) {
        rig::get().on_next();
    }
    auto at = prev == nullptr ? handle->records.begin() : handle->records.upper_bound(prev->ts);
    while (at != handle->records.end() && handle->deleted.count(at->first) != 0) {
        ++at;
    }
    return at == handle->records.end() ? nullptr : &at->second;
}

int kyt_write(kyt_handle* handle, const kyt_record* record) {
    expect_loop_thread();
    note("kyt_write " + std::to_string(record->ts));
    if (rig::get().on_write) {
        rig::get().on_write(record);
    }
    handle->records[record->ts] = *record;
    handle->deleted.erase(record->ts);
    return -1;  // the daemon does not look
}

int kyt_mark_deleted(kyt_handle* handle, kyt_record* record) {
    expect_loop_thread();
    note("kyt_mark_deleted " + std::to_string(record->ts));
    handle->deleted.insert(record->ts);
    if (rig::get().marking_errno != 0) {
        errno = rig::get().marking_errno;
    }
    return -1;  // the daemon does not look
}

int kyt_ts2path(uint32_t ts, char* buffer, size_t size, int flag) {
    EXPECT_EQ(0, flag);
    note("kyt_ts2path " + std::to_string(size));
    if (rig::get().ts2path_errno != 0) {
        errno = rig::get().ts2path_errno;
        return -1;
    }
    return snprintf(buffer, size, "%s", rig::clip(ts).c_str());
}

uint32_t kyt_path2ts(const char* name, int flag) {
    EXPECT_EQ(0, flag);
    return strlen(name) == 10 && strspn(name, "0123456789") == 10 ? static_cast<uint32_t>(strtoul(name, nullptr, 10))
                                                                  : 0;
}

int kyt_record_parse(kyt_record* record, const char* text, size_t length) {
    const kyt_record zero = {};
    EXPECT_EQ(0, memcmp(&zero, record, sizeof zero));
    const std::string value(text, length);
    unsigned ts = 0;
    unsigned flags = 0;
    if (sscanf(value.c_str(), "%u,%u", &ts, &flags) < 1) {
        errno = EINVAL;
        return -1;
    }
    record->ts = ts;
    record->flags = static_cast<uint8_t>(flags);
    record->reserved[1] = 7;  // the library's own, to be copied along
    return 0;
}

// --- the C library and libev -----------------------------------------------------------------------------------------

extern "C" {

int __real_fcntl64(int, int, ...);
DIR* __real_fdopendir(int);
dirent* __real_readdir64(DIR*);
void* __real_malloc(size_t);
ssize_t __real_write(int, const void*, size_t);
void __real_ev_timer_start(struct ev_loop*, ev_timer*);
void __real_ev_timer_again(struct ev_loop*, ev_timer*);

int __wrap_fcntl64(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    const long argument = va_arg(args, long);
    va_end(args);
    if (command == F_DUPFD_CLOEXEC && kernel::must_fail("dup")) {
        return -1;
    }
    return __real_fcntl64(fd, command, argument);
}
int __wrap_fcntl(int fd, int command, ...) __attribute__((alias("__wrap_fcntl64")));

DIR* __wrap_fdopendir(int fd) {
    return kernel::must_fail("fdopendir") ? nullptr : __real_fdopendir(fd);
}

dirent* __wrap_readdir64(DIR* dir) {
    if (rig::get().on_readdir) {
        rig::get().on_readdir();
    }
    dirent* entry = __real_readdir64(dir);
    if (entry != nullptr && rig::get().unknown_type.count(entry->d_name) != 0) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}
dirent* __wrap_readdir(DIR* dir) __attribute__((alias("__wrap_readdir64")));

void* __wrap_malloc(size_t size) {
    if (rig::malloc_to_fail > 0 && --rig::malloc_to_fail == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}

ssize_t __wrap_write(int fd, const void* data, size_t size) {
    if (auto look = rig::get().on_write_call) {
        look();
    }
    if (rig::get().note_writes) {
        rig::get().writes.emplace_back(static_cast<const char*>(data), size);
    }
    return kernel::must_fail("write") ? -1 : __real_write(fd, data, size);
}

void __wrap_ev_timer_start(struct ev_loop* loop, ev_timer* timer) {
    ++rig::get().timer_starts;
    rig::get().rescan = timer;
    __real_ev_timer_start(loop, timer);
}

void __wrap_ev_timer_again(struct ev_loop* loop, ev_timer* timer) {
    ++rig::get().timer_starts;
    rig::get().optimise = timer;
    __real_ev_timer_again(loop, timer);
}
}
