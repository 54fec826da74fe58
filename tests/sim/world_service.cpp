// The platform libraries: the configuration service and its client, the application framework, the log and the reports.
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ev.h>
#include <json-c/json.h>

#include "faults.h"
#include "invariants.h"
#include "karvel.h"
#include "real.h"
#include "records.h"
#include "sdcard.h"
#include "vesk_statistics.h"
#include "vesk_util.h"
#include "world.h"

// An answer or a notification on its way to the daemon.
struct karvel_response {
    std::string name_space;
    std::string group;
    std::string key;
    std::optional<std::string> value;
    int error = 0;
};

extern "C" json_object* __real_json_object_new_object(void);
extern "C" json_object* __real_json_object_new_array(void);

namespace {

using namespace sim;

constexpr int32_t ANSWERED = 0x7fffffff;
constexpr live_memory EMPTY_ARRAY = {3, 340};  // of json-c, with room for its elements

struct pending {
    karvel_callback on_ok;
    karvel_callback on_fail;
    void* context;
    std::string key;
    std::string value;
    int64_t deadline_ns;
};

struct registration {
    std::string key;
    karvel_callback on_notify;
    karvel_callback on_fail;
    void* context;
    uint32_t id;
};

struct delivery {
    karvel_callback callback;
    void* context;
    karvel_response response;
};

}  // namespace

struct karvel_handle {
    int number = 0;
    int fd = -1;
    ev_io watcher = {};
    bool is_closed = false;
    bool is_lost = false;
    std::vector<pending> sets;
    std::vector<registration> registrations;
    std::deque<delivery> deliveries;
};

