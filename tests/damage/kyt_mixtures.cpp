// A small list file with every kind of damage: kyt_mixtures [--all]
//
// Every byte flipped, every length of truncation, every two pages swapped, and mixtures of everything that a card or a
// person can do to the file. Whatever it is: the list opens, holds exactly the clips of the card, no clip is touched,
// marks stay where their records are whole, and one line of the log says what was found and done. --all leaves out
// nothing; without it most rows are sampled.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "handle.h"
#include "kyt_rdonly.h"
#include "record.h"
#include "support/libc_calls.h"
#include "support/recordings.h"

namespace {

constexpr uint32_t BASE = 1'790'000'000;
constexpr uint32_t CLIPS = 150;  // more than two sectors of records
constexpr uint32_t APART = 61;
constexpr uint32_t VOLUME = 0x1122AABB;  // the card's number
constexpr uint32_t OTHER_VOLUME = 0x3344CCDD;
constexpr size_t SECTOR = 512;
constexpr size_t PAGE = 4096;

std::vector<std::string> log_lines;
std::string damage;  // what has been done to the file, for a message

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
    std::fprintf(stderr, "kyt_mixtures: %s: ", damage.c_str());
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    for (const std::string& line : log_lines) {
        std::fprintf(stderr, "  %s\n", line.c_str());
    }
    std::_Exit(1);
}

uint32_t ts_of(uint32_t clip) {
    return BASE + clip * APART;
}

std::set<std::string> names_below(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (!name.starts_with("KYT_")) {
            names.insert(entry.path());
        }
    }
    return names;
}

struct bench {
    recordings card;
    std::set<std::string> names;          // of clips and their folders
    std::map<uint32_t, uint8_t> clips;    // with their flags
    std::array<std::string, 2> versions;  // the list, closed in order and left open
};

void open_list(const bench& b, std::map<uint32_t, uint8_t>* found) {
    kyt_handle* const list = kyt::open_folder(b.card.path().c_str());
    if (!list) {
        fail("does not open: %s", std::strerror(errno));
    }
    uint32_t last = 0;
    for (const kyt_record* r = kyt_next(list, nullptr); r; r = kyt_next(list, r)) {
        if (r->ts <= last || !b.clips.contains(r->ts)) {
            fail("%u is shown behind %u", r->ts, last);
        }
        last = r->ts;
    }
    found->clear();
    for (const kyt_record* r = kyt_next(list, nullptr); r; r = kyt_next(list, r)) {
        (*found)[r->ts] = r->flags;
    }
    kyt_close(list);
}

void clear_lists(const bench& b) {
    for (const auto& entry : std::filesystem::directory_iterator(b.card.path())) {
        if (entry.path().filename().string().starts_with("KYT")) {
            std::filesystem::remove_all(entry.path());
        }
    }
}

enum class word { NONE, SOME, ANY };  // whether the log is to say something

// Opens what lies in the folder, twice. `whole`: of these clips nothing has touched the record.
void check(const bench& b, word wanted, const std::set<uint32_t>& whole) {
    std::map<uint32_t, uint8_t> found;
    log_lines.clear();
    open_list(b, &found);
    for (const auto& [ts, flags] : b.clips) {
        const auto at = found.find(ts);
        if (at == found.end()) {
            fail("clip %u is lost", ts);
        }
        if (whole.contains(ts) && at->second != flags) {
            fail("clip %u has flags %u instead of %u", ts, at->second, flags);
        }
    }
    if (found.size() != b.clips.size()) {
        fail("%zu clips are listed, %zu exist", found.size(), b.clips.size());
    }
    if (log_lines.size() > 1 || (wanted == word::SOME && log_lines.empty()) ||
        (wanted == word::NONE && !log_lines.empty())) {
        fail("%zu lines in the log", log_lines.size());
    }
    if (!log_lines.empty() && log_lines[0].find(" records now") == std::string::npos &&
        log_lines[0].find("a new list") == std::string::npos) {
        fail("the log does not say what was done");
    }
    std::map<uint32_t, uint8_t> again;
    log_lines.clear();
    open_list(b, &again);
    if (again != found || !log_lines.empty()) {
        fail("the second opening is not like the first");
    }
    if (names_below(b.card.path()) != b.names) {
        fail("a clip's file was touched");
    }
}

