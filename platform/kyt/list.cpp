#include "list.h"

namespace kyt {
namespace {

// The first run that ends behind `slot`: the one that holds it, or the next one.
uint32_t run_at(const array<slots>& runs, uint32_t slot) {
    const slots* found = std::partition_point(runs.begin(), runs.end(), [&](const slots& r) { return r.end <= slot; });
    return static_cast<uint32_t>(found - runs.begin());
}

bool holds(const array<slots>& runs, uint32_t run, uint32_t slot) {
    return run < runs.size && runs[run].first <= slot;
}

// `slot` itself when it is of the main row (or the end), else the first one of the main row behind it.
uint32_t to_main(const list& l, uint32_t slot) {
    const uint32_t run = run_at(l.stray_runs, slot);
    return holds(l.stray_runs, run, slot) ? l.stray_runs[run].end : slot;
}

bool is_stray(const list& l, uint32_t slot) {
    return holds(l.stray_runs, run_at(l.stray_runs, slot), slot);
}

// Among which slots of the main row the first one is whose ts is `ts` or more; the end counts as one.
//
// In a list without strays: a page. The search for it stays in two pages of memory.
slots page_of(const list& l, uint32_t ts) {
    uint32_t first = 0;
    for (uint32_t left = l.page_ends.size; left > 0;) {
        const uint32_t half = left / 2;
        uint32_t& known = l.page_ends.data[first + half];
        if (known == 0) {
            known = l.at[(first + half + 1) * list::PAGE - 1].ts;
        }
        const bool below = known < ts;
        first = below ? first + half + 1 : first;
        left = below ? left - half - 1 : half;
    }
    return {first * list::PAGE, first < l.page_ends.size ? (first + 1) * list::PAGE : l.count};
}

// In any list: what lies unbroken between two runs of them; the run that ends such a piece has its last record just
// before it.
slots piece_of(const list& l, uint32_t ts) {
    const slots* run = std::partition_point(l.stray_runs.begin(), l.stray_runs.end(),
                                            [&](const slots& r) { return l.at[r.first - 1].ts < ts; });
    return {run == l.stray_runs.begin() ? 0 : run[-1].end, run == l.stray_runs.end() ? l.count : run->first};
}

// The first slot of the main row whose ts is `ts` or more, or count.
uint32_t main_from(const list& l, uint32_t ts) {
    const slots among = l.strays.size == 0 ? page_of(l, ts) : piece_of(l, ts);
    const kyt_record* found =
        std::partition_point(l.at + among.first, l.at + among.end, [&](const kyt_record& r) { return r.ts < ts; });
    return static_cast<uint32_t>(found - l.at);
}

// The index in strays of the first one whose ts is `ts` or more.
uint32_t stray_from(const list& l, uint32_t ts) {
    const uint32_t* found =
        std::partition_point(l.strays.begin(), l.strays.end(), [&](uint32_t slot) { return l.at[slot].ts < ts; });
    return static_cast<uint32_t>(found - l.strays.begin());
}

bool is_whole(const kyt_record& record) {
    const slot kind = slot_kind(record);
    return kind == slot::LIVE || kind == slot::DELETED;
}

// Noise passes for a record once in 65,536 times, but not among its neighbours as well.
bool is_between_whole(const list& l, uint32_t slot) {
    const kyt_record* const record = l.at + slot;
    return (slot == 0 || (is_whole(record[-1]) && record[-1].ts < record->ts)) &&
           (slot + 1 >= l.unread || (is_whole(record[1]) && record->ts < record[1].ts));
}

bool is_shown(const list& l, uint32_t slot, uint32_t above) {
    return is_live(l.at[slot]) && (slot >= l.unread || is_between_whole(l, slot)) &&
           (l.unread == 0 || l.ordered || l.at[slot].ts > above);
}

// The first live one from `slot` on; of a list that may not be in order, with a ts above `above`.
uint32_t live_main(const list& l, uint32_t slot, uint32_t above) {
    while (slot < l.count && !is_shown(l, slot, above)) {
        const uint32_t run = run_at(l.dead_runs, slot);
        slot = to_main(l, holds(l.dead_runs, run, slot) ? l.dead_runs[run].end : slot + 1);
    }
    return slot;
}

uint32_t live_stray(const list& l, uint32_t stray) {
    stray = std::max(stray, l.first_stray);
    while (stray < l.strays.size && !is_shown(l, l.strays[stray], 0)) {
        ++stray;
    }
    return stray;
}

uint32_t lower_of(const list& l, uint32_t main, uint32_t stray) {
    if (stray == l.strays.size) {
        return main == l.count ? list::NONE : main;
    }
    const uint32_t slot = l.strays[stray];
    return main == l.count || l.at[slot].ts < l.at[main].ts ? slot : main;
}

// Where a walk stands that has just been at `slot`: the next of the main row and the next stray, tombstones included.
void step(const list& l, uint32_t slot, uint32_t* main, uint32_t* stray) {
    *main = 0;
    *stray = 0;
    if (slot == list::NONE) {
        return;
    }
    if (l.strays.size == 0) {
        *main = slot + 1;
        return;
    }
    const uint32_t ts = l.at[slot].ts;
    if (ts == UINT32_MAX) {
        *main = l.count;
        *stray = l.strays.size;
        return;
    }
    *main = is_stray(l, slot) ? main_from(l, ts + 1) : to_main(l, slot + 1);
    *stray = stray_from(l, ts + 1);
}

void remember_dead(list* l, uint32_t slot) {
    l->live_from = std::max(l->live_from, slot + 1);
    array<slots>& runs = l->dead_runs;
    const uint32_t end = to_main(*l, slot + 1);
    const uint32_t next = run_at(runs, slot);
    const bool joins_next = next < runs.size && runs[next].first == end;
    const bool joins_last = next > 0 && to_main(*l, runs[next - 1].end) == slot;
    if (joins_last && joins_next) {
        runs[next - 1].end = runs[next].end;
        runs.erase(next);
    } else if (joins_last) {
        runs[next - 1].end = end;
    } else if (joins_next) {
        runs[next].first = slot;
    } else if (runs.size < list::MAX_DEAD_RUNS) {
        (void)runs.insert(next, {slot, end});  // not remembered: a walk skips it slot by slot instead
    }
}

// Makes room for taking one slot out of the middle of a run.
bool forget_dead(list* l, uint32_t slot) {
    array<slots>& runs = l->dead_runs;
    const uint32_t run = run_at(runs, slot);
    if (!holds(runs, run, slot)) {
        return true;
    }
    const slots whole = runs[run];
    const uint32_t behind = to_main(*l, slot + 1);
    if (whole.first == slot && behind >= whole.end) {
        runs.erase(run);
    } else if (whole.first == slot) {
        runs[run].first = behind;
    } else if (behind >= whole.end) {
        runs[run].end = slot;
    } else {
        if (!runs.insert(run + 1, {behind, whole.end})) {
            return false;
        }
        runs[run].end = slot;
    }
    return true;
}

// Of each page that `count` slots fill, nobody has looked at the end yet. Without memory the rest is searched as one
// page.
void note_pages(list* l) {
    while (l->page_ends.size < l->count / list::PAGE && l->page_ends.push(0)) {
    }
}

// Enters slot `count` into the order; its record need not be there yet. False: out of memory, nothing changed. sorted:
// among the strays at its place, not behind them.
bool enter(list* l, uint32_t ts, bool sorted) {
    const uint32_t slot = l->count;
    if (l->last_main == list::NONE || ts > l->at[l->last_main].ts) {
        l->last_main = slot;
        ++l->count;
        note_pages(l);
        return true;
    }
    const uint32_t stray = sorted ? stray_from(*l, ts) : l->strays.size;
    if (!l->strays.reserve(l->strays.size + 1) || !l->stray_runs.reserve(l->stray_runs.size + 1)) {
        return false;
    }
    (void)l->strays.insert(stray, slot);
    l->first_stray = std::min(l->first_stray, stray);
    array<slots>& runs = l->stray_runs;
    if (runs.size > 0 && runs[runs.size - 1].end == slot) {
        ++runs[runs.size - 1].end;
    } else {
        (void)runs.push({slot, slot + 1});
    }
    ++l->count;
    note_pages(l);
    return true;
}

// To be called after whatever changes the row's ends, what is deleted, or the strays.
void note_plain(list* l) {
    const uint32_t first = std::max(l->live_from, 1U) - 1;
    const bool plain = l->strays.size == 0 && l->unread == 0 && first + 1 < l->count;
    l->plain_at = reinterpret_cast<uintptr_t>(l->at + first);
    l->plain_bytes = plain ? size_t{l->count - 1 - first} * sizeof(kyt_record) : 0;
}

}  // namespace

bool list_load(list* l, kyt_record* at, uint32_t count) {
    list_clear(l);
    l->at = at;
    for (uint32_t slot = 0; slot < count; ++slot) {
        if (!enter(l, at[slot].ts, false)) {
            list_clear(l);
            return false;
        }
        if (is_live(at[slot])) {
            ++l->live;
        } else if (!is_stray(*l, slot)) {
            remember_dead(l, slot);
        }
    }
    // Once and not as they come: there may be as many as there are records. Of two with one ts the live one counts.
    std::sort(l->strays.begin(), l->strays.end(), [at](uint32_t a, uint32_t b) {
        return at[a].ts != at[b].ts ? at[a].ts < at[b].ts : is_live(at[a]) && !is_live(at[b]);
    });
    l->first_stray = 0;
    note_plain(l);
    return true;
}

void list_take_unread(list* l, kyt_record* at, uint32_t count) {
    list_clear(l);
    l->at = at;
    l->count = l->live = l->unread = count;
    l->last_main = count > 0 ? count - 1 : list::NONE;
    note_pages(l);
}

bool list_order_unread(list* l) {
    list order;
    if (!list_load(&order, l->at, l->count)) {
        return false;
    }
    const auto is_news = [l](uint32_t slot) {
        return slot < l->unread && slot_kind(l->at[slot]) == slot::DELETED && !list_may_have_deleted(*l, slot);
    };
    for (const slots& run : order.dead_runs) {
        for (uint32_t slot = run.first; slot < run.end; ++slot) {
            order.found_deleted += is_news(slot) ? 1 : 0;
        }
    }
    for (const uint32_t slot : order.strays) {
        order.found_deleted += is_news(slot) ? 1 : 0;
    }
    order.unread = l->unread;
    order.ordered = true;
    l->swap(order);
    return true;
}

void list_trust(list* l) {
    l->unread = 0;
    note_plain(l);
}

void list_clear(list* l) {
    l->at = nullptr;
    l->count = l->live = l->first_stray = l->live_from = l->unread = 0;
    l->found_deleted = 0;
    l->ordered = false;
    l->plain_bytes = 0;
    l->last_main = list::NONE;
    l->page_ends.clear();
    l->strays.clear();
    l->stray_runs.clear();
    l->dead_runs.clear();
}

uint32_t list_find(const list& l, uint32_t ts) {
    const uint32_t main = main_from(l, ts);
    if (main < l.count && l.at[main].ts == ts) {
        return main;
    }
    const uint32_t stray = stray_from(l, ts);
    return stray < l.strays.size && l.at[l.strays[stray]].ts == ts ? l.strays[stray] : list::NONE;
}

uint32_t list_next(const list& l, uint32_t slot) {
    uint32_t main = 0;
    uint32_t stray = 0;
    step(l, slot, &main, &stray);
    return lower_of(l, live_main(l, main, slot == list::NONE ? 0 : l.at[slot].ts), live_stray(l, stray));
}

uint32_t list_next_any(const list& l, uint32_t slot) {
    uint32_t main = 0;
    uint32_t stray = 0;
    step(l, slot, &main, &stray);
    return lower_of(l, main, stray);
}

bool list_append(list* l, const kyt_record& record) {
    const uint32_t slot = l->count;
    if (!enter(l, record.ts, true)) {
        return false;
    }
    l->at[slot] = record;
    if (is_live(record)) {
        ++l->live;
    } else if (!is_stray(*l, slot)) {
        remember_dead(l, slot);
    }
    note_plain(l);
    return true;
}

bool list_revive(list* l, uint32_t slot, const kyt_record& record) {
    if (is_stray(*l, slot)) {
        l->first_stray = std::min(l->first_stray, stray_from(*l, record.ts));
    } else if (!forget_dead(l, slot)) {
        return false;
    }
    // One that was taken over unread and is not whole has been counted as live.
    const bool counted = slot < l->unread && !l->ordered && slot_kind(l->at[slot]) != slot::DELETED;
    l->live += counted ? 0 : 1;
    l->at[slot] = record;
    return true;
}

void list_delete(list* l, uint32_t slot, uint8_t round) {
    l->at[slot] = deleted_record(l->at[slot], round);
    --l->live;
    if (!is_stray(*l, slot)) {
        remember_dead(l, slot);
        note_plain(l);
        return;
    }
    while (l->first_stray < l->strays.size && !is_live(l->at[l->strays[l->first_stray]])) {
        ++l->first_stray;
    }
}

bool list_may_have_deleted(const list& l, uint32_t slot) {
    return l.dead_runs.size == list::MAX_DEAD_RUNS || holds(l.dead_runs, run_at(l.dead_runs, slot), slot);
}

}  // namespace kyt
