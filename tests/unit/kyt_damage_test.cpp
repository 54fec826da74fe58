// What every kind of damage leads to; the table in docs/clip-index.md has a row for each of these.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <random>

#include "handle.h"
#include "record.h"
#include "keeper.h"
#include "kyt_rdonly.h"
#include "support/card_calls.h"
#include "support/log.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t BASE = 1'790'000'000;
constexpr uint32_t CLIPS = 700;  // two pages of records and a piece of a third
constexpr uint32_t APART = 61;

uint32_t ts_of(uint32_t clip) {
    return BASE + clip * APART;
}

bool logged_part(const std::string& part) {
    return std::any_of(logged::lines().begin(), logged::lines().end(),
                       [&](const std::string& line) { return line.find(part) != std::string::npos; });
}

struct KytDamage : testing::Test {
    void SetUp() override {
        logged::reset();
        card_calls::reset();
        kyt_handle* const list = kyt::open_folder(card.path().c_str());
        ASSERT_NE(list, nullptr);
        for (uint32_t i = 0; i < CLIPS; ++i) {
            card.add_clip(ts_of(i));
            kyt_record record = record_of(std::to_string(ts_of(i)) + ",60," + (i % 3 == 0 ? "1" : "0"));
            ASSERT_EQ(kyt_write(list, &record), 0);
        }
        kyt_close(list);
        whole = card.bytes("KYT.LST");
        logged::reset();
    }
    void TearDown() override { card_calls::reset(); }

    // Opens twice. All clips of the card must be listed both times and none be gone. Returns how many marks are left.
    uint32_t open_and_check(uint32_t clips = CLIPS) {
        uint32_t marks = 0;
        for (int round = 0; round < 2; ++round) {
            kyt_handle* const list = kyt::open_folder(card.path().c_str());
            EXPECT_NE(list, nullptr) << std::strerror(errno);
            if (!list) {
                return 0;
            }
            EXPECT_EQ(kyt_count(list), clips);
            uint32_t found = 0;
            for (const kyt_record* r = kyt_next(list, nullptr); r; r = kyt_next(list, r)) {
                found += r->flags == KYT_PERSISTENT ? 1 : 0;
            }
            EXPECT_TRUE(round == 0 || found == marks);
            marks = found;
            if (round == 1) {
                EXPECT_EQ(logged::lines().size(), lines_of_first) << logged::lines().back();
            }
            lines_of_first = logged::lines().size();
            kyt_close(list);
        }
        for (uint32_t i = 0; i < clips; ++i) {
            EXPECT_TRUE(std::filesystem::exists(card.clip(ts_of(i)) + ".mp4"));
            EXPECT_TRUE(std::filesystem::exists(card.clip(ts_of(i)) + ".jpeg"));
        }
        return marks;
    }

    recordings card;
    std::string whole;
    size_t lines_of_first = 0;
    static constexpr uint32_t ALL_MARKS = (CLIPS + 2) / 3;
};

TEST_F(KytDamage, AnOrderlyEndNeedsNoRepairAndNoWord) {
    EXPECT_EQ(open_and_check(), ALL_MARKS);
    EXPECT_TRUE(logged::lines().empty());
    EXPECT_EQ(card.files(), std::set<std::string>{"KYT.LST"});
}

TEST_F(KytDamage, AnOpenFileIsComparedWithTheFolder) {
    kyt_handle* const list = kyt::open_folder(card.path().c_str());
    kyt_close_dirty(list);
    card.add_clip(ts_of(CLIPS));  // its announcement fell to the power cut
    EXPECT_EQ(open_and_check(CLIPS + 1), ALL_MARKS);
    EXPECT_TRUE(logged::has("info kyt: the list was not closed: 701 records now, of them 1 from the folder"));
}

// A broken FAT leads a file into zeros, which look like slots that were never used.
TEST_F(KytDamage, AnOpenListThatLostRecordsSaysSo) {
    kyt_close_dirty(kyt::open_folder(card.path().c_str()));
    const std::string opened = card.bytes("KYT.LST");
    for (const uint32_t left : {CLIPS - 1, CLIPS / 2, 0U}) {
        logged::reset();
        std::string bytes = opened;
        std::fill(bytes.begin() + 4096 + left * 8L, bytes.end(), '\0');
        for (const std::string& name : card.files()) {
            std::filesystem::remove(card.file(name));
        }
        card.set_bytes("KYT.LST", bytes);
        EXPECT_LE(open_and_check(), ALL_MARKS);
        EXPECT_TRUE(logged_part("the list was cut short or made longer")) << left;
        EXPECT_TRUE(logged_part("marks may be lost")) << left;
    }
}

