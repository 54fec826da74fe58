#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "mmc.h"
#include "mountpoint.h"
#include "records.h"
#include "sdcard.h"
#include "support.h"

namespace {

mmc_manager mmc;
const uint8_t* table;
size_t table_size;

}  // namespace

sdcard_manager sd;

mmc_manager* mmc_get_manager() {
    return &mmc;
}
mmc_state mmc_get_state() {
    return mmc.state;
}
mmc_block* mmc_get_block(uint32_t minor) {
    return minor == mmc.disk.minor ? &mmc.disk : nullptr;
}
void record_dir_open() {}
void record_dir_close(int) {}
void sdcard_refresh(const char*) {}
sdcard_state merge_state() {
    return SDCARD_NORMAL;
}
void sdcard_update_state() {}

extern "C" ssize_t __wrap_pread64(int, void* buffer, size_t size, off_t) {
    const size_t length = table_size < size ? table_size : size;
    memcpy(buffer, table, length);
    return static_cast<ssize_t>(length);
}
extern "C" ssize_t __wrap_pread(int, void*, size_t, off_t) __attribute__((alias("__wrap_pread64")));

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    table = data;
    table_size = size;
    mountpoint_get_manager()->mountinfo_fd = STDIN_FILENO;
    (void)mountinfo_find_mmc();
    mountpoint_get_manager()->mask = 1;  // looks at every line, and mounts nothing
    mountinfo_refresh_state();
    return 0;
}
