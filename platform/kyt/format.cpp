#include "format.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kyt {
namespace {

constexpr char MAGIC[8] = {'K', 'Y', 'T', ' ', 'L', 'I', 'S', 'T'};
constexpr uint32_t BYTE_ORDER_MARK = 0x01020304;

uint32_t crc32(const void* data, size_t size) {
    uint32_t crc = ~0U;
    for (const auto* at = static_cast<const uint8_t*>(data); size > 0; --size) {
        crc ^= *at++;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1)));
        }
    }
    return ~crc;
}

int writer_flush(list_writer* w) {
    const uint32_t offset = RECORDS_AT + (w->records - w->buffered) * static_cast<uint32_t>(sizeof(kyt_record));
    const int result = write_at(w->fd, w->buffer, w->buffered * sizeof(kyt_record), offset);
    w->buffered = 0;
    return result;
}

}  // namespace

header_kind header_read(const uint8_t (&bytes)[sizeof(list_header)], list_header* header, bool* other_order) {
    list_header h;
    std::memcpy(&h, bytes, sizeof h);
    const bool swap = h.byte_order == __builtin_bswap32(BYTE_ORDER_MARK);
    if (swap) {
        for (uint32_t* field :
             {&h.byte_order, &h.version, &h.generation, &h.state, &h.records, &h.card, &h.in_order, &h.check}) {
            *field = __builtin_bswap32(*field);
        }
    }
    if (std::memcmp(h.magic, MAGIC, sizeof MAGIC) != 0 || h.byte_order != BYTE_ORDER_MARK ||
        h.check != crc32(bytes, offsetof(list_header, check))) {
        return header_kind::DAMAGED;
    }
    *header = h;
    *other_order = swap;
    return h.version == VERSION ? header_kind::INTACT : header_kind::OTHER_VERSION;
}

uint32_t card_of(int fd) {
    constexpr unsigned long GET_VOLUME_ID = _IOR('r', 0x13, uint32_t);  // FAT_IOCTL_GET_VOLUME_ID, Linux 3.11
    uint32_t number = 0;
    return ioctl(fd, GET_VOLUME_ID, &number) == 0 ? number : 0;
}

int header_write(int fd, uint32_t generation, file_state state, uint32_t records, bool in_order) {
    list_header header = {};
    std::memcpy(header.magic, MAGIC, sizeof MAGIC);
    header.byte_order = BYTE_ORDER_MARK;
    header.version = VERSION;
    header.generation = generation;
    header.state = static_cast<uint32_t>(state);
    header.records = records;
    header.card = card_of(fd);
    header.in_order = in_order ? 1 : 0;
    header.check = crc32(&header, offsetof(list_header, check));
    return write_at(fd, &header, sizeof header, 0);
}

int header_seal(int fd, uint32_t generation, file_state state, uint32_t records, bool in_order) {
    return header_write(fd, generation, state, records, in_order) < 0 ? -1 : fdatasync(fd);
}

uint32_t file_bytes(uint32_t records) {
    const uint32_t wanted =
        RECORDS_AT + (records + SPARE_RECORDS) * static_cast<uint32_t>(sizeof(kyt_record)) + STEP_BYTES - 1;
    return std::min(wanted / STEP_BYTES * STEP_BYTES, MAX_BYTES);
}

int writer_begin(list_writer* w, int folder, const char* name, uint32_t generation) {
    w->records = w->buffered = 0;
    (void)unlinkat(folder, name, 0);  // a leftover; when it cannot go, the next call says so
    w->fd = openat(folder, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    return w->fd < 0 ? -1 : header_write(w->fd, generation, file_state::WRITING, 0);
}

int writer_put(list_writer* w, const kyt_record& record) {
    if (w->records == MAX_RECORDS) {
        errno = EFBIG;
        return -1;
    }
    w->buffer[w->buffered++] = record;
    ++w->records;
    return w->buffered < sizeof w->buffer / sizeof w->buffer[0] ? 0 : writer_flush(w);
}

int writer_end(list_writer* w, bool sync) {
    if (writer_flush(w) < 0 || ftruncate(w->fd, file_bytes(w->records)) < 0) {
        return -1;
    }
    return sync ? fsync(w->fd) : 0;
}

void writer_drop(list_writer* w, int folder, const char* name) {
    if (w->fd >= 0) {
        close(w->fd);
        w->fd = -1;
        (void)unlinkat(folder, name, 0);  // left behind it is only a copy in the making, removed at the next open
    }
}

int write_at(int fd, const void* data, size_t size, uint32_t offset) {
    const auto* at = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const ssize_t written = pwrite(fd, at, size, offset);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            errno = written < 0 ? errno : EIO;
            return -1;
        }
        at += written;
        size -= static_cast<size_t>(written);
        offset += static_cast<uint32_t>(written);
    }
    return 0;
}

long read_at(int fd, void* data, size_t size, uint32_t offset) {
    size_t done = 0;
    while (done < size) {
        const ssize_t got =
            pread(fd, static_cast<uint8_t*>(data) + done, size - done, offset + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    return static_cast<long>(done);
}

}  // namespace kyt
