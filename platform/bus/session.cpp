// Sessions: libmosquitto's socket on watchers of the loop, and what happened told to the listeners afterwards.
//
// libmosquitto's callbacks only queue events, and a timer of no length tells them from the loop: a listener may do what
// would abort (destroying the client) or deadlock (looping it) inside libmosquitto. A request is a small record until
// its answer comes; its payload is kept only until it is sent.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ev.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include "bus.h"
#include "client.h"

namespace {

constexpr int LISTENERS_MAX = 4;
constexpr ev_tstamp TICK_S = 1.0;         // libmosquitto's housekeeping, and the time between two attempts
constexpr int CONNECT_LIMIT_MS = 10'000;  // for the broker to accept the session
constexpr int LINGER_MS = 20;             // for a broker that still owes answers when the session is closed
constexpr int REFUSED = 0x80;             // the MQTT 5 reason "unspecified error"; it and all above mean failure
// How long bus_open fails after a failed attempt: a second, and a little less, so that a caller's timer of one second
// that was started a moment before the attempt does not miss it and lose another second.
constexpr int HOLD_OFF_MS = 950;

enum class state { WAITING, CONNECTING, CONNECTED, LOST };  // WAITING: for the next attempt
enum class verb { PUBLISH, SUBSCRIBE, UNSUBSCRIBE };
enum class news { CONNECTED, LOST, MESSAGE, ANSWER };

struct letter {  // a copy of a message, in one block with all that it points to
    bus_message message;
};

struct request {
    request* next;
    uint32_t id;
    int mid;  // libmosquitto's number once it is sent
    verb what;
    int quality;
    bus_retained retained;
    letter* unsent;  // owned; null once it is sent
};

struct event {
    event* next;
    news what;
    uint32_t id;   // ANSWER: of the request
    int code;      // ANSWER: reason; LOST: errno
    letter* mail;  // MESSAGE: owned
};

int64_t hold_off_until_ms;
uint32_t last_id;

bus_session* shared_session;
const char* shared_app = "";

}  // namespace

struct bus_session {
    struct ev_loop* loop;
    bool reconnect;
    letter* will;                           // owned; null: none
    bus_listener listeners[LISTENERS_MAX];  // without callbacks: a free place

    state now;
    mosquitto* client;   // null unless CONNECTING or CONNECTED
    int64_t attempt_ms;  // when the client was made
    bool accepted;       // the client's callback has seen the broker accept
    bool flush_failed;   // the last bus_flush ran out of time
    int refusal;         // or refuse, as errno

    ev_io readable;
    ev_io writable;
    ev_timer tick;
    ev_timer tell;

    request* requests;  // in the order they were made
    request** requests_end;
    int request_count;
    event* events;
    event** events_end;
    int event_count;
    event loss;  // for a LOST that finds no memory

    int telling;      // how many on_tell are on the stack: a listener may run the loop
    bool closed;      // freed when the last of them returns
    bool loss_waits;  // `loss` is among the events
};

