#include "kv.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <time.h>
#include <vector>

#include "karvel.h"
#include "support/child.h"
#include "support/kernel.h"
#include "support/log.h"
#include "support/promise.h"

// What the stand-in library hands to callbacks.
struct karvel_response {
    int error = 0;  // what parsing says
    std::string name_space = "mem";
    std::string group = "default";
    std::string key;
    bool has_value = false;
    std::string value;
    std::string behind;  // bytes that follow the value and are none of it
    int refusal = 0;     // what a read without a value gets instead of 1
};

namespace {

using strings = std::vector<std::string>;

// --- the clock: stands still except for a microsecond at each look, so timers fire exactly when a test says ---------

int64_t clock_us = 1'000'000'000;

// --- memory: the n-th call of an allocator fails; copies of strings are watched -------------------------------------

std::map<std::string, int> fails_at;  // 1: the next call
std::set<void*> live_copies;

bool must_fail(const char* call) {
    auto at = fails_at.find(call);
    if (at == fails_at.end() || --at->second != 0) {
        return false;
    }
    fails_at.erase(at);
    errno = ENOMEM;
    return true;
}

// --- the library ---------------------------------------------------------------------------------------------------

struct request {
    karvel_callback done;  // success, notification or completion
    karvel_callback fail;
    void* context;
};

bool service_up;
int sets_accepted;           // this many more, then false
int registrations_accepted;  // likewise
bool reads_accepted;
bool connection_whole;  // what handling responses says
strings called;
std::deque<request> sets;
std::map<std::string, request> subscriptions;  // by key
request read_request;
std::function<void()> before_answer;  // runs on the loop before a read is answered
karvel_response answer;
char handle_storage[1000];
int opened;
std::set<karvel_handle*> closed;
int live_pairs;
uint32_t last_id;

std::string number(karvel_handle* handle) {
    return handle == nullptr ? "null" : std::to_string(reinterpret_cast<char*>(handle) - handle_storage);
}

const char* shown(const char* text) {
    return text != nullptr ? text : "(null)";
}

bool usable(karvel_handle* handle) {
    return handle != nullptr && closed.count(handle) == 0;
}

}  // namespace

extern "C" {

// Takes the place of the C library's for libev too.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's names are reserved ones
int clock_gettime(clockid_t, timespec* out) {
    ++clock_us;
    out->tv_sec = static_cast<time_t>(clock_us / 1'000'000);
    out->tv_nsec = static_cast<long>(clock_us % 1'000'000 * 1000);
    return 0;
}

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
char* __real_strdup(const char* text);
char* __real_strndup(const char* text, size_t length);
void __real_free(void* memory);

void* __wrap_malloc(size_t size) {
    return must_fail("malloc") ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size) {
    return must_fail("calloc") ? nullptr : __real_calloc(count, size);
}

char* __wrap_strdup(const char* text) {
    if (must_fail("strdup")) {
        return nullptr;
    }
    char* copy = __real_strdup(text);
    live_copies.insert(copy);
    return copy;
}

char* __wrap_strndup(const char* text, size_t length) {
    if (must_fail("strndup")) {
        return nullptr;
    }
    char* copy = __real_strndup(text, length);
    live_copies.insert(copy);
    return copy;
}

void __wrap_free(void* memory) {
    live_copies.erase(memory);
    __real_free(memory);
}

karvel_handle* libkarvelev_config_open(struct ev_loop* loop, int flags) {
    EXPECT_EQ(loop, ev_default_loop(0));
    EXPECT_EQ(flags, 0);
    called.emplace_back("open");
    return service_up ? reinterpret_cast<karvel_handle*>(&handle_storage[++opened]) : nullptr;
}

void libkarvel_close(karvel_handle* handle) {
    called.push_back("close " + number(handle));
    closed.insert(handle);
}

bool libkarvel_set_value(karvel_handle* handle, const char* name_space, const char* group, const char* key, int keep,
                         const char* value, karvel_callback on_ok, karvel_callback on_fail, int timeout_s,
                         void* context) {
    called.push_back("set " + number(handle) + " " + name_space + ":" + key + "=" + shown(value));
    EXPECT_EQ(group, nullptr);
    EXPECT_EQ(keep, 1);
    EXPECT_EQ(timeout_s, 3);
    // A null value is taken like any other, as the library does; see karvel_test.
    if (!usable(handle) || sets_accepted == 0) {
        return false;
    }
    --sets_accepted;
    sets.push_back({on_ok, on_fail, context});
    return true;
}

bool libkarvel_register_notification(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                                     uint32_t* id, karvel_callback on_notify, karvel_callback on_fail, int confirm,
                                     void* context) {
    called.push_back("register " + number(handle) + " " + name_space + ":" + group + ":" + key);
    EXPECT_EQ(confirm, 1);
    EXPECT_EQ(*id, 0U);
    if (!usable(handle) || registrations_accepted == 0) {
        return false;
    }
    --registrations_accepted;
    *id = ++last_id;
    subscriptions[key] = {on_notify, on_fail, context};
    return true;
}

bool libkarvel_get_value(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                         karvel_callback on_done, void* unused, int timeout_s, void* context) {
    called.push_back("get " + number(handle) + " " + name_space + ":" + key);
    EXPECT_EQ(group, nullptr);
    EXPECT_EQ(unused, nullptr);
    EXPECT_EQ(timeout_s, -1);
    if (!reads_accepted) {
        errno = ENOTCONN;
        return false;
    }
    read_request = {on_done, nullptr, context};
    static ev_timer soon;
    ev_timer_stop(ev_default_loop(0), &soon);
    ev_timer_init(
        &soon,
        [](struct ev_loop*, ev_timer*, int) {
            if (before_answer) {
                before_answer();
            }
            read_request.done(&answer, read_request.context);
        },
        0., 0.);
    ev_timer_start(ev_default_loop(0), &soon);
    return true;
}

void libkarvel_timeout_process(karvel_handle* handle) {
    called.push_back("timeout " + number(handle));
}

bool libkarvel_xhandle_response(karvel_handle* handle) {
    called.push_back("handle " + number(handle));
    return connection_whole;
}

karvel_xpair* xresponse_parse(karvel_response* response, int* error) {
    EXPECT_EQ(*error, -1);
    *error = response->error;
    if (response->error != 0) {
        return nullptr;
    }
    ++live_pairs;
    auto* name = new karvel_xname{response->name_space.c_str(), response->group.c_str(), response->key.c_str()};
    const auto* value =
        response->has_value ? new karvel_xvalue{response->value.data(), response->value.size()} : nullptr;
    return new karvel_xpair{name, value};
}

void xpair_basefree(karvel_xpair* pair) {
    --live_pairs;
    delete pair->first;
    delete pair->second;
    delete pair;
}

int xcontrol_get_response(karvel_response* response, const karvel_xvalue** value) {
    static karvel_xvalue given;
    static std::string bytes;
    if (!response->has_value) {
        if (response->refusal != 0) {
            bytes = "none";
            given = {bytes.data(), bytes.size()};
            *value = &given;
        }
        return response->refusal;
    }
    bytes = response->value + response->behind;
    given = {bytes.data(), response->value.size()};
    *value = &given;
    return 1;
}

}  // extern "C"

