#include "world.h"

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "faults.h"
#include "invariants.h"
#include "real.h"

int vesk_main(int argc, char** argv);

namespace sim {

figures counted;

namespace {

constexpr int64_t START_NS = 100 * SECOND;  // a camera has been up for a while when its daemons start
constexpr int64_t START_WALL_S = 1'790'000'000;
constexpr size_t TAIL_LINES = 60;

life current;
random the_chance(0);
int64_t the_time_ns = START_NS;
int64_t wall_ahead_s = START_WALL_S - START_NS / SECOND;
std::deque<std::string> tail;

struct due {
    int64_t at_ns;
    uint64_t number;
    std::function<void()> what;
};
struct is_later {
    bool operator()(const due& a, const due& b) const {
        return a.at_ns != b.at_ns ? a.at_ns > b.at_ns : a.number > b.number;
    }
};
std::vector<due> agenda;  // a heap, the next on top
uint64_t agenda_number;
size_t plan_position;
bool is_running_due;
bool is_end_told;

int64_t plan_ns(const event& e) {
    return START_NS + e.at_ms * MS;
}

int64_t end_ns() {
    return START_NS + static_cast<int64_t>(current.days * 86400) * SECOND;
}

void write_all(int fd, const void* data, size_t size) {
    const auto* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = __real_write(fd, at, size);
        if (written <= 0) {
            return;
        }
        at += written;
        size -= static_cast<size_t>(written);
    }
}

[[noreturn]] void finish(verdict what, const char* reason) {
    outcome result = {};
    result.what = what;
    counted.failures = failures();
    counted.simulated_ms = (the_time_ns - START_NS) / MS;
    result.counts = counted;
    for (int i = 0; i < CALLS; ++i) {
        result.calls[i] = calls_of(static_cast<call>(i));
    }
    snprintf(result.reason, sizeof result.reason, "%s", reason);
    size_t used = 0;
    for (const std::string& line : tail) {
        if (used + line.size() + 2 < sizeof result.tail) {
            used += static_cast<size_t>(snprintf(result.tail + used, sizeof result.tail - used, "%s\n", line.c_str()));
        }
    }
    fflush(stdout);
    write_all(current.result_fd, &result, sizeof result);
    __real__exit(0);
}

}  // namespace

void note(const char* format, ...) {
    char text[4400];
    const int stamp = snprintf(text, sizeof text, "%lld.%06lld ", static_cast<long long>(the_time_ns / SECOND),
                               static_cast<long long>(the_time_ns % SECOND / 1000));
    va_list args;
    va_start(args, format);
    vsnprintf(text + stamp, sizeof text - static_cast<size_t>(stamp), format, args);
    va_end(args);
    size_t length = strlen(text);
    while (length > 0 && text[length - 1] == '\n') {
        text[--length] = '\0';
    }
    for (const char* at = text; *at != '\0'; ++at) {
        counted.log_hash = (counted.log_hash ^ static_cast<unsigned char>(*at)) * 0x100000001b3;
    }
    if (current.is_loud) {
        puts(text);
    }
    if (length > 300) {
        text[300] = '\0';
    }
    tail.emplace_back(text);
    if (tail.size() > TAIL_LINES) {
        tail.pop_front();
    }
}

void violation(const char* format, ...) {
    char text[360];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    note("VIOLATION: %s", text);
    finish(verdict::VIOLATION, text);
}

void end_of_life(const char* reason) {
    note("the end: %s", reason);
    finish(verdict::DOCUMENTED_END, reason);
}

int64_t now_ns() {
    return the_time_ns;
}

int64_t wall_s() {
    return the_time_ns / SECOND + wall_ahead_s;
}

void set_wall(int64_t seconds_ahead) {
    wall_ahead_s += seconds_ahead;
}

void later(int64_t delay_ns, std::function<void()> what) {
    agenda.push_back({the_time_ns + delay_ns, ++agenda_number, std::move(what)});
    std::push_heap(agenda.begin(), agenda.end(), is_later());
}

int64_t next_due_ns() {
    int64_t next = is_end_told ? end_ns() + 61 * SECOND : end_ns();
    if (plan_position < current.plan->size()) {
        next = std::min(next, plan_ns((*current.plan)[plan_position]));
    }
    if (!agenda.empty()) {
        next = std::min(next, agenda.front().at_ns);
    }
    return next;
}

void run_due() {
    // What happens does not happen inside something else that happens.
    if (is_running_due || next_due_ns() > the_time_ns) {
        return;
    }
    is_running_due = true;
    for (;;) {
        const int64_t planned =
            plan_position < current.plan->size() ? plan_ns((*current.plan)[plan_position]) : INT64_MAX;
        const int64_t agreed = agenda.empty() ? INT64_MAX : agenda.front().at_ns;
        if (std::min(planned, agreed) > the_time_ns) {
            break;
        }
        if (planned <= agreed) {
            const event& e = (*current.plan)[plan_position++];
            note("event: %s", describe(e).c_str());
            ++counted.events;
            apply(e);
        } else {
            std::pop_heap(agenda.begin(), agenda.end(), is_later());
            const std::function<void()> what = std::move(agenda.back().what);
            agenda.pop_back();
            ++counted.events;
            what();
        }
    }
    if (the_time_ns >= end_ns()) {
        if (!is_end_told) {
            is_end_told = true;
            note("event: sigterm");
            deliver_signal(SIGTERM);
        } else if (the_time_ns > end_ns() + 60 * SECOND) {
            violation("the daemon does not end on SIGTERM");
        }
    }
    is_running_due = false;
}

void spend(int64_t ns) {
    the_time_ns += ns;
    run_due();
}

void jump_to(int64_t ns) {
    the_time_ns = std::max(the_time_ns, ns);
}

random& chance() {
    return the_chance;
}

void live(const life& l) {
    current = l;
    the_chance = random(l.seed ^ 0x5eed);
    // A device that is up has had its card for long: no events, no waiting for the node.
    while (plan_position < l.plan->size() && (*l.plan)[plan_position].at_ms <= 0) {
        apply((*l.plan)[plan_position++]);
    }
    if (slot != nullptr) {
        slot->node_ready_ns = 0;
    }
    if (l.prepare != nullptr) {
        l.prepare(l.context);
    }
    char name[] = "vesk_sdcard";
    char* arguments[] = {name, nullptr};
    const int code = vesk_main(1, arguments);
    if (code != 0) {
        end_of_life("main returned an error");
    }
    check_exit();
    note("the end: good");
    finish(verdict::GOOD, "");
}

}  // namespace sim

extern "C" int __wrap_printf(const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    sim::note("stdout: %s", text);
    return length;
}
