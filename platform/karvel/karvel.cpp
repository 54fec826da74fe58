// The requests of a handle: sets, reads and registrations on one session with the bus.
//
// A handle is a number dressed as a pointer, never dereferenced, and looked up among the open ones at every call. A
// pointer that a caller kept after the close therefore finds nothing, costs no memory, and cannot come to mean a newer
// handle: numbers are not given out again until 2^32 of them are used up, 136 years of one open a second.
//
// A read is a subscription that asks for the retained value, followed at once by a second packet about the same key.
// The broker answers packets in order, so once the second is answered the value has arrived or there is none.
//
// What this process has set to be kept is remembered across handles, in at most MEMORIES_MAX records:
// - A set whose handle was closed before the service could have seen it goes out first on the next handle. Callers
// reopen
//   a link that does not answer, and believe such a set done.
// - A set whose handle was closed before the answer came may have arrived or not. When the next handle is connected the
//   key is read, and set only when the service has nothing or an older value of this process: any other one is somebody
//   else's, and a request ("start") must not be made twice.
// - A value that the service had acknowledged is set again when the service, read in the same way, has none at all: it
//   has lost its memory. Never for a key that this process has registered for: its values are requests of others, and
//   whoever made them does not expect them to come back.
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ev.h>
#include <utility>

#include "bus/bus.h"
#include "response.h"

namespace {

constexpr size_t VALUE_MAX = size_t{64} << 10;  // bytes
constexpr int DEFAULT_TIMEOUT_S = 10;
constexpr int CLOSE_MS = 20;      // for a service that has not taken every set when the handle is closed
constexpr int EARLIER_MAX = 8;    // values of a key that may be the one that the service has
constexpr int MEMORIES_MAX = 32;  // keys
constexpr int REFUSED = 0x80;     // reason codes from here on mean failure
constexpr const char* PREFIX = "karvel/";

enum class kind { SET, READ, REGISTRATION };

struct item {
    item* next;
    kind what;
    uint32_t id;          // of the packet whose answer ends it; REGISTRATION: confirms it
    uint32_t first_id;    // READ: of the packet that asks for the value
    int64_t deadline_ms;  // SET, READ
    bool own;             // SET, READ: made here and not by the caller: no callback, no deadline
    bool refused;         // READ: the service does not let us ask
    bool nothing;         // SET: of no value: succeeds by itself
    // SET: success; READ: completion; REGISTRATION: notification. Null for a read that has completed early: its packets
    // are still on their way, and what they bring must not be taken for the answer to a younger read of the same key.
    karvel_callback callback;
    karvel_callback on_fail;
    void* context;
    bool confirm;     // REGISTRATION: the confirmation has been asked for
    bool confirmed;   // REGISTRATION: the service has confirmed, notifications may follow
    uint32_t serial;  // REGISTRATION: rises with every one of the connection
    char* value;      // owned; READ: null: none arrived; SET: what is to be kept, with a NUL; null: nothing to remember
    size_t value_length;  // READ: bytes
    char topic[];         // karvel/<namespace>/<group>/<key>
};

}  // namespace

struct karvel_connection {
    karvel_connection* next;
    uint32_t number;  // the handle
    struct ev_loop* loop;
    bus_session* session;
    ev_timer timer;  // runs to the earliest deadline
    item* items;     // in the order of the requests
    uint32_t last_registration;
    bool lost;
    bool closed;  // taken off the list of open ones; freed by whoever holds it last
    int held;     // calls and callbacks that are using it
};

