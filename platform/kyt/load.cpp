#include "load.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "record.h"

namespace kyt {
namespace {

constexpr uint32_t PAGE_RECORDS = 512;

bool take_record(loaded* l, uint32_t slot_number, kyt_record record) {
    if (l->other_order) {
        record = swapped(record);
    }
    const slot kind = slot_kind(record);
    if (kind == slot::FREE) {
        return true;
    }
    l->destroyed += slot_number - l->used;  // free slots that lie before this one
    l->used = slot_number + 1;
    if (kind == slot::BAD) {
        ++l->destroyed;
        return true;
    }
    l->deleted += kind == slot::DELETED ? 1 : 0;
    l->ascending = l->ascending && (l->records.size == 0 || l->records[l->records.size - 1].ts < record.ts);
    return l->records.push(record);
}

// Without a header nobody says which byte order the records have: the first whole one does.
bool looks_swapped(int fd) {
    kyt_record page[PAGE_RECORDS];
    for (uint32_t offset = RECORDS_AT;; offset += sizeof page) {
        const long got = read_at(fd, page, sizeof page, offset);
        if (got == 0 || offset >= MAX_BYTES) {
            return false;
        }
        for (long i = 0; i < got / static_cast<long>(sizeof page[0]); ++i) {
            const bool native = page[i].ts != 0 && slot_kind(page[i]) != slot::BAD;
            const bool other = page[i].ts != 0 && slot_kind(swapped(page[i])) != slot::BAD;
            if (native != other) {
                return other;
            }
        }
    }
}

int read_list(int fd, loaded* l) {
    struct stat status = {};
    if (fstat(fd, &status) < 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EISDIR;
    }
    l->empty = status.st_size == 0;
    l->odd_size = status.st_size % STEP_BYTES != 0 || status.st_size == 0 || status.st_size > MAX_BYTES;
    uint8_t head[sizeof(list_header)] = {};
    const long head_bytes = read_at(fd, head, sizeof head, 0);
    l->unreadable += head_bytes < 0 ? 1 : 0;
    l->header = header_read(head, &l->head, &l->other_order);
    if (l->header == header_kind::OTHER_VERSION) {
        return 0;
    }
    if (l->header == header_kind::DAMAGED) {
        l->other_order = looks_swapped(fd);
    }
    kyt_record page[PAGE_RECORDS];
    for (uint32_t offset = RECORDS_AT; offset < MAX_BYTES; offset += sizeof page) {
        const long got = read_at(fd, page, sizeof page, offset);
        if (got == 0) {
            break;
        }
        if (got < 0) {
            if (offset >= static_cast<uint64_t>(status.st_size)) {
                break;
            }
            ++l->unreadable;
            continue;  // the pages behind may be readable
        }
        for (long i = 0; i < got / static_cast<long>(sizeof page[0]); ++i) {
            if (!take_record(l, slots_in(offset) + static_cast<uint32_t>(i), page[i])) {
                return ENOMEM;
            }
        }
    }
    return 0;
}

}  // namespace

void load_file(int folder, const char* name, loaded* l) {
    const int fd = openat(folder, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        l->failure = errno;
        return;
    }
    l->failure = read_list(fd, l);
    close(fd);
}

bool load_files(int folder, loaded (*files)[2]) {
    for (int file = 0; file < 2; ++file) {
        loaded* const l = *files + file;
        load_file(folder, LIST_NAMES[file], l);
        if (l->failure == ENOMEM) {
            return false;
        }
    }
    return true;
}

int choose_list(const loaded (&files)[2]) {
    if (is_list(files[0]) && is_list(files[1])) {
        return files[1].head.generation > files[0].head.generation ? 1 : 0;
    }
    return is_list(files[0]) ? 0 : is_list(files[1]) ? 1 : -1;
}

}  // namespace kyt
