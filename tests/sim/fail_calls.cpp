// One short story with everything in it: a start, a clip, a full card, requests, a format with holders, an eject, a
// broker that goes, cards in and out, one of them mounted elsewhere. In it every call that can fail is made to fail:
// the first one, the second one, and so on until a whole story passes without the fault, once and from then on, with
// each errno. In the last minute nothing fails any more, and the daemon has to find its way back.
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <deque>

#include "faults.h"
#include "runner.h"

namespace sim {
namespace {

constexpr double STORY_DAYS = 320.0 / 86400;
constexpr int64_t HEALED_NS = 190 * SECOND;

std::vector<event> story() {
    constexpr uint32_t GOOD_CARD = 9 + 16;  // one partition, with clips of an earlier life
    constexpr uint32_t START = 5;
    return {
        {0, kind::INSERT, GOOD_CARD, START},
        {10'000, kind::CLIP, 1, 0},
        {15'000, kind::REQUEST, 13, 3},  // protect some clips
        {20'000, kind::REQUEST, 5, 0},   // storage figures
        {25'000, kind::FILL, 1, 0},      // 40959 KiB are left
        {30'000, kind::CLIP, 5000, 0},
        {35'000, kind::REQUEST, 9, 2},  // delete some clips
        {36'000, kind::REQUEST, 8, 0},  // and more than there are workers for
        {40'000, kind::CLIP, 2, 0},
        {45'000, kind::UEVENT, 3, 0},
        {50'000, kind::HOLD, 0, 1500},
        {50'100, kind::REQUEST, 0, 0},  // a format by key, with holders
        {70'000, kind::CLIP, 3, 0},
        {75'000, kind::REQUEST, 12, 0},  // a check
        {85'000, kind::BROKER, 0, 3},
        {95'000, kind::CLIP, 4, 0},
        {100'000, kind::REQUEST, 1, 1},  // an eject by key
        {110'000, kind::PULL, 0, START},
        {115'000, kind::INSERT, GOOD_CARD, START},
        {125'000, kind::MOUNT, 0, 0},     // somebody unmounts it
        {130'000, kind::PULL, 0, START},  // pulled while it is mounted
        {135'000, kind::INSERT, 2 + 16, START},
        {145'000, kind::REQUEST, 3, 0},  // a format by action
        {165'000, kind::CLIP, 7, 0},
        {175'000, kind::REQUEST, 4, 0},  // an eject by action
        {185'000, kind::PULL, 0, START},
        // Healed from here on.
        {200'000, kind::INSERT, GOOD_CARD, START},
        {215'000, kind::CLIP, 8, 0},
        {220'000, kind::REQUEST, 5, 0},
        {225'000, kind::MOUNT, 1, 0},  // somebody mounts it elsewhere as well, and it goes
        {230'000, kind::PULL, 0, START},
        {235'000, kind::INSERT, GOOD_CARD, START},
        // Held when it is to be formatted, and swapped for another one during the retries; the same with an eject.
        {245'000, kind::HOLD, 0, 4000},
        {245'100, kind::REQUEST, 0, 0},
        {247'000, kind::SWAP, GOOD_CARD, START + (START << 8)},
        {265'000, kind::HOLD, 0, 4000},
        {265'100, kind::REQUEST, 1, 1},
        {267'000, kind::SWAP, GOOD_CARD, START + (START << 8)},
    };
}

struct fault {
    call which;
    int errnum;
    uint64_t nth;
    bool forever;
};

void set_fault(void* context) {
    const auto* f = static_cast<const fault*>(context);
    fail(f->which, f->errnum, f->nth, f->forever);
    later(HEALED_NS, [] { stop_failing(); });
}

// What no kernel does: an interruption that never ends, a socket that is readable and empty for ever.
bool makes_sense(const fault& f) {
    return !(f.forever && (f.errnum == EINTR || f.which == call::POLL || f.which == call::RECV));
}

// The daemon is stopped in the middle of the story's jobs, at every half second of each: it ends in good order, and
// does not wait for them.
bool ends_in_jobs(const task& whole) {
    constexpr int64_t JOBS_MS[][2] = {{50'000, 58'000}, {75'000, 81'000}, {100'000, 102'000}, {245'000, 250'000}};
    for (const auto& [from_ms, to_ms] : JOBS_MS) {
        for (int64_t end_ms = from_ms; end_ms <= to_ms; end_ms += 500) {
            task t = whole;
            t.days = static_cast<double>(end_ms) / 86'400'000;
            std::erase_if(t.plan, [end_ms](const event& e) { return e.at_ms >= end_ms; });
            const outcome seen = run(t);
            if (seen.what != verdict::GOOD) {
                fprintf(stdout, "the story that ends after %lld ms: %s\n%s\n", static_cast<long long>(end_ms),
                        seen.reason, seen.tail);
                return false;
            }
        }
    }
    return true;
}

}  // namespace

bool fail_every_call(int jobs, int max_nth, double max_minutes) {
    const auto began = std::chrono::steady_clock::now();
    const auto elapsed_s = [began] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    };
    task t;
    t.seed = 1;
    t.days = STORY_DAYS;
    t.plan = story();
    const outcome clean = run(t);
    if (clean.what != verdict::GOOD) {
        fprintf(stdout, "the story itself: %s\n%s\n", clean.reason, clean.tail);
        return false;
    }

    if (!ends_in_jobs(t)) {
        return false;
    }

    std::vector<fault> faults;
    uint64_t longest = 0;
    for (int i = 0; i < CALLS; ++i) {
        longest = std::max(longest, clean.calls[i]);
    }
    if (max_nth > 0) {
        longest = std::min(longest, static_cast<uint64_t>(max_nth));
    }
    for (uint64_t nth = 1; nth <= longest; ++nth) {  // the first of every call first
        for (int i = 0; i < CALLS; ++i) {
            for (const int errnum : errnos_of(static_cast<call>(i))) {
                for (const bool forever : {false, true}) {
                    const fault f = {static_cast<call>(i), errnum, nth, forever};
                    if (nth <= clean.calls[i] && makes_sense(f)) {
                        faults.push_back(f);
                    }
                }
            }
        }
    }

    struct running {
        fault* f;
        started s;
    };
    std::deque<running> lives;
    uint64_t injected = 0;
    uint64_t documented = 0;
    uint64_t violations = 0;
    size_t next = 0;
    const auto wants_more = [&] {
        return next < faults.size() && (max_minutes <= 0 || elapsed_s() < max_minutes * 60);
    };
    while (wants_more() || !lives.empty()) {
        while (wants_more() && lives.size() < static_cast<size_t>(jobs)) {
            fault* f = &faults[next++];
            t.prepare = set_fault;
            t.context = f;
            lives.push_back({f, start(t)});
        }
        const running r = lives.front();
        lives.pop_front();
        const outcome seen = finish(r.s);
        injected += seen.counts.failures;
        documented += seen.what == verdict::DOCUMENTED_END ? 1 : 0;
        if (seen.what == verdict::VIOLATION && ++violations <= 40) {
            fprintf(stdout, "%s call %" PRIu64 " with errno %d%s: VIOLATION: %s\n", name_of(r.f->which), r.f->nth,
                    r.f->errnum, r.f->forever ? ", and from then on" : "", seen.reason);
            fprintf(stdout, "again: script/sim --log --fail-call %s,%" PRIu64 ",%d,%d\n", name_of(r.f->which), r.f->nth,
                    r.f->errnum, r.f->forever ? 1 : 0);
            fflush(stdout);
        }
    }
    fprintf(stdout,
            "%zu of %zu stories with a failing call in %.0f s; %" PRIu64 " injected failures, %" PRIu64
            " ended where documented, %" PRIu64 " violations\n",
            next, faults.size(), elapsed_s(), injected, documented, violations);
    return violations == 0;
}

bool fail_one_call(const std::string& name, uint64_t nth, int errnum, bool forever) {
    for (int i = 0; i < CALLS; ++i) {
        if (name != name_of(static_cast<call>(i))) {
            continue;
        }
        fault f = {static_cast<call>(i), errnum, nth, forever};
        task t;
        t.seed = 1;
        t.days = STORY_DAYS;
        t.plan = story();
        t.is_loud = true;
        t.prepare = set_fault;
        t.context = &f;
        const outcome seen = run(t);
        fprintf(stdout, "%s\n", seen.what == verdict::VIOLATION ? seen.reason : "no violation");
        return seen.what != verdict::VIOLATION;
    }
    fprintf(stderr, "no call is named %s\n", name.c_str());
    return false;
}

}  // namespace sim
