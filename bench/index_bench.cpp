// Ways to keep the index of all clips, side by side: index_bench FOLDER CLIPS [ENGINE...]
//
// Prints one line of JSON for each engine. Every engine gets the same clips, a minute apart with jitter and gaps, in an
// empty folder and a process of its own. Times are in microseconds.
//
// "index_bench times CLIPS" prints the clips, for who makes their files; "index_bench FOLDER CLIPS filled" measures the
// listing of a folder that has them. On a slow card making them would take longer than all that is measured.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ftw.h>
#include <memory>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "index_engine.h"

namespace {

constexpr uint32_t FIRST = 1'000'000'000;
constexpr uint32_t GETS = 20'000;
constexpr uint32_t GETS_A_LAP = 16;  // between two looks at the clock, which costs more than the quickest look-up
constexpr uint32_t WALKS = 5;
constexpr uint32_t APPENDS = 200;
constexpr uint32_t DROPS = 200;
constexpr double PATIENCE_US = 10e6;  // what takes longer in all is called less often

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

struct freed {
    void operator()(double* at) const { std::free(at); }
};

struct times {
    std::unique_ptr<double[], freed> at;
    uint32_t count;
    double share(double part) {
        std::sort(at.get(), at.get() + count);
        return at[std::min(count - 1, static_cast<uint32_t>(part * count))];
    }
};

// Until there are `count` times, or patience is at an end. `prepare` is not measured.
template <typename Prepare, typename Call>
times measure(uint32_t count, double overhead, Prepare prepare, Call call) {
    times t = {decltype(t.at)(static_cast<double*>(std::malloc(count * sizeof(double)))), 0};
    if (!t.at) {
        die("memory");
    }
    const double begin = now_us();
    for (double now = begin; t.count < count && now - begin < PATIENCE_US; ++t.count) {
        prepare(t.count);
        const double start = now_us();
        if (!call(t.count)) {
            die("a call failed");
        }
        now = now_us();
        t.at[t.count] = std::max(0.0, now - start - overhead);
    }
    return t;
}

void nothing(uint32_t) {}

struct clips {
    const uint32_t* ts;
    uint32_t count;
    bool filled;  // their files are in the folder
};

void measure_engine(const index_engine& e, const char* folder, const clips& c) {
    const double overhead = measure(1000, 0, nothing, [](uint32_t) { return true; }).share(0.5);
    if (!c.filled && !e.fill(folder, c.ts, c.count)) {
        die("fill");
    }
    const uint64_t bytes = c.filled ? 0 : bytes_below(folder);
    sync();
    const long before_kib = resident_kib("RssAnon:") + resident_kib("RssFile:");
    const double start = now_us();
    void* index = e.open(folder);
    if (index == nullptr) {
        die("open");
    }
    const bool first = e.get(index, c.ts[c.count / 2]);
    const double open_us = now_us() - start;
    if (!first || e.get(index, c.ts[0] + 1)) {
        die("a wrong answer");
    }
    // Beside a single look-up the clock's own time is not small, and in an emulator not steady: the median is one of
    // laps, the 99th percentile one of calls.
    uint32_t wanted[GETS_A_LAP];
    const auto choose = [&](uint32_t) {
        for (uint32_t& ts : wanted) {
            ts = c.ts[pick(c.count)];
        }
    };
    times get_lap = measure(GETS / GETS_A_LAP, 0, choose, [&](uint32_t) {
        return std::all_of(wanted, wanted + GETS_A_LAP, [&](uint32_t ts) { return e.get(index, ts); });
    });
    times get = measure(GETS, overhead, choose, [&](uint32_t) { return e.get(index, wanted[0]); });
    times walk = measure(WALKS, 0, nothing, [&](uint32_t) { return e.walk(index) == c.count; });
    const long memory_kib = resident_kib("RssAnon:") + resident_kib("RssFile:") - before_kib;
    times append = measure(APPENDS, overhead, nothing,
                           [&](uint32_t i) { return e.append(index, c.ts[c.count - 1] + 60 * (i + 1)); });
    times drop = measure(DROPS, overhead, nothing, [&](uint32_t) { return e.drop_oldest(index); });
    const double compact_start = now_us();
    if (!e.compact(index)) {
        die("compact");
    }
    const double compact_us = now_us() - compact_start;
    e.close(index);
    index = e.open(folder);
    if (index == nullptr || e.walk(index) != c.count + append.count - drop.count || e.get(index, c.ts[0])) {
        die("the index is not what it should be");
    }
    e.close(index);
    std::printf(
        "{\"engine\": \"%s\", \"durability\": \"%s\", \"clips\": %u, \"open_us\": %.1f, \"get_us\": %.3f, "
        "\"get_99_us\": %.3f, \"walk_us\": %.4f, \"append_us\": %.2f, \"append_99_us\": %.2f, \"drop_us\": %.2f, "
        "\"compact_us\": %.0f, \"bytes_per_clip\": %.2f, \"memory_kib\": %ld}\n",
        e.name, e.durability, c.count, open_us, get_lap.share(0.5) / GETS_A_LAP, get.share(0.99),
        walk.share(0.5) / c.count, append.share(0.5), append.share(0.99), drop.share(0.5), compact_us,
        static_cast<double>(bytes) / c.count, memory_kib);
    std::fflush(stdout);
}

bool wants(const index_engine& e, int argc, char** argv) {
    bool wanted = argc == 3;
    for (int i = 3; i < argc; ++i) {
        wanted = wanted || std::strcmp(argv[i], e.name) == 0;
    }
    return wanted;
}

// In a process of its own, so that no engine meets another one's memory.
bool run_engine(const index_engine& e, const char* folder, const clips& c) {
    const pid_t child = fork();
    if (child == 0) {
        measure_engine(e, folder, c);
        _exit(0);
    }
    int status = 0;
    const bool ok = child > 0 && waitpid(child, &status, 0) == child && status == 0;
    if (!ok) {
        std::fprintf(stderr, "index_bench: %s failed, status 0x%x\n", e.name, static_cast<unsigned>(status));
    }
    return ok;
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
        std::fputs("usage: index_bench FOLDER CLIPS [ENGINE...|filled]; 200 to 1000000 clips\n", stderr);
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
    if (std::strcmp(argv[1], "times") == 0) {
        std::for_each(ts, ts + count, [](uint32_t one) { std::printf("%u\n", one); });
    } else if (argc > 3 && std::strcmp(argv[3], "filled") == 0) {
        result = run_engine(INDEX_LISTING, argv[1], {ts, count, true}) ? 0 : 1;
    } else {
        for (const index_engine* engine : ENGINES) {
            if (!wants(*engine, argc, argv)) {
                continue;
            }
            char folder[512];
            std::snprintf(folder, sizeof folder, "%s/index_bench-XXXXXX", argv[1]);
            if (mkdtemp(folder) == nullptr) {
                die(folder);
            }
            result |= run_engine(*engine, folder, {ts, count, false}) ? 0 : 1;
            nftw(folder, remove_one, 16, FTW_DEPTH | FTW_PHYS);
        }
    }
    std::free(ts);
    return result;
}
