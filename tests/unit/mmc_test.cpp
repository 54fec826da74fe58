#include "mmc.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <linux/netlink.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "support/mmc_rig.h"
#include "support/promise.h"

using namespace std::string_literals;
using namespace rig;

namespace {

struct pair_event {
    std::string action = "add";
    std::string major = "179";
    std::string minor = "0";
    std::string name = "mmcblk0";
    std::string type = "disk";
};

// A datagram as the kernel composes it.
std::string datagram(const pair_event& e) {
    std::string text = e.action + "@/devices/platform/mmc0/block/" + e.name + '\0';
    text += "ACTION=" + e.action + '\0' + "DEVPATH=/devices/platform/mmc0/block/" + e.name + '\0' + "SUBSYSTEM=block" +
            '\0' + "MAJOR=" + e.major + '\0' + "MINOR=" + e.minor + '\0' + "DEVNAME=" + e.name + '\0' +
            "DEVTYPE=" + e.type + '\0' + "SEQNUM=1234" + '\0';
    return text;
}

std::string disk_event(const std::string& action) {
    return datagram({.action = action});
}

std::string part_event(const std::string& action, int number) {
    return datagram({.action = action,
                     .minor = std::to_string(number),
                     .name = "mmcblk0p" + std::to_string(number),
                     .type = "partition"});
}

int parse(const std::string& text) {
    return uevent_parse(text.c_str(), static_cast<int>(text.size()));
}

// --- one datagram --------------------------------------------------------------------------------------------------

PROMISES("mmc");

TEST_F(mmc, inserted_card_gives_disk_and_partitions_in_order) {
    PROMISE("a line is logged", "it begins with \"device: \"");
    PROMISE("a card is put in", "\"New block %s\" for each; the table has the disk and its partitions as they came");
    EXPECT_EQ(parse(disk_event("add")), 0);
    EXPECT_EQ(parse(part_event("add", 1)), 0);
    EXPECT_EQ(parse(part_event("add", 2)), 0);
    EXPECT_STREQ(m->disk.path, "/dev/mmcblk0");
    EXPECT_EQ(m->disk.name, m->disk.path + 5);
    EXPECT_EQ(m->disk.minor, 0U);
    EXPECT_EQ(names(), (list{"mmcblk0p1", "mmcblk0p2"}));
    EXPECT_EQ(m->partitions[1].minor, 2U);
    EXPECT_EQ(logged::lines(), (list{"info device: New block mmcblk0", "info device: New block mmcblk0p1",
                                     "info device: New block mmcblk0p2"}));
    EXPECT_EQ(m->state, MMC_STATE_NONE) << "the state is the batch's business";
    EXPECT_EQ(refresh_delays, 0);
}

TEST_F(mmc, what_a_datagram_amounts_to) {
    PROMISE("a datagram has no pair in it", "it is ignored, and the batch goes on");
    PROMISE("a datagram ends in the middle of a pair",
            "neither what lies behind it nor an earlier datagram completes it");
    PROMISE("an event is about another major, or has none",
            "it is ignored; the rest of another major's is not even looked at");
    PROMISE("keys come in another order, or look alike", "each is known by its whole name, wherever it stands");
    PROMISE("a string has no equals sign, or several", "it is passed over; the first one splits");
    PROMISE("the header looks like a pair", "it is none");
    PROMISE("the type is neither disk nor partition",
            "\"Unknow mmc block type: %s\"; the event is logged and counts, and the table stays");
    PROMISE("the action is neither add nor remove nor change",
            "\"Unexpected sdcard action: %s\", and it does not count");
    PROMISE("there is no action", "it is ignored");
    PROMISE("a device changed", "\"Change block %s\", the table stays, and it counts");
    const std::string with_action_last = "x\0MAJOR=179\0MINOR=3\0DEVNAME=mmcblk0p3\0DEVTYPE=partition\0ACTION=add\0"s;
    const struct {
        const char* what;
        std::string text;
        int result;
        list log;
        list partitions;
    } rows[] = {
        {"another major", datagram({.major = "8", .name = "sda"}), -1, {}, {}},
        {"stops at another major before the type", datagram({.major = "8", .name = "sda", .type = "foo"}), -1, {}, {}},
        {"no number", datagram({.major = "x"}), -1, {}, {}},
        {"overlong number", datagram({.major = "99999999999999999999"}), -1, {}, {}},
        {"a number with something behind",
         datagram({.action = "change", .major = "179x"}),
         0,
         {"warning device: Change block mmcblk0"},
         {}},
        {"no major", "add@/x\0ACTION=add\0DEVNAME=mmcblk0\0DEVTYPE=disk\0"s, -1, {}, {}},
        {"no major, odd type",
         "add@/x\0ACTION=add\0DEVNAME=q\0DEVTYPE=foo\0"s,
         -1,
         {"warning device: Unknow mmc block type: foo"},
         {}},
        {"no action", "add@/x\0MAJOR=179\0MINOR=1\0DEVNAME=mmcblk0p1\0DEVTYPE=partition\0"s, -1, {}, {}},
        {"unknown type",
         datagram({.name = "mmcblk0", .type = "foo"}),
         0,
         {"warning device: Unknow mmc block type: foo", "info device: New block mmcblk0"},
         {}},
        {"remove of unknown type",
         datagram({.action = "remove", .type = "foo"}),
         0,
         {"warning device: Unknow mmc block type: foo", "info device: Remove block mmcblk0"},
         {}},
        {"type by the whole value",
         datagram({.type = "disks"}),
         0,
         {"warning device: Unknow mmc block type: disks", "info device: New block mmcblk0"},
         {}},
        {"no type",
         "add@/x\0ACTION=add\0MAJOR=179\0MINOR=1\0DEVNAME=mmcblk0p1\0"s,
         0,
         {"info device: New block mmcblk0p1"},
         {}},
        {"change", disk_event("change"), 0, {"warning device: Change block mmcblk0"}, {}},
        {"online", disk_event("online"), -1, {"warning device: Unexpected sdcard action: online"}, {}},
        {"offline", disk_event("offline"), -1, {"warning device: Unexpected sdcard action: offline"}, {}},
        {"remove by the whole value",
         disk_event("removed"),
         -1,
         {"warning device: Unexpected sdcard action: removed"},
         {}},
        {"change by the whole value",
         disk_event("changed"),
         -1,
         {"warning device: Unexpected sdcard action: changed"},
         {}},
        {"action by the whole value", disk_event("added"), -1, {"warning device: Unexpected sdcard action: added"}, {}},
        {"any order of keys", with_action_last, 0, {"info device: New block mmcblk0p3"}, {"mmcblk0p3"}},
        {"keys by the whole name",
         "x\0ACTION=add\0MAJOR=179\0XMAJOR=8\0MAJORS=8\0MINOR=1\0DEVNAME=a\0DEVTYPE=partition\0"s,
         0,
         {"info device: New block a"},
         {"a"}},
        {"text without an equals sign",
         "x\0ACTION=add\0MAJOR\0\0MAJOR=179\0MINOR=1\0DEVNAME=a\0DEVTYPE=partition\0"s,
         0,
         {"info device: New block a"},
         {"a"}},
        {"the first equals sign splits",
         "x\0ACTION=add\0MAJOR=179\0MINOR=1\0DEVNAME=a=b\0DEVTYPE=partition\0"s,
         0,
         {"info device: New block a=b"},
         {"a=b"}},
        {"key cut at the end",
         "x\0ACTION=change\0DEVNAME=a\0MAJOR=179\0DEVNA"s,
         0,
         {"warning device: Change block a"},
         {}},
        {"value cut at the end",
         "x\0ACTION=change\0MAJOR=179\0DEVNAME=mmcb"s,
         0,
         {"warning device: Change block mmcb"},
         {}},
        {"no name, add",
         "x\0ACTION=add\0MAJOR=179\0MINOR=1\0DEVTYPE=partition\0"s,
         0,
         {"info device: New block (null)"},
         {"(null)"}},
        {"no name, change", "x\0ACTION=change\0MAJOR=179\0"s, 0, {"warning device: Change block (null)"}, {}},
        {"header only", "add@/devices/x\0"s, -1, {}, {}},
        {"header without its end", "add@/devices/x", -1, {}, {}},
        {"pairs in the header are none", "MAJOR=179\0ACTION=change\0DEVNAME=a\0"s, -1, {}, {}},
        {"nothing", "", -1, {}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        SetUp();
        EXPECT_EQ(parse(row.text), row.result);
        EXPECT_EQ(logged::lines(), row.log);
        EXPECT_EQ(names(), row.partitions);
        EXPECT_EQ(m->disk.name, nullptr);
        EXPECT_EQ(kernel::count("open"), 0);
        EXPECT_EQ(refresh_delays, 0);
    }
}

TEST_F(mmc, pairs_behind_the_length_are_not_looked_at) {
    PROMISE("a datagram ends in the middle of a pair",
            "neither what lies behind it nor an earlier datagram completes it");
    const std::string text = "x\0ACTION=change\0MAJOR=179\0DEVNAME=a\0"s;
    EXPECT_EQ(uevent_parse(text.c_str(), 2), -1);
    EXPECT_EQ(uevent_parse(text.c_str(), 16), -1) << "the major is outside";
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(mmc, event_without_minor_carries_none) {
    PROMISE("an event has no minor", "the block is kept without one");
    EXPECT_EQ(parse("x\0ACTION=add\0MAJOR=179\0DEVNAME=a\0DEVTYPE=partition\0"s), 0);
    EXPECT_EQ(m->partitions[0].minor, MMC_MINOR_NONE);
}

// --- the table -----------------------------------------------------------------------------------------------------

TEST_F(mmc, new_disk_waits_a_second_before_it_is_opened) {
    PROMISE("a disk is new",
            "it is opened read-write a second later, and \"bdev.disk.path is %s\n\" is on standard output at once");
    testing::internal::CaptureStdout();
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "bdev.disk.path is /dev/mmcblk0\n");
    EXPECT_EQ(kernel::calls(), (list{"sleep 1000 ms", "open /dev/mmcblk0"}));
    ASSERT_GE(m->disk_fd, 0);
    // Nothing else: with O_EXCL, say, no partition could be mounted any more.
    EXPECT_EQ(kernel::on().open_flags, O_RDWR | O_CLOEXEC);
    EXPECT_EQ(fcntl(m->disk_fd, F_GETFD), FD_CLOEXEC);
}

// The end of a tool, for one, whose card was pulled and replaced while it ran.
TEST_F(mmc, pause_for_a_new_disk_is_not_shortened_by_signals) {
    PROMISE("signals come during the pause for a new disk", "it lasts its second all the same");
    interruptions = 2;
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    EXPECT_EQ(slept_ms, 1000);
    EXPECT_EQ(kernel::calls(), (list{"sleep 1000 ms", "sleep 700 ms", "sleep 400 ms", "open /dev/mmcblk0"}));
}

// The line names a disk that is open: it comes after the pause and the open, whose outcome it does not tell.
TEST_F(mmc, new_disk_is_told_after_it_was_opened) {
    PROMISE("a new disk is told of on standard output", "that comes after the pause and the open");
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    fflush(stdout);
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
    char text[64] = "";
    ssize_t before = 0;
    kernel::on().before = [&](const char* call, const char*) {
        if (strcmp(call, "open") == 0) {
            fflush(stdout);
            before = read(ends[0], text, sizeof text - 1);
        }
    };
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    const ssize_t after = read(ends[0], text, sizeof text - 1);
    dup2(kept, STDOUT_FILENO);
    for (int fd : {ends[0], ends[1], kept}) {
        close(fd);
    }
    EXPECT_EQ(before, -1) << text;
    EXPECT_GT(after, 0);
}

// The line must not lie in a buffer: the process may abort, and a child would write it again.
TEST_F(mmc, new_disk_is_told_on_standard_output_at_once) {
    PROMISE("a disk is new",
            "it is opened read-write a second later, and \"bdev.disk.path is %s\n\" is on standard output at once");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fflush(stdout);
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    char text[64] = "";
    const ssize_t length = read(ends[0], text, sizeof text - 1);
    fflush(stdout);
    dup2(kept, STDOUT_FILENO);
    for (int fd : {ends[0], ends[1], kept}) {
        close(fd);
    }
    ASSERT_GT(length, 0) << "nothing in the pipe";
    EXPECT_STREQ(text, "bdev.disk.path is /dev/mmcblk0\n");
}

TEST_F(mmc, second_add_of_the_disk_empties_the_partitions_and_reopens) {
    PROMISE("a disk is new again", "the one before is closed first, and all partitions go");
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    for (unsigned i = 1; i <= 3; ++i) {
        mmc_new_block(("mmcblk0p" + std::to_string(i)).c_str(), i, MMC_BLOCK_PARTITION);
    }
    const int before = m->disk_fd;
    bool closed = false;
    kernel::on().before = [&](const char* call, const char*) {
        if (strcmp(call, "open") == 0) {
            closed = !is_open(before);
        }
    };
    mmc_new_block("mmcblk1", 8, MMC_BLOCK_DISK);
    EXPECT_TRUE(closed);
    EXPECT_GE(m->disk_fd, 0);
    EXPECT_STREQ(m->disk.path, "/dev/mmcblk1");
    EXPECT_EQ(m->disk.minor, 8U);
    EXPECT_EQ(m->partition_count, 0);
    EXPECT_EQ(m->partitions[0].minor, MMC_MINOR_NONE);
    EXPECT_EQ(m->partitions[2].name, nullptr);
}

TEST_F(mmc, disk_that_does_not_open_keeps_the_partitions_and_has_no_state) {
    PROMISE("the new disk does not open", "\"open disk: %s\", the partitions stay, and the state is none");
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    mmc_new_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
    const int before = m->disk_fd;
    kernel::fail("open", ENOMEDIUM);
    logged::reset();
    testing::internal::CaptureStdout();
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "bdev.disk.path is /dev/mmcblk0\n");
    EXPECT_EQ(logged::lines(),
              (list{"info device: New block mmcblk0", "err device: open disk: "s + strerror(ENOMEDIUM)}));
    EXPECT_EQ(m->disk_fd, -1);
    EXPECT_FALSE(is_open(before));
    EXPECT_STREQ(m->disk.path, "/dev/mmcblk0");
    EXPECT_EQ(names(), list{"mmcblk0p1"});
    mmc_refresh_rdonly();
    EXPECT_EQ(mmc_get_state(), MMC_STATE_NONE);
}

TEST_F(mmc, removed_disk_takes_everything_along) {
    PROMISE("the disk is removed", "\"Remove block %s\", the descriptor closed, disk and partitions forgotten");
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    mmc_new_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
    const int before = m->disk_fd;
    logged::reset();
    mmc_remove_block("mmcblk0", 0, MMC_BLOCK_DISK);
    EXPECT_EQ(logged::lines(), list{"info device: Remove block mmcblk0"});
    EXPECT_EQ(m->disk_fd, -1);
    EXPECT_FALSE(is_open(before));
    EXPECT_EQ(m->disk.minor, MMC_MINOR_NONE);
    EXPECT_EQ(m->disk.name, nullptr);
    EXPECT_STREQ(m->disk.path, "");
    EXPECT_EQ(m->partition_count, 0);
    mmc_remove_block("mmcblk0", 0, MMC_BLOCK_DISK);  // once more changes nothing
    EXPECT_EQ(m->disk_fd, -1);
}

TEST_F(mmc, removed_partition_is_found_by_minor_and_the_others_close_ranks) {
    PROMISE("a partition is removed",
            "the first with its minor goes, whatever the name says, and the others close ranks");
    PROMISE("a partition is removed that is not in the table", "nothing changes, and it counts");
    const struct {
        const char* name;
        uint32_t minor;
        list left;
    } rows[] = {
        {"mmcblk0p1", 1, {"mmcblk0p2", "mmcblk0p3"}},
        {"mmcblk0p2", 2, {"mmcblk0p1", "mmcblk0p3"}},
        {"mmcblk0p3", 3, {"mmcblk0p1", "mmcblk0p2"}},
        {"other", 2, {"mmcblk0p1", "mmcblk0p3"}},
        {"mmcblk0p1", 9, {"mmcblk0p1", "mmcblk0p2", "mmcblk0p3"}},
    };
    for (const auto& row : rows) {
        SetUp();
        for (unsigned i = 1; i <= 3; ++i) {
            mmc_new_block(("mmcblk0p" + std::to_string(i)).c_str(), i, MMC_BLOCK_PARTITION);
        }
        mmc_remove_block(row.name, row.minor, MMC_BLOCK_PARTITION);
        EXPECT_EQ(names(), row.left) << row.name << row.minor;
        EXPECT_EQ(logged::lines().back(), "info device: Remove block "s + row.name);
    }
    EXPECT_EQ(parse(part_event("remove", 7)), 0) << "accepted, though not in the table";
}

TEST_F(mmc, removal_touches_only_the_first_of_its_minor) {
    PROMISE("a partition is removed",
            "the first with its minor goes, whatever the name says, and the others close ranks");
    mmc_new_block("a", 1, MMC_BLOCK_PARTITION);
    mmc_new_block("b", 1, MMC_BLOCK_PARTITION);
    mmc_new_block("c", 1, MMC_BLOCK_PARTITION);
    mmc_remove_block("b", 1, MMC_BLOCK_PARTITION);
    EXPECT_EQ(names(), (list{"b", "c"}));
}

// Places of the table that are no longer used still hold what was there last.
TEST_F(mmc, a_partition_that_was_removed_before_is_not_known) {
    PROMISE("a partition is removed that is not in the table", "nothing changes, and it counts");
    for (const uint32_t minor : {1U, 2U, 3U}) {
        mmc_new_block("a", minor, MMC_BLOCK_PARTITION);
    }
    for (const uint32_t minor : {1U, 2U, 3U}) {
        mmc_remove_block("a", minor, MMC_BLOCK_PARTITION);
    }
    mmc_new_block("d", 4, MMC_BLOCK_PARTITION);
    for (const uint32_t minor : {1U, 2U, 3U}) {
        mmc_remove_block("a", minor, MMC_BLOCK_PARTITION);
        EXPECT_EQ(names(), list{"d"}) << minor;
    }
}

TEST_F(mmc, removing_or_adding_nothing_known_changes_nothing) {
    PROMISE("a device changed", "\"Change block %s\", the table stays, and it counts");
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    mmc_new_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
    mmc_new_block("x", 0, MMC_BLOCK_NONE);
    mmc_remove_block("x", 1, MMC_BLOCK_NONE);
    mmc_change_block("mmcblk0");
    EXPECT_GE(m->disk_fd, 0);
    EXPECT_STREQ(m->disk.name, "mmcblk0");
    EXPECT_EQ(names(), list{"mmcblk0p1"});
}

TEST_F(mmc, eighth_partition_is_dropped) {
    PROMISE("there is an eighth partition", "\"Too many partitions\", and it is left out");
    for (unsigned i = 1; i <= 9; ++i) {
        mmc_new_block(("mmcblk0p" + std::to_string(i)).c_str(), i, MMC_BLOCK_PARTITION);
        EXPECT_EQ(m->partition_count, static_cast<int>(std::min(i, 7U)));
        EXPECT_EQ(logged::count("warning device: Too many partitions"), static_cast<int>(i > 7 ? i - 7 : 0));
    }
    EXPECT_EQ(names().back(), "mmcblk0p7");
    EXPECT_EQ(mmc_get_block(8), nullptr);
}

TEST_F(mmc, long_name_is_cut_to_the_path) {
    PROMISE("a name is longer than a path holds", "it is cut");
    const std::string name(60, 'n');
    mmc_new_block(name.c_str(), 1, MMC_BLOCK_PARTITION);
    EXPECT_EQ("/dev/" + std::string(32, 'n'), m->partitions[0].path);
    EXPECT_EQ(names(), list{std::string(32, 'n')});
    EXPECT_TRUE(logged::has("info device: New block " + name));
}

TEST_F(mmc, block_by_minor) {
    PROMISE("somebody asks for a minor",
            "the disk, else the first partition of it, else nothing; never what lies stale behind the count");
    EXPECT_EQ(mmc_get_block(0), nullptr);
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    mmc_new_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
    mmc_new_block("mmcblk0p2", 2, MMC_BLOCK_PARTITION);
    EXPECT_EQ(mmc_get_block(0), &m->disk);
    EXPECT_EQ(mmc_get_block(1), &m->partitions[0]);
    EXPECT_EQ(mmc_get_block(2), &m->partitions[1]);
    EXPECT_EQ(mmc_get_block(3), nullptr);
    mmc_remove_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
    EXPECT_EQ(mmc_get_block(1), nullptr);
    EXPECT_EQ(mmc_get_block(2), &m->partitions[0]) << "not the stale copy behind the count";
    mmc_remove_block("mmcblk0p2", 2, MMC_BLOCK_PARTITION);
    EXPECT_EQ(mmc_get_block(2), nullptr) << "nor when it is the only one left";
}

// The kernel gives no minor twice; events that were lost may leave it there.
TEST_F(mmc, block_by_a_minor_that_occurs_twice) {
    PROMISE("a minor occurs twice in the table",
            "the disk counts before a partition, and the first partition before the others");
    mmc_new_block("mmcblk0", 1, MMC_BLOCK_DISK);
    mmc_new_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
    mmc_new_block("mmcblk0p2", 2, MMC_BLOCK_PARTITION);
    mmc_new_block("mmcblk0p3", 2, MMC_BLOCK_PARTITION);
    EXPECT_EQ(mmc_get_block(1), &m->disk) << "the disk before a partition";
    EXPECT_EQ(mmc_get_block(2), &m->partitions[1]) << "the first partition";
}

TEST_F(mmc, numbers_are_decimal_whatever_they_begin_with) {
    PROMISE("a number of an event begins with 0 or 0x", "it is decimal, and ends where no digit follows");
    EXPECT_EQ(parse(datagram({.minor = "010"})), 0);
    EXPECT_EQ(m->disk.minor, 10U);
    EXPECT_EQ(parse(datagram({.major = "0xb3", .minor = "1"})), -1);
    EXPECT_EQ(m->disk.minor, 10U);
    EXPECT_EQ(parse(datagram({.major = "0179", .minor = "0x8"})), 0);
    EXPECT_EQ(m->disk.minor, 0U);
}

// --- which card it is ----------------------------------------------------------------------------------------------

TEST_F(mmc, each_insertion_has_a_number_of_its_own) {
    PROMISE("a disk comes that is not in the table by that minor, or one goes",
            "that is another insertion; a repeated \"add\", a \"change\" and events of partitions are none");
    const auto disk = [](const char* action, const char* minor) {
        return datagram({.action = action, .minor = minor});
    };
    const struct {
        const char* what;
        std::vector<std::string> before;
        std::string event;
        int counted;
    } rows[] = {
        {"a card comes in", {}, disk("add", "0"), 1},
        {"and is told of again", {disk("add", "0")}, disk("add", "0"), 0},
        {"another one, and its \"remove\" got lost", {disk("add", "0")}, disk("add", "8"), 1},
        {"it goes", {disk("add", "0")}, disk("remove", "0"), 1},
        {"the same one comes back", {disk("add", "0"), disk("remove", "0")}, disk("add", "0"), 1},
        {"one goes that is not known", {}, disk("remove", "0"), 1},
        {"one comes without a minor", {}, "add@/x\0ACTION=add\0MAJOR=179\0DEVNAME=mmcblk0\0DEVTYPE=disk\0"s, 1},
        {"a disk changes", {disk("add", "0")}, disk("change", "0"), 0},
        {"a partition comes", {disk("add", "0")}, part_event("add", 1), 0},
        {"a partition goes", {disk("add", "0"), part_event("add", 1)}, part_event("remove", 1), 0},
        {"another kind of device", {disk("add", "0")}, datagram({.major = "8", .minor = "16"}), 0},
        {"a device of no type", {disk("add", "0")}, datagram({.minor = "8", .type = "foo"}), 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        again();
        for (const auto& event : row.before) {
            (void)parse(event);
        }
        const uint32_t before = mmc_get_insertion();
        (void)parse(row.event);
        EXPECT_EQ(mmc_get_insertion() - before, static_cast<uint32_t>(row.counted));
    }
}

TEST_F(mmc, card_that_does_not_open_is_an_insertion_too) {
    PROMISE("a new disk cannot be opened", "it is another insertion all the same");
    kernel::fail("open", ENOENT);
    const uint32_t before = mmc_get_insertion();
    (void)parse(disk_event("add"));
    EXPECT_EQ(mmc_get_insertion() - before, 1U);
}

TEST_F(mmc, rescan_counts_only_another_disk) {
    PROMISE("the devices are scanned again",
            "that is another insertion only when the disk's minor is another than before");
    kernel::make_dir("/sys/block/mmcblk0");
    kernel::write("/proc/partitions", " 179 0 1000 mmcblk0\n 179 1 999 mmcblk0p1\n");
    const uint32_t at_first = mmc_get_insertion();
    EXPECT_EQ(mmc_rescan(), 0);
    EXPECT_EQ(mmc_get_insertion() - at_first, 1U) << "there was none";
    EXPECT_EQ(mmc_rescan(), 0);
    kernel::write("/proc/partitions", " 179 0 1000 mmcblk0\n");
    EXPECT_EQ(mmc_rescan(), 0);
    EXPECT_EQ(mmc_get_insertion() - at_first, 1U) << "the same";
    kernel::write("/proc/partitions", " 179 8 1000 mmcblk0\n");
    EXPECT_EQ(mmc_rescan(), 0);
    EXPECT_EQ(mmc_get_insertion() - at_first, 2U) << "another";
    kernel::write("/proc/partitions", "");
    EXPECT_EQ(mmc_rescan(), 0);
    EXPECT_EQ(mmc_get_insertion() - at_first, 3U) << "none any more";
}

TEST_F(mmc, node_is_known_when_it_is_the_device_in_the_table) {
    PROMISE("a path is asked for",
            "it is known when it is in the table and its node is a block device of major 179 with the table's minor");
    (void)parse(disk_event("add"));
    (void)parse(part_event("add", 1));
    (void)parse(part_event("add", 2));
    const auto is_known = [](const char* path, unsigned minor, unsigned major = MMC_BLOCK_MAJOR,
                             mode_t type = S_IFBLK) {
        set_node(path, minor, major, type);
        return mmc_is_node_known(path);
    };
    EXPECT_FALSE(mmc_is_node_known("/dev/mmcblk0")) << "there is no node";
    EXPECT_TRUE(is_known("/dev/mmcblk0", 0));
    EXPECT_TRUE(is_known("/dev/mmcblk0p1", 1));
    EXPECT_TRUE(is_known("/dev/mmcblk0p2", 2));
    EXPECT_FALSE(is_known("/dev/mmcblk0", 8)) << "another card's";
    EXPECT_FALSE(is_known("/dev/mmcblk0p1", 9));
    EXPECT_FALSE(is_known("/dev/mmcblk0p1", 2)) << "in the table, under another path";
    EXPECT_FALSE(is_known("/dev/mmcblk0", 0, 8)) << "another major";
    EXPECT_FALSE(is_known("/dev/mmcblk0", 0, MMC_BLOCK_MAJOR, S_IFCHR));
    EXPECT_FALSE(is_known("/dev/mmcblk0", 0, MMC_BLOCK_MAJOR, S_IFREG));
    EXPECT_FALSE(is_known("/dev/mmcblk0p3", 3)) << "not in the table";
    EXPECT_FALSE(is_known("/dev/mmcblk1", 0));
    EXPECT_FALSE(is_known("", MMC_MINOR_NONE));
    set_node("/dev/mmcblk0p1", 1);
    (void)parse(part_event("remove", 1));
    EXPECT_FALSE(mmc_is_node_known("/dev/mmcblk0p1")) << "not in the table any more";
    set_node("/dev/mmcblk0p2", 2);
    (void)parse(disk_event("remove"));
    EXPECT_FALSE(mmc_is_node_known("/dev/mmcblk0p2"));
    EXPECT_FALSE(mmc_is_node_known("/dev/mmcblk0"));
}

TEST_F(mmc, state_follows_the_kernels_read_only_flag) {
    PROMISE("the state is worked out",
            "the kernel's read-only flag makes it writable or read-only, whatever it was; without a disk it is none; "
            "another look at the mount is asked for each time");
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    const struct {
        mmc_state before;
        int flag;
        mmc_state after;
    } rows[] = {
        {MMC_STATE_NONE, 0, MMC_STATE_RDWR},    {MMC_STATE_NONE, 1, MMC_STATE_RDONLY},
        {MMC_STATE_RDONLY, 0, MMC_STATE_RDWR},  {MMC_STATE_RDWR, 2, MMC_STATE_RDONLY},
        {MMC_STATE_EJECTED, 0, MMC_STATE_RDWR}, {MMC_STATE_EJECTED, 1, MMC_STATE_RDONLY},
    };
    int rounds = 0;
    for (const auto& row : rows) {
        m->state = row.before;
        readonly = row.flag;
        mmc_refresh_rdonly();
        EXPECT_EQ(mmc_get_state(), row.after) << row.before << row.flag;
        EXPECT_EQ(refresh_delays, ++rounds);
        EXPECT_EQ(state_at_delay, row.after) << "asked for when the state is known";
    }
    m->state = MMC_STATE_EJECTED;
    mmc_remove_block("mmcblk0", 0, MMC_BLOCK_DISK);
    kernel::forget_calls();
    mmc_refresh_rdonly();
    EXPECT_EQ(mmc_get_state(), MMC_STATE_NONE);
    EXPECT_EQ(refresh_delays, ++rounds);
    EXPECT_TRUE(kernel::calls().empty()) << "no descriptor, no question";
}

TEST_F(mmc, unknown_read_only_flag_counts_as_set) {
    PROMISE("the kernel does not tell the flag",
            "\"Fail to get the readonly status, assuming the disk is readonly.\", and read-only it is");
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    kernel::on().ioctl = [](int, unsigned long, void* argument) {
        *static_cast<int*>(argument) = 0;
        errno = ENOTTY;
        return -1;
    };
    mmc_refresh_rdonly();
    EXPECT_EQ(mmc_get_state(), MMC_STATE_RDONLY);
    EXPECT_TRUE(logged::has("warning device: Fail to get the readonly status, assuming the disk is readonly."));
    EXPECT_EQ(refresh_delays, 1);

    kernel::on().ioctl = [](int, unsigned long, void*) { return 0; };  // says yes and answers nothing
    m->state = MMC_STATE_NONE;
    mmc_refresh_rdonly();
    EXPECT_EQ(mmc_get_state(), MMC_STATE_RDONLY);
}

// --- rescan --------------------------------------------------------------------------------------------------------

constexpr char PARTITIONS[] =
    "major minor  #blocks  name\n"
    "\n"
    "  31        0       8192 mtdblock0\n"
    " 179        0   31166976 mmcblk0\n"
    " 179        1   31162880 mmcblk0p1\n"
    "   8        1   31162880 sda1\n"
    " 179        2   31162880 mmcblk0p2\n";

TEST_F(mmc, rescan_builds_the_table_anew) {
    PROMISE("the table is built anew",
            "the disk is the one with a folder below /sys/block, the others of the card's major are partitions, and "
            "the state follows; no wait, no word");
    PROMISE("a line of the list is broken, or of another major", "it is passed over");
    kernel::write("/proc/partitions", PARTITIONS);
    kernel::make_dir("/sys/block/mmcblk0");
    mmc_new_block("mmcblk1", 8, MMC_BLOCK_DISK);
    mmc_new_block("mmcblk1p1", 9, MMC_BLOCK_PARTITION);
    const int before = m->disk_fd;
    bool closed = false;
    kernel::on().before = [&](const char* call, const char*) {
        if (strcmp(call, "fopen") == 0) {
            closed = !is_open(before);
        }
    };
    kernel::forget_calls();
    logged::reset();
    testing::internal::CaptureStdout();
    EXPECT_EQ(mmc_rescan(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(closed);
    EXPECT_STREQ(m->disk.path, "/dev/mmcblk0");
    EXPECT_EQ(m->disk.minor, 0U);
    EXPECT_EQ(names(), (list{"mmcblk0p1", "mmcblk0p2"}));
    EXPECT_EQ(m->partitions[1].minor, 2U);
    EXPECT_EQ(m->state, MMC_STATE_RDWR);
    EXPECT_EQ(refresh_delays, 1);
    EXPECT_TRUE(logged::lines().empty());
    EXPECT_EQ(kernel::count("sleep"), 0);
    EXPECT_EQ(kernel::count("access /sys/block/"), 3) << "other majors are not looked at";
    ASSERT_GE(m->disk_fd, 0);
    EXPECT_EQ(fcntl(m->disk_fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(m->disk_fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(kernel::on().access_mode, F_OK) << "whether it is there, and no more";
}

TEST_F(mmc, rescan_without_a_card) {
    PROMISE("there is no card when the table is built anew", "0, and the state is none");
    kernel::write("/proc/partitions", "major minor  #blocks  name\n\n  31        0       8192 mtdblock0\n");
    m->state = MMC_STATE_RDWR;
    EXPECT_EQ(mmc_rescan(), 0);
    EXPECT_EQ(m->state, MMC_STATE_NONE);
    EXPECT_EQ(m->disk_fd, -1);
    EXPECT_EQ(refresh_delays, 1);
}

TEST_F(mmc, rescan_without_the_kernels_list_leaves_the_table_empty_and_the_state_alone) {
    PROMISE("the kernel's list cannot be opened", "-1, the table empty, the state as it was, no word");
    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    mmc_new_block("mmcblk0p1", 1, MMC_BLOCK_PARTITION);
    mmc_refresh_rdonly();
    logged::reset();
    const int before = m->disk_fd;
    EXPECT_EQ(mmc_rescan(), -1);
    EXPECT_FALSE(is_open(before));
    EXPECT_EQ(m->disk_fd, -1);
    EXPECT_EQ(m->disk.minor, MMC_MINOR_NONE);
    EXPECT_EQ(m->disk.name, nullptr);
    EXPECT_EQ(m->partition_count, 0);
    EXPECT_EQ(m->state, MMC_STATE_RDWR);
    EXPECT_EQ(refresh_delays, 1) << "only the one before";
    EXPECT_TRUE(logged::lines().empty());
    // A state without a disk: nothing asks for the statistics of a disk that has no name.
    kernel::forget_calls();
    errno = 0;
    EXPECT_EQ(mmc_read_stat(), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(kernel::calls().empty());
}

TEST_F(mmc, rescan_with_a_disk_that_does_not_open) {
    PROMISE("the disk found does not open", "-1, and the state is none, no word");
    kernel::write("/proc/partitions", PARTITIONS);
    kernel::make_dir("/sys/block/mmcblk0");
    m->state = MMC_STATE_RDWR;
    kernel::fail("open", EIO);
    EXPECT_EQ(mmc_rescan(), -1);
    EXPECT_EQ(m->disk_fd, -1);
    EXPECT_EQ(m->state, MMC_STATE_NONE);
    EXPECT_EQ(refresh_delays, 1);
    EXPECT_STREQ(m->disk.name, "mmcblk0");
    EXPECT_EQ(m->partition_count, 2);
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(mmc, rescan_takes_the_last_disk_and_seven_partitions) {
    PROMISE("there is an eighth partition", "\"Too many partitions\", and it is left out");
    PROMISE("several disks are listed", "the last one counts");
    std::string text;
    for (int i = 1; i <= 9; ++i) {
        text += " 179 " + std::to_string(i) + " 100 mmcblk0p" + std::to_string(i) + "\n";
    }
    kernel::write("/proc/partitions", " 179 0 100 mmcblk0\n" + text + " 179 16 100 mmcblk1");
    kernel::make_dir("/sys/block/mmcblk0");
    kernel::make_dir("/sys/block/mmcblk1");
    EXPECT_EQ(mmc_rescan(), 0);
    EXPECT_STREQ(m->disk.name, "mmcblk1");
    EXPECT_EQ(m->disk.minor, 16U);
    EXPECT_EQ(m->partition_count, 7);
    EXPECT_EQ(logged::count("warning device: Too many partitions"), 2);
}

TEST_F(mmc, rescan_bounds_names_and_skips_broken_lines) {
    PROMISE("a name is longer than a path holds", "it is cut");
    PROMISE("a line of the list is broken, or of another major", "it is passed over");
    const std::string longest(32, 'd');
    const std::string too_long(500, 'p');
    kernel::write("/proc/partitions", " 179 1 100\n 179\nx y z w\n 179 1 z p1\n 179 5 100 " + longest +
                                          "\n 179 6 100 " + too_long +
                                          "\n 1790 7 100 other\n 179 12345678 9 wide\n 179 8 100 last\n");
    kernel::make_dir("/sys/block/" + longest);
    kernel::write("/dev/" + longest, "");
    EXPECT_EQ(mmc_rescan(), 0);
    EXPECT_EQ(m->disk.name, longest);
    // A minor of more than seven digits is split as the line's fixed fields say: never by this kernel.
    EXPECT_EQ(names(), (list{too_long.substr(0, 32), "9", "last"}));
}

// --- the socket ----------------------------------------------------------------------------------------------------

TEST_F(mmc, socket_listens_to_the_kernels_group) {
    PROMISE(
        "the monitor starts",
        "a socket for the kernel's own uevents, close-on-exec, watched above the default priority; nothing is scanned");
    PROMISE("the monitor stops", "watcher, socket and disk are closed; stopping twice does no harm");
    m->disk_fd = 77;  // forgotten, not closed
    int domain = 0;
    int type = 0;
    int protocol = 0;
    sockaddr_nl address{};
    unsigned length = 0;
    int bound = -1;
    int made = -1;
    kernel::on().socket = [&](int d, int t, int p) {
        domain = d;
        type = t;
        protocol = p;
        return made = open("/dev/null", O_RDWR | O_CLOEXEC);
    };
    kernel::write("/dev/null", "");
    kernel::on().bind = [&](int fd, const void* a, unsigned l) {
        bound = fd;
        length = l;
        memcpy(&address, a, sizeof address);
        return 0;
    };
    ASSERT_EQ(mmc_dev_init(), 0);
    EXPECT_EQ(m->disk_fd, -1);
    EXPECT_EQ(domain, AF_NETLINK);
    EXPECT_EQ(type, SOCK_DGRAM | SOCK_CLOEXEC);
    EXPECT_EQ(protocol, 15);
    EXPECT_EQ(bound, made);
    EXPECT_EQ(m->uevent_fd, made);
    EXPECT_EQ(length, 12U);
    EXPECT_EQ(address.nl_family, AF_NETLINK);
    EXPECT_EQ(address.nl_pid, 0U);
    EXPECT_EQ(address.nl_groups, 1U);
    EXPECT_TRUE(ev_is_active(&m->uevent_watcher));
    EXPECT_EQ(ev_priority(&m->uevent_watcher), 1);
    EXPECT_EQ(m->uevent_watcher.fd, made);
    EXPECT_EQ(m->uevent_watcher.events & (EV_READ | EV_WRITE), EV_READ);
    EXPECT_EQ(kernel::count("fopen"), 0) << "no scan";

    mmc_new_block("mmcblk0", 0, MMC_BLOCK_DISK);
    const int disk = m->disk_fd;
    mmc_dev_exit();
    EXPECT_FALSE(ev_is_active(&m->uevent_watcher));
    EXPECT_EQ(m->uevent_fd, -1);
    EXPECT_FALSE(is_open(made));
    EXPECT_EQ(m->disk_fd, -1);
    EXPECT_FALSE(is_open(disk));
    mmc_dev_exit();  // twice is fine
}

TEST_F(mmc, no_socket) {
    PROMISE("there is no socket", "\"socket: AF_NETLINK: %s\" and -1, nothing watched");
    PROMISE("a line is logged", "it begins with \"device: \"");
    kernel::fail("socket", EPROTONOSUPPORT);
    EXPECT_EQ(mmc_dev_init(), -1);
    EXPECT_EQ(logged::lines(), list{"err device: socket: AF_NETLINK: "s + strerror(EPROTONOSUPPORT)});
    EXPECT_EQ(m->uevent_fd, -1);
    EXPECT_FALSE(ev_is_active(&m->uevent_watcher));
    EXPECT_EQ(kernel::count("bind"), 0);
}

TEST_F(mmc, socket_that_cannot_be_bound_is_closed) {
    PROMISE("the socket cannot be bound", "\"bind: AF_NETLINK: %s\" and -1, the socket closed, nothing watched");
    int made = -1;
    kernel::write("/dev/null", "");
    kernel::on().socket = [&](int, int, int) { return made = open("/dev/null", O_RDWR | O_CLOEXEC); };
    kernel::fail("bind", EPERM);
    EXPECT_EQ(mmc_dev_init(), -1);
    EXPECT_EQ(logged::lines(), list{"err device: bind: AF_NETLINK: "s + strerror(EPERM)});
    EXPECT_EQ(m->uevent_fd, -1);
    ASSERT_GE(made, 0);
    EXPECT_FALSE(is_open(made));
    EXPECT_FALSE(ev_is_active(&m->uevent_watcher));
}

// --- batches -------------------------------------------------------------------------------------------------------

class mmc_batch : public mmc {
  protected:
    struct answer {
        std::string text;
        int errnum = 0;  // fails with it when there is no text
        bool empty = false;
    };
    std::deque<answer> answers;

    void SetUp() override {
        mmc::SetUp();
        kernel::on().recv = [this](int fd, void* buffer, size_t length, int flags) -> ssize_t {
            EXPECT_EQ(fd, m->uevent_fd);
            EXPECT_EQ(length, 4096U);
            EXPECT_EQ(flags, MSG_DONTWAIT);
            if (answers.empty()) {
                errno = EAGAIN;
                return -1;
            }
            const answer next = answers.front();
            answers.pop_front();
            if (next.empty || next.errnum != 0) {
                errno = next.errnum;
                return next.empty ? 0 : -1;
            }
            const size_t n = std::min(length, next.text.size());
            memcpy(buffer, next.text.data(), n);
            errno = 0;
            return static_cast<ssize_t>(n);
        };
        ASSERT_EQ(mmc_dev_init(), 0);
    }
    void readable() { ev_invoke(ev_default_loop(0), &m->uevent_watcher, EV_READ); }
};

TEST_F(mmc_batch, burst_asks_for_the_read_only_flag_once) {
    PROMISE("ten events arrive at once", "the read-only flag is asked for once, and one look at the mount");
    answers.push_back({disk_event("add")});
    for (int i = 1; i <= 9; ++i) {
        answers.push_back({part_event("add", i)});
    }
    readable();
    EXPECT_EQ(kernel::count("ioctl"), 1);
    EXPECT_EQ(refresh_delays, 1);
    EXPECT_EQ(m->state, MMC_STATE_RDWR);
    EXPECT_EQ(m->partition_count, 7);
    EXPECT_EQ(kernel::count("recv 4096"), 11);
}

TEST_F(mmc_batch, change_counts_as_accepted) {
    PROMISE("a device changed", "\"Change block %s\", the table stays, and it counts");
    answers.push_back({disk_event("change")});
    readable();
    EXPECT_EQ(refresh_delays, 1);
}

TEST_F(mmc_batch, accepted_event_is_not_forgotten_behind_an_ignored_one) {
    PROMISE("one event of a batch was about the card, and a later one was not",
            "it counts, for this batch and no other");
    answers.push_back({disk_event("change")});
    answers.push_back({disk_event("online")});
    readable();
    EXPECT_EQ(refresh_delays, 1);
    readable();
    EXPECT_EQ(refresh_delays, 1) << "each batch for itself";
}

TEST_F(mmc_batch, ignored_events_ask_for_nothing) {
    PROMISE("no event of a batch was about the card", "nothing is asked for");
    answers.push_back({datagram({.major = "8", .name = "sda"})});
    answers.push_back({disk_event("online")});
    readable();
    EXPECT_EQ(refresh_delays, 0);
    EXPECT_EQ(kernel::count("recv"), 3);
}

TEST_F(mmc_batch, interrupted_receive_is_repeated) {
    PROMISE("receiving is interrupted", "it is repeated");
    answers.push_back({"", EINTR});
    answers.push_back({disk_event("change")});
    answers.push_back({"", EINTR});
    readable();
    EXPECT_EQ(refresh_delays, 1);
    EXPECT_EQ(kernel::count("recv"), 4);
}

TEST_F(mmc_batch, no_memory_ends_the_batch_like_an_empty_socket) {
    PROMISE("receiving fails for want of memory", "the batch ends as if the socket were empty, and nothing is scanned");
    answers.push_back({disk_event("change")});
    answers.push_back({"", ENOMEM});
    answers.push_back({disk_event("change")});
    readable();
    EXPECT_EQ(refresh_delays, 1);
    EXPECT_EQ(kernel::count("recv"), 2);
    EXPECT_EQ(kernel::count("fopen"), 0) << "nothing rescans";
}

TEST_F(mmc_batch, errno_of_handlers_and_log_is_not_the_receives) {
    PROMISE("what an event leads to, or logging it, sets errno", "the socket is not judged by that");
    logged::disturb_errno(EIO);
    kernel::fail("open", EIO);
    answers.push_back({disk_event("add")});
    readable();
    EXPECT_EQ(refresh_delays, 1);
}

TEST_F(mmc_batch, datagram_of_full_size_is_not_read_past_its_end) {
    PROMISE("a datagram is longer than 4096 bytes", "what is there of it counts, and nothing behind it is read");
    std::string text = "x\0ACTION=change\0MAJOR=179\0DEVNAME="s;
    text.resize(5000, 'n');
    answers.push_back({text});
    readable();
    ASSERT_EQ(logged::lines().size(), 1U);
    EXPECT_EQ(logged::lines()[0], "warning device: Change block " + std::string(4096 - 34, 'n'));
}

// What an earlier, longer datagram left in the buffer must not complete a later one.
TEST_F(mmc_batch, datagram_ends_where_it_ends) {
    PROMISE("a datagram ends in the middle of a pair",
            "neither what lies behind it nor an earlier datagram completes it");
    answers.push_back({"x\0ACTION=change\0MAJOR=179\0DEVNAME=mmcblk0p1\0"s});
    answers.push_back({"x\0ACTION=change\0MAJOR=179\0DEVNAME=mmcb"s});
    readable();
    EXPECT_EQ(logged::lines(), (list{"warning device: Change block mmcblk0p1", "warning device: Change block mmcb"}));
}

TEST_F(mmc_batch, datagram_of_one_byte_does_not_end_the_batch) {
    PROMISE("a datagram has no pair in it", "it is ignored, and the batch goes on");
    answers = {{"x"}, {disk_event("change")}};
    readable();
    EXPECT_EQ(refresh_delays, 1);
    EXPECT_TRUE(answers.empty());
}

TEST_F(mmc_batch, empty_datagram_ends_the_batch_with_the_errno_that_was_there) {
    PROMISE("an empty datagram arrives", "the batch ends, judged by the errno that was there before");
    for (int errnum : {EAGAIN, ENOMEM}) {
        answers = {{disk_event("change")}, {"", errnum, true}, {disk_event("change")}};
        refresh_delays = 0;
        readable();
        EXPECT_EQ(refresh_delays, 1);
        EXPECT_EQ(answers.size(), 1U);
    }
}

class mmc_batch_death : public mmc_batch {
  protected:
    // The daemon has said why, then died by its own abort.
    void expect_abort(const std::string& line) {
        EXPECT_EXIT(
            {
                signal(
                    SIGABRT, +[](int) {
                        for (const auto& kept : logged::lines()) {
                            (void)!write(STDERR_FILENO, (kept + "\n").c_str(), kept.size() + 1);
                        }
                        signal(SIGABRT, SIG_DFL);
                    });
                logged::disturb_errno(EAGAIN);
                readable();
            },
            testing::KilledBySignal(SIGABRT), line);
    }
};

TEST_F(mmc_batch_death, dead_socket_ends_the_process) {
    PROMISE("a line is logged", "it begins with \"device: \"");
    PROMISE("receiving fails in any other way, lost events included",
            "\"Can not receive message on NETLINK socket: %s\", and the process aborts");
    for (int errnum : {EBADF, ENOBUFS, ENOTCONN}) {
        answers = {{disk_event("change")}, {"", errnum}};
        expect_abort("crit device: Can not receive message on NETLINK socket: "s + strerror(errnum));
    }
}

TEST_F(mmc_batch_death, empty_datagram_is_judged_by_what_was_there) {
    PROMISE("an empty datagram arrives", "the batch ends, judged by the errno that was there before");
    answers = {{"", EIO, true}};
    expect_abort("crit device: Can not receive message on NETLINK socket: "s + strerror(EIO));
}

// A real socket on the real loop: readability leads to the drain, and the loop is quiet afterwards.
TEST_F(mmc, events_arrive_through_the_loop) {
    PROMISE("events arrive", "the loop drains the socket and is quiet afterwards");
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    kernel::on().socket = [&](int, int, int) { return ends[0]; };
    kernel::on().recv = [](int fd, void* buffer, size_t length, int flags) {
        return recvfrom(fd, buffer, length, flags, nullptr, nullptr);
    };
    ASSERT_EQ(mmc_dev_init(), 0);
    struct ev_loop* loop = ev_default_loop(0);
    ev_run(loop, EVRUN_NOWAIT);
    EXPECT_EQ(kernel::count("recv"), 0);
    for (const auto& text : {disk_event("add"), part_event("add", 1)}) {
        ASSERT_EQ(send(ends[1], text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    ev_run(loop, EVRUN_NOWAIT);
    EXPECT_EQ(names(), list{"mmcblk0p1"});
    EXPECT_EQ(m->state, MMC_STATE_RDWR);
    EXPECT_EQ(refresh_delays, 1);
    kernel::forget_calls();
    ev_run(loop, EVRUN_NOWAIT);
    EXPECT_EQ(kernel::count("recv"), 0);
    mmc_dev_exit();
    close(ends[1]);
}

}  // namespace
