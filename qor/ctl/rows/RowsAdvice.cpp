#include "rows/RowsAdvice.h"

#include <algorithm>
#include <string_view>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORFilterNames.h"
#include "QORPager/QORSources.h"
#include "filter/FilterInspector.h"
#include "rows/ShortNames.h"
#include "select/SelectAdvice.h"

namespace QOR {
namespace {

/// Fields of other records that are called alike; more are no help.
constexpr std::size_t mostLikewise = 4;
constexpr std::string_view environmentFields = "pager.env.";

bool isConstant(const TToken& token) {
    return token.tokenClass == tcString || token.tokenClass == tcNumber;
}

/// Whether the filter says nothing but what the source takes from it: one comparison for each constant, joined by
/// "and". A filter that cannot be read counts as understood: its error is the answer.
class FilterCheck {
public:
    FilterCheck(const QORSource& source, std::string_view text)
        : m_source(source), m_text(source.ignoresCase ? withoutLower(text) : text) {
        expect(QORConstantTurn::Always);
        forEachName(m_text, [this](std::string_view name) { m_filter.setIdentifier(name, "", false); });
        m_filter.initializeIdentifiers();
        m_filter.setExpression(m_text);
    }

    bool isUsedWholly() {
        const TNode* const tree = m_filter.buildTree();
        if (tree == nullptr) return true;
        expectCondition();
        std::vector<const TNode*> open{tree};
        while (!open.empty()) {
            const TNode& node = *open.back();
            open.pop_back();
            if (node.token().type == ttAnd || (node.token().type == ttOr && isCategories(node))) {
                for (const TNode& child : node.children())
                    open.push_back(&child);
            } else if (!isCategory(node) && !take(node)) {
                return false;
            }
        }
        return true;
    }

private:
    void expect(QORConstantTurn turn) {
        for (const QORSourceConstant& constant : m_source.constants)
            if (constant.turn == turn) m_expected.push_back(&constant);
    }

    /// What the turns of constants mean to a source that reads records is asked of the filter alone here: there is no
    /// database whose failure makes the source go on with the next alternative.
    void expectCondition() {
        for (const QORSourceConstant& constant : m_source.constants) {
            if (constant.turn != QORConstantTurn::Alternative) continue;
            bool found = false;
            m_filter.extractConstByIdentifierAndOperation(constant.name, constant.operation, found);
            if (!found) continue;
            m_expected.push_back(&constant);
            return;
        }
        expect(QORConstantTurn::Last);
    }

    static bool isComparison(const TNode& node) {
        return node.children().size() == 2 && node.children().back().token().tokenClass == tcIdentifier &&
               isConstant(node.children().front().token());
    }

    /// A comparison that a constant is taken from. Each is taken once.
    bool take(const TNode& node) {
        if (!isComparison(node)) return false;
        const auto found = std::find_if(m_expected.begin(), m_expected.end(), [&](const QORSourceConstant* constant) {
            return constant->name == node.children().back().token().text && constant->operation == node.token().type;
        });
        if (found == m_expected.end()) return false;
        m_expected.erase(found);
        return true;
    }

    bool isCategory(const TNode& node) const {
        if (!isComparison(node) || node.token().type != ttEqual) return false;
        const std::string asWritten =
            node.children().back().token().text + "='" + node.children().front().token().text + "'";
        return std::any_of(m_source.categories.begin(), m_source.categories.end(),
                           [&](const QORSourceCategory& category) { return category.filterText == asWritten; }) &&
               m_text.find(asWritten) != std::string::npos;
    }
    bool isCategories(const TNode& node) const {
        return std::all_of(node.children().begin(), node.children().end(),
                           [this](const TNode& child) { return isCategory(child); });
    }

