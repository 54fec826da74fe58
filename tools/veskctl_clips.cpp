// veskctl clips [FOLDER]: the clip index, or the part of it that was asked for, read without changing anything; works
// on a copied recordings folder too.
#include <getopt.h>
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

void print_json(const kyt_record* record) {
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

void print_text(const kyt_record* record) {
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

// What was asked for. A clip belongs to the time that it begins at.
struct filter {
    uint32_t from;
    uint32_t to;
    bool marked;    // those that are protected
    bool unmarked;  // those that are not; neither of both: all
};

bool passes(const filter& wanted, const kyt_record* record) {
    const bool marked = (record->flags & KYT_PERSISTENT) != 0;
    return record->ts >= wanted.from && record->ts <= wanted.to &&
           (wanted.marked == wanted.unmarked || (marked ? wanted.marked : wanted.unmarked));
}

bool read_arguments(int argc, char** argv, filter* wanted) {
    static const option table[] = {{"from", required_argument, nullptr, 'f'},
                                   {"to", required_argument, nullptr, 't'},
                                   {"marked", no_argument, nullptr, 'm'},
                                   {"unmarked", no_argument, nullptr, 'u'},
                                   {}};
    int index = 0;
    for (int letter; (letter = getopt_long(argc, argv, "", table, &index)) != -1;) {
        switch (letter) {
            case 'f':
            case 't':
                if (!time_from_text(optarg, letter == 'f' ? &wanted->from : &wanted->to)) {
                    fprintf(stderr, "veskctl: --%s cannot be \"%s\"\n", table[index].name, optarg);
                    return false;
                }
                break;
            case 'm':
                wanted->marked = true;
                break;
            case 'u':
                wanted->unmarked = true;
                break;
            default:
                return false;
        }
    }
    if (argc - optind > 1) {
        fprintf(stderr, "veskctl: clips does not take \"%s\"\n", argv[optind + 1]);
        return false;
    }
    return true;
}

}  // namespace

int veskctl_clips(const veskctl_options& options, int argc, char** argv) {
    filter wanted = {0, UINT32_MAX, false, false};
    if (!read_arguments(argc, argv, &wanted)) {
        return VESKCTL_USAGE;
    }
    const char* folder = optind < argc ? argv[optind] : VESKCTL_FOLDER;
    int code = VESKCTL_DONE;
    kyt_handle* list = veskctl_open_list(folder, &code);
    if (list == nullptr) {
        if (code == VESKCTL_NO_CARD) {
            fprintf(stderr, "veskctl: %s: no clip index there\n", folder);
        }
        return code;
    }
    // One array, but never all of it in memory: the index of a large card is larger than a camera likes.
    bool first = true;
    if (options.json) {
        putchar('[');
    } else {
        printf("%-20s  %6s  %-9s  %s\n", "time", "length", "mark", "clip");
    }
    for (const kyt_record* record = kyt_next(list, nullptr); record != nullptr; record = kyt_next(list, record)) {
        if (!passes(wanted, record)) {
            continue;
        }
        if (options.json) {
            fputs(first ? "\n" : ",\n", stdout);
            print_json(record);
        } else {
            print_text(record);
        }
        first = false;
    }
    if (options.json) {
        puts("\n]");
    }
    kyt_close(list);
    return VESKCTL_DONE;
}
