// What would become of a select.
//
// Who does not see all rows is told how he asks, and nothing that rests on rows: plans follow the engine's statistics,
// and a bound counts what is hidden from him.
#include <utility>

#include "QORCommon/QORException.h"
#include "QORDBSchema/QORViewDescriptions.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/QORPagerOperator2.h"
#include "QORQuery/QORExplanation.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/sql/ASExplain.h"

namespace QOR {

void SelectStmnt::explain(QORBinaryIterator& out) {
    if (!m_refusal.empty()) throwException(errFailure, m_refusal, pager2SourcePath, __LINE__);
    QORExplanation explanation;
    explanation.view = m_columns->viewName;
    explanation.isRestricted = isSecurityNeeded();
    if (!m_access.empty()) explanation.access = m_access.Query(m_dialect);
    QORRdbms::instance().read(ASAccess::Read, [&](ASSession& database) {
        explanation.indexes.clear();
        for (QORViewIndex& index : viewIndexes(database, m_columns->viewName))
            explanation.indexes.push_back({std::move(index.name), std::move(index.columns)});
        if (!explanation.isRestricted) explainStatements(database, explanation);
    });
    if (explanation.write(out) != 0) expectAdded(1);
}

void SelectStmnt::explainStatements(ASSession& database, QORExplanation& explanation) const {
    explanation.engine = m_dialect.name;
    explanation.statements.clear();
    for (const ASComparison& behind : behindAfter()) {
        ASPlan plan = explainSelect(database, toPart(behind, 0));
        explanation.statements.push_back({.sql = std::move(plan.sql),
                                          .parameters = std::move(plan.parameters),
                                          .plan = std::move(plan.steps),
                                          .servesCondition = plan.seeks,
                                          .servesOrder = !m_sortColumns.empty() && !plan.sorts,
                                          .isElsewhere = plan.isElsewhere});
    }
    // Without the page's limit and order, which the engine's number would be about.
    ASSelect all = toSelect({}, 0, 0);
    explanation.estimate = explainSelect(database, all).rows;
    explanation.most = mostRows(database);
}

}  // namespace QOR
