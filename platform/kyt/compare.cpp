// The comparison of the folder with the list, on copies that the loop has made. It stops for the flush of each second
// and for the end of the session.
#include <cerrno>

#include "folder.h"
#include "keeper.h"

namespace kyt {
namespace {

bool has(const array<uint32_t>& sorted, uint32_t ts) {
    return std::binary_search(sorted.begin(), sorted.end(), ts);
}

// All periods that there are, and those of deleted clips: one that does not exist any more has none of them, also when
// the folder cannot be read to its end. False: out of memory.
bool list_periods(const keeper& k, array<uint32_t>* periods) {
    if (folder_periods(k.folder, periods) < 0 && errno == ENOMEM) {
        return false;
    }
    for (const uint32_t ts : k.work.deleted) {
        if ((periods->size == 0 || (*periods)[periods->size - 1] != period_of(ts)) && !periods->push(period_of(ts))) {
            return false;
        }
    }
    std::sort(periods->begin(), periods->end());
    periods->size = static_cast<uint32_t>(std::unique(periods->begin(), periods->end()) - periods->begin());
    return true;
}

}  // namespace

void compare(keeper* k) {
    comparison& work = k->work;
    array<uint32_t> periods;
    array<uint32_t> clips;
    work.missing.size = 0;
    uint32_t gone = 0;
    const uint32_t* deleted = work.deleted.begin();
    if (!list_periods(*k, &periods)) {
        periods.size = 0;
    }
    for (const uint32_t period : periods) {
        keeper_tick(k);
        if (k->ending.load(std::memory_order_acquire)) {
            break;
        }
        clips.size = 0;
        const bool is_read = folder_clips(k->folder, period, &clips) == 0;
        std::sort(clips.begin(), clips.end());
        const uint32_t* const first = deleted;
        while (deleted != work.deleted.end() && period_of(*deleted) == period) {
            ++deleted;
        }
        for (const uint32_t ts : clips) {
            if (period < work.horizon && !has(work.listed, ts) && !std::binary_search(first, deleted, ts) &&
                work.missing.size < comparison::MAX_MISSING) {
                (void)work.missing.push(ts);
            }
        }
        for (const uint32_t* ts = first; ts != deleted; ++ts) {
            if (is_read && !has(clips, *ts)) {
                work.deleted[gone++] = *ts;
            }
        }
    }
    work.deleted.size = gone;
    work.listed.clear();
}

}  // namespace kyt
