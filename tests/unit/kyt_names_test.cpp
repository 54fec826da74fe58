// Times and names, and the text of an announcement.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "kyt_rdonly.h"
#include "names.h"
#include "record.h"

namespace {

std::string path_of(uint32_t ts) {
    char buffer[128] = "untouched";
    const int length = kyt_ts2path(ts, buffer, sizeof buffer, 0);
    EXPECT_EQ(length, static_cast<int>(std::strlen(buffer)));
    return buffer;
}

// What the C library says, whose time is 64 bits wide on the workbench only.
std::string expected_path(uint32_t ts) {
    const std::time_t t = static_cast<std::time_t>(ts);
    std::tm parts = {};
    gmtime_r(&t, &parts);
    char text[128];
    strftime(text, sizeof text, "/mnt/sdcard/ZOLTA_RECORD_VIDEO/%Y%m%d%H/%Y%m%d_%H%M%S", &parts);
    return text;
}

void check_round(uint32_t ts) {
    const std::string path = path_of(ts);
    if (sizeof(std::time_t) > 4 || ts <= INT32_MAX) {
        ASSERT_EQ(path, expected_path(ts));
    }
    ASSERT_EQ(kyt::clip_from_name(path.substr(42)), ts);
    ASSERT_EQ(kyt_path2ts(path.substr(31, 10).c_str(), 0), ts - ts % 3600) << path;
}

TEST(KytNames, InverseOverTheWholeCalendar) {
    for (uint64_t ts = 1; ts <= UINT32_MAX; ts += 3600 * 37 + 11) {
        check_round(static_cast<uint32_t>(ts));
    }
    for (const uint32_t ts : {3600U, 951'782'399U, 951'782'400U, 951'868'800U, 4'107'542'399U, 4'107'542'400U,
                              2'147'483'647U, 2'147'483'648U, 4'294'967'295U}) {
        check_round(ts);
    }
}

TEST(KytNames, KnownPaths) {
    EXPECT_EQ(path_of(1'795'224'125), "/mnt/sdcard/ZOLTA_RECORD_VIDEO/2026112101/20261121_012205");
    EXPECT_EQ(path_of(UINT32_MAX), "/mnt/sdcard/ZOLTA_RECORD_VIDEO/2106020706/21060207_062815");
    EXPECT_EQ(path_of(1), "/mnt/sdcard/ZOLTA_RECORD_VIDEO/1970010100/19700101_000001");
}

TEST(KytNames, PathThatCannotBeWritten) {
    char buffer[128] = "untouched";
    const int length = static_cast<int>(path_of(1'795'224'125).size());
    EXPECT_EQ(kyt_ts2path(1'795'224'125, buffer, static_cast<size_t>(length), 0), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(kyt_ts2path(0, buffer, sizeof buffer, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kyt_ts2path(1'795'224'125, buffer, sizeof buffer, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_STREQ(buffer, "untouched");
    EXPECT_EQ(kyt_ts2path(1'795'224'125, buffer, static_cast<size_t>(length) + 1, 0), length);
}

TEST(KytNames, BadPeriodNames) {
    EXPECT_EQ(kyt_path2ts("2026112101", 0), 1'795'222'800U);
    EXPECT_EQ(kyt_path2ts("2026112101", 1), 0U);
    EXPECT_EQ(kyt_path2ts(nullptr, 0), 0U);
    for (const char* name : {"",           ".",           "..",          "1970010100",  "1969123123", "2026112124",
                             "2026113100", "2026130100",  "2026000100",  "2026110000",  "2026022900", "2100022900",
                             "2107010100", "2106020707",  "202611210",   "20261121033", "2026112 03", "-026112103",
                             "+026112103", "2026112103 ", " 2026112103", "2026112103/", "0x26112103", "٢٠٢٦١",
                             "20261121O3"}) {
        EXPECT_EQ(kyt_path2ts(name, 0), 0U) << name;
    }
    EXPECT_EQ(kyt_path2ts("2024022923", 0), 1'709'247'600U);
    EXPECT_EQ(kyt_path2ts("2000022900", 0), 951'782'400U);
    uint32_t first_hour = 1;
    EXPECT_TRUE(kyt::period_from_name("1970010100", &first_hour));
    EXPECT_EQ(first_hour, 0U);
}

TEST(KytNames, BadClipNames) {
    EXPECT_EQ(kyt::clip_from_name("20261121_012205"), 1'795'224'125U);
    for (const char* name : {"", "20261121-032205", "20261121_032260", "20261121_036005", "20261121_242205",
                             "20261131_032205", "20261121_03220", "20261121_0122055", "19700101_000000"}) {
        EXPECT_EQ(kyt::clip_from_name(name), 0U) << name;
    }
}

struct parse_row {
    const char* text;
    uint32_t ts;  // 0: refused
    uint32_t seconds;
    uint32_t flags;
};

TEST(KytRecord, Announcements) {
    for (const parse_row& row : {
             parse_row{"1795224125", 1'795'224'125, 0, 0},
             {"1795224125,60", 1'795'224'125, 60, 0},
             {"1795224125,60,1", 1'795'224'125, 60, 1},
             {"4294967295,255,255", UINT32_MAX, 255, 255},
             {"1", 1, 0, 0},
             {"0001,007,00", 1, 7, 0},
             {"", 0, 0, 0},
             {"0", 0, 0, 0},
             {"0,60", 0, 0, 0},
             {"4294967296", 0, 0, 0},
             {"1795224125,256", 0, 0, 0},
             {"1795224125,60,256", 0, 0, 0},
             {"1795224125,", 0, 0, 0},
             {"1795224125,60,", 0, 0, 0},
             {"1795224125,60,1,", 0, 0, 0},
             {"1795224125,60,1,2", 0, 0, 0},
             {"1795224125,,1", 0, 0, 0},
             {",60,1", 0, 0, 0},
             {" 1795224125", 0, 0, 0},
             {"1795224125 ", 0, 0, 0},
             {"1795224125\n", 0, 0, 0},
             {"1795224125, 60", 0, 0, 0},
             {"+1795224125", 0, 0, 0},
             {"-1", 0, 0, 0},
             {"1795224125,-1", 0, 0, 0},
             {"0x10", 0, 0, 0},
             {"1e9", 0, 0, 0},
             {"99999999999999999999", 0, 0, 0},
             {"{\"ts\":1}", 0, 0, 0},
         }) {
        kyt_record record;
        std::memset(&record, 0xAA, sizeof record);
        const kyt_record before = record;
        // Exactly the text, so that a look behind it is seen.
        const std::string_view text = row.text;
        const std::vector<char> exact(text.begin(), text.end());
        errno = 0;
        const int result = kyt_record_parse(&record, exact.data(), exact.size());
        if (row.ts == 0) {
            EXPECT_EQ(result, -1) << row.text;
            EXPECT_EQ(errno, EINVAL);
            EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0) << row.text;
        } else {
            EXPECT_EQ(result, 0) << row.text;
            EXPECT_EQ(record.ts, row.ts);
            EXPECT_EQ(kyt_record_seconds(&record), row.seconds);
            EXPECT_EQ(record.flags, row.flags);
            EXPECT_EQ(kyt::slot_kind(record), kyt::slot::LIVE);
        }
    }
    kyt_record record;
    EXPECT_EQ(kyt_record_parse(&record, "12\0003", 4), -1);
}

TEST(KytRecord, TellsWhatItIs) {
    using kyt::slot;
    EXPECT_EQ(kyt::slot_kind({0, {0, 0}, 0, 0}), slot::UNUSED);
    EXPECT_EQ(kyt::slot_kind({0, {0, 0}, 1, 0}), slot::BAD);
    EXPECT_EQ(kyt::slot_kind({UINT32_MAX, {255, 255}, 255, 255}), slot::BAD);
    EXPECT_EQ(kyt::slot_kind({1, {0, 0}, 0, 0}), slot::BAD);
    kyt_record live = kyt::live_record(1'795'224'125, 60, 1);
    EXPECT_EQ(kyt::slot_kind(live), slot::LIVE);
    live.flags = 0x5A;  // changed in place
    EXPECT_EQ(kyt::slot_kind(live), slot::LIVE);
    EXPECT_EQ(kyt::slot_kind(kyt::swapped(live)), slot::BAD);
    const kyt_record deleted = kyt::deleted_record(live);
    EXPECT_EQ(kyt::slot_kind(deleted), slot::DELETED);
    // Every single wrong bit outside the flags is seen.
    for (int bit = 0; bit < 64; ++bit) {
        if (bit / 8 == 6) {
            continue;
        }
        kyt_record wrong = live;
        reinterpret_cast<uint8_t*>(&wrong)[bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8));
        EXPECT_EQ(kyt::slot_kind(wrong), slot::BAD) << bit;
    }
    // Noise passes about twice in 65,536 times, once for each kind.
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

}  // namespace
