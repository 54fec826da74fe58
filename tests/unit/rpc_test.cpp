#include "rpc.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "mmc.h"
#include "mountpoint.h"
#include "sdcard.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"
#include "vesk_statistics.h"

using namespace std::string_literals;
using list = std::vector<std::string>;

// --- stand-ins for the neighbours: the block devices, the mount, the card's state, the statistics library -----------

namespace {

mmc_manager block_devices;
sdcard_state state;
bool is_mounted;
struct statfs space;
list reports;  // "<event name> <JSON>"
int report_result;
bool types_are_told;         // by readdir
std::vector<int> inherited;  // descriptors read from that a child would inherit
list entries;                // names in the order in which readdir gave them

}  // namespace

mmc_manager* mmc_get_manager() {
    return &block_devices;
}
sdcard_state sdcard_get_state() {
    return state;
}
int mountpoint_statfs(struct statfs* buffer) {
    if (!is_mounted) {
        return -1;
    }
    *buffer = space;
    return 0;
}
extern "C" int report_stat_object(const char* event_name, json_object* object) {
    reports.push_back(event_name + " "s + json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN));
    EXPECT_EQ(json_object_put(object), 1);  // ours now: nobody else holds it
    return report_result;
}

extern "C" {
json_object* __real_json_object_new_object();
json_object* __real_json_object_new_array();
DIR* __real_fdopendir(int);
dirent* __real_readdir64(DIR*);
ssize_t __real_read(int, void*, size_t);

json_object* __wrap_json_object_new_object() {
    return kernel::must_fail("json_object_new_object") ? nullptr : __real_json_object_new_object();
}
json_object* __wrap_json_object_new_array() {
    return kernel::must_fail("json_object_new_array") ? nullptr : __real_json_object_new_array();
}
DIR* __wrap_fdopendir(int fd) {
    return kernel::must_fail("fdopendir") ? nullptr : __real_fdopendir(fd);
}
dirent* __wrap_readdir64(DIR* dir) {
    dirent* entry = __real_readdir64(dir);
    if (entry != nullptr) {
        entries.emplace_back(entry->d_name);
        if (!types_are_told) {
            entry->d_type = DT_UNKNOWN;
        }
    }
    return entry;
}
ssize_t __wrap_read(int fd, void* buffer, size_t size) {
    if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) {
        inherited.push_back(fd);
    }
    return kernel::must_fail("read") ? -1 : __real_read(fd, buffer, size);
}
}

