#include "invariants.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ev.h>

#include "faults.h"
#include "mmc.h"
#include "mountpoint.h"
#include "sdcard.h"
#include "world.h"

namespace sim {
namespace {

// What the daemon may take to notice: a second's pause for a new disk, two until the next look at the mount, and what
// the card takes to be mounted and opened.
constexpr int64_t SETTLED_NS = 6 * SECOND;
constexpr int64_t WORKER_PATIENCE_NS = 300 * SECOND;
constexpr int64_t JOB_PAUSE_NS = 5 * SECOND;  // the longest that a job waits without a tool: half a second, and slack
constexpr int64_t REFRESH_NS = 1810 * SECOND;
constexpr uint64_t FULL_KIB = 40960;
constexpr unsigned CARD_MAJOR = 179;
constexpr int MOST_BLOCKS = 13;
constexpr size_t MOST_BYTES = 200;
constexpr size_t TABLE_BYTES = 4095;  // of the mount table that the daemon looks at
constexpr int64_t CHURN_NS = 60 * SECOND;
constexpr size_t MOST_MOUNTS = 5;  // within CHURN_NS, with nothing in between that would ask for one

struct block {
    uint32_t minor;
    std::string name;
};

// The daemon's table of block devices, as it must be.
std::optional<block> disk;
std::vector<block> partitions;
bool is_disk_open;
bool is_adding_disk;  // its opening is awaited
bool is_flag_set;     // the read-only flag, as it was at the end of the last batch
bool is_ejected;
bool is_batch_accepted;
bool is_known;         // a first rescan has been
uint32_t disk_serial;  // the card that the disk was told of; 0: none
std::shared_ptr<card> opened;

// The job that runs, or ran last.
uint32_t job_serial;  // the card that it began with
int64_t job_began_at;
int64_t job_looked_at;

int64_t changed_at;
bool is_judged;  // since the last change
int32_t last_state = SDCARD_UNKNOWN;
int64_t idle_since;  // a busy frame without a tool, since when; 0: not so
// Clips that workers have to remove: in how many batches, since when. A clip whose batch waits comes back with the next
// opening of the list, and may be asked for again.
struct request_of_clip {
    int batches;
    int64_t since_ns;
};
std::map<uint32_t, request_of_clip> requested;
uint32_t freed_ts;       // the clip that is being freed
int64_t full_since;      // and with clips to delete; 0: not so
bool is_clip_announced;  // in this iteration
uint64_t failures_at_announcement;
uint64_t failures_while_full;
uint64_t last_free_kib = UINT64_MAX;  // as the daemon was told since the last clip was freed
bool may_abort;
live_memory lost;                // as documented
std::deque<int64_t> mounted_at;  // the daemon's own mounts since there was a reason for one

bool is_busy() {
    return sd.closure.status == CLOSURE_BUSY;
}

bool is_in_table(uint32_t minor) {
    const auto has = [minor](const block& b) { return b.minor == minor; };
    return (disk && has(*disk)) || std::any_of(partitions.begin(), partitions.end(), has);
}

// Is a device that the daemon knows mounted, wherever, as far as it can see the mount table?
bool is_mounted() {
    const std::string text = mountinfo().substr(0, TABLE_BYTES);
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        unsigned major = 0;
        unsigned minor = 0;
        if (sscanf(text.substr(begin, end - begin).c_str(), "%*d %*d %u:%u", &major, &minor) == 2 &&
            major == CARD_MAJOR && is_in_table(minor)) {
            return true;
        }
        begin = end + 1;
    }
    return false;
}

bool can_be_mounted(const std::string& name) {
    const auto found = find_device("/dev/" + name);
    if (!found) {
        return false;
    }
    const std::shared_ptr<filesystem> fs = found->part != nullptr ? found->part->fs : found->of->whole;
    // What is there already is not mounted a second time.
    const bool is_there = std::any_of(mounts.begin(), mounts.end(),
                                      [&fs](const mounted& m) { return m.fs == fs && m.target == "/mnt/sdcard"; });
    return fs != nullptr && !is_there && (fs->type == "vfat" || fs->type == "exfat");
}

bool is_mountable() {
    return (disk && can_be_mounted(disk->name)) ||
           std::any_of(partitions.begin(), partitions.end(), [](const block& b) { return can_be_mounted(b.name); });
}

// Is there a clip that can be deleted to free space?
bool has_clip_to_free(filesystem& fs) {
    if (fs.is_gone || fs.is_read_only || fs.unlink_errno != 0 || !list_is_open() || list_filesystem() != &fs) {
        return false;
    }
    return std::any_of(fs.list.slots.begin(), fs.list.slots.end(), [&fs](const auto& entry) {
        return !entry.second.is_deleted && fs.list.protected_ts.count(entry.first) == 0 &&
               find(fs, clip_path(entry.first) + ".mp4") != nullptr;
    });
}

// The state that the world amounts to, once the daemon has had the time to notice.
int expected_state() {
    if (!disk || !is_disk_open) {
        return SDCARD_NOT_EXISTS;
    }
    if (is_ejected) {
        return SDCARD_EJECT;
    }
    if (is_flag_set) {
        return SDCARD_BROKEN;
    }
    if (!is_mounted()) {
        return is_mountable() ? SDCARD_UNKNOWN : SDCARD_BROKEN;  // it would be mounted if it could be
    }
    const std::shared_ptr<filesystem> fs = at_mount_point();
    if (fs->is_read_only || fs->statfs_errno != 0) {
        return SDCARD_BROKEN;
    }
    if (fs->free_kib() >= FULL_KIB) {
        return SDCARD_NORMAL;
    }
    return SDCARD_FULL;
}

// A card stays full only when nothing can be deleted. Clips that are found after the state was derived, with the list
// opened late, wait for the next occasion: a new clip, or the refresh every half an hour.
void check_full() {
    const bool could_free =
        sd.state == SDCARD_FULL && !is_busy() && expected_state() == SDCARD_FULL && has_clip_to_free(*at_mount_point());
    if (!could_free) {
        full_since = 0;
    } else if (full_since == 0 || failures() != failures_while_full) {
        full_since = now_ns();
        failures_while_full = failures();
    } else if (now_ns() - full_since > REFRESH_NS) {
        violation("the card is full and has clips to delete");
    }
    if (could_free && is_clip_announced && failures() == failures_at_announcement) {
        violation("the card is full after a new clip and has clips to delete");
    }
    is_clip_announced = false;
}

const char* rw_of(int state) {
    return state == SDCARD_NORMAL ? "rdwr" : state == SDCARD_FULL ? "rdonly" : "none";
}

void check_keys() {
    if (!is_link_up() || now_ns() - link_changed_ns() < SETTLED_NS || failures() > 0) {
        return;
    }
    const std::string status = last_set("sdcard_status");
    const std::string rw = last_set("sdcard_rw");
    if (status != std::to_string(sd.state) || rw != rw_of(sd.state)) {
        violation("state %d is published as %s, %s", sd.state, status.c_str(), rw.c_str());
    }
    // And it has arrived, whatever has become of the service meanwhile; what failed waits for the next change.
    for (const char* key : {"sdcard_status", "sdcard_rw"}) {
        if (!has_failed(key) && key_value(key) != last_set(key)) {
            violation("%s is %s in the service and %s here", key, key_value(key).c_str(), last_set(key).c_str());
        }
    }
}

// The daemon's table of block devices names what the kernel has told of, in the order in which it told.
void check_table() {
    const mmc_manager* told = mmc_get_manager();
    const auto differs = [](const mmc_block& is, const block& must) {
        return is.minor != must.minor || is.name == nullptr || is.name != must.name;
    };
    const auto count = static_cast<size_t>(told->partition_count);
    if ((told->disk.name != nullptr) != disk.has_value() || (disk && differs(told->disk, *disk)) ||
        count != partitions.size()) {
        violation("the table has the disk %s and %zu partitions, and should have %s and %zu",
                  told->disk.name != nullptr ? told->disk.name : "none", count, disk ? disk->name.c_str() : "none",
                  partitions.size());
    }
    for (size_t i = 0; i < count; ++i) {
        if (differs(told->partitions[i], partitions[i])) {
            violation("partition %zu of the table should be %s", i, partitions[i].name.c_str());
        }
    }
}

// Nothing is left but the names and values of the keys, and what is documented to be lost.
void check_memory() {
    const live_memory live = count_memory();
    if (live.blocks > MOST_BLOCKS + lost.blocks || live.bytes > MOST_BYTES + lost.bytes) {
        violation("%d blocks of memory are left, %zu bytes; %d blocks, %zu bytes may be lost", live.blocks, live.bytes,
                  lost.blocks, lost.bytes);
    }
}

void check_state() {
    const int expected = expected_state();
    ++counted.judgements;
    if (expected != sd.state) {
        violation("the state is %d and should be %d", sd.state, expected);
    }
    const mountpoint_manager* mount = mountpoint_get_manager();
    if (mount->mask != 0) {
        violation("mounting is held off and no job runs");
    }
    // Descriptors: the socket, the mount table, the disk, the recordings folder.
    const int directories = open_descriptors(fd_kind::DIRECTORY);
    const int pipes = failures_of(call::EVENTFD) > 0 ? 1 : 0;  // the loop then wakes itself through a pipe
    if (open_descriptors(fd_kind::NETLINK) != 1 || open_descriptors(fd_kind::MOUNTINFO) != 1 ||
        open_descriptors(fd_kind::DISK) != (is_disk_open ? 1 : 0) || directories > 1 ||
        (list_is_open() && directories != 1) || open_descriptors(fd_kind::FILE) != 0 ||
        open_descriptors(fd_kind::SYSTEM) != 0 || open_descriptors(fd_kind::PIPE_READ) != pipes ||
        open_descriptors(fd_kind::PIPE_WRITE) != pipes || open_streams() != 0) {
        violation("descriptors are left open:%s", list_descriptors().c_str());
    }
    if (list_is_open()) {
        for (const auto& [ts, entry] : list_filesystem()->list.slots) {
            if (!entry.is_deleted &&
                (entry.record.flags != 0) != (list_filesystem()->list.protected_ts.count(ts) != 0)) {
                violation("clip %u has the flags %u", ts, entry.record.flags);
            }
        }
    }
}

void check_job() {
    if (had_spawn_failure() || failures_of(call::PIPE) > 0) {
        return;  // documented: the job that met it never ends
    }
    if (!is_busy()) {
        idle_since = 0;
        if (sd.closure.top != sd.closure.slots - 1) {
            violation("no job runs and its stack is not empty");
        }
        return;
    }
    if (live_children() > 0) {
        idle_since = 0;
        return;
    }
    if (idle_since == 0) {
        idle_since = now_ns();
    } else if (now_ns() - idle_since > JOB_PAUSE_NS) {
        violation("a job runs and waits for nothing");
    }
}

void check_workers() {
    if (requested.empty() || lost_workers() > 0) {
        return;
    }
    for (const auto& [ts, request] : requested) {
        if (now_ns() - request.since_ns > WORKER_PATIENCE_NS) {
            violation("clip %u was to be deleted and nobody has tried", ts);
        }
    }
}

}  // namespace