namespace {

// What this process has set to be kept for one key. All values are owned.
struct memory {
    memory* next;
    char* kept;                  // the last one that was acknowledged; null: none
    char* unknown;               // a later one that was set on a handle that was closed; null: none
    bool maybe;                  // the service may have the unknown one
    char* earlier[EARLIER_MAX];  // others whose end is not known, the oldest first; null: no more
    char topic[];
};

// A key that this process has registered for.
struct listened {
    listened* next;
    char topic[];
};

karvel_connection* connections;  // the open ones
uint32_t last_number;
memory* memories;  // at most MEMORIES_MAX
listened* listened_keys;
char* known_address;  // owned; of the service that both lists are about; null: no handle has been opened yet

int64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

karvel_connection* find(karvel_handle* handle) {
    const auto number = static_cast<uint32_t>(std::bit_cast<uintptr_t>(handle));
    karvel_connection* found = connections;
    while (found != nullptr && found->number != number) {
        found = found->next;
    }
    return found;
}

void release(karvel_connection* connection) {
    if (--connection->held == 0 && connection->closed) {
        free(connection);
    }
}

// --- Names -----------------------------------------------------------------------------------------------------------

bool is_name(const char* name) {
    return name != nullptr && *name != '\0' && strpbrk(name, "/+#") == nullptr;
}

// A new item of the library's own; null when memory ran out.
item* make_own_item(kind what, const char* topic) {
    const size_t size = strlen(topic) + 1;
    auto* made = static_cast<item*>(calloc(1, sizeof(item) + size));
    if (made != nullptr) {
        made->what = what;
        made->own = true;
        memcpy(made->topic, topic, size);
    }
    return made;
}

// A new item for a key; null when a name cannot be or memory ran out.
item* make_item(kind what, const char* name_space, const char* group, const char* key) {
    group = group == nullptr ? "default" : group;
    if (!is_name(name_space) || !is_name(group) || !is_name(key)) {
        return nullptr;
    }
    const size_t prefix = strlen(PREFIX);
    const size_t lengths[] = {strlen(name_space), strlen(group), strlen(key)};
    auto* made = static_cast<item*>(calloc(1, sizeof(item) + prefix + lengths[0] + lengths[1] + lengths[2] + 3));
    if (made == nullptr) {
        return nullptr;
    }
    made->what = what;
    char* end = made->topic;
    memcpy(end, PREFIX, prefix);
    end += prefix;
    const char* names[] = {name_space, group, key};
    for (int i = 0; i < 3; ++i) {
        memcpy(end, names[i], lengths[i]);
        end += lengths[i];
        *end++ = i < 2 ? '/' : '\0';
    }
    return made;
}

void free_item(item* freed) {
    free(freed->value);
    free(freed);
}

void append(karvel_connection* connection, item* added) {
    item** link = &connection->items;
    while (*link != nullptr) {
        link = &(*link)->next;
    }
    *link = added;
}

void unlink_item(karvel_connection* connection, const item* gone) {
    item** link = &connection->items;
    while (*link != nullptr && *link != gone) {
        link = &(*link)->next;
    }
    if (*link != nullptr) {
        *link = gone->next;
    }
}

// --- What is remembered ----------------------------------------------------------------------------------------------

bool is_listened(const char* topic) {
    const listened* one = listened_keys;
    while (one != nullptr && strcmp(one->topic, topic) != 0) {
        one = one->next;
    }
    return one != nullptr;
}

// The link to a key's record; it points to null when there is none.
memory** find_memory(const char* topic) {
    memory** link = &memories;
    while (*link != nullptr && strcmp((*link)->topic, topic) != 0) {
        link = &(*link)->next;
    }
    return link;
}

void forget_earlier(memory* one) {
    for (char*& value : one->earlier) {
        free(std::exchange(value, nullptr));
    }
}

// Takes the value over.
void add_earlier(memory* one, char* value) {
    int count = 0;
    while (count < EARLIER_MAX && one->earlier[count] != nullptr) {
        ++count;
    }
    if (count == EARLIER_MAX) {
        free(one->earlier[0]);
        memmove(one->earlier, one->earlier + 1, (EARLIER_MAX - 1) * sizeof one->earlier[0]);
        --count;
    }
    one->earlier[count] = value;
}

void drop_memory(memory** link) {
    memory* dropped = *link;
    *link = dropped->next;
    free(dropped->kept);
    free(dropped->unknown);
    forget_earlier(dropped);
    free(dropped);
}

// What was set in one service is nothing to restore in another.
void forget_other_service(const char* address) {
    if (known_address != nullptr && strcmp(known_address, address) == 0) {
        return;
    }
    free(known_address);
    known_address = strdup(address);
    while (memories != nullptr) {
        drop_memory(&memories);
    }
    while (listened* one = listened_keys) {
        listened_keys = one->next;
        free(one);
    }
}

// A key's record, made where there is none; null: there are enough, or no memory.
memory* get_memory(const char* topic) {
    memory** link = find_memory(topic);
    if (*link != nullptr) {
        return *link;
    }
    int count = 0;
    for (const memory* one = memories; one != nullptr; one = one->next) {
        ++count;
    }
    const size_t size = strlen(topic) + 1;
    auto* made = count < MEMORIES_MAX ? static_cast<memory*>(calloc(1, sizeof(memory) + size)) : nullptr;
    if (made != nullptr) {
        memcpy(made->topic, topic, size);
        *link = made;
    }
    return made;
}

void forget(const char* topic) {
    memory** link = find_memory(topic);
    if (*link != nullptr) {
        drop_memory(link);
    }
}

// What the caller sets now makes an earlier set of the key pointless.
void supersede(const char* topic) {
    memory* one = *find_memory(topic);
    if (one != nullptr && one->unknown != nullptr) {
        add_earlier(one, std::exchange(one->unknown, nullptr));
    }
}

// The service has acknowledged this value; it is taken over. An empty one has taken the key's value away.
void remember_kept(const char* topic, char* value) {
    memory* one = *value == '\0' || is_listened(topic) ? nullptr : get_memory(topic);
    if (one == nullptr) {
        forget(topic);
        free(value);
        return;
    }
    free(one->kept);
    one->kept = value;
    forget_earlier(one);
}

// From now on the key's values are requests of others. False: no memory.
bool add_listened(const char* topic) {
    if (is_listened(topic)) {
        return true;
    }
    const size_t size = strlen(topic) + 1;
    auto* added = static_cast<listened*>(malloc(sizeof(listened) + size));
    if (added == nullptr) {
        return false;
    }
    memcpy(added->topic, topic, size);
    added->next = listened_keys;
    listened_keys = added;
    memory* one = *find_memory(topic);
    if (one != nullptr && one->unknown != nullptr && !one->maybe) {
        free(std::exchange(one->kept, nullptr));  // what the service has not been told yet still goes out
    } else {
        forget(topic);
    }
    return true;
}

void set_has_succeeded(item* set) {
    if (set->value == nullptr) {
        return;
    }
    memory* one = *find_memory(set->topic);
    if (set->own && one != nullptr) {
        free(std::exchange(one->unknown, nullptr));
    }
    remember_kept(set->topic, std::exchange(set->value, nullptr));
}

// The set has failed, and the caller knows it; but the service may have the value, or get it.
void set_has_failed(item* set) {
    memory* one = set->value == nullptr || is_listened(set->topic) ? nullptr : get_memory(set->topic);
    if (one != nullptr) {
        add_earlier(one, std::exchange(set->value, nullptr));
    }
}

// A set ends before its answer, and nobody is told: its handle is closed, or nobody has asked for it.
void set_has_been_cut_off(const karvel_connection* connection, item* set) {
    int reason = 0;
    const bus_fate fate = bus_request_fate(connection->session, set->id, &reason);
    if (set->value == nullptr || (fate == bus_fate::ANSWERED && reason >= REFUSED)) {
        return;
    }
    if (fate == bus_fate::ANSWERED) {
        set_has_succeeded(set);
        return;
    }
    const bool maybe = fate == bus_fate::SENT;
    if (maybe && is_listened(set->topic)) {
        forget(set->topic);
        return;
    }
    memory* one = set->own ? *find_memory(set->topic) : get_memory(set->topic);
    if (one == nullptr) {
        return;  // the key was set again since, or there is no memory
    }
    if (set->own) {
        one->maybe = one->maybe || maybe;
        return;
    }
    supersede(set->topic);
    one->unknown = std::exchange(set->value, nullptr);
    one->maybe = maybe;
}

// Calls back about an item. The callback may close the handle, which frees every item of the list, so everything is
// taken from the item beforehand; one that is unlinked stays the caller's.
// False: the handle is closed now.
bool call(karvel_connection* connection, const item* about, karvel_callback callback, karvel_xvalue value, int error) {
    if (callback == nullptr) {
        return true;
    }
    char* names = strdup(about->topic + strlen(PREFIX));
    char* group = names == nullptr ? nullptr : strchr(names, '/');
    char* key = group == nullptr ? nullptr : strchr(group + 1, '/');
    karvel_response response{{"", "", ""}, value, error};
    if (key != nullptr) {
        *group = '\0';
        *key = '\0';
        response.name = karvel_xname{names, group + 1, key + 1};
    } else {
        response.error = ENOMEM;  // told all the same: a callback that never comes would be waited for
    }
    ++connection->held;
    callback(&response, about->context);
    free(names);
    const bool open = !connection->closed;
    release(connection);
    return open;
}

constexpr karvel_xvalue NO_VALUE{nullptr, 0};

// --- Deadlines
// ---------------------------------------------------------------------------------------------------------

int64_t deadline(int timeout_s) {
    return now_ms() + int64_t{timeout_s < 0 ? DEFAULT_TIMEOUT_S : timeout_s} * 1000;
}

bool has_deadline(const item* one) {
    return !one->own && (one->what == kind::SET || (one->what == kind::READ && one->callback != nullptr));
}

void set_timer(karvel_connection* connection) {
    int64_t earliest_ms = INT64_MAX;
    for (const item* one = connection->items; one != nullptr; one = one->next) {
        if (has_deadline(one) && one->deadline_ms < earliest_ms) {
            earliest_ms = one->deadline_ms;
        }
    }
    ev_timer_stop(connection->loop, &connection->timer);
    if (earliest_ms == INT64_MAX || connection->lost) {
        return;
    }
    // The loop counts from when it last looked at the clock, which may be long ago: a timer that comes too early finds
    // nothing due and is set again.
    const int64_t left_ms = earliest_ms - now_ms();
    ev_timer_set(&connection->timer, left_ms <= 0 ? 0. : static_cast<double>(left_ms) / 1000. + 0.001, 0.);
    ev_timer_start(connection->loop, &connection->timer);
}

// The link to a request that is overdue; it points to null when there is none.
item** find_due(karvel_connection* connection, int64_t when_ms) {
    item** link = &connection->items;
    while (*link != nullptr && !(has_deadline(*link) && (*link)->deadline_ms <= when_ms)) {
        link = &(*link)->next;
    }
    return link;
}

// Ends the set or read at the link. False: the handle is closed now.
bool end_overdue(karvel_connection* connection, item** link) {
    item* overdue = *link;
    if (overdue->what == kind::READ) {
        const karvel_callback on_done = overdue->callback;
        overdue->callback = nullptr;
        return call(connection, overdue, on_done, NO_VALUE, ETIMEDOUT);
    }
    *link = overdue->next;
    set_has_failed(overdue);
    const bool open = overdue->nothing ? call(connection, overdue, overdue->callback, NO_VALUE, 0)
                                       : call(connection, overdue, overdue->on_fail, NO_VALUE, ETIMEDOUT);
    free_item(overdue);
    return open;
}

void expire(karvel_connection* connection) {
    const int64_t when_ms = now_ms();  // what the callbacks ask for with no time at all waits for the next round
    ++connection->held;
    for (;;) {
        item** due = find_due(connection, when_ms);
        if (*due == nullptr) {
            set_timer(connection);
            break;
        }
        if (!end_overdue(connection, due)) {
            break;
        }
    }
    // Held above, so no release inside a callback was the last one; the analyzer does not count.
    release(connection);  // NOLINT(clang-analyzer-unix.Malloc)
}

void on_timer(struct ev_loop*, ev_timer* watcher, int) {
    expire(static_cast<karvel_connection*>(watcher->data));
}

// --- What the bus tells
// --------------------------------------------------------------------------------------------------

uint32_t publish(karvel_connection* connection, const char* topic, const char* value, bool retained) {
    bus_message message{};
    message.topic = topic;
    message.payload = *value == '\0' ? nullptr : value;
    message.length = strlen(value);
    message.retained = retained;
    return bus_publish(connection->session, &message, 1);
}

bool is_registered(const karvel_connection* connection, const char* topic) {
    const item* one = connection->items;
    while (one != nullptr && !(one->what == kind::REGISTRATION && strcmp(one->topic, topic) == 0)) {
        one = one->next;
    }
    return one != nullptr;
}

// Asks the service for a key's value. False: the connection is lost.
//
// Quality 0, which no limit on unacknowledged messages can hold back until after the second answer. The second packet
// puts things back as they were: unsubscribed, or subscribed as the registrations want it.
bool ask(karvel_connection* connection, item* read) {
    const bool registered = is_registered(connection, read->topic);
    read->first_id = bus_subscribe(connection->session, read->topic, 0, bus_retained::SEND);
    if (read->first_id != 0) {
        read->id = registered ? bus_subscribe(connection->session, read->topic, 1, bus_retained::NEVER)
                              : bus_unsubscribe(connection->session, read->topic);
    }
    return read->id != 0;
}

item* find_kind(karvel_connection* connection, kind what) {
    item* one = connection->items;
    while (one != nullptr && one->what != what) {
        one = one->next;
    }
    return one;
}

// Sets first, then reads, then registrations: a caller that reopens when a registration fails has by then been told
// about everything else. Registrations are taken one by one, for each callback may close the handle.
void on_lost(bus_session*, int error, void* context) {
    auto* connection = static_cast<karvel_connection*>(context);
    connection->lost = true;
    ev_timer_stop(connection->loop, &connection->timer);
    ++connection->held;
    constexpr kind ORDER[] = {kind::SET, kind::READ, kind::REGISTRATION};
    for (const kind what : ORDER) {
        while (!connection->closed) {
            item* one = find_kind(connection, what);
            if (one == nullptr) {
                break;
            }
            unlink_item(connection, one);
            if (what == kind::SET && one->own) {
                set_has_been_cut_off(connection, one);
            } else if (what == kind::SET) {
                set_has_failed(one);
            }
            (void)call(connection, one, what == kind::READ ? one->callback : one->on_fail, NO_VALUE, error);
            free_item(one);
        }
    }
    release(connection);
}

void answer_set(karvel_connection* connection, item* set, int reason) {
    unlink_item(connection, set);
    const bool refused = reason >= REFUSED;
    if (!refused) {
        set_has_succeeded(set);
    } else if (set->own) {
        supersede(set->topic);
    }
    (void)call(connection, set, refused ? set->on_fail : set->callback, NO_VALUE, refused ? EACCES : 0);
    free_item(set);
}

bool has_set(const karvel_connection* connection, const char* topic) {
    const item* one = connection->items;
    while (one != nullptr && !(one->what == kind::SET && !one->nothing && strcmp(one->topic, topic) == 0)) {
        one = one->next;
    }
    return one != nullptr;
}

void set_again(karvel_connection* connection, const char* topic, const char* value) {
    item* set = make_own_item(kind::SET, topic);
    char* copy = strdup(value);
    if (set != nullptr && copy != nullptr) {
        set->value = std::exchange(copy, nullptr);
        set->id = publish(connection, topic, value, true);
    }
    free(copy);
    if (set != nullptr && set->id != 0) {
        append(connection, set);
    } else if (set != nullptr) {
        free_item(set);
    }
}

// The service has been asked for a key that this process has set before.
void restore(karvel_connection* connection, const item* read) {
    memory* one = *find_memory(read->topic);
    if (one == nullptr || read->refused || is_listened(read->topic) || has_set(connection, read->topic)) {
        return;
    }
    const auto is_there = [read](const char* value) {
        return value != nullptr && strlen(value) == read->value_length &&
               (read->value_length == 0 || memcmp(value, read->value, read->value_length) == 0);
    };
    bool is_ours = read->value == nullptr || is_there(one->kept);
    for (const char* value : one->earlier) {
        is_ours = is_ours || is_there(value);
    }
    if (one->unknown == nullptr) {
        if (read->value == nullptr && one->kept != nullptr) {
            set_again(connection, read->topic, one->kept);
        }
    } else if (is_there(one->unknown)) {
        char* value = std::exchange(one->unknown, nullptr);
        remember_kept(read->topic, value);
    } else if (is_ours) {
        set_again(connection, read->topic, one->unknown);
    } else {
        forget(read->topic);
    }
}

void answer_read(karvel_connection* connection, item* read) {
    unlink_item(connection, read);
    if (read->own) {
        restore(connection, read);
    }
    (void)call(connection, read, read->callback, karvel_xvalue{read->value, read->value_length}, 0);
    free_item(read);
}

void answer_registration(karvel_connection* connection, item* registration, int reason) {
    if (reason < REFUSED) {
        registration->confirmed = true;
        registration->id = 0;
        if (registration->confirm) {
            (void)call(connection, registration, registration->callback, NO_VALUE, 0);
        }
        return;
    }
    // A broker that refuses at once, and a caller that reopens when it is refused, would keep each other busy.
    bus_hold_off();
    unlink_item(connection, registration);
    (void)call(connection, registration, registration->on_fail, NO_VALUE, EACCES);
    free_item(registration);
}

void on_answer(bus_session*, uint32_t request, int reason, void* context) {
    auto* connection = static_cast<karvel_connection*>(context);
    item* one = connection->items;
    while (one != nullptr && one->id != request && one->first_id != request) {
        one = one->next;
    }
    if (one == nullptr) {
        return;  // overdue or replaced meanwhile
    }
    if (one->first_id == request) {
        one->refused = reason >= REFUSED;
        return;
    }
    ++connection->held;
    switch (one->what) {
        case kind::SET:
            answer_set(connection, one, reason);
            break;
        case kind::READ:
            answer_read(connection, one);
            break;
        case kind::REGISTRATION:
            answer_registration(connection, one, reason);
            break;
    }
    if (!connection->closed) {
        set_timer(connection);
    }
    release(connection);
}

// A retained value belongs to the oldest read of its key: the broker works in order, so the value that comes before a
// read's second answer is that read's. Never to a registration: it is not news.
void keep_for_read(karvel_connection* connection, const bus_message* message) {
    for (item* one = connection->items; one != nullptr; one = one->next) {
        if (one->what == kind::READ && strcmp(one->topic, message->topic) == 0) {
            char* copy = static_cast<char*>(malloc(message->length));
            if (copy != nullptr) {
                memcpy(copy, message->payload, message->length);
                free(one->value);
                one->value = copy;
                one->value_length = message->length;
            }
            return;
        }
    }
}

// Tells each registration of the key once, oldest first. One that a callback adds or replaces gets an item of its own
// at the end of the list with a higher serial, so the walk goes by serials and not by pointers that may be gone.
void notify(karvel_connection* connection, const bus_message* message) {
    const karvel_xvalue value{static_cast<const char*>(message->payload), message->length};
    const uint32_t newest = connection->last_registration;
    uint32_t told = 0;
    for (;;) {
        item* one = connection->items;
        while (one != nullptr && !(one->what == kind::REGISTRATION && one->confirmed && one->serial > told &&
                                   one->serial <= newest && strcmp(one->topic, message->topic) == 0)) {
            one = one->next;
        }
        if (one == nullptr) {
            return;
        }
        told = one->serial;
        if (!call(connection, one, one->callback, value, 0)) {
            return;
        }
    }
}

// After what the caller has asked for since it opened the handle. The keys that it has set itself are not read, and
// those whose set goes out by itself neither.
void on_connected(bus_session*, void* context) {
    auto* connection = static_cast<karvel_connection*>(context);
    for (const memory* one = memories; one != nullptr; one = one->next) {
        if ((one->kept == nullptr && one->unknown == nullptr) || is_listened(one->topic) ||
            has_set(connection, one->topic)) {
            continue;
        }
        item* read = make_own_item(kind::READ, one->topic);
        if (read == nullptr || !ask(connection, read)) {
            free(read);
            return;  // the next connection tries again
        }
        append(connection, read);
    }
}

void on_message(bus_session*, const bus_message* message, void* context) {
    auto* connection = static_cast<karvel_connection*>(context);
    if (message->length > VALUE_MAX) {
        return;  // no value of ours; whoever published it did not go through this library
    }
    ++connection->held;
    if (!message->retained) {
        notify(connection, message);
    } else if (message->length > 0) {
        keep_for_read(connection, message);
    }
    release(connection);
}

}  // namespace