namespace {

constexpr char DISK[] = "/sys/devices/host/mmc0:0001/block/mmcblk0/";
constexpr char CARD[] = "/sys/devices/host/mmc0:0001/";

constexpr char SLOW[] = R"(sdcard.alert {"type":1,"mean_speed":100000,"elapse":60,"active_sec":2048)";
constexpr char BUSY[] = R"(sdcard.alert {"type":2,"fuser":["recorder"])";

// The clock, which never goes back here: the module remembers when it sent its alerts.
int64_t now_s;

void advance(int64_t seconds) {
    now_s += seconds;
    kernel::on().now = static_cast<time_t>(now_s);
}

void send_slow() {
    rpc_send_alert_slow(100'000, 60, 2048);
}
void send_busy() {
    const char names[][RPC_FUSER_NAME_SIZE] = {"recorder"};
    rpc_send_alert_umount_fail(1, names);
}
void send_broken() {
    rpc_send_alert(RPC_ALERT_BROKEN);
}
void send_gone() {
    rpc_send_alert(RPC_ALERT_NOT_EXISTS);
}

// What a process that has just started sends at 299 s and at 300 s after 1970, which only the first tests of a process
// could see.
class fresh_process : public testing::Environment {
  public:
    static list at_299;
    static list at_300;

  private:
    void SetUp() override {
        kernel::reset();
        now_s = 0;
        send_at(0);
        send_at(299);
        at_299 = reports;
        send_at(300);
        at_300 = reports;
    }
    static void send_at(int64_t seconds) {
        advance(seconds - now_s);
        send_broken();
        send_slow();
        send_busy();
    }
};
list fresh_process::at_299;
list fresh_process::at_300;
const testing::Environment* const added = testing::AddGlobalTestEnvironment(new fresh_process);

// The report of a normal card.
std::string info_with(const std::string& mmc, const std::string& block, const std::string& fs = "null") {
    return R"(sdcard.info {"state":0,"mmc":)" + mmc + R"(,"block":)" + block + R"(,"fs":)" + fs + "}";
}

class rpc : public testing::Test {
  protected:
    int fds = 0;

    void SetUp() override {
        kernel::reset();
        block_devices = mmc_manager{};
        set_disk("mmcblk0");
        state = SDCARD_NORMAL;
        is_mounted = false;
        space = {};
        report_result = 0;
        types_are_told = true;
        // Whatever was sent or dropped before is forgotten.
        now_s = now_s < 1'790'000'000 ? 1'790'000'000 : now_s;
        for (int i = 0; i < 2; ++i) {
            advance(1000);
            send_broken();
            send_slow();
            send_busy();
        }
        advance(1000);
        forget();
        inherited.clear();
        fds = open_descriptors();
    }
    void TearDown() override {
        EXPECT_EQ(open_descriptors(), fds);
        EXPECT_TRUE(inherited.empty());
    }
    static void forget() {
        reports.clear();
        entries.clear();
        logged::reset();
        kernel::forget_calls();
    }
    static int open_descriptors() {
        int count = 0;
        for (int fd = 0; fd < 256; ++fd) {
            count += fcntl(fd, F_GETFD) != -1;
        }
        return count;
    }
    static void set_disk(const char* name) {
        mmc_block* disk = &block_devices.disk;
        snprintf(disk->path, sizeof disk->path, "/dev/%s", name);
        disk->name = disk->path + 5;
        disk->minor = 0;
    }
    static void link(const std::string& path, const std::string& target) {
        std::filesystem::create_directories(std::filesystem::path(kernel::host(path)).parent_path());
        std::filesystem::create_symlink(target, kernel::host(path));
    }
    // The folders and links of sysfs, without a file in them.
    static void make_sysfs() {
        kernel::make_dir(DISK);
        link("/sys/block/mmcblk0", "../devices/host/mmc0:0001/block/mmcblk0");
        link(DISK + "device"s, "../..");
    }
    static std::string info() {
        forget();
        rpc_send_sdcard_info();
        EXPECT_EQ(reports.size(), 1U);
        return reports.empty() ? "" : reports[0];
    }
};

// --- the information report ------------------------------------------------------------------------------------------

PROMISES("rpc", "The information report");

TEST_F(rpc, info_without_a_card) {
    PROMISE("there is no disk", "\"mmc\", \"block\" and \"fs\" are null, and no path is even formed");
    block_devices = mmc_manager{};
    state = SDCARD_NOT_EXISTS;
    EXPECT_EQ(info(), R"(sdcard.info {"state":1,"mmc":null,"block":null,"fs":null})");
    EXPECT_EQ(kernel::calls(), list{});
    EXPECT_EQ(logged::lines(),
              list{R"(debug rpc_send_sdcard_info: { "state": 1, "mmc": null, "block": null, "fs": null })"});
}

TEST_F(rpc, info_of_a_card) {
    PROMISE("there is a card",
            "state, registers, block device and filesystem, in this order, logged as text at debug level and handed "
            "over as \"sdcard.info\"");
    make_sysfs();
    kernel::write(CARD + "name"s, "SD32G\n");
    kernel::write(DISK + "size"s, "15523840\n");
    kernel::write(DISK + "force_ro"s, "1\n");
    kernel::write(DISK + "stat"s, "     12        3      450       70        0        0\n");
    kernel::write(DISK + "ro"s, "0\n");
    kernel::write(DISK + "uevent"s, "MAJOR=179\n");
    is_mounted = true;
    space.f_type = 0x4d44;
    space.f_bsize = 4096;
    space.f_blocks = 7'000'000;
    space.f_bfree = 6'000'000;
    space.f_bavail = 5'000'000;
    space.f_files = 4;
    space.f_ffree = 3;
    EXPECT_EQ(info(), R"(sdcard.info {"state":0,"mmc":{"name":"SD32G"},)"
                      R"("block":{"stat":"     12        3      450       70        0        0","ro":0,"force_ro":1,)"
                      R"("size":15523840},"fs":{"f_type":19780,"f_bsize":4096,"f_blocks":7000000,"f_bfree":6000000,)"
                      R"("f_bavail":5000000,"f_files":4,"f_ffree":3}})");
    EXPECT_EQ(logged::lines().size(), 1U);
    EXPECT_EQ(kernel::calls(), (list{"open /sys/block/mmcblk0/device", "open /sys/block/mmcblk0"}));
}

TEST_F(rpc, info_under_the_longest_name_of_a_disk) {
    PROMISE("the disk has the longest name there is", "the paths hold it whole");
    const std::string name(32, 'd');
    set_disk(name.c_str());
    info();
    EXPECT_EQ(kernel::calls(), (list{"open /sys/block/" + name + "/device", "open /sys/block/" + name}));
}

TEST_F(rpc, info_with_each_state) {
    PROMISE("the card is in any state, unknown included", "its number is reported");
    block_devices = mmc_manager{};
    for (const sdcard_state each : {SDCARD_NORMAL, SDCARD_FULL, SDCARD_EJECTING, SDCARD_UNKNOWN}) {
        state = each;
        EXPECT_EQ(info(), "sdcard.info {\"state\":" + std::to_string(each) + R"(,"mmc":null,"block":null,"fs":null})");
    }
}

// The card's files in the directory's order; folders, links and the event file left out, with and without a filesystem
// that tells types.
TEST_F(rpc, info_of_the_cards_regular_files) {
    PROMISE("the card's directory has folders, links, pipes and \"uevent\"",
            "only the other regular files are reported, in the directory's order, also where the filesystem tells no "
            "types");
    make_sysfs();
    for (const char* name : {"name", "cid", "csd", "serial", "manfid", "oemid", "date", "ssr", "uevent2", "Uevent"}) {
        kernel::write(CARD + std::string(name), name + " text\n"s);
    }
    kernel::write(CARD + "uevent"s, "DRIVER=mmcblk\n");
    kernel::write(CARD + "power/control"s, "auto\n");
    link(CARD + "driver"s, "power");
    link(CARD + "alias"s, "name");
    ASSERT_EQ(mkfifo(kernel::host(CARD + "pipe"s).c_str(), 0600), 0);
    const list others = {".", "..", "uevent", "power", "driver", "alias", "pipe", "block"};
    for (const bool told : {true, false}) {
        types_are_told = told;
        const std::string report = info();
        std::string expected;
        int files = 0;
        for (const auto& name : entries) {
            if (std::find(others.begin(), others.end(), name) == others.end()) {
                expected.append(files++ == 0 ? "\"" : ",\"").append(name);
                expected.append("\":\"").append(name).append(" text\"");
            }
        }
        EXPECT_EQ(files, 10);
        EXPECT_EQ(report, info_with("{" + expected + "}", "{}")) << told;
    }
}

TEST_F(rpc, info_text_of_a_file) {
    PROMISE("a file is longer than 128 bytes", "its first 128 are reported");
    PROMISE("a text ends with line breaks", "one of them is taken off; blanks, quotes and NULs stay");
    PROMISE("the 128 bytes end in the middle of a line", "nothing is taken off");
    PROMISE("a file is empty", "it is left out, while a line break alone is an empty text");
    const struct {
        const char* what;
        std::string file;
        std::string json;  // "": left out
    } rows[] = {
        {"a line", "0x000003\n", "\"0x000003\""},
        {"no line break", "0x000003", "\"0x000003\""},
        {"two line breaks", "a\n\n", R"("a\n")"},
        {"blanks stay", " a \t \n", R"(" a \t ")"},
        {"a line break alone", "\n", "\"\""},
        {"empty", "", ""},
        {"a quote", "a\"b\n", R"("a\"b")"},
        {"a NUL", std::string("a\0b\n", 4), R"("a\u0000b")"},
        {"127 and a line break", std::string(127, 'x') + "\n", "\"" + std::string(127, 'x') + "\""},
        {"128", std::string(128, 'x'), "\"" + std::string(128, 'x') + "\""},
        {"128 and a line break", std::string(128, 'x') + "\n", "\"" + std::string(128, 'x') + "\""},
        {"127, a line break, and more", std::string(127, 'x') + "\ny\n", "\"" + std::string(127, 'x') + "\""},
        {"300", std::string(299, 'x') + "\n", "\"" + std::string(128, 'x') + "\""},
    };
    make_sysfs();
    for (const auto& row : rows) {
        kernel::write(CARD + "csd"s, row.file);
        kernel::write(DISK + "stat"s, row.file);
        const std::string mmc = row.json.empty() ? "{}" : "{\"csd\":" + row.json + "}";
        const std::string block = row.json.empty() ? "{}" : "{\"stat\":" + row.json + "}";
        EXPECT_EQ(info(), info_with(mmc, block)) << row.what;
    }
}

TEST_F(rpc, info_number_of_a_file) {
    PROMISE("a number is out of 32 bits", "it is the nearest that fits");
    PROMISE("a number's file has no number", "it is 0; an empty file is left out");
    PROMISE("a number lies beyond the first 40 bytes", "it is cut there");
    const struct {
        std::string file;
        const char* json;  // null: left out
    } rows[] = {
        {"15523840\n", "15523840"},
        {"1", "1"},
        {"  -7 8\n", "-7"},
        {"+5\n", "5"},
        {"010\n", "10"},
        {"0x10\n", "0"},
        {"yes\n", "0"},
        {"\n", "0"},
        {"", nullptr},
        {"2147483647\n", "2147483647"},
        {"2147483648\n", "2147483647"},  // of a card of 1 TiB
        {"4294967296\n", "2147483647"},
        {"-2147483648\n", "-2147483648"},
        {"-2147483649\n", "-2147483648"},
        {"99999999999999999999\n", "2147483647"},
        {std::string(39, ' ') + "12\n", "1"},
        {std::string(40, ' ') + "12\n", "0"},
        {std::string(40, '0') + "7\n", "0"},
    };
    make_sysfs();
    for (const auto& row : rows) {
        for (const char* name : {"ro", "force_ro", "size"}) {
            kernel::write(DISK + std::string(name), row.file);
        }
        const std::string block = row.json == nullptr ? "{}"
                                                      : R"({"ro":)"s + row.json + R"(,"force_ro":)" + row.json +
                                                            R"(,"size":)" + row.json + "}";
        EXPECT_EQ(info(), info_with("{}", block)) << row.file;
    }
}

// Without a line break it ends with the file, not with what was read before.
TEST_F(rpc, info_number_ends_with_its_file) {
    PROMISE("a number has no line break behind it", "it ends with its file, whatever was read before");
    make_sysfs();
    kernel::write(DISK + "ro"s, "987654");
    kernel::write(DISK + "force_ro"s, "12");
    kernel::write(DISK + "size"s, "3");
    EXPECT_EQ(info(), info_with("{}", R"({"ro":987654,"force_ro":12,"size":3})"));
}

TEST_F(rpc, info_leaves_out_what_cannot_be_read) {
    PROMISE("a file cannot be opened or read", "it alone is left out");
    make_sysfs();
    kernel::write(CARD + "name"s, "SD32G\n");
    kernel::write(DISK + "stat"s, "1 2\n");
    kernel::write(DISK + "ro"s, "0\n");
    kernel::write(DISK + "force_ro"s, "0\n");
    kernel::write(DISK + "size"s, "8\n");
    const struct {
        const char* mmc;
        const char* block;
    } rows[] = {
        {"{}", R"({"stat":"1 2","ro":0,"force_ro":0,"size":8})"},
        {R"({"name":"SD32G"})", R"({"ro":0,"force_ro":0,"size":8})"},
        {R"({"name":"SD32G"})", R"({"stat":"1 2","force_ro":0,"size":8})"},
        {R"({"name":"SD32G"})", R"({"stat":"1 2","ro":0,"size":8})"},
        {R"({"name":"SD32G"})", R"({"stat":"1 2","ro":0,"force_ro":0})"},
        {R"({"name":"SD32G"})", R"({"stat":"1 2","ro":0,"force_ro":0,"size":8})"},
    };
    for (const char* call : {"openat", "read"}) {
        int nth = 0;
        for (const auto& row : rows) {
            kernel::fail(call, EIO, ++nth);
            EXPECT_EQ(info(), info_with(row.mmc, row.block)) << call << " " << nth;
        }
        EXPECT_TRUE(kernel::must_fail(call));  // the last fault: one call more than a report makes
    }
}

TEST_F(rpc, info_waits_for_no_file) {
    PROMISE("a file gives nothing and does not end", "it is left out, and the loop is not held up");
    make_sysfs();
    kernel::write(DISK + "size"s, "8\n");
    for (const char* name : {"stat", "ro"}) {
        ASSERT_EQ(mkfifo(kernel::host(DISK + std::string(name)).c_str(), 0600), 0);
    }
    alarm(30);
    EXPECT_EQ(info(), info_with("{}", R"({"size":8})"));
    alarm(0);
}

TEST_F(rpc, info_null_for_a_directory_that_cannot_be_opened) {
    PROMISE("a directory cannot be opened, or is none", "its part is null, the rest is reported");
    EXPECT_EQ(info(), info_with("null", "null"));  // gone meanwhile
    make_sysfs();
    kernel::write(CARD + "name"s, "SD32G\n");
    kernel::write(DISK + "size"s, "8\n");
    for (const char* call : {"open", "fdopendir"}) {
        kernel::fail(call, EMFILE, 1);
        EXPECT_EQ(info(), info_with("null", R"({"size":8})")) << call;
        kernel::fail(call, EMFILE, 2);
        EXPECT_EQ(info(), info_with(R"({"name":"SD32G"})", "null")) << call;
    }
    std::filesystem::remove(kernel::host(DISK + "device"s));
    kernel::write(DISK + "device"s, "a file\n");
    EXPECT_EQ(info(), info_with("null", R"({"size":8})"));
}

TEST_F(rpc, info_without_memory_for_an_object) {
    PROMISE("there is no memory for one part", "that part is null, the rest is reported");
    PROMISE("there is no memory for the report", "nothing is looked at, logged or sent");
    make_sysfs();
    kernel::write(CARD + "name"s, "SD32G\n");
    kernel::write(DISK + "size"s, "8\n");
    is_mounted = true;
    constexpr char MMC[] = R"({"name":"SD32G"})";
    constexpr char BLOCK[] = R"({"size":8})";
    constexpr char FS[] = R"({"f_type":0,"f_bsize":0,"f_blocks":0,"f_bfree":0,"f_bavail":0,"f_files":0,"f_ffree":0})";
    const struct {
        const char* mmc;
        const char* block;
        const char* fs;
    } rows[] = {{"null", BLOCK, FS}, {MMC, "null", FS}, {MMC, BLOCK, "null"}, {MMC, BLOCK, FS}};
    int nth = 1;
    for (const auto& row : rows) {
        kernel::fail("json_object_new_object", ENOMEM, ++nth);
        EXPECT_EQ(info(), info_with(row.mmc, row.block, row.fs));
    }
    forget();
    kernel::fail("json_object_new_object", ENOMEM);
    rpc_send_sdcard_info();
    EXPECT_TRUE(reports.empty());
    EXPECT_TRUE(logged::lines().empty());
    EXPECT_TRUE(kernel::calls().empty());
}

TEST_F(rpc, info_of_a_filesystem_in_64_bits) {
    PROMISE("the filesystem's numbers need 64 bits",
            "they are reported in 64 bits; type and block size are signed words of the machine");
    block_devices = mmc_manager{};
    is_mounted = true;
    space.f_type = static_cast<decltype(space.f_type)>(0xff534d42UL);  // a magic number with its highest bit set
    space.f_bsize = 32768;
    space.f_blocks = (1ULL << 40) + 1;
    space.f_bfree = 1ULL << 33;
    space.f_bavail = 0xffffffff;
    space.f_files = UINT64_MAX;
    space.f_ffree = 1ULL << 63;
    const std::string type = sizeof(long) == 4 ? "-11317950" : "4283649346";
    EXPECT_EQ(info(), R"(sdcard.info {"state":0,"mmc":null,"block":null,"fs":{"f_type":)" + type +
                          R"(,"f_bsize":32768,"f_blocks":1099511627777,"f_bfree":8589934592,"f_bavail":4294967295,)"
                          R"("f_files":-1,"f_ffree":-9223372036854775808}})");
}

TEST_F(rpc, info_has_no_cool_down) {
    PROMISE("a report follows another", "it is sent: this one has no cool-down, nor does it start one");
    PROMISE("the library refuses a report", "nobody looks");
    block_devices = mmc_manager{};
    info();
    info();
    report_result = -1;  // ignored
    info();
    send_broken();
    EXPECT_EQ(reports.back(), R"(sdcard.alert {"type":4})");
}

// --- alerts ----------------------------------------------------------------------------------------------------------

PROMISES("rpc", "Alerts");

TEST_F(rpc, alerts_as_text) {
    PROMISE(
        "an alert is due",
        "it is logged under its function's name and handed over as \"sdcard.alert\", with its members in their order");
    const struct {
        void (*send)();
        const char* report;
        const char* line;
    } rows[] = {
        {send_broken, R"(sdcard.alert {"type":4})", R"(debug rpc_send_alert: { "type": 4 })"},
        {send_slow, R"(sdcard.alert {"type":1,"mean_speed":100000,"elapse":60,"active_sec":2048})",
         R"(debug rpc_send_alert_slow: { "type": 1, "mean_speed": 100000, "elapse": 60, "active_sec": 2048 })"},
        {send_busy, R"(sdcard.alert {"type":2,"fuser":["recorder"]})",
         R"(debug rpc_send_alert_umount_fail: { "type": 2, "fuser": [ "recorder" ] })"},
    };
    for (const auto& row : rows) {
        forget();
        row.send();
        EXPECT_EQ(reports, list{row.report});
        EXPECT_EQ(logged::lines(), list{row.line});
    }
}

TEST_F(rpc, slow_alert_at_the_ends_of_its_numbers) {
    PROMISE("the numbers of a slow card are extreme", "speed and time are signed, the sectors unsigned");
    rpc_send_alert_slow(INT32_MIN, -1, UINT32_MAX);
    advance(300);
    rpc_send_alert_slow(INT32_MAX, INT32_MAX, 0);
    EXPECT_EQ(reports, (list{R"(sdcard.alert {"type":1,"mean_speed":-2147483648,"elapse":-1,"active_sec":4294967295})",
                             R"(sdcard.alert {"type":1,"mean_speed":2147483647,"elapse":2147483647,"active_sec":0})"}));
}

TEST_F(rpc, names_in_the_order_given) {
    PROMISE("processes hold the card", "their names stand in the order given; none gives an empty list");
    const char names[][RPC_FUSER_NAME_SIZE] = {"recorder", "15 characters..", "", "a \"quoted\" one", "recorder"};
    rpc_send_alert_umount_fail(5, names);
    advance(300);
    rpc_send_alert_umount_fail(0, nullptr);
    EXPECT_EQ(
        reports,
        (list{R"(sdcard.alert {"type":2,"fuser":["recorder","15 characters..","","a \"quoted\" one","recorder"]})",
              R"(sdcard.alert {"type":2,"fuser":[]})"}));
}

