#include "QORCommon/QORTime.h"

#include <charconv>
#include <chrono>
#include <optional>

#include "QORCommon/QORAscii.h"

namespace QOR {
namespace {

constexpr std::int64_t notATime = -1;

/// Takes a time apart from the front; every method leaves the text alone when it does not find what it looks for.
class Scanner {
public:
    explicit Scanner(std::string_view text) : m_rest(text) {}

    bool atEnd() const { return m_rest.empty(); }

    bool take(char c) {
        if (m_rest.empty() || m_rest.front() != c) return false;
        m_rest.remove_prefix(1);
        return true;
    }

    /// Exactly `count` digits.
    std::optional<int> digits(std::size_t count) {
        if (m_rest.size() < count) return std::nullopt;
        int value = 0;
        for (std::size_t i = 0; i < count; ++i) {
            if (!isDigitChar(m_rest[i])) return std::nullopt;
            value = value * 10 + (m_rest[i] - '0');
        }
        m_rest.remove_prefix(count);
        return value;
    }

    /// Exactly `count` digits of a number from 0 to `most`.
    std::optional<int> digitsUpTo(std::size_t count, int most) {
        const auto value = digits(count);
        return value && *value <= most ? value : std::nullopt;
    }

    /// One digit or more.
    bool skipDigits() {
        std::size_t count = 0;
        while (count < m_rest.size() && isDigitChar(m_rest[count]))
            ++count;
        m_rest.remove_prefix(count);
        return count > 0;
    }

private:
    std::string_view m_rest;
};

/// Days since the epoch; nothing for what the calendar has not. \param year from 0 to 9999
std::optional<std::int64_t> dayOf(int year, int month, int day) {
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok()) return std::nullopt;
    return std::chrono::sys_days(date).time_since_epoch().count();
}

std::optional<std::int64_t> scanDate(Scanner& scan) {
    const auto year = scan.digits(4);
    if (!year || !scan.take('-')) return std::nullopt;
    const auto month = scan.digits(2);
    if (!month || !scan.take('-')) return std::nullopt;
    const auto day = scan.digits(2);
    if (!day) return std::nullopt;
    return dayOf(*year, *month, *day);
}

/// Seconds since midnight; a fraction is read and dropped.
std::optional<std::int64_t> scanClock(Scanner& scan) {
    const auto hour = scan.digitsUpTo(2, 23);
    if (!hour || !scan.take(':')) return std::nullopt;
    const auto minute = scan.digitsUpTo(2, 59);
    if (!minute) return std::nullopt;
    int second = 0;
    if (scan.take(':')) {
        const auto read = scan.digitsUpTo(2, 59);
        if (!read) return std::nullopt;
        second = *read;
        if (scan.take('.') && !scan.skipDigits()) return std::nullopt;
    }
    return std::int64_t{*hour} * 3600 + *minute * 60 + second;
}

/// What the clock is ahead of UTC, in seconds; 0 when nothing is left to read.
std::optional<std::int64_t> scanOffset(Scanner& scan) {
    if (scan.atEnd() || scan.take('Z')) return 0;
    const bool west = scan.take('-');
    if (!west && !scan.take('+')) return std::nullopt;
    const auto hour = scan.digitsUpTo(2, 23);
    if (!hour) return std::nullopt;
    int minute = 0;
    const bool colon = scan.take(':');
    if (colon || !scan.atEnd()) {
        const auto read = scan.digitsUpTo(2, 59);
        if (!read) return std::nullopt;
        minute = *read;
    }
    const std::int64_t ahead = std::int64_t{*hour} * 3600 + minute * 60;
    return west ? -ahead : ahead;
}

/// The number that two digits are; `wrong` becomes true for anything else.
int twoDigits(const char* at, bool& wrong) {
    const unsigned tens = static_cast<unsigned char>(at[0]) - static_cast<unsigned>('0');
    const unsigned ones = static_cast<unsigned char>(at[1]) - static_cast<unsigned>('0');
    wrong |= (tens > 9) | (ones > 9);
    return static_cast<int>(tens * 10 + ones);
}

/// "YYYY-MM-DD HH:MM:SS", the form in which databases keep times, read at a fraction of the scanner's cost: most
/// columns of most rows have it. Nothing for any other text, be it a time or not.
std::optional<std::int64_t> readDbForm(std::string_view text) {
    constexpr std::size_t length = 19;
    if (text.size() != length) return std::nullopt;
    const char* t = text.data();
    if (t[4] != '-' || t[7] != '-' || t[10] != ' ' || t[13] != ':' || t[16] != ':') return std::nullopt;
    bool wrong = false;
    const int year = twoDigits(t, wrong) * 100 + twoDigits(t + 2, wrong);
    const int month = twoDigits(t + 5, wrong), day = twoDigits(t + 8, wrong);
    const int hour = twoDigits(t + 11, wrong), minute = twoDigits(t + 14, wrong), second = twoDigits(t + 17, wrong);
    if (wrong || hour > 23 || minute > 59 || second > 59) return std::nullopt;
    const auto date = dayOf(year, month, day);
    if (!date) return std::nullopt;
    return ((*date * 24 + hour) * 60 + minute) * 60 + second;
}

std::int64_t floorDiv(std::int64_t value, std::int64_t by) {
    return value / by - (value % by < 0 ? 1 : 0);
}

void appendNumber(std::string& out, std::int64_t value, std::size_t width) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value < 0 ? -value : value);
    const auto length = static_cast<std::size_t>(result.ptr - buffer);
    if (value < 0) out += '-';
    if (length < width) out.append(width - length, '0');
    out.append(buffer, length);
}