TEST_F(KytDamage, AllZeros) {
    card.set_bytes("KYT.LST", std::string(whole.size(), '\0'));
    EXPECT_EQ(open_and_check(), 0U);
    EXPECT_TRUE(card.has("KYT_BAD0.LST"));
    EXPECT_EQ(card.bytes("KYT_BAD0.LST"), std::string(whole.size(), '\0'));
    EXPECT_TRUE(logged_part("marks may be lost"));
}

TEST_F(KytDamage, AllNoise) {
    std::mt19937 random(1);
    for (int round = 0; round < 8; ++round) {
        logged::reset();
        std::string noise = card.bytes(card.list_name());
        for (char& c : noise) {
            c = static_cast<char>(random());
        }
        card.set_bytes(card.list_name(), noise);
        EXPECT_EQ(open_and_check(), 0U);
        EXPECT_TRUE(logged_part("is set aside as KYT_BAD"));
        EXPECT_TRUE(logged_part("marks may be lost"));
    }
    // However often it happens, four files at most are kept.
    EXPECT_EQ(card.files().size(), 5U);
}

TEST_F(KytDamage, EachSectorOfZerosOrNoiseCostsItsOwnRecordsOnly) {
    std::mt19937 random(2);
    for (size_t sector = 4096 / 512; sector < (4096 + CLIPS * 8 + 511) / 512; ++sector) {
        for (const bool noise : {false, true}) {
            for (const std::string& name : card.files()) {
                std::filesystem::remove(card.file(name));
            }
            logged::reset();
            std::string bytes = whole;
            for (size_t i = 0; i < 512; ++i) {
                bytes[sector * 512 + i] = noise ? static_cast<char>(random()) : '\0';
            }
            card.set_bytes("KYT.LST", bytes);
            EXPECT_GE(open_and_check(), ALL_MARKS - 22) << sector;
            EXPECT_TRUE(logged_part("marks may be lost")) << sector;
        }
    }
}

TEST_F(KytDamage, AHeaderOfZerosOrNoiseLosesNoMarks) {
    for (const char fill : {'\0', 'x'}) {
        for (const std::string& name : card.files()) {
            std::filesystem::remove(card.file(name));
        }
        logged::reset();
        card.set_bytes("KYT.LST", std::string(512, fill) + whole.substr(512));
        EXPECT_EQ(open_and_check(), ALL_MARKS);
        EXPECT_TRUE(logged_part("warning kyt: KYT.LST was no list: 700 records now, of them 0 from the folder, marks"));
    }
}

TEST_F(KytDamage, CutShortAtEveryInterestingLength) {
    for (const size_t length :
         {size_t{0}, size_t{1}, size_t{63}, size_t{64}, size_t{511}, size_t{512}, size_t{4095}, size_t{4096},
          size_t{4097}, size_t{4103}, size_t{4104}, size_t{4105}, size_t{4096 + 8 * 350 + 3}, size_t{8191},
          size_t{8192}, size_t{4096 + 8 * CLIPS - 1}, size_t{4096 + 8 * CLIPS}, size_t{32768}, size_t{65535}}) {
        for (const std::string& name : card.files()) {
            std::filesystem::remove(card.file(name));
        }
        logged::reset();
        card.set_bytes("KYT.LST", whole.substr(0, length));
        const uint32_t kept = length < 4096 ? 0 : std::min<uint32_t>(CLIPS, (length - 4096) / 8);
        EXPECT_EQ(open_and_check(), (kept + 2) / 3) << length;
        EXPECT_TRUE(logged_part("marks may be lost")) << length;
    }
}

TEST_F(KytDamage, TooLongIsSeenToo) {
    card.set_bytes("KYT.LST", whole + std::string(777, 'x'));
    EXPECT_EQ(open_and_check(), ALL_MARKS);
    EXPECT_TRUE(logged_part("marks may be lost"));
}

