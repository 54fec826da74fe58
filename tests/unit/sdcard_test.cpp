#include "sdcard.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <unistd.h>

#include "support/card_rig.h"
#include "support/promise.h"

using rig::tell_on_abort;
using rig::world;

namespace {

const sdcard_state state_at_birth = sd.state;  // as the process began

using sdcard = rig::test;
using sdcard_death = sdcard;

// --- the derivation --------------------------------------------------------------------------------------------------

PROMISES("sdcard");

TEST_F(sdcard, unknown_until_started) {
    PROMISE("the first state has not been derived", "the state is unknown, from the process's begin on");
    EXPECT_EQ(0x7fffffff, state_at_birth);
    EXPECT_EQ(SDCARD_UNKNOWN, sdcard_get_state());
}

TEST_F(sdcard, names) {
    PROMISE("a state is named", "the seven names stand, by number; ejecting (7) has none");
    const strings names(std::begin(sdstate2str), std::end(sdstate2str));
    EXPECT_EQ((strings{"normal", "not_exists", "full", "broken", "formatting", "eject", "fixing"}), names);
    EXPECT_STREQ("broken", sdstate2str[SDCARD_BROKEN]);
    EXPECT_STREQ("fixing", sdstate2str[SDCARD_FIXING]);
    EXPECT_EQ(7, SDCARD_EJECTING);
}

TEST_F(sdcard, merge_state_first_match_wins) {
    PROMISE("there is no card, whatever is mounted", "not_exists");
    PROMISE("the card is read-only, mounted or not", "broken");
    PROMISE("the card was ejected, mounted or not", "eject");
    PROMISE("the card can be written but nothing is mounted", "not_exists");
    PROMISE("mounting has failed", "broken");
    PROMISE("block state or mounted status is a number that nobody knows", "the look goes on to the next question");
    PROMISE("the mounted card may not be written", "\"Unable to write access the sdcard.\" and broken");
    PROMISE("the filesystem does not tell its space", "broken, without a word");
    PROMISE("a state is derived", "nothing is published or changed by that alone");
    constexpr auto STRANGE_BLOCK = static_cast<mmc_state>(9);
    constexpr auto STRANGE_MOUNT = static_cast<mount_status>(9);
    struct {
        const char* what;
        mmc_state block;
        mount_status mounted;
        int access_errno;
        int statfs_result;
        sdcard_state expected;
    } rows[] = {
        {"no card wins over everything", MMC_STATE_NONE, MOUNT_FAILED, EROFS, -1, SDCARD_NOT_EXISTS},
        {"no card, though still mounted", MMC_STATE_NONE, MOUNT_OK, 0, 0, SDCARD_NOT_EXISTS},
        {"read-only card, though mounted", MMC_STATE_RDONLY, MOUNT_OK, 0, 0, SDCARD_BROKEN},
        {"read-only card, not mounted", MMC_STATE_RDONLY, MOUNT_NONE, 0, 0, SDCARD_BROKEN},
        {"ejected", MMC_STATE_EJECTED, MOUNT_NONE, 0, 0, SDCARD_EJECT},
        {"ejected, though mounted", MMC_STATE_EJECTED, MOUNT_OK, 0, 0, SDCARD_EJECT},
        {"not mounted", MMC_STATE_RDWR, MOUNT_NONE, EROFS, -1, SDCARD_NOT_EXISTS},
        {"mount failed", MMC_STATE_RDWR, MOUNT_FAILED, 0, 0, SDCARD_BROKEN},
        {"not writable", MMC_STATE_RDWR, MOUNT_OK, EROFS, 0, SDCARD_BROKEN},
        {"no statfs", MMC_STATE_RDWR, MOUNT_OK, 0, -1, SDCARD_BROKEN},
        {"normal", MMC_STATE_RDWR, MOUNT_OK, 0, 0, SDCARD_NORMAL},
        {"any other block state goes on", STRANGE_BLOCK, MOUNT_OK, 0, 0, SDCARD_NORMAL},
        {"any other block state, not mounted", STRANGE_BLOCK, MOUNT_NONE, 0, 0, SDCARD_NOT_EXISTS},
        {"any other mounted status goes on", MMC_STATE_RDWR, STRANGE_MOUNT, 0, 0, SDCARD_NORMAL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        SetUp();
        sd.state = SDCARD_FIXING;
        world.mmc.state = row.block;
        world.mountpoint.mounted = row.mounted;
        world.statfs_result = row.statfs_result;
        if (row.access_errno != 0) {
            kernel::fail("access", row.access_errno);
        }
        EXPECT_EQ(row.expected, merge_state());
        EXPECT_EQ(SDCARD_FIXING, sd.state);  // no side effects
        EXPECT_EQ(strings{}, world.steps);
        const bool must_warn = row.access_errno != 0 && row.block == MMC_STATE_RDWR && row.mounted == MOUNT_OK;
        EXPECT_EQ(must_warn ? strings{"warning Unable to write access the sdcard."} : strings{}, logged::lines());
    }
}

TEST_F(sdcard, free_space) {
    PROMISE("40960 KiB are free, or more", "normal");
    PROMISE("a byte less is free", "\"size available: %lu KiB\", rounded down, and full");
    PROMISE("the free bytes do not fit 32 bits", "they are multiplied in 64; the KiB are kept in 32");
    struct {
        const char* what;
        uint64_t f_bavail;
        int32_t f_bsize;
        sdcard_state expected;
        const char* line;
    } rows[] = {
        {"exactly the limit", 40960, 1024, SDCARD_NORMAL, ""},
        {"one KiB less", 40959, 1024, SDCARD_FULL, "info size available: 40959 KiB"},
        {"rounded toward zero", (40960 * 1024) - 1, 1, SDCARD_FULL, "info size available: 40959 KiB"},
        {"nothing", 0, 32768, SDCARD_FULL, "info size available: 0 KiB"},
        {"big blocks", 1280, 32768, SDCARD_NORMAL, ""},
        {"8 GiB would be 0 in 32 bits", 1 << 21, 4096, SDCARD_NORMAL, ""},
        {"more blocks than a signed 32-bit number", 0x80000000, 512, SDCARD_NORMAL, ""},
        {"more blocks than 32 bits", 0x100000002, 512, SDCARD_NORMAL, ""},
        {"kept in 32 bits", 0x100000001, 1024, SDCARD_FULL, "info size available: 1 KiB"},
        {"just below 4 TiB", 0xffffffff, 1024, SDCARD_NORMAL, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        logged::reset();
        world.f_bavail = row.f_bavail;
        world.f_bsize = row.f_bsize;
        EXPECT_EQ(row.expected, merge_state());
        EXPECT_EQ(row.line[0] != '\0' ? strings{row.line} : strings{}, logged::lines());
    }
}

TEST_F(sdcard, asks_whether_the_card_may_be_written) {
    PROMISE("the mounted card may not be written", "\"Unable to write access the sdcard.\" and broken");
    merge_state();
    EXPECT_EQ(strings{"access /mnt/sdcard"}, kernel::calls());
    EXPECT_EQ(W_OK, kernel::on().access_mode);
}

// --- publication -----------------------------------------------------------------------------------------------------

TEST_F(sdcard, publishes_every_state) {
    PROMISE("the state changes",
            "\"sdcard_status\" has its number and \"sdcard_rw\" \"rdwr\", \"rdonly\" (full) or \"none\", before any "
            "report");
    PROMISE("the card becomes broken", "alert 4, then the card's details, once");
    struct {
        sdcard_state state;
        const char* status;
        const char* rw;
        strings reports;
    } rows[] = {
        {SDCARD_NORMAL, "0", "rdwr", {"rpc_send_sdcard_info"}},  // the first state after the start
        {SDCARD_NOT_EXISTS, "1", "none", {"rpc_send_alert 5"}},
        {SDCARD_FULL, "2", "rdonly", {"rpc_send_sdcard_info"}},
        {SDCARD_BROKEN, "3", "none", {"rpc_send_alert 4", "rpc_send_sdcard_info"}},
        {SDCARD_FORMATTING, "4", "none", {}},
        {SDCARD_EJECT, "5", "none", {}},
        {SDCARD_FIXING, "6", "none", {}},
        {SDCARD_EJECTING, "7", "none", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        world.steps.clear();
        sdcard_set_state(row.state);
        EXPECT_EQ(row.state, sdcard_get_state());
        strings expected{std::string("sdcard_status=") + row.status, std::string("sdcard_rw=") + row.rw};
        expected.insert(expected.end(), row.reports.begin(), row.reports.end());
        EXPECT_EQ(expected, world.steps);
    }
    EXPECT_EQ(strings{}, logged::lines());
}

TEST_F(sdcard, same_state_again_does_nothing) {
    PROMISE("the state is the same as before", "no key is written and no report sent");
    sdcard_set_state(SDCARD_EJECTING);
    world.steps.clear();
    sdcard_set_state(SDCARD_EJECTING);
    EXPECT_EQ(strings{}, world.steps);

    world.mmc.state = MMC_STATE_RDONLY;
    sdcard_update_state();
    EXPECT_EQ((strings{"sdcard_status=3", "sdcard_rw=none", "rpc_send_alert 4", "rpc_send_sdcard_info"}), world.steps);
    world.steps.clear();
    sdcard_update_state();
    EXPECT_EQ(strings{}, world.steps);
}

TEST_F(sdcard, ejected_until_the_block_table_forgets) {
    PROMISE("the card is gone after an eject", "no alert, but the card's details");
    PROMISE("an ejected card stays in the slot", "it stays eject however often it is looked at");
    world.mmc.state = MMC_STATE_EJECTED;
    world.mountpoint.mounted = MOUNT_NONE;
    sdcard_update_state();
    sdcard_update_state();
    EXPECT_EQ(SDCARD_EJECT, sdcard_get_state());
    world.mmc.state = MMC_STATE_NONE;
    world.steps.clear();
    sdcard_update_state();
    EXPECT_EQ((strings{"sdcard_status=1", "sdcard_rw=none", "rpc_send_sdcard_info"}), world.steps) << "and no alert";
}

TEST_F(sdcard, reports_of_every_transition) {
    PROMISE("the card becomes broken", "alert 4, then the card's details, once");
    PROMISE("the card is gone", "alert 5");
    PROMISE("the card is gone after an eject", "no alert, but the card's details");
    PROMISE("the first state is published, whichever it is", "the card's details");
    PROMISE("a card has come", "the card's details");
    PROMISE("any other change", "neither alert nor details");
    constexpr sdcard_state STATES[] = {SDCARD_NORMAL, SDCARD_NOT_EXISTS, SDCARD_FULL,
                                       SDCARD_BROKEN, SDCARD_FORMATTING, SDCARD_EJECT,
                                       SDCARD_FIXING, SDCARD_EJECTING,   SDCARD_UNKNOWN};
    for (auto from : STATES) {
        for (auto to : STATES) {
            if (from == to || to == SDCARD_UNKNOWN) {
                continue;
            }
            SCOPED_TRACE(std::to_string(from) + " to " + std::to_string(to));
            sd.state = from;
            world.steps.clear();
            sdcard_set_state(to);
            const auto has = [](const char* text) { return std::count(world.steps.begin(), world.steps.end(), text); };
            EXPECT_EQ(to == SDCARD_BROKEN ? 1 : 0, has("rpc_send_alert 4"));
            EXPECT_EQ(to == SDCARD_NOT_EXISTS && from != SDCARD_EJECT ? 1 : 0, has("rpc_send_alert 5"));
            const bool informs = from == SDCARD_UNKNOWN || from == SDCARD_NOT_EXISTS || to == SDCARD_BROKEN ||
                                 (from == SDCARD_EJECT && to == SDCARD_NOT_EXISTS);
            EXPECT_EQ(informs ? 1 : 0, has("rpc_send_sdcard_info"));
        }
    }
}

// --- freeing space ---------------------------------------------------------------------------------------------------

TEST_F(sdcard, deletes_one_clip_for_each_look_until_there_is_room) {
    PROMISE("the card is full",
            "the oldest clip is deleted and the state derived anew, one by one, until it is full no more");
    fill(10);
    world.after_delete = {20, 40959, 40960};
    sdcard_update_state();
    EXPECT_EQ((strings{"records_delete_oldest", "records_delete_oldest", "records_delete_oldest", "sdcard_status=0",
                       "sdcard_rw=rdwr", "rpc_send_sdcard_info"}),
              world.steps);
    EXPECT_EQ((strings{"info size available: 10 KiB", "info size available: 20 KiB", "info size available: 40959 KiB"}),
              logged::lines());
}

TEST_F(sdcard, full_when_nothing_can_be_deleted) {
    PROMISE("nothing can be deleted, at once or after some", "\"records_delete_oldest: %s\" and full");
    fill();
    world.delete_errno = EFAULT;
    sdcard_update_state();
    EXPECT_EQ((strings{"records_delete_oldest", "sdcard_status=2", "sdcard_rw=rdonly", "rpc_send_sdcard_info"}),
              world.steps);
    EXPECT_EQ((strings{"info size available: 0 KiB", "err records_delete_oldest: Bad address"}), logged::lines());
}

TEST_F(sdcard, full_after_some_were_deleted) {
    PROMISE("nothing can be deleted, at once or after some", "\"records_delete_oldest: %s\" and full");
    fill();
    world.after_delete = {5};
    kernel::on().before = [](const char* call, const char*) {
        if (std::string(call) == "access" && world.after_delete.empty()) {
            world.delete_errno = EIO;
        }
    };
    sdcard_update_state();
    EXPECT_EQ((strings{"records_delete_oldest", "records_delete_oldest", "sdcard_status=2", "sdcard_rw=rdonly",
                       "rpc_send_sdcard_info"}),
              world.steps);
    EXPECT_EQ("err records_delete_oldest: Input/output error", logged::lines().back());
}

// A bus fault's recovery refreshes the state from inside the deletion, and may find the card broken. The state derived
// before still is "full" and is published over it; the next refresh says "broken" again. It is left so: what the outer
// derivation settles for is the outcome of the deletion that it asked for, and a state kept back here would be wrong
// whenever the inner refresh was the one that came too early. Those who watch the key see 3, 2, 3.
TEST_F(sdcard, state_derived_inside_a_deletion_is_derived_over) {
    PROMISE("a bus fault's recovery derives another state inside a deletion",
            "both are published, the outer one last; the next refresh says the other again");
    start();
    fill();
    world.delete_errno = EFAULT;
    world.on_delete = [] {
        world.on_delete = nullptr;
        world.statfs_result = -1;
        sdcard_refresh("records_delete_oldest");
    };
    sdcard_update_state();
    const strings broken = {"sdcard_status=3", "sdcard_rw=none", "rpc_send_alert 4", "rpc_send_sdcard_info"};
    strings steps = {"records_delete_oldest"};
    steps.insert(steps.end(), broken.begin(), broken.end());
    steps.insert(steps.end(), {"sdcard_status=2", "sdcard_rw=rdonly"});
    EXPECT_EQ(steps, world.steps);
    world.steps.clear();
    sdcard_refresh("New Record");
    EXPECT_EQ(broken, world.steps);
}

// Logging disturbs errno on a camera.
TEST_F(sdcard, reasons_are_told_as_they_were) {
    PROMISE("a log call disturbs errno", "the reasons in the messages are those of the failures");
    start();
    logged::disturb_errno(EPIPE);
    fill();
    world.delete_errno = EFAULT;
    sdcard_update_state();
    EXPECT_EQ("err records_delete_oldest: Bad address", logged::lines().back());

    sdcard_exit();
    logged::reset();
    logged::disturb_errno(EPIPE);
    sdcard_init();
    EXPECT_EQ(1, logged::count("warning Rename tf_recovery.img: No such file or directory"));
    EXPECT_EQ(1, logged::count("warning Rename tf_all.img: No such file or directory"));
}

TEST_F(sdcard, what_is_not_negative_is_a_start) {
    PROMISE("a monitor's start returns a positive number", "that is no failure");
    world.mountpoint_init_result = 1;
    world.mmc_dev_init_result = 1;
    sdcard_init();
    EXPECT_EQ(SDCARD_NORMAL, sd.state);
}

TEST_F(sdcard, card_that_goes_while_clips_are_deleted) {
    PROMISE("the card fails while clips are deleted", "deleting ends, and the new state is published");
    fill();
    world.after_delete = {0};
    kernel::on().before = [](const char*, const char*) {
        if (world.after_delete.empty()) {
            world.statfs_result = -1;
        }
    };
    sdcard_update_state();
    EXPECT_EQ((strings{"records_delete_oldest", "sdcard_status=3", "sdcard_rw=none", "rpc_send_alert 4",
                       "rpc_send_sdcard_info"}),
              world.steps);
}

TEST_F(sdcard, nothing_is_deleted_unless_full) {
    PROMISE("the card is not full", "nothing is deleted");
    for (auto block : {MMC_STATE_NONE, MMC_STATE_RDWR, MMC_STATE_RDONLY, MMC_STATE_EJECTED}) {
        world.mmc.state = block;
        sdcard_update_state();
    }
    EXPECT_EQ(0, std::count(world.steps.begin(), world.steps.end(), "records_delete_oldest"));
}

// --- start and stop --------------------------------------------------------------------------------------------------

TEST_F(sdcard, starts_in_order) {
    PROMISE("the first state is published, whichever it is", "the card's details");
    PROMISE("the card manager starts",
            "frame, recordings, mount table and uevents are up in this order before devices and mounts are looked at "
            "and the first state is published");
    PROMISE("there is no card at the start", "the start goes on");
    PROMISE("1800 s have gone by without a refresh", "the state is derived without a line, at the lowest priority");
    world.refresh_from_mountinfo = true;
    sd.state = SDCARD_NORMAL;
    sdcard_init();
    EXPECT_EQ((strings{"records_init", "mountpoint_init", "mmc_dev_init", "rand_range 0 1800", "mmc_rescan",
                       "mountinfo_refresh_state", "sdcard_status=0", "sdcard_rw=rdwr", "rpc_send_sdcard_info"}),
              world.steps);
    EXPECT_TRUE(ev_is_active(&sd.refresh_timer));
    EXPECT_EQ(-2, ev_priority(&sd.refresh_timer));
    EXPECT_DOUBLE_EQ(1800, sd.refresh_timer.repeat);
    EXPECT_NEAR(1800, rig::remaining_s(&sd.refresh_timer), 5);
    EXPECT_EQ(-1, sd.slow_since);
}

TEST_F(sdcard, refresh_is_ignored_until_started) {
    PROMISE("somebody asks before the first state is there", "nothing happens, not even a line");
    sdcard_refresh("Mountinfo changed.");
    EXPECT_EQ(strings{}, world.steps);
    EXPECT_EQ(strings{}, logged::lines());
    EXPECT_FALSE(ev_is_active(&sd.refresh_timer));

    // Nor does one count that comes from within the start.
    world.refresh_from_mountinfo = true;
    sdcard_init();
    for (const auto& line : logged::lines()) {
        EXPECT_EQ(std::string::npos, line.find("refresh sdcard state")) << line;
    }
}

TEST_F(sdcard, stops_in_order) {
    PROMISE("the card manager stops", "its timers stop first, then recordings, uevents and mount table");
    start();
    sdcard_exit();
    EXPECT_EQ((strings{"records_exit", "mmc_dev_exit", "mountpoint_exit"}), world.steps);
    for (auto* timer : {&sd.refresh_timer, &sd.info_timer, &sd.speed_timer}) {
        EXPECT_FALSE(ev_is_active(timer));
    }
}

TEST_F(sdcard_death, no_mount_table_no_daemon) {
    PROMISE("the mount table cannot be watched", "\"fail to init mountpoint monitor\", and the process aborts");
    world.mountpoint_init_result = -1;
    EXPECT_EXIT(
        {
            tell_on_abort();
            sdcard_init();
        },
        testing::KilledBySignal(SIGABRT),
        "\\[err fail to init mountpoint monitor\\]\\(records_init\\)\\(mountpoint_init\\)\\(abort\\)");
}

TEST_F(sdcard_death, no_uevents_no_daemon) {
    PROMISE("uevents cannot be had", "\"fail to initialize uevent.\", and the process aborts");
    world.mmc_dev_init_result = -1;
    EXPECT_EXIT(
        {
            tell_on_abort();
            sdcard_init();
        },
        testing::KilledBySignal(SIGABRT),
        "\\[err fail to initialize uevent.\\]\\(records_init\\)\\(mountpoint_init\\)\\(mmc_dev_init\\)\\(abort\\)");
}

// --- refresh ---------------------------------------------------------------------------------------------------------

TEST_F(sdcard, refresh_says_why_derives_and_postpones_the_periodic_one) {
    PROMISE("somebody asks for a refresh",
            "\"refresh sdcard state due to %s\", then the state is derived; the periodic look is 1800 s from then");
    start();
    ev_timer_stop(EV_DEFAULT, &sd.refresh_timer);
    ev_timer_set(&sd.refresh_timer, 7.0, 1800.0);
    ev_timer_start(EV_DEFAULT, &sd.refresh_timer);
    world.mmc.state = MMC_STATE_NONE;
    sdcard_refresh("New Record");
    EXPECT_EQ(strings{"info refresh sdcard state due to New Record"}, logged::lines());
    EXPECT_EQ(1U, world.lines_before_key) << "the reason comes first";
    EXPECT_EQ((strings{"sdcard_status=1", "sdcard_rw=none", "rpc_send_alert 5"}), world.steps);
    EXPECT_NEAR(1800, rig::remaining_s(&sd.refresh_timer), 5);
}

TEST_F(sdcard, periodic_refresh_derives_without_a_line) {
    PROMISE("1800 s have gone by without a refresh", "the state is derived without a line, at the lowest priority");
    start();
    world.mmc.state = MMC_STATE_RDONLY;
    ev_invoke(EV_DEFAULT, &sd.refresh_timer, EV_TIMER);
    EXPECT_EQ(strings{}, logged::lines());
    EXPECT_EQ((strings{"sdcard_status=3", "sdcard_rw=none", "rpc_send_alert 4", "rpc_send_sdcard_info"}), world.steps);

    // It does not wait for the first derivation either, and takes the place of a job's state.
    for (auto state : {SDCARD_UNKNOWN, SDCARD_FORMATTING, SDCARD_EJECTING}) {
        sd.state = state;
        ev_invoke(EV_DEFAULT, &sd.refresh_timer, EV_TIMER);
        EXPECT_EQ(SDCARD_BROKEN, sd.state);
    }
}

// --- update images ---------------------------------------------------------------------------------------------------

constexpr const char* IMAGES[] = {"tf_recovery.img", "tf_update.img", "tf_all_recovery.img", "tf_all.img"};

TEST_F(sdcard, sets_update_images_aside) {
    PROMISE("update images lie on the card at the start", "the four get \".bak\" behind their names");
    for (const char* image : IMAGES) {
        kernel::write(std::string("/mnt/sdcard/") + image, image);
    }
    sdcard_init();
    for (const char* image : IMAGES) {
        EXPECT_FALSE(kernel::exists(std::string("/mnt/sdcard/") + image));
        EXPECT_EQ(image, kernel::read(std::string("/mnt/sdcard/") + image + ".bak"));
    }
    EXPECT_EQ(strings{}, logged::lines());
    const strings& calls = kernel::calls();
    EXPECT_EQ((strings{"access /mnt/sdcard", "access /mnt/sdcard/manu_test/update.txt",
                       "rename /mnt/sdcard/tf_recovery.img", "rename /mnt/sdcard/tf_update.img",
                       "access /mnt/sdcard/manu_test/update.txt", "rename /mnt/sdcard/tf_all_recovery.img",
                       "access /mnt/sdcard/manu_test/update.txt", "rename /mnt/sdcard/tf_all.img"}),
              calls);
}

TEST_F(sdcard, missing_images_are_warned_of) {
    PROMISE("an update image is not there, or cannot be renamed",
            "\"Rename %s: %s\" with its name, at every start; the others are still tried");
    sdcard_init();
    EXPECT_EQ((strings{"warning Rename tf_recovery.img: No such file or directory",
                       "warning Rename tf_update.img: No such file or directory",
                       "warning Rename tf_all_recovery.img: No such file or directory",
                       "warning Rename tf_all.img: No such file or directory"}),
              logged::lines());
    EXPECT_TRUE(ev_is_active(&sd.refresh_timer));
}

TEST_F(sdcard, image_that_cannot_be_renamed_leaves_the_others_theirs) {
    PROMISE("an update image is not there, or cannot be renamed",
            "\"Rename %s: %s\" with its name, at every start; the others are still tried");
    int nth = 0;
    for (const char* bad : IMAGES) {
        SCOPED_TRACE(bad);
        SetUp();
        for (const char* image : IMAGES) {
            kernel::write(std::string("/mnt/sdcard/") + image, "");
        }
        kernel::fail("rename", EROFS, ++nth);
        sdcard_init();
        EXPECT_EQ(strings{std::string("warning Rename ") + bad + ": Read-only file system"}, logged::lines());
        for (const char* image : IMAGES) {
            EXPECT_EQ(image == bad, kernel::exists(std::string("/mnt/sdcard/") + image)) << image;
        }
    }
}

TEST_F(sdcard, images_stay_where_the_marker_is) {
    PROMISE("the marker file is there", "all images stay, without a warning");
    kernel::write("/mnt/sdcard/manu_test/update.txt", "");
    for (const char* image : IMAGES) {
        kernel::write(std::string("/mnt/sdcard/") + image, image);
    }
    sdcard_init();
    for (const char* image : IMAGES) {
        EXPECT_TRUE(kernel::exists(std::string("/mnt/sdcard/") + image));
    }
    EXPECT_EQ(0, kernel::count("rename"));
    EXPECT_EQ(F_OK, kernel::on().access_mode);
    EXPECT_EQ(strings{}, logged::lines());
}

TEST_F(sdcard, marker_is_asked_for_afresh) {
    PROMISE("the marker appears between two images",
            "it is asked for before the first two, the third and the fourth: those behind it stay");
    // The marker appears in between: the images behind that point stay.
    struct {
        const char* after;
        strings renamed;
    } rows[] = {
        {"tf_update.img", {"tf_recovery.img", "tf_update.img"}},
        {"tf_all_recovery.img", {"tf_recovery.img", "tf_update.img", "tf_all_recovery.img"}},
        {"tf_recovery.img", {"tf_recovery.img", "tf_update.img"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.after);
        SetUp();
        strings renamed;
        kernel::on().before = [&](const char* call, const char* path) {
            if (std::string(call) == "rename") {
                renamed.push_back(std::string(path).substr(sizeof rig::CARD));
                if (renamed.back() == row.after) {
                    kernel::write("/mnt/sdcard/manu_test/update.txt", "");
                }
            }
        };
        sdcard_init();
        EXPECT_EQ(row.renamed, renamed);
    }
}

}  // namespace