/// The proleptic Gregorian date of a day, for any 64-bit number of seconds: std::chrono's years end at 32767.
struct Date {
    std::int64_t year;
    std::int64_t month;
    std::int64_t day;
};

Date dateOfDay(std::int64_t day) {
    // Counted in cycles of 400 years from 1 March of year 0, so that the leap day is the last of a year.
    constexpr std::int64_t daysToEpoch = 719468;
    constexpr std::int64_t daysOfCycle = 146097;
    const std::int64_t shifted = day + daysToEpoch;
    const std::int64_t cycle = floorDiv(shifted, daysOfCycle);
    const std::int64_t dayOfCycle = shifted - cycle * daysOfCycle;
    const std::int64_t yearOfCycle =
        (dayOfCycle - dayOfCycle / 1460 + dayOfCycle / 36524 - dayOfCycle / (daysOfCycle - 1)) / 365;
    const std::int64_t dayOfYear = dayOfCycle - (365 * yearOfCycle + yearOfCycle / 4 - yearOfCycle / 100);
    const std::int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const std::int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    return {yearOfCycle + cycle * 400 + (month <= 2 ? 1 : 0), month, dayOfYear - (153 * monthFromMarch + 2) / 5 + 1};
}

std::string format(std::int64_t seconds, char separator, std::string_view suffix) {
    const std::int64_t day = floorDiv(seconds, secondsOfDay);
    const std::int64_t clock = (seconds % secondsOfDay + secondsOfDay) % secondsOfDay;
    const Date date = dateOfDay(day);
    std::string out;
    out.reserve(24);
    appendNumber(out, date.year, 4);
    out += '-';
    appendNumber(out, date.month, 2);
    out += '-';
    appendNumber(out, date.day, 2);
    out += separator;
    appendNumber(out, clock / 3600, 2);
    out += ':';
    appendNumber(out, clock / 60 % 60, 2);
    out += ':';
    appendNumber(out, clock % 60, 2);
    out += suffix;
    return out;
}

}  // namespace

std::int64_t currentTime() noexcept {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string time2str(std::int64_t seconds) {
    return format(seconds, 'T', "+0000");
}

std::string time2dbstr(std::int64_t seconds) {
    return format(seconds, ' ', {});
}

std::optional<std::int64_t> parseTime(std::string_view text) {
    if (const auto seconds = readDbForm(text)) return seconds;
    Scanner scan(text);
    const auto day = scanDate(scan);
    if (!day) return std::nullopt;
    if (scan.atEnd()) return *day * secondsOfDay;
    if (!scan.take('T') && !scan.take(' ')) return std::nullopt;
    const auto clock = scanClock(scan);
    if (!clock) return std::nullopt;
    const auto ahead = scanOffset(scan);
    if (!ahead || !scan.atEnd()) return std::nullopt;
    return *day * secondsOfDay + *clock - *ahead;
}

std::int64_t str2time(std::string_view text) {
    return parseTime(text).value_or(notATime);
}

}  // namespace QOR
