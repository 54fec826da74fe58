// veskctl action: any of the daemon's remote actions by its name on the bus, for scripts and for finding faults. What
// the other commands ask for in a person's words is asked here in the daemon's.
#include <algorithm>
#include <cstring>
#include <getopt.h>
#include <iterator>
#include <json-c/json.h>
#include <string_view>

#include "tools/action.h"
#include "tools/veskctl.h"

namespace {

constexpr size_t NAME_MAX_LENGTH = 64;
// What they take away does not come back.
constexpr std::string_view ERASING[] = {"deleteVideo", "deleteSaveVideo", "sd_format"};

// One level of a topic.
bool is_name(const char* text) {
    const size_t length = strnlen(text, NAME_MAX_LENGTH + 1);
    return length > 0 && length <= NAME_MAX_LENGTH && strpbrk(text, "/+#") == nullptr;
}

// Null: no JSON, or a bare null, which carries nothing.
json_object* read_parameters(const char* text) {
    json_tokener* tokener = json_tokener_new();
    if (tokener == nullptr) {
        return nullptr;
    }
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    // With its NUL, which ends a number.
    json_object* value = json_tokener_parse_ex(tokener, text, static_cast<int>(strlen(text)) + 1);
    json_tokener_free(tokener);
    return value;
}

int ask(const char* name, const char* text, bool yes) {
    json_object* const parameters = read_parameters(text);
    if (!is_name(name) || parameters == nullptr) {
        json_object_put(parameters);
        fprintf(stderr, "veskctl: %s\n", is_name(name) ? "the parameters are no JSON" : "that is no action's name");
        return VESKCTL_USAGE;
    }
    if (!yes && std::find(std::begin(ERASING), std::end(ERASING), name) != std::end(ERASING)) {
        const int code = veskctl_confirm("This erases what is on the card. Go on?");
        if (code != VESKCTL_DONE) {
            json_object_put(parameters);
            return code;
        }
    }
    json_object* reply = nullptr;
    int result = 0;
    const int code = action_ask(name, parameters, &reply, &result);
    if (code != VESKCTL_DONE) {
        return code;
    }
    veskctl_print_json(reply);
    return result == 0 ? VESKCTL_DONE : action_refused(result);
}

}  // namespace

int veskctl_action(const veskctl_options&, int argc, char** argv) {
    static const option options[] = {{"yes", no_argument, nullptr, 'y'}, {}};
    bool yes = false;
    for (int letter; (letter = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (letter != 'y') {
            return VESKCTL_USAGE;
        }
        yes = true;
    }
    const int words = argc - optind;
    if (words < 1 || words > 2) {
        fprintf(stderr, "veskctl: %s needs the name of an action, and takes its parameters as one word of JSON\n",
                argv[0]);
        return VESKCTL_USAGE;
    }
    return ask(argv[optind], words == 2 ? argv[optind + 1] : "{}", yes);
}