namespace {

// --- Letters, requests, events
// -----------------------------------------------------------------------------------------

size_t text_size(const char* text) {
    return text == nullptr ? 0 : strlen(text) + 1;
}

// Copies bytes to *room and moves it on; null stays null.
template <typename T>
T* place_copy(char** room, const T* bytes, size_t size) {
    if (bytes == nullptr || size == 0) {
        return nullptr;
    }
    char* copy = *room;
    memcpy(copy, bytes, size);
    *room += size;
    return reinterpret_cast<T*>(copy);
}

letter* letter_copy(const bus_message& from) {
    const size_t payload = from.payload == nullptr ? 0 : from.length;
    const size_t correlation = from.correlation == nullptr ? 0 : from.correlation_length;
    auto* copy = static_cast<letter*>(
        malloc(sizeof(letter) + text_size(from.topic) + text_size(from.response_topic) + payload + correlation));
    if (copy == nullptr) {
        return nullptr;
    }
    char* room = reinterpret_cast<char*>(copy + 1);
    copy->message = from;
    copy->message.topic = place_copy(&room, from.topic, text_size(from.topic));
    copy->message.response_topic = place_copy(&room, from.response_topic, text_size(from.response_topic));
    copy->message.payload = place_copy(&room, static_cast<const char*>(from.payload), payload);
    copy->message.correlation = place_copy(&room, static_cast<const char*>(from.correlation), correlation);
    copy->message.correlation_length = correlation;
    return copy;
}

void tell_later(bus_session* session) {
    if (!ev_is_active(&session->tell)) {
        ev_timer_set(&session->tell, 0., 0.);
        ev_timer_start(session->loop, &session->tell);
    }
}

// Without memory the event is dropped: a message like one that was never sent; an answer like one that never came. A
// loss is reported all the same: a listener that did not learn of it would wait for ever.
void add_event(bus_session* session, news what, uint32_t id, int code, letter* mail) {
    auto* added = static_cast<event*>(malloc(sizeof(event)));
    if (added == nullptr && what == news::LOST && !session->loss_waits) {
        added = &session->loss;
        session->loss_waits = true;
    }
    if (added == nullptr) {
        free(mail);
        return;
    }
    *added = event{nullptr, what, id, code, mail};
    *session->events_end = added;
    session->events_end = &added->next;
    ++session->event_count;
    tell_later(session);
}

event* take_event(bus_session* session) {
    event* taken = session->events;
    if (taken != nullptr) {
        session->events = taken->next;
        if (session->events == nullptr) {
            session->events_end = &session->events;
        }
        --session->event_count;
    }
    return taken;
}

void free_event(bus_session* session, event* freed) {
    if (freed == &session->loss) {
        session->loss_waits = false;
    } else {
        free(freed);
    }
}

void drop_events(bus_session* session) {
    while (event* dropped = take_event(session)) {
        free(dropped->mail);
        free_event(session, dropped);
    }
}

void drop_request(bus_session* session, request** link) {
    request* dropped = *link;
    *link = dropped->next;
    if (dropped->next == nullptr) {
        session->requests_end = link;
    }
    --session->request_count;
    free(dropped->unsent);
    free(dropped);
}

void answer_request(bus_session* session, request** link, int reason) {
    add_event(session, news::ANSWER, (*link)->id, reason, nullptr);
    drop_request(session, link);
}

void answer_mid(bus_session* session, int mid, int reason) {
    for (request** link = &session->requests; *link != nullptr; link = &(*link)->next) {
        if ((*link)->unsent == nullptr && (*link)->mid == mid) {
            answer_request(session, link, reason);
            return;
        }
    }
}

// --- libmosquitto's callbacks: they only take notes
// ----------------------------------------------------------------------

void on_connect(mosquitto*, void* owner, int reason, int, const mosquitto_property*) {
    auto* session = static_cast<bus_session*>(owner);
    session->accepted = reason == 0;
    if (reason == MQTT_RC_NOT_AUTHORIZED || reason == MQTT_RC_BAD_USERNAME_OR_PASSWORD || reason == MQTT_RC_BANNED) {
        session->refusal = EACCES;
    } else if (reason != 0) {
        session->refusal = ECONNREFUSED;
    }
}

void on_publish(mosquitto*, void* owner, int mid, int reason, const mosquitto_property*) {
    answer_mid(static_cast<bus_session*>(owner), mid, reason);
}

void on_subscribe(mosquitto*, void* owner, int mid, int count, const int* granted, const mosquitto_property*) {
    answer_mid(static_cast<bus_session*>(owner), mid, count > 0 ? granted[0] : REFUSED);
}

void on_unsubscribe(mosquitto*, void* owner, int mid, const mosquitto_property*) {
    answer_mid(static_cast<bus_session*>(owner), mid, 0);
}

void on_message(mosquitto*, void* owner, const mosquitto_message* message, const mosquitto_property* properties) {
    char* response_topic = nullptr;
    void* correlation = nullptr;
    uint16_t correlation_length = 0;
    mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &response_topic, false);
    mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation, &correlation_length, false);
    const auto length = static_cast<size_t>(message->payloadlen);
    const bus_message arrived{message->topic,
                              length == 0 || length > BUS_PAYLOAD_MAX ? nullptr : message->payload,
                              length,
                              message->retain,
                              response_topic,
                              correlation,
                              correlation_length};
    letter* mail = letter_copy(arrived);
    if (mail != nullptr) {
        add_event(static_cast<bus_session*>(owner), news::MESSAGE, 0, 0, mail);
    }
    free(response_topic);
    free(correlation);
}

