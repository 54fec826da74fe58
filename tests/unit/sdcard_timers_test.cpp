// The card manager's daily report and its watch over the card's write speed, with a clock of the test's own: minutes,
// days and years pass at once.
#include <algorithm>
#include <cerrno>
#include <string>

#include "rpc.h"
#include "support/card_rig.h"
#include "support/promise.h"

using rig::world;

namespace {

constexpr time_t NOON = 1'790'000'000;

class sdcard_timers : public rig::test {
  protected:
    void SetUp() override {
        rig::test::SetUp();
        kernel::on().now = NOON;
        start();
    }

    // One look at the card's speed.
    static void look(int speed, uint32_t written = 500) {
        world.speed = speed;
        world.written = written;
        ev_invoke(EV_DEFAULT, &sd.speed_timer, EV_TIMER);
    }

    // A minute later.
    static void minute(int speed) {
        kernel::on().now += 60;
        look(speed);
    }

    static strings alerts() {
        strings found;
        std::copy_if(world.steps.begin(), world.steps.end(), std::back_inserter(found),
                     [](const std::string& text) { return text.starts_with("rpc_send_alert_slow"); });
        world.steps.clear();
        return found;
    }
};

constexpr int SLOW = SDCARD_SLOW_BPS - 1;
constexpr int FAST = SDCARD_SLOW_BPS;

// Set a moment ago: not a second early or late.
bool report_is_due_in(double seconds) {
    const double left = rig::remaining_s(&sd.info_timer);
    return left <= seconds && left > seconds - 5;
}

// --- the daily report ------------------------------------------------------------------------------------------------

PROMISES("sdcard");

TEST_F(sdcard_timers, each_runs_from_the_start_on) {
    PROMISE("the daemon has run for a second, and for each minute after it", "the write speed is looked at");
    EXPECT_TRUE(ev_is_active(&sd.info_timer));
    EXPECT_TRUE(report_is_due_in(86400));
    EXPECT_TRUE(ev_is_active(&sd.speed_timer));
    // What was set, whatever time has gone by since: from the loop's time at the start on.
    ev_timer_stop(EV_DEFAULT, &sd.speed_timer);
    ev_now_update(EV_DEFAULT);
    sdcard_exit();
    sdcard_init();
    EXPECT_DOUBLE_EQ(1, ev_timer_remaining(EV_DEFAULT, &sd.speed_timer));
    EXPECT_DOUBLE_EQ(60, sd.speed_timer.repeat);
    EXPECT_EQ(0, sd.info_timer.repeat) << "drawn anew each time";
    EXPECT_EQ(0, ev_priority(&sd.info_timer));
    EXPECT_EQ(0, ev_priority(&sd.speed_timer));
}

TEST_F(sdcard_timers, the_first_report_is_drawn_too) {
    PROMISE("a day less up to 1800 s has gone by",
            "the card's details are sent, and the next time is drawn and armed before that");
    sdcard_exit();
    world.random = {1800};
    sdcard_init();
    EXPECT_TRUE(report_is_due_in(84600));
}

TEST_F(sdcard_timers, each_of_400_days_draws_its_own_time) {
    PROMISE("a day less up to 1800 s has gone by",
            "the card's details are sent, and the next time is drawn and armed before that");
    for (int day = 0; day < 400; ++day) {
        const int drawn = day * 37 % 1801;
        world.random = {drawn};
        world.steps.clear();
        ev_timer_stop(EV_DEFAULT, &sd.info_timer);  // as it has fired
        ev_invoke(EV_DEFAULT, &sd.info_timer, EV_TIMER);
        EXPECT_EQ((strings{"rand_range 0 1800", "rpc_send_sdcard_info"}), world.steps);
        ASSERT_TRUE(world.is_next_report_due);
        EXPECT_TRUE(report_is_due_in(86400 - drawn));
        ASSERT_EQ(0, sd.info_timer.repeat);
    }
}

// --- the write speed -------------------------------------------------------------------------------------------------

TEST_F(sdcard_timers, a_card_that_cannot_be_written_is_not_measured) {
    PROMISE("the card is absent, read-only or ejected when its speed is looked at",
            "nothing is measured and an open slow period stays open");
    sd.slow_since = 12345;
    for (auto state : {MMC_STATE_NONE, MMC_STATE_RDONLY, MMC_STATE_EJECTED}) {
        world.mmc.state = state;
        minute(SLOW);
    }
    EXPECT_EQ(strings{}, world.steps);
    EXPECT_EQ(strings{}, logged::lines());
    EXPECT_EQ(12345, sd.slow_since) << "an open period stays open";
}

TEST_F(sdcard_timers, a_measurement_that_is_none_closes_the_period) {
    PROMISE("there is no measurement to compare with", "the slow period ends, without a line or an alert");
    PROMISE("measuring fails",
            "\"Unable to calculate the write speed of sdcard. %s\", and the slow period ends without an alert");
    sd.slow_since = 12345;
    look(MMC_SPEED_NO_BASELINE);
    EXPECT_EQ(-1, sd.slow_since);
    EXPECT_EQ(strings{}, logged::lines());

    sd.slow_since = 12345;
    world.speed_errno = EFAULT;
    look(-1);
    EXPECT_EQ(-1, sd.slow_since);
    EXPECT_EQ(strings{"warning Unable to calculate the write speed of sdcard. Bad address"}, logged::lines());
    EXPECT_EQ(strings{}, alerts());

    // A card so fast that its bytes a second do not fit a signed number of 32 bits comes back negative.
    for (const int speed : {-2, -60, -62, -1000, INT32_MIN}) {
        sd.slow_since = 12345;
        logged::reset();
        look(speed);
        EXPECT_EQ(-1, sd.slow_since);
        EXPECT_EQ(strings{"warning Unable to calculate the write speed of sdcard. Bad address"}, logged::lines());
        EXPECT_EQ(strings{}, alerts());
    }
}

TEST_F(sdcard_timers, what_was_measured_is_logged) {
    PROMISE("a speed was measured", "\"sdcard write speed: %d KiB/s\", rounded down");
    struct {
        int speed;
        const char* line;
    } rows[] = {{0, "debug sdcard write speed: 0 KiB/s"},
                {1023, "debug sdcard write speed: 0 KiB/s"},
                {204799, "debug sdcard write speed: 199 KiB/s"},
                {204800, "debug sdcard write speed: 200 KiB/s"},
                {10 << 20, "debug sdcard write speed: 10240 KiB/s"}};
    for (const auto& row : rows) {
        logged::reset();
        look(row.speed);
        EXPECT_EQ(strings{row.line}, logged::lines());
    }
}

TEST_F(sdcard_timers, fast_and_idle_cards_are_not_spoken_of) {
    PROMISE("a card is fast, or idle and was never slow", "no period, no alert");
    for (int speed : {0, FAST, 0, 1 << 24, 0}) {
        minute(speed);
        EXPECT_EQ(-1, sd.slow_since);
    }
    EXPECT_EQ(strings{}, alerts());
}

TEST_F(sdcard_timers, slowness_is_reported_at_first_after_an_hour_each_day_and_at_its_end) {
    PROMISE("less than 204800 bytes a second for the first time",
            "an alert of 60 s, and the period is open since a minute ago");
    PROMISE("the card stays slow",
            "an alert in minute 60 and in each 1440th, with the true seconds, and none in between");
    PROMISE("the slow card is fast again", "an alert with the total, and the period ends");
    look(SLOW, 40);
    EXPECT_EQ(strings{"rpc_send_alert_slow 204799 60 40"}, alerts());
    EXPECT_EQ(NOON - 60, sd.slow_since);
    for (int minutes = 2; minutes <= 59; ++minutes) {
        minute(minutes % 3 == 0 ? 0 : SLOW);  // idle goes on with it
        EXPECT_EQ(strings{}, alerts()) << minutes;
    }
    minute(SLOW);
    EXPECT_EQ(strings{"rpc_send_alert_slow 204799 3600 500"}, alerts());
    for (int minutes = 61; minutes < 3 * 1440; ++minutes) {
        minute(SLOW);
        if (minutes % 1440 == 0) {
            EXPECT_EQ(strings{"rpc_send_alert_slow 204799 " + std::to_string(minutes * 60) + " 500"}, alerts());
        } else {
            EXPECT_EQ(strings{}, alerts()) << minutes;
        }
    }
    minute(FAST);
    EXPECT_EQ(strings{"rpc_send_alert_slow 204800 259200 500"}, alerts());
    EXPECT_EQ(-1, sd.slow_since);
    minute(FAST);
    EXPECT_EQ(strings{}, alerts());
}

TEST_F(sdcard_timers, an_idle_card_keeps_a_period_open_and_reports_it) {
    PROMISE("the slow card writes nothing for a while", "the period goes on, its alerts too");
    look(SLOW);
    (void)alerts();
    kernel::on().now = NOON - 60 + 3600;
    look(0, 39);
    EXPECT_EQ(strings{"rpc_send_alert_slow 0 3600 39"}, alerts());
    EXPECT_EQ(NOON - 60, sd.slow_since);

    // Idle to the last sector: nothing was told of, and so it is 0.
    kernel::on().now = NOON - 60 + 86400;
    world.is_written = false;
    look(0);
    EXPECT_EQ(strings{"rpc_send_alert_slow 0 86400 0"}, alerts());
}

TEST_F(sdcard_timers, seconds_within_the_minute_do_not_matter) {
    PROMISE("the card stays slow",
            "an alert in minute 60 and in each 1440th, with the true seconds, and none in between");
    struct {
        int elapsed;
        bool reports;
    } rows[] = {{3599, false},  {3600, true},  {3659, true},  {3660, false},
                {86399, false}, {86400, true}, {86459, true}, {86460, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.elapsed);
        sd.slow_since = static_cast<int32_t>(NOON);
        kernel::on().now = NOON + row.elapsed;
        world.steps.clear();
        look(SLOW);
        EXPECT_EQ(row.reports ? 1U : 0U, alerts().size());
    }
}

TEST_F(sdcard_timers, a_clock_that_was_set_back_makes_minute_zero_count_as_a_day) {
    PROMISE("the clock was set back while the card is slow",
            "minute 0 counts as a whole day and is reported; no seconds at all are not");
    sd.slow_since = static_cast<int32_t>(NOON);
    for (int elapsed : {59, 1, -1, -59, -86400}) {
        kernel::on().now = NOON + elapsed;
        look(SLOW);
        EXPECT_EQ(strings{"rpc_send_alert_slow 204799 " + std::to_string(elapsed) + " 500"}, alerts());
    }
    kernel::on().now = NOON;  // no time at all is nothing to report
    look(SLOW);
    EXPECT_EQ(strings{}, alerts());
    kernel::on().now = NOON - 60;
    look(SLOW);
    EXPECT_EQ(strings{}, alerts());
}

TEST_F(sdcard_timers, a_period_that_begins_at_59_s_after_1970_is_none) {
    PROMISE("a period would begin one second before 1970",
            "that number means none, and it begins again a minute later");
    kernel::on().now = 59;
    look(SLOW);
    EXPECT_EQ(-1, sd.slow_since) << "the same number as no period";
    EXPECT_EQ(strings{"rpc_send_alert_slow 204799 60 500"}, alerts());
    minute(SLOW);
    EXPECT_EQ(strings{"rpc_send_alert_slow 204799 60 500"}, alerts()) << "so that it begins again";
    EXPECT_EQ(59, sd.slow_since);
}

TEST_F(sdcard_timers, other_periods_that_begin_before_1970_are_periods) {
    PROMISE("a period would begin one second before 1970",
            "that number means none, and it begins again a minute later");
    kernel::on().now = 30;
    look(SLOW);
    EXPECT_EQ(-30, sd.slow_since);
    (void)alerts();
    minute(SLOW);
    EXPECT_EQ(strings{}, alerts());
    minute(FAST);
    EXPECT_EQ(strings{"rpc_send_alert_slow 204800 180 500"}, alerts());
}

TEST_F(sdcard_timers, times_wrap_at_32_bits) {
    PROMISE("the clock passes 32 bits", "the seconds since are still right");
    kernel::on().now = INT32_MAX;
    look(SLOW);
    (void)alerts();
    kernel::on().now = static_cast<time_t>(INT32_MIN) + 3539;  // an hour after the period's begin
    look(SLOW);
    EXPECT_EQ(strings{"rpc_send_alert_slow 204799 3600 500"}, alerts());
}

TEST_F(sdcard_timers, a_slow_card_that_is_fast_at_the_next_look_is_reported_as_over) {
    PROMISE("the slow card is fast again", "an alert with the total, and the period ends");
    look(SLOW);
    minute(FAST);
    EXPECT_EQ((strings{"rpc_send_alert_slow 204799 60 500", "rpc_send_alert_slow 204800 120 500"}), alerts());
}

}  // namespace
