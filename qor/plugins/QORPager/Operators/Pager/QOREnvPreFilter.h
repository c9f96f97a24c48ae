/// \file
/// The environment part of a filter, evaluated over the environments of a snapshot.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORPager/Operators/Pager/QOREIDFilter.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORFieldViews.h"

namespace QOR {

class QORArg;

/// Binds and evaluates environment by environment, without copying what lies in them. Refers to the evaluator, whose
/// filter is compiled, and to the fields; leaves the names that it binds empty.
class QOREnvPreFilter {
public:
    /// \param whereFields that the filter names; only those of environments are read from rows
    QOREnvPreFilter(TExpressionEvaluation& evaluator, const std::vector<const QORField*>& whereFields);

    ~QOREnvPreFilter();
    QOREnvPreFilter(const QOREnvPreFilter&) = delete;
    QOREnvPreFilter& operator=(const QOREnvPreFilter&) = delete;

    /// \param env not null \param passed whether it passes; unchanged on failure
    /// \returns 0; a negative number when the filter cannot be evaluated on the environment, see error()
    int evaluate(const QORPtr<const QOREnv>& env, bool& passed);
    /// Evaluates every environment of the list. \param passing gets those that pass
    /// \returns 0; a negative number at the first that cannot be evaluated
    int run(const QOREnvList& list, QOREIDList& passing);
    /// What kept evaluate() from evaluating.
    const std::string& error() const noexcept { return m_error; }

private:
    struct Binding {
        QOREnvFieldReader reader;
        TIdentifierHandle handle;
    };
    void fetchAhead(const QOREnvList::Chunk& chunk, std::size_t at) const;

    TExpressionEvaluation& m_evaluator;
    std::vector<Binding> m_bindings;
    std::string m_error;
};

/// For who evaluates the filter on rows: fields of several values have no single one to bind. Binds names of the
/// evaluator, so the caller must own it for the time, as a request does.
///
/// Whether some combination of the values of a row's fields satisfies the evaluator's filter, the values of
/// `fields[index]` and of those behind it being tried in turn. What the filter says of the row as it is bound counts
/// first. \returns false, too, when the filter cannot be evaluated \throws QORException errDeadline
bool checkMulty(TExpressionEvaluation& evaluator, const QORArg& row, const std::vector<const QORField*>& fields,
                std::size_t index);

}  // namespace QOR
