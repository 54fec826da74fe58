// An application on a broker of its own, and somebody else on the same broker who sees what it says.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "bus/bus.h"
#include "support/broker.h"
#include "support/capture.h"
#include "vesk_util.h"

struct Seen {
    std::string topic;
    std::string payload;
    std::string correlation;
    bool retained;
};

class AppTest : public testing::Test {
  protected:
    void TearDown() override;

    void start_app(const remote_action* actions);  // "tester", its log in log
    void stop_app();
    void watch(const std::string& filter);       // from now on; returns when the broker has confirmed
    void watch_anew(const std::string& filter);  // starts the broker that was killed, and forgets what was seen

    // What was seen on a topic, and waiting for that many of it.
    std::vector<Seen> on(const std::string& topic) const;
    bool wait_for(const std::string& topic, size_t count, int limit_ms = 10'000);

    Broker broker;
    Capture log;
    bus_session* other = nullptr;
    std::vector<Seen> seen;

  private:
    vesk_app_descriptor descriptor_ = {"tester", nullptr, {0, 0, 0, 0}};
    bool running_ = false;
};
