#include "QORPager/Operators/Pager/QORFilterConstants.h"

#include <algorithm>
#include <limits>

#include "QORCommon/QORTime.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORExpressionText.h"

namespace QOR {

namespace {

using Limits = std::numeric_limits<std::int32_t>;

bool isSign(char ch) {
    return ch == '+' || ch == '-';
}

}  // namespace

std::optional<std::string> QORFilterConstants::find(std::string_view name, TTokenType type) const {
    if (m_filter == nullptr) return std::nullopt;
    bool found = false;
    std::string text = m_filter->extractConstByIdentifierAndOperation(name, type, found);
    return found ? std::optional(std::move(text)) : std::nullopt;
}

QOREnvSelection QORFilterConstants::environments(std::string_view name) const {
    const std::optional<std::string> text = find(name, ttEqual);
    if (!text) return QOREnvSelection::all();
    QOREID eid;
    if (!eid.fromString(*text)) return QOREnvSelection::none();
    // The nil GUID is the identifier that asks for none in particular.
    return eid.isValid() ? QOREnvSelection::one(eid) : QOREnvSelection::all();
}

int QORFilterConstants::timeBound(std::string_view name, TTokenType type, int absent) const {
    const std::optional<std::string> text = find(name, type);
    return text ? readSaturated(*text) : absent;
}

QORLogSpan QORFilterConstants::span(const QORSource& log) const {
    const auto bound = [&](QORConstantUse use, int absent) {
        const QORSourceConstant& constant = log.constant(use);
        return timeBound(constant.name, constant.operation, absent);
    };
    return {environments(log.constant(QORConstantUse::Environment).name), bound(QORConstantUse::Earliest, 0),
            bound(QORConstantUse::Latest, Limits::max())};
}

std::int32_t readSaturated(std::string_view text) noexcept {
    std::size_t at = 0;
    while (at < text.size() && isSpaceChar(text[at]))
        ++at;
    const bool negative = at < text.size() && text[at] == '-';
    if (at < text.size() && isSign(text[at])) ++at;
    std::int64_t number = 0;
    for (; at < text.size() && isDigitChar(text[at]); ++at) {
        number = std::min<std::int64_t>(number * 10 + (text[at] - '0'), std::int64_t{Limits::max()} + 1);
    }
    return static_cast<std::int32_t>(negative ? -number : std::min<std::int64_t>(number, Limits::max()));
}

std::optional<std::int32_t> readSeconds(std::string_view text) {
    const std::string_view digits = text.substr(!text.empty() && isSign(text.front()) ? 1 : 0);
    if (!digits.empty() && std::all_of(digits.begin(), digits.end(), isDigitChar)) return readSaturated(text);
    const auto seconds = parseTime(text);
    if (!seconds) return std::nullopt;
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(*seconds, std::int64_t{Limits::min()}, std::int64_t{Limits::max()}));
}

}  // namespace QOR
