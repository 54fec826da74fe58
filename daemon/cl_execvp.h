// The child process runner: one external program as a step of a card job, without blocking the loop.
// Loop thread only. The caller has pushed its continuation and set the frame busy. The frame succeeds with 0 when the
// program exits with 0; it fails with the exit code (99: the program could not be started), or -1 after a signal.
// A pipe or fork failure leaves the frame busy for good; see cl_execvp.cpp.
#pragma once

#include <stdint.h>

struct closure_frame;

// argv: null-terminated; argv[0] is searched for on the path. Needed only until the call returns.
void cl_next_execvp(closure_frame* frame, const char* const* argv);

// The same, with up to size - 1 bytes of the program's standard output in buffer, always NUL-terminated at the end.
// buffer: the caller's, until the frame is completed. size: at least 1.
void cl_next_execvp_read(closure_frame* frame, const char* const* argv, char* buffer, uint32_t size);

// The same, with `length` bytes of data as the program's standard input. data: the caller's, until the frame is
// completed. The pipe stays open until the program ends.
void cl_next_execvp_write(closure_frame* frame, const char* const* argv, const char* data, uint32_t length);
