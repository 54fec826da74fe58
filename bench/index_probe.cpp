// What the clip index asks of a card and of its caller:
//
//   index_probe append FOLDER ENGINE     what reaches the card for each clip that is appended a minute after the last
//   one index_probe calls LIST CLIPS SECONDS how long the list library's calls take while another process writes clips
//   index_probe open FOLDER              opens the list and leaves it as a power cut does
//   index_probe close FOLDER             opens the list and closes it
//   index_probe names FOLDER             reads the names in the folder and in the folders in it, and nothing else
//
// Prints one line of JSON each. Times are in microseconds.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "handle.h"
#include "index_engine.h"
#include "kyt_rdonly.h"
#include "names.h"
#include "record.h"

namespace {

constexpr uint32_t FIRST = 1'790'000'000 / 3600 * 3600;

double now_us() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "index_probe: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

struct freed {
    void operator()(void* at) const { std::free(at); }
};
template <typename T>
using buffer = std::unique_ptr<T[], freed>;

template <typename T>
buffer<T> make_buffer(size_t count) {
    buffer<T> made(static_cast<T*>(std::calloc(count, sizeof(T))));
    if (!made) {
        die("memory");
    }
    return made;
}

// --- what reaches the card ---

constexpr uint32_t BEFORE = 10'000;  // clips that are there before
constexpr uint32_t APPENDS = 12;
constexpr double QUIET_US = 4e6;  // longer than the list's own flush and the kernel's, as the caller has set it
constexpr double PATIENCE_US = 60e6;

struct traffic {
    unsigned long long requests;
    unsigned long long sectors;
    unsigned long long flushes;
};

// Writes since the card was put in, as the kernel counts them.
traffic read_traffic() {
    FILE* const file = std::fopen("/sys/block/mmcblk0/stat", "re");
    char line[256];
    if (file == nullptr || std::fgets(line, sizeof line, file) == nullptr) {
        die("no card");
    }
    std::fclose(file);
    unsigned long long field[16] = {};
    char* at = line;
    for (unsigned long long& value : field) {
        value = std::strtoull(at, &at, 10);
    }
    return {field[4], field[6], field[15]};
}

// What has been written when nothing more comes.
traffic settled() {
    traffic last = read_traffic();
    const double begin = now_us();
    for (double since = begin; now_us() - since < QUIET_US && now_us() - begin < PATIENCE_US;) {
        poll(nullptr, 0, 100);
        const traffic now = read_traffic();
        if (now.requests != last.requests) {
            since = now_us();
        }
        last = now;
    }
    return last;
}

int probe_append(const char* folder, const char* engine_name) {
    const index_engine* engine = nullptr;
    for (const index_engine* one : {&INDEX_KYT, &INDEX_SQLITE, &INDEX_LMDB, &INDEX_LISTING}) {
        engine = std::strcmp(one->name, engine_name) == 0 ? one : engine;
    }
    const buffer<uint32_t> ts = make_buffer<uint32_t>(BEFORE);
    for (uint32_t i = 0; i < BEFORE; ++i) {
        ts[i] = FIRST + 60 * i;
    }
    // The listing needs no more than its folder: an append is the clip's own directory entry.
    if (engine == nullptr || !engine->fill(folder, ts.get(), engine == &INDEX_LISTING ? 60 : BEFORE)) {
        die(engine_name);
    }
    void* const index = engine->open(folder);
    if (index == nullptr) {
        die("open");
    }
    sync();
    traffic before = settled();
    double bytes[APPENDS];
    double requests[APPENDS];
    double flushes[APPENDS];
    for (uint32_t i = 0; i < APPENDS; ++i) {
        if (!engine->append(index, ts[BEFORE - 1] + 60 * (i + 1))) {
            die("append");
        }
        const traffic after = settled();
        bytes[i] = static_cast<double>(after.sectors - before.sectors) * 512;
        requests[i] = static_cast<double>(after.requests - before.requests);
        flushes[i] = static_cast<double>(after.flushes - before.flushes);
        before = after;
    }
    engine->close(index);
    for (double* values : {bytes, requests, flushes}) {
        std::sort(values, values + APPENDS);
    }
    std::printf(
        "{\"engine\": \"%s\", \"appends\": %u, \"bytes\": %.0f, \"most_bytes\": %.0f, \"requests\": %.0f, "
        "\"most_requests\": %.0f, \"flushes\": %.0f}\n",
        engine_name, APPENDS, bytes[APPENDS / 2], bytes[APPENDS - 1], requests[APPENDS / 2], requests[APPENDS - 1],
        flushes[APPENDS / 2]);
    return 0;
}

// --- how long calls take ---

constexpr uint32_t LOOKS_A_ROUND = 64;
constexpr uint32_t CHANGES_A_ROUND = 8;
constexpr uint32_t ROUNDS_AN_OPTIMISE = 10;
constexpr int ROUND_MS = 20;
constexpr double LIMIT_US = 5000;

// Of a thread that gave up the processor in a call something had made it wait; one that lost it was only overtaken.
struct call_times {
    const char* name;
    uint32_t room;
    buffer<double> us;
    uint32_t count = 0;
    uint32_t waits = 0;
    double longest_wait_us = 0;
    uint32_t preemptions = 0;
    double longest_alone_us = 0;  // neither waited nor was overtaken
    uint32_t above_limit = 0;