void changed() {
    changed_at = now_ns();
    is_judged = false;
}

void check_iteration() {
    loop_sleeps();
    if (sd.state == SDCARD_UNKNOWN) {
        return;
    }
    check_job();
    check_workers();
    if (is_known && !is_batch_accepted) {
        check_table();
    }
    if (is_clip_announced || (sd.state == SDCARD_FULL && !is_judged)) {
        check_full();
    }
    if (sd.state != last_state) {
        note("state: %d to %d", last_state, sd.state);
        if ((sd.state == SDCARD_FORMATTING || sd.state == SDCARD_FIXING || sd.state == SDCARD_EJECTING) && !is_busy()) {
            violation("the state is %d and no job runs", sd.state);
        }
        last_state = sd.state;
        is_judged = false;
    }
    if (is_judged || is_busy() || !is_known || now_ns() - changed_at < SETTLED_NS || is_failing_forever() ||
        had_spawn_failure() || failures_of(call::PIPE) > 0) {
        return;
    }
    check_state();
    check_keys();
    is_judged = is_link_up() && now_ns() - link_changed_ns() >= SETTLED_NS;
}

void check_mounts_end() {
    if (list_is_open() || open_descriptors(fd_kind::NETLINK) != 0) {
        violation("the mount table goes before the list or the uevents");
    }
}