// --- Public functions
// ----------------------------------------------------------------------------------------------------

karvel_handle* karvel_open(struct ev_loop* loop) {
    auto* connection = static_cast<karvel_connection*>(calloc(1, sizeof(karvel_connection)));
    if (connection == nullptr) {
        return nullptr;
    }
    const bus_options options{{on_connected, on_lost, on_message, on_answer, connection}, false, nullptr};
    connection->session = bus_open(loop, &options);
    if (connection->session == nullptr) {
        const int error = errno;
        free(connection);
        errno = error;
        return nullptr;
    }
    forget_other_service(bus_address());
    connection->loop = loop;
    ev_timer_init(&connection->timer, on_timer, 0., 0.);
    connection->timer.data = connection;
    do {
        ++last_number;
    } while (last_number == 0 || find(std::bit_cast<karvel_handle*>(uintptr_t{last_number})) != nullptr);
    connection->number = last_number;
    connection->next = connections;
    connections = connection;
    for (const memory* one = memories; one != nullptr; one = one->next) {
        if (one->unknown != nullptr && !one->maybe) {
            set_again(connection, one->topic, one->unknown);
        }
    }
    return std::bit_cast<karvel_handle*>(uintptr_t{connection->number});
}

void libkarvel_close(karvel_handle* handle) {
    karvel_connection* connection = find(handle);
    if (connection == nullptr) {
        return;
    }
    karvel_connection** link = &connections;
    while (*link != connection) {
        link = &(*link)->next;
    }
    *link = connection->next;
    ++connection->held;
    connection->closed = true;
    ev_timer_stop(connection->loop, &connection->timer);
    if (find_kind(connection, kind::SET) != nullptr) {
        (void)bus_flush(connection->session, CLOSE_MS);  // what it leaves is remembered
    }
    for (item* one = connection->items; one != nullptr; one = one->next) {
        if (one->what == kind::SET) {
            set_has_been_cut_off(connection, one);
        }
    }
    bus_close(connection->session);
    while (item* one = connection->items) {
        connection->items = one->next;
        free_item(one);
    }
    release(connection);
}

