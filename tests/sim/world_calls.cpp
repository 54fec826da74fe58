// The C library's calls about descriptors and files, as the daemon, its event loop and nobody else meet them.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include "descriptors.h"
#include "faults.h"
#include "invariants.h"
#include "real.h"
#include "world.h"

namespace sim {
namespace {

std::vector<descriptor> table;  // from FIRST_FD
int streams;
std::map<FILE*, std::unique_ptr<std::string>> stream_texts;

constexpr std::string_view MOUNT_POINT = "/mnt/sdcard";

bool is_on_card(std::string_view path) {
    return path.substr(0, MOUNT_POINT.size()) == MOUNT_POINT &&
           (path.size() == MOUNT_POINT.size() || path[MOUNT_POINT.size()] == '/');
}

std::string below(std::string_view path) {
    return path.size() > MOUNT_POINT.size() ? std::string(path.substr(MOUNT_POINT.size() + 1)) : "";
}

int refuse(int errnum) {
    errno = errnum;
    return -1;
}

std::string partitions_text() {
    std::string text = "major minor  #blocks  name\n\n  31        0        512 mtdblock0\n";
    if (slot != nullptr) {
        char line[96];
        snprintf(line, sizeof line, " 179 %8u %10llu %s\n", slot->minor(),
                 static_cast<unsigned long long>(slot->total_kib), slot->name().c_str());
        text += line;
        for (const partition& p : slot->partitions) {
            snprintf(line, sizeof line, " 179 %8u %10llu %s\n", slot->minor() + p.number,
                     static_cast<unsigned long long>(slot->total_kib - 1024), slot->name_of(p).c_str());
            text += line;
        }
    }
    return text;
}

std::string stat_text() {
    char text[160];
    snprintf(text, sizeof text, "%8u %8u %8u %8u %8u %8u %8llu %8u %8u %8llu %8u\n", 10U, 0U, 400U, 20U, 100U, 0U,
             static_cast<unsigned long long>(slot->sectors_written), 50U, 0U,
             static_cast<unsigned long long>(slot->busy_ms), 70U);
    return text;
}

// A file of /proc or /sys. False: there is none.
bool system_file(std::string_view path, std::string* text) {
    if (path == "/proc/partitions") {
        *text = partitions_text();
        return true;
    }
    if (path == "/proc/filesystems") {
        *text = "nodev\tsysfs\nnodev\tproc\n\tsquashfs\n\tjffs2\nnodev\ttmpfs\n\tvfat\n\texfat\n";
        return true;
    }
    if (path.substr(0, 6) == "/proc/" && path.size() > 11 && path.substr(path.size() - 5) == "/stat") {
        const std::string pid(path.substr(6, path.size() - 11));
        if (pid == "700" || pid == "701") {
            *text = pid + (pid == "700" ? " (recorder) S 1 700" : " () S 1 701");
            return true;
        }
        return false;
    }
    if (slot == nullptr) {
        return false;
    }
    const std::string disk = "/sys/block/" + slot->name();
    if (path == disk + "/stat") {
        *text = stat_text();
    } else if (path == disk + "/size") {
        *text = std::to_string(slot->total_kib * 2) + "\n";
    } else if (path == disk + "/ro" || path == disk + "/force_ro") {
        *text = slot->is_read_only ? "1\n" : "0\n";
    } else if (path == disk + "/device/name" || path == disk + "/device/uevent") {
        *text = "SIM" + std::to_string(slot->serial) + "\n";
    } else if (path == disk + "/device/cid") {
        *text = std::string(200, 'c');
    } else if (path == disk + "/device/empty") {
        text->clear();
    } else {
        return false;
    }
    return true;
}

bool is_system_directory(std::string_view path) {
    return slot != nullptr &&
           (path == "/sys/block/" + slot->name() || path == "/sys/block/" + slot->name() + "/device");
}

int open_device(std::string_view path, int flags) {
    const auto found = find_device(path);
    int errnum = 0;
    if (!found || (found->part == nullptr && now_ns() < found->of->node_ready_ns)) {
        errnum = ENOENT;
    } else if (found->of->is_write_protected && (flags & O_ACCMODE) != O_RDONLY) {
        errnum = EROFS;
    }
    table_opened(path, errnum);
    if (errnum != 0) {
        return refuse(errnum);
    }
    descriptor d;
    d.kind = fd_kind::DISK;
    d.disk = found->of;
    d.minor = found->of->minor() + (found->part != nullptr ? found->part->number : 0);
    return new_descriptor(std::move(d));
}

int open_on_card(std::string_view path, int flags) {
    const std::shared_ptr<filesystem> fs = at_mount_point();
    const std::string name = below(path);
    node* found = find(*fs, name);
    if (found == nullptr) {
        if ((flags & O_CREAT) == 0) {
            return refuse(ENOENT);
        }
        const size_t slash = name.rfind('/');
        if (slash != std::string::npos && find(*fs, name.substr(0, slash)) == nullptr) {
            return refuse(ENOENT);
        }
        if (fs->is_gone || fs->is_read_only) {
            return refuse(fs->is_gone ? ENOSPC : EROFS);
        }
        if (!put_file(*fs, name, 0)) {
            return refuse(ENOSPC);
        }
        found = find(*fs, name);
    } else if ((flags & O_ACCMODE) != O_RDONLY && fs->is_read_only) {
        return refuse(EROFS);
    }
    if ((flags & O_DIRECTORY) != 0 && !found->is_dir) {
        return refuse(ENOTDIR);
    }
    if ((flags & O_TRUNC) != 0) {
        (void)put_file(*fs, name, 0);
    }
    descriptor d;
    d.kind = found->is_dir ? fd_kind::DIRECTORY : fd_kind::FILE;
    d.fs = fs;
    d.path = name;
    return new_descriptor(std::move(d));
}

int open_path(const char* path, int flags) {
    spend(CALL_NS);
    const std::string_view name = path;
    if (must_fail(call::OPEN)) {
        const int errnum = errno;
        table_opened(name, errnum);
        return refuse(errnum);
    }
    int fd = -1;
    if (name.substr(0, 5) == "/dev/") {
        fd = open_device(name, flags);
    } else if (is_on_card(name)) {
        fd = open_on_card(name, flags);
    } else if (name == "/proc/self/mountinfo") {
        descriptor d;
        d.kind = fd_kind::MOUNTINFO;
        d.seen_table = mounts_version;
        fd = new_descriptor(std::move(d));
    } else if (is_system_directory(name)) {
        descriptor d;
        d.kind = fd_kind::SYSTEM;
        d.path = path;
        fd = new_descriptor(std::move(d));
    } else {
        return refuse(ENOENT);
    }
    if (fd >= 0) {
        get(fd)->is_close_on_exec = (flags & O_CLOEXEC) != 0;
    }
    return fd;
}

// What poll says of one descriptor.
short readiness(int fd, short events) {
    descriptor* d = get(fd);
    if (d == nullptr) {
        return POLLNVAL;
    }
    short revents = 0;
    switch (d->kind) {
        case fd_kind::EVENT:
            revents = static_cast<short>((d->counter > 0 ? POLLIN : 0) | POLLOUT);
            break;
        case fd_kind::PIPE_READ:
            revents =
                static_cast<short>((!d->pipe->bytes.empty() ? POLLIN : 0) | (d->pipe->writers == 0 ? POLLHUP : 0));
            break;
        case fd_kind::PIPE_WRITE:
            revents = static_cast<short>((d->pipe->bytes.size() < PIPE_BYTES ? POLLOUT : 0) |
                                         (d->pipe->readers == 0 ? POLLERR : 0));
            break;
        case fd_kind::NETLINK:
        case fd_kind::BUS:
            revents = d->is_readable ? POLLIN : 0;
            break;
        case fd_kind::MOUNTINFO: {
            // A change is told once for all since it was told last; the table is always readable.
            revents = POLLIN;
            if (d->seen_table != mounts_version) {
                d->seen_table = mounts_version;
                return static_cast<short>((revents & events) | POLLERR | POLLPRI);
            }
            break;
        }
        case fd_kind::FREE:
        case fd_kind::DISK:
        case fd_kind::DIRECTORY:
        case fd_kind::FILE:
        case fd_kind::SYSTEM:
            return POLLNVAL;
    }
    return static_cast<short>(revents & (events | POLLERR | POLLHUP));
}

// A directory as readdir walks it.
struct stream {
    int fd;
    size_t at = 0;
    std::vector<std::pair<std::string, bool>> names;  // and whether it is a directory
    dirent64 entry = {};
};

}  // namespace

int new_descriptor(descriptor d) {
    size_t index = 0;
    while (index < table.size() && table[index].kind != fd_kind::FREE) {
        ++index;
    }
    if (index == table.size()) {
        table.emplace_back();
    }
    if (d.kind == fd_kind::PIPE_READ) {
        ++d.pipe->readers;
    } else if (d.kind == fd_kind::PIPE_WRITE) {
        ++d.pipe->writers;
    }
    table[index] = std::move(d);
    return FIRST_FD + static_cast<int>(index);
}

descriptor* get(int fd) {
    const auto index = static_cast<size_t>(fd - FIRST_FD);
    return fd >= FIRST_FD && index < table.size() && table[index].kind != fd_kind::FREE ? &table[index] : nullptr;
}

int release(int fd) {
    descriptor* d = get(fd);
    if (d == nullptr) {
        violation("a descriptor is closed that is not open: %d", fd);
    }
    if (d->kind == fd_kind::PIPE_READ) {
        --d->pipe->readers;
    } else if (d->kind == fd_kind::PIPE_WRITE) {
        --d->pipe->writers;
    }
    *d = descriptor{};
    return 0;
}

int open_descriptors(fd_kind kind) {
    int count = 0;
    for (const descriptor& d : table) {
        count += d.kind == kind ? 1 : 0;
    }
    return count;
}

void check_inherited() {
    for (const descriptor& d : table) {
        const bool is_own = d.kind == fd_kind::NETLINK || d.kind == fd_kind::MOUNTINFO || d.kind == fd_kind::DISK ||
                            d.kind == fd_kind::SYSTEM || d.kind == fd_kind::PIPE_READ || d.kind == fd_kind::PIPE_WRITE;
        if (is_own && !d.is_close_on_exec) {
            violation("a tool inherits descriptors:%s", list_descriptors().c_str());
        }
    }
}

bool is_open(const card& c) {
    for (const descriptor& d : table) {
        if (d.kind == fd_kind::DISK && d.disk->serial == c.serial) {
            return true;
        }
    }
    return false;
}

std::string list_descriptors() {
    std::string text;
    for (size_t i = 0; i < table.size(); ++i) {
        if (table[i].kind != fd_kind::FREE) {
            text += " " + std::to_string(FIRST_FD + static_cast<int>(i)) + ":" +
                    std::to_string(static_cast<int>(table[i].kind)) + table[i].path;
        }
    }
    return text;
}

int open_streams() {
    return streams;
}

int open_bus() {
    descriptor d;
    d.kind = fd_kind::BUS;
    return new_descriptor(std::move(d));
}

void close_bus(int fd) {
    release(fd);
}

void set_readable(int fd, bool is_readable) {
    if (descriptor* d = get(fd)) {
        d->is_readable = is_readable;
    }
}

int64_t card_ns() {
    return slot != nullptr && slot->is_slow ? 40 * MS : 2 * MS;
}

}  // namespace sim

