#include "unread.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "record.h"

namespace kyt {
namespace {

constexpr int FLAGS = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

bool is_missing(int folder, const char* name) {
    const int fd = openat(folder, name, O_RDONLY | FLAGS);
    if (fd >= 0) {
        close(fd);
    }
    return fd < 0 && errno == ENOENT;
}

// What a close leaves, and no other card's.
bool is_closed_in_order(int fd, list_header* head) {
    uint8_t bytes[sizeof(list_header)];
    bool other_order = false;
    if (read_at(fd, bytes, sizeof bytes, 0) != static_cast<long>(sizeof bytes) ||
        header_read(bytes, head, &other_order) != header_kind::INTACT || other_order ||
        head->state != static_cast<uint32_t>(file_state::CLOSED) || head->in_order != 1) {
        return false;
    }
    const uint32_t card = card_of(fd);
    return head->card == 0 || card == 0 || head->card == card;
}

bool has_its_size(int fd, const list_header& head, uint32_t* bytes) {
    struct stat status = {};
    if (fstat(fd, &status) < 0 || !S_ISREG(status.st_mode) || status.st_size % STEP_BYTES != 0 ||
        status.st_size > MAX_BYTES) {
        return false;
    }
    *bytes = static_cast<uint32_t>(status.st_size);
    return head.records <= slots_in(*bytes);
}

// The ends of what is used: a file to which the card owes writes mostly shows it there.
bool has_its_ends(int fd, uint32_t records, uint32_t bytes) {
    kyt_record first = {};
    kyt_record last[2] = {};
    const size_t wanted = records < slots_in(bytes) ? sizeof last : sizeof last[0];
    const uint32_t last_at = RECORDS_AT + (records - 1) * static_cast<uint32_t>(sizeof first);
    return read_at(fd, &first, sizeof first, RECORDS_AT) == static_cast<long>(sizeof first) && is_live(first) &&
           read_at(fd, last, wanted, last_at) == static_cast<long>(wanted) && is_live(last[0]) &&
           slot_kind(last[1]) == slot::FREE;
}

}  // namespace

uint32_t read_whole_up_to = 32768;

bool take_unread(int folder, ready_file* ready, region* map) {
    int name = 0;
    int fd = openat(folder, LIST_NAMES[0], O_RDWR | FLAGS);
    if (fd < 0) {
        name = 1;
        fd = openat(folder, LIST_NAMES[1], O_RDWR | FLAGS);
    }
    if (fd < 0) {
        return false;
    }
    list_header head = {};
    uint32_t bytes = 0;
    // In memory before the seal: the loop is not to wait for the card, nor to fault at a page that the card does not
    // give; and when it cannot be had, the file is still as it was.
    if (!is_closed_in_order(fd, &head) || !is_missing(folder, LIST_NAMES[1 - name]) ||
        head.records <= read_whole_up_to || !has_its_size(fd, head, &bytes) || !has_its_ends(fd, head.records, bytes) ||
        region_map(map, fd, bytes) < 0 || region_read_in(map, fd, head.records) < 0 ||
        header_seal(fd, head.generation, file_state::OPEN, head.records) < 0) {
        region_unmap(map);
        close(fd);
        return false;
    }
    *ready = {fd, name, head.generation, bytes, head.records};
    return true;
}

}  // namespace kyt
