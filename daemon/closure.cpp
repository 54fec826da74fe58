// A job is a chain of steps, and every step keeps to one order: trace (closure_debug_next), push what comes next
// (closure_setup_frame), set the frame busy, start the operation. The operation ends the step by exactly one of
// closure_succeed, closure_fail and closure_return; the last passes on an outcome that is already in the frame, so that
// the first failure of a chain reaches its bottom unchanged.
#include "closure.h"

#include <bit>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "vesk_util.h"

namespace {

__attribute__((format(printf, 1, 2))) void closure_debug(const char* format, ...) {
    va_list args;
    va_start(args, format);
    log_vpdebug("closure: ", format, args);
    va_end(args);
}

}  // namespace

// Never followed. Formed as a number, because there is no such address for C++ to count down to.
closure_slot* closure_empty(closure_frame* frame) {
    return std::bit_cast<closure_slot*>(std::bit_cast<uintptr_t>(&frame->slots[0]) - sizeof(closure_slot));
}

void closure_init(closure_frame* frame, sdcard_manager* owner) {
    *frame = {.owner = owner, .status = CLOSURE_IDLE, .result = 0, .top = closure_empty(frame), .slots = {}};
}

void closure_setup_frame(closure_frame* frame, closure_fn fn, void* argument) {
    frame->top = frame->top == closure_empty(frame) ? frame->slots : frame->top + 1;
    if (frame->top >= frame->slots + CLOSURE_DEPTH) {
        perror("closure stack overflow!");
        abort();
    }
    *frame->top = {.fn = fn, .argument = argument};
}

void closure_return(closure_frame* frame) {
    if (frame->top == closure_empty(frame)) {
        perror("closure stack underflow!");
        abort();
    }
    // Off the stack before it runs: it pushes what comes after it into the same slot. Called here and not through the
    // loop, so that nothing else can come in between.
    const closure_slot popped = *frame->top;
    frame->top = frame->top == frame->slots ? closure_empty(frame) : frame->top - 1;
    popped.fn(frame, popped.argument);
}

void closure_succeed(closure_frame* frame, int32_t code) {
    frame->status = CLOSURE_OK;
    frame->result = code;
    closure_return(frame);
}

void closure_fail(closure_frame* frame, int32_t code) {
    frame->status = CLOSURE_FAILED;
    frame->result = code;
    closure_return(frame);
}

void closure_debug_next(const char* current, const char* called, const char* next) {
    closure_debug("%s(): %s -> %s", current, called, next);
}
