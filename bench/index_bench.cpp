// Ways to keep the index of all clips, side by side: index_bench FOLDER CLIPS [ENGINE...]
//
// Prints one line of JSON for each engine. Every engine gets the same clips, a minute apart with jitter and gaps, in an
// empty folder and a process of its own. Times are in microseconds.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "index_engine.h"

namespace {

constexpr uint32_t FIRST = 1'000'000'000;
constexpr uint32_t GETS = 20'000;
constexpr uint32_t APPENDS = 200;
constexpr uint32_t DROPS = 200;

const index_engine* const ENGINES[] = {&INDEX_KYT, &INDEX_SQLITE, &INDEX_LMDB, &INDEX_LISTING};

double now_us() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "index_bench: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

uint32_t random_state = 12345;
uint32_t pick(uint32_t below) {
    random_state = random_state * 1664525 + 1013904223;
    return (random_state >> 8) % below;
}

uint64_t counted_bytes;
int count_file(const char*, const struct stat* status, int kind, struct FTW*) {
    counted_bytes += kind == FTW_F ? static_cast<uint64_t>(status->st_size) : 0;
    return 0;
}
uint64_t bytes_below(const char* folder) {
    counted_bytes = 0;
    nftw(folder, count_file, 16, FTW_PHYS);
    return counted_bytes;
}
int remove_one(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

long resident_kib(const char* what) {
    FILE* const status = std::fopen("/proc/self/status", "re");
    char line[128];
    long kib = 0;
    while (status != nullptr && std::fgets(line, sizeof line, status) != nullptr) {
        if (std::strncmp(line, what, std::strlen(what)) == 0) {
            kib = std::strtol(line + std::strlen(what), nullptr, 10);
        }
    }
    if (status != nullptr) {
        std::fclose(status);
    }
    return kib;
}

struct times {
    double* at;
    uint32_t count;
    double share(double part) {
        std::sort(at, at + count);
        return at[std::min(count - 1, static_cast<uint32_t>(part * count))];
    }
};

template <typename Call>
times measure(uint32_t count, double overhead, Call call) {
    times t = {static_cast<double*>(std::malloc(count * sizeof(double))), count};
    if (t.at == nullptr) {
        die("memory");
    }
    for (uint32_t i = 0; i < count; ++i) {
        const double start = now_us();
        if (!call(i)) {
            die("a call failed");
        }
        t.at[i] = std::max(0.0, now_us() - start - overhead);
    }
    return t;
}

void measure_engine(const index_engine& e, const char* folder, const uint32_t* ts, uint32_t count) {
    const double overhead = measure(1000, 0, [](uint32_t) { return true; }).share(0.5);
    if (!e.fill(folder, ts, count)) {
        die("fill");
    }
    const uint64_t bytes = bytes_below(folder);
    sync();
    const long before_kib = resident_kib("RssAnon:") + resident_kib("RssFile:");
    const double start = now_us();
    void* index = e.open(folder);
    if (index == nullptr) {
        die("open");
    }
    const bool first = e.get(index, ts[count / 2]);
    const double open_us = now_us() - start;
    if (!first || e.get(index, ts[0] + 1)) {
        die("a wrong answer");
    }
    times get = measure(GETS, overhead, [&](uint32_t) { return e.get(index, ts[pick(count)]); });
    const double walk_start = now_us();
    if (e.walk(index) != count) {
        die("walk");
    }
    const double walk_us = (now_us() - walk_start) / count;
    const long memory_kib = resident_kib("RssAnon:") + resident_kib("RssFile:") - before_kib;
    times append =
        measure(APPENDS, overhead, [&](uint32_t i) { return e.append(index, ts[count - 1] + 60 * (i + 1)); });
    times drop = measure(DROPS, overhead, [&](uint32_t) { return e.drop_oldest(index); });
    const double compact_start = now_us();
    if (!e.compact(index)) {
        die("compact");
    }
    const double compact_us = now_us() - compact_start;
    e.close(index);
    index = e.open(folder);
    if (index == nullptr || e.walk(index) != count + APPENDS - DROPS || e.get(index, ts[0])) {
        die("the index is not what it should be");
    }
    e.close(index);
    std::printf(
        "{\"engine\": \"%s\", \"durability\": \"%s\", \"clips\": %u, \"open_us\": %.1f, \"get_us\": %.3f, "
        "\"get_99_us\": "
        "%.3f, \"walk_us\": %.4f, \"append_us\": %.2f, \"append_99_us\": %.2f, \"drop_us\": %.2f, \"compact_us\": "
        "%.0f, "
        "\"bytes_per_clip\": %.2f, \"memory_kib\": %ld}\n",
        e.name, e.durability, count, open_us, get.share(0.5), get.share(0.99), walk_us, append.share(0.5),
        append.share(0.99), drop.share(0.5), compact_us, static_cast<double>(bytes) / count, memory_kib);
    std::fflush(stdout);
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
extern "C" void log_info(const char*, ...) {}

int main(int argc, char** argv) {
    const auto count = static_cast<uint32_t>(argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 0);
    if (count < DROPS || count > 1'000'000) {
        std::fputs("usage: index_bench FOLDER CLIPS [ENGINE...]; 200 to 1000000 clips\n", stderr);
        return 2;
    }
    auto* const ts = static_cast<uint32_t*>(std::malloc(count * sizeof(uint32_t)));
    if (ts == nullptr) {
        die("memory");
    }
    uint32_t clock = FIRST;
    for (uint32_t i = 0; i < count; ++i) {
        clock += 55 + pick(11) + (pick(200) == 0 ? pick(2 * 86'400) : 0);
        ts[i] = clock;
    }
    int result = 0;
    for (const index_engine* engine : ENGINES) {
        bool wanted = argc == 3;
        for (int i = 3; i < argc; ++i) {
            wanted = wanted || std::strcmp(argv[i], engine->name) == 0;
        }
        if (!wanted) {
            continue;
        }
        char folder[512];
        std::snprintf(folder, sizeof folder, "%s/index_bench-XXXXXX", argv[1]);
        if (mkdtemp(folder) == nullptr) {
            die(folder);
        }
        const pid_t child = fork();
        if (child == 0) {
            measure_engine(*engine, folder, ts, count);
            _exit(0);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) < 0 || status != 0) {
            std::fprintf(stderr, "index_bench: %s failed\n", engine->name);
            result = 1;
        }
        nftw(folder, remove_one, 16, FTW_DEPTH | FTW_PHYS);
    }
    std::free(ts);
    return result;
}