    call_times(const char* call, uint32_t most) : name(call), room(most), us(make_buffer<double>(most)) {}

    template <typename Call>
    auto measure(Call call) {
        rusage before = {};
        rusage after = {};
        getrusage(RUSAGE_THREAD, &before);
        const double start = now_us();
        auto result = call();
        const double took = now_us() - start;
        getrusage(RUSAGE_THREAD, &after);
        if (count < room) {
            us[count++] = took;
        }
        above_limit += took > LIMIT_US ? 1 : 0;
        if (after.ru_nvcsw != before.ru_nvcsw) {
            ++waits;
            longest_wait_us = std::max(longest_wait_us, took);
        } else if (after.ru_nivcsw != before.ru_nivcsw) {
            ++preemptions;
        } else {
            longest_alone_us = std::max(longest_alone_us, took);
        }
        return result;
    }

    void print(const char* behind) {
        std::sort(us.get(), us.get() + count);
        std::printf(
            "{\"call\": \"%s\", \"count\": %u, \"median_us\": %.1f, \"us_99\": %.1f, \"longest_us\": %.1f, "
            "\"above_5_ms\": %u, \"waits\": %u, \"longest_wait_us\": %.1f, \"preemptions\": %u, "
            "\"longest_alone_us\": %.1f}%s",
            name, count, us[count / 2], us[std::min(count - 1, count * 99 / 100)], us[count - 1], above_limit, waits,
            longest_wait_us, preemptions, longest_alone_us, behind);
    }
};

uint32_t ts_of(uint32_t clip) {
    return FIRST + clip * 60;
}

int probe_fill(const char* folder, uint32_t clips) {
    auto ts = make_buffer<uint32_t>(clips);
    for (uint32_t i = 0; i < clips; ++i) {
        ts[i] = ts_of(i);
    }
    if (!INDEX_KYT.fill(folder, ts.get(), clips)) {
        die("fill");
    }
    return 0;
}

// Clips [oldest, newest) of those that probe_fill has made, and that are added here, are alive throughout.
int probe_calls(const char* folder, uint32_t seconds, bool first_of_all) {
    kyt_handle* const list = kyt::open_folder(folder);
    if (list == nullptr || kyt_count(list) <= CHANGES_A_ROUND) {
        die("open");
    }
    const sched_param lowest = {1};  // of the real-time ones; the list's own thread has begun and stays as it is
    if (first_of_all && sched_setscheduler(0, SCHED_FIFO, &lowest) < 0) {
        die("priority");
    }
    uint32_t oldest = 0;
    uint32_t newest = kyt_count(list);
    const uint32_t rounds = seconds * 1000 / ROUND_MS;
    call_times get("kyt_get", rounds * LOOKS_A_ROUND);
    call_times next("kyt_next", rounds * LOOKS_A_ROUND);
    call_times write("kyt_write", rounds * CHANGES_A_ROUND);
    call_times mark("kyt_mark_deleted", rounds * CHANGES_A_ROUND);
    call_times optimise("kyt_optimise", rounds);
    uint32_t refused = 0;
    uint32_t random = 1;
    const unsigned long long sectors_before = read_traffic().sectors;
    const double end = now_us() + seconds * 1e6;
    for (uint32_t round = 1; round <= rounds && now_us() < end; ++round) {
        const kyt_record* walked = nullptr;
        for (uint32_t i = 0; i < LOOKS_A_ROUND; ++i) {
            random = random * 1664525 + 1013904223;
            const uint32_t ts = ts_of(oldest + (random >> 8) % (newest - oldest));
            if (get.measure([&] { return kyt_get(list, ts); }) == nullptr) {
                die("a clip is missing");
            }
            walked = next.measure([&] { return kyt_next(list, walked); });
        }
        for (uint32_t i = 0; i < CHANGES_A_ROUND; ++i) {
            const kyt_record record = kyt::live_record(ts_of(newest), 60, 0);
            const bool written = write.measure([&] { return kyt_write(list, &record); }) == 0;
            refused += written ? 0 : 1;
            newest += written ? 1 : 0;
            kyt_record* const first = kyt_next(list, nullptr);
            if (first == nullptr || first->ts != ts_of(oldest++) ||
                mark.measure([&] { return kyt_mark_deleted(list, first); }) < 0) {
                die("mark");
            }
        }
        if (round % ROUNDS_AN_OPTIMISE == 0) {
            (void)optimise.measure([&] { return kyt_optimise(list); });
        }
        poll(nullptr, 0, ROUND_MS);
    }
    const unsigned long long sectors = read_traffic().sectors - sectors_before;
    std::printf("{\"refused\": %u, \"written_kib\": %llu, \"calls\": [", refused, sectors / 2);
    for (call_times* one : {&get, &next, &write, &mark}) {
        one->print(", ");
    }
    optimise.print("]}\n");
    std::fflush(stdout);
    _exit(0);  // to close the list may take minutes on a slow card, and is not what was asked
}

// --- opening ---

int probe_open(const char* folder, bool in_order) {
    const double start = now_us();
    kyt_handle* const list = kyt::open_folder(folder);
    const double took = now_us() - start;
    if (list == nullptr) {
        die("open");
    }
    std::printf("{\"us\": %.0f, \"clips\": %u}\n", took, kyt_count(list));
    std::fflush(stdout);
    if (in_order) {
        kyt_close(list);
        return 0;
    }
    sync();
    _exit(0);
}

uint32_t count_names(const char* path, bool deeper) {
    DIR* const stream = opendir(path);
    uint32_t count = 0;
    while (const dirent* entry = stream != nullptr ? readdir(stream) : nullptr) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        ++count;
        if (deeper && entry->d_type == DT_DIR) {
            char below[512];
            std::snprintf(below, sizeof below, "%s/%s", path, entry->d_name);
            count += count_names(below, false);
        }
    }
    if (stream != nullptr) {
        closedir(stream);
    }
    return count;
}

int probe_names(const char* folder) {
    const double start = now_us();
    const uint32_t count = count_names(folder, true);
    std::printf("{\"us\": %.0f, \"names\": %u}\n", now_us() - start, count);
    return 0;
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
    const auto is = [&](const char* what, int words) { return argc == words && std::strcmp(argv[1], what) == 0; };
    const auto number = static_cast<uint32_t>(argc == 4 ? std::strtoul(argv[3], nullptr, 10) : 0);
    if (is("append", 4)) {
        return probe_append(argv[2], argv[3]);
    }
    if (is("fill", 4) && number > 0) {
        return probe_fill(argv[2], number);
    }
    if ((is("calls", 4) || is("first", 4)) && number > 0) {
        return probe_calls(argv[2], number, is("first", 4));
    }
    if (is("open", 3) || is("close", 3)) {
        return probe_open(argv[2], is("close", 3));
    }
    if (is("names", 3)) {
        return probe_names(argv[2]);
    }
    std::fputs(
        "usage: index_probe append FOLDER ENGINE | fill FOLDER CLIPS | calls|first FOLDER SECONDS | open|close|names "
        "FOLDER\n",
        stderr);
    return 2;
}
