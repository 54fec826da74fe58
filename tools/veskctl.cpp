// veskctl: what a person or a script asks the camera's storage. This file reads the command line and hands over.
#include "tools/veskctl.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <json-c/json.h>
#include <unistd.h>

#include "bus/bus.h"
#include "kyt_rdonly.h"

namespace {

struct subcommand {
    const char* name;
    int (*run)(const veskctl_options& options, int argc, char** argv);
    const char* help;
};

constexpr subcommand SUBCOMMANDS[] = {
    {"status", veskctl_status, "state, writable, free, used, clips, oldest and newest"},
    {"watch", veskctl_watch, "every key change and report as it happens (--count N, --timeout S)"},
    {"storage", veskctl_storage, "the daemon's own figures of the card's space"},
    {"clips", veskctl_clips, "the clip index (--from TIME, --to TIME, --marked, --unmarked, --follow); [FOLDER]"},
    {"index", veskctl_index, "the index away from the camera: check, repair, export FOLDER|IMAGE (--format csv|json)"},
    {"save", veskctl_save, "protects the clips of these TIMEs from being deleted to make room"},
    {"delete", veskctl_delete, "deletes the clips of these TIMEs, protected or not (--yes)"},
    {"format", veskctl_format, "erases the card (--wait, --timeout S, --yes)"},
    {"eject", veskctl_eject, "makes the card safe to pull (--wait, --timeout S)"},
    {"busy", veskctl_busy, "the processes that hold the card"},
    {"log", veskctl_log, "what happened to the clips; [FOLDER] of a copied recordings folder"},
    {"report", veskctl_report, "the card's details (--timeout S; [FILE] of a report that was kept)"},
    {"action", veskctl_action, "a remote action by its NAME on the bus; [PARAMETERS] are JSON (--yes)"},
};

// By number; what the daemon publishes as "sdcard_status".
constexpr const char* STATES[] = {"normal",     "not_exists", "full",   "broken",
                                  "formatting", "eject",      "fixing", "ejecting"};
constexpr const char* COLOURS[] = {"\033[32m", "\033[2m",  "\033[33m", "\033[31m",
                                   "\033[33m", "\033[33m", "\033[33m", "\033[33m"};
constexpr long STATE_COUNT = sizeof STATES / sizeof *STATES;

void usage(FILE* out) {
    fputs("usage: veskctl [--bus ADDRESS] [--json] COMMAND [ARGUMENTS]\n", out);
    for (const subcommand& command : SUBCOMMANDS) {
        fprintf(out, "  %-8s %s\n", command.name, command.help);
    }
    fprintf(out,
            "  --bus ADDRESS  unix:PATH or tcp:HOST:PORT (default: $VESK_BUS or %s)\n"
            "  --json         JSON instead of text\n"
            "  --version, --help\n"
            "Data goes to standard output, messages to standard error. Times are UTC.\n"
            "A TIME is 2026-11-21T01:22:05Z or seconds since 1970.\n"
            "exit codes: 0 done, 1 failed, 2 usage, 3 the configuration service or the daemon did not answer,\n"
            "            4 no card, no clip index or no log, 5 a clip index or report that cannot be read,\n"
            "            6 refused, 7 outcome unknown\n",
            bus_address());
}

// The length of the character that the bytes begin with, 1 to 4; 0: they are no UTF-8.
size_t utf8_length(const char* text, size_t left) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    const unsigned lead = bytes[0];
    const size_t length = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    if (length > left) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((bytes[i] & 0xc0) != 0x80) {
            return 0;
        }
    }
    // Written longer than need be, half of a pair, or beyond the last character.
    const bool wrong = (lead == 0xe0 && bytes[1] < 0xa0) || (lead == 0xed && bytes[1] >= 0xa0) ||
                       (lead == 0xf0 && bytes[1] < 0x90) || (lead == 0xf4 && bytes[1] >= 0x90);
    return wrong ? 0 : length;
}

}  // namespace

const char* veskctl_state_name(long number) {
    return number >= 0 && number < STATE_COUNT ? STATES[number] : nullptr;
}

const char* veskctl_state_colour(const veskctl_options& options, long number) {
    return options.colour && number >= 0 && number < STATE_COUNT ? COLOURS[number] : "";
}

const char* veskctl_plain(const veskctl_options& options) {
    return options.colour ? "\033[0m" : "";
}

