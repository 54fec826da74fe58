#include "actions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mountpoint.h"
#include "records.h"
#include "sdcard.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"

using namespace std::string_literals;
using list = std::vector<std::string>;
using timestamps = std::vector<uint32_t>;

// --- stand-ins for the neighbours: the recordings, the mount, the card -----------------------------------------------

namespace {

list told;  // calls into the neighbours, in order
bool memory_is_short;
int commit_result;
std::vector<timestamps> batches;      // as committed
std::map<uint32_t, int> mark_errors;  // by timestamp; the others can be marked
uint64_t used_bytes;
bool is_mounted;
struct statfs space;
sdcard_state state;
int operation_result;  // of a format or an eject
std::vector<json_object*> made_arrays;

}  // namespace

del_list_entry* records_del_begin(uint32_t count) {
    told.push_back("begin " + std::to_string(count));
    if (memory_is_short) {
        return nullptr;
    }
    // One more than there is room for, so that a write behind the last one shows.
    const size_t size = sizeof(del_list_entry) + (count + size_t{1}) * sizeof(uint32_t);
    auto* batch = static_cast<del_list_entry*>(malloc(size));
    memset(batch, 0xa5, size);  // what the caller does not fill shows
    batch->count = count;
    return batch;
}
int records_del_commit(del_list_entry* batch) {
    told.push_back("commit " + std::to_string(batch->count));
    EXPECT_EQ(batch->ts[batch->count], 0xa5a5a5a5U) << "behind the last one";
    batches.emplace_back(batch->ts, batch->ts + batch->count);
    free(batch);
    return commit_result;
}
int records_mark_persistent(uint32_t ts) {
    told.push_back("mark " + std::to_string(ts));
    errno = mark_errors.count(ts) != 0 ? mark_errors[ts] : 0;
    return errno != 0 ? -1 : 0;
}
uint64_t record_dir_size() {
    told.emplace_back("size");
    return used_bytes;
}
int mountpoint_statfs(struct statfs* buffer) {
    told.emplace_back("statfs");
    if (!is_mounted) {
        return -1;
    }
    *buffer = space;
    return 0;
}
sdcard_state sdcard_get_state() {
    told.emplace_back("state");
    return state;
}
int sdcard_mkfs() {
    told.emplace_back("mkfs");
    return operation_result;
}
int sdcard_eject() {
    told.emplace_back("eject");
    return operation_result;
}

extern "C" {
json_object* __real_json_object_new_array();
json_object* __wrap_json_object_new_array() {
    if (kernel::must_fail("json_object_new_array")) {
        return nullptr;
    }
    made_arrays.push_back(__real_json_object_new_array());
    return made_arrays.back();
}
}

namespace {

struct answer {
    int32_t code;
    std::string reply;
};
bool operator==(const answer& a, const answer& b) {
    return a.code == b.code && a.reply == b.reply;
}
std::ostream& operator<<(std::ostream& out, const answer& a) {
    return out << a.code << " " << a.reply;
}

constexpr int32_t ANSWERED = 0x7fffffff;

class actions : public testing::Test {
  protected:
    void SetUp() override {
        kernel::reset();
        logged::reset();
        told.clear();
        batches.clear();
        mark_errors.clear();
        made_arrays.clear();
        memory_is_short = false;
        commit_result = 0;
        used_bytes = 0;
        is_mounted = true;
        space = {};
        state = SDCARD_NORMAL;
        operation_result = 0;
    }

    // Runs the table's handler of this name as the framework does: with parameters as parsed from a request.
    static answer run(const std::string& name, const std::string& params) {
        told.clear();
        batches.clear();
        logged::reset();
        json_object* parsed = params.empty() ? nullptr : json_tokener_parse(params.c_str());
        EXPECT_EQ(params.empty() || params == "null", parsed == nullptr) << params;
        const auto text = [](json_object* object) { return json_object_to_json_string_ext(object, 0); };
        const std::string before = text(parsed);
        json_object* reply = json_object_new_object();
        answer result{1, "no such action"};
        for (const remote_action* row = action_table; row->name != nullptr; ++row) {
            if (name == row->name) {
                result.code = row->handler(nullptr, parsed, reply);
                result.reply = text(reply);
            }
        }
        EXPECT_EQ(json_object_put(reply), 1);
        if (parsed != nullptr) {
            EXPECT_EQ(text(parsed), before);
            EXPECT_EQ(json_object_put(parsed), 1);  // the framework's: nobody else holds it
        }
        return result;
    }
};

const answer DONE{0, "{}"};

PROMISES("actions");

TEST_F(actions, table_in_order_and_ended_by_zeros) {
    PROMISE("the framework reads the table",
            "six names in their order, both deletions with one handler, a row of zeros behind them");
    const list names = {"deleteVideo", "deleteSaveVideo", "saveVideo", "sd_storge", "sd_format", "sd_umount"};
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(action_table[i].name, names[i]);
        EXPECT_NE(action_table[i].handler, nullptr);
        EXPECT_EQ(action_table[i].reserved[0], 0U);
        EXPECT_EQ(action_table[i].reserved[1], 0U);
    }
    const remote_action zeros{};
    EXPECT_EQ(memcmp(&action_table[names.size()], &zeros, sizeof zeros), 0);
    EXPECT_EQ(action_table[0].handler, action_table[1].handler);
    for (size_t i = 1; i + 1 < names.size(); ++i) {
        EXPECT_NE(action_table[i].handler, action_table[i + 1].handler);
    }
}

