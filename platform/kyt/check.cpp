// What is wrong with a recordings folder, for tools. Reads files and names; changes nothing.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "export.h"
#include "folder.h"
#include "handle.h"
#include "kyt_rdonly.h"
#include "load.h"
#include "record.h"

using namespace kyt;

namespace {

void look_at_list(const loaded& l, const char* name, kyt_health* health) {
    std::strncpy(health->list, name, sizeof health->list - 1);
    health->open = l.head.state == static_cast<uint32_t>(file_state::OPEN);
    health->other_byte_order = l.other_order;
    health->wrong_size = has_wrong_size(l);
    health->out_of_order = !l.ascending;
    health->card = l.head.card;
    health->deleted = l.deleted;
    health->destroyed = l.destroyed;
    health->unreadable = l.unreadable;
}

// Beside a list, the other file is a copy in the making or its predecessor and means nothing.
void look_at_no_list(const loaded (&files)[2], kyt_health* health) {
    for (const loaded& l : files) {
        if (l.failure != ENOENT) {
            const bool version = l.failure == 0 && l.header == header_kind::OTHER_VERSION;
            health->other_version = health->other_version || version;
            health->header_damaged = health->header_damaged || !version;
        }
    }
}

bool read_clips(int folder, array<uint32_t>* clips) {
    array<uint32_t> periods;
    if (folder_periods(folder, &periods) < 0) {
        return false;
    }
    for (const uint32_t period : periods) {
        if (folder_clips(folder, period, clips) < 0) {
            return false;
        }
    }
    std::sort(clips->begin(), clips->end());
    clips->size = static_cast<uint32_t>(std::unique(clips->begin(), clips->end()) - clips->begin());
    return true;
}

// Walks through both, ascending by ts.
void compare(const array<kyt_record>& records, const array<uint32_t>& clips, kyt_health* health) {
    const uint32_t* clip = clips.begin();
    for (uint32_t i = 0; i < records.size; ++i) {
        const uint32_t ts = records[i].ts;
        if (i > 0 && records[i - 1].ts == ts) {
            ++health->twice;
            continue;
        }
        for (; clip != clips.end() && *clip < ts; ++clip) {
            ++health->clips_not_listed;
        }
        const bool on_card = clip != clips.end() && *clip == ts;
        clip += on_card ? 1 : 0;
        if (is_live(records[i])) {
            ++health->records;
            health->records_without_clip += on_card ? 0 : 1;
        } else {
            health->undeleted += on_card ? 1 : 0;
        }
    }
    health->clips_not_listed += static_cast<uint32_t>(clips.end() - clip);
}

// 0, or the errno.
int look(int folder, kyt_health* health) {
    loaded files[2];
    if (!load_files(folder, &files)) {
        return ENOMEM;
    }
    const int list = choose_list(files);
    if (list >= 0) {
        look_at_list(files[list], LIST_NAMES[list], health);
    } else {
        look_at_no_list(files, health);
    }
    health->volume = card_of(folder);
    array<uint32_t> clips;
    if (!read_clips(folder, &clips)) {
        return errno;
    }
    health->clips = clips.size;
    array<kyt_record> none;
    array<kyt_record>& records = list >= 0 ? files[list].records : none;
    std::sort(records.begin(), records.end(), [](const kyt_record& a, const kyt_record& b) {
        return a.ts != b.ts ? a.ts < b.ts : is_live(a) && !is_live(b);
    });
    compare(records, clips, health);
    return 0;
}

}  // namespace

KYT_API int kyt_check(const char* folder_path, kyt_health* health) {
    const int folder = open(folder_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return -1;
    }
    kyt_health seen = {};
    const int failure = look(folder, &seen);
    close(folder);
    if (failure != 0) {
        errno = failure;
        return -1;
    }
    *health = seen;
    return 0;
}

KYT_API int kyt_repair(const char* folder_path) {
    kyt_handle* const list = open_folder(folder_path, reading::WHOLE);
    kyt_close(list);
    return list ? 0 : -1;
}
