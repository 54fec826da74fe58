// How long the list library's calls take: by the clock, and of the processor.
//
// A camera has one processor, and the clock goes on while another thread has it. A call in which the thread gave up the
// processor by itself has waited for something; one from which it was taken away was overtaken, and how long it took by
// itself is what it spent of the processor. Beside the calls the same is measured for a piece of work on a few words of
// memory: whatever is long there is the emulator, an interrupt or the host, and no call of the library.
#include <algorithm>
#include <bit>
#include <cstdio>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "handle.h"
#include "index_probe.h"
#include "kyt_rdonly.h"

namespace {

constexpr double LIMIT_US = 2000;

// Times by the sixteenth part of an octave, so that an hour of them takes no more room than a minute.
class spread {
  public:
    void add(double us) {
        ++counts_[bucket_of(us)];
        ++count_;
    }
    double share(double part) const {
        const auto wanted = static_cast<uint64_t>(part * static_cast<double>(count_));
        uint64_t passed = 0;
        uint32_t bucket = 0;
        while (bucket + 1 < BUCKETS && passed + counts_[bucket] <= wanted) {
            passed += counts_[bucket++];
        }
        const uint32_t shift = bucket < 2 * PARTS ? 0 : bucket / PARTS - 1;
        return static_cast<double>(uint64_t{bucket - shift * PARTS} << shift) / 1e3;  // the least in it
    }
    uint64_t count() const { return count_; }

  private:
    static constexpr uint32_t PARTS = 16;
    static constexpr uint32_t BUCKETS = 40 * PARTS;  // of nanoseconds, up to hours

    static uint32_t bucket_of(double us) {
        const auto ns = static_cast<uint64_t>(us * 1e3);
        const auto shift = static_cast<uint32_t>(std::max(0, static_cast<int>(std::bit_width(ns)) - 5));
        return std::min(BUCKETS - 1, shift * PARTS + static_cast<uint32_t>(ns >> shift));
    }

    uint64_t count_ = 0;
    uint32_t counts_[BUCKETS] = {};
};

class call_times {
  public:
    explicit call_times(const char* name) : name_(name) {}

    template <typename Call>
    auto measure(Call call) {
        rusage before = {};
        rusage after = {};
        getrusage(RUSAGE_THREAD, &before);
        const double spent_before = thread_us();
        const double start = now_us();
        auto result = call();
        const double took = now_us() - start;
        const double spent = thread_us() - spent_before;  // with two looks at the clock
        getrusage(RUSAGE_THREAD, &after);
        all_.add(took);
        longest_us_ = std::max(longest_us_, took);
        longest_spent_us_ = std::max(longest_spent_us_, spent);
        if (after.ru_nvcsw != before.ru_nvcsw) {
            ++waits_;
            longest_wait_us_ = std::max(longest_wait_us_, took);
        } else if (after.ru_nivcsw != before.ru_nivcsw) {
            ++overtaken_;
            longest_overtaken_spent_us_ = std::max(longest_overtaken_spent_us_, spent);
        } else {
            longest_alone_us_ = std::max(longest_alone_us_, took);
            above_limit_ += took > LIMIT_US ? 1 : 0;
        }
        return result;
    }

    void print(const char* after) const {
        std::printf(
            "{\"call\": \"%s\", \"count\": %llu, \"median_us\": %.1f, \"us_99\": %.1f, \"longest_us\": %.0f, "
            "\"longest_spent_us\": %.0f, \"waits\": %u, \"longest_wait_us\": %.0f, \"overtaken\": %u, "
            "\"longest_overtaken_spent_us\": %.0f, \"longest_alone_us\": %.0f, \"alone_above_limit\": %u}%s",
            name_, static_cast<unsigned long long>(all_.count()), all_.share(0.5), all_.share(0.99), longest_us_,
            longest_spent_us_, waits_, longest_wait_us_, overtaken_, longest_overtaken_spent_us_, longest_alone_us_,
            above_limit_, after);
    }