void set_callbacks(mosquitto* client) {
    mosquitto_connect_v5_callback_set(client, on_connect);
    mosquitto_publish_v5_callback_set(client, on_publish);
    mosquitto_subscribe_v5_callback_set(client, on_subscribe);
    mosquitto_unsubscribe_v5_callback_set(client, on_unsubscribe);
    mosquitto_message_v5_callback_set(client, on_message);
}

// --- The connection
// ------------------------------------------------------------------------------------------------------

void drop_client(bus_session* session, int wait_ms) {
    ev_io_stop(session->loop, &session->readable);
    ev_io_stop(session->loop, &session->writable);
    if (session->client != nullptr) {
        client_close(session->client, wait_ms);
        session->client = nullptr;
    }
    while (session->requests != nullptr) {
        drop_request(session, &session->requests);
    }
}

void lose(bus_session* session, int error) {
    // A session that ends as soon as it has begun counts as a failed attempt: a broker that throws everybody out at
    // once must not keep a caller that reopens from its failure callback busy.
    if (!session->reconnect &&
        (session->now == state::CONNECTING || monotonic_ms() - session->attempt_ms < HOLD_OFF_MS)) {
        bus_hold_off();
    }
    if (!session->reconnect || session->now == state::CONNECTED) {
        add_event(session, news::LOST, 0, error, nullptr);
    }
    drop_client(session, 0);
    session->now = session->reconnect ? state::WAITING : state::LOST;
}

void watch_writable(bus_session* session) {
    if (mosquitto_want_write(session->client)) {
        ev_io_start(session->loop, &session->writable);
    } else {
        ev_io_stop(session->loop, &session->writable);
    }
}

int attempt(bus_session* session) {
    session->accepted = false;
    session->refusal = 0;
    session->attempt_ms = monotonic_ms();
    session->client =
        client_connect(session, set_callbacks, session->will == nullptr ? nullptr : &session->will->message);
    if (session->client == nullptr) {
        return -1;
    }
    session->now = state::CONNECTING;
    const int fd = mosquitto_socket(session->client);
    ev_io_set(&session->readable, fd, EV_READ);
    ev_io_set(&session->writable, fd, EV_WRITE);
    ev_io_start(session->loop, &session->readable);
    watch_writable(session);  // a distant host has not taken the connection yet, and its first packet waits
    return 0;
}

int publish(mosquitto* client, request* sent, const bus_message& message) {
    mosquitto_property* properties = nullptr;
    int code = MOSQ_ERR_SUCCESS;
    if (message.response_topic != nullptr) {
        code = mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, message.response_topic);
    }
    if (code == MOSQ_ERR_SUCCESS && message.correlation != nullptr) {
        code = mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, message.correlation,
                                             static_cast<uint16_t>(message.correlation_length));
    }
    if (code == MOSQ_ERR_SUCCESS) {
        code = mosquitto_publish_v5(client, &sent->mid, message.topic, static_cast<int>(message.length),
                                    message.payload, sent->quality, message.retained, properties);
    }
    const int error = errno;  // says more about some codes, see client_error
    mosquitto_property_free_all(&properties);
    errno = error;
    return code;
}

int subscribe(mosquitto* client, request* sent, const char* filter) {
    int options = MQTT_SUB_OPT_SEND_RETAIN_ALWAYS;
    switch (sent->retained) {
        case bus_retained::SEND:
            break;
        case bus_retained::NEVER:
            options = MQTT_SUB_OPT_SEND_RETAIN_NEVER;
            break;
        case bus_retained::SEND_AND_TELL:
            options |= MQTT_SUB_OPT_RETAIN_AS_PUBLISHED;
            break;
    }
    return mosquitto_subscribe_v5(client, &sent->mid, filter, sent->quality, options, nullptr);
}

