// The record list and a plain reference model in lockstep: kyt_model [OPERATIONS [SEED]]
//
// The reference is what anybody would write down for "a list of clips, and a folder": maps and sets. After every
// operation the list must answer as the reference does; at each opening and every few thousand operations all of it is
// compared. The clock goes on, stops, is put back, falls to 1970 and jumps to 2106, the clips' and the system's each by
// itself. There are clips in the folder with and without a record, and records with and without a clip; hours of the
// folder cannot be read for a while; the list is closed or left as it is, and opened by others who must be refused.
//
// Where the library may choose, the reference knows the choice: a clip whose announcement was lost may be found at any
// comparison of the folder, and must be found by one that is made after its hour has ended, or at an opening after an
// unclean end.
//
// Only public calls are used, and kyt::open_folder, kyt::settle and kyt::is_comparing.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "format.h"
#include "handle.h"
#include "keeper.h"
#include "kyt_rdonly.h"
#include "support/libc_calls.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t START = 1'790'000'000;
constexpr uint32_t MINUTE_S = 60;
constexpr uint32_t HOUR_S = 3600;
constexpr uint32_t DAY_S = 86'400;
constexpr uint32_t NEWEST_TS = UINT32_MAX;

uint64_t step;  // the operation that is being done
unsigned seed;

// What has happened, for the story of one clip: the keeper works beside the operations, so a seed alone does not bring
// a deviation back.
struct event {
    uint64_t step;
    const char* what;
    uint32_t ts;  // 0: concerns all
};
std::vector<event> story;

void tell(const char* what, uint32_t ts) {
    story.push_back({step, what, ts});
}

[[noreturn]] __attribute__((format(printf, 2, 3))) void fail(uint32_t ts, const char* format, ...) {
    constexpr uint64_t RECENT = 20'000;  // steps: of what concerns all, no more is of interest
    for (const event& e : story) {
        if (e.ts == ts || (e.ts == 0 && e.step + RECENT >= step)) {
            std::fprintf(stderr, "%10" PRIu64 " %s\n", e.step, e.what);
        }
    }
    std::fprintf(stderr, "kyt_model: seed %u, operation %" PRIu64 ", clip %u: ", seed, step, ts);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    std::_Exit(1);  // the folder is left for a look
}

struct clip {
    uint8_t seconds;
    uint8_t flags;
    bool operator==(const clip&) const = default;
};

struct reference {
    std::map<uint32_t, clip> listed;
    std::map<uint32_t, clip> deleted;  // whose files are still there
    std::set<uint32_t> unannounced;    // on the card, and perhaps already found by the list
    std::set<uint32_t> files;          // clips on the card
    std::map<uint32_t, clip> marks;    // of all that were ever deleted: a clip that comes back may have them again
};

struct session {
    recordings card;
    kyt_handle* list = nullptr;
    reference expected;
    std::mt19937 random;
    uint32_t clock = START;
    uint32_t limit = 100;  // about so many clips are kept
    kyt_record* held = nullptr;
    uint32_t held_ts = 0;
    uint32_t now = START + 1000 * DAY_S;  // the system's clock
    size_t most_listed = 0;

    explicit session(unsigned number) : random(number) {}
    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random() % below); }
    bool one_in(uint32_t n) { return pick(n) == 0; }
};

// The hour of the folder that cannot be read; 0: all can be. Set while no keeper reads.
std::string unreadable;

// The keeper that is left by kyt_close_dirty ends by itself, as it must before a card is unmounted.
nlink_t count_threads() {
    struct stat tasks = {};
    return stat("/proc/self/task", &tasks) == 0 ? tasks.st_nlink : 0;  // a link for each thread's folder, and two
}
const nlink_t threads_at_start = count_threads();  // an emulator has some of its own

void await_threads() {
    for (int wait = 0; wait < 200'000; ++wait) {
        if (count_threads() <= threads_at_start) {
            return;
        }
        usleep(50);
    }
    fail(0, "a keeper does not end");
}

void await_comparison(session* s) {
    for (int wait = 0; wait < 200'000; ++wait) {
        if (!kyt::is_comparing(s->list)) {
            return;
        }
        usleep(50);
    }
    fail(0, "a comparison does not end");
}

