// The slot, the cards in it, what the kernel says about them, and the mount table.
#include <algorithm>
#include <cstdio>

#include "faults.h"
#include "invariants.h"
#include "world.h"

namespace sim {

std::shared_ptr<card> slot;
std::vector<mounted> mounts;
int64_t held_until_ns;
uint64_t mounts_version = 1;

namespace {

constexpr char NO_ACTION[] = "add@/devices/x\0MAJOR=179\0MINOR=1\0DEVNAME=mmcblk0p1\0DEVTYPE=partition";
constexpr char NO_SENSE[] = "\0\0\0=\0==";

constexpr int64_t NODE_APPEARS_NS = 900 * MS;  // after the kernel has announced the disk

uint32_t serial;
std::vector<std::shared_ptr<card>> pulled;  // as long as they are open
int filler_lines;                           // mounts of somebody else's, which make the table long

std::shared_ptr<filesystem> make_filesystem(uint64_t total_kib) {
    auto fs = std::make_shared<filesystem>();
    fs->total_kib = total_kib;
    fs->used_kib = 64;
    return fs;
}

// Clips of an earlier life.
void fill_with_clips(filesystem& fs, uint32_t what) {
    const uint32_t clips = 10 + what % 60;
    for (uint32_t i = 0; i < clips; ++i) {
        const auto ts = static_cast<uint32_t>(wall_s()) - (clips - i) * 90 - 600;
        const uint64_t bytes = (8 + (what >> 3) % 24) * 1024ULL * 1024;
        if (!put_file(fs, clip_path(ts) + ".mp4", bytes)) {
            break;
        }
        (void)put_file(fs, clip_path(ts) + ".jpeg", 60000);
        const bool is_protected = (what >> 8) % 4 == 0 || (i + what) % 11 == 0;
        kyt_record record = {};
        record.ts = ts;
        record.flags = is_protected ? KYT_PERSISTENT : 0;
        fs.list.slots[ts] = {record, false};
        if (is_protected) {
            fs.list.protected_ts.insert(ts);
        }
    }
}

std::shared_ptr<card> make_card(uint32_t what) {
    auto made = std::make_shared<card>();
    made->serial = ++serial;
    made->total_kib = (600 + what % 1500) * uint64_t{1024};
    const auto whole = [&] { return make_filesystem(made->total_kib - 2048); };
    switch (what % 16) {
        case 0:  // no partition table
            made->whole = whole();
            break;
        case 1:  // garbage
            made->partitions = {{1, nullptr}};
            break;
        case 2:  // the second partition is the good one
            made->partitions = {{1, nullptr}, {2, whole()}};
            break;
        case 3:
            made->is_write_protected = true;
            made->partitions = {{1, whole()}};
            break;
        case 4:
            made->is_read_only = true;
            made->partitions = {{1, whole()}};
            break;
        case 5:  // more partitions than are tracked; the good one is the last
            for (uint32_t i = 1; i <= 7; ++i) {
                made->partitions.push_back({i, nullptr});
            }
            made->partitions.back().fs = whole();
            break;
        case 6:  // nothing at all on it
            break;
        case 7:
            made->partitions = {{1, whole()}};
            made->partitions[0].fs->type = "ntfs";
            break;
        case 8:
            made->is_slow = true;
            [[fallthrough]];
        default:
            made->partitions = {{1, whole()}};
            break;
    }
    for (partition& p : made->partitions) {
        if (p.fs != nullptr && (what >> 4) % 3 != 0) {
            fill_with_clips(*p.fs, what >> 5);
        }
    }
    return made;
}

// The number is free again only when nobody uses the old disk any more: no mount and no descriptor.
uint32_t free_index() {
    for (uint32_t index = 0;; ++index) {
        const bool is_used =
            std::any_of(mounts.begin(), mounts.end(), [index](const mounted& m) { return m.from->index == index; }) ||
            std::any_of(pulled.begin(), pulled.end(),
                        [index](const auto& c) { return c->index == index && is_open(*c); });
        if (!is_used) {
            return index;
        }
    }
}

void announce_card(const card& c, const char* action, uint32_t order) {
    std::vector<uevent> events;
    events.push_back({action, 179, c.minor(), c.name(), "disk", c.serial});
    for (const partition& p : c.partitions) {
        events.push_back({action, 179, c.minor() + p.number, c.name_of(p), "partition"});
    }
    const bool is_remove = events[0].action == "remove";
    if (is_remove) {  // the kernel takes the partitions down first
        std::reverse(events.begin(), events.end());
    }
    switch (order % 8) {
        case 0:  // turned round
            std::reverse(events.begin(), events.end());
            break;
        case 1:  // everything twice
            for (size_t i = 0, n = events.size(); i < n; ++i) {
                events.push_back(events[i]);
            }
            break;
        default:
            break;
    }
    int64_t delay_ns = 0;
    for (const uevent& e : events) {
        later(delay_ns, [e] { say(e); });
        delay_ns += static_cast<int64_t>((order >> 4) % 40) * MS;
    }
}

void mark_gone(const card& c) {
    for (const partition& p : c.partitions) {
        if (p.fs != nullptr) {
            p.fs->is_gone = true;
        }
    }
    if (c.whole != nullptr) {
        c.whole->is_gone = true;
    }
}

void add_mount(const std::shared_ptr<card>& from, uint32_t minor, const char* target,
               const std::shared_ptr<filesystem>& fs) {
    mounts.push_back({from, minor, target, fs});
}

}  // namespace

void insert_card(uint32_t what, uint32_t order) {
    if (slot != nullptr) {
        return;
    }
    slot = make_card(what);
    slot->index = free_index();
    slot->is_named_by_slot = (order >> 20) % 2 != 0;
    slot->is_in = true;
    slot->came_ns = now_ns();
    slot->node_ready_ns = now_ns() + NODE_APPEARS_NS;
    note("world: card %u in, kind %u, %llu KiB, as %s", slot->serial, what % 16,
         static_cast<unsigned long long>(slot->total_kib), slot->name().c_str());
    announce_card(*slot, "add", order);
    changed();
}

void pull_card(uint32_t order) {
    if (slot == nullptr) {
        return;
    }
    note("world: card %u out", slot->serial);
    slot->is_in = false;
    mark_gone(*slot);
    announce_card(*slot, "remove", order);
    std::erase_if(pulled, [](const auto& c) { return !is_open(*c); });
    pulled.push_back(slot);
    slot = nullptr;
    changed();
}

void odd_uevent(uint32_t a) {
    const std::string name = slot != nullptr ? slot->name() : "mmcblk0";
    const uint32_t minor = slot != nullptr ? slot->minor() : 0;
    switch (a % 12) {
        case 0:
            say({"add", 8, 0, "sda", "disk"});
            break;
        case 1:
            say({"add", 179, minor + 8, "mmcblk9", "foo"});
            break;
        case 2:
            say({"online", 179, minor, name, "disk"});
            break;
        case 3:
            say({"change", 179, minor, name, "disk"});
            break;
        case 4:
            say({"remove", 179, minor + 5, name + "p5", "partition"});
            break;
        case 5:
            say_raw("change@/devices/x");
            break;
        case 6:
            say_raw({NO_ACTION, sizeof NO_ACTION});
            break;
        case 7: {  // longer than anybody reads
            std::string text = "change@/devices/y";
            text += '\0';
            text += "FILLER=" + std::string(5000, 'x');
            say_raw(text);
            break;
        }
        case 8:  // a burst
            for (uint32_t i = 0; i < 20; ++i) {
                say({"change", 179, minor, name, "disk"});
            }
            break;
        case 9:
            say({"add", 8, 1, "sda1", "partition"});
            break;
        case 10:
            say_raw({NO_SENSE, sizeof NO_SENSE});
            break;
        case 11:  // the socket ran over: what was in it is lost. Rare, because it ends the daemon.
            if ((a >> 4) % 400 == 0) {
                fail(call::RECV, ENOBUFS, 1, false);
                say({"change", 179, minor, name, "disk"});
            }
            break;
    }
    changed();
}

void foreign_mount(uint32_t a) {
    const auto card_mount = [](const mounted& m) { return m.target == "/mnt/sdcard"; };
    switch (a % 6) {
        case 0: {  // somebody unmounts the card
            const auto at = std::find_if(mounts.rbegin(), mounts.rend(), card_mount);
            if (at != mounts.rend() && now_ns() >= held_until_ns) {
                mounts.erase(std::next(at).base());
            }
            break;
        }
        case 1:  // somebody mounts the card elsewhere
        case 2:
            if (slot != nullptr && !slot->is_read_only && !slot->partitions.empty()) {
                const partition& p = slot->partitions[0];
                if (p.fs != nullptr) {
                    add_mount(slot, slot->minor() + p.number, a % 6 == 1 ? "/media/card" : "/mnt/sdcard", p.fs);
                }
            }
            break;
        case 3:
            mounts.erase(std::remove_if(mounts.begin(), mounts.end(),
                                        [](const mounted& m) { return m.target == "/media/card"; }),
                         mounts.end());
            break;
        case 4:
            filler_lines = filler_lines > 0 ? 0 : static_cast<int>((a >> 4) % 90);
            break;
        case 5:
            filler_lines = static_cast<int>((a >> 4) % 20);
            break;
    }
    mounts_changed();
    mounts_moved();
}

void change_card(uint32_t a) {
    if (slot == nullptr) {
        return;
    }
    const std::shared_ptr<filesystem> fs = at_mount_point();
    switch (a % 8) {
        case 0:
            slot->is_slow = !slot->is_slow;
            break;
        case 1:  // the kernel found an error on it
            if (fs->type != "jffs2") {
                fs->is_read_only = true;
            }
            break;
        case 2:
        case 3:
            if (fs->type != "jffs2") {
                fs->is_read_only = false;
                fs->unlink_errno = 0;
                fs->statfs_errno = 0;
            }
            break;
        case 4:
            if (fs->type != "jffs2") {
                fs->unlink_errno = (a >> 4) % 2 != 0 ? EIO : EBUSY;
            }
            break;
        case 5:
            if (fs->type != "jffs2") {
                fs->statfs_errno = EIO;
            }
            break;
        case 6:
            slot->is_read_only = true;
            say({"change", 179, slot->minor(), slot->name(), "disk"});
            break;
        case 7:
            slot->is_read_only = false;
            say({"change", 179, slot->minor(), slot->name(), "disk"});
            break;
    }
    changed();
}

void mounts_changed() {
    ++mounts_version;
    changed();
}

const std::string& mountinfo() {
    static std::string text;
    static uint64_t text_version = 0;
    if (text_version == mounts_version) {
        return text;
    }
    text_version = mounts_version;
    text =
        "15 1 31:3 / / ro,relatime - squashfs /dev/root ro\n"
        "16 15 0:5 / /dev rw,relatime - devtmpfs devtmpfs rw\n"
        "17 15 0:13 / /proc rw,relatime - proc proc rw\n"
        "18 15 0:14 / /sys rw,relatime - sysfs sysfs rw\n"
        "19 15 31:4 / /mnt rw,relatime - jffs2 /dev/mtdblock4 rw\n";
    int id = 20;
    for (int i = 0; i < filler_lines; ++i) {
        char line[96];
        snprintf(line, sizeof line, "%d 15 0:%d / /run/user/%d rw,relatime - tmpfs tmpfs rw\n", id, 40 + i, i);
        text += line;
        ++id;
    }
    for (const mounted& m : mounts) {
        char line[160];
        snprintf(line, sizeof line, "%d 19 179:%u / %s rw,nosuid,nodev,noatime - %s /dev/mmc%u rw,umask=0022\n", id,
                 m.minor, m.target.c_str(), m.fs->type.c_str(), m.minor);
        text += line;
        ++id;
    }
    return text;
}

std::optional<device> find_device(std::string_view path) {
    if (slot == nullptr || path.substr(0, 5) != "/dev/") {
        return std::nullopt;
    }
    path.remove_prefix(5);
    if (path == slot->name()) {
        return device{slot, nullptr};
    }
    for (partition& p : slot->partitions) {
        if (path == slot->name_of(p)) {
            return device{slot, &p};
        }
    }
    return std::nullopt;
}

void after_fdisk(bool lies) {
    if (slot == nullptr || lies) {
        return;
    }
    // The kernel takes what was there away and reads the table.
    for (const partition& p : slot->partitions) {
        say({"remove", 179, slot->minor() + p.number, slot->name_of(p), "partition"});
    }
    slot->whole = nullptr;
    slot->partitions = {{1, nullptr}};
    say({"add", 179, slot->minor() + 1, slot->name() + "p1", "partition"});
    changed();
}

void after_mkfs(std::string_view path, bool lies) {
    const auto target = find_device(path);
    if (!target || target->part == nullptr || lies) {
        return;
    }
    target->part->fs = make_filesystem(slot->total_kib - 2048);
    changed();
}

}  // namespace sim
