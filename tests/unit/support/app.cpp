#include "support/app.h"

#include <ev.h>
#include <unistd.h>

namespace {

std::string text(const void* bytes, size_t length) {
    return bytes == nullptr ? "" : std::string(static_cast<const char*>(bytes), length);
}

}  // namespace

void AppTest::TearDown() {
    stop_app();
    bus_close(other);
}

void AppTest::start_app(const remote_action* actions) {
    descriptor_.actions = actions;
    char name[] = "tester";
    char foreground[] = "--foreground";
    char* argv[] = {name, foreground, nullptr};
    ASSERT_EQ(app_init(&descriptor_, 2, argv), 0);
    running_ = true;
}

void AppTest::stop_app() {
    if (running_) {
        app_fini();
        running_ = false;
    }
}

void AppTest::watch(const std::string& filter) {
    // Without running the loop: nothing that the application does from now on is missed.
    const int64_t deadline_ms = test_now_ms() + 10'000;
    while (other == nullptr && test_now_ms() < deadline_ms) {
        bus_options options = {};
        options.listener.context = this;
        options.listener.on_message = [](bus_session*, const bus_message* message, void* context) {
            static_cast<AppTest*>(context)->seen.push_back({message->topic, text(message->payload, message->length),
                                                            text(message->correlation, message->correlation_length),
                                                            message->retained});
        };
        options.listener.on_answer = [](bus_session*, uint32_t, int reason, void*) { EXPECT_LT(reason, 0x80); };
        other = bus_open(ev_default_loop(0), &options);
        if (other == nullptr) {
            usleep(10'000);  // the bus holds new sessions off for a second after one that failed
        }
    }
    ASSERT_NE(other, nullptr);
    ASSERT_NE(bus_subscribe(other, filter.c_str(), 1, bus_retained::SEND), 0U);
    ASSERT_EQ(bus_flush(other, 10'000), 0);
}

void AppTest::watch_anew(const std::string& filter) {
    bus_close(other);
    other = nullptr;
    seen.clear();
    broker.start();
    watch(filter);
}

std::vector<Seen> AppTest::on(const std::string& topic) const {
    std::vector<Seen> result;
    for (const Seen& one : seen) {
        if (one.topic == topic) {
            result.push_back(one);
        }
    }
    return result;
}

bool AppTest::wait_for(const std::string& topic, size_t count, int limit_ms) {
    return run_until([&] { return on(topic).size() >= count; }, limit_ms);
}
