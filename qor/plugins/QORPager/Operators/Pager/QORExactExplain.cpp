#include "QORPager/Operators/Pager/QORExactExplain.h"

#include <algorithm>
#include <string>

#include "QORLibAgent/QORSecurity.h"
#include "QORPager/QORExpressionTables.h"

namespace QOR {

namespace {

std::string spelled(const QORConjunct& conjunct) {
    const std::string_view quote = conjunct.isText ? "'" : "";
    std::string text = conjunct.field->name;
    text.append(" ").append(spellingOf(conjunct.operation)).append(" ");
    return text.append(quote).append(conjunct.constant).append(quote);
}

std::string_view wordOf(QORRowGrouping grouping) {
    if (grouping == QORRowGrouping::Row) return "read";
    return grouping == QORRowGrouping::Second ? "second" : "sorted";
}

std::string whatNarrows(const QORSource& source) {
    std::string names;
    for (const QORSourceConstant& constant : source.constants) {
        const bool taken = constant.use == QORConstantUse::Latest || constant.use == QORConstantUse::Environment ||
                           constant.use == QORConstantUse::Storage;
        if (taken) names.append(names.empty() ? "" : ", ").append(constant.name);
    }
    return names;
}

void warnOfNarrowing(const QORExactExplained& what, QORExplanation& explanation) {
    if (what.narrowing.nothing) {
        explanation.warn({.code = "always_false", .message = "no time satisfies what the filter says of it"});
    } else if (what.source.hasRows && !explanation.tested.empty() && explanation.narrowing.empty()) {
        explanation.warn(
            {.code = "narrows_nothing",
             .message = "nothing in the filter narrows what is read: all " + std::string(what.source.records) +
                        " are read and tested; under nothing but \"and\" these narrow: " + whatNarrows(what.source)});
    }
}

}  // namespace

QORExplanation explainExact(const QORExactExplained& what, const QORSingleTypes& types) {
    QORExplanation explanation;
    explanation.source = what.source.records;
    explanation.isRestricted = !QORRowAccess::current().isFull();
    for (std::size_t i = 0; i < what.filter.conjuncts().size(); ++i) {
        const std::vector<std::size_t>& left = what.narrowing.left;
        const bool isLeft = std::binary_search(left.begin(), left.end(), i);
        (isLeft ? explanation.ignored : explanation.narrowing).push_back(spelled(what.filter.conjuncts()[i]));
    }
    for (const TNode* const other : what.filter.others())
        explanation.ignored.push_back(other->getInfix());
    if (!what.narrowing.isAll) explanation.tested = what.where;
    explanation.order = wordOf(what.grouping);
    // Rows that the asker does not see are never counted; but what is expected is for those alone who see all.
    if (!explanation.isRestricted && what.rows.countsQuickly())
        explanation.most = static_cast<std::int64_t>(what.rows.count());
    if (what.narrowing.isAll) explanation.estimate = explanation.most;
    for (const QORConditionWarning& warning : lintFilter(what.where, types))
        explanation.warn(warning);
    warnOfNarrowing(what, explanation);
    return explanation;
}

}  // namespace QOR
