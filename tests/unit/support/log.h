// A stand-in for the framework's log: lines are kept as "<level> text", for example "warning device: Change block x".
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace logged {

void reset();
const std::vector<std::string>& lines();
bool has(std::string_view line);
int count(std::string_view line);
int count_beginning(std::string_view prefix);  // of a line, level included
bool has_part(std::string_view part);

// Sets errno to this value after every line, as a log that disturbs it would; 0 leaves it alone.
void disturb_errno(int value);

}  // namespace logged
