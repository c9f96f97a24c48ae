// Takes a filter. Parses it, builds its trees, writes its text forms and evaluates it, and checks that
//   - the compiled programs give what the methods of the operator table give, for every row and after every rebinding;
//   - parsing again gives the same sequence, and a tree's text forms stay as they are;
//   - a constant that is found is a token of the filter;
//   - the rewriting of dates leaves a text alone that does not hold the names.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "QORPager/QORDateTimeRewrite.h"
#include "QORPager/QORExpressionEvaluation.h"

namespace QOR {
namespace {

void require(bool condition, const char* what) {
    if (condition) return;
    static_cast<void>(std::fprintf(stderr, "failed: %s\n", what));
    std::abort();
}

void bindNames(TExpressionEvaluation& evaluator) {
    evaluator.setIdentifier("a", 1, false);
    evaluator.setIdentifier("b", 0, true);
    evaluator.setIdentifier("s", "abc", false);
    evaluator.setIdentifier("t", "", true);
    evaluator.setIdentifier("flag", true, true);
    evaluator.setIdentifier("pager.env.eid", "7", true);
    evaluator.setIdentifier("pager.op_log.time", 5, false);
}

/// Another row: every value changes, and the types of some.
void bindRow(TExpressionEvaluation& evaluator, int row) {
    evaluator.setIdentifierFromString("a", row == 1 ? "12x" : "0");
    evaluator.setIdentifierFromString("s", row == 1 ? "Web%" : "5");
    evaluator.setIdentifierFromString("t", row == 1 ? "a" : "false");
    evaluator.setIdentifierFromString("flag", row == 1 ? "0" : "TRUE");
    if (row == 2) evaluator.setIdentifier("b", "text", false);
    if (row == 3) evaluator.setIdentifier("s", true, false);
}

/// What an evaluation leaves, as one text.
template <class Evaluate>
std::string outcome(TExpressionEvaluation& evaluator, Evaluate evaluate) {
    std::string text;
    try {
        (evaluator.*evaluate)();
        text = evaluator.doToString();
    } catch (const std::out_of_range&) {
        text = "out of range";
    }
    return text + "|" + evaluator.getErrorMessage();
}

template <class Evaluate>
void compareWays(std::string_view filter, Evaluate compiled, Evaluate byMethods) {
    TExpressionEvaluation first(filter);
    TExpressionEvaluation second(filter);
    bindNames(first);
    bindNames(second);
    for (int row = 0; row < 4; ++row) {
        if (row > 0) {
            bindRow(first, row);
            bindRow(second, row);
        }
        require(outcome(first, compiled) == outcome(second, byMethods), "a program gives what the methods give");
    }
}

void checkForms(std::string_view filter) {
    TExpressionEvaluation evaluator(filter);
    bindNames(evaluator);
    const std::string infix = evaluator.getInfix();
    const std::string special = evaluator.getInfixSpecial();
    const std::string notSpecial = evaluator.getInfixNotSpecial();
    const std::string postfix = evaluator.getPostfix();
    require(postfix == evaluator.getPostfix(), "parsing again gives the same sequence");
    require(infix == evaluator.getInfix() && special == evaluator.getInfixSpecial() &&
                notSpecial == evaluator.getInfixNotSpecial(),
            "text forms stay as they are");
    require(!evaluator.prepareSpecial() || special == "Error", "an error has no tree");
    for (const TTokenType type : {ttEqual, ttLike, ttIn, ttGreaterOrEqual}) {
        for (const char* name : {"a", "s", "pager.env.eid.InPlaceholder"}) {
            bool found = false;
            const std::string constant = evaluator.extractConstByIdentifierAndOperation(name, type, found);
            require(!found || (postfix.find(constant) != std::string::npos && evaluator.wasIdentifierUsed(name)),
                    "a constant is a token beside its name");
        }
    }
}

void checkDates(std::string_view filter) {
    std::string text(filter);
    const bool named =
        text.find("pager.op_log.time") != std::string::npos || text.find("pager.event_log.time") != std::string::npos;
    const bool rewritten = transformDateTime(text);
    require(named || (rewritten && text == filter), "a text without the names stays as it is");
}

}  // namespace
}  // namespace QOR

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Evaluation = QOR::TExpressionEvaluation;
    const std::string_view filter(reinterpret_cast<const char*>(data), size);
    QOR::compareWays(filter, &Evaluation::evaluate, &Evaluation::evaluateByMethods);
    QOR::compareWays(filter, &Evaluation::evaluateSpecial, &Evaluation::evaluateSpecialByMethods);
    QOR::checkForms(filter);
    QOR::checkDates(filter);
    return 0;
}
