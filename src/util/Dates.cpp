#include <algorithm>

#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

using std::chrono::days;
using std::chrono::floor;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

namespace {

constexpr std::size_t kSecondsLength = 19;  // "yyyy-MM-ddTHH:mm:ss"
constexpr Date kLastDate =
    Date(std::chrono::sys_days(std::chrono::year(9999) / 12 / 31) + days(1)) - TickDuration(1);

/// The number that the ASCII digits of `text` from `start` on make; -1 unless all of them are digits.
int digitsAt(std::string_view text, std::size_t start, std::size_t count) {
    int value = 0;
    for (std::size_t i = start; i < start + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return -1;
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

/// Exactly "yyyy-MM-ddTHH:mm:ss", a date that exists. Years 1 to 9999; no second 60.
std::optional<Date> parseSeconds(std::string_view text) {
    if (text.size() != kSecondsLength || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
        text[13] != ':' || text[16] != ':') {
        return std::nullopt;
    }
    const int year = digitsAt(text, 0, 4);
    const int month = digitsAt(text, 5, 2);
    const int day = digitsAt(text, 8, 2);
    const int hour = digitsAt(text, 11, 2);
    const int minute = digitsAt(text, 14, 2);
    const int second = digitsAt(text, 17, 2);
    if (year < 1 || month < 1 || day < 1 || hour < 0 || minute < 0 || second < 0) return std::nullopt;
    const std::chrono::year_month_day date(std::chrono::year(year),
                                           std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day)));
    if (!date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
    return Date(std::chrono::sys_days(date)) + hours(hour) + minutes(minute) + seconds(second);
}

/// "Z" or "+hh:mm" / "-hh:mm": the zone's distance from UTC.
std::optional<minutes> parseZone(std::string_view text) {
    if (text == "Z") return minutes(0);
    if (text.size() != 6 || (text[0] != '+' && text[0] != '-') || text[3] != ':') return std::nullopt;
    const int hour = digitsAt(text, 1, 2);
    const int minute = digitsAt(text, 4, 2);
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59) return std::nullopt;
    const minutes offset = hours(hour) + minutes(minute);
    return text[0] == '-' ? -offset : offset;
}

/// "yyyy-MM-ddTHH:mm:ss.SSS" and a zone.
std::optional<Date> parseMilliseconds(std::string_view text) {
    if (text.size() < kSecondsLength + 5 || text[kSecondsLength] != '.') return std::nullopt;
    const auto date = parseSeconds(text.substr(0, kSecondsLength));
    const int fraction = digitsAt(text, kSecondsLength + 1, 3);
    const auto zone = parseZone(text.substr(kSecondsLength + 4));
    if (!date || fraction < 0 || !zone) return std::nullopt;
    const Date result = *date + milliseconds(fraction) - *zone;
    if (result < kDistantPast || result > kLastDate) return std::nullopt;
    return result;
}

}  // namespace

Date NSDateFromNSString(std::string_view text) {
    if (text.size() == kSecondsLength + 1 && text.back() == 'Z') {
        if (const auto date = parseSeconds(text.substr(0, kSecondsLength))) return *date;
    }
    if (const auto date = parseMilliseconds(text)) return *date;

    // More fraction digits than three: the text without the digits behind the third.
    const auto point = text.find('.');
    const auto zone =
        point == std::string_view::npos ? point : text.find_first_not_of("0123456789", point + 1);
    if (zone == std::string_view::npos || zone < point + 4) {
        TWLog(kLogMain, "Warning! Failed to parse date: %@", text);
        return kDistantPast;
    }
    const std::string rebuilt = std::string(text.substr(0, point + 4)) + std::string(text.substr(zone));
    if (const auto date = parseMilliseconds(rebuilt)) return *date;
    TWLog(kLogMain, "Warning! Failed to parse date: %@", rebuilt);
    return kDistantPast;
}

std::string JSONObjectFromNSDate(Date date) {
    const auto instant = floor<milliseconds>(std::clamp(date, kDistantPast, kLastDate));
    const auto day = floor<days>(instant);
    const std::chrono::year_month_day calendar(day);
    const std::chrono::hh_mm_ss time(instant - day);
    std::string text = "0000-00-00T00:00:00.000Z";
    const auto put = [&](std::size_t end, long value) {
        for (; value > 0; value /= 10)
            text[end--] = static_cast<char>('0' + value % 10);
    };
    put(3, static_cast<int>(calendar.year()));
    put(6, static_cast<long>(static_cast<unsigned>(calendar.month())));
    put(9, static_cast<long>(static_cast<unsigned>(calendar.day())));
    put(12, time.hours().count());
    put(15, time.minutes().count());
    put(18, time.seconds().count());
    put(22, time.subseconds().count());
    return text;
}

}  // namespace tarnwell
