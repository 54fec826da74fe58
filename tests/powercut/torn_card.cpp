#include "torn_card.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torn {
namespace {

std::mutex cards_guard;
std::vector<card*> cards;

uint64_t inode_of(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

uint32_t pick(std::mt19937* random, size_t below) {
    return static_cast<uint32_t>((*random)() % below);
}

// Calls `each` with the pieces of a write that lie in one sector each: where in it, and how long.
template <typename Each>
void by_sectors(size_t offset, size_t size, Each each) {
    for (size_t at = 0; at < size;) {
        const size_t length = std::min(size - at, SECTOR - (offset + at) % SECTOR);
        each(at, length);
        at += length;
    }
}

// What sectors of a file that has grown may show.
void show_stale(file* f, size_t from, const std::string& earlier, std::mt19937* random) {
    for (size_t at = (from + SECTOR - 1) / SECTOR * SECTOR; at + SECTOR <= f->bytes.size(); at += SECTOR) {
        const uint32_t way = pick(random, 16);
        if (way == 0) {
            std::generate_n(f->bytes.begin() + static_cast<long>(at), SECTOR,
                            [&] { return static_cast<char>((*random)()); });
            f->stale.insert(at);
        } else if (way < 3 && earlier.size() > PAGE + SECTOR) {
            const size_t sectors = (earlier.size() - PAGE) / SECTOR;
            f->bytes.replace(at, SECTOR, earlier, PAGE + pick(random, sectors) * SECTOR, SECTOR);
            f->stale.insert(at);
        }
    }
}

void put(file* f, size_t offset, const std::string& bytes, size_t at, size_t length) {
    f->bytes.resize(std::max(f->bytes.size(), offset + at + length));
    f->bytes.replace(offset + at, length, bytes, at, length);
    f->stale.erase((offset + at) / SECTOR * SECTOR);
}

}  // namespace

void card_state::add(uint64_t inode, const std::string& name, const file& content) {
    inodes_[inode].certain = content;
    inodes_[inode].certain.stale.clear();  // what it shows now it goes on showing
    names_[name] = inode;
}

card_state::names card_state::newest_names() const {
    names found = names_;
    for (const name_change& c : names_since_) {
        if (c.inode != 0) {
            found[c.name] = c.inode;
        } else {
            found.erase(c.name);
        }
    }
    return found;
}

void card_state::apply(const event& e, std::mt19937* random) {
    ++number_;
    switch (e.kind) {
        case event::what::CREATE:
            inodes_[e.inode];
            names_since_.push_back({number_, e.name, e.inode});
            break;
        case event::what::WRITE:
            inodes_[e.inode].since.push_back({number_, false, e.offset, e.bytes});
            break;
        case event::what::SIZE:
            inodes_[e.inode].since.push_back({number_, true, e.offset, {}});
            break;
        case event::what::RENAME: {
            if (e.name == e.new_name) {
                break;
            }
            const names now = newest_names();
            names_since_.push_back({number_, e.new_name, now.at(e.name)});
            names_since_.push_back({number_, e.name, 0});
            break;
        }
        case event::what::REMOVE:
            names_since_.push_back({number_, e.name, 0});
            break;
        case event::what::SYNC_BEGIN:
            (e.inode == 0 ? names_vouched_ : inodes_[e.inode].vouched) = number_;
            break;
        case event::what::SYNC_END:
            end_sync(e.inode);
            break;
        case event::what::SYNC_REFUSED: {
            std::vector<change> left;
            for (const change& c : inodes_[e.inode].since) {
                if (c.is_size) {
                    left.push_back(c);
                    continue;
                }
                by_sectors(c.offset, c.bytes.size(), [&](size_t at, size_t length) {
                    if (pick(random, 2) == 0) {
                        left.push_back({c.number, false, c.offset + at, c.bytes.substr(at, length)});
                    }
                });
            }
            inodes_[e.inode].since.swap(left);
            break;
        }
    }
}

void card_state::end_sync(uint64_t number) {
    const auto settle_name = [&](const name_change& c) {
        if (c.inode != 0) {
            names_[c.name] = c.inode;
        } else {
            names_.erase(c.name);
        }
    };
    if (number == 0) {
        std::erase_if(names_since_, [&](const name_change& c) {
            if (c.number <= names_vouched_) {
                settle_name(c);
            }
            return c.number <= names_vouched_;
        });
        return;
    }
    inode& node = inodes_[number];
    std::erase_if(node.since, [&](const change& c) {
        if (c.number > node.vouched) {
            return false;
        }
        if (c.is_size) {
            node.certain.bytes.resize(c.offset);
        } else {
            put(&node.certain, c.offset, c.bytes, 0, c.bytes.size());
        }
        return true;
    });
    // A file that is on the card has its name there.
    std::erase_if(names_since_, [&](const name_change& c) {
        const bool is_settled = c.inode == number && c.number <= node.vouched;
        if (is_settled) {
            settle_name(c);
        }
        return is_settled;
    });
}

bool card_state::is_bad(uint64_t number, size_t offset, size_t size) const {
    const auto at = inodes_.find(number);
    if (at == inodes_.end() || size == 0) {
        return false;
    }
    const auto bad = at->second.certain.bad_pages.lower_bound(offset / PAGE);
    return bad != at->second.certain.bad_pages.end() && *bad <= (offset + size - 1) / PAGE;
}

file card_state::tear(const inode& from, std::mt19937* random) {
    file f = from.certain;
    if (from.since.empty()) {
        return f;
    }
    enum way : uint32_t { ALL, NONE, FIRST, ANY };
    const uint32_t way = pick(random, ANY + 3);
    const size_t first = pick(random, from.since.size() + 1);  // of the writes, where they come in order
    const uint32_t share = 1 + 4 * pick(random, 3);            // of 10, where they do not
    const bool has_stale = pick(random, 4) == 0;
    const auto comes = [&](size_t index) {
        return way == ALL || (way == FIRST && index < first) || (way >= ANY && pick(random, 10) < share);
    };
    for (size_t index = 0; index < from.since.size(); ++index) {
        const change& c = from.since[index];
        if (c.is_size) {
            const size_t before = f.bytes.size();
            if (comes(index)) {
                f.bytes.resize(c.offset);
            }
            if (has_stale && f.bytes.size() > before && way >= ANY) {
                show_stale(&f, before, from.certain.bytes, random);
            }
            continue;
        }
        by_sectors(c.offset, c.bytes.size(), [&](size_t at, size_t length) {
            if (comes(index)) {
                put(&f, c.offset, c.bytes, at, length);
            }
        });
    }
    return f;
}

remains card_state::cut(std::mt19937* random) const {
    names now = names_;
    const uint32_t way = pick(random, 3);
    for (const name_change& c : names_since_) {
        if (way == 0 || (way == 2 && pick(random, 2) == 0)) {
            continue;
        }
        if (c.inode != 0) {
            now[c.name] = c.inode;
        } else {
            now.erase(c.name);
        }
    }
    remains left;
    std::set<uint64_t> named;
    for (const auto& [name, number] : now) {
        left.files[name] = tear(inodes_.at(number), random);
        named.insert(number);
    }
    const names newest = newest_names();
    for (const auto& [name, number] : names_) {
        left.nameless |= !named.contains(number) &&
                         std::any_of(newest.begin(), newest.end(),
                                     [wanted = number](const auto& entry) { return entry.second == wanted; });
    }
    return left;
}

card::card(std::string folder) : folder_(std::move(folder)) {
    struct stat status = {};
    if (stat(folder_.c_str(), &status) < 0) {
        std::perror(folder_.c_str());
        std::abort();
    }
    folder_inode_ = status.st_ino;
    const std::lock_guard lock(cards_guard);
    cards.push_back(this);
}

card::~card() {
    const std::lock_guard lock(cards_guard);
    std::erase(cards, this);
}

void card::lay(const remains& content) {
    const std::lock_guard lock(guard_);
    state_ = {};
    is_logging_ = false;
    DIR* const stream = opendir(folder_.c_str());
    while (const dirent* const entry = readdir(stream)) {
        if (entry->d_type == DT_REG) {
            unlink((folder_ + "/" + entry->d_name).c_str());
        }
    }
    closedir(stream);
    for (const auto& [name, f] : content.files) {
        const int fd = open((folder_ + "/" + name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0 || write(fd, f.bytes.data(), f.bytes.size()) != static_cast<ssize_t>(f.bytes.size())) {
            std::perror(name.c_str());
            std::abort();
        }
        state_.add(inode_of(fd), name, f);
        close(fd);
    }
}

void card::take_over() {
    const std::lock_guard lock(guard_);
    state_ = {};
    DIR* const stream = opendir(folder_.c_str());
    while (const dirent* const entry = readdir(stream)) {
        if (entry->d_type != DT_REG) {
            continue;
        }
        const int fd = open((folder_ + "/" + entry->d_name).c_str(), O_RDONLY | O_CLOEXEC);
        file content;
        char block[PAGE];
        for (ssize_t got = 0; (got = read(fd, block, sizeof block)) > 0;) {
            content.bytes.append(block, static_cast<size_t>(got));
        }
        state_.add(inode_of(fd), entry->d_name, content);
        close(fd);
    }
    closedir(stream);
}

remains card::cut(std::mt19937* random) {
    const std::lock_guard lock(guard_);
    return state_.cut(random);
}

void card::begin_log() {
    const std::lock_guard lock(guard_);
    base_ = state_;
    log_.clear();
    is_logging_ = true;
}

size_t card::log_size() {
    const std::lock_guard lock(guard_);
    return log_.size();
}

remains card::cut_at(size_t calls, std::mt19937* random) {
    const std::lock_guard lock(guard_);
    card_state then = base_;
    for (size_t i = 0; i < calls; ++i) {
        then.apply(log_[i], random);
    }
    return then.cut(random);
}

void card::take(event e) {
    const std::lock_guard lock(guard_);
    state_.apply(e, &random_);
    if (is_logging_) {
        log_.push_back(std::move(e));
    }
}

// --- the calls ---

struct hooks {
    // The card on which an open file is. Null: it is none of theirs.
    static card* card_of(int fd, uint64_t* inode) {
        *inode = inode_of(fd);
        const std::lock_guard lock(cards_guard);
        for (card* const c : cards) {
            const std::lock_guard state_lock(c->guard_);
            if (c->state_.has(*inode)) {
                return c;
            }
            if (c->folder_inode_ == *inode) {
                *inode = 0;
                return c;
            }
        }
        return nullptr;
    }

    static int before(const libc_calls::called& called) {
        uint64_t inode = 0;
        card* const c = card_of(called.fd, &inode);
        if (c == nullptr) {
            return 0;
        }
        const std::string_view call = called.call;
        const bool is_sync = call == "fdatasync" || call == "fsync";
        const int failure = c->before_call ? c->before_call(called) : 0;
        if (failure == 0 && call == "pread") {
            const std::lock_guard lock(c->guard_);
            return c->state_.is_bad(inode, static_cast<size_t>(called.offset), called.size) ? EIO : 0;
        }
        if (is_sync) {
            c->take({.kind = failure == 0 ? event::what::SYNC_BEGIN : event::what::SYNC_REFUSED, .inode = inode});
        }
        return failure;
    }

    static void after(const libc_calls::called& called, intptr_t result) {
        uint64_t inode = 0;
        card* const c = result >= 0 ? card_of(called.fd, &inode) : nullptr;
        if (c == nullptr) {
            return;
        }
        const std::string_view call = called.call;
        if (call == "pwrite") {
            c->take({.kind = event::what::WRITE,
                     .inode = inode,
                     .offset = static_cast<size_t>(called.offset),
                     .bytes = std::string(static_cast<const char*>(called.data), static_cast<size_t>(result))});
        } else if (call == "ftruncate") {
            c->take({.kind = event::what::SIZE, .inode = inode, .offset = static_cast<size_t>(called.offset)});
        } else if (call == "fdatasync" || call == "fsync") {
            c->take({.kind = event::what::SYNC_END, .inode = inode});
        } else if (call == "renameat") {
            c->take({.kind = event::what::RENAME, .name = called.name, .new_name = called.new_name});
        } else if (call == "unlinkat") {
            c->take({.kind = event::what::REMOVE, .name = called.name});
        } else if (call == "openat" && (called.flags & O_CREAT) != 0) {
            const bool is_new = [&] {
                const std::lock_guard lock(c->guard_);
                return !c->state_.has_name(called.name);
            }();
            if (is_new) {
                c->take(
                    {.kind = event::what::CREATE, .inode = inode_of(static_cast<int>(result)), .name = called.name});
            }
        }
    }
};

void watch() {
    for (const char* call : {"openat", "pread", "pwrite", "ftruncate", "fdatasync", "fsync", "renameat", "unlinkat"}) {
        libc_calls::before(call, hooks::before);
        libc_calls::after(call, hooks::after);
    }
}

}  // namespace torn
