// The operation log on the card.
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/promise.h"
#include "support/records_rig.h"

namespace {

constexpr char LOG[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO/op.log";
constexpr char OLD[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO/op.log.0";

class records_log : public rig::test {
  protected:
    void SetUp() override {
        rig::test::SetUp();
        kernel::make_dir(RECORD_DIR);
    }
    static void fill(size_t bytes) { kernel::write(LOG, std::string(bytes, 'x')); }
    static std::string prefix() { return std::to_string(getpid()) + "-1790000000: "; }
};

PROMISES("records", "The operation log");

TEST_F(records_log, appends_a_line_and_keeps_nothing_open) {
    PROMISE("a line is written", "process id, time and text, appended; mode 0600; nothing stays open");
    const int descriptors = rig::open_descriptors();
    log_record("%u: saved\n", 4000000000U);
    log_record("%s: %s\n", "a/b.mp4", "Input/output error");
    EXPECT_EQ(prefix() + "4000000000: saved\n" + prefix() + "a/b.mp4: Input/output error\n", kernel::read(LOG));
    EXPECT_EQ(descriptors, rig::open_descriptors());
    struct stat status = {};
    ASSERT_EQ(0, stat(kernel::host(LOG).c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777);
    EXPECT_FALSE(kernel::exists(OLD));
    EXPECT_EQ(0U, logged::lines().size());
}

TEST_F(records_log, prefix_and_body_are_two_writes) {
    PROMISE("a line is written", "as two writes: the prefix, then the body");
    rig::get().note_writes = true;
    log_record("%s: deleted\n", "a/b.mp4");
    rig::get().note_writes = false;
    EXPECT_EQ((strings{prefix(), "a/b.mp4: deleted\n"}), rig::get().writes);
}

TEST_F(records_log, time_is_a_signed_32_bit_number) {
    PROMISE("the clock shows a time beyond 32 bits, or before 1970", "the time is that of a signed 32-bit clock");
    struct {
        int64_t now;
        const char* text;
    } rows[] = {{0, "-0: x\n"}, {0x7fffffff, "-2147483647: x\n"}, {-1, "--1: x\n"}, {0x80000000, "--2147483648: x\n"}};
    for (const auto& row : rows) {
        fill(0);
        kernel::on().now = static_cast<time_t>(row.now);
        log_record("x\n");
        EXPECT_EQ(std::to_string(getpid()) + row.text, kernel::read(LOG));
    }
}

TEST_F(records_log, rotates_above_two_mebibytes) {
    PROMISE("the log has 2097152 bytes", "the line is appended");
    fill(2097152);
    log_record("appended\n");
    EXPECT_FALSE(kernel::exists(OLD));
    const std::string long_log = kernel::read(LOG);
    EXPECT_EQ(2097152 + prefix().size() + 9, long_log.size());

    log_record("first\n");
    EXPECT_EQ(long_log, kernel::read(OLD));
    EXPECT_EQ(prefix() + "first\n", kernel::read(LOG));
    struct stat status = {};
    ASSERT_EQ(0, stat(kernel::host(LOG).c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777);
}

TEST_F(records_log, rotates_at_exactly_the_threshold_and_replaces_the_old_generation) {
    PROMISE("the log has 2097153 bytes or more",
            "it becomes the old generation, the one before goes, and the line is the new log's first");
    const int descriptors = rig::open_descriptors();
    kernel::write(OLD, "older");
    fill(2097153);
    log_record("first\n");
    EXPECT_EQ(std::string(2097153, 'x'), kernel::read(OLD));
    EXPECT_EQ(prefix() + "first\n", kernel::read(LOG));
    EXPECT_EQ(descriptors, rig::open_descriptors());
}

TEST_F(records_log, a_failed_rotation_empties_the_log) {
    PROMISE("the log cannot be renamed", "it is emptied");
    fill(2097153);
    kernel::fail("rename", EROFS);
    log_record("first\n");
    EXPECT_EQ(prefix() + "first\n", kernel::read(LOG));
    EXPECT_FALSE(kernel::exists(OLD));
}

TEST_F(records_log, only_the_rotated_descriptor_stays_open_on_exec) {
    PROMISE("a log is opened", "close-on-exec, but for the one that follows a rotation");
    // Seen at the first write, when nothing but the log is new.
    std::vector<int> flags;
    bool seen[64] = {};
    for (int fd = 0; fd < 64; ++fd) {
        seen[fd] = fcntl(fd, F_GETFD) >= 0;
    }
    rig::get().on_write_call = [&] {
        for (int fd = 0; fd < 64; ++fd) {
            const int flag = fcntl(fd, F_GETFD);
            if (flag >= 0 && !seen[fd]) {
                flags.push_back(flag & FD_CLOEXEC);
            }
        }
        rig::get().on_write_call = nullptr;
    };
    auto look = rig::get().on_write_call;
    log_record("x\n");
    fill(2097153);
    rig::get().on_write_call = look;
    log_record("y\n");
    EXPECT_EQ((std::vector<int>{FD_CLOEXEC, 0}), flags);
}

TEST_F(records_log, failures_are_silent) {
    PROMISE("the card is away, full, or refuses to write or to open", "the line is lost, silently");
    struct {
        const char* what;
        void (*arrange)();
        const char* log;  // what is there afterwards
    } rows[] = {
        {"no card", [] { rmdir(kernel::host(RECORD_DIR).c_str()); }, ""},
        {"no space", [] { kernel::fail("open", ENOSPC); }, ""},
        {"no rotated log",
         [] {
             fill(2097153);
             kernel::fail("open", EIO, 2);
         },
         ""},
        {"no write", [] { kernel::fail("write", EIO, 1, 2); }, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        SetUp();
        const int descriptors = rig::open_descriptors();
        row.arrange();
        log_record("%s\n", "lost");
        EXPECT_EQ(row.log, kernel::exists(LOG) ? kernel::read(LOG) : "");
        EXPECT_EQ(descriptors, rig::open_descriptors());
        EXPECT_EQ(0U, logged::lines().size());
    }
}

TEST_F(records_log, a_line_beyond_every_path_is_cut) {
    PROMISE("a line is longer than every path", "it is cut; a path of full length is not");
    const std::string path(4095, 'p');
    log_record("%s: %s\n", path.c_str(), "File name too long");
    EXPECT_EQ(prefix() + path + ": File name too long\n", kernel::read(LOG));

    fill(0);
    log_record("%s\n", std::string(100000, 'q').c_str());
    const std::string cut = kernel::read(LOG).substr(prefix().size());
    EXPECT_GE(cut.size(), 4095U + 128);
    EXPECT_EQ(std::string(cut.size(), 'q'), cut);
}

}  // namespace
