#include "tools/card_job.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <initializer_list>
#include <json-c/json.h>
#include <unistd.h>

#include "tools/exchange.h"
#include "tools/time_text.h"

namespace {

constexpr double ANSWER_S = 10;  // the daemon reads its keys at once, unless the kernel holds it in a mount
constexpr double BEGIN_S = 1;    // a job is published before its request is answered; the rest is for the service
constexpr double WAIT_DEFAULT_S = 600;
constexpr double TICK_S = 1;  // how often a terminal sees the time pass
constexpr size_t DETAIL = 160;

struct following {
    const veskctl_options* options;
    const card_job* job;
    exchange talk;
    long state;  // as published, -1: not
    bool daemon_gone;
    char last_answer[32];  // the key's value before the request
    bool asked;
    double asked_s;
    bool answered;
    bool begun;
    bool ended;
    bool any;  // something of the above has changed
    long ended_state;
    bool live_line;  // the terminal's last line shows the time and has no end yet
};

double elapsed_s(const following& follow) {
    return exchange_clock_s() - follow.asked_s;
}

const char* state_words(long state) {
    const char* name = veskctl_state_name(state);
    return name != nullptr ? name : "not known";
}

void end_live_line(following* follow) {
    if (follow->live_line) {
        fputc('\n', stderr);
        follow->live_line = false;
    }
}

// Progress is a message, not data. On a terminal the last line counts on.
void show_progress(following* follow, const char* words, bool again) {
    const bool terminal = isatty(STDERR_FILENO) == 1;
    if (again && !terminal) {
        return;
    }
    if (follow->live_line) {
        fputs(again ? "\r" : "\n", stderr);
    }
    fprintf(stderr, "%7.1f s  %s", elapsed_s(*follow), words);
    follow->live_line = terminal;
    if (!terminal) {
        fputc('\n', stderr);
    }
}

void on_state(following* follow, long state) {
    if (state == follow->state) {
        return;
    }
    follow->state = state;
    if (!follow->asked || follow->ended) {
        return;
    }
    show_progress(follow, state_words(state), false);
    // A card that was not mounted may be ejected faster than both states can be told apart.
    if (state == follow->job->working) {
        follow->begun = true;
    } else if (follow->begun || (follow->job->working == STATE_EJECTING && state == STATE_EJECT)) {
        follow->begun = follow->ended = true;
        follow->ended_state = state;
    }
}

void on_message(const bus_message* message, void* context) {
    auto* follow = static_cast<following*>(context);
    char text[sizeof follow->last_answer] = {};
    if (message->payload != nullptr) {
        memcpy(text, message->payload, message->length < sizeof text ? message->length : sizeof text - 1);
    }
    if (strcmp(message->topic, CARD_STATUS_TOPIC) == 0) {
        char* end = nullptr;
        const long number = strtol(text, &end, 10);
        on_state(follow, end != text && *end == '\0' && veskctl_state_name(number) != nullptr ? number : -1);
    } else if (strcmp(message->topic, DAEMON_STATUS_TOPIC) == 0) {
        follow->daemon_gone = strcmp(text, "offline") == 0;
    } else if (!follow->asked) {
        memcpy(follow->last_answer, text, sizeof text);
    } else if (!message->retained && strncmp(text, "end", 3) == 0) {
        follow->answered = true;
    }
    follow->any = true;
}

const char* outcome_words(int code) {
    switch (code) {
        case VESKCTL_DONE:
            return "done";
        case VESKCTL_NO_SERVICE:
            return "not answered";
        case VESKCTL_REFUSED:
            return "refused";
        case VESKCTL_UNKNOWN:
            return "outcome unknown";
        default:
            return "failed";
    }
}

int finish(following* follow, int code, const char* outcome, const char* detail) {
    end_live_line(follow);
    if (follow->options->json) {
        json_object* object = json_object_new_object();
        const char* name = veskctl_state_name(follow->state);
        json_object_object_add(object, "request", json_object_new_string(follow->job->name));
        json_object_object_add(object, "outcome", json_object_new_string(outcome));
        json_object_object_add(object, "detail", *detail != '\0' ? veskctl_text_json(detail, strlen(detail)) : nullptr);
        json_object_object_add(object, "state", name != nullptr ? json_object_new_string(name) : nullptr);
        char elapsed[32];
        (void)snprintf(elapsed, sizeof elapsed, "%.1f", elapsed_s(*follow));
        json_object_object_add(object, "elapsed_s",
                               follow->asked ? json_object_new_double_s(elapsed_s(*follow), elapsed) : nullptr);
        veskctl_print_json(object);
        return code;
    }
    printf("%s: %s", follow->job->name, outcome);
    if (*detail != '\0') {
        fputs(", ", stdout);
        veskctl_print_text(detail, strlen(detail));
    }
    putchar('\n');
    return code;
}

int finish(following* follow, int code, const char* detail) {
    return finish(follow, code, outcome_words(code), detail);
}

// The daemon answers with the second it answers in, and a value that has not changed is not sent: a second request
// within that second would seem to get no answer.
void wait_for_another_second(const following& follow) {
    char now[sizeof follow.last_answer];
    const timespec tenth = {0, 100'000'000};
    for (int i = 0; i < 20; ++i) {
        (void)snprintf(now, sizeof now, "end%lld", static_cast<long long>(time(nullptr)));
        if (strcmp(now, follow.last_answer) != 0) {
            return;
        }
        nanosleep(&tenth, nullptr);
    }
}

// What speaks against asking at all, as far as it is published. Null: nothing.
const char* objection(const following& follow) {
    switch (follow.state) {
        case STATE_FORMATTING:
        case STATE_FIXING:
        case STATE_EJECTING:
            return "another job is running";
        case STATE_NOT_EXISTS:
            // A card that carries no filesystem is not mounted, and yet may be formatted.
            return follow.job->working == STATE_EJECTING ? "there is no card" : nullptr;
        default:
            return nullptr;
    }
}

// Subscribes, and learns what stands in the service before the request.
int look(following* follow) {
    int code = exchange_open(&follow->talk, on_message, follow);
    for (const char* topic : {CARD_STATUS_TOPIC, DAEMON_STATUS_TOPIC, follow->job->key}) {
        if (code == VESKCTL_DONE) {
            code = exchange_subscribe(&follow->talk, topic, bus_retained::SEND);
        }
    }
    return code == VESKCTL_DONE ? exchange_settle(&follow->talk) : code;
}

// Until the condition holds, the session is lost or the time is over; on a terminal the time is seen to pass.
void wait_while(following* follow, bool (*waiting)(const following&), double seconds, bool shown) {
    const double end = exchange_clock_s() + seconds;
    while (waiting(*follow) && follow->talk.error == 0 && exchange_clock_s() < end) {
        const double left = end - exchange_clock_s();
        follow->any = false;
        if (!exchange_wait(&follow->talk, &follow->any, left < TICK_S ? left : TICK_S) && shown) {
            show_progress(follow, state_words(follow->state), true);
        }
    }
}

int request(following* follow, bool wait, double wait_s, void (*prepare)(void*), card_job_verdict verdict,
            void* context) {
    int code = look(follow);
    if (code != VESKCTL_DONE) {
        return finish(follow, code, "");
    }
    if (follow->daemon_gone) {
        return finish(follow, VESKCTL_NO_SERVICE, "vesk_sdcard is not running");
    }
    if (follow->job->working == STATE_EJECTING && follow->state == STATE_EJECT) {
        return finish(follow, VESKCTL_DONE, "the card was ejected before");
    }
    if (const char* reason = objection(*follow)) {
        return finish(follow, VESKCTL_REFUSED, reason);
    }
    if (prepare != nullptr) {
        prepare(context);
    }
    wait_for_another_second(*follow);
    follow->asked = true;
    follow->asked_s = exchange_clock_s();
    bus_message start = {};
    start.topic = follow->job->key;
    start.payload = "start";
    start.length = 5;
    // Not kept by the service: it is a request, not a setting.
    code = exchange_publish(&follow->talk, &start, nullptr);
    if (code != VESKCTL_DONE) {
        return finish(follow, code, code == VESKCTL_UNKNOWN ? exchange_fate(follow->talk) : "");
    }
    wait_while(
        follow, [](const following& f) { return !f.answered && !f.begun; }, wait_s < ANSWER_S ? wait_s : ANSWER_S,
        false);
    if (follow->answered) {
        wait_while(
            follow, [](const following& f) { return !f.begun; }, BEGIN_S, false);
    }
    if (!follow->begun && follow->talk.error != 0) {
        return finish(follow, VESKCTL_UNKNOWN, exchange_fate(follow->talk));
    }
    if (!follow->begun) {
        return follow->answered ? finish(follow, VESKCTL_REFUSED, "vesk_sdcard did not begin it; its log says why")
                                : finish(follow, VESKCTL_NO_SERVICE, "vesk_sdcard did not answer the request");
    }
    if (!wait) {
        return finish(follow, VESKCTL_DONE, "begun", "");
    }
    const double left_s = wait_s - elapsed_s(*follow);
    wait_while(
        follow, [](const following& f) { return !f.ended; }, left_s, true);
    if (!follow->ended) {
        return finish(follow, VESKCTL_UNKNOWN,
                      follow->talk.error != 0 ? exchange_fate(follow->talk) : "not ended in the time allowed");
    }
    char detail[DETAIL] = "";
    code = verdict(follow->ended_state, detail, sizeof detail, context);
    return code == VESKCTL_UNKNOWN ? finish(follow, code, "ended, outcome unknown", detail)
                                   : finish(follow, code, detail);
}

}  // namespace

