// The comparison of the folder with the list, on copies that the loop has made. It stops for the flush of each second
// and for the end of the session.
#include "folder.h"
#include "keeper.h"

namespace kyt {
namespace {

// All periods that there are, and those of deleted clips: one that does not exist any more has none of them, also when
// the folder cannot be read to its end.
void list_periods(const keeper& k, array<uint32_t>* periods) {
    (void)folder_periods(k.folder, periods);
    for (const uint32_t ts : k.work.deleted) {
        if (periods->size == 0 || (*periods)[periods->size - 1] != period_of(ts)) {
            periods->push(period_of(ts));
        }
    }
    sort_unique(periods);
}

}  // namespace

void compare(keeper* k) {
    comparison& work = k->work;
    array<uint32_t> periods;
    work.missing.size = 0;
    uint32_t gone = 0;
    const uint32_t* deleted = work.deleted.begin();
    list_periods(*k, &periods);
    for (const uint32_t period : periods) {
        keeper_tick(k);
        if (k->ending.load() || periods.failed) {
            break;
        }
        array<uint32_t> clips;
        const bool is_read = folder_clips(k->folder, period, &clips) == 0;
        std::sort(clips.begin(), clips.end());
        const uint32_t* const first = deleted;
        while (deleted != work.deleted.end() && period_of(*deleted) == period) {
            ++deleted;
        }
        for (const uint32_t ts : clips) {
            if (period < work.horizon && !contains(work.listed, ts) && !std::binary_search(first, deleted, ts) &&
                work.missing.size < comparison::MAX_MISSING) {
                work.missing.push(ts);
            }
        }
        for (const uint32_t* ts = first; ts != deleted; ++ts) {
            if (is_read && !contains(clips, *ts)) {
                work.deleted[gone++] = *ts;
            }
        }
    }
    work.deleted.size = gone;
    work.listed.clear();
}

}  // namespace kyt
