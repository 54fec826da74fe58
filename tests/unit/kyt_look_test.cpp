// Looks at a list from outside, when the card or the machine refuses something or the list is replaced meanwhile.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "folder.h"
#include "format.h"
#include "kyt_rdonly.h"
#include "load.h"
#include "record.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t HOUR = 1'790'002'800;
constexpr uint32_t CLIPS = 20;  // more than an array has room for at first
constexpr const char* LIST = "KYT_A.LST";
constexpr const char* OTHER = "KYT_B.LST";

// The C library, as each test wants it.
struct {
    std::string failing;  // this call fails,
    int nth = 0;          // counted from 1 down,
    int errnum = 0;
    bool closing_fails = false;
    bool types_are_told = true;
    std::function<void(const std::string& name)> before_open;
    std::set<int> open;  // descriptors of files and folders that were opened meanwhile
    int inheritable = 0;
} libc;

bool fails(const char* call) {
    if (libc.failing != call || --libc.nth != 0) {
        return false;
    }
    errno = libc.errnum;
    return true;
}

int opened(int fd, int flags) {
    if (fd >= 0) {
        libc.open.insert(fd);
        libc.inheritable += (flags & O_CLOEXEC) != 0 ? 0 : 1;
    }
    return fd;
}

}  // namespace

extern "C" {

int __real_open64(const char*, int, ...);
int __real_openat64(int, const char*, int, ...);
int __real_close(int);
DIR* __real_fdopendir(int);
dirent* __real_readdir64(DIR*);
int __real_closedir(DIR*);
void* __real_malloc(size_t);
void* __real_realloc(void*, size_t);

int __wrap_open64(const char* path, int flags, ...) {
    return opened(__real_open64(path, flags), flags);
}
int __wrap_openat64(int folder, const char* name, int flags, ...) {
    if (libc.before_open) {
        libc.before_open(name);
    }
    return opened(__real_openat64(folder, name, flags, 0644), flags);
}
int __wrap_close(int fd) {
    libc.open.erase(fd);
    const int result = __real_close(fd);
    if (libc.closing_fails) {
        errno = EIO;
        return -1;
    }
    return result;
}
DIR* __wrap_fdopendir(int fd) {
    return fails("fdopendir") ? nullptr : __real_fdopendir(fd);
}
dirent* __wrap_readdir64(DIR* stream) {
    if (fails("readdir")) {
        return nullptr;
    }
    dirent* const entry = __real_readdir64(stream);
    if (entry && !libc.types_are_told) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}
int __wrap_closedir(DIR* stream) {
    libc.open.erase(dirfd(stream));
    const int result = __real_closedir(stream);
    if (libc.closing_fails) {
        errno = EIO;
        return -1;
    }
    return result;
}
void* __wrap_malloc(size_t size) {
    return fails("memory") ? nullptr : __real_malloc(size);
}
void* __wrap_realloc(void* old, size_t size) {
    return fails("memory") ? nullptr : __real_realloc(old, size);
}

}  // extern "C"

namespace {

uint32_t ts_of(uint32_t clip) {
    return HOUR + 60 * clip;
}

struct KytLook : testing::Test {
    void SetUp() override {
        libc = {};
        for (uint32_t clip = 0; clip < CLIPS; ++clip) {
            card.add_clip(ts_of(clip));
        }
        write_list(LIST, 1, CLIPS);
        whole = card.bytes(LIST);
        libc = {};
    }
    ~KytLook() override {
        libc = {};
        close(folder);
    }
    KytLook() = default;
    KytLook(const KytLook&) = delete;
    KytLook& operator=(const KytLook&) = delete;

