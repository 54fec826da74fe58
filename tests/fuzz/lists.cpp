#include "lists.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>
#include <vector>

#include "format.h"
#include "record.h"
#include "support.h"

namespace {

constexpr uint32_t BASE = 1'790'000'000;

struct recipe {
    const uint8_t* at;
    size_t left;

    uint8_t byte() {
        if (left == 0) {
            return 0;
        }
        --left;
        return *at++;
    }
    uint16_t word() {
        const uint8_t low = byte();
        return static_cast<uint16_t>(low | (byte() << 8));
    }
    void raw(void* bytes, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            static_cast<uint8_t*>(bytes)[i] = byte();
        }
    }
};

struct header_recipe {
    bool is_raw;
    uint8_t raw[sizeof(kyt::list_header)];
    kyt::file_state state;
    bool is_true;  // the counts are those of the slots
    uint32_t records;
    uint32_t live;
};

header_recipe read_header(recipe* r, bool is_raw) {
    header_recipe h = {};
    h.is_raw = is_raw;
    if (is_raw) {
        r->raw(h.raw, sizeof h.raw);
        return h;
    }
    const uint8_t kind = r->byte();
    h.state = static_cast<kyt::file_state>(kind % 5);
    h.is_true = kind < 128;
    h.records = h.is_true ? 0 : r->word();
    h.live = h.is_true ? 0 : r->word();
    return h;
}

kyt_record read_record(recipe* r) {
    const uint8_t kind = r->byte();
    kyt_record record = {};
    if (kind % 8 == 1) {
        r->raw(&record, sizeof record);
    } else if (kind % 8 != 0) {
        record = kyt::live_record(BASE + r->word() * 3U, 60, kind >> 3);
        if (kind % 8 == 2) {
            kyt::put_empty(&record);
        } else if (kind % 8 == 3) {
            record = kyt::deleted_record(record);
        }
    }
    return record;
}

// One or more blocks. What lies between them is empty slots, or zeros that no write has reached.
std::vector<kyt_record> read_slots(recipe* r) {
    std::vector<kyt_record> slots;
    for (bool more = true; more;) {
        const uint8_t kind = r->byte();
        if (kind % 4 == 1) {
            kyt_record between = {};
            if (kind % 8 == 1) {
                kyt::put_empty(&between);
            }
            slots.resize(slots.size() + r->word() % 16384, between);
        }
        for (uint32_t left = r->byte(); left > 0; --left) {
            slots.push_back(read_record(r));
        }
        more = kind >= 128 && slots.size() < 32768 && r->left > 0;
    }
    return slots;
}

uint32_t crc32(const uint8_t* data, size_t size) {
    uint32_t crc = ~0U;
    for (size_t bit = 0; bit < 8 * size; ++bit) {
        crc ^= static_cast<uint32_t>(data[bit / 8] >> bit % 8) & 1;
        crc = (crc >> 1) ^ (0xEDB88320U & (0U - (crc & 1)));
    }
    return ~crc;
}

// As a machine of the other byte order writes it.
void turn_header(int fd) {
    kyt::list_header h;
    fuzz::require(pread(fd, &h, sizeof h, 0) == sizeof h, "a header");
    for (uint32_t* field : {&h.byte_order, &h.version, &h.state, &h.records, &h.card, &h.live}) {
        *field = __builtin_bswap32(*field);
    }
    h.check = __builtin_bswap32(crc32(reinterpret_cast<const uint8_t*>(&h), offsetof(kyt::list_header, check)));
    fuzz::require(pwrite(fd, &h, sizeof h, 0) == sizeof h, "a turned header");
}

void write_header(int fd, const header_recipe& h, const std::vector<kyt_record>& slots) {
    if (h.is_raw) {
        fuzz::require(pwrite(fd, h.raw, sizeof h.raw, 0) == sizeof h.raw, "a raw header");
        return;
    }
    const auto used = static_cast<uint32_t>(slots.size());
    const auto live = static_cast<uint32_t>(std::count_if(slots.begin(), slots.end(), kyt::is_live));
    const int result = kyt::header_write(fd, h.state, h.is_true ? used : h.records, h.is_true ? live : h.live);
    fuzz::require(result == 0, "a header");
}

void make_list(const std::string& path, recipe* r) {
    const uint8_t kind = r->byte();
    if (kind % 8 == 0) {
        unlink(path.c_str());
        return;
    }
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    fuzz::require(fd >= 0, "a list file");
    const bool is_turned = kind >= 192;
    const header_recipe header = read_header(r, kind % 4 == 0);
    std::vector<kyt_record> slots = read_slots(r);
    write_header(fd, header, slots);
    if (is_turned) {
        if (!header.is_raw) {
            turn_header(fd);
        }
        // Not the sectors that were turned back before the power went.
        const size_t native = size_t{r->byte() % 4U} * kyt::SECTOR_RECORDS;
        std::transform(slots.begin() + static_cast<ptrdiff_t>(std::min(native, slots.size())), slots.end(),
                       slots.begin() + static_cast<ptrdiff_t>(std::min(native, slots.size())), kyt::swapped);
    }
    const auto bytes = static_cast<ssize_t>(slots.size() * sizeof(kyt_record));
    fuzz::require(pwrite(fd, slots.data(), static_cast<size_t>(bytes), kyt::RECORDS_AT) == bytes, "slots");
    const off_t end = kyt::RECORDS_AT + static_cast<off_t>(bytes);
    const off_t left_behind = kyt::file_bytes(static_cast<uint32_t>(slots.size()));
    const off_t sizes[] = {left_behind, end, end - 3, end + 8, kyt::STEP_BYTES, r->word()};
    fuzz::require(ftruncate(fd, sizes[r->byte() % 6]) == 0, "a size");
    close(fd);
}

}  // namespace

namespace fuzz {

const std::string& folder() {
    static const struct made {
        std::string path;
        made() {
            char pattern[] = "/dev/shm/vesk-fuzz-XXXXXX";
            require(mkdtemp(pattern) != nullptr, "a folder");
            path = pattern;
        }
        ~made() { std::filesystem::remove_all(path); }
    } the_folder;
    return the_folder.path;
}

void make_lists(const uint8_t* data, size_t size) {
    recipe r = {data, size};
    make_list(folder() + "/" + kyt::LIST_NAME, &r);
    make_list(folder() + "/KYT_BAD0.LST", &r);
    for (const char* name : {"/KYT_BAD1.LST", "/KYT_BAD2.LST", "/KYT_BAD3.LST"}) {
        unlink((folder() + name).c_str());
    }
}

}  // namespace fuzz
