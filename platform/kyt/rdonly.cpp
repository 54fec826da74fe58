#include <cerrno>
#include <fcntl.h>
#include <new>
#include <unistd.h>

#include "export.h"
#include "handle.h"
#include "kyt_rdonly.h"
#include "load.h"
#include "record.h"

using namespace kyt;

namespace {

bool take_copy(kyt_handle* h, const loaded& l) {
    for (const kyt_record& record : l.records) {
        if (is_live(record) && !h->copy.push(record)) {
            return false;
        }
    }
    std::sort(h->copy.begin(), h->copy.end(), [](const kyt_record& a, const kyt_record& b) { return a.ts < b.ts; });
    const kyt_record* const end = std::unique(h->copy.begin(), h->copy.end(),
                                              [](const kyt_record& a, const kyt_record& b) { return a.ts == b.ts; });
    h->copy.size = static_cast<uint32_t>(end - h->copy.begin());
    return list_load(&h->order, h->copy.data, h->copy.size);
}

// 0, or the errno.
int copy_list(int folder, kyt_handle* h) {
    loaded files[2];
    if (!load_files(folder, &files)) {
        return ENOMEM;
    }
    const int list = choose_list(files);
    if (list < 0) {
        return files[0].failure == ENOENT && files[1].failure == ENOENT ? ENOENT : EBADMSG;
    }
    return take_copy(h, files[list]) ? 0 : ENOMEM;
}

}  // namespace

KYT_API kyt_handle* kyt_open_rdonly(const char* folder_path) {
    const int folder = open(folder_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return nullptr;
    }
    auto* const memory = std::malloc(sizeof(kyt_handle));
    kyt_handle* const h = memory ? new (memory) kyt_handle : nullptr;
    int failure = ENOMEM;
    // A list that is replaced between the looks at its two names looks like none: look again.
    for (int attempt = 0; h && attempt < 3; ++attempt) {
        failure = copy_list(folder, h);
        if (failure != ENOENT && failure != EBADMSG) {
            break;
        }
    }
    close(folder);
    if (h && failure != 0) {
        h->~kyt_handle();
        std::free(h);
    }
    errno = failure;
    return failure == 0 ? h : nullptr;
}
