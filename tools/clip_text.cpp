#include "tools/clip_text.h"

#include <cstdio>
#include <json-c/json.h>

#include "kyt_rdonly.h"
#include "tools/time_text.h"
#include "tools/veskctl.h"

namespace {

constexpr size_t PATH_SIZE = 256;

// The clip's path below the recordings folder, without extension.
const char* clip_path(uint32_t ts, char (&buffer)[PATH_SIZE]) {
    return kyt_ts2path(ts, buffer, sizeof buffer, 0) < 0 ? "" : buffer + sizeof VESKCTL_FOLDER;
}

}  // namespace

void clip_print_heading() {
    printf("%-20s  %6s  %-9s  %s\n", "time", "length", "mark", "clip");
}

void clip_print_json(const kyt_record* record) {
    char when[TIME_TEXT];
    char path[PATH_SIZE];
    time_to_text(record->ts, when);
    json_object* object = json_object_new_object();
    json_object_object_add(object, "ts", json_object_new_int64(record->ts));
    json_object_object_add(object, "time", json_object_new_string(when));
    const uint32_t seconds = kyt_record_seconds(record);
    json_object_object_add(object, "seconds",
                           seconds != 0 ? json_object_new_int(static_cast<int32_t>(seconds)) : nullptr);
    json_object_object_add(object, "persistent", json_object_new_boolean((record->flags & KYT_PERSISTENT) != 0));
    json_object_object_add(object, "path", json_object_new_string(clip_path(record->ts, path)));
    fputs(json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE), stdout);
    json_object_put(object);
}

void clip_print_text(const kyt_record* record) {
    char when[TIME_TEXT];
    char path[PATH_SIZE];
    char seconds[16] = "-";
    time_to_text(record->ts, when);
    if (kyt_record_seconds(record) != 0) {
        snprintf(seconds, sizeof seconds, "%u s", kyt_record_seconds(record));
    }
    printf("%-20s  %6s  %-9s  %s\n", when, seconds, (record->flags & KYT_PERSISTENT) != 0 ? "protected" : "-",
           clip_path(record->ts, path));
}

void clip_print_csv(const kyt_record* record) {
    char when[TIME_TEXT];
    char path[PATH_SIZE];
    char seconds[16] = "";
    time_to_text(record->ts, when);
    if (kyt_record_seconds(record) != 0) {
        snprintf(seconds, sizeof seconds, "%u", kyt_record_seconds(record));
    }
    printf("%u,%s,%s,%d,%s\n", record->ts, when, seconds, (record->flags & KYT_PERSISTENT) != 0 ? 1 : 0,
           clip_path(record->ts, path));
}
