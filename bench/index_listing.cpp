// What a shell script would do: the folders are the index. `test -e` for a look-up, `ls | sort` for a walk.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "index_engine.h"
#include "kyt.h"
#include "names.h"

namespace {

struct listing {
    char folder[512];
};

constexpr size_t NAME_SIZE = 24;

bool path_of(const char* folder, uint32_t ts, char (&path)[640]) {
    char standard[128];
    if (kyt_ts2path(ts, standard, sizeof standard, 0) < 0) {
        return false;
    }
    std::snprintf(path, sizeof path, "%s%s.mp4", folder, standard + sizeof kyt::RECORD_FOLDER - 1);
    return true;
}

bool make(const char* folder, uint32_t ts) {
    char path[640];
    if (!path_of(folder, ts, path)) {
        return false;
    }
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 && errno == ENOENT) {
        char* const last = std::strrchr(path, '/');
        *last = '\0';
        (void)mkdir(path, 0755);
        *last = '/';
        fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    }
    if (fd >= 0) {
        close(fd);
    }
    return fd >= 0;
}

bool fill(const char* folder, const uint32_t* ts, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        if (!make(folder, ts[i])) {
            return false;
        }
    }
    return true;
}

void* open_listing(const char* folder) {
    auto* const l = static_cast<listing*>(std::malloc(sizeof(listing)));
    if (l != nullptr) {
        std::snprintf(l->folder, sizeof l->folder, "%s", folder);
    }
    return l;
}

struct names {
    char (*at)[NAME_SIZE];
    size_t count;
    size_t room;
};

// All names of one folder that begin with a digit, sorted.
bool read_names(const char* path, names* out) {
    DIR* const stream = opendir(path);
    if (stream == nullptr) {
        return false;
    }
    out->count = 0;
    while (const dirent* entry = readdir(stream)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
            continue;
        }
        if (out->count == out->room) {
            out->room = out->room * 2 + 64;
            out->at = static_cast<char(*)[NAME_SIZE]>(std::realloc(out->at, out->room * NAME_SIZE));
            if (out->at == nullptr) {
                std::abort();
            }
        }
        std::snprintf(out->at[out->count++], NAME_SIZE, "%.*s", static_cast<int>(NAME_SIZE - 1), entry->d_name);
    }
    closedir(stream);
    if (out->at == nullptr) {
        return true;
    }
    std::qsort(out->at, out->count, NAME_SIZE, [](const void* a, const void* b) {
        return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
    });
    return true;
}

uint32_t walk(void* index) {
    const auto* const l = static_cast<listing*>(index);
    names periods = {};
    names clips = {};
    uint32_t count = 0;
    (void)read_names(l->folder, &periods);
    for (size_t i = 0; i < periods.count; ++i) {
        char path[640];
        std::snprintf(path, sizeof path, "%s/%s", l->folder, periods.at[i]);
        count += read_names(path, &clips) ? static_cast<uint32_t>(clips.count) : 0;
    }
    std::free(periods.at);
    std::free(clips.at);
    return count;
}

bool drop_oldest(void* index) {
    const auto* const l = static_cast<listing*>(index);
    names found = {};
    char period[560];
    char path[640];
    bool ok = read_names(l->folder, &found) && found.count > 0;
    if (ok) {
        std::snprintf(period, sizeof period, "%s/%s", l->folder, found.at[0]);
        ok = read_names(period, &found) && found.count > 0;
    }
    if (ok) {
        std::snprintf(path, sizeof path, "%s/%s", period, found.at[0]);
        ok = unlink(path) == 0;
        if (found.count == 1) {
            (void)rmdir(period);
        }
    }
    std::free(found.at);
    return ok;
}

}  // namespace

const index_engine INDEX_LISTING = {
    "listing",
    "when the kernel comes to it, about 30 s",
    fill,
    open_listing,
    [](void* index) { std::free(index); },
    [](void* index, uint32_t ts) {
        char path[640];
        return path_of(static_cast<listing*>(index)->folder, ts, path) && access(path, F_OK) == 0;
    },
    walk,
    [](void* index, uint32_t ts) { return make(static_cast<listing*>(index)->folder, ts); },
    drop_oldest,
    [](void*) { return true; },
};
