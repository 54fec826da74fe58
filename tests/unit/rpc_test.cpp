#include "rpc.h"

#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <map>
#include <string>
#include <sys/statfs.h>
#include <unistd.h>
#include <vector>

#include "mmc.h"
#include "mountpoint.h"
#include "sdcard.h"
#include "support/kernel.h"
#include "support/log.h"
#include "vesk_statistics.h"

using strings = std::vector<std::string>;

// --- stand-ins for the neighbours ------------------------------------------------------------------------------------

namespace {

mmc_manager mmc;
sdcard_state state;
int statfs_result;
struct statfs space;
strings sent;  // "<event> <JSON>"

}  // namespace

mmc_manager* mmc_get_manager() {
    return &mmc;
}
sdcard_state sdcard_get_state() {
    return state;
}
int mountpoint_statfs(struct statfs* buffer) {
    if (statfs_result == 0) {
        *buffer = space;
    }
    return statfs_result;
}
int report_stat_object(const char* event_name, json_object* object) {
    sent.push_back(std::string(event_name) + " " + json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN));
    json_object_put(object);
    return -1;  // whatever becomes of a report is nobody's business here
}

extern "C" {

// Of json-c's objects, the n-th that is made, counted from now, cannot be; 0: all can.
int objects_until_failure = 0;
bool object_fails() {
    return objects_until_failure > 0 && --objects_until_failure == 0;
}
json_object* __real_json_object_new_object();
json_object* __wrap_json_object_new_object() {
    return object_fails() ? nullptr : __real_json_object_new_object();
}
json_object* __real_json_object_new_array();
json_object* __wrap_json_object_new_array() {
    return object_fails() ? nullptr : __real_json_object_new_array();
}

}  // extern "C"

