#include "select/TimeBounds.h"

#include <algorithm>
#include <ctime>
#include <string>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

constexpr std::string_view agoMark = " ago";

/// Of a time that the calendar and the clock of the process's zone tell, written as if they were UTC's.
std::optional<std::int64_t> ofZone(std::int64_t told) {
    const auto seconds = static_cast<std::time_t>(told);
    std::tm parts{};
    if (::gmtime_r(&seconds, &parts) == nullptr) return std::nullopt;
    parts.tm_isdst = -1;  // as it is then
    return ::mktime(&parts);
}

/// What the calendar and the clock of the process's zone tell, written as if they were UTC's.
std::int64_t toldInZone(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    return ::localtime_r(&time, &parts) == nullptr ? seconds : seconds + parts.tm_gmtoff;
}

bool hasOffset(const std::string& text) {
    return !parseTime(text + "Z") && !parseTime(text + "T00:00:00Z");
}

/// "10:15", "yesterday 10:15".
std::optional<std::int64_t> clockTime(std::string_view text, std::int64_t now) {
    const std::size_t blank = text.rfind(' ');
    const std::string_view day = blank == std::string_view::npos ? "today" : text.substr(0, blank);
    const std::string clock(blank == std::string_view::npos ? text : text.substr(blank + 1));
    const auto begin = parseRelativeTime(day, toldInZone(now));
    const auto ofDay = parseTime("1970-01-01 " + clock);
    if (!begin || !ofDay || *begin % secondsOfDay != 0) return std::nullopt;
    if (hasOffset("1970-01-01 " + clock)) return std::nullopt;
    return ofZone(*begin + *ofDay);
}

bool beginsWithDay(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    for (const std::string_view day : {"today", "yesterday", "tomorrow"}) {
        if (isSameWord(text.substr(0, day.size()), day)) return true;
    }
    return false;
}

void addBound(std::string& condition, const char* option, const std::optional<std::string>& written,
              std::string_view name, const char* comparison, std::int64_t now) {
    const std::optional<std::int64_t> time = secondsOf(option, written, now);
    if (!time) return;
    // The stored form: without an offset, which some columns do not take.
    std::string text = time2str(*time).substr(0, std::string_view("2024-05-01T10:15:00").size());
    text[std::string_view("2024-05-01").size()] = ' ';
    if (!condition.empty()) condition += " and ";
    condition.append(name).append(comparison).append(text) += '\'';
}

}  // namespace

std::optional<std::int64_t> readTime(std::string_view text, std::int64_t now) {
    if (const auto time = parseTime(text)) return hasOffset(std::string(text)) ? time : ofZone(*time);
    if (const auto time = clockTime(text, now)) return time;
    const std::string_view age = text.ends_with(agoMark) ? text.substr(0, text.size() - agoMark.size()) : text;
    if (const auto duration = parseDuration(age)) return parseRelativeTime("-" + std::string(age), now);
    if (!beginsWithDay(text)) return parseRelativeTime(text, now);
    const auto told = parseRelativeTime(text, toldInZone(now));
    return told ? ofZone(*told) : std::nullopt;
}

std::optional<std::int64_t> secondsOf(const char* option, const std::optional<std::string>& written, std::int64_t now) {
    if (!written) return std::nullopt;
    const std::optional<std::int64_t> time = readTime(*written, now);
    if (!time || *time < firstDbSecond || *time > lastDbSecond)
        throw CtlError::usage(
            std::string(option) + " " + quoteText(*written) +
            " is no time; one is written 2024-05-01, \"2024-05-01 10:15:00\", 10:15, yesterday or -7d");
    return time;
}

std::string conditionOf(const TimeBounds& bounds, std::string_view name, std::int64_t now) {
    std::string condition;
    addBound(condition, "--since", bounds.since, name, " >= '", now);
    addBound(condition, "--until", bounds.until, name, " <= '", now);
    return condition;
}

std::string joinConditions(std::string_view written, std::string_view further) {
    if (written.empty() || further.empty()) return std::string(written.empty() ? further : written);
    return "(" + std::string(written) + ") and " + std::string(further);
}

}  // namespace QOR
