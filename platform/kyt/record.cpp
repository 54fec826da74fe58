#include "record.h"

#include <array>
#include <bit>
#include <cerrno>
#include <charconv>

#include "export.h"
#include "kyt_rdonly.h"

namespace kyt {
namespace {

static_assert(sizeof(kyt_record) == 8 && alignof(kyt_record) == 4, "the record's layout is the file's");

using word [[gnu::may_alias]] = uint32_t;

constexpr uint16_t LIVE_MASK = 0x4C56;
constexpr uint16_t DELETED_MASK = static_cast<uint16_t>(~LIVE_MASK);
constexpr uint32_t EMPTY = std::bit_cast<uint32_t>(std::array<uint8_t, 4>{0x5A, 0xC3, 0xA5, 0x3C});

// CRC-16 with the polynomial 0x1021, a byte at a time without a table: what a table would hold for a byte is the byte
// itself in four places.
uint16_t crc_byte(uint16_t crc, uint8_t byte) {
    uint32_t top = (crc >> 8) ^ byte;
    top ^= top >> 4;
    return static_cast<uint16_t>((crc << 8) ^ (top << 12) ^ (top << 5) ^ top);
}

// Over the value of ts, not over its bytes as they are stored: a record keeps its check when its byte order changes.
uint16_t check_of(uint32_t ts, uint8_t seconds) {
    uint16_t crc = 0xFFFF;
    for (int shift = 0; shift < 32; shift += 8) {
        crc = crc_byte(crc, static_cast<uint8_t>(ts >> shift));
    }
    return crc_byte(crc, seconds);
}

kyt_record make(uint32_t ts, uint8_t seconds, uint8_t flags, uint16_t mask) {
    const auto check = static_cast<uint16_t>(check_of(ts, seconds) ^ mask);
    return {ts, {seconds, static_cast<uint8_t>(check)}, flags, static_cast<uint8_t>(check >> 8)};
}

// The two words of a record. The second one changes as a whole.
struct words {
    uint32_t ts;
    uint32_t detail;
};

// An address at which another thread may be reading or writing.
word* shared(const kyt_record* record) {
    return reinterpret_cast<word*>(const_cast<kyt_record*>(record));
}

}  // namespace

slot slot_kind(const kyt_record& record) {
    const uint32_t detail = std::bit_cast<words>(record).detail;
    if (detail == EMPTY) {
        return slot::EMPTY;
    }
    if (record.ts == 0) {
        return detail == 0 ? slot::UNUSED : slot::BAD;
    }
    const uint16_t stored = static_cast<uint16_t>(record.reserved[1] | (record.reserved2 << 8));
    switch (check_of(record.ts, record.reserved[0]) ^ stored) {
        case LIVE_MASK:
            return slot::LIVE;
        case DELETED_MASK:
            return slot::DELETED;
        default:
            return slot::BAD;
    }
}

kyt_record live_record(uint32_t ts, uint8_t seconds, uint8_t flags) {
    return make(ts, seconds, flags, LIVE_MASK);
}

kyt_record deleted_record(const kyt_record& live) {
    return make(live.ts, live.reserved[0], live.flags, DELETED_MASK);
}

kyt_record returned_record(const kyt_record& deleted) {
    return make(deleted.ts, deleted.reserved[0], deleted.flags, LIVE_MASK);
}

kyt_record swapped(const kyt_record& record) {
    kyt_record other = record;
    other.ts = __builtin_bswap32(record.ts);
    return other;
}

void put_record(kyt_record* slot, const kyt_record& record) {
    const auto to = std::bit_cast<words>(record);
    if (slot->ts != to.ts) {
        put_empty(slot);
        __atomic_store_n(shared(slot), to.ts, __ATOMIC_RELEASE);
    }
    __atomic_store_n(shared(slot) + 1, to.detail, __ATOMIC_RELEASE);
}

void put_empty(kyt_record* slot) {
    __atomic_store_n(shared(slot) + 1, EMPTY, __ATOMIC_RELEASE);
}

// Callers change flags by plain stores and without notice. The next two functions look at such records without a lock,
// which the thread sanitizer is told to accept.

// A ts belongs to the second word that was read both before and after it: between two clips there is EMPTY.
__attribute__((no_sanitize("thread"))) void copy_records(kyt_record* to, const kyt_record* from, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        const word* const at = shared(from + i);
        words seen = {0, __atomic_load_n(at + 1, __ATOMIC_ACQUIRE)};
        for (uint32_t before = ~seen.detail; seen.detail != before;) {
            before = seen.detail;
            seen.ts = __atomic_load_n(at, __ATOMIC_ACQUIRE);
            seen.detail = __atomic_load_n(at + 1, __ATOMIC_ACQUIRE);
        }
        to[i] = std::bit_cast<kyt_record>(seen);
    }
}

// Two multiplicative hashes side by side, each of which any change of a single word changes. 32-bit products: the
// target has no wider ones that are fast.
__attribute__((no_sanitize("thread"))) uint64_t sum_of(const kyt_record* from, uint32_t count) {
    const word* const at = shared(from);
    uint32_t high = 0x9E3779B9;
    uint32_t low = 0x85EBCA6B;
    for (uint32_t i = 0; i < 2 * count; ++i) {
        const uint32_t value = __atomic_load_n(at + i, __ATOMIC_RELAXED);
        high = (high ^ value) * 0x01000193U;
        low = (low + value) * 0x9E3779B1U;
    }
    return ((static_cast<uint64_t>(high) << 32 | low) & ~uint64_t{1}) | 2;
}

}  // namespace kyt

KYT_API int kyt_record_parse(kyt_record* record, const char* text, size_t length) {
    const char* const end = text + length;
    uint32_t fields[] = {0, 0, 0};
    constexpr uint32_t LIMITS[] = {UINT32_MAX, UINT8_MAX, UINT8_MAX};
    bool ok = true;
    for (int i = 0; ok && i < 3 && (i == 0 || text != end); ++i) {
        text += i > 0 && *text == ',' ? 1 : 0;
        // Takes no sign, no space and no prefix for an unsigned type, and fails when a number does not fit.
        const auto [after, failure] = std::from_chars(text, end, fields[i]);
        ok = failure == std::errc() && fields[i] <= LIMITS[i] && (after == end || *after == ',');
        text = after;
    }
    const kyt_record parsed =
        kyt::live_record(fields[0], static_cast<uint8_t>(fields[1]), static_cast<uint8_t>(fields[2]));
    // With one choice of flags, which no recorder uses, one clip in 65,536 of one length would read as an empty slot.
    if (!ok || text != end || fields[0] == 0 || !kyt::is_live(parsed)) {
        errno = EINVAL;
        return -1;
    }
    *record = parsed;
    return 0;
}

KYT_API uint32_t kyt_record_seconds(const kyt_record* record) {
    return record->reserved[0];
}
