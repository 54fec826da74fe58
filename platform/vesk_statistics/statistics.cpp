// Reports wait in a ring of 64 and leave through the process's shared bus session, in order, a few at a time: a broker
// that is connected but answers nothing must not make this process grow, so it counts as away.
//
// A report that was handed to a session is not sent again when the session is lost before the answer came: it may have
// arrived, and what collects reports counts them. The log tells how many such there were.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <json-c/json.h>

#include "bus/bus.h"
#include "vesk_statistics.h"
#include "vesk_util.h"

namespace {

constexpr uint32_t WAITING_MAX = 64;
constexpr uint32_t UNANSWERED_MAX = 8;
constexpr size_t EVENT_NAME_MAX = 255;           // bytes
constexpr size_t REPORT_MAX = size_t{64} << 10;  // bytes; 64 of them wait
constexpr int AT_LEAST_ONCE = 1;                 // the bus's quality: the broker answers

struct record {
    char* waiting[WAITING_MAX];           // ring; event name, NUL, JSON text, NUL; ours
    uint32_t oldest;                      // index into waiting
    uint32_t count;                       // of waiting
    uint32_t unanswered[UNANSWERED_MAX];  // the bus's request numbers of what was sent, 0: free
    uint32_t dropped;                     // since the log last told
    uint32_t lost;                        // sent but never answered, since the log last told
    bus_session* session;                 // the one that we listen to, null: none yet
};
record state;

uint32_t* find_unanswered(uint32_t request) {
    for (uint32_t& one : state.unanswered) {
        if (one == request) {
            return &one;
        }
    }
    return nullptr;
}

void remove_oldest() {
    free(state.waiting[state.oldest]);
    state.waiting[state.oldest] = nullptr;
    state.oldest = (state.oldest + 1) % WAITING_MAX;
    --state.count;
}

// The bus's number for the oldest report, or 0 with errno.
uint32_t publish_oldest() {
    const char* event_name = state.waiting[state.oldest];
    const char* text = event_name + strlen(event_name) + 1;
    char topic[BUS_TOPIC_MAX];
    (void)snprintf(topic, sizeof topic, "vesk/%s/report/%s", bus_shared_app(), event_name);
    bus_message message = {};
    message.topic = topic;
    message.payload = text;
    message.length = strlen(text);
    return bus_publish(state.session, &message, AT_LEAST_ONCE);
}

void tell_missing() {
    if (state.dropped != 0 || state.lost != 0) {
        log_warning("statistics: while the broker was away %u reports were dropped, %u sent ones got no answer",
                    static_cast<unsigned>(state.dropped), static_cast<unsigned>(state.lost));
        state.dropped = 0;
        state.lost = 0;
    }
}

// Sends what waits, as far as it goes.
void send_waiting() {
    while (state.count > 0 && bus_connected(state.session)) {
        uint32_t* slot = find_unanswered(0);
        if (slot == nullptr) {
            return;
        }
        *slot = publish_oldest();
        if (*slot == 0) {
            if (errno != EINVAL) {
                return;  // not now: an answer, a new connection or the next report tries again
            }
            log_err("statistics: %s can not be sent", state.waiting[state.oldest]);
        }
        remove_oldest();
        tell_missing();
    }
}

// What waits when the process ends is dropped with it. Not at the end of the application: it may begin once more.
__attribute__((destructor)) void tell_at_exit() {
    for (const uint32_t one : state.unanswered) {
        state.lost += one != 0 ? 1 : 0;
    }
    state.dropped += state.count;
    tell_missing();
}

void on_connected(bus_session* /*session*/, void* /*context*/) {
    send_waiting();
}

void on_lost(bus_session* /*session*/, int /*error*/, void* /*context*/) {
    for (uint32_t& one : state.unanswered) {
        state.lost += one != 0 ? 1 : 0;
        one = 0;
    }
}

void on_answer(bus_session* /*session*/, uint32_t request, int reason, void* /*context*/) {
    uint32_t* one = find_unanswered(request);
    if (one == nullptr) {
        return;  // somebody else's request
    }
    *one = 0;
    if (reason >= 0x80) {
        log_warning("statistics: the broker refused one: reason 0x%02x", static_cast<unsigned>(reason));
    }
    send_waiting();
}

// Listens to the process's shared session. 0, or -1 with errno.
int follow_session() {
    bus_session* shared = bus_shared();
    if (shared == state.session && shared != nullptr) {
        return 0;
    }
    state.session = nullptr;
    std::fill(std::begin(state.unanswered), std::end(state.unanswered), 0);
    if (shared == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    const bus_listener listener = {on_connected, on_lost, nullptr, on_answer, &state};
    if (bus_listen(shared, &listener) < 0) {
        return -1;
    }
    state.session = shared;
    return 0;
}

// The name becomes a level of a topic.
bool is_usable_name(const char* name) {
    return name != nullptr && *name != '\0' && strlen(name) <= EVENT_NAME_MAX && strpbrk(name, "/+#") == nullptr;
}

// The report as it waits, the caller's to free; null with errno.
char* pack(const char* event_name, json_object* object) {
    const char* text = json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    if (text == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    const size_t text_size = strlen(text) + 1;
    if (text_size - 1 > REPORT_MAX) {
        errno = EMSGSIZE;
        return nullptr;
    }
    const size_t name_size = strlen(event_name) + 1;
    auto* packed = static_cast<char*>(malloc(name_size + text_size));
    if (packed != nullptr) {
        memcpy(packed, event_name, name_size);
        memcpy(packed + name_size, text, text_size);
    }
    return packed;
}

}  // namespace

int report_stat_object(const char* event_name, json_object* object) {
    if (!is_usable_name(event_name) || object == nullptr) {
        json_object_put(object);
        errno = EINVAL;
        return -1;
    }
    char* packed = nullptr;
    if (follow_session() == 0) {
        packed = pack(event_name, object);
    }
    const int saved_errno = errno;
    json_object_put(object);
    if (packed == nullptr) {
        errno = saved_errno;
        return -1;
    }
    if (state.count == WAITING_MAX) {
        remove_oldest();
        ++state.dropped;
    }
    state.waiting[(state.oldest + state.count) % WAITING_MAX] = packed;
    ++state.count;
    send_waiting();
    return 0;
}
