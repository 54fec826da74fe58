// Power cuts under the list's files: kyt_cuts [CUTS [SEED]]
//
// This is the stage without an emulated card: the library works on files in memory, and between it and them the calls
// that bring data to a card are watched. From what was synchronised, and what was written since, images are made of
// what a card may hold when the power goes: of each sector any version since the last synchronisation, of each file
// that was made or removed since then the old or the new state, and sometimes a sector of noise. Each image is opened
// for real, together with the clips' names, and cut once more in the middle of the repair. Afterwards
//   - every record that had been synchronised is there, with its mark and its duration, unless noise hit its sector,
//   - every clip on the card is listed, and nothing that never was,
//   - no file of a clip has been touched, and after noise the log has said so.
// What a filesystem does to its own tables in a cut is not seen here.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "handle.h"
#include "keeper.h"
#include "kyt_rdonly.h"
#include "support/card_calls.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t BASE = 1'700'000'000;
constexpr size_t SECTOR = 512;
constexpr size_t MAX_VERSIONS = 8;  // of a file since its last synchronisation: the newest count

std::mutex log_guard;
std::vector<std::string> log_lines;
const char* workload = "";
std::string image_text;  // what lies on the image before it is opened
uint64_t cuts;
unsigned seed = 1;

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
    std::fprintf(stderr, "kyt_cuts: seed %u, %s, cut %" PRIu64 ": ", seed, workload, cuts);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fprintf(stderr, "\n image:%s\n", image_text.c_str());
    for (const std::string& line : log_lines) {
        std::fprintf(stderr, "  %s\n", line.c_str());
    }
    std::_Exit(1);
}

struct clip {
    uint8_t seconds;
    uint8_t flags;
    uint64_t changed;  // the operation that did it
};
using clips = std::map<uint32_t, clip>;

// One file as the card knows it.
struct file_state {
    bool durable = false;               // its name is certainly there
    uint64_t synced = 0;                // the operation after which the newest synchronisation began
    std::string bytes;                  // what of it certainly is
    std::vector<std::string> versions;  // what has been written since, oldest first
};

struct rig {
    recordings card;   // on which the library works
    recordings image;  // what is left of it after a cut
    kyt_handle* list = nullptr;
    std::mt19937 random{1};
    std::mutex guard;  // the loop's operations and the keeper's calls, one at a time
    std::map<std::string, file_state> files;
    clips now;
    uint64_t operation = 1;
    uint64_t kept = 0;        // what was changed up to this operation is certainly on the card
    std::set<uint32_t> ever;  // clips that were announced at any time
    bool watching = false;
    uint64_t wanted = 0;
    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random() % below); }
};

rig* the_rig;
thread_local bool checking;               // what this thread does is not the library's work but the check of an image
thread_local std::string bytes_at_start;  // of the file that is being synchronised
thread_local uint64_t operation_at_start;
thread_local bool has_begun;
std::atomic<bool> cutting;  // what is synchronised now is an image's

bool is_list(const std::string& name) {
    return name.starts_with("KYT_");
}

void note_versions(rig* r) {
    for (const std::string& name : r->card.files()) {
        file_state& file = r->files[name];
        std::string bytes = r->card.bytes(name);
        if (bytes != (file.versions.empty() ? file.bytes : file.versions.back())) {
            file.versions.push_back(std::move(bytes));
            if (file.versions.size() > MAX_VERSIONS) {
                file.versions.erase(file.versions.begin());
            }
        }
    }
}

