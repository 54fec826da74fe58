// A folder of a card whose power may go: what was synchronised is there, and of what was written since then any part.
//
// The calls that reach the folder's files are watched (libc_calls). A write may be on the card from the moment at which
// it is made, sector by sector and in any order; a file's length, a new name and a removed one likewise. A sync that
// succeeds vouches for what had been written when it began. A sync that is refused vouches for nothing, and what it was
// to bring may be lost for good although the file still reads well. Where a file has grown without being synchronised,
// the card may show what was in those sectors before: zeros, noise, or records of earlier days.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/libc_calls.h"

namespace torn {

constexpr size_t SECTOR = 512;
constexpr size_t PAGE = 4096;

struct file {
    std::string bytes;
    std::set<size_t> bad_pages;  // that the card does not give any more
    std::set<size_t> stale;      // offsets of sectors that show what was there before
};

// What a cut leaves of the folder's files.
struct remains {
    std::map<std::string, file> files;
    bool nameless = false;  // a rename was cut such that a file has neither its old name nor its new one
};

struct event {
    enum class what : uint8_t { CREATE, WRITE, SIZE, RENAME, REMOVE, SYNC_BEGIN, SYNC_END, SYNC_REFUSED };
    what kind;
    uint64_t inode = 0;  // 0: the folder
    size_t offset = 0;   // of a write; the new size
    std::string bytes = {};
    std::string name = {};
    std::string new_name = {};
};

// What is certain, and what is not.
class card_state {
  public:
    void add(uint64_t inode, const std::string& name, const file& content);  // certain from the beginning
    void apply(const event& e, std::mt19937* random);
    bool has(uint64_t inode) const { return inodes_.contains(inode); }
    bool has_name(const std::string& name) const { return newest_names().contains(name); }
    bool is_bad(uint64_t inode, size_t offset, size_t size) const;
    remains cut(std::mt19937* random) const;

  private:
    struct change {
        uint64_t number;
        bool is_size;
        size_t offset;
        std::string bytes;
    };
    struct inode {
        file certain;
        std::vector<change> since;
        uint64_t vouched = 0;  // what the sync under way vouches for
    };
    struct name_change {
        uint64_t number;
        std::string name;
        uint64_t inode;  // 0: removed
    };
    using names = std::map<std::string, uint64_t>;

    names newest_names() const;
    void end_sync(uint64_t inode);
    static file tear(const inode& from, std::mt19937* random);

    std::map<uint64_t, inode> inodes_;
    names names_;
    std::vector<name_change> names_since_;
    uint64_t names_vouched_ = 0;
    uint64_t number_ = 0;
};

class card {
  public:
    explicit card(std::string folder);
    ~card();
    card(const card&) = delete;
    card& operator=(const card&) = delete;

    // Puts these files, all of them certain, in the place of all that the folder holds. Nobody has one open.
    void lay(const remains& content);
    // The files that the folder holds are certain.
    void take_over();
    // A cut at this moment.
    remains cut(std::mt19937* random);
    // From here on every call is kept: cut_at(n) is a cut after the first n of them.
    void begin_log();
    size_t log_size();
    remains cut_at(size_t calls, std::mt19937* random);

    // Called before each call that reads or changes a file of the folder, without a lock. 0, or the errno with which it
    // fails. Set it while nothing is open.
    std::function<int(const libc_calls::called& c)> before_call;

  private:
    friend struct hooks;
    void take(event e);

    std::string folder_;
    uint64_t folder_inode_;
    std::mutex guard_;
    card_state state_;
    card_state base_;  // when the log began
    std::vector<event> log_;
    bool is_logging_ = false;
    std::mt19937 random_;
};

// Begins to watch. Before the first card is made.
void watch();

}  // namespace torn