// A list that was copied to another card, with some of the clips or none, tells nothing about what lies there.
TEST_F(KytDamage, AListOfAnotherCardIsBelievedWhereItsClipsAre) {
    card_calls::set_volume(0x11223344);
    const int fd = ::open(card.file("KYT.LST").c_str(), O_RDWR);
    ASSERT_EQ(kyt::header_seal(fd, kyt::file_state::CLOSED, CLIPS, CLIPS), 0);
    close(fd);
    const std::string of_first_card = card.bytes("KYT.LST");
    EXPECT_EQ(open_and_check(), ALL_MARKS);  // on its own card nothing is said or done
    EXPECT_TRUE(logged::lines().empty());

    card_calls::set_volume(0x55667788);
    for (uint32_t i = 0; i < 10; ++i) {
        card.remove_clip(ts_of(i));
        card.add_clip(ts_of(CLIPS + i));
    }
    kyt_handle* list = kyt::open_folder(card.path().c_str());
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(
        logged::has("warning kyt: the list belongs to another card: 700 records now, of them 10 from the folder, "
                    "10 dropped for want of a clip"));
    EXPECT_EQ(all_ts(list).front(), ts_of(10));
    EXPECT_EQ(all_ts(list).back(), ts_of(CLIPS + 9));
    EXPECT_EQ(kyt_get(list, ts_of(12))->flags, KYT_PERSISTENT);
    kyt_close(list);
    logged::reset();
    list = kyt::open_folder(card.path().c_str());  // it is this card's now
    EXPECT_EQ(kyt_count(list), CLIPS);
    EXPECT_TRUE(logged::lines().empty());
    kyt_close(list);

    // A card, or a list, without a number is not known to be another one.
    card_calls::set_volume(0);
    for (const std::string& name : card.files()) {
        std::filesystem::remove(card.file(name));
    }
    card.set_bytes("KYT.LST", of_first_card);
    list = kyt::open_folder(card.path().c_str());
    EXPECT_EQ(all_ts(list).front(), ts_of(0));
    EXPECT_TRUE(logged::lines().empty());
    kyt_close(list);
}

TEST_F(KytDamage, AnotherVersionIsSetAsideUntouched) {
    std::string other = whole;
    kyt::list_header header;
    std::memcpy(&header, other.data(), sizeof header);
    header.version = 2;
    uint32_t crc = ~0U;
    for (size_t i = 0; i < offsetof(kyt::list_header, check); ++i) {
        crc ^= reinterpret_cast<uint8_t*>(&header)[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1)));
        }
    }
    header.check = ~crc;
    std::memcpy(other.data(), &header, sizeof header);
    card.set_bytes("KYT.LST", other);
    EXPECT_EQ(open_and_check(), 0U);
    EXPECT_EQ(card.bytes("KYT_BAD0.LST"), other);
    EXPECT_TRUE(
        logged::has("warning kyt: KYT.LST was written by another version: KYT.LST is set aside as KYT_BAD0.LST, "
                    "700 records now, of them 700 from the folder, marks may be lost"));
}

TEST_F(KytDamage, TheOtherByteOrderIsConverted) {
    std::string other = whole;
    const auto swap_at = [&](size_t at) {
        std::reverse(other.begin() + static_cast<long>(at), other.begin() + static_cast<long>(at) + 4);
    };
    for (const size_t field : {8, 12, 16, 20, 24, 32}) {
        swap_at(field);
    }
    uint32_t crc = ~0U;
    for (size_t i = 0; i < 60; ++i) {
        crc ^= static_cast<uint8_t>(other[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1)));
        }
    }
    crc = __builtin_bswap32(~crc);
    std::memcpy(other.data() + 60, &crc, 4);
    for (uint32_t i = 0; i < CLIPS; ++i) {
        swap_at(4096 + 8 * i);
    }
    card.set_bytes("KYT.LST", other);
    kyt_handle* const look = kyt_open_rdonly(card.path().c_str());
    ASSERT_NE(look, nullptr);
    EXPECT_EQ(kyt_count(look), CLIPS);
    kyt_close(look);
    EXPECT_EQ(open_and_check(), ALL_MARKS);
    EXPECT_TRUE(
        logged::has("warning kyt: the list comes from a machine of the other byte order: 700 records now, of them 0 "
                    "from the folder"));
    EXPECT_EQ(card.files(), std::set<std::string>{"KYT.LST"});
    // And without its header.
    card.set_bytes("KYT.LST", std::string(4096, '\0') + other.substr(4096));
    EXPECT_EQ(open_and_check(), ALL_MARKS);
}

