// Power cuts under the list's file: kyt_cuts [CUTS [SEED [WORKLOAD]]]
//
// The library works on files in memory, and the calls by which it reaches them are watched (torn_card.h). Cuts come
// before calls and between operations of the loop. Each makes an image of what a card may hold then; some images are
// damaged as well: a sector of noise, of zeros or of another sector's records, a page that the card does not give any
// more, the other byte order. In many of them the repair is cut in its turn, once or several times, with any part of
// what it wrote. Then the image is opened, beside the names of the clips that exist. What must hold:
//   - every clip on the card is listed; with its duration and its mark if they were on the card, which kyt::settle
//     says, and their sector is not the one that was damaged. Deleted clips whose files are still there come back so.
//   - a clip whose deletion was on the card is not listed, and nothing is that never was.
//   - where marks are lost the log has said so, and no file of a clip has been touched.
// Now and then the card goes on being used as a cut has left it. What a filesystem does to its own tables in a cut is
// not seen here.
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
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "format.h"
#include "handle.h"
#include "keeper.h"
#include "kyt_rdonly.h"
#include "record.h"
#include "support/recordings.h"
#include "torn_card.h"

namespace {

using torn::PAGE;
using torn::SECTOR;

constexpr uint32_t BASE = 1'700'000'000;
constexpr uint64_t NEVER = UINT64_MAX;

// What the loop does, in so many of a thousand steps; the rest is writing a clip.
struct load {
    const char* name;
    uint32_t limit;  // clips that are kept
    uint32_t marks, late, deletions, batches, optimise, settle, pulls, cuts_lived, refused;
    uint32_t filled = 0;  // clips from the beginning
    uint32_t burst = 0;   // clips with each one that go at once, so that the file grows
};
constexpr load LOADS[] = {
    {"recording", 1000, 50, 10, 0, 0, 2, 100, 2, 2, 0},
    {"full card", 150, 50, 10, 100, 0, 20, 100, 2, 4, 0},
    {"batch deletion", 400, 50, 10, 0, 15, 20, 100, 2, 4, 0},
    {"marks", 200, 500, 10, 20, 0, 5, 100, 2, 4, 0},
    {"slots used again", 500, 150, 50, 100, 5, 50, 100, 2, 4, 0},
    {"growth", 100, 30, 10, 20, 0, 0, 100, 2, 2, 0, 0, 60},
    {"a long list", 4600, 100, 20, 100, 5, 20, 100, 2, 4, 0, 4400},
    {"refused", 300, 200, 20, 100, 5, 50, 50, 2, 4, 2},
    {"format and pulls", 20, 100, 50, 100, 0, 50, 100, 100, 10, 0},
};

struct clip {
    uint8_t seconds;
    uint8_t flags;
    uint64_t changed;         // the operation that did it
    bool is_known = true;     // to the list; otherwise its announcement was lost
    bool is_deleted = false;  // and its files are still there
};

// What an image was made of, and what of it the damage may have cost.
struct image {
    torn::remains files;
    std::set<uint32_t> hit = {};                              // clips whose records were in what was damaged
    std::map<uint32_t, std::vector<kyt_record>> strays = {};  // whole records in places that are not theirs
    std::set<uint32_t> mistaken = {};                         // of no clip, and may be listed
    bool is_damaged = false;
    bool is_silent = false;    // in a way that nobody can see
    bool is_nameless = false;  // a file had no name for a while
    std::string text = {};
};

std::mutex log_guard;
std::vector<std::string> log_lines;
std::string image_text;
const char* workload = "";
std::atomic<uint32_t> cuts;
unsigned seed = 1;
struct {
    uint64_t repairs_cut, slots_used_again, grown, long_lists, renames, nameless, turned, bad_pages, refused, lived,
        strays, marks_lost;
} counts;

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
    std::fprintf(stderr, "kyt_cuts: seed %u, %s, cut %" PRIu32 ": ", seed, workload, cuts.load());
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

struct rig {
    recordings folder;        // on which the library works
    recordings image_folder;  // what is left of it after a cut
    torn::card card{folder.path()};
    torn::card image_card{image_folder.path()};
    kyt_handle* list = nullptr;
    std::mt19937 steps{1};  // the loop's alone
    std::mutex guard;       // of all that follows, between the loop's operations and the keeper's calls
    std::mt19937 chance{1};
    std::map<uint32_t, clip> clips;     // whose files are on the card
    std::map<uint32_t, uint64_t> gone;  // others that were announced at any time, and the operation that deleted them
    std::map<const kyt_record*, uint32_t> slots;  // by which clip each was used last
    uint64_t operation = 1;
    uint64_t kept = 0;  // what was done up to this operation is certainly on the card
    uint64_t wanted = 0;
    bool is_watching = false;
    uint32_t refuse = 0;  // one of so many syncs and writes
    uint32_t step_pick(uint32_t below) { return static_cast<uint32_t>(steps() % below); }
    uint32_t pick(size_t below) { return static_cast<uint32_t>(chance() % below); }
};

thread_local bool is_cutting;
nlink_t threads() {
    struct stat tasks = {};
    return stat("/proc/self/task", &tasks) == 0 ? tasks.st_nlink - 2 : 0;  // two links of the folder's own
}
const nlink_t threads_at_start = threads();             // an emulator has some of its own
thread_local nlink_t other_threads = threads_at_start;  // than those of lists that are left

// --- images ---

// The clips whose records are in these bytes of a list.
void add_records(const std::string& bytes, size_t from, size_t size,
                 std::map<uint32_t, std::vector<kyt_record>>* found) {
    for (size_t at = std::max(from, PAGE); at + sizeof(kyt_record) <= std::min(from + size, bytes.size());
         at += sizeof(kyt_record)) {
        kyt_record record;
        std::memcpy(&record, bytes.data() + at, sizeof record);
        const kyt::slot kind = kyt::slot_kind(record);
        if (kind == kyt::slot::LIVE || kind == kyt::slot::DELETED) {
            (*found)[record.ts].push_back(record);
        }
    }
}

std::set<uint32_t> clips_in(const std::string& bytes, size_t from, size_t size) {
    std::map<uint32_t, std::vector<kyt_record>> found;
    add_records(bytes, from, size, &found);
    std::set<uint32_t> clips;
    for (const auto& [ts, records] : found) {
        clips.insert(ts);
    }
    return clips;
}

size_t used_end(const std::string& bytes) {
    const size_t last = bytes.find_last_not_of('\0');
    return last == std::string::npos || last < PAGE ? PAGE : last + 1;
}

kyt::list_header header_of(const std::string& bytes) {
    kyt::list_header header = {};
    std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
    return header;
}

// What a machine of the other byte order would have written.
void turn(std::string* bytes) {
    kyt::list_header header = header_of(*bytes);
    constexpr size_t CHECKED = offsetof(kyt::list_header, check);
    for (size_t at = sizeof header.magic; at < CHECKED; at += 4) {
        std::reverse(bytes->begin() + static_cast<long>(at), bytes->begin() + static_cast<long>(at + 4));
    }
    uint32_t crc = ~0U;
    for (size_t i = 0; i < CHECKED; ++i) {
        crc ^= static_cast<uint8_t>((*bytes)[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1)));
        }
    }
    crc = __builtin_bswap32(~crc);
    std::memcpy(bytes->data() + CHECKED, &crc, sizeof crc);
    for (size_t at = PAGE; at + sizeof(kyt_record) <= bytes->size(); at += sizeof(kyt_record)) {
        std::reverse(bytes->begin() + static_cast<long>(at), bytes->begin() + static_cast<long>(at + 4));
    }
}

