#include "lists.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

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

void write_header(int fd, recipe* r, uint8_t kind) {
    if (kind == 0) {
        uint8_t raw[sizeof(kyt::list_header)];
        r->raw(raw, sizeof raw);
        fuzz::require(pwrite(fd, raw, sizeof raw, 0) == sizeof raw, "a header");
        return;
    }
    const uint32_t generation = r->byte();
    const auto state = static_cast<kyt::file_state>(r->byte() % 5);
    fuzz::require(kyt::header_write(fd, generation, state, r->word()) == 0, "a header");
}

uint32_t write_records(int fd, recipe* r) {
    kyt_record records[256];
    const uint32_t count = r->byte();
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t kind = r->byte();
        kyt_record& record = records[i];
        if (kind % 4 == 0) {
            record = {};
        } else if (kind % 4 == 1) {
            r->raw(&record, sizeof record);
        } else {
            record = kyt::live_record(BASE + r->word() * 3U, 60, kind >> 4);
            if (kind % 4 == 3) {
                record = kyt::deleted_record(record, kind >> 2);
            }
        }
    }
    const auto bytes = static_cast<ssize_t>(count * sizeof(kyt_record));
    fuzz::require(pwrite(fd, records, static_cast<size_t>(bytes), kyt::RECORDS_AT) == bytes, "records");
    return count;
}

void make_list(const std::string& path, recipe* r) {
    const uint8_t kind = r->byte();
    if (kind % 8 == 0) {
        unlink(path.c_str());
        return;
    }
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    fuzz::require(fd >= 0, "a list file");
    write_header(fd, r, kind % 4);
    const uint32_t count = write_records(fd, r);
    const off_t end = kyt::RECORDS_AT + static_cast<off_t>(count * sizeof(kyt_record));
    const off_t sizes[] = {end, end - 3, end + 8, kyt::STEP_BYTES, r->word()};
    fuzz::require(ftruncate(fd, sizes[r->byte() % 5]) == 0, "a size");
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
    for (const char* name : {kyt::LIST_NAME}) {
        make_list(folder() + "/" + name, &r);
    }
}

}  // namespace fuzz