int send(mosquitto* client, request* sent, const bus_message& message) {
    switch (sent->what) {
        case verb::PUBLISH:
            return publish(client, sent, message);
        case verb::SUBSCRIBE:
            return subscribe(client, sent, message.topic);
        case verb::UNSUBSCRIBE:
            return mosquitto_unsubscribe_v5(client, &sent->mid, message.topic, nullptr);
    }
    return MOSQ_ERR_INVAL;
}

void send_requests(bus_session* session) {
    request** link = &session->requests;
    while (*link != nullptr) {
        request* sent = *link;
        letter* paper = sent->unsent;
        if (paper == nullptr) {
            link = &sent->next;
            continue;
        }
        sent->unsent = nullptr;
        const int code = send(session->client, sent, paper->message);
        const int error = client_error(code);
        free(paper);
        if (code == MOSQ_ERR_NO_CONN || code == MOSQ_ERR_CONN_LOST || code == MOSQ_ERR_ERRNO) {
            lose(session, error);
            return;
        }
        if (*link != sent) {
            continue;  // a publication of quality 0 was written, and thereby answered, inside the call
        }
        if (code == MOSQ_ERR_SUCCESS) {
            link = &sent->next;
        } else {
            answer_request(session, link, REFUSED);
        }
    }
    watch_writable(session);
}

// What follows every call that let libmosquitto read, write or look at its clock.
void after_client(bus_session* session, int code) {
    if (session->refusal != 0) {
        lose(session, session->refusal);
    } else if (code != MOSQ_ERR_SUCCESS) {
        lose(session, client_error(code));
    } else if (mosquitto_socket(session->client) < 0) {
        lose(session, ECONNRESET);
    } else if (session->now == state::CONNECTING && session->accepted) {
        session->now = state::CONNECTED;
        add_event(session, news::CONNECTED, 0, 0, nullptr);
        send_requests(session);
    } else {
        watch_writable(session);
    }
}

// --- Watchers
// ------------------------------------------------------------------------------------------------------------

void on_readable(struct ev_loop*, ev_io* watcher, int) {
    auto* session = static_cast<bus_session*>(watcher->data);
    after_client(session, mosquitto_loop_read(session->client, 1));
}

void on_writable(struct ev_loop*, ev_io* watcher, int) {
    auto* session = static_cast<bus_session*>(watcher->data);
    after_client(session, mosquitto_loop_write(session->client, 1));
}

void on_tick(struct ev_loop*, ev_timer* watcher, int) {
    auto* session = static_cast<bus_session*>(watcher->data);
    if (session->now == state::WAITING) {
        (void)attempt(session);  // silently; the next tick tries again
    } else if (session->now == state::CONNECTING && monotonic_ms() - session->attempt_ms > CONNECT_LIMIT_MS) {
        lose(session, ETIMEDOUT);
    } else if (session->client != nullptr) {
        after_client(session, mosquitto_loop_misc(session->client));
    }
}

bool is_free(const bus_listener& place) {
    return place.on_connected == nullptr && place.on_lost == nullptr && place.on_message == nullptr &&
           place.on_answer == nullptr;
}

void tell_listener(bus_session* session, const bus_listener& to, const event& what) {
    switch (what.what) {
        case news::CONNECTED:
            if (to.on_connected != nullptr) {
                to.on_connected(session, to.context);
            }
            break;
        case news::LOST:
            if (to.on_lost != nullptr) {
                to.on_lost(session, what.code, to.context);
            }
            break;
        case news::MESSAGE:
            if (to.on_message != nullptr) {
                to.on_message(session, &what.mail->message, to.context);
            }
            break;
        case news::ANSWER:
            if (to.on_answer != nullptr) {
                to.on_answer(session, what.id, what.code, to.context);
            }
            break;
    }
}

