/// \file
/// The names that a request of operator "pager" may hold, as an agent knows them. Whoever explains filters, spells
/// names or lists fields asks here, so that no two of them disagree.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "QORLibLocal/QORVocabulary.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORFieldSet.h"
#include "QORQuery/QORColumnKind.h"

namespace QOR {

/// Unchanging once it is made. Names are found in any case, as the filter language finds them.
class FilterNames {
public:
    /// \param vocabulary of the agent; null for the names that are there with the shipped one as far as they are known
    /// without it. It becomes the vocabulary of the process.
    explicit FilterNames(const QORPtr<const QORVocMap>& vocabulary = nullptr);

    const QORFieldSet& fields() const noexcept { return m_fields; }

    /// Declares the fields with empty values, those of environments as special, and every name of the text that falls
    /// under a prefix.
    void declare(TExpressionEvaluation& evaluator, std::string_view text) const;
    /// Whether there is a field of just this name; parameters, which are made on demand, are none.
    bool isField(std::string_view name) const { return find(name) != nullptr; }
    /// "text, environments" for a name that is declared; "" for any other.
    std::string describe(std::string_view name) const;
    /// The declared names that one could have meant by an undeclared one, the nearest first, at most three.
    std::vector<std::string_view> nearest(std::string_view name) const;
    /// The declared names whose last part is that of another one.
    std::vector<std::string_view> likewise(std::string_view name) const;
    /// What the fields of these names hold, for those that are known to hold one value that is no text, or an
    /// identifier.
    std::map<std::string, QORColumnKind, std::less<>> kindsOf(const std::vector<std::string>& names) const;
    /// The name as the operator spells it, as far as it is known; any other as it is.
    std::string spell(std::string_view name) const;

private:
    const QORField* find(std::string_view name) const;
    const std::string* findPrefix(std::string_view name) const;

    QORFieldSet m_fields;
};

}  // namespace QOR
