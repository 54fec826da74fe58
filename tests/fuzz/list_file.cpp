// Input: the recipe of a list file, which is looked at and walked.
#include "kyt_rdonly.h"
#include "lists.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::make_lists(data, size);
    kyt_health health;
    fuzz::require(kyt_check(fuzz::folder().c_str(), &health) == 0, "a folder that can be looked over");
    kyt_handle* list = kyt_open_rdonly(fuzz::folder().c_str());
    fuzz::require((list != nullptr) == (health.list[0] != 0), "read by one and by the other");
    if (list == nullptr) {
        return 0;
    }
    uint32_t last = 0;
    uint32_t count = 0;
    for (kyt_record* record = kyt_next(list, nullptr); record != nullptr; record = kyt_next(list, record)) {
        fuzz::require(record->ts > last, "ascending");
        fuzz::require(kyt_get(list, record->ts) == record, "found by its time");
        last = record->ts;
        ++count;
    }
    fuzz::require(count == kyt_count(list) && count == health.records, "as many as are counted");
    kyt_close(list);
    return 0;
}
