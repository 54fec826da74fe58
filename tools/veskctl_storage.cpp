// veskctl storage: the daemon's own figures. What `status` reads from the card itself, this learns from anywhere.
#include <json-c/json.h>

#include "tools/action.h"
#include "tools/time_text.h"
#include "tools/veskctl.h"

namespace {

constexpr size_t FIGURES = 4;  // total, used by recordings, free, state

bool read_figures(json_object* reply, int64_t (&figures)[FIGURES]) {
    json_object* array = nullptr;
    if (!json_object_object_get_ex(reply, "result", &array) || !json_object_is_type(array, json_type_array) ||
        json_object_array_length(array) < FIGURES) {
        return false;
    }
    for (size_t i = 0; i < FIGURES; ++i) {
        figures[i] = json_object_get_int64(json_object_array_get_idx(array, i));
        if (figures[i] < 0) {
            return false;
        }
    }
    return true;
}

void print(const veskctl_options& options, const int64_t (&figures)[FIGURES]) {
    const auto state = static_cast<long>(figures[3]);
    const char* name = veskctl_state_name(state);
    if (options.json) {
        json_object* object = json_object_new_object();
        json_object_object_add(object, "state", name != nullptr ? json_object_new_string(name) : nullptr);
        json_object_object_add(object, "total", json_object_new_int64(figures[0]));
        json_object_object_add(object, "recordings", json_object_new_int64(figures[1]));
        json_object_object_add(object, "free", json_object_new_int64(figures[2]));
        veskctl_print_json(object);
        return;
    }
    char total[SIZE_TEXT];
    char recordings[SIZE_TEXT];
    char free_text[SIZE_TEXT];
    size_to_text(static_cast<uint64_t>(figures[0]), total);
    size_to_text(static_cast<uint64_t>(figures[1]), recordings);
    size_to_text(static_cast<uint64_t>(figures[2]), free_text);
    printf("state       %s%s%s\nfree        %s of %s\nrecordings  %s\n", veskctl_state_colour(options, state),
           name != nullptr ? name : "not known", veskctl_plain(options), free_text, total, recordings);
}

}  // namespace

int veskctl_storage(const veskctl_options& options, int argc, char** argv) {
    if (!veskctl_arguments(argc, argv, 0)) {
        return VESKCTL_USAGE;
    }
    json_object* reply = nullptr;
    int result = 0;
    const int code = action_ask("sd_storge", json_object_new_object(), &reply, &result);
    if (code != VESKCTL_DONE) {
        // Nothing was to be changed, so that no answer is all there is to tell.
        return code == VESKCTL_UNKNOWN ? VESKCTL_NO_SERVICE : code;
    }
    int64_t figures[FIGURES];
    const bool known = read_figures(reply, figures);
    json_object_put(reply);
    if (result != 0) {
        return action_refused(result);
    }
    if (!known) {
        fputs("veskctl: the answer makes no sense\n", stderr);
        return VESKCTL_FAILED;
    }
    print(options, figures);
    return VESKCTL_DONE;
}
