// What the events of a plan do to the world.
#include <algorithm>
#include <cstdio>

#include "faults.h"
#include "invariants.h"
#include "world.h"

namespace sim {
namespace {

uint32_t last_ts;

// The recorder writes while it is told that the card takes it; some recorders do not ask.
void record_clip(uint32_t size, uint32_t oddities) {
    const std::shared_ptr<filesystem> fs = at_mount_point();
    if (fs->type == "jffs2" || (key_value("sdcard_rw") != "rdwr" && oddities % 8 != 0)) {
        return;
    }
    auto ts = static_cast<uint32_t>(wall_s());
    if ((oddities >> 3) % 50 == 0) {
        ts -= 5000;  // out of order
    }
    if ((oddities >> 9) % 40 == 0 && last_ts != 0) {
        announce(last_ts, 30, false);  // told twice
    }
    if (list_is_open() && fs->list.slots.count(ts) != 0) {
        return;
    }
    const uint64_t kib = 2048 + size % 30000;
    if (fs->free_kib() < kib + 128 || !put_file(*fs, clip_path(ts) + ".mp4", kib * 1024)) {
        return;
    }
    if ((oddities >> 16) % 20 != 0) {
        (void)put_file(*fs, clip_path(ts) + ".jpeg", 50000);
    }
    if ((oddities >> 18) % 6 == 0) {
        (void)put_file(*fs, "ZOLTA_RECORD_MOTION/" + clip_path(ts).substr(19, 10) + "/motion_record_msg", 100);
    }
    if (slot != nullptr) {
        slot->sectors_written += kib * 2;
        slot->busy_ms += kib * 1000 / (slot->is_slow ? 150 : 9000);
    }
    if ((oddities >> 22) % 30 != 0) {  // some announcements get lost
        announce(ts, 30, (oddities >> 27) % 16 == 0);
    }
    last_ts = ts;
    changed();
}

void fill(uint32_t how_far) {
    const std::shared_ptr<filesystem> fs = at_mount_point();
    if (fs->type == "jffs2") {
        return;
    }
    constexpr uint64_t LEFT_KIB[] = {40960, 40959, 40961, 40964, 40956, 20000, 1000, 45000};
    const uint64_t left_kib = LEFT_KIB[how_far % 8];
    if (fs->free_kib() <= left_kib + 8) {
        return;
    }
    // Not a file: what counts is the space.
    fs->used_kib = fs->total_kib - left_kib;
    changed();
}

void release_space() {
    const std::shared_ptr<filesystem> fs = at_mount_point();
    uint64_t used_kib = 64;
    const std::function<void(const node&)> add = [&](const node& n) {
        used_kib += (n.bytes + 4095) / 4096 * 4;
        for (const auto& [name, child] : n.children) {
            add(*child);
        }
    };
    if (fs->type != "jffs2") {
        add(*fs->root);
        fs->used_kib = used_kib;
        changed();
    }
}

// A card takes it slowly: its speed is known from 40 sectors on.
void write_a_little(uint32_t how_much) {
    constexpr uint64_t SECTORS[] = {40, 39, 41, 1, 38, 80};
    if (slot != nullptr) {
        const uint64_t sectors = SECTORS[how_much % std::size(SECTORS)];
        slot->sectors_written += sectors;
        slot->busy_ms += sectors * 4;
    }
}

void set_clock(uint32_t how) {
    constexpr int64_t AHEAD_S[] = {3600, -3600, 86400, -86400, 299, -301, 30LL * 86400, -7};
    set_wall(AHEAD_S[how % 8]);
    note("world: the clock says %lld", static_cast<long long>(wall_s()));
    changed();
}

// Calls that end the daemon when they fail have their own place; here it is to go on living.
void fail_call(uint32_t which, uint32_t how) {
    constexpr call SURVIVED[] = {
        call::OPEN,
        call::OPENAT,
        call::OPENDIR,
        call::READDIR,
        call::FOPEN,
        call::ACCESS,
        call::MKDIR,
        call::UNLINK,
        call::RMDIR,
        call::FSTAT,
        call::FSTATAT,
        call::STATFS,
        call::FCNTL,
        call::READ,
        call::WRITE,
        call::PREAD,
        call::IOCTL,
        call::MOUNT,
        call::UMOUNT,
        call::UMOUNT2,
        call::POLL,
        call::MALLOC,
        call::EXEC,
        call::KYT_OPEN,
        call::KYT_WRITE,
        call::KYT_OPTIMISE,
        call::KARVEL_OPEN,
        call::KARVEL_SET,
        call::KARVEL_REGISTER,
        call::JSON_OBJECT,
        call::JSON_ARRAY,
        call::THREAD,
        call::STAT,
    };
    const call chosen = SURVIVED[which % std::size(SURVIVED)];
    const auto errnos = errnos_of(chosen);
    const int errnum = errnos[how % errnos.size()];
    const uint32_t times = (how >> 8) % 4 == 0 ? 3 : 1;
    for (uint32_t i = 0; i < times; ++i) {
        fail(chosen, errnum, 1 + (how >> 12) % 3 + i, false);
    }
    // A few worlds run out of processes or pipes: the job that meets it never ends.
    if ((how >> 16) % 2000 == 0) {
        fail((how >> 28) % 2 == 0 ? call::FORK : call::PIPE, EAGAIN, 1, false);
    }
}

}  // namespace

void apply(const event& e) {
    switch (e.what) {
        case kind::CLIP:
            record_clip(e.a, e.b);
            break;
        case kind::FILL:
            fill(e.a);
            break;
        case kind::RELEASE:
            release_space();
            break;
        case kind::INSERT:
            insert_card(e.a, e.b);
            break;
        case kind::PULL:
            pull_card(e.b);
            break;
        case kind::SWAP:
            pull_card(e.b);
            later((e.a % 4000 + 1) * MS, [e] { insert_card(e.a, e.b >> 8); });
            break;
        case kind::REQUEST:
            request(e.a, e.b);
            break;
        case kind::CLOCK:
            set_clock(e.a);
            break;
        case kind::BROKER:
            change_broker(e.a, e.b);
            break;
        case kind::NOTICE:
            odd_notice(e.a);
            break;
        case kind::UEVENT:
            odd_uevent(e.a);
            break;
        case kind::MOUNT:
            foreign_mount(e.a);
            break;
        case kind::HOLD:
            held_until_ns = now_ns() + static_cast<int64_t>(e.b % 8000) * MS;
            note("world: the card is held for %u ms", e.b % 8000);
            break;
        case kind::WRITE:
            write_a_little(e.a);
            break;
        case kind::CARD:
            change_card(e.a);
            break;
        case kind::TOOL:
            spoil_tool(e.a, e.b);
            break;
        case kind::LIST:
            odd_list(e.a);
            break;
        case kind::FAIL:
            fail_call(e.a, e.b);
            break;
        case kind::SIGNAL:
            break;
    }
}

}  // namespace sim