// The clips whose records are whole in the damaged bytes, where they were or elsewhere.
std::set<uint32_t> whole_in(const bench& b, const std::string& bytes) {
    std::set<uint32_t> whole;
    for (size_t at = PAGE; at + sizeof(kyt_record) <= bytes.size(); at += sizeof(kyt_record)) {
        kyt_record record;
        std::memcpy(&record, bytes.data() + at, sizeof record);
        const auto clip = b.clips.find(record.ts);
        if (kyt::is_live(record) && clip != b.clips.end() && clip->second == record.flags) {
            whole.insert(record.ts);
        }
    }
    return whole;
}

void put(const bench& b, const std::string& bytes) {
    clear_lists(b);
    b.card.set_bytes("KYT.LST", bytes);
}

void every_byte_flipped(const bench& b, bool all) {
    const std::string& original = b.versions[0];
    const size_t used_end = PAGE + CLIPS * sizeof(kyt_record);
    for (size_t at = 0; at < original.size(); at += all || at < 64 || (at >= PAGE && at < used_end + 64) ? 1 : 499) {
        for (const int bits : {1 << (at % 8), 0x01, 0x80, 0xFF}) {
            damage = "byte " + std::to_string(at) + " xor " + std::to_string(bits);
            std::string bytes = original;
            bytes[at] = static_cast<char>(bytes[at] ^ bits);
            put(b, bytes);
            // Between the header and the records nobody reads; a record's flags are outside its check, since callers
            // change them in place.
            const bool flags = at >= PAGE && at < used_end && (at - PAGE) % sizeof(kyt_record) == 6;
            // The slot behind the last one is an empty one, whose ts means nothing.
            const bool empty = at >= used_end && at < used_end + 4;
            check(b, (at >= 64 && at < PAGE) || flags || empty ? word::NONE : word::SOME, whole_in(b, bytes));
            if (!all) {
                break;
            }
        }
    }
}

void every_length(const bench& b, bool all) {
    for (const std::string& original : b.versions) {
        for (size_t length = 0; length < original.size();
             length += all || length < 64 || (length >= PAGE && length < PAGE + 40) ? 1 : 1009) {
            damage = "cut to " + std::to_string(length);
            const std::string bytes = original.substr(0, length);
            put(b, bytes);
            check(b, word::SOME, whole_in(b, bytes));
        }
        damage = "longer";
        put(b, original + original.substr(PAGE));
        check(b, word::SOME, {});
    }
}

void pages_swapped(const bench& b) {
    for (const std::string& original : b.versions) {
        const size_t pages = original.size() / PAGE;
        for (size_t one = 0; one < pages; ++one) {
            for (size_t other = one + 1; other < pages; ++other) {
                damage = "pages " + std::to_string(one) + " and " + std::to_string(other) + " swapped";
                std::string bytes = original;
                std::swap_ranges(bytes.begin() + static_cast<long>(one * PAGE),
                                 bytes.begin() + static_cast<long>((one + 1) * PAGE),
                                 bytes.begin() + static_cast<long>(other * PAGE));
                put(b, bytes);
                const bool changed = bytes != original || &original == &b.versions[1];
                check(b, changed ? word::SOME : word::NONE, whole_in(b, bytes));
            }
        }
    }
}

// A card that writes a sector to the wrong place: every record is whole, and some are missing.
void sectors_in_others_places(const bench& b) {
    for (const std::string& original : b.versions) {
        constexpr size_t SECTORS = (CLIPS * sizeof(kyt_record) + SECTOR - 1) / SECTOR;
        for (size_t from = 0; from < SECTORS; ++from) {
            for (size_t to = 0; to < SECTORS; ++to) {
                damage = "sector " + std::to_string(from) + " also at " + std::to_string(to);
                std::string bytes = original;
                std::memmove(bytes.data() + PAGE + to * SECTOR, original.data() + PAGE + from * SECTOR, SECTOR);
                put(b, bytes);
                check(b, from != to || &original == &b.versions[1] ? word::SOME : word::NONE, whole_in(b, bytes));
            }
        }
    }
}

