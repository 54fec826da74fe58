// service_probe format COUNT: formats the card so many times by the request key, and in between asks for a further
// format every 1.1 seconds, which is refused and answered. service_probe eject COUNT: asks so many times for the eject
// of a card that is ejected: the same with nothing going on. Prints in milliseconds of the monotonic clock:
//   ping 12345.6 12350.7 12358.1   asked, seen asking by ourselves (the broker's part), answered
//   formatted 14000.2              the state behind a format
// For a format the card must be in service. Ends by itself; a minute without a sign of life is an error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ev.h>

#include "karvel.h"

namespace {

constexpr char FORMATTING[] = "4";
// An answer is the time in seconds, and a second answer of the same text is not sent.
constexpr double PING_S = 1.1;
constexpr double PAUSE_S = 2.0;  // between two formats
constexpr double SILENCE_S = 60.0;

karvel_handle* handle;
ev_timer next_request;
ev_timer silence;
ev_timer overdue;
uint32_t registrations[2];
int watched;
const char* request_key;
int left;  // formats, or questions
bool idle;
bool formatting;
bool waiting;  // for an answer
double asked_ms;
double seen_ms;

double now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

void request_in(double seconds) {
    ev_timer_stop(EV_DEFAULT, &next_request);
    ev_timer_set(&next_request, seconds, 0.0);
    ev_timer_start(EV_DEFAULT, &next_request);
}

void on_set(karvel_response*, void*) {}

void on_lost(karvel_response*, void*) {
    fprintf(stderr, "service_probe: the configuration service went away\n");
    exit(1);
}

void on_request_due(struct ev_loop*, ev_timer*, int) {
    waiting = true;
    seen_ms = 0;
    asked_ms = now_ms();
    if (!libkarvel_set_value(handle, "mem", nullptr, request_key, 1, "start", on_set, on_lost, -1, nullptr)) {
        on_lost(nullptr, nullptr);
    }
}

void on_request_key(const karvel_xvalue& value) {
    if (!waiting) {
        return;
    }
    if (strncmp(value.data, "start", 5) == 0) {
        seen_ms = now_ms();
        return;
    }
    printf("ping %.1f %.1f %.1f\n", asked_ms, seen_ms, now_ms());
    fflush(stdout);
    waiting = false;
    if (idle && --left <= 0) {
        exit(0);
    }
    if (idle || formatting) {
        request_in(PING_S);
    }
}

void on_state(const karvel_xvalue& value) {
    if (value.length == 1 && value.data[0] == FORMATTING[0]) {
        formatting = true;
        return;
    }
    if (!formatting) {
        return;
    }
    formatting = false;
    printf("formatted %.1f\n", now_ms());
    fflush(stdout);
    if (--left <= 0) {
        exit(0);
    }
    request_in(PAUSE_S);
}

void on_notify(karvel_response* response, void*) {
    ev_timer_again(EV_DEFAULT, &silence);
    int error = -1;
    karvel_xpair* pair = xresponse_parse(response, &error);
    if (error == 0 && pair->second == nullptr) {
        if (++watched == 2) {
            request_in(PING_S);  // there may have been an answer just now
        }
    } else if (error == 0 && strcmp(pair->first->key, request_key) == 0) {
        on_request_key(*pair->second);
    } else if (error == 0 && !idle) {
        on_state(*pair->second);
    }
    xpair_basefree(pair);
}

void on_silence(struct ev_loop*, ev_timer*, int) {
    fprintf(stderr, "service_probe: nothing heard for a minute\n");
    exit(1);
}

void on_second(struct ev_loop*, ev_timer*, int) {
    libkarvel_timeout_process(handle);
}

}  // namespace

int main(int argc, char** argv) {
    left = argc == 3 ? atoi(argv[2]) : 0;
    if (left <= 0) {
        fprintf(stderr, "usage: service_probe format|eject COUNT\n");
        return 2;
    }
    idle = strcmp(argv[1], "eject") == 0;
    request_key = idle ? "spec_sdcard_unmount" : "spec_sdcard_format";
    ev_init(&next_request, on_request_due);
    ev_init(&silence, on_silence);
    silence.repeat = SILENCE_S;
    ev_timer_again(EV_DEFAULT, &silence);
    ev_timer_init(&overdue, on_second, 1.0, 1.0);
    ev_timer_start(EV_DEFAULT, &overdue);
    handle = libkarvelev_config_open(EV_DEFAULT, 0);
    const char* const keys[] = {request_key, "sdcard_status"};
    for (int i = 0; i < 2; ++i) {
        if (handle == nullptr || !libkarvel_register_notification(handle, "mem", "default", keys[i], &registrations[i],
                                                                  on_notify, on_lost, 1, nullptr)) {
            fprintf(stderr, "service_probe: no configuration service\n");
            return 1;
        }
    }
    ev_run(EV_DEFAULT, 0);
    return 1;
}