void make_image(rig* r, bool* noise) {
    for (const std::string& name : r->image.files()) {
        std::filesystem::remove_all(r->image.file(name));
    }
    std::vector<std::pair<std::string, std::string>> made;
    for (const auto& [name, file] : r->files) {
        const bool there = r->card.has(name);
        if (there != file.durable && r->pick(2) == 0) {
            continue;
        }
        if (!there && !file.durable) {
            continue;
        }
        std::string bytes = file.bytes;
        if (!file.versions.empty()) {
            const std::string& last = file.versions[r->pick(static_cast<uint32_t>(file.versions.size()))];
            bytes.resize(std::max(bytes.size(), last.size()));
            // All of it, none of it, or each sector for itself.
            const uint32_t way = r->pick(4);
            for (size_t at = 0; at < bytes.size(); at += SECTOR) {
                const uint32_t which = r->pick(static_cast<uint32_t>(file.versions.size()) + 1);
                const std::string& from = way == 0     ? last
                                          : way == 1   ? file.bytes
                                          : which == 0 ? file.bytes
                                                       : file.versions[which - 1];
                if (at + SECTOR <= from.size()) {
                    bytes.replace(at, SECTOR, from, at, SECTOR);
                }
            }
        }
        made.emplace_back(name, std::move(bytes));
    }
    *noise = !made.empty() && r->pick(5) == 0;
    if (*noise) {
        // In the header or among the records: noise behind them would be noise that nobody reads.
        std::string& bytes = made[r->pick(static_cast<uint32_t>(made.size()))].second;
        const size_t sectors = std::min<size_t>(bytes.size() / SECTOR, 8 + r->now.size() * 8 / SECTOR + 1);
        const size_t at = r->pick(static_cast<uint32_t>(std::max<size_t>(sectors, 1))) * SECTOR;
        for (size_t i = at; i < std::min(at + SECTOR, bytes.size()); ++i) {
            bytes[i] = static_cast<char>(r->random());
        }
    }
    image_text.clear();
    for (const auto& [name, bytes] : made) {
        r->image.set_bytes(name, bytes);
        kyt::list_header header = {};
        std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
        image_text += " " + name + ": " + std::to_string(bytes.size()) + " bytes, state " +
                      std::to_string(header.state) + ", records " + std::to_string(header.records) + (r->card.has(name) ? ";" : " (removed);");
    }
}

// The threads of lists that were left end by themselves; until then they may write.
void await_alone() {
    const auto tasks = [] {
        const auto all = std::filesystem::directory_iterator("/proc/self/task");
        return std::distance(begin(all), end(all));
    };
    for (int wait = 0; wait < 100'000 && tasks() > 1 + (the_rig->list ? 1 : 0); ++wait) {
        usleep(20);
    }
}

uint64_t torn_repairs;
uint64_t used_again;  // slots

// A repair that the power ends: of the sectors that it writes any may be on the card, once the header says "open".
void cut_repair(rig* r) {
    const bool had = r->image.has("KYT.LST");
    const std::set<std::string> names = r->image.files();
    const std::string before = had ? r->image.bytes("KYT.LST") : "";
    kyt_handle* const list = kyt::open_folder(r->image.path().c_str());
    if (!list || !kyt::settle(list)) {
        fail("a repair does not come to its end");
    }
    kyt_close_dirty(list);
    await_alone();
    if (!had || names != r->image.files()) {
        return;  // made anew: sealed when all of it is there
    }
    std::string bytes = r->image.bytes("KYT.LST");
    const uint32_t way = r->pick(4);
    if (way == 0) {
        bytes = before;
    }
    for (size_t at = SECTOR; way > 0 && at + SECTOR <= bytes.size(); at += SECTOR) {
        if (r->pick(2) == 0) {
            bytes.replace(at, SECTOR, at + SECTOR <= before.size() ? before.substr(at, SECTOR) : std::string(SECTOR, 0));
            ++torn_repairs;
        }
    }
    r->image.set_bytes("KYT.LST", bytes);
}

void check_image(rig* r, bool noise) {
    kyt_handle* const found = kyt::open_folder(r->image.path().c_str());
    if (!found) {
        fail("does not open: %s", std::strerror(errno));
    }
    uint32_t hurt = 0;
    for (const auto& [ts, state] : r->now) {
        const kyt_record* const record = kyt_get(found, ts);
        if (!record) {
            fail("clip %u is on the card and not listed", ts);
        }
        if (state.changed > r->kept) {
            continue;
        }
        if (record->flags != state.flags || kyt_record_seconds(record) != state.seconds) {
            ++hurt;
            if (!noise) {
                fail("clip %u has %u s and flags %u instead of %u s and %u", ts, kyt_record_seconds(record),
                     record->flags, state.seconds, state.flags);
            }
        }
    }
    if (hurt > SECTOR / sizeof(kyt_record)) {
        fail("one sector of noise cost %u records", hurt);
    }
    const std::lock_guard lock(log_guard);
    if (hurt > 0 && std::none_of(log_lines.begin(), log_lines.end(), [](const std::string& line) {
            return line.find("marks may be lost") != std::string::npos;
        })) {
        fail("%u marks are lost and the log does not say so", hurt);
    }
    for (const kyt_record* record = kyt_next(found, nullptr); record; record = kyt_next(found, record)) {
        if (!r->ever.contains(record->ts)) {
            fail("%u is listed and never was", record->ts);
        }
    }
    kyt_close_dirty(found);
    await_alone();
}

std::set<std::string> clip_files(const rig& r) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(r.image.path())) {
        if (!is_list(entry.path().filename())) {
            names.insert(entry.path());
        }
    }
    return names;
}