// A record that is whole in either byte order may be taken for another clip's while a list is turned: one in 32,768.
void add_ambiguous(const std::string& bytes, image* made) {
    for (size_t at = PAGE; at + sizeof(kyt_record) <= bytes.size(); at += sizeof(kyt_record)) {
        kyt_record record;
        std::memcpy(&record, bytes.data() + at, sizeof record);
        const auto is_record = [](kyt::slot kind) { return kind == kyt::slot::LIVE || kind == kyt::slot::DELETED; };
        const kyt_record other = kyt::swapped(record);
        if (is_record(kyt::slot_kind(record)) && is_record(kyt::slot_kind(other))) {
            made->hit.insert(record.ts);
            made->mistaken.insert(other.ts);
            made->is_silent = true;
        }
    }
}

// Makes a sector's records what they were before anybody marked a clip.
void take_marks(std::string* bytes, size_t at) {
    for (size_t i = at; i < at + SECTOR; i += sizeof(kyt_record)) {
        kyt_record record;
        std::memcpy(&record, bytes->data() + i, sizeof record);
        if (kyt::is_live(record)) {
            (*bytes)[i + offsetof(kyt_record, flags)] = 0;
        }
    }
}

// One sector of a list is not what was written.
void hurt_sector(rig* r, const std::string& name, image* made) {
    torn::file& f = made->files.files.at(name);
    const size_t end = (used_end(f.bytes) + SECTOR - 1) / SECTOR * SECTOR;
    const uint32_t way = r->pick(3);
    // The header, or one among the records: behind them nobody reads.
    const size_t sectors = (end - PAGE) / SECTOR;
    const uint32_t which = r->pick(sectors + 1);
    const size_t at = which == sectors ? 0 : PAGE + which * SECTOR;
    if (at + SECTOR > f.bytes.size()) {
        return;
    }
    const std::string before = f.bytes.substr(at, SECTOR);
    const kyt::list_header header = header_of(f.bytes);
    for (const uint32_t ts : clips_in(f.bytes, at, SECTOR)) {
        made->hit.insert(ts);
    }
    if (way == 0) {
        std::generate_n(f.bytes.begin() + static_cast<long>(at), SECTOR,
                        [&] { return static_cast<char>(r->chance()); });
        made->text += ", noise at " + std::to_string(at);
    } else if (way == 1) {
        std::fill_n(f.bytes.begin() + static_cast<long>(at), SECTOR, '\0');
        // Of a list in use sectors may be on the card that lie behind others that are not.
        made->is_silent |= at >= PAGE && (header.state != static_cast<uint32_t>(kyt::file_state::CLOSED)) &&
                           (at - PAGE) / sizeof(kyt_record) + SECTOR / sizeof(kyt_record) > header.records;
        made->text += ", zeros at " + std::to_string(at);
    } else if (sectors > 1) {
        const size_t from = PAGE + r->pick(sectors) * SECTOR;
        f.bytes.replace(at, SECTOR, f.bytes, from, SECTOR);
        const bool is_old = at >= PAGE && at != from && r->pick(2) == 0;
        if (is_old) {
            take_marks(&f.bytes, at);
        }
        add_records(f.bytes, at, SECTOR, &made->strays);
        // Deleted or free ones that are there twice say nothing.
        const auto live = [&](size_t sector) {
            for (size_t i = sector; i < sector + SECTOR; i += sizeof(kyt_record)) {
                kyt_record record;
                std::memcpy(&record, f.bytes.data() + i, sizeof record);
                if (kyt::is_live(record)) {
                    return true;
                }
            }
            return false;
        };
        made->is_silent |= !live(from);
        made->text += ", sector " + std::to_string(from) + " also at " + std::to_string(at) +
                      (is_old ? " as it was before it had marks" : "");
    }
    made->is_damaged |= f.bytes.compare(at, SECTOR, before) != 0;
}

