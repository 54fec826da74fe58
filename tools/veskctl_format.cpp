// veskctl format: erases the card. What the daemon publishes is the same after a failure, so that success is shown by
// the card itself: a filesystem that was not there before, mounted.
#include <cstring>
#include <ctime>

#include "tools/card_job.h"
#include "tools/volume.h"

namespace {

// At the card, a tenth of a second apart. The state and the mount may be seen out of step, and what the job could not
// mount the daemon tries again two seconds later.
constexpr int LOOKS = 30;

struct picture {
    fat_volume before[VOLUMES_MAX];
    size_t count;
};

void look_before(void* context) {
    auto* before = static_cast<picture*>(context);
    before->count = veskctl_is_local() ? volume_list(before->before) : 0;
}

bool was_there(const picture& before, uint32_t id) {
    for (size_t i = 0; i < before.count; ++i) {
        if (before.before[i].id == id) {
            return true;
        }
    }
    return false;
}

int judge(long state, char* detail, size_t size, void* context) {
    const auto* before = static_cast<const picture*>(context);
    if (state == STATE_BROKEN) {
        (void)snprintf(detail, size, "the card is broken");
        return VESKCTL_FAILED;
    }
    // Behind a format that failed halfway there is often nothing to mount, and the state is the one without a card: it
    // is called broken only with the next try to mount it.
    const bool in_service = state == STATE_NORMAL || state == STATE_FULL;
    bool has_card = in_service || (state == STATE_NOT_EXISTS && veskctl_is_local() && volume_card_is_present());
    char device[VOLUME_PATH];
    fat_volume now = {};
    bool seen = false;
    for (int i = 0; i < LOOKS && has_card && veskctl_is_local(); ++i) {
        seen = volume_mounted(device) && volume_read(device, &now);
        if (seen && !was_there(*before, now.id)) {
            (void)snprintf(detail, size, "new volume %04X-%04X %s on %.64s", static_cast<unsigned>(now.id >> 16),
                           static_cast<unsigned>(now.id & 0xffff), now.label, device);
            return VESKCTL_DONE;
        }
        const timespec tenth = {0, 100'000'000};
        nanosleep(&tenth, nullptr);
        has_card = in_service || volume_card_is_present();
    }
    if (!has_card) {
        (void)snprintf(detail, size, "no card is in service");
        return VESKCTL_UNKNOWN;
    }
    if (seen) {
        (void)snprintf(detail, size, "the old volume %04X-%04X is mounted; veskctl busy names who holds it",
                       static_cast<unsigned>(now.id >> 16), static_cast<unsigned>(now.id & 0xffff));
        return VESKCTL_FAILED;
    }
    if (!in_service) {
        (void)snprintf(detail, size, "nothing on the card can be mounted");
        return VESKCTL_FAILED;
    }
    (void)snprintf(detail, size, "the card cannot be seen from here");
    return VESKCTL_UNKNOWN;
}

}  // namespace

int veskctl_format(const veskctl_options& options, int argc, char** argv) {
    static constexpr card_job JOB = {"format", "karvel/mem/default/spec_sdcard_format", STATE_FORMATTING,
                                     "Everything on the card will be erased. Format it?"};
    picture before = {};
    return card_job_run(options, argc, argv, JOB, look_before, judge, &before);
}
