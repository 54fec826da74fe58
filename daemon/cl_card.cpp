#include "cl_card.h"

#include <stdint.h>

#include "mmc.h"
#include "vesk_util.h"

namespace {

constinit uint32_t begun_with;  // at most one job runs

}  // namespace

void cl_card_remember() {
    begun_with = mmc_get_insertion();
}

bool cl_card_is_same(const char* job, const char* path) {
    // The nodes as well as the count: a tool's end is handled before the uevents that wait beside it.
    if (mmc_get_insertion() == begun_with && mmc_is_node_known(mmc_get_manager()->disk.path) &&
        mmc_is_node_known(path)) {
        return true;
    }
    log_err("%s: the sdcard is not the one that the job began with", job);
    return false;
}
