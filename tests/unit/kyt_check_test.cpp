// What a look at a recordings folder reports, and what it leaves alone.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>

#include "folder.h"
#include "format.h"
#include "handle.h"
#include "kyt_rdonly.h"
#include "load.h"
#include "record.h"
#include "support/card_calls.h"
#include "support/log.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t HOUR = 1'790'002'800;
constexpr uint32_t CLIPS = 5;
constexpr const char* LIST = "KYT_A.LST";

uint32_t ts_of(uint32_t clip) {
    return HOUR + 60 * clip;
}

// All that is not zero, with its name.
std::string described(const kyt_health& h) {
    std::string text = h.list;
    const auto add = [&](const char* name, uint32_t value) {
        if (value != 0) {
            text += std::string(" ") + name + (value == 1 ? "" : " " + std::to_string(value));
        }
    };
    add("header_damaged", h.header_damaged);
    add("other_version", h.other_version);
    add("open", h.open);
    add("other_byte_order", h.other_byte_order);
    add("wrong_size", h.wrong_size);
    add("out_of_order", h.out_of_order);
    add("card", h.card);
    add("volume", h.volume);
    add("records", h.records);
    add("deleted", h.deleted);
    add("destroyed", h.destroyed);
    add("unreadable", h.unreadable);
    add("twice", h.twice);
    add("clips", h.clips);
    add("clips_not_listed", h.clips_not_listed);
    add("records_without_clip", h.records_without_clip);
    add("undeleted", h.undeleted);
    return text;
}

struct KytCheck : testing::Test {
    void SetUp() override {
        logged::reset();
        card_calls::reset();
        kyt_handle* const list = kyt::open_folder(card.path().c_str());
        ASSERT_NE(list, nullptr);
        for (uint32_t clip = 0; clip < CLIPS; ++clip) {
            card.add_clip(ts_of(clip));
            const kyt_record record = kyt::live_record(ts_of(clip), 60, 0);
            ASSERT_EQ(kyt_write(list, &record), 0);
        }
        kyt_close(list);
        bytes = card.bytes(LIST);
        logged::reset();
    }
    void TearDown() override { card_calls::reset(); }

    std::string looked() const {
        kyt_health health = {};
        const int result = kyt_check(card.path().c_str(), &health);
        return result == 0 ? described(health) : std::string("failed: ") + std::strerror(errno);
    }
    std::string looked_at(const std::string& list) const {
        card.set_bytes(LIST, list);
        return looked();
    }
    std::string with_slot(uint32_t slot, const kyt_record& record) const {
        std::string changed = bytes;
        std::memcpy(changed.data() + kyt::RECORDS_AT + slot * sizeof record, &record, sizeof record);
        return changed;
    }

    recordings card;
    std::string bytes;
};

// The header, changed and sealed anew.
std::string with_header(std::string list, const std::function<void(kyt::list_header*)>& change) {
    kyt::list_header header;
    std::memcpy(&header, list.data(), sizeof header);
    change(&header);
    std::memcpy(list.data(), &header, sizeof header);
    uint32_t crc = ~0U;
    for (size_t i = 0; i < offsetof(kyt::list_header, check); ++i) {
        crc ^= static_cast<uint8_t>(list[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1)));
        }
    }
    const uint32_t mark = __builtin_bswap32(0x01020304);
    header.check = std::memcmp(list.data() + offsetof(kyt::list_header, byte_order), &mark, 4) == 0
                       ? __builtin_bswap32(~crc)
                       : ~crc;
    std::memcpy(list.data(), &header, sizeof header);
    return list;
}

TEST_F(KytCheck, AWholeListHasNothingToReport) {
    EXPECT_EQ(looked(), "KYT_A.LST records 5 clips 5");
}

