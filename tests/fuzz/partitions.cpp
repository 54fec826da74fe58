#include "mmc.h"
#include "mountpoint.h"
#include "support.h"

void mountpoint_refresh_delay() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    *mmc_get_manager() = mmc_manager{};
    fuzz::set_file(data, size);
    (void)mmc_rescan();
    const mmc_manager* manager = mmc_get_manager();
    fuzz::require(manager->partition_count >= 0 && manager->partition_count <= MMC_MAX_PARTITIONS, "partition count");
    for (int32_t i = 0; i < manager->partition_count; ++i) {
        fuzz::require(manager->partitions[i].name == manager->partitions[i].path + 5, "a partition's name");
    }
    return 0;
}
