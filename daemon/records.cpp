// The recordings. The clip index belongs to the record list library; this module keeps beside it a table of the period
// directories with their sizes, so that the space the clips take can be told without reading every directory again.
//
// A scan of the folder costs one stat for each period and one more for each file of a period that has changed; an entry
// takes some 70 bytes. Deleting the oldest clip costs the walk over the protected clips in front of it, nothing for
// those behind it, so that the price of a clip does not grow with their number.
//
// After a bus fault the list is closed, but the folder's descriptor, the table and the timers stay as they are: the
// recovery does no more than it must while the card is vanishing. record_dir_open and record_dir_close tidy them up.
#include "records.h"

#include <atomic>
#include <dirent.h>
#include <errno.h>
#include <ev.h>
#include <fcntl.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <uthash.h>
#include <utlist.h>

#include "kv.h"
#include "kyt.h"
#include "main.h"
#include "sdcard.h"
#include "vesk_util.h"

namespace {

constexpr mode_t RECORD_DIR_MODE = 0755;
constexpr double RESCAN_PERIOD_S = 43200.0;
constexpr double OPTIMISE_PERIOD_S = 1800.0;

constexpr size_t CLIP_PATH_SIZE = 4096;
constexpr size_t CLIP_BASE_SIZE = 4092;         // what of it the path without extension may take
constexpr size_t RELATIVE = sizeof RECORD_DIR;  // where a clip's path below the folder begins, behind the slash
static_assert(RELATIVE == 31);

constexpr int MAX_WORKERS = 5;

constexpr char MOTION_DIR[] = "/mnt/sdcard/ZOLTA_RECORD_MOTION";
constexpr char MOTION_MESSAGE[] = "/motion_record_msg";

constexpr char OP_LOG[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO/op.log";
constexpr char OP_LOG_OLD[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO/op.log.0";
constexpr off_t OP_LOG_ROTATE_BYTES = 2097153;

// A period's directory.
struct record_dir_entry {
    uint32_t ts;    // of the period, from the directory's name; the key
    int32_t mtime;  // of the directory, when it was last looked at
    uint32_t size;  // bytes of the files directly inside; wraps at 32 bits
    uint32_t seen;  // 1 when the current scan found the directory, else 0
    UT_hash_handle hh;
};

int32_t record_dir_fd = -1;          // -1 when closed
kyt_handle* record_list_handle;      // null: the list is unusable
record_dir_entry* record_dir_table;  // in order of insertion; null when empty
ev_timer rescan_timer;               // every 12 h while the folder is open
ev_timer optimise_timer;             // every 30 min while the folder is open
bool list_faulted;                   // a bus fault was met in the list and it is not closed yet

// The deletion list: batches that wait for a worker, oldest first. Its links change only with ctx_del_list_lock held;
// the head is also read without it. The two locks are never held together.
std::atomic<del_list_entry*> del_list;
pthread_mutex_t ctx_del_list_lock;
pthread_mutex_t del_list_lock;  // of the count; held across the creation of a thread
int32_t del_list_thread_num;    // workers started and not yet finished
ev_async del_async;             // nobody signals it

// --- the table of period directories ---------------------------------------------------------------------------------

record_dir_entry* find_entry(uint32_t ts) {
    record_dir_entry* entry;
    HASH_FIND(hh, record_dir_table, &ts, sizeof ts, entry);
    return entry;
}

// The last entry takes the table with it.
void free_entry(record_dir_entry* entry) {
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): it does not see that a deleted entry has left the chain
    HASH_DEL(record_dir_table, entry);
    free(entry);
}

void clear_table() {
    record_dir_entry* entry;
    record_dir_entry* next;
    HASH_ITER(hh, record_dir_table, entry, next) {
        free_entry(entry);
    }
}

int record_dir_sum_files(const char* name, uint32_t* size) {
    int fd = openat(record_dir_fd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        close(fd);
        return -1;
    }
    uint32_t sum = 0;
    while (const dirent* file = readdir(dir)) {
        struct stat status;
        if (file->d_type == DT_REG && fstatat(fd, file->d_name, &status, 0) == 0) {
            sum += static_cast<uint32_t>(status.st_size);
        }
    }
    closedir(dir);
    *size = sum;
    return 0;
}

int record_dir_scan_one(const char* name) {
    uint32_t ts = kyt_path2ts(name, 0);
    if (ts == 0) {
        return -1;
    }
    record_dir_entry* entry = find_entry(ts);
    struct stat status;
    if (fstatat(record_dir_fd, name, &status, 0) < 0) {
        if (entry != nullptr) {
            free_entry(entry);
        }
        return -1;
    }
    auto mtime = static_cast<int32_t>(status.st_mtime);
    if (entry != nullptr) {
        // An unchanged directory is not read again: files inside it that grow in place go unnoticed.
        if (entry->mtime != mtime && record_dir_sum_files(name, &entry->size) < 0) {
            entry->size = 0;
        }
    } else {
        uint32_t size;
        if (record_dir_sum_files(name, &size) < 0) {
            return -1;
        }
        entry = static_cast<record_dir_entry*>(malloc(sizeof *entry));
        if (entry == nullptr) {
            return -1;
        }
        entry->ts = ts;
        entry->size = size;
        HASH_ADD(hh, record_dir_table, ts, sizeof entry->ts, entry);  // ends the process when memory runs out
    }
    entry->mtime = mtime;
    entry->seen = 1;
    return 0;
}

int record_dir_scan() {
    if (record_dir_fd < 0) {
        return -1;
    }
    record_dir_entry* entry;
    record_dir_entry* next;
    HASH_ITER(hh, record_dir_table, entry, next) {
        entry->seen = 0;
    }
    // The stream takes its descriptor with it when it is closed, so it gets one of its own; the position is shared.
    int fd = fcntl(record_dir_fd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    (void)lseek(fd, 0, SEEK_SET);  // cannot fail on a directory that is open
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        close(fd);
        return -1;
    }
    while (const dirent* child = readdir(dir)) {
        if (child->d_type == DT_DIR) {
            (void)record_dir_scan_one(child->d_name);  // one directory's failure is not the scan's
        }
    }
    closedir(dir);
    HASH_ITER(hh, record_dir_table, entry, next) {
        if (entry->seen == 0) {
            free_entry(entry);
        }
    }
    return 0;
}

// Everything but the list.
void release_folder() {
    ev_timer_stop(EV_DEFAULT, &rescan_timer);
    ev_timer_stop(EV_DEFAULT, &optimise_timer);
    clear_table();
    if (record_dir_fd >= 0) {
        close(record_dir_fd);
        record_dir_fd = -1;
    }
}

// --- callbacks -------------------------------------------------------------------------------------------------------

void on_timer_rescan(struct ev_loop*, ev_timer*, int) {
    (void)record_dir_scan();  // a failure leaves the table as it was; the next scan is in 12 hours
}

void on_timer_optimise(struct ev_loop*, ev_timer*, int) {
    if (record_list_handle != nullptr) {
        (void)kyt_optimise(record_list_handle);  // the list stays usable either way
    }
}

// The recorder has announced a clip.
void on_new_record(void*, const char* value, size_t length) {
    if (value == nullptr) {
        return;
    }
    kyt_record record = {};
    if (kyt_record_parse(&record, value, length) < 0) {
        log_debug("kyt_record_parse fail on %.*s", static_cast<int>(length), value);
        return;
    }
    if (record_list_handle == nullptr) {
        log_warning("The kyt is currently unusable, %u lost!", record.ts);
        return;
    }
    if (kyt_record* stored = kyt_get(record_list_handle, record.ts)) {
        log_warning("Overwrite %u", record.ts);
        log_record("%u: overwrite\n", record.ts);
        // The whole record, flags included: a mark is lost unless the announcement carries it, and that is intended.
        *stored = record;
    } else {
        (void)kyt_write(record_list_handle, &record);  // a clip that found no room is found again by maintenance
        log_record("%u: saved\n", record.ts);
        log_debug("New record saved (ts = %u)", record.ts);
    }
    sdcard_refresh("New Record");
}

// --- deletion --------------------------------------------------------------------------------------------------------

// strerror for any thread: the C library's own may keep the text in one buffer for all. strerror_r comes in two kinds,
// one that fills the buffer and one that returns the text.
[[maybe_unused]] const char* error_text(int, const char* buffer) {
    return buffer;
}
[[maybe_unused]] const char* error_text(const char* text, const char*) {
    return text;
}
struct error_string {
    explicit error_string(int errnum) : text(error_text(strerror_r(errnum, buffer, sizeof buffer), buffer)) {}
    char buffer[128] = "";
    const char* text;
};

// The part of a path below the recordings folder; "" of a path that ends above it.
const char* relative_path(const char* path) {
    return strnlen(path, RELATIVE) == RELATIVE ? path + RELATIVE : "";
}

// Removes what the motion detector kept of a period whose clips are all gone. component: the period's directory with a
// "/" before it. 0: it is gone. Positive: the errno of its message file's unlink. -1: the directory stays.
int motion_event_record_delete(const char* component) {
    char path[64];  // a component too long to be a period's is cut
    int result;
    // The second attempt looks for a message file that the first one has removed, so it ends with ENOENT unless the
    // detector has written a new one in between: that one is not to stay behind in a directory without a clip.
    for (int attempts = 0;; attempts = 1) {
        snprintf(path, sizeof path, "%s%s%s", MOTION_DIR, component, MOTION_MESSAGE);
        if (unlink(path) < 0) {
            result = errno;
            log_warning("%s: can not unlink %s: %s", __func__, path, error_string(result).text);
            break;
        }
        snprintf(path, sizeof path, "%s%s", MOTION_DIR, component);
        result = rmdir(path);
        if (result == 0 || errno == ENOTEMPTY || attempts == 1) {
            break;
        }
    }
    if (result < 0) {
        log_err("[%s-%d] empty dir fail\n", __func__, 168);
    }
    return result;
}

// Unlinks one file of a clip. 0, or -1 with unlink's errno, which the logs in between have disturbed.
int unlink_clip_file(const char* path) {
    const char* relative = relative_path(path);
    if (unlink(path) < 0) {
        const int errnum = errno;
        const error_string error(errnum);
        log_warning("%s: can not unlink %s: %s", "record_delete", relative, error.text);
        log_record("%s: %s\n", relative, error.text);
        errno = errnum;
        return -1;
    }
    log_info("%s: unlink %s", "record_delete", relative);
    log_record("%s: deleted\n", relative);
    return 0;
}

// Deletes the oldest clip that carries no mark: the guarded region. 0, or -1 with errno.
//
// A bus fault jumps out of any of the kyt_ calls or of the look at a record's flags. So nothing here may own anything
// at those places; what record_delete owns, it has released when it returns.
int delete_oldest_unmarked() {
    int result = -1;
    kyt_record* cursor = nullptr;
    while ((cursor = kyt_next(record_list_handle, cursor)) != nullptr) {
        if (cursor->flags != 0) {
            continue;  // any flag spares the clip, not the persistent mark alone
        }
        char path[CLIP_PATH_SIZE];
        const int length = kyt_ts2path(cursor->ts, path, CLIP_BASE_SIZE, 0);
        if (length < 0) {
            break;
        }
        result = record_delete(path, sizeof path, length);
        // A clip that is gone or cannot exist leaves a stale record behind, which goes on the way to the next clip.
        const bool is_stale =
            result != 0 && (errno == ENOENT || errno == ENOTDIR || errno == EISDIR || errno == ENAMETOOLONG);
        if (result == 0 || is_stale) {
            const int errnum = errno;
            (void)kyt_mark_deleted(record_list_handle, cursor);
            errno = errnum;
        }
        if (!is_stale) {
            break;
        }
    }
    return result;
}

// The bus fault's aftermath: the card was pulled under the list.
//
// The state is refreshed before the list is closed. While nobody has told the daemon yet that the card is gone, that
// refresh may find it full as before and ask for the oldest clip again. SIGBUS stays blocked after the jump, because
// the guard saves no signal mask, and a fault while it is blocked is the end of the process. Therefore the inner call
// keeps its hands off the list: it fails like the outer one, the refresh settles for "full", and there is no second
// recovery inside the first.
void recover_from_bus_fault() {
    log_err("%s: Received SIGBUS", "records_delete_oldest");
    list_faulted = true;
    sdcard_refresh("records_delete_oldest");
    list_faulted = false;
    if (record_list_handle != nullptr) {
        kyt_close_dirty(record_list_handle);
        record_list_handle = nullptr;
    }
    errno = EFAULT;
}

// --- the deletion list -----------------------------------------------------------------------------------------------
//
// Removing files from a card is slow. So the loop thread drops the clips from the index and queues them, and up to five
// detached threads remove the files; a thread ends when it finds nothing to do. Workers outlive whatever they have to:
// a card that is gone makes their unlinks fail, and the end of the process ends them wherever they are.

// A list whose links are broken: to go on would mean to free what is not ours. The text and the place that it names are
// what those who read the camera's logs look for, whatever line this is on today.
[[noreturn]] void list_is_corrupt(int line, const char* function) {
    fprintf(stderr, "vesk_sdcard: daemon/records:%d: %s: Assertion `(l)->prev != ((void *)0)' failed.\n", line,
            function);
    abort();
}

enum { IN_LIST, NOT_IN_LIST, CORRUPT };

// Takes a batch out of the list, if it is still in there; ctx_del_list_lock is held. The batch itself is touched only
// after it was found: it may be freed already. Should a new batch have come to its place in memory, that one is taken,
// which is as good.
int unlink_batch(del_list_entry* batch) {
    del_list_entry* head = del_list.load(std::memory_order_relaxed);
    del_list_entry* entry = head;
    while (entry != nullptr && entry != batch) {
        entry = entry->next;
    }
    if (entry == nullptr) {
        return NOT_IN_LIST;
    }
    if (entry->prev == nullptr) {
        return CORRUPT;
    }
    DL_DELETE(head, entry);
    del_list.store(head, std::memory_order_relaxed);
    return IN_LIST;
}

// Removes the files of a batch and frees it. The number of timestamps in it that are not 0.
int remove_files(del_list_entry* batch, char (&path)[CLIP_PATH_SIZE]) {
    int processed = 0;
    for (uint32_t i = 0; i < batch->count; ++i) {
        if (batch->ts[i] == 0) {
            continue;
        }
        ++processed;
        // A clip without a path, or without files, is as good as deleted; record_delete says what it could not do.
        (void)record_delete(path, sizeof path, kyt_ts2path(batch->ts[i], path, sizeof path, 0));
    }
    free(batch);
    return processed;
}

// False: the list is empty by now, and the worker no longer counts. A batch is queued before its workers are counted,
// so that whoever queues one while five are counted finds one of them here, about to look again.
bool worker_goes_on(int processed) {
    pthread_mutex_lock(&del_list_lock);
    const bool goes_on = del_list.load(std::memory_order_relaxed) != nullptr;
    if (!goes_on) {
        log_err("del_list file_count = %d=========================\n", processed);
        --del_list_thread_num;
    }
    pthread_mutex_unlock(&del_list_lock);
    return goes_on;
}

// A worker's body. It calls nothing of the record list library but kyt_ts2path, which may run beside everything else.
// A bus fault in here is outside of the guard and ends the process.
void* thread_Del_list_File(void*) {
    // The loop thread's mask is inherited, and after a recovery SIGBUS is blocked in there: a fault in here would end
    // the process without the dump.
    sigset_t bus_fault;
    sigemptyset(&bus_fault);
    sigaddset(&bus_fault, SIGBUS);
    (void)pthread_sigmask(SIG_UNBLOCK, &bus_fault, nullptr);
    char path[CLIP_PATH_SIZE] = "";
    int processed = 0;
    do {
        // The head is read without the lock, and two workers may read the same one. Whoever comes second finds that it
        // is not there any more and reads the next.
        while (del_list_entry* const batch = del_list.load(std::memory_order_relaxed)) {
            pthread_mutex_lock(&ctx_del_list_lock);
            const int found = unlink_batch(batch);
            pthread_mutex_unlock(&ctx_del_list_lock);
            if (found == CORRUPT) {
                list_is_corrupt(501, "thread_Del_list_File");
            }
            if (found == IN_LIST) {
                processed += remove_files(batch, path);
            }
        }
    } while (worker_goes_on(processed));
    return nullptr;
}

// A thread that cannot be created leaves its place in the count taken: the caller counted it, and each failure lowers
// the number of workers until the next start. Accepted: without memory for a thread there are worse things to do.
void create_del_list_file_thread() {
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, thread_Del_list_File, nullptr);
    if (error != 0) {
        log_err("pthread_create ret=%d\n", error);
        return;
    }
    pthread_detach(thread);
}

// The same on the loop thread, without a lock. Registered for whoever has a reason to drain the list from there; while
// nobody signals the watcher it does not run.
void on_async_del(struct ev_loop*, ev_async*, int) {
    char path[CLIP_PATH_SIZE] = "";
    while (del_list_entry* const batch = del_list.load(std::memory_order_relaxed)) {
        if (unlink_batch(batch) == CORRUPT) {
            list_is_corrupt(585, "on_async_del");
        }
        (void)remove_files(batch, path);
    }
}

// --- the operation log -----------------------------------------------------------------------------------------------

// The operation log never makes anything fail: a line that cannot be written is lost.
void write_or_lose(int fd, const char* text, int length) {
    if (length > 0) {
        [[maybe_unused]] ssize_t written = write(fd, text, static_cast<size_t>(length));
    }
}

}  // namespace

