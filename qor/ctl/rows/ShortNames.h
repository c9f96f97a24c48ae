/// \file
/// Names of fields without the source that they all begin with.
#pragma once

#include <string>
#include <string_view>

#include "QORPager/QORSources.h"
#include "filter/FilterNames.h"

namespace QOR {

/// The source whose records people call so: "operations"; null when there is none.
const QORSource* findSource(std::string_view records);
/// The source that fields of these names are of, or else of environments; null when they are of none.
const QORSource* sourceOfFields(const std::vector<std::string>& fields);

/// Short names beside one source. Unchanging.
class ShortNames {
public:
    ShortNames(const FilterNames& names, const QORSource& source) : m_names(names), m_source(source) {}

    /// The field's whole name: of one of the source's fields, of a field beside them (`env.title`), or of a parameter
    /// of the records (`package.name`). A name that is whole, or of which nothing is known, is as it was, the latter
    /// with the source's beginning where it has no point, so that it is refused by a name that says what was asked.
    std::string whole(std::string_view name) const;
    /// The shortest name that stands for a field's whole one.
    std::string shortest(std::string_view name) const;
    /// A filter with whole names; quoted texts and words that are none stay.
    std::string inFilter(std::string_view filter) const;

private:
    std::string find(std::string_view name) const;

    const FilterNames& m_names;
    const QORSource& m_source;
};

}  // namespace QOR
