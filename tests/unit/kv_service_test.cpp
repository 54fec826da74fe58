// The store with the real client library and a real broker, which is killed, frozen and made to forget.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ev.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>
#include <utility>

#include "bus/bus.h"
#include "karvel.h"
#include "kv.h"
#include "support/broker.h"
#include "support/promise.h"

namespace {

// --- the clock: real, or as many steps as the test has made, each of which waits for the broker to have looked at its
// connections. So a machine with much else to do takes no time away. Calls that wait see at most 50 ms pass.

constexpr int64_t STEP_MS = 10;

constexpr int64_t REAL_MS_MAX = 50;

bool counts_steps;
int64_t steps_ms;       // when the step began
int64_t step_began_ms;  // on the real clock

int64_t real_ms() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

int64_t ahead_ms;  // of the real clock, once the steps have ended: a loop's clock does not go back

int64_t step_clock_ms() {
    return steps_ms + std::min(real_ms() - step_began_ms, REAL_MS_MAX);
}

void begin_step(int64_t at_ms) {
    steps_ms = at_ms;
    step_began_ms = real_ms();
}

// --- what the store asks of the library -----------------------------------------------------------------------------

enum class fate { WAITING, TAKEN, FAILED, REFUSED, CUT_OFF };  // REFUSED: by the call; CUT_OFF: by a close

struct asked {
    int64_t serial;
    fate what;
    std::string value;
};

struct watched_set {
    std::string key;
    int64_t serial;
    karvel_callback on_ok;
    karvel_callback on_fail;
    void* context;
};

std::map<std::string, asked> last_set;  // by key
std::set<watched_set*> outstanding;
int64_t serials;

void end_set(karvel_response* response, void* context, bool ok) {
    auto* set = static_cast<watched_set*>(context);
    asked& last = last_set.at(set->key);
    if (last.serial == set->serial) {
        last.what = ok ? fate::TAKEN : fate::FAILED;
    }
    outstanding.erase(set);
    (ok ? set->on_ok : set->on_fail)(response, set->context);
    delete set;
}

void on_ok(karvel_response* response, void* context) {
    end_set(response, context, true);
}

void on_fail(karvel_response* response, void* context) {
    end_set(response, context, false);
}

}  // namespace

extern "C" {

// Read by the leak sanitizer where there is one: kv_exit leaves its strings to the end of the process.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
const char* __lsan_default_suppressions() {
    return "leak:kv_set_str\nleak:kv_register\nleak:on_kvmem_sync\n";
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's names are reserved ones
int clock_gettime(clockid_t clock, timespec* out) {
    if (clock != CLOCK_MONOTONIC) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, out));
    }
    const int64_t now_ms = counts_steps ? step_clock_ms() : real_ms() + ahead_ms;
    out->tv_sec = static_cast<time_t>(now_ms / 1000);
    out->tv_nsec = static_cast<long>(now_ms % 1000 * 1'000'000);
    return 0;
}

bool __real_libkarvel_set_value(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                                int keep, const char* value, karvel_callback on_ok, karvel_callback on_fail,
                                int timeout_s, void* context);
void __real_libkarvel_close(karvel_handle* handle);

bool __wrap_libkarvel_set_value(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                                int keep, const char* value, karvel_callback ok, karvel_callback fail, int timeout_s,
                                void* context) {
    auto* set = new watched_set{key, ++serials, ok, fail, context};
    const bool taken =
        __real_libkarvel_set_value(handle, name_space, group, key, keep, value, on_ok, on_fail, timeout_s, set);
    last_set[key] = {set->serial, taken ? fate::WAITING : fate::REFUSED, value != nullptr ? value : ""};
    if (taken) {
        outstanding.insert(set);
    } else {
        delete set;
    }
    return taken;
}

// From here on neither callback runs for what is outstanding.
void __wrap_libkarvel_close(karvel_handle* handle) {
    __real_libkarvel_close(handle);
    for (watched_set* set : std::exchange(outstanding, {})) {
        asked& last = last_set.at(set->key);
        if (last.serial == set->serial) {
            last.what = fate::CUT_OFF;
        }
        delete set;
    }
}

}  // extern "C"

namespace {

// --- what the service has, as another program sees it ---------------------------------------------------------------

struct Witness {
    std::map<std::string, std::string> values;  // by key
    bus_session* session = nullptr;

