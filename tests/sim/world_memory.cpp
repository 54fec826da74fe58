// Memory as the daemon takes it and gives it back. The simulator's own, by new and delete, goes by here.
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "faults.h"
#include "real.h"
#include "world.h"

namespace sim {
namespace {

std::unordered_map<void*, bool> blocks;  // and whether it came from strdup or strndup

void* track(void* block, bool is_string) {
    if (block != nullptr) {
        blocks[block] = is_string;
    }
    return block;
}

}  // namespace

live_blocks count_blocks() {
    live_blocks live = {0, 0};
    for (const auto& [block, is_string] : blocks) {
        ++(is_string ? live.strings : live.plain);
    }
    return live;
}

}  // namespace sim

using namespace sim;

extern "C" {

void* __wrap_malloc(size_t size) {
    return must_fail(call::MALLOC) ? nullptr : track(__real_malloc(size), false);
}

void* __wrap_calloc(size_t count, size_t size) {
    return must_fail(call::MALLOC) ? nullptr : track(__real_calloc(count, size), false);
}

void* __wrap_realloc(void* block, size_t size) {
    if (must_fail(call::MALLOC)) {
        return nullptr;
    }
    blocks.erase(block);
    return track(__real_realloc(block, size), false);
}

char* __wrap_strdup(const char* text) {
    return must_fail(call::MALLOC) ? nullptr : static_cast<char*>(track(__real_strdup(text), true));
}

char* __wrap_strndup(const char* text, size_t size) {
    return must_fail(call::MALLOC) ? nullptr : static_cast<char*>(track(__real_strndup(text, size), true));
}

void __wrap_free(void* block) {
    blocks.erase(block);
    __real_free(block);
}

}  // extern "C"
