// Where the broker is, parsed.
#pragma once

#include <cstdint>
#include <sys/un.h>

struct bus_place {
    char host[sizeof(sockaddr_un::sun_path)];  // numeric address, or the path of a Unix socket
    uint16_t port;                             // 0: host is a path
};

// Parses "unix:PATH" or "tcp:HOST:PORT". 0, or -1 with errno EINVAL and *place untouched.
int address_parse(const char* text, bus_place* place);