TEST_F(KytCheck, AListInUseIsOpenAndNotOfAWrongSize) {
    kyt_handle* const list = kyt::open_folder(card.path().c_str());
    card.add_clip(ts_of(CLIPS));
    const kyt_record late = kyt::live_record(ts_of(CLIPS), 60, 0);
    EXPECT_EQ(kyt_write(list, &late), 0);
    EXPECT_EQ(looked(), "KYT_A.LST open records 6 clips 6");
    kyt_close(list);
    EXPECT_EQ(looked(), "KYT_A.LST records 6 clips 6");
}

TEST_F(KytCheck, TheOtherFileIsFoundByItsName) {
    std::filesystem::rename(card.file(LIST), card.file("KYT_B.LST"));
    EXPECT_EQ(looked(), "KYT_B.LST records 5 clips 5");
}

TEST_F(KytCheck, ASizeThatTheLibraryDoesNotLeaveBehind) {
    EXPECT_EQ(looked_at(bytes + "x"), "KYT_A.LST wrong_size records 5 clips 5");
    // And more or fewer slots than the header of a closed list says.
    EXPECT_EQ(looked_at(with_slot(CLIPS, kyt::live_record(ts_of(CLIPS), 60, 0))),
              "KYT_A.LST wrong_size records 6 clips 5 records_without_clip");
    EXPECT_EQ(looked_at(with_slot(CLIPS - 1, {})), "KYT_A.LST wrong_size records 4 clips 5 clips_not_listed");
}

TEST_F(KytCheck, RecordsOutOfOrderAreComparedAllTheSame) {
    std::string swapped = with_slot(0, kyt::live_record(ts_of(1), 60, 0));
    const kyt_record first = kyt::live_record(ts_of(0), 60, 0);
    std::memcpy(swapped.data() + kyt::RECORDS_AT + sizeof first, &first, sizeof first);
    EXPECT_EQ(looked_at(swapped), "KYT_A.LST out_of_order records 5 clips 5");
}

TEST_F(KytCheck, TheCardOfTheListAndTheCardOnWhichItLies) {
    EXPECT_EQ(looked_at(with_header(bytes, [](kyt::list_header* header) { header->card = 1234; })),
              "KYT_A.LST card 1234 records 5 clips 5");
    card_calls::set_volume(77);
    EXPECT_EQ(looked_at(bytes), "KYT_A.LST volume 77 records 5 clips 5");
}

TEST_F(KytCheck, ADeletedClip) {
    const kyt_record deleted = kyt::deleted_record(kyt::live_record(ts_of(2), 60, 0), 1);
    EXPECT_EQ(looked_at(with_slot(2, deleted)), "KYT_A.LST records 4 deleted clips 5 undeleted");
    card.remove_clip(ts_of(2));
    EXPECT_EQ(looked(), "KYT_A.LST records 4 deleted clips 4");
}

TEST_F(KytCheck, ADestroyedRecord) {
    kyt_record broken = kyt::live_record(ts_of(2), 60, 0);
    broken.ts += 1;
    EXPECT_EQ(looked_at(with_slot(2, broken)), "KYT_A.LST records 4 destroyed clips 5 clips_not_listed");
    // A free slot in front of used ones has lost its record as well.
    EXPECT_EQ(looked_at(with_slot(2, {})), "KYT_A.LST records 4 destroyed clips 5 clips_not_listed");
}

TEST_F(KytCheck, APageThatTheCardDoesNotGive) {
    card_calls::fail("pread", 2, EIO);
    EXPECT_EQ(looked(), "KYT_A.LST wrong_size unreadable clips 5 clips_not_listed 5");
    EXPECT_TRUE(card_calls::failed());
    // The list's first page has the header.
    card_calls::fail("pread", 1, EIO);
    EXPECT_EQ(looked(), " header_damaged clips 5 clips_not_listed 5");
}

TEST_F(KytCheck, APageHasFiveHundredAndTwelveRecords) {
    std::string longer = with_header(bytes, [](kyt::list_header* header) { header->records = 1100; });
    for (uint32_t slot = CLIPS; slot < 1100; ++slot) {
        const kyt_record record = kyt::live_record(ts_of(slot), 60, 0);
        std::memcpy(longer.data() + kyt::RECORDS_AT + slot * sizeof record, &record, sizeof record);
    }
    card.set_bytes(LIST, longer);
    card_calls::fail("pread", 3, EIO);
    EXPECT_EQ(looked(), "KYT_A.LST records 588 destroyed 512 unreadable clips 5 records_without_clip 583");
}

