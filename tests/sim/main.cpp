// The simulator's command line; script/sim builds and runs it.
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <unistd.h>

#include "runner.h"

using namespace sim;

// A life that runs wild is to end by itself, not with the machine. The daemon's memory is accounted for by the
// simulator; what it leaves to the end of the process is documented.
extern "C" const char* __asan_default_options() {
    return "hard_rss_limit_mb=1000:detect_leaks=0";
}

namespace {

using steady = std::chrono::steady_clock;

struct options {
    uint64_t seed = 1;
    double days = 1;
    uint64_t seeds = 1;
    double minutes = 0;  // 0: as many seeds as asked for
    int jobs = 2;
    bool is_loud = false;
    bool is_twice = false;
    bool fails_calls = false;
    int max_nth = 0;
    std::string call_name;  // one call to fail
    uint64_t call_nth = 1;
    int call_errno = 0;
    bool call_forever = false;
    std::vector<size_t> places;  // of the plan's events; empty: all
    bool has_places = false;
};

constexpr char USAGE[] =
    "usage: sim [--seed N] [--days D] [--seeds K] [--minutes M] [--jobs J] [--events I,J,...] [--log] [--twice]\n"
    "       sim --fail-calls [--nth N] [--minutes M] [--jobs J]\n"
    "       sim --fail-call NAME,NTH,ERRNO,FOREVER\n"
    "  --seed N     the first seed; 1\n"
    "  --days D     the length of each life in days; 1\n"
    "  --seeds K    how many seeds; 1\n"
    "  --minutes M  seed after seed for so long\n"
    "  --jobs J     lives at a time; 2\n"
    "  --events L   only these events of the seed's plan, by their places\n"
    "  --log        the whole log of each life\n"
    "  --twice      each life twice: both logs must be the same\n"
    "  --fail-calls every call that can fail, made to fail\n"
    "  --nth N      of each call only the first N\n";

// An option that has a value. False: there is no such option, or no such value.
bool take(const std::string& name, char* value, options* o) {
    if (name == "--seed") {
        o->seed = strtoull(value, nullptr, 10);
    } else if (name == "--days") {
        o->days = strtod(value, nullptr);
    } else if (name == "--seeds") {
        o->seeds = strtoull(value, nullptr, 10);
    } else if (name == "--minutes") {
        o->minutes = strtod(value, nullptr);
    } else if (name == "--jobs") {
        o->jobs = std::max(1, static_cast<int>(strtol(value, nullptr, 10)));
    } else if (name == "--nth") {
        o->max_nth = static_cast<int>(strtol(value, nullptr, 10));
    } else if (name == "--fail-call") {
        char call_name[64];
        int forever = 0;
        if (sscanf(value, "%63[^,],%" SCNu64 ",%d,%d", call_name, &o->call_nth, &o->call_errno, &forever) != 4) {
            return false;
        }
        o->call_name = call_name;
        o->call_forever = forever != 0;
    } else if (name == "--events") {
        o->has_places = true;
        for (char* at = strtok(value, ","); at != nullptr; at = strtok(nullptr, ",")) {
            o->places.push_back(strtoull(at, nullptr, 10));
        }
    } else {
        return false;
    }
    return true;
}

bool parse(int argc, char** argv, options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--log") {
            o->is_loud = true;
        } else if (name == "--twice") {
            o->is_twice = true;
        } else if (name == "--fail-calls") {
            o->fails_calls = true;
        } else if (++i == argc || !take(name, argv[i], o)) {
            return false;
        }
    }
    return o->days > 0;
}

task make_task(const options& o, uint64_t seed) {
    task t;
    t.seed = seed;
    t.days = o.days;
    t.is_loud = o.is_loud;
    t.plan = make_plan(seed, o.days);
    if (o.has_places) {
        std::vector<event> chosen;
        for (const size_t place : o.places) {
            if (place < t.plan.size()) {
                chosen.push_back(t.plan[place]);
            }
        }
        t.plan = std::move(chosen);
    }
    return t;
}

void report_failure(const options& o, const task& t, const outcome& seen) {
    fprintf(stdout, "\nseed %" PRIu64 ": VIOLATION: %s\n%s\n", t.seed, seen.reason, seen.tail);
    fprintf(stdout, "again:    script/sim --seed %" PRIu64 " --days %g --log\n", t.seed, t.days);
    fflush(stdout);
    if (o.has_places) {
        return;
    }
    const std::vector<size_t> places = shrink(t, seen, 400);
    fprintf(stdout, "shrunk:   script/sim --seed %" PRIu64 " --days %g --log --events ", t.seed, t.days);
    for (size_t i = 0; i < places.size(); ++i) {
        fprintf(stdout, "%s%zu", i > 0 ? "," : "", places[i]);
    }
    if (places.empty()) {
        fprintf(stdout, "none");
    }
    fprintf(stdout, "\n");
    for (const size_t place : places) {
        fprintf(stdout, "          %6zu  %s\n", place, describe(t.plan[place]).c_str());
    }
    fflush(stdout);
}