void check_exit() {
    if (ev_is_active(&sd.refresh_timer) || ev_is_active(&sd.info_timer) || ev_is_active(&sd.speed_timer) ||
        ev_is_active(&mountpoint_get_manager()->refresh_timer) ||
        ev_is_active(&mountpoint_get_manager()->mountinfo_watcher) ||
        ev_is_active(&mmc_get_manager()->uevent_watcher)) {
        violation("a watcher is still active at exit");
    }
    if (list_is_open()) {
        violation("the list is still open at exit");
    }
    const bool has_job = is_busy();
    // While memory is short a report's part that finds no room in it is lost: a few dozen bytes.
    if (!has_job && live_workers() == 0 && lost_workers() == 0 && failures_of(call::MALLOC) == 0) {
        check_memory();
    }
    for (const fd_kind kind :
         {fd_kind::NETLINK, fd_kind::MOUNTINFO, fd_kind::DISK, fd_kind::DIRECTORY, fd_kind::BUS, fd_kind::SYSTEM}) {
        if (open_descriptors(kind) != 0) {
            violation("descriptors are still open at exit:%s", list_descriptors().c_str());
        }
    }
    const int pipes = open_descriptors(fd_kind::PIPE_READ) + open_descriptors(fd_kind::PIPE_WRITE);
    const int loop_pipes = failures_of(call::EVENTFD) > 0 ? 2 : 0;
    if (!has_job && live_workers() == 0 &&
        (pipes != loop_pipes || open_descriptors(fd_kind::FILE) != 0 || open_streams() != 0)) {
        violation("descriptors are still open at exit:%s", list_descriptors().c_str());
    }
}