// Noise that passes for a record names a clip that never was.
void noise_that_passes(const bench& b) {
    for (const std::string& original : b.versions) {
        for (const kyt_record& record :
             {kyt::live_record(BASE + 1, 7, KYT_PERSISTENT), kyt::deleted_record(kyt::live_record(BASE + 2, 7, 0))}) {
            damage = "a record of a clip that never was";
            std::string bytes = original;
            std::memcpy(bytes.data() + PAGE + 20 * sizeof record, &record, sizeof record);
            std::memset(bytes.data() + PAGE + 21 * sizeof record, 0x5A, sizeof record);
            put(b, bytes);
            check(b, word::SOME, whole_in(b, bytes));
        }
    }
}

void seal(std::string* bytes, kyt::list_header header) {
    uint32_t crc = ~0U;
    for (size_t i = 0; i < offsetof(kyt::list_header, check); ++i) {
        crc ^= reinterpret_cast<const uint8_t*>(&header)[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1)));
        }
    }
    header.check = ~crc;
    std::memcpy(bytes->data(), &header, sizeof header);
}

void turn_byte_order(std::string* bytes) {
    // Up to the CRC, which is then computed over what the other machine sees.
    for (size_t at = 8; at + 4 <= std::min(bytes->size(), size_t{60}); at += 4) {
        std::reverse(bytes->begin() + static_cast<long>(at), bytes->begin() + static_cast<long>(at) + 4);
    }
    kyt::list_header header;
    std::memcpy(&header, bytes->data(), sizeof header);
    seal(bytes, header);
    std::reverse(bytes->begin() + 60, bytes->begin() + 64);
    for (size_t at = PAGE; at + 8 <= bytes->size(); at += 8) {
        std::reverse(bytes->begin() + static_cast<long>(at), bytes->begin() + static_cast<long>(at) + 4);
    }
}

// One kind of damage more. Bytes may have become few: what does not fit is left out.
void add_damage(std::string* bytes, std::mt19937* random) {
    const auto pick = [&](size_t below) { return static_cast<size_t>((*random)()) % std::max<size_t>(below, 1); };
    const size_t size = bytes->size();
    // Most of it where the records are.
    const size_t at = pick(3) == 0 ? pick(size) : std::min(size, pick(PAGE + 2000));
    const size_t length = std::min(size - at, pick(4) == 0 ? pick(3 * PAGE) : 1 + pick(2 * SECTOR));
    kyt::list_header header = {};
    if (size >= sizeof header) {
        std::memcpy(&header, bytes->data(), sizeof header);
    }
    switch (pick(12)) {
        case 0:
            damage += " bit";
            if (at < size) {
                (*bytes)[at] = static_cast<char>((*bytes)[at] ^ (1 << pick(8)));
            }
            break;
        case 1:
            damage += " noise";
            for (size_t i = 0; i < length; ++i) {
                (*bytes)[at + i] = static_cast<char>((*random)());
            }
            break;
        case 2:
            damage += " zeros";
            std::fill_n(bytes->begin() + static_cast<long>(at), length, '\0');
            break;
        case 3:
            damage += " ones";
            std::fill_n(bytes->begin() + static_cast<long>(at), length, '\xff');
            break;
        case 4:
            damage += " cut";
            bytes->resize(at);
            break;
        case 5:
            damage += " grown";
            bytes->append(pick(2) == 0 ? length : kyt::STEP_BYTES, static_cast<char>(pick(2) == 0 ? 0 : 0x55));
            break;
        case 6: {
            damage += " sectors swapped";
            const size_t one = pick(size / SECTOR) * SECTOR;
            const size_t other = pick(size / SECTOR) * SECTOR;
            if (one + SECTOR <= size && other + SECTOR <= size && one != other) {
                std::swap_ranges(bytes->begin() + static_cast<long>(one),
                                 bytes->begin() + static_cast<long>(one + SECTOR),
                                 bytes->begin() + static_cast<long>(other));
            }
            break;
        }
        case 7: {
            damage += " a sector in another's place";
            const size_t from = pick(std::min<size_t>(size / SECTOR, 12)) * SECTOR;
            const size_t to = pick(std::min<size_t>(size / SECTOR, 12)) * SECTOR;
            if (from + SECTOR <= size && to + SECTOR <= size) {
                std::memmove(bytes->data() + to, bytes->data() + from, SECTOR);
            }
            break;
        }
        case 8:
            damage += " shifted";
            bytes->insert(at, length, '\0');
            break;
        case 9:
            damage += " other byte order";
            if (size >= sizeof header) {
                turn_byte_order(bytes);
            }
            break;
        case 10:
            damage += " other version";
            if (size >= sizeof header) {
                header.version = static_cast<uint32_t>(2 + pick(1000));
                seal(bytes, header);
            }
            break;
        default:
            damage += " other card";
            if (size >= sizeof header) {
                header.card = OTHER_VOLUME;
                seal(bytes, header);
            }
            break;
    }
}

