// What the record list costs: kyt_bench FOLDER CLIPS [open]
//
// Makes an empty recordings folder with that many clips (".jpeg" and ".mp4" of no bytes, 60 an hour) and measures each
// call. With "open" the folder is taken as it is and only the open without a list is measured, for a card that was
// prepared before and is cold now.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "handle.h"
#include "kyt_rdonly.h"
#include "names.h"

namespace {

constexpr uint32_t FIRST = 1'790'000'000 / 3600 * 3600;

double now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "kyt_bench: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

void report(const char* what, double ms, uint32_t calls) {
    std::printf("%-44s %10.1f ms %10.2f us each\n", what, ms, ms * 1000 / calls);
    std::fflush(stdout);
}

uint32_t ts_of(uint32_t clip) {
    return FIRST + clip * 60;
}

void make_file(const char* folder, uint32_t ts, const char* extension) {
    char clip[128];
    char path[512];
    kyt_ts2path(ts, clip, sizeof clip, 0);
    std::snprintf(path, sizeof path, "%s/%s%s", folder, clip + sizeof kyt::RECORD_FOLDER, extension);
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        die(path);
    }
    close(fd);
}

void make_clips(const char* folder, uint32_t clips) {
    for (uint32_t i = 0; i < clips; ++i) {
        if (i % 60 == 0) {
            char period[kyt::PERIOD_NAME_LENGTH + 1];
            char path[512];
            kyt::period_name(ts_of(i), period);
            std::snprintf(path, sizeof path, "%s/%s", folder, period);
            if (mkdir(path, 0755) < 0 && errno != EEXIST) {
                die(path);
            }
        }
        make_file(folder, ts_of(i), ".jpeg");
        make_file(folder, ts_of(i), ".mp4");
    }
}

kyt_handle* open_list(const char* folder, const char* what, uint32_t clips) {
    const double start = now_ms();
    kyt_handle* const list = kyt::open_folder(folder);
    const double end = now_ms();
    if (!list) {
        die("open");
    }
    report(what, end - start, clips);
    return list;
}

void forget_list(const char* folder) {
    char path[512];
    std::snprintf(path, sizeof path, "%s/%s", folder, kyt::LIST_NAME);
    unlink(path);
}

void drop_caches() {
    sync();
    const int fd = open("/proc/sys/vm/drop_caches", O_WRONLY | O_CLOEXEC);
    const bool dropped = fd >= 0 && write(fd, "3", 1) == 1;
    if (fd >= 0) {
        close(fd);
    }
    std::printf("caches: %s\n", dropped ? "cold" : "warm (no right to drop them)");
}

// All clips deleted, the oldest first, one walk from the beginning for each as the daemon does it.
double delete_all(kyt_handle* list, uint32_t* deleted) {
    const double start = now_ms();
    for (*deleted = 0;; ++*deleted) {
        kyt_record* record = kyt_next(list, nullptr);
        while (record && record->flags != 0) {
            record = kyt_next(list, record);
        }
        if (!record || kyt_mark_deleted(list, record) < 0) {
            return now_ms() - start;
        }
    }
}

}  // namespace

// The library's messages go where the numbers do not.
#define LOG_TO_STDERR(name)                         \
    extern "C" void name(const char* format, ...) { \
        va_list args;                               \
        va_start(args, format);                     \
        std::vfprintf(stderr, format, args);        \
        va_end(args);                               \
        std::fputc('\n', stderr);                   \
    }
LOG_TO_STDERR(log_err)
LOG_TO_STDERR(log_warning)
LOG_TO_STDERR(log_info)

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: kyt_bench FOLDER CLIPS [open]\n");
        return 2;
    }
    const char* const folder = argv[1];
    const auto clips = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
    if (clips == 0 || clips > kyt::MAX_RECORDS / 2) {
        std::fprintf(stderr, "kyt_bench: 1 to %u clips\n", kyt::MAX_RECORDS / 2);  // as many are added
        return 2;
    }
    const bool only_open = argc > 3;
    if (!only_open) {
        make_clips(folder, clips);
    }
    forget_list(folder);
    drop_caches();
    kyt_handle* list = open_list(folder, "open, list missing", clips);
    std::printf("%u clips found\n", kyt_count(list));
    kyt_close(list);
    if (only_open) {
        return 0;
    }
    list = open_list(folder, "open, cleanly closed", clips);
    kyt_close_dirty(list);
    list = open_list(folder, "open after a power cut (caches warm)", clips);

    double start = now_ms();
    for (uint32_t i = 0; i < clips; ++i) {
        if (!kyt_get(list, ts_of(i * 7919U % clips))) {
            die("get");
        }
    }
    report("get", now_ms() - start, clips);
    start = now_ms();
    uint32_t walked = 0;
    for (const kyt_record* r = kyt_next(list, nullptr); r; r = kyt_next(list, r)) {
        ++walked;
    }
    report("next", now_ms() - start, walked);
    start = now_ms();
    for (uint32_t i = clips; i < 2 * clips; ++i) {
        kyt_record record = {};
        char text[16];
        const int length = std::snprintf(text, sizeof text, "%u,60", ts_of(i));
        if (kyt_record_parse(&record, text, static_cast<size_t>(length)) < 0 || kyt_write(list, &record) < 0) {
            die("write");
        }
    }
    report("parse and append", now_ms() - start, clips);
    start = now_ms();
    (void)kyt_optimise(list);
    report("optimise, the loop's share", now_ms() - start, 1);
    kyt_get(list, ts_of(0))->flags = KYT_PERSISTENT;
    uint32_t deleted = 0;
    const double ms = delete_all(list, &deleted);
    report("delete the oldest, behind a protected one", ms, deleted);
    start = now_ms();
    kyt_close(list);
    report("close", now_ms() - start, 1);
    return 0;
}
