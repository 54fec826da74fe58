// The application's beginning, run and end.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ev.h>
#include <fcntl.h>

#include "actions.h"
#include "bus/bus.h"
#include "log.h"
#include "options.h"
#include "vesk_util.h"

namespace {

char app_name[sizeof(vesk_app_descriptor::name) + 1];  // the descriptor's may fill its field to the last byte

// The name becomes a level of topics.
bool is_usable_name(const char* name) {
    if (*name == '\0') {
        return false;
    }
    for (const char* c = name; *c != '\0'; ++c) {
        if (*c == '/' || *c == '+' || *c == '#' || static_cast<unsigned char>(*c) < 0x20) {
            return false;
        }
    }
    return true;
}

// A process that was started with one of the three closed would get that number for the next file that it opens, and
// its log would be written into the card.
void open_standard_descriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
            (void)open("/dev/null", O_RDWR);  // takes the lowest free number; not close-on-exec, as its neighbours
        }
    }
}

// A mask and ignored signals are inherited. Blocked, the end of a child would never be seen, nor the request to end; a
// bus fault would kill without the dump. Handlers are the callers' business and stay.
void accept_signals() {
    sigset_t ours;
    sigemptyset(&ours);
    for (const int number : {SIGCHLD, SIGTERM, SIGBUS}) {
        struct sigaction action = {};
        sigaddset(&ours, number);
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
            (void)signal(number, SIG_DFL);
        }
    }
    (void)sigprocmask(SIG_UNBLOCK, &ours, nullptr);
}

}  // namespace

int app_init(const vesk_app_descriptor* descriptor, int argc, char** argv) {
    memcpy(app_name, descriptor->name, sizeof descriptor->name);
    if (!is_usable_name(app_name)) {
        errno = EINVAL;
        return -1;
    }
    open_standard_descriptors();

    app_options options = {};
    switch (options_read(app_name, argc, argv, &options)) {
        case options_result::RUN:
            break;
        case options_result::ANSWERED:
            exit(0);
        case options_result::MISUSED:
            errno = EINVAL;
            return -1;
    }
    if (options.bus != nullptr && bus_address_set(options.bus) < 0) {
        const int saved_errno = errno;
        (void)fprintf(stderr, "%s: no bus address: '%s'\n", app_name, options.bus);
        errno = saved_errno;
        return -1;
    }

    log_open(app_name, options.log_level, log_choose_target(options.foreground));
    accept_signals();
    // A broker or a child that goes away must not take the daemon along.
    (void)signal(SIGPIPE, SIG_IGN);

    struct ev_loop* loop = ev_default_loop(EVFLAG_AUTO);
    if (loop == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    if (actions_start(loop, app_name, descriptor->actions) < 0) {
        const int saved_errno = errno;
        (void)fprintf(stderr, "%s: can not open the bus at '%s': %s\n", app_name, bus_address(), strerror(saved_errno));
        errno = saved_errno;
        return -1;
    }
    return 0;
}

int app_run() {
    ev_run(ev_default_loop(EVFLAG_AUTO), 0);
    return 0;
}

void app_fini() {
    actions_stop();
    log_finish();
}
