#include "request.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <json-c/json.h>
#include <string_view>

namespace {

constexpr int32_t ANSWER_IN_REPLY = INT32_MAX;  // a handler's "done, the answer is in the reply object"
constexpr int DEPTH_MAX = 32;                   // of nested arrays and objects

// json-c in its strict mode still takes the words NaN and Infinity, which no JSON has. Outside of strings JSON knows no
// capital letter but the E of an exponent.
bool has_foreign_word(std::string_view text) {
    bool in_string = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (in_string && c == '\\') {
            ++i;
        } else if (c == '"') {
            in_string = !in_string;
        } else if (!in_string && (c == 'N' || c == 'I')) {
            return true;
        }
    }
    return false;
}

// How many values a text has if it is JSON; of what is none the number means nothing.
size_t count_values(std::string_view text) {
    bool in_string = false;
    bool opened = false;  // nothing but space since an array or object began
    size_t count = 1;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (in_string) {
            i += c == '\\' ? 1 : 0;
            in_string = c != '"';
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
            continue;
        }
        count += opened && c != ']' && c != '}' ? 1 : 0;
        count += c == ',' ? 1 : 0;
        in_string = c == '"';
        opened = c == '[' || c == '{';
    }
    return count;
}

// The parsed parameters, the caller's to put. text has a NUL at text[length]. Null: not JSON, or no memory.
json_object* parse(const char* text, size_t length) {
    json_tokener* tokener = json_tokener_new_ex(DEPTH_MAX);
    if (tokener == nullptr) {
        return nullptr;
    }
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    // The NUL is handed over too: it ends a number, which could otherwise go on. A NUL before it ends the text early.
    json_object* value = json_tokener_parse_ex(tokener, text, static_cast<int>(length) + 1);
    const bool whole =
        json_tokener_get_error(tokener) == json_tokener_success && json_tokener_get_parse_end(tokener) == length;
    json_tokener_free(tokener);
    if (!whole || has_foreign_word({text, length})) {
        json_object_put(value);
        return nullptr;
    }
    // json-c stands a null pointer for the text "null", which handlers are promised never to see: no parameters.
    return value != nullptr ? value : json_object_new_object();
}

// `{"code": N, ...}` with the members of the reply object (null: none).
char* compose(int32_t code, json_object* reply) {
    const char* members = "{}";
    if (reply != nullptr) {
        json_object_object_del(reply, "code");  // the framework's word, and JSON has no two members of one name
        members = json_object_to_json_string_ext(reply, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
        if (members == nullptr) {
            return nullptr;
        }
    }
    const char* rest = members + 1;
    const size_t size = strlen(rest) + sizeof "{\"code\": -2147483648, ";
    auto* text = static_cast<char*>(malloc(size));
    if (text != nullptr) {
        (void)snprintf(text, size, "{\"code\": %d%s%s", static_cast<int>(code), *rest == '}' ? "" : ", ", rest);
    }
    return text;
}

bool begins_with(const char* text, std::string_view prefix) {
    return strncmp(text, prefix.data(), prefix.size()) == 0;
}

}  // namespace

const remote_action* request_find(const remote_action* table, const char* name) {
    for (const remote_action* row = table; row != nullptr && row->name != nullptr; ++row) {
        if (strcmp(row->name, name) == 0 && row->handler != nullptr) {
            return row;
        }
    }
    return nullptr;
}

char* request_run(const remote_action* action, const void* payload, size_t length, int32_t* code) {
    if (length > PARAMETERS_MAX || count_values({static_cast<const char*>(payload), length}) > VALUES_MAX) {
        *code = CODE_TOO_LARGE;
        return request_refuse(*code);
    }
    auto* text = static_cast<char*>(malloc(length + 1));
    json_object* reply = json_object_new_object();
    if (text == nullptr || reply == nullptr) {
        free(text);
        json_object_put(reply);
        *code = CODE_OUT_OF_MEMORY;
        return request_refuse(*code);
    }
    if (length > 0) {
        memcpy(text, payload, length);
    }
    text[length] = '\0';
    json_object* params = parse(text, length);
    free(text);
    if (params == nullptr) {
        *code = CODE_NO_JSON;
    } else {
        *code = action->handler(nullptr, params, reply);
        json_object_put(params);
        if (*code == ANSWER_IN_REPLY) {
            *code = 0;
        }
    }
    char* answer = compose(*code, reply);
    json_object_put(reply);
    return answer;
}

char* request_refuse(int32_t code) {
    return compose(code, nullptr);
}

bool request_response_topic_allowed(const char* topic, const char* own_reply) {
    // The reply is published with this daemon's rights, not the caller's. Without this check somebody who may only ask
    // for figures could name the topic of the format action and have the daemon ask itself to erase the card.
    const bool reserved = begins_with(topic, "vesk/") || begins_with(topic, "karvel/") || begins_with(topic, "$");
    return strcmp(topic, own_reply) == 0 || (*topic != '\0' && !reserved && strpbrk(topic, "+#") == nullptr);
}