// The power goes now. Called with the guard held.
void cut(rig* r) {
    checking = cutting = true;
    note_versions(r);
    const int images = 4;
    for (int i = 0; i < images && cuts < r->wanted; ++i) {
        ++cuts;
        bool noise = false;
        make_image(r, &noise);
        {
            const std::lock_guard lock(log_guard);
            log_lines.clear();
        }
        const bool look = cuts % 64 == 0;  // at every file: that is what takes time
        const std::set<std::string> before = look ? clip_files(*r) : std::set<std::string>();
        if (r->pick(3) == 0) {
            // A second cut: from some call of the repair on nothing reaches the card any more.
            card_calls::fail("", 1 + static_cast<int>(r->pick(30)), EIO, 1'000'000);
            kyt_close_dirty(kyt::open_folder(r->image.path().c_str()));
            card_calls::fail("", 0, 0, 0);
            await_alone();
        } else if (r->pick(2) == 0) {
            cut_repair(r);
        }
        check_image(r, noise);
        if (look && clip_files(*r) != before) {
            fail("a clip's file was touched");
        }
    }
    checking = cutting = false;
}

void before_sync(const std::string& name) {
    rig* const r = the_rig;
    has_begun = false;
    if (checking || !r->watching || cutting) {
        return;
    }
    const std::lock_guard lock(r->guard);
    note_versions(r);
    if (r->pick(3) == 0) {
        cut(r);
    }
    bytes_at_start = r->card.has(name) ? r->card.bytes(name) : std::string();
    operation_at_start = r->operation;
    has_begun = true;
}

void after_sync(const std::string& name) {
    rig* const r = the_rig;
    if (checking || !r->watching || !has_begun) {
        return;
    }
    const std::lock_guard lock(r->guard);
    if (!is_list(name)) {
        // The folder itself: what is gone is gone, what is there is there.
        std::erase_if(r->files, [&](const auto& file) { return !r->card.has(file.first); });
        for (auto& [file_name, file] : r->files) {
            file.durable = true;
        }
        return;
    }
    file_state& file = r->files[name];
    file.durable = true;
    if (operation_at_start < file.synced) {
        return;  // one that began later was quicker
    }
    file.synced = operation_at_start;
    file.bytes = bytes_at_start;
    file.versions.clear();
    note_versions(r);
}

void write_clip(rig* r, uint32_t ts, uint8_t flags) {
    char text[32];
    const clip c = {static_cast<uint8_t>(1 + r->pick(255)), flags, ++r->operation};
    std::snprintf(text, sizeof text, "%u,%u,%u", ts, c.seconds, c.flags);
    const kyt_record record = record_of(text);
    const bool again = r->list->next_empty < r->list->empty.size;
    if (r->now.contains(ts) || kyt_write(r->list, &record) < 0) {
        return;
    }
    used_again += again ? 1 : 0;
    r->now[ts] = c;
    r->ever.insert(ts);
    r->image.add_clip(ts);
}

void delete_clip(rig* r, uint32_t ts) {
    if (kyt_mark_deleted(r->list, kyt_get(r->list, ts)) < 0) {
        fail("cannot delete %u", ts);
    }
    ++r->operation;
    r->now.erase(ts);
    r->image.remove_clip(ts);
}

void mark(rig* r, uint32_t from) {
    auto at = r->now.lower_bound(from);
    at = at == r->now.end() ? r->now.begin() : at;
    at->second.flags ^= KYT_PERSISTENT;
    at->second.changed = ++r->operation;
    kyt_get(r->list, at->first)->flags ^= KYT_PERSISTENT;
}

// What the loop does, in so many of a thousand steps; the rest is writing a clip.
struct load {
    const char* name;
    uint32_t limit;  // clips that are kept
    uint32_t marks, late, deletions, batches, optimise, flush, pulls;
};
constexpr load LOADS[] = {
    {"recording", 1000, 0, 10, 0, 0, 2, 250, 2},        {"recording on a full card", 150, 0, 10, 100, 0, 20, 250, 2},
    {"batch deletion", 400, 50, 10, 0, 15, 20, 250, 2}, {"marks", 200, 500, 10, 20, 0, 5, 250, 2},
    {"optimise", 200, 100, 150, 100, 2, 100, 150, 2},
    {"slots used again", 1500, 150, 50, 150, 5, 150, 200, 2},   {"format and pulls", 20, 100, 50, 100, 0, 50, 200, 150},
};