// --- the table of block devices --------------------------------------------------------------------------------------

void table_rescan() {
    disk_serial = slot != nullptr ? slot->serial : 0;
    disk.reset();
    partitions.clear();
    is_disk_open = false;
    if (slot != nullptr) {
        disk = block{slot->minor(), slot->name()};
        is_disk_open = !slot->is_write_protected;
        for (const partition& p : slot->partitions) {
            if (partitions.size() < 7) {
                partitions.push_back({slot->minor() + p.number, slot->name_of(p)});
            }
        }
        is_flag_set = slot->is_read_only;
        opened = slot;
    }
    is_known = true;
}

void table_told(const uevent& e) {
    if (e.major != static_cast<int>(CARD_MAJOR)) {
        return;
    }
    if (e.action == "add" && e.type == "disk") {
        disk_serial = e.serial;
        disk = block{e.minor, e.name};
        is_disk_open = slot != nullptr && slot->name() == e.name && !slot->is_write_protected;
        is_adding_disk = true;
    } else if (e.action == "add" && e.type == "partition") {
        if (partitions.size() < 7) {
            partitions.push_back({e.minor, e.name});
        }
    } else if (e.action == "remove" && e.type == "disk") {
        disk_serial = 0;
        disk.reset();
        is_disk_open = false;
        partitions.clear();
        speed_forgotten();
    } else if (e.action == "remove" && e.type == "partition") {
        const auto at =
            std::find_if(partitions.begin(), partitions.end(), [&e](const block& b) { return b.minor == e.minor; });
        if (at != partitions.end()) {
            partitions.erase(at);
        }
    } else if (e.action != "add" && e.action != "remove" && e.action != "change") {
        return;
    }
    mounts_moved();
    is_batch_accepted = true;
    is_known = is_known || (e.type == "disk" && e.action != "change");  // of which the table is made anew
}