void mixtures(const bench& b, unsigned count) {
    for (unsigned seed = 1; seed <= count; ++seed) {
        std::mt19937 random(seed);
        damage = "mixture " + std::to_string(seed) + ":";
        clear_lists(b);
        const size_t files = random() % 8 == 0 ? 2 : 1;
        for (size_t file = 0; file < files; ++file) {
            std::string bytes = b.versions[random() % 2];
            for (uint32_t more = 1 + static_cast<uint32_t>(random() % 4); more > 0; --more) {
                add_damage(&bytes, &random);
            }
            damage += " |";
            b.card.set_bytes(file == 0 ? kyt::LIST_NAME : "KYT_BAD0.LST", bytes);
        }
        if (random() % 50 == 0) {
            const std::string name = b.card.file(kyt::LIST_NAME);
            std::filesystem::remove(name);
            std::filesystem::create_directory(name);
            damage += " a directory";
        }
        check(b, word::ANY, {});
    }
}

void damaged_beyond_itself(const bench& b) {
    // The card's own list as another card's; files of other versions.
    for (const std::string& original : b.versions) {
        kyt::list_header header;
        std::memcpy(&header, original.data(), sizeof header);
        damage = "another card's";
        header.card = OTHER_VOLUME;
        std::string bytes = original;
        seal(&bytes, header);
        put(b, bytes);
        check(b, word::SOME, whole_in(b, bytes));
        for (const uint32_t version : {0U, 2U, 0x01000000U, UINT32_MAX}) {
            damage = "version " + std::to_string(version);
            header.version = version;
            seal(&bytes, header);
            put(b, bytes);
            check(b, word::SOME, {});
        }
        damage = "other byte order";
        bytes = original;
        turn_byte_order(&bytes);
        put(b, bytes);
        check(b, word::SOME, whole_in(b, original));
    }
}

std::string of_state(const std::string& original, kyt::file_state state) {
    kyt::list_header header;
    std::memcpy(&header, original.data(), sizeof header);
    header.state = static_cast<uint32_t>(state);
    header.records = header.live = 0;
    std::string bytes = original;
    seal(&bytes, header);
    return bytes;
}

std::string of_another_version(const std::string& original) {
    kyt::list_header header;
    std::memcpy(&header, original.data(), sizeof header);
    header.version = 7;
    std::string bytes = original;
    seal(&bytes, header);
    return bytes;
}

std::string without_marks(std::string bytes) {
    for (size_t at = PAGE; at < PAGE + CLIPS * sizeof(kyt_record); at += sizeof(kyt_record)) {
        bytes[at + 6] = 0;
    }
    return bytes;
}

std::string aside_name(size_t number) {
    return "KYT_BAD" + std::to_string(number) + ".LST";
}

// Exactly these files are set aside, the oldest first.
void expect_aside(const bench& b, const std::vector<std::string>& wanted) {
    for (size_t number = 0; number < 5; ++number) {
        const bool is_wanted = number < wanted.size();
        if (b.card.has(aside_name(number)) != is_wanted ||
            (is_wanted && b.card.bytes(aside_name(number)) != wanted[number])) {
            fail("%s is not what it should be", aside_name(number).c_str());
        }
    }
}

// Another one is set aside beside all sets of those that there may be: in order of age, the fifth in the fourth's
// place.
void names_set_aside(const bench& b) {
    const std::string odd = of_another_version(b.versions[0]);
    for (unsigned there = 0; there < 16; ++there) {
        damage = "set aside beside the set " + std::to_string(there);
        put(b, odd);
        std::vector<std::string> wanted;
        for (size_t number = 0; number < 4; ++number) {
            if ((there >> number & 1) != 0) {
                wanted.push_back("file " + std::to_string(number));
                b.card.set_bytes(aside_name(number), wanted.back());
            }
        }
        wanted.resize(std::min<size_t>(wanted.size() + 1, 4));
        wanted.back() = odd;
        check(b, word::SOME, {});
        expect_aside(b, wanted);
    }
}

