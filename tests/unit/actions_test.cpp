#include "actions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <map>
#include <string>
#include <sys/statfs.h>
#include <vector>

#include "mountpoint.h"
#include "records.h"
#include "sdcard.h"
#include "support/kernel.h"
#include "support/log.h"

using strings = std::vector<std::string>;

// --- stand-ins for the neighbours ------------------------------------------------------------------------------------

namespace {

sdcard_state state;
int statfs_result;
struct statfs space;
uint64_t used;
int begin_errno;
int commit_result;
int job_result;
std::map<uint32_t, int> mark_errno;  // by timestamp
strings calls;

}  // namespace

sdcard_state sdcard_get_state() {
    return state;
}
int sdcard_mkfs() {
    calls.emplace_back("sdcard_mkfs");
    return job_result;
}
int sdcard_eject() {
    calls.emplace_back("sdcard_eject");
    return job_result;
}
int mountpoint_statfs(struct statfs* buffer) {
    calls.emplace_back("mountpoint_statfs");
    if (statfs_result == 0) {
        *buffer = space;
    }
    return statfs_result;
}
uint64_t record_dir_size() {
    calls.emplace_back("record_dir_size");
    return used;
}
del_list_entry* records_del_begin(uint32_t count) {
    if (begin_errno != 0) {
        errno = begin_errno;
        return nullptr;
    }
    auto* batch = static_cast<del_list_entry*>(malloc(sizeof(del_list_entry) + count * sizeof(uint32_t)));
    memset(batch->ts, 0xee, count * sizeof(uint32_t));
    batch->count = count;
    return batch;
}
int records_del_commit(del_list_entry* batch) {
    std::string text = "commit";
    for (uint32_t i = 0; i < batch->count; ++i) {
        text += " " + std::to_string(batch->ts[i]);
    }
    calls.push_back(text);
    free(batch);  // the list's, whatever the result: what the caller does with it afterwards would show
    return commit_result;
}
int records_mark_persistent(uint32_t ts) {
    calls.push_back("mark " + std::to_string(ts));
    errno = mark_errno[ts];
    return errno == 0 ? 0 : -1;
}

extern "C" {

bool array_fails = false;
json_object* __real_json_object_new_array();
json_object* __wrap_json_object_new_array() {
    return array_fails ? nullptr : __real_json_object_new_array();
}

}  // extern "C"

namespace {

class actions : public testing::Test {
  protected:
    void SetUp() override {
        kernel::reset();
        logged::reset();
        state = SDCARD_NORMAL;
        statfs_result = begin_errno = commit_result = job_result = 0;
        space = {};
        used = 0;
        array_fails = false;
        mark_errno.clear();
        calls.clear();
        reply.clear();
    }

    // The code that the action gives for these parameters; what it says goes to `reply`.
    int32_t act(const std::string& name, const char* parameters) {
        json_object* params = json_tokener_parse(parameters);
        json_object* object = json_object_new_object();
        int32_t code = 1;
        for (const remote_action* action = action_table; action->name != nullptr; ++action) {
            if (action->name == name) {
                code = action->handler(nullptr, params, object);
            }
        }
        reply = json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN);
        json_object_put(object);
        json_object_put(params);
        return code;
    }

    std::string reply;
};

constexpr const char* BOTH_DELETIONS[] = {"deleteVideo", "deleteSaveVideo"};
constexpr const char* NO_ARRAYS[] = {"{}", "{\"ts\":1}", "1", "\"1\"", "true", "null", "1.5"};

TEST_F(actions, the_table) {
    strings names;
    const remote_action* action = action_table;
    for (; action->name != nullptr; ++action) {
        names.emplace_back(action->name);
        EXPECT_NE(nullptr, action->handler);
        EXPECT_EQ(0U, action->reserved[0]);
        EXPECT_EQ(0U, action->reserved[1]);
    }
    EXPECT_EQ((strings{"deleteVideo", "deleteSaveVideo", "saveVideo", "sd_storge", "sd_format", "sd_umount"}), names);
    EXPECT_EQ(nullptr, action->handler);
    EXPECT_EQ(action_table[0].handler, action_table[1].handler);
}

// --- deleting --------------------------------------------------------------------------------------------------------

TEST_F(actions, deletes_what_is_listed) {
    struct {
        const char* parameters;
        const char* committed;
    } rows[] = {
        {"[]", "commit"},
        {"[1795231084]", "commit 1795231084"},
        {"[3,1,2,1]", "commit 3 1 2 1"},
        {"[null,7,null]", "commit 0 7 0"},
        {"[4294967295,4294967296,4294967303]", "commit 4294967295 0 7"},
        {"[-1,-4294967295]", "commit 4294967295 1"},
        {"[9223372036854775807,99999999999999999999]", "commit 4294967295 4294967295"},
        {"[\"1795231084\",\"x\",true,1.9,{},[5]]", "commit 1795231084 0 1 1 0 0"},
    };
    for (const char* name : BOTH_DELETIONS) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.parameters);
            calls.clear();
            EXPECT_EQ(0, act(name, row.parameters));
            EXPECT_EQ(strings{row.committed}, calls);
            EXPECT_EQ("{}", reply);
        }
    }
    EXPECT_EQ(strings{}, logged::lines());
}

