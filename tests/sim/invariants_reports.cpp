// What must be true of alerts, the daily report, the write speed and the watchdog: each worked out a second time.
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "faults.h"
#include "invariants.h"
#include "rpc.h"
#include "sdcard.h"
#include "world.h"

namespace sim {
namespace {

constexpr int COOL_DOWN_S = 300;
constexpr int NOT_SLOW = -1;
constexpr int64_t DAY_NS = 86'400 * SECOND;
constexpr int64_t DAILY_SLACK_NS = 10 * SECOND;
constexpr int64_t INFO_SPREAD_NS =
    1800 * SECOND;  // so much earlier than a day after the last the daily report may come

struct cool_down {
    int32_t last_sent_s = 0;
    int suppressed = 0;
};
cool_down cool_downs[3];  // of the states, of slowness, of unmounting

std::string sent;            // the alert that was sent since one was asked for
int64_t daily_info_ns = -1;  // of the last daily report, or when the first one began to be waited for
int state_seen = SDCARD_UNKNOWN;
bool is_alert_asked;  // of a state that the card has just come into

// The write speed.
bool has_baseline;
uint64_t old_sectors;
uint64_t old_busy_ms;
int32_t slow_since_s = NOT_SLOW;
struct slow_alert {
    int32_t speed;
    int32_t elapse_s;
    uint32_t sectors;
};
std::optional<slow_alert> due_alert;

int64_t batch_began_ns = -1;
bool heard_watchdog;

// Has the daemon's function called, and judges what it sent. own: members between the type and the count.
template <typename function>
void judge(cool_down& slot, int type, const std::string& own, function call_it) {
    // A clock is set at the worst of times: such that the last alert is just not, or just, long enough ago.
    if (slot.last_sent_s != 0 && chance().percent(20)) {
        constexpr int32_t AGO_S[] = {COOL_DOWN_S - 1, COOL_DOWN_S, COOL_DOWN_S + 1, 0, -1};
        set_wall(slot.last_sent_s + AGO_S[chance().below(std::size(AGO_S))] - wall_s());
    }
    const auto now = static_cast<int32_t>(wall_s());
    const auto since = static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(slot.last_sent_s));
    const uint64_t failures_before = failures();
    sent.clear();
    call_it();
    if (since < COOL_DOWN_S) {
        ++slot.suppressed;
        if (!sent.empty()) {
            violation("alert of type %d %d s after the last", type, since);
        }
        return;
    }
    slot.last_sent_s = now;
    if (failures() != failures_before) {
        if (!sent.empty() && slot.suppressed > 0) {
            slot.suppressed = 0;
        }
        return;  // without memory it is not sent, or not whole
    }
    std::string expected = "{ \"type\": " + std::to_string(type) + own;
    if (slot.suppressed > 0) {
        expected += ", \"cool_down\": " + std::to_string(slot.suppressed);
    }
    slot.suppressed = 0;
    if (sent != expected + " }") {
        violation("alert %s instead of %s }", sent.c_str(), expected.c_str());
    }
}

}  // namespace

namespace {

// The card's details are told when its state has changed, and once a day.
void heard_info() {
    const int before = std::exchange(state_seen, sd.state);
    if (std::exchange(is_alert_asked, false) || before != sd.state) {
        return;
    }
    const int64_t since_ns = now_ns() - daily_info_ns;
    if (since_ns < DAY_NS - INFO_SPREAD_NS - DAILY_SLACK_NS) {
        violation("a daily report %lld s after the last", static_cast<long long>(since_ns / SECOND));
    }
    daily_info_ns = now_ns();
}

void check_daily_info() {
    if (daily_info_ns < 0) {
        daily_info_ns = now_ns();  // the loop's first turn
    }
    if (now_ns() - daily_info_ns > DAY_NS + DAILY_SLACK_NS &&
        failures_of(call::JSON_OBJECT) + failures_of(call::JSON_ARRAY) + failures_of(call::MALLOC) == 0) {
        violation("no daily report for more than a day");
    }
}

}  // namespace

void heard_report(const std::string& event_name, const std::string& json) {
    if (event_name == "sdcard.alert") {
        sent = json;
    } else if (event_name == "sdcard.info") {
        heard_info();
        if (failures() == 0 && json.rfind("{ \"state\": " + std::to_string(sd.state) + ",", 0) != 0) {
            violation("report %s in state %d", json.c_str(), sd.state);
        }
    } else {
        violation("report %s", event_name.c_str());
    }
}

void speed_forgotten() {
    has_baseline = false;
}