// The list is gone, and marks come from what was set aside, whichever file has them.
void marks_set_aside(const bench& b) {
    for (const std::string& original : b.versions) {
        const std::set<uint32_t> whole = whole_in(b, original);
        for (size_t one = 0; one < 4; ++one) {
            for (size_t other = 0; other < 4; ++other) {
                damage = "marks in file " + std::to_string(one) + ", none in file " + std::to_string(other);
                clear_lists(b);
                b.card.set_bytes(aside_name(other), without_marks(original));
                b.card.set_bytes(aside_name(one), original);
                check(b, word::SOME, whole);
            }
        }
    }
}

// The power went after the list was set aside, while another one was made in its place.
void setting_aside_cut(const bench& b) {
    const std::string& original = b.versions[0];
    const std::set<uint32_t> whole = whole_in(b, original);
    const auto check_with = [&](const std::string& bytes, const std::string& what) {
        damage = "set aside, and of the next list " + what;
        put(b, bytes);
        b.card.set_bytes(aside_name(0), original);
        check(b, word::SOME, whole);
        if (b.card.bytes(aside_name(0)) != original) {
            fail("what was set aside has changed");
        }
    };
    const std::string header = of_state(original, kyt::file_state::WRITING).substr(0, PAGE);
    for (const size_t length : {size_t{0}, SECTOR, PAGE, size_t{kyt::STEP_BYTES}}) {
        const std::string size = std::to_string(length) + " bytes";
        check_with(std::string(length, '\0'), size + " of zeros");
        if (length >= SECTOR) {
            check_with(header.substr(0, length) + std::string(length - std::min(length, PAGE), '\0'), size);
        }
    }
    constexpr size_t SECTORS = (CLIPS * sizeof(kyt_record) + SECTOR - 1) / SECTOR;
    for (const bool has_header : {false, true}) {
        for (unsigned there = 1; there < 1U << SECTORS; ++there) {
            std::string bytes(kyt::STEP_BYTES, '\0');
            bytes.replace(0, PAGE, has_header ? header : std::string(PAGE, '\0'));
            for (size_t sector = 0; sector < SECTORS; ++sector) {
                if ((there >> sector & 1) != 0) {
                    const size_t at = PAGE + sector * SECTOR;
                    bytes.replace(at, SECTOR, without_marks(original).substr(at, SECTOR));
                }
            }
            // Marks that were taken away since are nobody's loss: what is in the list counts.
            damage = "set aside, and of the next list the sectors " + std::to_string(there);
            put(b, bytes);
            b.card.set_bytes(aside_name(0), original);
            std::set<uint32_t> missing = whole;
            for (const auto& [ts, flags] : b.clips) {
                const size_t clip = (ts - BASE) / APART;
                if ((there >> clip * sizeof(kyt_record) / SECTOR & 1) != 0) {
                    missing.erase(ts);
                }
            }
            check(b, word::SOME, missing);
        }
    }
}

