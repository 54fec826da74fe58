// libvesk_bus: sessions with the message bus, an MQTT 5 broker on a Unix socket (or TCP). Internal to the platform
// libraries and the tools; the daemon never sees it.
//
// Everything belongs to the thread of the loop that a session was opened on. No listener runs inside a call of this
// library: what has happened is queued, and a watcher on the loop tells it afterwards. A listener may do anything,
// closing its own session and running the loop once more included.
#pragma once

#include <cstddef>
#include <cstdint>

struct ev_loop;

#pragma GCC visibility push(default)

// --- Address ---------------------------------------------------------------------------------------------------------

// Where the broker is: "unix:PATH" or "tcp:HOST:PORT", HOST a numeric address (IPv6 in brackets) or "localhost": a name
// would have to be looked up, which can take seconds. What bus_address_set kept, else the environment's VESK_BUS, else
// "unix:/run/karveld/karveld.sock". The environment's VESK_BUS_USER and VESK_BUS_PASSWORD are the credentials.

// Keeps a copy of the address for sessions opened from now on. 0, or -1 with errno (EINVAL, ENOMEM): nothing has
// changed.
int bus_address_set(const char* text);

// The address that the next session will use, as text, well-formed or not. Valid until the next bus_address_set.
const char* bus_address();

// --- Sessions --------------------------------------------------------------------------------------------------------

struct bus_session;

constexpr size_t BUS_PAYLOAD_MAX = size_t{1} << 20;  // what a message may carry, bytes
constexpr size_t BUS_TOPIC_MAX = 1024;               // longest topic that can be published or subscribed to, bytes
constexpr int BUS_REQUESTS_MAX = 1024;               // requests of a session that may wait for an answer

struct bus_message {
    const char* topic;
    const void* payload;         // null when length is 0, and on arrival of more than BUS_PAYLOAD_MAX bytes
    size_t length;               // bytes, on arrival always the true one
    bool retained;               // to publish: keep it in the broker; on arrival: it was kept there, it is not news
    const char* response_topic;  // null: none
    const void* correlation;     // null: none
    size_t correlation_length;   // bytes, at most 65535
};

// Whoever wants to know about a session. Callbacks may be null. What they are given is valid only during the call.
struct bus_listener {
    // The broker has accepted the session. A session with `reconnect` is new each time: subscribe here.
    void (*on_connected)(bus_session* session, void* context);
    // The session is lost (error: a positive errno: ECONNREFUSED, ECONNRESET, EACCES, ETIMEDOUT, ...). Every request
    // that had no answer has failed and gets none. Without `reconnect` this is the session's last word: close it. With
    // `reconnect` it runs only after on_connected: failing attempts are silent.
    void (*on_lost)(bus_session* session, int error, void* context);
    void (*on_message)(bus_session* session, const bus_message* message, void* context);
    // The broker has answered a request (publications of quality 0: it was sent). reason: the MQTT 5 reason code; 0x80
    // and above: refused.
    void (*on_answer)(bus_session* session, uint32_t request, int reason, void* context);
    void* context;
};

struct bus_options {
    bus_listener listener;  // the first listener
    bool reconnect;         // true: the session comes back by itself, one attempt a second
    const bus_message*
        will;  // what the broker publishes, quality 1, when the session ends without bus_close; null: none
};

// Opens a session on the loop; the options are copied.
// Null: errno says why (EINVAL: the address makes no sense). Without `reconnect` also when the broker cannot be
// reached, and at once with ECONNREFUSED within a second after an attempt that failed (bus_hold_off), so that a caller
// that reopens from its failure callback cannot spin. Never waits for anything.
bus_session* bus_open(struct ev_loop* loop, const bus_options* options);

// Ends the session with a goodbye (the will is not published) and frees it; null is fine. No listener of it runs any
// more, ever. Waits, at most 20 ms, only for a broker that still owes answers, and not after a bus_flush that ran out
// of time.
void bus_close(bus_session* session);

// Adds another listener (four at most; -1 with errno ENOSPC), told after the earlier ones unless it takes a
// freed place. The listener is copied.
int bus_listen(bus_session* session, const bus_listener* listener);
// Takes away the listener with this context.
void bus_unlisten(bus_session* session, const void* context);

// Whether the broker has accepted the session and it is not lost.
bool bus_connected(const bus_session* session);

// Requests. They give a non-zero number, then on_answer or on_lost comes; 0: errno says why (EINVAL: topic or length;
// ENOTCONN: lost, if only by this request's own write, or a session with `reconnect` that is not connected; ENOBUFS:
// BUS_REQUESTS_MAX wait already; ENOMEM): neither comes for it.
// A session without `reconnect` queues what is asked of it before the broker has accepted it.

// Publishes. quality: 0 or 1.
uint32_t bus_publish(bus_session* session, const bus_message* message, int quality);

// Whether a subscription asks for what the broker has kept. SEND_AND_TELL: it does, and news whose publisher asked for
// being kept arrives as retained as well.
enum class bus_retained { SEND, NEVER, SEND_AND_TELL };

// Subscribes to a filter ('+' and '#' as in MQTT); subscribing again replaces quality and asks again for what is kept.
uint32_t bus_subscribe(bus_session* session, const char* filter, int quality, bus_retained retained);
uint32_t bus_unsubscribe(bus_session* session, const char* filter);

// Reads now what has arrived (listeners are told later). False: the session is lost. A loop that runs does it by
// itself.
bool bus_read(bus_session* session);

// Waits until the broker has answered every request, those that are still queued included, or time_ms has passed: for
// the last words before a session is closed. 0, or -1 with errno (ETIMEDOUT, ENOTCONN).
int bus_flush(bus_session* session, int time_ms);

// What has become of a request of which no listener has been told: it waits for the broker to accept the session, the
// broker may have it, or its answer waits to be told. After a loss QUEUED means that the broker cannot have it.
enum class bus_fate { QUEUED, SENT, ANSWERED };
// ANSWERED sets *reason, the other two leave it.
bus_fate bus_request_fate(const bus_session* session, uint32_t id, int* reason);

// Makes bus_open without `reconnect` fail for the next second, as after an attempt that failed.
void bus_hold_off();

// --- The process's shared session ------------------------------------------------------------------------------------

// The one session of remote actions and reports, with the application's name for its topics. Whoever opened it shares
// it, and shares null before closing it. The name is not copied.
void bus_share(bus_session* session, const char* app);
bus_session* bus_shared();     // null: none
const char* bus_shared_app();  // "" when there is none

#pragma GCC visibility pop
