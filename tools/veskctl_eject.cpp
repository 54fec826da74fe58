// veskctl eject: makes the card safe to pull. The state "eject" is published only for a card that is.
#include "tools/card_job.h"

namespace {

int judge(long state, char* detail, size_t size, void*) {
    switch (state) {
        case STATE_EJECT:
            (void)snprintf(detail, size, "the card may be pulled");
            return VESKCTL_DONE;
        case STATE_NORMAL:
        case STATE_FULL:
        case STATE_BROKEN:
            (void)snprintf(detail, size, "the card is still in service; veskctl busy names who holds it");
            return VESKCTL_FAILED;
        default:
            (void)snprintf(detail, size, "no card is in service");
            return VESKCTL_UNKNOWN;
    }
}

}  // namespace

int veskctl_eject(const veskctl_options& options, int argc, char** argv) {
    static constexpr card_job JOB = {"eject", "karvel/mem/default/spec_sdcard_unmount", STATE_EJECTING, nullptr};
    return card_job_run(options, argc, argv, JOB, nullptr, judge, nullptr);
}
