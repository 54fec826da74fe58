// A session of the bus that runs out of memory.
#include <cstdlib>
#include <ev.h>
#include <gtest/gtest.h>

#include "bus/bus.h"
#include "support/broker.h"
#include "support/promise.h"

namespace {

bool out_of_memory;

}  // namespace

extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
    return out_of_memory ? nullptr : __real_malloc(size);
}

namespace {

PROMISES("bus");

TEST(BusMemory, ALossIsToldWithoutMemoryForIt) {
    PROMISE("the connection is lost and there is no memory left", "the loss is reported all the same, once");
    Broker broker;
    int lost = 0;
    bus_options options{{}, false, nullptr};
    options.listener.context = &lost;
    options.listener.on_lost = [](bus_session*, int, void* context) { ++*static_cast<int*>(context); };
    bus_session* session = bus_open(ev_default_loop(0), &options);
    ASSERT_NE(session, nullptr);
    ASSERT_TRUE(run_until([=] { return bus_connected(session); }));
    out_of_memory = true;
    broker.kill();
    EXPECT_TRUE(run_until([&] { return lost != 0; }, 3'000));
    out_of_memory = false;
    run_for(50);
    EXPECT_EQ(lost, 1);
    bus_close(session);
}

}  // namespace