    // With the first `clips` of all clips, the whole row of them so many times.
    void write_list(const char* name, uint32_t generation, uint32_t clips, uint32_t times = 1) const {
        kyt::list_writer writer;
        ASSERT_EQ(kyt::writer_begin(&writer, folder, name, generation), 0);
        for (uint32_t clip = 0; clip < clips * times; ++clip) {
            ASSERT_EQ(kyt::writer_put(&writer, kyt::live_record(ts_of(clip % clips), 60, 0)), 0);
        }
        ASSERT_EQ(kyt::writer_end(&writer, false), 0);
        ASSERT_EQ(kyt::header_seal(writer.fd, generation, kyt::file_state::CLOSED, clips * times), 0);
        close(writer.fd);
    }
    void make_fail(const char* call, int nth, int errnum) const {
        libc.failing = call;
        libc.nth = nth;
        libc.errnum = errnum;
    }
    // The number of records in a copy of the list, or "errno".
    std::string copied() const {
        kyt_handle* const look = kyt_open_rdonly(card.path().c_str());
        if (!look) {
            return std::strerror(errno);
        }
        const std::vector<uint32_t> found = all_ts(look);
        EXPECT_EQ(kyt_count(look), found.size());
        kyt_close(look);
        return std::to_string(found.size());
    }
    std::string checked() const {
        kyt_health health = {};
        health.records = 4711;
        if (kyt_check(card.path().c_str(), &health) < 0) {
            EXPECT_EQ(health.records, 4711U);
            return std::strerror(errno);
        }
        return std::to_string(health.records) + " of " + health.list + ", " + std::to_string(health.clips) + " clips";
    }

