// Input: steps, one byte each with what it takes behind it: what a program asks of its connection to the configuration
// service, and what the broker does: values and requests of any kind under any topic, answers in any order, lost
// connections.
#include "bus/bus.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ev.h>
#include <json-c/json.h>
#include <string>
#include <vector>

#include "karvel.h"
#include "support.h"
#include "vesk_util.h"
#include "vesk_util/actions.h"

karvel_handle* karvel_open(struct ev_loop* loop);

// A session of the stand-in: whom to tell, and what is still to be answered.
struct bus_session {
    bus_listener listener;
    bool connected;
    std::vector<uint32_t> requests;
};

namespace {

bus_session key_session;     // of the configuration client; no listener while closed
bus_session action_session;  // of the remote actions
uint32_t last_request;
int replies;

// One request of the program to the configuration service.
struct asked {
    int connection;  // which one it was asked of
    bool ends;       // exactly one callback; a registration gets any number
    bool closes;     // the callback closes the connection
    bool taken = false;
    int callbacks = 0;  // so far
};
std::vector<asked*> all_asked;
karvel_handle* handle;
int connections;  // so far; the last one is the open one, if any

void on_response(karvel_response* response, void* context) {
    auto* one = static_cast<asked*>(context);
    ++one->callbacks;
    fuzz::require(handle != nullptr && one->connection == connections, "no callback of a closed connection");
    fuzz::require(!one->ends || one->callbacks == 1, "one callback of a request");
    int error = 0;
    karvel_xpair* pair = xresponse_parse(response, &error);
    if (pair != nullptr && pair->second != nullptr) {
        fuzz::require(pair->second->data[pair->second->length] == '\0', "a NUL behind the value");
    }
    xpair_basefree(pair);
    const karvel_xvalue* value = nullptr;
    fuzz::require((xcontrol_get_response(response, &value) == 1) == (value != nullptr), "a value or none");
    if (one->closes) {
        libkarvel_close(handle);
        handle = nullptr;
    }
}

int32_t handler(void*, json_object* params, json_object* reply) {
    fuzz::require(params != nullptr, "parameters");
    json_object_object_add(reply, "echo", json_object_get(params));
    return INT32_MAX;
}

// Takes bytes of the input; zeros behind its end.
struct reader {
    const uint8_t* data;
    size_t left;

    uint8_t byte() {
        if (left == 0) {
            return 0;
        }
        --left;
        return *data++;
    }
    std::string text() {
        const size_t length = std::min<size_t>(byte(), left);
        std::string taken(data, data + length);
        data += length;
        left -= length;
        return taken;
    }
};

constexpr const char* KEYS[] = {"a", "b", "sdcard_status", "a/b"};

std::string key_topic(uint8_t choice) {
    return std::string("karvel/mem/default/") + KEYS[choice % 4];
}

void open_connection() {
    handle = karvel_open(EV_DEFAULT);
    fuzz::require(handle != nullptr, "a connection");
    ++connections;
}

void ask(reader& input, uint8_t what) {
    auto* one = new asked{connections, what != 2, (input.byte() & 1) != 0};
    all_asked.push_back(one);
    const char* key = KEYS[input.byte() % 4];
    uint32_t id = 0;
    switch (what) {
        case 0:
            one->taken = libkarvel_set_value(handle, "mem", nullptr, key, 1, input.text().c_str(), on_response,
                                             on_response, input.byte() % 20 - 1, one);
            break;
        case 1:
            one->taken =
                libkarvel_get_value(handle, "mem", nullptr, key, on_response, nullptr, input.byte() % 20 - 1, one);
            break;
        default:
            one->taken = libkarvel_register_notification(handle, "mem", nullptr, key, &id, on_response, on_response,
                                                         input.byte() & 1, one);
    }
    fuzz::require(handle != nullptr || !one->taken, "a closed connection takes nothing");
}

void answer(bus_session* session, uint8_t which, uint8_t reason) {
    if (session->requests.empty()) {
        return;
    }
    const size_t index = which % session->requests.size();
    const uint32_t request = session->requests[index];
    session->requests.erase(session->requests.begin() + static_cast<ptrdiff_t>(index));
    session->listener.on_answer(session, request, reason, session->listener.context);
}

void deliver(bus_session* session, const std::string& topic, reader& input) {
    const uint8_t flags = input.byte();
    const std::string payload = input.text();
    const std::string response = input.text();
    // A block of its own, so that the sanitizer hears of a byte that is read behind it.
    const std::vector<char> bytes(payload.begin(), payload.end());
    bus_message message{};
    message.topic = topic.c_str();
    message.payload = bytes.empty() ? nullptr : bytes.data();
    message.length = bytes.size();
    message.retained = (flags & 1) != 0;
    message.response_topic = (flags & 2) != 0 ? response.c_str() : nullptr;
    message.correlation = (flags & 4) != 0 ? response.data() : nullptr;
    message.correlation_length = (flags & 4) != 0 ? response.size() : 0;
    const int before = replies;
    session->listener.on_message(session, &message, session->listener.context);
    if (session == &action_session) {
        const bool is_request = topic.starts_with("vesk/fuzz/action/") && !message.retained;
        fuzz::require(replies == before + (is_request ? 1 : 0), "one answer to a request, none to anything else");
    }
}

// The connection is lost; one that is lost already is closed.
void lose() {
    if (!key_session.connected) {
        libkarvel_close(handle);
        handle = nullptr;
        return;
    }
    key_session.connected = false;
    key_session.requests.clear();
    key_session.listener.on_lost(&key_session, ECONNRESET, key_session.listener.context);
    for (const asked* one : all_asked) {
        fuzz::require(
            handle == nullptr || one->connection != connections || !one->taken || !one->ends || one->callbacks == 1,
            "no request is forgotten");
    }
}

void step(reader& input) {
    const uint8_t what = input.byte() % 10;
    if (what <= 2) {
        ask(input, what);
    } else if (what == 3 && handle == nullptr) {
        open_connection();
    } else if (what == 4 && handle != nullptr) {
        deliver(&key_session, key_topic(input.byte()), input);
    } else if (what == 5 && handle != nullptr) {
        const uint8_t which = input.byte();
        answer(&key_session, which, input.byte());
    } else if (what == 6) {
        lose();
    } else if (what == 7) {
        libkarvel_timeout_process(handle);
    } else if (what == 8) {
        const bool known = (input.byte() & 1) != 0;
        deliver(&action_session, known ? "vesk/fuzz/action/echo" : input.text(), input);
    } else if (what == 9) {
        const uint8_t which = input.byte();
        answer(&action_session, which, input.byte());
    }
}

}  // namespace