TEST_F(KytDamage, AVanishedFileIsMadeAnew) {
    std::filesystem::remove(card.file("KYT.LST"));
    EXPECT_EQ(open_and_check(), 0U);
    EXPECT_TRUE(logged::has("info kyt: a new list, with 700 clips that are on the card"));
    EXPECT_EQ(card_calls::count("stat"), 0);  // no look at any clip but by name
}

TEST_F(KytDamage, ADirectoryInTheFilesPlaceIsSetAside) {
    std::filesystem::remove(card.file("KYT.LST"));
    std::filesystem::create_directory(card.file("KYT.LST"));
    EXPECT_EQ(open_and_check(), 0U);
    EXPECT_TRUE(std::filesystem::is_directory(card.file("KYT_BAD0.LST")));
}

TEST_F(KytDamage, APageThatTheCardDoesNotGive) {
    card_calls::fail("pread", 5, EIO);  // the header, twice, then the second page of records
    kyt_handle* const list = kyt::open_folder(card.path().c_str());
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(card_calls::failed());
    EXPECT_EQ(kyt_count(list), CLIPS);
    kyt_close(list);
    EXPECT_TRUE(logged_part("KYT.LST has parts that cannot be read: KYT.LST is set aside as KYT_BAD0.LST"));
    EXPECT_TRUE(logged_part("marks may be lost"));
}

TEST_F(KytDamage, ATsFoundTwiceIsKeptOnceTheLiveOne) {
    kyt_record first;
    std::memcpy(&first, whole.data() + 4096, sizeof first);
    kyt_record deleted = kyt::deleted_record(first);
    deleted.flags = 0xFE;  // what a deleted one says of a clip that is live counts for nothing
    for (const bool deleted_first : {true, false}) {
        std::string twice = whole;
        std::memcpy(twice.data() + 4096 + (deleted_first ? 0 : 8), &deleted, 8);
        std::memcpy(twice.data() + 4096 + (deleted_first ? 8 : 0), &first, 8);
        for (const std::string& name : card.files()) {
            std::filesystem::remove(card.file(name));
        }
        card.set_bytes("KYT.LST", twice);
        EXPECT_EQ(open_and_check(), ALL_MARKS);  // clip 1, which had no mark, comes from the folder
        kyt_handle* const look = kyt_open_rdonly(card.path().c_str());
        EXPECT_EQ(kyt_record_seconds(kyt_get(look, ts_of(0))), 60U);  // of the deleted one nobody would know
        EXPECT_EQ(kyt_get(look, ts_of(0))->flags, first.flags);
        EXPECT_EQ(kyt_record_seconds(kyt_get(look, ts_of(1))), 0U);
        kyt_close(look);
    }
}