void table_opened(std::string_view path, int errnum) {
    if (!disk || path != "/dev/" + disk->name) {
        return;
    }
    is_disk_open = errnum == 0;
    opened = is_disk_open ? slot : nullptr;
    if (is_adding_disk && is_disk_open) {
        partitions.clear();
    }
    is_adding_disk = false;
}

void table_batch_ended() {
    if (!is_batch_accepted) {
        return;
    }
    is_batch_accepted = false;
    is_ejected = false;
    is_flag_set = is_disk_open && opened != nullptr && opened->is_read_only;
    changed();
}

void table_lost() {
    is_known = false;
}

void table_flag_failed() {
    is_flag_set = true;
}

void table_ejected() {
    is_ejected = true;
}

void job_looked() {
    job_looked_at = now_ns();
}

void check_job_card(const char* what, const card& c) {
    // A swap between the look and the act cannot be seen.
    const bool came_after_look = job_looked_at >= job_began_at && c.came_ns > job_looked_at;
    if (c.serial != job_serial && !came_after_look) {
        violation("%s: card %u, and the job began with card %u", what, c.serial, job_serial);
    }
}

void check_list_opened() {
    if (is_busy()) {
        violation("the list is opened while a job has the card");
    }
}

void check_mount() {
    if (live_children() > 0) {
        violation("the card is mounted while a tool works on it");
    }
    if (is_known && (is_ejected || (is_flag_set && !is_batch_accepted))) {
        violation("a card is mounted that is known to be read-only");
    }
}

void mounted_once() {
    mounted_at.push_back(now_ns());
    while (now_ns() - mounted_at.front() > CHURN_NS) {
        mounted_at.pop_front();
    }
    if (mounted_at.size() > MOST_MOUNTS) {
        violation("the card was mounted %zu times within a minute, and nothing asked for it", mounted_at.size());
    }
}

void mounts_moved() {
    mounted_at.clear();
}

void unmount_tried() {
    if (is_busy()) {
        mounts_moved();  // the job that was asked for mounts the card again
    }
}

// --- deletions -------------------------------------------------------------------------------------------------------

void clip_removed(const std::string& path) {
    if (!in_worker() && path.back() == '4') {
        last_free_kib = UINT64_MAX;  // the next one needs another look at the free space
        ++counted.clips_freed;
    }
}

void told_free(uint64_t kib) {
    last_free_kib = kib;
}

void clip_requested(uint32_t ts) {
    request_of_clip& request = requested[ts];
    ++request.batches;
    request.since_ns = now_ns();
}

void memory_lost(live_memory what) {
    lost.blocks += what.blocks;
    lost.bytes += what.bytes;
}

void unlink_tried(uint32_t ts) {
    const auto request = requested.find(ts);
    if (request != requested.end() && --request->second.batches <= 0) {
        requested.erase(request);
    }
}

namespace {

uint32_t ts_of_path(const std::string& path) {
    tm parts = {};
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos ||
        strptime(path.substr(slash + 1, 15).c_str(), "%Y%m%d_%H%M%S", &parts) == nullptr) {
        return 0;
    }
    return static_cast<uint32_t>(timegm(&parts));
}

}  // namespace

