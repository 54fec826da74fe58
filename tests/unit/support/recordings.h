// A recordings folder of the test's own, with clips that are empty files.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "kyt.h"

class recordings {
  public:
    recordings() {
        // In memory where that can be had: thousands of clips are made and synchronised.
        std::string pattern = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/vesk-kyt-XXXXXX";
        top_ = mkdtemp(pattern.data());
        path_ = top_ + "/ZOLTA_RECORD_VIDEO";
        std::filesystem::create_directory(path_);
    }
    ~recordings() {
        std::error_code ignored;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(top_, ignored);
    }
    recordings(const recordings&) = delete;
    recordings& operator=(const recordings&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

    // The clip's path in this folder, without extension.
    std::string clip(uint32_t ts) const {
        char buffer[128];
        kyt_ts2path(ts, buffer, sizeof buffer, 0);
        return path_ + "/" + std::string(buffer).substr(31);
    }
    void add_clip(uint32_t ts) const {
        std::filesystem::create_directories(std::filesystem::path(clip(ts)).parent_path());
        const std::ofstream image(clip(ts) + ".jpeg");
        const std::ofstream video(clip(ts) + ".mp4");
    }
    void remove_clip(uint32_t ts) const {
        std::filesystem::remove(clip(ts) + ".jpeg");
        std::filesystem::remove(clip(ts) + ".mp4");
        std::error_code ignored;
        std::filesystem::remove(std::filesystem::path(clip(ts)).parent_path(), ignored);
    }

    bool has(const std::string& name) const { return std::filesystem::exists(file(name)); }
    // Whatever is in the folder beside the periods.
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            const std::string name = entry.path().filename();
            if (name.find_first_not_of("0123456789") != std::string::npos) {
                names.insert(name);
            }
        }
        return names;
    }
    void remove_files() const {
        for (const std::string& name : files()) {
            std::filesystem::remove_all(file(name));
        }
    }
    std::string bytes(const std::string& name) const {
        std::ifstream in(file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void set_bytes(const std::string& name, const std::string& bytes) const {
        std::ofstream(file(name), std::ios::binary | std::ios::trunc) << bytes;
    }

  private:
    std::string top_;
    std::string path_;
};

inline kyt_record record_of(const std::string& text) {
    kyt_record record = {};
    kyt_record_parse(&record, text.data(), text.size());
    return record;
}
inline kyt_record record_of(uint32_t ts) {
    return record_of(std::to_string(ts));
}
inline std::vector<uint32_t> all_ts(kyt_handle* list) {
    std::vector<uint32_t> found;
    for (const kyt_record* r = kyt_next(list, nullptr); r; r = kyt_next(list, r)) {
        found.push_back(r->ts);
    }
    return found;
}