namespace {

int next_free_descriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

// The cool-downs live as long as the process; each test begins long after the last one's end.
time_t clock_s = 1'790'000'000;

class rpc : public testing::Test {
  protected:
    void SetUp() override {
        kernel::reset();
        logged::reset();
        mmc = {};
        state = SDCARD_NORMAL;
        statfs_result = -1;
        space = {};
        objects_until_failure = 0;
        // What the last test suppressed would otherwise show in this one's first alerts.
        sleep_s(100'000);
        rpc_send_alert(RPC_ALERT_BROKEN);
        rpc_send_alert_slow(0, 0, 0);
        rpc_send_alert_umount_fail(0, nullptr);
        sleep_s(100'000);
        sent.clear();
        logged::reset();
    }

    static void sleep_s(int32_t seconds) {
        clock_s += seconds;
        kernel::on().now = clock_s;
    }
    static void insert_disk() {
        snprintf(mmc.disk.path, sizeof mmc.disk.path, "/dev/mmcblk0");
        mmc.disk.name = mmc.disk.path + 5;
    }
    static std::string info() {
        sent.clear();
        rpc_send_sdcard_info();
        EXPECT_EQ(1U, sent.size());
        return sent.empty() ? "" : sent.back();
    }
};

// --- the information report ------------------------------------------------------------------------------------------

TEST_F(rpc, without_a_card_everything_but_the_state_is_null) {
    state = SDCARD_NOT_EXISTS;
    EXPECT_EQ(R"(sdcard.info {"state":1,"mmc":null,"block":null,"fs":null})", info());
    EXPECT_EQ(strings{}, kernel::calls()) << "no path is formed from a name that is not there";
    EXPECT_EQ(strings{R"(debug rpc_send_sdcard_info: { "state": 1, "mmc": null, "block": null, "fs": null })"},
              logged::lines());
}

TEST_F(rpc, with_a_disk_whose_directories_are_gone) {
    insert_disk();
    EXPECT_EQ(R"(sdcard.info {"state":0,"mmc":null,"block":null,"fs":null})", info());
}

TEST_F(rpc, the_block_device) {
    insert_disk();
    kernel::write("/sys/block/mmcblk0/stat", "     236      12   18304\n");
    kernel::write("/sys/block/mmcblk0/ro", "0\n");
    kernel::write("/sys/block/mmcblk0/force_ro", "1\n");
    kernel::write("/sys/block/mmcblk0/size", "15523840\n");
    EXPECT_EQ(R"(sdcard.info {"state":0,"mmc":null,"block":{"stat":"     236      12   18304","ro":0,"force_ro":1,)"
              R"("size":15523840},"fs":null})",
              info());
}

TEST_F(rpc, what_cannot_be_read_of_the_block_device_is_left_out) {
    insert_disk();
    kernel::write("/sys/block/mmcblk0/size", "");
    kernel::write("/sys/block/mmcblk0/ro", "no number\n");
    EXPECT_EQ(R"(sdcard.info {"state":0,"mmc":null,"block":{"ro":0},"fs":null})", info());
}

TEST_F(rpc, numbers_are_read_as_32_bits_from_40_bytes) {
    insert_disk();
    struct {
        std::string text;
        const char* number;
    } rows[] = {{"  42 sectors", "42"},
                {"-7", "-7"},
                {"99999999999", "2147483647"},
                {"-99999999999", "-2147483648"},
                {std::string(39, '0') + "15", "1"}};
    for (const auto& row : rows) {
        kernel::write("/sys/block/mmcblk0/size", row.text);
        EXPECT_EQ(std::string(R"(sdcard.info {"state":0,"mmc":null,"block":{"size":)") + row.number + R"(},"fs":null})",
                  info());
    }
}

// Members of "mmc", by name, as they stand in the report.
std::map<std::string, std::string> mmc_members(const std::string& report) {
    std::map<std::string, std::string> members;
    json_object* root = json_tokener_parse(report.c_str() + strlen("sdcard.info "));
    json_object* object = nullptr;
    EXPECT_TRUE(json_object_object_get_ex(root, "mmc", &object));
    json_object_object_foreach(object, key, value) {
        EXPECT_TRUE(json_object_is_type(value, json_type_string));
        members[key] = json_object_get_string(value);
    }
    json_object_put(root);
    return members;
}

TEST_F(rpc, the_cards_own_registers) {
    insert_disk();
    kernel::make_dir("/sys/block/mmcblk0/device/power");
    kernel::write("/sys/block/mmcblk0/device/uevent", "DRIVER=mmcblk\n");
    kernel::write("/sys/block/mmcblk0/device/name", "QEMU!\n");
    kernel::write("/sys/block/mmcblk0/device/two_lines", "a\nb\n\n");
    kernel::write("/sys/block/mmcblk0/device/empty", "");
    kernel::write("/sys/block/mmcblk0/device/one", "\n");
    kernel::write("/sys/block/mmcblk0/device/cid", std::string(127, 'c') + "\n");
    kernel::write("/sys/block/mmcblk0/device/long", std::string(200, 'l'));
    kernel::write("/sys/block/mmcblk0/device/long_line", std::string(128, 'm') + "\n");
    ASSERT_EQ(0, symlink("name", kernel::host("/sys/block/mmcblk0/device/driver").c_str()));
    EXPECT_EQ((std::map<std::string, std::string>{{"name", "QEMU!"},
                                                  {"two_lines", "a\nb\n"},
                                                  {"one", ""},
                                                  {"cid", std::string(127, 'c')},
                                                  {"long", std::string(128, 'l')},
                                                  {"long_line", std::string(128, 'm')}}),
              mmc_members(info()));
}

TEST_F(rpc, a_register_that_cannot_be_opened_is_left_out) {
    insert_disk();
    kernel::write("/sys/block/mmcblk0/device/name", "QEMU!\n");
    kernel::fail("openat", EACCES);
    EXPECT_EQ(R"(sdcard.info {"state":0,"mmc":{},"block":{},"fs":null})", info());
}

TEST_F(rpc, the_filesystem_as_statfs_has_it) {
    statfs_result = 0;
    space.f_type = 0x4d44;
    space.f_bsize = 32768;
    space.f_blocks = 0xf0000000U;
    space.f_bfree = 5;
    space.f_bavail = 4;
    space.f_files = 3;
    space.f_ffree = 2;
    EXPECT_EQ(R"(sdcard.info {"state":0,"mmc":null,"block":null,"fs":{"f_type":19780,"f_bsize":32768,)"
              R"("f_blocks":4026531840,"f_bfree":5,"f_bavail":4,"f_files":3,"f_ffree":2}})",
              info());
    space.f_type = -2;
    EXPECT_NE(std::string::npos, info().find(R"("f_type":-2,)"));
}

TEST_F(rpc, every_state_has_its_number) {
    for (auto each : {SDCARD_FULL, SDCARD_EJECTING, SDCARD_UNKNOWN}) {
        state = each;
        EXPECT_EQ("sdcard.info {\"state\":" + std::to_string(each) + R"(,"mmc":null,"block":null,"fs":null})", info());
    }
}

TEST_F(rpc, a_report_keeps_no_descriptor_and_needs_no_memory_to_fail) {
    insert_disk();
    statfs_result = 0;
    kernel::write("/sys/block/mmcblk0/device/name", "QEMU!\n");
    kernel::write("/sys/block/mmcblk0/ro", "0\n");
    const int free_descriptor = next_free_descriptor();
    const std::string nulls[] = {
        R"({"state":0,"mmc":null,"block":{"ro":0},"fs":{"f_type")",
        R"({"state":0,"mmc":{"name":"QEMU!"},"block":null,"fs":{"f_type")",
        R"({"state":0,"mmc":{"name":"QEMU!"},"block":{"ro":0},"fs":null})",
    };
    for (int i = 0; i < 3; ++i) {
        objects_until_failure = i + 2;
        EXPECT_EQ(0U, info().find("sdcard.info " + nulls[i])) << sent.back();
    }
    objects_until_failure = 1;
    sent.clear();
    rpc_send_sdcard_info();
    EXPECT_EQ(strings{}, sent);
    EXPECT_EQ(free_descriptor, next_free_descriptor());
}

// --- alerts ----------------------------------------------------------------------------------------------------------

constexpr char NAMES[5][RPC_FUSER_NAME_SIZE] = {"vesk_recorder", "sh", "a \"name\"", "exactly15chars_", "last"};

TEST_F(rpc, what_each_alert_says) {
    rpc_send_alert(RPC_ALERT_BROKEN);
    rpc_send_alert_slow(204799, 3600, 0xfffffff0);
    rpc_send_alert_umount_fail(5, NAMES);
    EXPECT_EQ(
        (strings{R"(sdcard.alert {"type":4})",
                 R"(sdcard.alert {"type":1,"mean_speed":204799,"elapse":3600,"active_sec":4294967280})",
                 R"(sdcard.alert {"type":2,"fuser":["vesk_recorder","sh","a \"name\"","exactly15chars_","last"]})"}),
        sent);
    EXPECT_EQ((strings{R"(debug rpc_send_alert: { "type": 4 })",
                       R"(debug rpc_send_alert_slow: { "type": 1, "mean_speed": 204799, "elapse": 3600, )"
                       R"("active_sec": 4294967280 })",
                       R"(debug rpc_send_alert_umount_fail: { "type": 2, "fuser": [ "vesk_recorder", "sh", )"
                       R"("a \"name\"", "exactly15chars_", "last" ] })"}),
              logged::lines());
    sleep_s(300);
    sent.clear();
    rpc_send_alert(RPC_ALERT_NOT_EXISTS);
    EXPECT_EQ(strings{R"(sdcard.alert {"type":5})"}, sent);
}

// One occasion for each kind of alert, and how it begins and ends.
struct kind {
    void (*raise)();
    const char* head;
    const char* tail;
};
constexpr kind KINDS[] = {
    {[] { rpc_send_alert(RPC_ALERT_BROKEN); }, R"(sdcard.alert {"type":4)", "}"},
    {[] { rpc_send_alert_slow(1, 60, 40); }, R"(sdcard.alert {"type":1,"mean_speed":1,"elapse":60,"active_sec":40)",
     "}"},
    {[] { rpc_send_alert_umount_fail(1, NAMES); }, R"(sdcard.alert {"type":2,"fuser":["vesk_recorder"])", "}"},
};

TEST_F(rpc, each_kind_cools_down_by_itself_for_300_s) {
    for (const auto& kind : KINDS) {
        SCOPED_TRACE(kind.head);
        sent.clear();
        const std::string plain = std::string(kind.head) + kind.tail;
        kind.raise();
        EXPECT_EQ(strings{plain}, sent);
        sleep_s(10);
        kind.raise();
        sleep_s(289);  // 299
        kind.raise();
        EXPECT_EQ(1U, sent.size());
        sleep_s(1);  // 300
        kind.raise();
        EXPECT_EQ(std::string(kind.head) + R"(,"cool_down":2)" + kind.tail, sent.back());
        EXPECT_EQ(2U, sent.size());
        // Counted anew, from the last one that was sent.
        sleep_s(299);
        kind.raise();
        EXPECT_EQ(2U, sent.size());
        sleep_s(1);
        kind.raise();
        EXPECT_EQ(std::string(kind.head) + R"(,"cool_down":1)" + kind.tail, sent.back());
        sleep_s(300);
        kind.raise();
        EXPECT_EQ(plain, sent.back());
    }
}

TEST_F(rpc, broken_and_gone_share_their_silence) {
    rpc_send_alert(RPC_ALERT_NOT_EXISTS);
    sleep_s(100);
    rpc_send_alert(RPC_ALERT_BROKEN);
    EXPECT_EQ(strings{R"(sdcard.alert {"type":5})"}, sent);
    sleep_s(200);
    rpc_send_alert(RPC_ALERT_BROKEN);
    EXPECT_EQ(R"(sdcard.alert {"type":4,"cool_down":1})", sent.back());
}

TEST_F(rpc, an_alert_that_cannot_be_built_has_begun_a_silence) {
    for (const auto& kind : KINDS) {
        SCOPED_TRACE(kind.head);
        sent.clear();
        objects_until_failure = 1;
        kind.raise();
        kind.raise();
        EXPECT_EQ(strings{}, sent);
        sleep_s(300);
        kind.raise();
        EXPECT_EQ(strings{std::string(kind.head) + R"(,"cool_down":1)" + kind.tail}, sent);
    }
}

TEST_F(rpc, an_alert_without_its_names_is_not_sent) {
    objects_until_failure = 2;
    rpc_send_alert_umount_fail(1, NAMES);
    EXPECT_EQ(strings{}, sent);
    EXPECT_EQ(strings{}, logged::lines());
}

TEST_F(rpc, nobody_to_name_is_an_empty_list) {
    rpc_send_alert_umount_fail(0, nullptr);
    EXPECT_EQ(strings{R"(sdcard.alert {"type":2,"fuser":[]})"}, sent);
}

TEST_F(rpc, a_clock_set_back_keeps_silence_and_one_set_forward_ends_it) {
    rpc_send_alert(RPC_ALERT_BROKEN);
    kernel::on().now = clock_s - 86400;
    rpc_send_alert(RPC_ALERT_BROKEN);
    EXPECT_EQ(1U, sent.size());
    kernel::on().now = clock_s + 86400;
    rpc_send_alert(RPC_ALERT_BROKEN);
    EXPECT_EQ(R"(sdcard.alert {"type":4,"cool_down":1})", sent.back());
    clock_s += 86400;
}

// The slots begin with 0, which a fresh process alone can show.
TEST_F(rpc, a_clock_near_1970_silences_the_first_300_s) {
    EXPECT_EXIT(
        {
            // As in a fresh process: last sent at 0, nothing suppressed.
            kernel::on().now = 0xc0000000;  // half way, for a difference that fits
            for (const auto& kind : KINDS) {
                kind.raise();
            }
            kernel::on().now = 0x100000000;  // 0 in 32 bits
            for (const auto& kind : KINDS) {
                kind.raise();
            }
            sent.clear();
            kernel::on().now = 299;
            for (const auto& kind : KINDS) {
                kind.raise();
            }
            if (!sent.empty()) {
                _exit(1);
            }
            kernel::on().now = 300;
            for (const auto& kind : KINDS) {
                kind.raise();
            }
            _exit(sent.size() == 3 ? 0 : 2);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