TEST_F(KytDamage, AFolderThatIsNotThere) {
    std::filesystem::remove_all(card.path());
    EXPECT_EQ(kyt::open_folder(card.path().c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(KytDamage, AFolderThatVanishesUnderAnOpenList) {
    kyt_handle* const list = kyt::open_folder(card.path().c_str());
    std::filesystem::remove_all(card.path());
    const kyt_record record = record_of(ts_of(CLIPS));
    EXPECT_EQ(kyt_write(list, &record), 0);
    EXPECT_EQ(kyt_optimise(list), 0);
    EXPECT_EQ(kyt_count(list), CLIPS + 1);
    EXPECT_EQ(all_ts(list).size(), CLIPS + 1);
    kyt_close(list);
}

TEST_F(KytDamage, AWriteProtectedCardIsRefusedAndLeftAlone) {
    for (const bool closed : {true, false}) {
        if (!closed) {
            kyt_close_dirty(kyt::open_folder(card.path().c_str()));
        }
        const std::string before = card.bytes("KYT.LST");
        card_calls::fail("open for writing", 1, EROFS, 1000);
        EXPECT_EQ(kyt::open_folder(card.path().c_str()), nullptr);
        EXPECT_EQ(errno, EROFS);
        EXPECT_EQ(card.bytes("KYT.LST"), before);
        card_calls::reset();
    }
    EXPECT_EQ(open_and_check(), ALL_MARKS);
}

TEST_F(KytDamage, AFullCardStillHasItsList) {
    // Deleted records and a lost announcement would have the file written anew; there is no room for that.
    kyt_handle* list = kyt::open_folder(card.path().c_str());
    kyt_mark_deleted(list, kyt_get(list, ts_of(5)));
    ASSERT_TRUE(kyt::settle(list));
    kyt_close_dirty(list);
    card.remove_clip(ts_of(5));
    card_calls::fail("pwrite", 1, ENOSPC, 1000);
    list = kyt::open_folder(card.path().c_str());
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(kyt_count(list), CLIPS - 1);
    EXPECT_TRUE(logged::has("info kyt: the list was not closed: 699 records now, of them 0 from the folder"));
    kyt_close_dirty(list);
}

TEST_F(KytDamage, NoRoomForARepairMakesRoomFirst) {
    card.set_bytes("KYT_BAD2.LST", "from an earlier time");
    card.set_bytes("KYT.LST", std::string(whole.size(), '\0'));
    card_calls::fail("ftruncate", 1, ENOSPC);
    EXPECT_EQ(open_and_check(), 0U);
    EXPECT_FALSE(card.has("KYT_BAD2.LST"));
    EXPECT_TRUE(logged_part("KYT_BAD2.LST is removed to make room, "));
}

TEST_F(KytDamage, EveryCallThatCanFailMayFailDuringTheOpen) {
    for (const int errnum : {EIO, ENOSPC}) {
        for (const char* state : {"closed", "open", "zeros", "missing"}) {
            for (int nth = 1;; ++nth) {
                for (const std::string& name : card.files()) {
                    std::filesystem::remove_all(card.file(name));
                }
                if (state != std::string("missing")) {
                    card.set_bytes("KYT.LST",
                                   state == std::string("zeros") ? std::string(whole.size(), '\0') : whole);
                }
                if (state == std::string("open")) {
                    kyt_close_dirty(kyt::open_folder(card.path().c_str()));
                }
                logged::reset();
                card_calls::fail("", nth, errnum);
                kyt_handle* const list = kyt::open_folder(card.path().c_str());
                const bool happened = card_calls::failed();
                card_calls::fail("", 0, 0, 0);
                if (list) {
                    // A period that could not be read, or the whole folder: the log says so.
                    EXPECT_TRUE(kyt_count(list) == CLIPS || logged_part("folder cannot be read")) << state << nth;
                    kyt_close_dirty(list);
                }
                kyt_handle* const again = kyt::open_folder(card.path().c_str());
                ASSERT_NE(again, nullptr) << state << nth << std::strerror(errno);
                EXPECT_EQ(kyt_count(again), CLIPS) << state << nth;
                kyt_close_dirty(again);
                if (!happened) {
                    break;
                }
            }
        }
    }
}

// A power cut: of what was written since the last synchronisation, each sector may or may not have reached the card,
// and so may a directory's change.
struct KytPowerCut : testing::Test {
    struct clip_state {
        uint8_t flags;
        bool operator==(const clip_state&) const = default;
    };
    using model = std::map<uint32_t, clip_state>;

    recordings card;
    kyt_handle* list = nullptr;
    std::mutex guard;
    std::map<std::string, std::string> on_card;  // what certainly is
    model now;
    model kept;  // what the list on the card certainly says
    std::set<uint32_t> touched;  // since then, perhaps back to what it was
    std::mt19937 random{5};
    int cuts = 0;

    void synced(const std::string& name) {
        const std::lock_guard lock(guard);
        if (name.starts_with("KYT_")) {
            on_card[name] = card.bytes(name);
        } else {
            // The folder itself: what is gone is gone.
            std::erase_if(on_card, [&](const auto& file) { return !card.has(file.first); });
        }
        
    }

    std::map<std::string, std::string> image() {
        std::map<std::string, std::string> files = on_card;
        for (const std::string& name : card.files()) {
            const std::string bytes = card.bytes(name);
            const bool is_new = !files.contains(name);
            if (is_new && random() % 2 == 0) {
                continue;
            }
            std::string& out = files[name];
            if (out.size() < bytes.size() && random() % 2 == 0) {
                out.resize(bytes.size());
            }
            for (size_t at = 0; at < std::min(out.size(), bytes.size()); at += 512) {
                if (random() % 2 == 0) {
                    out.replace(at, 512, bytes, at, 512);
                }
            }
        }
        for (auto file = files.begin(); file != files.end();) {
            file = !card.has(file->first) && random() % 2 == 0 ? files.erase(file) : std::next(file);
        }
        return files;
    }

    void cut() {
        const std::lock_guard lock(guard);
        ++cuts;
        recordings after;
        for (const auto& [name, bytes] : image()) {
            after.set_bytes(name, bytes);
        }
        for (const auto& [ts, state] : now) {
            after.add_clip(ts);
        }
        kyt_handle* const found = kyt::open_folder(after.path().c_str());
        ASSERT_NE(found, nullptr);
        for (const auto& [ts, state] : now) {
            const kyt_record* const record = kyt_get(found, ts);
            ASSERT_NE(record, nullptr) << ts;
            const auto certain = kept.find(ts);
            if (certain != kept.end() && certain->second == state && !touched.contains(ts)) {
                ASSERT_EQ(record->flags, state.flags) << ts << " cut " << cuts;
            }
        }
        for (const uint32_t ts : all_ts(found)) {
            ASSERT_TRUE(now.contains(ts) || kept.contains(ts)) << ts;
        }
        kyt_close_dirty(found);
    }
    void TearDown() override { card_calls::reset(); }
};

TEST_F(KytPowerCut, NothingIsLostThatWasOnTheCard) {
    card_calls::reset();
    logged::reset();
    list = kyt::open_folder(card.path().c_str());
    ASSERT_NE(list, nullptr);
    const auto self = pthread_self();
    std::atomic<bool> checking = false;  // the lists that are opened for checking are none of ours
    card_calls::hooks hooks;
    hooks.before_sync = [&](const std::string&) {
        // The keeper is about to wait for the card in the middle of a job, and the loop stands still.
        if (!checking && !pthread_equal(self, pthread_self()) && random() % 3 == 0) {
            checking = true;
            cut();
            checking = false;
        }
    };
    hooks.after_sync = [&](const std::string& name) {
        if (!checking) {
            synced(name);
        }
    };
    card_calls::set_hooks(hooks);
    uint32_t clock = BASE;
    for (int step = 0; step < 1000; ++step) {
        const uint32_t what = static_cast<uint32_t>(random() % 100);
        {
            const std::lock_guard lock(guard);
            if (now.size() < 3 || (what < 40 && now.size() < 120)) {
                clock += 20 + static_cast<uint32_t>(random() % 90);
                const uint32_t ts = random() % 10 == 0 ? clock - 3000 : clock;
                const kyt_record record = record_of(ts);
                if (!now.contains(ts) && kyt_write(list, &record) == 0) {
                    now[ts] = {0};
                    card.add_clip(ts);
                }
            } else if (what < 70) {
                auto at = now.lower_bound(clock - static_cast<uint32_t>(random() % 20'000));
                at = at == now.end() ? now.begin() : at;
                at->second.flags ^= 1;
                touched.insert(at->first);
                kyt_get(list, at->first)->flags ^= 1;
            } else if (what < 88) {
                const uint32_t ts = now.begin()->first;
                kyt_mark_deleted(list, kyt_next(list, nullptr));
                now.erase(ts);
                card.remove_clip(ts);
            }
        }
        if (what >= 88 && what < 93) {
            const model before = now;
            ASSERT_TRUE(kyt::settle(list));
            kept = before;
            touched.clear();
        } else if (what >= 93 && what < 96) {
            // One step of the maintenance: changes come between the copy and the going over to it.
            ASSERT_EQ(kyt_optimise(list), 0);
            for (int wait = 0;
                 wait < 2000 && list->keeper->at != kyt::phase::DONE && list->keeper->at != kyt::phase::IDLE; ++wait) {
                usleep(1000);
            }
        } else if (what >= 96) {
            checking = true;
            cut();
            checking = false;
        }
        if (HasFatalFailure()) {
            break;
        }
    }
    EXPECT_GT(cuts, 40);
    card_calls::set_hooks({});
    kyt_close(list);
}

}  // namespace
