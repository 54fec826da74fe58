// veskctl clips [FOLDER]: the clip index, or the part of it that was asked for, read without changing anything; works
// on a copied recordings folder too.
#include <cstdlib>
#include <getopt.h>
#include <poll.h>

#include "kyt_rdonly.h"
#include "tools/clip_text.h"
#include "tools/time_text.h"
#include "tools/veskctl.h"

namespace {

// What was asked for. A clip belongs to the time that it begins at.
struct filter {
    uint32_t from;
    uint32_t to;
    bool marked;    // those that are protected
    bool unmarked;  // those that are not; neither of both: all
    bool follow;    // go on with those that come
};

bool passes(const filter& wanted, const kyt_record* record) {
    const bool marked = (record->flags & KYT_PERSISTENT) != 0;
    return record->ts >= wanted.from && record->ts <= wanted.to &&
           (wanted.marked == wanted.unmarked || (marked ? wanted.marked : wanted.unmarked));
}

bool read_arguments(int argc, char** argv, filter* wanted) {
    static const option table[] = {{"from", required_argument, nullptr, 'f'}, {"to", required_argument, nullptr, 't'},
                                   {"marked", no_argument, nullptr, 'm'},     {"unmarked", no_argument, nullptr, 'u'},
                                   {"follow", no_argument, nullptr, 'w'},     {}};
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
            case 'w':
                wanted->follow = true;
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

constexpr int LOOK_MS = 1000;  // between two looks at the list

// The clips that have been seen, ascending: a list may get clips at any place of it.
struct seen_clips {
    uint32_t* ts;
    size_t count;
};

// Prints what the list has and `seen` has not, which is then replaced. False: out of memory.
bool print_news(const veskctl_options& options, const filter& wanted, kyt_handle* list, seen_clips* seen) {
    auto* const now = static_cast<uint32_t*>(malloc((size_t{kyt_count(list)} + 1) * sizeof(uint32_t)));
    if (now == nullptr) {
        return false;
    }
    size_t count = 0;
    size_t old = 0;
    for (const kyt_record* record = kyt_next(list, nullptr); record != nullptr; record = kyt_next(list, record)) {
        now[count++] = record->ts;
        while (old < seen->count && seen->ts[old] < record->ts) {
            ++old;
        }
        if ((old < seen->count && seen->ts[old] == record->ts) || !passes(wanted, record)) {
            continue;
        }
        if (options.json) {
            clip_print_json(record);
            putchar('\n');
        } else {
            clip_print_text(record);
        }
    }
    free(seen->ts);
    *seen = {now, count};
    return true;
}

// Shows clips as they come, until interrupted or until nobody reads. A card that is away is waited for.
int follow(const veskctl_options& options, const filter& wanted, const char* folder) {
    seen_clips seen = {};
    bool waiting = false;
    if (!options.json) {
        clip_print_heading();
    }
    for (;;) {
        int code = VESKCTL_DONE;
        kyt_handle* const list = veskctl_open_list(folder, &code);
        if (list == nullptr && code != VESKCTL_NO_CARD) {
            free(seen.ts);
            return code;
        }
        if (list == nullptr && !waiting) {
            fprintf(stderr, "veskctl: %s: no clip index there; waiting for one\n", folder);
        }
        waiting = list == nullptr;
        const bool ok = list == nullptr || print_news(options, wanted, list, &seen);
        kyt_close(list);
        if (!ok || fflush(stdout) != 0) {
            free(seen.ts);
            return VESKCTL_FAILED;
        }
        poll(nullptr, 0, LOOK_MS);
    }
}

}  // namespace

int veskctl_clips(const veskctl_options& options, int argc, char** argv) {
    filter wanted = {0, UINT32_MAX, false, false, false};
    if (!read_arguments(argc, argv, &wanted)) {
        return VESKCTL_USAGE;
    }
    const char* folder = optind < argc ? argv[optind] : VESKCTL_FOLDER;
    if (wanted.follow) {
        return follow(options, wanted, folder);
    }
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
        clip_print_heading();
    }
    for (const kyt_record* record = kyt_next(list, nullptr); record != nullptr; record = kyt_next(list, record)) {
        if (!passes(wanted, record)) {
            continue;
        }
        if (options.json) {
            fputs(first ? "\n" : ",\n", stdout);
            clip_print_json(record);
        } else {
            clip_print_text(record);
        }
        first = false;
    }
    if (options.json) {
        puts("\n]");
    }
    kyt_close(list);
    return VESKCTL_DONE;
}
