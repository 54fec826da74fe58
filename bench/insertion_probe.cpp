// Runs beside the daemon and prints when things happen, in milliseconds of the monotonic clock:
//   12345.678 add mmcblk0          the kernel's uevent
//   14412.345 sdcard_status 0      the published state, as any program of the camera sees it
// The difference is what an insertion costs. Ends when killed.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <ev.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include "karvel.h"

namespace {

ev_io uevents;
uint32_t registration;

double now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

void on_uevent(struct ev_loop*, ev_io* watcher, int) {
    char text[4097];
    const ssize_t length = recv(watcher->fd, text, sizeof text - 1, MSG_DONTWAIT);
    if (length <= 0) {
        return;
    }
    text[length] = '\0';
    // "add@/devices/.../block/mmcblk0": only the card's own devices matter.
    const char* name = strrchr(text, '/');
    if (name != nullptr && strncmp(name + 1, "mmcblk", 6) == 0) {
        printf("%.3f %.*s %s\n", now_ms(), static_cast<int>(strcspn(text, "@")), text, name + 1);
        fflush(stdout);
    }
}

void on_notify(karvel_response* response, void*) {
    int error = -1;
    karvel_xpair* pair = xresponse_parse(response, &error);
    if (error == 0 && pair->second != nullptr) {
        printf("%.3f %s %.*s\n", now_ms(), pair->first->key, static_cast<int>(pair->second->length),
               pair->second->data);
    } else if (error == 0) {
        printf("%.3f watching %s\n", now_ms(), pair->first->key);
    }
    fflush(stdout);
    xpair_basefree(pair);
}

void on_lost(karvel_response*, void*) {
    fprintf(stderr, "insertion_probe: the configuration service went away\n");
    ev_break(EV_DEFAULT, EVBREAK_ALL);
}

}  // namespace

int main() {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("insertion_probe: uevents");
        return 1;
    }
    ev_io_init(&uevents, on_uevent, fd, EV_READ);
    ev_io_start(EV_DEFAULT, &uevents);

    karvel_handle* handle = libkarvelev_config_open(EV_DEFAULT, 0);
    if (handle == nullptr || !libkarvel_register_notification(handle, "mem", "default", "sdcard_status", &registration,
                                                              on_notify, on_lost, 1, nullptr)) {
        fprintf(stderr, "insertion_probe: no configuration service\n");
        return 1;
    }
    ev_run(EV_DEFAULT, 0);
    return 1;
}