void speed_sampled(bool is_read) {
    const auto now = static_cast<int32_t>(wall_s());
    if (!is_read || !has_baseline || slot == nullptr) {
        if (is_read && slot != nullptr) {
            old_sectors = slot->sectors_written;
            old_busy_ms = slot->busy_ms;
            has_baseline = true;
        }
        slow_since_s = NOT_SLOW;
        return;
    }
    int32_t speed = 0;
    uint32_t sectors = 0;
    if (slot->sectors_written > old_sectors && slot->busy_ms > old_busy_ms) {
        sectors = static_cast<uint32_t>(slot->sectors_written - old_sectors);
        speed = sectors < 40 ? 0 : static_cast<int32_t>(sectors * uint64_t{512000} / (slot->busy_ms - old_busy_ms));
    }
    old_sectors = slot->sectors_written;
    old_busy_ms = slot->busy_ms;
    int32_t elapse_s = 0;
    if (speed >= 204800) {
        elapse_s = slow_since_s != NOT_SLOW ? now - slow_since_s : 0;
        slow_since_s = NOT_SLOW;
    } else if (slow_since_s != NOT_SLOW) {
        const int32_t minutes = (now - slow_since_s) / 60;
        elapse_s = minutes == 60 || minutes % 1440 == 0 ? now - slow_since_s : 0;
    } else if (speed > 0) {
        elapse_s = 60;
        slow_since_s = now - 60;
    }
    if (elapse_s != 0) {
        due_alert = slow_alert{speed, elapse_s, sectors};
    }
}

void heard_slow_loop(const std::string& text) {
    char expected[96];
    const auto seconds = now_ns() / SECOND - batch_began_ns / SECOND;
    const auto rest_ns = now_ns() % SECOND - batch_began_ns % SECOND;
    snprintf(expected, sizeof expected, "ev_run: loop takes too long time: %5.3lf s",
             static_cast<double>(seconds) + static_cast<double>(rest_ns) / 1e9);
    heard_watchdog = true;
    if (text != expected) {
        violation("the watchdog says %s instead of %s", text.c_str(), expected);
    }
}

void loop_woke() {
    batch_began_ns = now_ns();
    heard_watchdog = false;
}

void loop_sleeps() {
    if (due_alert) {
        violation("the card is slow for %d s and nobody says so", due_alert->elapse_s);
    }
    if (batch_began_ns < 0) {
        return;
    }
    // 32 bits, which wrap: a stall of more than two seconds may go unreported.
    const int64_t elapsed_ns = now_ns() - batch_began_ns;
    const bool is_long = static_cast<int32_t>(static_cast<uint32_t>(elapsed_ns)) >= 1'000'000'001;
    if (is_long != heard_watchdog) {
        violation("a turn of the loop took %lld ns and the watchdog said %s", static_cast<long long>(elapsed_ns),
                  heard_watchdog ? "so" : "nothing");
    }
    check_daily_info();
    state_seen = sd.state;
    is_alert_asked = false;
}

}  // namespace sim

using namespace sim;

// The daemon's own functions, seen from one module to the other.
void real_alert(rpc_alert type) asm("__real__Z14rpc_send_alert9rpc_alert");
void real_slow(int32_t speed, int32_t elapse_s, uint32_t sectors) asm("__real__Z19rpc_send_alert_slowiij");
void real_umount_fail(int32_t count,
                      const char (*names)[RPC_FUSER_NAME_SIZE]) asm("__real__Z26rpc_send_alert_umount_failiPA16_Kc");
void seen_alert(rpc_alert type) asm("__wrap__Z14rpc_send_alert9rpc_alert");
void seen_slow(int32_t speed, int32_t elapse_s, uint32_t sectors) asm("__wrap__Z19rpc_send_alert_slowiij");
void seen_umount_fail(int32_t count,
                      const char (*names)[RPC_FUSER_NAME_SIZE]) asm("__wrap__Z26rpc_send_alert_umount_failiPA16_Kc");

void seen_alert(rpc_alert type) {
    const sdcard_state state = type == RPC_ALERT_BROKEN ? SDCARD_BROKEN : SDCARD_NOT_EXISTS;
    if ((type != RPC_ALERT_BROKEN && type != RPC_ALERT_NOT_EXISTS) || sd.state != state) {
        violation("alert of type %d in state %d", type, sd.state);
    }
    is_alert_asked = true;
    judge(cool_downs[0], type, "", [type] { real_alert(type); });
}

void seen_slow(int32_t speed, int32_t elapse_s, uint32_t sectors) {
    if (!due_alert || due_alert->speed != speed || due_alert->elapse_s != elapse_s || due_alert->sectors != sectors) {
        violation("the card is said to be slow: %d %d %u, and should be %d %d %u", speed, elapse_s, sectors,
                  due_alert ? due_alert->speed : 0, due_alert ? due_alert->elapse_s : 0,
                  due_alert ? due_alert->sectors : 0);
    }
    due_alert.reset();
    judge(cool_downs[1], RPC_ALERT_SLOW,
          ", \"mean_speed\": " + std::to_string(speed) + ", \"elapse\": " + std::to_string(elapse_s) +
              ", \"active_sec\": " + std::to_string(sectors),
          [=] { real_slow(speed, elapse_s, sectors); });
}

void seen_umount_fail(int32_t count, const char (*names)[RPC_FUSER_NAME_SIZE]) {
    if (count < 1 || count > 5) {
        violation("%d processes are said to hold the card", count);
    }
    std::string list;
    for (int32_t i = 0; i < count; ++i) {
        if (strcmp(names[i], "recorder") != 0 && strcmp(names[i], "pid=701") != 0) {
            violation("%s is said to hold the card", names[i]);
        }
        list += (i > 0 ? ", \"" : " \"") + std::string(names[i]) + "\"";
    }
    judge(cool_downs[2], RPC_ALERT_UMOUNT_FAIL, ", \"fuser\": [" + list + " ]",
          [=] { real_umount_fail(count, names); });
}
