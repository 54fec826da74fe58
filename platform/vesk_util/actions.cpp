// Remote actions on the bus: topics, the session's life, and who gets which answer.
//
// A request runs at most once for each time that it was published. The session starts clean each time, so nothing is
// delivered again after a reconnect, and what the broker has kept (a retained request) is refused: a left-over "format"
// must not run. A publisher that sends a request anew because it saw no acknowledgement has published twice, whatever
// it set the duplicate mark to: that mark concerns one hop only and never arrives here.
#include "actions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bus/bus.h"
#include "request.h"
#include "vesk_util.h"

namespace {

constexpr int GOODBYE_MS = 200;
constexpr int AT_LEAST_ONCE = 1;  // the bus's quality of everything here
constexpr int REFUSED = 0x80;     // reason codes from here on mean failure

struct record {
    const char* app;             // the daemon's name in topics
    const remote_action* table;  // null: no actions
    bus_session* session;        // null: not started
    uint32_t subscription;       // the pending request of that, 0: none
};
record state;

void publish_status(const char* text) {
    char topic[BUS_TOPIC_MAX];
    (void)snprintf(topic, sizeof topic, "vesk/%s/status", state.app);
    bus_message message = {};
    message.topic = topic;
    message.payload = text;
    message.length = strlen(text);
    message.retained = true;
    if (bus_publish(state.session, &message, AT_LEAST_ONCE) == 0) {
        log_warning("bus: can not publish the status: %s", strerror(errno));
    }
}

void publish_reply(const bus_message* request, const char* topic, const char* text) {
    bus_message message = {};
    message.topic = topic;
    message.payload = text;
    message.length = strlen(text);
    message.correlation = request->correlation;
    message.correlation_length = request->correlation_length;
    if (bus_publish(state.session, &message, AT_LEAST_ONCE) == 0) {
        log_warning("bus: can not reply on %s: %s", topic, strerror(errno));
    }
}

void answer_request(const char* name, const bus_message* request) {
    char own_reply[BUS_TOPIC_MAX];
    const int length = snprintf(own_reply, sizeof own_reply, "%s/reply", request->topic);
    if (static_cast<size_t>(length) >= sizeof own_reply) {
        // Nothing may go to a topic that was cut: it may be an action's again, and then the daemon would answer its own
        // answers for ever.
        log_warning("bus: action ignored: its name of %zu bytes leaves no room for a reply's topic", strlen(name));
        return;
    }
    const char* topic = request->response_topic != nullptr ? request->response_topic : own_reply;

    const remote_action* action = request_find(state.table, name);
    int32_t code = 0;
    char* text = nullptr;
    if (strlen(topic) > BUS_TOPIC_MAX || !request_response_topic_allowed(topic, own_reply)) {
        log_warning("bus: action %s: replies may not go to %s", name, topic);
        topic = own_reply;
        code = CODE_NO_JSON;
        text = request_refuse(code);
    } else if (action == nullptr) {
        code = CODE_UNKNOWN_ACTION;
        text = request_refuse(code);
    } else {
        text = request_run(action, request->payload, request->length, &code);
    }
    log_info("bus: action %s: %d", name, static_cast<int>(code));
    if (text == nullptr) {
        publish_reply(request, topic, "{\"code\": -12}");
    } else {
        publish_reply(request, topic, text);
        free(text);
    }
}

void on_message(bus_session* /*session*/, const bus_message* message, void* /*context*/) {
    char prefix[BUS_TOPIC_MAX];
    const int length = snprintf(prefix, sizeof prefix, "vesk/%s/action/", state.app);
    if (strncmp(message->topic, prefix, static_cast<size_t>(length)) != 0) {
        return;
    }
    const char* name = message->topic + length;
    if (message->retained) {
        log_warning("bus: retained action %s ignored", name);
        return;
    }
    answer_request(name, message);
}

void on_connected(bus_session* session, void* /*context*/) {
    log_info("bus: connected to %s", bus_address());
    if (state.table == nullptr) {
        publish_status("online");
        return;
    }
    char filter[BUS_TOPIC_MAX];
    (void)snprintf(filter, sizeof filter, "vesk/%s/action/+", state.app);
    // Retained requests are asked for to be warned of: whoever left one there waits in vain. One that is published
    // while we listen is told apart as well: it would run now and lie in wait for the next start.
    state.subscription = bus_subscribe(session, filter, AT_LEAST_ONCE, bus_retained::SEND_AND_TELL);
    if (state.subscription == 0) {
        log_err("bus: can not subscribe to the remote actions: %s", strerror(errno));
    }
}

// Online means that actions are answered, hence only once the broker has confirmed the subscription. Refused, the
// status stays what it was until the next connection.
void on_answer(bus_session* /*session*/, uint32_t request, int reason, void* /*context*/) {
    if (reason >= REFUSED) {
        log_warning("bus: the broker refused request %u: reason 0x%02x", static_cast<unsigned>(request),
                    static_cast<unsigned>(reason));
    }
    if (request == state.subscription) {
        state.subscription = 0;
        if (reason < REFUSED) {
            publish_status("online");
        }
    }
}

void on_lost(bus_session* /*session*/, int error, void* /*context*/) {
    state.subscription = 0;
    log_warning("bus: connection lost: %s", strerror(error));
}

}  // namespace

int actions_start(struct ev_loop* loop, const char* app, const remote_action* table) {
    char topic[BUS_TOPIC_MAX];
    (void)snprintf(topic, sizeof topic, "vesk/%s/status", app);
    bus_message will = {};
    will.topic = topic;
    will.payload = "offline";
    will.length = strlen("offline");
    will.retained = true;

    bus_options options = {};
    options.listener = {on_connected, on_lost, on_message, on_answer, nullptr};
    options.reconnect = true;
    options.will = &will;
    state = {app, table, nullptr, 0};
    state.session = bus_open(loop, &options);
    if (state.session == nullptr) {
        return -1;
    }
    bus_share(state.session, app);
    return 0;
}

void actions_stop() {
    if (state.session == nullptr) {
        return;
    }
    if (bus_connected(state.session)) {
        publish_status("offline");
        (void)bus_flush(state.session, GOODBYE_MS);  // a broker that does not answer is told by the will
    }
    bus_share(nullptr, "");
    bus_close(state.session);
    state = {};
}
