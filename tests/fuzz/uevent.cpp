// Input: datagrams, each behind two bytes with its length.
#include <cstring>

#include "mmc.h"
#include "mountpoint.h"
#include "support.h"

void mountpoint_refresh_delay() {}

namespace {

void check_table() {
    const mmc_manager* manager = mmc_get_manager();
    fuzz::require(manager->partition_count >= 0 && manager->partition_count <= MMC_MAX_PARTITIONS, "partition count");
    for (int32_t i = 0; i < manager->partition_count; ++i) {
        const mmc_block& block = manager->partitions[i];
        fuzz::require(block.name == block.path + 5, "a partition's name points into its own path");
        fuzz::require(memchr(block.path, '\0', sizeof block.path) != nullptr, "a path that ends");
        fuzz::require(mmc_get_block(block.minor) != nullptr, "a listed block is found");
    }
    fuzz::require(manager->disk.name == nullptr || manager->disk.name == manager->disk.path + 5, "the disk's name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool is_quiet = freopen("/dev/null", "w", stdout) != nullptr;
    (void)is_quiet;
    *mmc_get_manager() = mmc_manager{};
    while (size >= 2) {
        size_t length = data[0] + (size_t{data[1]} << 8);
        data += 2;
        size -= 2;
        length = length < size ? length : size;
        char buffer[4096 + 1];
        length = length < sizeof buffer ? length : sizeof buffer - 1;
        if (length == 0) {
            continue;
        }
        memcpy(buffer, data, length);
        buffer[length] = '\0';
        (void)uevent_parse(buffer, static_cast<int>(length));
        check_table();
        data += length;
        size -= length;
    }
    return 0;
}