TEST_F(actions, what_is_no_array_changes_nothing) {
    for (const char* name : {"deleteVideo", "deleteSaveVideo", "saveVideo"}) {
        for (const char* parameters : NO_ARRAYS) {
            SCOPED_TRACE(parameters);
            EXPECT_EQ(-22, act(name, parameters));
        }
    }
    EXPECT_EQ(strings{}, calls);
}

TEST_F(actions, deletion_without_memory) {
    begin_errno = ENOMEM;
    EXPECT_EQ(-12, act("deleteVideo", "[1]"));
    EXPECT_EQ(strings{}, calls);
}

TEST_F(actions, deletion_while_the_index_is_closed_is_answered_like_any_other) {
    commit_result = -1;
    EXPECT_EQ(0, act("deleteVideo", "[1]"));
}

TEST_F(actions, many_at_once) {
    std::string parameters = "[1";
    for (int i = 2; i <= 90000; ++i) {
        parameters += "," + std::to_string(i);
    }
    EXPECT_EQ(0, act("deleteVideo", (parameters + "]").c_str()));
    ASSERT_EQ(1U, calls.size());
    EXPECT_TRUE(calls[0].ends_with(" 89999 90000"));
}

// --- protecting ------------------------------------------------------------------------------------------------------

TEST_F(actions, marks_each_and_warns_of_those_that_are_not_there) {
    mark_errno = {{2, ENOENT}, {4294967295, EINVAL}};
    EXPECT_EQ(0, act("saveVideo", "[1,2,null,-1,4294967299]"));
    EXPECT_EQ((strings{"mark 1", "mark 2", "mark 4294967295", "mark 3"}), calls);
    EXPECT_EQ((strings{"warning Error mark 2 as persistent. No such file or directory",
                       "warning Error mark 4294967295 as persistent. Invalid argument"}),
              logged::lines());
    EXPECT_EQ("{}", reply);
}

TEST_F(actions, nothing_to_mark) {
    EXPECT_EQ(0, act("saveVideo", "[]"));
    EXPECT_EQ(0, act("saveVideo", "[null]"));
    EXPECT_EQ(strings{}, calls);
}

// --- figures ---------------------------------------------------------------------------------------------------------

TEST_F(actions, figures_by_card_state) {
    struct {
        int32_t state;
        int32_t code;
    } rows[] = {{0, 0x7fffffff}, {1, -2003}, {2, 0x7fffffff}, {3, -2002},          {4, -2000},
                {5, -2005},      {6, -2000}, {7, -2000},      {0x7fffffff, -2003}, {8, 0x7fffffff}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.state);
        calls.clear();
        state = static_cast<sdcard_state>(row.state);
        EXPECT_EQ(row.code, act("sd_storge", "null"));
        if (row.code == 0x7fffffff) {
            EXPECT_EQ((strings{"record_dir_size", "mountpoint_statfs"}), calls);
            EXPECT_EQ("{\"result\":[0,0,0," + std::to_string(row.state) + "]}", reply);
        } else {
            EXPECT_EQ(strings{}, calls);
            EXPECT_EQ("{}", reply);
        }
    }
}

TEST_F(actions, figures_in_bytes_of_64_bits) {
    state = SDCARD_FULL;
    space.f_blocks = 0xf0000000U;
    space.f_bsize = 32768;
    space.f_bavail = 0x80000000U;
    space.f_bfree = 1;
    used = 0x123456789a;
    EXPECT_EQ(0x7fffffff, act("sd_storge", "[1,2]"));
    EXPECT_EQ(R"({"result":[131941395333120,78187493530,70368744177664,2]})", reply);
}

TEST_F(actions, no_figures_without_memory) {
    array_fails = true;
    EXPECT_EQ(-12, act("sd_storge", "{}"));
    EXPECT_EQ(strings{}, calls);
}

// --- jobs ------------------------------------------------------------------------------------------------------------

TEST_F(actions, jobs_are_started_whatever_the_parameters) {
    for (const char* parameters : NO_ARRAYS) {
        calls.clear();
        EXPECT_EQ(0, act("sd_format", parameters));
        EXPECT_EQ(0, act("sd_umount", parameters));
        EXPECT_EQ((strings{"sdcard_mkfs", "sdcard_eject"}), calls);
        EXPECT_EQ("{}", reply);
    }
    job_result = -1;
    EXPECT_EQ(-2003, act("sd_format", "[]"));
    EXPECT_EQ(-2002, act("sd_umount", "[]"));
}

}  // namespace

// The figures' array is not released when the card vanishes between two questions, and that is so on purpose; the leak
// checker need not hear of it.
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

TEST_F(actions, no_figures_of_a_card_that_is_not_mounted) {
    statfs_result = -1;
#if defined(__SANITIZE_ADDRESS__)
    const __lsan::ScopedDisabler kept;
#endif
    EXPECT_EQ(-2002, act("sd_storge", "{}"));
    EXPECT_EQ((strings{"record_dir_size", "mountpoint_statfs"}), calls);
    EXPECT_EQ("{}", reply);
}

}  // namespace
