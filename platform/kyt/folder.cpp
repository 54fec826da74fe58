#include "folder.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "names.h"

namespace kyt {
namespace {

// Calls `see` with each entry of a directory; false from it ends the reading with ENOMEM. 0, or -1 with errno.
template <typename See>
int read_names(int folder, const char* name, See see) {
    const int fd = openat(folder, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return -1;
    }
    DIR* const stream = fdopendir(fd);
    if (!stream) {
        const int failure = errno;
        close(fd);
        errno = failure;
        return -1;
    }
    int failure = 0;
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(stream);
        if (!entry) {
            failure = errno;
            break;
        }
        if (!see(*entry)) {
            failure = ENOMEM;
            break;
        }
    }
    closedir(stream);
    errno = failure;
    return failure == 0 ? 0 : -1;
}

}  // namespace

int folder_periods(int folder, array<uint32_t>* periods) {
    return read_names(folder, ".", [&](const dirent& entry) {
        uint32_t ts = 0;
        if ((entry.d_type != DT_DIR && entry.d_type != DT_UNKNOWN) || !period_from_name(entry.d_name, &ts)) {
            return true;
        }
        return periods->size < MAX_PERIODS && periods->push(ts);
    });
}

int folder_clips(int folder, uint32_t period, array<uint32_t>* clips) {
    constexpr std::string_view EXTENSION = ".mp4";
    char directory[PERIOD_NAME_LENGTH + 1];
    period_name(period, directory);
    const int result = read_names(folder, directory, [&](const dirent& entry) {
        const std::string_view name = entry.d_name;
        if ((entry.d_type != DT_REG && entry.d_type != DT_UNKNOWN) || !name.ends_with(EXTENSION)) {
            return true;
        }
        const uint32_t ts = clip_from_name(name.substr(0, name.size() - EXTENSION.size()));
        // A clip in another hour's directory is not where its ts says, so nobody would find it by its ts.
        return ts == 0 || ts / PERIOD_S != period / PERIOD_S || clips->push(ts);
    });
    return result < 0 && (errno == ENOENT || errno == ENOTDIR) ? 0 : result;
}

}  // namespace kyt
