// A recordings folder with a list file and one that was set aside, in memory, from an input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

// A new folder, removed at the process's end.
const std::string& folder();

// Makes both files again, and removes what earlier inputs have set aside. The input is a recipe for each of them:
// whether it is there, a header that is raw or whole with a state and counts that are right or not, then blocks of
// slots that are live, deleted, empty, zero or raw, their byte order, and how the file ends. A fuzzer that had to find
// a whole header or a whole record by itself would need days for it.
void make_lists(const uint8_t* data, size_t size);

}  // namespace fuzz
