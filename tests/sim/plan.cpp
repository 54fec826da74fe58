#include "plan.h"

#include <algorithm>
#include <cstdio>

#include "random.h"

namespace sim {
namespace {

// How often a day, on average, in a world in which the kind occurs at all. Clips and what they lead to are most of a
// camera's life.
struct rate {
    kind what;
    const char* name;
    uint32_t per_day;
    uint32_t worlds_percent;  // in how many worlds it occurs
};

constexpr rate RATES[KINDS] = {
    {kind::CLIP, "clip", 900, 95},       {kind::FILL, "fill", 40, 60},     {kind::RELEASE, "release", 40, 60},
    {kind::INSERT, "insert", 60, 100},   {kind::PULL, "pull", 20, 80},     {kind::SWAP, "swap", 10, 60},
    {kind::REQUEST, "request", 150, 90}, {kind::CLOCK, "clock", 10, 40},   {kind::BROKER, "broker", 20, 50},
    {kind::NOTICE, "notice", 20, 40},    {kind::UEVENT, "uevent", 60, 60}, {kind::MOUNT, "mount", 20, 40},
    {kind::HOLD, "hold", 20, 60},        {kind::WRITE, "write", 60, 60},   {kind::CARD, "card", 30, 60},
    {kind::TOOL, "tool", 20, 60},        {kind::LIST, "list", 10, 40},     {kind::FAIL, "fail", 100, 50},
    {kind::SIGNAL, "sigterm", 0, 0},
};

constexpr int64_t DAY_MS = 86'400'000;
constexpr uint32_t SLOW_CARD = 8;  // of the sixteen kinds

// Some cameras just hang on their wall: the card stays in and is written to, and what takes hours has the time to
// happen.
bool happens_on_a_wall(kind what) {
    return what == kind::CLIP || what == kind::WRITE || what == kind::BROKER || what == kind::NOTICE ||
           what == kind::RELEASE;
}

}  // namespace

std::vector<event> make_plan(uint64_t seed, double days) {
    random chance(seed);
    const auto length_ms = static_cast<int64_t>(days * DAY_MS);
    std::vector<event> plan;
    // Most cameras start with a card in the slot.
    const bool is_quiet = chance.percent(15);
    if (is_quiet) {
        const uint32_t what = chance.below(1U << 12) * 16 + SLOW_CARD;
        plan.push_back({0, kind::INSERT, chance.percent(70) ? what : what + 1, chance.below(1U << 16)});
    } else if (chance.percent(70)) {
        plan.push_back({0, kind::INSERT, chance.below(1U << 16), chance.below(1U << 16)});
    }
    for (const rate& r : RATES) {
        const bool occurs = chance.percent(r.worlds_percent) && (!is_quiet || happens_on_a_wall(r.what));
        // Some worlds are ten times as quiet, some three times as busy as others.
        const uint64_t tempo = chance.below(3) == 0 ? 10 : 100 + chance.below(200);
        const uint64_t count = occurs ? static_cast<uint64_t>(r.per_day * days) * tempo / 100 + 1 : 0;
        for (uint64_t i = 0; r.per_day > 0 && i < count; ++i) {
            // Half of what happens follows closely upon something else: that is where it hurts.
            int64_t at_ms = static_cast<int64_t>(chance.next() % static_cast<uint64_t>(length_ms));
            if (!plan.empty() && chance.percent(r.what == kind::CLIP ? 10 : 50)) {
                const event& other = plan[chance.below(static_cast<uint32_t>(plan.size()))];
                at_ms = other.at_ms + chance.below(chance.percent(50) ? 50 : 6000);
            }
            plan.push_back({at_ms, r.what, static_cast<uint32_t>(chance.next()), static_cast<uint32_t>(chance.next())});
        }
    }
    std::stable_sort(plan.begin(), plan.end(), [](const event& a, const event& b) { return a.at_ms < b.at_ms; });
    while (!plan.empty() && plan.back().at_ms >= length_ms) {
        plan.pop_back();
    }
    return plan;
}

const char* name_of(kind what) {
    return RATES[static_cast<int>(what)].name;
}

std::string describe(const event& e) {
    char text[96];
    snprintf(text, sizeof text, "%lld.%03lld s %s %u %u", static_cast<long long>(e.at_ms / 1000),
             static_cast<long long>(e.at_ms % 1000), name_of(e.what), e.a, e.b);
    return text;
}

}  // namespace sim
