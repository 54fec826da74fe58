// What the clip index asks of a card and of its caller:
//
//   index_probe clips FOLDER ENGINE COUNT  what reaches the card for a clip a minute: one is appended, the oldest
//   deleted index_probe fill FOLDER CLIPS          makes a list index_probe calls FOLDER SECONDS       how long the
//   calls on it take; other programs keep the card busy meanwhile index_probe optimise FOLDER ROUNDS     the same for
//   kyt_optimise alone, half an hour of clips before each index_probe refused PARTITION ROUNDS   how soon a record is
//   on a card that has refused it; mounts the partition index_probe keeper FOLDER WINDOWS      what the thread beside
//   the caller takes of the processor index_probe open FOLDER                opens the list and leaves it as a power
//   cut does index_probe close FOLDER               opens the list and closes it index_probe names FOLDER reads the
//   names in the folder and in the folders in it, and nothing else
//
// Prints one line of JSON each.
#include "index_probe.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <poll.h>
#include <unistd.h>

#include "handle.h"
#include "index_engine.h"
#include "kyt_rdonly.h"

namespace {

double read_clock(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// --- what reaches the card ---

constexpr uint32_t CLIPS_BEFORE = 16'000;
constexpr uint32_t CLIPS_A_COMPARISON = 30;  // half an hour
// Nothing more comes when the card was left alone for so long: longer than a second of the keeper's and the kernel's
// time for writing back together, as the caller has set that.
constexpr double QUIET_US = 2.4e6;
constexpr double PATIENCE_US = 60e6;

traffic await_quiet_card() {
    traffic last = read_traffic();
    const double begin = now_us();
    for (double since = begin; now_us() - since < QUIET_US;) {
        if (now_us() - begin > PATIENCE_US) {
            die("the card is not left alone");
        }
        poll(nullptr, 0, 50);
        const traffic now = read_traffic();
        if (now.requests != last.requests) {
            since = now_us();
        }
        last = now;
    }
    return last;
}

struct series {
    buffer<double> values;
    uint32_t count;

    double mean() const {
        double sum = 0;
        std::for_each_n(values.get(), count, [&](double value) { sum += value; });
        return sum / count;
    }
    double median() {
        std::sort(values.get(), values.get() + count);
        return values[count / 2];
    }
};

int probe_clips(const char* folder, const char* engine_name, uint32_t count) {
    const index_engine* engine = nullptr;
    for (const index_engine* candidate : {&INDEX_KYT, &INDEX_SQLITE, &INDEX_LMDB}) {
        engine = std::strcmp(candidate->name, engine_name) == 0 ? candidate : engine;
    }
    const buffer<uint32_t> ts = make_buffer<uint32_t>(CLIPS_BEFORE);
    for (uint32_t i = 0; i < CLIPS_BEFORE; ++i) {
        ts[i] = ts_of(i);
    }
    if (engine == nullptr || !engine->fill(folder, ts.get(), CLIPS_BEFORE)) {
        die(engine_name);
    }
    void* const index = engine->open(folder);
    if (index == nullptr) {
        die("open");
    }
    sync();
    series bytes = {make_buffer<double>(count), count};
    series requests = {make_buffer<double>(count), count};
    uint32_t comparisons = 0;
    traffic before = await_quiet_card();
    const double begin = now_us();
    for (uint32_t i = 0; i < count; ++i) {
        if (!engine->append(index, ts_of(CLIPS_BEFORE + i)) || !engine->drop_oldest(index)) {
            die("a clip");
        }
        if (engine == &INDEX_KYT && i % CLIPS_A_COMPARISON == CLIPS_A_COMPARISON / 2) {
            ++comparisons;
            if (kyt_optimise(static_cast<kyt_handle*>(index)) < 0) {
                die("optimise");
            }
        }
        const traffic after = await_quiet_card();
        bytes.values[i] = static_cast<double>(after.sectors - before.sectors) * 512;
        requests.values[i] = static_cast<double>(after.requests - before.requests);
        before = after;
    }
    const double seconds = (now_us() - begin) / 1e6;
    engine->close(index);
    std::printf(
        "{\"engine\": \"%s\", \"clips\": %u, \"comparisons\": %u, \"seconds\": %.0f, \"mean_bytes\": %.0f, "
        "\"mean_requests\": %.2f, ",
        engine_name, count, comparisons, seconds, bytes.mean(), requests.mean());
    std::printf("\"bytes\": %.0f, \"requests\": %.0f, ", bytes.median(), requests.median());
    std::printf("\"most_bytes\": %.0f, \"most_requests\": %.0f}\n", bytes.values[count - 1],
                requests.values[count - 1]);
    return 0;
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

// --- the thread beside the caller ---

// The share of the processor in each of some windows of 10 s, in percent. `change` is called once a second.
template <typename Change>
void print_shares(const char* name, uint32_t windows, Change change, const char* after) {
    constexpr uint32_t WINDOW_S = 10;
    std::printf("\"%s\": [", name);
    for (uint32_t window = 0; window < windows; ++window) {
        const double start = now_us();
        const double spent_before = others_us();
        for (uint32_t second = 0; second < WINDOW_S; ++second) {
            change();
            poll(nullptr, 0, 1000);
        }
        std::printf("%s%.3f", window == 0 ? "" : ", ", (others_us() - spent_before) / (now_us() - start) * 100);
    }
    std::printf("]%s", after);
}

int probe_keeper(const char* folder, uint32_t windows) {
    kyt_handle* const list = open_list(folder, 0);
    const uint32_t clips = kyt_count(list);
    uint32_t oldest = oldest_clip(list);
    uint32_t newest = oldest + clips;
    uint32_t marked = oldest + clips / 2;
    if (!kyt::settle(list)) {
        die("settle");
    }
    std::printf("{\"clips\": %u, ", newest);
    print_shares(
        "idle", windows, [] {}, newest == 0 ? "}\n" : ", ");
    if (newest > 0) {
        print_shares(
            "a mark a second", windows, [&] { kyt_get(list, ts_of(marked++))->flags ^= KYT_PERSISTENT; }, ", ");
        print_shares(
            "a clip a second", windows,
            [&] {
                if (!append_clip(list, newest++)) {
                    die("append");
                }
                delete_clip(list, oldest++);
            },
            "}\n");
    }
    kyt_close(list);
    return 0;
}

// --- opening ---

int probe_open(const char* folder, bool cleanly) {
    const double start = now_us();
    kyt_handle* const list = open_list(folder, 0);
    const double took = now_us() - start;
    std::printf("{\"us\": %.0f, \"clips\": %u}\n", took, kyt_count(list));
    std::fflush(stdout);
    if (cleanly) {
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

double now_us() {
    return read_clock(CLOCK_MONOTONIC);
}
double thread_us() {
    return read_clock(CLOCK_THREAD_CPUTIME_ID);
}
double others_us() {
    return read_clock(CLOCK_PROCESS_CPUTIME_ID) - thread_us();
}

void die(const char* what) {
    std::fprintf(stderr, "index_probe: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

traffic read_traffic() {
    FILE* const file = std::fopen("/sys/block/mmcblk0/stat", "re");
    char line[256];
    if (file == nullptr || std::fgets(line, sizeof line, file) == nullptr) {
        die("no card");
    }
    std::fclose(file);
    unsigned long long field[16] = {};
    char* end = line;
    for (unsigned long long& value : field) {
        value = std::strtoull(end, &end, 10);
    }
    return {field[4], field[6]};
}

kyt_handle* open_list(const char* folder, uint32_t least) {
    kyt_handle* const list = kyt::open_folder(folder);
    if (list == nullptr || kyt_count(list) < least) {
        die("open");
    }
    return list;
}

uint32_t oldest_clip(kyt_handle* list) {
    const kyt_record* const first = kyt_next(list, nullptr);
    return first == nullptr ? 0 : (first->ts - FIRST_TS) / 60;
}

bool append_clip(kyt_handle* list, uint32_t newest) {
    return INDEX_KYT.append(list, ts_of(newest));
}

void delete_clip(kyt_handle* list, uint32_t oldest) {
    kyt_record* const first = kyt_next(list, nullptr);
    if (first == nullptr || first->ts != ts_of(oldest) || kyt_mark_deleted(list, first) < 0) {
        die("delete");
    }
}

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
    const auto number = static_cast<uint32_t>(argc > 3 ? std::strtoul(argv[argc - 1], nullptr, 10) : 0);
    if (is("clips", 5) && number > 0) {
        return probe_clips(argv[2], argv[3], number);
    }
    if (is("fill", 4) && number > 0) {
        return probe_fill(argv[2], number);
    }
    if (is("calls", 4) && number > 0) {
        return probe_calls(argv[2], number);
    }
    if (is("optimise", 4) && number > 0) {
        return probe_optimise(argv[2], number);
    }
    if (is("refused", 4) && number > 0) {
        return probe_refused(argv[2], number);
    }
    if (is("keeper", 4) && number > 0) {
        return probe_keeper(argv[2], number);
    }
    if (is("open", 3) || is("close", 3)) {
        return probe_open(argv[2], is("close", 3));
    }
    if (is("names", 3)) {
        return probe_names(argv[2]);
    }
    std::fputs(
        "usage: index_probe clips FOLDER ENGINE COUNT | fill FOLDER CLIPS | calls FOLDER SECONDS | optimise FOLDER "
        "ROUNDS | refused PARTITION ROUNDS | keeper FOLDER WINDOWS | open|close|names FOLDER\n",
        stderr);
    return 2;
}