// Tells what had happened when it began; what its listeners cause waits for the next round of the loop, so that they
// cannot keep it from everything else.
void on_tell(struct ev_loop*, ev_timer* watcher, int) {
    auto* session = static_cast<bus_session*>(watcher->data);
    ++session->telling;
    for (int left = session->event_count; left > 0 && !session->closed; --left) {
        event* taken = take_event(session);
        if (taken == nullptr) {
            break;  // a listener ran the loop, which has told the rest
        }
        const event told = *taken;
        free_event(session, taken);
        if (session->events != nullptr) {
            tell_later(session);  // for a listener that runs the loop
        }
        for (int i = 0; i < LISTENERS_MAX && !session->closed; ++i) {
            const bus_listener to = session->listeners[i];
            tell_listener(session, to, told);
        }
        free(told.mail);
    }
    --session->telling;
    if (session->closed && session->telling == 0) {
        free(session);
    }
}

uint32_t add_request(bus_session* session, verb what, const bus_message& message, int quality, bus_retained retained) {
    if (session->now == state::LOST || (session->reconnect && session->now != state::CONNECTED)) {
        errno = ENOTCONN;
        return 0;
    }
    if (session->request_count >= BUS_REQUESTS_MAX) {
        errno = ENOBUFS;
        return 0;
    }
    auto* added = static_cast<request*>(calloc(1, sizeof(request)));
    letter* paper = letter_copy(message);
    if (added == nullptr || paper == nullptr) {
        free(added);
        free(paper);
        errno = ENOMEM;
        return 0;
    }
    last_id = last_id == UINT32_MAX ? 1 : last_id + 1;
    const uint32_t id = last_id;
    *added = request{nullptr, id, 0, what, quality, retained, paper};
    *session->requests_end = added;
    session->requests_end = &added->next;
    ++session->request_count;
    if (session->now == state::CONNECTED) {
        send_requests(session);
        if (session->now != state::CONNECTED) {  // the write has met a connection that was dead already
            errno = ENOTCONN;
            return 0;
        }
    }
    return id;
}

bool is_topic(const char* topic, int (*check)(const char*)) {
    const size_t length = strnlen(topic, BUS_TOPIC_MAX + 1);
    return length > 0 && length <= BUS_TOPIC_MAX && check(topic) == MOSQ_ERR_SUCCESS &&
           mosquitto_validate_utf8(topic, static_cast<int>(length)) == MOSQ_ERR_SUCCESS;
}

bool is_publishable(const bus_message& message, int quality) {
    return is_topic(message.topic, mosquitto_pub_topic_check) && message.length <= BUS_PAYLOAD_MAX &&
           (message.payload != nullptr || message.length == 0) && message.correlation_length <= UINT16_MAX &&
           (quality == 0 || quality == 1);
}

uint32_t filter_request(bus_session* session, verb what, const char* filter, int quality, bus_retained retained) {
    if (!is_topic(filter, mosquitto_sub_topic_check) || (quality != 0 && quality != 1)) {
        errno = EINVAL;
        return 0;
    }
    bus_message message{};
    message.topic = filter;
    return add_request(session, what, message, quality, retained);
}

}  // namespace

// --- Public functions
// ------------------------------------------------------------------------------------------------------

bus_session* bus_open(struct ev_loop* loop, const bus_options* options) {
    if (!options->reconnect && monotonic_ms() < hold_off_until_ms) {
        errno = ECONNREFUSED;
        return nullptr;
    }
    auto* session = static_cast<bus_session*>(calloc(1, sizeof(bus_session)));
    letter* will = options->will == nullptr ? nullptr : letter_copy(*options->will);
    if (session == nullptr || (will == nullptr && options->will != nullptr)) {
        free(session);
        free(will);
        errno = ENOMEM;
        return nullptr;
    }
    session->loop = loop;
    session->reconnect = options->reconnect;
    session->will = will;
    session->listeners[0] = options->listener;
    session->requests_end = &session->requests;
    session->events_end = &session->events;
    ev_init(&session->readable, on_readable);
    ev_init(&session->writable, on_writable);
    ev_timer_init(&session->tick, on_tick, TICK_S, TICK_S);
    ev_timer_init(&session->tell, on_tell, 0., 0.);
    session->readable.data = session;
    session->writable.data = session;
    session->tick.data = session;
    session->tell.data = session;
    if (attempt(session) < 0 && (!session->reconnect || errno == EINVAL)) {
        const int error = errno;
        if (!session->reconnect) {
            bus_hold_off();
        }
        free(session->will);
        free(session);
        errno = error;
        return nullptr;
    }
    ev_timer_start(loop, &session->tick);
    return session;
}