TEST_F(rpc, cool_down_of_300_seconds) {
    PROMISE("less than 300 s have gone since the alert was sent last", "it is dropped without a line and counted");
    PROMISE("300 s have gone", "it is sent with the number of those dropped, and counting begins anew");
    PROMISE("no alert was dropped", "there is no \"cool_down\"");
    const struct {
        void (*send)();
        std::string report;
    } rows[] = {{send_broken, R"(sdcard.alert {"type":4)"}, {send_slow, SLOW}, {send_busy, BUSY}};
    for (const auto& row : rows) {
        forget();
        row.send();
        row.send();  // in the same second
        advance(299);
        row.send();
        EXPECT_EQ(reports, list{row.report + "}"});
        EXPECT_EQ(logged::lines().size(), 1U);
        advance(1);
        row.send();
        EXPECT_EQ(reports.back(), row.report + ",\"cool_down\":2}");
        advance(299);  // counted from the alert that was sent last
        row.send();
        EXPECT_EQ(reports.size(), 2U);
        advance(1);
        row.send();
        EXPECT_EQ(reports.back(), row.report + ",\"cool_down\":1}");
        advance(300);
        row.send();
        EXPECT_EQ(reports.size(), 4U);
        EXPECT_EQ(reports.back(), row.report + "}");
    }
}

