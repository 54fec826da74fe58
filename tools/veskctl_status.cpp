// veskctl status: the card state as published, the space of the mounted card, and the clips in its index.
#include <cstdlib>
#include <cstring>
#include <json-c/json.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "kyt_rdonly.h"
#include "tools/exchange.h"
#include "tools/time_text.h"
#include "tools/veskctl.h"

namespace {

constexpr char MOUNT_POINT[] = "/mnt/sdcard";
constexpr char ACCESS_TOPIC[] = "karvel/mem/default/sdcard_rw";

// What could be learnt; a false flag: nothing known.
struct findings {
    long state;  // -1: not published
    char access[16];
    bool card;
    uint64_t total;
    uint64_t free;
    bool index;
    uint32_t clips;
    uint32_t oldest;
    uint32_t newest;
};

void on_message(const bus_message* message, void* context) {
    auto* found = static_cast<findings*>(context);
    if (message->payload == nullptr) {
        return;
    }
    char text[sizeof found->access] = {};
    memcpy(text, message->payload, message->length < sizeof text ? message->length : sizeof text - 1);
    if (strcmp(message->topic, CARD_STATUS_TOPIC) == 0) {
        char* end = nullptr;
        const long number = strtol(text, &end, 10);
        found->state = end != text && *end == '\0' && veskctl_state_name(number) != nullptr ? number : -1;
    } else if (strcmp(message->topic, ACCESS_TOPIC) == 0) {
        memcpy(found->access, text, sizeof text);
    }
}

// VESKCTL_DONE, or another exit code after a message.
int read_keys(findings* found) {
    exchange talk;
    int code = exchange_open(&talk, on_message, found);
    if (code == VESKCTL_DONE) {
        code = exchange_subscribe(&talk, "karvel/mem/default/+", bus_retained::SEND);
    }
    if (code == VESKCTL_DONE) {
        code = exchange_settle(&talk);
    }
    exchange_close(&talk);
    return code;
}

// Only a card's own space counts, not that of the folder it would be mounted on.
void measure_card(findings* found) {
    struct stat card;
    struct stat parent;
    struct statvfs space;
    if (stat(MOUNT_POINT, &card) != 0 || stat("/mnt", &parent) != 0 || card.st_dev == parent.st_dev ||
        statvfs(MOUNT_POINT, &space) != 0) {
        return;
    }
    found->card = true;
    found->total = uint64_t{space.f_blocks} * space.f_frsize;
    found->free = uint64_t{space.f_bavail} * space.f_frsize;
}

// VESKCTL_DONE also where there is no list: a card that is new has none.
int read_index(findings* found) {
    if (!found->card) {
        return VESKCTL_DONE;
    }
    int code = VESKCTL_DONE;
    kyt_handle* list = veskctl_open_list(VESKCTL_FOLDER, &code);
    if (list == nullptr) {
        return code == VESKCTL_NO_CARD ? VESKCTL_DONE : code;
    }
    found->index = true;
    found->clips = kyt_count(list);
    for (const kyt_record* record = kyt_next(list, nullptr); record != nullptr; record = kyt_next(list, record)) {
        if (found->oldest == 0) {
            found->oldest = record->ts;
        }
        found->newest = record->ts;
    }
    kyt_close(list);
    return VESKCTL_DONE;
}

json_object* time_json(uint32_t ts) {
    char text[TIME_TEXT];
    time_to_text(ts, text);
    return ts != 0 ? json_object_new_string(text) : nullptr;
}

json_object* number_json(bool known, uint64_t value) {
    return known ? json_object_new_int64(static_cast<int64_t>(value)) : nullptr;
}

void print_json(const findings& found) {
    json_object* object = json_object_new_object();
    const char* name = veskctl_state_name(found.state);
    json_object_object_add(object, "state", name != nullptr ? json_object_new_string(name) : nullptr);
    json_object_object_add(object, "state_number", number_json(found.state >= 0, static_cast<uint64_t>(found.state)));
    json_object_object_add(object, "writable",
                           found.access[0] != '\0' ? veskctl_text_json(found.access, strlen(found.access)) : nullptr);
    json_object_object_add(object, "total", number_json(found.card, found.total));
    json_object_object_add(object, "free", number_json(found.card, found.free));
    json_object_object_add(object, "used", number_json(found.card, found.total - found.free));
    json_object_object_add(object, "clips", number_json(found.index, found.clips));
    json_object_object_add(object, "oldest", time_json(found.oldest));
    json_object_object_add(object, "newest", time_json(found.newest));
    veskctl_print_json(object);
}

void print_text(const veskctl_options& options, const findings& found) {
    const char* name = veskctl_state_name(found.state);
    if (name != nullptr) {
        printf("state     %s%s%s (%ld)\n", veskctl_state_colour(options, found.state), name, veskctl_plain(options),
               found.state);
    } else {
        puts("state     not known");
    }
    fputs("writable  ", stdout);
    const char* access = found.access[0] != '\0' ? found.access : "not known";
    veskctl_print_text(access, strlen(access));
    putchar('\n');
    if (found.card) {
        char free_text[SIZE_TEXT];
        char used_text[SIZE_TEXT];
        char total_text[SIZE_TEXT];
        size_to_text(found.free, free_text);
        size_to_text(found.total - found.free, used_text);
        size_to_text(found.total, total_text);
        printf("free      %s of %s\nused      %s\n", free_text, total_text, used_text);
    } else {
        puts("free      no card mounted here");
    }
    if (!found.index) {
        puts("clips     no index");
        return;
    }
    printf("clips     %u\n", found.clips);
    if (found.clips > 0) {
        char oldest[TIME_TEXT];
        char newest[TIME_TEXT];
        time_to_text(found.oldest, oldest);
        time_to_text(found.newest, newest);
        printf("oldest    %s\nnewest    %s\n", oldest, newest);
    }
}

}  // namespace

int veskctl_status(const veskctl_options& options, int argc, char** argv) {
    if (!veskctl_arguments(argc, argv, 0)) {
        return VESKCTL_USAGE;
    }
    findings found = {};
    found.state = -1;
    const int answer = read_keys(&found);
    measure_card(&found);
    const int code = read_index(&found);
    if (options.json) {
        print_json(found);
    } else {
        print_text(options, found);
    }
    return answer != VESKCTL_DONE ? answer : code;
}
