// The counts of a build that counts which lines are run.
#pragma once

#include <csignal>

#ifdef VESK_COVERAGE
extern "C" void __gcov_dump();  // NOLINT(bugprone-reserved-identifier): the compiler's
#endif

namespace coverage {

// Writes the counts, once for the process. For who ends by _exit, and for who stands in for the system's calls, which
// the compiler's own code makes as well: while the stand-ins still stand.
inline void write_counts() {
#ifdef VESK_COVERAGE
    __gcov_dump();
#endif
}

// And for a process that ends by abort, which goes on when the handler returns.
inline void write_counts_at_abort() {
#ifdef VESK_COVERAGE
    signal(SIGABRT, [](int) { write_counts(); });
#endif
}

}  // namespace coverage