// A clip that is in the list although nobody announced it: fine when it lies on the card.
bool take_found(session* s, uint32_t ts, const kyt_record& record) {
    if (s->expected.unannounced.erase(ts) == 0) {
        return false;
    }
    s->expected.listed[ts] = {static_cast<uint8_t>(kyt_record_seconds(&record)), record.flags};
    const auto marked = s->expected.marks.find(ts);
    const clip found = s->expected.listed[ts];
    return found == clip{0, 0} || (marked != s->expected.marks.end() && marked->second == found);
}

void compare(session* s) {
    const kyt_record* record = kyt_next(s->list, nullptr);
    auto at = s->expected.listed.begin();
    while (record || at != s->expected.listed.end()) {
        if (record && (at == s->expected.listed.end() || record->ts < at->first)) {
            if (!take_found(s, record->ts, *record)) {
                fail(record->ts, "listed and should not be");
            }
            at = s->expected.listed.upper_bound(record->ts);
        } else if (!record || at->first < record->ts) {
            fail(at->first, "lost");
        } else {
            const clip found = {static_cast<uint8_t>(kyt_record_seconds(record)), record->flags};
            if (found != at->second) {
                fail(record->ts, "%u s and flags %u instead of %u s and %u", found.seconds, found.flags,
                     at->second.seconds, at->second.flags);
            }
            ++at;
        }
        record = record ? kyt_next(s->list, record) : nullptr;
        // A record of which the list says that it is lower than an earlier one would go unnoticed above.
        if (record && at != s->expected.listed.begin() && record->ts <= std::prev(at)->first) {
            fail(record->ts, "not in order");
        }
    }
    if (kyt_count(s->list) != s->expected.listed.size()) {
        fail(0, "the list counts %u clips, there are %zu", kyt_count(s->list), s->expected.listed.size());
    }
}

void open_list(session* s) {
    s->held = nullptr;
    s->list = kyt::open_folder(s->card.path().c_str());
    if (!s->list) {
        fail(0, "cannot open: %s", std::strerror(errno));
    }
}

std::string hour_of(uint32_t ts) {
    char path[128];
    kyt_ts2path(ts, path, sizeof path, 0);
    return std::string(path).substr(31, 10);
}

// The deleted ones whose files are still there are back after each opening: then it is the files that count. Those of
// an hour that cannot be read stay deleted until it can.
void expect_deleted_back(session* s) {
    std::erase_if(s->expected.deleted, [s](const auto& entry) {
        const bool is_seen = hour_of(entry.first) != unreadable;
        if (is_seen) {
            s->expected.listed[entry.first] = entry.second;
        }
        return is_seen;
    });
}

// What was changed less than 2 seconds before the end may be lost, since the file is a copy. Seconds are not worth
// waiting for, so it is asked for.
void await_commit(session* s) {
    if (!kyt::settle(s->list)) {
        fail(0, "the keeper does not bring it to the card");
    }
}

// One list is open at a time: the next one to open it is refused, at once, and has changed nothing.
void refuse_second(session* s) {
    errno = 0;
    if (kyt_handle* const second = kyt::open_folder(s->card.path().c_str()); second != nullptr || errno != EBUSY) {
        fail(0, "opened twice: %s", std::strerror(errno));
    }
}

// The keeper of a list that was left may still write: until it has ended, an opening is refused.
void open_left_list(session* s) {
    for (int wait = 0; wait < 200'000; ++wait) {
        s->list = kyt::open_folder(s->card.path().c_str());
        if (s->list != nullptr) {
            return;
        }
        if (errno != EBUSY) {
            fail(0, "cannot open what was left: %s", std::strerror(errno));
        }
        usleep(50);
    }
    fail(0, "a list that was left stays in use");
}

// Another process, made before there is any thread. For each folder that it is asked about it says how an opening of
// the list ends, and what it reads in the file.
struct onlooker {
    int to = -1;
    int from = -1;

    void start() {
        int ask[2];
        int answer[2];
        if (pipe(ask) < 0 || pipe(answer) < 0) {
            fail(0, "no pipe: %s", std::strerror(errno));
        }
        to = ask[1];
        from = answer[0];
        if (fork() == 0) {
            close(ask[1]);
            close(answer[0]);
            serve(ask[0], answer[1]);
            std::_Exit(0);
        }
        close(ask[0]);
        close(answer[1]);
    }