int records_init() {
    // Without SA_SIGINFO, although the handler looks at the information when it dumps. Kept exactly so: where the
    // architecture passes none, the dump says so.
    struct sigaction action = {};
    action.sa_sigaction = on_sigbus;
    sigemptyset(&action.sa_mask);
    sigaction(SIGBUS, &action, nullptr);

    ev_async_init(&del_async, on_async_del);
    ev_async_start(EV_DEFAULT, &del_async);
    ev_timer_init(&optimise_timer, on_timer_optimise, -1.0, -1.0);
    if (kv_register("mem", "default", "sdcard_kyt", on_new_record, nullptr) < 0) {
        log_crit("kv_register: %s", strerror(errno));
    }
    pthread_mutex_init(&del_list_lock, nullptr);
    pthread_mutex_init(&ctx_del_list_lock, nullptr);
    return 0;
}

void records_exit() {
    record_dir_close(0);
    // Workers are not waited for: a card may take minutes. Nor is a lock taken from under one that is still at work,
    // which would be undefined; then the locks stay until the process is gone, and that is next.
    pthread_mutex_lock(&del_list_lock);
    const bool has_workers = del_list_thread_num > 0;
    pthread_mutex_unlock(&del_list_lock);
    if (!has_workers) {
        pthread_mutex_destroy(&del_list_lock);
        pthread_mutex_destroy(&ctx_del_list_lock);
    }
}

