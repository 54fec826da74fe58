#include "address.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "bus.h"

namespace {

constexpr const char* DEFAULT_ADDRESS = "unix:/run/karveld/karveld.sock";

char* chosen;  // owned; null until bus_address_set

bool is_numeric(const char* host) {
    unsigned char binary[sizeof(in6_addr)];
    return inet_pton(AF_INET, host, binary) == 1 || inet_pton(AF_INET6, host, binary) == 1;
}

// Views are cut with remove_prefix and remove_suffix: substr would need the C++ run time, to throw.
bool split_tcp(std::string_view text, std::string_view* host, std::string_view* port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    *host = text;
    host->remove_suffix(text.size() - colon);
    *port = text;
    port->remove_prefix(colon + 1);
    if (host->size() > 2 && host->front() == '[' && host->back() == ']') {
        host->remove_prefix(1);
        host->remove_suffix(1);
    } else if (host->find(':') != std::string_view::npos) {
        return false;  // an IPv6 address without brackets: where would the port begin?
    }
    return true;
}

bool parse_tcp(std::string_view text, bus_place* place) {
    std::string_view host;
    std::string_view port;
    if (!split_tcp(text, &host, &port)) {
        return false;
    }
    if (host == "localhost") {
        host = "127.0.0.1";
    }
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), place->port);
    if (error != std::errc{} || end != port.data() + port.size() || place->port == 0 ||
        host.size() >= sizeof(place->host)) {
        return false;
    }
    memcpy(place->host, host.data(), host.size());
    return is_numeric(place->host);
}

bool parse_unix(std::string_view path, bus_place* place) {
    if (path.empty() || path.size() >= sizeof(place->host)) {
        return false;
    }
    memcpy(place->host, path.data(), path.size());
    return true;
}

}  // namespace

int address_parse(const char* text, bus_place* place) {
    constexpr std::string_view UNIX = "unix:";
    constexpr std::string_view TCP = "tcp:";
    const std::string_view view = text;
    bus_place parsed{};
    if ((view.starts_with(UNIX) && parse_unix(text + UNIX.size(), &parsed)) ||
        (view.starts_with(TCP) && parse_tcp(text + TCP.size(), &parsed))) {
        *place = parsed;
        return 0;
    }
    errno = EINVAL;
    return -1;
}

int bus_address_set(const char* text) {
    bus_place place;
    if (address_parse(text, &place) < 0) {
        return -1;
    }
    char* copy = strdup(text);
    if (copy == nullptr) {
        return -1;
    }
    free(chosen);
    chosen = copy;
    return 0;
}

const char* bus_address() {
    if (chosen != nullptr) {
        return chosen;
    }
    const char* environment = getenv("VESK_BUS");
    return environment != nullptr && *environment != '\0' ? environment : DEFAULT_ADDRESS;
}
