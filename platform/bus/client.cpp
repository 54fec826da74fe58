#include "client.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "address.h"

namespace {

// After this long without a word from the broker it is asked for one, and given up after as long again. The broker
// gives up on us after one and a half times as long, and what is published at that moment is lost. So it is longer than
// the longest that a loop may stand still by design: the first look at a freshly mounted card of 1 TiB took 49 s.
constexpr int KEEPALIVE_S = 120;

void close_on_exec(int fd) {
    (void)fcntl(fd, F_SETFD, FD_CLOEXEC);  // fails only for a descriptor that is not open: nothing to inherit then
}

// libmosquitto keeps a socket pair of its own, without close-on-exec and without a way to ask for it; a child of the
// daemon would inherit it. A new pair gets the lowest two free descriptors, so they are found out beforehand. Should
// another thread open something in between, the mark hits its descriptor, which is close-on-exec already.
mosquitto* new_client(void* owner) {
    int lowest[2] = {-1, -1};
    if (pipe2(lowest, O_CLOEXEC) < 0) {
        return nullptr;
    }
    close(lowest[0]);
    close(lowest[1]);
    mosquitto* client = mosquitto_new(nullptr, true, owner);
    if (client != nullptr) {
        close_on_exec(lowest[0]);
        close_on_exec(lowest[1]);
    }
    return client;
}

// Whether a Unix socket takes a connection now. A broker that is frozen does, until its queue is full. libmosquitto
// 2.0.11 makes its socket one that does not wait before it connects, and a test holds it to that; with another one that
// waits this probe leaves only the place in the queue that it takes itself, and the moment after it.
bool probe_unix(const bus_place& place) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof(address.sun_path) == sizeof(place.host));
    memcpy(address.sun_path, place.host, sizeof(place.host));
    const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    const int error = errno;
    close(fd);
    errno = error;
    return result == 0;
}

bool set_up(mosquitto* client, const bus_message* will) {
    const char* user = getenv("VESK_BUS_USER");
    const char* password = getenv("VESK_BUS_PASSWORD");
    return mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5) == MOSQ_ERR_SUCCESS &&
           // Without it a round trip of quality 1 over TCP takes 85 ms instead of 0.1 ms.
           mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1) == MOSQ_ERR_SUCCESS &&
           (user == nullptr || *user == '\0' ||
            mosquitto_username_pw_set(client, user, password) == MOSQ_ERR_SUCCESS) &&
           (will == nullptr || mosquitto_will_set(client, will->topic, static_cast<int>(will->length), will->payload, 1,
                                                  will->retained) == MOSQ_ERR_SUCCESS);
}

// Reads and forgets until the broker has hung up.
void await_hang_up(int fd, int wait_ms) {
    const int64_t deadline_ms = monotonic_ms() + wait_ms;
    for (;;) {
        const int64_t left_ms = deadline_ms - monotonic_ms();
        pollfd waiting{fd, POLLIN, 0};
        char nothing[256];
        if (left_ms <= 0 || poll(&waiting, 1, static_cast<int>(left_ms)) <= 0 ||
            recv(fd, nothing, sizeof(nothing), MSG_DONTWAIT) <= 0) {
            return;
        }
    }
}

}  // namespace

int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

int client_error(int code) {
    const int error = errno;
    switch (code) {
        case MOSQ_ERR_ERRNO:
            return error > 0 ? error : ECONNRESET;
        case MOSQ_ERR_NOMEM:
            return ENOMEM;
        case MOSQ_ERR_CONN_REFUSED:
            return ECONNREFUSED;
        case MOSQ_ERR_AUTH:
        case MOSQ_ERR_ACL_DENIED:
            return EACCES;
        case MOSQ_ERR_KEEPALIVE:
            return ETIMEDOUT;
        case MOSQ_ERR_EAI:
            return EHOSTUNREACH;
        case MOSQ_ERR_PROTOCOL:
            return EPROTO;
        default:
            return ECONNRESET;
    }
}

mosquitto* client_connect(void* owner, void (*set_callbacks)(mosquitto* client), const bus_message* will) {
    static bool initialised;
    if (!initialised) {
        mosquitto_lib_init();
        initialised = true;
    }
    bus_place place;
    if (address_parse(bus_address(), &place) < 0 || (place.port == 0 && !probe_unix(place))) {
        return nullptr;
    }
    mosquitto* client = new_client(owner);
    if (client == nullptr) {
        return nullptr;
    }
    if (!set_up(client, will)) {
        mosquitto_destroy(client);
        errno = EINVAL;
        return nullptr;
    }
    set_callbacks(client);
    const int code = mosquitto_connect_bind_async(client, place.host, place.port, KEEPALIVE_S, nullptr);
    if (code != MOSQ_ERR_SUCCESS && code != MOSQ_ERR_CONN_PENDING) {
        const int error = client_error(code);
        mosquitto_destroy(client);
        errno = error;
        return nullptr;
    }
    close_on_exec(mosquitto_socket(client));
    return client;
}

// A broker that finds its answer refused drops what it has not read yet, so the connection stays open until it has
// read the goodbye: libmosquitto hangs up right after sending it, on its own descriptor.
void client_close(mosquitto* client, int wait_ms) {
    const int fd = wait_ms > 0 ? fcntl(mosquitto_socket(client), F_DUPFD_CLOEXEC, 0) : -1;
    (void)mosquitto_disconnect(client);  // a lost connection needs no goodbye
    if (fd >= 0) {
        await_hang_up(fd, wait_ms);
        close(fd);
    }
    mosquitto_destroy(client);
}
