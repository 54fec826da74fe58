// The card's actions behind the framework and a real broker: what somebody far away may send, and what comes of it.
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/statfs.h>
#include <vector>

#include "actions.h"
#include "records.h"
#include "sdcard.h"
#include "support/app.h"
#include "support/promise.h"

// --- stand-ins for the card and its recordings -----------------------------------------------------------------------

namespace {

using list = std::vector<std::string>;
list told;  // what reached the card and its recordings, in order

std::string text_of(const uint32_t* ts, uint32_t count) {
    if (count > 10) {
        return std::to_string(count) + " clips";
    }
    std::string text;
    for (uint32_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : " ") + std::to_string(ts[i]);
    }
    return text;
}

}  // namespace

del_list_entry* records_del_begin(uint32_t count) {
    auto* batch = static_cast<del_list_entry*>(malloc(sizeof(del_list_entry) + count * sizeof(uint32_t)));
    batch->count = count;
    return batch;
}
int records_del_commit(del_list_entry* batch) {
    told.push_back("delete " + text_of(batch->ts, batch->count));
    free(batch);
    return 0;
}
int records_mark_persistent(uint32_t ts) {
    told.push_back("mark " + std::to_string(ts));
    errno = ENOENT;
    return ts == 404 ? -1 : 0;
}
uint64_t record_dir_size() {
    return 1'048'576;
}
int mountpoint_statfs(struct statfs* buffer) {
    *buffer = {};
    buffer->f_bsize = 512;
    buffer->f_blocks = 127'936;
    buffer->f_bavail = 125'808;
    return 0;
}
sdcard_state sdcard_get_state() {
    return SDCARD_NORMAL;
}
int sdcard_mkfs() {
    told.emplace_back("format");
    return 0;
}
int sdcard_eject() {
    told.emplace_back("eject");
    return -1;
}

namespace {

const std::string ACTION = "vesk/tester/action/";
constexpr char FIGURES[] = R"({"code": 0, "result":[65503232,1048576,64413696,0]})";
constexpr char DONE[] = R"({"code": 0})";
constexpr char INVALID[] = R"({"code": -22})";

class ActionsOnTheWire : public AppTest {
  protected:
    void SetUp() override {
        told.clear();
        start_app(action_table);
        watch("vesk/#");
        ASSERT_TRUE(wait_for("vesk/tester/status", 1));
    }

    void send(const std::string& name, const std::string& payload, bool retained = false,
              const char* response_topic = nullptr) {
        const std::string topic = ACTION + name;
        bus_message message = {};
        message.topic = topic.c_str();
        message.payload = payload.data();
        message.length = payload.size();
        message.retained = retained;
        message.response_topic = response_topic;
        ASSERT_NE(bus_publish(other, &message, 1), 0U);
    }

