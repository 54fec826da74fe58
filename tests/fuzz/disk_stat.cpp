// Input: the file's content at the first sample, a zero byte, its content at the second.
#include <cstring>

#include "mmc.h"
#include "mountpoint.h"
#include "support.h"

void mountpoint_refresh_delay() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    mmc_manager* manager = mmc_get_manager();
    *manager = mmc_manager{};
    manager->state = MMC_STATE_RDWR;
    snprintf(manager->disk.path, sizeof manager->disk.path, "/dev/mmcblk0");
    manager->disk.name = manager->disk.path + 5;

    const auto* end = static_cast<const uint8_t*>(memchr(data, '\0', size));
    const size_t first = end != nullptr ? static_cast<size_t>(end - data) : size;
    fuzz::set_file(data, first);
    fuzz::require(mmc_calc_write_speed(nullptr) == MMC_SPEED_NO_BASELINE, "no speed without a baseline");
    const bool has_baseline = manager->stat_time_ms != 0;
    const mmc_stat before = manager->stat;
    fuzz::set_file(data + (first < size ? first + 1 : size), first < size ? size - first - 1 : 0);
    uint32_t written = 0xdeadbeef;
    const int speed = mmc_calc_write_speed(&written);
    if (has_baseline && speed != -1) {
        const bool has_written =
            manager->stat.write_sectors > before.write_sectors && manager->stat.io_ticks > before.io_ticks;
        fuzz::require(has_written == (written == manager->stat.write_sectors - before.write_sectors) ||
                          (!has_written && written == 0xdeadbeef),
                      "what was written");
        fuzz::require(has_written || speed == 0, "no speed without writing");
    }
    return 0;
}
