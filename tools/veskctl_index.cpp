// veskctl index check|repair|export FOLDER|IMAGE: the clip index of a card, a copied folder or a card's image, away
// from the camera.
#include <cerrno>
#include <cstring>
#include <getopt.h>
#include <json-c/json.h>
#include <poll.h>

#include "kyt_rdonly.h"
#include "tools/card_image.h"
#include "tools/clip_text.h"
#include "tools/exchange.h"
#include "tools/veskctl.h"

namespace {

// One thing that can be wrong, how often it is, and how it is called.
struct problem {
    const char* name;  // in JSON
    const char* text;  // with the count in front where it is counted
    uint32_t count;
    bool counted;
};

constexpr size_t PROBLEM_COUNT = 12;

constexpr double FREE_S = 3;  // how long a list in use is waited for
constexpr int LOOK_MS = 50;   // between two tries

bool of_other_card(const kyt_health& health) {
    return health.card != 0 && health.volume != 0 && health.card != health.volume;
}

void list_problems(const kyt_health& h, problem (&problems)[PROBLEM_COUNT]) {
    const bool no_list = h.list[0] == '\0' && h.clips > 0 && !h.header_damaged && !h.other_version;
    const problem all[PROBLEM_COUNT] = {
        {"no_list", "no list", no_list, false},
        {"header_damaged", "the file in the list's place is none", h.header_damaged, false},
        {"other_version", "written by another version", h.other_version, false},
        {"other_byte_order", "from a machine of the other byte order", h.other_byte_order, false},
        {"other_card", "the list belongs to another card", of_other_card(h), false},
        {"wrong_size", "cut short, or made longer", h.wrong_size, false},
        {"destroyed", "records are destroyed", h.destroyed, true},
        {"unreadable", "pages of the list cannot be read", h.unreadable, true},
        {"twice", "records of a clip that has another one", h.twice, true},
        {"clips_not_listed", "clips on the card are not in the list", h.clips_not_listed, true},
        {"records_without_clip", "records are of clips that are gone", h.records_without_clip, true},
        {"undeleted", "deleted clips are still on the card", h.undeleted, true},
    };
    memcpy(problems, all, sizeof all);
}

void print_json(const kyt_health& health, const problem (&problems)[PROBLEM_COUNT], bool in_order) {
    json_object* const object = json_object_new_object();
    json_object_object_add(object, "in_order", json_object_new_boolean(in_order));
    json_object_object_add(object, "list", health.list[0] != '\0' ? json_object_new_string(health.list) : nullptr);
    json_object_object_add(object, "open", json_object_new_boolean(health.open));
    json_object_object_add(object, "records", json_object_new_int64(health.records));
    json_object_object_add(object, "clips", json_object_new_int64(health.clips));
    json_object_object_add(object, "deleted", json_object_new_int64(health.deleted));
    json_object_object_add(object, "out_of_order", json_object_new_boolean(health.out_of_order));
    for (const problem& p : problems) {
        json_object_object_add(object, p.name,
                               p.counted ? json_object_new_int64(p.count) : json_object_new_boolean(p.count != 0));
    }
    veskctl_print_json(object);
}

void print_text(const kyt_health& health, const problem (&problems)[PROBLEM_COUNT], bool in_order) {
    if (health.list[0] != '\0') {
        printf("list      %s, %s%s\n", health.list,
               health.open ? "not closed: in use, or left by a power cut" : "closed",
               health.out_of_order ? ", with late records" : "");
    } else {
        puts("list      none");
    }
    printf("clips     %u on the card, %u in the list\n", health.clips, health.records);
    for (const problem& p : problems) {
        if (p.count > 0 && p.counted) {
            printf("problem   %u %s\n", p.count, p.text);
        } else if (p.count > 0) {
            printf("problem   %s\n", p.text);
        }
    }
    if (in_order) {
        puts("in order");
    }
}

int failed(const char* path) {
    const int error = errno;
    fprintf(stderr, "veskctl: %s: %s\n", path, strerror(error));
    return error == ENOENT ? VESKCTL_NO_CARD : VESKCTL_FAILED;
}

int no_index(const char* path) {
    fprintf(stderr, "veskctl: %s: no clip index there\n", path);
    return VESKCTL_NO_CARD;
}

int check(const veskctl_options& options, const char* path, card_image* image) {
    const int code = card_image_open(path, true, image);
    if (code != VESKCTL_DONE) {
        return code;
    }
    kyt_health health = {};
    if (kyt_check(image->folder, &health) != 0) {
        return failed(path);
    }
    if (health.list[0] == '\0' && health.clips == 0 && !health.header_damaged && !health.other_version) {
        return no_index(path);  // and nothing that one could be made of
    }
    if (image->is_image) {
        health.volume = image->volume;
    }
    problem problems[PROBLEM_COUNT];
    list_problems(health, problems);
    bool in_order = true;
    for (const problem& p : problems) {
        in_order = in_order && p.count == 0;
    }
    (options.json ? print_json : print_text)(health, problems, in_order);
    return in_order ? VESKCTL_DONE : VESKCTL_BAD_LIST;
}

// A program that was killed, or whose card was pulled, may keep the list for a moment longer.
bool repair_when_free(const char* folder) {
    const double end = exchange_clock_s() + FREE_S;
    bool done = kyt_repair(folder) == 0;
    while (!done && errno == EBUSY && exchange_clock_s() < end) {
        poll(nullptr, 0, LOOK_MS);
        done = kyt_repair(folder) == 0;
    }
    return done;
}

int repair(const char* path, card_image* image) {
    int code = card_image_open(path, true, image);
    if (code == VESKCTL_DONE && !repair_when_free(image->folder)) {
        if (errno == EBUSY) {
            fprintf(
                stderr,
                "veskctl: %s: the clip index is in use, and nothing was changed; eject the card or stop vesk_sdcard "
                "first\n",
                path);
            code = VESKCTL_REFUSED;
        } else {
            code = failed(path);
        }
    }
    return code == VESKCTL_DONE && image->is_image ? card_image_write_back(image) : code;
}

int export_list(bool json, const char* path, card_image* image) {
    int code = card_image_open(path, false, image);
    if (code != VESKCTL_DONE) {
        return code;
    }
    kyt_handle* const list = veskctl_open_list(image->folder, &code);
    if (list == nullptr) {
        return code == VESKCTL_NO_CARD ? no_index(path) : code;
    }
    fputs(json ? "[" : "ts,time,seconds,persistent,path\n", stdout);
    const char* between = "\n";
    for (const kyt_record* record = kyt_next(list, nullptr); record != nullptr; record = kyt_next(list, record)) {
        if (json) {
            fputs(between, stdout);
            between = ",\n";
            clip_print_json(record);
        } else {
            clip_print_csv(record);
        }
    }
    fputs(json ? "\n]\n" : "", stdout);
    kyt_close(list);
    return code;
}

int usage() {
    fputs(
        "usage: veskctl index check FOLDER|IMAGE                       what is wrong; changes nothing\n"
        "       veskctl index repair FOLDER|IMAGE                      as the camera does when it finds the card\n"
        "       veskctl index export [--format csv|json] FOLDER|IMAGE  all clips\n",
        stderr);
    return VESKCTL_USAGE;
}

}  // namespace

int veskctl_index(const veskctl_options& options, int argc, char** argv) {
    static const option table[] = {{"format", required_argument, nullptr, 'f'}, {}};
    bool json = options.json;
    bool chosen = false;
    for (int letter; (letter = getopt_long(argc, argv, "", table, nullptr)) != -1;) {
        if (letter != 'f') {
            return usage();
        }
        chosen = strcmp(optarg, "csv") == 0 || strcmp(optarg, "json") == 0;
        if (!chosen) {
            fprintf(stderr, "veskctl: --format cannot be \"%s\"\n", optarg);
            return VESKCTL_USAGE;
        }
        json = optarg[0] == 'j';
    }
    if (argc - optind != 2) {
        return usage();
    }
    const char* const what = argv[optind];
    const char* const path = argv[optind + 1];
    card_image image = {};
    int code = VESKCTL_USAGE;
    if (strcmp(what, "check") == 0 && !chosen) {
        code = check(options, path, &image);
    } else if (strcmp(what, "repair") == 0 && !chosen) {
        code = repair(path, &image);
    } else if (strcmp(what, "export") == 0) {
        code = export_list(json, path, &image);
    } else {
        return usage();
    }
    card_image_close(&image);
    return code;
}