// --- The bus
// -----------------------------------------------------------------------------------------------------------

bus_session* bus_open(struct ev_loop*, const bus_options* options) {
    bus_session* session = options->reconnect ? &action_session : &key_session;
    *session = {options->listener, true, {}};
    return session;
}
void bus_close(bus_session* session) {
    session->connected = false;
    session->requests.clear();
}
bool bus_connected(const bus_session* session) {
    return session->connected;
}
bool bus_read(bus_session* session) {
    return session->connected;
}
int bus_flush(bus_session*, int) {
    return 0;
}
// Of what waits for an answer, whatever the number chooses: never sent, sent, answered well, or refused.
bus_fate bus_request_fate(const bus_session*, uint32_t id, int* reason) {
    if (id % 4 < 2) {
        return id % 4 == 0 ? bus_fate::QUEUED : bus_fate::SENT;
    }
    *reason = id % 4 == 2 ? 0 : 0x87;
    return bus_fate::ANSWERED;
}
void bus_hold_off() {}
const char* bus_address() {
    return "unix:/nowhere";
}
void bus_share(bus_session*, const char*) {}

namespace {

uint32_t take(bus_session* session) {
    session->requests.push_back(++last_request);
    return last_request;
}

}  // namespace

uint32_t bus_publish(bus_session* session, const bus_message* message, int) {
    if (session == &action_session && strcmp(message->topic, "vesk/fuzz/status") != 0) {
        ++replies;
        const std::string topic = message->topic;
        const bool own = topic.starts_with("vesk/fuzz/action/") && topic.ends_with("/reply");
        const bool reserved = topic.starts_with("vesk/") || topic.starts_with("karvel/") || topic.starts_with('$');
        fuzz::require(own || !reserved, "no answer to where answers may not go");
    }
    return take(session);
}
uint32_t bus_subscribe(bus_session* session, const char*, int, bus_retained) {
    return take(session);
}
uint32_t bus_unsubscribe(bus_session* session, const char*) {
    return take(session);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const remote_action table[] = {{"echo", handler, {0, 0}}, {nullptr, nullptr, {0, 0}}};
    open_connection();
    fuzz::require(actions_start(EV_DEFAULT, "fuzz", table) == 0, "remote actions");
    action_session.listener.on_connected(&action_session, action_session.listener.context);
    reader input{data, size};
    while (input.left > 0) {
        step(input);
    }
    actions_stop();
    libkarvel_close(handle);
    handle = nullptr;
    for (const asked* one : all_asked) {
        delete one;
    }
    all_asked.clear();
    return 0;
}