void damage(rig* r, image* made) {
    std::vector<std::string> names;
    for (const auto& [name, f] : made->files.files) {
        if (f.bytes.size() > PAGE) {
            names.push_back(name);
        }
    }
    if (names.empty()) {
        return;
    }
    const std::string& name = names[r->pick(names.size())];
    torn::file& f = made->files.files.at(name);
    const uint32_t way = r->pick(40);
    if (way < 7) {
        hurt_sector(r, name, made);
    } else if (way < 9 && used_end(f.bytes) > PAGE) {
        const size_t page = 1 + r->pick((used_end(f.bytes) - 1) / PAGE);
        f.bad_pages.insert(page);
        for (const uint32_t ts : clips_in(f.bytes, page * PAGE, PAGE)) {
            made->hit.insert(ts);
        }
        made->is_damaged = true;
        ++counts.bad_pages;
        made->text += ", page " + std::to_string(page) + " of " + name + " is bad";
    } else if (way < 11 && name == kyt::LIST_NAME && header_of(f.bytes).byte_order == 0x01020304) {
        add_ambiguous(f.bytes, made);
        turn(&f.bytes);
        ++counts.turned;
        made->text += ", of the other byte order";
    }
}

void describe(image* made, const char* what) {
    made->text += what;
    for (const auto& [name, f] : made->files.files) {
        const kyt::list_header header = header_of(f.bytes);
        made->text += " " + name + ": " + std::to_string(f.bytes.size()) + " bytes, state " +
                      std::to_string(header.state) + ", records " + std::to_string(header.records);
        for (const size_t at : f.stale) {
            add_records(f.bytes, at, SECTOR, &made->strays);
            made->text += ", stale at " + std::to_string(at);
        }
        counts.strays += f.stale.size();
        made->is_damaged |= !f.stale.empty();
        made->is_silent |= !f.stale.empty();
        counts.long_lists += used_end(f.bytes) > PAGE + 64 * SECTOR ? 1 : 0;
    }
    if (made->files.nameless) {
        ++counts.nameless;
        made->is_nameless = true;
        made->is_damaged = made->is_silent = true;
        made->text += " and a file without a name";
    }
    image_text = made->text;
}

