// The simulated world: a clock, a kernel, cards, tools, a configuration service and whoever else lives on a camera.
// The daemon's modules meet it where they call the C library and the platform libraries. One world for each process.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "faults.h"
#include "kyt.h"
#include "plan.h"
#include "random.h"

namespace sim {

constexpr int64_t MS = 1'000'000;
constexpr int64_t SECOND = 1000 * MS;

// --- what is told (world.cpp) ----------------------------------------------------------------------------------------

// A line into the log, which is all that two runs are compared by: nothing in it may depend on where things lie in
// memory.
void note(const char* format, ...) __attribute__((format(printf, 1, 2)));

// What must not happen has happened: the end of the run.
[[noreturn]] void violation(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The end of the run for a reason that is documented, or in good order.
[[noreturn]] void end_of_life(const char* reason);

// The world is not what it was: what the daemon has published is not judged for some seconds.
void changed();

// --- time ------------------------------------------------------------------------------------------------------------

int64_t now_ns();  // since the camera was switched on
int64_t wall_s();  // since 1970, by the camera's clock
void set_wall(int64_t seconds_ahead);

// What a call costs: time passes, and what is due happens meanwhile.
void spend(int64_t ns);

// Has something done later. What is due at the same time happens in the order in which it was asked for.
void later(int64_t delay_ns, std::function<void()> what);

// Everything that is due, then the time of what is next.
void run_due();
int64_t next_due_ns();
void jump_to(int64_t ns);  // while the daemon waits

// --- filesystems (world_files.cpp) -----------------------------------------------------------------------------------

struct node {
    bool is_dir = false;
    uint64_t bytes = 0;
    int64_t mtime_s = 0;
    std::map<std::string, std::shared_ptr<node>, std::less<>> children;
};

// What the record list library keeps of a card, in the order of time.
struct clip_list {
    struct slot {
        kyt_record record;
        bool is_deleted;
    };
    std::map<uint32_t, slot> slots;
    std::set<uint32_t> protected_ts;  // by what was asked of the daemon, not by what it did
};

struct filesystem {
    std::string type = "vfat";
    uint64_t total_kib = 0;
    uint64_t used_kib = 0;
    bool is_read_only = false;  // the kernel found an error and takes no more writes
    bool is_gone = false;       // the card is out: what needs it fails
    int statfs_errno = 0;
    int unlink_errno = 0;
    std::shared_ptr<node> root = std::make_shared<node>(node{.is_dir = true, .bytes = 0, .mtime_s = 0, .children = {}});
    clip_list list;

    uint64_t free_kib() const { return total_kib - used_kib; }
};

// What is mounted at /mnt/sdcard, or the camera's flash below it.
std::shared_ptr<filesystem> at_mount_point();

// A file as somebody else writes it. False: there is no room.
bool put_file(filesystem& fs, const std::string& path, uint64_t bytes);
bool remove_file(filesystem& fs, const std::string& path);
node* find(filesystem& fs, std::string_view path);

std::string clip_path(uint32_t ts);  // below the mount point, without extension

// --- cards and the block layer (world_block.cpp) ---------------------------------------------------------------------

struct partition {
    uint32_t number;                 // from 1
    std::shared_ptr<filesystem> fs;  // null: nothing that can be mounted
};

struct card {
    uint32_t serial = 0;
    uint32_t index = 0;             // its minors are index * 8 and those behind it
    bool is_named_by_slot = false;  // always mmcblk0, as newer kernels have it, and not mmcblk<index>
    bool is_in = false;
    bool is_write_protected = false;  // by its switch: no opening for writing
    bool is_read_only = false;        // the kernel's flag
    bool is_slow = false;
    int64_t came_ns = 0;
    int64_t node_ready_ns = 0;  // when /dev/mmcblk<index> can be opened
    uint64_t total_kib = 0;
    std::vector<partition> partitions;
    std::shared_ptr<filesystem> whole;  // without a partition table
    uint64_t sectors_written = 0;
    uint64_t busy_ms = 0;

    uint32_t minor() const { return index * 8; }
    std::string name() const { return "mmcblk" + std::to_string(is_named_by_slot ? 0 : index); }
    std::string name_of(const partition& p) const { return name() + "p" + std::to_string(p.number); }
};

struct mounted {
    std::shared_ptr<card> from;
    uint32_t minor;
    std::string target;
    std::shared_ptr<filesystem> fs;
};

struct uevent {
    std::string action;
    int major;
    uint32_t minor;
    std::string name;
    std::string type;
    uint32_t serial = 0;  // of the card; not told
};

extern std::shared_ptr<card> slot;   // the card in it, or null
extern std::vector<mounted> mounts;  // in the kernel's order
extern uint64_t mounts_version;
void mounts_changed();
extern int64_t held_until_ns;  // somebody has files of the card open until then

void insert_card(uint32_t what, uint32_t order);
void pull_card(uint32_t order);
void say(const uevent& e);  // the kernel's word to who listens
void say_raw(std::string datagram);
void odd_uevent(uint32_t a);
void foreign_mount(uint32_t a);
void change_card(uint32_t a);
void after_fdisk(bool lies);  // a new table with one empty partition
void after_mkfs(std::string_view device, bool lies);
const std::string& mountinfo();

// The device that a path names; for a partition, the card that it is on.
struct device {
    std::shared_ptr<card> of;
    partition* part;  // null: the whole disk
};
std::optional<device> find_device(std::string_view path);

// --- descriptors (world_calls.cpp) -----------------------------------------------------------------------------------

enum class fd_kind : uint8_t {
    FREE,
    EVENT,
    PIPE_READ,
    PIPE_WRITE,
    NETLINK,
    MOUNTINFO,
    DISK,
    DIRECTORY,
    FILE,
    SYSTEM,
    BUS
};
int open_descriptors(fd_kind kind);
void check_inherited();       // what a tool would get of them
bool is_open(const card& c);  // the daemon has a descriptor of it or of a partition
std::string list_descriptors();
int open_streams();  // directories and files with buffers

// A descriptor of the stand-ins for the platform libraries: readable while something waits.
int open_bus();
void close_bus(int fd);
void set_readable(int fd, bool is_readable);

void deliver_signal(int signum);
bool raise_bus_fault();  // as in the middle of the calling code; comes back only when nobody guards it

// --- children and threads (world_process.cpp) ------------------------------------------------------------------------

void spoil_tool(uint32_t which, uint32_t how);
int live_children();
int live_workers();
bool in_worker();
void yield_worker();  // between two calls of a worker
bool had_spawn_failure();
int lost_workers();  // threads that could not be created

// --- the configuration service, actions and reports (world_service.cpp) ----------------------------------------------

void change_broker(uint32_t how, uint32_t length);
void odd_notice(uint32_t a);
void set_key(const std::string& key, const std::string& value);  // as some other program
std::string key_value(const std::string& key);
void request(uint32_t what, uint32_t parameters);
std::string last_set(const std::string& key);  // what the daemon has handed over and the library took
bool has_failed(const std::string& key);       // the last set of it, and the daemon was told
bool is_link_up();
void announce(uint32_t ts, uint32_t seconds, bool is_protected);
int64_t link_changed_ns();

// --- the record list (world_list.cpp) --------------------------------------------------------------------------------

bool list_is_open();
filesystem* list_filesystem();
void odd_list(uint32_t a);

// --- memory (world_memory.cpp) ---------------------------------------------------------------------------------------

struct live_memory {
    int blocks;
    size_t bytes;
};
live_memory count_memory();  // what the daemon, libev and json-c hold

// --- a life (world.cpp) ----------------------------------------------------------------------------------------------

struct figures {
    uint64_t events;
    uint64_t failures;
    uint64_t iterations;
    uint64_t jobs_ok;
    uint64_t jobs_failed;
    uint64_t clips_freed;
    uint64_t judgements;  // how often the published state was compared with the world's
    int64_t simulated_ms;
    uint64_t log_hash;
};
extern figures counted;

struct life {
    const std::vector<event>* plan;
    uint64_t seed;
    double days;
    bool is_loud;            // every line of the log to standard output
    int result_fd;           // where the verdict goes
    void (*prepare)(void*);  // null, or what is done before the daemon starts
    void* context;
};
// Runs the daemon from main to its end in this process and writes the verdict. Does not come back.
[[noreturn]] void live(const life& l);

void apply(const event& e);
random& chance();

enum class verdict : uint8_t { GOOD, DOCUMENTED_END, VIOLATION };
struct outcome {
    verdict what;
    figures counts;
    uint64_t calls[CALLS];  // how often each was made
    char reason[400];
    char tail[6000];  // the last lines of the log
};

}  // namespace sim