void veskctl_print_json(json_object* object) {
    puts(json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
    json_object_put(object);
}

bool veskctl_arguments(int argc, char** argv, int at_most) {
    static const option none[] = {{}};
    if (getopt_long(argc, argv, "", none, nullptr) != -1) {
        return false;
    }
    if (argc - optind > at_most) {
        fprintf(stderr, "veskctl: %s does not take \"%s\"\n", argv[0], argv[optind + at_most]);
        return false;
    }
    return true;
}

int veskctl_no_service() {
    fprintf(stderr, "veskctl: the configuration service does not answer at %s\n", bus_address());
    return VESKCTL_NO_SERVICE;
}

bool veskctl_is_local() {
    return strncmp(bus_address(), "unix:", 5) == 0;
}

int veskctl_confirm(const char* question) {
    if (isatty(STDIN_FILENO) != 1) {
        fputs("veskctl: there is nobody to ask; --yes says that it is meant\n", stderr);
        return VESKCTL_USAGE;
    }
    fprintf(stderr, "%s [y/N] ", question);
    char answer[16] = "";
    if (fgets(answer, sizeof answer, stdin) != nullptr &&
        (strcmp(answer, "y\n") == 0 || strcmp(answer, "yes\n") == 0)) {
        return VESKCTL_DONE;
    }
    fputs("veskctl: nothing was done\n", stderr);
    return VESKCTL_REFUSED;
}

kyt_handle* veskctl_open_list(const char* folder, int* code) {
    kyt_handle* list = kyt_open_rdonly(folder);
    if (list != nullptr) {
        return list;
    }
    const int error = errno;
    *code = error == ENOENT ? VESKCTL_NO_CARD : error == EBADMSG ? VESKCTL_BAD_LIST : VESKCTL_FAILED;
    if (error != ENOENT) {
        fprintf(stderr, "veskctl: %s: %s\n", folder,
                error == EBADMSG ? "the clip index cannot be read" : strerror(error));
    }
    return nullptr;
}

json_object* veskctl_text_json(const char* bytes, size_t length) {
    constexpr char REPLACEMENT[] = "\xef\xbf\xbd";
    auto* text = static_cast<char*>(malloc(length * 3 + 1));
    if (text == nullptr) {
        return nullptr;
    }
    size_t written = 0;
    for (size_t at = 0; at < length;) {
        const size_t taken = utf8_length(bytes + at, length - at);
        memcpy(text + written, taken > 0 ? bytes + at : REPLACEMENT, taken > 0 ? taken : 3);
        written += taken > 0 ? taken : 3;
        at += taken > 0 ? taken : 1;
    }
    json_object* object = json_object_new_string_len(text, static_cast<int>(written));
    free(text);
    return object;
}

void veskctl_print_text(const char* bytes, size_t length) {
    for (size_t at = 0; at < length;) {
        const size_t taken = utf8_length(bytes + at, length - at);
        const auto lead = static_cast<unsigned char>(bytes[at]);
        // Beside the control characters of ASCII, those of Latin 1 (c2 80 to c2 9f) move cursors too.
        const bool control = lead < 0x20 || lead == 0x7f ||
                             (taken == 2 && lead == 0xc2 && static_cast<unsigned char>(bytes[at + 1]) < 0xa0);
        if (taken == 0 || control) {
            putchar('?');
        } else {
            fwrite(bytes + at, 1, taken, stdout);
        }
        at += taken > 0 ? taken : 1;
    }
}

int veskctl_finish(int code) {
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        fprintf(stderr, "veskctl: standard output: %s\n", strerror(errno));
        return VESKCTL_FAILED;
    }
    return code;
}

int main(int argc, char** argv) {
    static const option table[] = {{"bus", required_argument, nullptr, 'b'},
                                   {"json", no_argument, nullptr, 'j'},
                                   {"version", no_argument, nullptr, 'v'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {}};
    const char* no_colour = getenv("NO_COLOR");
    veskctl_options options = {};
    options.colour = isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || *no_colour == '\0');
    // "+": what stands behind the command is the command's.
    for (int letter; (letter = getopt_long(argc, argv, "+", table, nullptr)) != -1;) {
        switch (letter) {
            case 'b':
                if (bus_address_set(optarg) != 0) {
                    fprintf(stderr, "veskctl: \"%s\" is no address; unix:PATH or tcp:HOST:PORT\n", optarg);
                    return VESKCTL_USAGE;
                }
                break;
            case 'j':
                options.json = true;
                break;
            case 'v':
                puts("veskctl 0.1.0");
                return veskctl_finish(VESKCTL_DONE);
            case 'h':
                usage(stdout);
                return veskctl_finish(VESKCTL_DONE);
            default:
                usage(stderr);
                return VESKCTL_USAGE;
        }
    }
    if (optind >= argc) {
        usage(stderr);
        return VESKCTL_USAGE;
    }
    for (const subcommand& command : SUBCOMMANDS) {
        if (strcmp(argv[optind], command.name) == 0) {
            char** const arguments = argv + optind;
            const int count = argc - optind;
            // --json is welcome behind the command too; it is what people type.
            int kept = 0;
            for (int i = 0; i < count; ++i) {
                if (i > 0 && strcmp(arguments[i], "--json") == 0) {
                    options.json = true;
                } else {
                    arguments[kept++] = arguments[i];
                }
            }
            arguments[kept] = nullptr;
            optind = 0;  // the command's own arguments, options and others in any order
            return veskctl_finish(command.run(options, kept, arguments));
        }
    }
    fprintf(stderr, "veskctl: no command \"%s\"\n", argv[optind]);
    usage(stderr);
    return VESKCTL_USAGE;
}
