// veskctl report [FILE]: the card's details in words. Reports are sent once a day and when the card changes, and nobody
// keeps them; on the camera they are therefore read where the daemon reads them, and from afar the next one is waited
// for.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <json-c/json.h>

#include "tools/card_details.h"
#include "tools/exchange.h"
#include "tools/time_text.h"
#include "tools/veskctl.h"

namespace {

constexpr char TOPIC[] = "vesk/vesk_sdcard/report/sdcard.info";
constexpr double WAIT_DEFAULT_S = 60;
constexpr size_t FILE_MAX = size_t{1} << 20;  // a report has a few kilobytes

struct awaiting {
    json_object* report;
    bool come;
};

json_object* parse(const char* text, size_t length) {
    json_tokener* tokener = json_tokener_new();
    if (tokener == nullptr) {
        return nullptr;
    }
    json_object* object = json_tokener_parse_ex(tokener, text, static_cast<int>(length));
    json_tokener_free(tokener);
    return object;
}

void on_message(const bus_message* message, void* context) {
    auto* wait = static_cast<awaiting*>(context);
    if (!wait->come && message->payload != nullptr) {
        wait->report = parse(static_cast<const char*>(message->payload), message->length);
        wait->come = true;
    }
}

int read_bus(double wait_s, json_object** report) {
    awaiting wait = {};
    exchange talk;
    int code = exchange_open(&talk, on_message, &wait);
    if (code == VESKCTL_DONE) {
        code = exchange_subscribe(&talk, TOPIC, bus_retained::SEND);
    }
    if (code == VESKCTL_DONE) {
        fprintf(stderr, "veskctl: waiting %g s for the next report; it comes daily and when the card changes\n",
                wait_s);
        if (!exchange_wait(&talk, &wait.come, wait_s)) {
            fputs("veskctl: no report came\n", stderr);
            code = VESKCTL_NO_SERVICE;
        }
    }
    exchange_close(&talk);
    *report = wait.report;
    return code;
}

int read_file(const char* path, json_object** report) {
    FILE* file = strcmp(path, "-") == 0 ? stdin : fopen(path, "re");
    if (file == nullptr) {
        fprintf(stderr, "veskctl: %s: %s\n", path, strerror(errno));
        return VESKCTL_FAILED;
    }
    auto* text = static_cast<char*>(malloc(FILE_MAX));
    const size_t length = text != nullptr ? fread(text, 1, FILE_MAX, file) : 0;
    *report = text != nullptr ? parse(text, length) : nullptr;
    free(text);
    if (file != stdin) {
        fclose(file);
    }
    return VESKCTL_DONE;
}

void print_row(json_object* details, const char* label, const char* member, const char* before) {
    json_object* value = nullptr;
    json_object_object_get_ex(details, member, &value);
    printf("%-12s ", label);
    if (value == nullptr) {
        puts("not known");
        return;
    }
    fputs(before, stdout);
    const char* text = json_object_get_string(value);
    veskctl_print_text(text, strlen(text));
    putchar('\n');
}

// A class of 0 is a card that promises nothing, which is known.
void print_class(json_object* details, const char* label, const char* member, const char* before) {
    json_object* value = nullptr;
    if (json_object_object_get_ex(details, member, &value) && value != nullptr && json_object_get_int(value) == 0) {
        printf("%-12s none\n", label);
    } else {
        print_row(details, label, member, before);
    }
}

void print_text(json_object* details) {
    json_object* maker = nullptr;
    json_object* size = nullptr;
    json_object_object_get_ex(details, "maker", &maker);
    json_object_object_get_ex(details, "size", &size);
    print_row(details, "maker", "maker", "");
    print_row(details, "maker's id", "maker_id", "");
    print_row(details, "oem", "oem", "");
    print_row(details, "name", "name", "");
    print_row(details, "serial", "serial", "");
    print_row(details, "made", "made", "");
    char text[SIZE_TEXT] = "not known";
    if (size != nullptr) {
        size_to_text(static_cast<uint64_t>(json_object_get_int64(size)), text);
    }
    printf("%-12s %s\n", "size", text);
    print_class(details, "speed class", "speed_class", "C");
    print_class(details, "UHS grade", "uhs_grade", "U");
    print_class(details, "video class", "video_class", "V");
    print_class(details, "app class", "app_class", "A");
    json_object* read_only = nullptr;
    json_object_object_get_ex(details, "read_only", &read_only);
    printf("%-12s %s\n", "read-only",
           read_only == nullptr                      ? "not known"
           : json_object_get_boolean(read_only) != 0 ? "yes"
                                                     : "no");
}

}  // namespace

int veskctl_report(const veskctl_options& options, int argc, char** argv) {
    static const option table[] = {{"timeout", required_argument, nullptr, 't'}, {}};
    double wait_s = WAIT_DEFAULT_S;
    for (int letter; (letter = getopt_long(argc, argv, "", table, nullptr)) != -1;) {
        if (letter != 't') {
            return VESKCTL_USAGE;
        }
        if (!seconds_from_text(optarg, 0.001, &wait_s)) {
            fprintf(stderr, "veskctl: --timeout cannot be \"%s\"\n", optarg);
            return VESKCTL_USAGE;
        }
    }
    if (argc - optind > 1) {
        fprintf(stderr, "veskctl: report does not take \"%s\"\n", argv[optind + 1]);
        return VESKCTL_USAGE;
    }
    json_object* report = nullptr;
    int code = VESKCTL_DONE;
    if (optind < argc) {
        code = read_file(argv[optind], &report);
    } else if (!veskctl_is_local()) {
        code = read_bus(wait_s, &report);
    } else if ((report = card_details_local()) == nullptr) {
        fputs("veskctl: there is no card\n", stderr);
        code = VESKCTL_NO_CARD;
    }
    if (code != VESKCTL_DONE) {
        json_object_put(report);
        return code;
    }
    json_object* details = card_details_decode(report);
    json_object_put(report);
    if (details == nullptr) {
        fputs("veskctl: that is no report of a card\n", stderr);
        return VESKCTL_BAD_LIST;
    }
    if (options.json) {
        veskctl_print_json(details);
    } else {
        print_text(details);
        json_object_put(details);
    }
    return VESKCTL_DONE;
}
