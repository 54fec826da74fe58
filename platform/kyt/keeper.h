// The list's keeper: one thread beside the loop that does everything that waits for the card.
//
// It brings changes to the card once a second, keeps the file ahead of need, reads what the open took over unread,
// compares the folder with the list, and writes rewritten lists. It works on the file by descriptor, never on the
// mapping, so no bus fault can hit it and nothing needs to be locked against the loop's changes in place. The two sides
// share atomics and one job whose owner is told by `phase`; there is no lock that either could leave behind.
//
// Its end: keeper_close waits until all is on the card. keeper_abandon waits for nothing: the thread may hang in the
// kernel for as long as the card's driver likes, and closes its descriptors and frees what it holds when it comes back.
#pragma once

#include <atomic>
#include <pthread.h>

#include "array.h"
#include "format.h"
#include "repair.h"

namespace kyt {

enum class phase : uint8_t {
    IDLE,     // the loop may set up a job
    WORK,     // thread: compare, and rewrite where asked
    DONE,     // the loop takes the results
    COMMIT,   // thread: the loop uses the new file, make it the list on the card
    DISCARD,  // thread: the loop does not want the new file
};

enum class ending : uint8_t { NONE, CLOSE, ABANDON };

// A comparison of the folder with the list, and a rewriting of the list. Belongs to the loop in IDLE and DONE, to the
// thread otherwise.
struct job {
    static constexpr uint32_t MAX_FOUND = 4096;

    // What to do.
    uint32_t horizon = 0;  // clips of the periods that begin before this should all be in the list
    bool rewrite = false;
    bool mend = false;  // the records may be anything, in any order: `inherited` of them
    uint32_t inherited = 0;
    uint32_t records = 0;    // slots to copy
    array<uint32_t> strays;  // of them: the strays, ascending by ts (list.h)
    array<uint32_t> runs;    // and the slots that they fill, ascending
    bool may_drop = false;   // tombstones of rounds before drop_round are left out
    uint8_t drop_round = 0;

    // What came of it.
    bool complete = false;    // every period was read, and undead holds all there are
    array<uint32_t> missing;  // clips without a record, at most MAX_FOUND
    array<uint32_t> undead;   // clips of deleted records, at most MAX_FOUND
    bool rewritten = false;
    uint32_t new_records = 0;
    array<uint32_t> without_clip;  // records that a mended list leaves out, ascending by ts
};

// What is wrong with records that were taken over unread.
struct findings {
    uint32_t destroyed = 0;
    uint32_t behind = 0;  // slots behind the end that are not free
    bool out_of_order = false;
    bool out_of_memory = false;
    bool any() const { return destroyed > 0 || behind > 0 || out_of_order || out_of_memory; }
};

struct kept_file {
    int fd = -1;
    uint32_t generation = 0;
    std::atomic<uint32_t> used{0};      // slots; the loop's
    std::atomic<uint32_t> capacity{0};  // bytes that the file has for sure; the thread's
};

// How the loop leaves the list at the end: records for which the file had no room.
struct tail {
    int file = 0;  // of the keeper's files, the one that they belong into
    const void* data = nullptr;
    uint32_t bytes = 0;     // 0: there are none
    uint32_t offset = 0;    // in the file
    bool in_order = false;  // what the header says of the whole list
};

struct keeper {
    std::atomic<uint32_t> owners{2};  // the last one frees
    std::atomic<ending> end{ending::NONE};
    std::atomic<phase> at{phase::IDLE};
    std::atomic<uint32_t> changes{0};    // counts what may have changed records; the loop's
    std::atomic<uint32_t> mapped{0};     // bytes of the file that the loop has mapped and locked
    std::atomic<bool> redirty{false};    // a write to the card failed: the loop is to make the pages dirty again
    std::atomic<bool> inspected{false};  // the next three are the loop's
    findings found;
    array<uint32_t> deleted;  // slots
    uint32_t inherited = 0;   // used slots that the open took over unread
    int wake = -1;            // eventfd
    pthread_t thread = {};

    kept_file files[2];  // under LIST_NAMES
    job work;
    tail rest;  // set before the end

    // The thread's own.
    int folder = -1;
    int list = 0;  // which file is the list
    uint32_t flushed_changes = 0;
    uint32_t flush_due = 0;  // flushes that are still owed to the last change
    uint64_t last_flush_ms = 0;
    bool failing = false;      // the last write to the card failed and the log has it
    bool cannot_grow = false;  // the same of growing
    void* window = nullptr;    // grown pages, kept in memory until the loop has locked them
};

// Takes over both descriptors. Null: errno says why, the descriptors are still the caller's.
// inherited: the records were taken over unread.
keeper* keeper_start(int folder, const ready_file& file, bool inherited);
void keeper_wake(keeper* k);
// rest: only the keeper can bring it into the file, for it may be making the file longer at this moment.
void keeper_close(keeper* k, const tail& rest);
void keeper_abandon(keeper* k);

// The thread's parts, in keeper.cpp, inspect.cpp and work.cpp.
inline bool is_ending(const keeper& k) {
    return k.end.load(std::memory_order_acquire) != ending::NONE;
}
inline bool is_abandoned(const keeper& k) {
    return k.end.load(std::memory_order_acquire) == ending::ABANDON;
}
void keeper_tick(keeper* k);   // grows and flushes when it is time
void inspect(keeper* k);       // sets `inspected`, unless the session ends first
void work_do(keeper* k);       // WORK
bool work_commit(keeper* k);   // COMMIT; false: the card refused, try again later
void work_discard(keeper* k);  // DISCARD

}  // namespace kyt
