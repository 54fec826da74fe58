// What the three libraries share: the inside of an answer, and the opening of a handle.
#pragma once

#pragma GCC visibility push(default)
#include "karvel.h"

struct karvel_response {
    karvel_xname name;    // of the key that was asked for
    karvel_xvalue value;  // data null: no value
    int error;            // 0, or why the request failed, as a positive errno
};

karvel_handle* karvel_open(struct ev_loop* loop);  // libkarvelev_config_open without its flags
#pragma GCC visibility pop