    // Sends a request without a response topic and returns what came on the action's own.
    std::string ask(const std::string& name, const std::string& payload) {
        seen.clear();
        told.clear();
        send(name, payload);
        const std::string topic = ACTION + name + "/reply";
        EXPECT_TRUE(wait_for(topic, 1)) << name << " " << payload;
        const auto answers = on(topic);
        EXPECT_EQ(answers.size(), 1U) << name << " " << payload;
        return answers.empty() ? "" : answers[0].payload;
    }
};

PROMISES("actions");

TEST_F(ActionsOnTheWire, AnswerWhateverIsSent) {
    PROMISE("a request comes over the bus, whatever it holds",
            "one answer with a code that the action knows; what is no JSON or no array reaches nothing");
    PROMISE("an action has no such name", "-38");
    const std::string deep = std::string(28, '[') + "7" + std::string(28, ']');
    const struct {
        const char* action;
        std::string payload;
        const char* reply;
        list expected;
    } rows[] = {
        {"deleteVideo", "[7,8]", DONE, {"delete 7 8"}},
        {"deleteSaveVideo", "[7]", DONE, {"delete 7"}},
        {"saveVideo", "[7,404,8]", DONE, {"mark 7", "mark 404", "mark 8"}},
        {"sd_storge", "{}", FIGURES, {}},
        {"sd_storge", "[\"anything\"]", FIGURES, {}},
        {"sd_format", "{}", DONE, {"format"}},
        {"sd_umount", "{}", R"({"code": -2002})", {"eject"}},
        {"deleteVideo", "[]", DONE, {"delete "}},
        // No JSON.
        {"deleteVideo", "", INVALID, {}},
        {"saveVideo", " ", INVALID, {}},
        {"sd_format", "", INVALID, {}},
        {"sd_umount", "start", INVALID, {}},
        {"deleteVideo", "[7,8", INVALID, {}},
        {"deleteVideo", "[7,]x", INVALID, {}},
        {"deleteVideo", "7 8", INVALID, {}},
        {"deleteVideo", "[7]\n[8]", INVALID, {}},
        {"deleteVideo", "[0x10]", INVALID, {}},
        {"deleteVideo", "[\"\xff\"]", INVALID, {}},
        {"deleteVideo", std::string("[7\0]", 4), INVALID, {}},
        // No array.
        {"deleteVideo", "{\"ts\":[7]}", INVALID, {}},
        {"deleteVideo", "7", INVALID, {}},
        {"deleteVideo", "\"[7]\"", INVALID, {}},
        {"deleteVideo", "null", INVALID, {}},
        {"deleteVideo", "true", INVALID, {}},
        {"saveVideo", "{}", INVALID, {}},
        // Nested, as text, negative, beyond 32 and 64 bits.
        {"deleteVideo", "[[7],{\"ts\":8},[]]", DONE, {"delete 0 0 0"}},
        {"deleteVideo", deep, DONE, {"delete 0"}},
        {"deleteVideo", std::string(40, '[') + std::string(40, ']'), INVALID, {}},
        {"deleteVideo", R"(["7"," 8","x",""])", DONE, {"delete 7 8 0 0"}},
        {"deleteVideo", "[-1,-0,-2147483648]", DONE, {"delete 4294967295 0 2147483648"}},
        {"deleteVideo", "[4294967295,4294967296,4294967303]", DONE, {"delete 4294967295 0 7"}},
        {"deleteVideo",
         "[9223372036854775808,18446744073709551616,1e999]",
         DONE,
         {"delete 4294967295 4294967295 4294967295"}},
        {"deleteVideo", "[7.9,7e0,true,null]", DONE, {"delete 7 7 1 0"}},
        {"saveVideo", "[null,[7],\"7\",4294967303]", DONE, {"mark 0", "mark 7", "mark 7"}},
        // No such action.
        {"deletevideo", "[7]", R"({"code": -38})", {}},
        {"sd_storage", "{}", R"({"code": -38})", {}},
        {"sd_format ", "{}", R"({"code": -38})", {}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ask(row.action, row.payload), row.reply) << row.action << " " << row.payload;
        EXPECT_EQ(told, row.expected) << row.action << " " << row.payload;
    }
}

TEST_F(ActionsOnTheWire, AsManyClipsAsARequestMayCarryAndAByteMore) {
    PROMISE("a request carries as many clips as it can", "all are taken");
    PROMISE("a request has a byte more than 128 KiB, or is larger than the bus takes",
            "its answer says so, and nothing is deleted");
    constexpr size_t PARAMETERS_MAX = size_t{128} << 10;
    std::string payload = "[";
    for (uint32_t ts = 1'790'000'000; ts < 1'790'011'915; ++ts) {
        payload += std::to_string(ts) + ",";
    }
    payload.back() = ']';
    const std::string file = broker.folder() + "/payload";
    const std::string command = "mosquitto_pub --unix " + broker.folder() + "/sock -q 1 -t " + ACTION +
                                "deleteVideo -f " + file + " &";  // in the background: the reply needs our loop
    for (const size_t size : {PARAMETERS_MAX, PARAMETERS_MAX + 1, BUS_PAYLOAD_MAX + 1}) {
        SCOPED_TRACE(size);
        const bool taken = size == PARAMETERS_MAX;
        seen.clear();
        told.clear();
        std::ofstream(file) << payload << std::string(size - payload.size(), ' ');
        ASSERT_EQ(system(command.c_str()), 0);
        ASSERT_TRUE(wait_for(ACTION + "deleteVideo/reply", 1));
        EXPECT_EQ(on(ACTION + "deleteVideo/reply")[0].payload, taken ? DONE : R"({"code": -7})");
        EXPECT_EQ(told, taken ? list{"delete 11915 clips"} : list{});
    }
}

TEST_F(ActionsOnTheWire, TheSameRequestTwiceIsTwoRequests) {
    PROMISE("one request comes twice", "it is two requests");
    send("deleteVideo", "[7]");
    send("deleteVideo", "[7]");
    ASSERT_TRUE(wait_for(ACTION + "deleteVideo/reply", 2));
    EXPECT_EQ(told, (list{"delete 7", "delete 7"}));
    for (const auto& answer : on(ACTION + "deleteVideo/reply")) {
        EXPECT_EQ(answer.payload, DONE);
    }
}

TEST_F(ActionsOnTheWire, ARetainedRequestErasesNothing) {
    PROMISE("a request was left at the broker as a retained one", "it is not carried out: nobody asks for it now");
    send("sd_format", "{}", true);
    send("deleteVideo", "[7]", true);
    ASSERT_TRUE(run_until([&] { return log.count("<4>bus: retained action") == 2; }));
    EXPECT_EQ(ask("sd_storge", "{}"), FIGURES);
    EXPECT_EQ(told, list{});
}

TEST_F(ActionsOnTheWire, TheAnswerGoesToTheResponseTopicAlone) {
    PROMISE("a request names a topic for its answer", "the answer goes there and nowhere else");
    watch("answers/#");
    send("sd_storge", "{}", false, "answers/1");
    ASSERT_TRUE(wait_for("answers/1", 1));
    EXPECT_EQ(on("answers/1")[0].payload, FIGURES);
    EXPECT_TRUE(on(ACTION + "sd_storge/reply").empty());
}

// Requests made of JSON's own pieces in any order. Each gets one answer, with a code that the action knows, and only
// what is an array reaches the recordings.
TEST_F(ActionsOnTheWire, AnswerNoise) {
    PROMISE("a request comes over the bus, whatever it holds",
            "one answer with a code that the action knows; what is no JSON or no array reaches nothing");
    constexpr const char* PIECES[] = {"[",    "]",     "{",   "}",    ",",    ":",     "\"",  "7",
                                      "-1",   "1e400", ".5",  "true", "null", "\"a\"", "\\u", "\xc3",
                                      "\xa9", "\x01",  "NaN", " ",    "[]",   "[7]"};
    constexpr const char* NAMES[] = {"deleteVideo", "deleteSaveVideo", "saveVideo"};
    std::mt19937 random(1970);  // NOLINT(bugprone-random-generator-seed): the same requests every time
    int taken = 0;
    for (int i = 0; i < 200; ++i) {
        std::string payload = random() % 2 == 0 ? "[" : "";
        for (unsigned pieces = random() % 5; pieces > 0; --pieces) {
            payload += PIECES[random() % std::size(PIECES)];
        }
        payload += random() % 2 == 0 ? "]" : "";
        const std::string name = NAMES[random() % std::size(NAMES)];
        const std::string reply = ask(name, payload);
        EXPECT_TRUE(reply == DONE || reply == INVALID) << name << " " << payload << ": " << reply;
        EXPECT_TRUE(reply == DONE || told.empty()) << name << " " << payload;
        EXPECT_TRUE(reply == INVALID || payload.find('[') != std::string::npos) << name << " " << payload;
        taken += reply == DONE;
    }
    EXPECT_GT(taken, 10);
    EXPECT_LT(taken, 190);
    EXPECT_EQ(ask("sd_storge", "{}"), FIGURES);
}

}  // namespace
