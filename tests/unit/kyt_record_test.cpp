// A record and the text of its announcement, the header, and the layout of the file: what is on a card for years.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <string_view>
#include <vector>

#include "phrases.h"
#include "support/kyt_rig.h"

namespace {

using kyt::slot;
using namespace kyt_rig;

PROMISES("kyt", "Names and announcements");

struct parse_row {
    const char* text;
    uint32_t ts;
    uint32_t seconds;
    uint32_t flags;
};

TEST(KytRecord, Announcements) {
    PROMISE("an announcement has one, two or three decimal numbers in range",
            "the record is complete and whole; the text is read no further than its length");
    PROMISE("an announcement has anything else, is out of range, or names time 0",
            "-1 with EINVAL, the record untouched");
    for (const parse_row& row : {
             parse_row{"1795224125", 1'795'224'125, 0, 0},
             {"1795224125,60", 1'795'224'125, 60, 0},
             {"1795224125,60,1", 1'795'224'125, 60, 1},
             {"4294967295,255,255", UINT32_MAX, 255, 255},
             {"1", 1, 0, 0},
             {"0001,007,00", 1, 7, 0},
         }) {
        const std::vector<char> exact(row.text, row.text + std::strlen(row.text));  // so that a look behind it is seen
        kyt_record record;
        EXPECT_EQ(kyt_record_parse(&record, exact.data(), exact.size()), 0) << row.text;
        EXPECT_EQ(record.ts, row.ts);
        EXPECT_EQ(kyt_record_seconds(&record), row.seconds);
        EXPECT_EQ(record.flags, row.flags);
        EXPECT_EQ(kyt::slot_kind(record), kyt::slot::LIVE);
    }
    for (const std::string_view text : {"",
                                        "0",
                                        "0,60",
                                        "4294967296",
                                        "1795224125,256",
                                        "1795224125,60,256",
                                        "1795224125,",
                                        "1795224125,60,",
                                        "1795224125,60,1,",
                                        "1795224125,60,1,2",
                                        "1795224125,,1",
                                        ",60,1",
                                        " 1795224125",
                                        "1795224125 ",
                                        "1795224125\n",
                                        "1795224125, 60",
                                        "+1795224125",
                                        "-1",
                                        "1795224125,-1",
                                        "0x10",
                                        "1e9",
                                        "99999999999999999999",
                                        "{\"ts\":1}"}) {
        const std::vector<char> exact(text.begin(), text.end());
        kyt_record record;
        std::memset(&record, 0xAA, sizeof record);
        const kyt_record before = record;
        errno = 0;
        EXPECT_EQ(kyt_record_parse(&record, exact.data(), exact.size()), -1) << text;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0) << text;
    }
    kyt_record record;
    EXPECT_EQ(kyt_record_parse(&record, "12\0003", 4), -1);
}

TEST(KytRecord, TellsWhatItIs) {
    PROMISE("one bit of a record outside its flags is wrong", "that is seen; flags may change in place");
    EXPECT_EQ(kyt::slot_kind({0, {0, 0}, 0, 0}), slot::UNUSED);
    EXPECT_EQ(kyt::slot_kind({0, {0, 0}, 1, 0}), slot::BAD);
    EXPECT_EQ(kyt::slot_kind({UINT32_MAX, {255, 255}, 255, 255}), slot::BAD);
    EXPECT_EQ(kyt::slot_kind({1, {0, 0}, 0, 0}), slot::BAD);
    const kyt_record original = kyt::live_record(BASE, 60, 1);
    for (unsigned flags = 0; flags < 256; ++flags) {
        kyt_record live = original;
        live.flags = static_cast<uint8_t>(flags);
        ASSERT_EQ(kyt::slot_kind(live), slot::LIVE);
        ASSERT_EQ(kyt::slot_kind(kyt::swapped(live)), slot::BAD);
        ASSERT_TRUE(kyt::is_live(kyt::swapped(kyt::swapped(live))));
        const kyt_record deleted = kyt::deleted_record(live);
        ASSERT_EQ(kyt::slot_kind(deleted), slot::DELETED);
        ASSERT_EQ(deleted.flags, flags);  // the clip may come back
        ASSERT_EQ(kyt_record_seconds(&deleted), 60U);
        for (int bit = 0; bit < 64; ++bit) {
            kyt_record wrong = live;
            reinterpret_cast<uint8_t*>(&wrong)[bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8));
            ASSERT_EQ(kyt::slot_kind(wrong), bit / 8 == 6 ? slot::LIVE : slot::BAD) << bit;
        }
    }
}

TEST(KytRecord, AFreeSlotIsOneWhateverItsTimeIs) {
    PROMISE("the last four bytes of a slot are those of a free one", "it is free, whatever its time is");
    for (const uint32_t ts : {0U, 1U, BASE, UINT32_MAX}) {
        EXPECT_EQ(kyt::slot_kind({ts, {0x5A, 0xC3}, 0xA5, 0x3C}), slot::EMPTY) << ts;
        EXPECT_EQ(kyt::slot_kind(kyt::swapped({ts, {0x5A, 0xC3}, 0xA5, 0x3C})), slot::EMPTY) << ts;
        for (int bit = 0; bit < 32; ++bit) {
            kyt_record wrong = {ts, {0x5A, 0xC3}, 0xA5, 0x3C};
            reinterpret_cast<uint8_t*>(&wrong)[4 + bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8));
            EXPECT_NE(kyt::slot_kind(wrong), slot::EMPTY) << bit;
        }
    }
}

TEST(KytRecord, NoiseSeldomPasses) {
    PROMISE("a slot holds noise", "it passes for a record about twice in 65,536 times, once for each kind");
    std::mt19937 random(7);
    int passed = 0;
    for (int i = 0; i < 655'360; ++i) {
        const uint32_t word = static_cast<uint32_t>(random());
        kyt_record noise;
        noise.ts = static_cast<uint32_t>(random());
        std::memcpy(noise.reserved, &word, 4);
        passed += kyt::slot_kind(noise) != slot::BAD ? 1 : 0;
    }
    EXPECT_LT(passed, 60);
    EXPECT_GT(passed, 2);
}

PROMISES("kyt", "The file");

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
TEST(KytFormat, ARecordsBytesAreThoseOfTheFormat) {
    PROMISE("a record is written", "its bytes are those of the format");
    const kyt_record shown = kyt::live_record(1'790'000'000, 60, 1);
    const uint8_t expected[4] = {60, 0x8D, 1, 0x97};
    EXPECT_EQ(std::memcmp(reinterpret_cast<const uint8_t*>(&shown) + 4, expected, 4), 0);
    for (const uint32_t ts : {1U, 0x0102'0304U, 0x8040'2010U, BASE, UINT32_MAX}) {
        for (unsigned value = 0; value < 256; ++value) {
            const auto seconds = static_cast<uint8_t>(value);
            const uint8_t bytes[5] = {static_cast<uint8_t>(ts), static_cast<uint8_t>(ts >> 8),
                                      static_cast<uint8_t>(ts >> 16), static_cast<uint8_t>(ts >> 24), seconds};
            const kyt_record live = kyt::live_record(ts, seconds, 0xA5);
            const kyt_record deleted = kyt::deleted_record(live);
            ASSERT_EQ(live.ts, ts);
            ASSERT_EQ(live.reserved[0], seconds);
            ASSERT_EQ(live.reserved[1] | (live.reserved2 << 8), crc_16(bytes) ^ 0x4C56) << ts << ' ' << value;
            ASSERT_EQ(deleted.reserved[1] | (deleted.reserved2 << 8), crc_16(bytes) ^ 0xB3A9) << ts << ' ' << value;
        }
    }
}

TEST(KytFormat, EveryBitOfAHeaderCounts) {
    PROMISE("any bit of a header is wrong", "it is damaged");
    recordings card;
    const int fd = open(card.file(LIST).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    libc_calls::reset();
    libc_calls::set_volume(0x1234'5678);
    ASSERT_EQ(kyt::header_write(fd, kyt::file_state::CLOSED, 77, 66), 0);
    EXPECT_EQ(libc_calls::count("fdatasync"), 0);
    close(fd);
    libc_calls::reset();
    const std::string bytes = card.bytes(LIST);
    const kyt::list_header header = header_of(bytes);
    EXPECT_EQ(bytes.substr(0, 8), "KYT LIST");
    EXPECT_EQ(header.state, 3U);
    EXPECT_EQ(header.records, 77U);
    EXPECT_EQ(header.live, 66U);
    EXPECT_EQ(header.card, 0x1234'5678U);
    for (int bit = 0; bit < 64 * 8; ++bit) {
        uint8_t wrong[sizeof(kyt::list_header)];
        std::memcpy(wrong, bytes.data(), sizeof wrong);
        wrong[bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8));
        kyt::list_header untouched = header;
        bool other_order = false;
        EXPECT_EQ(kyt::header_read(wrong, &untouched, &other_order), kyt::header_kind::DAMAGED) << bit;
        EXPECT_EQ(std::memcmp(&untouched, &header, sizeof header), 0);
    }
}

TEST(KytFormat, AFileIsOfWholeStepsWithSpareSlots) {
    PROMISE("a file has so many records", "its size is a multiple of 64 KiB with 512 slots to spare, at most 8 MiB");
    constexpr uint32_t FITS = (kyt::STEP_BYTES - kyt::RECORDS_AT) / 8 - 512;
    constexpr uint32_t PER_STEP = kyt::STEP_BYTES / 8;
    constexpr struct {
        uint32_t records;
        uint32_t steps;
    } ROWS[] = {{0, 1},
                {FITS, 1},
                {FITS + 1, 2},
                {FITS + PER_STEP, 2},
                {FITS + PER_STEP + 1, 3},
                {kyt::MAX_RECORDS - 512, 128},
                {kyt::MAX_RECORDS, 128}};
    for (const auto& row : ROWS) {
        EXPECT_EQ(kyt::file_bytes(row.records), row.steps * 65'536) << row.records;
    }
    EXPECT_EQ(kyt::MAX_RECORDS, 1'048'064U);
}

TEST(KytFormat, OfALogLineWhatDoesNotFitInIsLeftOut) {
    PROMISE("a line of the log gets too long", "whole phrases are left out of it, no half ones");
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

}  // namespace