// --- opening them ---

// The thread of a list that was left ends by itself; until then it may write, and holds the lock.
void await_threads() {
    for (int wait = 0; wait < 200'000; ++wait) {
        if (threads() <= other_threads) {
            return;
        }
        usleep(20);
    }
    fail("a keeper does not end");
}

bool matches(const kyt_record& record, const clip& c) {
    return record.flags == c.flags && kyt_record_seconds(&record) == c.seconds;
}

// What must hold of a list that was opened after a cut.
void judge(rig* r, kyt_handle* list, const image& made) {
    const auto main_list = made.files.files.find(kyt::LIST_NAME);
    const bool was_closed = main_list != made.files.files.end() &&
                            header_of(main_list->second.bytes).state == static_cast<uint32_t>(kyt::file_state::CLOSED);
    uint32_t lost = 0;
    for (const auto& entry : r->clips) {
        const uint32_t ts = entry.first;
        const auto& c = entry.second;
        const kyt_record* const record = kyt_get(list, ts);
        if (record == nullptr && was_closed && !c.is_known) {
            continue;  // a list that was closed is believed; a comparison finds the clip
        }
        if (record == nullptr) {
            fail("clip %u is on the card and not listed", ts);
        }
        if (c.changed > r->kept || !c.is_known || matches(*record, c)) {
            continue;
        }
        const auto stray = made.strays.find(ts);
        const bool is_stray = stray != made.strays.end() &&
                              std::any_of(stray->second.begin(), stray->second.end(), [&](const kyt_record& other) {
                                  return other.flags >= c.flags && other.flags == record->flags &&
                                         kyt_record_seconds(&other) == kyt_record_seconds(record);
                              });
        if (is_stray) {
            continue;
        }
        if (!made.hit.contains(ts) && !made.is_nameless) {
            fail("clip %u has %u s and flags %u instead of %u s and %u", ts, kyt_record_seconds(record), record->flags,
                 c.seconds, c.flags);
        }
        ++lost;
    }
    const std::lock_guard lock(log_guard);
    if (lost > 0 && !made.is_silent && std::none_of(log_lines.begin(), log_lines.end(), [](const std::string& line) {
            return line.find("marks may be lost") != std::string::npos;
        })) {
        fail("%u marks are lost and the log does not say so", lost);
    }
    counts.marks_lost += lost;
    uint32_t last = 0;
    for (const kyt_record* record = kyt_next(list, nullptr); record != nullptr; record = kyt_next(list, record)) {
        if (record->ts <= last) {
            fail("%u is listed behind %u", record->ts, last);
        }
        last = record->ts;
        if (r->clips.contains(last)) {
            continue;
        }
        const auto at = r->gone.find(last);
        if (made.mistaken.contains(last)) {
            continue;
        }
        if (at == r->gone.end()) {
            fail("%u is listed and never was", last);
        }
        if (at->second <= r->kept && !made.is_damaged) {
            fail("%u was deleted and is listed", last);
        }
    }
}

