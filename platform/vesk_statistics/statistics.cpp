// Reports on the process's shared session. What cannot be sent waits, at most 64 reports, as the text that goes out:
// the object may be as large as its reporter likes, and is released at once either way.
//
// A report counts as sent when the session has taken it; a broker that dies with it unread loses it. Nothing is sent
// twice: whoever counts reports must not count one of them again after every broken connection.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <json-c/json.h>

#include "bus/bus.h"
#include "vesk_statistics.h"
#include "vesk_util.h"

namespace {

constexpr unsigned WAITING_MAX = 64;

struct report {
    char* topic;  // one allocation with the text behind it
    const char* text;
};

report waiting[WAITING_MAX];  // a ring
unsigned first;               // the oldest
unsigned count;
unsigned dropped;          // since the last that could be sent
bus_session* listened_to;  // the session that tells when it is connected; null: none yet

bool send(const report& item) {
    bus_message message = {};
    message.topic = item.topic;
    message.payload = item.text;
    message.length = strlen(item.text);
    return bus_publish(bus_shared(), &message, 1) != 0;
}

void forget_oldest() {
    free(waiting[first].topic);
    waiting[first] = {};
    first = (first + 1) % WAITING_MAX;
    --count;
}

// Sends what waits, oldest first, as far as the session takes it.
void send_waiting() {
    while (count > 0) {
        if (!send(waiting[first])) {
            return;
        }
        forget_oldest();
    }
    if (dropped > 0) {
        log_warning("statistics: %u reports were dropped while the broker was away", dropped);
        dropped = 0;
    }
}

void on_connected(bus_session*, void*) {
    send_waiting();
}

// Hears of the shared session's connections from the first report on.
void listen_to_session() {
    bus_session* session = bus_shared();
    if (session == nullptr || session == listened_to) {
        return;
    }
    bus_listener listener = {};
    listener.on_connected = on_connected;
    listener.context = waiting;
    if (bus_listen(session, &listener) == 0) {
        listened_to = session;
    }
}

// Makes the report's topic and text. False: errno says why.
bool compose(const char* event_name, json_object* object, report* item) {
    const char* text = json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    if (text == nullptr) {
        errno = ENOMEM;
        return false;
    }
    const char* app = bus_shared_app();
    const size_t text_size = strlen(text) + 1;
    const size_t topic_size = strlen("vesk//report/") + strlen(app) + strlen(event_name) + 1;
    item->topic = static_cast<char*>(malloc(topic_size + text_size));
    if (item->topic == nullptr) {
        return false;
    }
    (void)snprintf(item->topic, topic_size, "vesk/%s/report/%s", app, event_name);
    item->text = static_cast<char*>(memcpy(item->topic + topic_size, text, text_size));
    return true;
}

bool is_topic_level(const char* name) {
    return *name != '\0' && strpbrk(name, "/+#") == nullptr;
}

}  // namespace

int report_stat_object(const char* event_name, json_object* object) {
    if (event_name == nullptr || object == nullptr || !is_topic_level(event_name) || bus_shared() == nullptr) {
        json_object_put(object);
        errno = EINVAL;
        return -1;
    }
    report item = {};
    const bool composed = compose(event_name, object, &item);
    const int error = errno;
    json_object_put(object);
    if (!composed) {
        errno = error;
        return -1;
    }
    listen_to_session();
    // Behind those that wait: reports arrive in the order in which they were made.
    if (count == WAITING_MAX) {
        forget_oldest();
        ++dropped;
    }
    waiting[(first + count) % WAITING_MAX] = item;
    ++count;
    if (bus_connected(bus_shared())) {
        send_waiting();
    }
    return 0;
}