void record_dir_open() {
    if (record_list_handle != nullptr) {
        return;
    }
    // What a bus fault has left: the old descriptor would hold the vanished card's mount for ever, a timer must not be
    // initialised while it runs, and the table speaks of another card.
    release_folder();

    int fd;
    while ((fd = open(RECORD_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) < 0) {
        if (errno != ENOENT) {
            log_err("Fail to open the record folder:%s", strerror(errno));
            return;
        }
        if (mkdir(RECORD_DIR, RECORD_DIR_MODE) < 0) {
            log_err("The record folder is not exists and it can not be created! %s", strerror(errno));
            return;
        }
    }
    log_info("Open record msg...");
    kyt_handle* handle = kyt_open_rdwr();
    if (handle == nullptr) {
        log_err("Fail to open record list file: %s", strerror(errno));
        close(fd);
        return;
    }
    (void)kyt_optimise(handle);  // the list stays usable either way
    log_info("The record msg load successfully\n");

    record_dir_fd = fd;
    if (record_dir_scan() < 0) {
        log_err("Fail to scan record dir.");
        record_dir_fd = -1;
        kyt_close(handle);
        close(fd);
        return;
    }
    ev_timer_init(&rescan_timer, on_timer_rescan, RESCAN_PERIOD_S, RESCAN_PERIOD_S);
    ev_timer_start(EV_DEFAULT, &rescan_timer);
    optimise_timer.repeat = OPTIMISE_PERIOD_S;
    ev_timer_again(EV_DEFAULT, &optimise_timer);
    record_list_handle = handle;  // the sign for everybody that all of it is open
}

void record_dir_close(int dirty) {
    if (record_list_handle != nullptr) {
        if (dirty != 0) {
            kyt_close_dirty(record_list_handle);
        } else {
            kyt_close(record_list_handle);
        }
        record_list_handle = nullptr;
    }
    release_folder();
}

uint64_t record_dir_size() {
    (void)record_dir_scan();  // after a failure the old table counts
    uint64_t size = 0;
    for (const record_dir_entry* entry = record_dir_table; entry != nullptr;
         entry = static_cast<const record_dir_entry*>(entry->hh.next)) {
        size += entry->size;  // NOLINT(clang-analyzer-unix.Malloc): as in free_entry
    }
    return size;
}

void record_dir_dump() {
    for (const record_dir_entry* entry = record_dir_table; entry != nullptr;
         entry = static_cast<const record_dir_entry*>(entry->hh.next)) {
        char path[1024] = "";
        (void)kyt_ts2path(entry->ts, path, sizeof path, 0);  // leaves the path empty when it fails
        const time_t mtime = entry->mtime;
        log_debug("%s: %u@%s", path, entry->size, ctime(&mtime));
    }
}

int records_delete_oldest() {
    // volatile: it lives through the jump. What the walk itself keeps, the recovery has no use for.
    volatile int result = -1;
    if (list_faulted) {
        errno = EFAULT;
        return -1;  // called from inside the recovery, see there
    }
    if (record_list_handle != nullptr) {
        bus_guard_thread = pthread_self();
        if (sigsetjmp(bus_guard_jmp, 0) == 0) {
            result = delete_oldest_unmarked();
        } else {
            recover_from_bus_fault();
        }
    }
    bus_guard_thread = 0;
    return result;
}

del_list_entry* records_del_begin(uint32_t count) {
    if (count > (SIZE_MAX - sizeof(del_list_entry)) / sizeof(uint32_t)) {
        return nullptr;
    }
    auto* const batch = static_cast<del_list_entry*>(malloc(sizeof(del_list_entry) + count * sizeof(uint32_t)));
    if (batch != nullptr) {
        batch->count = count;
    }
    return batch;
}

int records_del_commit(del_list_entry* batch) {
    if (record_list_handle == nullptr) {
        return -1;
    }
    // An explicit request spares no clip, protected or not.
    for (uint32_t i = 0; i < batch->count; ++i) {
        kyt_record* const record = kyt_get(record_list_handle, batch->ts[i]);
        if (record != nullptr) {
            (void)kyt_mark_deleted(record_list_handle, record);
        } else {
            batch->ts[i] = 0;
        }
    }
    pthread_mutex_lock(&ctx_del_list_lock);
    del_list_entry* head = del_list.load(std::memory_order_relaxed);
    DL_APPEND(head, batch);
    del_list.store(head, std::memory_order_relaxed);
    pthread_mutex_unlock(&ctx_del_list_lock);

    pthread_mutex_lock(&del_list_lock);
    if (del_list_thread_num < 0) {
        del_list_thread_num = 0;
    }
    if (del_list_thread_num < MAX_WORKERS) {
        ++del_list_thread_num;
        log_err("del_list_thread_num = %d\n", static_cast<int>(del_list_thread_num));
        create_del_list_file_thread();
    } else {
        log_err(" 5 del_list thread alerady running\n");  // spelt so by everybody who looks for it
    }
    pthread_mutex_unlock(&del_list_lock);
    return 0;
}

int records_mark_persistent(uint32_t ts) {
    if (record_list_handle == nullptr) {
        errno = EINVAL;
        return -1;
    }
    kyt_record* const record = kyt_get(record_list_handle, ts);
    if (record == nullptr) {
        errno = ENOENT;
        return -1;
    }
    record->flags |= KYT_PERSISTENT;  // the library takes it to the card
    return 0;
}

int record_delete(char* path, size_t size, int base_length) {
    // A path that could not be formed comes with a negative length, and there is nothing before the buffer to write to.
    if (base_length < 0 || static_cast<size_t>(base_length) >= size) {
        errno = EINVAL;
        return -1;
    }
    char* extension = path + base_length;
    const size_t extension_size = size - static_cast<size_t>(base_length);

    snprintf(extension, extension_size, "%s", ".jpeg");
    (void)unlink_clip_file(path);  // a clip is its video: a missing image changes nothing
    snprintf(extension, extension_size, "%s", ".mp4");
    if (unlink_clip_file(path) < 0) {
        return -1;
    }

    char* slash = strrchr(path, '/');
    if (slash == nullptr) {
        return 0;
    }
    *slash = '\0';
    if (rmdir(path) == 0) {
        if (const char* component = strrchr(path, '/')) {
            (void)motion_event_record_delete(component);  // it has said what went wrong
        }
    } else if (errno != ENOTEMPTY) {
        const error_string error(errno);
        const char* relative = relative_path(path);
        log_warning("%s: can note remove %s: %s\n", "record_delete", relative, error.text);  // letter for letter
        log_record("%s: %s\n", relative, error.text);
    }
    return 0;
}

void log_record(const char* format, ...) {
    int fd = open(OP_LOG, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return;
    }
    struct stat status = {};
    (void)fstat(fd, &status);  // without a size the line goes where it would have gone
    if (status.st_size >= OP_LOG_ROTATE_BYTES) {
        close(fd);
        (void)rename(OP_LOG, OP_LOG_OLD);  // where that fails, the truncation keeps the log within its bounds
        // Without close-on-exec: a child that starts at this very moment keeps the log open. It has always been so.
        fd = open(OP_LOG, O_WRONLY | O_APPEND | O_CREAT | O_TRUNC, 0600);
        if (fd < 0) {
            return;
        }
    }
    // Two writes and no lock: lines of two threads may interleave, which is accepted.
    char text[CLIP_PATH_SIZE + sizeof(error_string)];  // holds every line that this daemon writes
    write_or_lose(fd, text,
                  snprintf(text, sizeof text, "%d-%lld: ", static_cast<int>(getpid()),
                           static_cast<long long>(static_cast<int32_t>(time(nullptr)))));
    va_list args;
    va_start(args, format);
    int length = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length >= static_cast<int>(sizeof text)) {
        length = sizeof text - 1;
    }
    write_or_lose(fd, text, length);
    close(fd);
}
