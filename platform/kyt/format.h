// The list file: names, layout, header, and the one way in which a whole file is written.
//
//   0     header, 64 bytes; the rest of its page is zero
//   4096  slots of 8 bytes (record.h), used ones first; a slot of zeros is free
//   end   at a multiple of 64 KiB, the step in which a file grows
//
// The list lives under one of two names. A rewritten list is written under the other name, and only when all of it is
// on the card is it sealed with a higher generation; then the old file goes. Nothing is renamed, since FAT does not
// promise that a rename survives a power cut in one piece.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kyt.h"

namespace kyt {

constexpr const char* LIST_NAMES[2] = {"KYT_A.LST", "KYT_B.LST"};  // 8.3 and capitals: one directory entry each on FAT
constexpr uint32_t VERSION = 1;
constexpr uint32_t RECORDS_AT = 4096;
constexpr uint32_t STEP_BYTES = 64 * 1024;
constexpr uint32_t MAX_BYTES = 8 * 1024 * 1024;
constexpr uint32_t MAX_RECORDS = (MAX_BYTES - RECORDS_AT) / sizeof(kyt_record);
constexpr uint32_t SPARE_RECORDS = 512;  // free slots that a file is kept ahead of need: 8 hours of one-minute clips

enum class file_state : uint32_t {
    WRITING = 1,  // not the list yet: a copy in the making
    OPEN = 2,     // the list, in use or left behind by a power cut
    CLOSED = 3,   // the list, complete: `records` slots, all whole
};

struct list_header {
    char magic[8];
    uint32_t byte_order;  // 0x01020304 as the writing machine stores it
    uint32_t version;
    uint32_t generation;  // of two sealed files the higher one is the list
    uint32_t state;       // file_state
    uint32_t records;     // used slots when this was written: all when CLOSED, at least so many when OPEN
    uint32_t card;        // the volume's serial number; 0: not known
    uint32_t in_order;    // 1: CLOSED with live records only, ascending; 0: not known
    uint32_t reserved[6];
    uint32_t check;  // CRC-32 of the bytes before it
};
static_assert(sizeof(list_header) == 64);

enum class header_kind : uint8_t { INTACT, OTHER_VERSION, DAMAGED };

// Judges 64 bytes. The header is filled, in this machine's byte order, unless DAMAGED; `other_order` says whether a
// machine of the other byte order wrote it.
header_kind header_read(const uint8_t (&bytes)[sizeof(list_header)], list_header* header, bool* other_order);

// The serial number that FAT gives a volume when it is made, of the card on which fd lies; 0: not known.
uint32_t card_of(int fd);

// Writes the header, with the card's number. 0, or -1 with errno.
int header_write(int fd, uint32_t generation, file_state state, uint32_t records, bool in_order = false);

// The same, and waits until everything in the file is on the card. 0, or -1 with errno.
int header_seal(int fd, uint32_t generation, file_state state, uint32_t records, bool in_order = false);

// The size of a file with that many used slots and the spare ones.
uint32_t file_bytes(uint32_t records);
inline uint32_t slots_in(uint32_t bytes) {
    return bytes < RECORDS_AT ? 0 : (bytes - RECORDS_AT) / static_cast<uint32_t>(sizeof(kyt_record));
}

// Writes a list file from front to back, in the state WRITING.
struct list_writer {
    int fd = -1;
    uint32_t records = 0;
    uint32_t buffered = 0;
    kyt_record buffer[512];
};

// Each: 0, or -1 with errno; after a failure, and to give up, call writer_drop.
int writer_begin(list_writer* w, int folder, const char* name, uint32_t generation);
int writer_put(list_writer* w, const kyt_record& record);
int writer_end(list_writer* w, bool sync);  // brings the file to its full size; sync: waits for the card
void writer_drop(list_writer* w, int folder, const char* name);

// All bytes, whatever signals come. 0, or -1 with errno.
int write_at(int fd, const void* data, size_t size, uint32_t offset);
// As many bytes as there are; fewer than `size` only at the end of the file. -1 with errno.
long read_at(int fd, void* data, size_t size, uint32_t offset);

}  // namespace kyt
