// The configuration client against a real broker.
#include "karvel.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ev.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <malloc.h>
#include <memory>
#include <string>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "bus/bus.h"
#include "support/broker.h"
#include "support/promise.h"

namespace {

std::vector<std::string> told;     // what the callbacks were told, "<context> <what>"
karvel_handle* close_in_callback;  // closed by the next callback
std::string close_context;         // with this context, when not empty
karvel_handle* reopened;
bool reopen_in_callback;
std::function<void()> inside_callback;  // runs inside the next callback
int64_t clock_ahead_ms;

const char* text(void* context) {
    return static_cast<const char*>(context);
}

void note(void* context, const std::string& what) {
    told.push_back(std::string(text(context)) + " " + what);
    if (close_in_callback != nullptr && (close_context.empty() || close_context == text(context))) {
        libkarvel_close(std::exchange(close_in_callback, nullptr));
    }
    if (inside_callback) {
        std::exchange(inside_callback, nullptr)();
    }
    if (reopen_in_callback) {
        reopened = libkarvelev_config_open(ev_default_loop(0), 0);
    }
}

std::string parsed(karvel_response* response) {
    int error = -1;
    karvel_xpair* pair = xresponse_parse(response, &error);
    if (error != 0) {
        EXPECT_EQ(pair, nullptr);
        return "error " + std::to_string(error);
    }
    std::string result = std::string(pair->first->name_space) + ":" + pair->first->group + ":" + pair->first->key;
    if (pair->second != nullptr) {
        result += "=" + std::string(pair->second->data, pair->second->length);
        EXPECT_EQ(pair->second->data[pair->second->length], '\0') << "who compares text stops there";
    }
    xpair_basefree(pair);
    return result;
}

void on_ok(karvel_response*, void* context) {
    note(context, "ok");
}

void on_fail(karvel_response* response, void* context) {
    EXPECT_EQ(parsed(response).substr(0, 6), "error ");
    note(context, "fail");
}

void on_notify(karvel_response* response, void* context) {
    note(context, parsed(response));
}

void on_done(karvel_response* response, void* context) {
    const karvel_xvalue* value = nullptr;
    if (xcontrol_get_response(response, &value) == 1) {
        note(context, "got " + std::string(value->data, value->length));
    } else {
        EXPECT_EQ(value, nullptr);
        note(context, "none");
    }
}

void* ctx(const char* name) {
    return const_cast<char*>(name);
}

bool set(karvel_handle* handle, const char* key, const char* value, const char* context = "set", int keep = 1,
         int timeout_s = 3) {
    return libkarvel_set_value(handle, "mem", nullptr, key, keep, value, on_ok, on_fail, timeout_s, ctx(context));
}

bool watch(karvel_handle* handle, const char* key, const char* context = "watch", int confirm = 1) {
    uint32_t id = 0;
    const bool result =
        libkarvel_register_notification(handle, "mem", "default", key, &id, on_notify, on_fail, confirm, ctx(context));
    EXPECT_EQ(result, id != 0);
    return result;
}

bool get(karvel_handle* handle, const char* key, const char* context = "get", int timeout_s = -1) {
    return libkarvel_get_value(handle, "mem", nullptr, key, on_done, nullptr, timeout_s, ctx(context));
}

int times(const std::string& what) {
    return static_cast<int>(std::count(told.begin(), told.end(), what));
}

bool told_within(size_t count, int limit_ms = 10'000) {
    return run_until([&] { return told.size() >= count; }, limit_ms);
}

using Told = std::vector<std::string>;

}  // namespace

