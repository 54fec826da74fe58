// Sessions of the bus against a real broker.
#include "bus/bus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ev.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "bus/address.h"
#include "support/broker.h"
#include "support/promise.h"

namespace {

struct Client {
    bus_session* session = nullptr;
    std::vector<std::string> told;
    bool close_inside = false;
    bool nest = false;  // run the loop inside the next callback

    void note(const std::string& what) {
        told.push_back(what);
        if (nest) {
            nest = false;
            const size_t before = told.size();
            EXPECT_TRUE(run_until([&] { return told.size() > before; }));
        }
        if (close_inside) {
            bus_close(std::exchange(session, nullptr));
        }
    }
    bool open(bool reconnect = false, const bus_message* will = nullptr) {
        const bus_options options{listener(), reconnect, will};
        session = bus_open(ev_default_loop(0), &options);
        return session != nullptr;
    }
    bus_listener listener() {
        bus_listener result{};
        result.on_connected = [](bus_session*, void* context) { static_cast<Client*>(context)->note("connected"); };
        result.on_lost = [](bus_session*, int error, void* context) {
            static_cast<Client*>(context)->note("lost " + std::to_string(error));
        };
        result.on_message = [](bus_session*, const bus_message* message, void* context) {
            std::string line = std::string(message->retained ? "kept " : "new ") + message->topic + " ";
            line += message->payload == nullptr
                        ? "null " + std::to_string(message->length)
                        : std::string(static_cast<const char*>(message->payload), message->length);
            if (message->response_topic != nullptr) {
                line += std::string(" to ") + message->response_topic;
            }
            if (message->correlation != nullptr) {
                line +=
                    " re " + std::string(static_cast<const char*>(message->correlation), message->correlation_length);
            }
            static_cast<Client*>(context)->note(line);
        };
        result.on_answer = [](bus_session*, uint32_t request, int reason, void* context) {
            static_cast<Client*>(context)->note("answer " + std::to_string(request) +
                                                (reason < 0x80 ? "" : " refused"));
        };
        result.context = this;
        return result;
    }
    uint32_t publish(const char* topic, const std::string& text, bool retained = false, int quality = 1) const {
        const bus_message message{topic, text.empty() ? nullptr : text.data(), text.size(), retained, nullptr, nullptr,
                                  0};
        return bus_publish(session, &message, quality);
    }
    bool has(const std::string& what) const { return std::find(told.begin(), told.end(), what) != told.end(); }
    bool hears(const std::string& what, int limit_ms = 5'000) const {
        return run_until([&] { return has(what); }, limit_ms);
    }
    bool is_answered(uint32_t request, const char* result = "") const {
        return request != 0 && hears("answer " + std::to_string(request) + result);
    }
    ~Client() { bus_close(session); }
};

class Bus : public testing::Test {
  protected:
    // An earlier test's failed attempt must not hold off this one's first.
    static bool open(Client* client) {
        return run_until([=] { return client->open(); }, 3'000);
    }
    Broker broker;
};

PROMISES("bus");

TEST(BusAddress, OnlyWholeAddressesAreTaken) {
    PROMISE(
        "an address is not whole: no scheme, no or a wrong port, a name to look up, IPv6 without brackets, a path that "
        "is too long",
        "-1 with EINVAL, the output untouched");
    struct {
        const char* text;
        const char* host;  // null: refused
        int port;
    } rows[] = {
        {"unix:/run/karveld/karveld.sock", "/run/karveld/karveld.sock", 0},
        {"tcp:127.0.0.1:1883", "127.0.0.1", 1883},
        {"tcp:localhost:1", "127.0.0.1", 1},
        {"tcp:[::1]:65535", "::1", 65535},
        {"tcp:::1:1883", nullptr, 0},
        {"tcp:broker.example:1883", nullptr, 0},
        {"tcp:127.0.0.1", nullptr, 0},
        {"tcp:127.0.0.1:", nullptr, 0},
        {"tcp:127.0.0.1:0", nullptr, 0},
        {"tcp:127.0.0.1:65536", nullptr, 0},
        {"tcp:127.0.0.1:1x", nullptr, 0},
        {"tcp::1883", nullptr, 0},
        {"unix:", nullptr, 0},
        {"/run/karveld.sock", nullptr, 0},
        {"", nullptr, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        bus_place place{"untouched", 7};
        errno = 0;
        EXPECT_EQ(address_parse(row.text, &place), row.host == nullptr ? -1 : 0);
        EXPECT_EQ(errno, row.host == nullptr ? EINVAL : 0);
        EXPECT_STREQ(place.host, row.host == nullptr ? "untouched" : row.host);
        EXPECT_EQ(place.port, row.host == nullptr ? 7 : row.port);
    }
    bus_place place{};
    EXPECT_EQ(address_parse(("unix:/" + std::string(107, 'x')).c_str(), &place), -1);
    EXPECT_EQ(address_parse(("unix:/" + std::string(106, 'x')).c_str(), &place), 0);
}

TEST_F(Bus, TheEnvironmentNamesTheBroker) {
    PROMISE("no address was kept", "the environment's counts, also when it makes no sense; without one the default");
    EXPECT_EQ(bus_address(), broker.address());
    setenv("VESK_BUS", "nonsense", 1);
    Client client;
    EXPECT_FALSE(client.open());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(client.open(true));
    unsetenv("VESK_BUS");
    EXPECT_STREQ(bus_address(), "unix:/run/karveld/karveld.sock");
}

TEST_F(Bus, MessagesCarryEverything) {
    PROMISE("a message is published", "topic, bytes, response topic and correlation data arrive as they were");
    Client client;
    ASSERT_TRUE(open(&client));
    EXPECT_FALSE(bus_connected(client.session));
    ASSERT_TRUE(client.is_answered(bus_subscribe(client.session, "t/+", 1, bus_retained::SEND)));
    EXPECT_TRUE(bus_connected(client.session));
    EXPECT_EQ(client.told[0], "connected");
    const bus_message message{"t/a", "text", 4, false, "answer/here", "c\0d", 3};
    ASSERT_TRUE(client.is_answered(bus_publish(client.session, &message, 1)));
    EXPECT_TRUE(client.hears(std::string("new t/a text to answer/here re c\0d", 34)));
    ASSERT_TRUE(client.is_answered(client.publish("t/b", "", false, 0)));
    EXPECT_TRUE(client.hears("new t/b null 0"));
    ASSERT_TRUE(client.is_answered(bus_unsubscribe(client.session, "t/+")));
    ASSERT_TRUE(client.is_answered(client.publish("t/a", "unheard")));
    EXPECT_FALSE(client.has("new t/a unheard"));
}

TEST_F(Bus, ARequestThatMeetsADeadConnectionIsRefused) {
    PROMISE("the broker is gone and the loop has not noticed yet",
            "the next request is refused with ENOTCONN, and the loss is reported on the loop");
    Client client;
    ASSERT_TRUE(open(&client));
    ASSERT_TRUE(client.hears("connected"));
    broker.kill();
    errno = 0;
    EXPECT_EQ(client.publish("t", "x"), 0U);  // the loop has not run: the write finds out
    EXPECT_EQ(errno, ENOTCONN);
    ASSERT_TRUE(run_until([&] { return client.told.size() == 2; }));
    EXPECT_EQ(client.told[1].substr(0, 4), "lost");
}

// The probe takes the last place in the queue of a broker that is frozen, so the connect after it finds none.
TEST_F(Bus, AQueueWithOnePlaceLeftBlocksNothing) {
    PROMISE("the broker is frozen, with one place left in its queue of connections", "the open fails at once");
    broker.freeze();
    const std::string path = broker.folder() + "/sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    std::vector<int> places;
    const auto take = [&] {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        places.push_back(fd);
        return connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    };
    int room = 0;
    while (take()) {
        ++room;
    }
    broker.kill();
    broker.start();
    broker.freeze();
    for (int i = 0; i < room - 1; ++i) {
        ASSERT_TRUE(take());
    }
    run_for(1'000);  // past the hold-off of whichever test was before
    alarm(20);
    const int64_t began_ms = test_now_ms();
    Client client;
    EXPECT_FALSE(client.open());
    EXPECT_LT(test_now_ms() - began_ms, BLOCKED_MS);
    alarm(0);
    EXPECT_FALSE(take()) << "there was more than one place";
    for (const int fd : places) {
        close(fd);
    }
}

TEST_F(Bus, KeptMessagesComeOnlyWhenAskedFor) {
    PROMISE("a subscription is made", "what the broker has kept comes only if it was asked for");
    Client client;
    ASSERT_TRUE(open(&client));
    ASSERT_TRUE(client.is_answered(client.publish("t", "k", true)));
    ASSERT_TRUE(client.is_answered(bus_subscribe(client.session, "t", 1, bus_retained::NEVER)));
    ASSERT_TRUE(client.is_answered(client.publish("t", "fence")));
    ASSERT_TRUE(client.hears("new t fence"));
    EXPECT_FALSE(client.has("kept t k"));
    ASSERT_TRUE(client.is_answered(bus_subscribe(client.session, "t", 1, bus_retained::SEND)));
    EXPECT_TRUE(client.hears("kept t k"));
}

TEST_F(Bus, WhatCannotBeAskedIsRefusedAtOnce) {
    PROMISE("a topic or filter cannot be, or a payload exceeds a mebibyte",
            "the request is refused at once with EINVAL");
    PROMISE("1024 requests wait for their answers", "the next is refused with ENOBUFS");
    Client client;
    ASSERT_TRUE(open(&client));
    const std::string longest(BUS_PAYLOAD_MAX, 'x');
    EXPECT_NE(client.publish("t", longest), 0U);
    EXPECT_EQ(client.publish("t", longest + "x"), 0U);
    EXPECT_EQ(errno, EINVAL);
    for (const char* topic : {"", "a/+", "#", "\xff"}) {
        EXPECT_EQ(client.publish(topic, "x"), 0U) << topic;
    }
    for (const char* filter : {"", "a+", "#/a", "\xff"}) {
        EXPECT_EQ(bus_subscribe(client.session, filter, 1, bus_retained::NEVER), 0U) << filter;
    }
    EXPECT_EQ(client.publish(std::string(BUS_TOPIC_MAX + 1, 't').c_str(), "x"), 0U);
    int accepted = 1;
    while (client.publish("t", "x") != 0) {
        ++accepted;
    }
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(accepted, BUS_REQUESTS_MAX);
    EXPECT_EQ(bus_flush(client.session, 10'000), 0);
}

TEST_F(Bus, ALargerMessageThanAllowedComesWithoutItsBytes) {
    PROMISE("a message of more than a mebibyte arrives", "it is told with its length and without its bytes");
    Client client;
    ASSERT_TRUE(open(&client));
    ASSERT_TRUE(client.is_answered(bus_subscribe(client.session, "t", 1, bus_retained::NEVER)));
    const std::string file = broker.folder() + "/large";
    std::ofstream(file) << std::string(BUS_PAYLOAD_MAX + 1, 'x');
    ASSERT_EQ(system(("mosquitto_pub -h 127.0.0.1 -p " + std::to_string(broker.port()) + " -t t -f " + file).c_str()),
              0);
    EXPECT_TRUE(client.hears("new t null " + std::to_string(BUS_PAYLOAD_MAX + 1)));
}

TEST_F(Bus, ARefusalIsAnAnswer) {
    PROMISE("the broker refuses a request", "that is its answer");
    std::ofstream(broker.folder() + "/acl") << "topic readwrite open/#\n";
    broker.configure("acl_file " + broker.folder() + "/acl\n");
    Client client;
    ASSERT_TRUE(open(&client));
    EXPECT_TRUE(client.is_answered(client.publish("open/a", "x")));
    EXPECT_TRUE(client.is_answered(client.publish("shut", "x"), " refused"));
}

TEST_F(Bus, AUserWithoutTheRightPasswordIsTold) {
    PROMISE("the credentials are wrong",
            "the loss says EACCES, requests fail with ENOTCONN, and the next open is held off");
    std::ofstream(broker.folder() + "/users") << "";
    broker.configure("password_file " + broker.folder() + "/users\n");
    setenv("VESK_BUS_USER", "nobody", 1);
    setenv("VESK_BUS_PASSWORD", "x", 1);
    Client client;
    EXPECT_TRUE(open(&client));
    EXPECT_TRUE(client.hears("lost " + std::to_string(EACCES)));
    unsetenv("VESK_BUS_USER");
    unsetenv("VESK_BUS_PASSWORD");
    EXPECT_EQ(client.publish("t", "x"), 0U);
    EXPECT_EQ(errno, ENOTCONN);
    Client next;
    EXPECT_FALSE(next.open()) << "held off after a failed attempt";
}

TEST_F(Bus, ASessionIsNeverRevived) {
    PROMISE("the connection is lost", "a plain session stays lost, also with the broker back");
    Client client;
    ASSERT_TRUE(open(&client));
    ASSERT_TRUE(client.hears("connected"));
    broker.kill();
    ASSERT_TRUE(run_until([&] { return client.told.size() == 2; }));
    EXPECT_EQ(client.told[1].substr(0, 5), "lost ");
    broker.start();
    run_for(1'200);
    EXPECT_EQ(client.told.size(), 2U);
    EXPECT_EQ(client.publish("t", "x"), 0U);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(Bus, AReconnectingSessionComesBackWithoutResending) {
    PROMISE("the connection of a reconnecting session is lost",
            "it comes back silently; what had no answer is not sent again; requests in between fail with ENOTCONN");
    Client client;
    Client watcher;
    ASSERT_TRUE(client.open(true));
    EXPECT_EQ(client.publish("t", "early"), 0U);
    EXPECT_EQ(errno, ENOTCONN);
    ASSERT_TRUE(client.hears("connected"));
    broker.freeze();
    ASSERT_NE(client.publish("t", "start"), 0U);
    broker.kill();
    ASSERT_TRUE(run_until([&] { return client.told.size() == 2; }));
    EXPECT_FALSE(bus_connected(client.session));
    run_for(1'100);  // attempts that fail are silent
    EXPECT_EQ(client.told.size(), 2U);
    broker.start();
    ASSERT_TRUE(watcher.open(true));
    ASSERT_TRUE(watcher.hears("connected"));
    ASSERT_TRUE(watcher.is_answered(bus_subscribe(watcher.session, "t", 1, bus_retained::SEND)));
    ASSERT_TRUE(run_until([&] { return client.told.size() == 3; }, 2'500));
    EXPECT_EQ(client.told[2], "connected");
    ASSERT_TRUE(client.is_answered(client.publish("t", "later")));
    ASSERT_TRUE(watcher.hears("new t later"));
    EXPECT_FALSE(watcher.has("new t start"));
}

TEST_F(Bus, ABrokerThatNeverAcceptsIsGivenUp) {
    PROMISE("a broker takes the connection and never accepts the session",
            "it is given up with ETIMEDOUT, and that is all that is told");
    broker.freeze();
    Client client;
    ASSERT_TRUE(open(&client));
    ASSERT_NE(client.publish("t", "x"), 0U);
    EXPECT_TRUE(client.hears("lost " + std::to_string(ETIMEDOUT), 13'000));
    EXPECT_EQ(client.told.size(), 1U);
}

// A mount or a first look at a large card keeps the loop for most of a minute; the broker must not hang up meanwhile.
TEST_F(Bus, TheBrokerIsAskedToBearAStandstillOfThreeMinutes) {
    PROMISE("the loop stands still for three minutes", "the broker is asked to bear it");
    const std::string path = broker.folder() + "/listener";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 8), 0);
    ASSERT_EQ(setenv("VESK_BUS", ("unix:" + path).c_str(), 1), 0);
    Client client;
    ASSERT_TRUE(open(&client));

    std::array<unsigned char, 64> request{};
    int connection = -1;
    EXPECT_TRUE(run_until([&] {
        if (connection < 0) {
            connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        }
        const ssize_t length = recv(connection, request.data(), request.size(), 0);
        if (length == 0) {  // it only tried whether connections are taken
            close(std::exchange(connection, -1));
        }
        return length >= 12;
    }));
    ASSERT_EQ(std::string(request.begin() + 4, request.begin() + 9), "MQTT\5");
    const int keepalive_s = request[10] << 8 | request[11];
    EXPECT_GE(keepalive_s * 3 / 2, 180);
    close(connection);
    close(listener);
}

TEST_F(Bus, AReconnectingSessionStartsWithoutABroker) {
    PROMISE("there is no broker yet", "a reconnecting session starts all the same");
    broker.kill();
    Client client;
    ASSERT_TRUE(client.open(true));
    run_for(50);
    EXPECT_TRUE(client.told.empty());
    broker.start();
    EXPECT_TRUE(client.hears("connected", 2'500));
}

TEST_F(Bus, TheWillIsPublishedUnlessTheSessionIsClosed) {
    PROMISE("a process dies, or closes its session", "its will is published, or is not");
    Client watcher;
    ASSERT_TRUE(open(&watcher));
    ASSERT_TRUE(watcher.is_answered(bus_subscribe(watcher.session, "#", 1, bus_retained::SEND)));
    const bus_message will{"status", "offline", 7, true, nullptr, nullptr, 0};
    {
        Client client;
        ASSERT_TRUE(client.open(false, &will));
        ASSERT_TRUE(client.hears("connected"));
    }
    ASSERT_TRUE(watcher.is_answered(watcher.publish("fence", "1")));
    EXPECT_FALSE(watcher.has("new status offline"));
    const pid_t child = fork();
    if (child == 0) {
        ev_loop_fork(ev_default_loop(0));
        Client client;
        _exit(client.open(false, &will) && client.hears("connected") ? 0 : 1);
    }
    EXPECT_TRUE(watcher.hears("new status offline"));
}

TEST_F(Bus, TcpWorksAndIsQuick) {
    PROMISE("the broker is reached over TCP", "nothing waits for more to send");
    setenv("VESK_BUS", ("tcp:localhost:" + std::to_string(broker.port())).c_str(), 1);
    Client client;
    ASSERT_TRUE(open(&client));
    ASSERT_TRUE(client.is_answered(bus_subscribe(client.session, "t", 1, bus_retained::NEVER)));
    const int64_t before_ms = test_now_ms();
    for (int i = 0; i < 20; ++i) {
        // The acknowledgement of what comes back is on its way when the next one is sent: the kernel would hold it.
        const std::string text = std::to_string(i);
        ASSERT_NE(client.publish("t", text), 0U);
        ASSERT_TRUE(client.hears("new t " + text));
    }
    EXPECT_LT(test_now_ms() - before_ms, 400) << "85 ms for each when the kernel waits for more to send";
}

TEST_F(Bus, ADistantHostIsNotWaitedFor) {
    PROMISE("the broker is a host that does not answer", "the loop is not held up");
    setenv("VESK_BUS", "tcp:192.0.2.254:1883", 1);  // an address that no host has
    longest_stall_ms();
    Client client;
    const int64_t before_ms = test_now_ms();
    (void)open(&client);
    run_for(1'100);
    EXPECT_LT(longest_stall_ms(), BLOCKED_MS);
    EXPECT_GE(test_now_ms() - before_ms, 1'000);
}

TEST_F(Bus, AListenerMayRunTheLoopAndClose) {
    PROMISE("a listener runs the loop, or closes its session",
            "what had arrived is told inside, and nothing after the close");
    Client client;
    ASSERT_TRUE(open(&client));
    ASSERT_NE(bus_subscribe(client.session, "t", 1, bus_retained::NEVER), 0U);
    client.nest = true;
    ASSERT_NE(client.publish("t", "1"), 0U);
    ASSERT_NE(client.publish("t", "2"), 0U);
    ASSERT_TRUE(client.hears("new t 2"));
    // What had arrived before the listener ran the loop is told inside it.
    ASSERT_NE(client.publish("u", "5"), 0U);
    ASSERT_NE(client.publish("u", "6"), 0U);
    ASSERT_EQ(bus_flush(client.session, 5'000), 0);
    client.nest = true;
    client.told.clear();
    ASSERT_TRUE(run_until([&] { return client.told.size() >= 2; }));
    client.nest = true;
    client.close_inside = true;
    client.told.clear();
    ASSERT_NE(client.publish("t", "3"), 0U);
    ASSERT_NE(client.publish("t", "4"), 0U);
    ASSERT_TRUE(run_until([&] { return client.session == nullptr; }));
    run_for(50);
    EXPECT_EQ(client.told.size(), 2U) << "told after the close";
}

TEST_F(Bus, EveryListenerIsTold) {
    PROMISE("a session has several listeners", "each is told, up to four; one that left is not");
    Client client;
    Client second;
    ASSERT_TRUE(open(&client));
    const bus_listener listener = second.listener();
    EXPECT_EQ(bus_listen(client.session, &listener), 0);
    ASSERT_TRUE(second.hears("connected"));
    EXPECT_TRUE(client.has("connected"));
    bus_unlisten(client.session, &second);
    ASSERT_TRUE(client.is_answered(client.publish("t", "x")));
    EXPECT_EQ(second.told.size(), 1U);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(bus_listen(client.session, &listener), 0);
    }
    EXPECT_EQ(bus_listen(client.session, &listener), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(Bus, FlushWaitsForAnswersWithoutTheLoop) {
    PROMISE("answers are waited for without the loop",
            "for no longer than allowed, and nothing is told meanwhile; closing does not wait for a frozen broker");
    Client client;
    ASSERT_TRUE(open(&client));
    ASSERT_NE(client.publish("t", "x"), 0U);
    EXPECT_EQ(bus_flush(client.session, 5'000), 0);
    EXPECT_TRUE(client.told.empty());
    broker.freeze();
    ASSERT_NE(client.publish("t", "x"), 0U);
    const int64_t before_ms = test_now_ms();
    EXPECT_EQ(bus_flush(client.session, 60), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(test_now_ms() - before_ms, 60);
    const int64_t close_ms = test_now_ms();
    bus_close(std::exchange(client.session, nullptr));
    EXPECT_LT(test_now_ms() - close_ms, BLOCKED_MS) << "a frozen broker holds up the close";
    broker.go_on();
}

TEST_F(Bus, DescriptorsAreCloseOnExec) {
    PROMISE("descriptors are opened", "each is close-on-exec");
    std::array<int, 64> before{};  // the default loop's and inherited ones
    for (int fd = 0; fd < 64; ++fd) {
        before[static_cast<size_t>(fd)] = fcntl(fd, F_GETFD);
    }
    Client client;
    ASSERT_TRUE(open(&client));
    ASSERT_TRUE(client.hears("connected"));
    int seen = 0;
    for (int fd = 0; fd < 64; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && before[static_cast<size_t>(fd)] < 0) {
            ++seen;
            EXPECT_NE(flags & FD_CLOEXEC, 0) << fd;
        }
    }
    EXPECT_GE(seen, 3);
}

TEST_F(Bus, SharedSessionIsForgottenWhenClosed) {
    PROMISE("the shared session is closed", "nobody finds it any more");
    Client client;
    ASSERT_TRUE(open(&client));
    bus_share(client.session, "app");
    EXPECT_EQ(bus_shared(), client.session);
    EXPECT_STREQ(bus_shared_app(), "app");
    bus_close(std::exchange(client.session, nullptr));
    EXPECT_EQ(bus_shared(), nullptr);
    EXPECT_STREQ(bus_shared_app(), "");
}

TEST_F(Bus, AKeptAddressWins) {  // last: it stays for the process
    PROMISE("an address was kept", "it wins over the environment; a bad one changes nothing");
    EXPECT_EQ(bus_address_set("rubbish"), -1);
    EXPECT_EQ(bus_address(), broker.address());
    ASSERT_EQ(bus_address_set("tcp:127.0.0.1:1"), 0);
    EXPECT_STREQ(bus_address(), "tcp:127.0.0.1:1");
    Client client;
    EXPECT_FALSE(client.open());
}

}  // namespace
