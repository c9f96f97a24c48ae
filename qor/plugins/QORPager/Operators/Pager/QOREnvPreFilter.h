/// \file
/// The environment part of a filter, evaluated over the environments of a snapshot.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORField.h"

namespace QOR {

class QORArg;

/// Binds and evaluates row by row. Refers to the evaluator, whose filter is compiled, and to the fields.
class QOREnvPreFilter {
public:
    /// \param whereFields that the filter names; only those of environments are read from rows
    QOREnvPreFilter(TExpressionEvaluation& evaluator, const std::vector<const QORField*>& whereFields);

    /// \param passed whether the row passes; unchanged on failure
    /// \returns 0; a negative number when the filter cannot be evaluated on the row, see error()
    int evaluate(const QORArg& row, bool& passed);
    /// Evaluates every environment of the list. \param passing gets those that pass
    /// \returns 0; a negative number at the first that cannot be evaluated
    int run(const QOREnvList& list, std::set<QOREID>& passing);
    /// What kept evaluate() from evaluating.
    const std::string& error() const noexcept { return m_error; }

private:
    struct Binding {
        const QORField* field;
        TIdentifierHandle handle;
    };
    TExpressionEvaluation& m_evaluator;
    std::vector<Binding> m_bindings;
    std::string m_error;
};

/// Whether some combination of the values of a row's fields satisfies the evaluator's filter, the values of
/// `fields[index]` and of those behind it being tried in turn. What the filter says of the row as it is bound counts
/// first. \returns false, too, when the filter cannot be evaluated
bool checkMulty(TExpressionEvaluation& evaluator, const QORArg& row, const std::vector<const QORField*>& fields,
                std::size_t index);

}  // namespace QOR
