// Filesystems in memory: names, sizes and times; the bytes themselves nobody looks at.
#include <cstdio>
#include <ctime>

#include "world.h"

namespace sim {
namespace {

std::shared_ptr<filesystem> make_flash() {
    auto flash = std::make_shared<filesystem>();
    flash->type = "jffs2";
    flash->total_kib = 8192;
    flash->used_kib = 5000;
    return flash;
}

uint64_t kib_of(uint64_t bytes) {
    return (bytes + 4095) / 4096 * 4;
}

}  // namespace

std::shared_ptr<filesystem> at_mount_point() {
    static const std::shared_ptr<filesystem> flash = make_flash();
    for (auto at = mounts.rbegin(); at != mounts.rend(); ++at) {
        if (at->target == "/mnt/sdcard") {
            return at->fs;
        }
    }
    return flash;
}

node* find(filesystem& fs, std::string_view path) {
    node* at = fs.root.get();
    while (at != nullptr && !path.empty()) {
        const size_t slash = path.find('/');
        const std::string_view name = path.substr(0, slash);
        path = slash == std::string_view::npos ? "" : path.substr(slash + 1);
        if (name.empty()) {
            continue;
        }
        const auto child = at->children.find(name);
        at = child != at->children.end() ? child->second.get() : nullptr;
    }
    return at;
}

bool put_file(filesystem& fs, const std::string& path, uint64_t bytes) {
    if (fs.is_gone || fs.is_read_only || fs.free_kib() < kib_of(bytes) + 64) {
        return false;
    }
    node* at = fs.root.get();
    size_t begin = 0;
    for (;;) {
        const size_t slash = path.find('/', begin);
        const std::string name = path.substr(begin, slash == std::string::npos ? slash : slash - begin);
        const bool is_last = slash == std::string::npos;
        auto& child = at->children[name];
        if (child == nullptr) {
            child = std::make_shared<node>();
            child->is_dir = !is_last;
            at->mtime_s = wall_s();
        }
        at = child.get();
        if (is_last) {
            break;
        }
        begin = slash + 1;
    }
    fs.used_kib -= kib_of(at->bytes);
    at->bytes = bytes;
    at->mtime_s = wall_s();
    fs.used_kib += kib_of(bytes);
    return true;
}

bool remove_file(filesystem& fs, const std::string& path) {
    const size_t slash = path.rfind('/');
    node* parent = find(fs, slash == std::string::npos ? "" : path.substr(0, slash));
    if (parent == nullptr) {
        return false;
    }
    const auto child = parent->children.find(path.substr(slash == std::string::npos ? 0 : slash + 1));
    if (child == parent->children.end()) {
        return false;
    }
    fs.used_kib -= kib_of(child->second->bytes);
    parent->children.erase(child);
    parent->mtime_s = wall_s();
    return true;
}

std::string clip_path(uint32_t ts) {
    const time_t seconds = ts;
    tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[96];
    strftime(text, sizeof text, "ZOLTA_RECORD_VIDEO/%Y%m%d%H/%Y%m%d_%H%M%S", &parts);
    return text;
}

}  // namespace sim