    // What is in the file now; the errno of an opening goes to `refused`.
    std::vector<kyt_record> look(const std::string& folder, int* refused) const {
        char name[256] = {};
        std::snprintf(name, sizeof name, "%s", folder.c_str());
        uint32_t head[2] = {};
        std::vector<kyt_record> found;
        if (write(to, name, sizeof name) == sizeof name && receive(from, head, sizeof head)) {
            found.resize(head[1]);
            *refused = static_cast<int>(head[0]);
            if (found.empty() || receive(from, found.data(), found.size() * sizeof(kyt_record))) {
                return found;
            }
        }
        fail(0, "the other process is gone");
    }

  private:
    static bool receive(int fd, void* data, size_t size) {
        for (size_t done = 0; done < size;) {
            const ssize_t got = read(fd, static_cast<char*>(data) + done, size - done);
            if (got <= 0) {
                return false;
            }
            done += static_cast<size_t>(got);
        }
        return true;
    }

    static void serve(int fd, int out) {
        char name[256];
        while (receive(fd, name, sizeof name)) {
            kyt_handle* const opened = kyt::open_folder(name);
            const auto failure = static_cast<uint32_t>(opened != nullptr ? 0 : errno);
            kyt_close(opened);
            std::vector<kyt_record> records;
            kyt_handle* const list = kyt_open_rdonly(name);
            for (const kyt_record* record = kyt_next(list, nullptr); record != nullptr;
                 record = kyt_next(list, record)) {
                records.push_back(*record);
            }
            kyt_close(list);
            const uint32_t head[] = {failure, static_cast<uint32_t>(records.size())};
            const auto size = static_cast<ssize_t>(records.size() * sizeof(kyt_record));
            if (write(out, head, sizeof head) != sizeof head ||
                write(out, records.data(), static_cast<size_t>(size)) != size) {
                return;
            }
        }
    }
} the_onlooker;

// Whether these records are what the list holds.
bool is_all(const session& s, const std::vector<kyt_record>& records) {
    auto at = s.expected.listed.begin();
    for (const kyt_record& record : records) {
        if (at != s.expected.listed.end() && record.ts == at->first) {
            if (clip{static_cast<uint8_t>(kyt_record_seconds(&record)), record.flags} != at->second) {
                return false;
            }
            ++at;
        } else if (!s.expected.unannounced.contains(record.ts)) {  // which a comparison may have found
            return false;
        }
    }
    return at == s.expected.listed.end();
}

// Another process sees in the file what has settled; and without being asked for, since each second the keeper brings
// there what has changed. It cannot open the list.
void read_from_outside(session* s) {
    const bool waits = s->one_in(8);
    if (!waits) {
        await_commit(s);
    }
    for (int wait = 0;; ++wait) {
        int refused = 0;
        const bool agrees = is_all(*s, the_onlooker.look(s->card.path(), &refused));
        if (refused != EBUSY) {
            fail(0, "another process opens the list: %s", std::strerror(refused));
        }
        if (agrees) {
            return;
        }
        if (!waits || wait == 10'000) {
            fail(0, "the file says something else than the list");
        }
        usleep(1000);
    }
}

void reopen(session* s) {
    // Records that are still waiting for the file to grow are as new.
    const bool clean = !s->one_in(3);
    refuse_second(s);
    if (!clean) {
        await_commit(s);
    }
    tell(clean ? "closed and opened" : "cut off and opened", 0);
    await_comparison(s);
    unreadable.clear();
    if (s->one_in(4) && !s->expected.files.empty()) {
        const auto at = s->expected.files.lower_bound(s->pick(NEWEST_TS));
        unreadable = hour_of(at == s->expected.files.end() ? *s->expected.files.begin() : *at);
        tell("an hour cannot be read", 0);
    }
    (clean ? kyt_close : kyt_close_dirty)(s->list);
    s->held = nullptr;
    if (s->one_in(2)) {
        open_left_list(s);
    } else {
        await_threads();
        open_list(s);
    }
    expect_deleted_back(s);
    if (s->one_in(2)) {
        compare(s);
        kyt_close(s->list);
        await_threads();
        open_list(s);
    }
    compare(s);
    for (const uint32_t ts : s->expected.unannounced) {
        if (!clean && hour_of(ts) != unreadable) {
            fail(ts, "on the card and not found");
        }
    }
}

void set_clock(session* s) {
    const uint32_t clocks[] = {1, DAY_S, s->clock, s->clock + DAY_S, START, START + 1000 * DAY_S, NEWEST_TS};
    s->now = clocks[s->pick(sizeof clocks / sizeof *clocks)];
    libc_calls::set_time(s->now);
}

