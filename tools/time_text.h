// Times, sizes and numbers as people write them. Pure.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t TIME_TEXT = 24;  // bytes for a time, NUL included
constexpr size_t SIZE_TEXT = 16;  // bytes for a size, NUL included

// "2026-11-21T01:22:05Z"
void time_to_text(uint32_t ts, char (&text)[TIME_TEXT]);

// Reads "2026-11-21T01:22:05Z" or seconds since 1970. False: neither, or outside 1 to 4294967295.
bool time_from_text(const char* text, uint32_t* ts);

// "12 B", "41.3 MiB"
void size_to_text(uint64_t bytes, char (&text)[SIZE_TEXT]);

// Reads a number of bytes, with "k", "M" or "G" behind it for binary multiples. False: not that, or above 4 GiB - 1.
bool size_from_text(const char* text, uint32_t* bytes);

// Reads a decimal number from low to high. False: not that.
bool number_from_text(const char* text, uint32_t low, uint32_t high, uint32_t* value);

// Reads seconds, with a fraction or without, from low to 86400. False: not that.
bool seconds_from_text(const char* text, double low, double* seconds);