    recordings card;
    int folder = open(card.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    std::string whole;
};

TEST_F(KytLook, AListThatIsReplacedMeanwhileIsFoundAtAnotherLook) {
    int looks = 0;
    libc.before_open = [&](const std::string& name) {
        if (name != LIST) {
            return;
        }
        ++looks;
        if (looks == 1) {
            std::filesystem::remove(card.file(LIST));
        } else {
            card.set_bytes(LIST, looks == 2 ? std::string(whole.size(), '\0') : whole);
        }
    };
    EXPECT_EQ(copied(), std::to_string(CLIPS));
    EXPECT_EQ(looks, 3);
}

TEST_F(KytLook, WhereThereIsNoListThreeLooksSaySo) {
    int looks = 0;
    libc.before_open = [&](const std::string& name) { looks += name == LIST ? 1 : 0; };
    card.set_bytes(LIST, std::string(whole.size(), '\0'));
    EXPECT_EQ(copied(), "Bad message");
    EXPECT_EQ(looks, 3);
    std::filesystem::remove(card.file(LIST));
    EXPECT_EQ(copied(), "No such file or directory");
    EXPECT_EQ(looks, 6);
    // One that is no list, whichever it is, is more than none.
    card.set_bytes(OTHER, "x");
    EXPECT_EQ(copied(), "Bad message");
    EXPECT_EQ(kyt_open_rdonly("/no/such/folder"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    // A file is no folder without a list.
    EXPECT_EQ(kyt_open_rdonly(card.file(OTHER).c_str()), nullptr);
    EXPECT_EQ(errno, ENOTDIR);
    kyt_health health = {};
    EXPECT_EQ(kyt_check(card.file(OTHER).c_str(), &health), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(KytLook, WithoutMemoryItFailsWhole) {
    const std::function<std::string()> looks[] = {[&] { return copied(); }, [&] { return checked(); }};
    for (const auto& look : looks) {
        libc.failing.clear();
        const std::string well = look();
        int refused = 0;
        for (int nth = 1;; ++nth) {
            make_fail("memory", nth, ENOMEM);
            const std::string end = look();
            EXPECT_TRUE(libc.open.empty()) << nth;
            if (libc.nth > 0) {
                EXPECT_EQ(end, well);
                break;
            }
            EXPECT_EQ(end, "Cannot allocate memory") << nth;
            ++refused;
        }
        EXPECT_GE(refused, 4);  // the records of the file take two pieces, what is made of them two more
    }
}

TEST_F(KytLook, AFolderThatCannotBeReadToTheEndFailsTheCheck) {
    // The folder itself and its one period, at their beginnings and within.
    for (const char* call : {"fdopendir", "readdir"}) {
        for (int nth = 1;; ++nth) {
            make_fail(call, nth, EIO);
            const std::string end = checked();
            EXPECT_TRUE(libc.open.empty()) << call << nth;
            if (libc.nth > 0) {
                EXPECT_EQ(end, "20 of KYT_A.LST, 20 clips");
                EXPECT_GE(nth, 3);
                break;
            }
            EXPECT_EQ(end, "Input/output error") << call << nth;
        }
    }
}

TEST_F(KytLook, WhatWasReadOfAFolderUntilAnErrorIsThere) {
    kyt::array<uint32_t> clips;
    make_fail("readdir", 30, EIO);  // of 40 files and two entries more
    EXPECT_EQ(kyt::folder_clips(folder, HOUR, &clips), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_GE(clips.size, 7U);
    EXPECT_LT(clips.size, CLIPS);
}

TEST_F(KytLook, TheReasonOfAFailureOutlivesClosing) {
    libc.closing_fails = true;
    EXPECT_EQ(checked(), "20 of KYT_A.LST, 20 clips");
    EXPECT_EQ(copied(), std::to_string(CLIPS));
    for (const char* call : {"fdopendir", "readdir", "memory"}) {
        make_fail(call, 1, ENOMEM);
        EXPECT_EQ(checked(), "Cannot allocate memory") << call;
    }
    make_fail("memory", 1, ENOMEM);
    EXPECT_EQ(copied(), "Cannot allocate memory");
    std::filesystem::remove(card.file(LIST));
    EXPECT_EQ(copied(), "No such file or directory");
}

TEST_F(KytLook, NothingItOpensIsInheritedOrLeftOpen) {
    EXPECT_EQ(checked(), "20 of KYT_A.LST, 20 clips");
    EXPECT_EQ(copied(), std::to_string(CLIPS));
    EXPECT_EQ(libc.inheritable, 0);
    EXPECT_TRUE(libc.open.empty());
}

TEST_F(KytLook, WhereAFolderDoesNotTellTypesTheNamesDecide) {
    libc.types_are_told = false;
    card.set_bytes("2026092213", "a file with a period's name");
    EXPECT_EQ(checked(), "20 of KYT_A.LST, 20 clips");
}

TEST_F(KytLook, ALinkIsNeitherAListNorAPeriod) {
    const std::string aside = card.path() + "/../aside";
    std::filesystem::rename(card.file(LIST), aside);
    std::filesystem::create_symlink(aside, card.file(LIST));
    EXPECT_EQ(copied(), "Bad message");
    const std::string period = std::filesystem::path(card.clip(HOUR)).parent_path();
    std::filesystem::rename(period, aside + "2");
    std::filesystem::create_directory_symlink(aside + "2", period);
    kyt::array<uint32_t> clips;
    EXPECT_EQ(kyt::folder_clips(folder, HOUR, &clips), 0);
    EXPECT_EQ(clips.size, 0U);
}

TEST_F(KytLook, APipeUnderTheListsNameIsNotWaitedFor) {
    ASSERT_EQ(mkfifo(card.file(OTHER).c_str(), 0600), 0);
    EXPECT_EQ(copied(), std::to_string(CLIPS));
    std::filesystem::remove(card.file(LIST));
    EXPECT_EQ(copied(), "Bad message");
}

TEST_F(KytLook, AClipIsThereOnceHoweverOftenItIsListed) {
    for (const uint32_t clips : {1U, 2U, CLIPS}) {
        write_list(LIST, 1, clips, 50);
        EXPECT_EQ(copied(), std::to_string(clips));
        EXPECT_EQ(checked(), std::to_string(clips) + " of KYT_A.LST, 20 clips");
    }
}

TEST_F(KytLook, OfTwoListsTheOneOfTheHigherGenerationCounts) {
    write_list(OTHER, 2, 3);
    EXPECT_EQ(checked(), "3 of KYT_B.LST, 20 clips");
    EXPECT_EQ(copied(), "3");
    write_list(LIST, 3, 4);
    EXPECT_EQ(checked(), "4 of KYT_A.LST, 20 clips");
    EXPECT_EQ(copied(), "4");
    write_list(OTHER, 3, 3);
    EXPECT_EQ(checked(), "4 of KYT_A.LST, 20 clips");
}

}  // namespace
