// veskctl save and delete: what the daemon does with single clips. It answers alike whether a clip exists or not, so
// where the clip index can be read, that is what tells what became of them. The daemon's index is in its memory: the
// file on the card has a mark up to a second later, and more on a slow card.
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <json-c/json.h>
#include <poll.h>

#include "kyt_rdonly.h"
#include "tools/action.h"
#include "tools/exchange.h"
#include "tools/time_text.h"
#include "tools/veskctl.h"
#include "tools/volume.h"

namespace {

constexpr double LOOK_AGAIN_S = 2;  // for this long, until all clips are as they were asked to be
constexpr int LOOK_MS = 100;        // between two looks

struct order {
    const char* name;    // "save"
    const char* action;  // the daemon's name of it
    const char* done;    // "protected"
    uint32_t* clips;
    uint32_t count;
};

// The index of this machine's card, null where there is none to be seen.
kyt_handle* open_index() {
    char device[VOLUME_PATH];
    int code = VESKCTL_DONE;
    return veskctl_is_local() && volume_mounted(device) ? veskctl_open_list(VESKCTL_FOLDER, &code) : nullptr;
}

bool read_clips(order* asked, char** argv, int count) {
    asked->clips = static_cast<uint32_t*>(calloc(static_cast<size_t>(count), sizeof *asked->clips));
    for (int i = 0; i < count; ++i) {
        if (asked->clips == nullptr || !time_from_text(argv[i], &asked->clips[i])) {
            fprintf(stderr, "veskctl: \"%s\" is no time\n", argv[i]);
            return false;
        }
    }
    asked->count = static_cast<uint32_t>(count);
    return true;
}

// Drops those that the index does not know, after a message for each. How many.
uint32_t drop_unknown(order* asked) {
    kyt_handle* index = open_index();
    if (index == nullptr) {
        return 0;
    }
    uint32_t kept = 0;
    for (uint32_t i = 0; i < asked->count; ++i) {
        if (kyt_get(index, asked->clips[i]) != nullptr) {
            asked->clips[kept++] = asked->clips[i];
            continue;
        }
        char when[TIME_TEXT];
        time_to_text(asked->clips[i], when);
        fprintf(stderr, "veskctl: no clip of %s is in the index\n", when);
    }
    kyt_close(index);
    const uint32_t dropped = asked->count - kept;
    asked->count = kept;
    return dropped;
}

// How many of the clips are as they were asked to be; -1: that cannot be seen from here.
int64_t count_done(const order& asked, bool deleted) {
    kyt_handle* index = open_index();
    if (index == nullptr) {
        return -1;
    }
    int64_t count = 0;
    for (uint32_t i = 0; i < asked.count; ++i) {
        const kyt_record* record = kyt_get(index, asked.clips[i]);
        count += deleted ? record == nullptr : record != nullptr && (record->flags & KYT_PERSISTENT) != 0;
    }
    kyt_close(index);
    return count;
}

// The same, after the time that the daemon takes to bring its changes to the card.
int64_t wait_done(const order& asked, bool deleted) {
    const double end = exchange_clock_s() + LOOK_AGAIN_S;
    int64_t count = count_done(asked, deleted);
    while (count >= 0 && count < asked.count && exchange_clock_s() < end) {
        poll(nullptr, 0, LOOK_MS);
        count = count_done(asked, deleted);
    }
    return count;
}

json_object* parameters(const order& asked) {
    json_object* array = json_object_new_array();
    for (uint32_t i = 0; i < asked.count; ++i) {
        json_object_array_add(array, json_object_new_int64(asked.clips[i]));
    }
    return array;
}

void print(const veskctl_options& options, const order& asked, int64_t done) {
    if (options.json) {
        json_object* object = json_object_new_object();
        json_object_object_add(object, "request", json_object_new_string(asked.name));
        json_object_object_add(object, "clips", json_object_new_int64(asked.count));
        json_object_object_add(object, asked.done, done < 0 ? nullptr : json_object_new_int64(done));
        veskctl_print_json(object);
    } else if (done < 0) {
        printf("%s: the daemon took %u clips; whether it has them cannot be seen from here\n", asked.name, asked.count);
    } else {
        printf("%s: %lld of %u clips %s\n", asked.name, static_cast<long long>(done), asked.count, asked.done);
    }
}

int carry_out(const veskctl_options& options, order* asked, bool deleted, bool yes) {
    const uint32_t unknown = drop_unknown(asked);
    if (asked->count == 0) {
        return VESKCTL_FAILED;
    }
    if (deleted && !yes) {
        char question[80];
        (void)snprintf(question, sizeof question, "%u clips will be deleted, protected or not. Delete?", asked->count);
        const int code = veskctl_confirm(question);
        if (code != VESKCTL_DONE) {
            return code;
        }
    }
    json_object* reply = nullptr;
    int result = 0;
    const int code = action_ask(asked->action, parameters(*asked), &reply, &result);
    if (code != VESKCTL_DONE) {
        return code;
    }
    json_object_put(reply);
    if (result != 0) {
        return action_refused(result);
    }
    const int64_t done = wait_done(*asked, deleted);
    print(options, *asked, done);
    return unknown > 0 || (done >= 0 && done < asked->count) ? VESKCTL_FAILED : VESKCTL_DONE;
}

int run(const veskctl_options& options, int argc, char** argv, order asked, bool deleted) {
    static const option deleting[] = {{"yes", no_argument, nullptr, 'y'}, {}};
    bool yes = false;
    for (int letter; (letter = getopt_long(argc, argv, "", deleted ? deleting : deleting + 1, nullptr)) != -1;) {
        if (letter != 'y') {
            return VESKCTL_USAGE;
        }
        yes = true;
    }
    if (optind == argc) {
        fprintf(stderr, "veskctl: %s needs the time of a clip\n", argv[0]);
        return VESKCTL_USAGE;
    }
    const int code =
        read_clips(&asked, argv + optind, argc - optind) ? carry_out(options, &asked, deleted, yes) : VESKCTL_USAGE;
    free(asked.clips);
    return code;
}

}  // namespace

int veskctl_save(const veskctl_options& options, int argc, char** argv) {
    return run(options, argc, argv, {"save", "saveVideo", "protected", nullptr, 0}, false);
}

int veskctl_delete(const veskctl_options& options, int argc, char** argv) {
    return run(options, argc, argv, {"delete", "deleteVideo", "deleted", nullptr, 0}, true);
}
