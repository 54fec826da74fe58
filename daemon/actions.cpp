// Every request is answered at once: a deletion is queued, a format or an eject only started. What became of it shows
// in the clip index and in the card state.
#include "actions.h"

#include <errno.h>
#include <json-c/json.h>
#include <string.h>
#include <sys/statfs.h>

#include "mountpoint.h"
#include "records.h"
#include "sdcard.h"

namespace {

// What the framework sends back; a negated errno beside these.
enum action_result : int32_t {
    ACTION_DONE = 0,
    ACTION_ANSWERED = 0x7fffffff,  // done, the answer is in the reply object
    ACTION_BUSY = -2000,           // formatting, checking or ejecting
    ACTION_BROKEN = -2002,         // card broken, no figures to be had, or the eject failed
    ACTION_NO_CARD = -2003,        // or the format failed
    ACTION_EJECTED = -2005,
};

// A clip's timestamp, cut to 32 bits; 0 for null.
uint32_t timestamp_at(const json_object* array, size_t index) {
    json_object* const element = json_object_array_get_idx(array, index);
    return element != nullptr ? static_cast<uint32_t>(json_object_get_int64(element)) : 0;
}

// "deleteVideo" and "deleteSaveVideo": protected clips go with the others under both names.
int32_t act_delete_video(void*, json_object* params, json_object*) {
    if (!json_object_is_type(params, json_type_array)) {
        return -EINVAL;
    }
    const auto count = static_cast<uint32_t>(json_object_array_length(params));
    del_list_entry* const batch = records_del_begin(count);
    if (batch == nullptr) {
        return -ENOMEM;
    }
    for (uint32_t i = 0; i < count; ++i) {
        batch->ts[i] = timestamp_at(params, i);
    }
    // While the index is closed the request is answered like any other and the batch stays allocated for good, 4 bytes
    // a clip. The cloud side, which asks, takes 0 for "accepted" and looks at the clips later, so it gets no other code
    // for a card that is away; and who owns a batch whose commit failed is the recordings' contract, not settled here.
    (void)records_del_commit(batch);
    return ACTION_DONE;
}

int32_t act_save_video(void*, json_object* params, json_object*) {
    if (!json_object_is_type(params, json_type_array)) {
        return -EINVAL;
    }
    const size_t count = json_object_array_length(params);
    for (size_t i = 0; i < count; ++i) {
        if (json_object_array_get_idx(params, i) == nullptr) {
            continue;
        }
        const uint32_t ts = timestamp_at(params, i);
        if (records_mark_persistent(ts) < 0) {
            log_warning("Error mark %u as persistent. %s", ts, strerror(errno));
        }
    }
    return ACTION_DONE;
}

// ACTION_DONE: the card has figures to give.
int32_t storage_refusal(sdcard_state state) {
    switch (state) {
        case SDCARD_NOT_EXISTS:
        case SDCARD_UNKNOWN:
            return ACTION_NO_CARD;
        case SDCARD_BROKEN:
            return ACTION_BROKEN;
        case SDCARD_FORMATTING:
        case SDCARD_FIXING:
        case SDCARD_EJECTING:
            return ACTION_BUSY;
        case SDCARD_EJECT:
            return ACTION_EJECTED;
        case SDCARD_NORMAL:
        case SDCARD_FULL:
            break;
    }
    return ACTION_DONE;
}

int64_t to_bytes(uint64_t blocks, const struct statfs& space) {
    return static_cast<int64_t>(blocks * static_cast<uint64_t>(space.f_bsize));
}

int32_t act_sd_storage(void*, json_object*, json_object* reply) {
    const sdcard_state state = sdcard_get_state();
    const int32_t refusal = storage_refusal(state);
    if (refusal != ACTION_DONE) {
        return refusal;
    }
    json_object* const result = json_object_new_array();
    if (result == nullptr) {
        return -ENOMEM;
    }
    const uint64_t used = record_dir_size();
    struct statfs space;
    if (mountpoint_statfs(&space) < 0) {
        // The array is not released. Kept as it stands: it takes an unmount between the state and this line, and costs
        // a few dozen bytes.
        return ACTION_BROKEN;
    }
    json_object_array_put_idx(result, 0, json_object_new_int64(to_bytes(space.f_blocks, space)));
    json_object_array_put_idx(result, 1, json_object_new_int64(static_cast<int64_t>(used)));
    json_object_array_put_idx(result, 2, json_object_new_int64(to_bytes(space.f_bavail, space)));
    json_object_array_put_idx(result, 3, json_object_new_int(state));
    json_object_object_add(reply, "result", result);
    return ACTION_ANSWERED;
}

int32_t act_sd_format(void*, json_object*, json_object*) {
    return sdcard_mkfs() < 0 ? ACTION_NO_CARD : ACTION_DONE;
}

int32_t act_sd_umount(void*, json_object*, json_object*) {
    return sdcard_eject() < 0 ? ACTION_BROKEN : ACTION_DONE;
}

}  // namespace

const remote_action action_table[] = {
    {.name = "deleteVideo", .handler = act_delete_video, .reserved = {}},
    {.name = "deleteSaveVideo", .handler = act_delete_video, .reserved = {}},
    {.name = "saveVideo", .handler = act_save_video, .reserved = {}},
    {.name = "sd_storge", .handler = act_sd_storage, .reserved = {}},  // spelt so by everybody who asks
    {.name = "sd_format", .handler = act_sd_format, .reserved = {}},
    {.name = "sd_umount", .handler = act_sd_umount, .reserved = {}},
    {},
};