namespace {

void turn() {
    ev_run(ev_default_loop(0), EVRUN_NOWAIT);
}

void advance(double seconds) {
    clock_us += static_cast<int64_t>(seconds * 1e6);
    turn();
}

// What was called since the last look.
strings news() {
    strings since;
    since.swap(called);
    return since;
}

void end_set(bool ok) {
    const request first = sets.front();
    sets.pop_front();
    karvel_response response;
    (ok ? first.done : first.fail)(&response, first.context);
}

void notify(const std::string& subscription, karvel_response response) {
    const request one = subscriptions.at(subscription);
    one.done(&response, one.context);
}

karvel_response value_of(const std::string& key, const std::string& value) {
    karvel_response response;
    response.key = key;
    response.has_value = true;
    response.value = value;
    return response;
}

strings told;  // what the registered callbacks were called with

void on_told(void* context, const char* value, size_t length) {
    told.push_back(std::string(static_cast<const char*>(context)) + " " +
                   (value != nullptr ? std::string(value, length) : "null " + std::to_string(length)));
}

char context_a[] = "A";
char context_b[] = "B";

class KvTest : public testing::Test {
  protected:
    void SetUp() override {
        kernel::reset();
        service_up = true;
        sets_accepted = registrations_accepted = 1 << 20;
        reads_accepted = connection_whole = true;
        opened = 0;
        closed.clear();
        sets.clear();
        subscriptions.clear();
        before_answer = nullptr;
        answer = karvel_response{};
        fails_at.clear();
        told.clear();
        called.clear();
        logged::reset();
    }

    // Leaves the store as at the start of the process: no handle, nothing stored.
    void TearDown() override {
        fails_at.clear();
        kv_exit();
        for (void* left : std::set<void*>(live_copies)) {
            __wrap_free(left);  // what kv_exit leaves on purpose
        }
        service_up = false;
        kv_init();
        kv_exit();
        turn();
        EXPECT_EQ(live_pairs, 0);
    }

