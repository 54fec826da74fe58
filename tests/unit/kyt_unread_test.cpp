// Long lists that were closed in order: opened without being read, and what becomes of damage that is found later.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <sys/mman.h>

#include "kyt_rdonly.h"
#include "record.h"
#include "support/card_calls.h"
#include "support/log.h"
#include "support/long_lists.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t BASE = 1'790'000'000;  // long ago: these periods have ended
constexpr uint32_t CLIPS = 1'300;         // two pages of records and a piece of a third
constexpr uint32_t APART = 61;
constexpr size_t SECTOR = 512;
constexpr size_t RECORD = sizeof(kyt_record);

uint32_t ts_of(uint32_t clip) {
    return BASE + clip * APART;
}
size_t at_slot(uint32_t slot_number) {
    return kyt::RECORDS_AT + slot_number * RECORD;
}
uint8_t flags_of(uint32_t clip) {
    return clip % 3 == 0 ? KYT_PERSISTENT : 0;
}

void seal(std::string* bytes, const std::function<void(kyt::list_header*)>& change) {
    kyt::list_header header;
    std::memcpy(&header, bytes->data(), sizeof header);
    change(&header);
    uint32_t crc = ~0U;
    for (size_t i = 0; i < offsetof(kyt::list_header, check); ++i) {
        crc ^= reinterpret_cast<const uint8_t*>(&header)[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1)));
        }
    }
    header.check = ~crc;
    std::memcpy(bytes->data(), &header, sizeof header);
}

void put_record(std::string* bytes, uint32_t slot_number, const kyt_record& record) {
    std::memcpy(bytes->data() + at_slot(slot_number), &record, sizeof record);
}

struct KytUnread : testing::Test {
    void SetUp() override {
        logged::reset();
        card_calls::reset();
        open();
        for (uint32_t i = 0; i < CLIPS; ++i) {
            card.add_clip(ts_of(i));
            const kyt_record record = record_of(std::to_string(ts_of(i)) + ",60," + std::to_string(flags_of(i)));
            ASSERT_EQ(kyt_write(list, &record), 0);
        }
        close_list();
        whole = card.bytes("KYT_A.LST");
        logged::reset();
    }
    void TearDown() override {
        card_calls::reset();
        kyt_close(list);
    }
    void open() {
        list = kyt::open_folder(card.path().c_str());
        ASSERT_NE(list, nullptr) << std::strerror(errno);
    }
    void close_list() {
        kyt_close(list);
        list = nullptr;
    }
    void put(const std::string& bytes) {
        for (const std::string& name : card.files()) {
            std::filesystem::remove(card.file(name));
        }
        card.set_bytes("KYT_A.LST", bytes);
    }
    kyt::list_header header() const {
        kyt::list_header found;
        std::memcpy(&found, card.bytes(card.list_name()).data(), sizeof found);
        return found;
    }
    // Every clip of the card and nothing else, ascending.
    bool is_complete() {
        uint32_t clip = 0;
        for (const kyt_record* r = kyt_next(list, nullptr); r; r = kyt_next(list, r)) {
            if (clip == CLIPS || r->ts != ts_of(clip++)) {
                return false;
            }
        }
        return clip == CLIPS && kyt_count(list) == CLIPS;
    }
    // What a walk shows, which is to be ascending and to hold clips only.
    uint32_t shown() {
        uint32_t count = 0;
        uint32_t last = 0;
        for (const kyt_record* r = kyt_next(list, nullptr); r && count <= CLIPS; r = kyt_next(list, r)) {
            EXPECT_GT(r->ts, last);
            EXPECT_TRUE(r->ts >= BASE && (r->ts - BASE) % APART == 0 && (r->ts - BASE) / APART < CLIPS) << r->ts;
            EXPECT_TRUE(kyt::is_live(*r));
            last = r->ts;
            ++count;
        }
        return count;
    }

    const long_from lowered{100};
    recordings card;
    kyt_handle* list = nullptr;
    std::string whole;
};

