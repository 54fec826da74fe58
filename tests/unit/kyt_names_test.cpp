// Times and names: periods, clips, paths.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

#include "kyt_rdonly.h"
#include "names.h"
#include "support/promise.h"

namespace {

PROMISES("kyt", "Names and announcements");

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
    PROMISE("a time is made a path and a path a time",
            "they are exact inverses over the whole calendar, by UTC and nothing else");
    for (uint64_t ts = 1; ts <= UINT32_MAX; ts += 3600 * 37 + 11) {
        check_round(static_cast<uint32_t>(ts));
    }
    for (const uint32_t ts : {3600U, 951'782'399U, 951'782'400U, 951'868'800U, 4'107'542'399U, 4'107'542'400U,
                              2'147'483'647U, 2'147'483'648U, 4'294'967'295U}) {
        check_round(ts);
    }
}

TEST(KytNames, KnownPaths) {
    PROMISE("a clip's path is asked for",
            "its folder is the hour, YYYYMMDDHH, and its name YYYYMMDD_HHMMSS, from 1970 to 2106");
    EXPECT_EQ(path_of(1'795'224'125), "/mnt/sdcard/ZOLTA_RECORD_VIDEO/2026112101/20261121_012205");
    EXPECT_EQ(path_of(UINT32_MAX), "/mnt/sdcard/ZOLTA_RECORD_VIDEO/2106020706/21060207_062815");
    EXPECT_EQ(path_of(1), "/mnt/sdcard/ZOLTA_RECORD_VIDEO/1970010100/19700101_000001");
}

TEST(KytNames, PathThatCannotBeWritten) {
    PROMISE("the buffer is too small, the time is 0 or the flag is not",
            "-1 with errno, the buffer untouched; a buffer that just fits is enough");
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
    PROMISE("a directory's name is not exactly a period's, dates that do not exist and the first hour of 1970 included",
            "0");
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
    PROMISE("a file's name is not exactly a clip's", "it is none");
    EXPECT_EQ(kyt::clip_from_name("20261121_012205"), 1'795'224'125U);
    for (const char* name : {"", "20261121-032205", "20261121_032260", "20261121_036005", "20261121_242205",
                             "20261131_032205", "20261121_03220", "20261121_0122055", "19700101_000000"}) {
        EXPECT_EQ(kyt::clip_from_name(name), 0U) << name;
    }
}

}  // namespace