bool libkarvel_set_value(karvel_handle* handle, const char* name_space, const char* group, const char* key, int keep,
                         const char* value, karvel_callback on_ok, karvel_callback on_fail, int timeout_s,
                         void* context) {
    karvel_connection* connection = find(handle);
    if (connection == nullptr || connection->lost || (value != nullptr && strnlen(value, VALUE_MAX + 1) > VALUE_MAX)) {
        return false;
    }
    item* set = make_item(kind::SET, name_space, group, key);
    if (set == nullptr) {
        return false;
    }
    set->callback = on_ok;
    set->on_fail = on_fail;
    set->context = context;
    set->nothing = value == nullptr;
    set->deadline_ms = deadline(set->nothing ? 0 : timeout_s);
    if (!set->nothing) {
        set->value = keep != 0 ? strdup(value) : nullptr;
        if (keep == 0 || set->value != nullptr) {
            set->id = publish(connection, set->topic, value, keep != 0);
        }
        if (set->id == 0) {
            free_item(set);
            return false;
        }
        if (keep != 0) {
            supersede(set->topic);
        }
    }
    append(connection, set);
    set_timer(connection);
    return true;
}

bool libkarvel_register_notification(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                                     uint32_t* id, karvel_callback on_notify, karvel_callback on_fail, int confirm,
                                     void* context) {
    karvel_connection* connection = find(handle);
    if (connection == nullptr || connection->lost) {
        return false;
    }
    item* added = make_item(kind::REGISTRATION, name_space, group, key);
    if (added == nullptr) {
        return false;
    }
    if (add_listened(added->topic)) {
        added->id = bus_subscribe(connection->session, added->topic, 1, bus_retained::NEVER);
    }
    if (added->id == 0) {
        free_item(added);
        return false;
    }
    added->callback = on_notify;
    added->on_fail = on_fail;
    added->context = context;
    added->confirm = confirm != 0;
    for (item* one = connection->items; one != nullptr; one = one->next) {
        if (one->what == kind::REGISTRATION && one->context == context && strcmp(one->topic, added->topic) == 0) {
            added->confirmed = one->confirmed;  // the subscription goes on: nothing is missed in between
            unlink_item(connection, one);
            free_item(one);
            break;
        }
    }
    added->serial = ++connection->last_registration;
    append(connection, added);
    if (id != nullptr) {
        *id = added->id;
    }
    return true;
}

bool libkarvel_get_value(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                         karvel_callback on_done, void* unused, int timeout_s, void* context) {
    (void)unused;
    karvel_connection* connection = find(handle);
    if (connection == nullptr || connection->lost) {
        return false;
    }
    item* read = make_item(kind::READ, name_space, group, key);
    if (read == nullptr) {
        return false;
    }
    if (!ask(connection, read)) {
        free_item(read);
        return false;
    }
    read->callback = on_done;
    read->context = context;
    read->deadline_ms = deadline(timeout_s);
    append(connection, read);
    set_timer(connection);
    return true;
}

void libkarvel_timeout_process(karvel_handle* handle) {
    karvel_connection* connection = find(handle);
    if (connection != nullptr && !connection->lost) {
        expire(connection);
    }
}

bool libkarvel_xhandle_response(karvel_handle* handle) {
    karvel_connection* connection = find(handle);
    return connection != nullptr && !connection->lost && bus_read(connection->session);
}
