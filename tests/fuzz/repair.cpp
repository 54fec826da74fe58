// Input: the recipes of a list file and of one that was set aside, which lie beside real clips when the list is opened.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "handle.h"
#include "kyt_rdonly.h"
#include "lists.h"
#include "names.h"
#include "support.h"

namespace {

constexpr uint32_t CLIPS[] = {1'790'000'000, 1'790'000'300, 1'790'003'600, 1'790'100'000};

// The clips that lie in the folder from the beginning, whatever the lists say.
void make_clips() {
    for (uint32_t ts : CLIPS) {
        char path[256];
        fuzz::require(kyt_ts2path(ts, path, sizeof path, 0) > 0, "a path");
        const std::string clip = fuzz::folder() + (path + sizeof kyt::RECORD_FOLDER - 1);
        std::filesystem::create_directories(std::filesystem::path(clip).parent_path());
        std::ofstream(clip + ".mp4") << "clip";
        std::ofstream(clip + ".jpeg") << "clip";
    }
}

std::map<uint32_t, uint8_t> content() {
    kyt_handle* list = kyt::open_folder(fuzz::folder().c_str());
    fuzz::require(list != nullptr, "a list that opens whatever lay there");
    std::map<uint32_t, uint8_t> found;
    for (kyt_record* record = kyt_next(list, nullptr); record != nullptr; record = kyt_next(list, record)) {
        fuzz::require(found.emplace(record->ts, record->flags).second, "no time twice");
    }
    fuzz::require(found.size() == kyt_count(list), "as many as are counted");
    kyt_close(list);
    return found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool is_made = (make_clips(), true);
    (void)is_made;
    fuzz::make_lists(data, size);
    const auto first = content();
    kyt_health health;
    fuzz::require(kyt_check(fuzz::folder().c_str(), &health) == 0, "a folder that can be looked over");
    const bool is_sound = !health.header_damaged && !health.other_version && !health.open && !health.wrong_size;
    fuzz::require(is_sound && health.list[0] != 0 && !health.other_byte_order, "a list that was closed in order");
    fuzz::require(health.destroyed + health.twice + health.undeleted == 0, "nothing is left to repair");
    const auto second = content();
    fuzz::require(first == second, "a second open changes nothing");
    for (uint32_t ts : CLIPS) {
        char path[256];
        kyt_ts2path(ts, path, sizeof path, 0);
        const std::string clip = fuzz::folder() + (path + sizeof kyt::RECORD_FOLDER - 1);
        fuzz::require(std::filesystem::exists(clip + ".mp4") && std::filesystem::exists(clip + ".jpeg"),
                      "no clip goes because of its list");
    }
    return 0;
}