namespace sim {
namespace {

constexpr int64_t ANSWER_NS = 2 * MS;

enum class broker : uint8_t { UP, AWAY, FROZEN, REFUSES };
broker service = broker::UP;
std::map<std::string, std::string> keys;
std::map<std::string, std::string> handed_over;
std::set<std::string> failed;                  // keys whose last set has failed, and the daemon knows it
std::map<std::string, std::string> left_over;  // by key: set on a handle that was closed before a frozen service saw it
std::vector<std::unique_ptr<karvel_handle>> handles;  // never freed: the daemon goes on using closed ones
uint32_t next_id = 1;
int64_t link_changed_at;
int pairs;

bool has_run;  // the loop is broken
int action_fd = -1;
ev_io action_watcher;
const remote_action* action_rows;
std::deque<std::function<void()>> actions;

karvel_handle* live_handle() {
    karvel_handle* last = handles.empty() ? nullptr : handles.back().get();
    return last != nullptr && !last->is_closed && !last->is_lost ? last : nullptr;
}

void deliver(karvel_handle* handle, delivery d) {
    handle->deliveries.push_back(std::move(d));
    set_readable(handle->fd, true);
}

void notify(const std::string& key, const std::string& value) {
    karvel_handle* handle = live_handle();
    if (handle == nullptr) {
        return;
    }
    for (const registration& r : handle->registrations) {
        if (r.key == key) {
            deliver(handle, {r.on_notify, r.context, {"mem", "default", key, value, 0}});
        }
    }
}

// What an announcement makes of the list: its mark replaces the one that was there.
void heard_announcement(const std::string& value) {
    unsigned ts = 0;
    unsigned seconds = 0;
    unsigned flags = 0;
    if (!list_is_open() || sscanf(value.c_str(), "%u,%u,%u", &ts, &seconds, &flags) != 3) {
        return;
    }
    std::set<uint32_t>& protected_ts = list_filesystem()->list.protected_ts;
    if (flags != 0) {
        protected_ts.insert(ts);
    } else {
        protected_ts.erase(ts);
    }
}

// What the daemon has been asked by key it answers in the same call.
void on_readable(struct ev_loop*, ev_io* watcher, int) {
    auto* handle = static_cast<karvel_handle*>(watcher->data);
    while (!handle->is_closed && !handle->deliveries.empty()) {
        delivery d = std::move(handle->deliveries.front());
        handle->deliveries.pop_front();
        const bool is_request = d.response.error == 0 && d.response.name_space == "mem" && d.response.value &&
                                d.response.value->substr(0, 5) == "start" && d.response.key.substr(0, 5) == "spec_";
        if (d.response.error == 0 && d.response.key == "sdcard_kyt" && d.response.value) {
            heard_announcement(*d.response.value);
        }
        d.callback(&d.response, d.context);
        if (is_request && failures_of(call::MALLOC) == 0 && live_handle() == handle &&
            failures_of(call::KARVEL_SET) == 0) {
            const std::string answer = handed_over[d.response.key];
            if (answer != "end" + std::to_string(wall_s()) && answer != "end" + std::to_string(wall_s() - 1)) {
                violation("a request by %s is answered with %s", d.response.key.c_str(), answer.c_str());
            }
        }
    }
    if (!handle->is_closed && handle->deliveries.empty()) {
        set_readable(handle->fd, false);
    }
}

// The loop's memory is its own business and lives as long as the process.
void* allocate_for_loop(void* block, long size) noexcept {
    if (size > 0) {
        return __real_realloc(block, static_cast<size_t>(size));
    }
    __real_free(block);
    return nullptr;
}

// What is outstanding fails: the sets first, then the registrations.
void lose(karvel_handle* handle) {
    handle->is_lost = true;
    link_changed_at = now_ns();
    handle->deliveries.clear();
    for (const pending& p : handle->sets) {
        failed.insert(p.key);
        deliver(handle, {p.on_fail, p.context, {"mem", "default", p.key, std::nullopt, 0}});
    }
    for (const registration& r : handle->registrations) {
        deliver(handle, {r.on_fail, r.context, {"mem", "default", r.key, std::nullopt, 0}});
    }
    handle->sets.clear();
    handle->registrations.clear();
}

void complete_set(karvel_handle* handle, void* context) {
    for (size_t i = 0; i < handle->sets.size(); ++i) {
        const pending p = handle->sets[i];
        if (p.context != context || service == broker::FROZEN) {
            continue;
        }
        handle->sets.erase(handle->sets.begin() + static_cast<std::ptrdiff_t>(i));
        const bool is_taken = service == broker::UP;
        deliver(handle, {is_taken ? p.on_ok : p.on_fail, p.context, {"mem", "default", p.key, std::nullopt, 0}});
        if (is_taken) {
            keys[p.key] = p.value;
            notify(p.key, p.value);
        } else {
            failed.insert(p.key);
        }
        return;
    }
}

void thaw() {
    service = broker::UP;
    for (const auto& [key, value] : left_over) {
        keys[key] = value;
    }
    left_over.clear();
    if (karvel_handle* handle = live_handle()) {
        while (!handle->sets.empty()) {
            complete_set(handle, handle->sets.front().context);
        }
    }
}

void on_action(struct ev_loop*, ev_io*, int) {
    while (!actions.empty()) {
        const std::function<void()> next = std::move(actions.front());
        actions.pop_front();
        next();
    }
    set_readable(action_fd, false);
}

void post(std::function<void()> what) {
    actions.push_back(std::move(what));
    set_readable(action_fd, true);
}

// What the handlers must answer with, by the state that is published.
int expected_storage(int state) {
    switch (state) {
        case SDCARD_NOT_EXISTS:
        case SDCARD_UNKNOWN:
            return -2003;
        case SDCARD_BROKEN:
            return -2002;
        case SDCARD_FORMATTING:
        case SDCARD_FIXING:
        case SDCARD_EJECTING:
            return -2000;
        case SDCARD_EJECT:
            return -2005;
        default:
            return ANSWERED;
    }
}

void check_storage(int32_t code, int state, json_object* reply) {
    if (failures() > 0 || at_mount_point()->statfs_errno != 0) {
        return;
    }
    if (code != expected_storage(state) && !(code == -2002 && expected_storage(state) == ANSWERED)) {
        violation("sd_storge answers %d in state %d", code, state);
    }
    json_object* result = nullptr;
    if (code == ANSWERED &&
        (!json_object_object_get_ex(reply, "result", &result) || json_object_array_length(result) != 4 ||
         json_object_get_int64(json_object_array_get_idx(result, 2)) !=
             static_cast<int64_t>(at_mount_point()->free_kib() * 1024) ||
         json_object_get_int64(json_object_array_get_idx(result, 0)) !=
             static_cast<int64_t>(at_mount_point()->total_kib * 1024) ||
         json_object_get_int(json_object_array_get_idx(result, 3)) != state)) {
        violation("sd_storge answers %s", json_object_to_json_string(reply));
    }
}

void check_clips_answer(const std::string& name, const std::vector<uint32_t>& timestamps, int32_t code) {
    if (code != 0) {
        if (code != -12 || failures_of(call::MALLOC) == 0) {
            violation("%s answers %d", name.c_str(), code);
        }
        return;
    }
    if (!list_is_open()) {
        return;
    }
    clip_list& list = list_filesystem()->list;
    for (const uint32_t ts : timestamps) {
        const auto at = list.slots.find(ts);
        const bool is_listed = at != list.slots.end() && !at->second.is_deleted;
        if (name != "saveVideo") {
            if (is_listed) {
                violation("%s leaves %u in the list", name.c_str(), ts);
            }
        } else if (is_listed) {
            list.protected_ts.insert(ts);
        }
    }
}

void act(const char* name, const std::string& parameters, const std::vector<uint32_t>& timestamps) {
    for (const remote_action* row = action_rows; row->name != nullptr; ++row) {
        if (strcmp(row->name, name) != 0) {
            continue;
        }
        note("request: %s %s", name, parameters.c_str());
        const bool deletes = strncmp(name, "delete", 6) == 0;
        std::vector<uint32_t> listed;
        if (deletes && list_is_open()) {
            for (const uint32_t ts : timestamps) {
                const auto at = list_filesystem()->list.slots.find(ts);
                if (at != list_filesystem()->list.slots.end() && !at->second.is_deleted) {
                    clip_requested(ts);
                    listed.push_back(ts);
                }
            }
        }
        json_object* params;
        json_object* reply;
        {
            const faults_paused pause;
            params = json_tokener_parse(parameters.c_str());
            reply = json_object_new_object();
        }
        const int state = sdcard_get_state();
        const bool has_list = list_is_open();
        const bool is_array = json_object_is_type(params, json_type_array) != 0;
        const int32_t code = row->handler(nullptr, params, reply);
        const faults_paused pause;
        note("answer: %d %s", code, json_object_to_json_string(reply));
        if (strcmp(name, "sd_storge") == 0) {
            check_storage(code, state, reply);
        } else if (name[0] != 's' || strcmp(name, "saveVideo") == 0) {
            if (!is_array && code != -22) {
                violation("%s without an array answers %d", name, code);
            }
            if (is_array) {
                check_clips_answer(name, timestamps, code);
            }
        } else if (code != 0 && code != (strcmp(name, "sd_format") == 0 ? -2003 : -2002)) {
            violation("%s answers %d", name, code);
        }
        if (deletes && code == 0 && !has_list) {
            // The batch is lost with the list.
            memory_lost({1, sizeof(del_list_entry) + json_object_array_length(params) * sizeof(uint32_t)});
        } else if (strcmp(name, "sd_storge") == 0 && code == -2002 && expected_storage(state) == ANSWERED) {
            memory_lost(EMPTY_ARRAY);  // the card went between two looks at it
        }
        if (code != 0) {
            for (const uint32_t ts : listed) {
                unlink_tried(ts);  // nobody will
            }
        }
        json_object_put(params);
        json_object_put(reply);
        changed();
    }
}

// Some clips of the list, some that never were.
std::vector<uint32_t> some_clips(uint32_t parameters) {
    std::vector<uint32_t> chosen;
    const std::shared_ptr<filesystem> fs = at_mount_point();
    const uint32_t wanted = parameters % 5 == 0 ? 40 : parameters % 4;
    uint32_t skip = (parameters >> 4) % 8;
    for (const auto& [ts, slot] : fs->list.slots) {
        if (skip > 0) {
            --skip;
        } else if (chosen.size() < wanted) {
            chosen.push_back(ts);
            skip = (parameters >> 8) % 3;
        }
    }
    if ((parameters >> 12) % 4 == 0) {
        chosen.push_back(123);
    }
    return chosen;
}

std::string array_of(const std::vector<uint32_t>& timestamps, uint32_t parameters) {
    std::string text = "[";
    for (const uint32_t ts : timestamps) {
        // Cut to 32 bits, so that a larger number means the same clip.
        const uint64_t number = ts + ((parameters >> 16) % 8 == 0 ? uint64_t{1} << 32 : 0);
        text += (text.size() > 1 ? "," : "") + std::to_string(number);
    }
    return text + ((parameters >> 20) % 8 == 0 ? (timestamps.empty() ? "null]" : ",null]") : "]");
}

}  // namespace

void change_broker(uint32_t how, uint32_t length) {
    if (service != broker::UP) {
        return;
    }
    const int64_t length_ns = (1 + length % (how % 8 == 0 ? 4000 : 40)) * SECOND;
    switch (how % 4) {
        case 0:
        case 1:
            note("broker: away");
            service = broker::AWAY;
            if (karvel_handle* handle = live_handle()) {
                lose(handle);
            }
            later(length_ns, [] {
                note("broker: back");
                service = broker::UP;
                link_changed_at = now_ns();
            });
            break;
        case 2:
            note("broker: frozen");
            service = broker::FROZEN;
            later(length_ns, [] {
                note("broker: thawed");
                thaw();
                link_changed_at = now_ns();
            });
            break;
        case 3:
            note("broker: refuses");
            service = broker::REFUSES;
            later(length_ns, [] {
                note("broker: takes again");
                service = broker::UP;
                link_changed_at = now_ns();
            });
            break;
    }
    link_changed_at = now_ns();
}

void odd_notice(uint32_t a) {
    karvel_handle* handle = live_handle();
    if (handle == nullptr || handle->registrations.empty()) {
        return;
    }
    const registration r = handle->registrations[(a >> 8) % handle->registrations.size()];
    switch (a % 6) {
        case 0:  // not its own
            deliver(handle, {r.on_notify, r.context, {"mem", "default", "other", "12", 0}});
            break;
        case 1:
            deliver(handle, {r.on_notify, r.context, {"disk", "none", "other", "12", 0}});
            break;
        case 2:
            deliver(handle, {r.on_notify, r.context, {"mem", "default", r.key, std::nullopt, 0}});
            break;
        case 3:
            deliver(handle, {r.on_notify, r.context, {"mem", "default", r.key, std::nullopt, EIO}});
            break;
        case 4:
            deliver(handle, {r.on_notify, r.context, {"mem", "default", r.key, "stop", 0}});
            break;
        case 5:
            set_key("sdcard_kyt", (a >> 4) % 2 != 0 ? "0" : "12,x");
            break;
    }
}

void set_key(const std::string& key, const std::string& value) {
    if (service == broker::AWAY) {
        return;
    }
    keys[key] = value;
    later(ANSWER_NS, [key, value] {
        if (service != broker::AWAY) {
            notify(key, value);
        }
    });
}

void announce(uint32_t ts, uint32_t seconds, bool is_protected) {
    char text[48];
    snprintf(text, sizeof text, "%u,%u,%d", ts, seconds, is_protected ? 1 : 0);
    set_key("sdcard_kyt", text);
}

std::string key_value(const std::string& key) {
    return keys[key];
}

std::string last_set(const std::string& key) {
    return handed_over[key];
}

bool has_failed(const std::string& key) {
    return failed.count(key) != 0;
}

bool is_link_up() {
    return service == broker::UP && live_handle() != nullptr && live_handle()->registrations.size() >= 3;
}

int64_t link_changed_ns() {
    return link_changed_at;
}

void request(uint32_t what, uint32_t parameters) {
    switch (what % 16) {
        case 0:
            set_key("spec_sdcard_format", "start");
            break;
        case 1:
            set_key("spec_sdcard_unmount", parameters % 2 != 0 ? "start" : "started");
            break;
        case 2:
            set_key(parameters % 2 != 0 ? "spec_sdcard_unmount" : "spec_sdcard_format", "Start");
            break;
        case 3:
            post([] { act("sd_format", "{}", {}); });
            break;
        case 4:
            post([] { act("sd_umount", "{}", {}); });
            break;
        case 5:
        case 6:
            post([] { act("sd_storge", "null", {}); });
            break;
        case 7:
            post([parameters] { act(parameters % 2 != 0 ? "deleteVideo" : "saveVideo", "{\"a\":1}", {}); });
            break;
        case 8:  // more than there are workers
            for (uint32_t i = 0; i < 7; ++i) {
                post([parameters, i] {
                    const auto clips = some_clips(parameters + i * 257);
                    act("deleteVideo", array_of(clips, 1U << 16), clips);
                });
            }
            break;
        case 9:
        case 10:
            post([parameters] {
                const auto clips = some_clips(parameters);
                act("deleteVideo", array_of(clips, parameters), clips);
            });
            break;
        case 11:
            post([parameters] {
                const auto clips = some_clips(parameters);
                act("deleteSaveVideo", array_of(clips, parameters), clips);
            });
            break;
        case 12:
            post([] { note("request: sdcard_fsck answers %d", sdcard_fsck()); });
            break;
        default:
            post([parameters] {
                const auto clips = some_clips(parameters);
                act("saveVideo", array_of(clips, parameters), clips);
            });
            break;
    }
}

}  // namespace sim

