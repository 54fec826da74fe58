// Input: a name that lies in the recordings folder, of a period or of a clip.
#include "names.h"

#include <cstring>
#include <string>

#include "kyt.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string name(reinterpret_cast<const char*>(data), size);
    const uint32_t period = kyt_path2ts(name.c_str(), 0);
    if (period != 0) {
        fuzz::require(period % kyt::PERIOD_S == 0, "a period begins with the hour");
        char path[256];
        const int length = kyt_ts2path(period, path, sizeof path, 0);
        fuzz::require(length > 0, "the path of its first clip");
        const std::string folder = std::string(kyt::RECORD_FOLDER) + "/" + name.substr(0, name.find('\0')) + "/";
        fuzz::require(std::string(path).compare(0, folder.size(), folder) == 0, "there and back: a period");
    }
    const uint32_t clip = kyt::clip_from_name(name);
    if (clip != 0) {
        char path[256];
        fuzz::require(kyt_ts2path(clip, path, sizeof path, 0) > 0, "a clip's path");
        fuzz::require(std::string(strrchr(path, '/') + 1) == name, "there and back: a clip");
    }
    return 0;
}