void bus_close(bus_session* session) {
    if (session == nullptr || session->closed) {
        return;
    }
    session->closed = true;
    ev_timer_stop(session->loop, &session->tick);
    ev_timer_stop(session->loop, &session->tell);
    const bool lingers = session->now == state::CONNECTED && session->request_count > 0 && !session->flush_failed;
    drop_client(session, lingers ? LINGER_MS : 0);
    drop_events(session);
    free(session->will);
    if (session == shared_session) {
        bus_share(nullptr, "");
    }
    if (session->telling == 0) {
        free(session);
    }
}

int bus_listen(bus_session* session, const bus_listener* listener) {
    for (bus_listener& place : session->listeners) {
        if (is_free(place)) {
            place = *listener;
            return 0;
        }
    }
    errno = ENOSPC;
    return -1;
}

// The others keep their places: this may be called while they are being told something.
void bus_unlisten(bus_session* session, const void* context) {
    for (bus_listener& place : session->listeners) {
        if (place.context == context) {
            place = bus_listener{};
        }
    }
}

bool bus_connected(const bus_session* session) {
    return session->now == state::CONNECTED;
}

uint32_t bus_publish(bus_session* session, const bus_message* message, int quality) {
    if (!is_publishable(*message, quality)) {
        errno = EINVAL;
        return 0;
    }
    return add_request(session, verb::PUBLISH, *message, quality, bus_retained::NEVER);
}

uint32_t bus_subscribe(bus_session* session, const char* filter, int quality, bus_retained retained) {
    return filter_request(session, verb::SUBSCRIBE, filter, quality, retained);
}

uint32_t bus_unsubscribe(bus_session* session, const char* filter) {
    return filter_request(session, verb::UNSUBSCRIBE, filter, 0, bus_retained::NEVER);
}

bool bus_read(bus_session* session) {
    if (session->client != nullptr) {
        after_client(session, mosquitto_loop_read(session->client, 1));
    }
    return session->client != nullptr;
}

bus_fate bus_request_fate(const bus_session* session, uint32_t id, int* reason) {
    for (const request* one = session->requests; one != nullptr; one = one->next) {
        if (one->id == id) {
            return one->unsent != nullptr ? bus_fate::QUEUED : bus_fate::SENT;
        }
    }
    for (const event* one = session->events; one != nullptr; one = one->next) {
        if (one->what == news::ANSWER && one->id == id) {
            *reason = one->code;
            return bus_fate::ANSWERED;
        }
    }
    return session->accepted ? bus_fate::SENT : bus_fate::QUEUED;
}

int bus_flush(bus_session* session, int time_ms) {
    const int64_t deadline_ms = monotonic_ms() + time_ms;
    while (session->client != nullptr && session->request_count > 0) {
        const int64_t left_ms = deadline_ms - monotonic_ms();
        if (left_ms <= 0) {
            session->flush_failed = true;
            errno = ETIMEDOUT;
            return -1;
        }
        const bool writes = mosquitto_want_write(session->client);
        pollfd waiting{mosquitto_socket(session->client), static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0};
        (void)poll(&waiting, 1, static_cast<int>(left_ms));
        if ((waiting.revents & POLLOUT) != 0) {
            after_client(session, mosquitto_loop_write(session->client, 1));
        }
        if (session->client != nullptr && (waiting.revents & ~POLLOUT) != 0) {
            after_client(session, mosquitto_loop_read(session->client, 1));
        }
    }
    if (session->client == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    return 0;
}

void bus_hold_off() {
    hold_off_until_ms = monotonic_ms() + HOLD_OFF_MS;
}

void bus_share(bus_session* session, const char* app) {
    shared_session = session;
    shared_app = app;
}

bus_session* bus_shared() {
    return shared_session;
}

const char* bus_shared_app() {
    return shared_app;
}