// Opens the image, and lets the power go once more while it is repaired.
void cut_repair(rig* r, image* made) {
    r->image_card.begin_log();
    kyt_handle* const list = kyt::open_folder(r->image_folder.path().c_str());
    if (list == nullptr || !kyt::settle(list)) {
        fail("a repair does not come to its end: %s", std::strerror(errno));
    }
    kyt_close_dirty(list);
    await_threads();
    const uint32_t calls = static_cast<uint32_t>(r->image_card.log_size());
    made->files = r->image_card.cut_at(r->pick(calls + 1), &r->chance);
    r->image_card.lay(made->files);
    ++counts.repairs_cut;
    describe(made, "; repair cut:");
}

// Opens the image while from some call on nothing reaches the card any more, nor comes from it.
void break_repair(rig* r) {
    uint32_t left = 1 + r->pick(40);
    r->image_card.before_call = [&left](const libc_calls::called&) { return left > 0 && --left > 0 ? 0 : EIO; };
    kyt_close_dirty(kyt::open_folder(r->image_folder.path().c_str()));
    await_threads();
    r->image_card.before_call = nullptr;
}

std::set<std::string> clip_files(const rig& r) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(r.image_folder.path())) {
        if (!entry.path().filename().string().starts_with("KYT")) {
            names.insert(entry.path());
        }
    }
    return names;
}

void check_image(rig* r) {
    image made = {.files = r->card.cut(&r->chance)};
    describe(&made, "");
    damage(r, &made);
    image_text = made.text;
    {
        const std::lock_guard lock(log_guard);
        log_lines.clear();
    }
    r->image_card.lay(made.files);
    const bool looks_at_files = cuts % 64 == 0;  // at every one: that is what takes time
    const std::set<std::string> before = looks_at_files ? clip_files(*r) : std::set<std::string>();
    while (r->pick(2) == 0) {
        cut_repair(r, &made);
    }
    if (r->pick(8) == 0) {
        break_repair(r);
        // What the card refused it may have all the same.
        made.files = r->image_card.cut(&r->chance);
        describe(&made, "; repair broken:");
        await_threads();
        r->image_card.lay(made.files);
    }
    counts.renames += made.files.files.size() > 1 ? 1 : 0;
    kyt_handle* const found = kyt::open_folder(r->image_folder.path().c_str());
    if (found == nullptr) {
        fail("does not open: %s", std::strerror(errno));
    }
    judge(r, found, made);
    kyt_close_dirty(found);
    await_threads();
    if (looks_at_files && clip_files(*r) != before) {
        fail("a clip's file was touched");
    }
}

// The power goes now. The guard is held.
void cut(rig* r) {
    is_cutting = true;
    other_threads = threads();
    constexpr int IMAGES = 4;
    for (int i = 0; i < IMAGES && cuts < r->wanted; ++i) {
        ++cuts;
        check_image(r);
    }
    is_cutting = false;
    other_threads = threads_at_start;
}

// --- the card in use ---

