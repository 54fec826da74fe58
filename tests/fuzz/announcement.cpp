// Input: what the recorder sets its key to, parsed by the list library.
#include <cstdlib>
#include <cstring>

#include "kyt.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A copy of exactly the size: the text carries no NUL, and a look behind its end shows.
    auto* text = static_cast<char*>(malloc(size));
    if (size > 0) {
        memcpy(text, data, size);
    }
    kyt_record record;
    memset(&record, 0x5a, sizeof record);
    if (kyt_record_parse(&record, text, size) == 0) {
        fuzz::require(record.ts != 0, "a record has a time");
        char path[4096];
        const int length = kyt_ts2path(record.ts, path, sizeof path, 0);
        fuzz::require(length > 0 && path[length] == '\0' && strlen(path) == static_cast<size_t>(length), "its path");
    } else {
        kyt_record untouched;
        memset(&untouched, 0x5a, sizeof untouched);
        fuzz::require(memcmp(&record, &untouched, sizeof record) == 0, "a record that failed is untouched");
    }
    free(text);
    return 0;
}