void start_comparison(session* s) {
    if (kyt_optimise(s->list) != 0) {
        fail(0, "kyt_optimise: %s", std::strerror(errno));
    }
}

void optimise(session* s) {
    s->held = nullptr;
    tell("optimise", 0);
    if (s->one_in(2)) {
        return start_comparison(
            s);  // the keeper works while the operations go on; the next call takes what it has found
    }
    await_comparison(s);
    const std::set<uint32_t> lost = s->expected.unannounced;
    start_comparison(s);
    await_comparison(s);
    tell("optimise again", 0);
    start_comparison(s);
    await_comparison(s);
    compare(s);
    for (const uint32_t ts : lost) {
        // One that was deleted in this session stays so until its files were seen to be gone, and these never were.
        const bool may_wait = s->expected.marks.contains(ts);
        const bool is_over = s->now > DAY_S && ts / HOUR_S < (s->now - HOUR_S) / HOUR_S;
        if (is_over && !may_wait && hour_of(ts) != unreadable && !s->expected.listed.contains(ts)) {
            fail(ts, "on the card and not found by a comparison");
        }
    }
}

// Most clips are announced in order of time. The others are what the field brings.
uint32_t next_ts(session* s) {
    if (s->one_in(20'000)) {
        const uint32_t jumps[] = {1, DAY_S, START, START + 400 * DAY_S, NEWEST_TS - 2 * DAY_S, NEWEST_TS - MINUTE_S};
        s->clock = jumps[s->pick(sizeof jumps / sizeof *jumps)];
    }
    const uint32_t way = s->pick(100);
    if (way < 3 && !s->expected.listed.empty()) {  // the same again
        const auto at = s->expected.listed.lower_bound(s->clock - s->pick(DAY_S));
        return at == s->expected.listed.end() ? s->expected.listed.begin()->first : at->first;
    }
    if (way < 5) {  // late, or the clock was put back for one clip
        return std::max(1U, s->clock - std::min(s->clock - 1, s->pick(2 * DAY_S)));
    }
    if (way == 5) {  // one single clip of a camera that does not know the time, or knows a wrong one
        const uint32_t strange[] = {1 + s->pick(DAY_S), NEWEST_TS - s->pick(3), s->clock / 2 + 1};
        return strange[s->pick(sizeof strange / sizeof *strange)];
    }
    const uint32_t length = 1 + s->pick(2 * MINUTE_S);  // gaps and jitter
    s->clock = NEWEST_TS - s->clock < length ? START : s->clock + length;
    return s->clock;
}

void add_files(session* s, uint32_t ts) {
    if (s->expected.files.insert(ts).second) {
        tell("files made", ts);
        s->card.add_clip(ts);
    }
}

void remove_files(session* s, uint32_t ts) {
    if (s->expected.files.erase(ts) > 0) {
        tell("files removed", ts);
        s->card.remove_clip(ts);
    }
}

void write_clip(session* s) {
    const uint32_t ts = next_ts(s);
    // Files cost more than everything else here: a few show all that there is to see.
    if (s->one_in(25)) {
        add_files(s, ts);
        if (s->one_in(20) && !s->expected.listed.contains(ts) && !s->expected.deleted.contains(ts)) {
            tell("not announced", ts);
            s->expected.unannounced.insert(ts);
            return;  // the announcement is lost
        }
    }
    const clip c = {static_cast<uint8_t>(s->pick(256)), static_cast<uint8_t>(s->one_in(16) ? KYT_PERSISTENT : 0)};
    char text[32];
    std::snprintf(text, sizeof text, "%u,%u,%u", ts, c.seconds, c.flags);
    kyt_record record = {};
    if (kyt_record_parse(&record, text, std::strlen(text)) != 0) {
        fail(ts, "cannot parse \"%s\"", text);
    }
    // A comparison that runs just now may have come first, for a clip of an hour that is over.
    const bool may_be_known = s->expected.unannounced.erase(ts) > 0 || s->expected.files.contains(ts);
    const bool known = s->expected.listed.contains(ts);
    const int result = kyt_write(s->list, &record);
    tell(result == 0 ? "written" : "refused", ts);
    if (result < 0 && errno == EEXIST && (known || may_be_known)) {
        *kyt_get(s->list, ts) = record;  // as the daemon does with a clip that is announced again
    } else if (result < 0) {
        fail(ts, "kyt_write: %s", std::strerror(errno));
    } else if (known) {
        fail(ts, "written twice");
    }
    s->expected.listed[ts] = c;
    s->expected.deleted.erase(ts);
    if (s->one_in(500)) {
        s->held = kyt_get(s->list, ts);
        s->held_ts = ts;
    }
}

// An existing ts mostly, at any place of the list.
uint32_t any_ts(session* s) {
    if (s->expected.listed.empty() || s->one_in(10)) {
        return 1 + s->pick(NEWEST_TS);
    }
    const uint32_t first = s->expected.listed.begin()->first;
    const uint32_t last = s->expected.listed.rbegin()->first;
    const uint32_t around = s->one_in(2) ? first + s->pick(last - first + 1 == 0 ? NEWEST_TS : last - first + 1)
                                         : s->clock - std::min(s->clock, s->pick(s->limit * MINUTE_S));
    const auto at = s->expected.listed.lower_bound(around);
    return at == s->expected.listed.end() ? first : at->first;
}

void check_next(session* s, const kyt_record* record, std::map<uint32_t, clip>::const_iterator after) {
    const kyt_record* const next = kyt_next(s->list, record);
    const uint32_t wanted = after == s->expected.listed.end() ? 0 : after->first;
    if ((next ? next->ts : 0) != wanted && !(next && s->expected.unannounced.contains(next->ts))) {
        fail(next && !s->expected.listed.contains(next->ts) ? next->ts : wanted, "%u is followed by %u, not by %u",
             record->ts, next ? next->ts : 0, wanted);
    }
}

void delete_clip(session* s, uint32_t ts) {
    tell("deleted", ts);
    kyt_record* const record = kyt_get(s->list, ts);
    const auto at = s->expected.listed.find(ts);
    if (!record || at == s->expected.listed.end() || kyt_mark_deleted(s->list, record) != 0) {
        fail(ts, "cannot be deleted");
    }
    s->expected.marks[ts] = at->second;
    if (s->expected.files.contains(ts)) {
        if (s->one_in(4)) {
            s->expected.deleted[ts] = at->second;  // the files stay: they are in use, or the card refuses
        } else {
            remove_files(s, ts);
        }
    }
    const auto after = s->expected.listed.erase(at);
    check_next(s, record, after);
    if (kyt_get(s->list, ts) || kyt_mark_deleted(s->list, record) == 0) {
        fail(ts, "deleted and still there");
    }
    if (s->held_ts == ts) {
        s->held = nullptr;
    }
}

void look_up(session* s) {
    const uint32_t ts = any_ts(s);
    const kyt_record* const record = kyt_get(s->list, ts);
    const auto at = s->expected.listed.find(ts);
    if (!record != (at == s->expected.listed.end()) && !s->expected.unannounced.contains(ts)) {
        fail(ts, "%s", record ? "found and should not be" : "not found");
    }
    if (!record || at == s->expected.listed.end()) {
        return;
    }
    const clip found = {static_cast<uint8_t>(kyt_record_seconds(record)), record->flags};
    const auto after = std::next(at);
    if (found != at->second) {
        fail(ts, "%u s and flags %u", found.seconds, found.flags);
    }
    check_next(s, record, after);
}

void mark(session* s) {
    const auto at = s->expected.listed.find(any_ts(s));
    if (at == s->expected.listed.end()) {
        return;
    }
    at->second.flags ^= KYT_PERSISTENT;
    kyt_get(s->list, at->first)->flags ^= KYT_PERSISTENT;
}

// Files go without the list being told: a person with the card in a workstation, a deletion that comes late.
void lose_files(session* s) {
    if (s->expected.files.empty()) {
        return;
    }
    auto at = s->expected.files.lower_bound(s->pick(NEWEST_TS));
    const uint32_t ts = at == s->expected.files.end() ? *s->expected.files.begin() : *at;
    if (!s->expected.unannounced.contains(ts)) {
        remove_files(s, ts);
        s->expected.deleted.erase(ts);
    }
}

// Thousands of clips go at once, from anywhere but the ends.
void delete_many(session* s) {
    constexpr uint32_t MANY = 10'000;
    tell("many deleted", 0);
    while (s->expected.listed.size() < MANY + 1000) {
        write_clip(s);
    }
    std::vector<uint32_t> chosen;
    auto at = std::next(s->expected.listed.begin(), 400);
    for (uint32_t i = 0; i < MANY; ++i) {
        chosen.push_back(at++->first);
    }
    if (s->one_in(2)) {
        std::shuffle(chosen.begin(), chosen.end(), s->random);
    }
    for (const uint32_t ts : chosen) {
        delete_clip(s, ts);
    }
    compare(s);
}

// A full card: each clip takes the place of one that goes. Its file must not grow, and an hour of the folder that
// cannot be read keeps the slots of its own clips only.
void go_round(session* s) {
    constexpr uint32_t ROUNDS = 40;
    constexpr uint32_t CLIPS = 400;
    tell("round and round", 0);
    for (uint32_t round = 0; round < ROUNDS; ++round) {
        for (uint32_t i = 0; i < CLIPS; ++i) {
            write_clip(s);
            while (s->expected.listed.size() > CLIPS) {
                delete_clip(s, s->expected.listed.begin()->first);
            }
        }
        await_comparison(s);
        start_comparison(s);
    }
    s->held = nullptr;
    await_commit(s);
    // What there ever was at once: the clips before, those that wait for one comparison and for the next.
    const auto most = static_cast<uint32_t>(s->most_listed + s->expected.deleted.size() + size_t{8} * CLIPS);
    const auto size = std::filesystem::file_size(s->card.file(kyt::LIST_NAME));
    if (size > kyt::file_bytes(most) + kyt::STEP_BYTES) {
        fail(0, "%zu clips at most, and the file has grown to %zu bytes", s->most_listed, static_cast<size_t>(size));
    }
}

void operate(session* s) {
    s->most_listed = std::max(s->most_listed, s->expected.listed.size());
    if (s->held && (s->held->ts != s->held_ts || kyt_get(s->list, s->held_ts) != s->held)) {
        fail(s->held_ts, "the record has moved");
    }
    const uint32_t what = s->pick(100'000);
    if (what < 30) {
        reopen(s);
    } else if (what < 80) {
        optimise(s);
    } else if (what < 130) {
        compare(s);
    } else if (what < 150) {
        s->limit = 1U << (2 + s->pick(13));
    } else if (what < 200) {
        lose_files(s);
    } else if (what < 205) {
        set_clock(s);
    } else if (what < 210) {
        read_from_outside(s);
    } else if (what == 210 && s->one_in(10)) {
        delete_many(s);
    } else if (what == 211 && s->one_in(10)) {
        go_round(s);
    } else if (what < 45'000) {
        write_clip(s);
        while (s->expected.listed.size() > s->limit) {
            delete_clip(s, s->expected.listed.begin()->first);
        }
    } else if (what < 55'000) {
        if (!s->expected.listed.empty()) {
            const uint32_t ts = any_ts(s);
            if (s->expected.listed.contains(ts)) {
                delete_clip(s, ts);
            }
        }
    } else if (what < 70'000) {
        mark(s);
    } else {
        look_up(s);
    }
}

}  // namespace

// Repairs are what is tested here, so their words are of no interest; an error would be.
extern "C" {
void log_err(const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    fail(0, "the library says: %s", text);
}
void log_warning(const char*, ...) {}
void log_info(const char*, ...) {}
}

int main(int argc, char** argv) {
    const uint64_t operations = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 100'000;
    const auto first = static_cast<unsigned>(argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1);
    constexpr uint64_t A_SESSION = 1'000'000;  // then a new card: nothing is to hide behind an early event
    if (operations == 0) {
        std::fputs("usage: kyt_model [OPERATIONS [SEED]]\n", stderr);
        return 2;
    }
    the_onlooker.start();
    await_threads();
    // Hours of the folder that cannot be read.
    libc_calls::before("openat", [](const libc_calls::called& c) { return unreadable == c.name ? EIO : 0; });
    timespec start = {};
    clock_gettime(CLOCK_MONOTONIC, &start);
    uint64_t done = 0;
    for (seed = first; done < operations; ++seed) {
        session s(seed);
        story.clear();
        unreadable.clear();
        libc_calls::set_time(s.now);
        open_list(&s);
        const uint64_t wanted = std::min(A_SESSION, operations - done);
        for (step = 0; step < wanted; ++step) {
            operate(&s);
        }
        reopen(&s);
        kyt_close(s.list);
        done += wanted;
    }
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    const double took =
        static_cast<double>(end.tv_sec - start.tv_sec) + static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9;
    std::printf("kyt_model: %" PRIu64 " operations from seed %u agree with the reference, in %.1f s, %.0f a second\n",
                done, first, took, static_cast<double>(done) / took);
    return 0;
}
