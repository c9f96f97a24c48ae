#include "filter/FilterNames.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <numeric>
#include <utility>

#include "QORPager/QORBuiltInFields.h"
#include "QORPager/QORExpressionText.h"

namespace QOR {
namespace {

/// A prefix whose names are parameters of an info document. The first two are always registered, the last one by the
/// default configuration.
struct Prefix {
    std::string_view text;
    TCursorType cursorType;
};
constexpr std::array<Prefix, 3> prefixes{{
    {"pager.op_log.parameter.", TCursorType::OpLog},
    {"pager.event_log.parameter.", TCursorType::EventLog},
    {"pager.backup.", TCursorType::Info},
}};

constexpr std::size_t mostSuggestions = 3;
constexpr std::size_t longestName = 200;  ///< longer names resemble none

const Prefix* findPrefix(std::string_view lowerName) noexcept {
    for (const Prefix& prefix : prefixes) {
        if (lowerName.size() > prefix.text.size() && lowerName.starts_with(prefix.text)) return &prefix;
    }
    return nullptr;
}

std::string_view sourceName(TCursorType cursorType) noexcept {
    switch (cursorType) {
        case TCursorType::Env:
            return "environments";
        case TCursorType::OpLog:
            return "operation log";
        case TCursorType::EventLog:
            return "event log";
        default:
            return "backups";
    }
}

std::string_view typeName(TValueType type) noexcept {
    switch (type) {
        case TValueType::Boolean:
            return "boolean";
        case TValueType::Integer:
            return "integer";
        case TValueType::Time:
            return "time";
        default:
            return "text";
    }
}

std::string describe(TValueType type, TCursorType cursorType) {
    return std::string(typeName(type)).append(", ").append(sourceName(cursorType));
}

void declare(TExpressionEvaluation& evaluator, const QORBuiltInField& field) {
    const bool special = field.cursorType == TCursorType::Env;
    if (field.valueType == TValueType::Boolean) {
        evaluator.setIdentifier(field.name, true, special);
    } else if (field.valueType == TValueType::Integer) {
        evaluator.setIdentifier(field.name, 0, special);
    } else {
        evaluator.setIdentifier(field.name, "", special);
    }
}

/// Changes of one character, and swaps of two neighbours, that lead from one text to the other.
std::size_t editDistance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> before(to.size() + 1);
    std::vector<std::size_t> last(to.size() + 1);
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t change = from[i - 1] == to[j - 1] ? 0 : 1;
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + change});
            const bool swapped = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before.swap(last);
        last.swap(row);
    }
    return last[to.size()];
}

/// How far a declared name is from one that was written. Leaving the beginning of a path out counts little.
std::size_t distance(std::string_view written, std::string_view declared) {
    const std::string lower = toLowerText(declared);
    std::size_t nearest = editDistance(written, lower);
    for (std::size_t dot = lower.find('.'); dot != std::string::npos; dot = lower.find('.', dot + 1)) {
        nearest = std::min(nearest, editDistance(written, std::string_view(lower).substr(dot + 1)) + 1);
    }
    return nearest;
}

}  // namespace

void declareNames(TExpressionEvaluation& evaluator, std::string_view text) {
    for (const QORBuiltInField& field : builtInFields())
        declare(evaluator, field);
    const auto isNameChar = [](char ch) { return isAlphaChar(ch) || isDigitChar(ch) || ch == '_' || ch == '.'; };
    for (auto begin = text.begin(); begin != text.end();) {
        begin = std::find_if(begin, text.end(), isNameChar);
        const auto end = std::find_if_not(begin, text.end(), isNameChar);
        const std::string name = toLowerText({begin, end});
        if (findPrefix(name) != nullptr) evaluator.setIdentifier(name, "", false);
        begin = end;
    }
}

std::string describeName(std::string_view name) {
    const std::string lowerName = toLowerText(name);
    if (lowerName == "true" || lowerName == "false") return "boolean constant";
    for (const QORBuiltInField& field : builtInFields()) {
        if (toLowerText(field.name) == lowerName) return describe(field.valueType, field.cursorType);
    }
    const Prefix* const prefix = findPrefix(lowerName);
    return prefix == nullptr ? std::string() : describe(TValueType::String, prefix->cursorType);
}

std::vector<std::string_view> nearestNames(std::string_view name) {
    if (name.size() > longestName) return {};
    const std::string written = toLowerText(name);
    const std::size_t most = 1 + written.size() / 3;
    std::vector<std::pair<std::size_t, std::string_view>> candidates;
    const auto consider = [&](std::string_view declared) {
        const std::size_t far = distance(written, declared);
        if (far <= most) candidates.emplace_back(far, declared);
    };
    for (const QORBuiltInField& field : builtInFields())
        consider(field.name);
    consider("true");
    consider("false");
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string_view> names;
    for (const auto& [far, declared] : candidates) {
        // Much better ones make the others noise.
        if (names.size() == mostSuggestions || far > candidates.front().first + 1) break;
        names.push_back(declared);
    }
    return names;
}

}  // namespace QOR