  private:
    const char* name_;
    spread all_;
    double longest_us_ = 0;
    double longest_spent_us_ = 0;
    uint32_t waits_ = 0;
    double longest_wait_us_ = 0;
    uint32_t overtaken_ = 0;
    double longest_overtaken_spent_us_ = 0;
    double longest_alone_us_ = 0;  // neither waited nor was overtaken
    uint32_t above_limit_ = 0;     // of these
};

// As long as a look-up, in memory of its own.
uint32_t work_without_list() {
    static volatile uint32_t words[16];
    uint32_t sum = 0;
    for (uint32_t i = 0; i < 64; ++i) {
        words[i % 16] = sum += words[(i * 7) % 16] + i;
    }
    return sum;
}

void optimise(kyt_handle* list, call_times* times) {
    if (times->measure([&] { return kyt_optimise(list); }) < 0) {
        die("optimise");
    }
}

}  // namespace

int probe_calls(const char* folder, uint32_t seconds) {
    constexpr uint32_t LOOKS_A_ROUND = 16;
    constexpr int ROUND_MS = 50;
    constexpr double OPTIMISE_US = 10e6;

    kyt_handle* const list = open_list(folder, 2);
    const uint32_t clips = kyt_count(list);
    uint32_t oldest = oldest_clip(list);
    uint32_t newest = oldest + clips;
    call_times get("kyt_get");
    call_times next("kyt_next");
    call_times write("kyt_write");
    call_times mark("kyt_mark_deleted");
    call_times maintain("kyt_optimise");
    call_times nothing("no call");
    uint32_t refused = 0;
    uint32_t random = 1;
    const unsigned long long sectors_before = read_traffic().sectors;
    const double begin = now_us();
    double last_optimise = begin;
    for (double now = begin; now - begin < seconds * 1e6; now = now_us()) {
        const kyt_record* walked = nullptr;
        for (uint32_t i = 0; i < LOOKS_A_ROUND; ++i) {
            random = random * 1664525 + 1013904223;
            const uint32_t ts = ts_of(oldest + (random >> 8) % (newest - oldest));
            kyt_record* const found = get.measure([&] { return kyt_get(list, ts); });
            if (found == nullptr) {
                die("a clip is missing");
            }
            if (i == 0) {
                found->flags ^= KYT_PERSISTENT;  // a mark in place, as a person's
            }
            walked = next.measure([&] { return kyt_next(list, walked); });
            (void)nothing.measure([] { return work_without_list(); });
        }
        const bool written = write.measure([&] { return append_clip(list, newest); });
        refused += written ? 0 : 1;
        newest += written ? 1 : 0;
        if (newest - oldest > clips) {
            kyt_record* const first = kyt_next(list, nullptr);
            if (first == nullptr || first->ts != ts_of(oldest++) ||
                mark.measure([&] { return kyt_mark_deleted(list, first); }) < 0) {
                die("mark");
            }
        }
        // While a comparison is under way the call has nothing to do; on a slow card that is most of the time.
        if (now - last_optimise >= OPTIMISE_US && !kyt::is_comparing(list)) {
            last_optimise = now;
            optimise(list, &maintain);
        }
        poll(nullptr, 0, ROUND_MS);
    }
    std::printf("{\"clips\": %u, \"seconds\": %.0f, \"refused\": %u, \"written_kib\": %llu, \"calls\": [", clips,
                (now_us() - begin) / 1e6, refused, (read_traffic().sectors - sectors_before) / 2);
    for (const call_times* one : {&get, &next, &write, &mark, &maintain}) {
        one->print(", ");
    }
    nothing.print("]}\n");
    std::fflush(stdout);
    _exit(0);  // to close the list may take minutes on a slow card, and is not what was asked
}

int probe_optimise(const char* folder, uint32_t rounds) {
    constexpr uint32_t CLIPS_A_ROUND = 30;  // of half an hour

    kyt_handle* const list = open_list(folder, CLIPS_A_ROUND + 1);
    const uint32_t clips = kyt_count(list);
    uint32_t oldest = oldest_clip(list);
    uint32_t newest = oldest + clips;
    call_times maintain("kyt_optimise");
    for (uint32_t round = 0; round < rounds; ++round) {
        for (uint32_t i = 0; i < CLIPS_A_ROUND; ++i) {
            if (!append_clip(list, newest++)) {
                die("append");
            }
            delete_clip(list, oldest++);
        }
        if (!kyt::settle(list)) {
            die("settle");
        }
        optimise(list, &maintain);
        while (kyt::is_comparing(list)) {
            poll(nullptr, 0, 1);
        }
    }
    std::printf("{\"clips\": %u, \"calls\": [", clips);
    maintain.print("]}\n");
    kyt_close(list);
    return 0;
}
