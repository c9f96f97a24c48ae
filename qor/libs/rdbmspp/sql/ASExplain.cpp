#include "rdbmspp/sql/ASExplain.h"

#include <map>

#include "QORCommon/QORNumbers.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/pool/ASSessionImpl.h"
#include "rdbmspp/sql/ASSqlBuilder.h"

namespace QOR {
namespace {

/// One line, or the numbers of a step and of the one above it, and the line behind them.
void readSteps(OdbcStatement& answer, ASEngine engine, ASPlan& plan) {
    std::map<std::int64_t, std::size_t> depths{{0, 0}};
    while (answer.fetch()) {
        if (answer.columns() == 1) {
            plan.add(engine, answer.value(0), 0);
            continue;
        }
        const std::size_t depth = depths[parseInt64(answer.value(1)).value_or(0)];
        depths[parseInt64(answer.value(0)).value_or(0)] = depth + 1;
        plan.add(engine, answer.value(answer.columns() - 1), depth);
    }
}

}  // namespace

ASPlan explainSelect(ASSession& session, const ASSelect& select) {
    auto& s = session.impl();
    const ASDialect& dialect = *s.dialect;
    const ASComparison where = select.where(dialect);
    ASSqlBuilder builder(dialect, ASPurpose::Execution);
    builder.select(select, where);
    ASPlan plan;
    plan.sql = builder.text();
    plan.isElsewhere = builder.isElsewhere();
    for (const ASValue* const value : builder.parameters())
        value->appendLiteral(plan.parameters.emplace_back(), dialect);
    try {
        s.setElsewhere(builder.isElsewhere());
        // Of its own: what is asked once is not worth a place among the statements that are kept.
        OdbcStatement explain(s.connection, std::string(ASPlan::command(dialect.engine)) + builder.text());
        for (std::size_t i = 0; i < builder.parameters().size(); ++i)
            explain.set(i, *builder.parameters()[i]);
        explain.bindTextColumns();
        explain.execute();
        readSteps(explain, dialect.engine, plan);
        explain.close();
    } catch (const AException& error) {
        throw dialect.explained(error);
    }
    return plan;
}

}  // namespace QOR
