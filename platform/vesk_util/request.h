// What one remote action's request and reply look like: pure functions of bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vesk_util.h"

// Codes that the framework itself answers with. Numbers, not errno's names: MIPS numbers ENOSYS otherwise, and a caller
// elsewhere must not have to know what the camera's processor is.
constexpr int32_t CODE_OUT_OF_MEMORY = -12;
constexpr int32_t CODE_NO_JSON = -22;  // also: a response topic that may not be used
constexpr int32_t CODE_UNKNOWN_ACTION = -38;
constexpr int32_t CODE_TOO_LARGE = -7;

// What a request may ask for. Parsed, a value of a few bytes takes some 200: a mebibyte of small objects took 134 MiB
// on a camera that has 64. These are ten times the clips that anybody marks at once.
constexpr size_t PARAMETERS_MAX = size_t{128} << 10;  // bytes of JSON
constexpr size_t VALUES_MAX = 12'000;                 // arrays, objects, and what is in them

// The row of the table (null: empty) with this name; null when there is none.
const remote_action* request_find(const remote_action* table, const char* name);

// Runs a handler with a request's parameters, payload null with a length above PARAMETERS_MAX being fine.
// The reply, `{"code": N}` and what the handler has added: the caller's to free; null when memory runs out.
char* request_run(const remote_action* action, const void* payload, size_t length, int32_t* code);

// A reply with nothing but a code, as request_run's.
char* request_refuse(int32_t code);

// Whether a reply may go to this response topic, own_reply being where it would go without one.
bool request_response_topic_allowed(const char* topic, const char* own_reply);