    static void start() {
        EXPECT_EQ(kv_init(), 0);
        turn();
        called.clear();
    }
    static void start_without_service() {
        service_up = false;
        start();
    }
    static void expect_no_log() { EXPECT_EQ(logged::lines(), strings{}); }
};

// --- setting -------------------------------------------------------------------------------------------------------

PROMISES("kv", "The link");

TEST_F(KvTest, InitOpensTheLink) {
    PROMISE("the store starts",
            "the link is opened at once; the descriptor's watcher is set up but never started, and with nothing "
            "outstanding no timer runs");
    EXPECT_EQ(kv_init(), 0);
    EXPECT_EQ(news(), strings{"open"});
    EXPECT_FALSE(ev_is_active(&link_io));
    EXPECT_EQ(link_io.fd, -1);
    advance(5);
    EXPECT_EQ(news(), strings{}) << "no reopen, nothing outstanding";
}

PROMISES("kv", "Setting");

TEST_F(KvTest, ChangesAreSentAtOnceAndOnlyChanges) {
    PROMISE("a key is set for the first time, or to another value", "it goes to the service at once");
    PROMISE("a key is set to the value it has", "nothing is sent or logged, and no copy is kept");
    PROMISE("a key is asked for that was never set", "there is no value, and the service is not asked");
    start();
    kvmem_set("status", "0");
    EXPECT_EQ(news(), strings{"set 1 mem:status=0"});
    kvmem_set("status", "0");
    EXPECT_EQ(news(), strings{});
    EXPECT_EQ(live_copies.size(), 1U) << "the copy that changed nothing is freed";
    kvmem_set("status", "1");
    EXPECT_EQ(news(), strings{"set 1 mem:status=1"});
    EXPECT_EQ(live_copies.size(), 1U) << "the old value is freed";
    EXPECT_STREQ(kv_get_str("status"), "1");
    EXPECT_EQ(kv_get_str("other"), nullptr);
    expect_no_log();
}

TEST_F(KvTest, ValueIsCutToItsLength) {
    PROMISE("a value is given with a length", "that many bytes of it count, or fewer where it ends before");
    start();
    kv_set_str("mem", "k", "abcdef", 3);
    kv_set_str("mem", "k", "abc", 10);
    EXPECT_EQ(news(), strings{"set 1 mem:k=abc"});
    kv_set_str("mem", "k", "abc", 0);
    EXPECT_EQ(news(), strings{"set 1 mem:k="});
}

TEST_F(KvTest, NamesAreCutToFit) {
    PROMISE("a namespace is longer than 7 characters", "it is cut");
    PROMISE("a key has exactly 31 characters", "it is kept whole and found again");
    start();
    kv_set_str("sevench", "a", "1", 1);
    kv_set_str("eightcha", "b", "1", 1);
    EXPECT_EQ(news(), (strings{"set 1 sevench:a=1", "set 1 eightch:b=1"}));

    const std::string fits(31, 'x');
    kvmem_set(fits.c_str(), "1");
    kvmem_set(fits.c_str(), "1");
    EXPECT_EQ(news(), strings{"set 1 mem:" + fits + "=1"});
}

TEST_F(KvTest, EachSetOfALongKeyAddsAnEntry) {
    PROMISE("a key is longer than 31 characters",
            "it is stored and sent cut, but never found again: each set adds another entry and sends it");
    start();
    const std::string cut(31, 'y');
    const std::string longer = cut + "z";
    kvmem_set(longer.c_str(), "1");
    kvmem_set(longer.c_str(), "1");
    EXPECT_EQ(news(), (strings{"set 1 mem:" + cut + "=1", "set 1 mem:" + cut + "=1"}));
    EXPECT_EQ(kv_get_str(longer.c_str()), nullptr);
    EXPECT_NE(kv_get_str(cut.c_str()), nullptr);
}

TEST_F(KvTest, OneKeyIsOneEntryInWhateverNamespace) {
    PROMISE("one key is set in two namespaces", "both share one entry, which keeps the first namespace");
    start();
    kv_set_str("one", "k", "1", 1);
    kv_set_str("two", "k", "1", 1);
    kv_set_str("two", "k", "2", 1);
    EXPECT_EQ(news(), (strings{"set 1 one:k=1", "set 1 one:k=2"}));
}

TEST_F(KvTest, WhatIsSetWhileAwayGoesOutInOrder) {
    PROMISE("keys are set while there is no link",
            "each set tries, fails, and arms the reopen timer; the next open sends the last value of each, in the "
            "order of their first sets");
    start_without_service();
    kvmem_set("b", "1");
    kvmem_set("a", "1");
    kvmem_set("c", "1");
    kvmem_set("b", "2");
    EXPECT_EQ(news(), (strings{"set null mem:b=1", "set null mem:b=1", "set null mem:b=1", "set null mem:b=2"}));
    service_up = true;
    advance(1.1);
    EXPECT_EQ(news(), (strings{"open", "set 1 mem:b=2", "set 1 mem:a=1", "set 1 mem:c=1"}));
    advance(1.1);
    EXPECT_EQ(news(), strings{"timeout 1"});
    expect_no_log();
}

TEST_F(KvTest, RefusedSetEndsThePushAndReopens) {
    PROMISE("the library refuses a set",
            "the push ends there; the rest follows after the reopening, and what was taken before is not sent twice");
    PROMISES("kv", "The link");
    PROMISE("the first push fails during an open", "the open has failed: closed and tried again in a second");
    PROMISE("the link is closed",
            "the old handle stays in use: sets are tried on it, and the next open closes it once more");
    PROMISE("the reopen timer's own open succeeds", "the timer stops");
    start();
    sets_accepted = 0;
    kvmem_set("a", "1");
    kvmem_set("b", "1");
    EXPECT_EQ(news(), (strings{"set 1 mem:a=1", "set 1 mem:a=1"}));
    sets_accepted = 1;
    advance(1.1);
    EXPECT_EQ(news(), (strings{"close 1", "open", "set 2 mem:a=1", "set 2 mem:b=1", "close 2"}));
    kvmem_set("b", "2");
    EXPECT_EQ(news(), strings{"set 2 mem:b=2"}) << "the closed handle is still tried";
    sets_accepted = 1;
    advance(1.1);
    EXPECT_EQ(news(), (strings{"close 2", "open", "set 3 mem:b=2"})) << "closed twice; what was taken is not repeated";
    advance(3);
    EXPECT_EQ(news(), strings{"timeout 3"}) << "the reopen timer is stopped";
}

TEST_F(KvTest, FailedSetWaitsForTheNextChangeOfAnyKey) {
    PROMISE("a set fails later",
            "it is dirty again, but neither a reopening nor the same value sends it: the next change of any key does");
    start();
    connection_whole = false;
    kvmem_set("a", "1");
    end_set(false);
    called.clear();
    ev_invoke(ev_default_loop(0), &link_io, EV_READ);
    EXPECT_EQ(news(), (strings{"handle 1", "close 1", "open"})) << "not with a reopen alone";
    kvmem_set("a", "1");
    EXPECT_EQ(news(), strings{}) << "not with the value it has";
    kvmem_set("b", "1");
    EXPECT_EQ(news(), (strings{"set 2 mem:a=1", "set 2 mem:b=1"}));
}

TEST_F(KvTest, CommitOnRequest) {
    PROMISE("a commit is asked for", "it runs on the loop, and only if something is dirty");
    start();
    sets_accepted = 0;
    kvmem_set("a", "1");
    sets_accepted = 1;
    called.clear();
    kv_request_commit();
    EXPECT_EQ(news(), strings{}) << "on the loop";
    turn();
    EXPECT_EQ(news(), strings{"set 1 mem:a=1"});
    kv_request_commit();
    turn();
    EXPECT_EQ(news(), strings{}) << "nothing is dirty";
}

// --- memory --------------------------------------------------------------------------------------------------------

TEST_F(KvTest, ValueThatCannotBeCopied) {
    PROMISE("the value cannot be copied", "\"[config] Fail to dup value for %s: %s\", and the store stays as it was");
    start();
    kvmem_set("k", "1");
    called.clear();
    fails_at["strndup"] = 1;
    kvmem_set("k", "2");
    EXPECT_EQ(logged::lines(), strings{"err [config] Fail to dup value for k: " + std::string(strerror(ENOMEM))});
    EXPECT_STREQ(kv_get_str("k"), "1");
    EXPECT_EQ(news(), strings{});
}

TEST_F(KvTest, EntryThatCannotBeMade) {
    PROMISE("a new entry cannot be made",
            "\"[config] can not create new key \\\"%s\\\" with value \\\"%s\\\".\", nothing is kept or sent");
    start();
    fails_at["calloc"] = 1;
    kvmem_set("k", "v");
    EXPECT_EQ(logged::lines(), strings{"err [config] can not create new key \"k\" with value \"v\"."});
    EXPECT_EQ(kv_get_str("k"), nullptr);
    EXPECT_EQ(live_copies.size(), 0U);
    EXPECT_EQ(news(), strings{});
}

TEST_F(KvTest, EntryThatCannotBeMadeIsToldAsFarAsItWasAskedFor) {
    PROMISE("a new entry cannot be made for a value given with a length",
            "the message shows no more of the value than that");
    start();
    fails_at["calloc"] = 1;
    kv_set_str("mem", "k", "value and more", 5);
    EXPECT_EQ(logged::lines(), strings{"err [config] can not create new key \"k\" with value \"value\"."});
}

TEST_F(KvTest, TableThatCannotBeMadeOrGrowEndsTheProcess) {
    PROMISE("the table cannot be made or grow", "the process ends with status -1");
    for (const bool growing : {false, true}) {
        const auto outcome = child::run([growing] {
            kv_init();
            if (growing) {
                kvmem_set("first", "1");
            }
            fails_at["malloc"] = 1;
            fails_at["calloc"] = 1 << 20;
            for (int i = 0; i < 2000; ++i) {
                kvmem_set(std::to_string(i).c_str(), "1");
            }
            _exit(1);
        });
        EXPECT_TRUE(outcome.exited_with(255)) << outcome.status << outcome.error;
    }
    kv_init();
}

PROMISES("kv", "Subscribing");

TEST_F(KvTest, RegistrationThatCannotBeMadeLeavesNothing) {
    PROMISE("memory for a registration runs out, at whichever copy",
            "-1 with errno, nothing is kept, subscribed or logged");
    start();
    static const struct {
        const char* call;
        int nth;
    } rows[] = {{"calloc", 1}, {"strdup", 1}, {"strdup", 2}, {"strdup", 3}};
    for (const auto& row : rows) {
        fails_at[row.call] = row.nth;
        errno = 0;
        EXPECT_EQ(kv_register("mem", "default", "k", on_told, context_a), -1) << row.call << row.nth;
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(fails_at.empty());
        EXPECT_EQ(live_copies.size(), 0U);
        turn();
        EXPECT_EQ(news(), strings{});
    }
    expect_no_log();
}

// --- subscribing ---------------------------------------------------------------------------------------------------

TEST_F(KvTest, RegistrationsAreSubscribedOnTheNextIteration) {
    PROMISE("a key is registered",
            "it is subscribed on a later iteration, in the order of registration, with every other new one; the "
            "callback is not called for it");
    start();
    EXPECT_EQ(kv_register("mem", "default", "a", on_told, context_a), 0);
    EXPECT_EQ(kv_register("ns", "group", "b", on_told, context_b), 0);
    EXPECT_EQ(news(), strings{});
    turn();
    EXPECT_EQ(news(), (strings{"register 1 mem:default:a", "register 1 ns:group:b"}));
    kv_register("mem", "default", "c", on_told, context_a);
    turn();
    EXPECT_EQ(news(), strings{"register 1 mem:default:c"});
    EXPECT_EQ(told, strings{});
}

TEST_F(KvTest, RegistrationBeforeTheLoopRunsIsSubscribedOnItsFirstIteration) {
    PROMISE("keys are registered after the start and before the loop runs",
            "they are subscribed on its first iteration");
    EXPECT_EQ(kv_init(), 0);
    kv_register("mem", "default", "a", on_told, context_a);
    kv_register("mem", "default", "b", on_told, context_b);
    EXPECT_EQ(news(), strings{"open"});
    turn();
    EXPECT_EQ(news(), (strings{"register 1 mem:default:a", "register 1 mem:default:b"}));
}

TEST_F(KvTest, RegistrationBeforeTheLinkIsSubscribedAtTheOpen) {
    PROMISE("a key is registered before the link is open", "it is subscribed at the open, once");
    PROMISES("kv", "The link");
    PROMISE("the link opens", "dirty values are pushed first, registrations subscribed second");
    start_without_service();
    kv_register("mem", "default", "a", on_told, context_a);
    kvmem_set("k", "1");
    called.clear();
    turn();
    EXPECT_EQ(news(), strings{});
    service_up = true;
    advance(1.1);
    EXPECT_EQ(news(), (strings{"open", "set 1 mem:k=1", "register 1 mem:default:a"})) << "pushes first";
    turn();
    EXPECT_EQ(news(), strings{}) << "the send while it was closed is dropped";
}

TEST_F(KvTest, RefusedRegistrationEndsThePassAndReopens) {
    PROMISE("the library refuses a registration",
            "the pass ends, nothing counts as outstanding, and all are subscribed by the reopening a second later");
    start();
    kvmem_set("k", "1");
    kv_register("mem", "default", "a", on_told, context_a);
    kv_register("mem", "default", "b", on_told, context_b);
    kv_register("mem", "default", "c", on_told, context_b);
    registrations_accepted = 1;
    called.clear();
    turn();
    EXPECT_EQ(news(), (strings{"register 1 mem:default:a", "register 1 mem:default:b"}));
    registrations_accepted = 3;
    advance(1.1);
    EXPECT_EQ(news(), (strings{"close 1", "open", "register 2 mem:default:a", "register 2 mem:default:b",
                               "register 2 mem:default:c"}))
        << "and no time-out check: nothing was outstanding";
}

TEST_F(KvTest, OpenByTheTimerStopsItEvenIfARegistrationIsRefused) {
    PROMISE("a registration is refused inside the timer's own open",
            "the open counts as good and the timer stops: nothing tries again by itself");
    PROMISES("kv", "The link");
    PROMISE("the reopen timer's own open succeeds", "the timer stops");
    start_without_service();
    kv_register("mem", "default", "a", on_told, context_a);
    service_up = true;
    registrations_accepted = 0;
    advance(1.1);
    EXPECT_EQ(news(), (strings{"open", "register 1 mem:default:a"}));
    advance(5);
    EXPECT_EQ(news(), strings{});
}

TEST_F(KvTest, FailedRegistrationReopensAtOnce) {
    PROMISE("a registration fails later",
            "\"Fail to register notification in karvel. Reopen..\", the link is reopened at once and everything "
            "subscribed anew");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    kv_register("mem", "default", "b", on_told, context_b);
    turn();
    called.clear();
    const request one = subscriptions.at("a");
    karvel_response response;
    one.fail(&response, one.context);
    EXPECT_EQ(logged::lines(), strings{"warning Fail to register notification in karvel. Reopen.."});
    EXPECT_EQ(news(), (strings{"close 1", "open", "register 2 mem:default:a", "register 2 mem:default:b"}));
    advance(1.1);
    EXPECT_EQ(news(), strings{"timeout 2"}) << "no reopen was armed";
}

// The path that a lost connection takes: the link is open again at once, and the timer that a refused set has armed
// closes and opens it once more.
TEST_F(KvTest, ALinkThatAFailedRegistrationReopenedIsReopenedOnceMoreByTheTimer) {
    PROMISES("kv", "The link");
    PROMISE("a failed registration reopens the link while a refused set has the timer armed",
            "the timer closes and opens the working link once more, then stops");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    turn();
    sets_accepted = 0;
    kvmem_set("k", "1");
    sets_accepted = 10;
    const request one = subscriptions.at("a");
    karvel_response response;
    one.fail(&response, one.context);
    called.clear();
    end_set(true);
    notify("a", response);
    advance(1.1);
    EXPECT_EQ(news(), (strings{"close 2", "open", "register 3 mem:default:a"}));
    notify("a", response);
    advance(5);
    EXPECT_EQ(news(), strings{}) << "then it stops";
}

// A close forgets what is outstanding, but not who waits for its first notification: one that comes first of all on the
// new link then answers nothing that is counted.
TEST_F(KvTest, ACloseLeavesTheAwaitingFlags) {
    PROMISES("kv", "The link");
    PROMISE(
        "the link closes before a registration has had its first notification, and that comes first on the new link",
        "it is delivered, and \"pengding_count underflow!\" is logged");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    turn();
    registrations_accepted = 0;
    connection_whole = false;
    ev_invoke(ev_default_loop(0), &link_io, EV_READ);
    expect_no_log();
    notify("a", value_of("a", "v"));
    EXPECT_EQ(logged::lines(), strings{"err pengding_count underflow!"});
    EXPECT_EQ(told, strings{"A v"});
}

TEST_F(KvTest, ClosingStopsTheCommits) {
    PROMISES("kv", "The link");
    PROMISE("the link closes while a commit waits for the loop", "nothing is committed on the closed link");
    start();
    sets_accepted = 0;
    kvmem_set("k", "1");
    kv_request_commit();
    service_up = false;
    connection_whole = false;
    ev_invoke(ev_default_loop(0), &link_io, EV_READ);
    called.clear();
    turn();
    EXPECT_EQ(news(), strings{}) << "no commit on a closed link";
}

// --- notifications -------------------------------------------------------------------------------------------------

TEST_F(KvTest, EveryNotificationIsDelivered) {
    PROMISE("a notification arrives, changed or not",
            "the callback gets its bytes and length, or null and 0 when it has no value");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    kv_register("mem", "default", "b", on_told, context_b);
    turn();
    karvel_response empty;
    empty.key = "b";
    notify("b", empty);
    notify("b", value_of("b", "start"));
    notify("b", value_of("b", "start"));
    EXPECT_EQ(told, (strings{"B null 0", "B start", "B start"}));
    expect_no_log();
}

TEST_F(KvTest, AnEmptyValueIsAValue) {
    PROMISE("a notification has an empty value", "the callback gets the empty value, not null");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    turn();
    notify("a", value_of("a", ""));
    EXPECT_EQ(told, strings{"A "});
}

// The callback may look at what is outstanding by what it asks for: its own notification is answered by then.
TEST_F(KvTest, TheFirstNotificationIsAnsweredBeforeItsCallbackRuns) {
    PROMISE("the callback of the first notification runs the loop", "its subscription counts as answered by then");
    start();
    static const auto closes = [](void*, const char*, size_t) {
        called.clear();
        advance(1.1);
        EXPECT_EQ(news(), strings{}) << "a time-out check: something counts as outstanding";
    };
    kv_register("mem", "default", "a", closes, context_a);
    turn();
    notify("a", value_of("a", "v"));
}

TEST_F(KvTest, NotificationsLeaveTheStoredValueAlone) {
    PROMISE("a notification arrives for a key that the daemon has set",
            "the stored value stays: the daemon's same answer again counts as unchanged and is not sent");
    start();
    kv_register("mem", "default", "k", on_told, context_a);
    turn();
    kvmem_set("k", "end1");
    called.clear();
    notify("k", value_of("k", "start"));
    EXPECT_STREQ(kv_get_str("k"), "end1");
    kvmem_set("k", "end1");
    EXPECT_EQ(news(), strings{}) << "the same answer again is taken for unchanged";
    kvmem_set("k", "end2");
    EXPECT_EQ(news(), strings{"set 1 mem:k=end2"});
}

TEST_F(KvTest, NotificationWithAnErrorSubscribesAgain) {
    PROMISE("a notification carries an error",
            "nothing is called; the key is subscribed again on a later iteration, and counted a second time, so that "
            "the time-out timer may run on");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    turn();
    called.clear();
    karvel_response bad;
    bad.error = EIO;
    notify("a", bad);
    EXPECT_EQ(news(), strings{});
    turn();
    EXPECT_EQ(news(), strings{"register 1 mem:default:a"});
    EXPECT_EQ(told, strings{});
    notify("a", value_of("a", "1"));
    advance(1.1);
    EXPECT_EQ(news(), strings{"timeout 1"}) << "counted twice, answered once";
    expect_no_log();
}

TEST_F(KvTest, MisdirectedNotificationsGoToTheFirstThatSharesAName) {
    PROMISE("one of a notification's three names is not its registration's",
            "\"The notification dispatched with wrong key.\", and it goes to the first registration that shares any of "
            "the three");
    PROMISE("no registration shares any name", "\"Incorrect notification. %s:%s:%s\", and nobody is called");
    static const struct {
        const char* name_space;
        const char* group;
        const char* key;
        strings told;
    } rows[] = {
        {"ns1", "x", "x", {"A v"}},  {"x", "g1", "x", {"A v"}},   {"x", "x", "k1", {"A v"}},
        {"ns1", "g1", "x", {"A v"}}, {"x", "x", "k2", {"B v"}},   {"x", "g2", "k1", {"A v"}},
        {"ns2", "x", "k2", {"B v"}}, {"ns2", "g2", "x", {"B v"}}, {"ns2", "x", "x", {"B v"}},
        {"x", "x", "x", {}},
    };
    start();
    kv_register("ns1", "g1", "k1", on_told, context_a);
    kv_register("ns2", "g2", "k2", on_told, context_b);
    turn();
    for (const auto& row : rows) {
        const std::string names = std::string(row.name_space) + ":" + row.group + ":" + row.key;
        SCOPED_TRACE(names);
        logged::reset();
        told.clear();
        karvel_response response = value_of(row.key, "v");
        response.name_space = row.name_space;
        response.group = row.group;
        notify("k2", response);
        EXPECT_EQ(told, row.told);
        strings lines = {"warning The notification dispatched with wrong key."};
        if (row.told.empty()) {
            lines.push_back("warning Incorrect notification. " + names);
        }
        EXPECT_EQ(logged::lines(), lines);
        EXPECT_EQ(live_pairs, 0);
    }
}

TEST_F(KvTest, MisdirectedNotificationAnswersWhomItReaches) {
    PROMISE("a misdirected notification reaches another registration",
            "it answers that one's subscription, not its own");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    kv_register("mem", "default", "b", on_told, context_b);
    turn();
    notify("b", value_of("a", "v"));
    notify("a", value_of("a", "v"));
    EXPECT_EQ(told, (strings{"A v", "A v"}));
    called.clear();
    advance(1.1);
    EXPECT_EQ(news(), strings{"timeout 1"}) << "b has had no answer";
    notify("b", value_of("b", "v"));
    advance(3);
    EXPECT_EQ(news(), strings{});
}

TEST_F(KvTest, EachNameMakesANotificationMisdirected) {
    PROMISE("one of a notification's three names is not its registration's",
            "\"The notification dispatched with wrong key.\", and it goes to the first registration that shares any of "
            "the three");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    kv_register("mem", "default", "b", on_told, context_b);
    turn();
    notify("b", value_of("other", "v"));
    EXPECT_EQ(told, strings{"A v"}) << "the first of the namespace";
    karvel_response response = value_of("b", "v");
    response.group = "other";
    notify("b", response);
    response.group = "default";
    response.name_space = "other";
    notify("b", response);
    EXPECT_EQ(told, (strings{"A v", "A v", "A v"}));
    EXPECT_EQ(logged::count("warning The notification dispatched with wrong key."), 3);
}

// --- what is outstanding -------------------------------------------------------------------------------------------

TEST_F(KvTest, TimeOutsAreCheckedWhileAnythingIsOutstanding) {
    PROMISES("kv", "The link");
    PROMISE("requests are outstanding",
            "time-outs are processed once a second, from a second after the first; not any more after the last answer");
    start();
    kvmem_set("a", "1");
    kvmem_set("b", "1");
    called.clear();
    advance(0.9);
    EXPECT_EQ(news(), strings{});
    advance(0.2);
    EXPECT_EQ(news(), strings{"timeout 1"});
    end_set(true);
    advance(1);
    EXPECT_EQ(news(), strings{"timeout 1"});
    end_set(false);
    advance(3);
    EXPECT_EQ(news(), strings{});
    expect_no_log();
}

TEST_F(KvTest, FirstNotificationAnswersTheSubscriptionOnce) {
    PROMISE("the first notification after a subscription arrives",
            "it is that subscription's answer; later ones answer nothing");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    turn();
    advance(1.1);
    EXPECT_EQ(news(), (strings{"register 1 mem:default:a", "timeout 1"}));
    notify("a", value_of("a", "1"));
    advance(2);
    EXPECT_EQ(news(), strings{});
    kvmem_set("k", "1");
    notify("a", value_of("a", "1"));
    called.clear();
    advance(1.1);
    EXPECT_EQ(news(), strings{"timeout 1"}) << "the set is outstanding still";
}

PROMISES("kv", "The link");

TEST_F(KvTest, OneAnswerTooManyIsReported) {
    PROMISE("an answer comes that nothing waited for", "\"pengding_count underflow!\", and the count stays at 0");
    start();
    kvmem_set("a", "1");
    sets.push_back(sets.front());
    end_set(true);
    expect_no_log();
    end_set(true);
    EXPECT_EQ(logged::lines(), strings{"err pengding_count underflow!"});
    kvmem_set("a", "2");
    called.clear();
    advance(1.1);
    EXPECT_EQ(news(), strings{"timeout 1"}) << "the count did not wrap";
}

TEST_F(KvTest, ClosingForgetsWhatIsOutstanding) {
    PROMISE("the link closes", "what was outstanding is forgotten");
    start();
    kvmem_set("a", "1");
    called.clear();
    connection_whole = false;
    ev_invoke(ev_default_loop(0), &link_io, EV_READ);
    EXPECT_EQ(news(), (strings{"handle 1", "close 1", "open"}));
    advance(2);
    EXPECT_EQ(news(), strings{});
}

// --- reopening -----------------------------------------------------------------------------------------------------

TEST_F(KvTest, AbsentServiceIsTriedEverySecondSilently) {
    PROMISE("the service is absent",
            "the store starts all the same and tries to open once a second, without a line in the log");
    service_up = false;
    kv_init();
    EXPECT_EQ(news(), strings{"open"});
    advance(0.9);
    EXPECT_EQ(news(), strings{});
    advance(0.2);
    EXPECT_EQ(news(), strings{"open"});
    for (int second = 0; second < 5; ++second) {
        advance(1.01);
        EXPECT_EQ(news(), strings{"open"});
    }
    expect_no_log();
}

TEST_F(KvTest, ArmingAgainPushesTheAttemptBack) {
    PROMISE("the reopen timer is armed while it runs", "the attempt moves to a second from then");
    start_without_service();
    advance(0.6);
    kvmem_set("a", "1");
    called.clear();
    advance(0.6);
    EXPECT_EQ(news(), strings{});
    advance(0.5);
    EXPECT_EQ(news(), strings{"open"});
}

TEST_F(KvTest, OnlyTheTimersOwnCallbackStopsIt) {
    PROMISE("the timer is armed and something else reopens the link",
            "the timer closes and opens the working link once more, then stops");
    start();
    sets_accepted = 0;
    kvmem_set("a", "1");
    sets_accepted = 10;
    connection_whole = false;
    ev_invoke(ev_default_loop(0), &link_io, EV_READ);
    called.clear();
    end_set(true);
    advance(1.1);
    EXPECT_EQ(news(), (strings{"close 2", "open"})) << "the working link, once more";
    advance(5);
    EXPECT_EQ(news(), strings{});
}

TEST_F(KvTest, ResponsesOfAWatchedDescriptor) {
    PROMISE("a watched descriptor's responses show a broken connection",
            "the link is reopened at once; a whole one is left alone, and without a handle nothing is done");
    start();
    ev_invoke(ev_default_loop(0), &link_io, EV_READ);
    EXPECT_EQ(news(), strings{"handle 1"}) << "whole";
    service_up = false;
    connection_whole = false;
    ev_invoke(ev_default_loop(0), &link_io, EV_READ);
    EXPECT_EQ(news(), (strings{"handle 1", "close 1", "open"}));
    ev_invoke(ev_default_loop(0), &link_io, EV_READ);
    EXPECT_EQ(news(), strings{}) << "no handle";
}

// --- leaving -------------------------------------------------------------------------------------------------------

PROMISES("kv", "The end");

TEST_F(KvTest, ExitPushesClosesAndForgets) {
    PROMISE("the store stops",
            "it pushes what is dirty, closes, stops every watcher, forgets every key and registration; the strings are "
            "left to the end of the process");
    start();
    kv_register("mem", "default", "a", on_told, context_a);
    kv_register("mem", "default", "b", on_told, context_a);
    turn();
    sets_accepted = 0;
    kvmem_set("k", "1");
    kvmem_set("l", "1");
    sets_accepted = 10;
    called.clear();
    kv_exit();
    EXPECT_EQ(news(), (strings{"set 1 mem:k=1", "set 1 mem:l=1", "close 1"}));
    EXPECT_EQ(kv_get_str("k"), nullptr);
    EXPECT_EQ(live_copies.size(), 2U + 2U * 3U) << "the strings are left to the end of the process";
    kv_request_commit();
    advance(5);
    EXPECT_EQ(news(), strings{}) << "every watcher is stopped";
    expect_no_log();
}

TEST_F(KvTest, ExitSaysThatChangesAreLost) {
    PROMISE("the last push fails",
            "\"[config] Fail to commit changes on exit.\", and the rest goes on, the reopen timer included");
    start_without_service();
    kvmem_set("k", "1");
    called.clear();
    kv_exit();
    EXPECT_EQ(logged::lines(), strings{"warning [config] Fail to commit changes on exit."});
    EXPECT_EQ(news(), strings{"set null mem:k=1"});
    advance(5);
    EXPECT_EQ(news(), strings{}) << "the reopen timer is stopped too";
}

// --- fetching ------------------------------------------------------------------------------------------------------

PROMISES("kv", "Keys of namespace \"mem\"");

TEST_F(KvTest, FetchWaitsForTheAnswer) {
    PROMISE("a key is fetched that is not stored, or is dirty",
            "the loop runs until the answer is stored; the fetch itself pushes nothing");
    start();
    answer = value_of("k", "fetched");
    kvmem_sync("k");
    EXPECT_EQ(news(), strings{"get 1 mem:k"}) << "and is not pushed";
    EXPECT_STREQ(kv_get_str("k"), "fetched");
    EXPECT_EQ(live_copies.size(), 1U);
    expect_no_log();
}

TEST_F(KvTest, AFetchLeavesNothingToPush) {
    PROMISE("a commit runs while a fetch waits", "nothing is pushed: no key counts as changed");
    start();
    before_answer = [] {
        kv_request_commit();
        turn();
    };
    answer = value_of("k", "fetched");
    kvmem_sync("k");
    EXPECT_EQ(news(), strings{"get 1 mem:k"}) << "nothing counts as changed";
}

TEST_F(KvTest, AFetchAsksForTheWholeKey) {
    PROMISE("a key longer than 31 characters is fetched", "the service is asked for the whole key");
    start();
    const std::string longer(40, 'y');
    answer = value_of(longer, "v");
    kvmem_sync(longer.c_str());
    EXPECT_EQ(news(), strings{"get 1 mem:" + longer});
}

TEST_F(KvTest, OnlyOneMeansThatThereIsAValue) {
    PROMISE("the answer's result is 0, 2 or negative, with bytes or without",
            "it has no value: \"%s: fail to get response from karveld\"");
    start();
    for (const int refusal : {0, 2, -1}) {
        logged::reset();
        answer.refusal = refusal;
        kvmem_sync(("k" + std::to_string(refusal)).c_str());
        EXPECT_EQ(logged::lines(), strings{"err on_kvmem_sync: fail to get response from karveld"}) << refusal;
    }
}

TEST_F(KvTest, FetchOfACleanKeyDoesNotWait) {
    PROMISE("a stored clean key is fetched", "it returns at once, and the answer replaces the value when it comes");
    start();
    kvmem_set("k", "old");
    answer = value_of("k", "new");
    kvmem_sync("k");
    EXPECT_STREQ(kv_get_str("k"), "old");
    turn();
    EXPECT_STREQ(kv_get_str("k"), "new");
    EXPECT_EQ(live_copies.size(), 1U);
}

TEST_F(KvTest, FetchOfADirtyKeyWaits) {
    PROMISE("a key is fetched that is not stored, or is dirty",
            "the loop runs until the answer is stored; the fetch itself pushes nothing");
    start();
    kvmem_set("k", "old");
    end_set(false);
    answer = value_of("k", "new");
    kvmem_sync("k");
    EXPECT_STREQ(kv_get_str("k"), "new");
}

TEST_F(KvTest, FetchOfNothing) {
    PROMISE("the answer has no value",
            "\"%s: fail to get response from karveld\", and the key has none, even if it had one");
    start();
    kvmem_sync("k");
    EXPECT_EQ(logged::lines(), strings{"err on_kvmem_sync: fail to get response from karveld"});
    EXPECT_EQ(kv_get_str("k"), nullptr);
    kvmem_set("k", "1");
    EXPECT_EQ(news(), (strings{"get 1 mem:k", "set 1 mem:k=1"}));
    kvmem_sync("k");
    turn();
    EXPECT_EQ(kv_get_str("k"), nullptr) << "the value goes";
    EXPECT_EQ(live_copies.size(), 0U);
}

TEST_F(KvTest, FetchedValueIsCopiedAsFarAsItGoes) {
    PROMISE("the answer's value has no NUL behind it, or cannot be copied",
            "its length counts; without memory for it the key has no value");
    start();
    answer = value_of("k", "up to here");
    answer.behind = " and no further";
    kvmem_sync("k");
    EXPECT_STREQ(kv_get_str("k"), "up to here");
    fails_at["strndup"] = 1;
    kvmem_sync("k");
    turn();
    EXPECT_EQ(kv_get_str("k"), nullptr) << "no memory for it";
    EXPECT_EQ(live_copies.size(), 0U);
    expect_no_log();
}

TEST_F(KvTest, OtherSetsRunWhileAFetchWaits) {
    PROMISE("other keys are set while a fetch waits", "they go out, and the waiting key with them, without a value");
    start();
    before_answer = [] { kvmem_set("other", "1"); };
    answer = value_of("k", "fetched");
    kvmem_sync("k");
    EXPECT_EQ(news(), (strings{"get 1 mem:k", "set 1 mem:k=(null)", "set 1 mem:other=1"}));
    EXPECT_STREQ(kv_get_str("k"), "fetched");
}

TEST_F(KvTest, FetchThatCannotStartAborts) {
    PROMISE("a fetch cannot start, or its entry cannot be made",
            "the process aborts, after \"libkarvel_get_value\" and the reason for the first");
    PROMISE("the table cannot take a fetched key", "the process ends with status -1");
    auto outcome = child::run([] {
        start();
        reads_accepted = false;
        kvmem_sync("k");
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;
    const std::string message = "libkarvel_get_value: " + std::string(strerror(ENOTCONN)) + "\n";
    EXPECT_EQ(outcome.error.substr(0, message.size()), message);

    outcome = child::run([] {
        start();
        fails_at["calloc"] = 1;
        kvmem_sync("k");
    });
    EXPECT_TRUE(outcome.killed_by(SIGABRT)) << outcome.status;

    outcome = child::run([] {
        start();
        fails_at["malloc"] = 1;
        kvmem_sync("k");
    });
    EXPECT_TRUE(outcome.exited_with(255)) << outcome.status;
    kv_init();
}

}  // namespace