int card_job_run(const veskctl_options& options, int argc, char** argv, const card_job& job,
                 void (*prepare)(void* context), card_job_verdict verdict, void* context) {
    static const option erasing[] = {{"wait", no_argument, nullptr, 'w'},
                                     {"timeout", required_argument, nullptr, 't'},
                                     {"yes", no_argument, nullptr, 'y'},
                                     {}};
    static const option harmless[] = {
        {"wait", no_argument, nullptr, 'w'}, {"timeout", required_argument, nullptr, 't'}, {}};
    bool wait = false;
    bool yes = false;
    double wait_s = WAIT_DEFAULT_S;
    for (int letter;
         (letter = getopt_long(argc, argv, "", job.erases != nullptr ? erasing : harmless, nullptr)) != -1;) {
        switch (letter) {
            case 'w':
                wait = true;
                break;
            case 'y':
                yes = true;
                break;
            case 't':
                if (!seconds_from_text(optarg, 0.001, &wait_s)) {
                    fprintf(stderr, "veskctl: --timeout cannot be \"%s\"\n", optarg);
                    return VESKCTL_USAGE;
                }
                break;
            default:
                return VESKCTL_USAGE;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "veskctl: %s does not take \"%s\"\n", argv[0], argv[optind]);
        return VESKCTL_USAGE;
    }
    if (job.erases != nullptr && !yes) {
        const int code = veskctl_confirm(job.erases);
        if (code != VESKCTL_DONE) {
            return code;
        }
    }
    following follow = {};
    follow.options = &options;
    follow.job = &job;
    follow.state = -1;
    const int code = request(&follow, wait, wait_s, prepare, verdict, context);
    exchange_close(&follow.talk);
    return code;
}
