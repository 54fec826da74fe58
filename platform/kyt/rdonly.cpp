#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "export.h"
#include "handle.h"
#include "kyt_rdonly.h"

using namespace kyt;

namespace {

// 0, or the errno.
int copy_list(int folder, kyt_handle* h) {
    h->list.fd = openat(folder, LIST_NAME, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (h->list.fd < 0) {
        return errno == ENOENT ? ENOENT : EBADMSG;
    }
    loaded l;
    array<uint32_t> doubles;
    const int failure = store_load(&h->list, &h->live, &l) == 0 ? 0 : errno;
    close(h->list.fd);
    if (failure != 0 || !is_list(l)) {
        return failure == ENOMEM ? ENOMEM : EBADMSG;
    }
    order_sort(&h->live);
    return order_drop_doubles(&h->live, &doubles) ? 0 : ENOMEM;
}

}  // namespace

KYT_API kyt_handle* kyt_open_rdonly(const char* folder_path) {
    const int folder = open(folder_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return nullptr;
    }
    kyt_handle* const h = handle_make();
    const int failure = h ? copy_list(folder, h) : ENOMEM;
    close(folder);
    if (h && failure != 0) {
        handle_free(h);
    }
    errno = failure;
    return failure == 0 ? h : nullptr;
}