using namespace sim;

extern "C" {

json_object* __wrap_json_object_new_object(void) {
    return must_fail(call::JSON_OBJECT) ? nullptr : __real_json_object_new_object();
}

json_object* __wrap_json_object_new_array(void) {
    return must_fail(call::JSON_ARRAY) ? nullptr : __real_json_object_new_array();
}

karvel_handle* libkarvelev_config_open(struct ev_loop* loop, int) {
    spend(100'000);
    if (must_fail(call::KARVEL_OPEN) || service == broker::AWAY) {
        return nullptr;
    }
    if (live_handle() != nullptr) {
        violation("the link is opened twice");
    }
    auto made = std::make_unique<karvel_handle>();
    made->number = static_cast<int>(handles.size());
    made->fd = open_bus();
    ev_io_init(&made->watcher, on_readable, made->fd, EV_READ);
    made->watcher.data = made.get();
    ev_io_start(loop, &made->watcher);
    link_changed_at = now_ns();
    handles.push_back(std::move(made));
    return handles.back().get();
}

void libkarvel_close(karvel_handle* handle) {
    if (handle == nullptr || handle->is_closed) {
        return;
    }
    if (has_run && open_descriptors(fd_kind::NETLINK) != 0) {
        violation("the link goes before the card manager");
    }
    handle->is_closed = true;
    handle->deliveries.clear();
    // Neither callback runs for these: a service that answers gets them before the handle goes, a frozen one later.
    for (const pending& p : handle->sets) {
        if (service == broker::UP) {
            keys[p.key] = p.value;
        } else if (service == broker::FROZEN) {
            left_over[p.key] = p.value;
        } else {
            failed.insert(p.key);
        }
    }
    handle->sets.clear();
    handle->registrations.clear();
    ev_io_stop(EV_DEFAULT, &handle->watcher);
    close_bus(handle->fd);
    link_changed_at = now_ns();
}

bool libkarvel_set_value(karvel_handle* handle, const char* name_space, const char* group, const char* key, int keep,
                         const char* value, karvel_callback on_ok, karvel_callback on_fail, int timeout_s,
                         void* context) {
    if (strcmp(name_space, "mem") != 0 || group != nullptr || keep != 1 || timeout_s != 3) {
        violation("set of %s:%s %d %d", name_space, key, keep, timeout_s);
    }
    if (handle == nullptr || handle->is_closed || handle->is_lost || must_fail(call::KARVEL_SET)) {
        return false;
    }
    note("set: %s = %s", key, value);
    handed_over[key] = value;
    failed.erase(key);
    handle->sets.push_back({on_ok, on_fail, context, key, value, now_ns() + timeout_s * SECOND});
    later(ANSWER_NS, [handle, context] {
        if (!handle->is_closed && !handle->is_lost) {
            complete_set(handle, context);
        }
    });
    return true;
}

bool libkarvel_register_notification(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                                     uint32_t* id, karvel_callback on_notify, karvel_callback on_fail, int confirm,
                                     void* context) {
    if (strcmp(name_space, "mem") != 0 || strcmp(group, "default") != 0 || confirm != 1 || *id != 0) {
        violation("registration of %s:%s:%s %d", name_space, group, key, confirm);
    }
    if (handle == nullptr || handle->is_closed || handle->is_lost || must_fail(call::KARVEL_REGISTER)) {
        return false;
    }
    std::erase_if(handle->registrations,
                  [key, context](const registration& r) { return r.key == key && r.context == context; });
    *id = next_id++;
    handle->registrations.push_back({key, on_notify, on_fail, context, *id});
    const std::string name = key;
    later(ANSWER_NS, [handle, on_notify, context, name] {
        if (!handle->is_closed && !handle->is_lost && service != broker::FROZEN) {
            deliver(handle, {on_notify, context, {"mem", "default", name, std::nullopt, 0}});
        }
    });
    return true;
}

bool libkarvel_get_value(karvel_handle*, const char*, const char*, const char*, karvel_callback, void*, int, void*) {
    violation("the daemon reads a key");
}

void libkarvel_timeout_process(karvel_handle* handle) {
    if (handle == nullptr || handle->is_closed) {
        return;
    }
    for (size_t i = 0; i < handle->sets.size();) {
        const pending p = handle->sets[i];
        if (p.deadline_ns > now_ns()) {
            ++i;
            continue;
        }
        handle->sets.erase(handle->sets.begin() + static_cast<std::ptrdiff_t>(i));
        failed.insert(p.key);
        deliver(handle, {p.on_fail, p.context, {"mem", "default", p.key, std::nullopt, 0}});
    }
}

bool libkarvel_xhandle_response(karvel_handle*) {
    violation("the daemon handles the link itself");
}

karvel_xpair* xresponse_parse(karvel_response* response, int* error) {
    *error = response->error;
    if (response->error != 0) {
        return nullptr;
    }
    const auto* name = new karvel_xname{response->name_space.c_str(), response->group.c_str(), response->key.c_str()};
    const auto* value = response->value ? new karvel_xvalue{response->value->data(), response->value->size()} : nullptr;
    ++pairs;
    return new karvel_xpair{name, value};
}

void xpair_basefree(karvel_xpair* pair) {
    if (pair != nullptr) {
        --pairs;
        delete pair->first;
        delete pair->second;
        delete pair;
    }
}

int xcontrol_get_response(karvel_response*, const karvel_xvalue**) {
    return 0;
}

int app_init(const vesk_app_descriptor* descriptor, int, char**) {
    if (strcmp(descriptor->name, "vesk_sdcard") != 0) {
        violation("the daemon calls itself %s", descriptor->name);
    }
    ev_set_allocator(allocate_for_loop);
    action_rows = descriptor->actions;
    action_fd = open_bus();
    ev_io_init(&action_watcher, on_action, action_fd, EV_READ);
    ev_io_start(EV_DEFAULT, &action_watcher);
    return 0;
}

int app_run(void) {
    ev_run(EV_DEFAULT, 0);
    has_run = true;
    return 0;
}

void app_fini(void) {
    // The last of all.
    if (live_handle() != nullptr || list_is_open() || open_descriptors(fd_kind::NETLINK) != 0) {
        violation("the framework goes before the link, the list or the uevents");
    }
    ev_io_stop(EV_DEFAULT, &action_watcher);
    close_bus(action_fd);
    if (pairs != 0) {
        violation("%d parsed notifications were not freed", pairs);
    }
}

int rand_range(int a, int b) {
    return a + static_cast<int>(chance().below(static_cast<uint32_t>(b - a + 1)));
}

int report_stat_object(const char* event_name, json_object* object) {
    const faults_paused pause;
    const std::string text = json_object_to_json_string(object);
    note("report: %s %s", event_name, text.c_str());
    heard_report(event_name, text);
    json_object_put(object);
    return 0;
}

}  // extern "C"

namespace {

void hear(const char* level, const char* prefix, const char* format, va_list args) {
    char text[4096];
    vsnprintf(text, sizeof text, format, args);
    note("%s: %s%s", level, prefix, text);
    heard_log(level, std::string(prefix) + text);
    errno = 0;  // a log may disturb errno
}

}  // namespace

#define LOG_LEVEL(level, name)                                                 \
    void log_##level(const char* format, ...) {                                \
        va_list args;                                                          \
        va_start(args, format);                                                \
        hear(name, "", format, args);                                          \
        va_end(args);                                                          \
    }                                                                          \
    void log_vp##level(const char* prefix, const char* format, va_list args) { \
        hear(name, prefix, format, args);                                      \
    }

extern "C" {
LOG_LEVEL(crit, "crit")
LOG_LEVEL(err, "err")
LOG_LEVEL(warning, "warning")
LOG_LEVEL(info, "info")
LOG_LEVEL(debug, "debug")
}
