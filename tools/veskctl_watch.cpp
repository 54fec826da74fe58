// veskctl watch: every key change and every report, as it happens, until interrupted.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <ev.h>
#include <getopt.h>
#include <json-c/json.h>

#include "bus/bus.h"
#include "tools/time_text.h"
#include "tools/veskctl.h"

namespace {

constexpr char KEY_PREFIX[] = "karvel/";
constexpr char STATUS_KEY[] = "karvel/mem/default/sdcard_status";
constexpr const char* FILTERS[] = {"karvel/#", "vesk/+/report/#", "vesk/+/status"};

struct watching {
    const veskctl_options* options;
    uint32_t count;  // messages until the end; 0: no end
    uint32_t shown;  // so far, modulo 2^32 when there is no end
    bool connected;
    bool timed_out;
};

// A payload that is JSON is shown as what it is, anything else as text.
json_object* payload_json(const char* text, size_t length) {
    json_tokener* tokener = json_tokener_new();
    if (tokener == nullptr) {
        return nullptr;
    }
    json_tokener_set_flags(tokener, JSON_TOKENER_VALIDATE_UTF8);
    json_object* parsed = json_tokener_parse_ex(tokener, text, static_cast<int>(length));
    const bool whole = json_tokener_get_error(tokener) == json_tokener_success &&
                       json_tokener_get_parse_end(tokener) == length && json_object_is_type(parsed, json_type_object);
    json_tokener_free(tokener);
    if (whole) {
        return parsed;
    }
    json_object_put(parsed);
    return veskctl_text_json(text, length);
}

void print_text(const veskctl_options& options, const char* now, const bus_message* message) {
    const bool key = strncmp(message->topic, KEY_PREFIX, sizeof KEY_PREFIX - 1) == 0;
    printf("%s %s = ", now, key ? message->topic + sizeof KEY_PREFIX - 1 : message->topic);
    const auto* bytes = static_cast<const char*>(message->payload);
    if (bytes != nullptr) {
        veskctl_print_text(bytes, message->length);
    }
    if (bytes != nullptr && strcmp(message->topic, STATUS_KEY) == 0 && message->length == 1) {
        const long number = bytes[0] - '0';
        const char* name = veskctl_state_name(number);
        if (name != nullptr) {
            printf(" %s%s%s", veskctl_state_colour(options, number), name, veskctl_plain(options));
        }
    }
    putchar('\n');
}

void print_json(const char* now, const bus_message* message) {
    json_object* object = json_object_new_object();
    json_object_object_add(object, "time", json_object_new_string(now));
    json_object_object_add(object, "topic", json_object_new_string(message->topic));
    json_object_object_add(object, "value",
                           message->payload != nullptr
                               ? payload_json(static_cast<const char*>(message->payload), message->length)
                               : nullptr);
    json_object_object_add(object, "kept", json_object_new_boolean(message->retained));
    veskctl_print_json(object);
}

void on_message(bus_session*, const bus_message* message, void* context) {
    auto* watch = static_cast<watching*>(context);
    char now[TIME_TEXT];
    time_to_text(static_cast<uint32_t>(time(nullptr)), now);
    if (watch->options->json) {
        print_json(now, message);
    } else {
        print_text(*watch->options, now, message);
    }
    fflush(stdout);
    if (ferror(stdout) != 0 || ++watch->shown == watch->count) {
        ev_break(EV_DEFAULT, EVBREAK_ALL);
    }
}

void on_connected(bus_session* session, void* context) {
    static_cast<watching*>(context)->connected = true;
    for (const char* filter : FILTERS) {
        // What stands in the service is shown once at the start; it is the picture that the changes are changes of.
        (void)bus_subscribe(session, filter, 1, bus_retained::SEND);  // a refusal shows as a lost session
    }
}

void on_lost(bus_session*, int error, void*) {
    fprintf(stderr, "veskctl: the configuration service went away (%s); waiting for it\n", strerror(error));
}

void on_late(struct ev_loop* loop, ev_timer* timer, int) {
    if (!static_cast<watching*>(timer->data)->connected) {
        ev_break(loop, EVBREAK_ALL);
    }
}

void on_end(struct ev_loop* loop, ev_timer* timer, int) {
    static_cast<watching*>(timer->data)->timed_out = true;
    ev_break(loop, EVBREAK_ALL);
}
void on_interrupt(struct ev_loop* loop, ev_signal*, int) {
    ev_break(loop, EVBREAK_ALL);
}

}  // namespace

int veskctl_watch(const veskctl_options& options, int argc, char** argv) {
    static const option table[] = {
        {"count", required_argument, nullptr, 'n'}, {"timeout", required_argument, nullptr, 't'}, {}};
    watching watch = {};
    watch.options = &options;
    double timeout_s = 0;
    int index = 0;
    for (int letter; (letter = getopt_long(argc, argv, "", table, &index)) != -1;) {
        if (letter != 'n' && letter != 't') {
            return VESKCTL_USAGE;
        }
        if (letter == 'n' ? !number_from_text(optarg, 1, UINT32_MAX, &watch.count)
                          : !seconds_from_text(optarg, 0.001, &timeout_s)) {
            fprintf(stderr, "veskctl: --%s cannot be \"%s\"\n", table[index].name, optarg);
            return VESKCTL_USAGE;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "veskctl: watch takes no \"%s\"\n", argv[optind]);
        return VESKCTL_USAGE;
    }

    bus_options session_options = {};
    session_options.listener = {on_connected, on_lost, on_message, nullptr, &watch};
    session_options.reconnect = true;
    bus_session* session = bus_open(EV_DEFAULT, &session_options);
    if (session == nullptr) {
        fprintf(stderr, "veskctl: %s: %s\n", bus_address(), strerror(errno));
        return VESKCTL_FAILED;
    }
    ev_now_update(EV_DEFAULT);
    ev_timer patience;
    ev_timer_init(&patience, on_late, VESKCTL_PATIENCE_S, 0);
    patience.data = &watch;
    ev_timer_start(EV_DEFAULT, &patience);
    ev_timer end;
    ev_timer_init(&end, on_end, timeout_s, 0);
    end.data = &watch;
    if (timeout_s > 0) {
        ev_timer_start(EV_DEFAULT, &end);
    }
    ev_signal interrupt;
    ev_signal_init(&interrupt, on_interrupt, SIGINT);
    ev_signal_start(EV_DEFAULT, &interrupt);
    ev_signal terminate;
    ev_signal_init(&terminate, on_interrupt, SIGTERM);
    ev_signal_start(EV_DEFAULT, &terminate);
    ev_run(EV_DEFAULT, 0);
    bus_close(session);
    if (!watch.connected) {
        return veskctl_no_service();
    }
    if (watch.timed_out && watch.shown < watch.count) {
        fprintf(stderr, "veskctl: %u of %u messages came within %g s\n", watch.shown, watch.count, timeout_s);
        return VESKCTL_FAILED;
    }
    return VESKCTL_DONE;
}
