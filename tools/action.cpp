#include "tools/action.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <json-c/json.h>
#include <unistd.h>

#include "tools/exchange.h"
#include "tools/veskctl.h"

namespace {

constexpr double REPLY_S = 30;  // the figures of a large card are counted clip by clip

struct asking {
    char correlation[48];
    json_object* reply;
    bool answered;
};

void on_message(const bus_message* message, void* context) {
    auto* ask = static_cast<asking*>(context);
    if (ask->answered || message->retained || message->payload == nullptr || message->correlation == nullptr ||
        message->correlation_length != strlen(ask->correlation) ||
        memcmp(message->correlation, ask->correlation, message->correlation_length) != 0) {
        return;
    }
    json_tokener* tokener = json_tokener_new();
    if (tokener == nullptr) {
        return;
    }
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    ask->reply =
        json_tokener_parse_ex(tokener, static_cast<const char*>(message->payload), static_cast<int>(message->length));
    json_tokener_free(tokener);
    ask->answered = true;
}

int send(exchange* talk, asking* ask, const char* name, const char* text) {
    // Accounts of the network listener may read replies below their own name only.
    const char* account = getenv("VESK_BUS_USER");
    char response[BUS_TOPIC_MAX];
    char topic[BUS_TOPIC_MAX];
    (void)snprintf(response, sizeof response, "reply/%s/%ld",
                   account != nullptr && *account != '\0' ? account : "veskctl", static_cast<long>(getpid()));
    (void)snprintf(topic, sizeof topic, "vesk/vesk_sdcard/action/%s", name);
    (void)snprintf(ask->correlation, sizeof ask->correlation, "%ld.%lld", static_cast<long>(getpid()),
                   static_cast<long long>(exchange_clock_s() * 1e6));
    int code = exchange_open(talk, on_message, ask);
    if (code == VESKCTL_DONE) {
        code = exchange_subscribe(talk, response, bus_retained::NEVER);
    }
    if (code != VESKCTL_DONE) {
        return code;
    }
    bus_message request = {};
    request.topic = topic;
    request.payload = text;
    request.length = strlen(text);
    request.response_topic = response;
    request.correlation = ask->correlation;
    request.correlation_length = strlen(ask->correlation);
    bool heard = false;
    code = exchange_publish(talk, &request, &heard);
    if (code == VESKCTL_DONE && !heard) {
        fputs("veskctl: vesk_sdcard is not running\n", stderr);
        return VESKCTL_NO_SERVICE;
    }
    if (code != VESKCTL_DONE && code != VESKCTL_UNKNOWN) {
        return code;
    }
    if (code == VESKCTL_DONE && exchange_wait(talk, &ask->answered, REPLY_S)) {
        return VESKCTL_DONE;
    }
    // A service that ends may have said before that it has the request, or not: what is left of either is the same.
    if (code == VESKCTL_UNKNOWN || talk->error != 0) {
        fprintf(stderr, "veskctl: %s before vesk_sdcard answered\n", exchange_fate(*talk));
    } else {
        fputs("veskctl: vesk_sdcard was asked, and did not answer\n", stderr);
    }
    return VESKCTL_UNKNOWN;
}

const char* result_words(int result) {
    switch (result) {
        case -2000:
            return "a card job is running";
        case -2002:
            return "the card is broken";
        case -2003:
            return "there is no card";
        case -2005:
            return "the card is ejected";
        case -12:
            return "out of memory";
        case -38:
            return "it does not know this action";
        default:
            return "it says why in its log";
    }
}

}  // namespace

int action_ask(const char* name, json_object* parameters, json_object** reply, int* result) {
    const char* text = json_object_to_json_string_ext(parameters, JSON_C_TO_STRING_PLAIN);
    if (text == nullptr || strlen(text) > BUS_PAYLOAD_MAX) {
        json_object_put(parameters);
        fputs("veskctl: too many for one request\n", stderr);
        return VESKCTL_USAGE;
    }
    exchange talk;
    asking ask = {};
    int code = send(&talk, &ask, name, text);
    exchange_close(&talk);
    json_object_put(parameters);
    json_object* number = nullptr;
    if (code == VESKCTL_DONE &&
        (!json_object_is_type(ask.reply, json_type_object) || !json_object_object_get_ex(ask.reply, "code", &number) ||
         !json_object_is_type(number, json_type_int))) {
        fputs("veskctl: the answer makes no sense\n", stderr);
        code = VESKCTL_UNKNOWN;
    }
    if (code != VESKCTL_DONE) {
        json_object_put(ask.reply);
        return code;
    }
    *reply = ask.reply;
    *result = json_object_get_int(number);
    return VESKCTL_DONE;
}

int action_refused(int result) {
    fprintf(stderr, "veskctl: the daemon answers %d: %s\n", result, result_words(result));
    return result == -2003 || result == -2005 ? VESKCTL_NO_CARD : VESKCTL_REFUSED;
}
