#include "tools/exchange.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <ev.h>

#include "tools/veskctl.h"

namespace {

constexpr int NO_SUBSCRIBERS = 0x10;  // MQTT 5: taken, but nobody listens
constexpr int REFUSED = 0x80;         // and above

void on_connected(bus_session*, void* context) {
    static_cast<exchange*>(context)->connected = true;
    ev_break(EV_DEFAULT, EVBREAK_ALL);
}

void on_lost(bus_session*, int error, void* context) {
    static_cast<exchange*>(context)->error = error;
    ev_break(EV_DEFAULT, EVBREAK_ALL);
}

void on_message(bus_session*, const bus_message* message, void* context) {
    const auto* talk = static_cast<exchange*>(context);
    if (talk->on_message != nullptr) {
        talk->on_message(message, talk->context);
    }
    ev_break(EV_DEFAULT, EVBREAK_ALL);
}

void on_answer(bus_session*, uint32_t request, int reason, void* context) {
    auto* talk = static_cast<exchange*>(context);
    talk->request = request;
    talk->reason = reason;
    ev_break(EV_DEFAULT, EVBREAK_ALL);
}

void on_late(struct ev_loop* loop, ev_timer*, int) {
    ev_break(loop, EVBREAK_ALL);
}

// Runs the loop until something has happened, or for so long.
void run_for(double seconds) {
    ev_timer late;
    ev_now_update(EV_DEFAULT);
    ev_timer_init(&late, on_late, seconds > 0 ? seconds : 0, 0);
    ev_timer_start(EV_DEFAULT, &late);
    ev_run(EV_DEFAULT, 0);
    ev_timer_stop(EV_DEFAULT, &late);
}

int no_answer(const exchange* talk) {
    if (talk->error == EACCES) {
        fprintf(stderr, "veskctl: the configuration service at %s does not let this account in\n", bus_address());
        return VESKCTL_REFUSED;
    }
    return veskctl_no_service();
}

// Waits for the answer to a request; false: none came.
bool has_answer(exchange* talk, uint32_t request) {
    const double end = exchange_clock_s() + VESKCTL_PATIENCE_S;
    while (talk->request != request && talk->error == 0 && exchange_clock_s() < end) {
        run_for(end - exchange_clock_s());
    }
    return talk->request == request;
}

// What the last answer says. The topic is for the message.
int judge_answer(const exchange& talk, const char* topic) {
    if (talk.reason >= REFUSED) {
        fprintf(stderr, "veskctl: the configuration service does not allow this account %s\n", topic);
        return VESKCTL_REFUSED;
    }
    return VESKCTL_DONE;
}

// For requests that change nothing: without an answer it is as if they had not been made.
int wait_answer(exchange* talk, uint32_t request, const char* topic) {
    return request != 0 && has_answer(talk, request) ? judge_answer(*talk, topic) : no_answer(talk);
}

}  // namespace

double exchange_clock_s() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

int exchange_open(exchange* talk, void (*listener)(const bus_message*, void*), void* context) {
    *talk = {};
    talk->on_message = listener;
    talk->context = context;
    bus_options options = {};
    options.listener = {on_connected, on_lost, on_message, on_answer, talk};
    talk->session = bus_open(EV_DEFAULT, &options);
    if (talk->session == nullptr) {
        return veskctl_no_service();
    }
    const double end = exchange_clock_s() + VESKCTL_PATIENCE_S;
    while (!talk->connected && talk->error == 0 && exchange_clock_s() < end) {
        run_for(end - exchange_clock_s());
    }
    return talk->connected && talk->error == 0 ? VESKCTL_DONE : no_answer(talk);
}

void exchange_close(exchange* talk) {
    bus_close(talk->session);
    talk->session = nullptr;
}

int exchange_subscribe(exchange* talk, const char* filter, bus_retained retained) {
    return wait_answer(talk, bus_subscribe(talk->session, filter, 1, retained), filter);
}

int exchange_settle(exchange* talk) {
    // The service answers in order: an answer to something harmless comes behind what was kept.
    constexpr char NOTHING[] = "veskctl/nothing";
    return wait_answer(talk, bus_unsubscribe(talk->session, NOTHING), NOTHING);
}

int exchange_publish(exchange* talk, const bus_message* message, bool* heard) {
    const uint32_t request = bus_publish(talk->session, message, 1);
    if (request == 0) {
        return no_answer(talk);
    }
    const int code = has_answer(talk, request) ? judge_answer(*talk, message->topic) : VESKCTL_UNKNOWN;
    if (heard != nullptr) {
        *heard = code == VESKCTL_DONE && talk->reason != NO_SUBSCRIBERS;
    }
    return code;
}

bool exchange_wait(exchange* talk, const bool* done, double seconds) {
    const double end = exchange_clock_s() + seconds;
    while (!*done && talk->error == 0 && exchange_clock_s() < end) {
        run_for(end - exchange_clock_s());
    }
    return *done;
}

const char* exchange_fate(const exchange& talk) {
    return talk.error != 0 ? "the configuration service went away" : "the configuration service went silent";
}
