// A recordings folder with two list files, in memory, from an input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

// A new folder, removed at the process's end.
const std::string& folder();

// Makes the two list files anew. The input is a recipe for each of them: whether it is there, a header that is raw or
// whole with a generation, a state and a count, then records that are live, deleted, zero or raw, and how the file
// ends. A fuzzer that had to find a whole header or a whole record by itself would need days for it.
void make_lists(const uint8_t* data, size_t size);

}  // namespace fuzz