int before_call(rig* r, const libc_calls::called& called) {
    const std::string_view call = called.call;
    if (!r->is_watching || is_cutting || call == "pread" || (call == "openat" && (called.flags & O_CREAT) == 0)) {
        return 0;
    }
    const std::lock_guard lock(r->guard);
    if (r->pick(8) == 0) {
        cut(r);
    }
    if (r->refuse > 0 && (call == "fdatasync" || call == "pwrite") && r->pick(r->refuse) == 0) {
        ++counts.refused;
        return EIO;
    }
    counts.grown += call == "ftruncate" ? 1 : 0;
    return 0;
}

void open_list(rig* r) {
    r->list = nullptr;
    kyt_handle* const list = kyt::open_folder(r->folder.path().c_str());
    if (list == nullptr) {
        fail("the card does not open: %s", std::strerror(errno));
    }
    const std::lock_guard lock(r->guard);
    r->list = list;
    r->slots.clear();
}

// The library asks for the videos' names only.
void add_files(rig* r, uint32_t ts) {
    for (const recordings* folder : {&r->folder, &r->image_folder}) {
        const std::string name = folder->clip(ts) + ".mp4";
        int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) {
            mkdir(name.substr(0, name.rfind('/')).c_str(), 0700);
            fd = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        }
        if (fd < 0) {
            fail("no clip %u: %s", ts, std::strerror(errno));
        }
        close(fd);
    }
}

void remove_files(rig* r, uint32_t ts) {
    for (const recordings* folder : {&r->folder, &r->image_folder}) {
        const std::string name = folder->clip(ts) + ".mp4";
        unlink(name.c_str());
        rmdir(name.substr(0, name.rfind('/')).c_str());  // the last one's
    }
}

void write_clip(rig* r, uint32_t ts) {
    ++r->operation;
    if (r->step_pick(200) == 0 && !r->clips.contains(ts)) {
        add_files(r, ts);
        r->clips[ts] = {0, 0, r->operation, false};
        r->gone.erase(ts);
        return;  // the announcement is lost
    }
    const clip c = {static_cast<uint8_t>(1 + r->step_pick(255)),
                    static_cast<uint8_t>(r->step_pick(8) == 0 ? KYT_PERSISTENT : 0), r->operation};
    const kyt_record record =
        record_of(std::to_string(ts) + "," + std::to_string(c.seconds) + "," + std::to_string(c.flags));
    if (kyt_write(r->list, &record) < 0) {
        return;  // it is in the list
    }
    if (!r->clips.contains(ts)) {
        add_files(r, ts);
    }
    r->clips[ts] = c;
    r->gone.erase(ts);
    const auto [slot, is_new] = r->slots.try_emplace(kyt_get(r->list, ts), ts);
    counts.slots_used_again += is_new || slot->second == ts ? 0 : 1;
    slot->second = ts;
}

void delete_clip(rig* r, uint32_t ts) {
    ++r->operation;
    kyt_record* const record = kyt_get(r->list, ts);
    if (record != nullptr && kyt_mark_deleted(r->list, record) < 0) {
        fail("cannot delete %u", ts);
    }
    if (record != nullptr && r->step_pick(6) == 0) {
        r->clips.at(ts).is_deleted = true;  // its files stay for a while
        return;
    }
    remove_files(r, ts);
    // A comparison under way may have seen a clip that the list does not know, and add it later.
    r->gone[ts] = record != nullptr ? r->operation : NEVER;
    r->clips.erase(ts);
}

// A clip that is announced and gone before it has any files.
void pass_by(rig* r, uint32_t ts) {
    const kyt_record record = record_of(ts);
    if (kyt_write(r->list, &record) == 0) {
        kyt_mark_deleted(r->list, kyt_get(r->list, ts));
        r->gone[ts] = ++r->operation;
    }
}

// Files of deleted clips go late.
void remove_late(rig* r) {
    for (auto at = r->clips.begin(); at != r->clips.end();) {
        if (!at->second.is_deleted || r->step_pick(4) != 0) {
            ++at;
            continue;
        }
        remove_files(r, at->first);
        r->gone[at->first] = ++r->operation;
        at = r->clips.erase(at);
    }
}

