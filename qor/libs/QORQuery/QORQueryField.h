/// \file
/// How an output field is spelled.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

class QORBinaryIterator;

/// A column, or an aggregate over one.
struct QORQueryField {
    std::string column;
    std::string function;  ///< empty for a plain column
    friend bool operator==(const QORQueryField&, const QORQueryField&) = default;
};

/// `column`, `"any column"` or `function(column)`; anything that has none of these forms is the name of a column as it
/// stands.
QOR_API QORQueryField parseQueryField(std::string_view text);

/// Adds the field to the select element that the cursor stands on. \returns 0, or else what the cursor answered that
/// had no room; the element is then to be thrown away
QOR_API int putQueryField(QORBinaryIterator& select, const QORQueryField& field);

/// The name of the field's column in an ordered answer: the column's, or "count(id)".
QOR_API std::string answerName(const QORQueryField& field);

/// The name of an aggregate in a request: SQL's "avg" is "average", others are passed on as they are spelled.
QOR_API std::string aggregateName(std::string_view function);

/// A name in double quotes without them (two inside stand for one); any other text unchanged.
QOR_API std::string unquoteName(std::string_view text);
/// The name in double quotes, so that it is read back as it is.
QOR_API std::string quoteName(std::string_view name);

/// The items of a list that has commas between them, without blanks around them; a comma between double quotes belongs
/// to a name. At least one; where a name is missing, it is empty. Parts of the text.
QOR_API std::vector<std::string_view> splitQueryList(std::string_view text);

}  // namespace QOR
