#include "output/PersonTimes.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

constexpr const char* zonesFolder = "/usr/share/zoneinfo";

std::string inZone(std::int64_t seconds, bool isFull) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (::localtime_r(&time, &parts) == nullptr) return {};
    std::array<char, 64> text{};
    return {text.data(), isFull ? std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S%z", &parts)
                                : std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}

/// In the largest unit of which there is one.
std::string relative(std::int64_t seconds, std::int64_t now) {
    struct Unit {
        std::int64_t seconds;
        const char* name;
    };
    constexpr std::array<Unit, 5> units{{{365 * 86400LL, "y"}, {86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}}};
    const std::int64_t apart = now > seconds ? now - seconds : seconds - now;
    for (const Unit& unit : units) {
        if (apart < unit.seconds) continue;
        const std::string amount = std::to_string(apart / unit.seconds) + ' ' + unit.name;
        return now > seconds ? amount + " ago" : "in " + amount;
    }
    return "now";
}

/// A name of letters, digits and a few signs, without a way out of the folder.
bool isZone(const std::string& name) {
    const bool plain = name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/_+-") ==
                       std::string::npos;
    std::error_code ignored;
    return plain && !name.empty() && name.front() != '/' &&
           std::filesystem::is_regular_file(std::filesystem::path(zonesFolder) / name, ignored);
}

}  // namespace

void useZone(const std::string& name) {
    if (name == "UTC") {
        ::setenv("TZ", "UTC0", 1);
    } else if (name != "local") {
        if (!isZone(name))
            throw CtlError::usage("--tz: there is no time zone " + quoteText(name) +
                                  " on this machine (local, UTC, or a name such as Europe/Paris)");
        ::setenv("TZ", name.c_str(), 1);
    }
    ::tzset();
}

std::string showTimeAndAge(std::int64_t seconds, std::int64_t now) {
    return inZone(seconds, false) + " (" + relative(seconds, now) + ')';
}

std::string showDuration(std::uint64_t seconds) {
    struct Part {
        std::uint64_t seconds;
        const char* name;
    };
    constexpr std::array<Part, 4> parts{{{86400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}}};
    std::string text;
    for (const Part& part : parts) {
        const bool isSecond = !text.empty();
        if (seconds >= part.seconds) text += (isSecond ? " " : "") + std::to_string(seconds / part.seconds) + part.name;
        seconds %= part.seconds;
        if (isSecond) break;
    }
    return text.empty() ? "0 s" : text;
}

std::string showTime(std::string_view text, TimeForm form, std::int64_t now) {
    std::optional<std::int64_t> seconds = form == TimeForm::Answered ? std::nullopt : parseTime(text);
    if (!seconds && form != TimeForm::Answered) seconds = parseInt64(text);
    if (!seconds) return std::string(text);
    if (form == TimeForm::Relative) return relative(*seconds, now);
    std::string shown = inZone(*seconds, form == TimeForm::Full);
    return shown.empty() ? std::string(text) : shown;
}

}  // namespace QOR
