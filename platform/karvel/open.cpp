#include <cerrno>

#include "response.h"

karvel_handle* libkarvelev_config_open(struct ev_loop* loop, int flags) {
    if (loop == nullptr || flags != 0) {
        errno = EINVAL;
        return nullptr;
    }
    return karvel_open(loop);
}