void open_list(rig* r) {
    r->list = nullptr;
    kyt_handle* const list = kyt::open_folder(r->card.path().c_str());
    if (!list) {
        fail("the card does not open: %s", std::strerror(errno));
    }
    const std::lock_guard lock(r->guard);
    r->list = list;
}

void await_keeper(rig* r) {
    for (int wait = 0; wait < 100'000; ++wait) {
        const kyt::phase at = r->list->keeper->at;
        if (at == kyt::phase::DONE || at == kyt::phase::IDLE) {
            return;
        }
        usleep(50);
    }
    fail("the keeper does not end its job");
}

void step(rig* r, const load& l, uint32_t* clock) {
    uint32_t what = r->pick(1000);
    const auto chosen = [&](uint32_t share) {
        const bool is = what < share;
        what -= is ? 0 : share;
        return is;
    };
    if (chosen(l.flush)) {
        const uint64_t operation = r->operation;
        if (!kyt::settle(r->list)) {
            fail("the keeper does not bring it to the card");
        }
        const std::lock_guard lock(r->guard);
        r->kept = operation;
        return;
    }
    if (chosen(l.optimise)) {
        {
            const std::lock_guard lock(r->guard);
            kyt_optimise(r->list);
        }
        if (r->pick(2) == 0) {
            await_keeper(r);
        }
        return;
    }
    if (chosen(l.pulls)) {
        // In good order, so that the card that goes on is the one that is known.
        await_keeper(r);
        // An open puts the list in order: closed once more as it is, it may be taken over unread.
        for (uint32_t times = 1 + r->pick(3); times > 0; --times) {
            kyt_close(r->list);
            open_list(r);
        }
        const std::lock_guard lock(r->guard);
        r->kept = r->operation;
        return;
    }
    const std::lock_guard lock(r->guard);
    if (!r->now.empty() && chosen(l.marks)) {
        mark(r, *clock - r->pick(l.limit * 60));
    } else if (!r->now.empty() && chosen(l.deletions)) {
        delete_clip(r, r->now.begin()->first);
    } else if (chosen(l.batches)) {
        for (uint32_t i = r->pick(200); i > 0 && !r->now.empty(); --i) {
            delete_clip(r, r->now.begin()->first);
        }
    } else {
        *clock += 30 + r->pick(60);
        write_clip(r, chosen(l.late) ? *clock - 3600 : *clock, r->pick(8) == 0 ? KYT_PERSISTENT : 0);
        while (r->now.size() > l.limit) {
            delete_clip(r, r->now.begin()->first);
        }
    }
    if (r->pick(4) == 0) {
        cut(r);
    }
}

void run(const load& l, uint64_t wanted) {
    workload = l.name;
    rig r;
    the_rig = &r;
    r.random.seed(seed);
    r.wanted = cuts + wanted;
    r.watching = true;
    card_calls::hooks hooks;
    hooks.before_sync = before_sync;
    hooks.after_sync = after_sync;
    card_calls::set_hooks(hooks);
    open_list(&r);
    uint32_t clock = BASE;
    while (cuts < r.wanted) {
        step(&r, l, &clock);
    }
    await_keeper(&r);
    r.watching = false;
    kyt_close(r.list);
    card_calls::reset();
}

void keep_line(const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    const std::lock_guard lock(log_guard);
    if (log_lines.size() < 20) {
        log_lines.emplace_back(text);
    }
}

}  // namespace

#define KEEP_LINES(name)                            \
    extern "C" void name(const char* format, ...) { \
        va_list args;                               \
        va_start(args, format);                     \
        keep_line(format, args);                    \
        va_end(args);                               \
    }
KEEP_LINES(log_err)
KEEP_LINES(log_warning)
KEEP_LINES(log_info)

int main(int argc, char** argv) {
    const uint64_t wanted = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1200;
    seed = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : 1;
    constexpr uint64_t A_RUN = 2000;  // cuts of a workload before a new card
    if (wanted == 0) {
        std::fputs("usage: kyt_cuts [CUTS [SEED]]\n", stderr);
        return 2;
    }
    const unsigned first = seed;
    const uint64_t share = wanted / (sizeof LOADS / sizeof *LOADS) + 1;
    for (; cuts < wanted; ++seed) {
        for (const load& l : LOADS) {
            run(l, std::min(A_RUN, share));
        }
    }
    std::printf("kyt_cuts: %" PRIu64 " cuts from seed %u, nothing lost, %" PRIu64 " sectors of repairs torn, %" PRIu64 " slots used again\n", cuts, first, torn_repairs, used_again);
    return 0;
}
