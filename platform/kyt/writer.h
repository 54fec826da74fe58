// Finds the sectors of a list that are not in its file as they are in memory, and writes those.
//
// A sector is known by the sum of what was last written. Bit 0 of a sum says that this is also synchronised: when the
// card refuses a write or a synchronisation, all sectors without it count as not written. So what was refused is
// written again, and nothing else is. Cost: the sums, 128 multiplications of 32 bits a sector, each second.
#pragma once

#include <atomic>

#include "store.h"

namespace kyt {

struct writer {
    store list;                          // its `used` does not count
    std::atomic<bool> abandoned{false};  // nothing may be written any more
    bool unsynced = false;               // something was written since the last synchronisation
    bool said_no_room = false;
};

// Writes what differs in the first `used` slots, and with `sync` waits until it is on the card. The file grows first,
// ahead of need; records that do not fit stay in memory. False, with errno: not everything; the next call tries again.
bool write_changes(writer* w, uint32_t used, bool sync);

}  // namespace kyt
