// The list file's sizes, its writer, and reads and writes that move less than they were asked to.
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <numeric>
#include <sys/stat.h>

#include "format.h"
#include "phrases.h"
#include "record.h"
#include "support/card_calls.h"
#include "support/recordings.h"

namespace {

constexpr const char* LIST = "KYT_A.LST";
constexpr uint32_t BASE = 1'790'000'000;

struct KytFormat : testing::Test {
    KytFormat() { card_calls::reset(); }
    ~KytFormat() override {
        card_calls::reset();
        close(folder);
    }
    KytFormat(const KytFormat&) = delete;
    KytFormat& operator=(const KytFormat&) = delete;

    int open_list() const { return openat(folder, LIST, O_RDWR | O_CREAT | O_CLOEXEC, 0644); }
    kyt::list_header header_of(const std::string& name = LIST) const {
        uint8_t bytes[sizeof(kyt::list_header)];
        std::memcpy(bytes, card.bytes(name).data(), sizeof bytes);
        kyt::list_header header = {};
        bool other_order = true;
        EXPECT_EQ(kyt::header_read(bytes, &header, &other_order), kyt::header_kind::INTACT);
        EXPECT_FALSE(other_order);
        return header;
    }

    recordings card;
    int folder = open(card.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
};

// The check as the format's page has it, a bit at a time.
uint16_t crc_16(const uint8_t (&bytes)[5]) {
    uint32_t crc = 0xFFFF;
    for (const uint8_t byte : bytes) {
        for (unsigned bit = 0x80; bit != 0; bit >>= 1) {
            const bool one = ((crc & 0x8000) != 0) != ((byte & bit) != 0);
            crc = ((crc << 1) ^ (one ? 0x1021U : 0U)) & 0xFFFF;
        }
    }
    return static_cast<uint16_t>(crc);
}

// Cards are read by later versions and by other programs: the bytes must stay what they are.
TEST_F(KytFormat, ARecordsBytesAreThoseOfTheFormat) {
    constexpr uint8_t SHOWN[2] = {0x8D, 0x97};  // for BASE and 60 s
    const kyt_record shown = kyt::live_record(BASE, 60, 1);
    EXPECT_EQ(shown.reserved[1], SHOWN[0]);
    EXPECT_EQ(shown.flags, 1);
    EXPECT_EQ(shown.reserved2, SHOWN[1]);
    for (const uint32_t ts : {1U, 0x0102'0304U, 0x8040'2010U, BASE, UINT32_MAX}) {
        for (unsigned value = 0; value < 256; ++value) {
            const auto detail = static_cast<uint8_t>(value);
            const uint8_t bytes[5] = {static_cast<uint8_t>(ts), static_cast<uint8_t>(ts >> 8),
                                      static_cast<uint8_t>(ts >> 16), static_cast<uint8_t>(ts >> 24), detail};
            const kyt_record live = kyt::live_record(ts, detail, 0xA5);
            ASSERT_EQ(live.ts, ts);
            ASSERT_EQ(live.reserved[0], detail);
            ASSERT_EQ(live.reserved[1] | (live.reserved2 << 8), crc_16(bytes) ^ 0x4C56) << ts << ' ' << value;
            const kyt_record deleted = kyt::deleted_record(live, detail);
            ASSERT_EQ(deleted.reserved[1] | (deleted.reserved2 << 8), crc_16(bytes) ^ 0xB3A9) << ts << ' ' << value;
            ASSERT_EQ(deleted.flags, 0xA5);
        }
    }
}

TEST_F(KytFormat, AFileIsOfWholeStepsWithSpareSlots) {
    // What fits into the first step beside the header's page and the spare slots.
    constexpr uint32_t FITS = (kyt::STEP_BYTES - kyt::RECORDS_AT) / 8 - kyt::SPARE_RECORDS;
    constexpr uint32_t PER_STEP = kyt::STEP_BYTES / 8;
    constexpr struct {
        uint32_t records;
        uint32_t bytes;
    } ROWS[] = {
        {0, kyt::STEP_BYTES},
        {FITS, kyt::STEP_BYTES},
        {FITS + 1, 2 * kyt::STEP_BYTES},
        {FITS + PER_STEP, 2 * kyt::STEP_BYTES},
        {FITS + PER_STEP + 1, 3 * kyt::STEP_BYTES},
        {kyt::MAX_RECORDS - kyt::SPARE_RECORDS, kyt::MAX_BYTES},
        {kyt::MAX_RECORDS, kyt::MAX_BYTES},
    };
    for (const auto& row : ROWS) {
        EXPECT_EQ(kyt::file_bytes(row.records), row.bytes) << row.records;
    }
}

TEST_F(KytFormat, OfALogLineWhatDoesNotFitInIsLeftOut) {
    constexpr int ROOM = 319;
    kyt::phrases words;
    words.add("%*s", ROOM + 1, "x");
    EXPECT_TRUE(words.empty());
    words.add("%*s", ROOM, "x");
    EXPECT_EQ(std::strlen(words.text), size_t{ROOM});
    for (int over = 0; over < 6; ++over) {
        kyt::phrases two;
        two.add("first");
        two.add("%*s", ROOM - 5 - 2 + over, "x");
        EXPECT_EQ(std::strlen(two.text), over == 0 ? size_t{ROOM} : 5U) << over;
        two.add("z");
        EXPECT_EQ(std::string(two.text + 5) == ", z", over > 0) << over;
    }
}

TEST_F(KytFormat, SlotsBeginBehindTheHeadersPage) {
    for (const uint32_t bytes : {0U, 64U, 4095U, 4096U, 4103U}) {
        EXPECT_EQ(kyt::slots_in(bytes), 0U) << bytes;
    }
    EXPECT_EQ(kyt::slots_in(4104), 1U);
    EXPECT_EQ(kyt::slots_in(kyt::MAX_BYTES), kyt::MAX_RECORDS);
}

TEST_F(KytFormat, AWrittenFileHoldsWhatWasPutWhateverTheBufferHolds) {
    for (const uint32_t count : {0U, 1U, 511U, 512U, 513U, 1024U, 1500U}) {
        card.set_bytes("KYT_B.LST", "a leftover");
        card_calls::reset();
        kyt::list_writer writer;
        ASSERT_EQ(kyt::writer_begin(&writer, folder, "KYT_B.LST", 7), 0);
        for (uint32_t i = 0; i < count; ++i) {
            ASSERT_EQ(kyt::writer_put(&writer, kyt::live_record(BASE + i, 60, 0)), 0);
        }
        EXPECT_EQ(kyt::writer_end(&writer, count % 2 == 0), 0);
        EXPECT_EQ(card_calls::count("fsync"), count % 2 == 0 ? 1 : 0);
        EXPECT_NE(fcntl(writer.fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ(writer.records, count);
        const kyt::list_header header = header_of("KYT_B.LST");
        EXPECT_EQ(header.generation, 7U);
        EXPECT_EQ(header.state, static_cast<uint32_t>(kyt::file_state::WRITING));
        EXPECT_EQ(header.records, 0U);
        const std::string bytes = card.bytes("KYT_B.LST");
        ASSERT_EQ(bytes.size(), kyt::file_bytes(count));
        for (uint32_t i = 0; i < kyt::slots_in(static_cast<uint32_t>(bytes.size())); ++i) {
            const kyt_record wanted = i < count ? kyt::live_record(BASE + i, 60, 0) : kyt_record{};
            ASSERT_EQ(std::memcmp(bytes.data() + kyt::RECORDS_AT + i * sizeof wanted, &wanted, sizeof wanted), 0) << i;
        }
        const int fd = writer.fd;
        kyt::writer_drop(&writer, folder, "KYT_B.LST");
        EXPECT_EQ(writer.fd, -1);
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
        EXPECT_FALSE(card.has("KYT_B.LST"));
    }
}

TEST_F(KytFormat, AFullFileTakesNoMore) {
    kyt::list_writer writer;
    ASSERT_EQ(kyt::writer_begin(&writer, folder, LIST, 1), 0);
    for (uint32_t i = 0; i < kyt::MAX_RECORDS; ++i) {
        ASSERT_EQ(kyt::writer_put(&writer, kyt::live_record(BASE + i, 60, 0)), 0) << i;
    }
    EXPECT_EQ(kyt::writer_put(&writer, kyt::live_record(1, 60, 0)), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(kyt::writer_end(&writer, false), 0);
    EXPECT_EQ(card.bytes(LIST).size(), kyt::MAX_BYTES);
    kyt::writer_drop(&writer, folder, LIST);
}

TEST_F(KytFormat, WhatTheCardRefusesTheWriterPassesOn) {
    constexpr struct {
        const char* call;
        int nth;
        int fails_in;  // 1: begin, 2: put, 3: end
    } ROWS[] = {{"open for writing", 1, 1}, {"pwrite", 1, 1},    {"pwrite", 2, 2},
                {"pwrite", 3, 3},           {"ftruncate", 1, 3}, {"fsync", 1, 3}};
    for (const auto& row : ROWS) {
        card_calls::reset();
        card_calls::fail(row.call, row.nth, ENOSPC);
        kyt::list_writer writer;
        int failed_in = 0;
        if (kyt::writer_begin(&writer, folder, LIST, 1) < 0) {
            failed_in = 1;
        }
        for (uint32_t i = 0; i < 513 && failed_in == 0; ++i) {
            failed_in = kyt::writer_put(&writer, kyt::live_record(BASE + i, 60, 0)) < 0 ? 2 : 0;
        }
        if (failed_in == 0 && kyt::writer_end(&writer, true) < 0) {
            failed_in = 3;
        }
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(failed_in, row.fails_in) << row.call << row.nth;
        kyt::writer_drop(&writer, folder, LIST);
        EXPECT_FALSE(card.has(LIST));
    }
    // A file that was never opened is nobody's to remove.
    card.set_bytes(LIST, "of somebody else");
    kyt::list_writer none;
    kyt::writer_drop(&none, folder, LIST);
    EXPECT_TRUE(card.has(LIST));
}

TEST_F(KytFormat, AHeaderIsSealedWhenItIsOnTheCard) {
    const int fd = open_list();
    card_calls::set_volume(99);
    EXPECT_EQ(kyt::header_seal(fd, 3, kyt::file_state::CLOSED, 12), 0);
    EXPECT_EQ(card_calls::count("fdatasync"), 1);
    const kyt::list_header header = header_of();
    EXPECT_EQ(header.generation, 3U);
    EXPECT_EQ(header.state, 3U);
    EXPECT_EQ(header.records, 12U);
    EXPECT_EQ(header.card, 99U);
    card_calls::reset();
    card_calls::fail("pwrite", 1, EIO);
    EXPECT_EQ(kyt::header_seal(fd, 3, kyt::file_state::CLOSED, 12), -1);
    EXPECT_EQ(card_calls::count("fdatasync"), 0);
    card_calls::fail("fdatasync", 1, EIO);
    EXPECT_EQ(kyt::header_seal(fd, 3, kyt::file_state::CLOSED, 12), -1);
    close(fd);
}

TEST_F(KytFormat, EveryBitOfAHeaderCounts) {
    const int fd = open_list();
    ASSERT_EQ(kyt::header_write(fd, 3, kyt::file_state::CLOSED, 12), 0);
    close(fd);
    const std::string bytes = card.bytes(LIST);
    for (size_t bit = 0; bit < 8 * sizeof(kyt::list_header); ++bit) {
        uint8_t changed[sizeof(kyt::list_header)];
        std::memcpy(changed, bytes.data(), sizeof changed);
        changed[bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8));
        kyt::list_header header = {};
        bool other_order = false;
        EXPECT_EQ(kyt::header_read(changed, &header, &other_order), kyt::header_kind::DAMAGED) << bit;
        EXPECT_EQ(header.records, 0U);
    }
}

TEST_F(KytFormat, AWriteGoesOnUntilAllIsWritten) {
    const int fd = open_list();
    std::array<char, 10> data;
    std::iota(data.begin(), data.end(), 'a');
    EXPECT_EQ(kyt::write_at(fd, data.data(), data.size(), 2), 0);
    EXPECT_EQ(card_calls::count("pwrite"), 1);
    EXPECT_EQ(card.bytes(LIST), std::string("\0\0abcdefghij", 12));
    EXPECT_EQ(ftruncate(fd, 0), 0);

    card_calls::set_most_at_once(3);
    card_calls::fail("pwrite", 2, EINTR, 2);
    EXPECT_EQ(kyt::write_at(fd, data.data(), data.size(), 2), 0);
    EXPECT_EQ(card_calls::count("pwrite"), 1 + 4 + 2);
    EXPECT_EQ(card.bytes(LIST), std::string("\0\0abcdefghij", 12));

    card_calls::fail("pwrite", 2, ENOSPC);
    EXPECT_EQ(kyt::write_at(fd, data.data(), data.size(), 2), -1);
    EXPECT_EQ(errno, ENOSPC);
    // A card that takes nothing and gives no reason; what an earlier call left in errno is none.
    card_calls::set_most_at_once(0);
    errno = EINTR;
    EXPECT_EQ(kyt::write_at(fd, data.data(), data.size(), 2), -1);
    EXPECT_EQ(errno, EIO);
    close(fd);
}

TEST_F(KytFormat, AReadGoesOnUntilTheEnd) {
    card.set_bytes(LIST, "0123456789abcdef");
    const int fd = open_list();
    std::array<char, 10> data = {};
    const auto text = [&] { return std::string(data.data(), data.size()); };
    EXPECT_EQ(kyt::read_at(fd, data.data(), data.size(), 2), 10);
    EXPECT_EQ(card_calls::count("pread"), 1);
    EXPECT_EQ(text(), "23456789ab");

    card_calls::set_most_at_once(3);
    card_calls::fail("pread", 2, EINTR, 2);
    data = {};
    EXPECT_EQ(kyt::read_at(fd, data.data(), data.size(), 4), 10);
    EXPECT_EQ(card_calls::count("pread"), 1 + 4 + 2);
    EXPECT_EQ(text(), "456789abcd");

    data = {};
    errno = EINTR;
    EXPECT_EQ(kyt::read_at(fd, data.data(), data.size(), 12), 4);
    EXPECT_EQ(text(), std::string("cdef\0\0\0\0\0\0", 10));
    EXPECT_EQ(kyt::read_at(fd, data.data(), data.size(), 16), 0);
    card_calls::fail("pread", 2, EIO);
    EXPECT_EQ(kyt::read_at(fd, data.data(), data.size(), 0), -1);
    EXPECT_EQ(errno, EIO);
    close(fd);
}

TEST_F(KytFormat, TheWriterMayHaveDescriptorZero) {
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    close(STDIN_FILENO);
    kyt::list_writer writer;
    EXPECT_EQ(kyt::writer_begin(&writer, folder, LIST, 1), 0);
    EXPECT_EQ(writer.fd, STDIN_FILENO);
    kyt::writer_drop(&writer, folder, LIST);
    EXPECT_FALSE(card.has(LIST));
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    if (input >= 0) {
        dup2(input, STDIN_FILENO);
        close(input);
    }
}

}  // namespace
