#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "response.h"

namespace {

// A pair outlives its response: one block holds the pair, its parts and their bytes.
struct pair_block {
    karvel_xpair pair;
    karvel_xname name;
    karvel_xvalue value;
};

const char* place(char** room, const char* bytes, size_t size) {
    char* copy = *room;
    memcpy(copy, bytes, size);
    *room += size;
    return copy;
}

}  // namespace

karvel_xpair* xresponse_parse(karvel_response* response, int* error) {
    if (response == nullptr || response->error != 0) {
        *error = response == nullptr ? EINVAL : response->error;
        return nullptr;
    }
    const karvel_xname& name = response->name;
    const size_t name_space = strlen(name.name_space) + 1;
    const size_t group = strlen(name.group) + 1;
    const size_t key = strlen(name.key) + 1;
    const bool has_value = response->value.data != nullptr;
    auto* block = static_cast<pair_block*>(
        malloc(sizeof(pair_block) + name_space + group + key + (has_value ? response->value.length + 1 : 0)));
    if (block == nullptr) {
        *error = ENOMEM;
        return nullptr;
    }
    char* room = reinterpret_cast<char*>(block + 1);
    block->name.name_space = place(&room, name.name_space, name_space);
    block->name.group = place(&room, name.group, group);
    block->name.key = place(&room, name.key, key);
    block->pair = karvel_xpair{&block->name, nullptr};
    if (has_value) {
        block->value =
            karvel_xvalue{place(&room, response->value.data, response->value.length), response->value.length};
        *room = '\0';
        block->pair.second = &block->value;
    }
    *error = 0;
    return &block->pair;
}

void xpair_basefree(karvel_xpair* pair) {
    free(pair);  // the first member of its block
}

int xcontrol_get_response(karvel_response* response, const karvel_xvalue** value) {
    if (response == nullptr || response->error != 0 || response->value.data == nullptr) {
        return 0;
    }
    *value = &response->value;
    return 1;
}
