// The clip index in a folder of the test's own, used through its public calls; files are judged by their bytes.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>

#include "handle.h"
#include "kyt_rdonly.h"
#include "record.h"
#include "support/libc_calls.h"
#include "support/log.h"
#include "support/promise.h"
#include "support/recordings.h"

namespace kyt_rig {

constexpr uint32_t BASE = 1'790'002'800;  // the beginning of an hour that has ended long ago
constexpr const char* LIST = kyt::LIST_NAME;

template <typename Condition>
bool await(Condition condition, int deadline_ms = 10'000) {
    for (int waited = 0; !condition(); waited += 2) {
        if (waited >= deadline_ms) {
            return false;
        }
        poll(nullptr, 0, 2);
    }
    return true;
}

inline size_t entries_of(const char* folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}
inline size_t open_descriptors() {
    return entries_of("/proc/self/fd");
}

// --- a list's bytes ---

inline kyt_record record_at(const std::string& list, uint32_t slot) {
    kyt_record record;
    std::memcpy(&record, list.data() + kyt::offset_of(slot), sizeof record);
    return record;
}
inline std::string with_record(std::string list, uint32_t slot, const kyt_record& record) {
    std::memcpy(list.data() + kyt::offset_of(slot), &record, sizeof record);
    return list;
}
// Slots up to the last one that is not zeros.
inline uint32_t used_slots(const std::string& list) {
    const size_t last = list.find_last_not_of('\0');
    return last == std::string::npos || last < kyt::RECORDS_AT
               ? 0
               : static_cast<uint32_t>((last - kyt::RECORDS_AT) / sizeof(kyt_record) + 1);
}
inline kyt::list_header header_of(const std::string& list) {
    uint8_t bytes[sizeof(kyt::list_header)];
    std::memcpy(bytes, list.data(), sizeof bytes);
    kyt::list_header header = {};
    bool other_order = false;
    EXPECT_EQ(kyt::header_read(bytes, &header, &other_order), kyt::header_kind::INTACT);
    return header;
}
inline bool is_closed(const std::string& list) {
    return header_of(list).state == static_cast<uint32_t>(kyt::file_state::CLOSED);
}
// With another header, whose check is right.
inline std::string with_header(std::string list, const std::function<void(kyt::list_header*)>& change) {
    kyt::list_header header;
    std::memcpy(&header, list.data(), sizeof header);
    change(&header);
    uint32_t crc = ~0U;
    for (size_t i = 0; i < offsetof(kyt::list_header, check); ++i) {
        crc ^= reinterpret_cast<const uint8_t*>(&header)[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1)));
        }
    }
    header.check = header.byte_order == 0x01020304 ? ~crc : __builtin_bswap32(~crc);
    std::memcpy(list.data(), &header, sizeof header);
    return list;
}
// As a machine of the other byte order would have written it.
inline std::string of_other_order(std::string list) {
    for (uint32_t slot = 0; slot < used_slots(list); ++slot) {
        const kyt_record record = kyt::swapped(record_at(list, slot));
        list = with_record(std::move(list), slot, record);
    }
    return with_header(std::move(list), [](kyt::list_header* h) {
        for (uint32_t* field : {&h->byte_order, &h->version, &h->state, &h->records, &h->card, &h->live}) {
            *field = __builtin_bswap32(*field);
        }
    });
}

// --- a list in use ---

struct rig : testing::Test {
    void SetUp() override {
        logged::reset();
        libc_calls::reset();
    }
    void TearDown() override {
        libc_calls::reset();
        kyt_close(list);
    }

    kyt_handle* opened() const { return kyt::open_folder(card.path().c_str()); }
    void open() {
        ASSERT_EQ(list, nullptr);
        list = opened();
        ASSERT_NE(list, nullptr) << std::strerror(errno);
    }
    void close() {
        kyt_close(list);
        list = nullptr;
    }
    void reopen() {
        close();
        open();
    }
    // As a power cut leaves it, if it was brought to the card. Waits for the thread, which holds the file for a moment.
    void close_dirty() {
        const size_t threads = entries_of("/proc/self/task");
        kyt_close_dirty(list);
        list = nullptr;
        ASSERT_TRUE(await([&] { return entries_of("/proc/self/task") < threads; }));
    }
    // Opening fails for this reason, and leaves nothing open.
    void expect_refused(int errnum) const {
        const size_t descriptors = open_descriptors();
        errno = 0;
        EXPECT_EQ(opened(), nullptr);
        EXPECT_EQ(errno, errnum) << std::strerror(errno);
        EXPECT_EQ(open_descriptors(), descriptors);
    }

    int add(uint32_t ts, uint32_t seconds = 0, uint32_t flags = 0) const {
        const kyt_record record =
            record_of(std::to_string(ts) + "," + std::to_string(seconds) + "," + std::to_string(flags));
        return kyt_write(list, &record);
    }
    void add_many(uint32_t first, uint32_t number, uint32_t apart = 1) const {
        for (uint32_t i = 0; i < number; ++i) {
            ASSERT_EQ(add(first + i * apart), 0) << i << std::strerror(errno);
        }
    }
    void remove(uint32_t ts) const { ASSERT_EQ(kyt_mark_deleted(list, kyt_get(list, ts)), 0); }
    void await_comparison() const {
        ASSERT_TRUE(await([&] { return !kyt::is_comparing(list); }));
    }
    // Maintenance until what it finds has been taken over.
    void optimise() const {
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(kyt_optimise(list), 0);
            await_comparison();
        }
    }
    // What another program sees: the flags of a clip on the card, or -1.
    int flags_on_card(uint32_t ts) const {
        kyt_handle* const look = kyt_open_rdonly(card.path().c_str());
        const kyt_record* const record = kyt_get(look, ts);
        const int flags = record ? record->flags : -1;
        kyt_close(look);
        return flags;
    }

    recordings card;
    kyt_handle* list = nullptr;
};

}  // namespace kyt_rig
