// What the list's file may be like when it is opened; docs/clip-index.md has a row for each of these.
#include <random>
#include <sys/stat.h>

#include "support/kyt_file_rig.h"

namespace {

using namespace kyt_rig;
using testing::PrintToString;

PROMISES("kyt", "Opening");

struct KytOpen : file_rig {};

TEST_F(KytOpen, ACleanEndNeedsNoRepairAndNoWord) {
    PROMISE("a list was cleanly closed", "the next opening repairs nothing, reads no folder and says nothing");
    EXPECT_TRUE(is_closed(whole));
    EXPECT_EQ(header_of(whole).records, CLIPS);
    EXPECT_EQ(header_of(whole).live, CLIPS);
    libc_calls::reset();
    open();
    EXPECT_EQ(libc_calls::count("fdopendir"), 0);
    EXPECT_FALSE(is_closed(card.bytes(LIST)));
    close();
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    EXPECT_TRUE(logged::lines().empty());
    EXPECT_EQ(card.files(), std::set<std::string>{LIST});
    EXPECT_TRUE(card.bytes(LIST) == whole);
}

TEST_F(KytOpen, AnOpenListIsComparedWithTheFolder) {
    PROMISE("the list was not closed", "it is compared with the folder, and clips without a record come in");
    left_open();
    card.add_clip(ts_of(CLIPS));  // its announcement fell to the power cut
    EXPECT_EQ(marks_after_opening(CLIPS + 1), ALL_MARKS);
    EXPECT_TRUE(logged::has("info kyt: the list was not closed: 701 records now, of them 1 from the folder"));
    EXPECT_EQ(libc_calls::count("fstatat"), 0);
}

TEST_F(KytOpen, ThereIsNoList) {
    PROMISE("there is no list", "one is made from the clips' names, without a look at any file");
    std::filesystem::remove(card.file(LIST));
    EXPECT_EQ(marks_after_opening(), 0U);
    EXPECT_TRUE(logged::has("info kyt: a new list, with 700 clips that are on the card"));
    EXPECT_EQ(libc_calls::count("fstatat"), 0);
}

TEST_F(KytOpen, AllZerosOrNoise) {
    PROMISE("the file is all zeros or all noise",
            "it is set aside unchanged, the clips come from the folder, and the log says that marks may be lost");
    PROMISE("very many files are set aside", "four are kept at most");
    std::mt19937 random(1);
    for (int round = 0; round < 8; ++round) {
        logged::reset();
        std::string bytes(whole.size(), '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return round == 0 ? '\0' : static_cast<char>(random()); });
        card.set_bytes(LIST, bytes);
        EXPECT_EQ(marks_after_opening(), 0U);
        const std::string aside = "KYT_BAD" + std::to_string(std::min(round, 3)) + ".LST";
        EXPECT_TRUE(card.bytes(aside) == bytes);
        EXPECT_TRUE(logged::has("warning kyt: KYT.LST was no list: KYT.LST is set aside as " + aside +
                                ", 700 records now, of them 700 from the folder, marks may be lost"))
            << PrintToString(logged::lines());
    }
    EXPECT_EQ(card.files().size(), 5U);
}

TEST_F(KytOpen, EachSectorOfZerosOrNoiseCostsItsOwnRecordsOnly) {
    PROMISE("one sector is zeros or noise", "only its own records lose their marks, and the file is repaired in place");
    std::mt19937 random(2);
    for (size_t sector = 4096 / 512; sector < (4096 + CLIPS * 8 + 511) / 512; ++sector) {
        for (const bool noise : {false, true}) {
            std::string bytes = whole;
            for (size_t i = 0; i < 512; ++i) {
                bytes[sector * 512 + i] = noise ? static_cast<char>(random()) : '\0';
            }
            put(bytes);
            EXPECT_GE(marks_after_opening(), ALL_MARKS - 22) << sector;
            EXPECT_TRUE(logged::has_part("marks may be lost")) << sector;
            EXPECT_EQ(card.files(), std::set<std::string>{LIST});
        }
    }
}

TEST_F(KytOpen, AHeaderOfZerosOrNoiseLosesNoMarks) {
    PROMISE("only the header is destroyed", "no mark is lost, and the file is repaired in place");
    for (const char fill : {'\0', 'x'}) {
        put(std::string(512, fill) + whole.substr(512));
        EXPECT_EQ(marks_after_opening(), ALL_MARKS);
        EXPECT_TRUE(logged::has_part("KYT.LST was no list: 700 records now, of them 0 from the folder"))
            << PrintToString(logged::lines());
        EXPECT_EQ(card.files(), std::set<std::string>{LIST});
    }
}

TEST_F(KytOpen, CutShortAtEveryInterestingLength) {
    PROMISE("the file is cut short, wherever", "what is left of it counts, the rest comes from the folder");
    for (const size_t length :
         {0U, 1U, 63U, 64U, 511U, 512U, 4095U, 4096U, 4097U, 4103U, 4104U, 4105U, 4096U + 8 * 350 + 3, 8191U, 8192U,
          4096U + 8 * CLIPS - 1, 4096U + 8 * CLIPS, 32'768U, 65'535U}) {
        put(whole.substr(0, length));
        const auto kept = static_cast<uint32_t>(length < 4096 ? 0 : std::min<size_t>(CLIPS, (length - 4096) / 8));
        EXPECT_EQ(marks_after_opening(), (kept + 2) / 3) << length;
        EXPECT_TRUE(logged::has_part("marks may be lost")) << length;
        EXPECT_EQ(card.bytes(LIST).size(), whole.size());
    }
}

TEST_F(KytOpen, TooLongIsSeenToo) {
    PROMISE("the file is longer than the library leaves it", "that is seen, and nothing is lost");
    for (const std::string& behind : {std::string(777, 'x'), std::string(65'536, '\xE5'), std::string(1, '\0')}) {
        put(whole + behind);
        EXPECT_EQ(marks_after_opening(), ALL_MARKS);
        EXPECT_TRUE(logged::has_part("marks may be lost"));
        EXPECT_EQ(card.bytes(LIST).size(), whole.size());
    }
    // Longer than any list, and full of nothing.
    put(whole);
    std::filesystem::resize_file(card.file(LIST), uint64_t{5} << 30);
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    EXPECT_EQ(std::filesystem::file_size(card.file(LIST)), whole.size());
}

TEST_F(KytOpen, AnOpenListThatLostRecordsSaysSo) {
    PROMISE("an open list has fewer records than when it was opened",
            "it counts as cut short, and the log says that marks may be lost");
    const std::string opened = left_open();
    for (const uint32_t left : {CLIPS - 1, CLIPS / 2, 0U}) {
        std::string bytes = opened;
        std::fill(bytes.begin() + 4096 + left * 8L, bytes.end(), '\0');
        put(bytes);
        EXPECT_EQ(marks_after_opening(), (left + 2) / 3);
        EXPECT_TRUE(logged::has_part("the list was cut short or made longer")) << left;
        EXPECT_TRUE(logged::has_part("marks may be lost")) << left;
    }
}

TEST_F(KytOpen, SectorsOfAnOpenListMayHaveArrivedInAnyOrder) {
    PROMISE("the power went when later sectors of an open list were on the card and earlier ones were not",
            "that is no damage: the clips in between come from the folder, and nothing is said of marks");
    std::string bytes = with_header(left_open(), [](kyt::list_header* h) { h->records = 128; });
    std::fill_n(bytes.begin() + 4096 + 1024, 512, '\0');
    std::fill_n(bytes.begin() + 4096 + 2560, 512, '\0');
    put(bytes);
    EXPECT_GE(marks_after_opening(), ALL_MARKS - 44);
    EXPECT_TRUE(logged::has("info kyt: the list was not closed: 700 records now, of them 128 from the folder"))
        << PrintToString(logged::lines());
    // In front of what was there when it was opened, they are damage.
    put(with_header(bytes, [](kyt::list_header* h) { h->records = CLIPS; }));
    EXPECT_GE(marks_after_opening(), ALL_MARKS - 44);
    EXPECT_TRUE(logged::has_part("128 of its records were destroyed"));
    EXPECT_TRUE(logged::has_part("marks may be lost"));
    // Neither is a size that a growth was cut at.
    std::string grown = left_open();
    grown.resize(grown.size() + 1536);
    put(grown);
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    EXPECT_FALSE(logged::has_part("marks may be lost"));
}

TEST_F(KytOpen, AClosedListWithFewerLiveRecordsThanItsHeaderSays) {
    PROMISE("a cleanly closed list has another number of live records than its header says",
            "the log says how many were missing, and they come from the folder");
    std::string bytes = whole;
    for (const uint32_t slot : {3U, 4U}) {
        bytes = with_record(bytes, slot, kyt::deleted_record(record_at(whole, slot)));
    }
    put(bytes);
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);  // a clip that comes back has its mark
    EXPECT_TRUE(logged::has_part("2 of its records were missing"));
    put(with_record(whole, 5, {BASE, {0x5A, 0xC3}, 0xA5, 0x3C}));  // free
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    EXPECT_TRUE(logged::has_part("1 of its records were missing: 700 records now, of them 1 from the folder"));
    put(with_header(whole, [](kyt::list_header* h) { h->live = CLIPS - 5; }));
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
}

TEST_F(KytOpen, ATimeThatStandsTwice) {
    PROMISE("a clip has two live records", "the one that says more stays where it is, the other slot is free");
    PROMISE("a clip has a live record and one of a deleted clip", "the live one counts");
    for (const bool marked_first : {true, false}) {
        const kyt_record marked = kyt::live_record(ts_of(0), 60, 1);
        const kyt_record bare = kyt::live_record(ts_of(0), 60, 0);
        put(with_record(with_record(whole, 0, marked_first ? marked : bare), 1, marked_first ? bare : marked));
        EXPECT_EQ(marks_after_opening(), ALL_MARKS);  // clip 1, which had no mark, comes from the folder
        EXPECT_TRUE(logged::has_part("1 of its records stood there twice")) << PrintToString(logged::lines());
        const kyt_record stays = record_at(card.bytes(LIST), marked_first ? 0 : 1);
        EXPECT_EQ(std::memcmp(&stays, &marked, sizeof marked), 0) << "a mark is never moved to another sector";
    }
    kyt_record deleted = kyt::deleted_record(record_at(whole, 0));
    deleted.flags = 0xFE;
    for (const uint32_t slot : {0U, 1U}) {
        put(with_record(with_record(whole, slot, deleted), 1 - slot, record_at(whole, 0)));
        EXPECT_EQ(marks_after_opening(), ALL_MARKS);
        open();
        EXPECT_EQ(kyt_get(list, ts_of(0))->flags, 1);
        EXPECT_EQ(kyt_record_seconds(kyt_get(list, ts_of(0))), 60U);
        EXPECT_EQ(kyt_record_seconds(kyt_get(list, ts_of(1))), 0U);
        close();
    }
    std::string moved = whole;  // a sector that was written to another one's place
    moved.replace(4096 + 512, 512, whole, 4096, 512);
    put(moved);
    EXPECT_GE(marks_after_opening(), ALL_MARKS - 22);
    EXPECT_TRUE(logged::has_part("64 of its records stood there twice"));
}

TEST_F(KytOpen, WhatLooksLikeARecordInADamagedFile) {
    PROMISE("a damaged file has a record without a clip", "it is dropped: noise may look like one");
    PROMISE("an undamaged file has a record without a clip", "it stays: nothing is deleted for want of a file");
    const kyt_record noise = kyt::live_record(ts_of(9) + 1, 7, 1);
    put(with_record(with_record(whole, 9, noise), 8, {1, {2, 3}, 4, 5}));
    EXPECT_EQ(marks_after_opening(), ALL_MARKS - 1);
    EXPECT_TRUE(logged::has_part("1 dropped for want of a clip"));
    for (const bool is_open : {false, true}) {
        put(is_open ? left_open() : whole);
        card.remove_clip(ts_of(0));
        open();
        EXPECT_NE(kyt_get(list, ts_of(0)), nullptr);
        close();
        card.add_clip(ts_of(0));
    }
}

TEST_F(KytOpen, AListOfAnotherCardIsBelievedWhereItsClipsAre) {
    PROMISE("the list belongs to another card",
            "it is believed where its clips are on this one; without a number on either side it is taken for this "
            "card's");
    const std::string first = with_header(whole, [](kyt::list_header* h) { h->card = 0x1122'3344; });
    libc_calls::set_volume(0x1122'3344);
    put(first);
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);  // on its own card nothing is said or done
    EXPECT_TRUE(logged::lines().empty());
    for (const uint32_t volume : {0x5566'7788U, 0U}) {
        libc_calls::set_volume(volume);
        put(first);
        for (uint32_t i = 0; i < 10; ++i) {
            card.remove_clip(ts_of(i));
            card.add_clip(ts_of(CLIPS + i));
        }
        open();
        const uint32_t oldest = kyt_next(list, nullptr)->ts;
        EXPECT_EQ(kyt_get(list, ts_of(12))->flags, KYT_PERSISTENT);
        close();
        if (volume != 0) {
            EXPECT_EQ(oldest, ts_of(10));
            EXPECT_TRUE(
                logged::has("warning kyt: the list belongs to another card: 700 records now, of them 10 from "
                            "the folder, 10 dropped for want of a clip"));
            EXPECT_EQ(header_of(card.bytes(LIST)).card, volume);
            reopen();  // it is this card's now
            EXPECT_EQ(kyt_count(list), CLIPS);
            EXPECT_EQ(logged::lines().size(), 1U);
            close();
        } else {
            EXPECT_EQ(oldest, ts_of(0));
            EXPECT_TRUE(logged::lines().empty());
        }
    }
    close();
    put(whole);
    libc_calls::set_volume(9);  // and a list without a number
    open();
    EXPECT_EQ(kyt_next(list, nullptr)->ts, ts_of(0));
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(KytOpen, AnotherVersionIsSetAsideUntouched) {
    PROMISE("another version has written it", "it is set aside untouched");
    const std::string newer = with_header(whole, [](kyt::list_header* h) { h->version = 2; });
    put(newer);
    EXPECT_EQ(marks_after_opening(), 0U);
    EXPECT_TRUE(card.bytes(ASIDE) == newer);
    EXPECT_TRUE(
        logged::has("warning kyt: KYT.LST was written by another version: KYT.LST is set aside as KYT_BAD0.LST, 700 "
                    "records now, of them 700 from the folder, marks may be lost"))
        << PrintToString(logged::lines());
}

TEST_F(KytOpen, TheOtherByteOrderIsConvertedInPlace) {
    PROMISE("a machine of the other byte order has written it, also with its header destroyed or half converted",
            "it is converted, marks and all");
    const std::string other = of_other_order(whole);
    put(other);
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    EXPECT_TRUE(
        logged::has("warning kyt: the list comes from a machine of the other byte order: 700 records now, of "
                    "them 0 from the folder"))
        << PrintToString(logged::lines());
    EXPECT_EQ(card.files(), std::set<std::string>{LIST});
    EXPECT_TRUE(card.bytes(LIST) == whole);
    put(std::string(4096, '\0') + other.substr(4096));
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    put(other.substr(0, 4096 + 512 * 3) + whole.substr(4096 + 512 * 3));  // the power went meanwhile
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
}

TEST_F(KytOpen, WhatIsNoFileIsSetAside) {
    PROMISE("a directory, a link or a pipe has the list's name", "it is set aside, and not waited for");
    for (int kind = 0; kind < 3; ++kind) {
        card.remove_files();
        logged::reset();
        card.set_bytes("elsewhere", whole);
        if (kind == 0) {
            std::filesystem::create_directory(card.file(LIST));
        } else if (kind == 1) {
            std::filesystem::create_symlink(card.file("elsewhere"), card.file(LIST));
        } else {
            ASSERT_EQ(mkfifo(card.file(LIST).c_str(), 0600), 0);
        }
        EXPECT_EQ(marks_after_opening(), 0U) << kind;
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(card.file(LIST))));
        EXPECT_FALSE(std::filesystem::is_regular_file(std::filesystem::symlink_status(card.file(ASIDE)))) << kind;
        EXPECT_TRUE(card.bytes("elsewhere") == whole);
    }
}

TEST_F(KytOpen, AListThatWasBeingMadeGetsTheMarksOfTheOneThatWasSetAside) {
    PROMISE("the power went between the setting aside of a list and the sealing of the new one, or the new one is gone",
            "the marks of whole records in the files that were set aside are in the list");
    const std::string writing = with_header(whole, [](kyt::list_header* h) {
        h->state = static_cast<uint32_t>(kyt::file_state::WRITING);
        h->records = h->live = 0;
    });
    const std::string empty = writing.substr(0, 4096) + std::string(writing.size() - 4096, '\0');
    for (const bool is_there : {true, false}) {
        put(empty);
        std::string aside = whole;
        aside.replace(0, 512, std::string(512, 'x'));
        card.set_bytes("KYT_BAD2.LST", with_record(aside, 0, kyt::live_record(ts_of(9000), 60, 1)));
        if (!is_there) {
            std::filesystem::remove(card.file(LIST));
        }
        EXPECT_EQ(marks_after_opening(), ALL_MARKS - 1) << "believed where there is a clip";
        EXPECT_EQ(header_of(card.bytes(LIST)).state, static_cast<uint32_t>(kyt::file_state::CLOSED));
    }
    put(writing);  // all of it had arrived but the seal
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
}

TEST_F(KytOpen, AnEmptyTailOfTheFileIsCutOff) {
    PROMISE("most clips are gone when a list is opened", "the file gives back the room that they took");
    open();
    add_many(BASE + 100'000, 60'000);
    ASSERT_TRUE(kyt::settle(list));
    const size_t large = card.bytes(LIST).size();
    for (uint32_t i = 0; i < 60'000; ++i) {
        remove(BASE + 100'000 + i);
    }
    close();
    const size_t descriptors = open_descriptors();
    uint32_t promised = UINT32_MAX;
    libc_calls::before("ftruncate", [&](const libc_calls::called& c) {
        promised = static_cast<size_t>(c.offset) < large ? header_of(card.bytes(LIST)).records : promised;
        return 0;
    });
    open();
    ASSERT_TRUE(kyt::settle(list));
    EXPECT_LE(card.bytes(LIST).size(), whole.size() + kyt::STEP_BYTES);
    EXPECT_LE(promised, card.bytes(LIST).size() / 8) << "a cut right after it looks like a list that was cut short";
    close();
    EXPECT_EQ(open_descriptors(), descriptors);
    logged::reset();
    EXPECT_EQ(marks_after_opening(), ALL_MARKS);
    EXPECT_TRUE(logged::lines().empty());
}

}  // namespace