TEST_F(rpc, three_busy_unmounts_and_a_later_one) {
    PROMISE("three unmounts fail within 20 s and another 301 s after the first",
            "the first and the last are sent, the last with 2 dropped");
    send_busy();
    advance(10);
    send_busy();
    advance(10);
    send_busy();
    EXPECT_EQ(reports, list{BUSY + "}"s});
    advance(281);
    send_busy();
    EXPECT_EQ(reports, (list{BUSY + "}"s, BUSY + R"(,"cool_down":2})"s}));
}

TEST_F(rpc, broken_and_gone_share_a_cool_down) {
    PROMISE("a card breaks 100 s after another was pulled", "the alert is dropped: both kinds share one cool-down");
    send_gone();
    advance(100);
    send_broken();
    EXPECT_EQ(reports, list{R"(sdcard.alert {"type":5})"});
    advance(200);
    send_broken();
    EXPECT_EQ(reports.back(), R"(sdcard.alert {"type":4,"cool_down":1})");
}

TEST_F(rpc, the_other_cool_downs_are_apart) {
    PROMISE("alerts of other kinds follow each other", "each has its own cool-down and its own count");
    send_slow();
    send_slow();
    send_busy();
    send_gone();
    send_busy();
    EXPECT_EQ(reports, (list{SLOW + "}"s, BUSY + "}"s, R"(sdcard.alert {"type":5})"}));
    advance(300);
    send_gone();
    send_busy();
    send_slow();
    EXPECT_EQ(reports, (list{SLOW + "}"s, BUSY + "}"s, R"(sdcard.alert {"type":5})", R"(sdcard.alert {"type":5})",
                             BUSY + R"(,"cool_down":1})"s, SLOW + R"(,"cool_down":1})"s}));
}

