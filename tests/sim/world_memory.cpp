// Memory as the daemon takes it and gives it back. The simulator's own, by new and delete, goes by here.
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "faults.h"
#include "real.h"
#include "world.h"

namespace sim {
namespace {

std::unordered_map<void*, size_t> blocks;  // and the bytes of each

void* track(void* block, size_t bytes) {
    if (block != nullptr) {
        blocks[block] = bytes;
    }
    return block;
}

}  // namespace

live_memory count_memory() {
    live_memory live = {static_cast<int>(blocks.size()), 0};
    for (const auto& [block, bytes] : blocks) {
        live.bytes += bytes;
    }
    return live;
}

}  // namespace sim

using namespace sim;

extern "C" {

void* __wrap_malloc(size_t size) {
    return must_fail(call::MALLOC) ? nullptr : track(__real_malloc(size), size);
}

void* __wrap_calloc(size_t count, size_t size) {
    return must_fail(call::MALLOC) ? nullptr : track(__real_calloc(count, size), count * size);
}

void* __wrap_realloc(void* block, size_t size) {
    if (must_fail(call::MALLOC)) {
        return nullptr;
    }
    blocks.erase(block);
    return track(__real_realloc(block, size), size);
}

char* __wrap_strdup(const char* text) {
    return must_fail(call::MALLOC) ? nullptr : static_cast<char*>(track(__real_strdup(text), strlen(text) + 1));
}

char* __wrap_strndup(const char* text, size_t size) {
    return must_fail(call::MALLOC) ? nullptr
                                   : static_cast<char*>(track(__real_strndup(text, size), strnlen(text, size) + 1));
}

void __wrap_free(void* block) {
    blocks.erase(block);
    __real_free(block);
}

}  // extern "C"
