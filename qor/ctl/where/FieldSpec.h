/// \file
/// How an output field is spelled on the command line.
#pragma once

#include <string>
#include <string_view>

namespace QOR {

/// A column, or an aggregate over one.
struct FieldSpec {
    std::string column;
    std::string function;  ///< empty for a plain column
    friend bool operator==(const FieldSpec&, const FieldSpec&) = default;
};

/// `column`, `"any column"` or `function(column)`; anything that has none of these forms is the name of a column as it
/// stands.
FieldSpec parseFieldSpec(std::string_view text);

/// The name of an aggregate in a request: SQL's "avg" is "average", others are passed on as they are spelled.
std::string aggregateName(std::string_view function);

/// A name in double quotes without them (two inside stand for one); any other text unchanged.
std::string unquoteName(std::string_view text);

}  // namespace QOR