    const QORSource& m_source;
    std::string m_text;
    std::vector<const QORSourceConstant*> m_expected;
    TExpressionEvaluation m_filter;
};

/// What tells a time from now, which views know and the filter of rows does not. \returns its text; empty for none
std::string timeFromNow(std::string_view filter, std::int64_t now) {
    for (std::size_t at = 0; at < filter.size(); ++at) {
        const char c = filter[at];
        if (c == '\'' || c == '"') {
            const std::size_t end = std::min(filter.find(c, at + 1), filter.size());
            const std::string_view text = filter.substr(at + 1, end - at - 1);
            if (!parseTime(text) && parseRelativeTime(text, now)) return std::string(text);
            at = end;
        } else if (isDigitChar(c) && (at == 0 || !isWordChar(filter[at - 1]))) {
            std::size_t end = at;
            while (end < filter.size() && isWordChar(filter[end]))
                ++end;
            const std::string_view word = filter.substr(at, end - at);
            if (parseDuration(word)) return "-" + std::string(word);
            at = end - 1;
        }
    }
    return {};
}

std::string_view columnOf(const QORSource& source, std::string_view field) {
    for (const QORSourceColumn& column : source.columns)
        if (column.field == field) return column.column;
    return {};
}

/// The command that asks the view, with those of the fields that the view has.
std::string selectCommand(const RowsOptions& options, const QORSource& source) {
    std::string command = "qorctl select --view " + std::string(source.view);
    bool any = false;
    for (const std::string& field : options.fields) {
        const std::string_view column = columnOf(source, field);
        if (column.empty()) continue;
        command.append(" -f ").append(column);
        any = true;
    }
    if (!any) command.append(" -f ").append(source.columns.front().column);
    if (options.where) command += " --where CONDITION";
    for (std::string_view key : options.sort) {
        const bool descending = key.starts_with('-');
        const std::string_view column = columnOf(source, key.substr(descending ? 1 : 0));
        if (!column.empty()) command.append(descending ? " --sort -" : " --sort ").append(column);
    }
    if (options.limit > 0) command += " --limit " + std::to_string(options.limit);
    if (options.offset > 0) command += " --offset " + std::to_string(options.offset);
    return command;
}

}  // namespace

std::vector<std::string> adviseOnRows(const RowsOptions& options) {
    std::vector<std::string> advice;
    const QORSource* const source = options.narrow ? sourceOfFields(options.fields) : nullptr;
    if (source == nullptr) return advice;
    const std::string noun(source->noun);
    if (!source->hasRows) {
        advice.push_back(noun + " are not listed by themselves");
    } else {
        if (!options.sort.empty())
            advice.push_back("--sort has no effect on " + noun + ", whose rows come newest first");
        if (!source->hasPages && (options.limit > 0 || options.offset > 0))
            advice.push_back("--limit and --offset have no effect on " + noun);
        if (options.where && !FilterCheck(*source, *options.where).isUsedWholly())
            advice.push_back("--where holds conditions that have no effect on " + noun);
        if (!options.where && !source->categories.empty())
            advice.push_back(std::string(source->records) +
                             " are found by their category only, for example --where \"" +
                             std::string(source->categories.back().filterText) + "\"");
    }
    if (!advice.empty())
        advice.push_back("without --narrow it has, and the view " + std::string(source->view) +
                         " does it too: " + selectCommand(options, *source));
    return advice;
}

std::string adviseOnRefusedRows(const RowsOptions& options, const FilterNames& names) {
    std::string lines;
    const auto addLine = [&lines](const std::string& line) {
        if (!line.empty()) lines += (lines.empty() || lines.ends_with('\n') ? "" : "\n") + line;
    };
    const QORSource* const source = findSource(options.source);
    const auto addName = [&](std::string_view name) {
        if (!names.describe(name).empty()) return;
        std::vector<std::string_view> meant;
        if (source != nullptr) meant = names.likewise(name);
        // Those of other records can stand beside these only where they are of environments.
        std::erase_if(meant, [&](std::string_view field) {
            return !field.starts_with(source->namePrefix) && !field.starts_with(environmentFields);
        });
        if (meant.empty() || meant.size() > mostLikewise) meant = names.nearest(name);
        if (source == nullptr) return addLine(adviseOnNames(name, meant));
        std::string line;
        for (const std::string_view near : meant)
            line += (line.empty() ? "did you mean " : ", ") + ShortNames(names, *source).shortest(near);
        addLine(line.empty() ? line : line + "?");
    };
    for (const std::string& field : options.fields)
        addName(field);
    for (const std::string& key : options.sort)
        addName(std::string_view(key).substr(key.starts_with('-') ? 1 : 0));
    if (!options.where) return lines;
    addLine(adviseOnTimes(*options.where));
    if (const std::string time = timeFromNow(*options.where, currentTime()); !time.empty())
        addLine("the filter of rows tells no time from now; --since=" +
                (time.find(' ') == std::string::npos ? time : quoteText(time)) + " and --until do");
    if (const std::string mistake = explainFilter(*options.where, names); !mistake.empty())
        addLine("--where: " + mistake);
    return lines;
}

std::string describeSources() {
    std::string text;
    for (const QORSource& source : pagerSources()) {
        if (!source.hasRows) continue;
        const auto line = [&](std::string_view what, std::string_view meaning) {
            text.append("  ").append(source.title).append(longestSourceTitle() - source.title.size() + 2, ' ');
            text.append(what).append("  (").append(meaning).append(")\n");
        };
        for (const QORSourceConstant& constant : source.constants)
            line(std::string(constant.name).append(" ").append(spellingOf(constant.operation)), constant.meaning);
        for (const QORSourceCategory& category : source.categories)
            line(category.filterText, "without blanks");
    }
    return text;
}

}  // namespace QOR
