// The daemon as it ships, with two signals more. SIGUSR1 starts the filesystem check, which nothing in the shipped
// daemon starts. SIGUSR2 logs what the job frame holds, which no log line of the shipped daemon tells.
#include <ev.h>
#include <signal.h>

#include "sdcard.h"
#include "vesk_util.h"

// The daemon's own entry, renamed when it was compiled.
int vesk_main(int argc, char** argv);

namespace {

void on_check(struct ev_loop*, ev_signal*, int) {
    log_info("probe: sdcard_fsck() = %d", sdcard_fsck());
}

void on_tell(struct ev_loop*, ev_signal*, int) {
    const closure_frame& frame = sd.closure;
    log_info("probe: status %d, result %d, depth %d", static_cast<int>(frame.status), static_cast<int>(frame.result),
             static_cast<int>(frame.top - frame.slots) + 1);
}

}  // namespace

int main(int argc, char** argv) {
    struct ev_loop* const loop = ev_default_loop(EVFLAG_AUTO);
    static ev_signal check;
    static ev_signal tell;
    ev_signal_init(&check, on_check, SIGUSR1);
    ev_signal_init(&tell, on_tell, SIGUSR2);
    ev_signal_start(loop, &check);
    ev_signal_start(loop, &tell);
    return vesk_main(argc, argv);
}
