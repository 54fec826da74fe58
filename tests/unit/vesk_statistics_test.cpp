// Reports against a real broker, one that is there, away, frozen or killed.
#include "vesk_statistics.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "support/app.h"
#include "support/promise.h"

namespace {

const std::string REPORT = "vesk/tester/report/";
constexpr int WAITING_MAX = 64;
constexpr int UNANSWERED_MAX = 8;  // handed to a broker that is connected but does not answer

json_object* numbered(int number) {
    json_object* object = json_object_new_object();
    json_object_object_add(object, "n", json_object_new_int(number));
    return object;
}

std::string text_of(int number) {
    return "{\"n\":" + std::to_string(number) + "}";
}

class Statistics : public AppTest {
  protected:
    // An application that has ended takes no more reports, and forgets what it was owed an answer for.
    void TearDown() override {
        AppTest::TearDown();
        EXPECT_EQ(report_stat_object("sdcard.info", numbered(0)), -1);
        EXPECT_EQ(errno, ENOTCONN);
    }

    void start() {
        start_app(nullptr);
        watch("vesk/#");
        ASSERT_TRUE(wait_for("vesk/tester/status", 1));
    }

    void report(int from, int to) {
        for (int number = from; number <= to; ++number) {
            ASSERT_EQ(report_stat_object("sdcard.info", numbered(number)), 0);
        }
    }
};

PROMISES("vesk_statistics");

TEST_F(Statistics, GoOutUntouchedAndNotRetained) {
    PROMISE("a report is made", "it goes out as it is, and the broker does not keep it");
    start();
    json_object* object = json_tokener_parse(R"({"type":4,"path":"/mnt/x","f":1.5,"null":null,"list":["a","\n"]})");
    const std::string text =
        json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    ASSERT_EQ(report_stat_object("sdcard.alert", object), 0);
    ASSERT_TRUE(wait_for(REPORT + "sdcard.alert", 1));
    EXPECT_EQ(on(REPORT + "sdcard.alert")[0].payload, text);
    EXPECT_FALSE(on(REPORT + "sdcard.alert")[0].retained);
}

TEST_F(Statistics, OwnTheObjectWhateverTheResult) {
    PROMISE("a report is made, whatever becomes of it", "the object is the library's");
    PROMISE("there is no object, no name, or one that can be no part of a topic or has more than 255 bytes",
            "-1 with EINVAL");
    PROMISE("there is no application, not yet or not any more", "-1 with errno");
    const std::string longest(255, 'n');
    const std::string longer(256, 'n');
    const char* names[] = {"sdcard.info", longest.c_str(), longer.c_str(), nullptr, "", "a/b", "a+", "#"};
    json_object* early = json_object_get(numbered(0));
    errno = 0;
    EXPECT_EQ(report_stat_object("sdcard.info", early), -1);  // no application yet
    EXPECT_NE(errno, 0);
    EXPECT_EQ(json_object_put(early), 1);

    start();
    for (const char* name : names) {
        json_object* object = json_object_get(numbered(1));
        errno = 0;
        const bool good = name == names[0] || name == names[1];
        EXPECT_EQ(report_stat_object(name, object), good ? 0 : -1);
        EXPECT_EQ(errno == EINVAL, !good);
        EXPECT_EQ(json_object_put(object), 1) << "not the last reference";
    }
    errno = 0;
    EXPECT_EQ(report_stat_object("sdcard.info", nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Statistics, WaitForTheFirstConnection) {
    PROMISE("the broker is away", "reports wait and go out in their order");
    broker.kill();
    start_app(nullptr);
    report(1, 3);
    watch_anew(REPORT + "#");
    ASSERT_TRUE(wait_for(REPORT + "sdcard.info", 3));
    const std::vector<Seen> reports = on(REPORT + "sdcard.info");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(reports[i].payload, text_of(i + 1));
    }
    EXPECT_EQ(log.count("dropped"), 0);
}

TEST_F(Statistics, SixtyFourWaitTheOldestGoFirst) {
    PROMISE("there is no application, not yet or not any more", "-1 with errno");
    PROMISE("more than 64 wait", "the oldest go, and one line tells how many, once the broker is back");
    for (const int made : {WAITING_MAX, WAITING_MAX + 1, 200}) {
        Capture lines;
        start_app(nullptr);
        broker.kill();
        run_for(100);
        report(1, made);
        watch_anew(REPORT + "#");
        ASSERT_TRUE(wait_for(REPORT + "sdcard.info", WAITING_MAX));
        run_for(100);
        const std::vector<Seen> reports = on(REPORT + "sdcard.info");
        ASSERT_EQ(reports.size(), static_cast<size_t>(WAITING_MAX));
        for (int i = 0; i < WAITING_MAX; ++i) {
            EXPECT_EQ(reports[i].payload, text_of(made - WAITING_MAX + 1 + i));
        }
        EXPECT_EQ(lines.count("dropped"), made > WAITING_MAX ? 1 : 0);
        if (made > WAITING_MAX) {
            EXPECT_EQ(lines.count(" " + std::to_string(made - WAITING_MAX) + " reports were dropped"), 1)
                << lines.text();
        }
        stop_app();
        EXPECT_EQ(report_stat_object("sdcard.info", numbered(0)), -1);
    }
}

TEST_F(Statistics, DoNotPileUpBeforeAFrozenBroker) {
    PROMISE("the broker is connected and answers nothing",
            "eight are handed to it, 64 wait, the caller is not held up");
    start();
    broker.freeze();
    const int64_t begin_ms = test_now_ms();
    report(1, 200);
    EXPECT_LT(test_now_ms() - begin_ms, 2000);
    broker.go_on();
    ASSERT_TRUE(wait_for(REPORT + "sdcard.info", UNANSWERED_MAX + WAITING_MAX));
    run_for(100);
    const std::vector<Seen> reports = on(REPORT + "sdcard.info");
    ASSERT_EQ(reports.size(), static_cast<size_t>(UNANSWERED_MAX + WAITING_MAX));
    for (int i = 0; i < UNANSWERED_MAX; ++i) {
        EXPECT_EQ(reports[i].payload, text_of(1 + i));
    }
    for (int i = 0; i < WAITING_MAX; ++i) {
        EXPECT_EQ(reports[UNANSWERED_MAX + i].payload, text_of(200 - WAITING_MAX + 1 + i));
    }
    EXPECT_EQ(log.count(" 128 reports were dropped"), 1) << log.text();
}

TEST_F(Statistics, AreNotSentTwiceWhenTheAnswerWasLost) {
    PROMISE("the broker dies with reports unanswered", "they are not sent again, and a line tells how many");
    start();
    broker.freeze();
    report(1, 3);
    broker.kill();
    run_for(100);
    report(4, 4);
    watch_anew(REPORT + "#");
    ASSERT_TRUE(wait_for(REPORT + "sdcard.info", 1));
    run_for(100);
    ASSERT_EQ(on(REPORT + "sdcard.info").size(), 1U);
    EXPECT_EQ(on(REPORT + "sdcard.info")[0].payload, text_of(4));
    EXPECT_EQ(log.count(" 3 sent ones got no answer"), 1) << log.text();
}

TEST_F(Statistics, OneThatCannotBeSentDoesNotHoldUpTheRest) {
    PROMISE("a report has 64 KiB, or a byte more", "it is sent; -1 with EMSGSIZE");
    PROMISE("a report cannot be sent", "a line says so, and the next one goes out");
    start();
    ASSERT_EQ(report_stat_object("bad\xff", numbered(1)), 0);
    ASSERT_EQ(report_stat_object("good", numbered(2)), 0);
    ASSERT_TRUE(wait_for(REPORT + "good", 1));
    EXPECT_EQ(log.count("can not be sent"), 1);
    json_object* huge = json_object_new_object();
    json_object_object_add(huge, "x", json_object_new_string(std::string((64 << 10) - 7, 'x').c_str()));
    EXPECT_EQ(report_stat_object("huge", huge), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    json_object* large = json_object_new_object();
    json_object_object_add(large, "x", json_object_new_string(std::string((64 << 10) - 8, 'x').c_str()));
    EXPECT_EQ(report_stat_object("large", large), 0);
    EXPECT_TRUE(wait_for(REPORT + "large", 1)) << "64 KiB";
}

TEST_F(Statistics, OneThatTheBrokerRefusesIsSaid) {
    PROMISE("the broker refuses a report", "a line says why, its place is free again, and the next one goes out");
    std::ofstream(broker.folder() + "/acl")
        << "topic readwrite vesk/tester/status\ntopic readwrite " << REPORT << "good\n";
    broker.configure("acl_file " + broker.folder() + "/acl\n");
    start();
    for (int i = 0; i <= UNANSWERED_MAX; ++i) {
        ASSERT_EQ(report_stat_object("shut", numbered(i)), 0);
    }
    ASSERT_EQ(report_stat_object("good", numbered(7)), 0);
    ASSERT_TRUE(wait_for(REPORT + "good", 1)) << "a refusal is an answer: the next one goes out";
    EXPECT_EQ(log.count("<4>statistics: the broker refused one: reason 0x87"), UNANSWERED_MAX + 1) << log.text();
    EXPECT_TRUE(on(REPORT + "shut").empty());
}

// The loop has not run since the broker went: the write of the first one finds out, and it waits like the second.
TEST_F(Statistics, TheFirstAfterADeadConnectionIsNotLost) {
    PROMISE("the broker is gone and the loop has not noticed yet",
            "the next report waits like those after it, and goes out first");
    start();
    broker.kill();
    watch_anew(REPORT + "#");
    report(1, 2);
    ASSERT_TRUE(wait_for(REPORT + "sdcard.info", 2));
    EXPECT_EQ(on(REPORT + "sdcard.info")[0].payload, text_of(1));
    EXPECT_EQ(log.count("got no answer"), 0) << log.text();
}

TEST_F(Statistics, ThoseThatWaitAtTheEndAreCounted) {
    PROMISE("the process ends while reports wait", "one line tells how many were dropped");
    broker.kill();
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        start_app(nullptr);
        for (int number = 0; number < 3; ++number) {
            report_stat_object("sdcard.info", numbered(number));
        }
        stop_app();
        exit(0);  // NOLINT(concurrency-mt-unsafe): as the daemon's main does
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(log.count(" 3 reports were dropped, 0 sent ones"), 1) << log.text();
}

TEST_F(Statistics, ReachTheBrokerBeforeTheEnd) {
    PROMISE("the application ends right after a report", "the report reaches the broker");
    start();
    report(1, 3);
    stop_app();
    EXPECT_TRUE(wait_for(REPORT + "sdcard.info", 3));
}

}  // namespace
