/// \file
/// How an output field is spelled.
#pragma once

#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// A column, or an aggregate over one.
struct QORQueryField {
    std::string column;
    std::string function;  ///< empty for a plain column
    friend bool operator==(const QORQueryField&, const QORQueryField&) = default;
};

/// `column`, `"any column"` or `function(column)`; anything that has none of these forms is the name of a column as it
/// stands.
QOR_API QORQueryField parseQueryField(std::string_view text);

/// The name of an aggregate in a request: SQL's "avg" is "average", others are passed on as they are spelled.
QOR_API std::string aggregateName(std::string_view function);

/// A name in double quotes without them (two inside stand for one); any other text unchanged.
QOR_API std::string unquoteName(std::string_view text);

}  // namespace QOR
