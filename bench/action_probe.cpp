// Round trips over the broker, measured from beside the daemon:
//   action_probe echo TOPIC                  answers every request on a topic with what it came with, and nothing else
//   action_probe ask TOPIC COUNT PARAMETERS  asks that many times, one after the other; prints microseconds:
//                                            median 4120 p90 4711 max 9034
//   action_probe scan FOLDER COUNT           looks at a folder and each folder in it that many times, as "sd_storge"
//   has
//                                            it done: the kernel's share of that, in the same words
// What an action costs beyond the bus is the difference between asking it and asking the echo.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <sys/stat.h>

namespace {

constexpr char BROKER[] = "/run/karveld/karveld.sock";
constexpr char REPLY_TOPIC[] = "reply/bench";
constexpr int MAX_COUNT = 10'000;
constexpr int LOOP_MS = 1000;

bool subscribed;
bool answered;
int64_t laps_us[MAX_COUNT];

int64_t now_us() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
}

[[noreturn]] void die(const char* what) {
    fprintf(stderr, "action_probe: %s\n", what);
    exit(1);
}

void on_subscribe(mosquitto*, void*, int, int, const int*) {
    subscribed = true;
}

void on_request(mosquitto* client, void*, const mosquitto_message* message, const mosquitto_property* properties) {
    char* topic = nullptr;
    mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &topic, false);
    if (topic != nullptr) {
        mosquitto_publish(client, nullptr, topic, message->payloadlen, message->payload, 1, false);
        free(topic);
    }
}

void on_answer(mosquitto*, void*, const mosquitto_message*, const mosquitto_property*) {
    answered = true;
}

void run_until(mosquitto* client, const bool* condition) {
    while (!*condition) {
        if (mosquitto_loop(client, LOOP_MS, 1) != MOSQ_ERR_SUCCESS) {
            die("the broker went away");
        }
    }
}

mosquitto* connect_to(const char* topic,
                      void (*on_message)(mosquitto*, void*, const mosquitto_message*, const mosquitto_property*)) {
    mosquitto* client = mosquitto_new(nullptr, true, nullptr);
    if (client == nullptr) {
        die("out of memory");
    }
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_subscribe_callback_set(client, on_subscribe);
    mosquitto_message_v5_callback_set(client, on_message);
    if (mosquitto_connect(client, BROKER, 0, 60) != MOSQ_ERR_SUCCESS ||
        mosquitto_subscribe(client, nullptr, topic, 1) != MOSQ_ERR_SUCCESS) {
        die("no broker");
    }
    run_until(client, &subscribed);
    return client;
}

void print_laps(int count) {
    std::sort(laps_us, laps_us + count);
    printf("median %lld p90 %lld max %lld\n", static_cast<long long>(laps_us[count / 2]),
           static_cast<long long>(laps_us[count * 9 / 10]), static_cast<long long>(laps_us[count - 1]));
}

void ask(const char* topic, int count, const char* parameters) {
    mosquitto* client = connect_to(REPLY_TOPIC, on_answer);
    mosquitto_property* properties = nullptr;
    mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, REPLY_TOPIC);
    for (int i = 0; i < count; ++i) {
        answered = false;
        const int64_t begin_us = now_us();
        if (mosquitto_publish_v5(client, nullptr, topic, static_cast<int>(strlen(parameters)), parameters, 1, false,
                                 properties) != MOSQ_ERR_SUCCESS) {
            die("can not publish");
        }
        run_until(client, &answered);
        laps_us[i] = now_us() - begin_us;
    }
    print_laps(count);
    mosquitto_property_free_all(&properties);
    mosquitto_destroy(client);
}

void scan(const char* folder, int count) {
    for (int i = 0; i < count; ++i) {
        const int64_t begin_us = now_us();
        DIR* dir = opendir(folder);
        if (dir == nullptr) {
            die("no such folder");
        }
        while (const dirent* child = readdir(dir)) {
            struct stat status;
            if (child->d_type == DT_DIR && fstatat(dirfd(dir), child->d_name, &status, 0) < 0) {
                die("can not look at a folder");
            }
        }
        closedir(dir);
        laps_us[i] = now_us() - begin_us;
    }
    print_laps(count);
}

}  // namespace

int main(int argc, char** argv) {
    mosquitto_lib_init();
    if (argc == 3 && strcmp(argv[1], "echo") == 0) {
        mosquitto* client = connect_to(argv[2], on_request);
        puts("listening");
        fflush(stdout);
        const bool never = false;
        run_until(client, &never);
    }
    const bool asks = argc == 5 && strcmp(argv[1], "ask") == 0;
    const bool scans = argc == 4 && strcmp(argv[1], "scan") == 0;
    const int count = asks || scans ? static_cast<int>(strtol(argv[3], nullptr, 10)) : 0;
    if (count < 1 || count > MAX_COUNT) {
        die("usage: action_probe echo TOPIC | ask TOPIC COUNT PARAMETERS | scan FOLDER COUNT");
    }
    if (asks) {
        ask(argv[2], count, argv[4]);
    } else {
        scan(argv[2], count);
    }
    return 0;
}
