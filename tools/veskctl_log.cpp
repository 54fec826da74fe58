// veskctl log [FOLDER]: the operation log of the card, its older part first. Lines are "<process>-<seconds>: <what>".
// Several threads write it without a lock, so that a line may be cut: it is shown as it stands.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <initializer_list>
#include <json-c/json.h>
#include <unistd.h>

#include "tools/time_text.h"
#include "tools/veskctl.h"

namespace {

constexpr size_t LINE_SIZE = 1024;

struct entry {
    long process;
    uint32_t when;
    char clip[LINE_SIZE];  // a clip's time in words, or the path of a file below the recordings folder
    char what[LINE_SIZE];
};

// False: the line is not of that form.
bool parse(const char* line, entry* parsed) {
    long long seconds = 0;
    int body = 0;
    if (sscanf(line, "%9ld-%10lld: %n", &parsed->process, &seconds, &body) != 2 || body == 0 || seconds < 0 ||
        seconds > UINT32_MAX) {
        return false;
    }
    parsed->when = static_cast<uint32_t>(seconds);
    const char* colon = strstr(line + body, ": ");
    if (colon == nullptr) {
        return false;
    }
    const auto length = static_cast<size_t>(colon - (line + body));
    memcpy(parsed->clip, line + body, length);
    parsed->clip[length] = '\0';
    memcpy(parsed->what, colon + 2, strlen(colon + 2) + 1);
    uint32_t ts = 0;
    if (strspn(parsed->clip, "0123456789") == length && time_from_text(parsed->clip, &ts)) {
        char words[TIME_TEXT];
        time_to_text(ts, words);
        memcpy(parsed->clip, words, sizeof words);
    }
    return true;
}

void print_text(const char* line, const entry* parsed) {
    if (parsed == nullptr) {
        veskctl_print_text(line, strlen(line));
        putchar('\n');
        return;
    }
    char when[TIME_TEXT];
    time_to_text(parsed->when, when);
    printf("%s  ", when);
    veskctl_print_text(parsed->what, strlen(parsed->what));
    const size_t length = strlen(parsed->what);
    printf("%*s  ", length < 9 ? static_cast<int>(9 - length) : 0, "");
    veskctl_print_text(parsed->clip, strlen(parsed->clip));
    putchar('\n');
}

void print_json(const char* line, const entry* parsed, bool first) {
    json_object* object = json_object_new_object();
    char when[TIME_TEXT];
    if (parsed != nullptr) {
        time_to_text(parsed->when, when);
    }
    json_object_object_add(object, "time", parsed != nullptr ? json_object_new_string(when) : nullptr);
    json_object_object_add(object, "process", parsed != nullptr ? json_object_new_int64(parsed->process) : nullptr);
    json_object_object_add(object, "clip",
                           parsed != nullptr ? veskctl_text_json(parsed->clip, strlen(parsed->clip)) : nullptr);
    const char* what = parsed != nullptr ? parsed->what : line;
    json_object_object_add(object, "what", veskctl_text_json(what, strlen(what)));
    fputs(first ? "\n" : ",\n", stdout);
    fputs(json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE), stdout);
    json_object_put(object);
}

bool is_there(const char* path) {
    return access(path, F_OK) == 0;
}

// False after a message: it cannot be read.
bool print_file(const veskctl_options& options, const char* path, bool* first) {
    FILE* log = fopen(path, "re");
    if (log == nullptr) {
        fprintf(stderr, "veskctl: %s: %s\n", path, strerror(errno));
        return false;
    }
    static entry parsed;  // too large for a small stack
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, log) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        const entry* shown = parse(line, &parsed) ? &parsed : nullptr;
        if (options.json) {
            print_json(line, shown, *first);
        } else {
            print_text(line, shown);
        }
        *first = false;
    }
    const bool whole = ferror(log) == 0;
    fclose(log);
    if (!whole) {
        fprintf(stderr, "veskctl: %s cannot be read to its end\n", path);
    }
    return whole;
}

}  // namespace

int veskctl_log(const veskctl_options& options, int argc, char** argv) {
    if (!veskctl_arguments(argc, argv, 1)) {
        return VESKCTL_USAGE;
    }
    const char* folder = optind < argc ? argv[optind] : VESKCTL_FOLDER;
    char older[LINE_SIZE];
    char newer[LINE_SIZE];
    (void)snprintf(older, sizeof older, "%s/op.log.0", folder);
    (void)snprintf(newer, sizeof newer, "%s/op.log", folder);
    if (!is_there(older) && !is_there(newer)) {
        fprintf(stderr, "veskctl: %s: no operation log there\n", folder);
        return VESKCTL_NO_CARD;
    }
    bool first = true;
    bool whole = true;
    if (options.json) {
        putchar('[');
    }
    for (const char* path : {&older[0], &newer[0]}) {
        if (is_there(path)) {
            whole = print_file(options, path, &first) && whole;
        }
    }
    if (options.json) {
        puts(first ? "]" : "\n]");
    }
    return whole ? VESKCTL_DONE : VESKCTL_FAILED;
}
