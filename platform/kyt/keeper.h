// The thread beside the loop, where everything waits for the card. It shares no lock with the loop.
//
//   loop                              thread
//   changes slots in memory      ->   once a second, and when woken: writes the sectors that differ; once a second it
//                                     also synchronises them
//   sets up a comparison, WORK   ->   compares the folder with the list, DONE
//   takes over its results, IDLE
#pragma once

#include <atomic>
#include <pthread.h>

#include "handle.h"

namespace kyt {

// Finds the sectors of a list that are not in its file as they are in memory, and writes those.
//
// A sector is known by the sum of what was last written. A refused write forgets the sums of what it was to bring, and
// a refused synchronisation those that are not SYNCED: these sectors are written again, and no others. Cost: the sums,
// 256 multiplications of 32 bits for each sector and second.
struct writer {
    store list;                          // its `used` does not count
    std::atomic<bool> abandoned{false};  // nothing may be written any more
    bool unsynced = false;               // something was written since the last synchronisation
    bool said_no_room = false;
};

// Writes what differs in the first `used` slots, and with `sync` waits until it is on the card. The file grows first,
// ahead of need; records that do not fit stay in memory. False, with errno: not everything; the next call tries again.
bool write_changes(writer* w, uint32_t used, bool sync);

enum class phase : uint8_t { IDLE, WORK, DONE };

// A comparison of the folder with the list. The thread's during WORK, otherwise the loop's. What it finds is a
// proposal: the list may have changed meanwhile.
struct comparison {
    static constexpr uint32_t MAX_MISSING = 4096;

    uint32_t horizon = 0;     // all clips of periods that begin earlier should be listed
    array<uint32_t> listed;   // ts of the live records, ascending; freed at the end
    array<uint32_t> deleted;  // ts of deleted clips, ascending; at the end only those whose files are gone
    array<uint32_t> missing;  // clips on the card that are neither, MAX_MISSING at most: the others are found next time
};

struct keeper {
    std::atomic<uint32_t> owners{2};  // the last one frees: the thread may be reading the slots when the loop is done
    std::atomic<phase> at{phase::IDLE};
    std::atomic<uint32_t> used{0};  // slots; the loop's
    std::atomic<bool> ending{false};
    std::atomic<bool> woken{false};    // so that many changes make one call
    std::atomic<uint32_t> asked{0};    // counts requests to have everything on the card,
    std::atomic<uint32_t> brought{0};  // and those that are fulfilled
    uint32_t live_at_end = 0;          // records; set before `ending`
    int wake = -1;                     // eventfd
    pthread_t thread = {};
    comparison work;
    writer file;

    // The thread's own.
    int folder = -1;
    bool failing = false;  // the card has refused something that is not on it yet, and the log says so
    uint64_t last_sync_ms = 0;
};

// Starts the thread, which owns the descriptors and the list's memory from then on; its slots stay the loop's to
// change. Null: errno says why, and everything is still the caller's. Loop thread.
keeper* keeper_start(int folder, const store& list);
// Has the thread write soon. Loop thread; waits for nothing.
void keeper_wake(keeper* k);
// Brings everything to the card, seals the file as closed with so many live records, and waits for that.
void keeper_close(keeper* k, uint32_t live);
// Lets go of the thread, which writes nothing any more and ends by itself. Waits for nothing and takes no lock.
void keeper_abandon(keeper* k);

}  // namespace kyt
