#include "names.h"

#include "export.h"
#include "kyt.h"

#include <cerrno>
#include <cstring>

namespace kyt {
namespace {

constexpr uint32_t DAY_S = 86400;

struct date {
    uint32_t year, month, day;  // month and day count from 1
};

// Days since 1970 to a date and back. The year is taken to begin in March, so that the leap day is its last and the
// lengths of the months follow one linear formula; 719,468 days lie between 1 March of the year 0 and 1970.
date date_of(uint32_t days) {
    const uint32_t since_march_0 = days + 719468;
    const uint32_t era = since_march_0 / 146097;  // 400 years
    const uint32_t day_of_era = since_march_0 % 146097;
    const uint32_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const uint32_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const uint32_t month_from_march = (5 * day_of_year + 2) / 153;
    const uint32_t day = day_of_year - (153 * month_from_march + 2) / 5 + 1;
    const uint32_t month = month_from_march < 10 ? month_from_march + 3 : month_from_march - 9;
    return {era * 400 + year_of_era + (month <= 2 ? 1 : 0), month, day};
}

uint32_t days_of(date d) {
    const uint32_t year = d.month <= 2 ? d.year - 1 : d.year;
    const uint32_t era = year / 400;
    const uint32_t year_of_era = year % 400;
    const uint32_t day_of_year = (153 * (d.month > 2 ? d.month - 3 : d.month + 9) + 2) / 5 + d.day - 1;
    const uint32_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * 146097 + day_of_era - 719468;
}

bool read_digits(std::string_view text, uint32_t* value) {
    uint32_t sum = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        sum = sum * 10 + static_cast<uint32_t>(c - '0');
    }
    *value = sum;
    return true;
}

char* put_digits(char* at, uint32_t value, int digits) {
    for (int i = digits - 1; i >= 0; --i) {
        at[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return at + digits;
}

char* put_date(char* at, uint32_t ts) {
    const date d = date_of(ts / DAY_S);
    at = put_digits(at, d.year, 4);
    at = put_digits(at, d.month, 2);
    return put_digits(at, d.day, 2);
}

// "YYYYMMDD" and a second of the day. False: no such day, or past 2106.
bool time_from(std::string_view day, uint32_t second_of_day, uint32_t* ts) {
    date d = {};
    if (!read_digits(day.substr(0, 4), &d.year) || !read_digits(day.substr(4, 2), &d.month) ||
        !read_digits(day.substr(6, 2), &d.day) || d.year < 1970 || d.year > 2106 || d.month < 1 || d.month > 12 ||
        d.day < 1) {
        return false;
    }
    const uint32_t days = days_of(d);
    const date back = date_of(days);  // the 30th of February comes back as another day
    if (back.month != d.month || back.day != d.day) {
        return false;
    }
    const uint64_t sum = static_cast<uint64_t>(days) * DAY_S + second_of_day;
    if (sum > UINT32_MAX) {
        return false;
    }
    *ts = static_cast<uint32_t>(sum);
    return true;
}

}  // namespace

bool period_from_name(std::string_view name, uint32_t* ts) {
    uint32_t hour = 0;
    return name.size() == PERIOD_NAME_LENGTH && read_digits(name.substr(8), &hour) && hour < 24 &&
           time_from(name.substr(0, 8), hour * PERIOD_S, ts);
}

void period_name(uint32_t ts, char (&name)[PERIOD_NAME_LENGTH + 1]) {
    *put_digits(put_date(name, ts), ts % DAY_S / PERIOD_S, 2) = '\0';
}

uint32_t clip_from_name(std::string_view name) {
    uint32_t hour = 0;
    uint32_t minute = 0;
    uint32_t second = 0;
    uint32_t ts = 0;
    if (name.size() != CLIP_NAME_LENGTH || name[8] != '_' || !read_digits(name.substr(9, 2), &hour) ||
        !read_digits(name.substr(11, 2), &minute) || !read_digits(name.substr(13, 2), &second) || hour > 23 ||
        minute > 59 || second > 59 || !time_from(name.substr(0, 8), (hour * 60 + minute) * 60 + second, &ts)) {
        return 0;
    }
    return ts;
}

}  // namespace kyt

using namespace kyt;

KYT_API int kyt_ts2path(uint32_t ts, char* buffer, size_t size, int flag) {
    constexpr size_t FOLDER_LENGTH = sizeof RECORD_FOLDER - 1;
    constexpr size_t LENGTH = FOLDER_LENGTH + 1 + PERIOD_NAME_LENGTH + 1 + CLIP_NAME_LENGTH;
    if (ts == 0 || flag != 0) {
        errno = EINVAL;
        return -1;
    }
    if (size <= LENGTH) {
        errno = ENAMETOOLONG;
        return -1;
    }
    char period[PERIOD_NAME_LENGTH + 1];
    period_name(ts, period);
    std::memcpy(buffer, RECORD_FOLDER, FOLDER_LENGTH);
    char* at = buffer + FOLDER_LENGTH;
    *at++ = '/';
    std::memcpy(at, period, PERIOD_NAME_LENGTH);
    at += PERIOD_NAME_LENGTH;
    *at++ = '/';
    at = put_date(at, ts);
    *at++ = '_';
    const uint32_t second = ts % DAY_S;
    at = put_digits(at, second / 3600, 2);
    at = put_digits(at, second / 60 % 60, 2);
    at = put_digits(at, second % 60, 2);
    *at = '\0';
    return static_cast<int>(LENGTH);
}

KYT_API uint32_t kyt_path2ts(const char* name, int flag) {
    uint32_t ts = 0;
    return flag == 0 && name && period_from_name(name, &ts) ? ts : 0;
}
