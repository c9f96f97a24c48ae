#include "QORPager/QORFilterLint.h"

#include <algorithm>
#include <limits>
#include <map>
#include <string>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORFilterNames.h"

namespace QOR {
namespace {

/// What the filter says of a field's one value.
struct Range {
    std::optional<std::string> text{};
    std::int64_t least = std::numeric_limits<std::int64_t>::min();
    std::int64_t most = std::numeric_limits<std::int64_t>::max();
};

class FilterLinter {
public:
    FilterLinter(std::string_view text, const QORSingleTypes& types) : m_types(types) {
        forEachName(text, [this](std::string_view name) { m_filter.setIdentifier(name, "", false); });
        m_filter.initializeIdentifiers();
        m_filter.setExpression(text);
    }

    std::vector<QORConditionWarning> lint() {
        const TNode* const tree = m_filter.buildTree();
        if (tree == nullptr) return {};
        std::vector<const TNode*> open{tree};
        while (!open.empty()) {
            const TNode& node = *open.back();
            open.pop_back();
            lookAt(node);
            for (const TNode& child : node.children())
                open.push_back(&child);
        }
        judge(*tree);
        std::stable_sort(m_warnings.begin(), m_warnings.end(),
                         [](const auto& a, const auto& b) { return a.offset < b.offset; });
        return std::move(m_warnings);
    }

private:
    void warn(std::string_view code, const TToken& at, std::string message, std::string suggestion = {}) {
        if (m_warnings.size() >= mostWarnings) return;
        m_warnings.push_back({.code = code,
                              .message = std::move(message),
                              .offset = at.position,
                              .found = at.text,
                              .suggestion = std::move(suggestion)});
    }

    void lookAt(const TNode& node) {
        if (node.children().size() != 2 || node.token().tokenClass != tcOperator) return;
        const TToken& right = node.children().front().token();
        if (node.token().type == ttLike) return lookAtPattern(right);
        if (!isComparison(node.token().type)) return;
        for (const TNode& operand : node.children()) {
            const TToken& token = operand.token();
            if (token.tokenClass == tcString && isSameWord(token.text, "null"))
                warn("compares_null", token, "this is the text \"null\"; what a row lacks is the empty text", "''");
        }
    }

    void lookAtPattern(const TToken& pattern) {
        if (pattern.tokenClass != tcString || pattern.text.size() < 3) return;
        if (pattern.text.find('%', 1) >= pattern.text.size() - 1) return;
        warn("inner_wildcard", pattern,
             "% is a wildcard only as the first and the last character of a pattern, elsewhere it stands for itself");
    }

    /// Of what stands under nothing but "and".
    void judge(const TNode& tree) {
        std::map<std::string, Range> ranges;
        std::vector<const TNode*> open{&tree};
        while (!open.empty()) {
            const TNode& node = *open.back();
            open.pop_back();
            if (node.token().type == ttAnd) {
                for (const TNode& child : node.children())
                    open.push_back(&child);  // the left operand is the last one, and taken first
            } else if (node.children().size() == 2 && contradicts(node, ranges)) {
                warn("always_false", node.children().back().token(),
                     "no value of " + quoteText(node.children().back().token().text) +
                         " satisfies this and what stands before it");
            }
        }
    }

    bool contradicts(const TNode& comparison, std::map<std::string, Range>& ranges) const {
        const TToken& name = comparison.children().back().token();
        const TToken& constant = comparison.children().front().token();
        if (name.tokenClass != tcIdentifier) return false;
        const auto type = m_types(name.text);
        if (type == TValueType::String && constant.tokenClass == tcString && comparison.token().type == ttEqual) {
            Range& range = ranges[toLowerText(name.text)];
            const bool isOther = range.text && *range.text != constant.text;
            range.text = constant.text;
            return isOther;
        }
        const auto number = parseInt32(constant.text);
        if (type != TValueType::Integer || constant.tokenClass != tcNumber || !number) return false;
        Range& range = ranges[toLowerText(name.text)];
        const bool wasPossible = range.least <= range.most;
        narrow(range, comparison.token().type, *number);
        return wasPossible && range.least > range.most;
    }

    static void narrow(Range& range, TTokenType operation, std::int64_t number) {
        const auto notBelow = [&](std::int64_t bound) { range.least = std::max(range.least, bound); };
        const auto notAbove = [&](std::int64_t bound) { range.most = std::min(range.most, bound); };
        switch (operation) {
            case ttEqual:
                return notBelow(number), notAbove(number);
            case ttGreater:
                return notBelow(number + 1);
            case ttGreaterOrEqual:
                return notBelow(number);
            case ttLower:
                return notAbove(number - 1);
            case ttLowerOrEqual:
                return notAbove(number);
            default:
                return;
        }
    }

    const QORSingleTypes& m_types;
    TExpressionEvaluation m_filter;
    std::vector<QORConditionWarning> m_warnings;
};

}  // namespace

std::vector<QORConditionWarning> lintFilter(std::string_view filter, const QORSingleTypes& types) {
    return FilterLinter(filter, types).lint();
}

}  // namespace QOR
