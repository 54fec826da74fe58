// Lists that are taken over unread, for tests: a small one is long enough, and the end of the reading can be awaited.
#pragma once

#include <unistd.h>

#include "handle.h"
#include "unread.h"

// While it lives, a list of more than so many records may be taken over unread.
class long_from {
  public:
    explicit long_from(uint32_t records) : before_(kyt::read_whole_up_to) { kyt::read_whole_up_to = records; }
    ~long_from() { kyt::read_whole_up_to = before_; }
    long_from(const long_from&) = delete;
    long_from& operator=(const long_from&) = delete;

  private:
    uint32_t before_;
};

// Waits until the keeper is through, and lets the list know. False: not within 10 s.
inline bool await_inspection(kyt_handle* list) {
    for (int wait = 0; list->order.unread > 0 && !list->distrusted && wait < 100'000; ++wait) {
        (void)kyt_next(list, nullptr);
        usleep(100);
    }
    return list->order.unread == 0 || list->distrusted;
}

// Maintenance until a list that was found damaged is whole and in order. False: it does not come to that.
inline bool mend(kyt_handle* list) {
    for (int round = 0; round < 10; ++round) {
        if (!list->distrusted && list->order.strays.size == 0) {
            return true;
        }
        for (int wait = 0; wait < 100'000; ++wait) {
            const kyt::phase at = list->keeper->at;
            if (at == kyt::phase::DONE || at == kyt::phase::IDLE) {
                break;
            }
            usleep(100);
        }
        if (kyt_optimise(list) != 0) {
            return false;
        }
    }
    return false;
}
