// The closure engine: the small stack of continuations by which a card job goes on after each thing that it waited for.
// A step pushes what runs after the operation that it is about to start; the operation, when done, sets the frame's
// outcome and pops it. Loop thread only; continuations run nested in whatever finished the operation.
#pragma once

#include <stdint.h>

struct closure_frame;
struct sdcard_manager;

// What runs next. argument: as given to closure_setup_frame; who owns it is agreed between the two steps.
using closure_fn = void (*)(closure_frame* frame, void* argument);

struct closure_slot {
    closure_fn fn;
    void* argument;
};

constexpr int CLOSURE_DEPTH = 5;  // no job needs more than 3

enum closure_status : int32_t {
    CLOSURE_IDLE = 0,    // never ran
    CLOSURE_BUSY = 1,    // a step is in progress; the only value that means that a job runs
    CLOSURE_OK = 2,      // the last operation succeeded
    CLOSURE_FAILED = 3,  // it failed
};

// One frame serves one job at a time. A plain record, nothing of it is allocated.
struct closure_frame {
    sdcard_manager* owner;  // whom the frame belongs to; the engine does not look at it
    closure_status status;
    int32_t result;     // the last operation's code: 0, an errno value, a child's exit code, or -1
    closure_slot* top;  // the topmost occupied slot; closure_empty() when there is none
    closure_slot slots[CLOSURE_DEPTH];
};

// Where `top` stands while nothing is pushed: just below the first slot.
closure_slot* closure_empty(closure_frame* frame);

// An idle frame with an empty stack.
void closure_init(closure_frame* frame, sdcard_manager* owner);

// Pushes a continuation. A sixth one ends the process: that is a mistake in the code, never in the world.
void closure_setup_frame(closure_frame* frame, closure_fn fn, void* argument);

// Pops the topmost continuation and calls it, with status and result as they are. An empty stack ends the process.
void closure_return(closure_frame* frame);

// Sets the outcome and returns. Every operation ends by exactly one of these three.
void closure_succeed(closure_frame* frame, int32_t code);
void closure_fail(closure_frame* frame, int32_t code);

// The trace that every step leaves just before its push: who runs, what it starts, what it pushed.
void closure_debug_next(const char* current, const char* called, const char* next);
