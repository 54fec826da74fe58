// A look from outside, at a list in use or at a copy of a card; what it reports, and a repair by hand.
#include <atomic>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "folder.h"
#include "support/kyt_rig.h"

namespace {

using namespace kyt_rig;
using libc_calls::called;

PROMISES("kyt", "A look from outside");

constexpr uint32_t FEW = 5;

uint32_t nth(uint32_t clip) {
    return BASE + 60 * clip;
}

struct KytLook : rig {
    void SetUp() override {
        rig::SetUp();
        open();
        for (uint32_t clip = 0; clip < FEW; ++clip) {
            card.add_clip(nth(clip));
            ASSERT_EQ(add(nth(clip), 60), 0);
        }
        close();
        whole = card.bytes(LIST);
    }
    // All that is not zero, with its name; or why the look has failed.
    std::string looked() const {
        kyt_health h = {};
        h.records = 4711;
        if (kyt_check(card.path().c_str(), &h) < 0) {
            EXPECT_EQ(h.records, 4711U);
            return std::strerror(errno);
        }
        std::string text = h.list;
        const struct {
            const char* name;
            uint32_t value;
        } VALUES[] = {{"header_damaged", h.header_damaged},
                      {"other_version", h.other_version},
                      {"open", h.open},
                      {"other_byte_order", h.other_byte_order},
                      {"wrong_size", h.wrong_size},
                      {"out_of_order", h.out_of_order},
                      {"card", h.card},
                      {"volume", h.volume},
                      {"records", h.records},
                      {"deleted", h.deleted},
                      {"destroyed", h.destroyed},
                      {"unreadable", h.unreadable},
                      {"twice", h.twice},
                      {"clips", h.clips},
                      {"clips_not_listed", h.clips_not_listed},
                      {"records_without_clip", h.records_without_clip},
                      {"undeleted", h.undeleted}};
        for (const auto& [name, value] : VALUES) {
            text += value == 0 ? "" : std::string(" ") + name + (value == 1 ? "" : " " + std::to_string(value));
        }
        return text;
    }
    std::string looked_at(const std::string& bytes) const {
        card.set_bytes(LIST, bytes);
        return looked();
    }
    // How many clips a copy of the list has, or why there is none.
    std::string copied() const {
        kyt_handle* const look = kyt_open_rdonly(card.path().c_str());
        std::string result = look ? std::to_string(all_ts(look).size()) : std::strerror(errno);
        EXPECT_EQ(kyt_count(look), all_ts(look).size());
        kyt_close(look);
        return result;
    }
    std::string whole;
};

TEST_F(KytLook, AtAListInUse) {
    PROMISE("a tool looks at a list in use",
            "it sees what is alive, once and ascending, and changes nothing; writing fails with EROFS");
    open();
    add_many(BASE + 10'000, 2'000);
    kyt_get(list, BASE + 10'007)->flags = KYT_PERSISTENT;
    ASSERT_EQ(add(BASE - 60, 44), 0);
    remove(nth(1));
    ASSERT_TRUE(kyt::settle(list));
    const std::string before = card.bytes(LIST);
    kyt_handle* look = kyt_open_rdonly(card.path().c_str());
    ASSERT_NE(look, nullptr);
    EXPECT_EQ(kyt_count(look), FEW + 2'000U);
    EXPECT_EQ(kyt_get(look, BASE + 10'007)->flags, KYT_PERSISTENT);
    EXPECT_EQ(kyt_record_seconds(kyt_next(look, nullptr)), 44U);
    EXPECT_EQ(kyt_get(look, nth(1)), nullptr);
    EXPECT_EQ(all_ts(look), all_ts(list));
    const kyt_record record = record_of(BASE + 1);
    for (int call = 0; call < 3; ++call) {
        errno = 0;
        EXPECT_EQ(call == 0   ? kyt_write(look, &record)
                  : call == 1 ? kyt_mark_deleted(look, kyt_next(look, nullptr))
                              : kyt_optimise(look),
                  -1);
        EXPECT_EQ(errno, EROFS);
    }
    kyt_close(look);
    look = kyt_open_rdonly(card.path().c_str());
    kyt_close_dirty(look);
    EXPECT_TRUE(card.bytes(LIST) == before);
    EXPECT_EQ(looked(), "KYT.LST open records 2005 deleted clips 5 records_without_clip 2001 undeleted");
}

TEST_F(KytLook, WhereThereIsNoList) {
    PROMISE("there is no folder or no list, or none that can be read", "ENOENT or ENOTDIR, or EBADMSG");
    card.set_bytes(LIST, "rubbish");
    EXPECT_EQ(copied(), "Bad message");
    card.set_bytes(LIST, with_header(whole, [](kyt::list_header* h) { h->version = 2; }));
    EXPECT_EQ(copied(), "Bad message");
    std::filesystem::remove(card.file(LIST));
    EXPECT_EQ(copied(), "No such file or directory");
    card.set_bytes("file", "");
    for (const auto& [path, errnum] :
         {std::pair{std::string("/no/such/folder"), ENOENT}, {card.file("file"), ENOTDIR}}) {
        EXPECT_EQ(kyt_open_rdonly(path.c_str()), nullptr);
        EXPECT_EQ(errno, errnum);
        kyt_health health = {};
        EXPECT_EQ(kyt_check(path.c_str(), &health), -1);
        EXPECT_EQ(errno, errnum);
        EXPECT_EQ(kyt_repair(path.c_str()), -1);
        EXPECT_EQ(errno, errnum);
    }
    for (int kind = 0; kind < 3; ++kind) {  // and is not waited for
        std::filesystem::remove(card.file(LIST));
        card.set_bytes("file", whole);
        if (kind == 0) {
            ASSERT_EQ(mkfifo(card.file(LIST).c_str(), 0600), 0);
        } else if (kind == 1) {
            std::filesystem::create_symlink(card.file("file"), card.file(LIST));
        } else {
            std::filesystem::create_directory(card.file(LIST));
        }
        EXPECT_EQ(copied(), "Bad message") << kind;
        EXPECT_EQ(looked(), " header_damaged clips 5 clips_not_listed 5") << kind;
    }
}

TEST_F(KytLook, AtAWholeList) {
    PROMISE("a whole list is checked", "nothing is reported");
    EXPECT_EQ(looked(), "KYT.LST records 5 clips 5");
    open();
    EXPECT_EQ(looked(), "KYT.LST open records 5 clips 5");
}

TEST_F(KytLook, EachFaultHasItsNameAndNumber) {
    PROMISE(
        "a folder is checked",
        "each fault is told by its name and number: open, wrong size, another card, deleted and still there, "
        "destroyed, unreadable, twice, not listed, without a clip, other byte order, other version, damaged header");
    const auto slot_is = [&](uint32_t slot, const kyt_record& record) { return with_record(whole, slot, record); };
    const kyt_record live = record_at(whole, 1);
    const kyt_record deleted = kyt::deleted_record(live);
    kyt_record broken = record_at(whole, 2);
    broken.ts += 1;
    const std::string rest = " clips 5 clips_not_listed 5";
    const struct {
        std::string bytes;
        std::string report;
    } ROWS[] = {
        {whole + "x", "KYT.LST wrong_size records 5 clips 5"},
        {slot_is(FEW, kyt::live_record(nth(FEW), 60, 0)), "KYT.LST wrong_size records 6 clips 5 records_without_clip"},
        {slot_is(FEW - 1, {}), "KYT.LST wrong_size records 4 clips 5 clips_not_listed"},
        {slot_is(2, broken), "KYT.LST records 4 destroyed clips 5 clips_not_listed"},
        {slot_is(2, {}), "KYT.LST records 4 destroyed clips 5 clips_not_listed"},
        {slot_is(2, live), "KYT.LST records 4 twice clips 5 clips_not_listed"},
        {slot_is(2, deleted), "KYT.LST records 4 deleted twice clips 5 clips_not_listed"},
        {with_record(slot_is(1, deleted), 2, live), "KYT.LST records 4 deleted twice clips 5 clips_not_listed"},
        {slot_is(1, deleted), "KYT.LST records 4 deleted clips 5 undeleted"},
        {with_record(slot_is(0, record_at(whole, 4)), 4, record_at(whole, 0)), "KYT.LST records 5 clips 5"},
        {of_other_order(whole), "KYT.LST other_byte_order records 5 clips 5"},
        {with_header(whole, [](kyt::list_header* h) { h->card = 1234; }), "KYT.LST card 1234 records 5 clips 5"},
        {with_header(whole, [](kyt::list_header* h) { h->state = 2; }), "KYT.LST open records 5 clips 5"},
        {with_header(whole, [](kyt::list_header* h) { h->version = 2; }), " other_version" + rest},
        {std::string(whole.size(), '\0'), " header_damaged" + rest},
        {"", " header_damaged" + rest},
        {whole, "KYT.LST records 5 clips 5"},
    };
    for (const auto& row : ROWS) {
        EXPECT_EQ(looked_at(row.bytes), row.report);
        EXPECT_TRUE(card.bytes(LIST) == row.bytes);
    }
    libc_calls::set_volume(77);
    EXPECT_EQ(looked_at(whole), "KYT.LST volume 77 records 5 clips 5");
    libc_calls::set_volume(0);
    libc_calls::before("pread", [](const called& c) { return c.offset == kyt::RECORDS_AT ? EIO : 0; });
    EXPECT_NE(looked().find(" unreadable"), std::string::npos) << looked();
    libc_calls::before("pread", [](const called& c) { return c.offset == 0 ? EIO : 0; });
    EXPECT_EQ(looked(), " header_damaged" + rest);
}

TEST_F(KytLook, ClipsAndRecordsThatHaveNoOther) {
    PROMISE("clips have no record or records no clip, wherever they are", "all of them are counted");
    card.add_clip(nth(0) - 7200);
    card.add_clip(nth(2) + 1);
    EXPECT_EQ(looked(), "KYT.LST records 5 clips 7 clips_not_listed 2");
    card.add_clip(nth(FEW));
    card.add_clip(nth(FEW) + 7200);
    EXPECT_EQ(looked(), "KYT.LST records 5 clips 9 clips_not_listed 4");
    for (const uint32_t ts : {nth(0) - 7200, nth(2) + 1, nth(FEW), nth(FEW) + 7200, nth(0), nth(2), nth(4)}) {
        card.remove_clip(ts);
    }
    EXPECT_EQ(looked(), "KYT.LST records 5 clips 2 records_without_clip 3");
    card.remove_clip(nth(1));
    card.remove_clip(nth(3));
    EXPECT_EQ(looked(), "KYT.LST records 5 records_without_clip 5");
}

TEST_F(KytLook, ALookThatFailsSaysWhy) {
    PROMISE("a check or a look fails, wherever", "it says why, its output untouched, and nothing stays open");
    const size_t descriptors = open_descriptors();
    for (const char* call : {"open", "fdopendir", "readdir", "mmap", "malloc", "realloc"}) {
        for (const bool check : {true, false}) {
            for (int n = 1, happened = 1; happened != 0; ++n) {
                const int errnum = call[0] == 'm' || call[0] == 'r' ? ENOMEM : EIO;
                libc_calls::fail(call, n, errnum);
                const std::string result = check ? looked() : copied();
                happened = libc_calls::failed() ? 1 : 0;
                libc_calls::stop_failing();
                const std::string well = check ? "KYT.LST records 5 clips 5" : "5";
                EXPECT_EQ(result, happened != 0 ? std::strerror(errnum) : well) << call << n;
                EXPECT_EQ(open_descriptors(), descriptors) << call << n;
            }
        }
    }
    std::string name = std::filesystem::path(card.clip(BASE)).parent_path().filename();
    for (const int errnum : {EIO, EACCES, EMFILE}) {
        libc_calls::before("openat", [&](const called& c) { return c.name == name ? errnum : 0; });
        EXPECT_EQ(looked(), std::strerror(errnum));
    }
    libc_calls::before("openat", [&](const called& c) { return c.name == name ? ENOENT : 0; });
    EXPECT_EQ(looked(), "KYT.LST records 5 records_without_clip 5") << "an hour that goes meanwhile has no clips";
}

TEST_F(KytLook, NothingItOpensIsInheritedOrLeftOpen) {
    PROMISE("a look or an opening opens anything", "it is close-on-exec, and closed again");
    PROMISE("standard input is closed", "descriptor 0 is used like any other, and closed");
    std::atomic<int> inheritable = 0;
    for (const char* call : {"open", "openat"}) {
        libc_calls::before(call, [&](const called& c) {
            inheritable += (c.flags & O_CLOEXEC) == 0 ? 1 : 0;
            return 0;
        });
    }
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    const size_t descriptors = open_descriptors();
    ::close(STDIN_FILENO);
    EXPECT_EQ(looked(), "KYT.LST records 5 clips 5");
    EXPECT_EQ(copied(), "5");
    open();
    EXPECT_EQ(kyt_count(list), FEW);
    optimise();
    close_dirty();
    EXPECT_EQ(kyt_repair(card.path().c_str()), 0);
    card.set_bytes(LIST, std::string(whole.size(), '\0'));
    EXPECT_EQ(kyt_repair(card.path().c_str()), 0);
    EXPECT_EQ(looked(), "KYT.LST records 5 clips 5");
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "it is left open";
    if (input >= 0) {
        dup2(input, STDIN_FILENO);
        ::close(input);
    }
    EXPECT_LE(open_descriptors(), descriptors);
    EXPECT_EQ(inheritable, 0);
}

TEST_F(KytLook, WhereAFolderDoesNotTellTypesTheNamesDecide) {
    PROMISE("the filesystem tells no types", "the names decide");
    libc_calls::after("readdir", [](const called&, intptr_t entry) {
        if (entry != 0) {
            dirent* read = nullptr;
            std::memcpy(&read, &entry, sizeof entry);
            read->d_type = DT_UNKNOWN;
        }
    });
    card.set_bytes("2026092213", "a file with an hour's name");
    EXPECT_EQ(looked(), "KYT.LST records 5 clips 5");
    card.add_clip(nth(FEW));
    open();
    close_dirty();
    open();
    EXPECT_EQ(kyt_count(list), FEW + 1);
}

TEST_F(KytLook, ThereIsALimitToTheHours) {
    PROMISE("there are more hours than seven years have", "EFBIG, and no more than the limit are taken");
    const int folder = ::open(card.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    card.add_clip(BASE + 3600);
    kyt::array<uint32_t> periods;
    for (uint32_t i = 0; i < kyt::MAX_PERIODS - 1; ++i) {
        periods.push(i);
    }
    EXPECT_EQ(kyt::folder_periods(folder, &periods), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(periods.size, kyt::MAX_PERIODS);
    periods.size -= 2;
    EXPECT_EQ(kyt::folder_periods(folder, &periods), 0);
    EXPECT_EQ(periods.size, kyt::MAX_PERIODS);
    ::close(folder);
}

TEST_F(KytLook, ARepairByHandLeavesAWholeList) {
    PROMISE("a folder is repaired by hand", "its list is whole and cleanly closed afterwards");
    for (const std::string& bytes :
         {std::string(whole.size(), '\0'), whole.substr(0, 5000), of_other_order(whole), whole}) {
        card.set_bytes(LIST, bytes);
        EXPECT_EQ(kyt_repair(card.path().c_str()), 0);
        EXPECT_EQ(looked(), "KYT.LST records 5 clips 5");
    }
    std::filesystem::remove(card.file(LIST));
    EXPECT_EQ(kyt_repair(card.path().c_str()), 0);
    EXPECT_EQ(looked(), "KYT.LST records 5 clips 5");
}

TEST_F(KytLook, AListThatChangesDuringALook) {
    PROMISE("a list changes while it is looked at", "each clip that is alive all the time is there once");
    open();
    add_many(BASE + 10'000, 30'000);
    ASSERT_TRUE(kyt::settle(list));
    uint32_t newest = BASE + 40'000;
    int reads = 0;
    const pthread_t self = pthread_self();
    libc_calls::before("pread", [&](const called&) {
        if (pthread_equal(self, pthread_self()) != 0 && ++reads % 2 == 0) {
            EXPECT_EQ(add(newest++), 0);
            EXPECT_EQ(kyt_mark_deleted(list, kyt_get(list, BASE + 10'000 + static_cast<uint32_t>(reads))), 0);
            EXPECT_TRUE(kyt::settle(list));
        }
        return 0;
    });
    kyt_handle* const look = kyt_open_rdonly(card.path().c_str());
    libc_calls::before("pread", {});
    ASSERT_NE(look, nullptr);
    uint32_t last = 0;
    uint32_t found = 0;
    for (const kyt_record* r = kyt_next(look, nullptr); r; r = kyt_next(look, r)) {
        EXPECT_GT(r->ts, last);
        last = r->ts;
        found += r->ts >= BASE + 20'000 && r->ts < BASE + 40'000 ? 1 : 0;
    }
    EXPECT_EQ(found, 20'000U);
    EXPECT_GE(reads, 4);
    kyt_close(look);
}

}  // namespace
