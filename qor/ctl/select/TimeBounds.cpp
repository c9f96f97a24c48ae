#include "select/TimeBounds.h"

#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

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

std::optional<std::int64_t> secondsOf(const char* option, const std::optional<std::string>& written, std::int64_t now) {
    if (!written) return std::nullopt;
    std::optional<std::int64_t> time = parseTime(*written);
    if (!time) time = parseRelativeTime(*written, now);
    if (!time)
        throw CtlError::usage(std::string(option) + " " + quoteText(*written) +
                              " is no time; one is written 2024-05-01, \"2024-05-01 10:15:00\", yesterday or -7d");
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