TEST_F(rpc, an_alert_that_cannot_be_built_starts_a_cool_down) {
    PROMISE("there is no memory for an alert, or for its list of names",
            "nothing is sent, the cool-down has begun all the same, and those dropped before stay counted");
    const struct {
        void (*send)();
        const char* call;
        std::string report;
    } rows[] = {
        {send_gone, "json_object_new_object", R"(sdcard.alert {"type":5)"},
        {send_slow, "json_object_new_object", SLOW},
        {send_busy, "json_object_new_object", BUSY},
        {send_busy, "json_object_new_array", BUSY},
    };
    for (const auto& row : rows) {
        forget();
        row.send();
        row.send();
        advance(300);
        kernel::fail(row.call, ENOMEM);
        row.send();
        advance(299);
        row.send();
        EXPECT_EQ(reports.size(), 1U);
        EXPECT_EQ(logged::lines().size(), 1U);
        advance(1);
        row.send();
        // The one that failed is not among the dropped; those dropped before it still are.
        EXPECT_EQ(reports, (list{row.report + "}", row.report + ",\"cool_down\":2}"}));
        advance(300);
    }
}

TEST_F(rpc, a_report_that_the_library_refuses_counts_as_sent) {
    PROMISES("rpc", "The information report");
    PROMISE("the library refuses a report", "nobody looks");
    report_result = -1;
    send_slow();
    advance(299);
    send_slow();
    advance(1);
    send_slow();
    EXPECT_EQ(reports, (list{SLOW + "}"s, SLOW + R"(,"cool_down":1})"s}));
}