// Takes the place of the C library's for the library under test too, so that seconds can pass at once.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's names are reserved ones
extern "C" int clock_gettime(clockid_t clock, timespec* out) {
    const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, out));
    if (result == 0 && clock == CLOCK_MONOTONIC) {
        const int64_t ns = out->tv_nsec + clock_ahead_ms % 1000 * 1'000'000;
        out->tv_sec += static_cast<time_t>(clock_ahead_ms / 1000 + ns / 1'000'000'000);
        out->tv_nsec = static_cast<long>(ns % 1'000'000'000);
    }
    return result;
}

namespace {

class Karvel : public testing::Test {
  protected:
    void SetUp() override {
        told.clear();
        close_in_callback = nullptr;
        close_context.clear();
        reopened = nullptr;
        reopen_in_callback = false;
        inside_callback = nullptr;
        clock_ahead_ms = 0;
        longest_stall_ms();
        handle = open();
        other = open();
        ASSERT_NE(handle, nullptr);
        ASSERT_NE(other, nullptr);
    }
    void TearDown() override {
        libkarvel_close(handle);
        libkarvel_close(other);
        libkarvel_close(reopened);
    }
    // Past the second in which an open fails because the one before did.
    static karvel_handle* open() {
        karvel_handle* result = nullptr;
        (void)run_until([&] { return (result = libkarvelev_config_open(ev_default_loop(0), 0)) != nullptr; }, 3'000);
        return result;
    }
    // What the service keeps, as another program reads it; leaves `told` alone.
    std::string stored(const char* key) {
        std::string result;
        const auto find = [] {
            return std::find_if(told.begin(), told.end(), [](const auto& one) { return one.starts_with("stored "); });
        };
        EXPECT_TRUE(get(other, key, "stored"));
        EXPECT_TRUE(run_until([&] { return find() != told.end(); }));
        if (find() != told.end()) {
            result = find()->substr(7);
            told.erase(find());
        }
        return result;
    }

    Broker broker;
    karvel_handle* handle = nullptr;  // the daemon's
    karvel_handle* other = nullptr;   // another program's
};

PROMISES("karvel", "Requests");

TEST_F(Karvel, RequestsMadeBeforeTheBrokerHasAnsweredAreQueued) {
    PROMISE("a request is made before the broker has answered the connect", "it is queued, and carried out");
    PROMISE("a request is made", "no callback runs inside the call");
    // The loop has not run since the opens.
    karvel_handle* fresh = open();
    EXPECT_TRUE(set(fresh, "a", "1"));
    EXPECT_TRUE(watch(fresh, "b"));
    EXPECT_TRUE(get(fresh, "a"));
    EXPECT_TRUE(told.empty()) << "a callback ran inside the call";
    ASSERT_TRUE(told_within(3));
    EXPECT_EQ(times("set ok"), 1);
    EXPECT_EQ(times("watch mem:default:b"), 1);
    EXPECT_EQ(times("get got 1"), 1);
    libkarvel_close(fresh);
}

TEST_F(Karvel, CallbacksNeverRunInsideTheRequest) {
    PROMISE("a request is made", "no callback runs inside the call");
    ASSERT_TRUE(run_until([&] { return stored("x") == "none"; }));
    EXPECT_TRUE(set(other, "a", "1"));
    EXPECT_TRUE(get(other, "a"));
    EXPECT_TRUE(watch(other, "a"));
    EXPECT_TRUE(told.empty());
    ASSERT_TRUE(told_within(3));
}

TEST_F(Karvel, KeepDecidesWhetherTheServiceRemembers) {
    PROMISE("a value is set to be kept, or only to be relayed",
            "the service has it afterwards, or has not; who watches hears of it");
    PROMISE("an empty value is set", "the service has none any more");
    ASSERT_TRUE(watch(other, "relayed"));
    ASSERT_TRUE(told_within(1));
    ASSERT_TRUE(set(handle, "relayed", "r", "set", 0));
    ASSERT_TRUE(set(handle, "kept", "k", "set", 1));
    ASSERT_TRUE(told_within(4));
    EXPECT_EQ(times("watch mem:default:relayed=r"), 1);
    EXPECT_EQ(stored("relayed"), "none");
    EXPECT_EQ(stored("kept"), "got k");
    ASSERT_TRUE(set(handle, "kept", ""));
    ASSERT_TRUE(told_within(5));
    EXPECT_EQ(stored("kept"), "none");
}

PROMISES("karvel", "Registrations");

TEST_F(Karvel, ANotificationFollowsTheConfirmationForEveryChange) {
    PROMISE("a registration is confirmed",
            "one notification without a value, then one for every change, repeated values included");
    ASSERT_TRUE(watch(handle, "k"));
    ASSERT_TRUE(told_within(1));
    EXPECT_EQ(told, Told{"watch mem:default:k"});
    for (const char* value : {"start", "start", "start1", ""}) {
        const size_t before = told.size();
        ASSERT_TRUE(set(other, "k", value));
        ASSERT_TRUE(told_within(before + 2));
    }
    EXPECT_EQ(times("watch mem:default:k=start"), 2);
    EXPECT_EQ(times("watch mem:default:k=start1"), 1);
    EXPECT_EQ(times("watch mem:default:k"), 2) << "an empty value is none";
}

TEST_F(Karvel, WithoutConfirmOnlyChangesAreTold) {
    PROMISE("no confirmation is asked for", "only changes are told");
    ASSERT_TRUE(watch(handle, "k", "watch", 0));
    EXPECT_EQ(stored("k"), "none");
    run_for(50);
    EXPECT_TRUE(told.empty());
    ASSERT_TRUE(set(other, "k", "v"));
    ASSERT_TRUE(told_within(2));
    EXPECT_EQ(times("watch mem:default:k=v"), 1);
}

TEST_F(Karvel, AValueThatStoodThereIsNoNews) {
    PROMISE("a value stood in the service before",
            "it is never told, neither at the registration nor when the key is read");
    PROMISE("a registered key is read", "the registration goes on");
    ASSERT_TRUE(set(other, "k", "start"));
    ASSERT_TRUE(told_within(1));
    ASSERT_TRUE(watch(handle, "k"));
    ASSERT_TRUE(told_within(2));
    ASSERT_TRUE(get(handle, "k"));  // subscribes for the kept value on the same session
    ASSERT_TRUE(told_within(3));
    run_for(100);
    EXPECT_EQ(told, (Told{"set ok", "watch mem:default:k", "get got start"}));
    // And the read has left the subscription as it was.
    ASSERT_TRUE(set(other, "k", "new"));
    ASSERT_TRUE(told_within(5));
    EXPECT_EQ(times("watch mem:default:k=new"), 1);
}

TEST_F(Karvel, AReadBringsNoLaterNotifications) {
    PROMISES("karvel", "Requests");
    PROMISE("a key is read", "later changes of it are not told for that");
    ASSERT_TRUE(get(handle, "k"));
    ASSERT_TRUE(told_within(1));
    ASSERT_TRUE(set(other, "k", "v"));
    ASSERT_TRUE(told_within(2));
    run_for(50);
    EXPECT_EQ(told, (Told{"get none", "set ok"}));
}

TEST_F(Karvel, RegisteringAgainReplaces) {
    PROMISE("the same caller registers a key again",
            "one notification, not two; another caller has its own; the new registration is confirmed");
    ASSERT_TRUE(watch(handle, "k"));
    ASSERT_TRUE(watch(handle, "k"));
    ASSERT_TRUE(watch(handle, "k", "second caller"));
    ASSERT_TRUE(told_within(2));
    EXPECT_EQ(stored("none"), "none");
    ASSERT_TRUE(set(other, "k", "v"));
    ASSERT_TRUE(run_until([] { return times("set ok") == 1 && times("second caller mem:default:k=v") == 1; }));
    run_for(50);
    EXPECT_EQ(times("watch mem:default:k"), 1);
    EXPECT_EQ(times("watch mem:default:k=v"), 1);
    EXPECT_EQ(times("second caller mem:default:k"), 1);
    EXPECT_EQ(times("second caller mem:default:k=v"), 1);
    ASSERT_TRUE(watch(handle, "k"));  // long confirmed: confirmed again
    ASSERT_TRUE(run_until([] { return times("watch mem:default:k") == 2; }));
    ASSERT_TRUE(set(other, "k", "w"));
    ASSERT_TRUE(run_until([] { return times("watch mem:default:k=w") == 1; }));
    run_for(50);
    EXPECT_EQ(times("watch mem:default:k=w"), 1);
}

TEST_F(Karvel, ACallbackMayRegisterAgain) {
    PROMISE("a callback registers its own key again, or another",
            "each registration of that moment hears the change once, the new ones only their confirmation");
    ASSERT_TRUE(watch(handle, "k", "1"));
    ASSERT_TRUE(watch(handle, "k", "2"));
    ASSERT_TRUE(told_within(2));
    told.clear();
    inside_callback = [&] {
        EXPECT_TRUE(watch(handle, "k", "1"));  // in the place of the one that is being told
        EXPECT_TRUE(watch(handle, "k", "3"));
    };
    ASSERT_TRUE(libkarvel_set_value(other, "mem", nullptr, "k", 0, "v", nullptr, nullptr, 3, nullptr));
    ASSERT_TRUE(told_within(4));
    run_for(50);
    EXPECT_EQ(told, (Told{"1 mem:default:k=v", "2 mem:default:k=v", "1 mem:default:k", "3 mem:default:k"}));
}

PROMISES("karvel", "Requests");

TEST_F(Karvel, NothingIsParsedFromNothing) {
    PROMISE("a response is missing", "parsing gives EINVAL, there is no value, and nothing needs freeing");
    int error = -1;
    EXPECT_EQ(xresponse_parse(nullptr, &error), nullptr);
    EXPECT_EQ(error, EINVAL);
    const karvel_xvalue* value = nullptr;
    EXPECT_EQ(xcontrol_get_response(nullptr, &value), 0);
    EXPECT_EQ(value, nullptr);
    xpair_basefree(nullptr);
}

TEST_F(Karvel, ReadsOfOneKeyEachGetTheirOwnAnswer) {
    PROMISE("several reads of one key and a set run at once", "each read gets the value of its moment");
    PROMISE("a key has no value", "the read completes without one");
    ASSERT_TRUE(set(other, "k", "v"));
    ASSERT_TRUE(told_within(1));
    told.clear();
    ASSERT_TRUE(get(handle, "k", "1"));
    ASSERT_TRUE(get(handle, "nothing", "2"));
    ASSERT_TRUE(get(handle, "k", "3"));
    ASSERT_TRUE(set(handle, "k", "", "4"));
    ASSERT_TRUE(get(handle, "k", "5"));
    ASSERT_TRUE(told_within(5));
    std::sort(told.begin(), told.end());
    EXPECT_EQ(told, (Told{"1 got v", "2 none", "3 got v", "4 ok", "5 none"}));
}

TEST_F(Karvel, ValuesAreBytesUpTo64KiB) {
    PROMISE("a value has 64 KiB, or a byte more", "it is taken; it is refused at once");
    PROMISE("somebody else publishes more than 64 KiB, or bytes that are no text",
            "the first is not told, the second are told with their length and a NUL behind them");
    const std::string longest(size_t{64} << 10, 'x');
    ASSERT_TRUE(watch(handle, "k"));
    ASSERT_TRUE(told_within(1));
    ASSERT_TRUE(set(other, "k", longest.c_str()));
    ASSERT_TRUE(told_within(3));
    EXPECT_EQ(times("watch mem:default:k=" + longest), 1);
    EXPECT_EQ(stored("k"), "got " + longest);
    EXPECT_FALSE(set(other, "k", (longest + "x").c_str()));
    // Bytes that no C string holds come from other clients of the bus.
    const bus_options options{{}, false, nullptr};
    bus_session* raw = bus_open(ev_default_loop(0), &options);
    ASSERT_NE(raw, nullptr);
    const std::string bytes("a\0\xff", 3);
    const std::string too_long = longest + "x";
    const bus_message messages[] = {
        {"karvel/mem/default/k", too_long.data(), too_long.size(), false, nullptr, nullptr, 0},
        {"karvel/mem/default/k", bytes.data(), bytes.size(), true, nullptr, nullptr, 0}};
    told.clear();
    for (const bus_message& message : messages) {
        ASSERT_NE(bus_publish(raw, &message, 1), 0U);
    }
    ASSERT_TRUE(told_within(1));
    EXPECT_EQ(told, Told{"watch mem:default:k=" + bytes});
    EXPECT_EQ(stored("k"), "got " + bytes);
    bus_close(raw);
}

TEST_F(Karvel, NamesThatCannotBeAreRefused) {
    PROMISE("a name is missing, empty, too long, not UTF-8 or has one of `/+#`",
            "the call returns false, and nothing is written or called");
    const std::string endless(2000, 'n');
    for (const char* bad : {"", "a/b", "+", "a#", "\xff", static_cast<const char*>(nullptr), endless.c_str()}) {
        SCOPED_TRACE(bad == nullptr ? "null" : bad);
        uint32_t id = 77;
        EXPECT_FALSE(set(handle, bad, "v"));
        EXPECT_FALSE(get(handle, bad));
        EXPECT_FALSE(
            libkarvel_register_notification(handle, "mem", nullptr, bad, &id, on_notify, on_fail, 1, ctx("w")));
        EXPECT_FALSE(libkarvel_set_value(handle, bad, nullptr, "k", 1, "v", on_ok, on_fail, 3, ctx("s")));
        EXPECT_EQ(id, 77U);
        if (bad != nullptr) {
            EXPECT_FALSE(libkarvel_set_value(handle, "mem", bad, "k", 1, "v", on_ok, on_fail, 3, ctx("s")));
        }
    }
    run_for(50);
    EXPECT_TRUE(told.empty());
}

PROMISES("karvel", "Closing and losing");

TEST_F(Karvel, AClosedHandleIsSafeInEveryCall) {
    PROMISE("a handle is closed or null",
            "requests return false, closing and processing do nothing, and no callback runs any more");
    PROMISE("an old handle is closed once more", "a newer one is not touched");
    karvel_handle* closed = handle;
    ASSERT_TRUE(set(handle, "k", "v"));
    ASSERT_TRUE(get(handle, "k"));
    ASSERT_TRUE(watch(handle, "k"));
    libkarvel_close(handle);
    karvel_handle* newer = open();
    for (karvel_handle* dead : {closed, static_cast<karvel_handle*>(nullptr)}) {
        EXPECT_FALSE(set(dead, "k", "v"));
        EXPECT_FALSE(get(dead, "k"));
        EXPECT_FALSE(watch(dead, "k"));
        EXPECT_FALSE(libkarvel_xhandle_response(dead));
        libkarvel_timeout_process(dead);
        libkarvel_close(dead);
    }
    run_for(100);
    EXPECT_TRUE(told.empty()) << "a callback after the close";
    EXPECT_NE(newer, closed);
    EXPECT_TRUE(set(newer, "k", "w")) << "closing an old handle has hurt a newer one";
    ASSERT_TRUE(told_within(1));
    libkarvel_close(newer);
}

TEST_F(Karvel, WhatWasSetRightBeforeACloseArrives) {
    PROMISE("a handle is closed right after sets", "what was set arrives, and nobody is called");
    ASSERT_TRUE(watch(other, "k"));
    ASSERT_TRUE(set(handle, "warm", "up"));
    ASSERT_TRUE(told_within(2));
    told.clear();
    for (const char* value : {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}) {
        ASSERT_TRUE(set(handle, "k", value, "set", 0));
    }
    libkarvel_close(handle);
    ASSERT_TRUE(told_within(10));
    EXPECT_EQ(times("watch mem:default:k=9"), 1);
    EXPECT_EQ(times("set ok"), 0);
}

TEST_F(Karvel, ACloseInsideACallbackEndsTheRestSilently) {
    PROMISE("a handle is closed inside one of its callbacks", "that was the last one");
    struct {
        const char* name;
        bool (*ask)(karvel_handle*);
        const char* first;
    } rows[] = {
        {"set", [](karvel_handle* h) { return set(h, "k", "v", "1") && set(h, "k", "w", "2"); }, "1 ok"},
        {"get", [](karvel_handle* h) { return get(h, "k", "1") && get(h, "k", "2"); }, "1 got w"},
        {"confirmation", [](karvel_handle* h) { return watch(h, "k", "1") && watch(h, "k", "2"); }, "1 mem:default:k"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        told.clear();
        karvel_handle* victim = open();
        ASSERT_TRUE(row.ask(victim));
        close_in_callback = victim;
        ASSERT_TRUE(told_within(1));
        EXPECT_FALSE(set(victim, "k", "x"));
        run_for(60);
        EXPECT_EQ(told, Told{row.first});
    }
    told.clear();
    karvel_handle* victim = open();
    ASSERT_TRUE(watch(victim, "n", "1") && watch(victim, "n", "2"));
    ASSERT_TRUE(told_within(2));
    told.clear();
    close_in_callback = victim;
    close_context = "1";
    ASSERT_TRUE(set(other, "n", "v"));
    ASSERT_TRUE(told_within(2));
    run_for(60);
    EXPECT_EQ(times("1 mem:default:n=v"), 1);
    EXPECT_EQ(told.size(), 2U);
}

TEST_F(Karvel, ALossFailsSetsThenReadsThenRegistrations) {
    PROMISE("the connection is lost",
            "sets fail, then reads complete without a value, then registrations fail, each once; requests return false "
            "from then on");
    ASSERT_TRUE(watch(handle, "a", "watch a"));
    ASSERT_TRUE(told_within(1));
    broker.freeze();
    told.clear();
    ASSERT_TRUE(watch(handle, "b", "watch b"));
    ASSERT_TRUE(get(handle, "k", "get 1"));
    ASSERT_TRUE(set(handle, "k", "v", "set 1"));
    ASSERT_TRUE(get(handle, "k", "get 2"));
    ASSERT_TRUE(set(handle, "k", "v", "set 2"));
    broker.kill();
    ASSERT_TRUE(told_within(6));
    EXPECT_EQ(told, (Told{"set 1 fail", "set 2 fail", "get 1 none", "get 2 none", "watch a fail", "watch b fail"}));
    EXPECT_FALSE(set(handle, "k", "v"));
    EXPECT_FALSE(get(handle, "k"));
    EXPECT_FALSE(watch(handle, "k"));
    EXPECT_FALSE(libkarvel_xhandle_response(handle));
    libkarvel_timeout_process(handle);
    run_for(100);
    EXPECT_EQ(told.size(), 6U);
}

TEST_F(Karvel, ACloseDuringTheLossEndsTheRestSilently) {
    PROMISE("a handle is closed while it tells of a loss", "the rest ends silently");
    for (const size_t kind : {0, 1, 2}) {
        SCOPED_TRACE(kind);
        karvel_handle* victim = open();
        ASSERT_TRUE(watch(victim, "w"));
        told.clear();
        ASSERT_TRUE(told_within(1));
        broker.freeze();
        told.clear();
        if (kind == 0) {
            ASSERT_TRUE(set(victim, "k", "v") && set(victim, "k", "w"));
        }
        if (kind <= 1) {
            ASSERT_TRUE(get(victim, "k") && get(victim, "k"));
        }
        ASSERT_TRUE(watch(victim, "x"));
        close_in_callback = victim;
        broker.kill();
        ASSERT_TRUE(told_within(1));
        run_for(60);
        const char* first[] = {"set fail", "get none", "watch fail"};
        EXPECT_EQ(told, Told{first[kind]});
        broker.start();
    }
}

TEST_F(Karvel, AnAbsentBrokerGivesNull) {
    PROMISE("there is no broker", "the open gives null, at once");
    broker.kill();
    run_for(50);
    const int64_t before_ms = test_now_ms();
    EXPECT_EQ(libkarvelev_config_open(ev_default_loop(0), 0), nullptr);
    EXPECT_EQ(libkarvelev_config_open(ev_default_loop(0), 7), nullptr);
    EXPECT_EQ(libkarvelev_config_open(nullptr, 0), nullptr);
    EXPECT_LT(test_now_ms() - before_ms, BLOCKED_MS);
}

TEST_F(Karvel, AnOpenWithinASecondAfterAFailedOneFailsAtOnce) {
    PROMISE("an open follows within a second of a failed one", "it fails at once");
    broker.kill();
    run_for(50);
    libkarvel_close(handle);
    const int64_t failed_ms = test_now_ms();
    EXPECT_EQ(libkarvelev_config_open(ev_default_loop(0), 0), nullptr);
    broker.start();
    EXPECT_EQ(libkarvelev_config_open(ev_default_loop(0), 0), nullptr);
    handle = open();
    EXPECT_NE(handle, nullptr);
    EXPECT_GE(test_now_ms() - failed_ms, 850);  // the loss itself, 50 ms before, was the failed attempt
    EXPECT_LE(test_now_ms() - failed_ms, 1500);
}

TEST_F(Karvel, KeysOutliveAKilledBrokerAndAreNoNewsAfterwards) {
    PROMISE("the broker is killed and started again", "it has the keys still, and they are no news");
    ASSERT_TRUE(set(other, "k", "start"));
    ASSERT_TRUE(watch(handle, "k"));
    ASSERT_TRUE(told_within(2));
    // On disk a moment after the acknowledgement.
    run_for(300);
    broker.kill();
    ASSERT_TRUE(run_until([] { return times("watch fail") == 1; }));
    broker.start();
    libkarvel_close(handle);
    libkarvel_close(other);
    handle = open();
    other = open();
    told.clear();
    ASSERT_TRUE(watch(handle, "k"));
    EXPECT_EQ(stored("k"), "got start");
    run_for(100);
    EXPECT_EQ(times("watch mem:default:k=start"), 0) << "a left-over request ran again";
    ASSERT_TRUE(set(other, "k", "start"));
    ASSERT_TRUE(run_until([] { return times("watch mem:default:k=start") == 1; }));
}

PROMISES("karvel", "Time");

TEST_F(Karvel, AFrozenBrokerBlocksNothing) {
    PROMISE("the time allowed has run out", "sets fail and reads complete without a value, on the library's own timer");
    PROMISE("the broker is frozen",
            "neither opens nor requests nor closes hold the loop up, however much is sent; after the thaw the session "
            "goes on");
    ASSERT_TRUE(watch(handle, "w"));
    ASSERT_TRUE(told_within(1));
    told.clear();
    broker.freeze();
    longest_stall_ms();
    std::vector<karvel_handle*> opened;
    // Its queue of pending connections fills up on the way: opens succeed, then fail.
    for (int i = 0; i < 30; ++i) {
        const int64_t before_ms = test_now_ms();
        karvel_handle* one = libkarvelev_config_open(ev_default_loop(0), 0);
        EXPECT_LT(test_now_ms() - before_ms, BLOCKED_MS);
        if (one != nullptr) {
            opened.push_back(one);
        }
    }
    EXPECT_GT(opened.size(), 0U);
    EXPECT_LT(opened.size(), 30U);
    const int64_t asked_ms = test_now_ms();
    ASSERT_TRUE(set(handle, "k", "v", "set", 1, 1));
    ASSERT_TRUE(get(handle, "k", "get", 1));
    ASSERT_TRUE(set(opened[0], "k", "v", "queued", 1, 1));
    // Nobody calls libkarvel_timeout_process.
    ASSERT_TRUE(told_within(3, 2'000));
    EXPECT_GE(test_now_ms() - asked_ms, 990);
    EXPECT_EQ(times("set fail"), 1);
    EXPECT_EQ(times("get none"), 1);
    EXPECT_EQ(times("queued fail"), 1);
    const std::string large(size_t{64} << 10, 'x');
    for (int i = 0; i < 20; ++i) {
        const int64_t before_ms = test_now_ms();
        ASSERT_TRUE(set(handle, "k", large.c_str(), "large", 0, 1));
        EXPECT_LT(test_now_ms() - before_ms, BLOCKED_MS);
    }
    ASSERT_TRUE(run_until([] { return times("large fail") == 20; }, 2'000));
    for (karvel_handle* one : opened) {
        libkarvel_close(one);
    }
    EXPECT_LT(longest_stall_ms(), BLOCKED_MS);
    // Thawed, the session goes on; late acknowledgements are nobody's.
    told.clear();
    broker.go_on();
    ASSERT_TRUE(set(handle, "k", "after"));
    ASSERT_TRUE(run_until([] { return times("set ok") == 1; }));
    EXPECT_EQ(told.size(), 1U);
    ASSERT_TRUE(set(handle, "w", "v", "w"));
    ASSERT_TRUE(run_until([] { return times("watch mem:default:w=v") == 1; }));
    EXPECT_EQ(stored("k"), "got after");
}

TEST_F(Karvel, ALateAnswerDoesNotReachAYoungerRead) {
    PROMISE("an answer comes after its read has ended", "it does not reach a younger read of the same key");
    ASSERT_TRUE(set(other, "k", "old"));
    ASSERT_TRUE(told_within(1));
    ASSERT_TRUE(get(handle, "k", "warm up"));
    ASSERT_TRUE(told_within(2));
    told.clear();
    broker.freeze();
    ASSERT_TRUE(get(handle, "k", "early", 0));
    ASSERT_TRUE(told_within(1));
    EXPECT_EQ(told, Told{"early none"});
    ASSERT_TRUE(set(handle, "k", ""));
    ASSERT_TRUE(get(handle, "k", "late"));
    broker.go_on();
    ASSERT_TRUE(told_within(3));
    EXPECT_EQ(times("late none"), 1);
    EXPECT_EQ(told.size(), 3U);
}

TEST_F(Karvel, WithoutATimeTenSecondsAreAllowed) {
    PROMISE("no time is given", "ten seconds are allowed");
    ASSERT_TRUE(set(handle, "warm", "up"));
    ASSERT_TRUE(told_within(1));
    told.clear();
    broker.freeze();
    ASSERT_TRUE(set(handle, "k", "v", "set", 1, -1));
    ASSERT_TRUE(get(handle, "k", "get", -1));
    clock_ahead_ms = 9'000;
    libkarvel_timeout_process(handle);
    EXPECT_EQ(told, Told{});
    clock_ahead_ms = 10'000;
    libkarvel_timeout_process(handle);
    EXPECT_EQ(told, (Told{"set fail", "get none"}));
    clock_ahead_ms = 0;  // before anything else looks at it
}

TEST_F(Karvel, TimeoutProcessExpiresWhatIsDue) {
    PROMISE("overdue requests are processed on demand",
            "what is due ends, the rest waits; a callback may close the handle");
    ASSERT_TRUE(set(handle, "warm", "up"));
    ASSERT_TRUE(told_within(1));
    told.clear();
    broker.freeze();
    ASSERT_TRUE(set(handle, "k", "v", "now", 1, 0));
    ASSERT_TRUE(set(handle, "k", "v", "later", 1, 5));
    libkarvel_timeout_process(handle);
    EXPECT_EQ(told, Told{"now fail"});
    close_in_callback = handle;
    ASSERT_TRUE(set(handle, "k", "v", "now", 1, 0));
    ASSERT_TRUE(set(handle, "k", "v", "now", 1, 0));
    libkarvel_timeout_process(handle);
    EXPECT_EQ(told, (Told{"now fail", "now fail"}));
}

PROMISES("karvel", "Closing and losing");

TEST_F(Karvel, ACallerThatReopensFromItsFailureCallbackDoesNotSpin) {
    PROMISE("a failure callback opens again", "it gets null and does not spin");
    ASSERT_TRUE(watch(handle, "k"));
    ASSERT_TRUE(told_within(1));
    reopen_in_callback = true;
    broker.kill();
    ASSERT_TRUE(told_within(2));
    EXPECT_EQ(reopened, nullptr);
    run_for(100);
    EXPECT_EQ(told.size(), 2U);
}

PROMISES("karvel", "Requests");

TEST_F(Karvel, ARefusedSetFails) {
    PROMISE("the broker refuses a set", "its failure callback");
    std::ofstream(broker.folder() + "/acl") << "topic readwrite karvel/mem/default/open\n";
    broker.configure("acl_file " + broker.folder() + "/acl\n");
    libkarvel_close(handle);
    handle = open();
    ASSERT_TRUE(set(handle, "shut", "v", "1"));
    ASSERT_TRUE(set(handle, "open", "v", "2"));
    ASSERT_TRUE(run_until([] { return times("1 fail") == 1 && times("2 ok") == 1; }));
}

PROMISES("karvel", "Registrations");

TEST_F(Karvel, ARefusedRegistrationFailsAndHoldsTheNextOpenOff) {
    PROMISE("the broker refuses a registration", "its failure callback, and the next open is held off");
    std::ofstream(broker.folder() + "/rules")
        << R"({"defaultACLAccess": {"publishClientSend": true, "publishClientReceive": true, "subscribe": false}})";
    libkarvel_close(std::exchange(other, nullptr));  // its loss would hold the open off, too
    libkarvel_close(handle);
    broker.configure("plugin " + broker_plugin("mosquitto_dynamic_security.so") + "\nplugin_opt_config_file " +
                     broker.folder() + "/rules\n");
    handle = open();
    told.clear();
    reopen_in_callback = true;
    ASSERT_TRUE(watch(handle, "k"));
    ASSERT_TRUE(told_within(1));
    EXPECT_EQ(told, Told{"watch fail"});
    EXPECT_EQ(reopened, nullptr);
    reopen_in_callback = false;
    ASSERT_TRUE(get(handle, "k"));
    ASSERT_TRUE(told_within(2));
    EXPECT_EQ(told[1], "get none");
}

PROMISES("karvel", "Closing and losing");

TEST_F(Karvel, ANullValueChangesNothingAndSucceedsLater) {
    PROMISES("karvel", "Requests");
    PROMISE("a null value is set",
            "the value in the service stays, nothing is published, and the success is reported on the loop");
    PROMISE("a null value is set with a bad name, or after the connection was lost", "the call returns false");
    ASSERT_TRUE(set(other, "k", "v"));
    ASSERT_TRUE(watch(other, "k"));
    ASSERT_TRUE(told_within(2));
    told.clear();
    ASSERT_TRUE(set(handle, "k", nullptr));
    EXPECT_FALSE(set(handle, "a/b", nullptr));
    EXPECT_EQ(told, Told{}) << "a callback ran inside the call";
    ASSERT_TRUE(told_within(1));
    EXPECT_EQ(stored("k"), "got v");
    EXPECT_EQ(told, Told{"set ok"}) << "nothing was published";
    broker.kill();
    ASSERT_TRUE(run_until([&] { return !set(handle, "k", nullptr); })) << "false from the loss on";
}

// The loop has not run since the broker went, so that only the write itself can find out.
TEST_F(Karvel, ASetThatMeetsADeadConnectionIsRefused) {
    PROMISE("the broker was restarted and the loop has not noticed yet",
            "the request returns false, and its own callbacks never run");
    ASSERT_TRUE(watch(handle, "k"));
    ASSERT_TRUE(set(handle, "before", "1"));
    ASSERT_TRUE(told_within(2));
    told.clear();
    broker.kill();
    broker.start();
    EXPECT_FALSE(set(handle, "k", "v"));
    EXPECT_FALSE(get(handle, "k"));
    EXPECT_FALSE(watch(handle, "l"));
    ASSERT_TRUE(told_within(1));
    run_for(50);
    EXPECT_EQ(told, Told{"watch fail"}) << "no callback of what was refused";
}

// The loop does not run between the open and the close. The close waits no longer than 20 ms, which a broker on a busy
// machine may miss now and then.
TEST_F(Karvel, AHandleThatIsClosedAtOnceHasStillSet) {
    PROMISE("a handle is opened, sets a value and is closed before the loop runs",
            "the value arrives, and no callback runs");
    bool has_arrived = false;
    for (int i = 0; i < 20 && !has_arrived; ++i) {
        const std::string value = std::to_string(i);
        karvel_handle* brief = open();
        ASSERT_TRUE(set(brief, "k", value.c_str()));
        libkarvel_close(brief);
        has_arrived = stored("k") == "got " + value;
    }
    EXPECT_TRUE(has_arrived);
    EXPECT_EQ(told, Told{});
}

TEST_F(Karvel, WhatWasQueuedWhenItsHandleWasClosedGoesOutWithTheNext) {
    PROMISE("a handle is closed while its sets are queued for a frozen broker",
            "the next handle sends the last value of each, once, also when that one is closed in between");
    PROMISE("a value that is not to be kept was queued when its handle was closed", "it is not sent any more");
    EXPECT_EQ(stored("k"), "none");
    libkarvel_close(std::exchange(handle, nullptr));
    broker.freeze();
    // Two closed handles, so that what the first had is handed on twice; the second sets one of the keys itself.
    handle = open();
    ASSERT_TRUE(set(handle, "k", "1"));
    ASSERT_TRUE(set(handle, "l", "1"));
    ASSERT_TRUE(set(handle, "l", "2"));
    ASSERT_TRUE(set(handle, "relayed", "1", "set", 0));
    libkarvel_close(handle);
    handle = open();
    ASSERT_TRUE(set(handle, "k", "2"));
    libkarvel_close(handle);
    handle = open();
    broker.go_on();
    EXPECT_TRUE(run_until([&] { return stored("k") == "got 2"; }, 3'000)) << stored("k");
    EXPECT_TRUE(run_until([&] { return stored("l") == "got 2"; }, 3'000)) << stored("l");
    EXPECT_EQ(stored("relayed"), "none") << "it was for that moment";
    EXPECT_EQ(told, Told{});
    // And it is done with: a later value of somebody else stays.
    ASSERT_TRUE(set(other, "k", "3"));
    ASSERT_TRUE(told_within(1));
    libkarvel_close(handle);
    handle = open();
    run_for(200);
    EXPECT_EQ(stored("k"), "got 3");
}

TEST_F(Karvel, WhatWasQueuedIsSupersededByTheNextSet) {
    PROMISE("the next handle sets a key itself of which an older value is queued",
            "its own value is the one that stays");
    EXPECT_EQ(stored("k"), "none");
    libkarvel_close(std::exchange(handle, nullptr));
    broker.freeze();
    handle = open();
    ASSERT_TRUE(set(handle, "k", "1"));
    libkarvel_close(handle);
    handle = open();
    ASSERT_TRUE(set(handle, "k", "2"));
    broker.go_on();
    ASSERT_TRUE(told_within(1));
    run_for(200);
    EXPECT_EQ(stored("k"), "got 2");
}

// The broker is killed with the set unread, or has read it: the handle that asked cannot tell one from the other.
TEST_F(Karvel, ASetThatWasCutOffIsMadeAgainOnlyWhereItDidNotArrive) {
    PROMISE("a handle is closed with a set unanswered, and the broker dies",
            "the next handle sets it again if the service has no value or an older one of this process, and leaves "
            "another program's value alone");
    PROMISE("a set was unanswered in a key that the process has registered for",
            "it is not made again: the key is for requests");
    ASSERT_TRUE(watch(handle, "request"));
    for (const char* key : {"lost", "arrived", "replaced", "request", "halfway"}) {
        ASSERT_TRUE(set(handle, key, "1"));
    }
    ASSERT_TRUE(run_until([] { return times("set ok") == 5; }));
    run_for(300);  // on disk a moment after the acknowledgement
    broker.freeze();
    for (const char* key : {"lost", "arrived", "replaced", "request", "none yet", "halfway"}) {
        ASSERT_TRUE(set(handle, key, "2"));
    }
    ASSERT_TRUE(set(handle, "halfway", "3"));
    libkarvel_close(std::exchange(handle, nullptr));
    libkarvel_close(std::exchange(other, nullptr));
    broker.kill();
    broker.start();
    // Meanwhile another program.
    const bus_options options{{}, false, nullptr};
    bus_session* raw = nullptr;
    ASSERT_TRUE(run_until([&] { return (raw = bus_open(ev_default_loop(0), &options)) != nullptr; }));
    for (const auto& [topic, value] :
         {std::pair("karvel/mem/default/arrived", "2"), std::pair("karvel/mem/default/replaced", "3"),
          std::pair("karvel/mem/default/halfway", "2")}) {
        const bus_message message{topic, value, 1, true, nullptr, nullptr, 0};
        ASSERT_NE(bus_publish(raw, &message, 1), 0U);
    }
    ASSERT_EQ(bus_flush(raw, 5'000), 0);
    bus_close(raw);
    told.clear();
    handle = open();
    other = open();
    EXPECT_TRUE(run_until([&] { return stored("lost") == "got 2"; }, 3'000)) << stored("lost");
    EXPECT_TRUE(run_until([&] { return stored("none yet") == "got 2"; }, 3'000)) << stored("none yet");
    EXPECT_TRUE(run_until([&] { return stored("halfway") == "got 3"; }, 3'000)) << stored("halfway");
    EXPECT_EQ(stored("arrived"), "got 2");
    EXPECT_EQ(stored("replaced"), "got 3");
    EXPECT_EQ(stored("request"), "got 1") << "a request must not be made twice";
    EXPECT_EQ(told, Told{});
}

TEST_F(Karvel, AServiceThatHasLostItsMemoryGetsItBackOnce) {
    PROMISE("the service has lost its values",
            "the next handle sets those again that the service had acknowledged, without any callback");
    PROMISE(
        "a lost value was replaced or removed meanwhile, was only to be relayed, or is in a key that the process has "
        "registered for",
        "the old value does not come back");
    PROMISE("the service has a value of another program", "it stays");
    PROMISE("a value is removed after the next handle has looked for it", "it is not set again");
    ASSERT_TRUE(watch(handle, "request"));
    for (const char* key : {"kept", "changed", "removed", "request", "registered later"}) {
        ASSERT_TRUE(set(handle, key, "1"));
    }
    ASSERT_TRUE(set(handle, "relayed", "1", "set", 0));
    ASSERT_TRUE(run_until([] { return times("set ok") == 6; }));
    ASSERT_TRUE(set(handle, "changed", "2"));
    ASSERT_TRUE(set(handle, "removed", ""));
    ASSERT_TRUE(watch(handle, "registered later"));
    ASSERT_TRUE(run_until([] { return times("set ok") == 8; }));
    libkarvel_close(std::exchange(other, nullptr));
    broker.forget();
    ASSERT_TRUE(run_until([] { return times("watch fail") == 2; }));
    libkarvel_close(handle);
    told.clear();
    handle = open();
    ASSERT_TRUE(set(handle, "own", "1"));
    ASSERT_TRUE(told_within(1));
    other = open();
    EXPECT_TRUE(run_until([&] { return stored("kept") == "got 1"; }, 3'000)) << stored("kept");
    EXPECT_EQ(stored("changed"), "got 2");
    for (const char* key : {"removed", "request", "registered later", "relayed"}) {
        EXPECT_EQ(stored(key), "none") << key;
    }
    EXPECT_EQ(told, Told{"set ok"}) << "nobody is told of it";

    // A value that is there stays, whoever wrote it; and it is read once, not whenever it goes.
    ASSERT_TRUE(set(other, "kept", "theirs"));
    ASSERT_TRUE(told_within(2));
    libkarvel_close(handle);
    handle = open();
    run_for(200);
    EXPECT_EQ(stored("kept"), "got theirs");
    const bus_options options{{}, false, nullptr};
    bus_session* raw = bus_open(ev_default_loop(0), &options);
    const bus_message nothing{"karvel/mem/default/changed", nullptr, 0, true, nullptr, nullptr, 0};
    ASSERT_NE(raw, nullptr);
    ASSERT_NE(bus_publish(raw, &nothing, 1), 0U);
    ASSERT_EQ(bus_flush(raw, 5'000), 0);
    bus_close(raw);
    run_for(200);
    EXPECT_EQ(stored("changed"), "none");
}

TEST_F(Karvel, ThirtyTwoKeysAreRemembered) {
    PROMISE("more than 32 keys were set when the service loses its values", "32 of them are set again");
    const auto key = [](int number) { return "many" + std::to_string(number); };
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(set(handle, key(i).c_str(), "1"));
    }
    ASSERT_TRUE(told_within(50));
    libkarvel_close(handle);
    libkarvel_close(std::exchange(other, nullptr));
    broker.forget();
    told.clear();
    handle = open();
    other = open();
    run_for(300);
    int restored = 0;
    for (int i = 0; i < 50; ++i) {
        restored += stored(key(i).c_str()) == "got 1" ? 1 : 0;
    }
    EXPECT_EQ(restored, 32);
}

// The caller's own sets come first, and what they set is not touched.
TEST_F(Karvel, OwnSetsComeBeforeWhatIsRestored) {
    PROMISE("the next handle sets values itself while lost ones are to be restored",
            "the caller's go out first, and their keys are not restored");
    ASSERT_TRUE(set(handle, "first", "old"));
    ASSERT_TRUE(set(handle, "second", "old"));
    ASSERT_TRUE(told_within(2));
    libkarvel_close(handle);
    libkarvel_close(std::exchange(other, nullptr));
    broker.forget();
    told.clear();
    bus_session* raw = nullptr;
    std::vector<std::string> published;
    bus_options options{{}, false, nullptr};
    options.listener.context = &published;
    options.listener.on_message = [](bus_session*, const bus_message* message, void* context) {
        if (!message->retained) {
            static_cast<std::vector<std::string>*>(context)->push_back(
                std::string(message->topic).substr(strlen("karvel/mem/default/")) + "=" +
                std::string(static_cast<const char*>(message->payload), message->length));
        }
    };
    ASSERT_TRUE(run_until([&] { return (raw = bus_open(ev_default_loop(0), &options)) != nullptr; }));
    ASSERT_NE(bus_subscribe(raw, "karvel/#", 1, bus_retained::NEVER), 0U);
    ASSERT_EQ(bus_flush(raw, 5'000), 0);
    handle = open();
    ASSERT_TRUE(set(handle, "third", "new"));
    ASSERT_TRUE(set(handle, "first", "new"));
    const auto at = [&](const char* what) { return std::find(published.begin(), published.end(), what); };
    EXPECT_TRUE(run_until([&] { return at("second=old") != published.end(); }, 3'000));
    EXPECT_LT(at("third=new"), at("second=old"));
    EXPECT_LT(at("first=new"), at("second=old"));
    EXPECT_EQ(at("first=old"), published.end());
    bus_close(raw);
}

TEST_F(Karvel, XhandleResponseReadsWhatHasArrived) {
    PROMISE("responses are handled by hand", "true while the connection is whole; a loss is noticed there too");
    EXPECT_TRUE(libkarvel_xhandle_response(handle));
    ASSERT_TRUE(set(handle, "k", "v"));
    ASSERT_TRUE(told_within(1));
    broker.kill();
    // The loop does not run: only the call itself can notice.
    const int64_t deadline_ms = test_now_ms() + 2'000;
    while (libkarvel_xhandle_response(handle) && test_now_ms() < deadline_ms) {
    }
    EXPECT_FALSE(libkarvel_xhandle_response(handle));
    EXPECT_FALSE(set(handle, "k", "v")) << "false from the loss on";
}

TEST_F(Karvel, AThousandOpensLeaveNothingBehind) {
    PROMISE("handles are opened and closed a thousand times, with requests open",
            "no memory and no descriptor is left behind");
    libkarvel_close(handle);
    libkarvel_close(other);
    const auto cycle = [] {
        // A broker that has had no time to accept the ones before has a full queue, and the library then holds off for
        // a second: on a busy machine some opens need another try.
        karvel_handle* one = libkarvelev_config_open(ev_default_loop(0), 0);
        for (const int64_t deadline_ms = test_now_ms() + 10'000; one == nullptr && test_now_ms() < deadline_ms;) {
            run_for(100);
            one = libkarvelev_config_open(ev_default_loop(0), 0);
        }
        ASSERT_NE(one, nullptr);
        ASSERT_TRUE(watch(one, "k"));
        ASSERT_TRUE(set(one, "k", "v", "set", 0));
        ASSERT_TRUE(get(one, "k"));
        ASSERT_TRUE(told_within(4));  // the change comes back
        ASSERT_TRUE(get(one, "unanswered"));
        libkarvel_close(one);
        told.clear();
    };
    for (int i = 0; i < 20; ++i) {
        ASSERT_NO_FATAL_FAILURE(cycle());
    }
    const int descriptors = open_descriptors();
    const size_t in_use = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_NO_FATAL_FAILURE(cycle());
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_LE(mallinfo2().uordblks, in_use + 16384);  // the sanitizers' allocator always says 0; they look themselves
}

}  // namespace
