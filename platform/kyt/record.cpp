#include "record.h"

#include <cerrno>
#include <charconv>

#include "export.h"
#include "kyt_rdonly.h"

namespace kyt {
namespace {

static_assert(sizeof(kyt_record) == 8, "the record's layout is the file's");

constexpr uint16_t LIVE_MASK = 0x4C56;
constexpr uint16_t DELETED_MASK = static_cast<uint16_t>(~LIVE_MASK);

// CRC-16 with the polynomial 0x1021, a byte at a time without a table: what a table would hold for a byte is the byte
// itself in four places. A record is checked at every look at it, so this is most of what a look costs.
uint16_t crc_byte(uint16_t crc, uint8_t byte) {
    uint32_t top = (crc >> 8) ^ byte;
    top ^= top >> 4;
    return static_cast<uint16_t>((crc << 8) ^ (top << 12) ^ (top << 5) ^ top);
}

// Over the value of ts, not over its bytes as they lie: a record keeps its check when its byte order is changed.
uint16_t check_of(uint32_t ts, uint8_t detail) {
    uint16_t crc = 0xFFFF;
    for (int shift = 0; shift < 32; shift += 8) {
        crc = crc_byte(crc, static_cast<uint8_t>(ts >> shift));
    }
    return crc_byte(crc, detail);
}

kyt_record make(uint32_t ts, uint8_t detail, uint8_t flags, uint16_t mask) {
    const auto check = static_cast<uint16_t>(check_of(ts, detail) ^ mask);
    return {ts, {detail, static_cast<uint8_t>(check)}, flags, static_cast<uint8_t>(check >> 8)};
}

// check: over the record as it should be.
slot kind_with(const kyt_record& record, uint16_t check) {
    if (record.ts == 0) {
        const bool all_zero =
            record.reserved[0] == 0 && record.reserved[1] == 0 && record.flags == 0 && record.reserved2 == 0;
        return all_zero ? slot::FREE : slot::BAD;
    }
    const uint16_t stored = static_cast<uint16_t>(record.reserved[1] | (record.reserved2 << 8));
    switch (check ^ stored) {
        case LIVE_MASK:
            return slot::LIVE;
        case DELETED_MASK:
            return slot::DELETED;
        default:
            return slot::BAD;
    }
}

}  // namespace

slot slot_kind(const kyt_record& record) {
    return kind_with(record, check_of(record.ts, record.reserved[0]));
}

// The check is linear: the bytes' shares are put together by xor, and that of no bytes goes with the first one.
check_table::check_table() {
    const uint16_t none = check_of(0, 0);
    for (uint32_t byte = 0; byte < 256; ++byte) {
        for (int place = 0; place < 4; ++place) {
            of[place][byte] = static_cast<uint16_t>(check_of(byte << (8 * place), 0) ^ (place > 0 ? none : 0));
        }
        of[4][byte] = static_cast<uint16_t>(check_of(0, static_cast<uint8_t>(byte)) ^ none);
    }
}

slot slot_kind(const kyt_record& record, const check_table& table) {
    const uint32_t ts = record.ts;
    return kind_with(record, static_cast<uint16_t>(table.of[0][ts & 0xFF] ^ table.of[1][(ts >> 8) & 0xFF] ^
                                                   table.of[2][(ts >> 16) & 0xFF] ^ table.of[3][ts >> 24] ^
                                                   table.of[4][record.reserved[0]]));
}

kyt_record live_record(uint32_t ts, uint8_t seconds, uint8_t flags) {
    return make(ts, seconds, flags, LIVE_MASK);
}

kyt_record deleted_record(const kyt_record& record, uint8_t round) {
    return make(record.ts, round, record.flags, DELETED_MASK);
}

kyt_record swapped(const kyt_record& record) {
    kyt_record other = record;
    other.ts = __builtin_bswap32(record.ts);
    return other;
}

}  // namespace kyt

KYT_API int kyt_record_parse(kyt_record* record, const char* text, size_t length) {
    const char* const end = text + length;
    uint32_t ts = 0;
    uint8_t seconds = 0;
    uint8_t flags = 0;
    // from_chars takes no sign, no space and no prefix for an unsigned type, and says when a number does not fit.
    auto [at, failure] = std::from_chars(text, end, ts);
    if (failure == std::errc() && at != end && *at == ',') {
        auto [after_seconds, bad_seconds] = std::from_chars(at + 1, end, seconds);
        at = after_seconds;
        failure = bad_seconds;
        if (failure == std::errc() && at != end && *at == ',') {
            auto [after_flags, bad_flags] = std::from_chars(at + 1, end, flags);
            at = after_flags;
            failure = bad_flags;
        }
    }
    if (failure != std::errc() || at != end || ts == 0) {
        errno = EINVAL;
        return -1;
    }
    *record = kyt::live_record(ts, seconds, flags);
    return 0;
}

KYT_API uint32_t kyt_record_seconds(const kyt_record* record) {
    return record->reserved[0];
}