TEST_F(rpc, a_new_process_near_1970_is_silent_at_first) {
    PROMISE("the clock still shows 1970", "nothing is sent before 300 s, and it is counted");
    EXPECT_EQ(fresh_process::at_299, list{});
    EXPECT_EQ(fresh_process::at_300, (list{R"(sdcard.alert {"type":4,"cool_down":2})", SLOW + R"(,"cool_down":2})"s,
                                           BUSY + R"(,"cool_down":2})"s}));
}

TEST_F(rpc, a_clock_set_back_keeps_alerts_silent_until_it_has_caught_up) {
    PROMISE("the clock is set back", "alerts are dropped until it has caught up");
    send_slow();
    const int64_t sent_s = now_s;
    for (const int64_t offset : {-1LL, -300LL, -1'000'000'000LL, 0LL, 299LL}) {
        advance(sent_s + offset - now_s);
        send_slow();
        EXPECT_EQ(reports.size(), 1U) << offset;
    }
    advance(1);
    send_slow();
    EXPECT_EQ(reports.back(), SLOW + R"(,"cool_down":5})"s);
}

TEST_F(rpc, the_difference_wraps_at_32_bits) {
    PROMISE("the time passes the end of 32 bits, or jumps far", "the difference is that of two signed 32-bit clocks");
    const auto reach = [](int64_t seconds) { advance(seconds - now_s); };
    reach(INT32_MAX - 100);
    send_slow();
    EXPECT_EQ(reports.size(), 1U);
    reach(INT32_MAX + 199LL);  // 299 s later, beyond the end of 2038's clock
    send_slow();
    EXPECT_EQ(reports.size(), 1U);
    advance(1);
    send_slow();
    EXPECT_EQ(reports.size(), 2U);
    const int64_t sent_s = now_s;
    reach(sent_s + INT32_MAX);
    send_slow();
    EXPECT_EQ(reports.size(), 3U);
    advance(INT32_MAX + 1LL);  // the difference is the smallest there is
    send_slow();
    EXPECT_EQ(reports.size(), 3U);
    advance(-2);  // a second less than the largest: due, were it not cut
    send_slow();
    EXPECT_EQ(reports.size(), 4U);
    EXPECT_EQ(reports.back(), SLOW + R"(,"cool_down":1})"s);
}

}  // namespace
