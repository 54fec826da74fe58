// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// libFuzzer's entry: one input. Always 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// What must hold whatever the input. Ends the process with the text, so that libFuzzer keeps the input.
void require(bool holds, const char* what);

// What a wrapped fopen gives next: a stream that reads these bytes. Null data: the file is not there.
void set_file(const uint8_t* data, size_t size);

}  // namespace fuzz
