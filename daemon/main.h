// The bus-fault guard: surviving a card that is pulled while its mapped clip index is walked.
#pragma once

#include <pthread.h>
#include <setjmp.h>
#include <signal.h>

// The thread inside the guarded region, 0 when none is. There is one region at a time, and only the loop thread enters
// one. To guard a region: set bus_guard_thread to pthread_self(), then sigsetjmp(bus_guard_jmp, 0); a non-zero return
// means that a bus fault happened inside. Set bus_guard_thread back to 0 on every way out. The jump skips destructors
// and unlocks: nothing inside the region may own anything.
extern volatile pthread_t bus_guard_thread;
extern sigjmp_buf bus_guard_jmp;

// The action for SIGBUS; records_init installs it.
void on_sigbus(int signum, siginfo_t* info, void* context);
