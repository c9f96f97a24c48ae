#include "rdbmspp/engine/SqliteSecond.h"

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace QOR {
namespace {

/// The number of two digits or four, -1 for anything else.
int number(std::string_view digits) {
    int value = 0;
    for (const char digit : digits) {
        if (digit < '0' || digit > '9') return -1;
        value = value * 10 + (digit - '0');
    }
    return value;
}

bool isBetween(int value, int least, int most) {
    return least <= value && value <= most;
}

// The engine's functions leave a 31st of any month and a 24th hour as they stand, and count on from the month's first
// and the day's.
std::optional<std::int64_t> secondOf(std::string_view text) {
    const bool form =
        text.size() == 19 && text[4] == '-' && text[7] == '-' && text[10] == ' ' && text[13] == ':' && text[16] == ':';
    if (!form) return std::nullopt;
    const int year = number(text.substr(0, 4));
    const int month = number(text.substr(5, 2));
    const int day = number(text.substr(8, 2));
    const int hour = number(text.substr(11, 2));
    const int minute = number(text.substr(14, 2));
    const int second = number(text.substr(17, 2));
    const bool known = year >= 0 && isBetween(month, 1, 12) && isBetween(day, 1, 31) && isBetween(hour, 0, 24) &&
                       isBetween(minute, 0, 59) && isBetween(second, 0, 59);
    if (!known) return std::nullopt;
    const std::chrono::sys_days first{std::chrono::year(year) / month / 1};
    return (first.time_since_epoch().count() + day - 1) * std::int64_t{86400} + hour * 3600 + minute * 60 + second;
}

void second(sqlite3_context* context, int, sqlite3_value** values) {
    if (sqlite3_value_type(values[0]) != SQLITE_TEXT) return;
    const auto* const bytes = reinterpret_cast<const char*>(sqlite3_value_text(values[0]));
    const auto size = static_cast<std::size_t>(sqlite3_value_bytes(values[0]));
    if (const auto known = secondOf({bytes == nullptr ? "" : bytes, size})) sqlite3_result_int64(context, *known);
}

}  // namespace

void addSqliteSecond(sqlite3& connection) noexcept {
    constexpr int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    sqlite3_create_function(&connection, "qor_second", 1, flags, nullptr, &second, nullptr, nullptr);
}

}  // namespace QOR
