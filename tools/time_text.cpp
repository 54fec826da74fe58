#include "tools/time_text.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>

namespace {

constexpr uint32_t DAY_S = 86400;

// Days since 1970-01-01 of a date in the Gregorian calendar, counted in years that begin in March.
int64_t days_of(int year, unsigned month, unsigned day) {
    const int shifted = month <= 2 ? year - 1 : year;
    const int era = shifted / 400;
    const unsigned year_of_era = static_cast<unsigned>(shifted - era * 400);
    const unsigned day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    return int64_t{era} * 146097 + int64_t{year_of_era} * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year -
           719468;
}

void date_of(int64_t days, int* year, unsigned* month, unsigned* day) {
    days += 719468;
    const auto era = static_cast<unsigned>(days / 146097);
    const auto day_of_era = static_cast<unsigned>(days - int64_t{era} * 146097);
    const unsigned year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const unsigned day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const unsigned shifted_month = (5 * day_of_year + 2) / 153;
    *day = day_of_year - (153 * shifted_month + 2) / 5 + 1;
    *month = shifted_month < 10 ? shifted_month + 3 : shifted_month - 9;
    *year = static_cast<int>(year_of_era + era * 400) + (*month <= 2 ? 1 : 0);
}

// Reads all of the text as one decimal number.
bool number(std::string_view text, uint64_t* value) {
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, *value);
    return error == std::errc() && stopped == end;
}

}  // namespace

void time_to_text(uint32_t ts, char (&text)[TIME_TEXT]) {
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    date_of(ts / DAY_S, &year, &month, &day);
    const uint32_t second = ts % DAY_S;
    snprintf(text, sizeof text, "%04d-%02u-%02uT%02u:%02u:%02uZ", year % 10000, month % 100, day % 100, second / 3600,
             second / 60 % 60, second % 60);
}

bool time_from_text(const char* text, uint32_t* ts) {
    uint64_t seconds = 0;
    if (number(text, &seconds)) {
        *ts = static_cast<uint32_t>(seconds);
        return seconds >= 1 && seconds <= UINT32_MAX;
    }
    // Only the exact form: what comes back when the fields are written again must be the same text.
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    unsigned hour = 0;
    unsigned minute = 0;
    unsigned second = 0;
    if (strlen(text) != 20 ||
        sscanf(text, "%4d-%2u-%2uT%2u:%2u:%2uZ", &year, &month, &day, &hour, &minute, &second) != 6 || year < 1970 ||
        month < 1 || month > 12) {
        return false;
    }
    const int64_t value =
        days_of(year, month, day) * int64_t{DAY_S} + int64_t{hour} * 3600 + int64_t{minute} * 60 + second;
    if (value < 1 || value > UINT32_MAX) {
        return false;
    }
    char again[TIME_TEXT];
    time_to_text(static_cast<uint32_t>(value), again);
    if (strcmp(text, again) != 0) {
        return false;
    }
    *ts = static_cast<uint32_t>(value);
    return true;
}

void size_to_text(uint64_t bytes, char (&text)[SIZE_TEXT]) {
    static constexpr const char* UNITS[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        snprintf(text, sizeof text, "%u B", static_cast<unsigned>(bytes));
        return;
    }
    auto value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < sizeof UNITS / sizeof *UNITS; ++unit) {
        value /= 1024;
    }
    snprintf(text, sizeof text, "%.1f %s", value, UNITS[unit]);
}

bool size_from_text(const char* text, uint32_t* bytes) {
    std::string_view digits(text);
    uint64_t factor = 1;
    if (!digits.empty()) {
        switch (digits.back()) {
            case 'k':
                factor = uint64_t{1} << 10;
                break;
            case 'M':
                factor = uint64_t{1} << 20;
                break;
            case 'G':
                factor = uint64_t{1} << 30;
                break;
            default:
                break;
        }
        digits.remove_suffix(factor > 1 ? 1 : 0);
    }
    uint64_t value = 0;
    if (!number(digits, &value) || value > UINT32_MAX / factor) {
        return false;
    }
    *bytes = static_cast<uint32_t>(value * factor);
    return true;
}

bool number_from_text(const char* text, uint32_t low, uint32_t high, uint32_t* value) {
    uint64_t parsed = 0;
    if (!number(text, &parsed) || parsed < low || parsed > high) {
        return false;
    }
    *value = static_cast<uint32_t>(parsed);
    return true;
}

bool seconds_from_text(const char* text, double low, double* seconds) {
    char* end = nullptr;
    const double parsed = strtod(text, &end);
    if (end == text || *end != '\0' || !(parsed >= low && parsed <= DAY_S)) {  // the negation keeps "nan" out
        return false;
    }
    *seconds = parsed;
    return true;
}