TEST_F(KytCheck, WithoutAHeaderTheFirstWholeRecordTellsTheByteOrder) {
    const int folder = open(card.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const auto loaded_other = [&](std::string list) {
        std::fill(list.begin(), list.begin() + sizeof(kyt::list_header), '\0');
        card.set_bytes(LIST, list);
        kyt::loaded l;
        kyt::load_file(folder, LIST, &l);
        return std::to_string(l.records.size) + (l.other_order ? " of the other order" : "");
    };
    std::string other = bytes;
    for (size_t slot = 0; slot < CLIPS; ++slot) {
        const auto at = other.begin() + static_cast<long>(kyt::RECORDS_AT + slot * sizeof(kyt_record));
        std::reverse(at, at + 4);
    }
    EXPECT_EQ(loaded_other(bytes), "5");
    EXPECT_EQ(loaded_other(other), "5 of the other order");
    EXPECT_EQ(loaded_other(std::string(bytes.size(), '\0')), "0");
    // The second page's, when the first one has none.
    EXPECT_EQ(
        loaded_other(other.substr(0, kyt::RECORDS_AT) + std::string(4096, '\0') + other.substr(kyt::RECORDS_AT, 4096)),
        "5 of the other order");
    close(folder);
}

TEST_F(KytCheck, OfTwoRecordsOfAClipOneCountsAndItIsTheLiveOne) {
    const kyt_record live = kyt::live_record(ts_of(1), 60, 0);
    const kyt_record deleted = kyt::deleted_record(live, 1);
    EXPECT_EQ(looked_at(with_slot(2, live)), "KYT_A.LST out_of_order records 4 twice clips 5 clips_not_listed");
    EXPECT_EQ(looked_at(with_slot(2, deleted)),
              "KYT_A.LST out_of_order records 4 deleted twice clips 5 clips_not_listed");
    std::string other_way = with_slot(1, deleted);
    std::memcpy(other_way.data() + kyt::RECORDS_AT + 2 * sizeof live, &live, sizeof live);
    EXPECT_EQ(looked_at(other_way), "KYT_A.LST out_of_order records 4 deleted twice clips 5 clips_not_listed");
}

TEST_F(KytCheck, ALookFromOutsideHasEachLiveClipOnceAndInOrder) {
    std::string changed = with_slot(2, kyt::live_record(ts_of(1), 60, 0));
    const kyt_record late = kyt::live_record(ts_of(0) - 60, 60, 0);
    const kyt_record gone = kyt::deleted_record(kyt::live_record(ts_of(3), 60, 0), 1);
    std::memcpy(changed.data() + kyt::RECORDS_AT + 3 * sizeof gone, &gone, sizeof gone);
    std::memcpy(changed.data() + kyt::RECORDS_AT + 4 * sizeof late, &late, sizeof late);
    card.set_bytes(LIST, changed);
    kyt_handle* const look = kyt_open_rdonly(card.path().c_str());
    ASSERT_NE(look, nullptr);
    EXPECT_EQ(all_ts(look), (std::vector<uint32_t>{ts_of(0) - 60, ts_of(0), ts_of(1)}));
    EXPECT_EQ(kyt_count(look), 3U);
    kyt_close(look);
}

TEST_F(KytCheck, ClipsWithoutARecordWhereverTheyLie) {
    card.add_clip(ts_of(0) - 7200);
    EXPECT_EQ(looked(), "KYT_A.LST records 5 clips 6 clips_not_listed");
    card.add_clip(ts_of(2) + 1);
    EXPECT_EQ(looked(), "KYT_A.LST records 5 clips 7 clips_not_listed 2");
    card.add_clip(ts_of(CLIPS));
    card.add_clip(ts_of(CLIPS) + 7200);
    EXPECT_EQ(looked(), "KYT_A.LST records 5 clips 9 clips_not_listed 4");
}

TEST_F(KytCheck, RecordsWithoutAClipWhereverTheyLie) {
    uint32_t gone = 0;
    for (const uint32_t clip : {0U, 2U, 4U, 1U, 3U}) {
        card.remove_clip(ts_of(clip));
        ++gone;
        EXPECT_EQ(looked(), "KYT_A.LST records 5" +
                                (gone == 5   ? std::string()
                                 : gone == 4 ? std::string(" clips")
                                             : " clips " + std::to_string(CLIPS - gone)) +
                                " records_without_clip" + (gone == 1 ? "" : " " + std::to_string(gone)));
    }
}

TEST_F(KytCheck, AListOfTheOtherByteOrder) {
    std::string other = with_header(bytes, [](kyt::list_header* header) {
        for (uint32_t* field :
             {&header->byte_order, &header->version, &header->generation, &header->state, &header->records}) {
            *field = __builtin_bswap32(*field);
        }
    });
    for (size_t slot = 0; slot < CLIPS; ++slot) {
        const auto at = other.begin() + static_cast<long>(kyt::RECORDS_AT + slot * sizeof(kyt_record));
        std::reverse(at, at + 4);
    }
    EXPECT_EQ(looked_at(other), "KYT_A.LST other_byte_order records 5 clips 5");
}

TEST_F(KytCheck, WhatIsNoListIsSaidToBeDamagedOrOfAnotherVersion) {
    const std::string newer = with_header(bytes, [](kyt::list_header* header) { header->version = 2; });
    const std::string writing = with_header(bytes, [](kyt::list_header* header) { header->state = 1; });
    const std::string zeros(bytes.size(), '\0');
    const std::string rest = " clips 5 clips_not_listed 5";
    EXPECT_EQ(looked_at(newer), " other_version" + rest);
    EXPECT_EQ(looked_at(zeros), " header_damaged" + rest);
    EXPECT_EQ(looked_at(writing), " header_damaged" + rest);
    card.set_bytes("KYT_B.LST", newer);
    EXPECT_EQ(looked(), " header_damaged other_version" + rest);
    EXPECT_EQ(looked_at(newer), " other_version" + rest);
    card.set_bytes("KYT_B.LST", zeros);
    EXPECT_EQ(looked(), " header_damaged other_version" + rest);
    // Beside a list it means nothing.
    EXPECT_EQ(looked_at(bytes), "KYT_A.LST records 5 clips 5");
    std::filesystem::remove(card.file(LIST));
    EXPECT_EQ(looked(), " header_damaged" + rest);
    std::filesystem::remove(card.file("KYT_B.LST"));
    EXPECT_EQ(looked(), rest);
}

TEST_F(KytCheck, ALookThatFailsSaysWhyAndLeavesTheOutputAlone) {
    kyt_health health = {};
    health.records = 4711;
    EXPECT_EQ(kyt_check("/no/such/folder", &health), -1);
    EXPECT_EQ(errno, ENOENT);
    // The list's two files, the folder, its one period.
    constexpr struct {
        int call;
        int errnum;
    } ROWS[] = {{1, ENOMEM}, {2, ENOMEM}, {3, EIO}, {4, EIO}, {4, EACCES}};
    for (const auto& row : ROWS) {
        card_calls::fail("open", row.call, row.errnum);
        EXPECT_EQ(kyt_check(card.path().c_str(), &health), -1) << row.call;
        EXPECT_EQ(errno, row.errnum) << row.call;
        EXPECT_TRUE(card_calls::failed());
    }
    EXPECT_EQ(health.records, 4711U);
    // A period that goes while it is looked at has no clips.
    card_calls::fail("open", 4, ENOENT);
    EXPECT_EQ(looked(), "KYT_A.LST records 5 records_without_clip 5");
}

TEST_F(KytCheck, ALookChangesNothingAndKeepsNoDescriptor) {
    const std::set<std::string> files = card.files();
    const int before = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(before);
    EXPECT_EQ(looked(), "KYT_A.LST records 5 clips 5");
    card_calls::fail("open", 3, EIO);
    EXPECT_EQ(looked(), "failed: Input/output error");
    const int after = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(after);
    EXPECT_EQ(after, before);
    EXPECT_EQ(card.files(), files);
    EXPECT_EQ(card.bytes(LIST), bytes);
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(KytCheck, ARepairLeavesAWholeList) {
    card.set_bytes(LIST, std::string(bytes.size(), '\0'));
    EXPECT_EQ(kyt_repair(card.path().c_str()), 0);
    EXPECT_EQ(looked().substr(9), " records 5 clips 5");
    EXPECT_EQ(kyt_repair("/no/such/folder"), -1);
    EXPECT_EQ(errno, ENOENT);
}

// --- the clips' names --------------------------------------------------------------------------------------------

TEST_F(KytCheck, OnlyFilesWithAClipsNameInTheirOwnHourAreClips) {
    const std::string hour = std::filesystem::path(card.clip(HOUR)).parent_path();
    std::filesystem::create_directory(card.clip(ts_of(10)) + ".mp4");
    std::filesystem::rename(card.clip(ts_of(0)) + ".jpeg", hour + "/" + "20260921_150100.mpg");
    std::ofstream(card.clip(ts_of(11)) + ".jpeg").flush();
    std::ofstream(card.clip(ts_of(12)) + ".mp4.tmp").flush();
    std::ofstream(hour + "/.mp4").flush();
    std::filesystem::rename(
        card.clip(ts_of(4)) + ".mp4",
        hour + "/" + std::filesystem::path(card.clip(ts_of(4) + 3600)).filename().string() + ".mp4");
    std::ofstream(card.file("2026092116")).flush();  // a file with a period's name
    std::filesystem::create_directory(card.file("lost+found"));
    EXPECT_EQ(looked(), "KYT_A.LST records 5 clips 4 records_without_clip");
}

TEST_F(KytCheck, ThereIsNoRoomForMorePeriodsThanTheLimit) {
    const int folder = open(card.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    card.add_clip(ts_of(0) + 3600);  // two periods: what follows the one too many does not undo the failure
    kyt::array<uint32_t> periods;
    ASSERT_TRUE(periods.reserve(kyt::MAX_PERIODS + 1));
    periods.size = kyt::MAX_PERIODS;
    EXPECT_EQ(kyt::folder_periods(folder, &periods), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(periods.size, kyt::MAX_PERIODS);
    periods.size = kyt::MAX_PERIODS - 1;
    EXPECT_EQ(kyt::folder_periods(folder, &periods), -1);
    EXPECT_EQ(periods.size, kyt::MAX_PERIODS);
    periods.size = kyt::MAX_PERIODS - 2;
    EXPECT_EQ(kyt::folder_periods(folder, &periods), 0);
    EXPECT_EQ(periods.size, kyt::MAX_PERIODS);
    close(folder);
}

// A program whose standard input is closed gets descriptor 0.
TEST_F(KytCheck, DescriptorZeroIsADescriptor) {
    const int folder = open(card.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    close(STDIN_FILENO);
    EXPECT_EQ(looked(), "KYT_A.LST records 5 clips 5");
    kyt::array<uint32_t> periods;
    EXPECT_EQ(kyt::folder_periods(folder, &periods), 0);
    EXPECT_EQ(periods.size, 1U);
    kyt::loaded files[2];
    EXPECT_TRUE(kyt::load_files(folder, &files));
    EXPECT_EQ(kyt::choose_list(files), 0);
    kyt_handle* const look = kyt_open_rdonly(card.path().c_str());
    EXPECT_EQ(kyt_count(look), CLIPS);
    kyt_close(look);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "it is left open";
    if (input >= 0) {
        dup2(input, STDIN_FILENO);
        close(input);
    }
    close(folder);
}

}  // namespace
