// Makes a failing life short: leaves out events, first many at once, then fewer, as long as it still fails the same
// way.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "runner.h"

namespace sim {
namespace {

// What failed, without the numbers in it, which differ from one run to the next.
std::string sort_of(const outcome& o) {
    std::string text = o.reason;
    std::erase_if(text, [](unsigned char c) { return std::isdigit(c) != 0; });
    return text;
}

}  // namespace

std::vector<size_t> shrink(const task& failing, const outcome& seen, int max_runs) {
    std::vector<size_t> kept;
    for (size_t i = 0; i < failing.plan.size(); ++i) {
        // Nothing after the end has to do with it; a crash does not tell when it was.
        if (seen.counts.simulated_ms == 0 || failing.plan[i].at_ms <= seen.counts.simulated_ms) {
            kept.push_back(i);
        }
    }
    const std::string sort = sort_of(seen);
    const auto fails = [&](const std::vector<size_t>& places) {
        task t = failing;
        t.is_loud = false;
        t.is_mute = true;
        t.plan.clear();
        for (const size_t place : places) {
            t.plan.push_back(failing.plan[place]);
        }
        const outcome o = run(t);
        return o.what == verdict::VIOLATION && sort_of(o) == sort;
    };
    size_t chunk = std::max<size_t>(1, kept.size() / 2);
    while (max_runs > 0) {
        bool is_shorter = false;
        for (size_t begin = 0; begin < kept.size() && max_runs > 0;) {
            std::vector<size_t> rest(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(begin));
            rest.insert(rest.end(), kept.begin() + static_cast<std::ptrdiff_t>(std::min(begin + chunk, kept.size())),
                        kept.end());
            --max_runs;
            if (fails(rest)) {
                kept = std::move(rest);
                is_shorter = true;
            } else {
                begin += chunk;
            }
        }
        if (chunk == 1 && !is_shorter) {
            break;
        }
        chunk = std::max<size_t>(1, chunk / 2);
    }
    return kept;
}

}  // namespace sim
