// The list file: its name, layout and header.
//
//   0     header, 64 bytes; the rest of its 4096 bytes is zero
//   4096  slots of 8 bytes (record.h), used ones first; a slot that was used once is never zeros again
//   end   at a multiple of 64 KiB, the step in which the file grows
//
// A clip's record stays in its slot for as long as it exists, and a free slot is taken by a later clip. Nothing is ever
// moved from one sector to another, so a power cut may leave any mixture of old and new sectors.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kyt.h"

namespace kyt {

constexpr const char* LIST_NAME = "KYT.LST";  // 8.3 and capitals: one directory entry on FAT
constexpr uint32_t VERSION = 1;
constexpr uint32_t RECORDS_AT = 4096;
constexpr uint32_t STEP_BYTES = 64 * 1024;
constexpr uint32_t MAX_BYTES = 8 * 1024 * 1024;
constexpr uint32_t MAX_RECORDS = (MAX_BYTES - RECORDS_AT) / sizeof(kyt_record);
constexpr uint32_t SECTOR_BYTES = 512;
constexpr uint32_t SECTOR_RECORDS = SECTOR_BYTES / sizeof(kyt_record);
constexpr uint32_t MAX_SECTORS = MAX_RECORDS / SECTOR_RECORDS;
constexpr uint32_t SPARE_RECORDS = 512;  // the file is kept longer than needed by this many slots

enum class file_state : uint32_t {
    WRITING = 1,  // just made: records of a file that was set aside may not be in it yet
    OPEN = 2,     // in use, or left behind by a power cut
    CLOSED = 3,   // complete: `records` slots, all whole
};

struct list_header {
    char magic[8];
    uint32_t byte_order;  // 0x01020304 as the writing machine stores it
    uint32_t version;
    uint32_t reserved1;
    uint32_t state;    // file_state
    uint32_t records;  // used slots when this was written: all of them when CLOSED, at least as many when OPEN
    uint32_t card;     // the volume's serial number; 0: not known
    uint32_t live;     // live records, when CLOSED
    uint32_t reserved[6];
    uint32_t check;  // CRC-32 of the bytes before it
};
static_assert(sizeof(list_header) == 64);

enum class header_kind : uint8_t { INTACT, OTHER_VERSION, DAMAGED };

// Judges 64 bytes. Unless DAMAGED, the header is filled, in this machine's byte order, and `other_order` tells whether
// a machine of the other byte order wrote it.
header_kind header_read(const uint8_t (&bytes)[sizeof(list_header)], list_header* header, bool* other_order);

// The serial number that a FAT volume gets when it is formatted, of the card that fd is on; 0: not known.
uint32_t card_of(int fd);

// Writes the header, with the card's number. 0, or -1 with errno.
int header_write(int fd, file_state state, uint32_t records, uint32_t live = 0);
// The same, and waits until everything in the file is on the card. 0, or -1 with errno.
int header_seal(int fd, file_state state, uint32_t records, uint32_t live = 0);

// The size of a file with that many used slots.
uint32_t file_bytes(uint32_t records);

inline uint32_t offset_of(uint32_t slot) {
    return RECORDS_AT + slot * static_cast<uint32_t>(sizeof(kyt_record));
}

// Writes all bytes, whatever signals arrive. 0, or -1 with errno.
int write_at(int fd, const void* data, size_t size, uint32_t offset);
// Reads as many bytes as there are; fewer than `size` only at the end of the file. -1 with errno.
long read_at(int fd, void* data, size_t size, uint32_t offset);

}  // namespace kyt