void delete_oldest(rig* r) {
    const auto at = std::find_if(r->clips.begin(), r->clips.end(), [](const auto& c) { return !c.second.is_deleted; });
    if (at != r->clips.end()) {
        delete_clip(r, at->first);
    }
}

void mark(rig* r, uint32_t from) {
    auto at = r->clips.lower_bound(from);
    at = at == r->clips.end() ? r->clips.begin() : at;
    if (!at->second.is_known || at->second.is_deleted) {
        return;
    }
    at->second.flags ^= KYT_PERSISTENT;
    at->second.changed = ++r->operation;
    kyt_get(r->list, at->first)->flags ^= KYT_PERSISTENT;
}

void await_comparison(rig* r) {
    for (int wait = 0; wait < 200'000; ++wait) {
        if (!kyt::is_comparing(r->list)) {
            return;
        }
        usleep(50);
    }
    fail("a comparison does not end");
}

void settle(rig* r) {
    const uint64_t operation = r->operation;
    if (!kyt::settle(r->list)) {
        fail("the keeper does not bring it to the card");
    }
    const std::lock_guard lock(r->guard);
    r->kept = std::max(r->kept, operation);
}

// Deleted clips whose files are there are back after every opening.
void expect_back(rig* r) {
    for (auto& [ts, c] : r->clips) {
        c.is_deleted = false;
    }
}

void pull(rig* r) {
    r->refuse = 0;
    for (uint32_t times = 1 + r->step_pick(2); times > 0; --times) {
        kyt_close(r->list);
        {
            const std::lock_guard lock(r->guard);
            r->list = nullptr;
            r->kept = r->operation;
        }
        await_threads();
        open_list(r);
        const std::lock_guard lock(r->guard);
        expect_back(r);
    }
}

// The camera goes on with what a cut has left.
void live_on(rig* r) {
    kyt_close_dirty(r->list);
    r->list = nullptr;
    await_threads();
    image made;
    {
        const std::lock_guard lock(r->guard);
        r->is_watching = false;
        made.files = r->card.cut(&r->chance);
        describe(&made, "lived on:");
        r->card.lay(made.files);
        const std::lock_guard lines(log_guard);
        log_lines.clear();
    }
    open_list(r);
    judge(r, r->list, made);
    ++counts.lived;
    ++r->operation;
    for (auto& [ts, c] : r->clips) {
        const kyt_record* const record = kyt_get(r->list, ts);
        if (record == nullptr) {
            c.is_known = false;
        } else if (!matches(*record, c) || !c.is_known) {
            c = {static_cast<uint8_t>(kyt_record_seconds(record)), record->flags, r->operation};
        }
        c.is_deleted = false;
    }
    for (kyt_record* record = kyt_next(r->list, nullptr); record != nullptr; record = kyt_next(r->list, record)) {
        if (!r->clips.contains(record->ts)) {
            r->gone[record->ts] = r->operation;
            kyt_mark_deleted(r->list, record);
        }
    }
    const std::lock_guard lock(r->guard);
    r->is_watching = true;
}

