// The bus-fault guard: surviving a card that is pulled while its clip index is walked, where the library that keeps the
// index maps its file. Ours maps nothing; a device may bring one that does.
#pragma once

#include <atomic>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>

// The thread inside the guarded region, 0 when none is. There is one region at a time, and only the loop thread enters
// one. To guard a region: set bus_guard_thread to pthread_self(), then sigsetjmp(bus_guard_jmp, 0); a non-zero return
// means that a bus fault happened inside. Set bus_guard_thread back to 0 on every way out. The jump skips destructors
// and unlocks: nothing inside the region may own anything. A local that the region changes and the recovery reads must
// be volatile.
//
// Atomic because a fault of another thread reads it in the handler while the loop thread may be writing it, and so that
// the compiler moves no access of the region past its edges. Lock-free, or the handler could not touch it.
extern std::atomic<pthread_t> bus_guard_thread;
static_assert(std::atomic<pthread_t>::is_always_lock_free);

// The start of the region, saved without the signal mask: SIGBUS stays blocked in the loop thread after a recovery, and
// the kernel ends the process at that thread's next fault. The tools that it starts inherit the blocked signal; the
// threads that delete clips unblock it.
extern sigjmp_buf bus_guard_jmp;

// The action for SIGBUS; records_init installs it, without SA_SIGINFO. In the guarded region it jumps and prints
// nothing; anywhere else it prints the fault and the memory map to standard error and aborts. info may be null.
void on_sigbus(int signum, siginfo_t* info, void* context);