void check_unlink(const std::string& path) {
    if (path.size() > 18 && path.compare(0, 20, "ZOLTA_RECORD_MOTION/") == 0) {
        if (path.substr(path.size() - 18) != "/motion_record_msg") {
            violation("%s is removed", path.c_str());
        }
        return;
    }
    const uint32_t ts = ts_of_path(path);
    if (ts == 0 || (path != clip_path(ts) + ".jpeg" && path != clip_path(ts) + ".mp4")) {
        violation("%s is removed", path.c_str());
    }
    const bool is_video = path.back() == '4';
    if (in_worker()) {
        if (requested.count(ts) == 0) {
            violation("clip %u is removed and nobody asked for it", ts);
        }
        if (is_video) {
            unlink_tried(ts);
        }
        return;
    }
    // The loop's thread removes clips only to free space: the image first, then the video of the same clip.
    if (is_video) {
        if (freed_ts != ts) {
            violation("the video of %u is removed after the image of %u", ts, freed_ts);
        }
        freed_ts = 0;
        return;
    }
    freed_ts = ts;
    if (last_free_kib >= FULL_KIB) {
        violation("clip %u is deleted and the card is not known to be full", ts);
    }
    if (!list_is_open()) {
        violation("clip %u is deleted without the list", ts);
    }
    const clip_list& list = list_filesystem()->list;
    for (const auto& [other, entry] : list.slots) {
        if (entry.is_deleted) {
            continue;
        }
        const bool is_protected = list.protected_ts.count(other) != 0;
        if (other == ts) {
            if (is_protected) {
                violation("clip %u is protected and deleted to free space", ts);
            }
            return;
        }
        if (!is_protected) {
            violation("clip %u is deleted before the older %u", ts, other);
        }
    }
    violation("clip %u is deleted and not in the list", ts);
}

// --- what is heard ---------------------------------------------------------------------------------------------------

void heard_log(const std::string& level, const std::string& text) {
    if ((level == "crit" || level == "err") && failures() > 0) {
        for (const char* fatal : {"Too many filesystems.", "No filesystem detected.", "fail to init mountpoint monitor",
                                  "fail to initialize uevent.", "/proc/filesystems"}) {
            may_abort = may_abort || text.find(fatal) != std::string::npos;
        }
        may_abort = may_abort || (text.find("Can not receive message on NETLINK socket") != std::string::npos &&
                                  failures_of(call::RECV) > 0);
    }
    // Each log call leaves another errno behind: what is told after one must have been kept from before it.
    if ((level == "warning" || level == "err") && text.ends_with("Success") &&
        text != "records_delete_oldest: Success") {
        violation("\"%s\": an errno that a log call has disturbed", text.c_str());
    }
    if (text.rfind("ev_run: ", 0) == 0) {
        heard_slow_loop(text);
    }
    if (text.rfind("closure: sdcard_", 0) == 0) {
        job_serial = disk_serial;
        job_began_at = now_ns();
    }
    if (text.rfind("refresh sdcard state", 0) == 0 && is_busy()) {
        violation("the state is refreshed while a job owns it");
    }
    if (text == "refresh sdcard state due to New Record") {
        is_clip_announced = true;
        failures_at_announcement = failures();
    }
    if (text.rfind("closure: ", 0) == 0 && text.find(" successful") != std::string::npos) {
        ++counted.jobs_ok;
    } else if (text.rfind("closure: ", 0) == 0 && text.find(" failed") != std::string::npos) {
        ++counted.jobs_failed;
    }
}

void check_abort() {
    if (!may_abort) {
        violation("the process ends where nothing says that it may");
    }
}

}  // namespace sim

extern "C" [[noreturn]] void __wrap_abort(void) {
    sim::check_abort();
    sim::end_of_life("an abort that is documented");
}

extern "C" [[noreturn]] void __wrap_exit(int code) {
    if (sim::failures_of(sim::call::MALLOC) == 0) {
        sim::violation("the process exits with %d", code);
    }
    sim::end_of_life("a hash table found no memory");
}

extern "C" void __wrap_perror(const char* text) {
    sim::note("perror: %s", text);
    sim::heard_log("crit", text);
}