void step(rig* r, const load& l, uint32_t* clock) {
    uint32_t what = r->step_pick(1000);
    const auto chosen = [&](uint32_t share) {
        const bool is = what < share;
        what -= is ? 0 : share;
        return is;
    };
    r->refuse = r->refuse > 0 ? r->refuse + 1 : 0;
    if (chosen(l.settle)) {
        return settle(r);
    }
    if (chosen(l.optimise)) {
        {
            const std::lock_guard lock(r->guard);
            kyt_optimise(r->list);
        }
        return r->step_pick(2) == 0 ? await_comparison(r) : void();
    }
    if (chosen(l.pulls)) {
        return pull(r);
    }
    if (chosen(l.cuts_lived)) {
        return live_on(r);
    }
    const std::lock_guard lock(r->guard);
    if (chosen(l.refused)) {
        r->refuse = r->refuse > 0 ? 0 : 4;
    } else if (!r->clips.empty() && chosen(l.marks)) {
        mark(r, *clock - r->step_pick(l.limit * 10));
    } else if (!r->clips.empty() && chosen(l.deletions)) {
        delete_oldest(r);
        remove_late(r);
    } else if (chosen(l.batches)) {
        for (uint32_t i = r->step_pick(200); i > 0; --i) {
            delete_oldest(r);
        }
    } else {
        *clock += 1 + r->step_pick(20);
        uint32_t ts = chosen(l.late) ? *clock - 3600 : *clock;
        if (r->step_pick(30) == 0 && !r->gone.empty()) {
            ts = std::prev(r->gone.end())->first;  // a deleted one is announced again
        }
        write_clip(r, ts);
        while (r->clips.size() > l.limit) {
            delete_clip(r, r->clips.begin()->first);
        }
        for (uint32_t left = l.burst; left > 0; --left) {
            pass_by(r, ++*clock);
        }
    }
    if (r->pick(16) == 0) {
        cut(r);
    }
}

void run(const load& l, uint64_t wanted) {
    workload = l.name;
    rig r;
    r.steps.seed(seed);
    r.chance.seed(seed + 1);
    r.wanted = cuts + wanted;
    r.card.before_call = [&r](const libc_calls::called& called) { return before_call(&r, called); };
    open_list(&r);
    uint32_t clock = BASE;
    while (r.clips.size() < l.filled) {
        const std::lock_guard lock(r.guard);
        write_clip(&r, clock += 1 + r.step_pick(20));
    }
    settle(&r);
    r.is_watching = true;
    while (cuts < r.wanted) {
        step(&r, l, &clock);
    }
    await_comparison(&r);
    r.is_watching = false;
    r.refuse = 0;
    kyt_close(r.list);
}

void keep_line(const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    const std::lock_guard lock(log_guard);
    if (log_lines.size() < 50) {
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
    const char* const only = argc > 3 ? argv[3] : nullptr;
    constexpr uint64_t A_RUN = 2000;  // cuts of a workload before a new card
    const auto is_meant = [&](const load& l) { return only == nullptr || std::strcmp(only, l.name) == 0; };
    const auto loads = static_cast<uint64_t>(std::count_if(std::begin(LOADS), std::end(LOADS), is_meant));
    if (wanted == 0 || loads == 0) {
        std::fputs("usage: kyt_cuts [CUTS [SEED [WORKLOAD]]]\nworkloads:", stderr);
        for (const load& l : LOADS) {
            std::fprintf(stderr, " '%s'", l.name);
        }
        std::fputs("\n", stderr);
        return 2;
    }
    torn::watch();
    const unsigned first = seed;
    const uint64_t share = wanted / loads + 1;
    const time_t start = time(nullptr);
    for (; cuts < wanted; ++seed) {
        for (const load& l : LOADS) {
            if (is_meant(l)) {
                run(l, std::min(A_RUN, share));
            }
        }
    }
    std::printf("kyt_cuts: %" PRIu32 " cuts from seed %u in %ld s, nothing lost that was on the card\n", cuts.load(),
                first, static_cast<long>(time(nullptr) - start));
    std::printf("  %" PRIu64 " repairs cut, %" PRIu64 " cuts lived on with, %" PRIu64 " slots used again, %" PRIu64
                " times grown or cut shorter, %" PRIu64 " lists of more than 64 sectors\n",
                counts.repairs_cut, counts.lived, counts.slots_used_again, counts.grown, counts.long_lists);
    std::printf("  %" PRIu64 " with a file set aside, %" PRIu64 " between its names, %" PRIu64
                " of the other byte order, %" PRIu64 " bad pages, %" PRIu64 " calls refused, %" PRIu64
                " stale sectors, %" PRIu64 " marks lost to damage\n",
                counts.renames, counts.nameless, counts.turned, counts.bad_pages, counts.refused, counts.strays,
                counts.marks_lost);
    return 0;
}
