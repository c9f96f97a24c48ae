/// \file
/// The filter of an exact request, asked of row after row.
#pragma once

#include <string>
#include <vector>

#include "QORPager/Operators/Pager/QORExactFields.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORFieldSet.h"

namespace QOR {

class QORArg;

/// A comparison that every row which satisfies the filter satisfies: it stands under nothing but "and". The name is on
/// its left. A time is compared in the form that rows show, an identifier in its usual spelling.
struct QORConjunct {
    const QORField* field;
    TTokenType operation;
    std::string constant;
    bool isText;  ///< the constant is quoted
};

/// The evaluator's filter, asked as it stands. Two things are brought together first: a literal beside a time becomes a
/// text of the form in which times are shown, and a GUID beside an identifier is spelled as those are, so that both
/// mean what they look like. Changes the evaluator's compiled filter, binds its names and leaves them empty; whoever
/// takes constants from it by name does that before.
class QORExactFilter {
public:
    /// \param evaluator its filter is compiled; null: every row satisfies it \param fields that it may name
    QORExactFilter(TExpressionEvaluation* evaluator, const QORFieldSet& fields, QORExactFields& exactFields);
    ~QORExactFilter();
    QORExactFilter(const QORExactFilter&) = delete;
    QORExactFilter& operator=(const QORExactFilter&) = delete;

    /// Whether the row, with some combination of the values that its fields have, satisfies it.
    /// \returns false, too, when it cannot be evaluated: error() tells so then, and it is of no further use
    bool holds(const QORArg& row);
    /// Why it could not be evaluated; empty while it could.
    const std::string& error() const noexcept { return m_error; }

    const std::vector<QORConjunct>& conjuncts() const noexcept { return m_conjuncts; }
    /// Whether the conjuncts say all that it says.
    bool isConjunction() const noexcept { return m_others.empty(); }
    /// What else it says, part by part; of the evaluator's tree.
    const std::vector<const TNode*>& others() const noexcept { return m_others; }

private:
    struct Binding {
        const QORField* field;
        TIdentifierHandle handle;
    };

    void findFields(const QORFieldSet& fields, QORExactFields& exactFields);
    const QORField* fieldOf(const TToken& name) const;
    void changeConstant(const TToken& name, TToken& constant) const;
    void findConjuncts();
    bool addConjunct(const TNode& node);
    bool evaluate();

    TExpressionEvaluation* m_evaluator;
    std::vector<Binding> m_bindings;
    std::vector<const QORField*> m_several;  ///< those that have more than one value in the row
    std::vector<QORConjunct> m_conjuncts;
    std::vector<const TNode*> m_others;
    std::string m_error;
};

}  // namespace QOR