struct sum {
    uint64_t lives = 0;
    uint64_t documented = 0;
    uint64_t violations = 0;
    double days = 0;
    figures counts = {};

    void add(const outcome& o) {
        ++lives;
        documented += o.what == verdict::DOCUMENTED_END ? 1 : 0;
        violations += o.what == verdict::VIOLATION ? 1 : 0;
        days += static_cast<double>(o.counts.simulated_ms) / 86'400'000;
        counts.events += o.counts.events;
        counts.failures += o.counts.failures;
        counts.iterations += o.counts.iterations;
        counts.jobs_ok += o.counts.jobs_ok;
        counts.jobs_failed += o.counts.jobs_failed;
        counts.clips_freed += o.counts.clips_freed;
        counts.judgements += o.counts.judgements;
    }
    void print(double seconds) const {
        fprintf(stdout,
                "%" PRIu64 " lives, %.1f days in %.0f s; %" PRIu64 " events, %" PRIu64 " injected failures, %" PRIu64
                " iterations of the loop, %" PRIu64 " judgements of the state\n",
                lives, days, seconds, counts.events, counts.failures, counts.iterations, counts.judgements);
        fprintf(stdout,
                "%" PRIu64 " jobs succeeded, %" PRIu64 " failed; %" PRIu64 " clips freed; %" PRIu64
                " lives ended early where documented; %" PRIu64 " violations\n",
                counts.jobs_ok, counts.jobs_failed, counts.clips_freed, documented, violations);
        fflush(stdout);
    }
};

int run_seeds(const options& o) {
    const auto began = steady::now();
    const auto elapsed_s = [began] { return std::chrono::duration<double>(steady::now() - began).count(); };
    struct running {
        task t;
        started s;
    };
    std::deque<running> lives;
    sum total;
    uint64_t next = o.seed;
    const auto wants_more = [&] { return o.minutes > 0 ? elapsed_s() < o.minutes * 60 : next < o.seed + o.seeds; };
    int failures_shown = 0;
    while (wants_more() || !lives.empty()) {
        while (wants_more() && lives.size() < static_cast<size_t>(o.is_loud ? 1 : o.jobs)) {
            task t = make_task(o, next++);
            lives.push_back({t, {}});
            lives.back().s = start(lives.back().t);
        }
        const running r = std::move(lives.front());
        lives.pop_front();
        const outcome seen = finish(r.s);
        total.add(seen);
        if (seen.what == verdict::VIOLATION && failures_shown++ < 3) {
            report_failure(o, r.t, seen);
        } else if (seen.what == verdict::VIOLATION) {
            fprintf(stdout, "seed %" PRIu64 ": VIOLATION: %s\n", r.t.seed, seen.reason);
        }
        if (o.is_twice && seen.what != verdict::VIOLATION) {
            const outcome again = run(r.t);
            if (again.counts.log_hash != seen.counts.log_hash) {
                fprintf(stdout, "seed %" PRIu64 ": two runs, two logs\n", r.t.seed);
                ++total.violations;
            }
        }
        if (o.seeds == 1 && o.minutes == 0) {
            fprintf(stdout, "seed %" PRIu64 ": %s %s log %016" PRIx64 "\n", r.t.seed,
                    seen.what == verdict::GOOD             ? "good"
                    : seen.what == verdict::DOCUMENTED_END ? "ended early:"
                                                           : "VIOLATION:",
                    seen.reason, seen.counts.log_hash);
        }
    }
    total.print(elapsed_s());
    return total.violations == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    options o;
    if (!parse(argc, argv, &o)) {
        fputs(USAGE, stderr);
        return 2;
    }
    // One backend for every machine, and the one whose calls the simulator answers.
    setenv("LIBEV_FLAGS", "2", 1);
    setenv("TZ", "UTC", 1);
    if (!o.call_name.empty()) {
        return fail_one_call(o.call_name, o.call_nth, o.call_errno, o.call_forever) ? 0 : 1;
    }
    if (o.fails_calls) {
        return fail_every_call(o.jobs, o.max_nth, o.minutes) ? 0 : 1;
    }
    return run_seeds(o);
}