// Nothing that is on the card needs room to be opened. Another file does, for which the oldest that were set aside go.
void full_card(const bench& b) {
    int room = 0;
    const auto need_room = [&](const libc_calls::called& c) {
        return c.name != nullptr && (c.flags & O_CREAT) != 0 && room <= 0 ? ENOSPC : 0;
    };
    libc_calls::before("openat", need_room);
    libc_calls::before("ftruncate", [&](const libc_calls::called& c) {
        return room <= 0 && c.offset > lseek(c.fd, 0, SEEK_END) ? ENOSPC : 0;
    });
    libc_calls::after("unlinkat", [&](const libc_calls::called& c, intptr_t result) {
        room += result == 0 && std::strncmp(c.name, "KYT_BAD", 7) == 0 ? 1 : 0;
    });
    const std::string& original = b.versions[0];
    for (const bool in_header : {false, true}) {
        damage = in_header ? "a full card, noise in the header" : "a full card, noise in a sector";
        std::string bytes = original;
        bytes.replace(in_header ? 0 : PAGE, SECTOR, std::string(SECTOR, 'x'));
        room = 0;
        put(b, bytes);
        check(b, word::SOME, whole_in(b, bytes));
        expect_aside(b, {});
    }
    // Clips that have no room in the file are in the list all the same.
    for (const size_t length : {size_t{0}, sizeof(kyt::list_header), PAGE, PAGE + SECTOR, PAGE + SECTOR + 100}) {
        for (const bool has_other : {true, false}) {
            if (length == 0 && !has_other) {
                continue;  // a file that has no room for its header is no list
            }
            damage = "a full card, cut to " + std::to_string(length) + (has_other ? ", with one set aside" : "");
            put(b, original.substr(0, length));
            if (has_other) {
                b.card.set_bytes(aside_name(0), original);
            }
            room = 0;
            std::map<uint32_t, uint8_t> found;
            open_list(b, &found);
            if (found.size() != b.clips.size()) {
                fail("%zu clips are listed, %zu exist", found.size(), b.clips.size());
            }
        }
    }
    const std::string odd = of_another_version(original);
    for (int there = 0; there < 4; ++there) {
        for (int files = 1; files <= there + 1; ++files) {
            damage = "a full card, " + std::to_string(there) + " files, and room for a list without " +
                     std::to_string(files);
            put(b, odd);
            std::vector<std::string> wanted;
            for (int number = 0; number < there; ++number) {
                wanted.push_back(number == 0 ? original : "file " + std::to_string(number));
                b.card.set_bytes(aside_name(static_cast<size_t>(number)), wanted.back());
            }
            wanted.push_back(odd);
            wanted.erase(wanted.begin(), wanted.begin() + files);
            room = 1 - files;
            check(b, word::SOME, there > 0 ? whole_in(b, original) : std::set<uint32_t>());
            std::vector<std::string> left;
            for (size_t number = 0; number < 4; ++number) {
                if (b.card.has(aside_name(number))) {
                    left.push_back(b.card.bytes(aside_name(number)));
                }
            }
            if (left != wanted) {
                fail("%zu files are left", left.size());
            }
        }
    }
    libc_calls::before("openat", nullptr);
    libc_calls::before("ftruncate", nullptr);
    libc_calls::after("unlinkat", nullptr);
}

void prepare(bench* b) {
    kyt_handle* list = kyt::open_folder(b->card.path().c_str());
    for (uint32_t i = 0; list && i <= CLIPS; ++i) {
        const uint8_t flags = i % 3 == 0 ? KYT_PERSISTENT : 0;
        char text[32];
        std::snprintf(text, sizeof text, "%u,60,%u", ts_of(i), flags);
        const kyt_record record = record_of(text);
        if (kyt_write(list, &record) < 0) {
            fail("cannot write: %s", std::strerror(errno));
        }
        if (i < CLIPS) {
            b->card.add_clip(ts_of(i));
            b->clips[ts_of(i)] = flags;
        }
    }
    kyt_mark_deleted(list, kyt_get(list, ts_of(CLIPS)));
    kyt_close(list);
    list = kyt::open_folder(b->card.path().c_str());  // which leaves no tombstone
    b->versions[1] = b->card.bytes(kyt::LIST_NAME);
    kyt_close(list);
    b->versions[0] = b->card.bytes(kyt::LIST_NAME);
    b->card.set_bytes("HOLIDAY.TXT", "not the camera's");
    b->names = names_below(b->card.path());
    if (b->versions[0] == b->versions[1]) {
        fail("open and closed lists are alike");
    }
}

void keep_line(const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    log_lines.emplace_back(text);
}

}  // namespace

extern "C" {
#define KEEP_LINES(name)                 \
    void name(const char* format, ...) { \
        va_list args;                    \
        va_start(args, format);          \
        keep_line(format, args);         \
        va_end(args);                    \
    }
KEEP_LINES(log_err)
KEEP_LINES(log_warning)
KEEP_LINES(log_info)
}

int main(int argc, char** argv) {
    const bool all = argc > 1 && std::strcmp(argv[1], "--all") == 0;
    if (argc > 1 && !all) {
        std::fputs("usage: kyt_mixtures [--all]\n", stderr);
        return 2;
    }
    libc_calls::set_volume(VOLUME);
    bench b;
    prepare(&b);
    damaged_beyond_itself(b);
    every_byte_flipped(b, all);
    every_length(b, all);
    pages_swapped(b);
    sectors_in_others_places(b);
    noise_that_passes(b);
    names_set_aside(b);
    marks_set_aside(b);
    setting_aside_cut(b);
    full_card(b);
    const unsigned count = all ? 20'000 : 500;
    mixtures(b, count);
    std::printf("kyt_mixtures: every byte, length and page, and %u mixtures\n", count);
    return 0;
}
