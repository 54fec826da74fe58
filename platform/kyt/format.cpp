#include "format.h"

#include <cerrno>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include "array.h"

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

}  // namespace

header_kind header_read(const uint8_t (&bytes)[sizeof(list_header)], list_header* header, bool* other_order) {
    list_header h;
    std::memcpy(&h, bytes, sizeof h);
    const bool swap = h.byte_order == __builtin_bswap32(BYTE_ORDER_MARK);
    if (swap) {
        for (uint32_t* field : {&h.byte_order, &h.version, &h.state, &h.records, &h.card, &h.live, &h.check}) {
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

int header_write(int fd, file_state state, uint32_t records, uint32_t live) {
    list_header header = {{},      BYTE_ORDER_MARK, VERSION, 0,  static_cast<uint32_t>(state),
                          records, card_of(fd),     live,    {}, 0};
    std::memcpy(header.magic, MAGIC, sizeof MAGIC);
    header.check = crc32(&header, offsetof(list_header, check));
    return write_at(fd, &header, sizeof header, 0);
}

int header_seal(int fd, file_state state, uint32_t records, uint32_t live) {
    return header_write(fd, state, records, live) < 0 ? -1 : fdatasync(fd);
}

uint32_t file_bytes(uint32_t records) {
    const uint32_t wanted = offset_of(records + SPARE_RECORDS) + STEP_BYTES - 1;
    return std::min(wanted / STEP_BYTES * STEP_BYTES, MAX_BYTES);
}

int write_at(int fd, const void* data, size_t size, uint32_t offset) {
    for (size_t done = 0; done < size;) {
        const auto* const at = static_cast<const uint8_t*>(data) + done;
        const ssize_t written = pwrite(fd, at, size - done, offset + static_cast<off_t>(done));
        if (written == 0 || (written < 0 && errno != EINTR)) {
            return fail_with(written < 0 ? errno : EIO);
        }
        done += static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
    return 0;
}

long read_at(int fd, void* data, size_t size, uint32_t offset) {
    size_t done = 0;
    while (done < size) {
        auto* const at = static_cast<uint8_t*>(data) + done;
        const ssize_t got = pread(fd, at, size - done, offset + static_cast<off_t>(done));
        if (got < 0 && errno != EINTR) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        done += static_cast<size_t>(std::max<ssize_t>(got, 0));
    }
    return static_cast<long>(done);
}

}  // namespace kyt
