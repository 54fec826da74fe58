// The recordings folder: opening and closing, the table of periods, and new clips.
#include "records.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "main.h"
#include "support/promise.h"
#include "support/records_rig.h"

namespace {

constexpr char FIRST[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO/2026112101";
constexpr char SECOND[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO/2026112102";

std::string in(const char* directory, const char* name) {
    return std::string(directory) + "/" + name;
}

void write_bytes(const std::string& path, size_t bytes) {
    kernel::write(path, std::string(bytes, 'x'));
}

// Sets a directory's modification time, which a file made in the same second would leave as it is.
void set_mtime(const char* path, time_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, kernel::host(path).c_str(), times, 0));
}

void announce(const char* text) {
    rig::get().announce(nullptr, text, text == nullptr ? 0 : strlen(text));
}

void fire(ev_timer* timer) {
    ev_invoke(EV_DEFAULT, timer, EV_TIMER);
}

class records : public rig::test {
  protected:
    // Opens and forgets what was seen of it.
    static void open() {
        record_dir_open();
        ASSERT_TRUE(rig::get().is_open);
        forget();
    }
    static void forget() {
        rig::get().calls.clear();
        logged::reset();
        kernel::forget_calls();
    }
    // The state that every failed open must leave.
    void expect_closed(int descriptors) {
        EXPECT_FALSE(rig::get().is_open);
        EXPECT_EQ(descriptors, rig::open_descriptors());
        EXPECT_EQ(0U, record_dir_size());
        for (ev_timer* timer : {rig::get().rescan, rig::get().optimise}) {
            EXPECT_TRUE(timer == nullptr || !ev_is_active(timer));
        }
        forget();
        announce("17");
        EXPECT_EQ(strings{"warning The kyt is currently unusable, 17 lost!"}, logged::lines());
    }
};

// --- init and exit ---------------------------------------------------------------------------------------------------

PROMISES("records", "Start and stop");

TEST_F(records, init_installs_the_guard_and_subscribes) {
    PROMISE("the recordings start",
            "the bus-fault handler is installed without extra signal information and without a mask, \"sdcard_kyt\" is "
            "subscribed with a null context, no timer runs");
    PROMISES("main");
    PROMISE("the recordings start",
            "SIGBUS leads to the guard, with an empty mask and without the extended information");
    struct sigaction action = {};
    sigaction(SIGBUS, nullptr, &action);
    EXPECT_EQ(on_sigbus, action.sa_sigaction);
    for (const int flag : {SA_SIGINFO, SA_NODEFER, SA_RESTART, SA_NOCLDSTOP, SA_NOCLDWAIT}) {
        EXPECT_EQ(0, action.sa_flags & flag);
    }
    // Whose bits do not fit a signed number everywhere.
    EXPECT_EQ(0U, static_cast<unsigned>(action.sa_flags) & static_cast<unsigned>(SA_RESETHAND));
    EXPECT_EQ(0U, static_cast<unsigned>(action.sa_flags) & static_cast<unsigned>(SA_ONSTACK));
    for (int signum = 1; signum < NSIG; ++signum) {
        EXPECT_NE(1, sigismember(&action.sa_mask, signum)) << signum;
    }
    EXPECT_TRUE(rig::get().was_guard_installed) << "before anything else";
    EXPECT_EQ(strings{"kv_register mem default sdcard_kyt"}, rig::get().calls);
    EXPECT_EQ(nullptr, rig::get().announce_context);
    EXPECT_EQ(0, rig::get().timer_starts);
    EXPECT_EQ(strings{}, logged::lines());
}

TEST_F(records, init_goes_on_without_the_subscription) {
    PROMISE("the subscription fails", "\"kv_register: %s\", and everything else works");
    rig::get().kv_errno = ENOMEM;
    EXPECT_EQ(0, records_init());
    EXPECT_EQ(strings{"crit kv_register: Cannot allocate memory"}, logged::lines());
    open();
}

TEST_F(records, exit_closes_in_order) {
    PROMISE("the recordings stop", "the list is closed in order, the folder too, and both locks are destroyed");
    const int descriptors = rig::open_descriptors();
    open();
    records_exit();
    EXPECT_EQ(strings{"kyt_close"}, rig::get().calls);
    expect_closed(descriptors);
}

PROMISES("main");

TEST_F(records, exit_leaves_the_guard) {
    PROMISE("the recordings stop", "the guard stays in place");
    records_exit();
    struct sigaction action = {};
    sigaction(SIGBUS, nullptr, &action);
    EXPECT_EQ(on_sigbus, action.sa_sigaction);
}

// --- opening ---------------------------------------------------------------------------------------------------------

PROMISES("records", "Opening and closing the folder");

TEST_F(records, opens_a_card_with_the_folder) {
    PROMISE("a card has the folder",
            "list opened and maintained, whatever maintenance says, two lines of info, a rescan in 12 h and "
            "maintenance in 30 min, each again after as long");
    kernel::make_dir(RECORD_DIR);
    rig::get().calls.clear();
    record_dir_open();
    EXPECT_EQ((strings{"kyt_open_rdwr", "kyt_optimise"}), rig::get().calls);
    EXPECT_EQ((strings{"info Open record msg...", "info The record msg load successfully\n"}), logged::lines());
    EXPECT_EQ(0, kernel::count("mkdir"));
    ASSERT_NE(nullptr, rig::get().rescan);
    ASSERT_NE(nullptr, rig::get().optimise);
    EXPECT_DOUBLE_EQ(43200, rig::get().rescan->repeat);
    EXPECT_NEAR(43200, rig::remaining_s(rig::get().rescan), 5);
    EXPECT_DOUBLE_EQ(1800, rig::get().optimise->repeat);
    EXPECT_NEAR(1800, rig::remaining_s(rig::get().optimise), 5);
}

TEST_F(records, makes_the_folder_of_a_new_card) {
    PROMISE("a card has no folder", "it is made with mode 0755, then opened");
    record_dir_open();
    struct stat status = {};
    ASSERT_EQ(0, stat(kernel::host(RECORD_DIR).c_str(), &status));
    EXPECT_EQ(0755U, status.st_mode & 07777);
    EXPECT_TRUE(rig::get().is_open);
    EXPECT_EQ((strings{"info Open record msg...", "info The record msg load successfully\n"}), logged::lines());
    EXPECT_EQ(2, kernel::count("open /mnt/sdcard/ZOLTA_RECORD_VIDEO"));
}

TEST_F(records, folder_that_goes_again_is_made_again) {
    PROMISE("the new folder vanishes before it is opened", "it is made again");
    kernel::fail("open", ENOENT, 1, 2);
    kernel::on().before = [](const char* call, const char*) {
        if (std::string(call) == "mkdir") {
            rmdir(kernel::host(RECORD_DIR).c_str());
        }
    };
    record_dir_open();
    EXPECT_TRUE(rig::get().is_open);
    EXPECT_EQ(2, kernel::count("mkdir"));
}

TEST_F(records, descriptors_are_closed_on_exec) {
    PROMISE("descriptors are opened", "each is close-on-exec from the start");
    kernel::make_dir(FIRST);
    bool seen[256] = {};
    for (int fd = 0; fd < 256; ++fd) {
        seen[fd] = fcntl(fd, F_GETFD) >= 0;
    }
    int mine = 0;
    auto look = [&] {
        for (int fd = 0; fd < 256; ++fd) {
            const int flags = fcntl(fd, F_GETFD);
            if (flags >= 0 && !seen[fd]) {
                ++mine;
                EXPECT_NE(0, flags & FD_CLOEXEC) << fd;
            }
        }
    };
    rig::get().on_readdir = look;
    open();
    EXPECT_GE(mine, 5);  // the folder, its duplicate and, inside, a period's directory
}

TEST_F(records, a_second_open_changes_nothing) {
    PROMISE("the folder is opened while open",
            "nothing happens, not a single call to the kernel, and the timers go on");
    open();
    const int descriptors = rig::open_descriptors();
    const int starts = rig::get().timer_starts;
    record_dir_open();
    EXPECT_EQ(strings{}, rig::get().calls);
    EXPECT_EQ(strings{}, logged::lines());
    EXPECT_EQ(strings{}, kernel::calls());  // free of charge: it is called at every look at the mount
    EXPECT_EQ(starts, rig::get().timer_starts);
    EXPECT_EQ(descriptors, rig::open_descriptors());
}

TEST_F(records, failed_opens_leave_everything_closed) {
    PROMISE("the folder cannot be opened, for another reason than its absence",
            "\"Fail to open the record folder:%s\", everything closed");
    PROMISE("the folder cannot be made",
            "\"The record folder is not exists and it can not be created! %s\", everything closed");
    PROMISE("the list cannot be opened", "\"Fail to open record list file: %s\", the folder's descriptor closed");
    PROMISE("the first scan fails",
            "\"Fail to scan record dir.\", the list closed in order, the descriptor closed, no timer");
    struct {
        const char* what;
        void (*arrange)();
        strings lines;
        strings calls;
    } rows[] = {
        {"the folder is no directory",
         [] { kernel::write(RECORD_DIR, ""); },
         {"err Fail to open the record folder:Not a directory"},
         {}},
        {"the card is gone",
         [] { kernel::fail("open", EIO); },
         {"err Fail to open the record folder:Input/output error"},
         {}},
        {"the folder cannot be made",
         [] { kernel::fail("mkdir", EROFS); },
         {"err The record folder is not exists and it can not be created! Read-only file system"},
         {}},
        {"the folder is made but does not open",
         [] {
             kernel::fail("open", ENOENT);
             kernel::fail("open", EACCES, 2);
         },
         {"err Fail to open the record folder:Permission denied"},
         {}},
        {"the list does not open",
         [] { rig::get().open_errno = ENOSPC; },
         {"info Open record msg...", "err Fail to open record list file: No space left on device"},
         {"kyt_open_rdwr"}},
        {"no descriptor for the scan",
         [] { kernel::fail("dup", EMFILE); },
         {"info Open record msg...", "info The record msg load successfully\n", "err Fail to scan record dir."},
         {"kyt_open_rdwr", "kyt_optimise", "kyt_close"}},
        {"no stream for the scan",
         [] { kernel::fail("fdopendir", ENOMEM); },
         {"info Open record msg...", "info The record msg load successfully\n", "err Fail to scan record dir."},
         {"kyt_open_rdwr", "kyt_optimise", "kyt_close"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        SetUp();
        rig::get().calls.clear();
        row.arrange();
        const int descriptors = rig::open_descriptors();
        record_dir_open();
        EXPECT_EQ(row.lines, logged::lines());
        EXPECT_EQ(row.calls, rig::get().calls);
        expect_closed(descriptors);
    }
}

TEST_F(records, opens_after_a_failure) {
    PROMISE("opening failed once", "the next opening works");
    kernel::fail("dup", EMFILE);
    record_dir_open();
    open();
    EXPECT_TRUE(ev_is_active(rig::get().rescan));
}

TEST_F(records, a_list_in_use_is_opened_at_a_later_look) {
    PROMISE("the list is in use for a while yet",
            "\"Fail to open record list file: Device or resource busy\", everything closed; a later look at the mount "
            "opens it");
    // The thread of a list that was closed dirty may be waiting for the card still.
    rig::get().open_errno = EBUSY;
    const int descriptors = rig::open_descriptors();
    for (int look = 0; look < 3; ++look) {
        logged::reset();
        record_dir_open();
        EXPECT_EQ((strings{"info Open record msg...", "err Fail to open record list file: Device or resource busy"}),
                  logged::lines());
        expect_closed(descriptors);
        announce("17");
        EXPECT_TRUE(logged::has("warning The kyt is currently unusable, 17 lost!"));
    }
    rig::get().open_errno = 0;
    open();
    EXPECT_TRUE(ev_is_active(rig::get().rescan));
    announce("18");
    EXPECT_EQ(strings{"18"}, rig::live());
}

TEST_F(records, announcements_are_dropped_until_all_of_it_is_open) {
    PROMISE("a clip is announced during the first scan", "it is lost: the list counts as open only when all of it is");
    // The handle is stored last: what the scan meets must find the list closed still.
    kernel::make_dir(FIRST);
    rig::get().on_readdir = [] {
        rig::get().on_readdir = nullptr;
        announce("17");
    };
    record_dir_open();
    EXPECT_TRUE(logged::has("warning The kyt is currently unusable, 17 lost!"));
}

// --- closing ---------------------------------------------------------------------------------------------------------

TEST_F(records, closes_orderly_or_dirty) {
    PROMISE(
        "the folder is closed with any value but 0",
        "the list is closed as that of a vanished card, with 0 in order; timers off, table empty, descriptor closed");
    struct {
        int dirty;
        const char* call;
    } rows[] = {{0, "kyt_close"}, {1, "kyt_close_dirty"}, {-1, "kyt_close_dirty"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.dirty);
        SetUp();
        write_bytes(in(FIRST, "a.mp4"), 10);
        const int descriptors = rig::open_descriptors();
        open();
        EXPECT_EQ(10U, record_dir_size());
        record_dir_close(row.dirty);
        EXPECT_EQ(strings{row.call}, rig::get().calls);
        EXPECT_EQ(strings{}, logged::lines());
        expect_closed(descriptors);
    }
}

TEST_F(records, closing_twice_is_fine) {
    PROMISE("the folder is closed while closed", "nothing happens");
    open();
    record_dir_close(1);
    forget();
    record_dir_close(0);
    record_dir_close(1);
    EXPECT_EQ(strings{}, rig::get().calls);
}

TEST_F(records, the_next_card_starts_with_an_empty_table) {
    PROMISE("another card is opened after one was closed",
            "nothing of the old card's table counts, even with the same names and times");
    write_bytes(in(FIRST, "a.mp4"), 10);
    set_mtime(FIRST, 1'000'000);
    open();
    record_dir_close(1);
    write_bytes(in(FIRST, "b.mp4"), 5);
    set_mtime(FIRST, 1'000'000);
    open();
    EXPECT_EQ(15U, record_dir_size());
}

// --- the table of periods --------------------------------------------------------------------------------------------

PROMISES("records", "The space that the clips take");

TEST_F(records, size_counts_the_files_directly_inside_the_periods) {
    PROMISE("the size is asked for",
            "regular files directly inside the period directories, and nothing else: no folders inside, links to "
            "folders, links in place of files, stray files, or folders of other names");
    write_bytes(in(FIRST, "a.jpeg"), 3);
    write_bytes(in(FIRST, "a.mp4"), 100);
    write_bytes(in(SECOND, "b.mp4"), 1000);
    write_bytes(in(FIRST, "nested/deep.mp4"), 50000);
    write_bytes(in(RECORD_DIR, "op.log"), 50000);
    write_bytes(in(RECORD_DIR, "not_a_period/a.mp4"), 50000);
    write_bytes(in(RECORD_DIR, "20261121/a.mp4"), 50000);
    write_bytes("/mnt/sdcard/elsewhere/a.mp4", 50000);
    symlink(kernel::host("/mnt/sdcard/elsewhere").c_str(), kernel::host(in(RECORD_DIR, "2026112103")).c_str());
    symlink(kernel::host("/mnt/sdcard/elsewhere").c_str(), kernel::host(in(FIRST, "link")).c_str());
    symlink(kernel::host("/mnt/sdcard/elsewhere/a.mp4").c_str(), kernel::host(in(FIRST, "link.mp4")).c_str());
    write_bytes(in(RECORD_DIR, "2026112104"), 50000);  // a file of that name
    open();
    EXPECT_EQ(1103U, record_dir_size());
}

TEST_F(records, size_of_a_closed_folder_is_zero) {
    PROMISE("the folder is closed", "the size is 0, and the kernel is not asked");
    EXPECT_EQ(0U, record_dir_size());
    EXPECT_EQ(strings{}, kernel::calls());
}

TEST_F(records, entries_of_unknown_type_are_skipped) {
    PROMISE("the filesystem does not tell an entry's type", "the entry is skipped");
    write_bytes(in(FIRST, "a.mp4"), 10);
    write_bytes(in(FIRST, "b.mp4"), 20);
    write_bytes(in(SECOND, "c.mp4"), 40);
    rig::get().unknown_type = {"2026112102", "b.mp4"};
    open();
    EXPECT_EQ(10U, record_dir_size());
}

TEST_F(records, an_unchanged_directory_is_not_read_again) {
    PROMISE("a directory's time is unchanged",
            "it is not read again, and a file that grew in place keeps its old size");
    PROMISE("a directory's time changed, forwards or backwards", "it is counted afresh");
    write_bytes(in(FIRST, "a.mp4"), 10);
    write_bytes(in(SECOND, "b.mp4"), 20);
    set_mtime(FIRST, 1'000'000);
    set_mtime(SECOND, 1'000'000);
    open();
    write_bytes(in(FIRST, "a.mp4"), 5000);  // grew in place
    EXPECT_EQ(30U, record_dir_size());
    EXPECT_EQ(0, kernel::count("openat"));

    write_bytes(in(FIRST, "c.mp4"), 1);
    set_mtime(FIRST, 1'000'001);
    EXPECT_EQ(5021U, record_dir_size());
    unlink(kernel::host(in(FIRST, "a.mp4")).c_str());
    set_mtime(FIRST, 999'999);  // a clock that went back counts as a change too
    EXPECT_EQ(21U, record_dir_size());
    EXPECT_EQ(21U, record_dir_size());
}

TEST_F(records, times_are_kept_in_32_bits) {
    PROMISE("a directory's time needs more than 32 bits", "only the low 32 are compared");
    // The same low 32 bits are the same time on every machine. Only where the filesystem keeps more can that be seen.
    if (sizeof(time_t) == 4) {
        return;
    }
    write_bytes(in(FIRST, "a.mp4"), 10);
    set_mtime(FIRST, 5);
    open();
    write_bytes(in(FIRST, "b.mp4"), 20);
    set_mtime(FIRST, static_cast<time_t>(0x100000005));
    EXPECT_EQ(10U, record_dir_size());
}

TEST_F(records, a_period_wraps_at_32_bits_and_the_total_does_not) {
    PROMISE("a period has 4 GiB or more", "its size wraps at 32 bits, the total does not");
    write_bytes(in(FIRST, "a.mp4"), 0);
    write_bytes(in(FIRST, "b.mp4"), 7);
    write_bytes(in(SECOND, "c.mp4"), 0);
    ASSERT_EQ(0, truncate(kernel::host(in(FIRST, "a.mp4")).c_str(), 0x100000000));
    ASSERT_EQ(0, truncate(kernel::host(in(SECOND, "c.mp4")).c_str(), 0xffffffff));
    open();
    EXPECT_EQ(0x100000006U, record_dir_size());
}

TEST_F(records, a_directory_that_went_is_dropped) {
    PROMISE("a directory is gone at the next scan", "it is dropped, and counted anew when it comes back");
    write_bytes(in(FIRST, "a.mp4"), 10);
    write_bytes(in(SECOND, "b.mp4"), 20);
    open();
    std::rename(kernel::host(FIRST).c_str(), kernel::host("/mnt/sdcard/kept").c_str());
    EXPECT_EQ(20U, record_dir_size());
    unlink(kernel::host(in(SECOND, "b.mp4")).c_str());
    rmdir(kernel::host(SECOND).c_str());
    EXPECT_EQ(0U, record_dir_size());

    // It is looked at afresh when it comes back, though its time is the same as before.
    write_bytes("/mnt/sdcard/kept/b.mp4", 5);
    std::rename(kernel::host("/mnt/sdcard/kept").c_str(), kernel::host(FIRST).c_str());
    EXPECT_EQ(15U, record_dir_size());
}

TEST_F(records, a_directory_without_stat_is_dropped) {
    PROMISE("a directory cannot be looked at", "it is dropped, until it can");
    write_bytes(in(FIRST, "a.mp4"), 10);
    open();
    kernel::fail("fstatat", EIO);
    EXPECT_EQ(0U, record_dir_size());
    EXPECT_EQ(10U, record_dir_size());
}

TEST_F(records, a_file_without_stat_is_not_counted) {
    PROMISE("a file cannot be looked at", "it does not count, the others do");
    write_bytes(in(FIRST, "a.mp4"), 10);
    write_bytes(in(FIRST, "b.mp4"), 10);
    kernel::fail("fstatat", EIO, 2);  // the first is the directory's own
    open();
    EXPECT_EQ(10U, record_dir_size());
}

TEST_F(records, a_directory_that_cannot_be_read) {
    PROMISE("a new directory cannot be read", "it is left out until it can");
    PROMISE("a known directory changed and cannot be read", "it counts for nothing until it changes again");
    struct {
        const char* call;
        int nth;  // of the calls in one scan: fdopendir opens the folder first
    } rows[] = {{"openat", 1}, {"fdopendir", 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        SetUp();
        write_bytes(in(FIRST, "a.mp4"), 10);
        kernel::fail(row.call, EIO, row.nth);
        open();  // a new one does not enter the table
        const int descriptors = rig::open_descriptors();
        EXPECT_EQ(10U, record_dir_size());  // until it can be read

        write_bytes(in(FIRST, "b.mp4"), 5);
        set_mtime(FIRST, 1'000'000);
        kernel::fail(row.call, EIO, row.nth);
        EXPECT_EQ(0U, record_dir_size());  // a known one counts for nothing,
        EXPECT_EQ(0U, record_dir_size());  // and its time is taken for seen,
        set_mtime(FIRST, 1'000'001);
        EXPECT_EQ(15U, record_dir_size());  // until it changes
        EXPECT_EQ(descriptors, rig::open_descriptors());
        record_dir_close(0);
    }
}

TEST_F(records, a_failed_scan_leaves_the_old_table) {
    PROMISE("the scan itself fails", "the old table counts, no descriptor is lost");
    write_bytes(in(FIRST, "a.mp4"), 10);
    open();
    const int descriptors = rig::open_descriptors();
    for (const char* call : {"dup", "fdopendir"}) {
        write_bytes(in(SECOND, "b.mp4"), 20);
        kernel::fail(call, EMFILE);
        EXPECT_EQ(10U, record_dir_size()) << call;
        EXPECT_EQ(descriptors, rig::open_descriptors()) << call;
    }
    EXPECT_EQ(30U, record_dir_size());
}

TEST_F(records, no_memory_for_an_entry) {
    PROMISE("there is no memory for an entry", "that directory is left out until the next scan");
    write_bytes(in(FIRST, "a.mp4"), 10);
    rig::malloc_to_fail = 1;
    open();
    EXPECT_EQ(0, rig::malloc_to_fail);
    EXPECT_EQ(10U, record_dir_size());
}

using records_death = records;

TEST_F(records_death, no_memory_for_the_table_ends_the_process) {
    PROMISE("there is no memory for the table", "the process ends with status -1");
    write_bytes(in(FIRST, "a.mp4"), 10);
    rig::malloc_to_fail = 2;
    EXPECT_EXIT(record_dir_open(), testing::ExitedWithCode(255), "");
    rig::malloc_to_fail = 0;  // it failed in the child
}

TEST_F(records, rescan_timer_scans) {
    PROMISE("the rescan timer fires", "the table is brought up to date without being asked");
    write_bytes(in(FIRST, "a.mp4"), 10);
    open();
    write_bytes(in(SECOND, "b.mp4"), 20);
    fire(rig::get().rescan);
    kernel::fail("dup", EMFILE);  // so that only the timer's own look counts
    EXPECT_EQ(30U, record_dir_size());
}

TEST_F(records, many_periods) {
    PROMISE("many periods come and go", "each counts as long as it is there");
    for (int i = 0; i < 60; ++i) {
        write_bytes(in(RECORD_DIR, (std::to_string(2026000000 + i) + "/a.mp4").c_str()), 2);
    }
    open();
    EXPECT_EQ(120U, record_dir_size());
    for (int i = 0; i < 60; i += 2) {
        const std::string directory = in(RECORD_DIR, std::to_string(2026000000 + i).c_str());
        unlink(kernel::host(directory + "/a.mp4").c_str());
        rmdir(kernel::host(directory).c_str());
    }
    EXPECT_EQ(60U, record_dir_size());
}

TEST_F(records, dump) {
    PROMISE("the table is dumped", "one debug line for each period in the order they were met: path, size, time");
    write_bytes(in(FIRST, "a.mp4"), 10);
    set_mtime(FIRST, 1'000'000);
    open();
    write_bytes(in(SECOND, "b.mp4"), 20);
    set_mtime(SECOND, 2'000'000);
    record_dir_size();
    record_dir_dump();
    // In the order in which they were met, each with the line break of ctime.
    const time_t first = 1'000'000;
    const time_t second = 2'000'000;
    EXPECT_EQ((strings{"debug " + rig::clip(2026112101) + ": 10@" + ctime(&first),
                       "debug " + rig::clip(2026112102) + ": 20@" + ctime(&second)}),
              logged::lines());
    EXPECT_EQ((strings{"kyt_ts2path 1024", "kyt_ts2path 1024"}), rig::get().calls);
}

// --- new clips -------------------------------------------------------------------------------------------------------

PROMISES("records", "New clips");

TEST_F(records, a_new_clip_is_indexed) {
    PROMISE("a clip is announced",
            "it is written to the list, whatever that returns, then \"%u: saved\" to the operation log, a debug line, "
            "one refresh for \"New Record\"");
    open();
    announce("17,1");
    EXPECT_EQ((strings{"kyt_write 17", "sdcard_refresh New Record"}), rig::get().calls);
    EXPECT_EQ(strings{"debug New record saved (ts = 17)"}, logged::lines());
    EXPECT_EQ(strings{"17"}, rig::live());
    EXPECT_EQ(1, rig::get().list.records[17].flags);
    EXPECT_EQ(7, rig::get().list.records[17].reserved[1]);
    EXPECT_EQ(std::to_string(getpid()) + "-1790000000: 17: saved\n",
              kernel::read("/mnt/sdcard/ZOLTA_RECORD_VIDEO/op.log"));
}

TEST_F(records, the_list_is_written_before_the_operation_log) {
    PROMISE("a clip is announced",
            "it is written to the list, whatever that returns, then \"%u: saved\" to the operation log, a debug line, "
            "one refresh for \"New Record\"");
    open();
    rig::get().on_write = [](const kyt_record*) {
        EXPECT_FALSE(kernel::exists("/mnt/sdcard/ZOLTA_RECORD_VIDEO/op.log"));
    };
    rig::get().on_refresh = [] { EXPECT_TRUE(kernel::exists("/mnt/sdcard/ZOLTA_RECORD_VIDEO/op.log")); };
    announce("17");
}

TEST_F(records, a_known_clip_is_overwritten_whole) {
    PROMISE("a clip's timestamp is known already",
            "\"Overwrite %u\", \"%u: overwrite\" in the operation log, the whole record replaced: an earlier "
            "protection is lost; one refresh");
    open();
    announce("4000000000,1");
    forget();
    announce("4000000000,2");
    EXPECT_EQ(strings{"sdcard_refresh New Record"}, rig::get().calls);
    EXPECT_EQ(strings{"warning Overwrite 4000000000"}, logged::lines());
    EXPECT_EQ(strings{"4000000000"}, rig::live());
    const kyt_record& stored = rig::get().list.records[4000000000];
    EXPECT_EQ(2, stored.flags);  // the mark is gone
    EXPECT_EQ(7, stored.reserved[1]);
    const std::string prefix = std::to_string(getpid()) + "-1790000000: 4000000000: ";
    EXPECT_EQ(prefix + "saved\n" + prefix + "overwrite\n", kernel::read("/mnt/sdcard/ZOLTA_RECORD_VIDEO/op.log"));
}

TEST_F(records, an_announcement_without_value_is_ignored) {
    PROMISE("the key has no value", "nothing at all");
    open();
    announce(nullptr);
    EXPECT_EQ(strings{}, logged::lines());
    EXPECT_EQ(strings{}, rig::get().calls);
    EXPECT_EQ(strings{}, kernel::calls());
}

TEST_F(records, an_announcement_that_makes_no_sense_is_ignored) {
    PROMISE("the announcement makes no sense", "\"kyt_record_parse fail on %.*s\" with its own bytes only, no refresh");
    open();
    rig::get().announce(nullptr, "noise, and what follows it", 5);
    EXPECT_EQ(strings{"debug kyt_record_parse fail on noise"}, logged::lines());
    EXPECT_EQ(strings{}, rig::get().calls);
    EXPECT_EQ(strings{}, rig::live());
    EXPECT_EQ(strings{}, kernel::calls());
}

TEST_F(records, an_announcement_without_a_card_is_lost) {
    PROMISE("the list is not open", "\"The kyt is currently unusable, %u lost!\", no refresh, no trace on the card");
    announce("4000000000");
    EXPECT_EQ(strings{"warning The kyt is currently unusable, 4000000000 lost!"}, logged::lines());
    EXPECT_EQ(0, std::count(rig::get().calls.begin(), rig::get().calls.end(), "sdcard_refresh New Record"));
    EXPECT_EQ(strings{}, kernel::calls());  // no trace in the operation log
}

TEST_F(records, maintenance_while_the_list_is_open) {
    PROMISE("the maintenance timer fires",
            "the list is maintained while it is open; the timer goes on; with the list closed nothing is done");
    open();
    ev_timer* timer = rig::get().optimise;
    fire(timer);
    EXPECT_EQ(strings{"kyt_optimise"}, rig::get().calls);
    EXPECT_TRUE(ev_is_active(timer));
    record_dir_close(0);
    forget();
    fire(timer);
    EXPECT_EQ(strings{}, rig::get().calls);
    EXPECT_EQ(strings{}, logged::lines());
}

}  // namespace