TEST_F(KytUnread, ALongListThatWasClosedInOrderIsTakenOver) {
    EXPECT_EQ(header().in_order, 1U);
    card_calls::reset();
    open();
    EXPECT_EQ(list->keeper->inherited, CLIPS);
    EXPECT_TRUE(is_complete());
    ASSERT_TRUE(await_inspection(list));
    EXPECT_FALSE(list->distrusted);
    EXPECT_EQ(list->order.plain_bytes, (CLIPS - 1) * RECORD);
    EXPECT_TRUE(is_complete());
    EXPECT_EQ(kyt_get(list, ts_of(3))->flags, KYT_PERSISTENT);
    EXPECT_EQ(header().state, static_cast<uint32_t>(kyt::file_state::OPEN));
    EXPECT_EQ(header().in_order, 0U);
    close_list();
    EXPECT_EQ(header().in_order, 1U);
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(KytUnread, WhateverIsNotAsACloseLeavesItIsRead) {
    struct row {
        const char* what;
        std::function<void(std::string*)> change;
        bool is_taken = false;
    };
    const kyt_record noise = {0xA5A5A5A5, {1, 2}, 3, 4};
    const row rows[] = {
        {"as it is", [](std::string*) {}, true},
        {"an older library's header", [](std::string* b) { seal(b, [](auto* h) { h->in_order = 0; }); }},
        {"a header of the future", [](std::string* b) { seal(b, [](auto* h) { h->in_order = 2; }); }},
        {"open", [](std::string* b) { seal(b, [](auto* h) { h->state = 2; }); }},
        {"in the making", [](std::string* b) { seal(b, [](auto* h) { h->state = 1; }); }},
        {"another version", [](std::string* b) { seal(b, [](auto* h) { h->version = 2; }); }},
        {"a header of noise", [](std::string* b) { (*b)[17] ^= 1; }},
        {"the other byte order",
         [](std::string* b) {
             seal(b, [](auto* h) {
                 for (uint32_t* field : {&h->byte_order, &h->version, &h->generation, &h->state, &h->records}) {
                     *field = __builtin_bswap32(*field);
                 }
                 h->in_order = 0x01000000;
             });
             std::reverse(b->begin() + 60, b->begin() + 64);
         }},
        {"another card's", [](std::string* b) { seal(b, [](auto* h) { h->card = 0x55667788; }); }},
        {"its own card's", [](std::string* b) { seal(b, [](auto* h) { h->card = 0x11223344; }); }, true},
        {"cut to an odd size", [](std::string* b) { b->resize(b->size() - SECTOR); }},
        {"too long", [](std::string* b) { b->resize(kyt::MAX_BYTES + kyt::STEP_BYTES); }},
        {"more records than room", [](std::string* b) { seal(b, [](auto* h) { h->records = 7681; }); }},
        {"so many records that the last one's place wraps",
         [](std::string* b) { seal(b, [](auto* h) { h->records = 0x20000000 + CLIPS; }); }},
        {"full to the end",
         [](std::string* b) {
             for (uint32_t i = CLIPS; i < kyt::slots_in(kyt::STEP_BYTES); ++i) {
                 put_record(b, i, kyt::live_record(ts_of(i), 60, 0));
             }
             seal(b, [](auto* h) { h->records = 7680; });
         },
         true},
        {"without its first record", [](std::string* b) { put_record(b, 0, {}); }},
        {"its first record deleted",
         [](std::string* b) { put_record(b, 0, kyt::deleted_record(kyt::live_record(BASE, 60, 0), 1)); }},
        {"noise for its last record", [&](std::string* b) { put_record(b, CLIPS - 1, noise); }},
        {"a record behind its end",
         [](std::string* b) { put_record(b, CLIPS, kyt::live_record(ts_of(CLIPS), 60, 0)); }},
        {"noise behind its end", [&](std::string* b) { put_record(b, CLIPS, noise); }},
    };
    for (const row& r : rows) {
        std::string bytes = whole;
        r.change(&bytes);
        put(bytes);
        card_calls::set_volume(0x11223344);
        open();
        EXPECT_EQ(list->keeper->inherited > 0, r.is_taken) << r.what;
        kyt_close_dirty(list);
        list = nullptr;
    }
}

TEST_F(KytUnread, WhatStandsInTheWayOfItIsReadToo) {
    card.set_bytes("KYT_B.LST", "a copy in the making");
    open();
    EXPECT_EQ(list->keeper->inherited, 0U);
    close_list();
    EXPECT_FALSE(card.has("KYT_B.LST"));
    {
        const long_from longer(CLIPS);
        open();
        EXPECT_EQ(list->keeper->inherited, 0U) << "not a long one";
        close_list();
    }
    card_calls::fail("fdatasync", 1, EIO);
    open();
    EXPECT_TRUE(card_calls::failed());
    EXPECT_EQ(list->keeper->inherited, 0U) << "the seal failed once";
    EXPECT_TRUE(is_complete());
    close_list();
    list = kyt::open_folder(card.path().c_str(), kyt::reading::WHOLE);
    EXPECT_EQ(list->keeper->inherited, 0U);
    close_list();
    open();
    EXPECT_EQ(list->keeper->inherited, CLIPS);
}

TEST_F(KytUnread, PagesThatAreNotInMemoryAreReadBeforeTheyAreUsed) {
    const int fd = ::open(card.file("holes").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(ftruncate(fd, kyt::STEP_BYTES), 0);
    card_calls::fail("mlock", 1, EPERM);
    kyt::region map;
    ASSERT_EQ(kyt::region_map(&map, fd, kyt::STEP_BYTES), 0);
    EXPECT_EQ(map.locked, 0U);
    card_calls::reset();
    EXPECT_EQ(kyt::region_read_in(&map, fd, 1'000), 0);
    EXPECT_EQ(card_calls::count("pread"), 3);
    card_calls::fail("pread", 3, EIO);
    EXPECT_EQ(kyt::region_read_in(&map, fd, 1'000), -1);
    kyt::region_unmap(&map);
    ASSERT_EQ(kyt::region_map(&map, fd, kyt::STEP_BYTES), 0);
    EXPECT_EQ(map.locked, kyt::STEP_BYTES);
    card_calls::reset();
    EXPECT_EQ(kyt::region_read_in(&map, fd, 1'000), 0);
    EXPECT_EQ(card_calls::count("pread"), 0) << "what is locked is there";
    kyt::region_unmap(&map);
    close(fd);
}

struct damage {
    const char* what;
    std::function<void(std::string*)> change;
    const char* words;
    uint32_t marks_lost;  // at most
};

void noise_at(std::string* bytes, size_t at, size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::generate_n(bytes->begin() + static_cast<long>(at), size, [&] { return static_cast<char>(random()); });
}

const damage DAMAGES[] = {
    {"a sector of zeros", [](std::string* b) { std::fill_n(b->begin() + 4096 + 7 * SECTOR, SECTOR, '\0'); },
     "64 of its records were destroyed", 22},
    {"a sector of noise", [](std::string* b) { noise_at(b, 4096 + 7 * SECTOR, SECTOR, 1); },
     "64 of its records were destroyed", 22},
    {"one bit", [](std::string* b) { (*b)[at_slot(700) + 4] ^= 1; }, "1 of its records were destroyed", 0},
    {"noise across two pages", [](std::string* b) { noise_at(b, 8192 - 24, 48, 2); }, "6 of its records were destroyed",
     2},
    {"sectors swapped",
     [](std::string* b) {
         std::swap_ranges(b->begin() + 4096 + 3 * SECTOR, b->begin() + 4096 + 4 * SECTOR,
                          b->begin() + 4096 + 15 * SECTOR);
     },
     "its records were out of order", 0},
    {"a sector in another's place",
     [](std::string* b) { std::copy_n(b->begin() + 4096 + 2 * SECTOR, SECTOR, b->begin() + 4096 + 9 * SECTOR); },
     "its records were out of order", 22},
    {"the first page's end and the second one's begin swapped",
     [](std::string* b) { std::swap_ranges(b->begin() + 8192 - 8, b->begin() + 8192, b->begin() + 8192); },
     "its records were out of order", 0},
    {"something behind the end", [](std::string* b) { noise_at(b, at_slot(CLIPS + 1), 8, 3); },
     "there was something behind its end", 0},
    {"something far behind the end", [](std::string* b) { put_record(b, 7'000, kyt::live_record(BASE - 1, 60, 0)); },
     "there was something behind its end", 0},
    {"an old sector with deleted records",
     [](std::string* b) {
         for (uint32_t i = 200; i < 203; ++i) {
             put_record(b, i, kyt::deleted_record(kyt::live_record(ts_of(i), 60, 0), 1));
         }
     },
     "3 of its records were deleted ones", 3},
    {"noise that passes for a record",
     [](std::string* b) {
         noise_at(b, at_slot(500), 16, 4);
         put_record(b, 502, kyt::live_record(ts_of(502) + 1, 60, KYT_PERSISTENT));
         noise_at(b, at_slot(503), 16, 5);
     },
     "4 of its records were destroyed", 3},
};

TEST_F(KytUnread, DamageIsFoundLaterAndNeverShown) {
    for (const damage& d : DAMAGES) {
        SCOPED_TRACE(d.what);
        logged::reset();
        std::string bytes = whole;
        d.change(&bytes);
        put(bytes);
        open();
        ASSERT_EQ(list->keeper->inherited, CLIPS);
        EXPECT_GT(shown(), 0U);
        ASSERT_TRUE(await_inspection(list));
        EXPECT_TRUE(list->distrusted);
        EXPECT_GT(shown(), CLIPS / 4);
        for (uint32_t i = 0; i < CLIPS; ++i) {
            const kyt_record* const record = kyt_get(list, ts_of(i));
            EXPECT_TRUE(!record || record->ts == ts_of(i));
        }
        EXPECT_EQ(logged::lines().size(), 1U);
        EXPECT_TRUE(logged::has(std::string("warning kyt: the list was closed in order, but ") + d.words +
                                ": the next maintenance writes it anew, marks may be lost"))
            << testing::PrintToString(logged::lines());
        close_list();
    }
}

// Whoever needs room deletes what a walk begins with: it must be old, and what lies elsewhere must not be hidden.
TEST_F(KytUnread, TheOldestIsTheOldestWhereverItsPageLies) {
    constexpr size_t PAGE = 4096;
    constexpr uint32_t IN_PAGE = PAGE / 8;
    const auto page = [](uint32_t number) { return static_cast<long>(PAGE + number * PAGE); };
    const struct {
        const char* what;
        std::function<void(std::string*)> change;
        uint32_t hidden;  // at most
    } rows[] = {
        {"the first page swapped with the last whole one",
         [&](std::string* b) {
             const uint32_t last = CLIPS / IN_PAGE - 1;
             std::swap_ranges(b->begin() + page(0), b->begin() + page(1), b->begin() + page(last));
         },
         8},
        {"a late sector in front",
         [&](std::string* b) { std::copy_n(b->begin() + page(1), SECTOR, b->begin() + page(0)); }, 64 + 8},
        {"the second sector swapped with a late one",
         [&](std::string* b) {
             std::swap_ranges(b->begin() + page(0) + SECTOR, b->begin() + page(0) + 2 * SECTOR, b->begin() + page(1));
         },
         8},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::string bytes = whole;
        row.change(&bytes);
        put(bytes);
        for (const bool inspected : {false, true}) {
            open();
            ASSERT_GT(list->order.unread, 0U) << "not read whole";
            if (inspected) {
                ASSERT_TRUE(await_inspection(list));
            }
            EXPECT_GE(shown(), CLIPS - row.hidden);
            const kyt_record* const first = kyt_next(list, nullptr);
            ASSERT_NE(first, nullptr);
            EXPECT_LE(first->ts, ts_of(row.hidden));
            kyt_close_dirty(list);
            list = nullptr;
            put(bytes);
        }
    }
}

TEST_F(KytUnread, MaintenanceMendsWhatWasFound) {
    for (const damage& d : DAMAGES) {
        SCOPED_TRACE(d.what);
        std::string bytes = whole;
        d.change(&bytes);
        put(bytes);
        open();
        ASSERT_TRUE(await_inspection(list));
        kyt_get(list, ts_of(1))->flags = KYT_PERSISTENT;  // it is carried over
        kyt_mark_deleted(list, kyt_get(list, ts_of(4)));
        const kyt_record late = kyt::live_record(BASE - 60, 7, 0);
        EXPECT_EQ(kyt_write(list, &late), 0);
        EXPECT_EQ(kyt_mark_deleted(list, kyt_get(list, BASE - 60)), 0);
        const kyt_record newest = kyt::live_record(ts_of(CLIPS), 7, 0);  // its files are not there yet
        EXPECT_EQ(kyt_write(list, &newest), 0);
        ASSERT_EQ(kyt_optimise(list), 0);
        for (int wait = 0; list->keeper->at != kyt::phase::DONE && wait < 100'000; ++wait) {
            usleep(100);
        }
        kyt_get(list, ts_of(7))->flags = KYT_PERSISTENT;  // behind the copying
        ASSERT_TRUE(mend(list));
        ASSERT_NE(kyt_get(list, ts_of(CLIPS)), nullptr);
        EXPECT_EQ(kyt_mark_deleted(list, kyt_get(list, ts_of(CLIPS))), 0);
        EXPECT_EQ(kyt_get(list, ts_of(7))->flags, KYT_PERSISTENT);
        if (!kyt_get(list, ts_of(200))) {  // a deleted one comes back with the next open only, as ever
            close_list();
            open();
        }
        const kyt_record again = kyt::live_record(ts_of(4), 60, 0);
        if (!kyt_get(list, ts_of(4))) {
            EXPECT_EQ(kyt_write(list, &again), 0);
        }
        EXPECT_TRUE(is_complete()) << testing::PrintToString(logged::lines());
        EXPECT_EQ(kyt_get(list, ts_of(1))->flags, KYT_PERSISTENT);
        uint32_t lost = 0;
        for (uint32_t i = 0; i < CLIPS; ++i) {
            lost += flags_of(i) != 0 && kyt_get(list, ts_of(i))->flags == 0 ? 1 : 0;
        }
        EXPECT_LE(lost, d.marks_lost);
        close_list();
        logged::reset();
        open();
        EXPECT_TRUE(is_complete());
        ASSERT_TRUE(await_inspection(list));
        EXPECT_FALSE(list->distrusted);
        EXPECT_TRUE(is_complete());
        close_list();
        logged::reset();
    }
}

TEST_F(KytUnread, ADistrustedListIsReadWholeTheNextTime) {
    std::string bytes = whole;
    noise_at(&bytes, at_slot(300), SECTOR, 6);
    put(bytes);
    open();
    ASSERT_TRUE(await_inspection(list));
    close_list();
    EXPECT_EQ(header().state, static_cast<uint32_t>(kyt::file_state::CLOSED));
    EXPECT_EQ(header().in_order, 0U);
    open();
    EXPECT_EQ(list->keeper->inherited, 0U);
    EXPECT_TRUE(is_complete());
}

TEST_F(KytUnread, AListThatIsNotInOrderDoesNotSayThatItIs) {
    open();
    ASSERT_TRUE(await_inspection(list));
    EXPECT_EQ(kyt_mark_deleted(list, kyt_get(list, ts_of(9))), 0);
    close_list();
    EXPECT_EQ(header().in_order, 0U) << "with a tombstone";
    put(whole);
    open();
    ASSERT_TRUE(await_inspection(list));
    const kyt_record late = kyt::live_record(BASE - 60, 7, 0);
    EXPECT_EQ(kyt_write(list, &late), 0);
    close_list();
    EXPECT_EQ(header().in_order, 0U) << "with one that came late";
}

TEST_F(KytUnread, WhatHasNotBeenReadThroughIsNotVouchedFor) {
    const int rounds = 40;
    int unread = 0;
    for (int round = 0; round < rounds; ++round) {
        put(whole);
        open();
        for (int spin = 0; spin < round * 20; ++spin) {
            sched_yield();
        }
        const bool dirty = round % 4 == 3;
        (dirty ? kyt_close_dirty : kyt_close)(list);
        list = nullptr;
        unread += !dirty && header().in_order == 0 ? 1 : 0;
        open();
        EXPECT_TRUE(is_complete());
        if (!dirty && list->keeper->inherited > 0) {
            EXPECT_TRUE(await_inspection(list));
        }
        close_list();
    }
    EXPECT_GT(unread, 0);  // the first ones end before the reading does
}

TEST_F(KytUnread, ChangesWhileItIsReadAreNoDamage) {
    for (int round = 0; round < 25; ++round) {
        put(whole);
        open();
        ASSERT_EQ(kyt_mark_deleted(list, kyt_get(list, ts_of(0))), 0);  // before the keeper gets there; stays deleted
        ASSERT_EQ(kyt_optimise(list), 0);                               // as the daemon does right after the open
        uint32_t next = CLIPS;
        for (uint32_t i = 0; !list->keeper->inspected; ++i) {
            const uint32_t ts = ts_of(1 + i * 37 % (CLIPS - 1));
            kyt_get(list, ts)->flags ^= KYT_PERSISTENT;
            const kyt_record record = *kyt_get(list, ts);
            ASSERT_EQ(kyt_mark_deleted(list, kyt_get(list, ts)), 0);
            if (i % 16 != 0) {
                ASSERT_EQ(kyt_write(list, &record), 0);
            } else {
                const kyt_record newest = kyt::live_record(ts_of(next++), 60, 0);
                ASSERT_EQ(kyt_write(list, &newest), 0);
                ASSERT_EQ(kyt_write(list, &record), 0);
                ASSERT_EQ(kyt_mark_deleted(list, kyt_get(list, newest.ts)), 0);
            }
        }
        ASSERT_TRUE(await_inspection(list));
        EXPECT_FALSE(list->distrusted) << testing::PrintToString(logged::lines());
        EXPECT_EQ(kyt_count(list), CLIPS - 1);
        EXPECT_EQ(all_ts(list).size(), CLIPS - 1);
        kyt_close_dirty(list);
        list = nullptr;
    }
}

TEST_F(KytUnread, TheFolderIsComparedBehindTheReading) {
    std::string bytes = whole;
    std::fill_n(bytes.begin() + static_cast<long>(at_slot(640)), SECTOR, '\0');
    put(bytes);
    open();
    ASSERT_EQ(kyt_optimise(list), 0);
    for (int wait = 0; list->keeper->at != kyt::phase::DONE && wait < 100'000; ++wait) {
        usleep(100);
    }
    EXPECT_TRUE(list->keeper->inspected);
    const kyt_record newest = kyt::live_record(ts_of(CLIPS), 60, 0);
    EXPECT_EQ(kyt_write(list, &newest), 0);
    EXPECT_NE(kyt_get(list, ts_of(650)), nullptr) << "what was destroyed is there from the folder";
}

TEST_F(KytUnread, ARepairReadsEverything) {
    std::string bytes = whole;
    noise_at(&bytes, at_slot(300), SECTOR, 7);
    put(bytes);
    EXPECT_EQ(kyt_repair(card.path().c_str()), 0);
    EXPECT_FALSE(logged::lines().empty());
    kyt_health health = {};
    EXPECT_EQ(kyt_check(card.path().c_str(), &health), 0);
    EXPECT_EQ(health.destroyed, 0U);
    EXPECT_EQ(health.records, CLIPS);
}

TEST_F(KytUnread, AMendingThatFailsIsTriedAgain) {
    std::string bytes = whole;
    noise_at(&bytes, at_slot(300), SECTOR, 8);
    put(bytes);
    open();
    ASSERT_TRUE(await_inspection(list));
    card_calls::fail("pwrite", 1, ENOSPC, 1000);
    EXPECT_FALSE(mend(list));
    EXPECT_TRUE(list->distrusted);
    card_calls::reset();
    EXPECT_TRUE(mend(list));
    EXPECT_TRUE(is_complete());
}

// Whatever lies in a list that was taken over unread: a walk is ascending, and comes to an end.
TEST(KytUnreadList, AWalkThroughAnythingEnds) {
    for (unsigned seed = 1; seed <= 3'000; ++seed) {
        std::mt19937 random(seed);
        kyt_record slots[64] = {};
        const uint32_t count = 4 + random() % 40;
        for (uint32_t i = 0; i < count; ++i) {
            slots[i] = kyt::live_record(1 + random() % 100, 60, 0);
            if (random() % 8 == 0) {
                slots[i].reserved[0] = 99;
            }
        }
        kyt::list l;
        kyt::list_take_unread(&l, slots, count);
        for (uint32_t more = random() % 10; more > 0; --more) {
            const kyt_record record = kyt::live_record(1 + random() % 100, 60, 0);
            if (kyt::list_find(l, record.ts) == kyt::list::NONE) {
                ASSERT_TRUE(kyt::list_append(&l, record));
            }
        }
        uint32_t last = 0;
        for (uint32_t at = kyt::list_next(l, kyt::list::NONE); at != kyt::list::NONE; at = kyt::list_next(l, at)) {
            ASSERT_TRUE(kyt::is_live(slots[at])) << seed;
            ASSERT_GT(slots[at].ts, last) << seed;
            last = slots[at].ts;
        }
    }
}

TEST(KytUnreadList, ARecordWrittenOverADestroyedOneIsCountedOnce) {
    kyt_record slots[8] = {};
    for (uint32_t i = 0; i < 4; ++i) {
        slots[i] = kyt::live_record(10 * (i + 1), 60, 0);
    }
    slots[2].reserved[0] = 99;
    kyt::list l;
    kyt::list_take_unread(&l, slots, 4);
    ASSERT_TRUE(kyt::list_revive(&l, 2, kyt::live_record(30, 60, 0)));
    EXPECT_EQ(l.live, 4U);
    kyt::list_delete(&l, 2, 1);
    EXPECT_TRUE(kyt::list_may_have_deleted(l, 2));
    EXPECT_FALSE(kyt::list_may_have_deleted(l, 1));
    ASSERT_TRUE(kyt::list_revive(&l, 2, kyt::live_record(30, 60, 0)));
    EXPECT_EQ(l.live, 4U);
}

TEST(KytUnreadList, TheTableSaysWhatTheCheckSays) {
    const kyt::check_table table;
    std::mt19937 random(1);
    for (int i = 0; i < 20'000; ++i) {
        kyt_record record =
            kyt::live_record(1 + static_cast<uint32_t>(random()) / 2, static_cast<uint8_t>(random()), 1);
        if (i % 2 == 0) {
            record = kyt::deleted_record(record, static_cast<uint8_t>(random()));
        }
        ASSERT_EQ(kyt::slot_kind(record, table), i % 2 == 0 ? kyt::slot::DELETED : kyt::slot::LIVE);
        reinterpret_cast<uint8_t*>(&record)[random() % 6] ^= static_cast<uint8_t>(1U << random() % 8);
        ASSERT_EQ(kyt::slot_kind(record, table), kyt::slot_kind(record));
    }
    EXPECT_EQ(kyt::slot_kind({}, table), kyt::slot::FREE);
}

}  // namespace
