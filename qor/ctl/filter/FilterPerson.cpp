// The inspector's mode for people.
#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "QORPager/QORDateTimeRewrite.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORSources.h"
#include "filter/FilterInspector.h"
#include "filter/FilterNames.h"
#include "filter/FilterTree.h"
#include "output/QueryErrorText.h"
#include "output/TextWidth.h"

namespace QOR {
namespace {

constexpr std::size_t longestMessage = 100;  ///< columns

void appendSection(std::string_view title, std::string& out) {
    out.append("\n").append(title).append("\n");
}

std::string visible(std::string_view text) {
    std::string out;
    appendVisible(text, out);
    return out;
}

/// What is wrong with a sequence whose operators and operands do not go together, and where. The tree only knows that
/// they do not; in the order of the text it shows.
QORQueryError explainStructure(const TExpressionEvaluation& evaluator) {
    std::vector<const TToken*> tokens;
    for (const TToken& token : evaluator.postfix())
        tokens.push_back(&token);
    std::sort(tokens.begin(), tokens.end(), [](const auto* a, const auto* b) { return a->position < b->position; });
    bool wantsOperand = true;
    for (const TToken* token : tokens) {
        const int arity = arityOf(*token);
        if (arity < 0) {
            return {token->position,
                    "\"" + token->text + "\" stands only in: pager.env.eid in (unit '...', recursive)"};
        }
        const bool binary = arity == 2;
        if (binary && wantsOperand) {
            std::string message = "an operand is missing before \"" + token->text + "\"";
            if (token->type == ttSub) message += "; a minus is a sign only behind a bracket or a comparison: 3 - (-2)";
            return {token->position, message};
        }
        if (!binary && !wantsOperand) return {token->position, "an operator is missing"};
        wantsOperand = arity > 0;
    }
    if (wantsOperand) return {evaluator.getExpression().size(), "an operand is missing"};
    return {evaluator.getErrorPosition(),
            "an operator follows another of the same rank; put its operand in brackets, as in: "
            "not (not x)"};
}

std::string explainError(TExpressionEvaluation& evaluator, const FilterNames& names) {
    const TErrorType code = evaluator.getErrorCode();
    const std::string message = cutToWidth(visible(evaluator.getErrorMessage()), longestMessage);
    if (code == etOperatorExpected) {
        const QORQueryError place = explainStructure(evaluator);
        return describeQueryError(evaluator.getExpression(), {place.offset(), message + ": " + place.what()});
    }
    std::string out = describeQueryError(evaluator.getExpression(), {evaluator.getErrorPosition(), message});
    if (code == etUndeclaredIdentifier) {
        const std::string_view name = std::string_view(evaluator.getErrorDetail());
        const std::vector<std::string_view> near = names.nearest(name);
        for (const std::string_view nearest : near) {
            out.append(nearest == near.front() ? "did you mean " : "          or ").append(nearest).append("\n");
        }
        if (near.empty() && name.find('.') == std::string_view::npos)
            out.append("a text stands in quotes: '").append(visible(name)).append("'\n");
    }
    return out;
}

void describeFields(const TExpressionEvaluation& evaluator, const FilterNames& names, std::string& out) {
    appendSection("Fields used", out);
    std::size_t width = 0;
    const auto& used = evaluator.usedIdentifiers();
    for (const std::string& name : used)
        width = std::max(width, textWidth(visible(name)));
    for (const std::string& name : used) {
        const std::string shown = visible(name);
        out.append("  ").append(shown).append(width - textWidth(shown) + 2, ' ');
        out.append(names.describe(name)).append("\n");
    }
    if (used.empty()) out += "  none\n";
}

/// What one data source takes from the filter, a line each.
std::vector<std::string> takenConstants(TExpressionEvaluation& evaluator, const QORSource& source) {
    std::vector<std::string> lines;
    for (const QORSourceConstant& wanted : source.constants) {
        bool found = false;
        const std::string constant =
            evaluator.extractConstByIdentifierAndOperation(wanted.name, wanted.operation, found);
        if (!found) continue;
        lines.push_back(std::string(wanted.meaning) + ": " + std::string(wanted.name) + " " +
                        std::string(spellingOf(wanted.operation)) + " " + visible(constant));
    }
    for (const QORSourceCategory& category : source.categories) {
        if (evaluator.getExpression().find(category.filterText) != std::string::npos)
            lines.push_back("category: " + std::string(category.filterText));
    }
    return lines;
}

void describeConstants(TExpressionEvaluation& evaluator, const FilterNames& names, std::string& out) {
    appendSection("Constants that each data source takes from it", out);
    const std::string text = evaluator.getExpression();
    TExpressionEvaluation withoutCase(withoutLower(text));
    names.declare(withoutCase, text);
    for (const QORSource& source : pagerSources()) {
        TExpressionEvaluation& reader = source.ignoresCase ? withoutCase : evaluator;
        std::vector<std::string> lines = takenConstants(reader, source);
        if (lines.empty()) lines.emplace_back(reader.isError() ? "cannot read it without \"lower\"" : "none");
        std::string_view title = source.title;
        for (const std::string& line : lines) {
            out.append("  ").append(title).append(longestSourceTitle() - title.size() + 2, ' ');
            out.append(line).append("\n");
            title = {};
        }
    }
}

bool isBoolean(const TToken& root) {
    if (root.tokenClass == tcIdentifier) return (*root.identifier)->type() == TValueType::Boolean;
    return root.type == ttIn || (root.type >= ttOr && root.type <= ttLike);
}

void describeParts(TExpressionEvaluation& evaluator, std::string& out) {
    appendSection("Read as", out);
    out.append("  ").append(visible(evaluator.getInfix())).append("\n");
    if (evaluator.onlySpecial() || evaluator.onlyNotSpecial()) return;
    out.append("  of environments: ").append(visible(evaluator.getInfixSpecial())).append("\n");
    out.append("  of other rows: ").append(visible(evaluator.getInfixNotSpecial())).append("\n");
}

}  // namespace

std::string explainFilter(std::string_view text, const FilterNames& names) {
    TExpressionEvaluation evaluator(text);
    names.declare(evaluator, text);
    return evaluator.buildTree() == nullptr ? explainError(evaluator, names) : std::string();
}

int runFilterPerson(std::string_view text, const FilterNames& names, std::ostream& out, std::ostream& err) {
    TExpressionEvaluation evaluator(text);
    names.declare(evaluator, text);
    const TNode* tree = evaluator.buildTree();
    if (tree == nullptr) {
        err << explainError(evaluator, names);
        return 1;
    }
    std::string rewritten(text);
    if (!transformDateTime(rewritten)) {
        err << "a time of a log is compared with what is no date in quotes, such as '2024-05-01 12:00'\n";
        return 1;
    }
    std::string answer;
    if (rewritten != text) {
        answer.append("Dates as seconds: ").append(visible(rewritten)).append("\n\n");
        evaluator.setExpression(rewritten);
        tree = evaluator.buildTree();
        if (tree == nullptr) {
            err << answer << explainError(evaluator, names);
            return 1;
        }
    }
    answer += drawTree(*tree, names);
    describeParts(evaluator, answer);
    describeFields(evaluator, names, answer);
    describeConstants(evaluator, names, answer);
    if (!isBoolean(tree->token())) answer += "\nThe result is not a boolean: no request can filter by it.\n";
    out << answer;
    return 0;
}

}  // namespace QOR