    void open() {
        bus_options options{{}, true, nullptr};
        options.listener.context = this;
        options.listener.on_connected = [](bus_session* session, void* context) {
            static_cast<Witness*>(context)->values.clear();
            EXPECT_NE(bus_subscribe(session, "karvel/mem/default/+", 1, bus_retained::SEND), 0U);
        };
        options.listener.on_message = [](bus_session*, const bus_message* message, void* context) {
            static_cast<Witness*>(context)->values[message->topic + strlen("karvel/mem/default/")] =
                std::string(static_cast<const char*>(message->payload), message->length);
        };
        session = bus_open(ev_default_loop(0), &options);
        ASSERT_NE(session, nullptr);
    }
    ~Witness() { bus_close(session); }
};

// A connection that only asks the broker whether it is there: when it answers it has looked at every other connection.
class Turn {
  public:
    void await(const std::string& path) {
        if (fd_ < 0) {
            constexpr unsigned char HELLO[] = {0x10, 12, 0, 4, 'M', 'Q', 'T', 'T', 4, 2, 0, 0, 0, 0};
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
            const timeval limit{10, 0};
            fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            ASSERT_EQ(setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
            ASSERT_EQ(connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
            exchange(HELLO, sizeof(HELLO), 4);
        }
        constexpr unsigned char PING[] = {0xc0, 0};
        exchange(PING, sizeof(PING), 2);
    }
    void leave() {
        if (fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~Turn() { leave(); }

  private:
    void exchange(const unsigned char* packet, size_t size, size_t answer) const {
        unsigned char bytes[4];
        ASSERT_EQ(send(fd_, packet, size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
        ssize_t got = 0;
        do {
            got = recv(fd_, bytes, answer, MSG_WAITALL);
        } while (got < 0 && errno == EINTR);  // the broker that goes on is a child's signal
        ASSERT_EQ(got, static_cast<ssize_t>(answer));
    }
    int fd_ = -1;
};

constexpr const char* STATUS = "sdcard_status";
constexpr const char* RW = "sdcard_rw";
constexpr const char* ANSWER = "spec_sdcard_format";  // also registered for, as in the daemon
constexpr const char* KEYS[] = {STATUS, RW, ANSWER};

class KvService : public testing::Test {
  protected:
    void SetUp() override {
        last_set.clear();
        EXPECT_EQ(kv_init(), 0);
        EXPECT_EQ(kv_register(
                      "mem", "default", ANSWER, [](void*, const char*, size_t) {}, nullptr),
                  0);
    }
    void TearDown() override {
        kv_exit();
        if (counts_steps) {
            ahead_ms = step_clock_ms() - real_ms();
            counts_steps = false;
        }
    }

    Broker broker;
    Witness witness;
};

// --- a life with a broker that is killed, frozen and restarted ------------------------------------------------------

constexpr int ROUNDS = 200;
constexpr int64_t HEALED_MS = 3'000;  // from when the broker is back, or from the last set if that is later
constexpr int64_t STAYS_MS = 300;
constexpr int WHOLE_EVERY = 10;  // rounds: in these the whole time is waited out, for what might come late

class KvLife : public KvService {
  protected:
    void step() {
        if (broker_runs) {
            turn.await(broker.folder() + "/sock");
        }
        ev_run(ev_default_loop(0), EVRUN_NOWAIT);
        begin_step(std::max(steps_ms + STEP_MS, step_clock_ms()));
    }
    void run_steps(int64_t time_ms) {
        for (const int64_t end_ms = steps_ms + time_ms; steps_ms < end_ms;) {
            step();
        }
    }

    int64_t below(int64_t limit) { return std::uniform_int_distribution<int64_t>(0, limit - 1)(random); }

    void change(const char* key) {
        char value[16];
        snprintf(value, sizeof value, "v%07d", ++values);
        kvmem_set(key, value);
        unsaved.erase(key);
    }
    void change_some() {
        for (int64_t i = below(4); i > 0; --i) {
            change(KEYS[below(3)]);
            if (below(2) == 0) {
                run_steps(below(40) * STEP_MS);
            }
        }
    }

    // The broker acknowledges first and saves second: what it has not saved yet, nobody but the next set can bring back
    // where the service has an older value.
    void note_unsaved() {
        for (const auto& [key, last] : last_set) {
            if (last.what == fate::TAKEN && !broker.has_saved(last.value)) {
                unsaved.insert(key);
            }
        }
    }
    void freeze() {
        broker.freeze();
        broker_runs = false;
    }
    void go_on() {
        broker.go_on();
        broker_runs = true;
    }
    void kill() {
        if (broker_runs) {
            freeze();
        }
        note_unsaved();
        broker.kill();
        turn.leave();
    }
    void start() {
        broker.start();
        broker_runs = true;
    }
    void forget() {
        broker.forget();
        turn.leave();
        unsaved = {ANSWER};  // of a registered key nothing is restored
    }

    void do_something() {
        switch (below(6)) {
            case 0:  // gone for a while
                kill();
                change_some();
                run_steps(below(2'500));
                change_some();
                start();
                break;
            case 1:  // gone and back while the loop stands still, so that the next set meets a dead connection
                kill();
                start();
                change(KEYS[below(3)]);
                break;
            case 2:  // frozen, at times for so long that sets run out of time
                freeze();
                change_some();
                run_steps(below(below(3) == 0 ? 6'000 : 2'000));
                change_some();
                go_on();
                break;
            case 3:  // back, and frozen before it has accepted anybody
                kill();
                start();
                freeze();
                change(KEYS[below(3)]);
                run_steps(below(2'900));
                change_some();
                go_on();
                break;
            case 4:  // frozen, and killed with what it has not read
                freeze();
                change_some();
                run_steps(below(1'500));
                kill();
                run_steps(below(500));
                start();
                break;
            default:  // back without its memory
                change_some();
                run_steps(below(2) * 500);
                forget();
                run_steps(below(1'500));
                break;
        }
    }

    // Whether the service has what the store has, in every key where that is promised. `all`: after one more set, also
    // where the last set had failed.
    bool holds(bool all) {
        for (const char* key : KEYS) {
            const char* own = kv_get_str(key);
            if (own == nullptr) {
                continue;
            }
            const fate what = last_set.at(key).what;
            const bool excepted = unsaved.count(key) != 0 || (what == fate::CUT_OFF && strcmp(key, ANSWER) == 0);
            if (what == fate::FAILED && !all) {
                continue;
            }
            if (!excepted && witness.values[key] != own) {
                missing = std::string(key) + " is " + witness.values[key] + " in the service and " + own + " here";
                return false;
            }
        }
        return true;
    }
    bool comes_to_hold(bool all, bool whole) {
        int64_t since_ms = -1;
        for (const int64_t end_ms = steps_ms + HEALED_MS; steps_ms < end_ms;) {
            step();
            if (!holds(all)) {
                since_ms = -1;
            } else if (since_ms < 0) {
                since_ms = steps_ms;
            }
            if (!whole && since_ms >= 0 && steps_ms - since_ms >= STAYS_MS) {
                return true;
            }
        }
        return since_ms >= 0;
    }

    Turn turn;
    bool broker_runs = true;
    // Another life: --gtest_shuffle --gtest_random_seed=N.
    std::mt19937 random{20'261'121U + static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed())};
    int values = 0;
    std::set<std::string> unsaved;  // keys whose value the service may have lost, until they are set again
    std::string missing;
};

TEST_F(KvLife, WhatIsSetArrivesWhateverBecomesOfTheBroker) {
    PROMISES("kv", "The link");
    PROMISE("the broker is killed, frozen or loses its values, in any order and while keys are set",
            "within 3 s of its return the service has the last value of every key whose set has not failed, unless the "
            "broker lost it unsaved");
    PROMISE("a set has failed", "one more set of any key brings its value too");
    begin_step(real_ms());  // the loop has looked at the real clock already
    counts_steps = true;
    witness.open();
    for (const char* key : KEYS) {
        change(key);
    }
    ASSERT_TRUE(comes_to_hold(false, false)) << missing;
    int judged = 0;
    int excepted = 0;
    int failed = 0;
    for (int round = 0; round < ROUNDS; ++round) {
        SCOPED_TRACE(round);
        do_something();
        if (below(2) == 0) {
            change_some();
        }
        ASSERT_TRUE(comes_to_hold(false, round % WHOLE_EVERY == 0)) << missing;
        for (const auto& [key, last] : last_set) {
            ++judged;
            excepted += unsaved.count(key) != 0 || last.what == fate::CUT_OFF ? 1 : 0;
            failed += last.what == fate::FAILED ? 1 : 0;
        }
        change(KEYS[below(2)]);
        ASSERT_TRUE(comes_to_hold(true, false)) << missing << ", after one more set";
    }
    printf("%d keys were judged; %d of them may have been lost, %d had failed\n", judged, excepted, failed);
    EXPECT_LT(excepted, judged / 4);
    EXPECT_GT(failed, 0);
}

// --- fetching -------------------------------------------------------------------------------------------------------

// The broker was restarted while the loop stood still, as it does while a card is mounted. No other key is set: nothing
// else would have this one pushed.
TEST_F(KvService, AKeyWhoseWriteMeetsADeadConnectionIsPublished) {
    PROMISES("kv", "The link");
    PROMISE("the broker was restarted while the loop stood still, and a key is set",
            "the set is refused, and the reopening sends it although no other key is set");
    kvmem_set(STATUS, "0");
    ASSERT_TRUE(run_until([] { return last_set.at(STATUS).what == fate::TAKEN; }));
    run_for(1'100);  // a session that ends in its first second holds the next one off
    broker.kill();
    broker.start();
    kvmem_set(STATUS, "1");
    EXPECT_EQ(last_set.at(STATUS).what, fate::REFUSED);
    witness.open();
    EXPECT_TRUE(run_until([this] { return witness.values[STATUS] == "1"; }, 3'000)) << witness.values[STATUS];
}

// A request that is answered within the second of the one before has the same answer, which the store takes for
// unchanged: the request stays in the service.
TEST_F(KvService, AnAnswerOfTheSameSecondIsNotSent) {
    PROMISES("kv", "Setting");
    PROMISE("two requests are answered within one second, and so with the same value",
            "both run, but the second answer counts as unchanged: the request stays in the service until a later "
            "answer replaces it");
    static int requests;
    static const char* answer;
    requests = 0;
    const auto handler = [](void*, const char* value, size_t length) {
        if (value != nullptr && std::string(value, length) == "start") {
            ++requests;
            kvmem_set("spec_sdcard_unmount", answer);
        }
    };
    ASSERT_EQ(kv_register("mem", "default", "spec_sdcard_unmount", handler, nullptr), 0);
    witness.open();
    ASSERT_TRUE(run_until([this] { return bus_connected(witness.session); }));
    run_for(100);
    const auto value = [this]() -> std::string { return witness.values["spec_sdcard_unmount"]; };
    const auto ask = [this] {
        const bus_message start{"karvel/mem/default/spec_sdcard_unmount", "start", 5, true, nullptr, nullptr, 0};
        EXPECT_NE(bus_publish(witness.session, &start, 1), 0U);
    };
    answer = "end1000";
    ask();
    ASSERT_TRUE(run_until([&] { return value() == "end1000"; }));
    ask();
    ASSERT_TRUE(run_until([&] { return requests == 2 && value() == "start"; })) << "it runs all the same";
    run_for(100);
    EXPECT_EQ(value(), "start");
    answer = "end1001";
    ask();
    EXPECT_TRUE(run_until([&] { return value() == "end1001"; }));
}

// A frozen service lets a fetch wait, and another key is set meanwhile: that pushes the waiting entry, which has no
// value yet.
TEST_F(KvService, AFetchEndsWhenAnotherKeyIsSetMeanwhile) {
    PROMISES("kv", "Keys of namespace \"mem\"");
    PROMISE("the service is frozen while a fetch waits, and another key is set",
            "the fetch ends after the thaw, the other key arrives, and the fetched one is not set to anything");
    kvmem_set(STATUS, "0");
    ASSERT_TRUE(run_until([] { return last_set.at(STATUS).what == fate::TAKEN; }));
    witness.open();
    ASSERT_TRUE(run_until([this] { return witness.values[STATUS] == "0"; }));
    broker.freeze();
    struct ev_loop* loop = ev_default_loop(0);
    ev_timer sets;
    ev_timer_init(
        &sets, [](struct ev_loop*, ev_timer*, int) { kvmem_set(STATUS, "1"); }, 0.2, 0.);
    ev_timer thaws;
    ev_timer_init(
        &thaws, [](struct ev_loop*, ev_timer* timer, int) { static_cast<Broker*>(timer->data)->go_on(); }, 1.5, 0.);
    thaws.data = &broker;
    ev_timer_start(loop, &sets);
    ev_timer_start(loop, &thaws);
    alarm(20);  // a fetch that hangs ends the test
    kvmem_sync("fetched");
    alarm(0);
    EXPECT_TRUE(run_until([this] { return witness.values[STATUS] == "1"; }));
    EXPECT_EQ(witness.values.count("fetched"), 0U) << "a key without a value is not set to anything";
    EXPECT_EQ(last_set.at("fetched").what, fate::TAKEN) << "its success is told like any other";
    ev_timer_stop(loop, &thaws);
}

}  // namespace