// --- deletion and protection -----------------------------------------------------------------------------------------

// What an element of the array is read as. What is no integer follows json-c's conversion, pinned here.
const struct {
    const char* json;
    uint32_t ts;
} ELEMENTS[] = {
    {"1790000000", 1'790'000'000},
    {"0", 0},
    {"4294967295", 4'294'967'295},  // the largest timestamp
    {"4294967296", 0},              // cut to 32 bits from here on
    {"4294967297", 1},
    {"6084967296", 1'790'000'000},
    {"-1", 4'294'967'295},
    {"-2504967296", 1'790'000'000},
    {"9223372036854775807", 4'294'967'295},
    {"-9223372036854775808", 0},
    {"9223372036854775808", 4'294'967'295},  // the nearest 64-bit integer from here on
    {"18446744073709551615", 4'294'967'295},
    {"18446744073709551616", 4'294'967'295},
    {"-9223372036854775809", 0},
    {"99999999999999999999999999999999999999", 4'294'967'295},
    {"1790000000.9", 1'790'000'000},
    {"-1.9", 4'294'967'295},
    {"1.79e9", 1'790'000'000},
    {"1e300", 4'294'967'295},
    {"-1e300", 0},
    {"true", 1},
    {"false", 0},
    {"\"1790000000\"", 1'790'000'000},
    {"\" 12 and more\"", 12},
    {"\"-1\"", 4'294'967'295},
    {"\"4294967297\"", 1},
    {"\"99999999999999999999\"", 4'294'967'295},
    {"\"today\"", 0},
    {"\"\"", 0},
    {"[1790000000]", 0},
    {"{\"ts\":1790000000}", 0},
};

TEST_F(actions, delete_takes_each_element_in_its_place) {
    PROMISE("clips are to be deleted", "one batch with each element in its place, then 0 and an empty reply");
    PROMISE("an element is null", "its place holds 0; for protecting it is passed over");
    PROMISE("a timestamp is beyond 32 bits, or negative", "its low 32 bits count");
    PROMISE("an element is no integer",
            "it counts as what the JSON library reads from it, 0 for lists, objects and words");
    std::string params = "[";
    timestamps expected;
    for (const auto& element : ELEMENTS) {
        params += element.json + ","s;
        expected.push_back(element.ts);
    }
    params += "null]";
    expected.push_back(0);
    for (const char* name : {"deleteVideo", "deleteSaveVideo"}) {
        EXPECT_EQ(run(name, params), DONE);
        const std::string count = std::to_string(expected.size());
        EXPECT_EQ(told, (list{"begin " + count, "commit " + count}));
        ASSERT_EQ(batches.size(), 1U);
        ASSERT_EQ(batches[0].size(), expected.size());
        for (size_t i = 0; i + 1 < expected.size(); ++i) {
            EXPECT_EQ(batches[0][i], expected[i]) << ELEMENTS[i].json;
        }
        EXPECT_EQ(batches[0].back(), 0U);
        EXPECT_TRUE(logged::lines().empty());
    }
}

TEST_F(actions, save_takes_each_element_but_null) {
    PROMISE("an element is null", "its place holds 0; for protecting it is passed over");
    PROMISE("a timestamp is beyond 32 bits, or negative", "its low 32 bits count");
    PROMISE("an element is no integer",
            "it counts as what the JSON library reads from it, 0 for lists, objects and words");
    for (const auto& element : ELEMENTS) {
        EXPECT_EQ(run("saveVideo", "["s + element.json + "]"), DONE);
        EXPECT_EQ(told, list{"mark " + std::to_string(element.ts)}) << element.json;
    }
    EXPECT_EQ(run("saveVideo", "[null,7,null,5,7,null]"), DONE);
    EXPECT_EQ(told, (list{"mark 7", "mark 5", "mark 7"}));
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(actions, parameters_that_are_no_array_change_nothing) {
    PROMISE("the parameters are no array, or absent", "-22, nothing is touched or logged");
    for (const char* name : {"deleteVideo", "deleteSaveVideo", "saveVideo"}) {
        for (const char* params :
             {"", "null", "{}", R"({"ts":[1790000000]})", "1790000000", "\"[1]\"", "true", "1.5"}) {
            EXPECT_EQ(run(name, params), (answer{-22, "{}"})) << name << " " << params;
            EXPECT_TRUE(told.empty()) << name << " " << params;
            EXPECT_TRUE(logged::lines().empty());
        }
    }
}

TEST_F(actions, empty_arrays) {
    PROMISE("the array is empty", "deleting commits an empty batch, protecting does nothing; both are done");
    EXPECT_EQ(run("deleteVideo", "[]"), DONE);
    EXPECT_EQ(told, (list{"begin 0", "commit 0"}));  // a batch like any other
    EXPECT_EQ(run("saveVideo", "[]"), DONE);
    EXPECT_TRUE(told.empty());
}

TEST_F(actions, delete_without_memory) {
    PROMISE("there is no memory for the batch", "-12, nothing is committed");
    memory_is_short = true;
    EXPECT_EQ(run("deleteVideo", "[1,2,3]"), (answer{-12, "{}"}));
    EXPECT_EQ(told, list{"begin 3"});
}

TEST_F(actions, delete_without_an_index_is_done_too) {
    PROMISE("the index is closed", "deleting is answered as done, and the batch is lost");
    commit_result = -1;
    EXPECT_EQ(run("deleteVideo", "[1,2,3]"), DONE);
    EXPECT_EQ(told, (list{"begin 3", "commit 3"}));
    EXPECT_TRUE(logged::lines().empty());
}

TEST_F(actions, as_many_as_a_request_may_carry) {
    PROMISE("a request carries as many clips as it can", "all are taken");
    std::string params = "[";
    for (uint32_t ts = 1'790'000'000; ts < 1'790'011'915; ++ts) {
        params += std::to_string(ts) + ",";
    }
    params.back() = ']';
    ASSERT_LE(params.size(), 128U << 10);
    EXPECT_EQ(run("deleteVideo", params), DONE);
    ASSERT_EQ(batches.size(), 1U);
    ASSERT_EQ(batches[0].size(), 11'915U);
    for (uint32_t i = 0; i < 11'915; ++i) {
        ASSERT_EQ(batches[0][i], 1'790'000'000 + i);
    }
    EXPECT_EQ(run("saveVideo", params), DONE);
    EXPECT_EQ(told.size(), 11'915U);
}

TEST_F(actions, save_warns_once_for_each_that_cannot_be_marked) {
    PROMISE("a clip cannot be protected",
            "\"Error mark %u as persistent. %s\", once for each, the others go on, and the answer is 0");
    mark_errors = {{7, ENOENT}, {4'294'967'295, ENOENT}, {9, EINVAL}, {0, ENOENT}};
    logged::disturb_errno(EIO);
    EXPECT_EQ(run("saveVideo", "[7,5,-1,9,0,7]"), DONE);
    logged::disturb_errno(0);
    EXPECT_EQ(told, (list{"mark 7", "mark 5", "mark 4294967295", "mark 9", "mark 0", "mark 7"}));
    const std::string unknown = "warning Error mark 7 as persistent. "s + strerror(ENOENT);
    EXPECT_EQ(logged::lines(), (list{unknown, "warning Error mark 4294967295 as persistent. "s + strerror(ENOENT),
                                     "warning Error mark 9 as persistent. "s + strerror(EINVAL),
                                     "warning Error mark 0 as persistent. "s + strerror(ENOENT), unknown}));
}

// --- storage ---------------------------------------------------------------------------------------------------------

TEST_F(actions, storage_by_state) {
    PROMISE("the figures are asked for with a card that is normal or full",
            "total, used and free bytes and the state's number as \"result\", with the code that says so");
    PROMISE("the card is absent or unknown, broken, busy or ejected",
            "-2003, -2002, -2000 or -2005, no \"result\", and the card is not looked at");
    PROMISE("the state is a number without a name", "the figures are given");
    const struct {
        int32_t state;
        answer expected;
    } rows[] = {
        {SDCARD_NORMAL, {ANSWERED, R"({"result":[40960,12345,8192,0]})"}},
        {SDCARD_NOT_EXISTS, {-2003, "{}"}},
        {SDCARD_FULL, {ANSWERED, R"({"result":[40960,12345,8192,2]})"}},
        {SDCARD_BROKEN, {-2002, "{}"}},
        {SDCARD_FORMATTING, {-2000, "{}"}},
        {SDCARD_EJECT, {-2005, "{}"}},
        {SDCARD_FIXING, {-2000, "{}"}},
        {SDCARD_EJECTING, {-2000, "{}"}},
        {SDCARD_UNKNOWN, {-2003, "{}"}},
        {8, {ANSWERED, R"({"result":[40960,12345,8192,8]})"}},
        {-1, {ANSWERED, R"({"result":[40960,12345,8192,-1]})"}},
    };
    space.f_bsize = 4096;
    space.f_blocks = 10;
    space.f_bfree = 3;  // what root may take beside is not offered
    space.f_bavail = 2;
    used_bytes = 12345;
    for (const auto& row : rows) {
        state = static_cast<sdcard_state>(row.state);
        EXPECT_EQ(run("sd_storge", "{}"), row.expected) << row.state;
        // The folder is looked at before the filesystem, and neither without a card to look at.
        EXPECT_EQ(told, row.expected.code == ANSWERED ? (list{"state", "size", "statfs"}) : list{"state"}) << row.state;
        EXPECT_TRUE(logged::lines().empty());
    }
}

TEST_F(actions, storage_in_64_bits) {
    PROMISE("figures need 64 bits", "they have them");
    space.f_bsize = 32768;
    space.f_blocks = 7'800'000;
    space.f_bavail = 4'000'000;
    used_bytes = 5'000'000'000;
    EXPECT_EQ(run("sd_storge", "{}"), (answer{ANSWERED, R"({"result":[255590400000,5000000000,131072000000,0]})"}));
    space.f_blocks = 1ULL << 33;
    space.f_bavail = (1ULL << 33) - 1;
    used_bytes = 1ULL << 62;
    EXPECT_EQ(run("sd_storge", "[]"),
              (answer{ANSWERED, R"({"result":[281474976710656,4611686018427387904,281474976677888,0]})"}));
}

TEST_F(actions, storage_takes_any_parameters) {
    PROMISE("the figures are asked for with any parameters", "they are ignored");
    for (const char* params : {"", "null", "{}", "[1,2]", "\"x\"", "7"}) {
        EXPECT_EQ(run("sd_storge", params), (answer{ANSWERED, R"({"result":[0,0,0,0]})"})) << params;
    }
}

TEST_F(actions, storage_without_a_mount_keeps_the_array) {
    PROMISE("the mount goes between the state and the figures",
            "-2002, no \"result\", and the list made for it is left behind");
    is_mounted = false;
    EXPECT_EQ(run("sd_storge", "{}"), (answer{-2002, "{}"}));
    EXPECT_EQ(told, (list{"state", "size", "statfs"}));
    ASSERT_EQ(made_arrays.size(), 1U);
    EXPECT_EQ(json_object_put(made_arrays[0]), 1);  // still there, and nobody else's
}

TEST_F(actions, storage_without_memory) {
    PROMISE("there is no memory for the figures", "-12, before anything is measured");
    kernel::fail("json_object_new_array", ENOMEM);
    EXPECT_EQ(run("sd_storge", "{}"), (answer{-12, "{}"}));
    EXPECT_EQ(told, list{"state"});
}

// --- format and eject ------------------------------------------------------------------------------------------------

TEST_F(actions, format_and_eject) {
    PROMISE("a format or an eject is asked for, with any parameters", "it is started, and 0 says no more than that");
    PROMISE("a format cannot be started", "-2003");
    PROMISE("an eject cannot be started", "-2002");
    const struct {
        const char* name;
        int result;
        int32_t code;
        const char* call;
    } rows[] = {
        {"sd_format", 0, 0, "mkfs"},  {"sd_format", -1, -2003, "mkfs"},  {"sd_format", 1, 0, "mkfs"},
        {"sd_umount", 0, 0, "eject"}, {"sd_umount", -1, -2002, "eject"}, {"sd_umount", 1, 0, "eject"},
    };
    for (const auto& row : rows) {
        for (const char* params : {"", "{}", "[1]", "\"start\""}) {
            operation_result = row.result;
            EXPECT_EQ(run(row.name, params), (answer{row.code, "{}"})) << row.name << " " << row.result;
            EXPECT_EQ(told, list{row.call});
            EXPECT_TRUE(logged::lines().empty());
        }
    }
}

}  // namespace