using namespace sim;

extern "C" {

int __wrap_open64(const char* path, int flags, ...) {
    return open_path(path, flags);
}
int __wrap_open(const char* path, int flags, ...) __attribute__((alias("__wrap_open64")));

int __wrap_openat64(int at, const char* path, int flags, ...) {
    spend(CALL_NS);
    if (must_fail(call::OPENAT)) {
        return -1;
    }
    const descriptor* d = get(at);
    if (d == nullptr) {
        violation("openat on a descriptor that is not open: %d", at);
    }
    descriptor opened;
    if (d->kind == fd_kind::SYSTEM) {
        if (!system_file(d->path + "/" + path, &opened.text)) {
            return refuse(ENOENT);
        }
        opened.kind = fd_kind::SYSTEM;
        opened.path = d->path + "/" + path;
    } else {
        const std::string name = d->path + "/" + path;
        const node* found = find(*d->fs, name);
        if (found == nullptr) {
            return refuse(ENOENT);
        }
        if ((flags & O_DIRECTORY) != 0 && !found->is_dir) {
            return refuse(ENOTDIR);
        }
        opened.kind = found->is_dir ? fd_kind::DIRECTORY : fd_kind::FILE;
        opened.fs = d->fs;
        opened.path = name;
    }
    return new_descriptor(std::move(opened));
}
int __wrap_openat(int at, const char* path, int flags, ...) __attribute__((alias("__wrap_openat64")));

int __wrap_close(int fd) {
    if (fd < FIRST_FD) {
        return in_child ? 0 : __real_close(fd);
    }
    const descriptor* d = get(fd);
    if (d != nullptr && d->kind == fd_kind::MOUNTINFO) {
        check_mounts_end();
    }
    return release(fd);
}

DIR* __wrap_fdopendir(int fd) {
    if (must_fail(call::OPENDIR)) {
        return nullptr;
    }
    const descriptor* d = get(fd);
    if (d == nullptr) {
        violation("fdopendir on a descriptor that is not open: %d", fd);
    }
    auto made = new stream{.fd = fd, .at = 0, .names = {{".", true}, {"..", true}}, .entry = {}};
    if (d->kind == fd_kind::SYSTEM) {
        for (const char* name : {"name", "uevent", "cid", "empty"}) {
            made->names.emplace_back(name, false);
        }
        made->names.emplace_back("power", true);
    } else if (const node* directory = find(*d->fs, d->path)) {
        for (const auto& [name, child] : directory->children) {
            made->names.emplace_back(name, child->is_dir);
        }
    }
    ++streams;
    return reinterpret_cast<DIR*>(made);
}

dirent64* __wrap_readdir64(DIR* directory) {
    auto* s = reinterpret_cast<stream*>(directory);
    spend(CALL_NS);
    if (must_fail(call::READDIR) || s->at == s->names.size()) {
        return nullptr;
    }
    const auto& [name, is_dir] = s->names[s->at++];
    snprintf(s->entry.d_name, sizeof s->entry.d_name, "%s", name.c_str());
    s->entry.d_type = is_dir ? DT_DIR : DT_REG;
    return &s->entry;
}
dirent64* __wrap_readdir(DIR* directory) __attribute__((alias("__wrap_readdir64")));

int __wrap_dirfd(DIR* directory) {
    return reinterpret_cast<stream*>(directory)->fd;
}

int __wrap_closedir(DIR* directory) {
    auto* s = reinterpret_cast<stream*>(directory);
    --streams;
    release(s->fd);
    delete s;
    return 0;
}

FILE* __wrap_fopen64(const char* path, const char*) {
    const bool is_speed = strncmp(path, "/sys/block/", 11) == 0;
    spend(CALL_NS);
    if (must_fail(call::FOPEN)) {
        if (is_speed) {
            const int errnum = errno;
            speed_sampled(false);
            errno = errnum;
        }
        return nullptr;
    }
    auto text = std::make_unique<std::string>();
    const bool is_there = system_file(path, text.get());
    if (is_speed) {
        speed_sampled(is_there);
    }
    if (!is_there) {
        errno = ENOENT;
        return nullptr;
    }
    if (std::string_view(path) == "/proc/partitions") {
        table_rescan();
    }
    FILE* file = fmemopen(text->data(), text->size(), "r");
    stream_texts[file] = std::move(text);
    ++streams;
    return file;
}
FILE* __wrap_fopen(const char* path, const char* mode) __attribute__((alias("__wrap_fopen64")));

int __wrap_fclose(FILE* file) {
    --streams;
    const int result = __real_fclose(file);
    stream_texts.erase(file);
    return result;
}

int __wrap_access(const char* path, int mode) {
    spend(CALL_NS);
    const std::string_view name = path;
    if (must_fail(call::ACCESS)) {
        if (!is_on_card(name)) {
            const int errnum = errno;
            table_lost();
            errno = errnum;
        }
        return -1;
    }
    if (!is_on_card(name)) {
        std::string text;
        return is_system_directory(name) || system_file(name, &text) ? 0 : refuse(ENOENT);
    }
    const std::shared_ptr<filesystem> fs = at_mount_point();
    if (find(*fs, below(name)) == nullptr) {
        return refuse(ENOENT);
    }
    return (mode & W_OK) != 0 && fs->is_read_only ? refuse(EROFS) : 0;
}

int __wrap_mkdir(const char* path, mode_t mode) {
    spend(card_ns());
    if (must_fail(call::MKDIR)) {
        return -1;
    }
    const std::shared_ptr<filesystem> fs = at_mount_point();
    const std::string name = below(path);
    if (name != "ZOLTA_RECORD_VIDEO" || mode != 0755) {
        violation("mkdir %s %o", path, static_cast<unsigned>(mode));
    }
    if (find(*fs, name) != nullptr) {
        return refuse(EEXIST);
    }
    if (fs->is_read_only || fs->is_gone) {
        return refuse(fs->is_gone ? EIO : EROFS);
    }
    if (fs->free_kib() < 64) {
        return refuse(ENOSPC);
    }
    auto made = std::make_shared<node>();
    made->is_dir = true;
    made->mtime_s = wall_s();
    fs->root->children[name] = std::move(made);
    return 0;
}

int __wrap_rename(const char* from, const char* to) {
    spend(card_ns());
    if (must_fail(call::RENAME)) {
        return -1;
    }
    const std::shared_ptr<filesystem> fs = at_mount_point();
    const node* found = find(*fs, below(from));
    if (found == nullptr) {
        return refuse(ENOENT);
    }
    if (fs->is_read_only || fs->is_gone) {
        return refuse(fs->is_gone ? EIO : EROFS);
    }
    const uint64_t bytes = found->bytes;
    (void)remove_file(*fs, below(to));
    (void)remove_file(*fs, below(from));
    (void)put_file(*fs, below(to), bytes);
    return 0;
}

int __wrap_unlink(const char* path) {
    yield_worker();
    spend(card_ns());
    const std::string name = below(path);
    if (!is_on_card(path)) {
        violation("unlink %s", path);
    }
    check_unlink(name);
    if (must_fail(call::UNLINK)) {
        return -1;
    }
    const std::shared_ptr<filesystem> fs = at_mount_point();
    if (find(*fs, name) == nullptr) {
        return refuse(ENOENT);
    }
    if (fs->is_gone || fs->is_read_only || fs->unlink_errno != 0) {
        return refuse(fs->is_gone ? EIO : fs->is_read_only ? EROFS : fs->unlink_errno);
    }
    note("world: %s removed", name.c_str());
    (void)remove_file(*fs, name);
    clip_removed(name);
    return 0;
}

int __wrap_rmdir(const char* path) {
    yield_worker();
    spend(card_ns());
    if (must_fail(call::RMDIR)) {
        return -1;
    }
    const std::shared_ptr<filesystem> fs = at_mount_point();
    const std::string name = below(path);
    const node* found = find(*fs, name);
    if (found == nullptr) {
        return refuse(ENOENT);
    }
    if (!found->is_dir) {
        return refuse(ENOTDIR);
    }
    if (!found->children.empty()) {
        return refuse(ENOTEMPTY);
    }
    if (fs->is_gone || fs->is_read_only) {
        return refuse(fs->is_gone ? EIO : EROFS);
    }
    if (name.find('/') == std::string::npos) {
        violation("the folder %s is removed", path);
    }
    (void)remove_file(*fs, name);
    return 0;
}

int __wrap_fstat64(int fd, struct stat* buffer) {
    if (must_fail(call::FSTAT)) {
        return -1;
    }
    const descriptor* d = get(fd);
    if (d == nullptr || d->fs == nullptr) {
        violation("fstat on descriptor %d", fd);
    }
    const node* found = find(*d->fs, d->path);
    *buffer = {};
    buffer->st_size = found != nullptr ? static_cast<off_t>(found->bytes) : 0;
    return 0;
}
int __wrap_fstat(int fd, struct stat* buffer) __attribute__((alias("__wrap_fstat64")));

int __wrap_fstatat64(int at, const char* path, struct stat* buffer, int) {
    spend(CALL_NS);
    if (must_fail(call::FSTATAT)) {
        return -1;
    }
    const descriptor* d = get(at);
    if (d == nullptr) {
        violation("fstatat on descriptor %d", at);
    }
    *buffer = {};
    if (d->fs == nullptr) {
        buffer->st_mode = S_IFREG;
        return 0;
    }
    const node* found = find(*d->fs, d->path + "/" + path);
    if (found == nullptr) {
        return refuse(ENOENT);
    }
    buffer->st_mode = found->is_dir ? S_IFDIR : S_IFREG;
    buffer->st_size = static_cast<off_t>(found->bytes);
    buffer->st_mtime = found->mtime_s;
    return 0;
}
int __wrap_fstatat(int at, const char* path, struct stat* buffer, int flags) __attribute__((alias("__wrap_fstatat64")));

int __wrap_statfs64(const char* path, struct statfs* buffer) {
    spend(CALL_NS);
    if (must_fail(call::STATFS)) {
        return -1;
    }
    if (std::string_view(path) != MOUNT_POINT) {
        violation("statfs of %s", path);
    }
    const std::shared_ptr<filesystem> fs = at_mount_point();
    if (fs->statfs_errno != 0) {
        return refuse(fs->statfs_errno);
    }
    told_free(fs->free_kib());
    *buffer = {};
    buffer->f_type = 0x4d44;
    buffer->f_bsize = 1024;
    buffer->f_blocks = fs->total_kib;
    buffer->f_bfree = fs->free_kib() + 16;  // what root alone may use is not free
    buffer->f_bavail = fs->free_kib();
    return 0;
}
int __wrap_statfs(const char* path, struct statfs* buffer) __attribute__((alias("__wrap_statfs64")));

int __wrap_fcntl64(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    const long argument = va_arg(args, long);
    va_end(args);
    descriptor* d = get(fd);
    if (d == nullptr) {
        return fd < FIRST_FD ? 0 : refuse(EBADF);
    }
    if (command == F_DUPFD_CLOEXEC) {
        if (must_fail(call::FCNTL)) {
            return -1;
        }
        descriptor copy = *d;
        copy.is_close_on_exec = true;
        return new_descriptor(std::move(copy));
    }
    if (command == F_SETFL) {
        d->is_non_blocking = (argument & O_NONBLOCK) != 0;
    } else if (command == F_SETFD) {
        d->is_close_on_exec = (argument & FD_CLOEXEC) != 0;
    }
    return 0;
}
int __wrap_fcntl(int fd, int command, ...) __attribute__((alias("__wrap_fcntl64")));

off64_t __wrap_lseek64(int, off64_t offset, int) {
    return offset;
}
off64_t __wrap_lseek(int fd, off64_t offset, int whence) __attribute__((alias("__wrap_lseek64")));

ssize_t __wrap_read(int fd, void* buffer, size_t size) {
    descriptor* d = get(fd);
    if (d == nullptr) {
        return __real_read(fd, buffer, size);
    }
    if (d->kind == fd_kind::EVENT) {
        if (d->counter == 0) {
            return refuse(EAGAIN);
        }
        memcpy(buffer, &d->counter, sizeof d->counter);
        d->counter = 0;
        return sizeof d->counter;
    }
    if (must_fail(call::READ)) {
        return -1;
    }
    std::string* bytes = d->kind == fd_kind::SYSTEM      ? &d->text
                         : d->kind == fd_kind::PIPE_READ ? &d->pipe->bytes
                                                         : nullptr;
    if (bytes == nullptr) {
        violation("read from descriptor %d", fd);
    }
    if (bytes->empty() && d->kind == fd_kind::PIPE_READ && d->pipe->writers > 0) {
        if (!d->is_non_blocking) {
            violation("the loop waits for a pipe");
        }
        return refuse(EAGAIN);
    }
    const size_t length = std::min(size, bytes->size());
    memcpy(buffer, bytes->data(), length);
    bytes->erase(0, length);
    return static_cast<ssize_t>(length);
}

ssize_t __wrap_write(int fd, const void* buffer, size_t size) {
    descriptor* d = get(fd);
    if (d == nullptr) {
        return __real_write(fd, buffer, size);
    }
    if (d->kind == fd_kind::EVENT) {
        uint64_t value;
        memcpy(&value, buffer, sizeof value);
        d->counter += value;
        return static_cast<ssize_t>(size);
    }
    spend(CALL_NS);
    if (must_fail(call::WRITE)) {
        return -1;
    }
    d = get(fd);
    if (d->kind == fd_kind::PIPE_WRITE) {
        if (d->pipe->readers == 0) {
            return refuse(EPIPE);
        }
        const size_t length = std::min(size, PIPE_BYTES - d->pipe->bytes.size());
        if (length == 0) {
            if (!d->is_non_blocking) {
                violation("the loop waits for a pipe");
            }
            return refuse(EAGAIN);
        }
        d->pipe->bytes.append(static_cast<const char*>(buffer), length);
        return static_cast<ssize_t>(length);
    }
    if (d->kind != fd_kind::FILE) {
        violation("write to descriptor %d", fd);
    }
    if (d->path != "ZOLTA_RECORD_VIDEO/op.log") {
        violation("write to %s", d->path.c_str());
    }
    const node* file = find(*d->fs, d->path);
    if (d->fs->is_gone || d->fs->is_read_only || file == nullptr) {
        return refuse(EIO);
    }
    if (file->bytes >= 2 * 1024 * 1024 + 2 * 4300) {
        violation("the operation log grows to %llu bytes", static_cast<unsigned long long>(file->bytes));
    }
    return put_file(*d->fs, d->path, file->bytes + size) ? static_cast<ssize_t>(size) : refuse(ENOSPC);
}

ssize_t __wrap_pread64(int fd, void* buffer, size_t size, off64_t offset) {
    spend(CALL_NS);
    if (must_fail(call::PREAD)) {
        return -1;
    }
    const descriptor* d = get(fd);
    if (d == nullptr || d->kind != fd_kind::MOUNTINFO || offset != 0) {
        violation("pread from descriptor %d at %lld", fd, static_cast<long long>(offset));
    }
    const std::string& text = mountinfo();
    const size_t length = std::min(size, text.size());
    memcpy(buffer, text.data(), length);
    return static_cast<ssize_t>(length);
}
ssize_t __wrap_pread(int fd, void* buffer, size_t size, off64_t offset) __attribute__((alias("__wrap_pread64")));

int __wrap_eventfd(unsigned value, int) {
    if (must_fail(call::EVENTFD)) {
        return -1;
    }
    descriptor d;
    d.kind = fd_kind::EVENT;
    d.counter = value;
    return new_descriptor(std::move(d));
}

int __wrap_pipe2(int* ends, int flags) {
    spend(CALL_NS);
    if (must_fail(call::PIPE)) {
        return -1;
    }
    auto pipe = std::make_shared<pipe_buffer>();
    for (int i = 0; i < 2; ++i) {
        descriptor d;
        d.kind = i == 0 ? fd_kind::PIPE_READ : fd_kind::PIPE_WRITE;
        d.is_close_on_exec = (flags & O_CLOEXEC) != 0;
        d.pipe = pipe;
        ends[i] = new_descriptor(std::move(d));
    }
    return 0;
}
int __wrap_pipe(int* ends) {
    return __wrap_pipe2(ends, 0);
}

int __wrap_poll(pollfd* fds, nfds_t count, int timeout_ms) {
    check_iteration();
    ++counted.iterations;
    if (must_fail(call::POLL)) {
        const int errnum = errno;
        loop_woke();
        errno = errnum;
        return -1;
    }
    spend(CALL_NS);  // no loop turns round in no time
    const int64_t deadline = timeout_ms < 0 ? INT64_MAX : now_ns() + timeout_ms * MS;
    for (;;) {
        run_due();
        int ready = 0;
        for (nfds_t i = 0; i < count; ++i) {
            fds[i].revents = readiness(fds[i].fd, fds[i].events);
            ready += fds[i].revents != 0 ? 1 : 0;
        }
        if (ready > 0 || now_ns() >= deadline) {
            loop_woke();
            return ready;
        }
        jump_to(std::min(deadline, next_due_ns()));
    }
}

}  // extern "C"
