// Remote actions and status against a real broker.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ev.h>
#include <fstream>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "support/app.h"
#include "support/promise.h"

namespace {

int runs;
std::string last_params;

int32_t keep_params(json_object* params) {
    ++runs;
    last_params = params == nullptr ? "(null pointer)" : json_object_to_json_string_ext(params, JSON_C_TO_STRING_PLAIN);
    return 0;
}

int32_t act_echo(void*, json_object* params, json_object*) {
    return keep_params(params);
}
int32_t act_figures(void*, json_object* params, json_object* reply) {
    keep_params(params);
    json_object* result = json_object_new_array();
    json_object_array_add(result, json_object_new_int64(15'523'840'000));
    json_object_array_add(result, json_object_new_int(2));
    json_object_object_add(reply, "result", result);
    return 0x7fffffff;
}
int32_t act_refuse(void*, json_object* params, json_object* reply) {
    keep_params(params);
    json_object_object_add(reply, "why", json_object_new_string("no /card\n"));
    return -2003;
}
int32_t act_own_code(void*, json_object* params, json_object* reply) {
    keep_params(params);
    json_object_object_add(reply, "code", json_object_new_int(7));
    return -5;
}

constexpr remote_action ACTIONS[] = {
    {"echo", act_echo, {0, 0}},   {"figures", act_figures, {0, 0}},   {"refuse", act_refuse, {0, 0}},
    {"planned", nullptr, {0, 0}}, {"own_code", act_own_code, {0, 0}}, {nullptr, nullptr, {0, 0}},
};

const std::string ACTION = "vesk/tester/action/";
const std::string STATUS = "vesk/tester/status";

class Actions : public AppTest {
  protected:
    void SetUp() override {
        runs = 0;
        last_params.clear();
    }

    void start() {
        start_app(ACTIONS);
        watch("vesk/#");
        ASSERT_TRUE(wait_for(STATUS, 1));
    }

    void request(const std::string& name, const std::string& payload, const char* response_topic = nullptr,
                 const std::string& correlation = "", bool retained = false) {
        const std::string topic = ACTION + name;
        bus_message message = {};
        message.topic = topic.c_str();
        message.payload = payload.empty() ? nullptr : payload.data();
        message.length = payload.size();
        message.response_topic = response_topic;
        message.correlation = correlation.empty() ? nullptr : correlation.data();
        message.correlation_length = correlation.size();
        message.retained = retained;
        ASSERT_NE(bus_publish(other, &message, 1), 0U);
    }
};

PROMISES("vesk_util", "Remote actions");

TEST_F(Actions, AnswerWithCodes) {
    PROMISE("a handler is done, or has answered", "code 0, with the members of the reply if it says so");
    PROMISE("a handler refuses", "its code and its members");
    PROMISE("a handler puts a member \"code\" into its reply", "the framework's code stands alone");
    PROMISE("the parameters are no JSON, or not to their end, or too deep", "-22, the handler does not run");
    PROMISE("the parameters are the word null", "the handler gets an empty object, never a null pointer");
    PROMISE("no action has that very name, or it has no handler", "-38, whatever the parameters");
    const std::string deep_enough = std::string(31, '[') + std::string(31, ']');
    const std::string too_deep = std::string(40, '[') + std::string(40, ']');
    const struct {
        std::string action;
        std::string payload;
        std::string reply;
        std::string params;  // "": the handler must not run
    } rows[] = {
        {"echo", "[1,2]", R"({"code": 0})", "[1,2]"},
        {"echo", " {\"a\": true}\r\n", R"({"code": 0})", R"({"a":true})"},
        {"echo", "5", R"({"code": 0})", "5"},
        {"echo", "\"NaN \\\" I\"", R"({"code": 0})", R"("NaN \" I")"},
        {"echo", "null", R"({"code": 0})", "{}"},
        {"echo", deep_enough, R"({"code": 0})", deep_enough},
        {"figures", "{}", R"({"code": 0, "result":[15523840000,2]})", "{}"},
        {"refuse", "{}", R"({"code": -2003, "why":"no /card\n"})", "{}"},
        {"own_code", "{}", R"({"code": -5})", "{}"},
        {"echo", "", R"({"code": -22})", ""},
        {"echo", " ", R"({"code": -22})", ""},
        {"echo", "[1,2", R"({"code": -22})", ""},
        {"echo", "[1] x", R"({"code": -22})", ""},
        {"echo", "[1] [2]", R"({"code": -22})", ""},
        {"echo", "'a'", R"({"code": -22})", ""},
        {"echo", "{a:1}", R"({"code": -22})", ""},
        {"echo", "start", R"({"code": -22})", ""},
        {"echo", "NaN", R"({"code": -22})", ""},
        {"echo", "[1,-Infinity]", R"({"code": -22})", ""},
        {"echo", "[1]/**/", R"({"code": -22})", ""},
        {"echo", "\"\xff\"", R"({"code": -22})", ""},
        {"echo", std::string("[1]\0", 4), R"({"code": -22})", ""},
        {"echo", std::string("[1]\0[2]", 7), R"({"code": -22})", ""},
        {"echo", too_deep, R"({"code": -22})", ""},
        {"planned", "{}", R"({"code": -38})", ""},
        {"ech", "{}", R"({"code": -38})", ""},
        {"echoo", "{}", R"({"code": -38})", ""},
        {"Echo", "no JSON", R"({"code": -38})", ""},
        {"", "{}", R"({"code": -38})", ""},
    };
    start();
    for (const auto& row : rows) {
        seen.clear();
        runs = 0;
        last_params.clear();
        request(row.action, row.payload);
        const std::string topic = ACTION + row.action + "/reply";
        ASSERT_TRUE(wait_for(topic, 1)) << row.action << " " << row.payload;
        EXPECT_EQ(on(topic)[0].payload, row.reply) << row.action << " " << row.payload;
        EXPECT_FALSE(on(topic)[0].retained);
        EXPECT_EQ(last_params, row.params) << row.payload;
        EXPECT_EQ(runs, row.params.empty() ? 0 : 1) << row.payload;
    }
}

TEST_F(Actions, TakeSoMuchAndNoMore) {
    PROMISE("the parameters have 128 KiB or 12,000 values, or one more",
            "they are taken; -7, and the handler does not run");
    constexpr size_t BYTES_MAX = size_t{128} << 10;
    constexpr size_t VALUES_MAX = 12'000;
    const auto list = [](const std::string& one, size_t count) {
        std::string text = "[";
        for (size_t i = 0; i < count; ++i) {
            text += (i > 0 ? "," : "") + one;
        }
        return text + "]";
    };
    const struct {
        const char* name;
        std::string parameters;
        bool taken;
    } rows[] = {
        {"bytes", '"' + std::string(BYTES_MAX - 2, 'x') + '"', true},
        {"bytes, one more", '"' + std::string(BYTES_MAX - 1, 'x') + '"', false},
        {"a mebibyte", '"' + std::string(BUS_PAYLOAD_MAX - 1, 'x') + '"', false},
        {"numbers", list("0", VALUES_MAX - 1), true},
        {"numbers, one more", list("0", VALUES_MAX), false},
        {"empty objects", list("{}", VALUES_MAX - 1), true},
        {"empty objects, one more", list(" { } ", VALUES_MAX), false},
        {"members", list(R"({"a":1})", (VALUES_MAX - 1) / 2), true},
        {"members, more", list(R"({"a":1})", VALUES_MAX / 2), false},
        {"a text that looks like many", "[\"" + std::string(2 * VALUES_MAX, ',') + R"(\"[[{"])", true},
    };
    start();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        seen.clear();
        runs = 0;
        const std::string file = broker.folder() + "/payload";
        std::ofstream(file) << row.parameters;
        const std::string command = "mosquitto_pub --unix " + broker.folder() + "/sock -q 1 -t " + ACTION + "echo -f " +
                                    file + " &";  // in the background: the reply needs our loop
        ASSERT_EQ(system(command.c_str()), 0);
        const std::string topic = ACTION + "echo/reply";
        ASSERT_TRUE(wait_for(topic, 1));
        EXPECT_EQ(on(topic)[0].payload, row.taken ? R"({"code": 0})" : R"({"code": -7})");
        EXPECT_EQ(runs, row.taken ? 1 : 0);
    }
}

TEST_F(Actions, AnswerWhereTheCallerAsks) {
    PROMISE("the request names a topic and data for its answer",
            "the answer goes there and nowhere else, with that data");
    start();
    watch("answers/#");
    const std::string correlation("\0\x01id\xff", 5);
    request("figures", "{}", "answers/7", correlation);
    ASSERT_TRUE(wait_for("answers/7", 1));
    EXPECT_EQ(on("answers/7")[0].correlation, correlation);
    EXPECT_EQ(on("answers/7")[0].payload, R"({"code": 0, "result":[15523840000,2]})");
    EXPECT_TRUE(on(ACTION + "figures/reply").empty());

    request("ech", "{}", "answers/8", "x");
    ASSERT_TRUE(wait_for("answers/8", 1));
    EXPECT_EQ(on("answers/8")[0].correlation, "x");
    EXPECT_EQ(on("answers/8")[0].payload, R"({"code": -38})");

    request("echo", "{}", (ACTION + "echo/reply").c_str(), "y");
    ASSERT_TRUE(wait_for(ACTION + "echo/reply", 1));
    EXPECT_EQ(on(ACTION + "echo/reply")[0].correlation, "y");
}

// Or somebody who may ask for figures could have the daemon send itself a request to format.
TEST_F(Actions, AreNotSentOnByAReply) {
    PROMISE("the topic named for the answer is one of an action, a status, a key, or another action's reply",
            "-22 on the action's own reply, a warning, the handler does not run, and nothing goes to that topic");
    start();
    watch("#");
    for (const char* topic : {"vesk/tester/action/echo", "vesk/other/action/format", "vesk/tester/status",
                              "karvel/mem/default/spec_sdcard_format", "vesk/tester/action/refuse/reply"}) {
        seen.clear();
        runs = 0;
        request("figures", "{}", topic);
        ASSERT_TRUE(wait_for(ACTION + "figures/reply", 1)) << topic;
        EXPECT_EQ(on(ACTION + "figures/reply")[0].payload, R"({"code": -22})");
        run_for(50);
        EXPECT_TRUE(on(topic).empty()) << topic;
        EXPECT_EQ(runs, 0) << topic;
        EXPECT_GE(log.count(std::string("<4>bus: action figures: replies may not go to ") + topic), 1);
    }
}

TEST_F(Actions, AResponseTopicThatIsTooLongIsNotUsed) {
    PROMISE("the topic named for the answer is longer than a topic may be",
            "-22 on the action's own reply, the handler does not run");
    start();
    watch("answers/#");
    const std::string longest = "answers/" + std::string(BUS_TOPIC_MAX - 8, 'x');
    request("figures", "{}", longest.c_str());
    ASSERT_TRUE(wait_for(longest, 1));
    EXPECT_EQ(runs, 1);
    request("figures", "{}", (longest + "x").c_str());
    ASSERT_TRUE(wait_for(ACTION + "figures/reply", 1));
    EXPECT_EQ(on(ACTION + "figures/reply")[0].payload, R"({"code": -22})");
    EXPECT_EQ(runs, 1);
}

// Cut to what a topic may have, the reply's would be an action's again, and each answer the next request.
TEST_F(Actions, ANameThatLeavesNoRoomForAReplyIsNotAnswered) {
    PROMISE("an action's name leaves no room for a reply", "a warning, no answer, and the next request is answered");
    start();
    const size_t room = BUS_TOPIC_MAX - 1 - ACTION.size() - strlen("/reply");
    const std::string longest(room, 'x');
    request(longest, "{}");
    ASSERT_TRUE(wait_for(ACTION + longest + "/reply", 1));
    EXPECT_EQ(on(ACTION + longest + "/reply")[0].payload, R"({"code": -38})");
    for (const size_t length : {room + 1, room + 6, BUS_TOPIC_MAX - ACTION.size()}) {
        seen.clear();
        const std::string name(length, 'x');
        request(name, "{}");
        ASSERT_TRUE(run_until([&] {
            return log.count("<4>bus: action ignored: its name of " + std::to_string(length) + " bytes") == 1;
        }));
        request("echo", "{}");
        ASSERT_TRUE(wait_for(ACTION + "echo/reply", 1));
        EXPECT_EQ(seen.size(), 3U) << "the two requests and the one answer";
    }
    // Longer ones than this library publishes come from elsewhere.
    seen.clear();
    const std::string command = "mosquitto_pub --unix " + broker.folder() + "/sock -q 1 -t " + ACTION +
                                std::string(3000, 'x') + " -m '{}' &";  // in the background: its end needs nobody
    ASSERT_EQ(system(command.c_str()), 0);
    ASSERT_TRUE(run_until([&] { return log.count("its name of 3000 bytes") == 1; }));
    request("echo", "{}");
    ASSERT_TRUE(wait_for(ACTION + "echo/reply", 1));
    EXPECT_EQ(seen.size(), 3U);
}

TEST_F(Actions, NeverRunWhenTheBrokerKeptThem) {
    PROMISE("a request was kept by the broker, before or after the start", "it is warned of and never runs");
    watch("vesk/#");
    request("echo", "[\"left over\"]", nullptr, "", true);
    start();
    ASSERT_TRUE(run_until([&] { return log.count("<4>bus: retained action echo ignored") == 1; }));
    request("echo", "[\"new but kept\"]", nullptr, "", true);
    ASSERT_TRUE(run_until([&] { return log.count("<4>bus: retained action echo ignored") == 2; }));
    EXPECT_EQ(runs, 0);
    request("echo", "[\"meant\"]");
    ASSERT_TRUE(wait_for(ACTION + "echo/reply", 1));
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(last_params, "[\"meant\"]");
}

TEST_F(Actions, ComeBackWithTheBrokerAndRunOnce) {
    PROMISE("the broker is killed and comes back", "the actions come back, and nothing runs twice");
    start();
    request("echo", "[1]");
    ASSERT_TRUE(wait_for(ACTION + "echo/reply", 1));
    broker.kill();
    run_for(100);
    EXPECT_EQ(log.count("<4>bus: connection lost"), 1);
    watch_anew("vesk/#");
    ASSERT_TRUE(wait_for(STATUS, 2, 3000));  // the one that the broker kept, and news
    EXPECT_TRUE(on(STATUS)[0].retained);
    EXPECT_EQ(on(STATUS)[1].payload, "online");
    EXPECT_FALSE(on(STATUS)[1].retained);
    EXPECT_EQ(runs, 1);
    request("echo", "[2]");
    ASSERT_TRUE(wait_for(ACTION + "echo/reply", 1, 3000));
    run_for(50);
    EXPECT_EQ(runs, 2);
}

TEST_F(Actions, WaitForABrokerThatIsNotThereYet) {
    PROMISE("there is no broker at the start", "the application begins, and its actions come with the broker");
    broker.kill();
    start_app(ACTIONS);
    run_for(300);
    watch_anew("vesk/#");
    ASSERT_TRUE(wait_for(STATUS, 1, 3000));
    EXPECT_EQ(on(STATUS)[0].payload, "online");
    request("echo", "{}");
    EXPECT_TRUE(wait_for(ACTION + "echo/reply", 1));
}

TEST_F(Actions, AnApplicationWithoutAnySaysThatItIsThere) {
    PROMISE("an application has no actions", "it is online, and requests stay unanswered");
    start_app(nullptr);
    watch("vesk/#");
    ASSERT_TRUE(wait_for(STATUS, 1));
    EXPECT_EQ(on(STATUS)[0].payload, "online");
    request("echo", "{}");
    run_for(100);
    EXPECT_TRUE(on(ACTION + "echo/reply").empty());
    stop_app();
    ASSERT_TRUE(wait_for(STATUS, 2));
    EXPECT_EQ(on(STATUS)[1].payload, "offline");
}

// Online says that actions are answered, which they are not when the broker refuses the subscription.
TEST_F(Actions, ARefusedSubscriptionIsNotOnline) {
    PROMISE("the broker refuses the subscription", "the application is not online");
    std::ofstream(broker.folder() + "/rules")
        << R"({"defaultACLAccess": {"publishClientSend": true, "publishClientReceive": true, "subscribe": false},)"
        << R"("roles": [{"rolename": "r", "acls": [{"acltype": "subscribeLiteral", "topic": "vesk/tester/status", "allow": true}]}],)"
        << R"("groups": [{"groupname": "g", "roles": [{"rolename": "r"}]}], "anonymousGroup": "g"})";
    broker.configure("plugin " + broker_plugin("mosquitto_dynamic_security.so") + "\nplugin_opt_config_file " +
                     broker.folder() + "/rules\n");
    watch(STATUS);
    start_app(ACTIONS);
    ASSERT_TRUE(run_until([&] { return log.count("<4>bus: the broker refused request") == 1; }));
    stop_app();
    ASSERT_TRUE(wait_for(STATUS, 1));
    EXPECT_EQ(on(STATUS)[0].payload, "offline") << "its goodbye comes first";
}

TEST_F(Actions, GoodbyeIsKept) {
    PROMISE("the application ends", "\"offline\" is kept at the broker");
    start();
    EXPECT_EQ(on(STATUS)[0].payload, "online");
    stop_app();
    ASSERT_TRUE(wait_for(STATUS, 2));
    seen.clear();
    watch("vesk/#");
    ASSERT_TRUE(wait_for(STATUS, 1));
    EXPECT_EQ(on(STATUS)[0].payload, "offline");
    EXPECT_TRUE(on(STATUS)[0].retained);
}

TEST_F(Actions, GoodbyeDoesNotWaitForAFrozenBroker) {
    PROMISE("the broker is frozen at the end", "the end does not wait for it");
    start();
    broker.freeze();
    const int64_t begin_ms = test_now_ms();
    stop_app();
    EXPECT_LT(test_now_ms() - begin_ms, 2000);
    broker.go_on();
}

TEST_F(Actions, TheLastWillSpeaksForAProcessThatDied) {
    PROMISE("the process dies", "the broker says \"offline\" for it");
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        ev_loop_fork(ev_default_loop(0));
        start_app(ACTIONS);
        app_run();
        _exit(0);
    }
    ASSERT_GT(pid, 0);
    watch("vesk/#");
    EXPECT_TRUE(wait_for(STATUS, 1));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    ASSERT_TRUE(wait_for(STATUS, 2));
    EXPECT_EQ(on(STATUS)[0].payload, "online");
    EXPECT_EQ(on(STATUS)[1].payload, "offline");
}

}  // namespace
