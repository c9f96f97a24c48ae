#include "QORCommon/QORRelativeTime.h"

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORTime.h"

namespace QOR {
namespace {

constexpr std::int64_t longest = std::int64_t{10000} * 366 * secondsOfDay;

/// 0 for what is no unit.
constexpr std::int64_t secondsOf(char unit) noexcept {
    switch (unit) {
        case 's':
            return 1;
        case 'm':
            return 60;
        case 'h':
            return 3600;
        case 'd':
            return secondsOfDay;
        case 'w':
            return 7 * secondsOfDay;
        default:
            return 0;
    }
}

constexpr std::int64_t beginOfDay(std::int64_t time) noexcept {
    return time - ((time % secondsOfDay) + secondsOfDay) % secondsOfDay;
}

void skipBlanks(std::string_view& text) noexcept {
    while (text.starts_with(' '))
        text.remove_prefix(1);
}

std::string_view takeWord(std::string_view& text) noexcept {
    std::size_t end = 0;
    while (end < text.size() && isWordChar(text[end]))
        ++end;
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(end);
    return word;
}

std::optional<std::int64_t> timeOfWord(std::string_view word, std::int64_t now) noexcept {
    if (isSameWord(word, "now")) return now;
    if (isSameWord(word, "today")) return beginOfDay(now);
    if (isSameWord(word, "yesterday")) return beginOfDay(now) - secondsOfDay;
    if (isSameWord(word, "tomorrow")) return beginOfDay(now) + secondsOfDay;
    return std::nullopt;
}

constexpr bool isInDatabase(std::int64_t time) noexcept {
    return time >= firstDbSecond && time <= lastDbSecond;
}

}  // namespace

std::optional<std::int64_t> parseDuration(std::string_view text) noexcept {
    std::int64_t sum = 0;
    std::int64_t above = longest;
    if (text.empty()) return std::nullopt;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '0' && at + 1 < text.size() && isDigitChar(text[at + 1])) return std::nullopt;
        const std::size_t begin = at;
        std::int64_t number = 0;
        for (; at < text.size() && isDigitChar(text[at]); ++at) {
            number = number * 10 + (text[at] - '0');
            if (number > longest) return std::nullopt;
        }
        const std::int64_t unit = at == begin || at == text.size() ? 0 : secondsOf(text[at]);
        if (unit == 0 || unit >= above || number > (longest - sum) / unit) return std::nullopt;
        sum += number * unit;
        above = unit;
    }
    return sum;
}

std::optional<std::int64_t> parseRelativeTime(std::string_view text, std::int64_t now) noexcept {
    skipBlanks(text);
    if (text.empty() || !isInDatabase(now)) return std::nullopt;
    std::int64_t time = now;
    if (const std::string_view word = takeWord(text); !word.empty()) {
        const auto named = timeOfWord(word, now);
        if (!named) return std::nullopt;
        time = *named;
    }
    for (skipBlanks(text); !text.empty(); skipBlanks(text)) {
        const char sign = text.front();
        if (sign != '+' && sign != '-') return std::nullopt;
        text.remove_prefix(1);
        skipBlanks(text);
        const auto duration = parseDuration(takeWord(text));
        if (!duration) return std::nullopt;
        time += sign == '+' ? *duration : -*duration;
        if (!isInDatabase(time)) return std::nullopt;
    }
    return isInDatabase(time) ? std::optional(time) : std::nullopt;
}

}  // namespace QOR
